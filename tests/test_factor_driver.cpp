// The driver around the phases: tolerance rules, the prime MarkBad, the NaN
// repair and the growth of the stores.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"

namespace {

struct Driver : luc::EnvTest {
  // Runs the tolerance rules on given factor sizes; true: restart the pass.
  bool Rules(double maxUFac, double minPivot) {
    env->Vim->Max_UFac = maxUFac;
    env->Vim->Min_Pivot = minPivot;
    const bool restart = vlu::LU_Tolerance_Rules(env);
    vlu::Msg_Flush(env);
    return restart;
  }
};

TEST_F(Driver, BadFactorsRaiseTheTolerance) {
  Load(luc::All_Slack(3));
  vlu::VIM *vim = env->Vim;
  ASSERT_EQ(vim->Tol_Piv_Rel, 0.05);
  // Large U-factor: raised, no restart, the refactorization scheduled.
  EXPECT_FALSE(Rules(1e8, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  EXPECT_EQ(vim->Tol_Wait, 25);
  EXPECT_EQ(vim->Updates_Done, env->Max_Updates);
  // Huge U-factor: doubled and restarted, up to the ceiling 0.9.
  vim->Tol_Piv_Rel = 0.4;
  vim->Updates_Done = 0;
  EXPECT_TRUE(Rules(1e16, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.8);
  EXPECT_EQ(vim->Updates_Done, 0);
  EXPECT_TRUE(Rules(1e16, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.9);
  // At 0.9: no change, no restart, no scheduling.
  EXPECT_FALSE(Rules(1e16, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.9);
  EXPECT_EQ(vim->Updates_Done, 0);
  // A small minimum pivot restarts; a large U-factor is judged first.
  vim->Tol_Piv_Rel = 0.05;
  EXPECT_TRUE(Rules(1.0, 1e-11));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  vim->Tol_Piv_Rel = 0.05;
  EXPECT_FALSE(Rules(1e8, 1e-11));
  EXPECT_EQ(vim->Updates_Done, env->Max_Updates);
}

TEST_F(Driver, GoodFactorsLowerTheToleranceAfterTheCountdown) {
  Load(luc::All_Slack(3));
  vlu::VIM *vim = env->Vim;
  EXPECT_FALSE(Rules(1e8, 1.0));  // a rise sets the countdown to 25
  ASSERT_EQ(vim->Tol_Piv_Rel, 0.1);
  for (int i = 1; i <= 24; ++i) {
    EXPECT_FALSE(Rules(1.0, 1.0));
    EXPECT_EQ(vim->Tol_Wait, 25 - i);
    EXPECT_EQ(vim->Tol_Piv_Rel, 0.1);
  }
  EXPECT_FALSE(Rules(1.0, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  EXPECT_EQ(vim->Tol_Wait, 25);
  // At the floor the tolerance stays; middling factors move nothing.
  for (int i = 1; i <= 25; ++i) EXPECT_FALSE(Rules(1.0, 1.0));
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  EXPECT_FALSE(Rules(5000.0, 1.0));
  EXPECT_EQ(vim->Tol_Wait, 25);
}

TEST_F(Driver, MarkBadBecomesAPrime) {
  Load(luc::All_Slack(100));
  vlu::LUFactor(env);
  EXPECT_EQ(env->Exception, 0);
  // 200 -> 201 (3 * 67) -> 203 (7 * 29) -> 205 -> 207 -> 209 (11 * 19) -> 211.
  EXPECT_EQ(env->Iin->MarkBad, 211);
  EXPECT_EQ(env->Iin->MarkMax, 209);
  EXPECT_EQ(vlu::Size(env->Iin->Stmc), 211);
  Load(luc::All_Slack(7));
  vlu::LUFactor(env);
  EXPECT_EQ(env->Iin->MarkBad, 101);
}

TEST_F(Driver, NanRepairRaisesTolerancesAndWarnsTwice) {
  Load(luc::All_Slack(2));
  vlu::DefNan(env);
  vlu::Msg_Flush(env);
  EXPECT_DOUBLE_EQ(env->Rtpiva, 1e-9);
  EXPECT_DOUBLE_EQ(env->Vim->Tol_Piv_Rel, 0.1);
  EXPECT_EQ(env->Vim->Tol_Wait, 250);
  EXPECT_TRUE(msgs.Has(" ** Overflow or Nan (Not A Number) has been encountered indicating"));
  msgs.lines.clear();
  for (int e = 2; e <= 5; ++e) vlu::DefNan(env);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.lines.empty()) << msgs.All();
  vlu::DefNan(env);  // the sixth warns once more, the seventh not
  vlu::DefNan(env);
  vlu::Msg_Flush(env);
  const std::string again = " ** Overflow or Nan (Not A Number) continues to be encountered";
  EXPECT_EQ(std::count_if(msgs.lines.begin(), msgs.lines.end(),
                          [&](const std::string &l) { return l.find(again) != std::string::npos; }),
            1)
      << msgs.All();
  EXPECT_TRUE(env->Nan_Given_Up);
}

TEST_F(Driver, GrowingTheUFileMovesTheRowsUp) {
  Load(luc::Make_Triangular(300, luc::Shape::Lower, 21, true, 0.3).c);
  vlu::LUFactor(env);
  ASSERT_EQ(env->Exception, 0);
  vlu::LUF *luf = env->Luf;
  const int32_t oldSpace = luf->RowUSpace, oldFirst = luf->U_elefirst;
  vlu::Increase_Uspace(env, oldSpace + 3);
  ASSERT_TRUE(env->EnoughSpace);
  EXPECT_EQ(luf->RowUSpace % 8, 0);
  EXPECT_GE(luf->RowUSpace, 2 * oldSpace);
  EXPECT_EQ(luf->U_elefirst, oldFirst + luf->RowUSpace - oldSpace);
  // The moved rows, values and column indices, are still the factors.
  vlu::CreateColumnU(env);
  EXPECT_TRUE(luc::Check_Factors(env));
}

TEST_F(Driver, FailedGrowthIsReportedAndLeaksNothing) {
  Load(luc::All_Slack(50));
  env->MaxHeap_Bytes = env->Mem_Current + 16;
  vlu::Increase_L(env, 100000);
  vlu::Msg_Flush(env);
  EXPECT_FALSE(env->EnoughSpace);
  EXPECT_EQ(env->Exception, 96);
  EXPECT_TRUE(msgs.Has("Failure when attempting to increase Lmat, Lrow, and Lpiv"));
  // Inside the driver: the bump vectors fit, the stores not.
  Load(luc::Make_Triangular(500, luc::Shape::Upper, 8).c);
  env->MaxHeap_Bytes = env->Mem_Current + 1000;
  vlu::LUFactor(env);
  EXPECT_EQ(env->Exception, 96);
  EXPECT_FALSE(env->EnoughSpace);
  // Both environments are freed (by Load, by the teardown) with no imbalance.
}

}  // namespace
