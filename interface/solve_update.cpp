// The exported solve and update calls.
#include <algorithm>
#include <cfloat>
#include <cstring>
#include <cstdint>
#include <cstdio>
#include <new>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
// Plain loops over blocks of eight, which the compiler turns into vector
// moves; the tails one by one.
void Copy_Block(const double *src, double *dst, int32_t n) {
  int32_t i = 0;
  for (; i + 8 <= n; i += 8)
    for (int k = 0; k < 8; ++k) dst[i + k] = src[i + k];
  for (; i < n; ++i) dst[i] = src[i];
}

void Copy_Block2(const double *src, double *dst1, double *dst2, int32_t n) {
  int32_t i = 0;
  for (; i + 8 <= n; i += 8)
    for (int k = 0; k < 8; ++k) {
      const double v = src[i + k];
      dst1[i + k] = v;
      dst2[i + k] = v;
    }
  for (; i < n; ++i) dst1[i] = dst2[i] = src[i];
}

void Fill_Block(double *dst, int32_t n, double value) {
  int32_t i = 0;
  for (; i + 8 <= n; i += 8)
    for (int k = 0; k < 8; ++k) dst[i + k] = value;
  for (; i < n; ++i) dst[i] = value;
}

inline uint64_t Bits(double v) {
  uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

// Copies the eight values at src into dst when ToW and into dst2 when ToS;
// true when one of them is not +0.
template <bool ToW, bool ToS>
inline bool Copy_Eight(const double *src, double *dst, double *dst2) {
#if defined(__SSE2__)
  const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 2));
  const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 4));
  const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 6));
  if (ToW) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), a);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 2), b);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 4), c);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 6), d);
  }
  if (ToS) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst2), a);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst2 + 2), b);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst2 + 4), c);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(dst2 + 6), d);
  }
  const __m128i o = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
  return _mm_movemask_epi8(_mm_cmpeq_epi8(o, _mm_setzero_si128())) != 0xFFFF;
#else
  uint64_t any = 0;
  for (int k = 0; k < 8; ++k) {
    const double v = src[k];
    any |= Bits(v);
    if (ToW) dst[k] = v;
    if (ToS) dst2[k] = v;
  }
  return any != 0;
#endif
}

// Copies rhs(0..n-1) into w(1..n) when ToW and into save(1..n) when ToS,
// and lists the rows whose entries are not +0 (a -0 too) in list(1..) with
// marks(row) = 1, as long as there are at most `cap` of them and no eight
// in a row.  Returns their number, or -1 otherwise; the marks are then
// clear again, and the vectors that the call writes are written in full.
template <bool ToW, bool ToS>
int32_t Copy_Listing(const double *rhs, double *w, double *save, int32_t n, int32_t *list,
                     int32_t *marks, int32_t cap) {
  int32_t len = 0;
  for (int32_t i = 0; i < n; i += 8) {
    const int32_t b = n - i < 8 ? n - i : 8;
    bool any = false;
    if (b == 8) {
      any = Copy_Eight<ToW, ToS>(rhs + i, w + 1 + i, save + 1 + i);
    } else {
      for (int k = 0; k < b; ++k) {
        const double v = rhs[i + k];
        any = any || Bits(v) != 0;
        if (ToW) w[i + 1 + k] = v;
        if (ToS) save[i + 1 + k] = v;
      }
    }
    if (!any) continue;
    // Eight nonzeros in a row: a dense right-hand side, taken as such at
    // once rather than listed up to the limit.
    bool full = b == 8;
    for (int k = 0; k < 8 && full; ++k) full = Bits(rhs[i + k]) != 0;
    for (int k = 0; k < b; ++k) {
      if (!full && Bits(rhs[i + k]) == 0) continue;
      if (full || len == cap) {
        // Too many: the solve takes the full form.
        for (int32_t t = 1; t <= len; ++t) marks[list[t]] = 0;
        i += 8;
        if (i < n) {
          if (ToW && ToS)
            Copy_Block2(rhs + i, w + 1 + i, save + 1 + i, n - i);
          else if (ToW)
            Copy_Block(rhs + i, w + 1 + i, n - i);
          else if (ToS)
            Copy_Block(rhs + i, save + 1 + i, n - i);
        }
        return -1;
      }
      list[++len] = i + 1 + k;
      marks[i + 1 + k] = 1;
    }
  }
  return len;
}

