// Block pivot steps of the elimination.
//
// Update_Amat's choice of scan by its cost model, on files written by hand
// (which scan ran, what it merged, what it left as fill); General_Pivot
// driven with the pivot forced: what it writes to U and L, when a block takes
// further pivots, what squeeze drops, how a small pivot ends a block; and
// Factor_Bump's replacement of a column by a slack.  After every step the
// battery checks the structures and L times U against the basis.
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

using Place = std::pair<int32_t, int32_t>;  // (row, place)

// Update_Amat on a 4 x 4 block: block row i is row i, block column j place
// j; block row and column 1 stand for the pivot lines.  The block holds the
// elements marked x; further elements outside the block ("extra") make rows
// and columns long, which decides the scan.
//
//          place 1  2  3  4
//   row 1        x  x  .  .
//   row 2        x  x  .  x
//   row 3        .  .  x  .
//   row 4        .  x  x  x
struct UpdateAmat : bmp::BumpTest {
  static constexpr int32_t N = 48, Ld = 6;
  std::map<Place, double> orig;

  static double Delta(int32_t r, int32_t c) { return 1000.0 * r + 10.0 * c; }
  double &At(int32_t r, int32_t c) { return iin->Mmat.Val[1 + (r - 1) + (c - 1) * Ld]; }

  // extraCol[c] further elements in place c (c = 2..4); long block rows and
  // places.  The environment comes from a diagonal; the files are written
  // here: compressed, columns on cache lines, rows in column order.
  void Build(const std::vector<int32_t> &extraCol, const std::set<int32_t> &longRows,
             const std::set<int32_t> &longPlaces) {
    luc::Cols diag(N);
    for (int32_t j = 1; j <= N; ++j) diag[size_t(j - 1)] = {{j, 1.0}};
    ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(N, diag, true), false));
    std::vector<std::vector<std::pair<int32_t, double>>> cols(N + 1);
    orig.clear();
    auto add = [&](int32_t r, int32_t c, double v) {
      cols[size_t(c)].push_back({r, v});
      orig[{r, c}] = v;
    };
    for (const Place &e : {Place{1, 1}, Place{1, 2}, Place{2, 1}, Place{2, 2}, Place{2, 4},
                           Place{3, 3}, Place{4, 2}, Place{4, 3}, Place{4, 4}})
      add(e.first, e.second, e.first + 0.01 * e.second);
    for (int32_t c = 2; c <= 4; ++c)
      for (int32_t k = 0; k < extraCol[size_t(c)]; ++k) add(5 + k, c, 0.5 + k);
    std::vector<int32_t> rl(N + 1, 0);
    int32_t q = 1;
    for (int32_t j = 1; j <= N; ++j) {
      luf->Cstr.V[j] = q;
      luf->Clen.V[j] = int32_t(cols[size_t(j)].size());
      for (const auto &e : cols[size_t(j)]) {
        luf->Ir.V[q] = e.first;
        vim->AUrmat.Val[q++] = e.second;
        ++rl[size_t(e.first)];
      }
      q = (q - 1 + 7) / 8 * 8 + 1;
    }
    std::vector<int32_t> next(N + 1, 0);
    for (int32_t i = 1, p = 1; i <= N; p += rl[size_t(i)], ++i)
      luf->Rstr.V[i] = next[size_t(i)] = p;
    for (int32_t i = 1; i <= N; ++i) luf->Rlen.V[i] = rl[size_t(i)];
    for (int32_t j = 1; j <= N; ++j)
      for (int32_t k = luf->Cstr.V[j]; k < luf->Cstr.V[j] + luf->Clen.V[j]; ++k) {
        const int32_t p = next[size_t(luf->Ir.V[k])]++;
        luf->Ic.V[p] = j;
        iin->R2cp.V[p] = k;
        iin->C2rp.V[k] = p;
      }
    for (int32_t k = 1; k <= 4; ++k) {
      iin->Lisr.V[k] = iin->Lisc.V[k] = iin->Indr.V[k] = iin->Indc.V[k] = k;
      iin->Lngr.V[k] = longRows.count(k) ? vlu::LTrue : vlu::LFalse;
      iin->Lngc.V[k] = longPlaces.count(k) ? vlu::LTrue : vlu::LFalse;
      iin->Rlin.Val[k] = iin->Clin.Val[k] = -7;
    }
    ASSERT_GE(vlu::Size(iin->Mmat), Ld * 4);
    for (int32_t c = 1; c <= 4; ++c)
      for (int32_t r = 1; r <= 4; ++r) At(r, c) = Delta(r, c);
    s.DO_Squeeze = false;
  }
};

