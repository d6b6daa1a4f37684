// Test helpers of the factorization (see lu_check.h).
#include "support/lu_check.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <sstream>

#include "interface/state.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "vardenlu.h"

namespace luc {

using vlu::IIN;
using vlu::LUF;
using vlu::VIM;
using vlu::VMI;

int Problem::Factor() const {
  int nn = n, nnz = nz();
  return vlu_factor(&nn, &nnz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(),
                    r.empty() ? nullptr : r.data(), stat.data());
}

Problem From_Columns(int n, const Cols &cols) {
  Problem p;
  p.n = n;
  p.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    for (const auto &e : cols[static_cast<size_t>(j - 1)]) {
      p.rowIdx.push_back(e.first);
      p.colIdx.push_back(j);
      p.val.push_back(e.second);
    }
    p.colStart.push_back(static_cast<int>(p.val.size()) + 1);
  }
  p.stat.assign(static_cast<size_t>(2 * n + 1), 0);
  return p;
}

Triangular Make_Triangular(int n, bool lower, uint64_t seed, double perColumn,
                           double slackShare) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  Triangular t;
  t.prow.assign(static_cast<size_t>(n) + 1, 0);
  t.colOfPos.assign(static_cast<size_t>(n) + 1, 0);
  std::vector<int> perm(static_cast<size_t>(n));
  std::iota(perm.begin(), perm.end(), 1);
  std::shuffle(perm.begin(), perm.end(), gen);
  for (int k = 1; k <= n; ++k) t.prow[size_t(k)] = perm[size_t(k - 1)];
  std::shuffle(perm.begin(), perm.end(), gen);
  std::vector<int> posOfCol(static_cast<size_t>(n) + 1, 0);
  for (int k = 1; k <= n; ++k) {
    t.colOfPos[size_t(k)] = perm[size_t(k - 1)];
    posOfCol[size_t(perm[size_t(k - 1)])] = k;
  }
  auto value = [&](double lo, double hi) {
    const double v = lo + (hi - lo) * uni(gen);
    return uni(gen) < 0.5 ? -v : v;
  };
  std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    const int k = posOfCol[size_t(j)];
    auto &col = cols[size_t(j - 1)];
    col.emplace_back(t.prow[size_t(k)], value(0.5, 2.0));
    const int span = lower ? n - k : k - 1;
    if (span > 0) {
      // About perColumn further elements in distinct positions of the span.
      const int want = std::min(span, static_cast<int>(perColumn * 2.0 * uni(gen) + 0.5));
      std::vector<int> used;
      for (int e = 0; e < want; ++e) {
        const int off = 1 + static_cast<int>(uni(gen) * span) % span;
        const int kk = lower ? k + off : k - off;
        if (std::find(used.begin(), used.end(), kk) != used.end()) continue;
        used.push_back(kk);
        col.emplace_back(t.prow[size_t(kk)], value(0.01, 1.0));
      }
    }
    std::shuffle(col.begin(), col.end(), gen);
  }
  t.p = From_Columns(n, cols);
  for (int k = 1; k <= n; ++k) {
    if (slackShare > 0.0 && uni(gen) < slackShare)
      t.p.stat[size_t(n + 1 + t.prow[size_t(k)] - 1)] = 2;
    else
      t.p.stat[size_t(t.colOfPos[size_t(k)] - 1)] = 2;
  }
  return t;
}

bool Messages::Has(const std::string &text) const { return Find(text) >= 0; }

int Messages::Find(const std::string &text) const {
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].find(text) != std::string::npos) return static_cast<int>(i);
  return -1;
}

std::string Messages::All() const {
  std::string s;
  for (const auto &l : lines) s += l + "\n";
  return s;
}

int Capture_Callback(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  auto *m = static_cast<Messages *>(usrmem);
  const int cnt = std::max(smsg, std::max(dmsg, nmsg));
  for (int i = 0; i < cnt; ++i) m->lines.emplace_back(lines[i]);
  return 0;
}

