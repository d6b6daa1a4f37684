// Managed vectors: sizes and alignment, accounting, the exhausted state,
// enlargement, hand-over and the debug checks.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "runtime/vectors.h"
#include "runtime_env.h"

using namespace vlu;
using rt::Lines;

namespace {

bool On_Cache_Line(const void *p) { return reinterpret_cast<uintptr_t>(p) % 64 == 0; }

TEST(Vectors, RealSizesAlignmentAndAccounting) {
  struct Case { int32_t length, offset, size; };
  const Case cases[] = {{0, 8, 8}, {1, 8, 8}, {2, 8, 16}, {8, 8, 16}, {9, 16, 16}, {10, 16, 24}};
  rt::Env e;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.length);
    RVec v;
    Allocate_RVec(e.v, v, c.length);
    ASSERT_TRUE(v.Allocated());
    EXPECT_EQ(v.Offset, c.offset);
    EXPECT_EQ(v.BaseSize, c.size);
    EXPECT_EQ(v.Extent, c.length);
    EXPECT_TRUE(On_Cache_Line(v.Val + 1));
    // The view starts in the first cache line of the block and ends inside it.
    EXPECT_LT(v.Val + 1 - v.Base, 8);
    EXPECT_LE(v.Val + 1 + v.Extent, v.Base + v.BaseSize);
    EXPECT_EQ(e.v->Mem_Current, int64_t(c.size) * 8);
    for (int32_t i = 1; i <= c.length; ++i) v.Val[i] = 1.0;  // inside the block (sanitizer build)
    Deallocate_RVec(e.v, v);
  }
  EXPECT_TRUE(e.Balanced());
  EXPECT_EQ(e.v->Mem_Max, 24 * 8);
  EXPECT_EQ(e.v->Mem_Total, (8 + 8 + 16 + 16 + 16 + 24) * 8);
  EXPECT_TRUE(e.cap.calls.empty());
}

TEST(Vectors, ThreadSectionsAreAlignedAndZeroed) {
  rt::Env e;
  IVec w;  // dirty a block of the same size first so that zeroing shows
  Allocate_Ivec(e.v, w, 10, 3);
  for (int32_t i = 1; i <= w.Extent; ++i) w.Val[i] = 77;
  Deallocate_IVec(e.v, w);

  e.v->Define_On_Alloc = true;
  IVec v;
  Allocate_Ivec(e.v, v, 10, 3);
  EXPECT_EQ(v.Offset, 16);
  EXPECT_EQ(v.Extent, 42);
  EXPECT_EQ(v.BaseSize, 64);
  EXPECT_EQ(e.v->Mem_Current, 256);
  for (int32_t k = 0; k < 3; ++k) EXPECT_TRUE(On_Cache_Line(v.Val + 1 + k * v.Offset));
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(v.Val[i], 2147483647) << i;  // debug fill
  for (int32_t i = 11; i <= 42; ++i) EXPECT_EQ(v.Val[i], 0) << i;
  Deallocate_IVec(e.v, v);
  EXPECT_TRUE(e.Balanced());
}

