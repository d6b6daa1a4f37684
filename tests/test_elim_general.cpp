// Block pivot steps of the elimination.
//
// The merge of a work block into the files (Update_Amat) on hand-built
// files, with its choice of scan, and the bookkeeping of the semi-dense mode.
//
// The pivot steps themselves (singletons, General_Pivot with its block
// extension, squeeze, a failed pivot) are driven single step by single step
// the way Factor_Bump does,
// with the pivot forced, and check after each step that L times [U; active
// part] reproduces the basis, that every index vector is clear, that every
// active row and column stands in the right list, and the battery.
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

using vlu::Bump_State;
using vlu::IIN;
using vlu::IsTrue;
using vlu::LUF;
using vlu::VIM;

// An environment with the vectors of a factorization pass, Clmin and Indr
// lent as LUFactor lends them for the bump, and a Bump_State on it.
struct ElimEnv : luc::EnvTest {
  Bump_State s;
  bool lent = false;

  void Lend() {
    vlu::Reuse_RVec(env, env->Vim->WorkZ, env->Iin->Clmin);
    vlu::Reuse_Int(env, env->Vim->HelpI, "VIM%HelpI", env->Iin->Indr, "IIN%Indr");
    vlu::Zero_Int(env->Iin->Indr.V, env->Vim->NumRow);
    lent = true;
  }
  void Give_Back() {
    if (!lent) return;
    vlu::Reuse_RVec(env, env->Iin->Clmin, env->Vim->WorkZ);
    vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
    lent = false;
  }
  // Load, the set-up of a pass, and optionally ExtractBasis.
  void Prepare(const luc::Problem &p, bool extract) {
    if (env != nullptr) Give_Back();
    Load(p);
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    if (extract) vlu::ExtractBasis(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    Lend();
    s = Bump_State();
    s.vmi = env;
    s.vim = env->Vim;
    s.luf = env->Luf;
    s.iin = env->Iin;
    s.NumRow = env->Vim->NumRow;
    s.Tol_Small = std::max(env->Tol_Zero, env->Eps);
    s.Clok_Frac = 1.0 - env->Eps08;
  }
  void TearDown() override {
    if (env != nullptr) Give_Back();
    luc::EnvTest::TearDown();
  }
};

// Writes the active matrix of `cols` (place j, rows 1..n) into the column
// and row files: compressed, no tails, columns on cache lines, each row in
// column order, chains in number order.
void Write_Files(vlu::VMI *env, int32_t n, const luc::Cols &cols) {
  LUF *luf = env->Luf;
  IIN *iin = env->Iin;
  double *aur = env->Vim->AUrmat.Val;
  std::vector<int32_t> rl(size_t(n) + 1, 0);
  int32_t q = 1, colEnd = 0;
  for (int32_t j = 1; j <= n; ++j) {
    luf->Cstr.V[j] = q;
    luf->Clen.V[j] = int32_t(cols[size_t(j - 1)].size());
    for (const auto &e : cols[size_t(j - 1)]) {
      luf->Ir.V[q] = e.first;
      aur[q] = e.second;
      ++rl[size_t(e.first)];
      colEnd = q++;
    }
    q = ((q - 1 + 7) / 8) * 8 + 1;
  }
  std::vector<int32_t> next(size_t(n) + 1, 0);
  int32_t p = 1;
  for (int32_t i = 1; i <= n; ++i) {
    luf->Rstr.V[i] = next[size_t(i)] = p;
    luf->Rlen.V[i] = rl[size_t(i)];
    p += rl[size_t(i)];
  }
  for (int32_t j = 1; j <= n; ++j)
    for (int32_t k = luf->Cstr.V[j]; k < luf->Cstr.V[j] + luf->Clen.V[j]; ++k) {
      const int32_t r = next[size_t(luf->Ir.V[k])]++;
      luf->Ic.V[r] = j;
      iin->R2cp.V[r] = k;
      iin->C2rp.V[k] = r;
    }
  for (int32_t i = 1; i <= n; ++i) {
    iin->Mrex.V[i] = iin->Mcex.V[i] = 0;
    iin->Rpnx.V[i] = iin->Cpnx.V[i] = i < n ? i + 1 : 0;
    iin->Rppr.V[i] = iin->Cppr.V[i] = i - 1;
  }
  iin->RPfrst = iin->CPfrst = 1;
  iin->RPlast = iin->CPlast = n;
  luf->RowFileUsed = p - 1;
  luf->ColFileUsed = colEnd;
}

// Value of the element (row, place) in the compressed part of its column.
bool File_Value(const vlu::VMI *env, int32_t row, int32_t col, double &v) {
  const LUF *luf = env->Luf;
  for (int32_t q = luf->Cstr.V[col]; q < luf->Cstr.V[col] + luf->Clen.V[col]; ++q)
    if (luf->Ir.V[q] == row) {
      v = env->Vim->AUrmat.Val[q];
      return true;
    }
  return false;
}

// ---------------------------------------------------------------------------
// Update_Amat on a 4 x 4 block: block row i is row i, block column j place
// j; block row and column 1 stand for the pivot lines.  The block holds the
// elements marked x; the lengths of the rows and columns grow with elements
// outside the block ("extra"), which decide the scan.
//
//          place 1  2  3  4
//   row 1        x  x  .  .
//   row 2        x  x  .  x
//   row 3        .  .  x  .
//   row 4        .  x  x  x
// ---------------------------------------------------------------------------
struct UpdateAmat : ElimEnv {
  static constexpr int32_t N = 48, Ld = 6;
  std::map<std::pair<int32_t, int32_t>, double> orig;  // (row, place) -> value

