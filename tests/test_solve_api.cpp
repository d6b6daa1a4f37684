// vlu_solve through the exported interface, on bases that factorize
// without a bump: residuals, the marking of nonbasic columns, rSave.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <cstring>
#include <vector>

#include "interface/state.h"
#include "triangular_support.h"
#include "vardenlu.h"

namespace {

class SolveApi : public ::testing::Test {
 protected:
  tri::Lines lines;
  void SetUp() override {
    vlu_destroy();
    vlu_regmsgcb(&lines, tri::Keep_Lines);
    ASSERT_EQ(vlu_create(), 0);
  }
  void TearDown() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
  }
};

bool Is_Dbl_Max(double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits == 0x7FEFFFFFFFFFFFFFull;
}

// Solves with b and checks against the independent triangular solve.
void Check_Solve(const vlu_case::Case &c, const std::vector<int> &stat,
                 const std::vector<double> &b, double tolRes = 1e-13) {
  std::vector<double> sol(2 * static_cast<size_t>(c.n) + 1, 0.0), x;
  ASSERT_EQ(vlu_solve(sol.data(), b.data()), 0);
  EXPECT_LT(vlu_case::Rel_Residual(c, stat, sol.data(), b.data()), tolRes);
  ASSERT_TRUE(tri::Independent_Solve(c, stat, b, x));
  EXPECT_LT(tri::Max_Rel_Dev(c, stat, sol.data(), x), 1e-12);
  for (int j = 1; j <= 2 * c.n + 1; ++j)
    if (stat[static_cast<size_t>(j - 1)] != 2) {
      EXPECT_TRUE(Is_Dbl_Max(sol[static_cast<size_t>(j - 1)])) << "column " << j;
    } else {
      EXPECT_FALSE(Is_Dbl_Max(sol[static_cast<size_t>(j - 1)])) << "column " << j;
    }
}

std::vector<double> Random_Rhs(int n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  std::vector<double> b(static_cast<size_t>(n));
  for (double &v : b) v = uni(gen);
  return b;
}

struct Shape {
  tri::Shape shape;
  bool permute;
  int n;
  double slacks;
};

class TriangularSolve : public SolveApi, public ::testing::WithParamInterface<Shape> {};

TEST_P(TriangularSolve, ResidualsAreSmall) {
  const Shape p = GetParam();
  tri::System s = tri::Make_System(p.n, p.shape, 1000 + static_cast<uint64_t>(p.n), p.permute,
                                   3.0, p.slacks);
  ASSERT_EQ(tri::Factor(s.c, s.c.basis), 0);
  Check_Solve(s.c, s.c.basis, std::vector<double>(static_cast<size_t>(p.n), 1.0));
  Check_Solve(s.c, s.c.basis, Random_Rhs(p.n, 77));
  // A triangular basis needs no L: everything is in U.
  const vlu::LUF *luf = vlu::Iface().env->Luf;
  EXPECT_EQ(luf->LFileUsed, 0);
  EXPECT_EQ(luf->U_numele, static_cast<int32_t>(vlu_case::Nnz_B(s.c, s.c.basis)));
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, TriangularSolve,
    ::testing::Values(Shape{tri::Shape::Lower, false, 1, 0.0}, Shape{tri::Shape::Lower, false, 9, 0.0},
                      Shape{tri::Shape::Upper, false, 9, 0.0}, Shape{tri::Shape::Lower, true, 300, 0.0},
                      Shape{tri::Shape::Upper, true, 300, 0.0}, Shape{tri::Shape::Lower, true, 2000, 0.3},
                      Shape{tri::Shape::Upper, true, 2000, 0.3}, Shape{tri::Shape::Upper, false, 500, 0.5}));

TEST_F(SolveApi, LargeTriangularBasis) {
  const int n = 200000;
  tri::System s = tri::Make_System(n, tri::Shape::Lower, 4242, true, 2.0, 0.2);
  ASSERT_EQ(tri::Factor(s.c, s.c.basis), 0);
  Check_Solve(s.c, s.c.basis, Random_Rhs(n, 5));
}

TEST_F(SolveApi, ZeroRightHandSideGivesPlainZeros) {
  tri::System s = tri::Make_System(50, tri::Shape::Upper, 3, true, 3.0, 0.3);
  ASSERT_EQ(tri::Factor(s.c, s.c.basis), 0);
  std::vector<double> b(50, 0.0), sol(101, 1.0);
  b[7] = -0.0;
  ASSERT_EQ(vlu_solve(sol.data(), b.data()), 0);
  int basic = 0;
  for (int j = 1; j <= 101; ++j) {
    const double v = sol[static_cast<size_t>(j - 1)];
    if (s.c.basis[static_cast<size_t>(j - 1)] == 2) {
      ++basic;
      EXPECT_EQ(v, 0.0);
      EXPECT_FALSE(std::signbit(v)) << "column " << j;
    } else {
      EXPECT_TRUE(Is_Dbl_Max(v));
    }
  }
  EXPECT_EQ(basic, 50);
  EXPECT_EQ(vlu::Iface().vim->Num_UpNz, 0);
}

