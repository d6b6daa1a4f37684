// Managed vectors: sizes and alignment, accounting, the exhausted state,
// enlargement, hand-over and the debug checks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <regex>
#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/vectors.h"
#include "runtime_env.h"

using namespace vlu;

namespace {

bool On_Cache_Line(const void *p) { return reinterpret_cast<uintptr_t>(p) % 64 == 0; }

TEST(Vectors, RealSizesFollowTheCacheLineFormulas) {
  struct Case { int32_t length, offset, size; };
  const Case cases[] = {{0, 8, 8}, {1, 8, 8}, {2, 8, 16}, {8, 8, 16}, {9, 16, 16}, {10, 16, 24}};
  rt::Env e;
  for (const Case &c : cases) {
    RVec v;
    Set_Name(v, "VIM%Work1");
    EXPECT_EQ(RVec_Offset(c.length), c.offset) << c.length;
    EXPECT_EQ(RVec_AllocSize(c.length, 1), c.size) << c.length;
    Allocate_RVec(e.v, v, c.length);
    ASSERT_TRUE(v.Allocated());
    EXPECT_EQ(v.Length, c.length);
    EXPECT_EQ(v.NumThread, 1);
    EXPECT_EQ(v.Offset, c.offset);
    EXPECT_EQ(v.BaseSize, c.size);
    EXPECT_EQ(v.Extent, c.length);
    EXPECT_TRUE(On_Cache_Line(v.Val + 1));
    // The aligned view lies inside the raw block.
    EXPECT_GE(v.Val + 1, v.Base);
    EXPECT_LE(v.Val + c.length, v.Base + v.BaseSize);
    EXPECT_EQ(e.v->Mem_Current, int64_t(c.size) * 8);
    EXPECT_EQ(e.v->NumEle_Real, c.size);
    EXPECT_EQ(e.v->NumVec_Real, 1);
    for (int32_t i = 1; i <= c.length; ++i) v.Val[i] = 1.0;  // writable (sanitizer build checks)
    Deallocate_RVec(e.v, v);
    EXPECT_FALSE(v.Allocated());
  }
  EXPECT_TRUE(e.Balanced());
  EXPECT_EQ(e.v->Mem_Max, 24 * 8);
  EXPECT_EQ(e.v->Mem_Total, (8 + 8 + 16 + 16 + 16 + 24) * 8);
  EXPECT_TRUE(e.cap.calls.empty());
}

TEST(Vectors, ThreadSectionsAreZeroedAndAligned) {
  rt::Env e;
  EXPECT_EQ(IVec_Offset(10), 16);
  EXPECT_EQ(IVec_AllocSize(10, 3), 64);
  EXPECT_EQ(IVec_Offset(0), 16);
  EXPECT_EQ(IVec_AllocSize(0, 1), 16);
  EXPECT_EQ(IVec_AllocSize(17, 1), 32);
  EXPECT_EQ(IVec_AllocSize(18, 1), 48);

  // Dirty a block of the same size first so that the zeroing is visible.
  IVec w;
  Allocate_Ivec(e.v, w, 10, 3);
  for (int32_t i = 1; i <= w.Extent; ++i) w.Val[i] = 77;
  Deallocate_IVec(e.v, w);

  e.v->Define_On_Alloc = true;
  IVec v;
  Set_Name(v, "IIN%Rlin");
  Allocate_Ivec(e.v, v, 10, 3);
  ASSERT_TRUE(v.Allocated());
  EXPECT_EQ(v.Offset, 16);
  EXPECT_EQ(v.Extent, 42);
  EXPECT_EQ(v.BaseSize, 64);
  EXPECT_EQ(e.v->NumEle_Int, 64);
  EXPECT_EQ(e.v->Mem_Current, 256);
  EXPECT_TRUE(On_Cache_Line(v.Val + 1));
  EXPECT_TRUE(On_Cache_Line(v.Val + 1 + v.Offset));
  EXPECT_TRUE(On_Cache_Line(v.Val + 1 + 2 * v.Offset));
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(v.Val[i], 2147483647) << i;
  for (int32_t i = 11; i <= 42; ++i) EXPECT_EQ(v.Val[i], 0) << i;
  Deallocate_IVec(e.v, v);
  EXPECT_TRUE(e.Balanced());
  EXPECT_TRUE(e.cap.calls.empty());
}

TEST(Vectors, DebugFillsAndClears) {
  rt::Env e;
  e.v->Define_On_Alloc = true;
  RVec r;
  IntVec iv;
  LogVec lv;
  Allocate_RVec(e.v, r, 5);
  Allocate_Int(e.v, iv, "VIM%Rnum", 4);
  for (int32_t i = 1; i <= 5; ++i) EXPECT_TRUE(std::isnan(r.Val[i]));
  for (int32_t i = 1; i <= 4; ++i) EXPECT_EQ(iv[i], 2147483647);
  e.v->Define_On_Alloc = false;
  e.v->Clear_On_Alloc = true;
  Increase_Int(e.v, iv, "VIM%Rnum", 3);
  EXPECT_EQ(iv.Size, 7);
  for (int32_t i = 1; i <= 4; ++i) EXPECT_EQ(iv[i], 2147483647);
  for (int32_t i = 5; i <= 7; ++i) EXPECT_EQ(iv[i], 0);
  Allocate_Log(e.v, lv, "IIN%Clok", 6);
  for (int32_t i = 1; i <= 6; ++i) EXPECT_EQ(lv[i], LFalse);
  Deallocate_RVec(e.v, r);
  Deallocate_Int(e.v, iv, "VIM%Rnum");
  Deallocate_Log(e.v, lv, "IIN%Clok");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, PlainVectorsCountPerClass) {
  rt::Env e;
  IntVec a;
  LogVec l;
  IntVec z;
  Allocate_Int(e.v, a, "LUF%Ic", 10);
  Allocate_Log(e.v, l, "IIN%Lngr", 7);
  Allocate_Int(e.v, z, "IIN%Stmc", 0);
  EXPECT_TRUE(z.Allocated());
  EXPECT_EQ(z.Size, 0);
  EXPECT_EQ(e.v->NumVec_Int, 2);
  EXPECT_EQ(e.v->NumEle_Int, 10);
  EXPECT_EQ(e.v->NumVec_Log, 1);
  EXPECT_EQ(e.v->NumEle_Log, 7);
  EXPECT_EQ(e.v->Mem_Current, 68);
  Deallocate_Int(e.v, a, "LUF%Ic");
  Deallocate_Log(e.v, l, "IIN%Lngr");
  Deallocate_Int(e.v, z, "IIN%Stmc");
  EXPECT_TRUE(e.Balanced());
  EXPECT_EQ(e.v->Mem_Max, 68);
  EXPECT_TRUE(e.cap.calls.empty());
}

TEST(Vectors, SecondAllocationIsAnErrorAndLeavesTheVector) {
  rt::Env e;
  IntVec a;
  Allocate_Int(e.v, a, "VIM%Rnum", 5);
  for (int32_t i = 1; i <= 5; ++i) a[i] = i * 3;
  int32_t *before = a.V;
  const int64_t mem = e.v->Mem_Current;
  Allocate_Int(e.v, a, "VIM%Rnum", 9);
  EXPECT_EQ(a.V, before);
  EXPECT_EQ(a.Size, 5);
  for (int32_t i = 1; i <= 5; ++i) EXPECT_EQ(a[i], i * 3);
  EXPECT_EQ(e.v->Mem_Current, mem);
  EXPECT_EQ(e.v->NumVec_Int, 1);
  EXPECT_EQ(e.v->Exception, 99);
  EXPECT_EQ(e.v->Fatal_Code, 200);
  std::vector<std::string> want{" ** Systems Error **  Vector VIM%Rnum is already allocated in Allocate_Int."};
  for (const std::string &s : rt::Fatal_Report(3302, true)) want.push_back(s);
  EXPECT_EQ(e.cap.Lines(), want);
  Deallocate_Int(e.v, a, "VIM%Rnum");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, ErrorNumbersOfTheGuards) {
  struct Case { const char *line; int number; };
  rt::Env e;
  RVec r;
  Set_Name(r, "LUF%Lmat");
  IVec iv;
  Set_Name(iv, "IIN%Clin");
  IntVec in;
  LogVec lg;
  LIntVec li;

  Allocate_RVec(e.v, r, -3);
  EXPECT_FALSE(r.Allocated());
  EXPECT_EQ(r.Length, -3);  // stored before the check
  EXPECT_EQ(r.Offset, 8);
  Allocate_Ivec(e.v, iv, -1, 2);
  Allocate_Int(e.v, in, "VIM%Stcl", -1);
  Allocate_Log(e.v, lg, "IIN%Clok", -1);
  Allocate_LInt(e.v, li, "VUM%Long", -1);
  Allocate_LInt(e.v, li, "VUM%Long", 2);
  Allocate_LInt(e.v, li, "VUM%Long", 2);
  Increase_RVec(e.v, r, 4);
  Allocate_RVec(e.v, r, 4);
  Increase_RVec(e.v, r, -1);
  Increase_IVec(e.v, iv, -1);
  Increase_Int(e.v, in, "VIM%Stcl", -2);
  Increase_Log(e.v, lg, "IIN%Clok", -2);
  Deallocate_Int(e.v, in, "VIM%Stcl", true);
  Deallocate_Int(e.v, in, "VIM%Stcl", false);

  const Case want[] = {
      {" ** Systems Error **  Vector LUF%Lmat has negative length in Allocate_RVec.", 33011},
      {" ** Systems Error **  Vector IIN%Clin has negative length in Allocate_Ivec.", 33012},
      {" ** Systems Error **  Vector VIM%Stcl has negative length in Allocate_Int.", 33013},
      {" ** Systems Error **  Vector IIN%Clok has negative length in Allocate_Log.", 33014},
      {" ** Systems Error **  Vector VUM%Long has negative length in Allocate_LInt.", 33015},
      {" ** Systems Error **  Vector VUM%Long is already allocated in Allocate_LInt.", 33025},
      {" ** Systems Error **  Vector LUF%Lmat is not allocated in Increase_RVec.", 3302},
      {" ** Systems Error **  Vector LUF%Lmat is decreased in Increase_RVec.", 33016},
      {" ** Systems Error **  Vector IIN%Clin is decreased in Increase_IVec.", 33017},
      {" ** Systems Error **  Vector VIM%Stcl is decreased in Increase_Int.", 33015},
      {" ** Systems Error **  Vector IIN%Clok is decreased in Increase_Log.", 33018},
      {" ** Systems Error **  Vector VIM%Stcl is already deallocated in Deallocate_Int.", 3302},
  };
  // Each error is its text, then the report; the long text comes once.
  const std::vector<std::string> lines = e.cap.Lines();
  size_t at = 0;
  bool first = true;
  for (const Case &c : want) {
    ASSERT_LT(at, lines.size());
    EXPECT_EQ(lines[at], c.line);
    const std::vector<std::string> report = rt::Fatal_Report(c.number, first);
    for (size_t k = 0; k < report.size(); ++k) {
      ASSERT_LT(at + 1 + k, lines.size());
      EXPECT_EQ(lines[at + 1 + k], report[k]);
    }
    at += 1 + report.size();
    first = false;
  }
  EXPECT_EQ(at, lines.size());
  EXPECT_TRUE(e.v->EnoughSpace);
  Deallocate_RVec(e.v, r);
  Deallocate_LInt(e.v, li, "VUM%Long");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, HeapLimitExhaustsSpaceAndReleasesStillAccount) {
  rt::Env e;
  RVec a, b, c;
  Set_Name(a, "VIM%Jace");
  Set_Name(b, "VIM%AUrmat");
  Set_Name(c, "VIM%Work1");
  IntVec p;
  Allocate_RVec(e.v, a, 10);  // 24 elements, 192 bytes
  Allocate_Int(e.v, p, "VIM%Rnum", 4);
  e.v->MaxHeap_Bytes = e.v->Mem_Current + 100;
  Allocate_RVec(e.v, b, 20);  // 32 elements, 256 bytes: over
  EXPECT_FALSE(e.v->EnoughSpace);
  EXPECT_FALSE(b.Allocated());
  EXPECT_EQ(e.v->Exception, 96);
  EXPECT_EQ(e.v->Exit_Code, 26);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.cap.calls[0].smsg, 3);
  EXPECT_EQ(e.cap.calls[0].dmsg, 3);
  EXPECT_EQ(e.cap.calls[0].nmsg, 3);
  EXPECT_EQ(e.cap.Lines(),
            (std::vector<std::string>{" ", " ** Fatal Error **  Insufficient memory to read basic model.", " "}));