  static double Delta(int32_t r, int32_t c) { return 1000.0 * r + 10.0 * c; }

  // extraCol[c], extraRow[r] for c, r = 2..4 (index 0, 1 unused).
  void Build(std::vector<int32_t> extraCol, std::vector<int32_t> extraRow) {
    const std::pair<int32_t, int32_t> block[] = {{1, 1}, {1, 2}, {2, 1}, {2, 2}, {2, 4},
                                                 {3, 3}, {4, 2}, {4, 3}, {4, 4}};
    luc::Cols cols(N);
    orig.clear();
    auto add = [&](int32_t r, int32_t c, double v) {
      cols[size_t(c - 1)].push_back({r, v});
      orig[{r, c}] = v;
    };
    for (const auto &e : block) add(e.first, e.second, e.first + 0.01 * e.second);
    for (int32_t c = 2; c <= 4; ++c)
      for (int32_t k = 0; k < extraCol[size_t(c)]; ++k) add(5 + k, c, 0.5 + k);
    for (int32_t r = 2; r <= 4; ++r)
      for (int32_t k = 0; k < extraRow[size_t(r)]; ++k) add(r, 5 + k, -0.5 - k);
    // The problem only sizes the environment; the files are written by hand.
    luc::Cols diag(N);
    for (int32_t j = 1; j <= N; ++j) diag[size_t(j - 1)] = {{j, 1.0}};
    ASSERT_NO_FATAL_FAILURE(Prepare(luc::From_Columns(N, diag, true), false));
    Write_Files(env, N, cols);
    IIN *iin = env->Iin;
    for (int32_t k = 1; k <= 4; ++k) {
      iin->Lisr.V[k] = iin->Lisc.V[k] = k;
      iin->Indr.V[k] = iin->Indc.V[k] = k;
      iin->Lngr.V[k] = iin->Lngc.V[k] = vlu::LFalse;
      iin->Rlin.Val[k] = iin->Clin.Val[k] = -7;
    }
    ASSERT_GE(vlu::Size(iin->Mmat), Ld * 4);
    for (int32_t c = 1; c <= 4; ++c)
      for (int32_t r = 1; r <= 4; ++r) At(r, c) = Delta(r, c);
    s.DO_Squeeze = false;
  }
  void Long(std::set<int32_t> rows, std::set<int32_t> places) {
    for (int32_t r : rows) env->Iin->Lngr.V[r] = vlu::LTrue;
    for (int32_t c : places) env->Iin->Lngc.V[c] = vlu::LTrue;
  }
  double &At(int32_t r, int32_t c) { return env->Iin->Mmat.Val[1 + (r - 1) + (c - 1) * Ld]; }

  // After the merge: exactly `merged` (rows and places 2..4) were added and
  // marked, nothing else in the block or the files changed, and Rlin, Clin
  // count what is left.
  void Expect_Merged(const std::set<std::pair<int32_t, int32_t>> &merged) {
    for (int32_t r = 1; r <= 4; ++r)
      for (int32_t c = 1; c <= 4; ++c) {
        const bool m = merged.count({r, c}) > 0;
        if (m) {
          EXPECT_EQ(At(r, c), vlu::Merged_Mark) << r << "," << c;
        } else {
          EXPECT_EQ(At(r, c), Delta(r, c)) << r << "," << c;
        }
      }
    for (const auto &e : orig) {
      double v = 0.0;
      ASSERT_TRUE(File_Value(env, e.first.first, e.first.second, v));
      const double want = merged.count(e.first) ? e.second + Delta(e.first.first, e.first.second)
                                                : e.second;
      EXPECT_EQ(v, want) << "element " << e.first.first << "," << e.first.second;
    }
    for (int32_t k = 2; k <= 4; ++k) {
      int32_t inRow = 0, inCol = 0;
      for (const auto &m : merged) {
        inRow += m.first == k;
        inCol += m.second == k;
      }
      EXPECT_EQ(env->Iin->Rlin.Val[k], 3 - inRow) << "Rlin " << k;
      EXPECT_EQ(env->Iin->Clin.Val[k], 3 - inCol) << "Clin " << k;
    }
  }
  // Upd_Col_Only, Upd_Row_Only, Upd_Both as one triple.
  std::vector<int64_t> Runs() const {
    return {s.St.Upd_Col_Only, s.St.Upd_Row_Only, s.St.Upd_Both};
  }
};

const std::set<std::pair<int32_t, int32_t>> All_Six = {{2, 2}, {2, 4}, {3, 3},
                                                        {4, 2}, {4, 3}, {4, 4}};

TEST_F(UpdateAmat, ShortRowsAndColumnsAreScannedByColumn) {
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}));
  vlu::Update_Amat(s, 2, 4, 4, Ld);
  EXPECT_EQ(env->Exception, 0) << msgs.All();
  EXPECT_EQ(Runs(), (std::vector<int64_t>{1, 0, 0}));
  Expect_Merged(All_Six);
  // The block columns' elements (3 + 2 + 2), the pivot column not among them.
  EXPECT_EQ(s.St.Scanned_Upd, 7);
  EXPECT_EQ(s.St.Merged_By_Col, 6);
  EXPECT_EQ(s.St.Upd_Parallel, 0);
}

