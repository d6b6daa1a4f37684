// The short pivots (a row or a column of two) on small bumps that
// ExtractBasis loaded.  The active matrix afterwards must be exactly the
// plain elimination step (x - l u, results at or below Clmin of their column
// dropped, small fill not stored), the battery must pass (structures, lists,
// L times U against the basis), and the lists and column maxima must hold
// what the step alone knows: the bound of the other column, a changed
// maximum, the count lists in semi-dense mode.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "runtime/primitives.h"
#include "runtime/records.h"
#include "support/bump_support.h"

namespace {

using Matrix = std::map<std::pair<int32_t, int32_t>, double>;  // (row, column) -> value

// Pivot (1, 1): column 1 has rows 1 and 2, row 1 has columns 1 to 4.  Row 2
// loses its element in column 2 (0.5 - 0.5 * 1 = 0) and gets fill in columns
// 3 and 4; column 3 loses its largest element to U.
luc::Problem Two_By_P() {
  return luc::From_Columns(5,
                           {{{1, 4.0}, {2, 2.0}},
                            {{1, 1.0}, {2, 0.5}, {3, 3.0}},
                            {{1, -2.0}, {4, 1.0}, {5, 2.0}},
                            {{1, 0.5}, {3, 1.0}, {4, 2.0}},
                            {{2, 1.0}, {5, 3.0}, {3, 1.0}}},
                           true);
}

// Pivot (1, 1): row 1 has columns 1 and 2, column 1 has rows 1 to 4.  In
// column 2 row 2 cancels (0.5 + (-2) 0.25 = 0), row 4 keeps its element
// (1 - 0.25 = 0.75), row 3 is filled; row 5, outside the pivot column, is the
// shortest row of column 2 afterwards.
luc::Problem P_By_Two() {
  return luc::From_Columns(5,
                           {{{1, 4.0}, {2, 1.0}, {3, -2.0}, {4, 0.5}},
                            {{1, 2.0}, {2, 0.5}, {4, 1.0}, {5, 1.0}},
                            {{2, 1.0}, {3, 1.0}, {5, 1.0}},
                            {{3, 1.0}, {4, 1.0}},
                            {{2, 2.0}, {4, 1.0}}},
                           true);
}

// Row 1 = columns 1, 2 and column 1 = rows 1, 2, pivot (1, 1).  With (2, 2)
// present the update cancels it; without it the step fills (2, 2).  Swapped:
// rows 1, 2 and columns 1, 2 exchanged, so that the pivot (2, 2) stands
// second in its row and in its column.
luc::Problem Two_By_Two(bool meet, bool swapped) {
  luc::Cols cols = {{{1, 4.0}, {2, 2.0}},
                    {{1, 2.0}, {3, 1.0}},
                    {{2, 1.0}, {3, 2.0}, {4, 1.0}},
                    {{3, 1.0}, {4, 3.0}}};
  if (meet) cols[1].push_back({2, 1.0});
  if (swapped) {
    std::swap(cols[0], cols[1]);
    for (auto &col : cols) {
      for (auto &e : col)
        if (e.first <= 2) e.first = 3 - e.first;
      std::sort(col.begin(), col.end(),
                [](const auto &x, const auto &y) { return x.first < y.first; });
    }
  }
  return luc::From_Columns(4, cols, true);
}

// As P_By_Two, but with a NaN in row 3 of the pivot column, and without
// row 2 in column 2: rows 2 and 3 get fill in column 2, a NaN in row 3.
luc::Problem P_By_Two_NaN() {
  return luc::From_Columns(5,
                           {{{1, 4.0}, {2, 1.0}, {3, NAN}, {4, 0.5}},
                            {{1, 2.0}, {4, 1.0}, {5, 1.0}},
                            {{2, 1.0}, {3, 1.0}, {5, 1.0}},
                            {{3, 1.0}, {4, 1.0}},
                            {{2, 2.0}, {4, 1.0}}},
                           true);
}

// The problem with the value at (row, column) replaced.
luc::Problem With_Value(luc::Problem p, int32_t row, int32_t col, double v) {
  for (int32_t q = p.colStart[size_t(col - 1)]; q < p.colStart[size_t(col)]; ++q)
    if (p.rowIdx[size_t(q - 1)] == row) p.val[size_t(q - 1)] = v;
  return p;
}

struct ShortPivots : bmp::BumpTest {
  Matrix Active() const {
    Matrix m;
    for (const bmp::Elem &e : Elements()) m[{std::get<0>(e), std::get<1>(e)}] += std::get<2>(e);
    return m;
  }
  // The plain elimination step of the pivot (pr, pc) on the matrix before
  // it, with the Clmin of its columns.
  Matrix Expected(const Matrix &a, const std::vector<double> &clmin, int32_t pr, int32_t pc) const {
    const double piv = a.at({pr, pc});
    Matrix e;
    for (const auto &x : a)
      if (x.first.first != pr && x.first.second != pc) e.insert(x);
    for (const auto &lx : a) {
      if (lx.first.second != pc || lx.first.first == pr) continue;
      double l = lx.second / piv;
      if (std::fabs(l) <= s.Tol_Small) l = 0.0;
      for (const auto &ux : a) {
        if (ux.first.first != pr || ux.first.second == pc) continue;
        const std::pair<int32_t, int32_t> at = {lx.first.first, ux.first.second};
        auto it = e.find(at);
        const double v = it != e.end() ? it->second - l * ux.second : -(l * ux.second);
        if (std::fabs(v) > clmin[size_t(at.second)])
          e[at] = v;
        else if (it != e.end())
          e.erase(it);
      }
    }
    return e;
  }
  // The step through Factor_Bump's pass; the result against the plain step,
  // every column maximum that claims to be exact, and the battery.
  void Check_Step(int32_t pr, int32_t pc, void (*step)(vlu::Bump_State &)) {
    const Matrix before = Active();
    std::vector<double> clmin(size_t(s.NumRow) + 1);
    for (int32_t j = 1; j <= s.NumRow; ++j) clmin[size_t(j)] = iin->Clmin.Val[j];
    ASSERT_NO_FATAL_FAILURE(Step(pr, pc, step));
    EXPECT_EQ(Active(), Expected(before, clmin, pr, pc));
    for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
      const int32_t j = vim->Cnto.V[k];
      double big = 0.0;
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        big = std::max(big, std::fabs(vim->AUrmat.Val[q]));
      if (vlu::IsTrue(iin->Clok.V[j])) {
        EXPECT_EQ(iin->Clmx.Val[j], big) << "column " << j;
      }
    }
    EXPECT_EQ(Battery(lu), 0) << msgs.All();
  }
  bool lu = true;  // the battery compares L times U with the basis
};

