// The short pivots (a row or a column of two) on small bumps that
// ExtractBasis loaded: the active matrix afterwards must be exactly the
// plain elimination step (x - l u, small results dropped), and every
// structure of the files must hold: cross pointers, lengths, chains, lists,
// column maxima, clean work vectors, the U row and the L column.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"

namespace {

using Matrix = std::map<std::pair<int32_t, int32_t>, double>;  // (row, column) -> value

struct ShortBump : luc::EnvTest {
  vlu::Bump_State s;
  bool borrowed = false;
  int32_t n = 0;
  std::set<int32_t> rows, cols;  // active before the step

  // The bump as Factor_Bump has it before its first pivot: column bounds,
  // every column and row in the C-list of its length.
  void Start(const luc::Problem &p) {
    Load(p);
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    vlu::ExtractBasis(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    vlu::VIM *vim = env->Vim;
    vlu::LUF *luf = env->Luf;
    vlu::IIN *iin = env->Iin;
    n = vim->NumRow;
    ASSERT_EQ(luf->NumVTria, 0);
    iin->Nele = 0;
    for (int32_t k = 1; k <= n; ++k) iin->Nele += luf->Rlen.V[vim->Rnto.V[k]];
    vlu::Reuse_RVec(env, vim->WorkZ, iin->Clmin);
    vlu::Reuse_Int(env, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
    borrowed = true;
    for (vlu::IntVec *v :
         {&iin->Indr, &iin->Indc, &iin->Mrow, &iin->Mact, &iin->Mlow, &iin->Mrex, &iin->Mcex,
          &iin->Stcc, &iin->Stcr, &iin->Nxtc, &iin->Prvc, &iin->Nxtr, &iin->Prvr})
      vlu::Zero_Int(v->V, n);
    vlu::Zero_Int(iin->Stmc.V, vlu::Size(iin->Stmc));
    iin->RowFill = 0;

    s = vlu::Bump_State();
    s.vmi = env;
    s.vim = vim;
    s.luf = luf;
    s.iin = iin;
    s.NumRow = n;
    s.Bump_Size = n;
    s.Piv_Indx = 1;
    s.Rowlft = n;
    s.Tol_Small = std::max(env->Tol_Zero, env->Eps);
    s.Clok_Frac = 1.0 - env->Eps08;
    s.L_Base = luf->LFileUsed;
    s.U_Count0 = luf->RowUSpace - luf->U_elefirst;
    s.Min_M_InList = iin->MarkBad;
    s.MIN_CC_List = vlu::Size(iin->Stcc);
    s.MIN_RC_List = vlu::Size(iin->Stcr);
    s.MarkHigh = n * n;
    for (int32_t j = 1; j <= n; ++j) {
      double big = 0.0;
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        big = std::max(big, std::fabs(vim->AUrmat.Val[q]));
      iin->Clmx.Val[j] = big;
      iin->Clmin.Val[j] = std::max(1e-20, env->Eps * big);
      iin->Clok.V[j] = vlu::LTrue;
    }
    for (int32_t k = 1; k <= n; ++k)
      vlu::Store_col_in_c_list(s, vim->Cnto.V[k], luf->Clen.V[vim->Cnto.V[k]]);
    for (int32_t k = 1; k <= n; ++k)
      vlu::Store_Row_in_C_List(s, vim->Rnto.V[k], luf->Rlen.V[vim->Rnto.V[k]]);
    rows.clear();
    cols.clear();
    for (int32_t i = 1; i <= n; ++i) rows.insert(i), cols.insert(i);
    vlu::Msg_Flush(env);
  }

  // The list routines are still placeholders in this build.
  bool Stubbed() const { return msgs.Has("is not available in this build"); }

  // The active matrix from the column file (compressed parts and tails).
  Matrix Active() const {
    const vlu::LUF *luf = env->Luf;
    Matrix m;
    for (int32_t j : cols)
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j] + env->Iin->Mcex.V[j];
           ++q)
        if (luf->Ir.V[q] != 0) m[{luf->Ir.V[q], j}] += env->Vim->AUrmat.Val[q];
    return m;
  }

  struct Before {
    Matrix a;
    std::vector<double> clmin;
    int32_t lCols = 0;
  };

  // Factor_Bump's part of the step: the pivot's shape, the column out of its
  // list (the search), the row out of its list.
  Before Choose(int32_t prow, int32_t pcol) {
    const vlu::LUF *luf = env->Luf;
    s.Piv_Row = prow;
    s.Piv_Col = pcol;
    s.Len_Piv_Row = luf->Rlen.V[prow];
    s.Len_Piv_Col = luf->Clen.V[pcol];
    s.MarkBest = (s.Len_Piv_Row - 1) * (s.Len_Piv_Col - 1);
    vlu::Remove_col_from_list(s, pcol);
    vlu::Remove_Row_from_List(s, prow);
    Before b;
    b.a = Active();
    b.clmin.assign(size_t(n) + 1, 0.0);
    for (int32_t j = 1; j <= n; ++j) b.clmin[size_t(j)] = env->Iin->Clmin.Val[j];
    b.lCols = luf->L_Cols;
    return b;
  }

