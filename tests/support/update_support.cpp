// Test helpers of the in-place update (see update_support.h).
#include "support/update_support.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/vectors.h"
#include "solve/solve.h"
#include "triangular_support.h"
#include "update/update.h"

namespace upd {

using vlu::LUF;
using vlu::VIM;
using vlu::VMI;

#define UPD_FAIL(msg) return ::testing::AssertionFailure() << msg

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
      UPD_FAIL("permutations not inverse at position " << k);
    const int32_t m = cbto[k];
    if (rwcl[r] != m || m < 1 || m > vim->NumCol + n || basc[m] != vlu::IBasic || seen[size_t(m)])
      UPD_FAIL("published order broken at position " << k << ": Cbto=" << m << " Rwcl=" << rwcl[r]);
    seen[size_t(m)] = 1;
  }

  // Lines inside the used parts of their files, pivot first, triangular in
  // the current order; every slot owned once.
  std::vector<int32_t> owner(size_t(std::max(luf->ColUSpace, luf->RowUSpace)) + 2, 0);
  int64_t sum = 0;
  for (int32_t c = 1; c <= n; ++c) {
    const int32_t s = cstr[c], l = clen[c];
    if (l < 1 || s < luf->ColFileUsed || s + l - 1 > luf->ColUSpace)
      UPD_FAIL("column " << c << " outside the column file: Cstr=" << s << " Clen=" << l
                         << " ColFileUsed=" << luf->ColFileUsed);
    if (ir[s] != rnto[cotn[c]]) UPD_FAIL("column " << c << " does not start with its pivot");
    for (int32_t q = s; q < s + l; ++q) {
      if (owner[size_t(q)] != 0) UPD_FAIL("column slot " << q << " shared by columns " << c);
      owner[size_t(q)] = c;
      if (ir[q] < 1 || ir[q] > n || rotn[ir[q]] > cotn[c])
        UPD_FAIL("column " << c << " holds row " << ir[q] << " below its pivot");
    }
    sum += l;
  }
  if (sum != luf->U_numele) UPD_FAIL("column lengths sum to " << sum << ", U_numele=" << luf->U_numele);
  int64_t used = 0;
  for (int32_t q = 1; q <= luf->ColUSpace; ++q) {
    if (owner[size_t(q)] == 0 && ir[q] != 0) UPD_FAIL("free column slot " << q << " holds " << ir[q]);
    used += ir[q] != 0;
  }
  if (used != luf->U_numele) UPD_FAIL("column index slots in use: " << used);

  std::fill(owner.begin(), owner.end(), 0);
  sum = 0;
  for (int32_t r = 1; r <= n; ++r) {
    const int32_t s = rstr[r], l = rlen[r];
    if (l < 1 || s < luf->RowFileUsed || s + l - 1 > luf->RowUSpace)
      UPD_FAIL("row " << r << " outside the row file: Rstr=" << s << " Rlen=" << l
                      << " RowFileUsed=" << luf->RowFileUsed);
    if (ic[s] != cnto[rotn[r]]) UPD_FAIL("row " << r << " does not start with its pivot");
    for (int32_t j = s; j < s + l; ++j) {
      if (owner[size_t(j)] != 0) UPD_FAIL("row slot " << j << " shared by rows " << r);
      owner[size_t(j)] = r;
      if (ic[j] < 1 || ic[j] > n || cotn[ic[j]] < rotn[r])
        UPD_FAIL("row " << r << " holds column " << ic[j] << " left of its pivot");
    }
    sum += l;
  }
  if (sum != luf->U_numele) UPD_FAIL("row lengths sum to " << sum << ", U_numele=" << luf->U_numele);
  used = 0;
  for (int32_t j = 1; j <= luf->RowUSpace; ++j) {
    if (owner[size_t(j)] == 0 && ic[j] != 0) UPD_FAIL("free row slot " << j << " holds " << ic[j]);
    used += ic[j] != 0;
  }
  if (used != luf->U_numele) UPD_FAIL("row index slots in use: " << used);

  // The two copies hold the same elements (by value, exactly).
  for (int32_t r = 1; r <= n; ++r)
    for (int32_t j = rstr[r]; j < rstr[r] + rlen[r]; ++j) {
      const int32_t c = ic[j];
      const int32_t q = vlu::Int_Lookup(ir, cstr[c], cstr[c] + clen[c] - 1, r);
      if (q == 0 || luf->Ucmat.Val[q] != vim->AUrmat.Val[j])
        UPD_FAIL("element (" << r << "," << c << ") differs between the copies");
    }

  for (int32_t i = 1; i <= n + 1; ++i)
    if (vim->WorkZ.Val[i] != 0.0 || vim->HelpZ.V[i] != 0)
      UPD_FAIL("work vectors not clear at " << i);

  // Row etas: groups behind the L columns, one changed row each.
  const int32_t m = luf->Lsor.V[luf->L_Cols + 1] - 1;
  if (luf->L_Groups > 0) {
    const int32_t *lstr = luf->Lstr.V, *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
    if (lstr[1] != m + 1 || lstr[luf->L_Groups + 1] != luf->LFileUsed + 1)
      UPD_FAIL("row-eta groups do not span the etas: Lstr(1)=" << lstr[1] << " m=" << m);
    for (int32_t g = 1; g <= luf->L_Groups; ++g) {
      if (lstr[g + 1] <= lstr[g]) UPD_FAIL("empty or reversed row-eta group " << g);
      for (int32_t e = lstr[g]; e < lstr[g + 1]; ++e)
        if (lrow[e] != lrow[lstr[g]] || lpiv[e] < 1 || lpiv[e] > n || lpiv[e] == lrow[e])
          UPD_FAIL("row-eta group " << g << " is not one row operation");
    }
  } else if (luf->LFileUsed != m) {
    UPD_FAIL("L-file holds " << luf->LFileUsed - m << " etas without a group");
  }
  return ::testing::AssertionSuccess();
}

