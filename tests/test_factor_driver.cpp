// The driver around the phases: tolerance rules, the prime MarkBad, the NaN
// repair, the reset of the degeneracy list, and the growth of the stores.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

using luc::Problem;

Problem All_Slack(int n) {
  luc::Cols cols(static_cast<size_t>(n));
  Problem p = luc::From_Columns(n, cols);
  for (int i = 1; i <= n; ++i) p.stat[size_t(n + i)] = 2;
  return p;
}

class Driver : public ::testing::Test {
 protected:
  luc::Messages msgs;
  vlu::VMI *env = nullptr;
  void SetUp() override { vlu_regmsgcb(&msgs, luc::Capture_Callback); }
  void TearDown() override {
    luc::Free_Env(env);
    vlu_regmsgcb(nullptr, nullptr);
    EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
  }
  void Load(const Problem &p) {
    env = luc::Load_Env(p);
    ASSERT_NE(env, nullptr);
  }
  // Runs the tolerance rules on given factor sizes.
  bool Rules(double maxUFac, double minPivot) {
    env->Vim->Max_UFac = maxUFac;
    env->Vim->Min_Pivot = minPivot;
    const bool restart = vlu::LU_Tolerance_Rules(env);
    vlu::Msg_Flush(env);
    return restart;
  }
};