  // Runs the step; false when the build still has placeholders for the
  // routines it calls.
  template <typename F>
  bool Run(F step) {
    step(s);
    vlu::Msg_Flush(env);
    return !msgs.Has("is not available in this build");
  }

  // The plain elimination step of the pivot on the matrix before it.
  Matrix Expected(const Before &b) const {
    const int32_t pr = s.Piv_Row, pc = s.Piv_Col;
    const double piv = b.a.at({pr, pc});
    Matrix e;
    for (const auto &x : b.a)
      if (x.first.first != pr && x.first.second != pc) e.insert(x);
    for (const auto &lx : b.a) {
      if (lx.first.second != pc || lx.first.first == pr) continue;
      const int32_t i = lx.first.first;
      double l = lx.second / piv;
      if (std::fabs(l) <= s.Tol_Small) l = 0.0;
      for (const auto &ux : b.a) {
        if (ux.first.first != pr || ux.first.second == pc) continue;
        const int32_t j = ux.first.second;
        auto it = e.find({i, j});
        const double v = it != e.end() ? it->second - l * ux.second : -(l * ux.second);
        if (std::fabs(v) <= b.clmin[size_t(j)]) {
          if (it != e.end()) e.erase(it);
        } else {
          e[{i, j}] = v;
        }
      }
    }
    return e;
  }

  // Everything that must hold after the step.
  void Check_After(const Before &b) {
    const vlu::VIM *vim = env->Vim;
    const vlu::LUF *luf = env->Luf;
    const vlu::IIN *iin = env->Iin;
    const int32_t pr = s.Piv_Row, pc = s.Piv_Col;
    rows.erase(pr);
    cols.erase(pc);
    ASSERT_EQ(env->Exception, 0) << msgs.All();

    // The numbers: exactly the plain step.
    EXPECT_EQ(Active(), Expected(b));

    // The U row: pivot first, the pivot row's values.
    const int32_t us = luf->Rstr.V[pr];
    EXPECT_EQ(us, luf->U_elefirst);
    ASSERT_EQ(luf->Rlen.V[pr], s.Len_Piv_Row);
    EXPECT_EQ(luf->Ic.V[us], pc);
    Matrix urow, want;
    for (int32_t p = us; p < us + luf->Rlen.V[pr]; ++p)
      urow[{pr, luf->Ic.V[p]}] = vim->AUrmat.Val[p];
    for (const auto &x : b.a)
      if (x.first.first == pr) want.insert(x);
    EXPECT_EQ(urow, want);

    // The L column: the other rows of the pivot column, divided by the pivot.
    ASSERT_EQ(luf->L_Cols, b.lCols + 1);
    Matrix lcol, lwant;
    for (int32_t e = luf->Lsor.V[luf->L_Cols]; e < luf->Lsor.V[luf->L_Cols + 1]; ++e) {
      EXPECT_EQ(luf->Lpiv.V[e], pr);
      lcol[{luf->Lrow.V[e], pc}] = luf->Lmat.Val[e];
    }
    EXPECT_EQ(luf->Lsor.V[luf->L_Cols + 1], luf->LFileUsed + 1);
    for (const auto &x : b.a)
      if (x.first.second == pc && x.first.first != pr) lwant[x.first] = x.second / b.a.at({pr, pc});
    EXPECT_EQ(lcol, lwant);

    // Cross pointers from the rows, compressed in the row exactly when in the
    // column; lengths balance.
    int64_t inRows = 0, inCols = 0;
    for (int32_t i : rows) {
      const int32_t rs = luf->Rstr.V[i], rl = luf->Rlen.V[i];
      for (int32_t p = rs; p < rs + rl + iin->Mrex.V[i]; ++p) {
        const int32_t j = luf->Ic.V[p];
        if (j == 0) continue;
        const int32_t q = iin->R2cp.V[p];
        ASSERT_TRUE(cols.count(j)) << "row " << i << " holds column " << j;
        EXPECT_EQ(luf->Ir.V[q], i);
        EXPECT_EQ(iin->C2rp.V[q], p);
        EXPECT_EQ(p < rs + rl, q < luf->Cstr.V[j] + luf->Clen.V[j]) << "row " << i << " col " << j;
        ++inRows;
      }
      EXPECT_GE(vlu::Row_Extra(s, i), 0) << i;
    }
    for (int32_t j : cols) {
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j] + iin->Mcex.V[j]; ++q)
        if (luf->Ir.V[q] != 0) ++inCols;
      EXPECT_GE(vlu::Col_Extra(s, j), 0) << j;
      EXPECT_EQ((luf->Cstr.V[j] - 1) % 8, 0) << j;
    }
    EXPECT_EQ(inRows, inCols);

