// Status bookkeeping of a basis change, the update limit test and the
// degeneracy list.
#include <gtest/gtest.h>

#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"
#include "update/update.h"
#include "vardenlu.h"

namespace {

// Three rows: columns 1..3, t = 4, slacks 5..7 (basic).
luc::Problem Three() {
  luc::Cols cols(3);
  cols[0] = {{1, 1.0}};
  cols[1] = {{2, 1.0}};
  cols[2] = {{3, 1.0}};
  luc::Problem p = luc::From_Columns(3, cols);
  for (int i = 1; i <= 3; ++i) p.stat[size_t(3 + i)] = 2;
  return p;
}

class Record : public ::testing::Test {
 protected:
  luc::Messages msgs;
  vlu::VMI *env = nullptr;
  void SetUp() override {
    vlu_regmsgcb(&msgs, luc::Capture_Callback);
    env = luc::Load_Env(Three());
    ASSERT_NE(env, nullptr);
  }
  void TearDown() override {
    luc::Free_Env(env);
    vlu_regmsgcb(nullptr, nullptr);
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

TEST_F(Record, ChecksComeInTheirOrder) {
  const std::vector<int> before = Basc();
  // Entering out of range and leaving nonbasic: the range is reported.
  EXPECT_EQ(Change(0, 1), "** Error in RecordBasisChange. Entering column 0 is out of range.");
  EXPECT_TRUE(msgs.Has("Fatal System Error Number"));
  EXPECT_TRUE(msgs.Has("6101"));
  EXPECT_EQ(env->Exception, 99);
  EXPECT_EQ(Change(8, 1), "** Error in RecordBasisChange. Entering column 8 is out of range.");
  // Leaving out of range before any status.
  EXPECT_EQ(Change(5, 8), "** Error in RecordBasisChange. Leaving column 8 is out of range.");
  EXPECT_EQ(Change(5, -1), "** Error in RecordBasisChange. Leaving column -1 is out of range.");
  // The leaving status before the entering one.
  EXPECT_EQ(Change(6, 2), "** Error in RecordBasisChange. Leaving column 2 has Basc=0");
  EXPECT_EQ(Change(5, 6), "** Error in RecordBasisChange. Entering column 5 has Basc=2");
  // A column entering for itself is basic already.
  EXPECT_EQ(Change(7, 7), "** Error in RecordBasisChange. Entering column 7 has Basc=2");
  EXPECT_EQ(Basc(), before);
}

TEST_F(Record, ChangeIsRecorded) {
  EXPECT_EQ(Change(2, 6), "");
  EXPECT_EQ(env->Exception, 0);
  EXPECT_EQ(Basc(), (std::vector<int>{0, 2, 0, 0, 2, 0, 2}));
  EXPECT_EQ(Change(6, 2), "");
  EXPECT_EQ(Basc(), (std::vector<int>{0, 0, 0, 0, 2, 2, 2}));
}

TEST_F(Record, UpdateLimits) {
  vlu::LUFactor(env);
  vlu::CreateColumnU(env);
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
  const int32_t n = vim->NumRow;
  luf->LFileUsed = vlu::Size(luf->Lmat) - n;
  luf->LFileIni = luf->LFileUsed;
  EXPECT_TRUE(vlu::Update_Possible(env));
  luf->LFileUsed += 1;
  EXPECT_FALSE(vlu::Update_Possible(env));
  luf->LFileUsed = luf->LFileIni = 0;
  luf->U_numele = vlu::Size(vim->AUrmat) - n + 1;
  luf->U_numini = luf->U_numele;
  EXPECT_FALSE(vlu::Update_Possible(env));
  // Growth: the factors may double, no more.
  luf->U_numini = 10;
  luf->LFileIni = 1;
  luf->U_numele = 20;
  luf->LFileUsed = 2;
  EXPECT_TRUE(vlu::Update_Possible(env));
  luf->U_numele = 21;
  EXPECT_FALSE(vlu::Update_Possible(env));
  // The doubling is done in 32 bits: 2 * (2^30 + 2^30) wraps to 0.
  luf->LFileIni = 1 << 30;
  luf->U_numini = 1 << 30;
  luf->LFileUsed = 0;
  luf->U_numele = 1;
  EXPECT_FALSE(vlu::Update_Possible(env));
}

TEST_F(Record, DegenerateColumnsAreListedAndRemoved) {
  vlu::VIM *vim = env->Vim;
  for (vlu::RVec *v : {&vim->XSol, &vim->Xmin, &vim->Xmax, &vim->ColAcc}) {
    vlu::Allocate_RVec(env, *v, 7);
    for (int j = 1; j <= 7; ++j) v->Val[j] = 0.0;
  }
  for (int j = 1; j <= 7; ++j) {
    vim->Xmax.Val[j] = 10.0;
    vim->ColAcc.Val[j] = 1e-9;
  }
  vim->Deg_Active = true;
  env->Trace_Upd = 2;
  // Column 2 enters at its lower bound.
  EXPECT_EQ(Change(2, 6), "TestDegenerate called from RecordBasisChange with Incoming=2");
  ASSERT_EQ(vim->Deg_Count, 1);
  EXPECT_EQ(vim->DegCol.V[1], -2);
  EXPECT_EQ(vim->DegBnd.Val[1], 0.0);
  EXPECT_TRUE(msgs.Has("AddDegenerate: Column 2 with min=-1 becomes degen no 1"));
  // Found again while at a bound: stays.
  msgs.lines.clear();
  vlu::TestDegenerate(env, vim->XSol, 2, true, true);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("TestDegenerate: Column 2 is already in DegCol with DegBnd="));
  EXPECT_EQ(vim->Deg_Count, 1);
  // A column at both bounds is listed twice.
  vim->Xmax.Val[3] = 0.0;
  vlu::TestDegenerate(env, vim->XSol, 3, true, true);
  EXPECT_EQ(vim->Deg_Count, 3);
  EXPECT_EQ(vim->DegCol.V[2], -3);
  EXPECT_EQ(vim->DegCol.V[3], 3);
  // Removal with two levels: the last entry of level 2 fills the slot.
  vim->Deg_Levels = 2;
  vlu::Allocate_Int(env, vim->DegStack, "VIM%DegStack", 4);
  vim->DegStack.V[2] = 3;
  vim->XSol.Val[2] = 5.0;
  msgs.lines.clear();
  vlu::TestDegenerate(env, vim->XSol, 2, true, true);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("TestDegenerate: Column 2 removed from DegCol."));
  EXPECT_EQ(vim->Deg_Count, 2);
  EXPECT_EQ(vim->DegCol.V[1], 3);
  EXPECT_EQ(vim->DegCol.V[2], -3);
  EXPECT_EQ(vim->DegStack.V[2], 2);
}

}  // namespace
