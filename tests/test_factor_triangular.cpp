// Factorization of bases without a bump, through the exported interface:
// slacks, post-triangular columns, column t, tiny elements, and the factors
// checked against the basis column by column.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "interface/state.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

using luc::Problem;

class FactorTriangular : public ::testing::Test {
 protected:
  luc::Messages msgs;
  void SetUp() override {
    vlu_destroy();
    vlu_regmsgcb(&msgs, luc::Capture_Callback);
    ASSERT_EQ(vlu_create(), 0);
  }
  void TearDown() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
    // The teardown proves the memory balance and complains otherwise.
    EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
    EXPECT_FALSE(msgs.Has("Fatal System Error")) << msgs.All();
  }
  vlu::VMI *Env() { return vlu::Iface().env; }
};

TEST_F(FactorTriangular, AllSlackBasisGivesIdentity) {
  const int n = 40;
  luc::Triangular t = luc::Make_Triangular(n, true, 7);
  std::vector<int> stat(size_t(2 * n + 1), 0);
  for (int i = 1; i <= n; ++i) stat[size_t(n + i)] = 2;
  t.p.stat = stat;
  ASSERT_EQ(t.p.Factor(), 0);
  vlu::VMI *env = Env();
  const vlu::LUF *luf = env->Luf;
  const vlu::VIM *vim = env->Vim;
  EXPECT_EQ(luf->Num_Slack, n);
  EXPECT_EQ(luf->Num_Post, n);
  EXPECT_EQ(luf->Num_Pre, 0);
  EXPECT_EQ(luf->NumVTria, n);
  EXPECT_EQ(luf->L_Cols, 0);
  EXPECT_EQ(luf->LFileUsed, 0);
  EXPECT_EQ(luf->RowFileUsed, luf->U_elefirst);
  EXPECT_EQ(luf->ColFileUsed, luf->U_colfirst);
  EXPECT_EQ(luf->U_numele, n);
  EXPECT_EQ(luf->U_colfirst, luf->ColUSpace - n + 1);
  for (int c = 1; c <= n; ++c) {
    EXPECT_EQ(luf->Clen.V[c], 1);
    EXPECT_EQ(luf->Ucmat.Val[luf->Cstr.V[c]], 1.0);
  }
  // Slacks stand in row order: position k holds the slack of row k.
  for (int k = 1; k <= n; ++k) {
    EXPECT_EQ(vim->Rnto.V[k], k);
    EXPECT_EQ(vim->Cbto.V[k], n + 1 + k);
    EXPECT_EQ(vim->Rwcl.V[k], n + 1 + k);
  }
  EXPECT_EQ(vim->Min_Pivot, 1.0);
  EXPECT_EQ(vim->Max_UFac, 1.0);
  EXPECT_EQ(vim->Num_Sing, 0);
  // The first good factorization runs the countdown out at once; the
  // tolerance is at its floor and stays there.
  EXPECT_EQ(vim->Tol_Wait, 25);
  EXPECT_EQ(vim->Tol_Piv_Rel, 0.05);
  EXPECT_TRUE(luc::Check_Factors(env));
}

TEST_F(FactorTriangular, EmptyProblem) {
  Problem p;
  p.n = 0;
  p.colStart = {1};
  p.stat = {0};
  ASSERT_EQ(p.Factor(), 0);
  EXPECT_EQ(Env()->Iin->Max_Mmat, 1);
  EXPECT_EQ(vlu::Size(Env()->Iin->Lisr), 1);
  EXPECT_EQ(Env()->Vim->Min_Pivot, 1.0);
}

class TriangularShapes : public FactorTriangular,
                         public ::testing::WithParamInterface<std::tuple<bool, int, double>> {};

