// Small pivots in the triangular parts: the column leaves, the slack of its
// pivot row takes the place, and the factor call reports the pairs.
#include <gtest/gtest.h>

#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

using luc::Problem;

// Six columns, lower triangular in the pivot order (row, column):
// (2,1) (4,2) (3,3) (6,4) (1,5) (5,6).  d3 and d5 are the diagonals of
// columns 3 and 5.
Problem Six(double d3, double d5) {
  luc::Cols cols(6);
  cols[0] = {{2, 2.0}, {4, 0.5}, {3, -0.25}};
  cols[1] = {{4, 3.0}, {1, 1.5}};
  cols[2] = {{3, d3}, {6, 0.75}, {5, 2.5}};
  cols[3] = {{6, 4.0}, {5, -1.0}};
  cols[4] = {{1, d5}, {5, 0.125}};
  cols[5] = {{5, 5.0}};
  Problem p = luc::From_Columns(6, cols);
  for (int j = 1; j <= 6; ++j) p.stat[size_t(j - 1)] = 2;
  return p;
}

class FactorSingular : public ::testing::Test {
 protected:
  luc::Messages msgs;
  void SetUp() override {
    vlu_destroy();
    vlu_regmsgcb(&msgs, luc::Capture_Callback);
    ASSERT_EQ(vlu_create(), 0);
  }
  void TearDown() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
    EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
  }
  std::vector<std::pair<int, int>> Pairs() {
    std::vector<std::pair<int, int>> v;
    for (int k = 1; k <= vlu_getnumsing(); ++k) {
      int row = 0, col = 0;
      vlu_getsingpair(&k, &row, &col);
      v.emplace_back(row, col);
    }
    return v;
  }
};

TEST_F(FactorSingular, TwoSmallPivotsGiveTheWorkedPairs) {
  Problem p = Six(1e-12, 1e-13);
  const std::vector<int> before = p.stat;
  ASSERT_EQ(p.Factor(), 3);
  EXPECT_EQ(p.stat, before);  // the caller's marking is not touched
  EXPECT_EQ(vlu_getnumsing(), 2);
  EXPECT_EQ(Pairs(), (std::vector<std::pair<int, int>>{{3, 3}, {1, 5}}));
  const vlu::VIM *vim = vlu::Iface().env->Vim;
  EXPECT_EQ(vim->Num_Sing, 2);
  EXPECT_EQ(vim->Num_Sing_Tria, 2);
  EXPECT_TRUE(vim->NewBasis);
  EXPECT_FALSE(vim->AttemptCNS);
  // The repaired basis: columns 3 and 5 out, slacks of rows 3 and 1 in.
  EXPECT_EQ(vim->Basc.V[3], 0);
  EXPECT_EQ(vim->Basc.V[5], 0);
  EXPECT_EQ(vim->Basc.V[7 + 3], 2);
  EXPECT_EQ(vim->Basc.V[7 + 1], 2);
  // The slacks pivot on their rows.
  EXPECT_EQ(vim->Rwcl.V[3], 10);
  EXPECT_EQ(vim->Rwcl.V[1], 8);
  EXPECT_EQ(vim->Min_Pivot, 2.0);  // repaired pivots do not count
  EXPECT_EQ(vlu::Iface().nFactor, 0);

  // Accepting the pairs gives a regular basis with the same U elsewhere.
  p.stat[2] = 0;
  p.stat[4] = 0;
  p.stat[size_t(7 + 3 - 1)] = 2;
  p.stat[size_t(7 + 1 - 1)] = 2;
  ASSERT_EQ(p.Factor(), 0);
  EXPECT_EQ(vlu_getnumsing(), 0);
  EXPECT_TRUE(luc::Check_Factors(vlu::Iface().env));
}

TEST_F(FactorSingular, PivotEqualToTheAbsoluteToleranceIsSmall) {
  Problem p = Six(1.0, 1.0e-10);
  ASSERT_EQ(p.Factor(), 3);
  EXPECT_EQ(Pairs(), (std::vector<std::pair<int, int>>{{1, 5}}));

  Problem q = Six(1.0, -1.0000001e-10);
  ASSERT_EQ(q.Factor(), 0);
  vlu::VMI *env = vlu::Iface().env;
  EXPECT_EQ(env->Vim->Min_Pivot, 1.0000001e-10);
  EXPECT_TRUE(luc::Check_Factors(env));
}