// One failure of each kind, under its number; the vector already there
// keeps its storage and contents.
TEST(Vectors, GuardFailuresCarryTheirNumbers) {
  struct Case {
    std::function<void(VMI *, RVec &, IntVec &)> act;
    const char *text;
    int number;
  };
  const Case cases[] = {
      {[](VMI *m, RVec &r, IntVec &) { Allocate_RVec(m, r, -3); },
       " ** Systems Error **  Vector LUF%Lmat has negative length in Allocate_RVec.", 33011},
      {[](VMI *m, RVec &, IntVec &p) { Allocate_Int(m, p, "VIM%Rnum", 9); },
       " ** Systems Error **  Vector VIM%Rnum is already allocated in Allocate_Int.", 3302},
      {[](VMI *m, RVec &r, IntVec &) { Increase_RVec(m, r, 4); },
       " ** Systems Error **  Vector LUF%Lmat is not allocated in Increase_RVec.", 3302},
      {[](VMI *m, RVec &, IntVec &p) { Increase_Int(m, p, "VIM%Rnum", -1); },
       " ** Systems Error **  Vector VIM%Rnum is decreased in Increase_Int.", 33015},
      {[](VMI *m, RVec &, IntVec &) { IntVec q; Deallocate_Int(m, q, "VIM%Stcl", true); },
       " ** Systems Error **  Vector VIM%Stcl is already deallocated in Deallocate_Int.", 3302},
      {[](VMI *m, RVec &, IntVec &p) { Reuse_Int(m, p, "VIM%Rnum", p, "VIM%Rnum"); },
       " ** Systems Error **  VecNew VIM%Rnum is already associated in Reuse_Int.", 3403},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    rt::Env e;
    RVec r;
    Set_Name(r, "LUF%Lmat");
    IntVec p;
    Allocate_Int(e.v, p, "VIM%Rnum", 5);
    for (int32_t i = 1; i <= 5; ++i) p[i] = i * 3;
    int32_t *before = p.V;
    c.act(e.v, r, p);
    EXPECT_EQ(e.cap.All(), rt::Failure({c.text}, c.number, true));
    EXPECT_EQ(e.v->Exception, 99);
    EXPECT_TRUE(p.V == before && p.Size == 5 && p[1] == 3 && p[5] == 15);
    EXPECT_TRUE(e.v->NumVec_Int == 1 && e.v->Mem_Current == 20 && !r.Allocated());
    Deallocate_Int(e.v, p, "VIM%Rnum");
    EXPECT_TRUE(e.Balanced());
  }
}

TEST(Vectors, HeapLimitExhaustsSpaceAndReleasesStillAccount) {
  rt::Env e;
  RVec a, b, c;
  IntVec p;
  Allocate_RVec(e.v, a, 10);  // 24 elements, 192 bytes
  Allocate_Int(e.v, p, "VIM%Rnum", 4);
  e.v->MaxHeap_Bytes = e.v->Mem_Current + 100;
  Allocate_RVec(e.v, b, 20);  // 32 elements, 256 bytes: over
  EXPECT_FALSE(e.v->EnoughSpace);
  EXPECT_FALSE(b.Allocated());
  EXPECT_EQ(e.v->Exception, 96);
  EXPECT_EQ(e.v->Exit_Code, 26);
  EXPECT_EQ(e.cap.All(), (Lines{" ", " ** Fatal Error **  Insufficient memory to read basic model.", " "}));

  // Everything that would allocate is now a no-op, even within the limit.
  const int64_t mem = e.v->Mem_Current, total = e.v->Mem_Total;
  Allocate_RVec(e.v, c, 1);
  Increase_Int(e.v, p, "VIM%Rnum", 1);
  EXPECT_FALSE(c.Allocated());
  EXPECT_EQ(p.Size, 4);
  EXPECT_EQ(e.v->Mem_Current, mem);
  EXPECT_EQ(e.v->Mem_Total, total);

  Deallocate_RVec(e.v, a);
  EXPECT_EQ(e.v->Mem_Current, 16);
  Deallocate_Int(e.v, p, "VIM%Rnum");
  Deallocate_RVec(e.v, b);  // never allocated: a silent no-op
  EXPECT_TRUE(e.Balanced());
  EXPECT_EQ(e.v->Mem_Max, 192 + 16);
  EXPECT_EQ(e.cap.calls.size(), 1u);
}

