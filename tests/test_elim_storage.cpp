// Storage of the active matrix on bumps that ExtractBasis loaded: the
// placement rules of the compactions, long rows and columns, the roads by
// which Make_Row_Space and Make_Col_Space find room, failed growth, the
// shapes of the work block, LU_Space's decisions, and the compression of
// tails (duplicates added, small sums dropped, the fill count).  After every
// operation the active matrix must hold the same elements and pass the
// battery's structure tests; where a rule only decides where things stand,
// the places are checked against the rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <tuple>
#include <vector>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/bump_support.h"

namespace {

using bmp::Elem;
using bmp::Elems;

Elems Plus(Elems e, std::initializer_list<Elem> add) {
  e.insert(e.end(), add);
  std::sort(e.begin(), e.end());
  return e;
}
Elems Minus(Elems e, int32_t row, int32_t col) {
  e.erase(
      std::remove_if(e.begin(), e.end(),
                     [&](const Elem &x) { return std::get<0>(x) == row && std::get<1>(x) == col; }),
      e.end());
  return e;
}
// The same elements without the compressed/tail distinction.
std::vector<std::tuple<int32_t, int32_t, double>> Values(const Elems &e) {
  std::vector<std::tuple<int32_t, int32_t, double>> v;
  for (const Elem &x : e) v.emplace_back(std::get<0>(x), std::get<1>(x), std::get<2>(x));
  std::sort(v.begin(), v.end());
  return v;
}

struct Storage : bmp::BumpTest {
  // A bump of at least 20 rows.  Tails in short rows are made on purpose
  // here, so the battery is told that no list is short (Len_Crit 1).
  void Begin(const luc::Problem &p = bmp::Random_Bump(60, 2, 5, 7), double sf = 0.0) {
    spaceFactor = sf;
    ASSERT_NO_FATAL_FAILURE(Start(p));
    s.Len_Crit = 1;
    ASSERT_GE(s.Bump_Size, 20);
    ASSERT_TRUE(Sound());
  }
  ::testing::AssertionResult Sound() {
    if (Battery(false) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << msgs.All();
  }

  // Rows (rows true) or columns of the file in chain order, and what the
  // tests ask of one of them.
  std::vector<int32_t> Chain(bool rows) const {
    std::vector<int32_t> v;
    const int32_t *nx = rows ? iin->Rpnx.V : iin->Cpnx.V;
    for (int32_t x = rows ? iin->RPfrst : iin->CPfrst; x != 0; x = nx[x]) v.push_back(x);
    return v;
  }
  int32_t Len(bool rows, int32_t x) const { return rows ? luf->Rlen.V[x] : luf->Clen.V[x]; }
  int32_t &Lref(bool rows, int32_t x) { return rows ? luf->Rlen.V[x] : luf->Clen.V[x]; }
  int32_t Begin_Of(bool rows, int32_t x) const { return rows ? luf->Rstr.V[x] : luf->Cstr.V[x]; }
  int32_t Extra(bool rows, int32_t x) const {
    return rows ? vlu::Row_Extra(s, x) : vlu::Col_Extra(s, x);
  }
  int32_t Last(bool rows) const { return rows ? iin->RPlast : iin->CPlast; }
  void Make(bool rows, int32_t x, int32_t need) {
    rows ? vlu::Make_Row_Space(s, x, need) : vlu::Make_Col_Space(s, x, need);
  }
  // The first element of x leaves both files.
  void Drop_First(bool rows, int32_t x) {
    rows ? Drop(x, luf->Ic.V[luf->Rstr.V[x]]) : Drop(luf->Ir.V[luf->Cstr.V[x]], x);
  }

  bool Has(int32_t i, int32_t j) { return vlu::Find_Element(s, i, j) != 0; }
  static bool In(const std::vector<int32_t> &v, int32_t x) {
    return std::find(v.begin(), v.end(), x) != v.end();
  }
  // A column (not last, not in `except`) without an element in row i, with
  // room for `room` more.
  int32_t Free_Col(int32_t i, std::vector<int32_t> except = {}, int32_t room = 2) {
    for (int32_t j : Chain(false))
      if (j != iin->CPlast && !Has(i, j) && !In(except, j) && vlu::Col_Extra(s, j) >= room)
        return j;
    return 0;
  }
  // A row (not last, not in `except`) without an element in column j.
  int32_t Free_Row(int32_t j, std::vector<int32_t> except = {}, int32_t room = 1) {
    for (int32_t i : Chain(true))
      if (i != iin->RPlast && !Has(i, j) && !In(except, i) && vlu::Row_Extra(s, i) >= room)
        return i;
    return 0;
  }
  // A row (not last, not in `except`) without a tail, with at least `len`
  // elements and room for as many more.
  int32_t Row_With(int32_t len, std::vector<int32_t> except = {}) {
    for (int32_t i : Chain(true))
      if (i != iin->RPlast && luf->Rlen.V[i] >= len && iin->Mrex.V[i] == 0 && !In(except, i) &&
          vlu::Row_Extra(s, i) >= len)
        return i;
    return 0;
  }
  // A row or column whose compressed length changed goes to its C-list.
  void Relist(int32_t i, int32_t j) {
    vlu::Remove_Row_from_List(s, i);
    vlu::Store_Row_in_C_List(s, i, luf->Rlen.V[i]);
    vlu::Remove_col_from_list(s, j);
    vlu::Store_col_in_c_list(s, j, luf->Clen.V[j]);
    Fresh_Clmx();
  }
  // Takes the element (i, j) out of both files as a pivot step would.
  void Drop(int32_t i, int32_t j) {
    const int32_t q = vlu::Find_Element(s, i, j);
    ASSERT_NE(q, 0);
    vlu::Remove_Element_From_Row(s, i, iin->C2rp.V[q]);
    vlu::Remove_Element_From_Col(s, j, q);
    Relist(i, j);
  }
  // Reserves room with the Make_*_Space contract, then stores.
  void Store(int32_t i, int32_t j, double v, bool compr) {
    vlu::Make_Row_Space(s, i, 1);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    luf->Rlen.V[i] -= 1;
    vlu::Make_Col_Space(s, j, 1);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    luf->Clen.V[j] -= 1;
    vlu::Store_ele_in_both(s, i, j, v, compr);
    Relist(i, j);
  }
};

TEST_F(Storage, CompactionsPackEachRowAndColumnWithItsReserve) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  // A row that can take one more gets a tail element, so that its reserve
  // reaches past the start of the next row (which cannot move up); rows
  // behind it lose elements so that those behind them move down; one row
  // is emptied: it keeps its place with a reserve of one.
  const int32_t r = Row_With(2), c = Free_Col(r);
  ASSERT_TRUE(r && c);
  ASSERT_NO_FATAL_FAILURE(Store(r, c, 0.25, false));
  std::vector<int32_t> done = {r};
  for (int k = 0; k < 6; ++k) {
    const int32_t i = Row_With(3, done);
    ASSERT_NE(i, 0);
    done.push_back(i);
    ASSERT_NO_FATAL_FAILURE(Drop_First(true, i));
    ASSERT_NO_FATAL_FAILURE(Drop_First(true, i));
  }
  const int32_t empty = done.back();
  while (luf->Rlen.V[empty] > 0) ASSERT_NO_FATAL_FAILURE(Drop_First(true, empty));
  const Elems before = Elements();
  const double sf = env->Space_Factor;
  auto reserve = [&](int32_t len) { return int32_t(std::max(len + 1.0, sf * len)); };

