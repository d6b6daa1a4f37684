// Pivot selection on bumps that ExtractBasis loaded: the column scan and its
// strict threshold, the pivot test, the thresholds that follow MarkHigh, the
// statistics-driven switch, Factor_Bump's choice of mode by the rows left,
// and the search: the smallest count, and the Mfac margin that takes an
// exhausted column with its longest row.  The tie rules and the cache of the
// semi-dense search are pinned by the recorded factors of the whole
// factorizations (test_bump_cases, test_dense_bases).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/bump_support.h"

namespace {

// 6 x 6, no singleton anywhere, so that the whole matrix is the bump:
//   row 1: cols 1 2      row 4: cols 3 4 5
//   row 2: cols 1 2      row 5: cols 4 5 6
//   row 3: cols 1 3 4    row 6: cols 5 6
// Column lengths 3 2 2 3 3 2; with all elements acceptable the counts are
// c1: 2, c2: 1, c3: 2, c4: 4, c5: 2, c6: 1.
luc::Problem Six() {
  luc::Cols cols(6);
  cols[0] = {{1, 1.1}, {2, 1.2}, {3, 1.3}};
  cols[1] = {{1, 2.1}, {2, 2.2}};
  cols[2] = {{3, 3.3}, {4, 3.4}};
  cols[3] = {{3, 4.3}, {4, 4.4}, {5, 4.5}};
  cols[4] = {{4, 5.4}, {5, 5.5}, {6, 5.6}};
  cols[5] = {{5, 6.5}, {6, 6.6}};
  return luc::From_Columns(6, cols, true);
}

// A ring: column j holds rows j, j+1, j+2 (cyclic), every count 4; column n
// drops its third row, which makes it and that row short.
luc::Problem Ring(int n) {
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j)
    for (int d = 0; d < (j == n ? 2 : 3); ++d)
      cols[size_t(j - 1)].push_back({(j - 1 + d) % n + 1, 1.0 + 0.01 * j + 0.1 * d});
  return luc::From_Columns(n, cols, true);
}