  // Everything that would allocate is now a no-op, even within the limit.
  const int64_t mem = e.v->Mem_Current, total = e.v->Mem_Total;
  c.Length = 123;
  Allocate_RVec(e.v, c, 1);
  EXPECT_FALSE(c.Allocated());
  EXPECT_EQ(c.Length, 123);
  IntVec q;
  Allocate_Int(e.v, q, "VIM%Cnum", 1);
  EXPECT_FALSE(q.Allocated());
  double *aval = a.Val;
  Increase_RVec(e.v, a, 1);
  EXPECT_EQ(a.Val, aval);
  EXPECT_EQ(a.Length, 10);
  Increase_Int(e.v, p, "VIM%Rnum", 1);
  EXPECT_EQ(p.Size, 4);
  EXPECT_EQ(e.v->Mem_Current, mem);
  EXPECT_EQ(e.v->Mem_Total, total);
  EXPECT_EQ(e.cap.calls.size(), 1u);

  Deallocate_RVec(e.v, a);
  EXPECT_EQ(e.v->Mem_Current, 16);
  Deallocate_Int(e.v, p, "VIM%Rnum");
  Deallocate_RVec(e.v, b);  // never allocated: a silent no-op
  EXPECT_TRUE(e.Balanced());
  EXPECT_EQ(e.v->Mem_Max, 192 + 16);
  EXPECT_EQ(e.v->Mem_Total, 192 + 16);
}