  for (bool rows : {true, false}) {
    SCOPED_TRACE(rows ? "rows" : "columns");
    const std::vector<int32_t> chain = Chain(rows);
    std::vector<int32_t> old(size_t(s.NumRow) + 1);
    for (int32_t x : chain) old[size_t(x)] = Begin_Of(rows, x);
    rows ? vlu::Compres_Rows(s) : vlu::Compres_Cols(s);
    EXPECT_EQ(Chain(rows), chain);
    // Each starts right after the reserve of the one before, unless that
    // would move it up: then it stays.  Columns start on cache lines.
    int32_t used = 0;
    for (int32_t x : chain) {
      EXPECT_EQ(Begin_Of(rows, x), std::min(used + 1, old[size_t(x)])) << x;
      used =
          Begin_Of(rows, x) - 1 + reserve(Len(rows, x) + (rows ? iin->Mrex.V[x] : iin->Mcex.V[x]));
      if (!rows) used = (used + 7) / 8 * 8;
    }
    EXPECT_EQ(rows ? luf->RowFileUsed : luf->ColFileUsed, used);
    EXPECT_EQ(rows ? s.St.Compres_Rows : s.St.Compres_Cols, 1);
    EXPECT_EQ(Elements(), before);
    ASSERT_TRUE(Sound());
  }
  EXPECT_EQ(vlu::Row_Extra(s, empty), 1);
  EXPECT_GT(s.St.Moved_Elements, 0);
  // A second compaction finds nothing to move.
  const int64_t moved = s.St.Moved_Elements;
  vlu::Compres_Rows(s);
  vlu::Compres_Cols(s);
  EXPECT_EQ(s.St.Moved_Elements, moved);
  // The switch to semi-dense mode, which reads no tails, packs every one,
  // the tail of one element of column c too.
  ASSERT_EQ(iin->Mcex.V[c], 1);
  vlu::Switch_to_Semi_Dense(s, s.Piv_Indx);
  EXPECT_EQ(iin->Mcex.V[c] + iin->Mrex.V[r], 0);
  const int32_t q = vlu::Find_Element(s, r, c);
  EXPECT_TRUE(q >= luf->Cstr.V[c] && q < luf->Cstr.V[c] + luf->Clen.V[c]) << q;
  EXPECT_EQ(Elements().size(), before.size());
}

TEST_F(Storage, LongRowsAndColumns) {
  // Column 1 and row 1 are full, the rest is a band; with a space factor of
  // 1.5 row 1 has 15 free slots behind it and column 1 has 18.
  luc::Cols c(30);
  for (int j = 1; j <= 30; ++j) {
    c[size_t(j - 1)].emplace_back(j, 4.0);
    if (j > 1) c[size_t(j - 1)].emplace_back(1, 1.0), c[0].emplace_back(j, 1.0);
    if (j > 2) c[size_t(j - 1)].emplace_back(j - 1, 0.5);
  }
  ASSERT_NO_FATAL_FAILURE(Begin(luc::From_Columns(30, c, true), 1.5));
  ASSERT_EQ(luf->Rlen.V[1], 30);
  ASSERT_EQ(luf->Clen.V[1], 30);
  ASSERT_EQ(vlu::Row_Extra(s, 1), 15);
  ASSERT_EQ(vlu::Col_Extra(s, 1), 18);
  struct Case {
    int32_t len, lenPiv, markBest, lengthLim, mlow, extraCrit, tail;
    bool semi, longRow, longCol;
  };
  const Case cases[] = {
      {30, 3, 4, 8, 0, 2, 0, false, true, true},
      // 30 <= 1.2 * 25 (30.000002 in single precision): not clearly longer.
      {30, 25, 4, 8, 0, 2, 0, false, false, false},
      {30, 24, 4, 8, 0, 2, 0, false, true, true},
      // 24 <= 1.2 * 20, exactly 24 in single precision.
      {24, 20, 4, 8, 0, 2, 0, false, false, false},
      // Not above Length_Lim.
      {30, 24, 4, 30, 0, 2, 0, false, false, false},
      // A column whose bound may beat the pivot's count: 29 * 28 < 29 * 30.
      {30, 24, 30, 8, 29, 2, 0, false, true, false},
      {30, 24, 28, 8, 29, 2, 0, false, true, true},
      // No more room at hand than min(Len_Piv - 1, Extra_Crit).
      {30, 24, 4, 8, 0, 18, 0, false, false, false},
      {30, 24, 4, 8, 0, 17, 0, false, false, true},
      {30, 24, 4, 8, 0, 14, 0, false, true, true},
      // A tail makes it long, but not in semi-dense mode.
      {30, 24, 4, 8, 0, 18, 1, false, true, true},
      {30, 24, 4, 8, 0, 18, 1, true, false, false},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "len " << k.len << " Len_Piv " << k.lenPiv << " MarkBest " << k.markBest
                 << " Length_Lim " << k.lengthLim << " Mlow " << k.mlow << " Extra_Crit "
                 << k.extraCrit << " tail " << k.tail);
    luf->Rlen.V[1] = luf->Clen.V[1] = k.len;  // a shorter one has more room behind it
    s.Len_Piv_Row = s.Len_Piv_Col = k.lenPiv;
    s.MarkBest = k.markBest;
    s.Length_Lim = k.lengthLim;
    s.Extra_Crit = k.extraCrit;
    s.Semi_Dense = k.semi;
    iin->Mlow.V[1] = k.mlow;
    iin->Mrex.V[1] = iin->Mcex.V[1] = k.tail;
    EXPECT_EQ(vlu::Long_row(s, 1), k.longRow);
    EXPECT_EQ(vlu::Long_col(s, 1), k.longCol);
  }
}

