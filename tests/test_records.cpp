// The record tree: the initial sizes of the L-file and the update etas, an
// allocation failure midway, the listings of every vector, and the
// teardown's balance.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "interface/state.h"
#include "runtime/block_cache.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

std::vector<std::string> g_lines;
int Keep(int smsg, int dmsg, int nmsg, char **lines, void *) {
  int m = std::max(smsg, std::max(dmsg, nmsg));
  for (int i = 0; i < m; ++i) g_lines.emplace_back(lines[i]);
  return 0;
}

vlu::VMI *Build(int32_t n, int32_t nz, int32_t limit = 2147483647) {
  vlu::VMI *v = nullptr;
  int status = -1;
  vlu::Allocate_Space(&v, &status);
  EXPECT_EQ(status, 0);
  v->Msg_Routine = reinterpret_cast<void (*)()>(&Keep);
  v->Max_Updates = limit;
  v->Vim->NumRow = n;
  v->Vim->NumCol = n + 1;
  v->Vim->NumNz = nz + n;
  return v;
}

TEST(Records, InitialLFileLength) {
  // n = 1: min(max(nz + 1 - 2, 1), 0.6 * 4) is at most 2.
  EXPECT_EQ(vlu::L0_Length(1, 1 + 1, 2), 1);
  EXPECT_EQ(vlu::L0_Length(1, 50 + 1, 2), 2);
  // The cap of a dense triangle applies below 32000 rows only.
  EXPECT_EQ(vlu::L0_Length(31999, 1000000000, 32000), 614400000);
  EXPECT_EQ(vlu::L0_Length(32000, 1000000000, 32001), 1000000000 - 32001);
  EXPECT_EQ(vlu::L0_Length(5, 3, 6), 1);
}

TEST(Records, UpdateEtaStartsAndAutomaticLimit) {
  // 5 * 2147483647 wraps to 2147483643, so the default limit gives 2 n.
  EXPECT_EQ(vlu::Lstr_Length(1000, 2147483647), 2000);
  EXPECT_EQ(vlu::Lstr_Length(1000, 100), 500);
  EXPECT_EQ(vlu::Lstr_Length(1000, 429496729), 2000);
  EXPECT_LT(vlu::Lstr_Length(1000, 429496730), 0);  // 32-bit wrap kept on purpose
  EXPECT_EQ(vlu::Auto_Max_Updates(1000), 100);
  EXPECT_EQ(vlu::Auto_Max_Updates(1000000), 990);
  EXPECT_EQ(vlu::Auto_Max_Updates(0), 100);
  vlu::VMI *v = Build(1000, 3000, -1);
  vlu::Allocate_Inversion(v);
  EXPECT_EQ(v->Max_Updates, 100);
  EXPECT_EQ(v->Luf->Lstr.Size, 500);
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);
}

TEST(Records, FailureMidwayLeavesLaterVectorsUnallocatedAndBalances) {
  g_lines.clear();
  vlu::Test_Heap_Limit = 4000;
  vlu::VMI *v = Build(50, 200);
  testing::internal::CaptureStdout();
  vlu::Allocate_Inversion(v);
  std::string out = testing::internal::GetCapturedStdout();
  vlu::Test_Heap_Limit = 0;
  EXPECT_FALSE(v->EnoughSpace);
  EXPECT_EQ(v->Exception, 96);
  EXPECT_EQ(out, "\n** Fatal Error ** Not enough space inversion data structures\n\n");
  EXPECT_TRUE(v->Vim->Stcl.Allocated());
  EXPECT_FALSE(v->Vim->X1Row.Allocated());
  EXPECT_FALSE(v->Luf->Lstr.Allocated());
  EXPECT_GT(v->Mem_Current, 0);
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);
  EXPECT_EQ(v, nullptr);
  bool memoryMessage = false;
  for (auto &l : g_lines) {
    EXPECT_EQ(l.find("not in balance"), std::string::npos) << l;
    if (l == " ** Fatal Error **  Insufficient memory to read basic model.") memoryMessage = true;
  }
  EXPECT_TRUE(memoryMessage);
}

