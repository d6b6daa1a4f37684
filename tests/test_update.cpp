// vlu_update through the exported interface: the checks of the caller's
// status array, column t entering from the last solve, the update limit and
// the refactorization road.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "interface/state.h"
#include "triangular_support.h"
#include "vardenlu.h"

namespace {

class Update : public ::testing::Test {
 protected:
  tri::Lines lines;
  tri::System s;
  std::vector<int> stat;
  std::vector<double> sol;
  int zero = 0, one = 1;

  void SetUp() override {
    vlu_destroy();
    vlu_regmsgcb(&lines, tri::Keep_Lines);
    ASSERT_EQ(vlu_create(), 0);
    s = tri::Make_System(40, tri::Shape::Lower, 2024, true, 3.0, 0.3);
    stat = s.c.basis;
    sol.assign(81, 0.0);
  }
  void TearDown() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
  }
  int Factor() { return tri::Factor(s.c, stat); }

  // The change at position k: its matrix column leaves for the slack of its
  // row, or the slack leaves for the column.  Fills q (entering), l (leaving).
  void Change_At(int k, int &q, int &l) {
    const int n = s.c.n;
    const int col = s.colOfPos[static_cast<size_t>(k)];
    const int slack = n + 1 + s.prow[static_cast<size_t>(k)];
    if (stat[static_cast<size_t>(col - 1)] == 2) {
      q = slack;
      l = col;
    } else {
      q = col;
      l = slack;
    }
  }

  // One basis change as a simplex makes it: solve with the entering column,
  // then the update.  Returns the update's result.
  int Step(int q, int l, const int *force) {
    std::vector<double> a(static_cast<size_t>(s.c.n), 0.0);
    vlu_case::For_Column(s.c, q, [&](int i, double v) { a[static_cast<size_t>(i - 1)] = v; });
    vlu_solve(sol.data(), a.data());
    stat[static_cast<size_t>(q - 1)] = 2;
    stat[static_cast<size_t>(l - 1)] = 0;
    return vlu_update(stat.data(), &q, &l, force);
  }

  void Expect_Solution_Right() {
    std::vector<double> b(static_cast<size_t>(s.c.n), 1.0), x;
    vlu_solve(sol.data(), b.data());
    ASSERT_TRUE(tri::Independent_Solve(s.c, stat, b, x));
    EXPECT_LT(tri::Max_Rel_Dev(s.c, stat, sol.data(), x), 1e-12);
    EXPECT_LT(vlu_case::Rel_Residual(s.c, stat, sol.data(), b.data()), 1e-13);
  }

  void Stats(int &f, int &u, int &r) { vlu_getstats(&f, &u, &r); }
};

TEST_F(Update, ForceFactorRefactorizes) {
  ASSERT_EQ(Factor(), 0);
  int f0, u0, r0;
  Stats(f0, u0, r0);
  int q, l;
  Change_At(7, q, l);
  EXPECT_EQ(Step(q, l, &one), 1);
  int f1, u1, r1;
  Stats(f1, u1, r1);
  EXPECT_EQ(f1, f0);
  EXPECT_EQ(u1, u0);
  EXPECT_EQ(r1, r0 + 1);
  EXPECT_EQ(vlu::Iface().vim->Updates_Done, 0);
  EXPECT_EQ(vlu::Iface().curStat[q], 2);
  EXPECT_EQ(vlu::Iface().curStat[l], 0);
  EXPECT_EQ(vlu::Iface().vim->Basc[q], 2);
  EXPECT_EQ(vlu::Iface().vim->Basc[l], 0);
  EXPECT_EQ(vlu_getnumsing(), 0);
  Expect_Solution_Right();
}

TEST_F(Update, LimitZeroRefactorizesEveryChange) {
  int limit = 0;
  vlu_setupdatelimit(&limit);
  ASSERT_EQ(Factor(), 0);
  for (int t = 0; t < 12; ++t) {
    int q, l;
    Change_At(1 + (t * 7) % 40, q, l);
    EXPECT_EQ(Step(q, l, &zero), 1) << "change " << t;
  }
  int f, u, r;
  Stats(f, u, r);
  EXPECT_EQ(f, 1);
  EXPECT_EQ(u, 0);
  EXPECT_EQ(r, 12);
  Expect_Solution_Right();
}

TEST_F(Update, LimitThreeRefactorizesAtTheFourthUpdate) {
  int limit = 3;
  vlu_setupdatelimit(&limit);
  ASSERT_EQ(Factor(), 0);
  EXPECT_EQ(vlu::Iface().env->Max_Updates, 3);
  int run = 0;
  for (int t = 0; t < 10; ++t) {
    int q, l;
    Change_At(1 + (t * 11) % 40, q, l);
    const int rc = Step(q, l, &zero);
    ASSERT_TRUE(rc == 1 || rc == 2) << rc;
    run = rc == 2 ? run + 1 : 0;
    EXPECT_LE(run, 3) << "more than three updates in a row";
    EXPECT_LE(vlu::Iface().vim->Updates_Done, 3);
    Expect_Solution_Right();
  }
  int f, u, r;
  Stats(f, u, r);
  EXPECT_EQ(u + r, 10);
}