// The key of the factors as they stand (Factors_Key).
vlu::Factors_Key Key_Now(const IfaceState &s) {
  vlu::Factors_Key k;
  k.calls = vlu::Update_Inverse_Calls();
  k.done = s.vim->Updates_Done;
  k.lUsed = s.env->Luf->LFileUsed;
  k.uElems = s.env->Luf->U_numele;
  return k;
}

// Makes the base of the solution (IfaceState::solBase) from the order of
// the factors, once every row's column is known to be basic: the largest
// double everywhere, +0.0 at the column of each row.  Left not ready when
// the space cannot be had or a row's column is not basic (the plain road
// then stops the process).
void Make_Sol_Base(IfaceState &s, const int32_t *rwcl, const int32_t *basc, int32_t n) {
  const int32_t total = 2 * n + 1;
  int32_t bad = 0;
  for (int32_t i = 1; i <= n; ++i) bad |= basc[rwcl[i]] ^ vlu::IBasic;
  if (bad != 0) return;
  if (s.solBase == nullptr) {
    s.solBase = new (std::nothrow) double[static_cast<size_t>(total)];
    if (s.solBase == nullptr) return;
  }
  Fill_Block(s.solBase, total, DBL_MAX);
  for (int32_t i = 1; i <= n; ++i) s.solBase[rwcl[i] - 1] = 0.0;
  s.solBaseReady = true;
  s.solBaseKey = Key_Now(s);
}

// The arrays of the spike cache, allocated at the first listed solve; false
// when they cannot be had (the solve then keeps nothing).
bool Spike_Arrays(IfaceState &s, int32_t n) {
  vlu::Spike_Cache &c = s.spike;
  if (c.inRows != nullptr) return true;
  const size_t len = static_cast<size_t>(n) + 1;
  c.inRows = new (std::nothrow) int32_t[len];
  c.inVals = new (std::nothrow) double[len];
  c.outRows = new (std::nothrow) int32_t[len];
  c.outVals = new (std::nothrow) double[len];
  c.finRows = new (std::nothrow) int32_t[len];
  c.finVals = new (std::nothrow) double[len];
  if (c.inRows && c.inVals && c.outRows && c.outVals && c.finRows && c.finVals) return true;
  delete[] c.inRows;
  delete[] c.inVals;
  delete[] c.outRows;
  delete[] c.outVals;
  delete[] c.finRows;
  delete[] c.finVals;
  c.inRows = c.outRows = c.finRows = nullptr;
  c.inVals = c.outVals = c.finVals = nullptr;
  return false;
}

// The row lists of the two vectors a solve writes besides the solution
// (IfaceState::workRows, saveRows), allocated at the first solve; false when
// they cannot be had (the vectors are then written in full every time).
bool Row_Lists(IfaceState &s, int32_t n) {
  if (s.workRows != nullptr) return true;
  const size_t len = static_cast<size_t>(n) + 1;
  s.workRows = new (std::nothrow) int32_t[len];
  s.saveRows = new (std::nothrow) int32_t[len];
  if (s.workRows && s.saveRows) return true;
  delete[] s.workRows;
  delete[] s.saveRows;
  s.workRows = s.saveRows = nullptr;
  return false;
}

// Systems below this size are solved in the full forms only: the lists
// cost more there than they spare.
constexpr int32_t Listed_Min_Rows = 100;

