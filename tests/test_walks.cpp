// Walks: sequences of basis changes as a simplex method makes them, each a
// solve with the entering column and an update.  The walks of the case
// folders are replayed with the update's own debug check at every update, a
// structural check after each step, residuals, the norms recorded with the
// cases, and agreement with fresh factors at every check point; triangular
// walks check the status the library keeps; long random walks of thousands
// of changes check the growth rules of the files.
#include <filesystem>

#include "interface/state.h"
#include "support/lu_check.h"
#include "update/update.h"

namespace {

namespace fs = std::filesystem;
using Walks = luc::ApiTest;

TEST_F(Walks, TriangularWalksKeepTheStatus) {
  // Limit 0 refactorizes at every step; the default limit may update.
  const struct {
    luc::Shape shape;
    int n, steps, limit;
  } walks[] = {{luc::Shape::Lower, 300, 300, 0}, {luc::Shape::Upper, 1000, 120, -1}};
  for (auto w : walks) {
    SCOPED_TRACE(::testing::Message() << "walk over n=" << w.n << " limit " << w.limit);
    Restart();
    if (w.limit >= 0) vlu_setupdatelimit(&w.limit);
    const luc::Triangular s = luc::Make_Triangular(w.n, w.shape, 8 + w.n, true, 0.3);
    const std::vector<double> ones(w.n, 1.0);
    std::vector<int> stat = s.c.basis;
    ASSERT_EQ(luc::Factor(s.c, stat), 0);
    std::mt19937_64 gen(w.n);
    for (int t = 1; t <= w.steps; ++t) {
      int q, l;
      luc::Swap_At(s, stat, 1 + static_cast<int>(gen() % w.n), q, l);
      const int rc = luc::Change(s.c, stat, q, l);
      ASSERT_TRUE(rc == 1 || (rc == 2 && w.limit != 0)) << "step " << t << " result " << rc;
      if (t % 10 == 0) {
        EXPECT_LT(luc::Solve_Residual(s.c, stat, ones), 1e-13) << "step " << t;
      }
    }
    int f, u, r, differ = 0;
    vlu_getstats(&f, &u, &r);
    EXPECT_EQ(f, 1);
    EXPECT_EQ(u + r, w.steps);
    EXPECT_TRUE(w.limit != 0 || u == 0) << u << " updates under limit 0";
    for (int j = 1; j <= 2 * w.n + 1; ++j) differ += vlu::Iface().curStat[j] != stat[j - 1];
    EXPECT_EQ(differ, 0) << "columns whose status the library lost";
  }
}

// ---------------------------------------------------------------------------
// The walks of case folders.

struct Totals {
  int cases = 0, steps = 0, updates = 0, refactors = 0, checks = 0;
  double worstResidual = 0.0, worstAgreement = 0.0;  // agreement relative to its tolerance
};

// Replays the walk of one case with the update limit `limit` (0: default).
void Replay_Case(const vlu_case::Case &c, int limit, Totals &tot) {
  if (limit > 0) vlu_setupdatelimit(&limit);
  std::vector<int> stat = c.basis;
  ASSERT_EQ(luc::Factor(c, stat), 0);
  vlu::VMI *env = vlu::Iface().env;
  env->Debug_Upd = 1;  // the copies of U checked at entry and end of every update
  ++tot.cases;
  const double tol = std::max(1e-10, 1e-14 * c.InfoNum("walk_condition_1_max", 1.0));
  const std::vector<double> ones(size_t(c.n), 1.0);
  size_t next = 0;
  const int total = static_cast<int>(c.steps.size());
  for (int step = 0;; ++step) {
    for (; next < c.checks.size() && c.checks[next].step == step; ++next, ++tot.checks) {
      std::vector<double> x, y;
      const double res = luc::Solve_Residual(c, stat, ones, &x);
      EXPECT_LE(res, 1e-12) << "residual after step " << step;
      tot.worstResidual = std::max(tot.worstResidual, res);
      const double norm = vlu_case::Basic_Norm2(c, stat, x.data()), ref = c.checks[next].norm;
      EXPECT_LE(std::fabs(norm - ref), tol * std::fabs(ref)) << "check value after step " << step;
      ASSERT_TRUE(luc::Fresh_Solve(c, stat, ones, y));
      const double d = luc::Rel_Diff(stat, x, y);
      EXPECT_LE(d, tol) << "updated and fresh factors disagree after step " << step;
      tot.worstAgreement = std::max(tot.worstAgreement, d / tol);
    }
    if (step == total) break;
    const int rc = luc::Change(c, stat, c.steps[size_t(step)].q, c.steps[size_t(step)].l);
    ASSERT_TRUE(rc == 1 || rc == 2) << "step " << step + 1 << " result " << rc;
    (rc == 2 ? tot.updates : tot.refactors) += 1;
    ++tot.steps;
    ASSERT_TRUE(luc::Check_Updated_Factors(env)) << "after step " << step + 1;
    if ((step + 1) % 7 == 0) {  // spot residuals between the check points
      EXPECT_LE(luc::Solve_Residual(c, stat, ones), 1e-12) << "after step " << step + 1;
    }
  }
}

// Every case with a walk in a folder; `skip`: a folder whose cases are left
// out (the bundled ones, when the shared set holds them too).
Totals Replay_Folder(const std::string &root, int limit, const std::string &skip = "") {
  std::vector<std::string> dirs;
  for (const auto &e : fs::directory_iterator(root))
    if (vlu_case::Is_Case_Dir(e.path().string()) &&
        (skip.empty() || !fs::exists(fs::path(skip) / e.path().filename())))
      dirs.push_back(e.path().string());
  std::sort(dirs.begin(), dirs.end());
  Totals tot;
  for (const std::string &dir : dirs) {
    vlu_case::Case c;
    std::string err;
    if (!vlu_case::Read_Case(dir, c, err)) {
      ADD_FAILURE() << dir << ": " << err;
      continue;
    }
    if (!c.hasWalk || c.InfoStr("expected") == "singular") continue;
    SCOPED_TRACE(c.name);
    vlu_destroy();
    vlu_create();
    Replay_Case(c, limit, tot);
    if (::testing::Test::HasFatalFailure()) break;
  }
  std::printf("  %s: %d cases walked, %d steps, %d updates, %d refactorizations, %d checks; worst "
              "residual %.2e, worst disagreement %.2f of its tolerance\n",
              root.c_str(), tot.cases, tot.steps, tot.updates, tot.refactors, tot.checks,
              tot.worstResidual, tot.worstAgreement);
  return tot;
}

TEST_F(Walks, BundledCases) {
  const Totals t = Replay_Folder(VLU_TEST_DATA, 100);
  EXPECT_GE(t.cases, 9);
  EXPECT_GE(t.steps, 1100);
  EXPECT_GE(t.checks, 46);
}

TEST_F(Walks, SharedCases) {
  if (!fs::is_directory(VLU_SHARED_CASES)) GTEST_SKIP() << "no shared case folder";
  const Totals t = Replay_Folder(VLU_SHARED_CASES, 0, VLU_TEST_DATA);
  EXPECT_GE(t.cases, 15);
  EXPECT_GT(t.updates, 10 * t.refactors);
}

TEST_F(Walks, SharedCasesWithThePeersLimit) {
  if (!fs::is_directory(VLU_SHARED_CASES)) GTEST_SKIP() << "no shared case folder";
  EXPECT_GE(Replay_Folder(VLU_SHARED_CASES, 100, VLU_TEST_DATA).cases, 15);
}

TEST_F(Walks, LargeCases) {
  if (!fs::is_directory(VLU_SHARED_LARGE)) GTEST_SKIP() << "no large case folder";
  Replay_Folder(VLU_SHARED_LARGE, 0);
}

// ---------------------------------------------------------------------------
// Long random walks: simplex-like changes (largest |alpha| leaves) with the
// update limit at 10,000, so that only the growth rules and failure ends
// refactorize.  Free walks leave the triangular bases at once and exercise
// the row elimination; triangular walks stay on bases without a bump.

struct Long_Walk {
  int steps = 0, updates = 0, refactors = 0;
  double worstResidual = 0.0;
  luc::Stats stats;
};

Long_Walk Run_Long_Walk(const vlu_case::Case &c, int changes, bool triangular, uint64_t seed) {
  Long_Walk w;
  int limit = 10000;
  vlu_setupdatelimit(&limit);
  std::vector<int> stat = c.basis;
  EXPECT_EQ(luc::Factor(c, stat), 0);
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  std::vector<double> b(size_t(c.n));
  vlu::VMI *env = vlu::Iface().env;
  int32_t peakU = 0, startSpaceCol = env->Luf->ColUSpace, startSpaceRow = env->Luf->RowUSpace;
  while (w.steps < changes) {
    int q = 0, l = 0;
    if (!luc::Random_Change(c, stat, gen, triangular, q, l)) {
      ADD_FAILURE() << "no change found after " << w.steps << " steps";
      break;
    }
    const int rc = luc::Change(c, stat, q, l);
    if (rc != 1 && rc != 2) {
      ADD_FAILURE() << "step " << w.steps + 1 << " result " << rc;
      break;
    }
    ++w.steps;
    (rc == 2 ? w.updates : w.refactors) += 1;
    env = vlu::Iface().env;
    // A refactorization sizes the files by its own rules; the updates after
    // it may only double them when they are half full.
    if (rc == 1) {
      startSpaceCol = std::max(startSpaceCol, env->Luf->ColUSpace);
      startSpaceRow = std::max(startSpaceRow, env->Luf->RowUSpace);
    }
    peakU = std::max(peakU, env->Luf->U_numele);
    if (w.steps % 25 == 0) {
      for (double &v : b) v = uni(gen);
      const double res = luc::Solve_Residual(c, stat, b);
      w.worstResidual = std::max(w.worstResidual, res);
      EXPECT_LE(res, 1e-10) << "residual after step " << w.steps;
    }
    if (w.steps % 500 == 0) {
      EXPECT_TRUE(luc::Check_Updated_Factors(env)) << "after step " << w.steps;
      const int32_t bound = 4 * (peakU + c.n);
      EXPECT_LE(env->Luf->ColUSpace, std::max(startSpaceCol, bound));
      EXPECT_LE(env->Luf->RowUSpace, std::max(startSpaceRow, bound));
    }
    if (::testing::Test::HasFatalFailure()) break;
  }
  w.stats.Add(vlu::Iface().env);
  std::printf("  %-10s %s walk: %d changes, %d updates, %d refactorizations; worst residual "
              "%.2e; %s\n",
              c.name.c_str(), triangular ? "triangular" : "free", w.steps, w.updates, w.refactors,
              w.worstResidual, w.stats.Line().c_str());
  return w;
}

TEST_F(Walks, LongRandomWalks) {
  const struct {
    const char *name;
    bool triangular;
    int changes;
  } runs[] = {{"seba", false, 10000}, {"standata", false, 10000}, {"shell", true, 4000}};
  for (const auto &r : runs) {
    vlu_case::Case c;
    std::string err;
    if (!vlu_case::Read_Case(std::string(VLU_SHARED_CASES) + "/" + r.name, c, err)) continue;
    SCOPED_TRACE(r.name);
    Restart();
    const Long_Walk w = Run_Long_Walk(c, r.changes, r.triangular, 4711);
    EXPECT_EQ(w.steps, r.changes);
    EXPECT_GT(w.updates, 20 * std::max(w.refactors, 1));
  }
  // A random sparse matrix from the slack basis, no case folder needed.
  Restart();
  const Long_Walk w = Run_Long_Walk(luc::Random_Sparse(300, 3, 99), 10000, false, 17);
  EXPECT_EQ(w.steps, 10000);
  EXPECT_GT(w.stats.bumpMax, 10);
  EXPECT_GT(w.stats.swaps, 0);
}

// Malformed case folders are refused with a message that names the fault.
TEST(CaseFiles, MalformedFoldersAreRefused) {
  char tmpl[] = "/tmp/vlu_case_XXXXXX";
  ASSERT_NE(::mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  auto put = [&](const char *name, const std::string &text) {
    FILE *f = std::fopen((dir + "/" + name).c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs(text.c_str(), f);
    std::fclose(f);
  };
  const std::string head = "%%MatrixMarket matrix coordinate real general\n% comment\n";
  const std::string one = head + "2 2 1\n1 1 1.0\n", basis = "2\n0\n0\n0\n2\n";
  const struct {
    std::string mtx, basis, walk, needle;
  } bad[] = {
      {"%%MatrixMarket matrix array real general\n2 2\n", basis, "", "coordinate real general"},
      {head + "2 2 3\n1 1 1.0\n2 1 1.0\n", basis, "", "entries"},
      {head + "2 2 1\n3 1 1.0\n", basis, "", "out of range"},
      {head + "2 2 2\n1 1 1.0\n1 1 2.0\n", basis, "", "duplicate"},
      {head + "2 2 1\n1 1 x\n", basis, "", "row column value"},
      {head + "2 3 1\n1 1 1.0\n", basis, "", "square"},
      // Sizes that the rest of the files cannot back are refused before
      // anything of that size is allocated.
      {head + "2 2 1000000000\n1 1 1.0\n", basis, "", "size line says 1000000000"},
      {head + "100000000 100000000 0\n", basis, "", "fewer than 2n+1 = 200000001"},
      {one, "2\n0\n0\n0\n", "", "2n+1"},
      {one, "2\n0\n0\n1\n2\n", "", "status"},
      {one, "2\n2\n0\n0\n2\n", "", "basic columns"},
      {one, basis, "4 5\n4 1\n", "entering column not nonbasic"},
      {one, basis, "check 1 2.0\n", "bad check line"},
  };
  for (const auto &b : bad) {
    put("matrix.mtx", b.mtx);
    put("basis.txt", b.basis);
    put("walk.txt", b.walk);
    vlu_case::Case c;
    std::string err;
    EXPECT_FALSE(vlu_case::Read_Case(dir, c, err)) << b.needle;
    EXPECT_NE(err.find(b.needle), std::string::npos) << "message: " << err;
  }
  fs::remove_all(dir);
}

}  // namespace
