// Bases with a bump: what ExtractBasis leaves for the elimination (driven
// directly), and the clean stop of a factorization that would need it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

using luc::Problem;

int Quiet(int, int, int, char **, void *) { return 0; }

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
  for (int j = 1; j <= 5; ++j) p.stat[size_t(j - 1)] = 2;
  p.stat[size_t(7 + 6 - 1)] = 2;  // slack of row 6
  return p;
}

class ExtractDirect : public ::testing::Test {
 protected:
  luc::Messages msgs;
  vlu::VMI *env = nullptr;
  void SetUp() override { vlu_regmsgcb(&msgs, luc::Capture_Callback); }
  void TearDown() override {
    luc::Free_Env(env);
    vlu_regmsgcb(nullptr, nullptr);
    EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
  }
  // Loads the problem and runs the set-up of a pass and ExtractBasis.
  void Extract(const Problem &p, int trace = 0) {
    env = luc::Load_Env(p);
    ASSERT_NE(env, nullptr);
    env->Trace_Inv = trace;
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    vlu::ExtractBasis(env);
    vlu::Msg_Flush(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
  }
};

TEST_F(ExtractDirect, AllPhasesAndTheLoadedBump) {
  Extract(Mixed(2.0), 1);
  const vlu::LUF *luf = env->Luf;
  const vlu::VIM *vim = env->Vim;
  EXPECT_EQ(luf->Num_Slack, 1);
  EXPECT_EQ(luf->Num_Post, 3);
  EXPECT_EQ(luf->Num_Pre, 1);
  EXPECT_EQ(luf->NumVTria, 4);
  EXPECT_EQ(luf->L_Cols, 1);
  EXPECT_EQ(luf->LFileUsed, 2);
  EXPECT_EQ(vim->Num_Sing, 0);
  // Places: 1 the slack, 2..6 the columns 1..5.  Pivot order of the
  // triangular parts: slack/row 6, column 4/row 4, column 5/row 5, column
  // 3/row 3; the bump in ascending row and place order.
  const int rows[] = {0, 6, 4, 5, 3, 1, 2};
  const int places[] = {0, 1, 5, 6, 4, 2, 3};
  for (int k = 1; k <= 6; ++k) {
    EXPECT_EQ(vim->Rnto.V[k], rows[k]) << k;
    EXPECT_EQ(vim->Cnto.V[k], places[k]) << k;
  }
  // The multipliers of column 3: rows 1 and 2 by the pivot of row 3.
  EXPECT_EQ(luf->Lpiv.V[1], 3);
  EXPECT_EQ(luf->Lpiv.V[2], 3);
  EXPECT_DOUBLE_EQ(luf->Lmat.Val[1], 0.25);
  EXPECT_DOUBLE_EQ(luf->Lmat.Val[2], -0.5);
  // Bump: two columns of two, on cache lines; row 1 and 2 hold two each.
  EXPECT_EQ(luf->Clen.V[2], 2);
  EXPECT_EQ(luf->Clen.V[3], 2);
  EXPECT_EQ(luf->Cstr.V[2], 1);
  EXPECT_EQ(luf->Cstr.V[3], 9);
  EXPECT_EQ(luf->Rlen.V[1], 2);
  EXPECT_EQ(luf->Rlen.V[2], 2);
  EXPECT_EQ(luf->Rstr.V[1], 1);
  EXPECT_EQ(luf->Rstr.V[2], 5);
  EXPECT_EQ(luf->RowFileUsed, 6);
  EXPECT_EQ(luf->ColFileUsed, 10);
  // U of the triangular rows: 2 (slack row) + 3 + 1 + 1 elements.
  EXPECT_EQ(luf->RowUSpace - luf->U_elefirst + 1, 7);
  EXPECT_EQ(luf->Rlen.V[6], 2);
  EXPECT_EQ(luf->Rlen.V[4], 3);
  EXPECT_EQ(env->Iin->L_Elements, 2);
  EXPECT_EQ(env->Iin->Zeros_Removed, 0);
  EXPECT_TRUE(luc::Check_Extract(env));
  EXPECT_TRUE(msgs.Has(" Number of Variable Post-triangular")) << msgs.All();
  EXPECT_TRUE(msgs.Has(" Number of Variable Pre-triangular "));
  EXPECT_TRUE(msgs.Has("Time in ExtractBasis:"));
  // The lent permutations are back.
  EXPECT_TRUE(vim->Rnto.Allocated());
  EXPECT_TRUE(vim->Cnto.Allocated());
  for (int i = 1; i <= 7; ++i) EXPECT_EQ(vim->HelpZ.V[i], 0);
}

TEST_F(ExtractDirect, SmallPreTriangularPivotKeepsTheBumpConsistent) {
  Extract(Mixed(1e-12), 2);
  const vlu::LUF *luf = env->Luf;
  const vlu::VIM *vim = env->Vim;
  EXPECT_EQ(vim->Num_Sing, 1);
  EXPECT_TRUE(msgs.Has("Small pivot in Variable Pre -triangular (Row,Col)=(3,3)")) << msgs.All();
  EXPECT_EQ(vim->Cbto.V[4], 7 + 3);  // place 4 now holds the slack of row 3
  EXPECT_EQ(vim->Basc.V[3], 0);
  EXPECT_EQ(vim->Basc.V[10], 2);
  // The slack makes no L column, and the bump rows lost the dropped
  // elements from their counts.
  EXPECT_EQ(luf->L_Cols, 0);
  EXPECT_EQ(luf->LFileUsed, 0);
  EXPECT_EQ(luf->Rlen.V[1], 2);
  EXPECT_EQ(luf->Rlen.V[2], 2);
  EXPECT_EQ(luf->NumVTria, 4);
  EXPECT_TRUE(luc::Check_Extract(env));
}

TEST_F(ExtractDirect, PassedOverQueueEntriesLeaveEmptyColumnsInTheBump) {
  // Columns 1 and 2 are both singletons in row 1; the second one is empty
  // once row 1 is gone.  Rows 2 and 3 are singletons of column 3; the second
  // is empty once column 3 is pivoted.  Column 2 and row 3 form the bump.
  luc::Cols cols(3);
  cols[0] = {{1, 1.0}};
  cols[1] = {{1, 2.0}};
  cols[2] = {{2, 4.0}, {3, 1.0}};
  Problem p = luc::From_Columns(3, cols);
  p.stat[0] = p.stat[1] = p.stat[2] = 2;
  Extract(p);
  const vlu::LUF *luf = env->Luf;
  EXPECT_EQ(luf->Num_Post, 1);
  EXPECT_EQ(luf->Num_Pre, 1);
  EXPECT_EQ(env->Vim->Rnto.V[3], 3);
  EXPECT_EQ(env->Vim->Cnto.V[3], 2);
  EXPECT_EQ(luf->Clen.V[2], 0);
  EXPECT_EQ(luf->Rlen.V[3], 0);
  EXPECT_EQ(luf->RowFileUsed, 0);
  EXPECT_EQ(luf->ColFileUsed, 0);
  EXPECT_EQ(env->Iin->RPfrst, 3);
  EXPECT_EQ(env->Iin->CPfrst, 2);
  EXPECT_DOUBLE_EQ(luf->Lmat.Val[1], 0.25);
  EXPECT_TRUE(luc::Check_Extract(env));
}

TEST_F(ExtractDirect, ColumnOfTinyElementsGoesToTheBumpEmpty) {
  luc::Cols cols(3);
  cols[0] = {{1, 1e-30}, {2, -1e-21}};
  cols[1] = {{2, 1.0}};
  cols[2] = {{3, 1.0}, {1, 0.5}};
  Problem p = luc::From_Columns(3, cols);
  p.stat[0] = p.stat[1] = p.stat[2] = 2;
  Extract(p);
  EXPECT_EQ(env->Iin->Zeros_Removed, 2);
  EXPECT_EQ(env->Luf->NumVTria, 2);
  EXPECT_EQ(env->Vim->Cnto.V[3], 1);
  EXPECT_EQ(env->Luf->Clen.V[1], 0);
  EXPECT_TRUE(luc::Check_Extract(env));
}

TEST_F(ExtractDirect, AllSlacksLeaveNoBump) {
  luc::Cols cols(4);
  cols[0] = {{1, 1.0}};
  Problem p = luc::From_Columns(4, cols);
  for (int i = 1; i <= 4; ++i) p.stat[size_t(5 + i - 1)] = 2;
  Extract(p);
  const vlu::LUF *luf = env->Luf;
  EXPECT_EQ(luf->Num_Post, 4);
  EXPECT_EQ(luf->NumVTria, 4);
  EXPECT_EQ(luf->RowFileUsed, 0);
  EXPECT_EQ(luf->ColFileUsed, 0);
  EXPECT_EQ(luf->RowUSpace - luf->U_elefirst + 1, 4);
  EXPECT_EQ(env->Vim->Min_Pivot, 1.0);
  EXPECT_TRUE(luc::Check_Extract(env));
}

TEST_F(ExtractDirect, NoSlackAndNoTriangleKeepsTheLargeMinimum) {
  luc::Cols cols(2);
  cols[0] = {{1, 1.0}, {2, 2.0}};
  cols[1] = {{1, 3.0}, {2, 4.0}};
  Problem p = luc::From_Columns(2, cols);
  p.stat[0] = p.stat[1] = 2;
  Extract(p);
  EXPECT_EQ(env->Vim->Min_Pivot, 1.0e15);
  EXPECT_EQ(env->Luf->NumVTria, 0);
  EXPECT_EQ(env->Luf->U_elefirst, env->Luf->RowUSpace + 1);
  EXPECT_TRUE(luc::Check_Extract(env));
}

TEST_F(ExtractDirect, LargerRandomBumpsAreLoadedConsistently) {
  // A permuted lower triangle in which the columns of positions 100 and 150
  // reach each other's diagonal row: a cycle that stalls both triangular
  // phases and leaves a bump between them.
  for (uint64_t seed = 1; seed <= 4; ++seed) {
    luc::Triangular t = luc::Make_Triangular(400, true, seed, 3.0, 0.2);
    Problem &p = t.p;
    luc::Cols cols(400);
    for (int j = 1; j <= 400; ++j)
      for (int q = p.colStart[size_t(j - 1)]; q < p.colStart[size_t(j)]; ++q)
        cols[size_t(j - 1)].push_back({p.rowIdx[size_t(q - 1)], p.val[size_t(q - 1)]});
    const int c150 = t.colOfPos[150], c100 = t.colOfPos[100];
    cols[size_t(c150 - 1)].push_back({t.prow[100], 0.9});
    bool has = false;
    for (const auto &e : cols[size_t(c100 - 1)]) has = has || e.first == t.prow[150];
    if (!has) cols[size_t(c100 - 1)].push_back({t.prow[150], -0.7});
    std::vector<int> stat = p.stat;
    p = luc::From_Columns(400, cols);
    p.stat = stat;
    p.stat[size_t(c150 - 1)] = 2;
    p.stat[size_t(c100 - 1)] = 2;
    p.stat[size_t(400 + t.prow[150])] = 0;
    p.stat[size_t(400 + t.prow[100])] = 0;
    Extract(p);
    EXPECT_LT(env->Luf->NumVTria, 400);
    EXPECT_TRUE(luc::Check_Extract(env)) << "seed " << seed;
    luc::Free_Env(env);
  }
}

TEST_F(ExtractDirect, FactorBumpStubStopsCleanly) {
  env = luc::Load_Env(Mixed(2.0));
  ASSERT_NE(env, nullptr);
  vlu::LUFactor(env);
  vlu::Msg_Flush(env);
  EXPECT_EQ(env->Exception, 99);
  EXPECT_TRUE(msgs.Has("Factor_Bump: elimination of a bump of 2 rows is not available in this build."))
      << msgs.All();
  // The borrowed vectors went back before the driver returned.
  EXPECT_TRUE(env->Vim->WorkZ.Allocated());
  EXPECT_TRUE(env->Vim->HelpI.Allocated());
  EXPECT_FALSE(env->Iin->Clmin.Allocated());
  EXPECT_FALSE(env->Iin->Indr.Allocated());
}

TEST(FactorBumpDeath, NonEmptyBumpStopsTheFactorCall) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        vlu_regmsgcb(nullptr, Quiet);
        vlu_destroy();
        vlu_create();
        Mixed(2.0).Factor();
      },
      ::testing::ExitedWithCode(EXIT_FAILURE), "VMI%Exception is not zero");
}

