// Managed vectors: every growing array of the library is created, enlarged,
// handed over and released only through these routines, which keep the
// memory statistics of the environment exact to the element.
//
// All vectors are 1-based: v.Val[1] (record vectors) and v[1] (plain
// vectors) is element 1.  A failed allocation switches the environment into
// the exhausted state (VMI::EnoughSpace false) in which further allocations
// and enlargements are no-ops; releases keep working and accounting.
#pragma once
#include <cstdint>
#include <cstddef>

namespace vlu {

struct VMI;

// A 4-byte logical: 0 is false, all bits set is true, the lowest bit decides.
using Logical = int32_t;
constexpr Logical LTrue = -1;
constexpr Logical LFalse = 0;
inline bool IsTrue(Logical l) { return (l & 1) != 0; }

// Record vectors: 8-byte reals (RVec) and 4-byte integers (IVec), optionally
// with one section per thread at a cache-line stride (Offset).
template <typename T>
struct RecVec {
  char Name[21] = {0};     // blank padded, set once by the owning record
  int32_t Length = 0;      // elements of one section
  int32_t NumThread = 0;   // sections
  int32_t Offset = 0;      // stride in elements between sections
  T *Base = nullptr;       // raw block (0-based in C terms), owner of memory
  int64_t Cap = 0;         // bytes of the block Base: BaseSize elements, or more when a
                           // larger spare was taken (the vector then grows in place)
  int32_t BaseSize = 0;    // allocated size of Base in elements
  T *Val = nullptr;        // aligned view: Val[1] is on a 64-byte boundary
  int32_t Extent = 0;      // total length of Val
  bool Temp = false;       // a view made by TempUse_RVec: owns nothing
  T *Spare = nullptr;      // block that this slot held before its environment was renewed
                           // (Park_Vector), not counted; the next allocation of the slot
                           // takes it when it asks for no more than SpareBytes, else it
                           // goes back
  int64_t SpareBytes = 0;  // bytes of Spare as allocated

  bool Allocated() const { return Base != nullptr; }
  T &operator[](int32_t i) const { return Val[i]; }
  T *data1() const { return Val; }  // pointer with [1] = element 1
};
using RVec = RecVec<double>;
using IVec = RecVec<int32_t>;

// Plain vectors: bare arrays, the caller passes the name with every call.
enum class PlainKind { Int, LInt, Log };
template <typename T, PlainKind K>
struct PlainVec {
  T *Raw = nullptr;     // allocation (0-based)
  int64_t Cap = 0;      // bytes of the block Raw, Size elements or more (as RecVec::Cap)
  T *V = nullptr;       // V[1] is element 1
  int32_t Size = 0;     // elements
  bool Alloc = false;
  T *Spare = nullptr;   // as RecVec::Spare: a parked block of SpareBytes, not counted
  int64_t SpareBytes = 0;

  bool Allocated() const { return Alloc; }
  T &operator[](int32_t i) const { return V[i]; }
  T *data1() const { return V; }
};
using IntVec = PlainVec<int32_t, PlainKind::Int>;
using LIntVec = PlainVec<int64_t, PlainKind::LInt>;
using LogVec = PlainVec<Logical, PlainKind::Log>;

// Size formulas of record vectors (elements).
int32_t RVec_Offset(int32_t length);
int32_t IVec_Offset(int32_t length);
int32_t RVec_AllocSize(int32_t length, int32_t numThread);
int32_t IVec_AllocSize(int32_t length, int32_t numThread);
inline int32_t TotalLength(int32_t length, int32_t numThread, int32_t offset) {
  return (numThread - 1) * offset + length;
}

// "size" of a vector as the sizing rules use it: the element count of the
// view (total length) for record vectors, the element count for plain ones.
template <typename T> inline int32_t Size(const RecVec<T> &v) { return v.Extent; }
template <typename T, PlainKind K> inline int32_t Size(const PlainVec<T, K> &v) { return v.Size; }

// Sets the name of a record vector (blank padded to 20 characters).
void Set_Name(RVec &v, const char *name);
void Set_Name(IVec &v, const char *name);
// Name of a record vector with trailing blanks cut.
const char *Trim_Name(const char *name20, char *out21);

void Allocate_RVec(VMI *vmi, RVec &v, int32_t length, int32_t numThread = 1);
void Allocate_Ivec(VMI *vmi, IVec &v, int32_t length, int32_t numThread = 1);
void Allocate_Int(VMI *vmi, IntVec &v, const char *name, int32_t length);
void Allocate_LInt(VMI *vmi, LIntVec &v, const char *name, int32_t length);
void Allocate_Log(VMI *vmi, LogVec &v, const char *name, int32_t length);

void Deallocate_RVec(VMI *vmi, RVec &v, bool mustExist = false);
void Deallocate_IVec(VMI *vmi, IVec &v, bool mustExist = false);
void Deallocate_Int(VMI *vmi, IntVec &v, const char *name, bool mustExist = false);
void Deallocate_LInt(VMI *vmi, LIntVec &v, const char *name, bool mustExist = false);
void Deallocate_Log(VMI *vmi, LogVec &v, const char *name, bool mustExist = false);

void Increase_RVec(VMI *vmi, RVec &v, int32_t delta, bool keep = true);
void Increase_IVec(VMI *vmi, IVec &v, int32_t delta, bool keep = true);
void Increase_Int(VMI *vmi, IntVec &v, const char *name, int32_t delta, bool keep = true);
void Increase_Log(VMI *vmi, LogVec &v, const char *name, int32_t delta, bool keep = true);

// Renewal of an environment: Park_Vector releases a vector as the release
// routines do (counters, no trace) but keeps its block with the slot as the
// spare, so that the next allocation of the slot takes it back without the
// allocator when it fits (a larger one too: the vector may then grow in
// place); Settle_Vector gives a spare that was not taken back, and moves a
// vector whose block is far larger than it counts (Cap) into a block of its
// counted size.  The release routines give a spare back as well.
void Park_Vector(VMI *vmi, RVec &v);
void Park_Vector(VMI *vmi, IVec &v);
void Park_Vector(VMI *vmi, IntVec &v);
void Park_Vector(VMI *vmi, LIntVec &v);
void Park_Vector(VMI *vmi, LogVec &v);
void Settle_Vector(RVec &v);
void Settle_Vector(IVec &v);
void Settle_Vector(IntVec &v);
void Settle_Vector(LIntVec &v);
void Settle_Vector(LogVec &v);

// Moves the storage from vecOld to vecNew; no memory moves, no counters change.
void Reuse_RVec(VMI *vmi, RVec &vecOld, RVec &vecNew);
void Reuse_Int(VMI *vmi, IntVec &vecOld, const char *oldName, IntVec &vecNew,
               const char *newName);
// Makes temp a non-owning view of the first `length` elements of src.
void TempUse_RVec(VMI *vmi, RVec &src, RVec &temp, int32_t length);

// Prints the totals and checks the balance invariant (internal error 9998).
void MemStat(VMI *vmi);
// Checks that positions Length+1 .. total length are zero (error 42200).
void Test_Zero(VMI *vmi, const RVec &v, const char *caller);
void Test_Zero(VMI *vmi, const IVec &v, const char *caller);

}  // namespace vlu