TEST_F(SolveApi, AllSlackBasisReturnsTheRightHandSide) {
  const int n = 5;
  int nn = n, nz = 2;
  std::vector<int> colStart = {1, 2, 2, 3, 3, 3};
  std::vector<int> rowIdx = {2, 4}, colIdx = {1, 3};
  std::vector<double> val = {3.0, -1.0};
  std::vector<int> stat(2 * n + 1, 0);
  for (int i = 1; i <= n; ++i) stat[static_cast<size_t>(n + i)] = 2;
  ASSERT_EQ(vlu_factor(&nn, &nz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(),
                       nullptr, stat.data()),
            0);
  std::vector<double> rhs = {1.5, -2.0, 0.0, 4.25, 1e-300}, sol(2 * n + 1, 0.0);
  const std::vector<double> copy = rhs;
  ASSERT_EQ(vlu_solve(sol.data(), rhs.data()), 0);
  EXPECT_EQ(rhs, copy);
  for (int j = 1; j <= n + 1; ++j) EXPECT_TRUE(Is_Dbl_Max(sol[static_cast<size_t>(j - 1)]));
  for (int i = 1; i <= n; ++i) EXPECT_EQ(sol[static_cast<size_t>(n + i)], rhs[static_cast<size_t>(i - 1)]);
}

TEST_F(SolveApi, EmptySystemMarksTheOnlyColumn) {
  int n = 0, nz = 0;
  std::vector<int> colStart = {1}, stat = {0};
  int dummyI = 0;
  double dummyD = 0.0;
  ASSERT_EQ(vlu_factor(&n, &nz, colStart.data(), &dummyI, &dummyI, &dummyD, nullptr, stat.data()),
            0);
  double sol[1] = {0.0};
  ASSERT_EQ(vlu_solve(sol, &dummyD), 0);
  EXPECT_TRUE(Is_Dbl_Max(sol[0]));
}

TEST_F(SolveApi, ColumnTBasicWithKnownCoefficients) {
  // Column t takes the place of the matrix column at position 4 of a lower
  // triangular system: its diagonal in that row, the rest in later rows or
  // zero.
  tri::System s = tri::Make_System(12, tri::Shape::Lower, 99, true);
  vlu_case::Case &c = s.c;
  const int k = 4;
  c.r.assign(12, 0.0);
  c.r[static_cast<size_t>(s.prow[k] - 1)] = -1.25;
  c.r[static_cast<size_t>(s.prow[9] - 1)] = 0.5;
  c.r[static_cast<size_t>(s.prow[12] - 1)] = 0.25;
  c.hasR = true;
  c.basis[static_cast<size_t>(s.colOfPos[k] - 1)] = 0;
  c.basis[12] = 2;
  ASSERT_EQ(tri::Factor(c, c.basis), 0);
  Check_Solve(c, c.basis, Random_Rhs(12, 8));
}

TEST_F(SolveApi, RSaveHoldsTheLastRightHandSideWhileRIsUnknown) {
  tri::System s = tri::Make_System(30, tri::Shape::Lower, 17, true);
  ASSERT_EQ(tri::Factor(s.c, s.c.basis), 0);
  EXPECT_FALSE(vlu::Iface().rKnown);
  std::vector<double> sol(61), b1 = Random_Rhs(30, 1), b2 = Random_Rhs(30, 2);
  vlu_solve(sol.data(), b1.data());
  for (int i = 1; i <= 30; ++i) EXPECT_EQ(vlu::Iface().rSave[i], b1[static_cast<size_t>(i - 1)]);
  vlu_solve(sol.data(), b2.data());
  for (int i = 1; i <= 30; ++i) EXPECT_EQ(vlu::Iface().rSave[i], b2[static_cast<size_t>(i - 1)]);

  // With r known, the solves leave rSave alone.
  s.c.r.assign(30, 0.0);
  s.c.hasR = true;
  ASSERT_EQ(tri::Factor(s.c, s.c.basis), 0);
  EXPECT_TRUE(vlu::Iface().rKnown);
  vlu_solve(sol.data(), b1.data());
  for (int i = 1; i <= 30; ++i) EXPECT_EQ(vlu::Iface().rSave[i], 0.0);
}

TEST_F(SolveApi, ANonbasicPivotColumnStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  tri::System s = tri::Make_System(10, tri::Shape::Lower, 21, true);
  ASSERT_EQ(tri::Factor(s.c, s.c.basis), 0);
  std::vector<double> sol(21), b(10, 1.0);
  EXPECT_EXIT(
      {
        vlu::VIM *vim = vlu::Iface().env->Vim;
        vim->Basc[vim->Rwcl[3]] = 0;
        vlu_solve(sol.data(), b.data());
      },
      ::testing::ExitedWithCode(EXIT_FAILURE), "Basis Bogus AAA");
}

}  // namespace