TEST_F(UpdateAmat, LongColumnsWithShortRowsAreScannedByRow) {
  // Columns of 23, 22, 22 elements against rows of 3, 1, 3: by both costs
  // 7, by rows 7, by columns 67/8.  Rows win the tie with "both".
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 20, 20, 20}, {0, 0, 0, 0, 0}));
  Long({}, {2, 3, 4});
  vlu::Update_Amat(s, 2, 4, 4, Ld);
  EXPECT_EQ(Runs(), (std::vector<int64_t>{0, 1, 0}));
  Expect_Merged(All_Six);
  EXPECT_EQ(s.St.Scanned_Upd, 7);
  EXPECT_EQ(s.St.Merged_By_Row, 6);
}

TEST_F(UpdateAmat, BothScansLeaveTheLongRowAtTheLongColumnAsFill) {
  // Row 4 and place 4 long; place 4 of 33 elements.  Both: 4 + 5/8,
  // rows: 7, columns: 38/8.  The element (4, 4) is met by neither scan.
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 0, 0, 31}, {0, 0, 0, 0, 0}));
  Long({4}, {4});
  vlu::Update_Amat(s, 2, 4, 4, Ld);
  EXPECT_EQ(Runs(), (std::vector<int64_t>{0, 0, 1}));
  auto merged = All_Six;
  merged.erase({4, 4});
  Expect_Merged(merged);
  EXPECT_EQ(s.St.Merged_By_Col, 4);  // places 2 and 3 by column
  EXPECT_EQ(s.St.Merged_By_Row, 1);  // (2, 4) from row 2
  // One element less in place 4 makes the column scan as cheap: it wins.
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 0, 0, 30}, {0, 0, 0, 0, 0}));
  Long({4}, {4});
  s.St = vlu::Bump_Stats();
  vlu::Update_Amat(s, 2, 4, 4, Ld);
  EXPECT_EQ(Runs(), (std::vector<int64_t>{1, 0, 0}));
  Expect_Merged(All_Six);
}

TEST_F(UpdateAmat, NothingShortOrNothingLeftMeansNoScan) {
  // All long: every place is fill for the tails, even where an element is.
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}));
  Long({2, 3, 4}, {2, 3, 4});
  vlu::Update_Amat(s, 2, 4, 4, Ld);
  EXPECT_EQ(Runs(), (std::vector<int64_t>{0, 0, 0}));
  Expect_Merged({});
  EXPECT_EQ(s.St.Scanned_Upd, 0);
  // No block place behind the pivots: nothing is touched.
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}));
  vlu::Update_Amat(s, 5, 4, 4, Ld);
  EXPECT_EQ(Runs(), (std::vector<int64_t>{0, 0, 0}));
  for (int32_t r = 1; r <= 4; ++r)
    for (int32_t c = 1; c <= 4; ++c) EXPECT_EQ(At(r, c), Delta(r, c));
  EXPECT_EQ(env->Iin->Rlin.Val[2], -7);
}

TEST_F(UpdateAmat, SemiDenseBookkeepingTouchesNoList) {
  ASSERT_NO_FATAL_FAILURE(Build({0, 0, 0, 0, 0}, {0, 0, 0, 0, 0}));
  s.Semi_Dense = true;
  IIN *iin = env->Iin;
  // A row that shrank from 6 to 3 (Rlen of row 2): its scan marks are gone
  // and the shrink is kept; a row that grew keeps the largest shrink.
  iin->Mrow.V[2] = 1;
  iin->Mrex.V[2] = 4;
  vlu::Rescan_row_for_m(s, 2, 6, 0, 0);
  EXPECT_EQ(iin->Mrow.V[2], 0);
  EXPECT_EQ(iin->Mrex.V[2], 0);
  EXPECT_EQ(s.Max_Row_Shrink, 3);
  vlu::Rescan_row_for_m(s, 4, 2, 0, 0);
  EXPECT_EQ(s.Max_Row_Shrink, 3);
  // No tail is compressed in semi-dense mode, and a column of unchanged
  // length keeps its list.
  iin->Mcex.V[3] = 1;
  iin->Lisc.V[1] = 3;
  vlu::Compress_Short_Lists(s, 1, 1, 1, 0);
  vlu::Update_Col_Info(s, 3, env->Luf->Clen.V[3], 0);
  EXPECT_EQ(iin->Mcex.V[3], 1);
  EXPECT_EQ(s.Max_Col_Shrink, 0);
  EXPECT_EQ(env->Exception, 0) << msgs.All();
  EXPECT_EQ(s.St.Rescans, 0);
}

