// vlu_solve through the exported interface on bases without a bump:
// residuals, the marking of nonbasic columns, and rSave.
#include <cfloat>

#include "interface/state.h"
#include "support/lu_check.h"

namespace {

using SolveApi = luc::ApiTest;

std::vector<double> Random_Rhs(int n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  std::vector<double> b(n);
  for (double &v : b) v = uni(gen);
  return b;
}

TEST_F(SolveApi, TriangularBasesHaveSmallResiduals) {
  const struct {
    luc::Shape shape;
    bool permute;
    int n;
    double slacks;
  } shapes[] = {{luc::Shape::Lower, false, 1, 0.0},      {luc::Shape::Lower, false, 9, 0.0},
                {luc::Shape::Upper, false, 9, 0.0},      {luc::Shape::Lower, true, 300, 0.0},
                {luc::Shape::Upper, true, 300, 0.0},     {luc::Shape::Lower, true, 2000, 0.3},
                {luc::Shape::Upper, true, 2000, 0.3},    {luc::Shape::Upper, false, 500, 0.5},
                {luc::Shape::Lower, true, 200000, 0.2}};
  for (const auto &p : shapes) {
    SCOPED_TRACE(::testing::Message() << (p.shape == luc::Shape::Lower ? "lower" : "upper")
                                      << (p.permute ? " permuted" : "") << " n=" << p.n);
    Restart();
    const luc::Triangular s = luc::Make_Triangular(p.n, p.shape, 1000 + p.n, p.permute, p.slacks);
    const vlu_case::Case &c = s.c;
    ASSERT_EQ(luc::Factor(c, c.basis), 0);
    // Without a bump everything goes to U and nothing to L.
    EXPECT_EQ(vlu::Iface().env->Luf->LFileUsed, 0);
    EXPECT_EQ(vlu::Iface().env->Luf->U_numele, vlu_case::Nnz_B(c, c.basis));
    EXPECT_LT(luc::Solve_Residual(c, c.basis, std::vector<double>(p.n, 1.0)), 1e-13);
    EXPECT_LT(luc::Solve_Residual(c, c.basis, Random_Rhs(p.n, 77)), 1e-13);

    // b = 0, one entry of it -0: every basic column reads +0, every other
    // one DBL_MAX.
    std::vector<double> b(p.n, 0.0), sol;
    b[p.n / 2] = -0.0;
    luc::Solve_Residual(c, c.basis, b, &sol);
    int wrong = 0;
    for (int j = 1; j <= 2 * p.n + 1; ++j)
      wrong += c.basis[j - 1] == 2 ? sol[j - 1] != 0.0 || std::signbit(sol[j - 1])
                                   : sol[j - 1] != DBL_MAX;
    EXPECT_EQ(wrong, 0);
  }
}

TEST_F(SolveApi, AllSlackBasisReturnsTheRightHandSide) {
  const int n = 5;
  int nn = n, nz = 2;
  std::vector<int> colStart = {1, 2, 2, 3, 3, 3}, rowIdx = {2, 4}, colIdx = {1, 3};
  std::vector<double> val = {3.0, -1.0};
  std::vector<int> stat(2 * n + 1, 0);
  for (int i = 1; i <= n; ++i) stat[n + i] = 2;
  ASSERT_EQ(vlu_factor(&nn, &nz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(),
                       nullptr, stat.data()),
            0);
  const std::vector<double> rhs = {1.5, -2.0, 0.0, 4.25, 1e-300};
  std::vector<double> sol(2 * n + 1, 0.0);
  ASSERT_EQ(vlu_solve(sol.data(), rhs.data()), 0);
  for (int j = 1; j <= n + 1; ++j) EXPECT_EQ(sol[j - 1], DBL_MAX) << "column " << j;
  for (int i = 1; i <= n; ++i) EXPECT_EQ(sol[n + i], rhs[i - 1]) << "slack of row " << i;
}

TEST_F(SolveApi, EmptySystemMarksTheOnlyColumn) {
  int n = 0, nz = 0, colStart = 1, stat = 0, dummyI = 0;
  double dummyD = 0.0, sol = 0.0;
  ASSERT_EQ(vlu_factor(&n, &nz, &colStart, &dummyI, &dummyI, &dummyD, nullptr, &stat), 0);
  ASSERT_EQ(vlu_solve(&sol, &dummyD), 0);
  EXPECT_EQ(sol, DBL_MAX);
}

TEST_F(SolveApi, RSaveHoldsTheLastRightHandSideWhileRIsUnknown) {
  luc::Triangular s = luc::Make_Triangular(30, luc::Shape::Lower, 17);
  ASSERT_EQ(luc::Factor(s.c, s.c.basis), 0);
  ASSERT_FALSE(vlu::Iface().rKnown);
  std::vector<double> sol(61);
  for (uint64_t seed : {1, 2}) {
    const std::vector<double> b = Random_Rhs(30, seed);
    vlu_solve(sol.data(), b.data());
    for (int i = 1; i <= 30; ++i) EXPECT_EQ(vlu::Iface().rSave[i], b[i - 1]) << "solve " << seed;
  }
  // Once r is known, solves leave rSave alone.
  s.c.r.assign(30, 0.0);
  s.c.hasR = true;
  ASSERT_EQ(luc::Factor(s.c, s.c.basis), 0);
  ASSERT_TRUE(vlu::Iface().rKnown);
  const std::vector<double> b = Random_Rhs(30, 3);
  vlu_solve(sol.data(), b.data());
  for (int i = 1; i <= 30; ++i) EXPECT_EQ(vlu::Iface().rSave[i], 0.0);
}

}  // namespace
