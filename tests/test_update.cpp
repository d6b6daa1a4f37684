// vlu_update through the exported interface: the update limit, forced
// refactorization, column t entering from the last solve, the changes that
// return 3, and the hard stops on a bad call.
#include <functional>

#include "interface/state.h"
#include "support/lu_check.h"

namespace {

class Update : public luc::ApiTest {
 protected:
  luc::Triangular s = luc::Make_Triangular(40, luc::Shape::Lower, 2024, true, 0.3);
  std::vector<int> stat = s.c.basis;
  int zero = 0;

  int Factor() { return luc::Factor(s.c, stat); }
  // The change at position k that keeps the basis triangular.
  int Step(int k, int force = 0) {
    int q, l;
    luc::Swap_At(s, stat, k, q, l);
    return luc::Change(s.c, stat, q, l, force);
  }
  double Residual() { return luc::Solve_Residual(s.c, stat, std::vector<double>(s.c.n, 1.0)); }
  std::vector<int> Stats() {
    std::vector<int> v(3);
    vlu_getstats(&v[0], &v[1], &v[2]);
    return v;
  }

  // Two columns; column 1 and the slack of row 2 are basic, then column 2
  // enters for that slack.  Returns the update's result.
  luc::Problem two;
  int Column_Two_Enters(const luc::Cols &cols) {
    two = luc::From_Columns(2, cols);
    EXPECT_EQ(luc::Factor(two, {2, 0, 0, 0, 2}), 0);
    std::vector<int> st = {2, 2, 0, 0, 0};
    int q = 2, l = 5;
    return vlu_update(st.data(), &q, &l, &zero);
  }
};

TEST_F(Update, ForceFactorRefactorizes) {
  ASSERT_EQ(Factor(), 0);
  const int first = Step(3);
  ASSERT_TRUE(first == 1 || first == 2) << first;
  const std::vector<int> before = Stats();  // factor, update, refactor
  EXPECT_EQ(Step(7, 1), 1);
  EXPECT_EQ(Stats(), (std::vector<int>{before[0], before[1], before[2] + 1}));
  EXPECT_EQ(vlu::Iface().vim->Updates_Done, 0);
  EXPECT_LT(Residual(), 1e-13);
}

TEST_F(Update, LimitsZeroAndThree) {
  for (int limit : {0, 3}) {
    SCOPED_TRACE(::testing::Message() << "limit " << limit);
    Restart();
    vlu_setupdatelimit(&limit);
    stat = s.c.basis;
    ASSERT_EQ(Factor(), 0);
    EXPECT_EQ(vlu::Iface().env->Max_Updates, limit);
    int run = 0;  // updates in a row
    for (int t = 0; t < 12; ++t) {
      const int rc = Step(1 + t * 7 % 40);
      ASSERT_TRUE(rc == 1 || rc == 2) << "change " << t << " result " << rc;
      if (run == limit) {
        EXPECT_EQ(rc, 1) << "change " << t << " after " << run << " updates";
      }
      run = rc == 2 ? run + 1 : 0;
      EXPECT_LE(vlu::Iface().vim->Updates_Done, limit);
      EXPECT_LT(Residual(), 1e-13) << "after change " << t;
    }
    const std::vector<int> st = Stats();
    EXPECT_EQ(st[0], 1);
    EXPECT_EQ(st[1] + st[2], 12);
  }
}

TEST_F(Update, ColumnTEntersWithTheLastRightHandSide) {
  ASSERT_EQ(Factor(), 0);
  const int n = s.c.n, k = 1;
  // t takes the first position, so that every row may hold an entry; only
  // the last solve before the update counts.
  std::vector<double> v(n), other(n, 3.0);
  for (int i = 0; i < n; ++i) v[i] = 0.25 * std::sin(i + 1.0);
  v[s.prow[k] - 1] = 2.5;
  std::vector<double> sol(2 * n + 1);
  vlu_solve(sol.data(), other.data());
  vlu_solve(sol.data(), v.data());
  int q, l;
  luc::Swap_At(s, stat, k, q, l);
  q = n + 1;
  stat[q - 1] = 2;
  stat[l - 1] = 0;
  const int rc = vlu_update(stat.data(), &q, &l, &zero);
  EXPECT_TRUE(rc == 1 || rc == 2) << rc;
  ASSERT_TRUE(vlu::Iface().rKnown);
  for (int i = 1; i <= n; ++i) EXPECT_EQ(vlu::Iface().vim->Jace[s.c.nz + i], v[i - 1]) << i;
  // The basis with t = v solves right, and rSave no longer follows.
  s.c.r = v;
  s.c.hasR = true;
  EXPECT_LT(Residual(), 1e-13);
  for (int i = 1; i <= n; ++i) EXPECT_EQ(vlu::Iface().rSave[i], v[i - 1]) << i;
}

TEST_F(Update, SingularChangeReturnsThree) {
  // Two equal columns: the second entering for the slack makes B singular.
  EXPECT_EQ(Column_Two_Enters({{{1, 1.0}, {2, 1.0}}, {{1, 1.0}, {2, 1.0}}}), 3);
  EXPECT_EQ(vlu_getnumsing(), 1);
  EXPECT_EQ(Stats()[2], 0);
  EXPECT_EQ(vlu::Iface().curStat[2], 2);  // the library's copy follows the caller
  // A new factorization is the way out.
  ASSERT_EQ(luc::Factor(two, {2, 0, 0, 0, 2}), 0);
  EXPECT_EQ(vlu_getnumsing(), 0);
}

TEST_F(Update, TinyEnteringPivotReturnsThree) {
  // The entering column's only element is below the absolute pivot
  // tolerance: the refactorization puts the slack back and reports it.
  EXPECT_EQ(Column_Two_Enters({{{1, 1.0}}, {{2, 1.0e-12}}}), 3);
  EXPECT_EQ(vlu_getnumsing(), 1);
  EXPECT_EQ(Stats(), (std::vector<int>{1, 0, 0}));
  EXPECT_EQ(vlu::Iface().curStat[2], 2);
  EXPECT_EQ(vlu::Iface().env->Vim->Basc[2], 0);
  EXPECT_EQ(vlu::Iface().env->Vim->Basc[5], 2);
}

// Each hard stop of vlu_solve and vlu_update: a valid change (q0 enters, l0
// leaves) with one thing spoilt.
TEST_F(Update, HardStopsEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ASSERT_EQ(Factor(), 0);
  const int n = s.c.n;
  int q0, l0, basic = 0, nonbasic = 0;
  luc::Swap_At(s, stat, 3, q0, l0);
  for (int j = 2 * n + 1; j >= 1; --j) {
    if (stat[j - 1] == 2 && j != l0) basic = j;
    if (stat[j - 1] == 0 && j != q0 && j != n + 1) nonbasic = j;
  }
  struct Call {
    std::vector<int> st;
    int q, l;
  };
  vlu::VIM *vim = vlu::Iface().vim;
  const std::pair<const char *, std::function<void(Call &)>> stops[] = {
      {"Basis Bogus AAA", [&](Call &) { vim->Basc[vim->Rwcl[3]] = 0, Residual(); }},
      {"update AAA: entering column is already basic", [&](Call &c) { c.q = basic; }},
      {"update BBB: bogus basisStat", [&](Call &c) { c.st[c.q - 1] = 0; }},
      {"update CCC: leaving column is already nonbasic",
       [&](Call &c) { c.st[c.l - 1] = 2, c.l = nonbasic; }},
      {"update DDD: bogus basisStat", [&](Call &c) { c.st[c.l - 1] = 2; }},
      {"update ZZZ: bogus basisStat", [&](Call &c) { c.st[nonbasic - 1] = 1; }},
      {"update: entering column 82 is outside 1\\.\\.2n\\+1 = 81", [&](Call &c) { c.q = 2 * n + 2; }},
      {"update: leaving column -3 is outside 1\\.\\.2n\\+1 = 81", [&](Call &c) { c.l = -3; }},
      {"update CCC: r entering basis but already in", [&](Call &c) {
         s.c.r.assign(n, 0.0), s.c.hasR = true;
         ASSERT_EQ(Factor(), 0);
         c.st[c.q - 1] = 0, c.q = n + 1, c.st[n] = 2;  // t enters instead
       }},
  };
  auto attempt = [&](const std::function<void(Call &)> &spoil) {
    Call c{stat, q0, l0};
    c.st[q0 - 1] = 2;
    c.st[l0 - 1] = 0;
    spoil(c);
    vlu_update(c.st.data(), &c.q, &c.l, &zero);
  };
  for (const auto &stop : stops)
    EXPECT_EXIT(attempt(stop.second), ::testing::ExitedWithCode(EXIT_FAILURE), stop.first);
}

}  // namespace