// ---------------------------------------------------------------------------
// Pivot steps on loaded bumps (need the whole elimination).
// ---------------------------------------------------------------------------
struct PivotSteps : ElimEnv {
  // Factor_Bump's set-up of the state, lists and work vectors.
  void Start(const luc::Problem &p) {
    ASSERT_NO_FATAL_FAILURE(Prepare(p, true));
    LUF *luf = env->Luf;
    IIN *iin = env->Iin;
    const int32_t n = s.NumRow;
    s.NumVTria = luf->NumVTria;
    s.Bump_Size = n - s.NumVTria;
    s.Piv_Indx = s.NumVTria + 1;
    s.Rowlft = n - s.Piv_Indx + 1;
    s.L_Base = luf->LFileUsed;
    s.U_Count0 = luf->RowUSpace - luf->U_elefirst;
    s.Min_M_InList = iin->MarkBad;
    s.MIN_CC_List = vlu::Size(iin->Stcc);
    s.MIN_RC_List = vlu::Size(iin->Stcr);
    iin->RowFill = 0;
    vlu::IntVec *clear[] = {&iin->Mrow, &iin->Indr, &iin->Mrex, &iin->Mact, &iin->Mlow,
                            &iin->Indc, &iin->Mcex, &iin->Indx, &iin->Stcc, &iin->Stcr,
                            &iin->Nxtc, &iin->Prvc, &iin->Nxtr, &iin->Prvr};
    for (vlu::IntVec *v : clear) vlu::Zero_Int(v->V, n);
    vlu::Zero_Int(iin->Stmc.V, vlu::Size(iin->Stmc));
    for (int32_t k = s.Piv_Indx; k <= n; ++k) {
      const int32_t j = env->Vim->Cnto.V[k];
      double mx = 0.0;
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        mx = std::max(mx, std::fabs(env->Vim->AUrmat.Val[q]));
      iin->Clmx.Val[j] = mx;
      iin->Clmin.Val[j] = std::max(1e-20, env->Eps * mx);
      iin->Clok.V[j] = vlu::LTrue;
    }
    for (int32_t k = s.Piv_Indx; k <= n; ++k) {
      const int32_t j = env->Vim->Cnto.V[k];
      vlu::Store_col_in_c_list(s, j, luf->Clen.V[j]);
    }
    for (int32_t k = s.Piv_Indx; k <= n; ++k) {
      const int32_t i = env->Vim->Rnto.V[k];
      vlu::Store_Row_in_C_List(s, i, luf->Rlen.V[i]);
    }
    vlu::Define_Mmat_Rows(s);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
  }

  // One pass of Factor_Bump with the pivot given: room, dispatch, and the
  // placement of the step's last pivot.  General_Pivot takes every step of
  // two or more both ways.
  void Step(int32_t row, int32_t col) {
    LUF *luf = env->Luf;
    s.Piv_Row = row;
    s.Piv_Col = col;
    s.Len_Piv_Row = luf->Rlen.V[row];
    s.Len_Piv_Col = luf->Clen.V[col];
    s.MarkBest = (s.Len_Piv_Row - 1) * (s.Len_Piv_Col - 1);
    s.Bad_Pivot = false;
    vlu::Remove_col_from_list(s, col);
    vlu::LU_Space(s);
    ASSERT_FALSE(s.Dense_Now);
    vlu::Remove_Row_from_List(s, row);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    if (s.Len_Piv_Row == 1) {
      vlu::Row_Singleton_Pivot(s);
    } else if (s.Len_Piv_Col == 1) {
      vlu::Col_Singleton_Pivot(s);
    } else {
      int32_t mr = 0, mc = 0;
      vlu::Assign_Mmat(s, mr, mc);
      vlu::General_Pivot(s, mr, mc);
    }
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    ASSERT_TRUE(env->EnoughSpace);
    vlu::Set_Pivot_Position(s);
    ++s.Piv_Indx;
    s.Rowlft = s.NumRow - s.Piv_Indx + 1;
  }

