// Test helpers shared by the factor, solve, update and walk tests (see
// lu_check.h).
#include "support/lu_check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <stdexcept>
#include <tuple>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/test_hooks.h"
#include "runtime/vectors.h"
#include "solve/solve.h"
#include "vardenlu.h"

namespace luc {

using vlu::IIN;
using vlu::LUF;
using vlu::VIM;
using vlu::VMI;

Problem From_Columns(int n, const Cols &cols, bool basic) {
  Problem p;
  p.name = "hand-made";
  p.n = n;
  p.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    for (const auto &e : cols[size_t(j - 1)]) {
      p.rowIdx.push_back(e.first);
      p.colIdx.push_back(j);
      p.val.push_back(e.second);
    }
    p.colStart.push_back(static_cast<int>(p.val.size()) + 1);
  }
  p.nz = static_cast<int>(p.val.size());
  p.basis.assign(size_t(2 * n + 1), 0);
  for (int j = 1; basic && j <= n; ++j) p.basis[size_t(j - 1)] = 2;
  return p;
}

Problem All_Slack(int n) {
  Problem p = From_Columns(n, Cols(size_t(n)));
  for (int i = 1; i <= n; ++i) p.basis[size_t(n + i)] = 2;
  return p;
}

Problem Random_Sparse(int n, int perCol, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  Cols cols(static_cast<size_t>(n));
  for (auto &col : cols) {
    std::vector<int> rows;
    while (static_cast<int>(rows.size()) < perCol) {
      const int r = 1 + static_cast<int>(gen() % static_cast<uint64_t>(n));
      if (std::find(rows.begin(), rows.end(), r) == rows.end()) rows.push_back(r);
    }
    std::sort(rows.begin(), rows.end());
    for (int r : rows) col.push_back({r, (uni(gen) < 0.5 ? -1.0 : 1.0) * (0.5 + 1.5 * uni(gen))});
  }
  Problem p = From_Columns(n, cols);
  p.name = "random";
  for (int i = 1; i <= n; ++i) p.basis[size_t(n + i)] = 2;
  return p;
}

int Factor(const Problem &p, const std::vector<int> &stat) {
  int n = p.n, nz = p.nz;
  return vlu_factor(&n, &nz, p.colStart.data(), p.rowIdx.data(), p.colIdx.data(), p.val.data(),
                    p.rPtr(), stat.data());
}

Triangular Make_Triangular(int n, Shape shape, uint64_t seed, bool permute, double slacks) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  Triangular s;
  for (std::vector<int> *p : {&s.prow, &s.colOfPos}) {
    p->resize(size_t(n) + 1);
    std::iota(p->begin(), p->end(), 0);
    if (permute) std::shuffle(p->begin() + 1, p->end(), gen);
  }
  std::vector<std::tuple<int, int, double>> ents;  // (column, row, value)
  for (int k = 1; k <= n; ++k) {
    const double d = (uni(gen) < 0.5 ? -1.0 : 1.0) * (1.0 + uni(gen));
    ents.emplace_back(s.colOfPos[size_t(k)], s.prow[size_t(k)], d);
    const int lo = shape == Shape::Lower ? k + 1 : 1, span = shape == Shape::Lower ? n - k : k - 1;
    std::vector<int> pos;
    for (int t = static_cast<int>(6.0 * uni(gen)); t > 0 && span > 0; --t)
      pos.push_back(lo + std::min(span - 1, static_cast<int>(uni(gen) * span)));
    std::sort(pos.begin(), pos.end());
    pos.erase(std::unique(pos.begin(), pos.end()), pos.end());
    for (int p : pos)
      ents.emplace_back(s.colOfPos[size_t(k)], s.prow[size_t(p)], d * (uni(gen) - 0.5) / pos.size());
  }
  std::sort(ents.begin(), ents.end());
  s.cols.resize(size_t(n));
  for (const auto &[j, i, v] : ents) s.cols[size_t(j - 1)].emplace_back(i, v);
  s.c = From_Columns(n, s.cols);
  s.c.name = "synthetic";
  for (int k = 1; k <= n; ++k)
    s.c.basis[size_t(uni(gen) < slacks ? n + s.prow[size_t(k)] : s.colOfPos[size_t(k)] - 1)] = 2;
  return s;
}