// Brings the right-hand side into VIM%Work1 (and into rSave while r is
// unknown), listing its rows as Copy_Listing does.  A vector whose
// nonzeros are listed from the last solve is cleared at those rows and
// given only the new nonzeros; the lists are brought up to date.
int32_t Load_Rhs(IfaceState &s, const double *rhs, double *w, int32_t n, int32_t *list,
                 int32_t *marks, int32_t cap) {
  const bool save = !s.rKnown;
  if (n < Listed_Min_Rows || !Row_Lists(s, n)) {
    s.workCount = s.saveCount = -1;
    if (n < Listed_Min_Rows) {
      if (save)
        Copy_Block2(rhs, w + 1, s.rSave + 1, n);
      else
        Copy_Block(rhs, w + 1, n);
      return -1;
    }
    return save ? Copy_Listing<true, true>(rhs, w, s.rSave, n, list, marks, cap)
                : Copy_Listing<true, false>(rhs, w, nullptr, n, list, marks, cap);
  }
  const bool wLazy = s.workCount >= 0;
  const bool sLazy = save && s.saveCount >= 0;
  if (wLazy)
    for (int32_t k = 1; k <= s.workCount; ++k) w[s.workRows[k]] = 0.0;
  if (sLazy)
    for (int32_t k = 1; k <= s.saveCount; ++k) s.rSave[s.saveRows[k]] = 0.0;
  const bool toS = save && !sLazy;
  int32_t len;
  if (wLazy)
    len = toS ? Copy_Listing<false, true>(rhs, w, s.rSave, n, list, marks, cap)
              : Copy_Listing<false, false>(rhs, w, s.rSave, n, list, marks, cap);
  else
    len = toS ? Copy_Listing<true, true>(rhs, w, s.rSave, n, list, marks, cap)
              : Copy_Listing<true, false>(rhs, w, s.rSave, n, list, marks, cap);
  if (len < 0) {
    if (wLazy) Copy_Block(rhs, w + 1, n);
    if (sLazy) Copy_Block(rhs, s.rSave + 1, n);
    s.saveCount = -1;
    return len;
  }
  for (int32_t k = 1; k <= len; ++k) {
    const int32_t r = list[k];
    if (wLazy) w[r] = rhs[r - 1];
    if (sLazy) s.rSave[r] = rhs[r - 1];
  }
  if (save) {
    std::memcpy(s.saveRows + 1, list + 1, sizeof(int32_t) * static_cast<size_t>(len));
    s.saveCount = len;
  }
  return len;
}

}  // namespace