  // The cheapest pivot by (Rlen - 1)(Clen - 1) among elements of at least
  // a quarter of their column's largest, rows and columns without tails;
  // larger magnitude on equal counts.
  bool Choose(int32_t &row, int32_t &col) const {
    const LUF *luf = env->Luf;
    const IIN *iin = env->Iin;
    int64_t best = -1;
    double bestv = 0.0;
    for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
      const int32_t j = env->Vim->Cnto.V[k];
      if (luf->Clen.V[j] == 0 || iin->Mcex.V[j] != 0) continue;
      const int32_t q1 = luf->Cstr.V[j], q2 = q1 + luf->Clen.V[j];
      double mx = 0.0;
      for (int32_t q = q1; q < q2; ++q) mx = std::max(mx, std::fabs(env->Vim->AUrmat.Val[q]));
      for (int32_t q = q1; q < q2; ++q) {
        const int32_t i = luf->Ir.V[q];
        const double v = std::fabs(env->Vim->AUrmat.Val[q]);
        if (v < 0.25 * mx || v <= env->Rtpiva || iin->Mrex.V[i] != 0) continue;
        const int64_t m = int64_t(luf->Rlen.V[i] - 1) * (luf->Clen.V[j] - 1);
        if (best < 0 || m < best || (m == best && v > bestv)) {
          best = m;
          bestv = v;
          row = i;
          col = j;
        }
      }
    }
    return best >= 0;
  }

  // Cheapest pivots to the end, checked after every step.  When only rows
  // or columns with tails are left, they are compressed first, as the
  // search does.
  void Run_To_End() {
    int32_t row = 0, col = 0;
    while (s.Piv_Indx <= s.NumRow) {
      if (!Choose(row, col)) {
        bool any = false;
        for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
          const int32_t i = env->Vim->Rnto.V[k], j = env->Vim->Cnto.V[k];
          if (env->Iin->Mrex.V[i] > 0) {
            vlu::Compres_Uncompressed_Row(s, i);
            any = true;
          }
          if (env->Iin->Mcex.V[j] > 0) {
            vlu::Compres_Uncompressed_Col(s, j);
            any = true;
          }
        }
        ASSERT_EQ(env->Exception, 0) << msgs.All();
        ASSERT_TRUE(any && Choose(row, col)) << "no pivot at position " << s.Piv_Indx;
      }
      ASSERT_NO_FATAL_FAILURE(Step(row, col));
      ASSERT_TRUE(Reproduces_Basis()) << "after position " << s.Piv_Indx - 1;
      ASSERT_TRUE(Consistent()) << "after position " << s.Piv_Indx - 1;
    }
  }

  // L times [U rows of the pivots; active elements, tails included] is the
  // basis, place by place.
  ::testing::AssertionResult Reproduces_Basis() const {
    const VIM *vim = env->Vim;
    const LUF *luf = env->Luf;
    const int32_t n = s.NumRow;
    std::vector<std::map<int32_t, double>> m(size_t(n) + 1);  // place -> row -> value
    for (int32_t k = 1; k < s.Piv_Indx; ++k) {
      const int32_t r = vim->Rnto.V[k];
      for (int32_t p = luf->Rstr.V[r]; p < luf->Rstr.V[r] + luf->Rlen.V[r]; ++p)
        m[size_t(luf->Ic.V[p])][r] += vim->AUrmat.Val[p];
    }
    for (int32_t k = s.Piv_Indx; k <= n; ++k) {
      const int32_t c = vim->Cnto.V[k];
      const int32_t q1 = luf->Cstr.V[c], q2 = q1 + luf->Clen.V[c] + env->Iin->Mcex.V[c];
      for (int32_t q = q1; q < q2; ++q)
        if (luf->Ir.V[q] != 0) m[size_t(c)][luf->Ir.V[q]] += vim->AUrmat.Val[q];
    }
    std::vector<int32_t> lcol(size_t(n) + 1, 0);
    for (int32_t l = 1; l <= luf->L_Cols; ++l)
      if (luf->Lsor.V[l + 1] > luf->Lsor.V[l]) lcol[size_t(luf->Lpiv.V[luf->Lsor.V[l]])] = l;
    for (int32_t c = 1; c <= n; ++c) {
      std::vector<double> w(size_t(n) + 1, 0.0);
      double scale = 1.0;
      for (const auto &e : m[size_t(c)]) {
        w[size_t(e.first)] += e.second;
        scale = std::max(scale, std::fabs(e.second));
        if (const int32_t l = lcol[size_t(e.first)])
          for (int32_t p = luf->Lsor.V[l]; p < luf->Lsor.V[l + 1]; ++p)
            w[size_t(luf->Lrow.V[p])] += luf->Lmat.Val[p] * e.second;
      }
      const int32_t j = vim->Cbto.V[c];
      if (j > vim->NumCol) {
        w[size_t(j - vim->NumCol)] -= 1.0;
      } else {
        for (int32_t p = vim->Stcl.V[j]; p < vim->Stcl.V[j + 1]; ++p)
          if (std::fabs(vim->Jace.Val[p]) >= env->Tol_Zero) w[size_t(vim->Rnum.V[p])] -= vim->Jace.Val[p];
      }
      for (int32_t r = 1; r <= n; ++r)
        if (std::fabs(w[size_t(r)]) > 1e-11 * scale)
          return ::testing::AssertionFailure()
                 << "place " << c << " row " << r << " off by " << w[size_t(r)];
    }
    return ::testing::AssertionSuccess();
  }

  // Every active row and column in exactly one list that fits its length and
  // counts, the block's index vectors clear, and the battery.
  ::testing::AssertionResult Consistent() {
    const LUF *luf = env->Luf;
    IIN *iin = env->Iin;
    const int32_t n = s.NumRow;
    std::vector<int32_t> seenC(size_t(n) + 1, 0), seenR(size_t(n) + 1, 0);
    auto walkC = [&](int32_t head, int32_t key, bool mlist) -> bool {
      for (int32_t j = head; j != 0; j = iin->Nxtc.V[j]) {
        ++seenC[size_t(j)];
        if (mlist ? (iin->Mact.V[j] != key || luf->Clen.V[j] < 2)
                  : (luf->Clen.V[j] != key || iin->Mact.V[j] != 0))
          return false;
        if (seenC[size_t(j)] > 1) return false;
      }
      return true;
    };
    auto walkR = [&](int32_t head, int32_t key, bool scanned) -> bool {
      for (int32_t i = head; i != 0; i = iin->Nxtr.V[i]) {
        ++seenR[size_t(i)];
        if (scanned ? (iin->Mrow.V[i] == 0 || luf->Rlen.V[i] < 2)
                    : (luf->Rlen.V[i] != key || iin->Mrow.V[i] != 0))
          return false;
        if (seenR[size_t(i)] > 1) return false;
      }
      return true;
    };
    if (!walkC(s.Ptr_Zero_Cols, 0, false) || !walkR(s.Ptr_Zero_Rows, 0, false) ||
        !walkR(s.Ptr_M_Rows, 0, true))
      return ::testing::AssertionFailure() << "zero or scanned list wrong";
    for (int32_t c = 1; c <= n; ++c)
      if (!walkC(iin->Stcc.V[c], c, false) || !walkR(iin->Stcr.V[c], c, false))
        return ::testing::AssertionFailure() << "C-list " << c << " wrong";
    for (int32_t m = 1; m <= vlu::Size(iin->Stmc); ++m)
      if (!walkC(iin->Stmc.V[m], m, true))
        return ::testing::AssertionFailure() << "M-list " << m << " wrong";
    for (int32_t k = 1; k <= n; ++k) {
      const int32_t want = k >= s.Piv_Indx ? 1 : 0;
      const int32_t j = env->Vim->Cnto.V[k], i = env->Vim->Rnto.V[k];
      if (seenC[size_t(j)] != want || seenR[size_t(i)] != want)
        return ::testing::AssertionFailure() << "position " << k << " listed wrongly";
      if (iin->Indr.V[k] != 0 || iin->Indc.V[k] != 0 || iin->Indx.V[k] != 0)
        return ::testing::AssertionFailure() << "index vectors not clear at " << k;
    }
    // Cross pointers of every element, compressed and in the tails, and
    // the same number of them on both sides.
    int64_t byRows = 0, byCols = 0;
    for (int32_t k = s.Piv_Indx; k <= n; ++k) {
      const int32_t i = env->Vim->Rnto.V[k], j = env->Vim->Cnto.V[k];
      const int32_t p1 = luf->Rstr.V[i], p2 = p1 + luf->Rlen.V[i] + iin->Mrex.V[i];
      for (int32_t p = p1; p < p2; ++p) {
        if (luf->Ic.V[p] == 0) continue;
        ++byRows;
        const int32_t q = iin->R2cp.V[p], c = luf->Ic.V[p];
        const bool compressedRow = p < p1 + luf->Rlen.V[i];
        const int32_t q1 = luf->Cstr.V[c], qc = q1 + luf->Clen.V[c];
        if (iin->C2rp.V[q] != p || luf->Ir.V[q] != i || q < q1 || q >= qc + iin->Mcex.V[c] ||
            (q < qc) != compressedRow)
          return ::testing::AssertionFailure() << "element (" << i << "," << c << ") at " << p;
      }
      const int32_t q1 = luf->Cstr.V[j], q2 = q1 + luf->Clen.V[j] + iin->Mcex.V[j];
      for (int32_t q = q1; q < q2; ++q) byCols += luf->Ir.V[q] != 0;
    }
    if (byRows != byCols)
      return ::testing::AssertionFailure() << byRows << " elements by rows, " << byCols << " by columns";
    // The battery, with Indr given back to HelpI as Factor_Bump does.
    env->Test_Full = 1;
    s.Test_Next = s.Piv_Indx;
    vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
    vlu::Inversion_Tests(s);
    vlu::Reuse_Int(env, env->Vim->HelpI, "VIM%HelpI", env->Iin->Indr, "IIN%Indr");
    if (env->Exception != 0) return ::testing::AssertionFailure() << msgs.All();
    return ::testing::AssertionSuccess();
  }
};