TEST_F(ShortPivots, EachShapeIsThePlainStepAndLeavesItsListsRight) {
  struct Case {
    const char *what;
    luc::Problem p;
    int32_t piv;
    void (*step)(vlu::Bump_State &);
    std::function<void(ShortPivots &)> before, after;
  };
  const Case cases[] = {
      {"2 by P", Two_By_P(), 1, vlu::PIV_2_BY_P, nullptr,
       [](ShortPivots &t) {
         EXPECT_EQ(t.s.St.CC2, 1);
         EXPECT_EQ(t.luf->Rlen.V[2], 3);
         EXPECT_EQ(t.iin->RowFill, 2);
         EXPECT_FALSE(vlu::IsTrue(t.iin->Clok.V[3]));  // its maximum went to U
         EXPECT_TRUE(vlu::IsTrue(t.iin->Clok.V[2]));   // 3.0 stays; the changes were small
       }},
      // Column 4 waits in the M-list of 8 (length 3); after the step it
      // holds row 2 of length 3, so its bound is (3 - 1)(3 - 1) = 4.
      {"2 by P, a column of the pivot row in an M-list", Two_By_P(), 1, vlu::PIV_2_BY_P,
       [](ShortPivots &t) {
         vlu::Remove_col_from_list(t.s, 4);
         vlu::Store_col_in_M_list(t.s, 4, 8);
         t.iin->Mlow.V[4] = 8;
       },
       [](ShortPivots &t) {
         EXPECT_EQ(t.iin->Mact.V[4], 4);
         EXPECT_EQ(t.iin->Mlow.V[4], 4);
       }},
      // Column 2 keeps rows 4, 5 and gets 3; row 5 has 2 elements: its
      // bound (2 - 1)(3 - 1) puts it in M-list 2.
      {"P by 2", P_By_Two(), 1, vlu::PIV_P_BY_2, nullptr,
       [](ShortPivots &t) {
         EXPECT_EQ(t.s.St.RC2, 1);
         EXPECT_EQ(t.luf->Clen.V[2], 3);
         EXPECT_EQ(t.iin->Mact.V[2], 2);
         EXPECT_EQ(t.iin->Mlow.V[2], 2);
         EXPECT_FALSE(vlu::IsTrue(t.iin->Clok.V[2]));  // its largest, 2.0, went to U
         EXPECT_EQ(t.iin->RowFill, 1);
       }},
      {"P by 2, semi-dense", P_By_Two(), 1, vlu::PIV_P_BY_2,
       [](ShortPivots &t) { vlu::Switch_to_Semi_Dense(t.s, 1); },
       [](ShortPivots &t) {
         EXPECT_EQ(t.iin->Mact.V[2] + t.iin->Mlow.V[2], 0);
         EXPECT_EQ(t.iin->Stcc.V[3], 2);
       }},
      // A NaN in the pivot row or column where the other row or column
      // lacks the place: the fill it makes is not stored, and no slot stays
      // reserved for it.
      {"2 by P, a NaN in the pivot row", With_Value(Two_By_P(), 1, 3, NAN), 1, vlu::PIV_2_BY_P,
       nullptr, [](ShortPivots &t) { EXPECT_EQ(t.iin->RowFill, 1); }},
      {"P by 2, a NaN in the pivot column", P_By_Two_NaN(), 1, vlu::PIV_P_BY_2, nullptr,
       [](ShortPivots &t) { EXPECT_EQ(t.iin->RowFill, 1); }},
      // Clmin above Clmx, as after a column's large elements have left: a
      // result that grows past Clmx but leaves as small is no new maximum.
      // (L times U misses what the raised Clmin drops.)
      {"2 by P, Clmin above Clmx", With_Value(With_Value(Two_By_P(), 1, 2, -1.0), 2, 2, 5.0), 1,
       vlu::PIV_2_BY_P, [](ShortPivots &t) { t.iin->Clmin.Val[2] = 6.0, t.lu = false; },
       [](ShortPivots &t) { EXPECT_FALSE(vlu::IsTrue(t.iin->Clok.V[2])); }},
      {"P by 2, Clmin above Clmx", With_Value(With_Value(P_By_Two(), 2, 1, -1.0), 2, 2, 2.0), 1,
       vlu::PIV_P_BY_2, [](ShortPivots &t) { t.iin->Clmin.Val[2] = 3.0, t.lu = false; },
       [](ShortPivots &t) { EXPECT_FALSE(vlu::IsTrue(t.iin->Clok.V[2])); }},
      {"2 by 2, cancelling where row and column meet", Two_By_Two(true, false), 1, vlu::PIV_2_BY_2,
       nullptr,
       [](ShortPivots &t) {
         EXPECT_EQ(t.s.St.RC2CC2, 1);
         EXPECT_EQ(t.luf->Rlen.V[2], 1);  // now a row singleton
         EXPECT_EQ(t.iin->Stcr.V[1], 2);
         EXPECT_EQ(t.iin->RowFill, 0);
       }},
      {"2 by 2, fill", Two_By_Two(false, false), 1, vlu::PIV_2_BY_2, nullptr,
       [](ShortPivots &t) { EXPECT_EQ(t.iin->RowFill, 1); }},
      {"2 by 2, fill, the pivot second in its row and column", Two_By_Two(false, true), 2,
       vlu::PIV_2_BY_2,
       [](ShortPivots &t) {
         ASSERT_NE(t.luf->Ic.V[t.luf->Rstr.V[2]], 2);
         ASSERT_NE(t.luf->Ir.V[t.luf->Cstr.V[2]], 2);
       },
       [](ShortPivots &t) {
         EXPECT_EQ(t.iin->RowFill, 1);
         EXPECT_EQ(t.s.St.Short_Steps, 1);
       }},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.what);
    ASSERT_NO_FATAL_FAILURE(Start(k.p));
    ASSERT_EQ(s.NumVTria, 0);
    lu = true;
    if (k.before) k.before(*this);
    ASSERT_NO_FATAL_FAILURE(Check_Step(k.piv, k.piv, k.step));
    k.after(*this);
  }
}

}  // namespace