TEST_P(TriangularShapes, FactorsReproduceTheBasis) {
  const bool lower = std::get<0>(GetParam());
  const int n = std::get<1>(GetParam());
  const double slacks = std::get<2>(GetParam());
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    luc::Triangular t = luc::Make_Triangular(n, lower, seed * 977 + n, 3.0, slacks);
    ASSERT_EQ(t.p.Factor(), 0) << "seed " << seed;
    vlu::VMI *env = Env();
    EXPECT_EQ(env->Luf->NumVTria, n);
    EXPECT_EQ(env->Luf->Num_Pre, 0);  // a triangular basis is all post-triangular
    EXPECT_EQ(env->Luf->L_Cols, 0);
    EXPECT_EQ(env->Vim->Num_Sing, 0);
    EXPECT_TRUE(luc::Check_Factors(env)) << "seed " << seed;
    // Every column pivots on its diagonal of the hidden order, every slack
    // on its own row.
    for (int k = 1; k <= n; ++k) {
      const int row = t.prow[size_t(k)];
      const int col = t.colOfPos[size_t(k)];
      const int expect = t.p.stat[size_t(col - 1)] == 2 ? col : n + 1 + row;
      ASSERT_EQ(env->Vim->Rwcl.V[row], expect) << "row " << row;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, TriangularShapes,
                         ::testing::Values(std::make_tuple(true, 1, 0.0),
                                           std::make_tuple(true, 2, 0.0),
                                           std::make_tuple(false, 2, 0.0),
                                           std::make_tuple(true, 300, 0.0),
                                           std::make_tuple(false, 300, 0.0),
                                           std::make_tuple(true, 500, 0.3),
                                           std::make_tuple(false, 500, 0.5),
                                           std::make_tuple(true, 64, 0.95)));

TEST_F(FactorTriangular, LargeLowerTriangle) {
  const int n = 200000;
  luc::Triangular t = luc::Make_Triangular(n, true, 11, 3.0, 0.1);
  ASSERT_EQ(t.p.Factor(), 0);
  EXPECT_EQ(Env()->Luf->NumVTria, n);
  EXPECT_TRUE(luc::Check_Factors(Env()));
}

TEST_F(FactorTriangular, LargeUpperTriangle) {
  const int n = 200000;
  luc::Triangular t = luc::Make_Triangular(n, false, 12, 3.0, 0.1);
  ASSERT_EQ(t.p.Factor(), 0);
  EXPECT_EQ(Env()->Luf->NumVTria, n);
  EXPECT_TRUE(luc::Check_Factors(Env()));
}

TEST_F(FactorTriangular, ColumnTWithKnownR) {
  // t and the structural columns 2..n of a lower triangle: t is full, so it
  // pivots on row 1 once the other rows are gone.
  const int n = 30;
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    cols[size_t(j - 1)].push_back({j, 2.0 + j});
    if (j + 3 <= n) cols[size_t(j - 1)].push_back({j + 3, 0.5});
  }
  Problem p = luc::From_Columns(n, cols);
  p.r.resize(size_t(n));
  for (int i = 1; i <= n; ++i) p.r[size_t(i - 1)] = (i % 4 == 0) ? 0.0 : 0.1 * i;
  p.r[0] = 3.0;
  for (int j = 2; j <= n; ++j) p.stat[size_t(j - 1)] = 2;
  p.stat[size_t(n)] = 2;  // column t
  ASSERT_EQ(p.Factor(), 0);
  vlu::VMI *env = Env();
  EXPECT_EQ(env->Vim->Rwcl.V[1], n + 1);
  // The zeros of r are not part of the basis.
  EXPECT_EQ(env->Iin->Zeros_Removed, n / 4);
  EXPECT_TRUE(luc::Check_Factors(env));
}

TEST_F(FactorTriangular, ElementsBelowTolZeroAreDropped) {
  const int n = 6;
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    cols[size_t(j - 1)].push_back({j, 1.0 + j});
    if (j < n) cols[size_t(j - 1)].push_back({j + 1, 1e-25});  // gone
    if (j + 2 <= n) cols[size_t(j - 1)].push_back({j + 2, -1e-19});  // kept
  }
  Problem p = luc::From_Columns(n, cols);
  for (int j = 1; j <= n; ++j) p.stat[size_t(j - 1)] = 2;
  ASSERT_EQ(p.Factor(), 0);
  vlu::VMI *env = Env();
  EXPECT_EQ(env->Iin->Zeros_Removed, n - 1);
  EXPECT_EQ(env->Luf->U_numele, n + (n - 2));
  EXPECT_TRUE(luc::Check_Factors(env));
}