TEST_F(UpdateAmat, TheCheapestScanMergesWhatItMeetsAndLeavesTheRestAsFill) {
  const std::set<Place> all = {{2, 2}, {2, 4}, {3, 3}, {4, 2}, {4, 3}, {4, 4}};
  std::set<Place> noCorner = all;
  noCorner.erase({4, 4});
  struct Case {
    const char *what;
    std::vector<int32_t> extraCol;
    std::set<int32_t> longRows, longPlaces;
    int32_t first;
    std::vector<int64_t> runs;  // by columns only, by rows only, both
    std::set<Place> merged;
    int64_t scanned, byCol, byRow;
  };
  // clang-format off
  const Case cases[] = {
      {"all short: by columns (the pivot column not scanned)",
       {0, 0, 0, 0, 0}, {}, {}, 2, {1, 0, 0}, all, 7, 6, 0},
      // Columns of 23, 22, 22 against rows of 3, 1, 3: both 7, rows 7,
      // columns 67/8.  Rows win the tie with both.
      {"long columns, short rows: by rows",
       {0, 0, 20, 20, 20}, {}, {2, 3, 4}, 2, {0, 1, 0}, all, 7, 0, 6},
      // Row 4 and place 4 long, place 4 of 33: both 4 + 5/8, rows 7,
      // columns 38/8.  The corner (4, 4) is met by neither scan.
      {"long row at a long column: both",
       {0, 0, 0, 0, 31}, {4}, {4}, 2, {0, 0, 1}, noCorner, -1, 4, 1},
      // One element less in place 4 makes the column scan as cheap: it wins.
      {"equal costs: by columns",
       {0, 0, 0, 0, 30}, {4}, {4}, 2, {1, 0, 0}, all, -1, 6, 0},
      {"nothing short: no scan",
       {0, 0, 0, 0, 0}, {2, 3, 4}, {2, 3, 4}, 2, {0, 0, 0}, {}, 0, 0, 0},
      {"nothing behind the pivots: no scan",
       {0, 0, 0, 0, 0}, {}, {}, 5, {0, 0, 0}, {}, 0, 0, 0},
  };
  // clang-format on
  for (const Case &k : cases) {
    SCOPED_TRACE(k.what);
    ASSERT_NO_FATAL_FAILURE(Build(k.extraCol, k.longRows, k.longPlaces));
    vlu::Update_Amat(s, k.first, 4, 4, Ld);
    EXPECT_EQ(env->Exception, 0) << msgs.All();
    EXPECT_EQ((std::vector<int64_t>{s.St.Upd_Col_Only, s.St.Upd_Row_Only, s.St.Upd_Both}), k.runs);
    if (k.scanned >= 0) {
      EXPECT_EQ(s.St.Scanned_Upd, k.scanned);
    }
    EXPECT_EQ(s.St.Merged_By_Col, k.byCol);
    EXPECT_EQ(s.St.Merged_By_Row, k.byRow);
    EXPECT_EQ(s.St.Upd_Parallel, 0);
    // Exactly the merged places were added and marked; nothing else changed.
    for (int32_t r = 1; r <= 4; ++r)
      for (int32_t c = 1; c <= 4; ++c)
        EXPECT_EQ(At(r, c), k.merged.count({r, c}) ? vlu::Merged_Mark : Delta(r, c))
            << r << "," << c;
    for (const auto &e : orig) {
      const double want =
          e.second + (k.merged.count(e.first) ? Delta(e.first.first, e.first.second) : 0.0);
      EXPECT_EQ(A(e.first.first, e.first.second), want) << e.first.first << "," << e.first.second;
    }
    // Rlin and Clin count what is left as fill (untouched without a block).
    for (int32_t x = 2; x <= 4; ++x) {
      int32_t inRow = 0, inCol = 0;
      for (const Place &m : k.merged) inRow += m.first == x, inCol += m.second == x;
      EXPECT_EQ(iin->Rlin.Val[x], k.first > 4 ? -7 : 3 - inRow) << "Rlin " << x;
      EXPECT_EQ(iin->Clin.Val[x], k.first > 4 ? -7 : 3 - inCol) << "Clin " << x;
    }
  }
}

// ---------------------------------------------------------------------------
// Pivot steps on loaded bumps.

