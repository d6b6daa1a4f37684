// Managed vectors: allocation, enlargement, hand-over and release, with the
// memory statistics of the environment kept exact to the element.
#include "runtime/vectors.h"
#include "runtime/block_cache.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"

namespace vlu {

int64_t Test_Alloc_Count = 0;
int64_t Test_Alloc_Fail_At = 0;

namespace {

enum class Cls { Int, Real, Log };

constexpr int32_t Undef_Int = 2147483647;

double Undef_Real() {
  volatile double zero = 0.0;
  return zero / zero;  // the quiet NaN of 0/0, as uninitialised reals show
}

const char *Mode_Name(int32_t mode) {
  static const char *const names[2] = {"Needed  ", "Explore "};
  return (mode >= 1 && mode <= 2) ? names[mode - 1] : "Unknown ";
}

const char *Area_Name(int32_t area) {
  static const char *const names[4] = {"Input   ", "PreProc ", "Setup   ", "Optimize"};
  return (area >= 1 && area <= 4) ? names[area - 1] : "Unknown ";
}

const char *Flag(bool b) { return b ? "T" : "F"; }

// Counters of one class.
void Account(VMI *vmi, Cls cls, int32_t vecs, int64_t elements) {
  switch (cls) {
    case Cls::Int:
      vmi->NumVec_Int += vecs;
      vmi->NumEle_Int += elements;
      break;
    case Cls::Real:
      vmi->NumVec_Real += vecs;
      vmi->NumEle_Real += elements;
      break;
    case Cls::Log:
      vmi->NumVec_Log += vecs;
      vmi->NumEle_Log += elements;
      break;
  }
}

// New bytes counted by an allocation.
void Count_New(VMI *vmi, int64_t bytes) {
  vmi->Mem_Current += bytes;
  vmi->Mem_Total += bytes;
  vmi->Mem_Max = std::max(vmi->Mem_Max, vmi->Mem_Current);
}

// True when `bytes` more would pass the heap limit.
bool Over_Limit(const VMI *vmi, int64_t bytes) {
  return bytes > vmi->MaxHeap_Bytes - vmi->Mem_Current;
}

// Raw storage; never returns the same pointer for two live blocks, even for
// zero bytes.
void *Raw_Alloc(int64_t bytes) {
  if (bytes < 0) return nullptr;
  return Block_Get(static_cast<size_t>(std::max<int64_t>(bytes, 8)));
}

// Gives back a block of Raw_Alloc(bytes).
void Raw_Free(void *p, int64_t bytes) {
  Block_Put(p, static_cast<size_t>(std::max<int64_t>(bytes, 8)));
}

// Reports a condition of a managed vector: the text first, then the
// internal error (always fatal).
void Systems_Error(VMI *vmi, const char *name, const char *what, const char *routine, int number) {
  Doc(vmi, " ** Systems Error **  Vector %s%s%s.", name, what, routine);
  Internal_Error(vmi, number, true);
}

// Common failure path of allocation and enlargement.
void Memory_Failure(VMI *vmi, const char *routine, const char *rawName, bool padded, int32_t n,
                    bool increase, bool limit) {
  char trimmed[21];
  const char *name = padded ? Trim_Name(rawName, trimmed) : rawName;
  vmi->EnoughSpace = false;
  if (vmi->Trace_Memory > 0) {
    if (increase)
      Doc(vmi, "Insufficient memory in %s: Vector %s could not be increased by%10d elements.", routine,
          name, n);
    else
      Doc(vmi, "Insufficient memory in %s: Vector %s could not be allocated with%10d elements.",
          routine, name, n);
    if (limit) Doc(vmi, "MaxHeap =%12" PRId64 " MBytes would be exceeded.", vmi->MaxHeap);
    Doc(vmi, "MemoryMode=%s", Mode_Name(vmi->MemoryMode));
    Doc(vmi, "MemoryArea=%s", Area_Name(vmi->MemoryArea));
  }
  if (vmi->MemoryMode == 2) return;  // Explore: only a wish, the caller decides
  switch (vmi->MemoryArea) {
    case 1:
      Vdnmsg(vmi, 3023, 0, 0, 0.0, 0.0, true, true);
      break;
    case 2:
      Vdnmsg(vmi, 3030, 0, 0, 0.0, 0.0, true, true);
      break;
    case 3:
      Vdnmsg(vmi, 3024, 0, 0, 0.0, 0.0, true, true);
      break;
    case 4:
      Vdnmsg(vmi, 3022, 0, 0, 0.0, 0.0, true, true);
      vmi->Exit_Code = 7;
      break;
    default:
      Doc(vmi, "Fatal Error. Unknown MemoryArea=%d", vmi->MemoryArea);
      Internal_Error(vmi, 9500, true);
      break;
  }
  Raise_Exception(vmi, 96);
}

// The limit tests of an allocation or an enlargement: false after the memory
// failure path ran.  The name may be blank padded (a record vector's): it is
// trimmed only for the messages.
bool Request_Ok(VMI *vmi, int64_t bytes, const char *routine, const char *name, bool padded,
                int32_t n, bool increase) {
  ++Test_Alloc_Count;
  if (Test_Alloc_Fail_At > 0 && Test_Alloc_Count >= Test_Alloc_Fail_At) {
    Test_Alloc_Fail_At = 0;  // one injected failure per arming
    Memory_Failure(vmi, routine, name, padded, n, increase, true);
    return false;
  }
  if (Over_Limit(vmi, bytes)) {
    Memory_Failure(vmi, routine, name, padded, n, increase, true);
    return false;
  }
  return true;
}

// A block of at least `bytes` for a vector slot: the slot's spare when it is
// large enough, else a new one (the spare is given back first).  *cap
// receives the size of the block; null when the system has none.
template <typename T> T *Slot_Block(T *&spare, int64_t &spareBytes, int64_t bytes, int64_t *cap) {
  if (spare != nullptr) {
    T *kept = spare;
    const int64_t keptBytes = spareBytes;
    spare = nullptr;
    spareBytes = 0;
    if (keptBytes >= bytes) {
      *cap = keptBytes;
      return kept;
    }
    Raw_Free(kept, keptBytes);
  }
  *cap = bytes;
  return static_cast<T *>(Raw_Alloc(bytes));
}

// A block larger than twice what its vector counts, and by more than a cache
// line, goes back after a copy to one of the counted size, so that memory
// outside the accounting stays small.  A failed copy keeps the large block.
bool Too_Large(int64_t cap, int64_t bytes) { return cap > 2 * bytes + 64; }

// ---------------------------------------------------------------------------
// Record vectors.

template <typename T> struct RecInfo;
template <> struct RecInfo<double> {
  static constexpr int32_t PerLine = 8;
  static constexpr Cls Class = Cls::Real;
  static constexpr const char *Alloc = "Allocate_RVec";
  static constexpr const char *Dealloc = "Deallocate_RVec";
  static constexpr const char *Incr = "Increase_RVec";
  static constexpr int ErrNegative = 33011;
  static constexpr int ErrDecrease = 33016;
  static double Undefined() { return Undef_Real(); }
};
template <> struct RecInfo<int32_t> {
  static constexpr int32_t PerLine = 16;
  static constexpr Cls Class = Cls::Int;
  static constexpr const char *Alloc = "Allocate_Ivec";
  static constexpr const char *Dealloc = "Deallocate_IVec";
  static constexpr const char *Incr = "Increase_IVec";
  static constexpr int ErrNegative = 33012;
  static constexpr int ErrDecrease = 33017;
  static int32_t Undefined() { return Undef_Int; }
};

template <typename T> int32_t Rec_Offset(int32_t length) {
  constexpr int32_t c = RecInfo<T>::PerLine;
  return ((length - 1) / c) * c + c;
}

template <typename T> int32_t Rec_AllocSize(int32_t length, int32_t numThread) {
  constexpr int32_t c = RecInfo<T>::PerLine;
  return ((length + c - 2) / c) * c + c + (numThread - 1) * Rec_Offset<T>(length);
}

// Element k (0-based in base) at which the aligned view begins.
template <typename T> T *Aligned_View(T *base) {
  const uintptr_t addr = reinterpret_cast<uintptr_t>(base);
  const uintptr_t w = sizeof(T);
  const uintptr_t aligned = ((addr + 64 - w) / 64) * 64;
  return base + (aligned - addr) / w - 1;  // so that view[1] is aligned
}

template <typename T> void Fill(T *v1, int32_t from, int32_t to, T value) {
  for (int32_t i = from; i <= to; ++i) v1[i] = value;
}

// The name of a record vector for a message, its blanks cut (only when a
// message is sent).
#define VLU_NAME(v) Trim_Name((v).Name, nameBuf)

template <typename T> void Rec_Allocate(VMI *vmi, RecVec<T> &v, int32_t length, int32_t numThread) {
  using Info = RecInfo<T>;
  if (!vmi->EnoughSpace) return;
  const char *routine = Info::Alloc;
  char nameBuf[21];
  if (numThread < 1) numThread = 1;
  v.Length = length;
  v.NumThread = numThread;
  v.Offset = Rec_Offset<T>(length);
  if (length < 0) {
    Systems_Error(vmi, VLU_NAME(v), " has negative length in ", routine, Info::ErrNegative);
    return;
  }
  if (v.Base != nullptr) {
    Systems_Error(vmi, VLU_NAME(v), " is already allocated in ", routine, 3302);
    return;
  }
  const int32_t size = Rec_AllocSize<T>(length, numThread);
  const int32_t total = TotalLength(length, numThread, v.Offset);
  const int64_t bytes = int64_t(size) * int64_t(sizeof(T));
  if (!Request_Ok(vmi, bytes, routine, v.Name, true, length, false)) return;
  int64_t cap = 0;
  T *base = Slot_Block(v.Spare, v.SpareBytes, bytes, &cap);
  if (base == nullptr) {
    Memory_Failure(vmi, routine, v.Name, true, length, false, false);
    return;
  }
  Count_New(vmi, bytes);
  Account(vmi, Info::Class, 1, size);

  v.Base = base;
  v.Cap = cap;
  v.BaseSize = size;
  v.Val = Aligned_View(base);
  v.Extent = total;
  v.Temp = false;

  if (vmi->Clear_On_Alloc)
    Fill<T>(v.Val, 1, total, T(0));
  else if (numThread > 1)
    Fill<T>(v.Val, length + 1, total, T(0));
  if (vmi->Define_On_Alloc) Fill<T>(v.Val, 1, length, Info::Undefined());

  const long long address = static_cast<long long>(reinterpret_cast<uintptr_t>(v.Val + 1));
  if (vmi->Trace_Memory > 0) {
    Doc(vmi, "%s: Vector %s has been allocated with%10d (%10d) elements. Address=%15lld", routine,
        VLU_NAME(v), length, size, address);
    if (numThread > 1)
      Doc(vmi, "Threads=%3d, Offset=%10d and total length=%10d", numThread, v.Offset, total);
    if (vmi->Trace_Memory > 1) MemStat(vmi);
  }
  if (reinterpret_cast<uintptr_t>(v.Val + 1) % 64 != 0) {
    Doc(vmi, "%s: Vector %s was not allocated on a cache line. Address=%15lld", routine, VLU_NAME(v),
        address);
    Internal_Error(vmi, 3399, true);
  }
}

template <typename T> void Rec_Drop_Spare(RecVec<T> &v) {
  if (v.Spare == nullptr) return;
  Raw_Free(v.Spare, v.SpareBytes);
  v.Spare = nullptr;
  v.SpareBytes = 0;
}

// Forgets the block of an owning vector after its release was counted.
template <typename T> void Rec_Clear(RecVec<T> &v) {
  v.Base = nullptr;
  v.Val = nullptr;
  v.Cap = 0;
  v.BaseSize = 0;
  v.Extent = 0;
}

// A borrowed view owns nothing: releasing it forgets it and counts nothing.
template <typename T> void Rec_Forget_View(RecVec<T> &v) {
  v.Base = v.Val = nullptr;
  v.BaseSize = v.Extent = v.Length = v.NumThread = v.Offset = 0;
  v.Temp = false;
}

template <typename T> void Rec_Deallocate(VMI *vmi, RecVec<T> &v, bool mustExist) {
  using Info = RecInfo<T>;
  const char *routine = Info::Dealloc;
  char nameBuf[21];
  Rec_Drop_Spare(v);
  if (v.Base == nullptr) {
    if (vmi->Trace_Memory > 0) Doc(vmi, "%s: Vector %s Associated=%s", routine, VLU_NAME(v), Flag(false));
    if (mustExist) Systems_Error(vmi, VLU_NAME(v), " is already deallocated in ", routine, 3302);
    return;
  }
  if (v.Temp) {
    Rec_Forget_View(v);
    return;
  }
  const int32_t size = v.BaseSize;
  if (vmi->Trace_Memory > 0)
    Doc(vmi, "%s: Vector %s Associated=%s Length=%10d", routine, VLU_NAME(v), Flag(true), size);
  Raw_Free(v.Base, v.Cap);
  Account(vmi, Info::Class, -1, -int64_t(size));
  vmi->Mem_Current -= int64_t(size) * int64_t(sizeof(T));
  Rec_Clear(v);
  if (vmi->Trace_Memory >= 2) MemStat(vmi);
}

// The release of Rec_Deallocate without its traces, the block kept as the
// slot's spare.
template <typename T> void Rec_Park(VMI *vmi, RecVec<T> &v) {
  using Info = RecInfo<T>;
  Rec_Drop_Spare(v);
  if (v.Base == nullptr) return;
  if (v.Temp) {
    Rec_Forget_View(v);
    return;
  }
  const int32_t size = v.BaseSize;
  Account(vmi, Info::Class, -1, -int64_t(size));
  vmi->Mem_Current -= int64_t(size) * int64_t(sizeof(T));
  v.Spare = v.Base;
  v.SpareBytes = v.Cap;
  Rec_Clear(v);
}

template <typename T> void Rec_Settle(RecVec<T> &v) {
  Rec_Drop_Spare(v);
  if (v.Base == nullptr || v.Temp) return;
  const int64_t bytes = int64_t(v.BaseSize) * int64_t(sizeof(T));
  if (!Too_Large(v.Cap, bytes)) return;
  T *base = static_cast<T *>(Raw_Alloc(bytes));
  if (base == nullptr) return;
  T *val = Aligned_View(base);
  if (v.Extent > 0) std::memcpy(val + 1, v.Val + 1, size_t(v.Extent) * sizeof(T));
  Raw_Free(v.Base, v.Cap);
  v.Base = base;
  v.Val = val;
  v.Cap = bytes;
}

template <typename T> void Rec_Increase(VMI *vmi, RecVec<T> &v, int32_t delta, bool keep) {
  using Info = RecInfo<T>;
  if (!vmi->EnoughSpace) return;
  const char *routine = Info::Incr;
  char nameBuf[21];
  const int32_t oldLength = v.Length;
  const int32_t numThread = std::max(v.NumThread, 1);
  const int32_t newLength = Wrap_Add(oldLength, delta);
  const int32_t newOffset = Rec_Offset<T>(newLength);
  const int32_t newSize = Rec_AllocSize<T>(newLength, numThread);
  v.Offset = newOffset;
  if (delta < 0) {
    Systems_Error(vmi, VLU_NAME(v), " is decreased in ", routine, Info::ErrDecrease);
    return;
  }
  if (v.Base == nullptr || v.Temp) {  // a borrowed view cannot grow
    Systems_Error(vmi, VLU_NAME(v), " is not allocated in ", routine, 3302);
    return;
  }
  const int64_t newBytes = int64_t(newSize) * int64_t(sizeof(T));
  const int64_t oldBytes = int64_t(v.BaseSize) * int64_t(sizeof(T));
  if (!Request_Ok(vmi, newBytes, routine, v.Name, true, delta, true)) return;
  // A block that is large enough already (a spare taken at the allocation)
  // grows in place: the view and the contents stay where they are.
  const bool inPlace = v.Cap >= newBytes;
  T *base = v.Base;
  if (!inPlace) {
    base = static_cast<T *>(Raw_Alloc(newBytes));
    if (base == nullptr) {
      Memory_Failure(vmi, routine, v.Name, true, delta, true, false);
      return;
    }
  }
  T *val = Aligned_View(base);
  if (keep && oldLength > 0 && !inPlace)
    std::memcpy(val + 1, v.Val + 1, size_t(oldLength) * sizeof(T));

  Account(vmi, Info::Class, 0, int64_t(newSize) - int64_t(v.BaseSize));
  vmi->Mem_Total += newBytes;
  vmi->Mem_Max = std::max(vmi->Mem_Max, vmi->Mem_Current + newBytes);
  vmi->Mem_Current += newBytes - oldBytes;

  if (!inPlace) {
    Raw_Free(v.Base, v.Cap);
    v.Cap = newBytes;
  }
  v.Base = base;
  v.BaseSize = newSize;
  v.Val = val;
  v.Length = newLength;
  v.NumThread = numThread;
  v.Extent = TotalLength(newLength, numThread, newOffset);
  v.Temp = false;

  if (vmi->Clear_On_Alloc) Fill<T>(val, oldLength + 1, newLength, T(0));
  if (vmi->Define_On_Alloc) Fill<T>(val, oldLength + 1, newLength, Info::Undefined());
  if (numThread > 1) {
    Fill<T>(val, newLength + 1, v.Extent, T(0));
    if (vmi->Debug_Parallel)
      Doc(vmi, "%s called with vector %s and NumThread=%d", routine, VLU_NAME(v), numThread);
  }
  if (vmi->Trace_Memory > 0) {
    Doc(vmi, "%s: Vector %s has been increased by%10d elements to%10d", routine, VLU_NAME(v), delta,
        newLength);
    if (vmi->Trace_Memory > 1) MemStat(vmi);
  }
}

template <typename T> void Rec_Test_Zero(VMI *vmi, const RecVec<T> &v, const char *caller) {
  char name[21];
  Trim_Name(v.Name, name);
  Doc(vmi, "Testing %s from %s with length=%10d NumThread=%4d and Offset=%10d", name, caller, v.Length,
      v.NumThread, v.Offset);
  if (v.NumThread < 2 || v.Val == nullptr) return;
  const int32_t total = TotalLength(v.Length, v.NumThread, v.Offset);
  for (int32_t p = v.Length + 1; p <= total; ++p) {
    if (v.Val[p] != T(0)) {
      Doc(vmi, "Position%10d is not zero=%g", p, double(v.Val[p]));
      Internal_Error(vmi, 42200, true);
      return;
    }
  }
}

// ---------------------------------------------------------------------------
// Plain vectors.

struct PlainInfo {
  Cls cls;
  int32_t width;  // bytes counted per element
  int32_t count;  // elements counted per element (LInt: one, at 8 bytes)
  const char *alloc, *dealloc, *incr;
  int errNegative, errAlready, errDecrease;
};

template <PlainKind K> PlainInfo Plain_Info();
template <> PlainInfo Plain_Info<PlainKind::Int>() {
  return {Cls::Int, 4, 1, "Allocate_Int", "Deallocate_Int", "Increase_Int", 33013, 3302, 33015};
}
template <> PlainInfo Plain_Info<PlainKind::LInt>() {
  return {Cls::Int, 8, 1, "Allocate_LInt", "Deallocate_LInt", "Increase_LInt", 33015, 33025, 33015};
}
template <> PlainInfo Plain_Info<PlainKind::Log>() {
  return {Cls::Log, 4, 1, "Allocate_Log", "Deallocate_Log", "Increase_Log", 33014, 3302, 33018};
}

template <typename T, PlainKind K>
void Plain_Allocate(VMI *vmi, PlainVec<T, K> &v, const char *name, int32_t length) {
  const PlainInfo info = Plain_Info<K>();
  if (!vmi->EnoughSpace) return;
  if (length < 0) {
    Systems_Error(vmi, name, " has negative length in ", info.alloc, info.errNegative);
    return;
  }
  if (v.Alloc) {
    Systems_Error(vmi, name, " is already allocated in ", info.alloc, info.errAlready);
    return;
  }
  const int64_t bytes = int64_t(length) * info.width;
  if (!Request_Ok(vmi, bytes, info.alloc, name, false, length, false)) return;
  int64_t cap = 0;
  T *raw = Slot_Block(v.Spare, v.SpareBytes, bytes, &cap);
  if (raw == nullptr) {
    Memory_Failure(vmi, info.alloc, name, false, length, false, false);
    return;
  }
  Count_New(vmi, bytes);
  Account(vmi, info.cls, 1, int64_t(length) * info.count);
  v.Raw = raw;
  v.Cap = cap;
  v.V = raw - 1;
  v.Size = length;
  v.Alloc = true;
  if (vmi->Clear_On_Alloc) Fill<T>(v.V, 1, length, T(0));
  if (vmi->Define_On_Alloc && K == PlainKind::Int) Fill<T>(v.V, 1, length, T(Undef_Int));
  if (vmi->Trace_Memory > 0) {
    if (length > 0)
      Doc(vmi, "%s: Vector %s has been allocated with%10d elements. Address=%15lld", info.alloc, name,
          length, static_cast<long long>(reinterpret_cast<uintptr_t>(raw)));
    else
      Doc(vmi, "%s: Vector %s has been allocated with%10d elements.", info.alloc, name, length);
    if (vmi->Trace_Memory > 1) MemStat(vmi);
  }
}

template <typename T, PlainKind K> void Plain_Drop_Spare(PlainVec<T, K> &v) {
  if (v.Spare == nullptr) return;
  Raw_Free(v.Spare, v.SpareBytes);
  v.Spare = nullptr;
  v.SpareBytes = 0;
}

template <typename T, PlainKind K>
void Plain_Deallocate(VMI *vmi, PlainVec<T, K> &v, const char *name, bool mustExist) {
  const PlainInfo info = Plain_Info<K>();
  Plain_Drop_Spare(v);
  if (!v.Alloc) {
    if (vmi->Trace_Memory > 0) Doc(vmi, "%s: Vector %s Associated=%s", info.dealloc, name, Flag(false));
    if (mustExist) Systems_Error(vmi, name, " is already deallocated in ", info.dealloc, 3302);
    return;
  }
  const int32_t size = v.Size;
  if (vmi->Trace_Memory > 0)
    Doc(vmi, "%s: Vector %s Associated=%s Length=%10d", info.dealloc, name, Flag(true), size);
  Raw_Free(v.Raw, v.Cap);
  Account(vmi, info.cls, -1, -int64_t(size) * info.count);
  vmi->Mem_Current -= int64_t(size) * info.width;
  v.Raw = nullptr;
  v.V = nullptr;
  v.Cap = 0;
  v.Size = 0;
  v.Alloc = false;
  if (vmi->Trace_Memory >= 2) MemStat(vmi);
}

// The release of Plain_Deallocate without its traces, the block kept as the
// slot's spare.
template <typename T, PlainKind K> void Plain_Park(VMI *vmi, PlainVec<T, K> &v) {
  const PlainInfo info = Plain_Info<K>();
  Plain_Drop_Spare(v);
  if (!v.Alloc) return;
  const int32_t size = v.Size;
  Account(vmi, info.cls, -1, -int64_t(size) * info.count);
  vmi->Mem_Current -= int64_t(size) * info.width;
  v.Spare = v.Raw;
  v.SpareBytes = v.Cap;
  v.Raw = nullptr;
  v.V = nullptr;
  v.Cap = 0;
  v.Size = 0;
  v.Alloc = false;
}

template <typename T, PlainKind K> void Plain_Settle(PlainVec<T, K> &v) {
  Plain_Drop_Spare(v);
  if (!v.Alloc) return;
  const int64_t bytes = int64_t(v.Size) * int64_t(sizeof(T));
  if (!Too_Large(v.Cap, bytes)) return;
  T *raw = static_cast<T *>(Raw_Alloc(bytes));
  if (raw == nullptr) return;
  if (v.Size > 0) std::memcpy(raw, v.Raw, size_t(bytes));
  Raw_Free(v.Raw, v.Cap);
  v.Raw = raw;
  v.V = raw - 1;
  v.Cap = bytes;
}

template <typename T, PlainKind K>
void Plain_Increase(VMI *vmi, PlainVec<T, K> &v, const char *name, int32_t delta, bool keep) {
  const PlainInfo info = Plain_Info<K>();
  if (!vmi->EnoughSpace) return;
  if (delta < 0) {
    Systems_Error(vmi, name, " is decreased in ", info.incr, info.errDecrease);
    return;
  }
  if (!v.Alloc) {
    Systems_Error(vmi, name, " is not allocated in ", info.incr, 3302);
    return;
  }
  const int32_t oldSize = v.Size;
  const int32_t newSize = Wrap_Add(oldSize, delta);
  const int64_t newBytes = int64_t(newSize) * info.width;
  const int64_t oldBytes = int64_t(oldSize) * info.width;
  if (!Request_Ok(vmi, newBytes, info.incr, name, false, delta, true)) return;
  // Within the block at hand (a spare taken at the allocation) the vector
  // grows in place.
  if (v.Cap < newBytes) {
    T *raw = static_cast<T *>(Raw_Alloc(newBytes));
    if (raw == nullptr) {
      Memory_Failure(vmi, info.incr, name, false, delta, true, false);
      return;
    }
    if (keep && oldSize > 0) std::memcpy(raw, v.V + 1, size_t(oldSize) * sizeof(T));
    Raw_Free(v.Raw, v.Cap);
    v.Raw = raw;
    v.V = raw - 1;
    v.Cap = newBytes;
  }
  Account(vmi, info.cls, 0, (int64_t(newSize) - oldSize) * info.count);
  vmi->Mem_Total += newBytes;
  vmi->Mem_Max = std::max(vmi->Mem_Max, vmi->Mem_Current + newBytes);
  vmi->Mem_Current += newBytes - oldBytes;
  v.Size = newSize;
  if (vmi->Clear_On_Alloc) Fill<T>(v.V, oldSize + 1, newSize, T(0));
  if (vmi->Define_On_Alloc && K == PlainKind::Int) Fill<T>(v.V, oldSize + 1, newSize, T(Undef_Int));
  if (vmi->Trace_Memory > 0) {
    Doc(vmi, "%s: Vector %s has been increased by%10d elements to%10d", info.incr, name, delta, newSize);
    if (vmi->Trace_Memory > 1) MemStat(vmi);
  }
}

}  // namespace

// ---------------------------------------------------------------------------

int32_t RVec_Offset(int32_t length) { return Rec_Offset<double>(length); }
int32_t IVec_Offset(int32_t length) { return Rec_Offset<int32_t>(length); }
int32_t RVec_AllocSize(int32_t length, int32_t numThread) { return Rec_AllocSize<double>(length, numThread); }
int32_t IVec_AllocSize(int32_t length, int32_t numThread) { return Rec_AllocSize<int32_t>(length, numThread); }

static void Set_Name20(char *dst, const char *name) {
  int i = 0;
  if (name != nullptr)
    for (; i < 20 && name[i] != '\0'; ++i) dst[i] = name[i];
  for (; i < 20; ++i) dst[i] = ' ';
  dst[20] = '\0';
}

void Set_Name(RVec &v, const char *name) { Set_Name20(v.Name, name); }
void Set_Name(IVec &v, const char *name) { Set_Name20(v.Name, name); }

const char *Trim_Name(const char *name20, char *out21) {
  int n = 0;
  for (int i = 0; i < 20 && name20[i] != '\0'; ++i) {
    out21[i] = name20[i];
    if (name20[i] != ' ') n = i + 1;
  }
  out21[n] = '\0';
  return out21;
}

void Allocate_RVec(VMI *vmi, RVec &v, int32_t length, int32_t numThread) {
  Rec_Allocate<double>(vmi, v, length, numThread);
}
void Allocate_Ivec(VMI *vmi, IVec &v, int32_t length, int32_t numThread) {
  Rec_Allocate<int32_t>(vmi, v, length, numThread);
}
void Allocate_Int(VMI *vmi, IntVec &v, const char *name, int32_t length) { Plain_Allocate(vmi, v, name, length); }
void Allocate_LInt(VMI *vmi, LIntVec &v, const char *name, int32_t length) { Plain_Allocate(vmi, v, name, length); }
void Allocate_Log(VMI *vmi, LogVec &v, const char *name, int32_t length) { Plain_Allocate(vmi, v, name, length); }

void Deallocate_RVec(VMI *vmi, RVec &v, bool mustExist) { Rec_Deallocate<double>(vmi, v, mustExist); }
void Deallocate_IVec(VMI *vmi, IVec &v, bool mustExist) { Rec_Deallocate<int32_t>(vmi, v, mustExist); }
void Deallocate_Int(VMI *vmi, IntVec &v, const char *name, bool mustExist) {
  Plain_Deallocate(vmi, v, name, mustExist);
}
void Deallocate_LInt(VMI *vmi, LIntVec &v, const char *name, bool mustExist) {
  Plain_Deallocate(vmi, v, name, mustExist);
}
void Deallocate_Log(VMI *vmi, LogVec &v, const char *name, bool mustExist) {
  Plain_Deallocate(vmi, v, name, mustExist);
}

void Increase_RVec(VMI *vmi, RVec &v, int32_t delta, bool keep) { Rec_Increase<double>(vmi, v, delta, keep); }
void Increase_IVec(VMI *vmi, IVec &v, int32_t delta, bool keep) { Rec_Increase<int32_t>(vmi, v, delta, keep); }
void Increase_Int(VMI *vmi, IntVec &v, const char *name, int32_t delta, bool keep) {
  Plain_Increase(vmi, v, name, delta, keep);
}
void Increase_Log(VMI *vmi, LogVec &v, const char *name, int32_t delta, bool keep) {
  Plain_Increase(vmi, v, name, delta, keep);
}

void Park_Vector(VMI *vmi, RVec &v) { Rec_Park<double>(vmi, v); }
void Park_Vector(VMI *vmi, IVec &v) { Rec_Park<int32_t>(vmi, v); }
void Park_Vector(VMI *vmi, IntVec &v) { Plain_Park(vmi, v); }
void Park_Vector(VMI *vmi, LIntVec &v) { Plain_Park(vmi, v); }
void Park_Vector(VMI *vmi, LogVec &v) { Plain_Park(vmi, v); }
void Settle_Vector(RVec &v) { Rec_Settle(v); }
void Settle_Vector(IVec &v) { Rec_Settle(v); }
void Settle_Vector(IntVec &v) { Plain_Settle(v); }
void Settle_Vector(LIntVec &v) { Plain_Settle(v); }
void Settle_Vector(LogVec &v) { Plain_Settle(v); }

namespace {

// The per-slot routines over all slots of the records, inlined: a renewal
// runs them for every slot.
struct Park_Slot {
  VMI *v;
  template <typename T> void operator()(const char *, RecVec<T> &x) const {
    if (x.Base != nullptr || x.Spare != nullptr) Rec_Park<T>(v, x);
  }
  template <typename T, PlainKind K> void operator()(const char *, PlainVec<T, K> &x) const {
    if (x.Alloc || x.Spare != nullptr) Plain_Park(v, x);
  }
};

struct Settle_Slot {
  template <typename T> void operator()(const char *, RecVec<T> &x) const {
    if (x.Spare != nullptr || x.Cap > 2 * int64_t(x.BaseSize) * int64_t(sizeof(T)) + 64) Rec_Settle(x);
  }
  template <typename T, PlainKind K> void operator()(const char *, PlainVec<T, K> &x) const {
    if (x.Spare != nullptr || x.Cap > 2 * int64_t(x.Size) * int64_t(sizeof(T)) + 64) Plain_Settle(x);
  }
};

}  // namespace

void Park_Vectors(VMI *vmi) {
  ForEachVec(*vmi->Bnd, Park_Slot{vmi});
  ForEachVec(*vmi->Luf, Park_Slot{vmi});
  ForEachVec(*vmi->Iin, Park_Slot{vmi});
  ForEachVec(*vmi->Vim, Park_Slot{vmi});
}

void Settle_Blocks(VMI *vmi) {
  if (vmi->Vim != nullptr) ForEachVec(*vmi->Vim, Settle_Slot{});
  if (vmi->Luf != nullptr) ForEachVec(*vmi->Luf, Settle_Slot{});
  if (vmi->Iin != nullptr) ForEachVec(*vmi->Iin, Settle_Slot{});
  if (vmi->Bnd != nullptr) ForEachVec(*vmi->Bnd, Settle_Slot{});
}

void Reuse_RVec(VMI *vmi, RVec &vecOld, RVec &vecNew) {
  char oldName[21], newName[21];
  if (vmi->Trace_Memory > 0)
    Doc(vmi, "Reuse_RVec called with Vecold= %s and VecNew= %s", Trim_Name(vecOld.Name, oldName),
        Trim_Name(vecNew.Name, newName));
  if (vecNew.Base != nullptr) {
    Doc(vmi, " ** Systems Error **  VecNew %s is already associated in Reuse_RVec.",
        Trim_Name(vecNew.Name, newName));
    Internal_Error(vmi, 3401, true);
    return;
  }
  if (vecOld.Base == nullptr) {
    Doc(vmi, " ** Systems Error **  VecOld %s is not associated in Reuse_RVec.",
        Trim_Name(vecOld.Name, oldName));
    Internal_Error(vmi, 3402, true);
    return;
  }
  vecNew.Base = vecOld.Base;
  vecNew.Cap = vecOld.Cap;
  vecNew.BaseSize = vecOld.BaseSize;
  vecNew.Val = vecOld.Val;
  vecNew.Extent = vecOld.Extent;
  vecNew.Length = vecOld.Length;
  vecNew.NumThread = vecOld.NumThread;
  vecNew.Offset = vecOld.Offset;
  vecNew.Temp = vecOld.Temp;
  vecOld.Base = nullptr;
  vecOld.Val = nullptr;
  vecOld.Cap = 0;
  vecOld.BaseSize = 0;
  vecOld.Extent = 0;
  vecOld.Temp = false;
}

void Reuse_Int(VMI *vmi, IntVec &vecOld, const char *oldName, IntVec &vecNew, const char *newName) {
  if (vmi->Trace_Memory > 0) Doc(vmi, "Reuse_Int called with Vecold= %s and VecNew= %s", oldName, newName);
  if (vecNew.Alloc) {
    Doc(vmi, " ** Systems Error **  VecNew %s is already associated in Reuse_Int.", newName);
    Internal_Error(vmi, 3403, true);
    return;
  }
  if (!vecOld.Alloc) {
    Doc(vmi, " ** Systems Error **  VecOld %s is not associated in Reuse_Int.", oldName);
    Internal_Error(vmi, 3404, true);
    return;
  }
  // The storage moves; each slot keeps its spare.
  vecNew.Raw = vecOld.Raw;
  vecNew.V = vecOld.V;
  vecNew.Cap = vecOld.Cap;
  vecNew.Size = vecOld.Size;
  vecNew.Alloc = true;
  vecOld.Raw = nullptr;
  vecOld.V = nullptr;
  vecOld.Cap = 0;
  vecOld.Size = 0;
  vecOld.Alloc = false;
}

void TempUse_RVec(VMI *vmi, RVec &src, RVec &temp, int32_t length) {
  char name[21];
  if (src.Base == nullptr) {
    Doc(vmi, " ** Systems Error **  VecOld %s is not associated in TempUse_RVec.",
        Trim_Name(src.Name, name));
    Internal_Error(vmi, 3402, true);
    return;
  }
  if (length > src.Length) {
    Doc(vmi, " ** Systems Error **  VecOld %s has length%10d but argument length=%10d",
        Trim_Name(src.Name, name), src.Length, length);
    Internal_Error(vmi, 3402, true);
    return;
  }
  temp.Base = src.Base;
  temp.Cap = 0;  // owns nothing
  temp.BaseSize = src.BaseSize;
  temp.Val = src.Val;
  temp.Extent = length;
  temp.Length = length;
  temp.NumThread = 1;
  temp.Offset = 0;
  temp.Temp = true;
}

void MemStat(VMI *vmi) {
  Doc(vmi, "Totals for allocated vectors and elements:");
  Doc(vmi, "NumVec_Int  =%4d NumEle_Int  =%12" PRId64, vmi->NumVec_Int, vmi->NumEle_Int);
  Doc(vmi, "NumVec_Real =%4d NumEle_Real =%12" PRId64, vmi->NumVec_Real, vmi->NumEle_Real);
  Doc(vmi, "NumVec_Log  =%4d NumEle_Log  =%12" PRId64, vmi->NumVec_Log, vmi->NumEle_Log);
  Doc(vmi, "Current memory use=%13" PRId64 " Maximum memory use=%13" PRId64 " Total Memory Allocated=%13" PRId64,
      vmi->Mem_Current, vmi->Mem_Max, vmi->Mem_Total);
  if (vmi->NumEle_Real * 8 + (vmi->NumEle_Int + vmi->NumEle_Log) * 4 != vmi->Mem_Current) {
    Doc(vmi, "Fatal Error: Memory imbalance from MemStat.");
    Internal_Error(vmi, 9998, true);
  }
}

void Test_Zero(VMI *vmi, const RVec &v, const char *caller) { Rec_Test_Zero<double>(vmi, v, caller); }
void Test_Zero(VMI *vmi, const IVec &v, const char *caller) { Rec_Test_Zero<int32_t>(vmi, v, caller); }

}  // namespace vlu