struct ElimSelect : bmp::BumpTest {
  // The lists as the search left them, with the column `out` (which the
  // search took out) back in the C-list of its length for the time, pass
  // the battery.
  ::testing::AssertionResult Consistent(int32_t out = 0) {
    const vlu::Bump_State keep = s;
    s.In_Select_Pivot = false;
    if (out != 0) vlu::Store_col_in_c_list(s, out, luf->Clen.V[out]);
    const int rc = Battery(false);
    if (out != 0) vlu::Remove_col_from_list(s, out);
    s.MIN_CC_List = keep.MIN_CC_List;
    s.In_Select_Pivot = keep.In_Select_Pivot;
    s.Search_Restart = keep.Search_Restart;
    s.Test_Next = keep.Test_Next;
    if (rc == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << msgs.All();
  }
};

TEST_F(ElimSelect, ScanColForMCountsWithAStrictThresholdAndAFreshMaximum) {
  Start(Six());
  ASSERT_EQ(s.NumVTria, 0);
  // Column 1: rows 1 and 2 of length 2, row 3 of length 3.  With Clmx = 5
  // the threshold is 0.25: an element equal to it does not pass.
  A(1, 1) = 0.25;
  A(2, 1) = -0.25;
  A(3, 1) = 5.0;
  Fresh_Clmx();
  ASSERT_EQ(Thr(1), 0.25);
  int32_t mact = -1, mlow = -1;
  vlu::Scan_Col_for_m(s, 1, mact, mlow);
  EXPECT_EQ(mact, 4);  // only row 3 passes: (3-1)(3-1)
  EXPECT_EQ(mlow, 2);  // shortest row of any value: (2-1)(3-1)
  A(2, 1) = -0.2500001;
  vlu::Scan_Col_for_m(s, 1, mact, mlow);
  EXPECT_EQ(mact, 2);
  // Nothing passes (all below Rtpiva): Rowlft times (Clen - 1).
  A(1, 1) = A(2, 1) = A(3, 1) = 1e-11;
  Fresh_Clmx();
  vlu::Scan_Col_for_m(s, 1, mact, mlow);
  EXPECT_EQ(mact, 6 * 2);
  EXPECT_EQ(mlow, 2);
  // A row of length 1 in the column makes both 0.
  luf->Rlen.V[2] = 1;
  vlu::Scan_Col_for_m(s, 1, mact, mlow);
  EXPECT_EQ(mact + mlow, 0);
  luf->Rlen.V[2] = 2;

  // A stale maximum (of 100, which would reject everything below 5) is
  // recomputed; Clmin is only raised.
  for (int32_t j : {4, 5}) {
    iin->Clmx.Val[j] = 100.0;
    iin->Clok.V[j] = vlu::LFalse;
  }
  iin->Clmin.Val[4] = 1e-3;   // above 2^-52 * 4.5: stays
  iin->Clmin.Val[5] = 1e-30;  // below: raised
  vlu::Scan_Col_for_m(s, 4, mact, mlow);
  EXPECT_TRUE(vlu::IsTrue(iin->Clok.V[4]));
  EXPECT_EQ(iin->Clmx.Val[4], 4.5);
  EXPECT_EQ(iin->Clmin.Val[4], 1e-3);
  EXPECT_EQ(mact, 4);  // rows 3, 4, 5 all of length 3, all pass
  vlu::Scan_Col_for_m(s, 5, mact, mlow);
  EXPECT_EQ(iin->Clmx.Val[5], 5.6);
  EXPECT_EQ(iin->Clmin.Val[5], std::ldexp(5.6, -52));
  EXPECT_EQ(mact, 2);  // row 6 of length 2
  EXPECT_EQ(s.St.Clmx_Redone, 2);
  vlu::Scan_Col_for_m(s, 5, mact, mlow);  // a fresh maximum is not recomputed
  EXPECT_EQ(s.St.Clmx_Redone, 2);
  EXPECT_EQ(env->Exception, 0);
}

TEST_F(ElimSelect, TestPivotTurnsTinyPivotsIntoSingularitiesAndWatchesTheGrowth) {
  Start(Six());
  env->Trace_Inv = 1;
  s.Piv_Row = 3;
  s.Piv_Col = 4;
  s.MarkBest = 3;
  vim->Min_Pivot = 1e15;
  vim->Max_UFac = 1.0;
  const int32_t sing = vim->Num_Sing;
  double piv = -2.0;
  vlu::Test_Pivot(s, 8.0, piv);
  EXPECT_EQ(piv, -2.0);
  EXPECT_FALSE(s.Bad_Pivot);
  EXPECT_EQ(vim->Min_Pivot, 2.0);
  EXPECT_EQ(vim->Max_UFac, 4.0);
  EXPECT_EQ(s.St.Sum_MarkBest, 3.0);
  // Exactly Rtpiva is still a pivot.
  piv = env->Rtpiva;
  vlu::Test_Pivot(s, 0.0, piv);
  EXPECT_FALSE(s.Bad_Pivot);
  EXPECT_EQ(vim->Min_Pivot, env->Rtpiva);
  // Below it: a unit pivot, a singularity, and the ratio is not taken.
  piv = -0.5 * env->Rtpiva;
  vlu::Test_Pivot(s, 1e30, piv);
  EXPECT_EQ(piv, 1.0);
  EXPECT_TRUE(s.Bad_Pivot);
  EXPECT_EQ(vim->Num_Sing, sing + 1);
  EXPECT_EQ(vim->Max_UFac, 4.0);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Pivot too small. Pivot=")) << msgs.All();
  // Large_Ufac only above 1.1e15 Ufac_Scale.
  vim->Ufac_Scale = 2.0;
  piv = 1.0;
  vlu::Test_Pivot(s, 2.2e15, piv);  // exactly the limit
  EXPECT_FALSE(vim->Large_Ufac);
  vlu::Test_Pivot(s, 2.3e15, piv);
  EXPECT_TRUE(vim->Large_Ufac);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Large_Ufac set to .true. in Test_Pivot. Umax=")) << msgs.All();
  EXPECT_EQ(env->Exception, 0);
  // With the trace on, a pivot with a tail is refused (not in semi-dense
  // mode, where tails are not kept).
  iin->Mcex.V[4] = 1;
  s.Semi_Dense = true;
  vlu::Test_Pivot(s, 1.0, piv);
  EXPECT_EQ(env->Exception, 0);
  s.Semi_Dense = false;
  piv = 1e-30;
  vlu::Test_Pivot(s, 1.0, piv);
  vlu::Msg_Flush(env);
  EXPECT_EQ(env->Exception, 99);
  EXPECT_TRUE(msgs.Has("IIN%Mrex(3)=0 and IIN%Mcex(4)=1")) << msgs.All();
  EXPECT_EQ(piv, 1e-30);  // the rest is skipped
  EXPECT_EQ(vim->Num_Sing, sing + 1);
  env->Exception = 0;
  iin->Mcex.V[4] = 0;
}

TEST_F(ElimSelect, IncreaseMarkHighSetsThresholdsInSinglePrecisionAndLengthLimOnlyUp) {
  Start(Six());
  env->Trace_Inv = 1;
  // Squeeze goes off when MarkHigh passes 2499, once.
  s.MarkHigh = 2000;
  vlu::Increase_MarkHigh(s, 3000);
  EXPECT_FALSE(s.DO_Squeeze);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Turn squeeze off at MarkHigh=")) << msgs.All();
  s.DO_Squeeze = true;
  vlu::Increase_MarkHigh(s, 4000);
  EXPECT_TRUE(s.DO_Squeeze);
  s.MarkHigh = 100;
  vlu::Increase_MarkHigh(s, 2499);
  EXPECT_TRUE(s.DO_Squeeze);
  // 2.5 sqrt(M) + 8 and 2 sqrt(M) differ between single and double precision
  // at these counts; single precision decides.
  vlu::Increase_MarkHigh(s, 265019);
  EXPECT_EQ(s.Len_Crit, 1295);
  EXPECT_EQ(s.Extra_Crit, 1029);
  vlu::Increase_MarkHigh(s, 4196352);
  EXPECT_EQ(s.Extra_Crit, 4097);
  vlu::Increase_MarkHigh(s, 2500);
  EXPECT_EQ(s.Len_Crit, 133);
  EXPECT_EQ(s.Extra_Crit, 100);
  // Length_Lim: capped at NumRow + 1 = 7, below the 8 it has: unchanged.
  EXPECT_EQ(s.Length_Lim, 8);
  EXPECT_FALSE(s.Do_Restart);
  Start(Ring(40));
  vlu::Increase_MarkHigh(s, 10);  // min(max(8, 15), 18)
  EXPECT_EQ(s.Length_Lim, 15);
  vlu::Increase_MarkHigh(s, 30);  // min(45, 38)
  EXPECT_EQ(s.Length_Lim, 38);
  vlu::Increase_MarkHigh(s, 100);  // 108, above NumRow: NumRow + 1
  EXPECT_EQ(s.Length_Lim, 41);
  vlu::Increase_MarkHigh(s, 20);  // would be 28: never shrinks
  EXPECT_EQ(s.Length_Lim, 41);
  s.Semi_Dense = true;  // nor is it raised in semi-dense mode
  vlu::Increase_MarkHigh(s, 1000);
  EXPECT_EQ(s.Length_Lim, 41);
  EXPECT_EQ(env->Exception, 0);
}

TEST_F(ElimSelect, SwitchTakesTwoConsecutiveExpensiveIntervals) {
  Start(Six());
  env->Trace_Inv = 1;
  s.Piv_Indx = s.Stat_Last_Indx = 1;
  // An interval of n = 100 pivots: dM must exceed 1000 n, dE 16 dM, strictly.
  auto interval = [&](int32_t n, double dM, int64_t dE) {
    s.Piv_Indx += n;
    s.St.Sum_MarkBest += dM;
    s.St.Elem_Cols += dE;
    vlu::Stat_Switch_Check(s);
    return s.Pre_Switch;
  };
  EXPECT_TRUE(interval(100, 100001.0, 1600017));
  EXPECT_FALSE(interval(100, 100000.0, 16000000));  // dM = 1000 n
  EXPECT_FALSE(interval(100, 100001.0, 1600016));   // dE = 16 dM
  EXPECT_TRUE(interval(100, 200000.0, 4000000));
  EXPECT_EQ(s.Switch_Indx, 2147483647);
  interval(99, 1e9, 0);  // fewer pivots than the step: no check, the bases stay
  EXPECT_EQ(s.Stat_Last_Indx, 401);
  interval(1, 0.0, int64_t(1e11));  // the second expensive interval in a row
  EXPECT_EQ(s.Switch_Indx, 501);
  EXPECT_EQ(s.Stat_Last_Mark, s.St.Sum_MarkBest);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Turning pre_switch on. Indx=101")) << msgs.All();
  EXPECT_TRUE(msgs.Has("Turning switch on. Indx=501"));
  s.Semi_Dense = true;  // in semi-dense mode the test does not run
  interval(1000, 1e12, int64_t(1e14));
  EXPECT_EQ(s.Stat_Last_Indx, 501);
}

// Factor_Bump's choice of mode: the dense start takes eight rows or more,
// the switch by count a rest of 101 rows or more.
TEST_F(ElimSelect, FactorBumpChoosesItsModeByTheRowsLeft) {
  for (int n : {7, 8}) {  // full: density 1
    ASSERT_NO_FATAL_FAILURE(Start(bmp::Full(n, uint64_t(n)), false));
    vlu::Factor_Bump(env);
    EXPECT_EQ(env->Exception, 0) << msgs.All();
    EXPECT_EQ(luf->D_Size, n == 8 ? 8 : 0) << n;
  }
  // Seven elements in every row and column: the first search raises
  // MarkHigh to 36, and 3 * 36 exceeds the rows left after the first pivot.
  for (int n : {101, 102}) {
    luc::Cols cols(static_cast<size_t>(n));
    for (int j = 1; j <= n; ++j)
      for (int d = 0; d < 7; ++d)
        cols[size_t(j - 1)].push_back({(j - 1 + d) % n + 1, d == 0 ? 4.0 : 0.5});
    ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(n, cols, true), false));
    env->Trace_Inv = 1;
    vlu::Factor_Bump(env);
    vlu::Msg_Flush(env);
    EXPECT_EQ(env->Exception, 0) << msgs.All();
    const std::string text = "Max Markowich count=36*3.00 exceeds Rowlft=" + std::to_string(n - 1);
    EXPECT_EQ(msgs.Has(text), n == 102) << msgs.All();
    EXPECT_EQ(msgs.Has("Switching to semi-dense mode. Indx=2 "), n == 102) << n;
  }
}