TEST_F(Update, ColumnTEntersWithTheLastRightHandSide) {
  ASSERT_EQ(Factor(), 0);
  const int n = s.c.n;
  // Column t replaces the column at position 5: it needs its diagonal in
  // that row and other entries in rows of later positions.  A first solve
  // with another vector must not count.
  const int k = 5;
  std::vector<double> v(static_cast<size_t>(n), 0.0), other(static_cast<size_t>(n), 3.0);
  v[static_cast<size_t>(s.prow[k] - 1)] = 2.5;
  v[static_cast<size_t>(s.prow[17] - 1)] = -0.75;
  v[static_cast<size_t>(s.prow[40] - 1)] = 0.125;
  vlu_solve(sol.data(), other.data());
  vlu_solve(sol.data(), v.data());

  int q = n + 1, l = s.colOfPos[k];
  if (stat[static_cast<size_t>(l - 1)] != 2) l = n + 1 + s.prow[k];
  stat[static_cast<size_t>(q - 1)] = 2;
  stat[static_cast<size_t>(l - 1)] = 0;
  const int rc = vlu_update(stat.data(), &q, &l, &zero);
  EXPECT_TRUE(rc == 1 || rc == 2);
  EXPECT_TRUE(vlu::Iface().rKnown);
  const int nz = s.c.nz;
  for (int i = 1; i <= n; ++i)
    EXPECT_EQ(vlu::Iface().vim->Jace[nz + i], v[static_cast<size_t>(i - 1)]) << "row " << i;

  // The basis with t = v solves like any other; rSave no longer follows.
  s.c.r = v;
  s.c.hasR = true;
  Expect_Solution_Right();
  for (int i = 1; i <= n; ++i) EXPECT_EQ(vlu::Iface().rSave[i], v[static_cast<size_t>(i - 1)]);
}

class UpdateDeath : public Update {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Update::SetUp();
    ASSERT_EQ(Factor(), 0);
    Change_At(3, q, l);
    stat[static_cast<size_t>(q - 1)] = 2;
    stat[static_cast<size_t>(l - 1)] = 0;
  }
  int q = 0, l = 0;
  int Call() { return vlu_update(stat.data(), &q, &l, &zero); }
};

TEST_F(UpdateDeath, EnteringColumnAlreadyBasic) {
  int basicCol = 0;
  for (int j = 1; j <= 81 && basicCol == 0; ++j)
    if (s.c.basis[static_cast<size_t>(j - 1)] == 2 && j != l) basicCol = j;
  q = basicCol;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE),
              "update AAA: entering column is already basic");
}

TEST_F(UpdateDeath, EnteringColumnNotBasicInCallerArray) {
  stat[static_cast<size_t>(q - 1)] = 0;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE), "update BBB: bogus basisStat");
}

TEST_F(UpdateDeath, LeavingColumnAlreadyNonbasic) {
  int nonbasic = 0;
  for (int j = 1; j <= 81 && nonbasic == 0; ++j)
    if (s.c.basis[static_cast<size_t>(j - 1)] == 0 && j != q && j != 41) nonbasic = j;
  stat[static_cast<size_t>(l - 1)] = 2;
  l = nonbasic;
  stat[static_cast<size_t>(l - 1)] = 0;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE),
              "update CCC: leaving column is already nonbasic");
}

TEST_F(UpdateDeath, LeavingColumnStillBasicInCallerArray) {
  stat[static_cast<size_t>(l - 1)] = 2;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE), "update DDD: bogus basisStat");
}

TEST_F(UpdateDeath, AnotherColumnDiffers) {
  int other = 0;
  for (int j = 1; j <= 81 && other == 0; ++j)
    if (j != q && j != l && stat[static_cast<size_t>(j - 1)] == 0) other = j;
  stat[static_cast<size_t>(other - 1)] = 1;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE), "update ZZZ: bogus basisStat");
}

TEST_F(UpdateDeath, ChecksComeInOrder) {
  // Entering basic in the library's copy and the leaving column wrong too:
  // the entering check is first.
  int basicCol = 0;
  for (int j = 1; j <= 81 && basicCol == 0; ++j)
    if (s.c.basis[static_cast<size_t>(j - 1)] == 2 && j != l) basicCol = j;
  q = basicCol;
  stat[static_cast<size_t>(l - 1)] = 2;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE), "update AAA");
}

TEST_F(UpdateDeath, ColumnOutOfRange) {
  q = 82;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE), "VMI%Exception is not zero");
}