// All bump: n x n with the diagonal 4 and a band of width w below and above
// it, and with `anti` also (n + 1 - j, j) outside the band; no singletons.
luc::Problem Banded(int32_t n, int32_t w, bool anti) {
  luc::Cols cols(static_cast<size_t>(n));
  for (int32_t j = 1; j <= n; ++j) {
    auto &c = cols[size_t(j - 1)];
    for (int32_t i = std::max(1, j - w); i <= std::min(n, j + w); ++i)
      c.push_back({i, i == j ? 4.0 : 1.0 / (1 + i + 2 * j)});
    const int32_t a = n + 1 - j;
    if (anti && std::abs(a - j) > w) c.push_back({a, 0.3 + 0.01 * j});
  }
  return luc::From_Columns(n, cols, true);
}

TEST_F(PivotSteps, SingletonStepsWriteUAndLAndKeepTheLists) {
  // Places 1 and 2 both hold rows 1 and 2 only: the pivot (1, 1) leaves
  // place 2 with row 2 alone, a column singleton; the last pivot of all is
  // a row singleton.
  const luc::Cols cols = {{{1, 4.0}, {2, 1.0}},
                          {{1, 1.0}, {2, 3.0}},
                          {{2, 1.0}, {3, 2.0}, {4, 1.0}},
                          {{1, 1.0}, {3, 1.0}, {4, 3.0}}};
  ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(4, cols, true)));
  LUF *luf = env->Luf;
  ASSERT_EQ(s.NumVTria, 0);
  ASSERT_NO_FATAL_FAILURE(Step(1, 1));
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
  ASSERT_EQ(luf->Clen.V[2], 1);
  ASSERT_EQ(env->Iin->Stcc.V[1], 2);
  const int32_t lCols = luf->L_Cols, lUsed = luf->LFileUsed;
  ASSERT_NO_FATAL_FAILURE(Step(2, 2));
  EXPECT_EQ(s.St.CC1, 1);
  EXPECT_EQ(luf->L_Cols, lCols);  // a column singleton writes no L
  EXPECT_EQ(luf->LFileUsed, lUsed);
  EXPECT_EQ(luf->Rlen.V[2], 3);
  EXPECT_EQ(luf->Ic.V[luf->Rstr.V[2]], 2);  // pivot first in U
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
  ASSERT_NO_FATAL_FAILURE(Run_To_End());
  EXPECT_EQ(s.St.RC1, 1);

  // The transpose: after the pivot (1, 1) row 2 keeps place 2 alone, a row
  // singleton whose column still holds rows 3 and 4: an L column of two,
  // and both rows move to shorter lists.
  luc::Cols tcols(4);
  for (int32_t j = 1; j <= 4; ++j)
    for (const auto &e : cols[size_t(j - 1)]) tcols[size_t(e.first - 1)].push_back({j, e.second});
  ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(4, tcols, true)));
  luf = env->Luf;
  ASSERT_NO_FATAL_FAILURE(Step(1, 1));
  ASSERT_EQ(luf->Rlen.V[2], 1);
  ASSERT_EQ(luf->Clen.V[2], 3);
  const int32_t lCols2 = luf->L_Cols;
  ASSERT_NO_FATAL_FAILURE(Step(2, 2));
  EXPECT_EQ(s.St.RC1, 1);
  EXPECT_EQ(luf->L_Cols, lCols2 + 1);
  EXPECT_EQ(luf->Lsor.V[luf->L_Cols + 1] - luf->Lsor.V[luf->L_Cols], 2);
  EXPECT_EQ(luf->Rlen.V[2], 1);
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
  ASSERT_NO_FATAL_FAILURE(Run_To_End());
}

