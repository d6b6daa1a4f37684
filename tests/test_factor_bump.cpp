// Bases with a bump: what ExtractBasis leaves for the elimination (driven
// directly), and the stops of a factorization that cannot go on.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

using luc::Problem;

// n = 6: the slack of row 6; post-triangular columns 4 (row 4) and 5 (row 5);
// a pre-triangular column 3 (row 3) with multipliers in rows 1 and 2; and
// the bump rows {1, 2} x columns {1, 2}.  Column 1 also reaches the finished
// row 4, column 4 the slack row 6.  d3 is the pre-triangular pivot.
Problem Mixed(double d3) {
  luc::Cols cols(6);
  cols[0] = {{1, 4.0}, {2, 1.0}, {4, 0.3}};
  cols[1] = {{2, 3.0}, {1, 1.0}};
  cols[2] = {{1, 0.5}, {3, d3}, {2, -1.0}};
  cols[3] = {{4, 5.0}, {6, 1.0}};
  cols[4] = {{5, 6.0}, {4, 0.7}};
  Problem p = luc::From_Columns(6, cols);
  for (int j = 1; j <= 5; ++j) p.basis[size_t(j - 1)] = 2;
  p.basis[size_t(7 + 6 - 1)] = 2;  // slack of row 6
  return p;
}

struct ExtractDirect : luc::EnvTest {
  // Loads the problem and runs the set-up of a pass and ExtractBasis.
  void Extract(const Problem &p) {
    Load(p);
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    vlu::ExtractBasis(env);
    vlu::Msg_Flush(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
  }
};

TEST_F(ExtractDirect, AllPhasesAndTheLoadedBump) {
  Extract(Mixed(2.0));
  const vlu::LUF *luf = env->Luf;
  EXPECT_EQ(luf->Num_Slack, 1);
  EXPECT_EQ(luf->Num_Post, 3);
  EXPECT_EQ(luf->Num_Pre, 1);
  EXPECT_EQ(luf->L_Cols, 1);
  EXPECT_EQ(env->Vim->Num_Sing, 0);
  // Places: 1 the slack, 2..6 the columns 1..5.  Pivot order: slack/row 6,
  // column 4/row 4, column 5/row 5, column 3/row 3, then the bump in
  // ascending row and place order.
  const int rows[] = {0, 6, 4, 5, 3, 1, 2}, places[] = {0, 1, 5, 6, 4, 2, 3};
  for (int k = 1; k <= 6; ++k) {
    EXPECT_EQ(env->Vim->Rnto.V[k], rows[k]) << k;
    EXPECT_EQ(env->Vim->Cnto.V[k], places[k]) << k;
  }
  EXPECT_TRUE(luc::Check_Factors(env, true));
}

TEST_F(ExtractDirect, SmallPreTriangularPivotKeepsTheBumpConsistent) {
  Extract(Mixed(1e-12));
  const vlu::LUF *luf = env->Luf;
  const vlu::VIM *vim = env->Vim;
  EXPECT_EQ(vim->Num_Sing, 1);
  EXPECT_EQ(vim->Cbto.V[4], 7 + 3);  // place 4 now holds the slack of row 3
  EXPECT_EQ(vim->Basc.V[3], 0);
  EXPECT_EQ(vim->Basc.V[10], 2);
  // The slack makes no L column; the bump rows lost the dropped elements
  // (else the rows would hold more than the columns).
  EXPECT_EQ(luf->L_Cols, 0);
  EXPECT_EQ(luf->NumVTria, 4);
  EXPECT_TRUE(luc::Check_Factors(env, true));
}

TEST_F(ExtractDirect, EmptyColumnsAndRowsGoToTheBump) {
  // Columns 1 and 2 are both singletons in row 1: the second is empty once
  // row 1 is gone.  Rows 2 and 3 are singletons of column 3: the second is
  // empty once column 3 is pivoted.  Column 2 and row 3 form the bump.
  Extract(luc::From_Columns(3, {{{1, 1.0}}, {{1, 2.0}}, {{2, 4.0}, {3, 1.0}}}, true));
  EXPECT_EQ(env->Luf->NumVTria, 2);
  EXPECT_EQ(env->Vim->Rnto.V[3], 3);
  EXPECT_EQ(env->Vim->Cnto.V[3], 2);
  EXPECT_EQ(env->Luf->Clen.V[2], 0);
  EXPECT_EQ(env->Luf->Rlen.V[3], 0);
  EXPECT_TRUE(luc::Check_Factors(env, true));
  // A column of elements below Tol_Zero only is empty in the bump too.
  Extract(
      luc::From_Columns(3, {{{1, 1e-30}, {2, -1e-21}}, {{2, 1.0}}, {{3, 1.0}, {1, 0.5}}}, true));
  EXPECT_EQ(env->Iin->Zeros_Removed, 2);
  EXPECT_EQ(env->Vim->Cnto.V[3], 1);
  EXPECT_EQ(env->Luf->Clen.V[1], 0);
  EXPECT_TRUE(luc::Check_Factors(env, true));
  // No slack and no triangle: all bump, the minimum pivot keeps its start.
  Extract(luc::From_Columns(2, {{{1, 1.0}, {2, 2.0}}, {{1, 3.0}, {2, 4.0}}}, true));
  EXPECT_EQ(env->Luf->NumVTria, 0);
  EXPECT_EQ(env->Vim->Min_Pivot, 1.0e15);
  EXPECT_TRUE(luc::Check_Factors(env, true));
}

TEST_F(ExtractDirect, LargerRandomBumpsAreLoadedConsistently) {
  // A permuted lower triangle in which the columns of positions 100 and 150
  // reach each other's diagonal row: a cycle that stalls both triangular
  // phases and leaves a bump between them.
  const int n = 400;
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    luc::Triangular t = luc::Make_Triangular(n, luc::Shape::Lower, seed, true, 0.2);
    const int c150 = t.colOfPos[150], c100 = t.colOfPos[100];
    t.cols[size_t(c150 - 1)].push_back({t.prow[100], 0.9});
    bool has = false;
    for (const auto &e : t.cols[size_t(c100 - 1)]) has = has || e.first == t.prow[150];
    if (!has) t.cols[size_t(c100 - 1)].push_back({t.prow[150], -0.7});
    Problem p = luc::From_Columns(n, t.cols);
    p.basis = t.c.basis;
    p.basis[size_t(c150 - 1)] = p.basis[size_t(c100 - 1)] = 2;
    p.basis[size_t(n + t.prow[150])] = p.basis[size_t(n + t.prow[100])] = 0;
    Extract(p);
    EXPECT_LT(env->Luf->NumVTria, n);
    EXPECT_TRUE(luc::Check_Factors(env, true)) << "seed " << seed;
  }
}

int Quiet(int, int, int, char **, void *) { return 0; }

void Factor_In_Fresh_Interface(const Problem &p) {
  vlu_regmsgcb(nullptr, Quiet);
  vlu_destroy();
  vlu_create();
  luc::Factor(p);
}

TEST(FactorBumpDeath, NonSquareBasisStopsTheFactorCall) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Problem p = Mixed(2.0);
  p.basis[5] = 2;  // a seventh basic column
  EXPECT_EXIT(Factor_In_Fresh_Interface(p), ::testing::ExitedWithCode(EXIT_FAILURE),
              "VMI%Exception is not zero");
}

}  // namespace