TEST_F(FactorTriangular, SameBasisTwiceGivesSameFactors) {
  luc::Triangular t = luc::Make_Triangular(200, false, 99, 4.0, 0.2);
  ASSERT_EQ(t.p.Factor(), 0);
  const vlu::LUF *luf = Env()->Luf;
  std::vector<int> ic(luf->Ic.V + luf->U_elefirst, luf->Ic.V + luf->RowUSpace + 1);
  std::vector<double> au(Env()->Vim->AUrmat.Val + luf->U_elefirst,
                         Env()->Vim->AUrmat.Val + luf->RowUSpace + 1);
  std::vector<int> rnto(Env()->Vim->Rnto.V + 1, Env()->Vim->Rnto.V + 201);
  ASSERT_EQ(t.p.Factor(), 0);
  luf = Env()->Luf;
  std::vector<int> ic2(luf->Ic.V + luf->U_elefirst, luf->Ic.V + luf->RowUSpace + 1);
  std::vector<double> au2(Env()->Vim->AUrmat.Val + luf->U_elefirst,
                          Env()->Vim->AUrmat.Val + luf->RowUSpace + 1);
  std::vector<int> rnto2(Env()->Vim->Rnto.V + 1, Env()->Vim->Rnto.V + 201);
  EXPECT_EQ(ic, ic2);
  EXPECT_EQ(au, au2);
  EXPECT_EQ(rnto, rnto2);
}

TEST_F(FactorTriangular, BorrowedVectorsAreBackAndClean) {
  luc::Triangular t = luc::Make_Triangular(100, true, 5, 3.0, 0.2);
  ASSERT_EQ(t.p.Factor(), 0);
  vlu::VMI *env = Env();
  EXPECT_TRUE(env->Vim->WorkZ.Allocated());
  EXPECT_TRUE(env->Vim->HelpI.Allocated());
  EXPECT_TRUE(env->Vim->Rnto.Allocated());
  EXPECT_TRUE(env->Vim->Cnto.Allocated());
  EXPECT_FALSE(env->Iin->Clmin.Allocated());
  EXPECT_FALSE(env->Iin->Indr.Allocated());
  for (int i = 1; i <= 101; ++i) EXPECT_EQ(env->Vim->WorkZ.Val[i], 0.0);
  for (int i = 1; i <= 101; ++i) EXPECT_EQ(env->Vim->HelpZ.V[i], 0);
}

TEST_F(FactorTriangular, BumpVectorsAndSpaceAreSized) {
  const int n = 1000;
  luc::Triangular t = luc::Make_Triangular(n, true, 3, 3.0, 0.0);
  ASSERT_EQ(t.p.Factor(), 0);
  vlu::VMI *env = Env();
  const vlu::IIN *iin = env->Iin;
  const vlu::LUF *luf = env->Luf;
  int elemnt = 0;
  for (int j = 1; j <= n; ++j) elemnt += t.p.colStart[size_t(j)] - t.p.colStart[size_t(j - 1)];
  const int b = std::max(16, std::min(10 * elemnt / n + 1, n));
  EXPECT_EQ(iin->Max_Mmat, b);
  for (const vlu::IntVec *v : {&iin->Lisr, &iin->Rlol, &iin->Lisc, &iin->Clol})
    EXPECT_EQ(vlu::Size(*v), b);
  EXPECT_EQ(vlu::Size(iin->Lngr), b);
  EXPECT_EQ(iin->Rlin.Length, b);
  EXPECT_EQ(iin->Rlin.NumThread, 1);
  EXPECT_EQ(vlu::Size(iin->Mmat), n);
  // MarkBad: 2000 raised to the next prime.
  EXPECT_EQ(iin->MarkBad, 2003);
  EXPECT_EQ(iin->MarkOver, 2002);
  EXPECT_EQ(iin->MarkMax, 2001);
  EXPECT_EQ(vlu::Size(iin->Stmc), 2003);
  // The stores hold what the rules demand for this basis.
  EXPECT_GE(luf->RowUSpace, 4 * elemnt + 8 * n);
  EXPECT_GE(luf->ColASpace, static_cast<int>(1.5 * 2.0 * (elemnt + n) + 8 * n));
  EXPECT_GE(vlu::Size(luf->Lmat), 2 * n);
  EXPECT_GE(vlu::Size(luf->Ucmat), n + iin->MarkBad);
  EXPECT_EQ(luf->ColUSpace, std::min(vlu::Size(luf->Ir), vlu::Size(luf->Ucmat)));
  EXPECT_EQ(luf->U_numini, luf->U_numele);
  EXPECT_EQ(luf->LFileIni, luf->LFileUsed);
  EXPECT_EQ(luf->RowFileUsed, luf->U_elefirst);
}

}  // namespace
