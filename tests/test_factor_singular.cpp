// Small pivots in the triangular parts: the column leaves, the slack of its
// pivot row takes the place, and the factor call reports the pairs.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

using luc::Problem;
using Pairs = std::vector<std::pair<int, int>>;

// Six columns, lower triangular in the pivot order (row, column):
// (2,1) (4,2) (3,3) (6,4) (1,5) (5,6); d3 and d5 are the diagonals of
// columns 3 and 5.
Problem Six(double d3, double d5) {
  luc::Cols cols(6);
  cols[0] = {{2, 2.0}, {4, 0.5}, {3, -0.25}};
  cols[1] = {{4, 3.0}, {1, 1.5}};
  cols[2] = {{3, d3}, {6, 0.75}, {5, 2.5}};
  cols[3] = {{6, 4.0}, {5, -1.0}};
  cols[4] = {{1, d5}, {5, 0.125}};
  cols[5] = {{5, 5.0}};
  return luc::From_Columns(6, cols, true);
}

Pairs Singular_Pairs() {
  Pairs v;
  for (int k = 1; k <= vlu_getnumsing(); ++k) {
    int row = 0, col = 0;
    vlu_getsingpair(&k, &row, &col);
    v.emplace_back(row, col);
  }
  return v;
}

using FactorSingular = luc::ApiTest;

TEST_F(FactorSingular, TwoSmallPivotsGiveTheWorkedPairs) {
  Problem p = Six(1e-12, 1e-13);
  const std::vector<int> before = p.basis;
  ASSERT_EQ(luc::Factor(p), 3);
  EXPECT_EQ(p.basis, before);  // the caller's marking is not touched
  EXPECT_EQ(Singular_Pairs(), (Pairs{{3, 3}, {1, 5}}));
  // Inside: columns 3 and 5 out, the slacks of rows 3 and 1 in, on their rows.
  const vlu::VIM *vim = Env()->Vim;
  EXPECT_TRUE(vim->NewBasis);
  EXPECT_EQ(vim->Basc.V[3] + vim->Basc.V[5], 0);
  EXPECT_EQ(vim->Rwcl.V[3], 7 + 3);
  EXPECT_EQ(vim->Rwcl.V[1], 7 + 1);
  EXPECT_EQ(vim->Min_Pivot, 2.0);  // repaired pivots do not count
  const int32_t uRepaired = Env()->Luf->U_numele;

  // Accepting the pairs gives a regular basis; its U is as large as the
  // repaired one (no dropped element or stale slot was left behind).
  p.basis[2] = p.basis[4] = 0;
  p.basis[size_t(7 + 3 - 1)] = p.basis[size_t(7 + 1 - 1)] = 2;
  ASSERT_EQ(luc::Factor(p), 0);
  EXPECT_EQ(vlu_getnumsing(), 0);
  EXPECT_EQ(Env()->Luf->U_numele, uRepaired);
  EXPECT_TRUE(luc::Check_Factors(Env()));
}

TEST_F(FactorSingular, PivotEqualToTheAbsoluteToleranceIsSmall) {
  ASSERT_EQ(luc::Factor(Six(1.0, 1.0e-10)), 3);
  EXPECT_EQ(Singular_Pairs(), (Pairs{{1, 5}}));
  ASSERT_EQ(luc::Factor(Six(1.0, -1.0000001e-10)), 0);
  EXPECT_EQ(Env()->Vim->Min_Pivot, 1.0000001e-10);
  EXPECT_TRUE(luc::Check_Factors(Env()));
}

// A NaN in the matrix is an element like any other: the triangular phase
// that finds a column with one active element pivots on it, and the pivot
// test takes the NaN for a small pivot (found by fuzzing: the search skipped
// the NaN the counts had taken, and the call ended in an internal error).
TEST_F(FactorSingular, NanEntryIsRepairedAsASmallPivot) {
  luc::Cols cols(2);
  cols[0] = {{1, 1.0}, {2, std::nan("")}};
  cols[1] = {{1, 1.0}};
  ASSERT_EQ(luc::Factor(luc::From_Columns(2, cols, true)), 3);
  EXPECT_EQ(Singular_Pairs(), (Pairs{{2, 1}}));
}

using SmallPivotDirect = luc::EnvTest;

TEST_F(SmallPivotDirect, RepairIsTracedInOrder) {
  Load(Six(1.0, 1e-13));
  env->Trace_Inv = 2;
  vlu::LUFactor(env);
  vlu::Msg_Flush(env);
  EXPECT_EQ(env->Exception, 0);
  const int a = msgs.Find("Small pivot in Variable Post-triangular (Row,Col)=(1,5)");
  ASSERT_GE(a, 0) << msgs.All();
  EXPECT_LT(a, msgs.Find("Incoming slack column=8"));
  EXPECT_LT(msgs.Find("Incoming slack column=8"),
            msgs.Find("Basis change due to small pivot. NewBasis set to .true."));
}

}  // namespace
