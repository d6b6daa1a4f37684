// Vector listings, record listings and the integer range check.
#include "runtime/dumps.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "runtime/messages.h"

namespace vlu {

namespace {

// How one kind of element is printed: values per line and the format of one.
struct RealFmt {
  static constexpr int PerLine = 7;
  static bool Zero(double x) { return x == 0.0; }
  static int Put(char *out, size_t room, double x) { return std::snprintf(out, room, " %15.7E", x); }
};
struct IntFmt {
  static constexpr int PerLine = 10;
  static bool Zero(int32_t x) { return x == 0; }
  static int Put(char *out, size_t room, int32_t x) { return std::snprintf(out, room, " %10d", x); }
};
struct LIntFmt {
  static constexpr int PerLine = 5;
  static bool Zero(int64_t x) { return x == 0; }
  static int Put(char *out, size_t room, int64_t x) {
    return std::snprintf(out, room, " %19lld", static_cast<long long>(x));
  }
};
struct LogFmt {
  static constexpr int PerLine = 30;
  static bool Zero(Logical x) { return !IsTrue(x); }
  static int Put(char *out, size_t room, Logical x) { return std::snprintf(out, room, "  %s", IsTrue(x) ? "T" : "F"); }
};

// Lists elements first+1 .. first+n of v1 (v1[1] is element 1).
template <typename Fmt, typename T> void List(VMI *vmi, const char *label, const T *v1, int32_t first, int32_t n) {
  if (n <= 0) {
    Doc(vmi, "%s : Empty.", label);
    return;
  }
  bool allZero = true;
  for (int32_t i = first + 1; i <= first + n && allZero; ++i) allZero = Fmt::Zero(v1[i]);
  if (allZero) {
    Doc(vmi, "%s : Zero.", label);
    return;
  }
  Doc(vmi, "%s", label);
  for (int32_t i0 = first + 1; i0 <= first + n; i0 += Fmt::PerLine) {
    char line[MsgWidth + 1];
    int pos = std::snprintf(line, sizeof line, "%8d:", i0);
    for (int32_t i = i0; i < i0 + Fmt::PerLine && i <= first + n; ++i)
      pos += Fmt::Put(line + pos, sizeof line - size_t(pos), v1[i]);
    Doc(vmi, "%s", line);
  }
}

void Undefined(VMI *vmi, const char *routine, const char *label) {
  Doc(vmi, " ** Systems Error **  Undefined vector in %s: %s", routine, label);
  Internal_Error(vmi, 1506, true);
}

// The guarded forms: v1 with `size` elements, allocated or not.
template <typename Fmt, typename T>
void Print_S(VMI *vmi, const char *routine, bool allocated, const T *v1, int32_t size, const char *label, int32_t n) {
  if (!allocated) {
    Undefined(vmi, routine, label);
    return;
  }
  if (n > size) {
    Doc(vmi, " ** Systems Error **  Illegal vector length in %s for vector %s", routine, label);
    Doc(vmi, "Actual length=%10d and print length=%10d", size, n);
    Internal_Error(vmi, 1415, true);
    return;
  }
  List<Fmt>(vmi, label, v1, 0, n);
}

template <typename Fmt, typename T>
void Print_P(VMI *vmi, const char *routine, bool allocated, const T *v1, int32_t size, const char *label,
             int32_t base, int32_t n) {
  if (!allocated) {
    Undefined(vmi, routine, label);
    return;
  }
  if (base < 0) {
    Doc(vmi, " ** Systems Error **  Negative Base pointer in %s: %s", routine, label);
    Doc(vmi, " Ibase=%10d", base);
    Internal_Error(vmi, 1425, true);
    return;
  }
  if (int64_t(base) + n > size) {
    Doc(vmi, " ** Systems Error **  Illegal vector length in %s for vector %s", routine, label);
    Doc(vmi, "Allocated length=%10d Ibase=%10d and print length=%10d", size, base, n);
    Internal_Error(vmi, 1427, true);
    return;
  }
  List<Fmt>(vmi, label, v1, base, n);
}

template <typename Vec>
bool Range_Check(VMI *vmi, const Vec &v, const int32_t *v1, int32_t size, const char *label, int32_t low,
                 int32_t high) {
  if (!v.Allocated()) {
    Undefined(vmi, "Check_Int_Range", label);
    return false;
  }
  if (size < 1) {
    Doc(vmi, "%s : Empty.", label);
    return true;
  }
  bool under = false, over = false, headed = false;
  auto head = [&]() {
    if (!headed) Doc(vmi, "Vector %s should have values between%10d and%10d", label, low, high);
    headed = true;
  };
  for (int32_t i = 1; i <= size && !(under && over); ++i) {
    if (!under && v1[i] < low) {
      head();
      Doc(vmi, "Underflow has been found at%10d Value=%10d", i, v1[i]);
      under = true;
    } else if (!over && v1[i] > high) {
      head();
      Doc(vmi, "Overflow has been found at%10d Value=%10d", i, v1[i]);
      over = true;
    }
  }
  return !under && !over;
}

// ---------------------------------------------------------------------------
// Record listings.

void Slot_Line(VMI *vmi, const char *name, const void *first, int32_t length, const char *type) {
  if (length == 0)
    Doc(vmi, "%-14.14s    **NoAddress**        0%7s%s", name, "", type);
  else
    Doc(vmi, "%-14.14s%11lld%15d%7s%s", name, static_cast<long long>(reinterpret_cast<uintptr_t>(first)), length,
        "", type);
}

struct Lister {
  VMI *vmi;
  void operator()(const char *name, IntVec &v) const {
    if (v.Allocated()) Slot_Line(vmi, name, v.V + 1, v.Size, "Integer");
  }
  void operator()(const char *name, LIntVec &v) const {
    if (v.Allocated()) Slot_Line(vmi, name, v.V + 1, v.Size, "Integer(VD_L)");
  }
  void operator()(const char *name, LogVec &v) const {
    if (v.Allocated()) Slot_Line(vmi, name, v.V + 1, v.Size, "Logical");
  }
  void operator()(const char *, RVec &v) const {
    char name[21];
    if (v.Allocated()) Slot_Line(vmi, Trim_Name(v.Name, name), v.Val + 1, Size(v), "Real");
  }
  void operator()(const char *, IVec &v) const {
    char name[21];
    if (v.Allocated()) Slot_Line(vmi, Trim_Name(v.Name, name), v.Val + 1, Size(v), "Integer");
  }
};

struct Contents {
  VMI *vmi;
  void operator()(const char *name, IntVec &v) const {
    if (v.Allocated()) PV_Int(vmi, v, name);
  }
  void operator()(const char *name, LIntVec &v) const {
    if (v.Allocated()) PV_LInt(vmi, v, name);
  }
  void operator()(const char *name, LogVec &v) const {
    if (v.Allocated()) PV_Log(vmi, v, name);
  }
  void operator()(const char *name, RVec &v) const {
    if (v.Allocated()) PV_RVec(vmi, v, name);
  }
  void operator()(const char *name, IVec &v) const {
    if (v.Allocated()) PV_IVec(vmi, v, name);
  }
};

template <typename Rec> void Dump_Record(VMI *vmi, Rec *rec, const char *title) {
  Doc(vmi, "Vectors in VARDEN_%s ", title);
  Doc(vmi, "NAME            Address  Length in elements  Type");
  if (rec == nullptr) return;
  ForEachVec(*rec, Lister{vmi});
  if (vmi->Trace_Memory >= 3) {
    Doc(vmi, "Content of the Vectors:");
    ForEachVec(*rec, Contents{vmi});
  }
}

}  // namespace

void PS_RVec(VMI *vmi, const RVec &v, const char *label, int32_t n) {
  Print_S<RealFmt>(vmi, "PS_RVec", v.Allocated(), v.Val, Size(v), label, n);
}
void PS_IVec(VMI *vmi, const IVec &v, const char *label, int32_t n) {
  Print_S<IntFmt>(vmi, "PS_IVec", v.Allocated(), v.Val, Size(v), label, n);
}
void PS_Int(VMI *vmi, const IntVec &v, const char *label, int32_t n) {
  Print_S<IntFmt>(vmi, "PS_Int", v.Allocated(), v.V, v.Size, label, n);
}
void PS_Log(VMI *vmi, const LogVec &v, const char *label, int32_t n) {
  Print_S<LogFmt>(vmi, "PS_Log", v.Allocated(), v.V, v.Size, label, n);
}
void PS_Int_Name(VMI *vmi, const IntVec &v, const char *label, int32_t n) {
  Print_S<IntFmt>(vmi, "PS_Int_Name", v.Allocated(), v.V, v.Size, label, n);
}

void PP_RVec(VMI *vmi, const RVec &v, const char *label, int32_t base, int32_t n) {
  Print_P<RealFmt>(vmi, "PP_RVec", v.Allocated(), v.Val, Size(v), label, base, n);
}
void PP_Int(VMI *vmi, const IntVec &v, const char *label, int32_t base, int32_t n) {
  Print_P<IntFmt>(vmi, "PP_Int", v.Allocated(), v.V, v.Size, label, base, n);
}
void PP_Log(VMI *vmi, const LogVec &v, const char *label, int32_t base, int32_t n) {
  Print_P<LogFmt>(vmi, "PP_Log", v.Allocated(), v.V, v.Size, label, base, n);
}

void PV_RVec(VMI *vmi, const RVec &v, const char *label) {
  Print_S<RealFmt>(vmi, "PV_RVec", v.Allocated(), v.Val, Size(v), label, Size(v));
}
void PV_IVec(VMI *vmi, const IVec &v, const char *label) {
  Print_S<IntFmt>(vmi, "PV_IVec", v.Allocated(), v.Val, Size(v), label, Size(v));
}
void PV_Int(VMI *vmi, const IntVec &v, const char *label) {
  Print_S<IntFmt>(vmi, "PV_Int", v.Allocated(), v.V, v.Size, label, v.Size);
}
void PV_Log(VMI *vmi, const LogVec &v, const char *label) {
  Print_S<LogFmt>(vmi, "PV_Log", v.Allocated(), v.V, v.Size, label, v.Size);
}
void PV_LInt(VMI *vmi, const LIntVec &v, const char *label) {
  Print_S<LIntFmt>(vmi, "PV_LInt", v.Allocated(), v.V, v.Size, label, v.Size);
}

void PS_Int_Ind(VMI *vmi, const IntVec &v, const IntVec &ind, const char *label, int32_t n) {
  if (!ind.Allocated()) {
    Doc(vmi, " ** Fatal Error ** PS_Int_Ind: Indirect Vector is not associated.");
    Internal_Error(vmi, 1821, true);
    return;
  }
  if (!v.Allocated()) {
    Doc(vmi, " ** Fatal Error ** PS_Int_Ind: Vector is not associated.");
    Internal_Error(vmi, 1821, true);
    return;
  }
  if (n > ind.Size) {
    Doc(vmi, " ** Systems Error **  Illegal vector length in PS_Int_Ind for vector %s", label);
    Doc(vmi, "Actual length=%10d and print length=%10d", ind.Size, n);
    Internal_Error(vmi, 1415, true);
    return;
  }
  if (n <= 0) {
    Doc(vmi, "%s : Empty.", label);
    return;
  }
  Doc(vmi, "%s", label);
  constexpr int perLine = 5;
  for (int32_t j0 = 1; j0 <= n; j0 += perLine) {
    char line[MsgWidth + 1];
    int pos = std::snprintf(line, sizeof line, "%8d:", j0);
    for (int32_t j = j0; j < j0 + perLine && j <= n; ++j) {
      const int32_t k = ind.V[j];
      if (k >= 1 && k <= v.Size)
        pos += std::snprintf(line + pos, sizeof line - size_t(pos), " (%10d,%10d)", k, v.V[k]);
      else
        pos += std::snprintf(line + pos, sizeof line - size_t(pos), " (%10d,    ******)", k);
    }
    Doc(vmi, "%s", line);
  }
}

void PV_RvecIndexed(VMI *vmi, const RVec &values, const IntVec &indices, int32_t start, int32_t length,
                    const char *label) {
  if (!values.Allocated()) {
    Doc(vmi, " ** Systems Error **  Unallocated real vector in PV_RvecIndexed: %s", label);
    Internal_Error(vmi, 1439, true);
    return;
  }
  if (!indices.Allocated()) {
    Doc(vmi, " ** Systems Error **  Unallocated integer vector in PV_RvecIndexed: %s", label);
    Internal_Error(vmi, 1440, true);
    return;
  }
  if (length < 0) {
    Doc(vmi, " ** Systems Error **  Negative length of Vector H%s", label);
    Doc(vmi, "Length=%10d", length);
    Internal_Error(vmi, 1441, true);
    return;
  }
  if (start < 1) {
    Doc(vmi, " ** Systems Error **  Start of Vector %s is below 1: Start=%10d", label, start);
    Internal_Error(vmi, 1442, true);
    return;
  }
  const int64_t last = int64_t(start) + length - 1;
  if (last > Size(values) || last > indices.Size) {
    Doc(vmi, " ** Systems Error **  Start of Vector %s plus its length passes the end.", label);
    Doc(vmi, "Start=%10d Length=%10d Real size=%10d Integer size=%10d", start, length, Size(values),
        indices.Size);
    Internal_Error(vmi, 1443, true);
    return;
  }
  if (length == 0) {
    Doc(vmi, "%s : Empty.", label);
    return;
  }
  Doc(vmi, "%s", label);
  constexpr int perLine = 4;
  for (int32_t k0 = start; k0 <= last; k0 += perLine) {
    char line[MsgWidth + 1];
    int pos = std::snprintf(line, sizeof line, "%8d:", k0);
    for (int32_t k = k0; k < k0 + perLine && k <= last; ++k)
      pos += std::snprintf(line + pos, sizeof line - size_t(pos), " (%9d,%15.7E)", indices.V[k], values.Val[k]);
    Doc(vmi, "%s", line);
  }
}

void PV_RVecList(VMI *vmi, const RVec &values, const IntVec &list, const char *label) {
  if (!list.Allocated()) {
    Doc(vmi, " ** Systems Error **  Unallocated index vector in PV_RVecList: %s", label);
    Internal_Error(vmi, 1439, true);
    return;
  }
  if (!values.Allocated()) {
    Doc(vmi, " ** Systems Error **  Unallocated vector in PV_RVecList: %s", label);
    Internal_Error(vmi, 1439, true);
    return;
  }
  for (int32_t j = 1; j <= list.Size; ++j) {
    if (list.V[j] < 1 || list.V[j] > Size(values)) {
      Doc(vmi, " ** Systems Error **  Index%10d at position%10d of %s exceeds real vector size.", list.V[j], j,
          label);
      Internal_Error(vmi, 1439, true);
      return;
    }
  }
  if (list.Size == 0) {
    Doc(vmi, "%s : Empty.", label);
    return;
  }
  Doc(vmi, "%s", label);
  constexpr int perLine = 4;
  for (int32_t j0 = 1; j0 <= list.Size; j0 += perLine) {
    char line[MsgWidth + 1];
    int pos = std::snprintf(line, sizeof line, "%8d:", j0);
    for (int32_t j = j0; j < j0 + perLine && j <= list.Size; ++j)
      pos += std::snprintf(line + pos, sizeof line - size_t(pos), " (%9d,%15.7E)", list.V[j], values.Val[list.V[j]]);
    Doc(vmi, "%s", line);
  }
}

bool Check_Int_Range(VMI *vmi, const IntVec &v, const char *label, int32_t low, int32_t high) {
  return Range_Check(vmi, v, v.V, v.Size, label, low, high);
}
bool Check_Int_Range(VMI *vmi, const IVec &v, const char *label, int32_t low, int32_t high) {
  return Range_Check(vmi, v, v.Val, Size(v), label, low, high);
}

void VMI_Dump_VUM(VMI *vmi) { Dump_Record(vmi, vmi->Vum, "User_Model"); }
void VMI_Dump_VIM(VMI *vmi) { Dump_Record(vmi, vmi->Vim, "Internal_Model"); }
void VMI_Dump_LUF(VMI *vmi) { Dump_Record(vmi, vmi->Luf, "LUFactor"); }
void VMI_Dump_IIN(VMI *vmi) { Dump_Record(vmi, vmi->Iin, "Internal_Inversion"); }
void VMI_Dump_VPI(VMI *vmi) { Dump_Record(vmi, vmi->Vpi, "Preproc_Info"); }
void VMI_Dump_BND(VMI *vmi) { Dump_Record(vmi, vmi->Bnd, "Bending_Info"); }
void VMI_Dump_VDP(VMI *vmi) { Dump_Record(vmi, vmi->Vdp, "DefPost_Data"); }

void VMI_Dump_All(VMI *vmi) {
  VMI_Dump_VUM(vmi);
  VMI_Dump_VIM(vmi);
  VMI_Dump_VPI(vmi);
  VMI_Dump_LUF(vmi);
  VMI_Dump_IIN(vmi);
  VMI_Dump_VDP(vmi);
  VMI_Dump_BND(vmi);
}

}  // namespace vlu