TEST_F(Storage, MakeSpaceFindsRoomByEveryRoad) {
  for (bool rows : {true, false}) {
    SCOPED_TRACE(rows ? "rows" : "columns");
    // The last one grows the stores when its file is full up to ColASpace:
    // the compaction cannot help.
    ASSERT_NO_FATAL_FAILURE(Begin());
    Elems before = Elements();
    int32_t last = Last(rows), len = Len(rows, last);
    const int32_t sizeIr = vlu::Size(luf->Ir);
    luf->ColASpace = Begin_Of(rows, last) + len - 1;
    Make(rows, last, 5);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    EXPECT_EQ(rows ? s.St.Compres_Rows : s.St.Compres_Cols, 1);
    EXPECT_GE(vlu::Size(luf->Ir), 2 * sizeIr);
    EXPECT_EQ(luf->ColASpace,
              std::min({vlu::Size(luf->Ir), vlu::Size(iin->C2rp), vlu::Size(iin->R2cp)}));
    EXPECT_EQ(Len(rows, last), len + 5);
    EXPECT_EQ(rows ? luf->RowFileUsed : luf->ColFileUsed, Begin_Of(rows, last) - 1 + 2 * (len + 5));
    Lref(rows, last) = len;
    EXPECT_EQ(Elements(), before);
    ASSERT_TRUE(Sound());

    // One without room, not next to the last, goes to the top of its file.
    const int32_t x = Chain(rows)[2];
    const int32_t need = Extra(rows, x) + 3, used = rows ? luf->RowFileUsed : luf->ColFileUsed;
    len = Len(rows, x);
    Make(rows, x, need);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    EXPECT_EQ(Last(rows), x);
    EXPECT_EQ(Begin_Of(rows, x), rows ? used + 1 : (used + 7) / 8 * 8 + 1);
    EXPECT_EQ(rows ? luf->RowFileUsed : luf->ColFileUsed, Begin_Of(rows, x) - 1 + 2 * (len + need));
    Lref(rows, x) = len;
    EXPECT_EQ(Elements(), before);
    ASSERT_TRUE(Sound());

    // Next to the last: the last makes way when it is shorter ...
    last = Last(rows);
    int32_t y = rows ? iin->Rppr.V[last] : iin->Cppr.V[last];
    ASSERT_GE(Len(rows, y), 1);
    while (Len(rows, last) >= Len(rows, y)) ASSERT_NO_FATAL_FAILURE(Drop_First(rows, last));
    before = Elements();
    const int32_t at = Begin_Of(rows, y), lastAt = Begin_Of(rows, last);
    const int32_t more = Extra(rows, y) + 20;
    len = Len(rows, y);
    Make(rows, y, more);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    EXPECT_EQ(Begin_Of(rows, y), at);
    EXPECT_GT(Begin_Of(rows, last), lastAt);
    EXPECT_EQ(Last(rows), last);
    Lref(rows, y) = len;
    EXPECT_GE(Extra(rows, y), more);
    EXPECT_EQ(Elements(), before);
    ASSERT_TRUE(Sound());
    // ... and else the one next to it goes to the top.
    y = rows ? iin->Rppr.V[last] : iin->Cppr.V[last];
    while (Len(rows, y) > Len(rows, last)) ASSERT_NO_FATAL_FAILURE(Drop_First(rows, y));
    before = Elements();
    const int32_t one = Extra(rows, y) + 1;
    len = Len(rows, y);
    Make(rows, y, one);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    EXPECT_EQ(Last(rows), y);
    EXPECT_GT(Begin_Of(rows, y), Begin_Of(rows, last));
    Lref(rows, y) = len;
    EXPECT_EQ(Elements(), before);
    ASSERT_TRUE(Sound());
  }

  // A column whose room a tail filled, behind a column of five or more that
  // is then emptied, with no room at the end of the file: a compaction
  // brings it down by a cache line, which is the room it needs.
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::vector<int32_t> cols = Chain(false);
  int32_t pred = 0, c = 0;
  for (size_t k = 0; k + 2 < cols.size() && c == 0; ++k)
    if (luf->Clen.V[cols[k]] >= 5 && luf->Clen.V[cols[k + 1]] >= 1) pred = cols[k], c = cols[k + 1];
  ASSERT_NE(c, 0);
  std::vector<int32_t> used;
  while (vlu::Col_Extra(s, c) > 0) {
    const int32_t r = Free_Row(c, used);
    ASSERT_NE(r, 0);
    used.push_back(r);
    vlu::Store_ele_in_both(s, r, c, 0.5 + int(used.size()), false);
  }
  while (luf->Clen.V[pred] > 0) ASSERT_NO_FATAL_FAILURE(Drop_First(false, pred));
  const Elems before = Elements();
  luf->ColASpace = luf->ColFileUsed + 4;
  const int32_t len = luf->Clen.V[c], start = luf->Cstr.V[c];
  vlu::Make_Col_Space(s, c, 1);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(s.St.Compres_Cols, 1);
  EXPECT_EQ(luf->Cstr.V[c], start - 8);
  EXPECT_EQ(luf->Clen.V[c], len + 1);
  luf->Clen.V[c] = len;
  EXPECT_EQ(Chain(false), cols);  // no move was needed
  EXPECT_EQ(Elements(), before);
  EXPECT_TRUE(Sound());
}