VMI *Load_Env(const Problem &p) {
  VMI *v = nullptr;
  int status = 0;
  vlu::Allocate_Space(&v, &status);
  if (status != 0) {
    vlu::VMI_Deallocate(&v, &status);
    return nullptr;
  }
  VIM *vim = v->Vim;
  v->Msg_Routine = reinterpret_cast<void (*)()>(&vlu::c_std_message);
  v->Msg_Style = 0;
  v->Threads = 1;
  v->Max_Updates = 2147483647;
  const int n = p.n, nz = p.nz();
  vim->NumRow = n;
  vim->NumCol = n + 1;
  vim->NumNz = nz + n;
  vlu::Allocate_Inversion(v);
  if (!v->EnoughSpace) {
    vlu::VMI_Deallocate(&v, &status);
    return nullptr;
  }
  int32_t *stcl = vim->Stcl.V, *rnum = vim->Rnum.V, *cnum = vim->Cnum.V;
  double *jace = vim->Jace.Val;
  for (int j = 1; j <= n + 1; ++j) stcl[j] = p.colStart[size_t(j - 1)];
  stcl[n + 2] = stcl[n + 1] + n;
  for (int q = 1; q <= nz; ++q) {
    rnum[q] = p.rowIdx[size_t(q - 1)];
    cnum[q] = p.colIdx[size_t(q - 1)];
    jace[q] = p.val[size_t(q - 1)];
  }
  for (int i = 1; i <= n; ++i) {
    rnum[nz + i] = i;
    cnum[nz + i] = n + 1;
    jace[nz + i] = p.r.empty() ? 0.0 : p.r[size_t(i - 1)];
  }
  for (int j = 1; j <= 2 * n + 1; ++j) vim->Basc.V[j] = p.stat[size_t(j - 1)];
  return v;
}

bool Free_Env(VMI *&env) {
  if (env == nullptr) return true;
  int status = 0;
  vlu::VMI_Deallocate(&env, &status);
  return env == nullptr && status == 0;
}

namespace {

struct Entry {
  int32_t row;
  int32_t col;  // place
  double val;
};

// Entries grouped by place, in a counting layout.
struct ByCol {
  std::vector<int32_t> start;  // n + 2
  std::vector<int32_t> row;
  std::vector<double> val;
};

ByCol Group(int32_t n, const std::vector<Entry> &e) {
  ByCol g;
  g.start.assign(size_t(n) + 2, 0);
  for (const Entry &x : e) g.start[size_t(x.col) + 1] += 1;
  g.start[0] = 0;
  for (int32_t c = 1; c <= n + 1; ++c) g.start[size_t(c)] += g.start[size_t(c - 1)];
  g.row.resize(e.size());
  g.val.resize(e.size());
  std::vector<int32_t> pos(g.start.begin(), g.start.end());
  for (const Entry &x : e) {
    const int32_t q = pos[size_t(x.col)]++;
    g.row[size_t(q)] = x.row;
    g.val[size_t(q)] = x.val;
  }
  return g;
}

#define LUC_FAIL(msg)                                   \
  do {                                                  \
    std::ostringstream os_;                             \
    os_ << msg;                                         \
    return ::testing::AssertionFailure() << os_.str();  \
  } while (0)

// Permutations are inverse to each other over 1..n.
::testing::AssertionResult Check_Perms(const VIM *vim) {
  const int32_t n = vim->NumRow;
  for (int32_t k = 1; k <= n; ++k) {
    const int32_t r = vim->Rnto.V[k], c = vim->Cnto.V[k];
    if (r < 1 || r > n || vim->Rotn.V[r] != k) LUC_FAIL("Rnto/Rotn broken at position " << k);
    if (c < 1 || c > n || vim->Cotn.V[c] != k) LUC_FAIL("Cnto/Cotn broken at position " << k);
  }
  return ::testing::AssertionSuccess();
}

// Rows of U at positions 1..last in the U-file: contiguous downward from
// RowUSpace, pivot first, all other columns pivoted later.
::testing::AssertionResult Check_U_Rows(const VMI *env, int32_t last, std::vector<Entry> *out) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  int32_t next = luf->RowUSpace + 1;
  for (int32_t k = 1; k <= last; ++k) {
    const int32_t r = vim->Rnto.V[k];
    const int32_t s = luf->Rstr.V[r], l = luf->Rlen.V[r];
    if (l < 1) LUC_FAIL("U row " << r << " at position " << k << " has length " << l);
    if (s + l != next)
      LUC_FAIL("U row " << r << " at position " << k << " not contiguous: Rstr=" << s
                        << " Rlen=" << l << " expected end " << next - 1);
    if (s < luf->U_elefirst) LUC_FAIL("U row " << r << " starts below U_elefirst");
    next = s;
    if (luf->Ic.V[s] != vim->Cnto.V[k])
      LUC_FAIL("U row " << r << " at position " << k << " does not start with its pivot");
    for (int32_t p = s; p < s + l; ++p) {
      const int32_t c = luf->Ic.V[p];
      if (c < 1 || c > vim->NumRow) LUC_FAIL("U row " << r << " holds column " << c);
      if (p > s && vim->Cotn.V[c] <= k)
        LUC_FAIL("U row " << r << " at position " << k << " holds column " << c
                          << " of position " << vim->Cotn.V[c]);
      out->push_back({r, c, vim->AUrmat.Val[p]});
    }
  }
  if (next != luf->U_elefirst)
    LUC_FAIL("U-file starts at " << next << " but U_elefirst=" << luf->U_elefirst);
  return ::testing::AssertionSuccess();
}

