// Record tree, vector sizing and teardown balance.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime/records.h"

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

bool Balanced(const vlu::VMI *v) {
  return v->NumVec_Int == 0 && v->NumVec_Real == 0 && v->NumVec_Log == 0 && v->NumEle_Int == 0 &&
         v->NumEle_Real == 0 && v->NumEle_Log == 0 && v->Mem_Current == 0;
}

TEST(Records, DefaultsOfTheTree) {
  vlu::VMI *v = Build(4, 6);
  EXPECT_EQ(v->Eps, std::ldexp(1.0, -52));
  EXPECT_DOUBLE_EQ(v->Eps_Sqrt, std::sqrt(std::ldexp(1.0, -52)));
  EXPECT_EQ(v->Rtpiva, 1.0e-10);
  EXPECT_EQ(v->Rvpivr, 0.05);
  EXPECT_EQ(v->Tol_Zero, 1.0e-20);
  EXPECT_EQ(v->Space_Factor, 2.0);
  EXPECT_EQ(v->Time_Limit, 10000.0);
  EXPECT_TRUE(v->EnoughSpace);
  EXPECT_EQ(v->Exception, 0);
  EXPECT_EQ(v->MemoryMode, 1);
  EXPECT_EQ(v->MemoryArea, 1);
  EXPECT_EQ(v->Vim->Tol_Piv_Rel, 0.05);
  EXPECT_EQ(v->Iin->MarkBad, 101);
  EXPECT_EQ(v->Iin->MarkOver, 100);
  EXPECT_EQ(v->Iin->MarkMax, 99);
  ASSERT_NE(v->Vum, nullptr);
  ASSERT_NE(v->Vpi, nullptr);
  ASSERT_NE(v->Vdp, nullptr);
  ASSERT_NE(v->Bnd, nullptr);
  ASSERT_NE(v->Anon, nullptr);
  EXPECT_STREQ(v->Luf->Lmat.Name, "LUF%Lmat            ");
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);
  EXPECT_EQ(v, nullptr);
  vlu::VMI_Deallocate(&v, &status);  // second call: null pointer, nothing happens
}

TEST(Records, SizesOfTheInversionVectors) {
  g_lines.clear();
  vlu::VMI *v = Build(10, 30);
  vlu::Allocate_Inversion(v);
  ASSERT_TRUE(v->EnoughSpace);
  const vlu::VIM *vim = v->Vim;
  const vlu::LUF *luf = v->Luf;
  EXPECT_EQ(vim->NumVar, 21);
  EXPECT_EQ(vim->Stcl.Size, 12);
  EXPECT_EQ(vim->Jace.Length, 40);
  EXPECT_EQ(vim->HelpI.Size, 21);
  EXPECT_EQ(vim->HelpZ.Size, 11);
  EXPECT_EQ(luf->Ic.Size, 50);
  EXPECT_EQ(luf->Ucmat.Length, 10);
  EXPECT_EQ(luf->RowUSpace, 40);   // min(AUrmat, Ic)
  EXPECT_EQ(luf->ColUSpace, 10);   // min(Ir, Ucmat)
  EXPECT_EQ(luf->ColASpace, 10);   // min(R2cp, C2rp, Ir)
  EXPECT_EQ(luf->Lmat.Length, 29); // e = 40 - 11 = 29 < 0.6 * 121
  EXPECT_EQ(luf->Lstr.Size, 20);
  EXPECT_EQ(luf->Lsor.Size, 11);
  for (int i = 1; i <= 11; ++i) {
    EXPECT_EQ(vim->HelpZ[i], 0);
    EXPECT_EQ(vim->WorkZ.Val[i], 0.0);
  }
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);
  for (auto &l : g_lines) EXPECT_EQ(l.find("not in balance"), std::string::npos) << l;
}

TEST(Records, EmptyProblemIsLegal) {
  vlu::VMI *v = Build(0, 0);
  vlu::Allocate_Inversion(v);
  EXPECT_TRUE(v->EnoughSpace);
  EXPECT_EQ(v->Vim->Stcl.Size, 2);
  EXPECT_EQ(v->Vim->NumVar, 1);
  EXPECT_EQ(v->Luf->Lmat.Length, 0);  // min(1, 0.6 * 1) truncates to 0
  int status = 0;
  vlu::VMI_Deallocate(&v, &status);
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

TEST(Records, DeallocationProvesBalanceBeforeFreeing) {
  // Release every vector by hand and check the statistics on the spot.
  vlu::VMI *v = Build(20, 60);
  vlu::Allocate_Inversion(v);
  int status = 0;
  vlu::LUF_Deallocate(v, &status);
  vlu::IIN_Deallocate(v, &status);
  vlu::VIM_Deallocate(v, &status);
  EXPECT_EQ(v->Luf, nullptr);
  EXPECT_EQ(v->Iin, nullptr);
  EXPECT_EQ(v->Vim, nullptr);
  EXPECT_TRUE(Balanced(v));
  EXPECT_GT(v->Mem_Max, 0);
  EXPECT_GT(v->Mem_Total, 0);
  vlu::VMI_Deallocate(&v, &status);
}

}  // namespace