TEST(Vectors, ExploreModeFailsQuietly) {
  rt::Env e;
  e.v->MemoryMode = 2;
  RVec a;
  Allocate_RVec(e.v, a, 16);
  for (int32_t i = 1; i <= 16; ++i) a.Val[i] = i;
  double *val = a.Val;
  e.v->MaxHeap_Bytes = e.v->Mem_Current + 8 * 8;
  Increase_RVec(e.v, a, 100);
  EXPECT_FALSE(e.v->EnoughSpace);
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(a.Val, val);  // the vector is as it was
  EXPECT_EQ(a.Length, 16);
  for (int32_t i = 1; i <= 16; ++i) EXPECT_EQ(a.Val[i], i);
  Deallocate_RVec(e.v, a);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, IncreaseKeepsTheFirstSectionAndZeroDeltaReallocates) {
  rt::Env e;
  IVec v;
  Allocate_Ivec(e.v, v, 10, 3);
  for (int32_t i = 1; i <= v.Extent; ++i) v.Val[i] = 1000 + i;
  Increase_IVec(e.v, v, 7);
  EXPECT_EQ(v.Length, 17);
  EXPECT_EQ(v.Offset, 32);
  EXPECT_EQ(v.Extent, 81);
  EXPECT_EQ(e.v->Mem_Current, int64_t(IVec_AllocSize(17, 3)) * 4);
  EXPECT_TRUE(On_Cache_Line(v.Val + 1));
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(v.Val[i], 1000 + i);
  for (int32_t i = 18; i <= 81; ++i) EXPECT_EQ(v.Val[i], 0) << i;
  Deallocate_IVec(e.v, v);

  RVec a;
  Allocate_RVec(e.v, a, 10);
  for (int32_t i = 1; i <= 10; ++i) a.Val[i] = 0.5 * i;
  const int64_t cur = e.v->Mem_Current, total = e.v->Mem_Total;
  Increase_RVec(e.v, a, 0);
  EXPECT_EQ(e.v->Mem_Current, cur);
  EXPECT_EQ(e.v->Mem_Total, total + 24 * 8);
  {
    // While the contents move both blocks exist: the peak counts them both.
    rt::Env f;
    RVec x;
    IntVec p;
    Allocate_RVec(f.v, x, 10);
    Allocate_Int(f.v, p, "VIM%Rnum", 100);
    const int64_t before = f.v->Mem_Current;
    Increase_Int(f.v, p, "VIM%Rnum", 50);
    EXPECT_EQ(f.v->Mem_Max, before + 150 * 4);
    EXPECT_EQ(f.v->Mem_Current, before + 50 * 4);
    Increase_RVec(f.v, x, 0);
    EXPECT_EQ(f.v->Mem_Max, before + 150 * 4);  // 2 * 192 bytes more is below that peak
    Increase_RVec(f.v, x, 100);
    EXPECT_EQ(f.v->Mem_Max, before + 50 * 4 + int64_t(RVec_AllocSize(110, 1)) * 8);
    Deallocate_Int(f.v, p, "VIM%Rnum");
    Deallocate_RVec(f.v, x);
    EXPECT_TRUE(f.Balanced());
  }
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(a.Val[i], 0.5 * i);

  Deallocate_RVec(e.v, a);
  EXPECT_TRUE(e.Balanced());
  EXPECT_TRUE(e.cap.calls.empty());
}