// The L-file: column starts, one pivot row per column, multipliers in rows
// pivoted later, columns in increasing pivot order.  lcol[r] gets the L
// column of pivot row r.
::testing::AssertionResult Check_L(const VMI *env, std::vector<int32_t> *lcol) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  const int32_t n = vim->NumRow;
  lcol->assign(size_t(n) + 1, 0);
  if (luf->L_Cols == 0 && luf->LFileUsed == 0) return ::testing::AssertionSuccess();
  const int32_t *lsor = luf->Lsor.V;
  if (lsor[1] != 1) LUC_FAIL("Lsor(1)=" << lsor[1]);
  if (lsor[luf->L_Cols + 1] != luf->LFileUsed + 1)
    LUC_FAIL("Lsor(L_Cols+1)=" << lsor[luf->L_Cols + 1] << " LFileUsed=" << luf->LFileUsed);
  int32_t lastPos = 0;
  for (int32_t l = 1; l <= luf->L_Cols; ++l) {
    if (lsor[l + 1] < lsor[l]) LUC_FAIL("Lsor decreases at " << l);
    if (lsor[l + 1] == lsor[l]) continue;
    const int32_t piv = luf->Lpiv.V[lsor[l]];
    if (piv < 1 || piv > n) LUC_FAIL("L column " << l << " pivot row " << piv);
    if ((*lcol)[size_t(piv)] != 0) LUC_FAIL("pivot row " << piv << " in two L columns");
    (*lcol)[size_t(piv)] = l;
    const int32_t pos = vim->Rotn.V[piv];
    if (pos <= lastPos) LUC_FAIL("L columns out of pivot order at " << l);
    lastPos = pos;
    for (int32_t e = lsor[l]; e < lsor[l + 1]; ++e) {
      if (luf->Lpiv.V[e] != piv) LUC_FAIL("L column " << l << " mixes pivot rows");
      const int32_t r = luf->Lrow.V[e];
      if (r < 1 || r > n || vim->Rotn.V[r] <= pos)
        LUC_FAIL("L column " << l << " multiplier in row " << r << " not pivoted later");
    }
  }
  return ::testing::AssertionSuccess();
}