    // Physical chains: exactly the active rows and columns.
    std::set<int32_t> seen;
    for (int32_t i = iin->RPfrst; i != 0; i = iin->Rpnx.V[i]) EXPECT_TRUE(seen.insert(i).second);
    EXPECT_EQ(seen, rows);
    seen.clear();
    for (int32_t j = iin->CPfrst; j != 0; j = iin->Cpnx.V[j]) EXPECT_TRUE(seen.insert(j).second);
    EXPECT_EQ(seen, cols);

    // Lists: every active column and row in exactly the list its counts say.
    seen.clear();
    int32_t inM = 0;
    auto walkCols = [&](int32_t head, int32_t key, bool mlist) {
      for (int32_t j = head, prev = -key; j != 0; prev = j, j = iin->Nxtc.V[j]) {
        EXPECT_TRUE(seen.insert(j).second) << "column " << j << " twice";
        EXPECT_EQ(iin->Prvc.V[j], prev) << j;
        if (mlist) {
          ++inM;
          EXPECT_EQ(iin->Mact.V[j], key) << j;
          EXPECT_GT(luf->Clen.V[j], 1) << j;
          EXPECT_LE(iin->Mlow.V[j], iin->Mact.V[j]) << j;
        } else {
          EXPECT_EQ(luf->Clen.V[j], key) << j;
          EXPECT_EQ(iin->Mact.V[j], 0) << j;
        }
      }
    };
    walkCols(s.Ptr_Zero_Cols, 0, false);
    for (int32_t c = 1; c <= n; ++c) walkCols(iin->Stcc.V[c], c, false);
    for (int32_t m = 1; m <= vlu::Size(iin->Stmc); ++m) walkCols(iin->Stmc.V[m], m, true);
    EXPECT_EQ(seen, cols);
    EXPECT_EQ(inM, s.Count_Mark_Col);
    seen.clear();
    auto walkRows = [&](int32_t head, int32_t key, bool scanned) {
      for (int32_t i = head, prev = scanned ? -1 : -key; i != 0; prev = i, i = iin->Nxtr.V[i]) {
        EXPECT_TRUE(seen.insert(i).second) << "row " << i << " twice";
        EXPECT_EQ(iin->Prvr.V[i], prev) << i;
        if (!scanned) {
          EXPECT_EQ(luf->Rlen.V[i], key) << i;
        }
        EXPECT_EQ(iin->Mrow.V[i] != 0, scanned) << i;
      }
    };
    walkRows(s.Ptr_Zero_Rows, 0, false);
    for (int32_t c = 1; c <= n; ++c) walkRows(iin->Stcr.V[c], c, false);
    walkRows(s.Ptr_M_Rows, 0, true);
    EXPECT_EQ(seen, rows);

    // Column maxima that claim to be exact are.
    for (int32_t j : cols) {
      if (!vlu::IsTrue(iin->Clok.V[j])) continue;
      double big = 0.0;
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        big = std::max(big, std::fabs(vim->AUrmat.Val[q]));
      EXPECT_EQ(iin->Clmx.Val[j], big) << "column " << j;
    }

    // Work vectors clean.
    for (int32_t i = 1; i <= n; ++i) {
      EXPECT_EQ(iin->Indr.V[i], 0) << i;
      EXPECT_EQ(iin->Indc.V[i], 0) << i;
    }
  }

  void TearDown() override {
    if (borrowed) {
      vlu::Reuse_RVec(env, env->Iin->Clmin, env->Vim->WorkZ);
      vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
      vlu::Clear_Rvec(env, env->Vim->WorkZ);
      borrowed = false;
    }
    EnvTest::TearDown();
  }
};

constexpr const char *Skip_Text = "the short pivots need the other routines of the elimination";

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

TEST_F(ShortBump, TwoByPDropsTheCancellationAndFillsTheOtherRow) {
  Start(Two_By_P());
  if (HasFatalFailure()) return;
  if (Stubbed()) GTEST_SKIP() << Skip_Text;
  const Before b = Choose(1, 1);
  if (!Run(vlu::PIV_2_BY_P)) GTEST_SKIP() << Skip_Text;
  Check_After(b);
  EXPECT_EQ(s.St.CC2, 1);
  EXPECT_EQ(env->Luf->Rlen.V[2], 3);
  EXPECT_EQ(env->Iin->RowFill, 2);
  EXPECT_FALSE(vlu::IsTrue(env->Iin->Clok.V[3]));  // its maximum may have gone to U
  EXPECT_TRUE(vlu::IsTrue(env->Iin->Clok.V[2]));   // 3.0 stays; the changes were small
}