TEST(FactorBumpDeath, BasisThatIsNotSquareStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Problem p = Mixed(2.0);
  p.stat[5] = 2;  // a seventh basic column
  EXPECT_EXIT(
      {
        vlu_regmsgcb(nullptr, Quiet);
        vlu_destroy();
        vlu_create();
        p.Factor();
      },
      ::testing::ExitedWithCode(EXIT_FAILURE), "VMI%Exception is not zero");
}

TEST_F(ExtractDirect, NotSquareIsReported) {
  Problem p = Mixed(2.0);
  p.stat[5] = 2;
  env = luc::Load_Env(p);
  ASSERT_NE(env, nullptr);
  for (int i = 1; i <= 6; ++i) env->Vim->Rwcl.V[i] = 0;
  env->Vim->Rwcl.V[2] = 9;  // a legal column that is not basic
  int32_t elemnt = 0;
  EXPECT_FALSE(vlu::LU_Setup_Pass(env, &elemnt));
  vlu::Msg_Flush(env);
  EXPECT_EQ(env->Exception, 99);
  EXPECT_TRUE(msgs.Has("Basis is not Square: Number of Columns=7 and number of rows=6")) << msgs.All();
  EXPECT_TRUE(msgs.Has("Columns with Basc=Basic:7"));
  EXPECT_TRUE(msgs.Has("Rwcl(2)=9 but Basc(9)=0"));
  EXPECT_TRUE(msgs.Has("Column 6 has Basc=2"));
  EXPECT_TRUE(msgs.Has("Column 13 has Basc=2"));
}

}  // namespace
