// Test helpers of the factorization (see lu_check.h).
#include "support/lu_check.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <stdexcept>

#include "interface/state.h"
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

Problem From_Columns(int n, const Cols &cols, bool basic) {
  Problem p;
  p.n = n;
  p.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    for (const auto &e : cols[size_t(j - 1)]) {
      p.rowIdx.push_back(e.first);
      p.colIdx.push_back(j);
      p.val.push_back(e.second);
    }
    p.colStart.push_back(p.nz() + 1);
  }
  p.stat.assign(size_t(2 * n + 1), 0);
  for (int j = 1; basic && j <= n; ++j) p.stat[size_t(j - 1)] = 2;
  return p;
}

Problem All_Slack(int n) {
  Problem p = From_Columns(n, Cols(size_t(n)));
  for (int i = 1; i <= n; ++i) p.stat[size_t(n + i)] = 2;
  return p;
}

Triangular Make_Triangular(int n, bool lower, uint64_t seed, double slackShare) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  auto value = [&](double lo, double hi) {
    return (uni(gen) < 0.5 ? -1 : 1) * (lo + (hi - lo) * uni(gen));
  };
  Triangular t;
  t.prow.resize(size_t(n) + 1);
  std::iota(t.prow.begin(), t.prow.end(), 0);
  std::shuffle(t.prow.begin() + 1, t.prow.end(), gen);
  t.colOfPos = t.prow;
  std::shuffle(t.colOfPos.begin() + 1, t.colOfPos.end(), gen);
  t.cols.resize(size_t(n));
  for (int k = 1; k <= n; ++k) {
    auto &col = t.cols[size_t(t.colOfPos[size_t(k)] - 1)];
    col.emplace_back(t.prow[size_t(k)], value(0.5, 2.0));
    const int span = lower ? n - k : k - 1;
    for (int e = span > 0 ? int(6.0 * uni(gen) + 0.5) : 0; e > 0; --e) {
      const int off = 1 + int(uni(gen) * span) % span,
                row = t.prow[size_t(lower ? k + off : k - off)];
      if (std::none_of(col.begin(), col.end(), [&](const auto &x) { return x.first == row; }))
        col.emplace_back(row, value(0.01, 1.0));  // distinct further positions of the span
    }
    std::shuffle(col.begin(), col.end(), gen);
  }
  t.p = From_Columns(n, t.cols);
  for (int k = 1; k <= n; ++k) {
    const bool slack = slackShare > 0.0 && uni(gen) < slackShare;
    t.p.stat[size_t(slack ? n + t.prow[size_t(k)] : t.colOfPos[size_t(k)] - 1)] = 2;
  }
  return t;
}

int Messages::Find(const std::string &text) const {
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].find(text) != std::string::npos) return int(i);
  return -1;
}

std::string Messages::All() const {
  std::string s;
  for (const auto &l : lines) s += l + "\n";
  return s;
}

static int Capture_Callback(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  auto *m = static_cast<Messages *>(usrmem);
  for (int i = 0; i < std::max(smsg, std::max(dmsg, nmsg)); ++i) m->lines.emplace_back(lines[i]);
  return 0;
}

void ApiTest::SetUp() {
  vlu_destroy();
  vlu_regmsgcb(&msgs, Capture_Callback);
  ASSERT_EQ(vlu_create(), 0);
}

void ApiTest::TearDown() {
  vlu_destroy();
  vlu_regmsgcb(nullptr, nullptr);
  EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
}

VMI *ApiTest::Env() { return vlu::Iface().env; }

void EnvTest::SetUp() { vlu_regmsgcb(&msgs, Capture_Callback); }

void EnvTest::TearDown() {
  int status = 0;
  if (env != nullptr) vlu::VMI_Deallocate(&env, &status);  // reports an imbalance
  vlu_regmsgcb(nullptr, nullptr);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
}

void EnvTest::Load(const Problem &p) {
  int status = 0;
  if (env != nullptr) vlu::VMI_Deallocate(&env, &status);
  vlu::Allocate_Space(&env, &status);
  if (status != 0) throw std::runtime_error("Allocate_Space failed");
  VIM *vim = env->Vim;
  env->Msg_Routine = reinterpret_cast<void (*)()>(&vlu::c_std_message);
  env->Msg_Style = 0;
  env->Threads = 1;
  env->Max_Updates = 2147483647;
  const int n = p.n, nz = p.nz();
  vim->NumRow = n;
  vim->NumCol = n + 1;
  vim->NumNz = nz + n;
  vlu::Allocate_Inversion(env);
  if (!env->EnoughSpace) throw std::runtime_error("Allocate_Inversion failed");
  for (int j = 1; j <= n + 1; ++j) vim->Stcl.V[j] = p.colStart[size_t(j - 1)];
  vim->Stcl.V[n + 2] = vim->Stcl.V[n + 1] + n;  // column t holds r in every row
  for (int q = 1; q <= nz + n; ++q) {
    const bool t = q > nz;
    vim->Rnum.V[q] = t ? q - nz : p.rowIdx[size_t(q - 1)];
    vim->Cnum.V[q] = t ? n + 1 : p.colIdx[size_t(q - 1)];
    vim->Jace.Val[q] = !t ? p.val[size_t(q - 1)] : p.r.empty() ? 0.0 : p.r[size_t(q - nz - 1)];
  }
  for (int j = 1; j <= 2 * n + 1; ++j) vim->Basc.V[j] = p.stat[size_t(j - 1)];
}