TEST(Vectors, FailureTraceAndAreas) {
  rt::Env e;
  e.v->Trace_Memory = 1;
  e.v->MaxHeap = 7;
  e.v->MaxHeap_Bytes = 40;
  e.v->MemoryArea = 4;
  IntVec p;
  Allocate_Int(e.v, p, "LUF%Lrow", 11);
  EXPECT_FALSE(p.Allocated());
  EXPECT_EQ(e.v->Exit_Code, 7);
  EXPECT_EQ(e.v->Exception, 96);
  EXPECT_EQ(e.cap.Lines(),
            (std::vector<std::string>{
                "Insufficient memory in Allocate_Int: Vector LUF%Lrow could not be allocated with        11 elements.",
                "MaxHeap =           7 MBytes would be exceeded.", "MemoryMode=Needed", "MemoryArea=Optimize", " ",
                " ** Fatal Error **  Insufficient memory to continue the optimization.", " "}));

  const std::pair<int, const char *> areas[] = {
      {2, " ** Fatal Error **  Insufficient memory to preprocess model."},
      {3, " ** Fatal Error **  Insufficient memory for basic optimization vectors."}};
  for (const auto &area : areas) {
    rt::Env f;
    f.v->MaxHeap_Bytes = 0;
    f.v->MemoryArea = area.first;
    LogVec l;
    Allocate_Log(f.v, l, "IIN%Lngc", 1);
    EXPECT_EQ(f.cap.Lines(), (std::vector<std::string>{" ", area.second, " "}));
    EXPECT_EQ(f.v->Exception, 96);
  }

  rt::Env g;
  g.v->MaxHeap_Bytes = 0;
  g.v->MemoryArea = 9;
  LogVec l;
  Allocate_Log(g.v, l, "IIN%Lngc", 1);
  std::vector<std::string> want{"Fatal Error. Unknown MemoryArea=9"};
  for (const std::string &s : rt::Fatal_Report(9500, true)) want.push_back(s);
  EXPECT_EQ(g.cap.Lines(), want);
  EXPECT_EQ(g.v->Exception, 99);
}