TEST_F(Storage, FailedGrowthRaisesTheStopFlagAndReservesNothing) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const int32_t lc = iin->CPlast, len = luf->Clen.V[lc];
  luf->ColASpace = luf->Cstr.V[lc] + len - 1;
  env->MaxHeap_Bytes = env->Mem_Current + 64;
  vlu::Make_Col_Space(s, lc, 5);
  EXPECT_TRUE(vlu::Stopped(s));
  EXPECT_FALSE(env->EnoughSpace);
  EXPECT_EQ(luf->Clen.V[lc], len);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Failure when attempting to increase Ir, C2rp, and R2cp")) << msgs.All();
}

// ---------------------------------------------------------------------------
// The dense work block and the space of a pivot.

TEST_F(Storage, ShapesOfTheWorkBlock) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  auto sized = [&](int32_t size) {
    vlu::Deallocate_RVec(env, iin->Mmat);
    vlu::Allocate_RVec(env, iin->Mmat, size);
  };
  // sqrt + 0.5 cut in single precision; from 25 on a multiple of 8.
  const int32_t shapes[][3] = {
      {24, 5, 4}, {60, 8, 7}, {700, 24, 29}, {1000, 32, 31}, {1056, 32, 33}};
  for (const auto &c : shapes) {
    sized(c[0]);
    vlu::Define_Mmat_Rows(s);
    EXPECT_EQ(s.Mmat_Rows, c[1]) << c[0];
    EXPECT_EQ(s.Mmat_Cols, c[2]) << c[0];
  }
  sized(1247);
  vlu::Define_Mmat_Rows(s);
  ASSERT_EQ(s.Mmat_Rows, 32);
  ASSERT_EQ(s.Mmat_Cols, 38);
  // Len_Piv_Col, Len_Piv_Row, Rowlft -> Mr, Mc.
  const int32_t steps[][5] = {
      {10, 12, 60, 32, 38},  // fits twice into the standing shape: kept
      {26, 40, 60, 29,
       43},  // (26 + e)(40 + e) = 1247, e = 3: 29 -> 32 leaves 38 < 40, 24 too few: 29
      {30, 10, 60, 48, 25},  // e = sqrt(1247 + 100) - 20 = 16.7: 46 -> 48
      {30, 10, 35, 32, 38},  // capped by the rows left, then rounded to 8
  };
  for (const auto &c : steps) {
    s.Len_Piv_Col = c[0];
    s.Len_Piv_Row = c[1];
    s.Rowlft = c[2];
    int32_t mr = 0, mc = 0;
    vlu::Assign_Mmat(s, mr, mc);
    EXPECT_EQ(mr, c[3]) << c[0] << " x " << c[1];
    EXPECT_EQ(mc, c[4]) << c[0] << " x " << c[1];
  }
  EXPECT_GE(iin->Max_Mmat, 48);
  EXPECT_EQ(env->Exception, 0) << msgs.All();
}

