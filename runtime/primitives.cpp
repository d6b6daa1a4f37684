// Whole-vector clear, fill, copy and identity with guards.  A guard that
// trips sends its text, raises a fatal internal error and returns without
// doing the work; these are assertions that stay in the shipped code.
#include "runtime/primitives.h"

#include <algorithm>
#include <cstring>

#include "runtime/messages.h"

namespace vlu {

namespace {

// Fills below this many elements use a plain loop, above it the memory fill.
constexpr int32_t Fill_Cut = 25;

template <typename T> void Fill_Value(T *v1, int32_t n, T value) {
  for (int32_t i = 1; i <= n; ++i) v1[i] = value;
}

template <typename T> void Fill_Zero(T *v1, int32_t n) {
  if (n <= 0) return;
  if (n < Fill_Cut)
    for (int32_t i = 1; i <= n; ++i) v1[i] = T(0);
  else
    std::memset(v1 + 1, 0, size_t(n) * sizeof(T));
}

// Fatal report: the text lines already formatted, then the error.
void Fail(VMI *vmi, int number) { Internal_Error(vmi, number, true); }

const char *Name_Of(const char *name20, char *out) { return Trim_Name(name20, out); }

// Number of elements that a section count k covers (k = 0: one section).
template <typename T> int32_t Section_Span(const RecVec<T> &v, int32_t k) {
  int32_t n = v.Length;
  if (k > 0) n += (k - 1) * v.Offset;
  return n;
}

template <typename T> void Rec_Clear(VMI *vmi, RecVec<T> &v, int32_t k, const char *routine) {
  if (!v.Allocated()) {
    char name[21];
    Doc(vmi, " ** Fatal Error ** %s: Vector %s is not associated.", routine, Name_Of(v.Name, name));
    Fail(vmi, 1821);
    return;
  }
  if (v.Length < 1) return;  // an empty vector is never cleared past section 1
  Fill_Zero(v.Val, Section_Span(v, k));
}

template <typename T> void Rec_ClearP(VMI *vmi, RecVec<T> &v, int32_t ifr, int32_t ito, const char *routine,
                                      int number) {
  if (!v.Allocated()) {
    char name[21];
    Doc(vmi, " ** Fatal Error ** %s: Vector %s is not associated.", routine, Name_Of(v.Name, name));
    Fail(vmi, 1821);
    return;
  }
  if (v.Length <= 0 || ifr == ito + 1) return;
  if (ifr < 1 || ifr > v.Length || ito > v.Length || ifr > ito) {
    Doc(vmi, " ** Fatal Error ** %s:  Length and part info are inconsistent.", routine);
    Doc(vmi, "    Vec%%Length=%10d Ifr=%10d and Ito=%10d", v.Length, ifr, ito);
    Fail(vmi, number);
    return;
  }
  Fill_Zero(v.Val + (ifr - 1), ito - ifr + 1);
}

template <typename T, PlainKind K> bool Plain_Guard(VMI *vmi, const PlainVec<T, K> &v, const char *routine,
                                                    int number) {
  if (v.Allocated()) return true;
  Doc(vmi, " ** Fatal Error ** %s: Vector is not associated.", routine);
  Fail(vmi, number);
  return false;
}

template <typename T, PlainKind K>
void Plain_Copy(VMI *vmi, const PlainVec<T, K> &src, PlainVec<T, K> &tgt, const char *routine) {
  if (!src.Allocated()) {
    Doc(vmi, " ** Fatal Error ** %s: First vector is not associated.", routine);
    Fail(vmi, 1811);
    return;
  }
  if (!tgt.Allocated()) {
    Doc(vmi, " ** Fatal Error ** %s: Second vector is not associated.", routine);
    Fail(vmi, 1812);
    return;
  }
  if (src.Size != tgt.Size) {
    Doc(vmi, " ** Fatal Error ** %s: Two vectors do not have the same size.", routine);
    Doc(vmi, " Size(VecF)=%10d and Size(VecT)=%10d", src.Size, tgt.Size);
    Fail(vmi, 1813);
    return;
  }
  if (src.Size > 0 && src.V != tgt.V) std::memcpy(tgt.V + 1, src.V + 1, size_t(src.Size) * sizeof(T));
}

}  // namespace

void Clear_Rvec(VMI *vmi, RVec &v, int32_t k) { Rec_Clear(vmi, v, k, "Clear_Rvec"); }
void Clear_IVec(VMI *vmi, IVec &v, int32_t k) { Rec_Clear(vmi, v, k, "Clear_IVec"); }

void Clear_Int(VMI *vmi, IntVec &v) {
  if (Plain_Guard(vmi, v, "Clear_Int", 1822)) Fill_Zero(v.V, v.Size);
}

void Clear_LInt(VMI *vmi, LIntVec &v) {
  if (Plain_Guard(vmi, v, "Clear_LInt", 1822)) Fill_Zero(v.V, v.Size);
}

void ClearS_Rvec(VMI *vmi, RVec &v, int32_t n) {
  char name[21];
  if (!v.Allocated()) {
    Doc(vmi, " ** Fatal Error ** ClearS_Rvec: Vector %s is not associated.", Name_Of(v.Name, name));
    Fail(vmi, 1834);
    return;
  }
  if (n > Size(v)) {
    Doc(vmi, " ** Fatal Error ** ClearS_Rvec: Length and size info are inconsistent.");
    Doc(vmi, "    Size(vec)=%10d Length=%10d", Size(v), n);
    Fail(vmi, 1835);
    Clear_Rvec(vmi, v);
    return;
  }
  Fill_Zero(v.Val, n);
}

void ClearS_Int(VMI *vmi, IntVec &v, int32_t n) {
  if (!Plain_Guard(vmi, v, "ClearS_Int", 1837)) return;
  if (n > v.Size) {
    Doc(vmi, " ** Fatal Error ** ClearS_Int: Length and size info are inconsistent.");
    Doc(vmi, "    Size(vec)=%10d Length=%10d", v.Size, n);
    Fail(vmi, 1836);
    return;
  }
  Fill_Zero(v.V, n);
}

void ClearP_Rvec(VMI *vmi, RVec &v, int32_t ifr, int32_t ito) { Rec_ClearP(vmi, v, ifr, ito, "ClearP_Rvec", 18251); }
void ClearP_IVec(VMI *vmi, IVec &v, int32_t ifr, int32_t ito) { Rec_ClearP(vmi, v, ifr, ito, "ClearP_IVec", 18252); }

void ClearP_Int(VMI *vmi, IntVec &v, int32_t ifr, int32_t ito) {
  if (!Plain_Guard(vmi, v, "ClearP_Int", 1824)) return;
  if (v.Size <= 0 || ifr == ito + 1) return;
  if (ifr < 1 || ifr > v.Size || ito > v.Size || ifr > ito) {
    Doc(vmi, " ** Fatal Error ** ClearP_Int: Length and part info are inconsistent.");
    Doc(vmi, "    Size(vec)=%10d Ifr=%10d and Ito=%10d", v.Size, ifr, ito);
    Fail(vmi, 18253);
    return;
  }
  Fill_Zero(v.V + (ifr - 1), ito - ifr + 1);
}

void Clear_Rvec_Ind(VMI *vmi, RVec &v, IntVec &ind, int32_t n) {
  if (!v.Allocated()) {
    char name[21];
    Doc(vmi, " ** Fatal Error ** Clear_Rvec_Ind: Vector %s is not associated.", Name_Of(v.Name, name));
    Fail(vmi, 1821);
    return;
  }
  if (!ind.Allocated()) {
    Doc(vmi, " ** Fatal Error ** Clear_Rvec_Ind: Indirect Vector is not associated.");
    Fail(vmi, 1821);
    return;
  }
  const int32_t len = v.Length;
  if (len == 0 || n <= 0) return;
  double *a = v.Val;
  if (n > len / 5) {
    Fill_Zero(a, len);  // cheaper than n scattered writes
    return;
  }
  const int32_t *ix = ind.V;
  for (int32_t j = 1; j <= n; ++j) a[ix[j]] = 0.0;
}

void Clear_Log_Ind(VMI *vmi, LogVec &v, IntVec &ind, int32_t n) {
  if (!v.Allocated()) {
    Doc(vmi, " ** Fatal Error ** Clear_Log_Ind: Vector is not associated.");
    Fail(vmi, 1827);
    return;
  }
  if (!ind.Allocated()) {
    Doc(vmi, " ** Fatal Error ** Clear_Log_Ind: Indirect Vector is not associated.");
    Fail(vmi, 1827);
    return;
  }
  const int32_t len = v.Size;
  if (len == 0 || n <= 0) return;
  Logical *a = v.V;
  if (n > len / 5) {
    Fill_Zero(a, len);
    return;
  }
  const int32_t *ix = ind.V;
  for (int32_t j = 1; j <= n; ++j) a[ix[j]] = LFalse;
}

void Define_Rvec(VMI *vmi, RVec &v, double value, int32_t k) {
  if (!v.Allocated()) {
    char name[21];
    Doc(vmi, " ** Fatal Error ** Define_Rvec: Vector %s is not associated.", Name_Of(v.Name, name));
    Fail(vmi, 1831);
    return;
  }
  if (v.Length < 1) return;
  Fill_Value(v.Val, Section_Span(v, k), value);
}

void Define_Int(VMI *vmi, IntVec &v, int32_t value) {
  if (Plain_Guard(vmi, v, "Define_Int", 1822)) Fill_Value(v.V, v.Size, value);
}

void Define_Int(VMI *vmi, LIntVec &v, int64_t value) {
  if (Plain_Guard(vmi, v, "Define_Int", 1822)) Fill_Value(v.V, v.Size, value);
}

void Define_Log(VMI *vmi, LogVec &v, Logical value) {
  if (Plain_Guard(vmi, v, "Define_Log", 1822)) Fill_Value(v.V, v.Size, value);
}

void Ident_Int(VMI *vmi, IntVec &v) {
  if (!Plain_Guard(vmi, v, "Ident_Int", 1823)) return;
  int32_t *a = v.V;
  for (int32_t i = 1; i <= v.Size; ++i) a[i] = i;
}

void CP_Rvec(VMI *vmi, const RVec &src, RVec &tgt) {
  char n1[21], n2[21];
  Name_Of(src.Name, n1);
  Name_Of(tgt.Name, n2);
  if (!src.Allocated()) {
    Doc(vmi, " ** Fatal Error ** CP_Rvec: First vector %s is not associated.", n1);
    Fail(vmi, 1801);
    return;
  }
  if (!tgt.Allocated()) {
    Doc(vmi, " ** Fatal Error ** CP_Rvec: Second vector %s is not associated.", n2);
    Fail(vmi, 1802);
    return;
  }
  if (Size(src) != Size(tgt)) {
    Doc(vmi, " ** Fatal Error ** CP_Rvec: the two vectors %s and %s do not have the same size.", n1, n2);
    Fail(vmi, 1803);
    return;
  }
  if (Size(src) > 0 && src.Val != tgt.Val) std::memcpy(tgt.Val + 1, src.Val + 1, size_t(Size(src)) * sizeof(double));
}

void CP_Int(VMI *vmi, const IntVec &src, IntVec &tgt) { Plain_Copy(vmi, src, tgt, "CP_Int"); }
void CP_Log(VMI *vmi, const LogVec &src, LogVec &tgt) { Plain_Copy(vmi, src, tgt, "CP_Log"); }

void CPS_Rvec(VMI *vmi, const RVec &src, RVec &tgt, int32_t n) {
  char n1[21], n2[21];
  Name_Of(src.Name, n1);
  Name_Of(tgt.Name, n2);
  if (!src.Allocated()) {
    Doc(vmi, " ** Fatal Error ** CPS_Rvec: First vector %s is not associated.", n1);
    Fail(vmi, 1861);
    return;
  }
  if (!tgt.Allocated()) {
    Doc(vmi, " ** Fatal Error ** CPS_Rvec: Second vector %s is not associated.", n2);
    Fail(vmi, 1862);
    return;
  }
  if (n > src.Length || n > tgt.Length) {
    Doc(vmi, " ** Fatal Error ** CPS_Rvec: Length info inconsistent with lengths of vectors.");
    Doc(vmi, "    %s%%Length=%10d and %s%%Length=%10d and argument Length=%10d", n1, src.Length, n2,
        tgt.Length, n);
    Fail(vmi, 1854);
    return;
  }
  if (n > 0 && src.Val != tgt.Val) std::memmove(tgt.Val + 1, src.Val + 1, size_t(n) * sizeof(double));
}

// ---------------------------------------------------------------------------
// Inner forms.

void Inc_Int(int32_t *v1, int32_t n) {
  for (int32_t i = 1; i <= n; ++i) v1[i] = Wrap_Add(v1[i], 1);
}

void Dec_Int(int32_t *v1, int32_t n) {
  for (int32_t i = 1; i <= n; ++i) v1[i] = Wrap_Add(v1[i], -1);
}

void Zero_Real(double *v1, int32_t n) { Fill_Zero(v1, n); }
void Zero_Int(int32_t *v1, int32_t n) { Fill_Zero(v1, n); }

void Copy_Real(const double *s1, double *t1, int32_t n) {
  if (n > 0 && s1 != t1) std::memmove(t1 + 1, s1 + 1, size_t(n) * sizeof(double));
}

void Copy_Int(const int32_t *s1, int32_t *t1, int32_t n) {
  if (n > 0 && s1 != t1) std::memmove(t1 + 1, s1 + 1, size_t(n) * sizeof(int32_t));
}

int32_t Find_Int(const int32_t *v1, int32_t from, int32_t to, int32_t value) {
  for (int32_t i = from; i <= to; ++i)
    if (v1[i] == value) return i;
  return 0;
}

int32_t Get_Int4(const uint8_t *bytes) {
  const uint32_t u = uint32_t(bytes[0]) | (uint32_t(bytes[1]) << 8) | (uint32_t(bytes[2]) << 16) |
                     (uint32_t(bytes[3]) << 24);
  return static_cast<int32_t>(u);
}

void Put_Int4(uint8_t *bytes, int32_t value) {
  const uint32_t u = static_cast<uint32_t>(value);
  bytes[0] = uint8_t(u & 0xffu);
  bytes[1] = uint8_t((u >> 8) & 0xffu);
  bytes[2] = uint8_t((u >> 16) & 0xffu);
  bytes[3] = uint8_t((u >> 24) & 0xffu);
}

}  // namespace vlu