TEST_F(ShortBump, TwoByPLowersTheBoundOfAColumnThatTheOtherRowReaches) {
  Start(Two_By_P());
  if (HasFatalFailure()) return;
  if (Stubbed()) GTEST_SKIP() << Skip_Text;
  // Column 4 waits in the M-list of 8 (length 3: a multiple of 2); after the
  // step it holds row 2 of length 3, so its bound is (3 - 1)(3 - 1) = 4.
  vlu::Remove_col_from_list(s, 4);
  vlu::Store_col_in_M_list(s, 4, 8);
  env->Iin->Mlow.V[4] = 8;
  const Before b = Choose(1, 1);
  if (!Run(vlu::PIV_2_BY_P)) GTEST_SKIP() << Skip_Text;
  Check_After(b);
  EXPECT_EQ(env->Iin->Mact.V[4], 4);
  EXPECT_EQ(env->Iin->Mlow.V[4], 4);
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

TEST_F(ShortBump, PByTwoUpdatesTheOtherColumnAndPutsItInTheListOfItsBound) {
  Start(P_By_Two());
  if (HasFatalFailure()) return;
  if (Stubbed()) GTEST_SKIP() << Skip_Text;
  const Before b = Choose(1, 1);
  if (!Run(vlu::PIV_P_BY_2)) GTEST_SKIP() << Skip_Text;
  Check_After(b);
  EXPECT_EQ(s.St.RC2, 1);
  // Column 2 keeps rows 4, 5 and gets 3; row 5 has 2 elements: (2 - 1)(3 - 1).
  EXPECT_EQ(env->Luf->Clen.V[2], 3);
  EXPECT_EQ(env->Iin->Mact.V[2], 2);
  EXPECT_EQ(env->Iin->Mlow.V[2], 2);
  EXPECT_FALSE(vlu::IsTrue(env->Iin->Clok.V[2]));  // its largest, 2.0, went to U
  EXPECT_EQ(env->Iin->RowFill, 1);
}

TEST_F(ShortBump, PByTwoInSemiDenseModeKeepsTheColumnInItsCountList) {
  Start(P_By_Two());
  if (HasFatalFailure()) return;
  if (Stubbed()) GTEST_SKIP() << Skip_Text;
  s.Semi_Dense = true;
  const Before b = Choose(1, 1);
  if (!Run(vlu::PIV_P_BY_2)) GTEST_SKIP() << Skip_Text;
  Check_After(b);
  EXPECT_EQ(env->Iin->Mact.V[2], 0);
  EXPECT_EQ(env->Iin->Mlow.V[2], 0);
  EXPECT_EQ(env->Iin->Stcc.V[3], 2);
  EXPECT_EQ(s.Max_Col_Shrink, 1);  // four before, three after
}

// Row 1 = columns 1, 2 and column 1 = rows 1, 2, pivot (1, 1).  With
// (2, 2) = 1 the update cancels it; without it the step fills (2, 2).
// Swapped: rows 1, 2 and columns 1, 2 exchanged, so that the pivot (2, 2)
// stands second in its row and in its column.
luc::Problem Two_By_Two(bool meet, bool swapped = false) {
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

TEST_F(ShortBump, TwoByTwoCancelsTheElementWhereTheyMeet) {
  Start(Two_By_Two(true));
  if (HasFatalFailure()) return;
  if (Stubbed()) GTEST_SKIP() << Skip_Text;
  const Before b = Choose(1, 1);
  if (!Run(vlu::PIV_2_BY_2)) GTEST_SKIP() << Skip_Text;
  Check_After(b);
  EXPECT_EQ(s.St.RC2CC2, 1);
  EXPECT_EQ(env->Luf->Rlen.V[2], 1);  // now a row singleton
  EXPECT_EQ(env->Iin->Stcr.V[1], 2);
  EXPECT_EQ(env->Iin->RowFill, 0);
}

TEST_F(ShortBump, TwoByTwoFillsWhereTheyMeet) {
  for (bool swapped : {false, true}) {
    Start(Two_By_Two(false, swapped));
    if (HasFatalFailure()) return;
    if (Stubbed()) GTEST_SKIP() << Skip_Text;
    const int32_t piv = swapped ? 2 : 1;
    const Before b = Choose(piv, piv);
    if (swapped) {  // the pivot is not at the head of its row nor of its column
      ASSERT_NE(env->Luf->Ic.V[env->Luf->Rstr.V[piv]], piv);
      ASSERT_NE(env->Luf->Ir.V[env->Luf->Cstr.V[piv]], piv);
    }
    if (!Run(vlu::PIV_2_BY_2)) GTEST_SKIP() << Skip_Text;
    Check_After(b);
    EXPECT_EQ(env->Iin->RowFill, 1);
    EXPECT_EQ(s.St.Short_Steps, 1);
  }
}

}  // namespace