TEST_F(Driver, LargeUFactorRaisesAndSchedules) {
  Load(All_Slack(3));
  env->Trace_Inv = 1;
  vlu::VIM *vim = env->Vim;
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  EXPECT_FALSE(Rules(1e8, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  EXPECT_EQ(vim->Tol_Wait, 25);
  EXPECT_EQ(vim->Updates_Done, env->Max_Updates);
  EXPECT_TRUE(msgs.Has("Max_UFac large. Relative pivot tolerance increased to"));
}

TEST_F(Driver, HugeUFactorRestartsUntilTheCeiling) {
  Load(All_Slack(3));
  vlu::VIM *vim = env->Vim;
  vim->Tol_Piv_Rel = 0.4;
  EXPECT_TRUE(Rules(1e16, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.8);
  EXPECT_EQ(vim->Updates_Done, 0);
  EXPECT_TRUE(Rules(1e16, 1.0));  // 0.8 -> 0.9
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.9);
  // At 0.9: no change, no restart, no scheduling.
  env->Trace_Inv = 1;
  EXPECT_FALSE(Rules(1e16, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.9);
  EXPECT_EQ(vim->Updates_Done, 0);
  EXPECT_FALSE(msgs.Has("increased"));
  // Between the two bounds the ceiling is reached and the update scheduled.
  vim->Tol_Piv_Rel = 0.6;
  EXPECT_FALSE(Rules(1e9, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.9);
  EXPECT_EQ(vim->Updates_Done, env->Max_Updates);
}

TEST_F(Driver, SmallMinimumPivotRaisesAndRestarts) {
  Load(All_Slack(3));
  env->Trace_Inv = 1;
  vlu::VIM *vim = env->Vim;
  EXPECT_TRUE(Rules(1.0, 1e-11));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  EXPECT_TRUE(msgs.Has("Min Pivot small="));
  EXPECT_TRUE(msgs.Has(" - Relative pivot tolerance increased to"));
  // The large U-factor is judged first.
  vim->Tol_Piv_Rel = 0.05;
  EXPECT_FALSE(Rules(1e8, 1e-11));
  EXPECT_EQ(vim->Updates_Done, env->Max_Updates);
}

TEST_F(Driver, GoodFactorsLowerTheToleranceAfterTheCountdown) {
  Load(All_Slack(3));
  env->Trace_Inv = 1;
  vlu::VIM *vim = env->Vim;
  // A rise sets the countdown to 25.
  EXPECT_FALSE(Rules(1e8, 1.0));
  ASSERT_EQ(vim->Tol_Piv_Rel, 0.1);
  for (int i = 1; i <= 24; ++i) {
    EXPECT_FALSE(Rules(1.0, 1.0));
    EXPECT_EQ(vim->Tol_Wait, 25 - i);
    EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  }
  EXPECT_FALSE(msgs.Has("decreased"));
  EXPECT_FALSE(Rules(1.0, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  EXPECT_EQ(vim->Tol_Wait, 25);
  EXPECT_TRUE(msgs.Has("Max_UFac small. Relative pivot tolerance decreased to"));
  // At the floor the tolerance stays, quietly.
  msgs.lines.clear();
  for (int i = 1; i <= 25; ++i) EXPECT_FALSE(Rules(1.0, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  EXPECT_FALSE(msgs.Has("decreased"));
  // Neither good nor bad: nothing moves.
  EXPECT_FALSE(Rules(5000.0, 1.0));
  EXPECT_EQ(vim->Tol_Wait, 25);
}

TEST_F(Driver, LargeInversionModesCountDownToo) {
  Load(All_Slack(3));
  env->Trace_Inv = 1;
  vlu::VIM *vim = env->Vim;
  vim->Tol_Piv_Rel = 0.4;
  vim->Tol_Wait = 2;
  vim->InvertMode = 11;
  EXPECT_FALSE(Rules(5000.0, 1.0));
  EXPECT_EQ(vim->Tol_Wait, 1);
  EXPECT_FALSE(Rules(5000.0, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.2);
  EXPECT_EQ(vim->Tol_Wait, 25);
  EXPECT_TRUE(msgs.Has("Many inversions with InvertMode=Inv_InLrg, Inv_BCLrg, and Upd_BCLrg."));
  EXPECT_TRUE(msgs.Has("Pivots Large. Relative pivot tolerance decreased to"));
  vim->InvertMode = 1;
  EXPECT_FALSE(Rules(5000.0, 1.0));
  EXPECT_EQ(vim->Tol_Wait, 25);
}

TEST_F(Driver, FixedAndLargeOnlyTolerances) {
  Load(All_Slack(3));
  vlu::VIM *vim = env->Vim;
  vim->Keep_Tol = true;
  EXPECT_FALSE(Rules(1e16, 1e-30));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  vim->Keep_Tol = false;
  vim->Tol_Only_Large = true;
  EXPECT_FALSE(Rules(1e16, 1e-30));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  vim->Large_Ufac = true;
  EXPECT_TRUE(Rules(1.0, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  EXPECT_EQ(vim->Tol_Wait, 25);
}

TEST_F(Driver, MarkBadBecomesAPrime) {
  Load(All_Slack(100));
  vlu::LUFactor(env);
  EXPECT_EQ(env->Exception, 0);
  // 200 -> 201 (3 * 67) -> 203 (7 * 29) -> 205 -> 207 -> 209 (11 * 19) -> 211.
  EXPECT_EQ(env->Iin->MarkBad, 211);
  EXPECT_EQ(env->Iin->MarkOver, 210);
  EXPECT_EQ(env->Iin->MarkMax, 209);
  EXPECT_EQ(vlu::Size(env->Iin->Stmc), 211);
  luc::Free_Env(env);
  Load(All_Slack(7));
  vlu::LUFactor(env);
  EXPECT_EQ(env->Iin->MarkBad, 101);
}

TEST_F(Driver, TracesOfAPassAtLevelTwo) {
  Load(All_Slack(5));
  env->Trace_Inv = 3;
  vlu::LUFactor(env);
  vlu::Msg_Flush(env);
  for (const char *label :
       {"Piv no.", " Number of Basic Slacks            ", "Space: U_numini=", " Elemnt=",
        "Space: size(AMAT)=", " and size(Ucmat)=", "Space: LFileIni =", " and Size(Lmat)=",
        "Space: LFileUsed =", " and U_numele=", "Space: MarkBad=",
        " Number of Structurals in Bump     ", " Total number of columns in Basis  ",
        " Initial Number of nonzeros        ", " Number of zeros removed           ",
        " Number of elements                ", " Number of elements in L           ",
        " Number of elements in U=          ", " Number of elements in the Bump    ",
        " Per column.", "Number of columns  in L=", "Number of elements in L=",
        "Number of elements in U=", "Largest U-factor =", "Smallest pivot   =",
        "Time in LUFactor:"})
    EXPECT_TRUE(msgs.Has(label)) << label << "\n" << msgs.All();
  EXPECT_LT(msgs.Find(" Number of Basic Slacks"), msgs.Find("Space: U_numini="));
  EXPECT_LT(msgs.Find(" Number of elements in the Bump"), msgs.Find("Largest U-factor ="));
  EXPECT_LT(msgs.Find("Smallest pivot   ="), msgs.Find("Time in LUFactor:"));
}

TEST_F(Driver, NanRepairRaisesTolerancesAndWarnsTwice) {
  Load(All_Slack(2));
  env->Trace_Inv = 1;
  vlu::VIM *vim = env->Vim;
  vlu::DefNan(env);
  vlu::Msg_Flush(env);
  EXPECT_DOUBLE_EQ(env->Rtpiva, 1e-9);
  EXPECT_DOUBLE_EQ(env->Rvpivr, 0.1);
  EXPECT_DOUBLE_EQ(vim->Tol_Piv_Rel, 0.1);
  EXPECT_DOUBLE_EQ(env->Tol_Scale_Min, 0.01);
  EXPECT_EQ(vim->Tol_Wait, 250);
  EXPECT_EQ(vim->InvertMode, 1);
  EXPECT_TRUE(msgs.Has(" ** Overflow or Nan (Not A Number) has been encountered indicating"));
  EXPECT_TRUE(msgs.Has("Encountered NaN. Absolute pivot tolerance increased to"));
  EXPECT_TRUE(msgs.Has("Will attempt to scale and invert again with the new tolerance."));
  msgs.lines.clear();
  for (int e = 2; e <= 5; ++e) vlu::DefNan(env);
  vlu::Msg_Flush(env);
  EXPECT_FALSE(msgs.Has(" ** Overflow or Nan"));
  vlu::DefNan(env);  // the sixth
  vlu::DefNan(env);
  vlu::Msg_Flush(env);
  int count = 0;
  for (const auto &l : msgs.lines)
    if (l.find(" ** Overflow or Nan (Not A Number) continues to be encountered") != std::string::npos)
      ++count;
  EXPECT_EQ(count, 1);
  EXPECT_TRUE(env->Nan_Given_Up);
  // A tolerance near its top can fall: min(2 x, sqrt(0.9 x)).
  vim->Tol_Piv_Rel = 0.95;
  vlu::DefNan(env);
  EXPECT_DOUBLE_EQ(vim->Tol_Piv_Rel, std::sqrt(0.9 * 0.95));
}

TEST_F(Driver, TurnoffDegeneracyKeepsOrClearsItsTolerance) {
  Load(All_Slack(2));
  vlu::VIM *vim = env->Vim;
  auto dirty = [&]() {
    vim->Degenerate = true;
    vim->NumDegIter = 7;
    vim->Deg_Active = true;
    vim->Deg_Count = 5;
    vim->Deg_Levels = 3;
    vim->Tol_Piv_Deg = 0.3;
  };
  dirty();
  env->Trace_Inv = 1;
  env->Trace_Upd = 1;
  vim->NewBasis = false;
  vlu::Turnoff_Degeneracy(env);
  vlu::Msg_Flush(env);
  EXPECT_FALSE(vim->Degenerate);
  EXPECT_EQ(vim->NumDegIter, 0);
  EXPECT_FALSE(vim->Deg_Active);
  EXPECT_EQ(vim->Deg_Count, 0);
  EXPECT_EQ(vim->Deg_Levels, 1);
  EXPECT_EQ(vim->Tol_Piv_Deg, 0.0);
  EXPECT_TRUE(msgs.Has("Turnoff_Degeneracy with NewBasis=F. Tol_Piv_Deg set to zero."));
  dirty();
  vim->NewBasis = true;
  vlu::Turnoff_Degeneracy(env);
  vlu::Msg_Flush(env);
  EXPECT_EQ(vim->Tol_Piv_Deg, 0.3);
  EXPECT_TRUE(msgs.Has("Turnoff_Degeneracy with NewBasis=T. Tol_Piv_Deg kept at"));
  // Below a summed level of 2 nothing is traced.
  msgs.lines.clear();
  env->Trace_Upd = 0;
  vlu::Turnoff_Degeneracy(env);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.lines.empty());
}

TEST_F(Driver, GrowingTheUFileMovesTheRowsUp) {
  luc::Triangular t = luc::Make_Triangular(300, true, 21, 3.0, 0.3);
  Load(t.p);
  vlu::LUFactor(env);
  ASSERT_EQ(env->Exception, 0);
  vlu::LUF *luf = env->Luf;
  const int32_t oldSpace = luf->RowUSpace, oldFirst = luf->U_elefirst;
  std::vector<int32_t> ic(luf->Ic.V + oldFirst, luf->Ic.V + oldSpace + 1);
  std::vector<double> au(env->Vim->AUrmat.Val + oldFirst, env->Vim->AUrmat.Val + oldSpace + 1);
  env->Trace_Inv = 2;
  vlu::Increase_Uspace(env, oldSpace + 3);
  vlu::Msg_Flush(env);
  ASSERT_TRUE(env->EnoughSpace);
  EXPECT_EQ(luf->RowUSpace, 2 * oldSpace + (8 - (2 * oldSpace) % 8) % 8);
  EXPECT_EQ(luf->RowUSpace % 8, 0);
  const int32_t d = luf->RowUSpace - oldSpace;
  EXPECT_EQ(luf->U_elefirst, oldFirst + d);
  EXPECT_EQ(std::vector<int32_t>(luf->Ic.V + luf->U_elefirst, luf->Ic.V + luf->RowUSpace + 1), ic);
  EXPECT_EQ(std::vector<double>(env->Vim->AUrmat.Val + luf->U_elefirst,
                                env->Vim->AUrmat.Val + luf->RowUSpace + 1),
            au);
  EXPECT_TRUE(msgs.Has("Increasing Aurmat and Ic."));
  EXPECT_TRUE(msgs.Has("Original length of Aurmat="));
  EXPECT_TRUE(msgs.Has("Adjusted length of Aurmat="));
  // The moved factors are still the factors of the basis.
  luf->U_numele = luf->RowUSpace - luf->U_elefirst + 1;
  vlu::CreateColumnU(env);
  EXPECT_TRUE(luc::Check_Factors(env));
}

TEST_F(Driver, GrowingTheColumnStructureAndTheLFile) {
  Load(All_Slack(50));
  vlu::LUF *luf = env->Luf;
  vlu::IIN *iin = env->Iin;
  const int32_t sizeA = std::min({vlu::Size(luf->Ir), vlu::Size(iin->C2rp), vlu::Size(iin->R2cp)});
  vlu::Increase_ASpace(env, 10);
  EXPECT_EQ(luf->ColASpace, 2 * sizeA);
  EXPECT_EQ(vlu::Size(iin->C2rp), 2 * sizeA);
  EXPECT_EQ(vlu::Size(iin->R2cp), 2 * sizeA);
  EXPECT_EQ(luf->ColUSpace, std::min(vlu::Size(luf->Ir), vlu::Size(luf->Ucmat)));
  vlu::Increase_ASpace(env, 10 * sizeA);
  EXPECT_EQ(luf->ColASpace, 10 * sizeA);
  const int32_t sizeL = vlu::Size(luf->Lmat);
  vlu::Increase_L(env, sizeL + 1);
  EXPECT_EQ(vlu::Size(luf->Lmat), 2 * sizeL);
  EXPECT_EQ(vlu::Size(luf->Lrow), 2 * sizeL);
  EXPECT_EQ(vlu::Size(luf->Lpiv), 2 * sizeL);
  vlu::Increase_L(env, 7 * sizeL);
  EXPECT_EQ(vlu::Size(luf->Lmat), 7 * sizeL);
}

TEST_F(Driver, FailedGrowthIsReportedAndLeaksNothing) {
  Load(All_Slack(50));
  env->MaxHeap_Bytes = env->Mem_Current + 16;
  vlu::Increase_L(env, 100000);
  vlu::Msg_Flush(env);
  EXPECT_FALSE(env->EnoughSpace);
  EXPECT_EQ(env->Exception, 96);
  EXPECT_TRUE(msgs.Has("Failure when attempting to increase Lmat, Lrow, and Lpiv"));
}

TEST_F(Driver, AllocationFailureInTheDriverLeavesABalancedEnvironment) {
  luc::Triangular t = luc::Make_Triangular(500, false, 8, 3.0, 0.0);
  Load(t.p);
  env->MaxHeap_Bytes = env->Mem_Current + 1000;  // the bump vectors fit, the stores not
  vlu::LUFactor(env);
  EXPECT_EQ(env->Exception, 96);
  EXPECT_FALSE(env->EnoughSpace);
  // Free_Env in TearDown proves the balance.
}

TEST_F(Driver, AllocationFailureInTheFactorCallReturnsFour) {
  luc::Triangular t = luc::Make_Triangular(300, true, 4, 3.0, 0.2);
  vlu_destroy();
  ASSERT_EQ(vlu_create(), 0);
  for (int64_t limit : {100, 5000, 20000}) {
    vlu::Test_Heap_Limit = limit;
    testing::internal::CaptureStdout();
    const int rc = t.p.Factor();
    testing::internal::GetCapturedStdout();
    vlu::Test_Heap_Limit = 0;
    EXPECT_EQ(rc, 4) << limit;
    EXPECT_EQ(vlu::Iface().env, nullptr);
  }
  EXPECT_EQ(t.p.Factor(), 0);
  vlu_destroy();
}

}  // namespace
