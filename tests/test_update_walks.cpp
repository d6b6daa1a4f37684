// Walks with in-place updates: the public walks replayed with the update's
// own debug check on at every update and a structural check after each
// step, the updated factors compared with fresh ones at every check point,
// and long random walks of thousands of changes.
//
// A build without the bump elimination cannot refactorize a basis with a
// bump: a walk then starts only from a basis without one and stops where the
// update limit would ask for such a refactorization (Walk_Step).  The same
// tests cover every case and every step once the elimination is there.
#include <filesystem>

#include "interface/state.h"
#include "support/update_support.h"
#include "triangular_support.h"
#include "update/update.h"

namespace {

namespace fs = std::filesystem;
using Walks = tri::Session;

struct Replay_Totals {
  int cases = 0, skipped = 0, complete = 0, steps = 0, updates = 0, refactors = 0, checks = 0,
      compared = 0;
  double worstResidual = 0.0, worstAgreement = 0.0;  // agreement relative to its tolerance
};

// Replays the walk of one case with the update limit `limit` (0: default).
void Replay_Case(const vlu_case::Case &c, int limit, Replay_Totals &tot) {
  if (limit > 0) vlu_setupdatelimit(&limit);
  std::vector<int> stat = c.basis;
  ASSERT_EQ(tri::Factor(c, stat), 0);
  vlu::VMI *env = vlu::Iface().env;
  env->Debug_Upd = 1;  // the copies of U checked at entry and end of every update
  ++tot.cases;
  const double cond = c.InfoNum("walk_condition_1_max", 1.0);
  const double tol = std::max(1e-10, 1e-14 * cond);
  const std::vector<double> ones(size_t(c.n), 1.0);
  size_t next = 0;
  int done = 0, upd = 0, ref = 0;
  const int total = static_cast<int>(c.steps.size());
  for (int step = 0;; ++step) {
    for (; next < c.checks.size() && c.checks[next].step == step; ++next) {
      std::vector<double> x, y;
      const double res = tri::Solve_Residual(c, stat, ones, &x);
      EXPECT_LE(res, 1e-12) << "residual after step " << step;
      tot.worstResidual = std::max(tot.worstResidual, res);
      const double norm = vlu_case::Basic_Norm2(c, stat, x.data()), ref0 = c.checks[next].norm;
      EXPECT_LE(std::fabs(norm - ref0), tol * std::fabs(ref0)) << "check value after step " << step;
      ++tot.checks;
      if (upd::Fresh_Solve(c, stat, ones, y)) {
        const double d = upd::Rel_Diff(stat, x, y);
        EXPECT_LE(d, tol) << "updated and fresh factors disagree after step " << step;
        tot.worstAgreement = std::max(tot.worstAgreement, d / tol);
        ++tot.compared;
      }
    }
    if (step == total) break;
    const int q = c.steps[size_t(step)].q, l = c.steps[size_t(step)].l;
    const upd::Step rc = upd::Walk_Step(c, stat, q, l);
    if (rc == upd::Step::Stopped) break;
    ASSERT_TRUE(rc == upd::Step::Updated || rc == upd::Step::Refactorized)
        << "step " << step + 1 << " result " << static_cast<int>(rc);
    (rc == upd::Step::Updated ? upd : ref) += 1;
    ++done;
    ASSERT_TRUE(upd::Check_Updated_Factors(env)) << "after step " << step + 1;
    // Spot residuals between the check points.
    if (done % 7 == 0) {
      EXPECT_LE(tri::Solve_Residual(c, stat, ones), 1e-12) << "after step " << step + 1;
    }
  }
  tot.steps += done;
  tot.updates += upd;
  tot.refactors += ref;
  if (done == total) ++tot.complete;
  std::printf("  %-12s n=%6d steps %3d/%3d updates %3d refactorizations %2d  %s\n", c.name.c_str(),
              c.n, done, total, upd, ref, upd::Update_Stats_Line(env).c_str());
}

Replay_Totals Replay_Folder(const std::string &root, int limit) {
  std::vector<std::string> dirs;
  for (const auto &e : fs::directory_iterator(root))
    if (vlu_case::Is_Case_Dir(e.path().string())) dirs.push_back(e.path().string());
  std::sort(dirs.begin(), dirs.end());
  Replay_Totals tot;
  for (const std::string &dir : dirs) {
    vlu_case::Case c;
    std::string err;
    if (!vlu_case::Read_Case(dir, c, err)) {
      ADD_FAILURE() << dir << ": " << err;
      continue;
    }
    if (!c.hasWalk || c.InfoStr("expected") == "singular") continue;
    if (!upd::Can_Factor(c, c.basis)) {
      ++tot.skipped;
      continue;
    }
    SCOPED_TRACE(c.name);
    vlu_destroy();
    vlu_create();
    Replay_Case(c, limit, tot);
    if (::testing::Test::HasFatalFailure()) break;
  }
  std::printf(
      "  %s: %d cases walked (%d to the end, %d skipped: bump in the start basis), %d steps, "
      "%d updates, %d refactorizations, %d checks (%d against fresh factors); worst residual "
      "%.2e, worst disagreement %.2f of its tolerance\n",
      root.c_str(), tot.cases, tot.complete, tot.skipped, tot.steps, tot.updates, tot.refactors,
      tot.checks, tot.compared, tot.worstResidual, tot.worstAgreement);
  return tot;
}

TEST_F(Walks, PublicWalksUpdateInPlace) {
  if (!fs::is_directory(VLU_SHARED_CASES))
    GTEST_SKIP() << "no shared case folder at " << VLU_SHARED_CASES;
  const Replay_Totals t = Replay_Folder(VLU_SHARED_CASES, 0);
  EXPECT_GE(t.cases, 15);
  EXPECT_GT(t.updates, 10 * t.refactors);
  if (tri::Bump_Supported()) {
    EXPECT_EQ(t.complete, t.cases);
  }
}

TEST_F(Walks, PublicWalksWithThePeersLimit) {
  if (!fs::is_directory(VLU_SHARED_CASES))
    GTEST_SKIP() << "no shared case folder at " << VLU_SHARED_CASES;
  const Replay_Totals t = Replay_Folder(VLU_SHARED_CASES, 100);
  EXPECT_GE(t.cases, 15);
}

TEST_F(Walks, LargeCases) {
  const std::string root = std::string(VLU_SHARED_CASES) + "-large";
  if (!fs::is_directory(root)) GTEST_SKIP() << "no large case folder at " << root;
  const Replay_Totals t = Replay_Folder(root, 0);
  if (tri::Bump_Supported()) {
    EXPECT_EQ(t.complete, t.cases);
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Long random walks: simplex-like changes (largest |alpha| leaves) with the
// update limit at 10,000, so that only the growth rules and failure ends
// refactorize.  Free walks leave the triangular bases at once and exercise
// the row elimination; where this build could not refactorize, the walk
// starts over from its start basis.  Triangular walks stay on bases without a
// bump, so every refactorization inside vlu_update is possible too.

namespace {

struct Long_Walk {
  int steps = 0, updates = 0, refactors = 0, restarts = 0, worstStep = 0;
  double worstResidual = 0.0;
  int64_t peakMemory = 0;
  upd::Stats stats;
};

Long_Walk Run_Long_Walk(const vlu_case::Case &c, int changes, bool triangular, uint64_t seed) {
  Long_Walk w;
  int limit = 10000;
  vlu_setupdatelimit(&limit);
  std::vector<int> stat = c.basis;
  EXPECT_EQ(tri::Factor(c, stat), 0);
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  std::vector<double> b(size_t(c.n));
  int32_t peakU = 0, startSpaceCol = vlu::Iface().env->Luf->ColUSpace,
          startSpaceRow = vlu::Iface().env->Luf->RowUSpace;
  while (w.steps < changes) {
    int q = 0, l = 0;
    if (!upd::Random_Change(c, stat, gen, triangular, q, l)) {
      ADD_FAILURE() << "no change found after " << w.steps << " steps";
      break;
    }
    const upd::Step rc = upd::Walk_Step(c, stat, q, l);
    if (rc == upd::Step::Stopped) {
      // This build cannot refactorize the next basis: start over.
      w.stats.Add(vlu::Iface().env);
      stat = c.basis;
      EXPECT_EQ(tri::Factor(c, stat), 0);
      vlu_setupdatelimit(&limit);
      ++w.restarts;
      continue;
    }
    if (rc != upd::Step::Updated && rc != upd::Step::Refactorized) {
      ADD_FAILURE() << "step " << w.steps + 1 << " result " << static_cast<int>(rc);
      break;
    }
    ++w.steps;
    (rc == upd::Step::Updated ? w.updates : w.refactors) += 1;
    vlu::VMI *env = vlu::Iface().env;
    // A refactorization sizes the files by its own rules; the updates after
    // it may only double them when they are half full.
    if (rc == upd::Step::Refactorized) {
      startSpaceCol = std::max(startSpaceCol, env->Luf->ColUSpace);
      startSpaceRow = std::max(startSpaceRow, env->Luf->RowUSpace);
    }
    peakU = std::max(peakU, env->Luf->U_numele);
    w.peakMemory = std::max(w.peakMemory, env->Mem_Max);
    if (w.steps % 25 == 0) {
      for (double &v : b) v = uni(gen);
      const double res = tri::Solve_Residual(c, stat, b);
      if (res > w.worstResidual) w.worstResidual = res, w.worstStep = w.steps;
      EXPECT_LE(res, 1e-10) << "residual after step " << w.steps;
    }
    if (w.steps % 500 == 0) {
      EXPECT_TRUE(upd::Check_Updated_Factors(env)) << "after step " << w.steps;
      // The files grow only by doubling when half full after a compression.
      const int32_t bound = 4 * (peakU + c.n);
      EXPECT_LE(env->Luf->ColUSpace, std::max(startSpaceCol, bound));
      EXPECT_LE(env->Luf->RowUSpace, std::max(startSpaceRow, bound));
    }
    if (::testing::Test::HasFatalFailure()) break;
  }
  w.stats.Add(vlu::Iface().env);
  std::printf("  %-10s %s walk: %d changes, %d updates, %d refactorizations, %d restarts; worst "
              "residual %.2e (step %d); peak memory %lld bytes; %s\n",
              c.name.c_str(), triangular ? "triangular" : "free", w.steps, w.updates, w.refactors,
              w.restarts, w.worstResidual, w.worstStep, static_cast<long long>(w.peakMemory),
              w.stats.Line().c_str());
  return w;
}

// A random sparse n x n matrix, `perCol` entries a column, with the slacks
// as start basis: the walk leaves the triangular bases at its first changes.
vlu_case::Case Random_Sparse(int n, int perCol, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  vlu_case::Case c;
  c.name = "random";
  c.n = n;
  c.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    std::vector<int> rows;
    while (static_cast<int>(rows.size()) < perCol) {
      const int r = 1 + static_cast<int>(gen() % static_cast<uint64_t>(n));
      if (std::find(rows.begin(), rows.end(), r) == rows.end()) rows.push_back(r);
    }
    std::sort(rows.begin(), rows.end());
    for (int r : rows) {
      c.rowIdx.push_back(r);
      c.colIdx.push_back(j);
      c.val.push_back((uni(gen) < 0.5 ? -1.0 : 1.0) * (0.5 + 1.5 * uni(gen)));
    }
    c.colStart.push_back(static_cast<int>(c.val.size()) + 1);
  }
  c.nz = static_cast<int>(c.val.size());
  c.basis.assign(size_t(2 * n + 1), 0);
  for (int i = 1; i <= n; ++i) c.basis[size_t(n + i)] = 2;
  return c;
}

bool Read_Shared(const std::string &name, vlu_case::Case &c) {
  std::string err;
  return vlu_case::Read_Case(std::string(VLU_SHARED_CASES) + "/" + name, c, err);
}

}  // namespace

TEST_F(Walks, LongRandomWalks) {
  const struct {
    const char *name;
    bool triangular;
    int changes;
  } runs[] = {{"seba", false, 10000}, {"standata", false, 10000}, {"shell", true, 4000}};
  int ran = 0;
  for (const auto &r : runs) {
    vlu_case::Case c;
    if (!Read_Shared(r.name, c)) continue;
    SCOPED_TRACE(r.name);
    Restart();
    const Long_Walk w = Run_Long_Walk(c, r.changes, r.triangular, 4711);
    EXPECT_EQ(w.steps, r.changes);
    EXPECT_GT(w.updates, 20 * std::max(w.refactors, 1));
    ++ran;
  }
  // A random sparse matrix from the slack basis, no case folder needed.
  {
    const vlu_case::Case c = Random_Sparse(300, 3, 99);
    Restart();
    const Long_Walk w = Run_Long_Walk(c, 10000, false, 17);
    EXPECT_EQ(w.steps, 10000);
    EXPECT_GT(w.stats.bumpMax, 10);
    EXPECT_GT(w.stats.swaps, 0);
    ++ran;
  }
  EXPECT_GE(ran, 1);
}
