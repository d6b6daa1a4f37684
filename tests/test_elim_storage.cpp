// Storage of the active matrix on bumps that ExtractBasis loaded: the
// placement rules of the compactions, failed growth, and the compression of
// tails (duplicates added, small sums dropped, the fill count).  The roads
// by which room is found are driven hard by the factorizations from the
// smallest stores, whose factors must be the recorded ones.  After every
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
  int32_t Begin_Of(bool rows, int32_t x) const { return rows ? luf->Rstr.V[x] : luf->Cstr.V[x]; }
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

}  // namespace
