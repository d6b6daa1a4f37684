// Walks: sequences of basis changes as a simplex method makes them, each a
// solve with the entering column and an update, checked against solves that
// do not use the library.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "interface/state.h"
#include "triangular_support.h"
#include "vardenlu.h"

namespace {

class Walk : public ::testing::Test {
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

// One simplex-like change: the solve with the entering column, the status
// change and the update.  Returns the update's result.
int Change(const vlu_case::Case &c, std::vector<int> &stat, int q, int l, int force = 0) {
  std::vector<double> a(static_cast<size_t>(c.n), 0.0), sol(2 * static_cast<size_t>(c.n) + 1);
  vlu_case::For_Column(c, q, [&](int i, double v) { a[static_cast<size_t>(i - 1)] = v; });
  vlu_solve(sol.data(), a.data());
  // The solve gives the entering column in terms of the basis: the leaving
  // column must carry a nonzero part of it.
  EXPECT_NE(sol[static_cast<size_t>(l - 1)], 0.0);
  stat[static_cast<size_t>(q - 1)] = 2;
  stat[static_cast<size_t>(l - 1)] = 0;
  return vlu_update(stat.data(), &q, &l, &force);
}

// Solves with b = ones; on a triangular basis compares with the independent
// solve.  Returns the 2-norm of the basic part of the library's solution.
double Check_Ones(const vlu_case::Case &c, const std::vector<int> &stat, double tolDev) {
  std::vector<double> b(static_cast<size_t>(c.n), 1.0), sol(2 * static_cast<size_t>(c.n) + 1), x;
  vlu_solve(sol.data(), b.data());
  if (tri::Independent_Solve(c, stat, b, x)) {
    EXPECT_LT(vlu_case::Rel_Residual(c, stat, sol.data(), b.data()), 1e-13);
    EXPECT_LT(tri::Max_Rel_Dev(c, stat, sol.data(), x), tolDev);
  } else {
    EXPECT_LT(vlu_case::Rel_Residual(c, stat, sol.data(), b.data()), 1e-12);
  }
  return vlu_case::Basic_Norm2(c, stat, sol.data());
}

// A walk that keeps the basis triangular: at a random position the matrix
// column and the slack of the pivot row take turns.
void Synthetic_Walk(const tri::System &s, int steps, uint64_t seed, bool limitZero) {
  std::vector<int> stat = s.c.basis;
  ASSERT_EQ(tri::Factor(s.c, stat), 0);
  int f0, u0, r0;
  vlu_getstats(&f0, &u0, &r0);
  std::mt19937_64 gen(seed);
  const int n = s.c.n;
  for (int t = 1; t <= steps; ++t) {
    const int k = 1 + static_cast<int>(gen() % static_cast<uint64_t>(n));
    const int col = s.colOfPos[static_cast<size_t>(k)];
    const int slack = n + 1 + s.prow[static_cast<size_t>(k)];
    const bool colIn = stat[static_cast<size_t>(col - 1)] == 2;
    const int q = colIn ? slack : col, l = colIn ? col : slack;
    const int rc = Change(s.c, stat, q, l);
    if (limitZero)
      ASSERT_EQ(rc, 1) << "step " << t;
    else
      ASSERT_TRUE(rc == 1 || rc == 2) << "step " << t << " result " << rc;
    if (t % 10 == 0 || t == steps) Check_Ones(s.c, stat, 1e-12);
  }
  int f1, u1, r1;
  vlu_getstats(&f1, &u1, &r1);
  EXPECT_EQ(f1, f0);
  EXPECT_EQ((u1 - u0) + (r1 - r0), steps);
  if (limitZero) {
    EXPECT_EQ(u1, u0);
  }
  for (int j = 1; j <= 2 * n + 1; ++j)
    ASSERT_EQ(vlu::Iface().curStat[j], stat[static_cast<size_t>(j - 1)]) << "column " << j;
}

TEST_F(Walk, SyntheticLowerWalkRefactorizingEveryStep) {
  int limit = 0;
  vlu_setupdatelimit(&limit);
  tri::System s = tri::Make_System(300, tri::Shape::Lower, 8, true, 3.0, 0.3);
  Synthetic_Walk(s, 300, 99, true);
}

TEST_F(Walk, SyntheticUpperWalkWithDefaultLimit) {
  tri::System s = tri::Make_System(1000, tri::Shape::Upper, 12, true, 4.0, 0.1);
  Synthetic_Walk(s, 120, 5, false);
}

TEST_F(Walk, LargeSystemFewChanges) {
  tri::System s = tri::Make_System(100000, tri::Shape::Lower, 31, true, 2.0, 0.2);
  Synthetic_Walk(s, 4, 6, false);
}

// ---------------------------------------------------------------------------
// The walks of case folders, replayed as long as the bases stay triangular.

struct Replay {
  int stepsDone = 0;
  int checksDone = 0;
  bool started = false;
};

// Replays the walk of a case from its start basis.  Without `anyBasis` the
// replay stops before the first basis that is not triangular (and does not
// start on such a basis).
Replay Replay_Case(const vlu_case::Case &c, bool anyBasis) {
  Replay out;
  std::vector<int> stat = c.basis;
  if (!anyBasis && !tri::Is_Triangular(c, stat)) return out;
  EXPECT_EQ(tri::Factor(c, stat), 0) << c.name;
  out.started = true;
  const double tol = std::max(1e-10, 1e-14 * c.InfoNum("walk_condition_1_max", 1.0));
  size_t nextCheck = 0;
  const int K = static_cast<int>(c.steps.size());
  for (int s = 0; s <= K; ++s) {
    while (nextCheck < c.checks.size() && c.checks[nextCheck].step == s) {
      const double norm = Check_Ones(c, stat, 1e-10);
      const double ref = c.checks[nextCheck].norm;
      EXPECT_LE(std::fabs(norm - ref), tol * std::fabs(ref))
          << c.name << " check after step " << s << ": " << norm << " vs " << ref;
      ++out.checksDone;
      ++nextCheck;
    }
    if (s == K) break;
    const int q = c.steps[static_cast<size_t>(s)].q, l = c.steps[static_cast<size_t>(s)].l;
    std::vector<int> next = stat;
    next[static_cast<size_t>(q - 1)] = 2;
    next[static_cast<size_t>(l - 1)] = 0;
    if (!anyBasis && !tri::Is_Triangular(c, next)) break;
    const int rc = Change(c, stat, q, l);
    EXPECT_TRUE(rc == 1 || rc == 2) << c.name << " step " << s + 1 << " result " << rc;
    if (rc != 1 && rc != 2) break;
    ++out.stepsDone;
  }
  return out;
}

std::vector<std::string> Case_Dirs(const std::string &root) {
  std::vector<std::string> dirs;
  DIR *d = ::opendir(root.c_str());
  if (!d) return dirs;
  while (dirent *e = ::readdir(d)) {
    const std::string nm = e->d_name;
    if (nm == "." || nm == "..") continue;
    if (vlu_case::Is_Case_Dir(root + "/" + nm)) dirs.push_back(root + "/" + nm);
  }
  ::closedir(d);
  std::sort(dirs.begin(), dirs.end());
  return dirs;
}

// A singular case: the pairs must be a repair that the case allows.
void Check_Singular_Case(const vlu_case::Case &c) {
  ASSERT_EQ(tri::Factor(c, c.basis), 3) << c.name;
  const int ns = vlu_getnumsing();
  EXPECT_EQ(ns, static_cast<int>(c.InfoNum("dropped_columns", -1))) << c.name;
  auto fields = vlu_case::detail::Fields;
  const auto cols = fields(c.InfoStr("columns_that_may_be_dropped"));
  const auto rows = fields(c.InfoStr("rows_whose_slack_may_enter"));
  for (int k = 1; k <= ns; ++k) {
    int row = 0, col = 0;
    vlu_getsingpair(&k, &row, &col);
    EXPECT_NE(std::find(cols.begin(), cols.end(), std::to_string(col)), cols.end())
        << c.name << " column " << col;
    EXPECT_NE(std::find(rows.begin(), rows.end(), std::to_string(row)), rows.end())
        << c.name << " row " << row;
  }
}

// Every case of a folder: singular ones must report an allowed repair,
// regular ones replay their walk, all of it when `fullWalks` and bases with
// a bump are factorized, else as long as the bases stay triangular.
void Run_Folder(const std::string &root, bool fullWalks, int &walked, int &steps, int &checks) {
  walked = steps = checks = 0;
  const bool bumps = tri::Bump_Supported();
  for (const std::string &dir : Case_Dirs(root)) {
    vlu_case::Case c;
    std::string err;
    ASSERT_TRUE(vlu_case::Read_Case(dir, c, err)) << dir << ": " << err;
    SCOPED_TRACE(c.name);
    if (c.InfoStr("expected") == "singular") {
      if (bumps) Check_Singular_Case(c);
      continue;
    }
    if (!tri::Is_Triangular(c, c.basis) && !bumps) continue;
    if (!tri::Is_Triangular(c, c.basis) && !fullWalks) {
      // The start basis at least must solve.
      ASSERT_EQ(tri::Factor(c, c.basis), 0);
      Check_Ones(c, c.basis, 1e-10);
      continue;
    }
    Replay r = Replay_Case(c, fullWalks && bumps);
    if (r.started) ++walked;
    steps += r.stepsDone;
    checks += r.checksDone;
  }
}

TEST_F(Walk, BundledCases) {
  int walked = 0, steps = 0, checks = 0;
  Run_Folder(VLU_TEST_DATA, true, walked, steps, checks);
  std::printf("  bundled cases: %d walked, %d steps, %d checks\n", walked, steps, checks);
  // afiro, gfrd-pnc and ship04l walk all the way; the hand-made cases add
  // the all-slack and one-row walks.
  EXPECT_GE(walked, 6);
  EXPECT_GE(steps, 600);
  EXPECT_GE(checks, 20);
}

TEST_F(Walk, SharedCases) {
  struct stat st;
  if (::stat(VLU_SHARED_CASES, &st) != 0 || !S_ISDIR(st.st_mode))
    GTEST_SKIP() << "no shared case folder at " << VLU_SHARED_CASES;
  int walked = 0, steps = 0, checks = 0;
  Run_Folder(VLU_SHARED_CASES, false, walked, steps, checks);
  std::printf("  shared cases: %d walked, %d steps, %d checks\n", walked, steps, checks);
  EXPECT_GE(walked, 10);
}

TEST_F(Walk, BundledCaseFilesReadBack) {
  vlu_case::Case c;
  std::string err;
  ASSERT_TRUE(vlu_case::Read_Case(std::string(VLU_TEST_DATA) + "/special-t-basic", c, err)) << err;
  EXPECT_EQ(c.n, 6);
  EXPECT_EQ(c.nz, 13);
  EXPECT_TRUE(c.hasR);
  EXPECT_EQ(c.basis[6], 2);
  EXPECT_EQ(vlu_case::Nnz_B(c, c.basis), static_cast<long>(c.InfoNum("nnz_B", -1)));
  EXPECT_EQ(static_cast<int>(c.steps.size()), static_cast<int>(c.InfoNum("walk_steps", -1)));
  EXPECT_FALSE(vlu_case::Read_Case(std::string(VLU_TEST_DATA) + "/no-such-case", c, err));
  EXPECT_NE(err.find("matrix.mtx"), std::string::npos);
}

// Malformed case folders are refused with a message, never a crash.
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
  const std::string header = "%%MatrixMarket matrix coordinate real general\n% comment\n";
  const std::string goodBasis = "2\n0\n0\n0\n2\n";
  struct Bad {
    std::string mtx, basis, walk, needle;
  };
  const Bad cases[] = {
      {"%%MatrixMarket matrix array real general\n2 2\n", goodBasis, "", "coordinate real general"},
      {header + "2 2 3\n1 1 1.0\n2 1 1.0\n", goodBasis, "", "entries"},
      {header + "2 2 1\n3 1 1.0\n", goodBasis, "", "out of range"},
      {header + "2 2 2\n1 1 1.0\n1 1 2.0\n", goodBasis, "", "duplicate"},
      {header + "2 2 1\n1 1 x\n", goodBasis, "", "row column value"},
      {header + "2 3 1\n1 1 1.0\n", goodBasis, "", "square"},
      {header + "2 2 1\n1 1 1.0\n", "2\n0\n0\n0\n", "", "2n+1"},
      {header + "2 2 1\n1 1 1.0\n", "2\n0\n0\n1\n2\n", "", "status"},
      {header + "2 2 1\n1 1 1.0\n", "2\n2\n0\n0\n2\n", "", "basic columns"},
      {header + "2 2 1\n1 1 1.0\n", goodBasis, "4 5\n4 1\n", "entering column not nonbasic"},
      {header + "2 2 1\n1 1 1.0\n", goodBasis, "check 1 2.0\n", "bad check line"},
  };
  for (const Bad &b : cases) {
    put("matrix.mtx", b.mtx);
    put("basis.txt", b.basis);
    ::unlink((dir + "/walk.txt").c_str());
    if (!b.walk.empty()) put("walk.txt", b.walk);
    vlu_case::Case c;
    std::string err;
    EXPECT_FALSE(vlu_case::Read_Case(dir, c, err)) << b.needle;
    EXPECT_NE(err.find(b.needle), std::string::npos) << "message: " << err;
  }
  // And a well-formed one: unsorted entries are put in column order.
  put("matrix.mtx", header + "2 2 3\n2 2 4.0\n1 1 1.0\n2 1 -3.0\n");
  put("basis.txt", goodBasis);
  put("walk.txt", "check 0 1.0\n4 1\ncheck 1 2.0\n");
  vlu_case::Case c;
  std::string err;
  ASSERT_TRUE(vlu_case::Read_Case(dir, c, err)) << err;
  EXPECT_EQ(c.colStart, (std::vector<int>{1, 3, 4}));
  EXPECT_EQ(c.rowIdx, (std::vector<int>{1, 2, 2}));
  EXPECT_EQ(c.val, (std::vector<double>{1.0, -3.0, 4.0}));
  ASSERT_EQ(c.steps.size(), 1u);
  EXPECT_EQ(c.steps[0].q, 4);
  EXPECT_EQ(c.checks.size(), 2u);
  for (const char *f : {"matrix.mtx", "basis.txt", "walk.txt"}) ::unlink((dir + "/" + f).c_str());
  ::rmdir(dir.c_str());
}

}  // namespace
