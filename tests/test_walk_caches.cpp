// What the exported interface keeps from one call to the next in a walk:
// the base of the solution (the largest double for the columns that pivot
// on no row, +0 for the others), and the L stage of a listed solve, which
// the update that follows takes for the spike of the same column.  Both
// must leave every result as it is without them: the factors bit for bit,
// and every solution bit for bit.
#include <cfloat>
#include <cstring>
#include <filesystem>

#include "interface/state.h"
#include "support/lu_check.h"

namespace {

namespace fs = std::filesystem;
using WalkCaches = luc::ApiTest;

enum class Before { Nothing, Column, Other };

// Replays the walk of a case with the given solve before each update and
// returns the fingerprint of the factors after every step; `sparseCalls`
// gets the calls of L_Solve_Sparse (the spike transformations the updates
// made themselves).
std::vector<uint64_t> Replay(const vlu_case::Case &c, Before before, int limit,
                             int &sparseCalls) {
  vlu_setupdatelimit(&limit);
  std::vector<int> stat = c.basis;
  EXPECT_EQ(luc::Factor(c, stat), 0);
  vlu::Iface().env->Timing = true;  // counts the calls
  std::vector<uint64_t> prints;
  std::vector<double> a(size_t(c.n)), sol(size_t(2 * c.n + 1));
  const int force = 0;
  for (const auto &st : c.steps) {
    int q = st.q, l = st.l;
    std::fill(a.begin(), a.end(), 0.0);
    vlu_case::For_Column(c, q, [&](int i, double v) { a[size_t(i - 1)] = v; });
    if (before == Before::Other)
      for (double &v : a) v *= 2.0;  // not the column that enters
    if (before != Before::Nothing) vlu_solve(sol.data(), a.data());
    stat[size_t(q - 1)] = 2;
    stat[size_t(l - 1)] = 0;
    const int rc = vlu_update(stat.data(), &q, &l, &force);
    EXPECT_TRUE(rc == 1 || rc == 2);
    prints.push_back(luc::Digest(vlu::Iface().env));
  }
  sparseCalls = vlu::Iface().env->Vim->Calls_L_Solve_Sparse;
  return prints;
}

std::vector<fs::path> Some_Cases() {
  std::vector<fs::path> dirs;
  for (const char *name : {"scagr7", "bandm", "sctap1", "share2b", "scsd8"}) {
    const fs::path d = fs::path(VLU_SHARED_CASES) / name;
    if (fs::exists(d / "matrix.mtx")) dirs.push_back(d);
  }
  return dirs;
}

TEST_F(WalkCaches, TheSpikeOfTheSolveGivesTheFactorsOfTheUpdatesOwn) {
  const auto dirs = Some_Cases();
  if (dirs.empty()) GTEST_SKIP() << "no shared case folder at " << VLU_SHARED_CASES;
  for (const auto &dir : dirs) {
    SCOPED_TRACE(dir.filename().string());
    vlu_case::Case c;
    std::string err;
    ASSERT_TRUE(vlu_case::Read_Case(dir.string(), c, err)) << err;
    for (int limit : {100, 7}) {
      SCOPED_TRACE(::testing::Message() << "limit " << limit);
      int own = 0, cached = 0, other = 0;
      Restart();
      const auto plain = Replay(c, Before::Nothing, limit, own);
      Restart();
      const auto withSolve = Replay(c, Before::Column, limit, cached);
      Restart();
      const auto otherSolve = Replay(c, Before::Other, limit, other);
      ASSERT_EQ(plain.size(), withSolve.size());
      for (size_t k = 0; k < plain.size(); ++k) {
        ASSERT_EQ(plain[k], withSolve[k]) << "after step " << k;
        ASSERT_EQ(plain[k], otherSolve[k]) << "after step " << k;
      }
      // The updates after a solve of their column spared some of their own
      // transformations (systems of 100 rows and more, which the solve lists);
      // after the solve of another vector, none.
      if (c.n >= 100) {
        EXPECT_LT(cached, own);
      }
      EXPECT_EQ(other, own);
    }
  }
}

// Every solve along a walk (updates, refactorizations at the limit, a
// forced factorization, a fresh vlu_factor) equals, bit for bit, the same
// solve made without the base, by the plain fill and scatter.
TEST_F(WalkCaches, TheBaseOfTheSolutionFollowsTheBasis) {
  const luc::Triangular sys = luc::Make_Triangular(123, luc::Shape::Upper, 5, true, 0.3);
  const vlu_case::Case &c = sys.c;
  int limit = 5;
  vlu_setupdatelimit(&limit);
  std::vector<int> stat = c.basis;
  ASSERT_EQ(luc::Factor(c, stat), 0);
  std::mt19937_64 gen(3);
  std::vector<double> b(size_t(c.n)), x(size_t(2 * c.n + 1)), y(size_t(2 * c.n + 1));
  vlu::IfaceState &s = vlu::Iface();
  auto compare = [&](int t) {
    for (int kind = 0; kind < 3; ++kind) {
      std::fill(b.begin(), b.end(), 0.0);
      if (kind == 0) b[gen() % b.size()] = 1.5;                   // one entry
      if (kind == 1) std::fill(b.begin(), b.end(), 1.0);          // dense
      if (kind == 2) b[gen() % b.size()] = -0.0, b[gen() % b.size()] = 3.0;
      vlu_solve(x.data(), b.data());
      s.solBaseOff = true;  // the plain road once
      vlu_solve(y.data(), b.data());
      s.solBaseOff = false;
      ASSERT_EQ(std::memcmp(x.data(), y.data(), sizeof(double) * x.size()), 0)
          << "change " << t << " right-hand side " << kind;
      for (int j = 1; j <= 2 * c.n + 1; ++j) {
        if (stat[size_t(j - 1)] != 2) {
          ASSERT_EQ(x[size_t(j - 1)], DBL_MAX) << "column " << j;
        }
      }
    }
  };
  int updates = 0, refactors = 0;
  for (int t = 0; t < 40; ++t) {
    compare(t);
    int q, l;
    luc::Swap_At(sys, stat, 1 + int(gen() % uint64_t(c.n)), q, l);
    const int rc = luc::Change(c, stat, q, l, t == 17 ? 1 : 0);
    ASSERT_TRUE(rc == 1 || rc == 2);
    (rc == 2 ? updates : refactors) += 1;
    if (t == 29) {
      ASSERT_EQ(luc::Factor(c, stat), 0);
    }
  }
  compare(40);
  EXPECT_GT(updates, 20);
  EXPECT_GE(refactors, 5);
}

// A new factorization drops what the solves kept about the factors before
// it, even when the new factors give the same key: two diagonal bases of the
// same size, one all slacks and one with a structural column in place of
// the first slack, have the same counts of L and U elements.
TEST_F(WalkCaches, ANewFactorizationForgetsTheBaseOfTheOldOne) {
  vlu_case::Case c;
  c.name = "diagonal";
  c.n = 3;
  c.colStart = {1};
  for (int j = 1; j <= 3; ++j) {
    c.rowIdx.push_back(j);
    c.colIdx.push_back(j);
    c.val.push_back(1.0 + j);
    c.colStart.push_back(j + 1);
  }
  c.nz = 3;
  const std::vector<int> allSlack = {0, 0, 0, 0, 2, 2, 2}, firstColumn = {2, 0, 0, 0, 0, 2, 2};
  const std::vector<double> b = {1.0, 2.0, 3.0};
  std::vector<double> fresh(7), after(7);
  std::vector<int> stat = firstColumn;
  ASSERT_EQ(luc::Factor(c, stat), 0);
  vlu_solve(fresh.data(), b.data());
  Restart();
  stat = allSlack;
  ASSERT_EQ(luc::Factor(c, stat), 0);
  vlu_solve(after.data(), b.data());
  stat = firstColumn;
  ASSERT_EQ(luc::Factor(c, stat), 0);
  vlu_solve(after.data(), b.data());
  EXPECT_EQ(after[4], DBL_MAX);  // the first slack has left
  EXPECT_EQ(std::memcmp(fresh.data(), after.data(), sizeof(double) * 7), 0);
}

// The vectors a solve writes beside the solution, VIM%Work1 and rSave, are
// cleared at the rows the last solve listed and given the new nonzeros
// only.  After any mix of sparse, dense and signed-zero right-hand sides,
// rSave holds the last one bit for bit, and every solution equals the one
// of the full copies.
TEST_F(WalkCaches, ListedCopiesLeaveTheLastRightHandSide) {
  const luc::Triangular sys = luc::Make_Triangular(300, luc::Shape::Lower, 9, true, 0.2);
  const vlu_case::Case &c = sys.c;
  std::vector<int> stat = c.basis;
  ASSERT_EQ(luc::Factor(c, stat), 0);
  vlu::IfaceState &s = vlu::Iface();
  ASSERT_FALSE(s.rKnown);
  std::mt19937_64 gen(17);
  std::vector<double> b(size_t(c.n)), x(size_t(2 * c.n + 1)), y(size_t(2 * c.n + 1));
  int listed = 0;
  for (int t = 0; t < 60; ++t) {
    std::fill(b.begin(), b.end(), 0.0);
    const int kind = int(gen() % 4);
    if (kind == 0) std::fill(b.begin(), b.end(), 0.5);  // dense
    const int nnz = kind == 1 ? 1 : kind == 2 ? 5 : 40;  // 40 is past n/10
    if (kind != 0)
      for (int k = 0; k < nnz; ++k) b[gen() % b.size()] = (k % 3 == 2) ? -0.0 : 1.0 + k;
    vlu_solve(x.data(), b.data());
    listed += s.saveCount >= 0;
    ASSERT_EQ(std::memcmp(s.rSave + 1, b.data(), sizeof(double) * b.size()), 0) << "solve " << t;
    s.workCount = s.saveCount = -1;  // the full copies once
    vlu_solve(y.data(), b.data());
    ASSERT_EQ(std::memcmp(x.data(), y.data(), sizeof(double) * x.size()), 0) << "solve " << t;
    ASSERT_EQ(std::memcmp(s.rSave + 1, b.data(), sizeof(double) * b.size()), 0) << "solve " << t;
  }
  EXPECT_GT(listed, 20);
}

}  // namespace