bool Is_Triangular(const Problem &c, const std::vector<int> &stat) {
  const int n = c.n;
  std::vector<std::vector<int>> rowCols(size_t(n) + 1);
  std::vector<int> count(size_t(n) + 1, 0), queue;
  std::vector<char> gone(size_t(2 * n + 2), 0);
  for (int j = 1; j <= 2 * n + 1; ++j)
    if (stat[size_t(j - 1)] == 2)
      vlu_case::For_Column(c, j, [&](int i, double v) {
        if (v != 0.0) rowCols[size_t(i)].push_back(j), ++count[size_t(i)];
      });
  for (int i = 1; i <= n; ++i)
    if (count[size_t(i)] == 1) queue.push_back(i);
  int peeled = 0;
  for (size_t h = 0; h < queue.size(); ++h) {
    if (count[size_t(queue[h])] != 1) continue;
    int j = 0;
    for (int cand : rowCols[size_t(queue[h])])
      if (!gone[size_t(cand)]) j = cand;
    gone[size_t(j)] = 1;
    ++peeled;
    vlu_case::For_Column(c, j, [&](int r, double v) {
      if (v != 0.0 && --count[size_t(r)] == 1) queue.push_back(r);
    });
  }
  return peeled == n;
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

int Capture_Lines(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  if (auto *m = static_cast<Messages *>(usrmem))
    for (int i = 0; i < std::max(smsg, std::max(dmsg, nmsg)); ++i) m->lines.emplace_back(lines[i]);
  return 0;
}

void ApiTest::SetUp() {
  vlu_destroy();
  vlu_regmsgcb(&msgs, Capture_Lines);
  ASSERT_EQ(vlu_create(), 0);
}

void ApiTest::Restart() {
  vlu_destroy();
  EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
  ASSERT_EQ(vlu_create(), 0);
}

void ApiTest::TearDown() {
  vlu::Test_Options = vlu::Test_Hooks();
  vlu::Test_Alloc_Fail_At = 0;
  vlu::Test_Heap_Limit = 0;
  vlu_destroy();
  vlu_regmsgcb(nullptr, nullptr);
  EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
}

VMI *ApiTest::Env() { return vlu::Iface().env; }

bool ApiTest::Said(const std::string &text) {
  if (Env() != nullptr) vlu::Msg_Flush(Env());
  return msgs.Has(text);
}

bool Load_Env(VMI *&env, const Problem &p, const std::vector<int> &stat) {
  int status = 0;
  vlu::Allocate_Space(&env, &status);
  if (status != 0) return false;
  VIM *vim = env->Vim;
  env->Msg_Routine = reinterpret_cast<void (*)()>(&vlu::c_std_message);
  env->Msg_Style = 0;
  env->Threads = 1;
  env->Max_Updates = 2147483647;
  const int n = p.n, nz = p.nz;
  vim->NumRow = n;
  vim->NumCol = n + 1;
  vim->NumNz = nz + n;
  vlu::Allocate_Inversion(env);
  if (!env->EnoughSpace) return false;
  for (int j = 1; j <= n + 1; ++j) vim->Stcl.V[j] = p.colStart[size_t(j - 1)];
  vim->Stcl.V[n + 2] = vim->Stcl.V[n + 1] + n;  // column t holds r in every row
  for (int q = 1; q <= nz + n; ++q) {
    const bool t = q > nz;
    vim->Rnum.V[q] = t ? q - nz : p.rowIdx[size_t(q - 1)];
    vim->Cnum.V[q] = t ? n + 1 : p.colIdx[size_t(q - 1)];
    vim->Jace.Val[q] = !t ? p.val[size_t(q - 1)] : p.hasR ? p.r[size_t(q - nz - 1)] : 0.0;
  }
  for (int j = 1; j <= 2 * n + 1; ++j) vim->Basc.V[j] = stat[size_t(j - 1)];
  return true;
}

void EnvTest::SetUp() { vlu_regmsgcb(&msgs, Capture_Lines); }

void EnvTest::TearDown() {
  int status = 0;
  vlu::Test_Alloc_Fail_At = 0;
  if (env != nullptr) vlu::VMI_Deallocate(&env, &status);  // reports an imbalance
  vlu_regmsgcb(nullptr, nullptr);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
}

void EnvTest::Load(const Problem &p) {
  int status = 0;
  if (env != nullptr) vlu::VMI_Deallocate(&env, &status);
  if (!Load_Env(env, p, p.basis)) throw std::runtime_error("loading the environment failed");
}

double Solve_Residual(const Problem &c, const std::vector<int> &stat, const std::vector<double> &b,
                      std::vector<double> *out) {
  std::vector<double> sol(size_t(2 * c.n + 1), 0.0);
  EXPECT_EQ(vlu_solve(sol.data(), b.data()), 0);
  const double res = vlu_case::Rel_Residual(c, stat, sol.data(), b.data());
  if (out) *out = sol;
  return res;
}

void Swap_At(const Triangular &s, const std::vector<int> &stat, int k, int &q, int &l) {
  const int col = s.colOfPos[size_t(k)], slack = s.c.n + 1 + s.prow[size_t(k)];
  q = stat[size_t(col - 1)] == 2 ? slack : col;
  l = q == slack ? col : slack;
}

int Change(const Problem &c, std::vector<int> &stat, int q, int l, int force) {
  std::vector<double> a(size_t(c.n), 0.0), sol(size_t(2 * c.n + 1));
  vlu_case::For_Column(c, q, [&](int i, double v) { a[size_t(i - 1)] = v; });
  vlu_solve(sol.data(), a.data());
  EXPECT_NE(sol[size_t(l - 1)], 0.0) << "leaving column " << l << " is not part of entering " << q;
  stat[size_t(q - 1)] = 2;
  stat[size_t(l - 1)] = 0;
  return vlu_update(stat.data(), &q, &l, &force);
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


::testing::AssertionResult Check_Updated_Factors(VMI *env) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  const int32_t n = vim->NumRow;
  const int32_t *rnto = vim->Rnto.V, *rotn = vim->Rotn.V, *cnto = vim->Cnto.V, *cotn = vim->Cotn.V;
  const int32_t *cbto = vim->Cbto.V, *rwcl = vim->Rwcl.V, *basc = vim->Basc.V;
  const int32_t *ic = luf->Ic.V, *ir = luf->Ir.V;
  const int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V, *cstr = luf->Cstr.V, *clen = luf->Clen.V;

  std::vector<char> seen(size_t(vim->NumCol + n) + 1, 0);
  for (int32_t k = 1; k <= n; ++k) {
    const int32_t r = rnto[k], c = cnto[k];
    if (r < 1 || r > n || rotn[r] != k || c < 1 || c > n || cotn[c] != k)
      LUC_FAIL("permutations not inverse at position " << k);
    const int32_t m = cbto[k];
    if (rwcl[r] != m || m < 1 || m > vim->NumCol + n || basc[m] != vlu::IBasic || seen[size_t(m)])
      LUC_FAIL("published order broken at position " << k << ": Cbto=" << m << " Rwcl=" << rwcl[r]);
    seen[size_t(m)] = 1;
  }

  // Lines inside the used parts of their files, pivot first, triangular in
  // the current order; every slot owned once.
  std::vector<int32_t> owner(size_t(std::max(luf->ColUSpace, luf->RowUSpace)) + 2, 0);
  int64_t sum = 0;
  for (int32_t c = 1; c <= n; ++c) {
    const int32_t s = cstr[c], l = clen[c];
    if (l < 1 || s < luf->ColFileUsed || s + l - 1 > luf->ColUSpace)
      LUC_FAIL("column " << c << " outside the column file: Cstr=" << s << " Clen=" << l
                         << " ColFileUsed=" << luf->ColFileUsed);
    if (ir[s] != rnto[cotn[c]]) LUC_FAIL("column " << c << " does not start with its pivot");
    for (int32_t q = s; q < s + l; ++q) {
      if (owner[size_t(q)] != 0) LUC_FAIL("column slot " << q << " shared by columns " << c);
      owner[size_t(q)] = c;
      if (ir[q] < 1 || ir[q] > n || rotn[ir[q]] > cotn[c])
        LUC_FAIL("column " << c << " holds row " << ir[q] << " below its pivot");
    }
    sum += l;
  }
  if (sum != luf->U_numele) LUC_FAIL("column lengths sum to " << sum << ", U_numele=" << luf->U_numele);
  int64_t used = 0;
  for (int32_t q = 1; q <= luf->ColUSpace; ++q) {
    if (owner[size_t(q)] == 0 && ir[q] != 0) LUC_FAIL("free column slot " << q << " holds " << ir[q]);
    used += ir[q] != 0;
  }
  if (used != luf->U_numele) LUC_FAIL("column index slots in use: " << used);

  std::fill(owner.begin(), owner.end(), 0);
  sum = 0;
  for (int32_t r = 1; r <= n; ++r) {
    const int32_t s = rstr[r], l = rlen[r];
    if (l < 1 || s < luf->RowFileUsed || s + l - 1 > luf->RowUSpace)
      LUC_FAIL("row " << r << " outside the row file: Rstr=" << s << " Rlen=" << l
                      << " RowFileUsed=" << luf->RowFileUsed);
    if (ic[s] != cnto[rotn[r]]) LUC_FAIL("row " << r << " does not start with its pivot");
    for (int32_t j = s; j < s + l; ++j) {
      if (owner[size_t(j)] != 0) LUC_FAIL("row slot " << j << " shared by rows " << r);
      owner[size_t(j)] = r;
      if (ic[j] < 1 || ic[j] > n || cotn[ic[j]] < rotn[r])
        LUC_FAIL("row " << r << " holds column " << ic[j] << " left of its pivot");
    }
    sum += l;
  }
  if (sum != luf->U_numele) LUC_FAIL("row lengths sum to " << sum << ", U_numele=" << luf->U_numele);
  used = 0;
  for (int32_t j = 1; j <= luf->RowUSpace; ++j) {
    if (owner[size_t(j)] == 0 && ic[j] != 0) LUC_FAIL("free row slot " << j << " holds " << ic[j]);
    used += ic[j] != 0;
  }
  if (used != luf->U_numele) LUC_FAIL("row index slots in use: " << used);

  // The two copies hold the same elements (by value, exactly).
  for (int32_t r = 1; r <= n; ++r)
    for (int32_t j = rstr[r]; j < rstr[r] + rlen[r]; ++j) {
      const int32_t c = ic[j];
      const int32_t q = vlu::Int_Lookup(ir, cstr[c], cstr[c] + clen[c] - 1, r);
      if (q == 0 || luf->Ucmat.Val[q] != vim->AUrmat.Val[j])
        LUC_FAIL("element (" << r << "," << c << ") differs between the copies");
    }

  for (int32_t i = 1; i <= n + 1; ++i)
    if (vim->WorkZ.Val[i] != 0.0 || vim->HelpZ.V[i] != 0)
      LUC_FAIL("work vectors not clear at " << i);

  // Row etas: groups behind the L columns, one changed row each.
  const int32_t m = luf->Lsor.V[luf->L_Cols + 1] - 1;
  if (luf->L_Groups > 0) {
    const int32_t *lstr = luf->Lstr.V, *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
    if (lstr[1] != m + 1 || lstr[luf->L_Groups + 1] != luf->LFileUsed + 1)
      LUC_FAIL("row-eta groups do not span the etas: Lstr(1)=" << lstr[1] << " m=" << m);
    for (int32_t g = 1; g <= luf->L_Groups; ++g) {
      if (lstr[g + 1] <= lstr[g]) LUC_FAIL("empty or reversed row-eta group " << g);
      for (int32_t e = lstr[g]; e < lstr[g + 1]; ++e)
        if (lrow[e] != lrow[lstr[g]] || lpiv[e] < 1 || lpiv[e] > n || lpiv[e] == lrow[e])
          LUC_FAIL("row-eta group " << g << " is not one row operation");
    }
  } else if (luf->LFileUsed != m) {
    LUC_FAIL("L-file holds " << luf->LFileUsed - m << " etas without a group");
  }
  return ::testing::AssertionSuccess();
}

uint64_t Digest(const VMI *env) {
  const VIM *vim = env->Vim;
  const LUF *luf = env->Luf;
  uint64_t h = 14695981039346656037ull;
  auto add = [&h](uint64_t w) {
    for (int b = 0; b < 8; ++b) h = (h ^ ((w >> (8 * b)) & 0xFF)) * 1099511628211ull;
  };
  auto bits = [](double v) {
    uint64_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
  };
  for (int32_t k = 1; k <= vim->NumRow; ++k) {
    const int32_t r = vim->Rnto.V[k];
    add(uint64_t(r) << 32 | uint32_t(vim->Cnto.V[k]));
    add(uint64_t(vim->Cbto.V[k]));
    for (int32_t p = luf->Rstr.V[r]; p < luf->Rstr.V[r] + luf->Rlen.V[r]; ++p) {
      add(uint64_t(luf->Ic.V[p]));
      add(bits(vim->AUrmat.Val[p]));
    }
  }
  add(uint64_t(luf->L_Cols));
  for (int32_t c = 1; c <= luf->L_Cols + 1; ++c) add(uint64_t(luf->Lsor.V[c]));
  for (int32_t p = 1; p <= luf->LFileUsed; ++p) {
    add(uint64_t(luf->Lrow.V[p]) << 32 | uint32_t(luf->Lpiv.V[p]));
    add(bits(luf->Lmat.Val[p]));
  }
  return h;
}

::testing::AssertionResult Recorded(const std::string &label, const VMI *env) {
  static const std::map<std::string, uint64_t> recorded = {
#include "support/digests.inc"
  };
  const uint64_t d = Digest(env);
  if (std::getenv("VLU_RECORD_DIGESTS") != nullptr) {
    std::printf("{\"%s\", 0x%016llxull},\n", label.c_str(), static_cast<unsigned long long>(d));
    return ::testing::AssertionSuccess();
  }
  const auto it = recorded.find(label);
  if (it == recorded.end()) return ::testing::AssertionFailure() << "no digest recorded for " << label;
  if (it->second != d)
    return ::testing::AssertionFailure() << "factors of " << label << " differ from the recorded ones";
  return ::testing::AssertionSuccess();
}

bool Fresh_Solve(const Problem &c, const std::vector<int> &stat, const std::vector<double> &b,
                 std::vector<double> &x) {
  VMI *env = nullptr;
  int status = 0;
  bool ok = Load_Env(env, c, stat);
  VIM *vim = env != nullptr ? env->Vim : nullptr;
  if (ok) {
    vlu::LUFactor(env);
    ok = env->Exception == 0 && vim->Num_Sing == 0;
  }
  if (ok) {
    vlu::CreateColumnU(env);
    ok = env->Exception == 0;
  }
  const int n = c.n;
  if (ok) {
    for (int i = 1; i <= n; ++i) vim->Work1.Val[i] = b[size_t(i - 1)];
    vlu::Solve_Ftran(env, vim->Work1);
    x.assign(size_t(2 * n + 1), 0.0);
    for (int i = 1; i <= n; ++i) x[size_t(vim->Rwcl.V[i] - 1)] = vim->Work1.Val[i];
  }
  if (env != nullptr) vlu::VMI_Deallocate(&env, &status);
  return ok;
}

double Rel_Diff(const std::vector<int> &stat, const std::vector<double> &x,
                const std::vector<double> &y) {
  double d = 0.0, s = 0.0;
  for (size_t j = 0; j < stat.size(); ++j) {
    if (stat[j] != 2) continue;
    d = std::max(d, std::fabs(x[j] - y[j]));
    s = std::max(s, std::fabs(y[j]));
  }
  return d / std::max(s, 1e-300);
}

bool Random_Change(const Problem &c, const std::vector<int> &stat, std::mt19937_64 &gen,
                   bool triangular, int &q, int &l) {
  const int n = c.n;
  std::vector<int> cand;
  for (int j = 1; j <= 2 * n + 1; ++j)
    if (stat[size_t(j - 1)] != 2 && j != n + 1) cand.push_back(j);
  std::shuffle(cand.begin(), cand.end(), gen);
  std::vector<double> a(static_cast<size_t>(n)), sol(static_cast<size_t>(2 * n + 1));
  int tries = 0;
  for (int cq : cand) {
    std::fill(a.begin(), a.end(), 0.0);
    bool any = false;
    vlu_case::For_Column(c, cq, [&](int i, double v) { a[size_t(i - 1)] = v, any = any || v != 0.0; });
    if (!any) continue;  // empty columns do not count as tries
    if (++tries > 40) break;
    vlu_solve(sol.data(), a.data());
    // Basic columns by decreasing |alpha|.
    std::vector<std::pair<double, int>> alpha;
    for (int j = 1; j <= 2 * n + 1; ++j)
      if (stat[size_t(j - 1)] == 2 && sol[size_t(j - 1)] != 0.0)
        alpha.emplace_back(-std::fabs(sol[size_t(j - 1)]), j);
    std::stable_sort(alpha.begin(), alpha.end());
    if (alpha.empty() || -alpha.front().first < 1e-9) continue;
    const double top = -alpha.front().first;
    for (size_t k = 0; k < alpha.size() && k < (triangular ? 6u : 1u); ++k) {
      if (-alpha[k].first < 1e-3 * top) break;
      if (triangular) {
        std::vector<int> after = stat;
        after[size_t(cq - 1)] = 2;
        after[size_t(alpha[k].second - 1)] = 0;
        if (!Is_Triangular(c, after)) continue;
      }
      q = cq;
      l = alpha[k].second;
      return true;
    }
  }
  return false;
}

void Stats::Add(const VMI *env) {
  const VIM *v = env->Vim;
  compRow += v->Upd_Compress_Row;
  compCol += v->Upd_Compress_Col;
  growRow += v->Upd_Grow_Row;
  growCol += v->Upd_Grow_Col;
  growL += v->Upd_Grow_L;
  growLstr += v->Upd_Grow_Lstr;
  failMemory += v->Upd_Fail_Memory;
  failULarge += v->Upd_Fail_U_Large;
  failPivot += v->Upd_Fail_Pivot;
  bumpMax = std::max(bumpMax, v->Upd_Bump_Max);
  swaps += v->Upd_Swaps;
}

std::string Stats::Line() const {
  char buf[256];
  std::snprintf(buf, sizeof buf,
                "compressions row %d col %d; growths row %d col %d L %d Lstr %d; failure ends "
                "memory %d U-factor %d pivot %d; largest bump %d, swaps %d",
                compRow, compCol, growRow, growCol, growL, growLstr, failMemory, failULarge,
                failPivot, bumpMax, swaps);
  return buf;
}

}  // namespace luc