struct PivotSteps : bmp::BumpTest {
  ::testing::AssertionResult Sound() {
    if (Battery() == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "after position " << s.Piv_Indx - 1 << "\n"
                                         << msgs.All();
  }
};

TEST_F(PivotSteps, AThreeByThreeBlockTakesOnlyItsPivotAndDropsTinyMultipliers) {
  // Row 2 and place 2: 3 by 3, count 4: no further pivot is tried.  The
  // element (1, 2) is tiny: its multiplier is stored as an exact 0 and the
  // fill (1, 3) it would make is not stored at all.
  luc::Problem p = bmp::Banded(12, 1, false);
  for (size_t e = 0; e < p.val.size(); ++e)
    if (p.rowIdx[e] == 1 && p.colIdx[e] == 2) p.val[e] = 1e-18;
  ASSERT_NO_FATAL_FAILURE(Start(p));
  const int32_t indx = s.Piv_Indx, lUsed = luf->LFileUsed;
  ASSERT_NO_FATAL_FAILURE(Step(2, 2));
  EXPECT_EQ(s.St.Gen_Calls, 1);
  EXPECT_EQ(s.St.Gen, 1);
  EXPECT_EQ(s.St.Count_ClmaxOK, 0);
  EXPECT_EQ(vim->Rnto.V[indx], 2);
  EXPECT_EQ(vim->Cnto.V[indx], 2);
  EXPECT_EQ(luf->Ic.V[luf->Rstr.V[2]], 2);
  EXPECT_EQ(luf->Rlen.V[2], 3);
  ASSERT_EQ(luf->LFileUsed, lUsed + 2);
  for (int32_t l = lUsed + 1; l <= luf->LFileUsed; ++l) {
    EXPECT_EQ(luf->Lpiv.V[l], 2);
    EXPECT_EQ(luf->Lmat.Val[l], luf->Lrow.V[l] == 1 ? 0.0 : 0.125 / 4.0)
        << luf->Lrow.V[l];  // a(3, 2) = 1/8
  }
  EXPECT_EQ(iin->RowFill, 1);  // (3, 1), not (1, 3)
  EXPECT_EQ(luf->Rlen.V[1], 1);
  EXPECT_EQ(luf->Rlen.V[3], 3);
  EXPECT_TRUE(Sound());
}

TEST_F(PivotSteps, BlocksGrowByFurtherPivotsAlsoSemiDenseAndBeyondABatch) {
  // Band of width 4: the pivot (20, 20) makes a block of 9 x 9, count 64, so
  // further pivots are tried, and the band's next rows and columns qualify.
  ASSERT_NO_FATAL_FAILURE(Start(bmp::Banded(40, 4, true)));
  const int32_t indx = s.Piv_Indx;
  ASSERT_NO_FATAL_FAILURE(Step(20, 20));
  EXPECT_EQ(s.St.Gen_Calls, 1);
  EXPECT_GT(s.St.Gen, 1) << msgs.All();
  EXPECT_EQ(s.St.Count_AcceptCol, s.St.Gen - 1);
  EXPECT_EQ(s.Piv_Indx, indx + s.St.Gen);
  for (int32_t k = indx; k < s.Piv_Indx; ++k)  // U rows pivot first, in pivot order
    EXPECT_EQ(luf->Ic.V[luf->Rstr.V[vim->Rnto.V[k]]], vim->Cnto.V[k]);
  ASSERT_TRUE(Sound());
  // The same in semi-dense mode: rows and columns move between C-lists only.
  ASSERT_NO_FATAL_FAILURE(Start(bmp::Banded(40, 4, true)));
  vlu::Switch_to_Semi_Dense(s, s.Piv_Indx);
  ASSERT_NO_FATAL_FAILURE(Step(20, 20));
  EXPECT_GT(s.St.Gen, 1);
  EXPECT_EQ(s.Count_Mark_Col + s.St.Rescans, 0);
  ASSERT_TRUE(Sound());
  // With room in Mmat the block runs along a band of 300: more than 64
  // pivots, so batches are applied while the block still grows, and the
  // rows it takes in later hold amounts pending from them.
  ASSERT_NO_FATAL_FAILURE(Start(bmp::Banded(300, 8, true)));
  vlu::Increase_Uspace(env, 20 * luf->RowUSpace);
  vlu::Increase_ASpace(env, 20 * luf->ColASpace);
  vlu::Increase_Mmat(s, 300 * 300);
  ASSERT_EQ(env->Exception, 0) << msgs.All();
  ASSERT_NO_FATAL_FAILURE(Step(150, 150));
  EXPECT_GT(s.St.Gen, 2 * vlu::Batch_Width) << msgs.All();
  ASSERT_TRUE(Sound());
}

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