#define LUC_FAIL(msg) return ::testing::AssertionFailure() << msg

::testing::AssertionResult Check_Factors(VMI *env, bool afterExtract) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  const IIN *iin = env->Iin;
  const int32_t n = vim->NumRow, numCol = vim->NumCol;
  const int32_t last = afterExtract ? luf->NumVTria : n;  // rows held in the U-file
  const int32_t *rotn = vim->Rotn.V, *cotn = vim->Cotn.V, *rnto = vim->Rnto.V, *cnto = vim->Cnto.V;
  const int32_t *ic = luf->Ic.V, *ir = luf->Ir.V, *rstr = luf->Rstr.V, *rlen = luf->Rlen.V;
  const int32_t *cstr = luf->Cstr.V, *clen = luf->Clen.V;
  for (int32_t k = 1; k <= n; ++k)
    if (rnto[k] < 1 || rnto[k] > n || rotn[rnto[k]] != k || cnto[k] < 1 || cnto[k] > n ||
        cotn[cnto[k]] != k || (!afterExtract && vim->Rwcl.V[rnto[k]] != vim->Cbto.V[k]))
      LUC_FAIL("permutations or published order broken at position " << k);

  // M by elements (place, row, value): the U rows lie downward from RowUSpace
  // in pivot order, pivot first, further columns of later positions only.
  struct Entry {
    int32_t col, row;
    double val;
  };
  std::vector<Entry> ent;
  int32_t next = luf->RowUSpace + 1;
  for (int32_t k = 1; k <= last; ++k) {
    const int32_t r = rnto[k], s = rstr[r];
    if (rlen[r] < 1 || s + rlen[r] != next || ic[s] != cnto[k])
      LUC_FAIL("U row " << r << " misplaced");
    next = s;
    for (int32_t p = s; p < s + rlen[r]; ++p) {
      if (ic[p] < 1 || ic[p] > n || (p > s && cotn[ic[p]] <= k))
        LUC_FAIL("U row " << r << " holds column " << ic[p]);
      ent.push_back({ic[p], r, vim->AUrmat.Val[p]});
    }
  }
  if (next != luf->U_elefirst)
    LUC_FAIL("U-file starts at " << next << ", U_elefirst=" << luf->U_elefirst);

  if (afterExtract) {
    // The bump: chains in position order; rows and columns below the U-file,
    // columns on cache lines; every column element reaches its own slot in
    // its row and back, and the rows hold as many (so no two rows or columns
    // share a slot).
    const int32_t limit = std::min(luf->ColASpace + 1, luf->U_elefirst);
    int64_t balance = 0;
    int32_t r = iin->RPfrst, c = iin->CPfrst, prevR = 0, prevC = 0;
    for (int32_t k = last + 1; k <= n; ++k) {
      if (r != rnto[k] || iin->Rppr.V[r] != prevR || c != cnto[k] || iin->Cppr.V[c] != prevC)
        LUC_FAIL("chains broken at position " << k);
      if ((cstr[c] - 1) % 8 != 0 || cstr[c] + clen[c] > limit || rstr[r] + rlen[r] > limit)
        LUC_FAIL("row " << r << " or column " << c << " of the bump misplaced");
      for (int32_t q = cstr[c]; q < cstr[c] + clen[c]; ++q) {
        const int32_t i = ir[q], p = iin->C2rp.V[q];
        if (i < 1 || i > n || rotn[i] <= last || p < std::max(1, rstr[i]) || p >= limit ||
            p >= rstr[i] + rlen[i] || ic[p] != c || iin->R2cp.V[p] != q)
          LUC_FAIL("cross pointers of column " << c << " broken at " << q);
        ent.push_back({c, i, vim->AUrmat.Val[q]});
      }
      balance += clen[c] - rlen[r];
      prevR = r;
      prevC = c;
      r = iin->Rpnx.V[r];
      c = iin->Cpnx.V[c];
    }
    if (balance != 0 || r != 0 || c != 0 || iin->RPlast != prevR || iin->CPlast != prevC)
      LUC_FAIL("bump rows and columns differ in size, or the chains do not end");
    if (luf->RowFileUsed != (prevR ? rstr[prevR] + rlen[prevR] - 1 : 0) ||
        luf->ColFileUsed != (prevC ? cstr[prevC] + clen[prevC] - 1 : 0) ||
        luf->LFileUsed != iin->L_Elements)
      LUC_FAIL("used sizes of the files are wrong");
  }

  // M by places: place c holds m[start[c] .. start[c + 1] - 1].
  std::vector<int32_t> start(size_t(n) + 2, 0);
  for (const Entry &e : ent) ++start[size_t(e.col) + 1];
  std::partial_sum(start.begin(), start.end(), start.begin());
  std::vector<Entry> m(ent.size());
  std::vector<int32_t> fill(start);
  for (const Entry &e : ent) m[size_t(fill[size_t(e.col)]++)] = e;

  if (!afterExtract) {
    // The column copy: packed at the top of its store, pivot first, and
    // column by column the same elements as the row copy.
    if (!luf->ColCopy || luf->U_numele != int32_t(ent.size()))
      LUC_FAIL("U_numele=" << luf->U_numele << " with " << ent.size() << " in the U-file");
    std::vector<int32_t> stamp(size_t(n) + 1, 0);
    std::vector<double> value(size_t(n) + 1, 0.0);
    int64_t total = 0;
    for (int32_t k = 1; k <= n; ++k) {
      const int32_t c = cnto[k], s = cstr[c], l = clen[c];
      if (l < 1 || l != start[size_t(c) + 1] - start[size_t(c)] || s < luf->U_colfirst ||
          s + l - 1 > luf->ColUSpace || ir[s] != rnto[k])
        LUC_FAIL("column " << c << " of U misplaced: Cstr=" << s << " Clen=" << l);
      total += l;
      for (int32_t q = start[size_t(c)]; q < start[size_t(c) + 1]; ++q) {
        stamp[size_t(m[size_t(q)].row)] = c;
        value[size_t(m[size_t(q)].row)] = m[size_t(q)].val;
      }
      for (int32_t q = s; q < s + l; ++q) {
        const int32_t r = ir[q];
        if (r < 1 || r > n || stamp[size_t(r)] != c || value[size_t(r)] != luf->Ucmat.Val[q])
          LUC_FAIL("element (" << r << "," << c << ") of the column copy is not in the row copy");
        stamp[size_t(r)] = -c;  // each element once
      }
    }
    if (total != luf->ColUSpace - luf->U_colfirst + 1)
      LUC_FAIL("column copy not packed at the top");
  }

  // The L-file: one pivot row per column, columns in pivot order, multipliers
  // in rows pivoted later.  lcol[r] = L column of pivot row r.
  std::vector<int32_t> lcol(size_t(n) + 1, 0);
  const int32_t *lsor = luf->Lsor.V, *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
  if ((luf->L_Cols > 0 || luf->LFileUsed > 0) &&
      (lsor[1] != 1 || lsor[luf->L_Cols + 1] != luf->LFileUsed + 1))
    LUC_FAIL("Lsor does not span the L-file");
  for (int32_t l = 1, pos = 0; l <= luf->L_Cols; ++l) {
    if (lsor[l + 1] < lsor[l]) LUC_FAIL("Lsor decreases at " << l);
    if (lsor[l + 1] == lsor[l]) continue;
    const int32_t piv = lpiv[lsor[l]];
    if (piv < 1 || piv > n || lcol[size_t(piv)] != 0 || rotn[piv] <= pos)
      LUC_FAIL("L column " << l << " with pivot row " << piv << " out of order");
    lcol[size_t(piv)] = l;
    pos = rotn[piv];
    for (int32_t e = lsor[l]; e < lsor[l + 1]; ++e)
      if (lpiv[e] != piv || lrow[e] < 1 || lrow[e] > n || rotn[lrow[e]] <= pos)
        LUC_FAIL("L column " << l << " has a multiplier in row " << lrow[e]);
  }

  // L M = B place by place.
  std::vector<double> w(size_t(n) + 1, 0.0);
  std::vector<int32_t> touched;
  auto add = [&](int32_t r, double v) {
    touched.push_back(r);
    w[size_t(r)] += v;
  };
  for (int32_t c = 1; c <= n; ++c) {
    touched.clear();
    for (int32_t q = start[size_t(c)]; q < start[size_t(c) + 1]; ++q) {
      const Entry &e = m[size_t(q)];
      add(e.row, e.val);
      if (const int32_t l = lcol[size_t(e.row)])
        for (int32_t p = lsor[l]; p < lsor[l + 1]; ++p) add(lrow[p], luf->Lmat.Val[p] * e.val);
    }
    const int32_t j = afterExtract ? vim->Cbto.V[c] : vim->Cbto.V[cotn[c]];
    double scale = 1.0;
    const int32_t from = j > numCol ? 1 : vim->Stcl.V[j], to = j > numCol ? 1 : vim->Stcl.V[j + 1];
    if (j > numCol) add(j - numCol, -1.0);  // a slack
    for (int32_t p = from; p < to; ++p) {
      const double a = vim->Jace.Val[p];
      if (std::fabs(a) < env->Tol_Zero) continue;
      add(vim->Rnum.V[p], -a);
      scale = std::max(scale, std::fabs(a));
    }
    for (int32_t r : touched) {
      if (std::fabs(w[size_t(r)]) > 1e-12 * scale)
        LUC_FAIL("L U differs from B in row " << r << " of place " << c << " by " << w[size_t(r)]);
      w[size_t(r)] = 0.0;
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace luc