TEST_F(ElimSelect, SelectPivotFindsTheSmallestCountOnRandomBumps) {
  int tested = 0;
  for (uint64_t seed = 1; seed <= 40; ++seed) {
    Start(bmp::Random_Bump(40, 1, 3, seed));
    if (s.Rowlft < 5) continue;
    s.In_Select_Pivot = true;
    // Smallest count over the elements that pass their column's threshold.
    int32_t best = vlu::Mark_Infinite;
    for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
      const int32_t j = vim->Cnto.V[k];
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        if (std::fabs(vim->AUrmat.Val[q]) > Thr(j))
          best = std::min(best, (luf->Rlen.V[luf->Ir.V[q]] - 1) * (luf->Clen.V[j] - 1));
    }
    ASSERT_LT(best, 64);  // below 64 the factor Mfac allows no slack
    vlu::Select_Pivot(s);
    ASSERT_EQ(env->Exception, 0) << "seed " << seed << msgs.All();
    const int32_t q = Pos(s.Piv_Row, s.Piv_Col);
    ASSERT_NE(q, 0) << "seed " << seed;
    EXPECT_GT(std::fabs(vim->AUrmat.Val[q]), Thr(s.Piv_Col)) << "seed " << seed;
    EXPECT_EQ(s.MarkBest, best) << "seed " << seed;
    EXPECT_EQ(s.MarkBest, (luf->Rlen.V[s.Piv_Row] - 1) * (luf->Clen.V[s.Piv_Col] - 1));
    EXPECT_TRUE(Consistent(s.Piv_Col)) << "seed " << seed;
    ++tested;
  }
  EXPECT_GT(tested, 20);
}