// L M = B for every place, where M is given by columns and the model column
// of place c is modelOf[c].
::testing::AssertionResult Check_Product(const VMI *env, const ByCol &m,
                                         const std::vector<int32_t> &lcol,
                                         const std::vector<int32_t> &modelOf, double tol) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  const int32_t n = vim->NumRow, numCol = vim->NumCol;
  std::vector<double> w(size_t(n) + 1, 0.0);
  std::vector<int32_t> touched;
  std::vector<char> mark(size_t(n) + 1, 0);
  auto add = [&](int32_t r, double v) {
    if (!mark[size_t(r)]) {
      mark[size_t(r)] = 1;
      touched.push_back(r);
    }
    w[size_t(r)] += v;
  };
  for (int32_t c = 1; c <= n; ++c) {
    touched.clear();
    for (int32_t q = m.start[size_t(c)]; q < m.start[size_t(c) + 1]; ++q) {
      const int32_t r = m.row[size_t(q)];
      const double v = m.val[size_t(q)];
      add(r, v);
      const int32_t l = lcol[size_t(r)];
      if (l != 0)
        for (int32_t e = luf->Lsor.V[l]; e < luf->Lsor.V[l + 1]; ++e)
          add(luf->Lrow.V[e], luf->Lmat.Val[e] * v);
    }
    const int32_t j = modelOf[size_t(c)];
    double scale = 1.0;
    if (j > numCol) {
      add(j - numCol, -1.0);
    } else {
      for (int32_t p = vim->Stcl.V[j]; p < vim->Stcl.V[j + 1]; ++p) {
        const double a = vim->Jace.Val[p];
        if (std::fabs(a) < env->Tol_Zero) continue;
        add(vim->Rnum.V[p], -a);
        scale = std::max(scale, std::fabs(a));
      }
    }
    for (int32_t r : touched) {
      if (std::fabs(w[size_t(r)]) > tol * scale)
        LUC_FAIL("L U differs from B in row " << r << " of place " << c << " (model column " << j
                                              << "): " << w[size_t(r)]);
      w[size_t(r)] = 0.0;
      mark[size_t(r)] = 0;
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace

::testing::AssertionResult Check_Factors(VMI *env, double tol) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  const int32_t n = vim->NumRow;
  auto res = Check_Perms(vim);
  if (!res) return res;
  for (int32_t k = 1; k <= n; ++k)
    if (vim->Rwcl.V[vim->Rnto.V[k]] != vim->Cbto.V[k])
      LUC_FAIL("Rwcl(Rnto(" << k << ")) differs from Cbto(" << k << ")");
  std::vector<Entry> rows;
  res = Check_U_Rows(env, n, &rows);
  if (!res) return res;
  if (luf->U_numele != static_cast<int32_t>(rows.size()))
    LUC_FAIL("U_numele=" << luf->U_numele << " but U-file holds " << rows.size());
  ByCol u = Group(n, rows);

  // The column copy: pivot first, then rows of earlier positions, the same
  // elements as the row copy.
  if (!luf->ColCopy) LUC_FAIL("column copy of U not marked as built");
  int64_t total = 0;
  std::vector<int32_t> stamp(size_t(n) + 1, 0);
  std::vector<double> value(size_t(n) + 1, 0.0);
  for (int32_t k = 1; k <= n; ++k) {
    const int32_t c = vim->Cnto.V[k];
    const int32_t s = luf->Cstr.V[c], l = luf->Clen.V[c];
    total += l;
    if (l < 1 || s < luf->U_colfirst || s + l - 1 > luf->ColUSpace)
      LUC_FAIL("column " << c << " of U out of its store: Cstr=" << s << " Clen=" << l);
    if (luf->Ir.V[s] != vim->Rnto.V[k]) LUC_FAIL("column " << c << " does not start with its pivot");
    if (l != u.start[size_t(c) + 1] - u.start[size_t(c)])
      LUC_FAIL("row and column copy of U differ in the length of column " << c);
    for (int32_t q = u.start[size_t(c)]; q < u.start[size_t(c) + 1]; ++q) {
      stamp[size_t(u.row[size_t(q)])] = c;
      value[size_t(u.row[size_t(q)])] = u.val[size_t(q)];
    }
    for (int32_t q = s; q < s + l; ++q) {
      const int32_t r = luf->Ir.V[q];
      if (r < 1 || r > n) LUC_FAIL("column " << c << " holds row " << r);
      if (q > s && vim->Rotn.V[r] >= k) LUC_FAIL("column " << c << " holds row " << r << " not above");
      if (stamp[size_t(r)] != c || value[size_t(r)] != luf->Ucmat.Val[q])
        LUC_FAIL("element (" << r << "," << c << ") of the column copy is not in the row copy");
      stamp[size_t(r)] = -c;  // each element once
    }
  }
  if (total != luf->ColUSpace - luf->U_colfirst + 1) LUC_FAIL("column copy not packed at the top");
  for (int32_t q = 1; q < luf->U_colfirst; ++q)
    if (luf->Ir.V[q] != 0) LUC_FAIL("Ir(" << q << ") below the column copy is not zero");
  for (int32_t q = 1; q < luf->U_elefirst; ++q)
    if (luf->Ic.V[q] != 0) LUC_FAIL("Ic(" << q << ") below the U-file is not zero");

  std::vector<int32_t> lcol;
  res = Check_L(env, &lcol);
  if (!res) return res;
  std::vector<int32_t> modelOf(size_t(n) + 1, 0);
  for (int32_t c = 1; c <= n; ++c) modelOf[size_t(c)] = vim->Cbto.V[vim->Cotn.V[c]];
  return Check_Product(env, u, lcol, modelOf, tol);
}

::testing::AssertionResult Check_Extract(VMI *env, double tol) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  const IIN *iin = env->Iin;
  const int32_t n = vim->NumRow;
  const int32_t tria = luf->NumVTria;
  auto res = Check_Perms(vim);
  if (!res) return res;
  if (luf->Num_Post + luf->Num_Pre != tria) LUC_FAIL("NumVTria is not Num_Post + Num_Pre");
  std::vector<Entry> entries;
  res = Check_U_Rows(env, tria, &entries);
  if (!res) return res;

  // The bump: rows and columns of positions above NumVTria.
  const int32_t limit = std::min(luf->ColASpace + 1, luf->U_elefirst);
  int64_t rowCount = 0, colCount = 0;
  int32_t prevEnd = 0;
  for (int32_t k = tria + 1; k <= n; ++k) {
    const int32_t c = vim->Cnto.V[k];
    const int32_t s = luf->Cstr.V[c], l = luf->Clen.V[c];
    if ((s - 1) % 8 != 0) LUC_FAIL("column " << c << " does not start on a cache line: " << s);
    if (s <= prevEnd && l > 0) LUC_FAIL("column " << c << " overlaps the one before it");
    if (s + l - 1 >= limit) LUC_FAIL("column " << c << " runs into the U-file");
    if (l > 0) prevEnd = s + l - 1;
    colCount += l;
    for (int32_t q = s; q < s + l; ++q) {
      const int32_t r = luf->Ir.V[q];
      if (r < 1 || r > n || vim->Rotn.V[r] <= tria) LUC_FAIL("column " << c << " holds row " << r);
      const int32_t p = iin->C2rp.V[q];
      if (p < luf->Rstr.V[r] || p >= luf->Rstr.V[r] + luf->Rlen.V[r])
        LUC_FAIL("C2rp(" << q << ") is outside row " << r);
      if (luf->Ic.V[p] != c || iin->R2cp.V[p] != q) LUC_FAIL("cross pointers broken at " << q);
      entries.push_back({r, c, vim->AUrmat.Val[q]});
    }
  }
  prevEnd = 0;
  for (int32_t k = tria + 1; k <= n; ++k) {
    const int32_t r = vim->Rnto.V[k];
    const int32_t s = luf->Rstr.V[r], l = luf->Rlen.V[r];
    if (s <= prevEnd) LUC_FAIL("row " << r << " overlaps the one before it");
    if (s + l - 1 >= limit) LUC_FAIL("row " << r << " runs into the U-file");
    prevEnd = std::max(prevEnd, s + l - 1);
    rowCount += l;
    for (int32_t p = s; p < s + l; ++p) {
      const int32_t c = luf->Ic.V[p];
      if (c < 1 || c > n || vim->Cotn.V[c] <= tria) LUC_FAIL("row " << r << " holds column " << c);
      const int32_t q = iin->R2cp.V[p];
      if (luf->Ir.V[q] != r || iin->C2rp.V[q] != p) LUC_FAIL("cross pointers broken at row slot " << p);
    }
  }
  if (rowCount != colCount) LUC_FAIL("bump rows hold " << rowCount << " elements, columns " << colCount);

  // Chains in position order.
  if (tria == n) {
    if (iin->RPfrst != 0 || iin->RPlast != 0 || iin->CPfrst != 0 || iin->CPlast != 0)
      LUC_FAIL("chains not empty for an empty bump");
    if (luf->RowFileUsed != 0 || luf->ColFileUsed != 0) LUC_FAIL("file sizes not 0 for an empty bump");
  } else {
    int32_t r = iin->RPfrst, prev = 0, c = iin->CPfrst, prevC = 0;
    for (int32_t k = tria + 1; k <= n; ++k) {
      if (r != vim->Rnto.V[k] || iin->Rppr.V[r] != prev) LUC_FAIL("row chain broken at position " << k);
      if (c != vim->Cnto.V[k] || iin->Cppr.V[c] != prevC) LUC_FAIL("column chain broken at position " << k);
      prev = r;
      prevC = c;
      r = iin->Rpnx.V[r];
      c = iin->Cpnx.V[c];
    }
    if (r != 0 || c != 0 || iin->RPlast != prev || iin->CPlast != prevC) LUC_FAIL("chain ends broken");
    if (luf->RowFileUsed != luf->Rstr.V[prev] + luf->Rlen.V[prev] - 1)
      LUC_FAIL("RowFileUsed=" << luf->RowFileUsed);
    if (luf->ColFileUsed != luf->Cstr.V[prevC] + luf->Clen.V[prevC] - 1)
      LUC_FAIL("ColFileUsed=" << luf->ColFileUsed);
  }

  std::vector<int32_t> lcol;
  res = Check_L(env, &lcol);
  if (!res) return res;
  if (luf->LFileUsed != iin->L_Elements) LUC_FAIL("LFileUsed differs from the L count");
  ByCol m = Group(n, entries);
  std::vector<int32_t> modelOf(size_t(n) + 1, 0);
  for (int32_t c = 1; c <= n; ++c) modelOf[size_t(c)] = vim->Cbto.V[c];
  return Check_Product(env, m, lcol, modelOf, tol);
}

}  // namespace luc