extern "C" VLU_API int vlu_solve(double *sol, const double *rhs) {
  IfaceState &s = Iface();
  Need_Factors(s, "vlu_solve");
  vlu::VMI *env = s.env;
  vlu::VIM *vim = s.vim;
  const int32_t n = s.numRows;

  double *w = vim->Work1.Val;
  // While column t is unknown, the last right-hand side is what t becomes
  // should it ever enter the basis.  A right-hand side with few nonzeros
  // (the column of a pivoting step) is solved through its list of rows,
  // which also keeps its L stage for the update that may follow.
  int32_t *list = vim->HelpI.V, *marks = vim->HelpZ.V;
  const int32_t cap = vlu::Listed_Rhs_Limit(n);
  const int32_t len = Load_Rhs(s, rhs, w, n, list, marks, cap);
  s.workCount = -1;  // Work1 changes; the base road lists it again
  s.spike.valid = false;
  if (len >= 0) {
    vlu::Solve_Ftran_Listed(env, vim->Work1, len, Spike_Arrays(s, n) ? &s.spike : nullptr);
    if (s.spike.valid) s.spike.key = Key_Now(s);
  }
  else
    vlu::Solve_Ftran(env, vim->Work1);

  const int32_t total = 2 * n + 1;
  const int32_t *rwcl = vim->Rwcl.V;
  const int32_t *basc = vim->Basc.V;
  // A solution with few nonzeros starts from the base and takes its
  // listed nonzeros; a dense one takes every row in the order of the rows,
  // which is cheaper than a scatter in the order of the list.  A base made
  // before the
  // factors changed behind the exported calls (the routines driven
  // directly) is made again.
  const bool fromBase = vim->Num_UpNz <= n / 4;
  if (!s.solBaseOff && (!s.solBaseReady || !(s.solBaseKey == Key_Now(s))))
    Make_Sol_Base(s, rwcl, basc, n);
  if (s.solBaseOff) s.solBaseReady = false;
  int32_t bad = 0;
  if (!fromBase && s.solBaseReady) {
    // The base, then every row's value in the order of the rows; the rows
    // of the base were checked as basic when it was made.
    Copy_Block(s.solBase, sol, total);
    int32_t i = 1;
    for (; i + 3 <= n; i += 4) {
      const int32_t j0 = rwcl[i], j1 = rwcl[i + 1], j2 = rwcl[i + 2], j3 = rwcl[i + 3];
      sol[j0 - 1] = w[i];
      sol[j1 - 1] = w[i + 1];
      sol[j2 - 1] = w[i + 2];
      sol[j3 - 1] = w[i + 3];
    }
    for (; i <= n; ++i) sol[rwcl[i] - 1] = w[i];
    return 0;
  }
  if (fromBase && s.solBaseReady) {
    // The solution as it stands before its values, then the nonzeros,
    // which the solve has listed: every other row holds +0, which the base
    // has in place.  The rows of the base were all checked as basic when it
    // was made; the columns written now are checked against it.
    Copy_Block(s.solBase, sol, total);
    const int32_t *nzRows = vim->HelpI.V;
    const double *base = s.solBase;
    const int32_t numNz = vim->Num_UpNz;
    for (int32_t k = 1; k <= numNz; ++k) {
      const int32_t r = nzRows[k];
      const int32_t j = rwcl[r];
      bad |= static_cast<int32_t>(Bits(base[j - 1]) != 0);
      sol[j - 1] = w[r];
    }
    // Work1 is +0 but at these rows: the next solve clears only them.
    if (s.workRows != nullptr) {
      std::memcpy(s.workRows + 1, nzRows + 1, sizeof(int32_t) * static_cast<size_t>(numNz));
      s.workCount = numNz;
    } else {
      s.workCount = -1;
    }
    if (bad != 0) vlu::Hard_Stop("Basis Bogus AAA");
    return 0;
  }
  // Nonbasic columns read the largest double; the caller tells them by it.
  Fill_Block(sol, total, DBL_MAX);
  // Every row's column must be basic.  The statuses are or-ed together and
  // tested once, after the values are out: a bad one stops the process all
  // the same.
  int32_t i = 1;
  for (; i + 3 <= n; i += 4) {
    const int32_t j0 = rwcl[i], j1 = rwcl[i + 1], j2 = rwcl[i + 2], j3 = rwcl[i + 3];
    bad |= (basc[j0] ^ vlu::IBasic) | (basc[j1] ^ vlu::IBasic) | (basc[j2] ^ vlu::IBasic) |
           (basc[j3] ^ vlu::IBasic);
    sol[j0 - 1] = w[i];
    sol[j1 - 1] = w[i + 1];
    sol[j2 - 1] = w[i + 2];
    sol[j3 - 1] = w[i + 3];
  }
  for (; i <= n; ++i) {
    const int32_t j = rwcl[i];
    bad |= basc[j] ^ vlu::IBasic;
    sol[j - 1] = w[i];
  }
  if (bad != 0) vlu::Hard_Stop("Basis Bogus AAA");
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
    // The L stage of the last solve counts only for the factors it was
    // made with, and so does the base of the solution.
    const vlu::Factors_Key before = Key_Now(s);
    const bool fresh = s.spike.valid && s.spike.key == before;
    const bool baseCurrent = s.solBaseReady && s.solBaseKey == before;
    const bool updated = vlu::Update_Inverse(env, in, out, fresh ? &s.spike : nullptr);
    s.spike.valid = false;  // the factors have changed
    if (updated) {
      s.nUpdate += 1;
      // The leaving column's row now holds the entering column; the other
      // rows only changed places among themselves.
      if (baseCurrent) {
        s.solBase[out - 1] = DBL_MAX;
        s.solBase[in - 1] = 0.0;
        s.solBaseKey = Key_Now(s);
      } else {
        s.solBaseReady = false;
      }
      return 2;
    }
  }

  // The refactorization road: taken when the limits say so, when the caller
  // asks for it, and after a failed update.
  vim->Updates_Done = 0;
  s.solBaseReady = false;
  s.spike.valid = false;
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