TEST(Vectors, ExploreModeFailsQuietly) {
  rt::Env e;
  e.v->MemoryMode = 2;
  RVec a;
  Set_Name(a, "LUF%Lmat");
  Allocate_RVec(e.v, a, 16);
  for (int32_t i = 1; i <= 16; ++i) a.Val[i] = i;
  const RVec before = a;
  e.v->MaxHeap_Bytes = e.v->Mem_Current + 8 * 8;
  Increase_RVec(e.v, a, 100);
  EXPECT_FALSE(e.v->EnoughSpace);
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(a.Base, before.Base);
  EXPECT_EQ(a.Val, before.Val);
  EXPECT_EQ(a.Length, 16);
  EXPECT_EQ(a.Extent, 16);
  for (int32_t i = 1; i <= 16; ++i) EXPECT_EQ(a.Val[i], i);
  // The caller drops the wish and goes on.
  e.v->EnoughSpace = true;
  e.v->MaxHeap_Bytes = INT64_MAX;
  Increase_RVec(e.v, a, 100);
  EXPECT_EQ(a.Length, 116);
  for (int32_t i = 1; i <= 16; ++i) EXPECT_EQ(a.Val[i], i);
  Deallocate_RVec(e.v, a);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, IncreaseByZeroReallocates) {
  rt::Env e;
  RVec a;
  Allocate_RVec(e.v, a, 10);
  for (int32_t i = 1; i <= 10; ++i) a.Val[i] = 0.5 * i;
  const int64_t ele = e.v->NumEle_Real, cur = e.v->Mem_Current, total = e.v->Mem_Total;
  Increase_RVec(e.v, a, 0);
  EXPECT_EQ(a.Length, 10);
  EXPECT_EQ(e.v->NumEle_Real, ele);
  EXPECT_EQ(e.v->Mem_Current, cur);
  EXPECT_EQ(e.v->NumVec_Real, 1);
  EXPECT_EQ(e.v->Mem_Total, total + 24 * 8);
  EXPECT_EQ(e.v->Mem_Max, 2 * 24 * 8);  // both blocks existed for a moment
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(a.Val[i], 0.5 * i);
  Deallocate_RVec(e.v, a);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, IncreaseKeepsOnlyTheFirstSection) {
  rt::Env e;
  IVec v;
  Set_Name(v, "IIN%Rlin");
  Allocate_Ivec(e.v, v, 10, 3);
  for (int32_t i = 1; i <= v.Extent; ++i) v.Val[i] = 1000 + i;
  Increase_IVec(e.v, v, 7);
  EXPECT_EQ(v.Length, 17);
  EXPECT_EQ(v.NumThread, 3);
  EXPECT_EQ(v.Offset, 32);
  EXPECT_EQ(v.Extent, 81);
  EXPECT_EQ(v.BaseSize, IVec_AllocSize(17, 3));
  EXPECT_EQ(e.v->NumEle_Int, IVec_AllocSize(17, 3));
  EXPECT_EQ(e.v->Mem_Current, int64_t(IVec_AllocSize(17, 3)) * 4);
  EXPECT_TRUE(On_Cache_Line(v.Val + 1));
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(v.Val[i], 1000 + i);
  for (int32_t i = 18; i <= 81; ++i) EXPECT_EQ(v.Val[i], 0) << i;

  // keep = false with clearing on: the new positions and the sections are
  // zero (the old positions are not copied and hold whatever was there).
  IVec w;
  Allocate_Ivec(e.v, w, 3, 2);
  e.v->Clear_On_Alloc = true;
  for (int32_t i = 1; i <= w.Extent; ++i) w.Val[i] = 5;
  Increase_IVec(e.v, w, 2, false);
  EXPECT_EQ(w.Extent, 16 + 5);
  for (int32_t i = 4; i <= w.Extent; ++i) EXPECT_EQ(w.Val[i], 0) << i;
  Deallocate_IVec(e.v, v);
  Deallocate_IVec(e.v, w);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, IncreasePlainKeepsContents) {
  rt::Env e;
  LogVec l;
  Allocate_Log(e.v, l, "IIN%Lngr", 3);
  l[1] = LTrue;
  l[2] = LFalse;
  l[3] = LTrue;
  Increase_Log(e.v, l, "IIN%Lngr", 5);
  EXPECT_EQ(l.Size, 8);
  EXPECT_EQ(l[1], LTrue);
  EXPECT_EQ(l[2], LFalse);
  EXPECT_EQ(l[3], LTrue);
  EXPECT_EQ(e.v->NumEle_Log, 8);
  EXPECT_EQ(e.v->Mem_Current, 32);
  EXPECT_EQ(e.v->Mem_Total, 12 + 32);
  EXPECT_EQ(e.v->Mem_Max, 12 + 32);
  Deallocate_Log(e.v, l, "IIN%Lngr");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, ReuseMovesOwnership) {
  rt::Env e;
  RVec a, b;
  Set_Name(a, "VIM%WorkZ");
  Set_Name(b, "IIN%Clmin");
  Allocate_RVec(e.v, a, 12);
  a.Val[3] = 4.5;
  const int64_t mem = e.v->Mem_Current, total = e.v->Mem_Total;
  double *val = a.Val;
  Reuse_RVec(e.v, a, b);
  EXPECT_FALSE(a.Allocated());
  EXPECT_EQ(a.Val, nullptr);
  EXPECT_TRUE(b.Allocated());
  EXPECT_EQ(b.Val, val);
  EXPECT_EQ(b.Length, 12);
  EXPECT_EQ(b.Offset, 16);
  EXPECT_EQ(b.Val[3], 4.5);
  EXPECT_STREQ(a.Name, "VIM%WorkZ           ");
  EXPECT_STREQ(b.Name, "IIN%Clmin           ");
  EXPECT_EQ(e.v->Mem_Current, mem);
  EXPECT_EQ(e.v->Mem_Total, total);
  EXPECT_TRUE(e.cap.calls.empty());

  Reuse_RVec(e.v, b, a);  // give it back
  EXPECT_EQ(a.Val, val);

  IntVec x, y;
  Allocate_Int(e.v, x, "VIM%HelpI", 4);
  Reuse_Int(e.v, x, "VIM%HelpI", y, "IIN%Indr");
  EXPECT_FALSE(x.Allocated());
  EXPECT_TRUE(y.Allocated());
  EXPECT_EQ(y.Size, 4);

  Reuse_Int(e.v, y, "IIN%Indr", y, "IIN%Indr");  // new already associated
  Reuse_Int(e.v, x, "VIM%HelpI", x, "VIM%HelpI");  // old not associated
  RVec c;
  Set_Name(c, "VIM%Jace");
  Reuse_RVec(e.v, c, a);
  Reuse_RVec(e.v, c, b);
  std::vector<std::string> want{" ** Systems Error **  VecNew IIN%Indr is already associated in Reuse_Int."};
  for (const std::string &s : rt::Fatal_Report(3403, true)) want.push_back(s);
  want.push_back(" ** Systems Error **  VecOld VIM%HelpI is not associated in Reuse_Int.");
  want.push_back(rt::Fatal_Report(3404, false)[0]);
  want.push_back(" ** Systems Error **  VecNew VIM%WorkZ is already associated in Reuse_RVec.");
  want.push_back(rt::Fatal_Report(3401, false)[0]);
  want.push_back(" ** Systems Error **  VecOld VIM%Jace is not associated in Reuse_RVec.");
  want.push_back(rt::Fatal_Report(3402, false)[0]);
  EXPECT_EQ(e.cap.Lines(), want);

  Reuse_Int(e.v, y, "IIN%Indr", x, "VIM%HelpI");
  Deallocate_Int(e.v, x, "VIM%HelpI");
  Deallocate_RVec(e.v, a);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, TempUseIsAViewWithoutOwnership) {
  rt::Env e;
  RVec src, tmp;
  Set_Name(src, "IIN%Mmat");
  Allocate_RVec(e.v, src, 20);
  const int64_t mem = e.v->Mem_Current;
  TempUse_RVec(e.v, src, tmp, 6);
  EXPECT_EQ(tmp.Length, 6);
  EXPECT_EQ(tmp.NumThread, 1);
  EXPECT_EQ(tmp.Offset, 0);
  EXPECT_EQ(tmp.Val, src.Val);
  tmp.Val[2] = 9.0;
  EXPECT_EQ(src.Val[2], 9.0);
  EXPECT_EQ(e.v->Mem_Current, mem);

  RVec none, tmp2;
  Set_Name(none, "IIN%Clmx");
  TempUse_RVec(e.v, src, tmp2, 21);
  TempUse_RVec(e.v, none, tmp2, 1);
  std::vector<std::string> want{" ** Systems Error **  VecOld IIN%Mmat has length        20 but argument length=        21"};
  for (const std::string &s : rt::Fatal_Report(3402, true)) want.push_back(s);
  want.push_back(" ** Systems Error **  VecOld IIN%Clmx is not associated in TempUse_RVec.");
  want.push_back(rt::Fatal_Report(3402, false)[0]);
  EXPECT_EQ(e.cap.Lines(), want);
  EXPECT_FALSE(tmp2.Allocated());
  Deallocate_RVec(e.v, src);
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, MemStatLinesAndBalance) {
  rt::Env e;
  RVec a;
  IntVec b;
  LogVec c;
  Allocate_RVec(e.v, a, 10);
  Allocate_Int(e.v, b, "LUF%Ir", 5);
  Allocate_Log(e.v, c, "IIN%Clok", 3);
  Deallocate_Int(e.v, b, "LUF%Ir");
  MemStat(e.v);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.Lines(),
            (std::vector<std::string>{
                "Totals for allocated vectors and elements:", "NumVec_Int  =   0 NumEle_Int  =           0",
                "NumVec_Real =   1 NumEle_Real =          24", "NumVec_Log  =   1 NumEle_Log  =           3",
                "Current memory use=          204 Maximum memory use=          224 Total Memory Allocated=          224"}));
  EXPECT_EQ(e.v->Exception, 0);

  // An LInt vector puts the counters out of balance by design.
  e.cap.Clear();
  LIntVec l;
  Allocate_LInt(e.v, l, "VUM%Big", 4);
  EXPECT_EQ(e.v->NumEle_Int, 4);
  EXPECT_EQ(e.v->Mem_Current, 204 + 32);
  MemStat(e.v);
  Msg_Flush(e.v);
  const std::vector<std::string> lines = e.cap.Lines();
  ASSERT_GE(lines.size(), 7u);
  EXPECT_EQ(lines[5], "Fatal Error: Memory imbalance from MemStat.");
  EXPECT_EQ(lines[6], rt::Fatal_Report(9998, true)[0]);
  EXPECT_EQ(e.v->Exception, 99);
  Deallocate_LInt(e.v, l, "VUM%Big");
  Deallocate_RVec(e.v, a);
  Deallocate_Log(e.v, c, "IIN%Clok");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, TraceLinesAtMemoryLevelOne) {
  rt::Env e;
  e.v->Trace_Memory = 1;
  IVec v;
  Set_Name(v, "IIN%Rlin");
  IntVec p;
  Allocate_Ivec(e.v, v, 10, 3);
  Allocate_Int(e.v, p, "IIN%Stmc", 0);
  Increase_IVec(e.v, v, 2);
  Deallocate_IVec(e.v, v);
  Deallocate_IVec(e.v, v);
  Msg_Flush(e.v);
  const std::vector<std::string> lines = e.cap.Lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("Allocate_Ivec: Vector IIN%Rlin has been allocated with        10 \\(        64\\) "
                           "elements\\. Address= *[0-9]+")))
      << lines[0];
  EXPECT_EQ(lines[1], "Threads=  3, Offset=        16 and total length=        42");
  EXPECT_EQ(lines[2], "Allocate_Int: Vector IIN%Stmc has been allocated with         0 elements.");
  EXPECT_EQ(lines[3], "Increase_IVec: Vector IIN%Rlin has been increased by         2 elements to        12");
  EXPECT_EQ(lines[4], "Deallocate_IVec: Vector IIN%Rlin Associated=T Length=        64");
  EXPECT_EQ(lines[5], "Deallocate_IVec: Vector IIN%Rlin Associated=F");
  Deallocate_Int(e.v, p, "IIN%Stmc");
  EXPECT_TRUE(e.Balanced());
}