// Counts what the slot listings of all records see allocated, per class as
// the memory statistics count it, and checks the names on the way.
struct Census {
  int32_t vecInt = 0, vecReal = 0, vecLog = 0;
  int64_t eleInt = 0, eleReal = 0, eleLog = 0;
  std::vector<std::string> names;
  std::string prefix;
  void operator()(const char *name, vlu::IntVec &x) { Plain(name, x, vecInt, eleInt); }
  void operator()(const char *name, vlu::LIntVec &x) { Plain(name, x, vecInt, eleInt); }
  void operator()(const char *name, vlu::LogVec &x) { Plain(name, x, vecLog, eleLog); }
  void operator()(const char *name, vlu::RVec &x) { Rec(name, x, vecReal, eleReal); }
  void operator()(const char *name, vlu::IVec &x) { Rec(name, x, vecInt, eleInt); }
  void Named(const char *name) {
    names.emplace_back(name);
    EXPECT_EQ(std::string(name).rfind(prefix, 0), 0u) << name;
  }
  template <typename V> void Plain(const char *name, V &x, int32_t &vecs, int64_t &eles) {
    Named(name);
    if (x.Allocated()) ++vecs, eles += x.Size;
  }
  template <typename V> void Rec(const char *name, V &x, int32_t &vecs, int64_t &eles) {
    Named(name);
    char trimmed[21];
    EXPECT_STREQ(vlu::Trim_Name(x.Name, trimmed), name);  // named through the listing
    if (x.Allocated()) ++vecs, eles += x.BaseSize;        // counted by the allocated size
  }
  template <typename R> void Record(R *r, const char *pre) {
    ASSERT_NE(r, nullptr);
    prefix = pre;
    vlu::ForEachVec(*r, *this);
  }
};

// Every vector the library allocates is a slot of a listing: the listings
// account for exactly the vectors and elements of the memory statistics,
// after the set-up and after a factorization with its bump vectors.  A
// vector kept outside the listings would be missed here (and never released).
TEST(Records, ListingsCoverEveryAllocatedVector) {
  auto check = [](vlu::VMI *v) {
    Census c;
    c.Record(v->Vim, "VIM%");
    c.Record(v->Luf, "LUF%");
    c.Record(v->Iin, "IIN%");
    c.Record(v->Bnd, "BND%");
    EXPECT_EQ(c.vecInt, v->NumVec_Int);
    EXPECT_EQ(c.vecReal, v->NumVec_Real);
    EXPECT_EQ(c.vecLog, v->NumVec_Log);
    EXPECT_EQ(c.eleInt, v->NumEle_Int);
    EXPECT_EQ(c.eleReal, v->NumEle_Real);
    EXPECT_EQ(c.eleLog, v->NumEle_Log);
    std::sort(c.names.begin(), c.names.end());
    EXPECT_EQ(std::adjacent_find(c.names.begin(), c.names.end()), c.names.end());
    EXPECT_GE(c.names.size(), 75u);
  };
  vlu::VMI *v = Build(30, 90);
  vlu::Allocate_Inversion(v);
  check(v);
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);

  vlu_destroy();
  vlu_create();
  luc::Triangular s = luc::Make_Triangular(60, luc::Shape::Upper, 5, true, 0.25);
  ASSERT_EQ(luc::Factor(s.c, s.c.basis), 0);
  ASSERT_TRUE(vlu::Iface().env->Iin->Lisr.Allocated());
  check(vlu::Iface().env);
  vlu_destroy();
}

// A vector left outside the records makes the teardown report the imbalance
// and raise error 9999; the teardown still completes.
TEST(Records, TeardownReportsAStrayVector) {
  g_lines.clear();
  vlu::VMI *v = Build(10, 20);
  vlu::Allocate_Inversion(v);
  vlu::IntVec stray;
  vlu::Allocate_Int(v, stray, "Stray", 7);
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);
  EXPECT_EQ(v, nullptr);
  const auto at = std::find(g_lines.begin(), g_lines.end(),
                            "** Fatal Error ** Memory statistics not in balance after executing "
                            "VMI_Deallocate:");
  ASSERT_NE(at, g_lines.end());
  EXPECT_NE(std::find(at, g_lines.end(), "NumVec_Int  =   1 NumEle_Int  =           7"),
            g_lines.end());
  EXPECT_NE(std::find(at, g_lines.end(), " **** Fatal System Error Number  9999"), g_lines.end());
  vlu::Block_Put(stray.Raw, 7 * sizeof(int32_t));  // the stray block, by hand
}

}  // namespace