TEST_F(Storage, SpaceForASparsePivotCompactsAndGrowsTheStores) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  // The U-file before: rows of the triangular phases, by element.
  auto uFile = [&]() {
    std::vector<std::tuple<int32_t, int32_t, double>> u;
    for (int32_t k = 1; k <= s.NumVTria; ++k) {
      const int32_t i = vim->Rnto.V[k];
      for (int32_t p = luf->Rstr.V[i]; p < luf->Rstr.V[i] + luf->Rlen.V[i]; ++p)
        u.emplace_back(i, luf->Ic.V[p], vim->AUrmat.Val[p]);
    }
    return u;
  };
  const auto u0 = uFile();
  const Elems before = Elements();
  // A pivot of 20 x 20 with a count that predicts more fill than the files
  // hold: both files are compacted, then the stores grow.
  s.Len_Piv_Row = s.Len_Piv_Col = 20;
  s.MarkBest = 20000;
  const int32_t lUsed = luf->LFileUsed, lSize = vlu::Size(luf->Lmat);
  luf->LFileUsed = lSize - 10;  // so that this pivot's L column needs more
  const int32_t uSpace = luf->RowUSpace, aSpace = luf->ColASpace, first = luf->U_elefirst;
  vlu::LU_Space(s);
  luf->LFileUsed = lUsed;
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_FALSE(s.Dense_Now);
  EXPECT_EQ(s.St.Compres_Rows, 1);
  EXPECT_EQ(s.St.Compres_Cols, 1);
  EXPECT_GE(vlu::Size(luf->Lmat), 2 * lSize);
  EXPECT_GT(luf->ColASpace, aSpace);
  EXPECT_GT(luf->RowUSpace, uSpace);
  EXPECT_EQ(luf->U_elefirst - first, luf->RowUSpace - uSpace);  // the U-file moved up
  EXPECT_EQ(uFile(), u0);
  // Both files have the predicted fill at their ends now.
  const double fill = 2.0 * 20000 * 5 + s.Rowlft;
  const double top = std::min<double>(luf->U_elefirst - 20 * 5, luf->ColASpace - 1);
  EXPECT_GT(top, luf->RowFileUsed + fill);
  EXPECT_GT(top, luf->ColFileUsed + fill);
  // The work block: min(20 + 5 + 7, Rowlft) squared, and its shape.
  const int32_t side = std::min(32, s.Rowlft);
  EXPECT_GE(vlu::Size(iin->Mmat), side * side);
  EXPECT_GE(vlu::Size(luf->Ucmat), vlu::Size(iin->Mmat));
  EXPECT_EQ(s.Mmat_Cols, vlu::Size(iin->Mmat) / s.Mmat_Rows);
  EXPECT_GE(iin->Max_Mmat, std::min(26, s.Rowlft));
  EXPECT_GE(iin->BlockSize, std::min(iin->Max_Mmat, s.NumRow));
  EXPECT_EQ(Elements(), before);
  EXPECT_TRUE(Sound());

  // A file that the compaction leaves more than 0.6 full of its top grows,
  // though the predicted fill fits.
  s.MarkBest = 1;
  s.Len_Piv_Row = s.Len_Piv_Col = 3;
  const int32_t used = std::max(luf->RowFileUsed, luf->ColFileUsed);
  luf->ColASpace = used + 2 * 1 * 5 + s.Rowlft;  // the top reaches just the predicted fill
  const int32_t tight = luf->ColASpace;
  ASSERT_GT(static_cast<float>(used), 0.6f * static_cast<float>(tight - 1));
  vlu::LU_Space(s);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_GT(luf->ColASpace, tight);
  EXPECT_TRUE(Sound());
}