TEST_F(ElimSelect, SelectPivotTakesTheLongestRowOfAnExhaustedColumnWhenNothingBetterExists) {
  // A full 66 x 66 block of elements below Rtpiva: no element passes
  // anywhere.  At c = 66 the bound is 65^2 = 4225 and a column's count from
  // the scan, Rowlft (Clen - 1) = 66 * 65 = 4290, is within it times Mfac:
  // the column is taken with its longest row, the first of equals.
  const int n = 66;
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j)
    for (int i = 1; i <= n; ++i) cols[size_t(j - 1)].push_back({i, 1e-12 * (1.0 + 0.01 * i)});
  markBad = 10007;
  Start(luc::From_Columns(n, cols, true));
  ASSERT_EQ(s.Rowlft, n);
  s.In_Select_Pivot = true;
  const int32_t head = iin->Stcc.V[n];
  vlu::Select_Pivot(s);
  ASSERT_EQ(env->Exception, 0) << msgs.All();
  EXPECT_EQ(s.Piv_Col, head);
  EXPECT_EQ(s.Piv_Row, luf->Ir.V[luf->Cstr.V[head]]);
  EXPECT_EQ(s.MarkBest, 66 * 65);
  EXPECT_EQ(s.MarkHigh, 65 * 65);
  EXPECT_EQ(s.Length_Lim, n + 1);
  EXPECT_TRUE(Consistent(head));
}

}  // namespace