bool Can_Factor(const vlu_case::Case &c, const std::vector<int> &stat) {
  return tri::Bump_Supported() || tri::Is_Triangular(c, stat);
}

bool Fresh_Solve(const vlu_case::Case &c, const std::vector<int> &stat, const std::vector<double> &b,
                 std::vector<double> &x) {
  if (!Can_Factor(c, stat)) return false;
  VMI *env = nullptr;
  int status = 0;
  vlu::Allocate_Space(&env, &status);
  if (status != 0) return false;
  env->Msg_Routine = reinterpret_cast<void (*)()>(&vlu::c_std_message);
  env->Msg_Style = 0;
  env->Threads = 1;
  env->Max_Updates = 2147483647;
  VIM *vim = env->Vim;
  const int n = c.n, nz = c.nz;
  vim->NumRow = n;
  vim->NumCol = n + 1;
  vim->NumNz = nz + n;
  vlu::Allocate_Inversion(env);
  bool ok = env->EnoughSpace;
  if (ok) {
    for (int j = 1; j <= n + 1; ++j) vim->Stcl.V[j] = c.colStart[size_t(j - 1)];
    vim->Stcl.V[n + 2] = vim->Stcl.V[n + 1] + n;
    for (int q = 1; q <= nz + n; ++q) {
      const bool t = q > nz;
      vim->Rnum.V[q] = t ? q - nz : c.rowIdx[size_t(q - 1)];
      vim->Cnum.V[q] = t ? n + 1 : c.colIdx[size_t(q - 1)];
      vim->Jace.Val[q] = !t ? c.val[size_t(q - 1)] : c.hasR ? c.r[size_t(q - nz - 1)] : 0.0;
    }
    for (int j = 1; j <= 2 * n + 1; ++j) vim->Basc.V[j] = stat[size_t(j - 1)];
    vlu::LUFactor(env);
    ok = env->Exception == 0 && vim->Num_Sing == 0;
  }
  if (ok) {
    vlu::CreateColumnU(env);
    ok = env->Exception == 0;
  }
  if (ok) {
    for (int i = 1; i <= n; ++i) vim->Work1.Val[i] = b[size_t(i - 1)];
    vlu::Solve_Ftran(env, vim->Work1);
    x.assign(size_t(2 * n + 1), 0.0);
    for (int i = 1; i <= n; ++i) x[size_t(vim->Rwcl.V[i] - 1)] = vim->Work1.Val[i];
  }
  vlu::VMI_Deallocate(&env, &status);
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

Step Walk_Step(const vlu_case::Case &c, std::vector<int> &stat, int q, int l) {
  std::vector<int> after = stat;
  after[size_t(q - 1)] = 2;
  after[size_t(l - 1)] = 0;
  if (Can_Factor(c, after)) return static_cast<Step>(tri::Change(c, stat, q, l));

  // The road of vlu_update, taken here step by step: a refactorization of
  // this basis would end the process in this build, so it becomes Stopped.
  std::vector<double> a(size_t(c.n), 0.0), sol(size_t(2 * c.n + 1));
  vlu_case::For_Column(c, q, [&](int i, double v) { a[size_t(i - 1)] = v; });
  vlu_solve(sol.data(), a.data());
  EXPECT_NE(sol[size_t(l - 1)], 0.0) << "leaving column " << l << " is not part of entering " << q;
  stat = after;
  vlu::IfaceState &s = vlu::Iface();
  s.numSing = 0;
  s.curStat[q] = 2;
  s.curStat[l] = 0;
  vlu::RecordBasisChange(s.env, q, l);
  if (vlu::Update_Possible(s.env) && vlu::Update_Inverse(s.env, q, l)) {
    s.nUpdate += 1;
    return Step::Updated;
  }
  return Step::Stopped;
}

bool Random_Change(const vlu_case::Case &c, const std::vector<int> &stat, std::mt19937_64 &gen,
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
        if (!tri::Is_Triangular(c, after)) continue;
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

std::string Update_Stats_Line(const VMI *env) {
  Stats s;
  s.Add(env);
  return s.Line();
}

}  // namespace upd
