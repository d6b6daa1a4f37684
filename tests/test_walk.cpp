// Walks: sequences of basis changes as a simplex method makes them, each a
// solve with the entering column and an update, checked by residuals and by
// the norms recorded with the case folders.
#include <filesystem>

#include "interface/state.h"
#include "triangular_support.h"

namespace {

namespace fs = std::filesystem;
using Walk = tri::Session;

TEST_F(Walk, TriangularWalksEndToEnd) {
  // Limit 0 refactorizes at every step; the default limit may update.
  const struct {
    tri::Shape shape;
    int n, steps, limit;
  } walks[] = {{tri::Shape::Lower, 300, 300, 0}, {tri::Shape::Upper, 1000, 120, -1}};
  for (auto w : walks) {
    SCOPED_TRACE(::testing::Message() << "walk over n=" << w.n << " limit " << w.limit);
    Restart();
    if (w.limit >= 0) vlu_setupdatelimit(&w.limit);
    const tri::System s = tri::Make_System(w.n, w.shape, 8 + w.n, true, 0.3);
    const std::vector<double> ones(w.n, 1.0);
    std::vector<int> stat = s.c.basis;
    ASSERT_EQ(tri::Factor(s.c, stat), 0);
    std::mt19937_64 gen(w.n);
    for (int t = 1; t <= w.steps; ++t) {
      int q, l;
      tri::Swap_At(s, stat, 1 + static_cast<int>(gen() % w.n), q, l);
      const int rc = tri::Change(s.c, stat, q, l);
      ASSERT_TRUE(rc == 1 || (rc == 2 && w.limit != 0)) << "step " << t << " result " << rc;
      if (t % 10 == 0) {
        EXPECT_LT(tri::Solve_Residual(s.c, stat, ones), 1e-13) << "step " << t;
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
// The walks of case folders, replayed as long as the bases stay triangular.

struct Totals {
  int walked = 0, steps = 0, checks = 0;
};

void Replay(const vlu_case::Case &c, Totals &tot) {
  std::vector<int> stat = c.basis;
  ASSERT_EQ(tri::Factor(c, stat), 0);
  ++tot.walked;
  const double tol = std::max(1e-10, 1e-14 * c.InfoNum("walk_condition_1_max", 1.0));
  const std::vector<double> ones(c.n, 1.0);
  size_t next = 0;
  for (int step = 0;; ++step) {
    for (; next < c.checks.size() && c.checks[next].step == step; ++next, ++tot.checks) {
      std::vector<double> sol;
      EXPECT_LT(tri::Solve_Residual(c, stat, ones, &sol), 1e-13) << "after step " << step;
      const double norm = vlu_case::Basic_Norm2(c, stat, sol.data()), ref = c.checks[next].norm;
      EXPECT_LE(std::fabs(norm - ref), tol * std::fabs(ref))
          << "check after step " << step << ": " << norm << " vs " << ref;
    }
    if (step == static_cast<int>(c.steps.size())) return;
    const int q = c.steps[step].q, l = c.steps[step].l;
    std::vector<int> after = stat;
    after[q - 1] = 2;
    after[l - 1] = 0;
    if (!tri::Is_Triangular(c, after)) return;
    const int rc = tri::Change(c, stat, q, l);
    ASSERT_TRUE(rc == 1 || rc == 2) << "step " << step + 1 << " result " << rc;
    ++tot.steps;
  }
}

// A singular case must name a repair that the case allows.
void Check_Singular(const vlu_case::Case &c) {
  ASSERT_EQ(tri::Factor(c, c.basis), 3);
  EXPECT_EQ(vlu_getnumsing(), static_cast<int>(c.InfoNum("dropped_columns", -1)));
  const std::string cols = " " + c.InfoStr("columns_that_may_be_dropped") + " ";
  const std::string rows = " " + c.InfoStr("rows_whose_slack_may_enter") + " ";
  for (int k = 1, row, col; k <= vlu_getnumsing(); ++k) {
    vlu_getsingpair(&k, &row, &col);
    EXPECT_NE(cols.find(" " + std::to_string(col) + " "), std::string::npos) << "column " << col;
    EXPECT_NE(rows.find(" " + std::to_string(row) + " "), std::string::npos) << "row " << row;
  }
}

// Every case of a folder.  Singular ones and bases with a bump are checked
// only by a build that factorizes bumps.
Totals Run_Folder(const std::string &root) {
  std::vector<std::string> dirs;
  for (const auto &e : fs::directory_iterator(root))
    if (vlu_case::Is_Case_Dir(e.path().string())) dirs.push_back(e.path().string());
  std::sort(dirs.begin(), dirs.end());
  const bool bumps = tri::Bump_Supported();
  Totals tot;
  for (const std::string &dir : dirs) {
    vlu_case::Case c;
    std::string err;
    if (!vlu_case::Read_Case(dir, c, err)) {
      ADD_FAILURE() << dir << ": " << err;
      continue;
    }
    SCOPED_TRACE(c.name);
    if (c.InfoStr("expected") == "singular") {
      if (bumps) Check_Singular(c);
    } else if (tri::Is_Triangular(c, c.basis)) {
      Replay(c, tot);
    } else if (bumps) {
      EXPECT_EQ(tri::Factor(c, c.basis), 0);
      EXPECT_LT(tri::Solve_Residual(c, c.basis, std::vector<double>(c.n, 1.0)), 1e-12);
    }
  }
  std::printf("  %s: %d walked, %d steps, %d checks\n", root.c_str(), tot.walked, tot.steps,
              tot.checks);
  return tot;
}

TEST_F(Walk, BundledCases) {
  // afiro, gfrd-pnc and ship04l walk all the way; the hand-made cases add
  // the all-slack, triangular, one-row and t-basic walks.
  const Totals t = Run_Folder(VLU_TEST_DATA);
  EXPECT_GE(t.walked, 9);
  EXPECT_GE(t.steps, 880);
  EXPECT_GE(t.checks, 46);
}

TEST_F(Walk, SharedCases) {
  if (!fs::is_directory(VLU_SHARED_CASES))
    GTEST_SKIP() << "no shared case folder at " << VLU_SHARED_CASES;
  EXPECT_GE(Run_Folder(VLU_SHARED_CASES).walked, 10);
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