// ---------------------------------------------------------------------------
// Compression of tails.

TEST_F(Storage, RowTailCompressionAddsDuplicatesAndDropsSmallSums) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const int32_t r = Row_With(5);
  const int32_t cNew = Free_Col(r, {}, 3), cSmall = Free_Col(r, {cNew});
  ASSERT_TRUE(r && cNew && cSmall);
  const int32_t cOld = luf->Ic.V[luf->Rstr.V[r]];  // counted already
  const double old = vim->AUrmat.Val[vlu::Find_Element(s, r, cOld)];
  const int32_t rZ = Free_Row(cNew, {r});
  ASSERT_NE(rZ, 0);
  ASSERT_NO_FATAL_FAILURE(Store(rZ, cNew, 0.75, false));  // cNew's tail does not start with row r
  const int32_t lenNew = luf->Clen.V[cNew], lenOld = luf->Clen.V[cOld], len = luf->Rlen.V[r];
  ASSERT_NO_FATAL_FAILURE(Store(r, cNew, 1.25, false));
  ASSERT_NO_FATAL_FAILURE(Store(r, cOld, 0.5, false));
  ASSERT_NO_FATAL_FAILURE(Store(r, cSmall, 1e-3, false));
  ASSERT_NO_FATAL_FAILURE(Store(r, cSmall, -1e-3, false));  // cancels: the sum is small
  ASSERT_NO_FATAL_FAILURE(Store(r, cNew, 2.0, false));      // a second fill of a new place
  const Elems before = Elements();
  const int32_t fill = iin->RowFill;
  vlu::Compres_Uncompressed_Row(s, r);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(iin->Mrex.V[r], 0);
  EXPECT_EQ(luf->Rlen.V[r], len + 1);
  EXPECT_EQ(luf->Clen.V[cNew], lenNew + 1);
  EXPECT_EQ(luf->Clen.V[cOld], lenOld);
  EXPECT_EQ(iin->Mcex.V[cNew], 1);  // the element of row rZ
  EXPECT_EQ(iin->Mcex.V[cOld] + iin->Mcex.V[cSmall], 0);
  EXPECT_EQ(iin->RowFill, fill - 3);  // three duplicates
  Elems want = Minus(Minus(Minus(before, r, cNew), r, cOld), r, cSmall);
  EXPECT_EQ(Elements(),
            Plus(want, {Elem(r, cNew, 1.25 + 2.0, true), Elem(r, cOld, old + 0.5, true)}));
  for (int32_t k = 1; k <= s.NumRow; ++k) ASSERT_EQ(iin->Indx.V[k], 0) << k;
  // The lists follow the lengths.
  EXPECT_EQ(iin->Stcr.V[luf->Rlen.V[r]], r);
  EXPECT_EQ(iin->Stcc.V[luf->Clen.V[cNew]], cNew);
  EXPECT_FALSE(s.Need_Compression);
  Fresh_Clmx();
  EXPECT_TRUE(Sound());
}

