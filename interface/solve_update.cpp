// The exported solve and update calls.
#include <algorithm>
#include <cfloat>
#include <cstring>
#include <cstdint>
#include <cstdio>

#include "factor/factor.h"
#include "interface/state.h"
#include "solve/solve.h"
#include "update/update.h"

using vlu::Iface;
using vlu::IfaceState;

namespace {

// Solves and updates need the factors of a regular basis: none exist before
// the first vlu_factor, after one that ran out of memory, or after a result
// 3, when the column copy of U was not built.
void Need_Factors(const IfaceState &s, const char *who) {
  char text[120];
  if (!s.dataReady || s.env == nullptr) {
    std::snprintf(text, sizeof text, "%s called without factors: call vlu_factor first", who);
    vlu::Hard_Stop(text);
  }
  if (!s.env->Luf->ColCopy) {
    std::snprintf(text, sizeof text, "%s called on a singular basis: call vlu_factor first", who);
    vlu::Hard_Stop(text);
  }
}

// The conditions that VMI%Exception holds from earlier calls (a message
// routine that asked for silence, vlu_msghack) are set aside while a call
// runs, so that the routines of the call, which all give up on a non-zero
// Exception, see only what the call raises itself.  They come back when the
// call returns: Exception never falls from one call to the next.
struct Own_Exception {
  vlu::VMI *env;
  int32_t earlier;
  explicit Own_Exception(vlu::VMI *e) : env(e), earlier(e->Exception) { e->Exception = 0; }
  ~Own_Exception() { env->Exception = std::max(earlier, env->Exception); }
};

}  // namespace

extern "C" VLU_API int vlu_solve(double *sol, const double *rhs) {
  IfaceState &s = Iface();
  Need_Factors(s, "vlu_solve");
  vlu::VMI *env = s.env;
  vlu::VIM *vim = s.vim;
  const int32_t n = s.numRows;

  double *w = vim->Work1.Val;
  for (int32_t i = 1; i <= n; ++i) w[i] = rhs[i - 1];
  // While column t is unknown, the last right-hand side is what t becomes
  // should it ever enter the basis.
  if (!s.rKnown) {
    double *rs = s.rSave;
    for (int32_t i = 1; i <= n; ++i) rs[i] = rhs[i - 1];
  }

  vlu::Solve_Ftran(env, vim->Work1);

  // Nonbasic columns read the largest double; the caller tells them by it.
  const int32_t total = 2 * n + 1;
  for (int32_t j = 0; j < total; ++j) sol[j] = DBL_MAX;
  const int32_t *rwcl = vim->Rwcl.V;
  const int32_t *basc = vim->Basc.V;
  for (int32_t i = 1; i <= n; ++i) {
    const int32_t j = rwcl[i];
    if (basc[j] != vlu::IBasic) vlu::Hard_Stop("Basis Bogus AAA");
    sol[j - 1] = w[i];
  }
  return 0;
}

extern "C" VLU_API int vlu_update(const int *basisStat, const int *entering, const int *leaving,
                                  const int *forceFactor) {
  IfaceState &s = Iface();
  Need_Factors(s, "vlu_update");
  vlu::VMI *env = s.env;
  vlu::VIM *vim = s.vim;
  const int32_t n = s.numRows;
  const int32_t total = 2 * n + 1;
  const int32_t in = *entering;
  const int32_t out = *leaving;
  Own_Exception own(env);

  s.numSing = 0;

  // A column number outside the system cannot be looked up in the status
  // arrays; the bookkeeping routine reports it through the message channel,
  // and the stop names it.
  if (in < 1 || in > total || out < 1 || out > total) {
    vlu::RecordBasisChange(env, in, out);
    char text[120];
    if (in < 1 || in > total)
      std::snprintf(text, sizeof text, "update: entering column %d is outside 1..2n+1 = %d", in, total);
    else
      std::snprintf(text, sizeof text, "update: leaving column %d is outside 1..2n+1 = %d", out, total);
    vlu::Hard_Stop(text);
  }

  int32_t *cur = s.curStat;
  if (cur[in] == vlu::IBasic) vlu::Hard_Stop("update AAA: entering column is already basic");
  if (basisStat[in - 1] != vlu::IBasic) vlu::Hard_Stop("update BBB: bogus basisStat");
  if (cur[out] == vlu::NBasic) vlu::Hard_Stop("update CCC: leaving column is already nonbasic");
  if (basisStat[out - 1] != vlu::NBasic) vlu::Hard_Stop("update DDD: bogus basisStat");
  {
    // Every other column as before: three stretches between the two.
    const int32_t a = in < out ? in : out, b = in < out ? out : in;
    auto same = [&](int32_t from, int32_t to) {
      return to < from || std::memcmp(basisStat + from - 1, cur + from,
                                      sizeof(int32_t) * static_cast<size_t>(to - from + 1)) == 0;
    };
    if (!same(1, a - 1) || !same(a + 1, b - 1) || !same(b + 1, total))
      vlu::Hard_Stop("update ZZZ: bogus basisStat");
  }

  cur[in] = vlu::IBasic;
  cur[out] = vlu::NBasic;

  // Column t enters: its coefficients are the right-hand side of the last
  // solve, stored in the place the factor call kept for them.
  if (in == n + 1) {
    if (s.rKnown) vlu::Hard_Stop("update CCC: r entering basis but already in");
    double *jace = vim->Jace.Val;
    const int32_t base = s.numNz;
    const double *rs = s.rSave;
    for (int32_t i = 1; i <= n; ++i) jace[base + i] = rs[i];
    s.rKnown = true;
  }

  vlu::RecordBasisChange(env, in, out);
  if (env->Exception != 0) vlu::Hard_Stop("VMI%Exception is not zero");

  if (*forceFactor == 0 && vlu::Update_Possible(env)) {
    if (vlu::Update_Inverse(env, in, out)) {
      s.nUpdate += 1;
      return 2;
    }
  }

  // The refactorization road: taken when the limits say so, when the caller
  // asks for it, and after a failed update.
  vim->Updates_Done = 0;
  vlu::LUFactor(env);
  if (env->Exception != 0) vlu::Hard_Stop("VMI%Exception is not zero");
  if (vim->Num_Sing <= 0) {
    vlu::CreateColumnU(env);
    if (env->Exception != 0) vlu::Hard_Stop("VMI%Exception is not zero");
    s.nRefactor += 1;
    return 1;
  }
  s.numSing = vim->Num_Sing;
  return 3;
}