TEST_F(FactorSingular, RepairKeepsTheRowCountsOfU) {
  // After the repair U holds neither the dropped elements nor stale slots:
  // the regular refactorization of the repaired basis has the same U size.
  Problem p = Six(1e-12, 1e-13);
  ASSERT_EQ(p.Factor(), 3);
  const int32_t uSingular = vlu::Iface().env->Luf->U_numele;
  p.stat[2] = 0;
  p.stat[4] = 0;
  p.stat[size_t(9)] = 2;
  p.stat[size_t(7)] = 2;
  ASSERT_EQ(p.Factor(), 0);
  EXPECT_EQ(vlu::Iface().env->Luf->U_numele, uSingular);
}

// Driving the routines on a loaded environment, with traces on.
class SmallPivotDirect : public ::testing::Test {
 protected:
  luc::Messages msgs;
  vlu::VMI *env = nullptr;
  void SetUp() override { vlu_regmsgcb(&msgs, luc::Capture_Callback); }
  void TearDown() override {
    luc::Free_Env(env);
    vlu_regmsgcb(nullptr, nullptr);
    EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
  }
};

TEST_F(SmallPivotDirect, RepairIsTracedAndRecorded) {
  env = luc::Load_Env(Six(1.0, 1e-13));
  ASSERT_NE(env, nullptr);
  env->Trace_Inv = 2;
  vlu::LUFactor(env);
  vlu::Msg_Flush(env);
  EXPECT_EQ(env->Exception, 0);
  const int a = msgs.Find("Small pivot in Variable Post-triangular (Row,Col)=(1,5)");
  const int b = msgs.Find("Pivot=");
  const int c = msgs.Find("Incoming slack column=8");
  const int d = msgs.Find("Basis change due to small pivot. NewBasis set to .true.");
  const int e = msgs.Find("Turnoff_Degeneracy with NewBasis=T. Tol_Piv_Deg kept at");
  const int f = msgs.Find("NewBasis=.true. in LUFactor so we reset Degenerate to .false. and NumDegIter to 0");
  ASSERT_GE(a, 0) << msgs.All();
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, d);
  EXPECT_LT(d, e);
  EXPECT_LT(e, f);
  EXPECT_TRUE(msgs.Has("Absolute tolerance="));
  EXPECT_TRUE(msgs.Has("Inversion failure in LUFactor"));
  EXPECT_EQ(env->Vim->Num_Sing, 1);
  EXPECT_EQ(env->Vim->Basc.V[5], 0);
  EXPECT_EQ(env->Vim->Basc.V[8], 2);
}

TEST_F(SmallPivotDirect, TraceCnsGivesUpWithoutRepair) {
  env = luc::Load_Env(Six(1.0, 1e-13));
  ASSERT_NE(env, nullptr);
  env->TraceCNS = true;
  env->Trace_Inv = 1;
  vlu::LUFactor(env);
  vlu::Msg_Flush(env);
  EXPECT_EQ(env->Exception, 0);
  EXPECT_EQ(env->Exit_Code, 14);
  EXPECT_EQ(env->Vim->Num_Sing, 1);
  EXPECT_TRUE(msgs.Has(" ** Error in TraceCNS: Pivot too small."));
  EXPECT_TRUE(msgs.Has("Singular triangular column(s) - give up. Lssqrs=F TraceCNS=T In_OneDim=F"));
  EXPECT_EQ(env->Vim->Basc.V[5], 2);  // no basis change
  EXPECT_EQ(env->Vim->Basc.V[8], 0);
  EXPECT_FALSE(env->Vim->NewBasis);
}

TEST_F(SmallPivotDirect, OneDimensionalModeStopsWithoutRepair) {
  env = luc::Load_Env(Six(1e-11, 1.0));
  ASSERT_NE(env, nullptr);
  env->Vim->In_OneDim = true;
  vlu::LUFactor(env);
  EXPECT_EQ(env->Exception, 0);
  EXPECT_EQ(env->Exit_Code, 26);
  EXPECT_EQ(env->Vim->Num_Sing, 1);
  EXPECT_EQ(env->Vim->Basc.V[3], 2);
  EXPECT_EQ(env->Vim->Basc.V[10], 0);
}

}  // namespace
