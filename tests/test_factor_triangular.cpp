// Factorization of bases without a bump through the exported interface:
// slacks, permuted triangles, column t, tiny elements; the factors are
// checked against the basis column by column.
#include <gtest/gtest.h>

#include <tuple>

#include "runtime/records.h"
#include "support/lu_check.h"

namespace {

using luc::Problem;
using FactorTriangular = luc::ApiTest;

TEST_F(FactorTriangular, AllSlackBasisGivesIdentity) {
  const int n = 40;
  ASSERT_EQ(luc::Factor(luc::All_Slack(n)), 0);
  const vlu::VIM *vim = Env()->Vim;
  EXPECT_EQ(Env()->Luf->Num_Slack, n);
  EXPECT_EQ(Env()->Luf->U_numele, n);
  for (int k = 1; k <= n; ++k) {  // slacks stand in row order
    EXPECT_EQ(vim->Rnto.V[k], k);
    EXPECT_EQ(vim->Cbto.V[k], n + 1 + k);
  }
  EXPECT_EQ(vim->Min_Pivot, 1.0);
  EXPECT_EQ(vim->Max_UFac, 1.0);
  EXPECT_TRUE(luc::Check_Factors(Env()));

  Problem empty;  // n = 0
  empty.colStart = {1};
  empty.basis = {0};
  EXPECT_EQ(luc::Factor(empty), 0);
}

// (lower, n, share of slacks)
struct TriangularShapes : luc::ApiTest,
                          ::testing::WithParamInterface<std::tuple<bool, int, double>> {};

TEST_P(TriangularShapes, FactorsReproduceTheBasis) {
  const int n = std::get<1>(GetParam());
  // Several bases on one environment: each factorization starts from the
  // state the one before left.
  for (uint64_t seed = 1; seed <= (n > 1000 ? 1u : 3u); ++seed) {
    luc::Triangular t =
        luc::Make_Triangular(n, std::get<0>(GetParam()) ? luc::Shape::Lower : luc::Shape::Upper,
                            seed * 977 + n, true, std::get<2>(GetParam()));
    ASSERT_EQ(luc::Factor(t.c), 0) << "seed " << seed;
    vlu::VMI *env = Env();
    EXPECT_EQ(env->Luf->NumVTria, n);
    EXPECT_EQ(env->Luf->Num_Pre, 0);  // a triangular basis is all post-triangular
    EXPECT_EQ(env->Luf->L_Cols, 0);
    EXPECT_EQ(env->Vim->Num_Sing, 0);
    ASSERT_TRUE(luc::Check_Factors(env)) << "seed " << seed;
    // Columns pivot on their diagonal of the hidden order, slacks on their row.
    for (int k = 1; k <= n; ++k) {
      const int row = t.prow[size_t(k)], col = t.colOfPos[size_t(k)];
      ASSERT_EQ(env->Vim->Rwcl.V[row], t.c.basis[size_t(col - 1)] == 2 ? col : n + 1 + row) << row;
    }
    // The work vectors lent to the phases are back and clean.
    for (int i = 1; i <= n + 1; ++i)
      ASSERT_TRUE(env->Vim->WorkZ.Val[i] == 0.0 && env->Vim->HelpZ.V[i] == 0) << i;
    EXPECT_FALSE(env->Iin->Clmin.Allocated() || env->Iin->Indr.Allocated());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, TriangularShapes,
    ::testing::Values(std::make_tuple(true, 1, 0.0), std::make_tuple(false, 2, 0.0),
                      std::make_tuple(true, 300, 0.0), std::make_tuple(false, 300, 0.5),
                      std::make_tuple(true, 64, 0.95), std::make_tuple(true, 200000, 0.1),
                      std::make_tuple(false, 200000, 0.1)));

TEST_F(FactorTriangular, ColumnTWithKnownRAndTinyElements) {
  // t and the structural columns 2..n of a lower triangle: t is full, so it
  // pivots on row 1 once the other rows are gone.  Elements below Tol_Zero
  // (and the zeros of r) are not part of the basis, those just above it are.
  const int n = 30;
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    cols[size_t(j - 1)].push_back({j, 2.0 + j});
    if (j + 1 <= n) cols[size_t(j - 1)].push_back({j + 1, 1e-25});
    if (j + 2 <= n) cols[size_t(j - 1)].push_back({j + 2, -1e-19});
    if (j + 3 <= n) cols[size_t(j - 1)].push_back({j + 3, 0.5});
  }
  Problem p = luc::From_Columns(n, cols);
  p.hasR = true;
  for (int i = 1; i <= n; ++i) p.r.push_back(i == 1 ? 3.0 : i % 4 == 0 ? 0.0 : 0.1 * i);
  for (int j = 2; j <= n + 1; ++j) p.basis[size_t(j - 1)] = 2;  // n + 1 is t
  ASSERT_EQ(luc::Factor(p), 0);
  EXPECT_EQ(Env()->Vim->Rwcl.V[1], n + 1);
  EXPECT_EQ(Env()->Iin->Zeros_Removed, n / 4 + (n - 2));  // column 1 is not basic
  // U: the diagonals, the -1e-19 and 0.5 elements of columns 2..n, r but its zeros.
  EXPECT_EQ(Env()->Luf->U_numele, (n - 1) + (n - 3) + (n - 4) + (n - n / 4));
  EXPECT_TRUE(luc::Check_Factors(Env()));
}

}  // namespace