TEST_F(UpdateDeath, ColumnTEntersWhenRIsKnown) {
  s.c.r.assign(40, 0.0);
  s.c.hasR = true;
  stat = s.c.basis;
  ASSERT_EQ(Factor(), 0);
  const int k = 6;
  q = 41;
  l = s.colOfPos[k];
  if (stat[static_cast<size_t>(l - 1)] != 2) l = 41 + s.prow[k];
  stat[static_cast<size_t>(q - 1)] = 2;
  stat[static_cast<size_t>(l - 1)] = 0;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE),
              "update CCC: r entering basis but already in");
}

TEST_F(UpdateDeath, ColumnTCannotEnterTwice) {
  stat = s.c.basis;
  ASSERT_EQ(Factor(), 0);
  const int k = 6;
  const int slack = 41 + s.prow[k];
  int out = s.colOfPos[k];
  if (stat[static_cast<size_t>(out - 1)] != 2) out = slack;
  std::vector<double> v(40, 0.0);
  v[static_cast<size_t>(s.prow[k] - 1)] = 1.5;
  vlu_solve(sol.data(), v.data());
  q = 41;
  l = out;
  stat[40] = 2;
  stat[static_cast<size_t>(l - 1)] = 0;
  int rc = Call();
  ASSERT_TRUE(rc == 1 || rc == 2) << rc;
  // t leaves for the slack of its row, then tries to come back.
  q = slack;
  l = 41;
  if (stat[static_cast<size_t>(slack - 1)] == 2) GTEST_SKIP();
  stat[static_cast<size_t>(q - 1)] = 2;
  stat[40] = 0;
  rc = Call();
  ASSERT_TRUE(rc == 1 || rc == 2) << rc;
  q = 41;
  l = slack;
  stat[40] = 2;
  stat[static_cast<size_t>(slack - 1)] = 0;
  EXPECT_EXIT(Call(), ::testing::ExitedWithCode(EXIT_FAILURE),
              "update CCC: r entering basis but already in");
}

TEST_F(Update, SingularChangeReturnsThree) {
  if (!tri::Bump_Supported()) GTEST_SKIP() << "bases with a bump are not factorized yet";
  // Two copies of the same column: with one basic, the other entering for
  // the slack of the second row makes the basis singular.
  int n = 2, nz = 4;
  std::vector<int> colStart = {1, 3, 5}, rowIdx = {1, 2, 1, 2}, colIdx = {1, 1, 2, 2};
  std::vector<double> val = {1.0, 1.0, 1.0, 1.0};
  std::vector<int> st = {2, 0, 0, 0, 2};
  ASSERT_EQ(vlu_factor(&n, &nz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(),
                       nullptr, st.data()),
            0);
  int q = 2, l = 5;
  st[1] = 2;
  st[4] = 0;
  EXPECT_EQ(vlu_update(st.data(), &q, &l, &zero), 3);
  EXPECT_EQ(vlu_getnumsing(), 1);
  int f, u, r;
  Stats(f, u, r);
  EXPECT_EQ(r, 0);
  // The library's copy follows the caller; the repaired basis has a slack.
  EXPECT_EQ(vlu::Iface().curStat[2], 2);
  // A new factorization is the way out, and a later update resets the count.
  std::vector<int> back = {2, 0, 0, 0, 2};
  ASSERT_EQ(vlu_factor(&n, &nz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(),
                       nullptr, back.data()),
            0);
  EXPECT_EQ(vlu_getnumsing(), 0);
}

TEST_F(Update, TinyEnteringPivotReturnsThree) {
  // The entering column's only element is below the absolute pivot
  // tolerance: the refactorization puts the slack back and reports it.
  int n = 2, nz = 2;
  std::vector<int> colStart = {1, 2, 3}, rowIdx = {1, 2}, colIdx = {1, 2};
  std::vector<double> val = {1.0, 1.0e-12};
  std::vector<int> st = {2, 0, 0, 0, 2};
  ASSERT_EQ(vlu_factor(&n, &nz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(),
                       nullptr, st.data()),
            0);
  int q = 2, l = 5;
  st[1] = 2;
  st[4] = 0;
  EXPECT_EQ(vlu_update(st.data(), &q, &l, &zero), 3);
  EXPECT_EQ(vlu_getnumsing(), 1);
  int f, u, r;
  Stats(f, u, r);
  EXPECT_EQ(f, 1);
  EXPECT_EQ(u, 0);
  EXPECT_EQ(r, 0);
  EXPECT_EQ(vlu::Iface().curStat[2], 2);
  EXPECT_EQ(vlu::Iface().env->Vim->Basc[2], 0);
  EXPECT_EQ(vlu::Iface().env->Vim->Basc[5], 2);
}

}  // namespace