// The view begins at the first 64-byte boundary at or after the block, for
// every block the allocator hands out (among 200, some start on a boundary).
TEST(Vectors, ViewStartsAtTheFirstCacheLineOfTheBlock) {
  rt::Env e;
  std::vector<RVec> vs(200);
  std::vector<IVec> is(200);
  int onBoundary = 0;
  for (int32_t k = 0; k < 200; ++k) {
    Allocate_RVec(e.v, vs[k], k + 1);
    Allocate_Ivec(e.v, is[k], k + 1);
    for (auto [base, val] : {std::pair<const void *, const void *>{vs[k].Base, vs[k].Val + 1},
                             {is[k].Base, is[k].Val + 1}}) {
      const uintptr_t b = reinterpret_cast<uintptr_t>(base);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(val), (b + 63) / 64 * 64) << k;
      onBoundary += b % 64 == 0;
    }
  }
  EXPECT_GT(onBoundary, 0);
  for (int32_t k = 0; k < 200; ++k) {
    Deallocate_RVec(e.v, vs[k]);
    Deallocate_IVec(e.v, is[k]);
  }
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, PlainIncreaseKeepsEveryElement) {
  rt::Env e;
  for (int32_t size : {1, 2, 7}) {
    IntVec p;
    Allocate_Int(e.v, p, "VIM%Rnum", size);
    for (int32_t i = 1; i <= size; ++i) p[i] = 100 + i;
    Increase_Int(e.v, p, "VIM%Rnum", 3);
    ASSERT_EQ(p.Size, size + 3);
    for (int32_t i = 1; i <= size; ++i) EXPECT_EQ(p[i], 100 + i) << size;
    Deallocate_Int(e.v, p, "VIM%Rnum");
  }
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, ReuseAndTempUseMoveNoMemory) {
  rt::Env e;
  RVec a, b, tmp;
  Allocate_RVec(e.v, a, 12);
  const int64_t mem = e.v->Mem_Current, total = e.v->Mem_Total;
  double *val = a.Val;
  Reuse_RVec(e.v, a, b);
  EXPECT_FALSE(a.Allocated());
  EXPECT_EQ(b.Val, val);
  EXPECT_EQ(b.Length, 12);
  TempUse_RVec(e.v, b, tmp, 6);  // a view of the first six elements
  EXPECT_TRUE(tmp.Length == 6 && tmp.Val == val);
  EXPECT_EQ(e.v->Mem_Current, mem);
  EXPECT_EQ(e.v->Mem_Total, total);
  Deallocate_RVec(e.v, b);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, MemStatLinesAndImbalance) {
  rt::Env e;
  RVec a;
  IntVec b, z;
  LogVec c;
  Allocate_RVec(e.v, a, 10);
  Allocate_Int(e.v, b, "LUF%Ir", 5);
  Allocate_Int(e.v, z, "IIN%Stmc", 0);  // counted as a vector of no elements
  Allocate_Log(e.v, c, "IIN%Clok", 3);
  Deallocate_Int(e.v, b, "LUF%Ir");
  MemStat(e.v);
  EXPECT_EQ(e.Flushed(),
            (Lines{"Totals for allocated vectors and elements:", "NumVec_Int  =   1 NumEle_Int  =           0",
                   "NumVec_Real =   1 NumEle_Real =          24", "NumVec_Log  =   1 NumEle_Log  =           3",
                   "Current memory use=          204 Maximum memory use=          224 Total Memory Allocated="
                   "          224"}));
  EXPECT_EQ(e.v->Exception, 0);

  // An LInt vector puts the counters out of balance by design.
  e.cap.calls.clear();
  LIntVec l;
  Allocate_LInt(e.v, l, "VUM%Big", 4);
  MemStat(e.v);
  const Lines lines = e.Flushed();
  ASSERT_EQ(lines.size(), 7u + rt::kLongText.size());
  EXPECT_EQ(lines[5], "Fatal Error: Memory imbalance from MemStat.");
  EXPECT_EQ(lines[6], rt::Fatal_Line(9998));
  EXPECT_EQ(e.v->Exception, 99);
  Deallocate_LInt(e.v, l, "VUM%Big");
  Deallocate_Int(e.v, z, "IIN%Stmc");
  Deallocate_RVec(e.v, a);
  Deallocate_Log(e.v, c, "IIN%Clok");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, TestZeroFindsADirtySection) {
  rt::Env e;
  RVec v;
  Set_Name(v, "IIN%Clmx");
  Allocate_RVec(e.v, v, 5, 2);
  Test_Zero(e.v, v, "Caller_A");
  EXPECT_EQ(e.v->Exception, 0);
  v.Val[12] = 2.5;  // section 2 starts at 9
  Test_Zero(e.v, v, "Caller_B");
  const Lines lines = e.Flushed();  // the first line is from Caller_A
  EXPECT_EQ(Lines(lines.begin() + 1, lines.end()),
            rt::Failure({"Testing IIN%Clmx from Caller_B with length=         5 NumThread=   2 and Offset=         8",
                         "Position        12 is not zero=2.5"},
                        42200, true));
  EXPECT_EQ(e.v->Exception, 99);
  Deallocate_RVec(e.v, v);
}

}  // namespace
