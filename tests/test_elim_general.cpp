// Block pivot steps of the elimination.
//
// General_Pivot driven with the pivot forced: what squeeze drops, how a
// small pivot ends a block; and Factor_Bump's replacement of a column by a
// slack.  (The choice of scan of Update_Amat and the growth of blocks are
// pinned by the recorded factors of the whole factorizations.)  After every
// step the battery checks the structures and L times U against the basis.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/bump_support.h"

namespace {

struct PivotSteps : bmp::BumpTest {
  ::testing::AssertionResult Sound() {
    if (Battery() == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "after position " << s.Piv_Indx - 1 << "\n"
                                         << msgs.All();
  }
};

TEST_F(PivotSteps, SqueezeDropsWhatCancelsAndASmallPivotEndsTheBlock) {
  // Row 3 is twice row 1 in places 1..3: the pivot (1, 1) cancels (3, 2)
  // and (3, 3) exactly.  With squeeze they leave the files, without it they
  // stay as zeros.
  const luc::Cols cols = {{{1, 1.0}, {2, 1.0}, {3, 2.0}, {4, 1.0}},
                          {{1, 3.0}, {2, 5.0}, {3, 6.0}, {5, 1.0}},
                          {{1, -2.0}, {3, -4.0}, {4, 2.0}, {5, 1.0}},
                          {{2, 1.0}, {4, 3.0}, {5, 1.0}, {1, 0.5}},
                          {{3, 1.0}, {5, 2.0}, {2, 0.25}}};
  for (bool squeeze : {true, false}) {
    ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(5, cols, true)));
    s.DO_Squeeze = squeeze;
    const int32_t len3 = luf->Rlen.V[3];
    ASSERT_NO_FATAL_FAILURE(Step(1, 1));
    EXPECT_EQ(luf->Rlen.V[3], squeeze ? len3 - 2 : len3) << squeeze;
    EXPECT_TRUE(Sound());
  }
  // A pivot below Rtpiva: a unit pivot in U, and no further pivot.
  ASSERT_NO_FATAL_FAILURE(Start(bmp::Banded(40, 4, true)));
  A(20, 20) = 1e-13;
  ASSERT_NO_FATAL_FAILURE(Step(20, 20));
  EXPECT_TRUE(s.Bad_Pivot);
  EXPECT_EQ(s.St.Gen, 1);
  EXPECT_EQ(vim->AUrmat.Val[luf->Rstr.V[20]], 1.0);
  EXPECT_EQ(vim->Num_Sing, 1);
}

// Factor_Bump itself: a pivot below Rtpiva makes the slack of its row take
// the place of the column, and the place is listed in HelpZ.
TEST_F(PivotSteps, FactorBumpReplacesATinyPivotByTheSlackOfItsRow) {
  // Rows 4..6 x places 1..3, where places 2 and 3 are equal but for 1e-13
  // in row 6; rows 1..3 x places 4..6 a regular block.  No row number is a
  // place of the singular block.
  luc::Cols cols(6);
  cols[0] = {{4, 2.0}, {5, 1.0}, {6, 1.0}};
  cols[1] = {{4, 1.0}, {5, 3.0}, {6, 1.0}};
  cols[2] = {{4, 1.0}, {5, 3.0}, {6, 1.0 + 1e-13}};
  cols[3] = {{1, 4.0}, {2, 1.0}, {3, 1.0}};
  cols[4] = {{1, 1.0}, {2, 4.0}, {3, 1.0}};
  cols[5] = {{1, 1.0}, {2, 1.0}, {3, 4.0}};
  ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(6, cols, true), false));
  vlu::Factor_Bump(env);
  ASSERT_EQ(env->Exception, 0) << msgs.All();
  ASSERT_EQ(vim->Num_Sing, 1);
  const int32_t place = vim->HelpZ.V[1];
  ASSERT_TRUE(place == 2 || place == 3) << place;
  const int32_t row = vim->Rnto.V[vim->Cotn.V[place]];
  EXPECT_EQ(vim->Cbto.V[place], vim->NumCol + row);
  EXPECT_EQ(vim->Basc.V[vim->NumCol + row], 2);
  EXPECT_EQ(vim->Basc.V[place], 0);
}

}  // namespace