TEST_F(PivotSteps, ThreeByThreeBlockTakesOnlyItsPivot) {
  // Row 2 and place 2: 3 by 3, count 4, Next_Free 2: no extension.  The
  // element (1, 2) is tiny: its multiplier is stored as an exact 0 and the
  // fill (1, 3) it makes is not stored at all.
  luc::Problem p = Banded(12, 1, false);
  for (size_t e = 0; e < p.val.size(); ++e)
    if (p.rowIdx[e] == 1 && p.colIdx[e] == 2) p.val[e] = 1e-18;
  ASSERT_NO_FATAL_FAILURE(Start(p));
  LUF *luf = env->Luf;
  const int32_t indx = s.Piv_Indx, lUsed = luf->LFileUsed;
  ASSERT_NO_FATAL_FAILURE(Step(2, 2));
  EXPECT_EQ(s.St.Gen_Calls, 1);
  EXPECT_EQ(s.St.Gen, 1);
  EXPECT_EQ(s.St.Count_ClmaxOK, 0);
  EXPECT_EQ(s.Piv_Indx, indx + 1);
  EXPECT_EQ(env->Vim->Rnto.V[indx], 2);
  EXPECT_EQ(env->Vim->Cnto.V[indx], 2);
  // U row 2 is pivot first; L holds the two multipliers, row 1's as 0.
  EXPECT_EQ(luf->Ic.V[luf->Rstr.V[2]], 2);
  EXPECT_EQ(luf->Rlen.V[2], 3);
  ASSERT_EQ(luf->LFileUsed, lUsed + 2);
  for (int32_t l = lUsed + 1; l <= luf->LFileUsed; ++l) {
    EXPECT_EQ(luf->Lpiv.V[l], 2);
    const double want = luf->Lrow.V[l] == 1 ? 0.0 : 0.125 / 4.0;  // a(3, 2) = 1/8
    EXPECT_EQ(luf->Lmat.Val[l], want) << luf->Lrow.V[l];
  }
  // Fill (3, 1) entered both files, (1, 3) did not.
  EXPECT_EQ(env->Iin->RowFill, 1);
  EXPECT_EQ(luf->Rlen.V[1], 1);
  EXPECT_EQ(luf->Rlen.V[3], 3);
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
}

