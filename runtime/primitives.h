// Whole-vector operations with guards: each tests that its vector is
// allocated and that the length given fits, and reports a named internal
// error otherwise.  The inner forms have no guard.
#pragma once
#include <cstdint>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include "runtime/records.h"

namespace vlu {

// k = 0 means "not given": only the first section.
void Clear_Rvec(VMI *vmi, RVec &v, int32_t k = 0);
void Clear_IVec(VMI *vmi, IVec &v, int32_t k = 0);
void Clear_Int(VMI *vmi, IntVec &v);
void Clear_LInt(VMI *vmi, LIntVec &v);
void ClearS_Rvec(VMI *vmi, RVec &v, int32_t n);
void ClearS_Int(VMI *vmi, IntVec &v, int32_t n);
void ClearP_Rvec(VMI *vmi, RVec &v, int32_t ifr, int32_t ito);
void ClearP_IVec(VMI *vmi, IVec &v, int32_t ifr, int32_t ito);
void ClearP_Int(VMI *vmi, IntVec &v, int32_t ifr, int32_t ito);
void Clear_Rvec_Ind(VMI *vmi, RVec &v, IntVec &ind, int32_t n);
void Clear_Log_Ind(VMI *vmi, LogVec &v, IntVec &ind, int32_t n);
void Define_Rvec(VMI *vmi, RVec &v, double value, int32_t k = 0);
void Define_Int(VMI *vmi, IntVec &v, int32_t value);
void Define_Int(VMI *vmi, LIntVec &v, int64_t value);
void Define_Log(VMI *vmi, LogVec &v, Logical value);
void Ident_Int(VMI *vmi, IntVec &v);
void CP_Rvec(VMI *vmi, const RVec &src, RVec &tgt);
void CP_Int(VMI *vmi, const IntVec &src, IntVec &tgt);
void CP_Log(VMI *vmi, const LogVec &src, LogVec &tgt);
void CPS_Rvec(VMI *vmi, const RVec &src, RVec &tgt, int32_t n);

// Inner forms (no guard).
void Inc_Int(int32_t *v1, int32_t n);
void Dec_Int(int32_t *v1, int32_t n);
void Zero_Real(double *v1, int32_t n);    // v1[1..n] = 0
void Zero_Int(int32_t *v1, int32_t n);
void Copy_Real(const double *s1, double *t1, int32_t n);
void Copy_Int(const int32_t *s1, int32_t *t1, int32_t n);
// First index in from..to of v1 holding value, or 0.
int32_t Find_Int(const int32_t *v1, int32_t from, int32_t to, int32_t value);
// The linear search used across the update (same contract as Find_Int).
// Four at a time where the vector unit allows and the stretch is long; the
// first match either way.
inline int32_t Int_Lookup(const int32_t *v1, int32_t first, int32_t last, int32_t value) {
  int32_t i = first;
#if defined(__SSE2__) && (defined(__GNUC__) || defined(__clang__))
  if (last - first >= 7) {
    const __m128i key = _mm_set1_epi32(value);
    for (; i + 3 <= last; i += 4) {
      const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(v1 + i));
      const int hit = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(x, key)));
      if (hit != 0) return i + __builtin_ctz(static_cast<unsigned>(hit));
    }
  }
#endif
  for (; i <= last; ++i)
    if (v1[i] == value) return i;
  return 0;
}
int32_t Get_Int4(const uint8_t *bytes);
void Put_Int4(uint8_t *bytes, int32_t value);

}  // namespace vlu