TEST_F(Storage, ColumnTailCompressionLeavesARowOfOneWithATailAlone) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  // Column c gets a tail of two: a new row, and a second fill of a counted
  // element that cancels it.  The row of that one keeps a tail elsewhere and
  // only this counted element: the small sum is left in place.
  int32_t c = 0;
  for (int32_t j : Chain(false))
    if (j != iin->CPlast && luf->Clen.V[j] >= 3 && vlu::Col_Extra(s, j) >= 2) c = j;
  ASSERT_NE(c, 0);
  const int32_t rOld = luf->Ir.V[luf->Cstr.V[c]];
  const int32_t rNew = Free_Row(c, {rOld}, 2);
  ASSERT_NE(rNew, 0);
  ASSERT_GE(vlu::Row_Extra(s, rOld), 2);
  const int32_t cX = Free_Col(rOld, {c}), cY = Free_Col(rNew, {c});
  ASSERT_TRUE(cX && cY);
  const double old = vim->AUrmat.Val[luf->Cstr.V[c]];
  ASSERT_NO_FATAL_FAILURE(
      Store(rNew, cY, -1.0, false));  // rNew's tail does not start with column c
  ASSERT_NO_FATAL_FAILURE(Store(rNew, c, 3.0, false));
  ASSERT_NO_FATAL_FAILURE(Store(rOld, c, -old, false));
  ASSERT_NO_FATAL_FAILURE(Store(rOld, cX, 1.0, false));
  while (luf->Rlen.V[rOld] > 1) {
    const int32_t p = luf->Rstr.V[rOld];
    ASSERT_NO_FATAL_FAILURE(Drop(rOld, luf->Ic.V[p] == c ? luf->Ic.V[p + 1] : luf->Ic.V[p]));
  }
  const Elems before = Elements();
  const int32_t len = luf->Clen.V[c], lenNew = luf->Rlen.V[rNew], fill = iin->RowFill;
  vlu::Compres_Uncompressed_Col(s, c);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(iin->Mcex.V[c], 0);
  EXPECT_FALSE(vlu::IsTrue(iin->Clok.V[c]));
  EXPECT_EQ(luf->Clen.V[c], len + 1);
  EXPECT_EQ(luf->Rlen.V[rNew], lenNew + 1);
  EXPECT_EQ(luf->Rlen.V[rOld], 1);
  EXPECT_EQ(iin->Mrex.V[rOld], 1);
  EXPECT_TRUE(s.Need_Compression);
  EXPECT_EQ(iin->RowFill, fill - 1);
  Elems want = Minus(Minus(before, rNew, c), rOld, c);
  EXPECT_EQ(Elements(), Plus(want, {Elem(rNew, c, 3.0, true), Elem(rOld, c, 0.0, true)}));
  for (int32_t k = 1; k <= s.NumRow; ++k) ASSERT_EQ(iin->Indx.V[k], 0) << k;
  EXPECT_EQ(iin->Stcr.V[luf->Rlen.V[rNew]], rNew);
  EXPECT_EQ(iin->Stcc.V[luf->Clen.V[c]], c);
  Fresh_Clmx();
  EXPECT_TRUE(Sound());

  // The extra compression that the flag asks for leaves no tail in a list
  // below Length_Lim, and restarts the search.
  s.Length_Lim = s.NumRow + 1;
  const Elems now = Elements();
  vlu::Do_Extra_Compression(s, 1);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_FALSE(s.Need_Compression);
  EXPECT_TRUE(s.Do_Restart);
  for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k)
    EXPECT_EQ(iin->Mrex.V[vim->Rnto.V[k]] + iin->Mcex.V[vim->Cnto.V[k]], 0) << k;
  EXPECT_EQ(Values(Elements()), Values(now));
  Fresh_Clmx();
  EXPECT_TRUE(Sound());
}

}  // namespace