TEST_F(PivotSteps, BlockGrowsByFurtherPivotsOnAWideBand) {
  // Band of width 4: the pivot (20, 20) makes a block of 9 x 9, count 64, so
  // further pivots are tried, and the band's next rows and columns qualify.
  ASSERT_NO_FATAL_FAILURE(Start(Banded(40, 4, true)));
  const int32_t indx = s.Piv_Indx;
  ASSERT_NO_FATAL_FAILURE(Step(20, 20));
  EXPECT_EQ(s.St.Gen_Calls, 1);
  EXPECT_GT(s.St.Gen, 1) << msgs.All();
  EXPECT_EQ(s.St.Count_AcceptCol, s.St.Gen - 1);
  EXPECT_EQ(s.Piv_Indx, indx + s.St.Gen);
  // The block's pivots stand in U in pivot order, each with its row
  // ending where the previous one starts.
  for (int32_t k = indx + 1; k < s.Piv_Indx; ++k) {
    const int32_t r = env->Vim->Rnto.V[k], prev = env->Vim->Rnto.V[k - 1];
    EXPECT_EQ(env->Luf->Rstr.V[r] + env->Luf->Rlen.V[r], env->Luf->Rstr.V[prev]);
    EXPECT_EQ(env->Luf->Ic.V[env->Luf->Rstr.V[r]], env->Vim->Cnto.V[k]);
  }
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
  // And the rest by cheapest pivots.
  ASSERT_NO_FATAL_FAILURE(Run_To_End());
}

TEST_F(PivotSteps, BlockOfMoreThanOneBatchOfPivots) {
  // With room in Mmat the block of the band's middle runs along the band:
  // more than 64 pivots, so that batches are applied while the block still
  // grows, and the rows it extracts later hold amounts pending from them.
  ASSERT_NO_FATAL_FAILURE(Start(Banded(300, 8, true)));
  vlu::Increase_Uspace(env, 20 * env->Luf->RowUSpace);
  vlu::Increase_ASpace(env, 20 * env->Luf->ColASpace);
  vlu::Increase_Mmat(s, 300 * 300);
  ASSERT_EQ(env->Exception, 0) << msgs.All();
  ASSERT_NO_FATAL_FAILURE(Step(150, 150));
  EXPECT_GT(s.St.Gen, 2 * vlu::Batch_Width) << msgs.All();
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
  ASSERT_NO_FATAL_FAILURE(Run_To_End());
}

TEST_F(PivotSteps, SemiDenseStepsKeepTheCountListsExact) {
  // Semi-dense from the start (no tails, no M-lists yet, so the switch has
  // nothing to undo): rows and columns move between C-lists only.
  ASSERT_NO_FATAL_FAILURE(Start(Banded(40, 4, true)));
  s.Semi_Dense = true;
  ASSERT_NO_FATAL_FAILURE(Step(20, 20));
  EXPECT_GT(s.St.Gen, 1);
  EXPECT_EQ(s.Count_Mark_Col, 0);
  EXPECT_TRUE(Reproduces_Basis());
  EXPECT_TRUE(Consistent());
  ASSERT_NO_FATAL_FAILURE(Run_To_End());
  EXPECT_EQ(s.St.Rescans, 0);
  EXPECT_GT(s.Max_Row_Shrink, 0);
}

TEST_F(PivotSteps, SqueezeDropsWhatCancels) {
  // Row 3 is twice row 1 in places 1..3: the pivot (1, 1) cancels (3, 2)
  // and (3, 3) exactly, and fills (3, 4).  With squeeze the cancelled
  // elements leave the files, without it they stay as zeros.
  luc::Cols cols = {{{1, 1.0}, {2, 1.0}, {3, 2.0}, {4, 1.0}},
                    {{1, 3.0}, {2, 5.0}, {3, 6.0}, {5, 1.0}},
                    {{1, -2.0}, {3, -4.0}, {4, 2.0}, {5, 1.0}},
                    {{2, 1.0}, {4, 3.0}, {5, 1.0}, {1, 0.5}},
                    {{3, 1.0}, {5, 2.0}, {2, 0.25}}};
  for (bool squeeze : {true, false}) {
    ASSERT_NO_FATAL_FAILURE(Start(luc::From_Columns(5, cols, true)));
    s.DO_Squeeze = squeeze;
    const int32_t len3 = env->Luf->Rlen.V[3];
    ASSERT_NO_FATAL_FAILURE(Step(1, 1));
    EXPECT_EQ(env->Luf->Rlen.V[3], squeeze ? len3 - 2 : len3) << squeeze;
    EXPECT_TRUE(Reproduces_Basis());
    EXPECT_TRUE(Consistent());
  }
}

TEST_F(PivotSteps, SmallPivotEndsTheBlockWithAUnitPivot) {
  luc::Problem p = Banded(40, 4, true);
  ASSERT_NO_FATAL_FAILURE(Start(p));
  // Make the value of the chosen pivot tiny in the file.
  LUF *luf = env->Luf;
  for (int32_t q = luf->Cstr.V[20]; q < luf->Cstr.V[20] + luf->Clen.V[20]; ++q)
    if (luf->Ir.V[q] == 20) env->Vim->AUrmat.Val[q] = 1e-13;
  ASSERT_NO_FATAL_FAILURE(Step(20, 20));
  EXPECT_TRUE(s.Bad_Pivot);
  EXPECT_EQ(s.St.Gen, 1);
  EXPECT_EQ(env->Vim->AUrmat.Val[luf->Rstr.V[20]], 1.0);
}

}  // namespace