TEST(Vectors, MemStatRunsAtLevelTwo) {
  rt::Env e;
  e.v->Trace_Memory = 2;
  RVec a;
  Set_Name(a, "VIM%X1Row");
  Allocate_RVec(e.v, a, 3);
  Deallocate_RVec(e.v, a);
  Msg_Flush(e.v);
  const std::vector<std::string> lines = e.cap.Lines();
  // allocation line, MemStat (5 lines), release line, MemStat (5 lines)
  ASSERT_EQ(lines.size(), 12u);
  EXPECT_EQ(lines[1], "Totals for allocated vectors and elements:");
  EXPECT_EQ(lines[3], "NumVec_Real =   1 NumEle_Real =          16");
  EXPECT_EQ(lines[6], "Deallocate_RVec: Vector VIM%X1Row Associated=T Length=        16");
  EXPECT_EQ(lines[9], "NumVec_Real =   0 NumEle_Real =           0");
  EXPECT_EQ(e.v->Exception, 0);
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
  Msg_Flush(e.v);
  std::vector<std::string> want{
      "Testing IIN%Clmx from Caller_A with length=         5 NumThread=   2 and Offset=         8",
      "Testing IIN%Clmx from Caller_B with length=         5 NumThread=   2 and Offset=         8",
      "Position        12 is not zero=2.5"};
  for (const std::string &s : rt::Fatal_Report(42200, true)) want.push_back(s);
  EXPECT_EQ(e.cap.Lines(), want);
  EXPECT_EQ(e.v->Exception, 99);

  // One section: nothing to walk.
  rt::Env f;
  IVec w;
  Set_Name(w, "IIN%Clin");
  Allocate_Ivec(f.v, w, 4);
  w.Val[5] = 1;  // slack beyond the vector is not looked at
  Test_Zero(f.v, w, "X");
  EXPECT_EQ(f.v->Exception, 0);
  Deallocate_RVec(e.v, v);
  Deallocate_IVec(f.v, w);
}

}  // namespace
