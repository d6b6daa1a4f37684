// Status bookkeeping of a basis change, the update limit test and the
// degeneracy list.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"
#include "update/update.h"

namespace {

// Three rows: columns 1..3, t = 4, slacks 5..7 (basic).
struct Record : luc::EnvTest {
  void SetUp() override {
    luc::EnvTest::SetUp();
    Load(luc::All_Slack(3));
  }
  std::vector<int> Basc() { return std::vector<int>(env->Vim->Basc.V + 1, env->Vim->Basc.V + 8); }
  // Runs one change and returns the first message line.
  std::string Change(int in, int out) {
    msgs.lines.clear();
    vlu::RecordBasisChange(env, in, out);
    vlu::Msg_Flush(env);
    return msgs.lines.empty() ? std::string() : msgs.lines.front();
  }
};

TEST_F(Record, ChecksComeInTheirOrderAndAChangeIsRecorded) {
  const std::vector<int> before = Basc();
  const std::string e = "** Error in RecordBasisChange. ";
  // Entering out of range, even with a nonbasic leaving column.
  EXPECT_EQ(Change(0, 1), e + "Entering column 0 is out of range.");
  EXPECT_TRUE(msgs.Has("Fatal System Error Number"));
  EXPECT_EQ(env->Exception, 99);
  EXPECT_EQ(Change(8, 1), e + "Entering column 8 is out of range.");
  // Leaving out of range before any status; the leaving status before the
  // entering one; a column entering for itself is basic already.
  EXPECT_EQ(Change(5, 8), e + "Leaving column 8 is out of range.");
  EXPECT_EQ(Change(5, -1), e + "Leaving column -1 is out of range.");
  EXPECT_EQ(Change(6, 2), e + "Leaving column 2 has Basc=0");
  EXPECT_EQ(Change(5, 6), e + "Entering column 5 has Basc=2");
  EXPECT_EQ(Change(7, 7), e + "Entering column 7 has Basc=2");
  EXPECT_EQ(Basc(), before);
  // A legal change swaps the two statuses, and back, with no error.
  env->Exception = 0;
  EXPECT_EQ(Change(2, 6), "");
  EXPECT_EQ(Basc(), (std::vector<int>{0, 2, 0, 0, 2, 0, 2}));
  EXPECT_EQ(Change(6, 2), "");
  EXPECT_EQ(Basc(), (std::vector<int>{0, 0, 0, 0, 2, 2, 2}));
  EXPECT_EQ(env->Exception, 0);
}

TEST_F(Record, UpdateLimits) {
  vlu::LUFactor(env);
  ASSERT_EQ(env->Exception, 0);
  vlu::LUF *luf = env->Luf;
  vlu::VIM *vim = env->Vim;
  EXPECT_TRUE(vlu::Update_Possible(env));
  env->Max_Updates = 0;
  EXPECT_FALSE(vlu::Update_Possible(env));
  env->Max_Updates = 5;
  vim->Updates_Done = 4;
  EXPECT_TRUE(vlu::Update_Possible(env));
  vim->Updates_Done = 5;
  EXPECT_FALSE(vlu::Update_Possible(env));
  vim->Updates_Done = 0;
  // Room for one more column in L and in U.
  luf->LFileUsed = luf->LFileIni = vlu::Size(luf->Lmat) - vim->NumRow;
  EXPECT_TRUE(vlu::Update_Possible(env));
  luf->LFileUsed += 1;
  EXPECT_FALSE(vlu::Update_Possible(env));
  luf->LFileUsed = luf->LFileIni = 0;
  luf->U_numele = luf->U_numini = vlu::Size(vim->AUrmat) - vim->NumRow + 1;
  EXPECT_FALSE(vlu::Update_Possible(env));
  // The factors may double, no more; the doubling is done in 32 bits, so
  // 2 * (2^30 + 2^30) wraps to 0.
  luf->U_numini = 10;
  luf->LFileIni = 1;
  luf->U_numele = 20;
  luf->LFileUsed = 2;
  EXPECT_TRUE(vlu::Update_Possible(env));
  luf->U_numele = 21;
  EXPECT_FALSE(vlu::Update_Possible(env));
  luf->LFileIni = luf->U_numini = 1 << 30;
  luf->LFileUsed = 0;
  luf->U_numele = 1;
  EXPECT_FALSE(vlu::Update_Possible(env));
}

TEST_F(Record, DegenerateColumnsAreListedAndRemoved) {
  vlu::VIM *vim = env->Vim;
  for (vlu::RVec *v : {&vim->XSol, &vim->Xmin, &vim->Xmax, &vim->ColAcc}) {
    vlu::Allocate_RVec(env, *v, 7);
    for (int j = 1; j <= 7; ++j)
      v->Val[j] = v == &vim->Xmax ? 10.0 : v == &vim->ColAcc ? 1e-9 : 0.0;
  }
  vim->Deg_Active = true;
  auto degCols = [&] {
    return std::vector<int>(vim->DegCol.V + 1, vim->DegCol.V + 1 + vim->Deg_Count);
  };
  EXPECT_EQ(Change(2, 6), "");  // column 2 enters at its lower bound
  EXPECT_EQ(degCols(), std::vector<int>{-2});
  vlu::TestDegenerate(env, vim->XSol, 2, true, true);  // found again: stays
  EXPECT_EQ(degCols(), std::vector<int>{-2});
  vim->Xmax.Val[3] = 0.0;  // at both bounds: listed twice
  vlu::TestDegenerate(env, vim->XSol, 3, true, true);
  EXPECT_EQ(degCols(), (std::vector<int>{-2, -3, 3}));
  // Off its bound with two levels: the last entry of level 2 fills the slot.
  vim->Deg_Levels = 2;
  vlu::Allocate_Int(env, vim->DegStack, "VIM%DegStack", 4);
  vim->DegStack.V[2] = 3;
  vim->XSol.Val[2] = 5.0;
  vlu::TestDegenerate(env, vim->XSol, 2, true, true);
  EXPECT_EQ(degCols(), (std::vector<int>{3, -3}));
  EXPECT_EQ(vim->DegStack.V[2], 2);
}

}  // namespace
