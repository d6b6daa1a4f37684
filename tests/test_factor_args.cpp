// The argument checks of vlu_factor: each malformed matrix is refused with
// its own line, a well-formed one in any row order passes, and the pass
// leaves its scratch vector clean.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "interface/factor_args.h"
#include "interface/state.h"
#include "runtime/records.h"
#include "vardenlu.h"

namespace {

// A matrix in the layout of the factor call, with every column basic that
// fits and the slacks filling up.
struct Args {
  int n = 3;
  std::vector<int> colStart{1, 3, 5, 6};
  std::vector<int> rowIdx{1, 2, 2, 3, 3};
  std::vector<int> colIdx{1, 1, 2, 2, 3};
  std::vector<double> val{2.0, 1.0, 3.0, 1.0, 4.0};
  std::vector<int> stat;

  int nz() const { return static_cast<int>(rowIdx.size()); }
  vlu::Factor_Args Get() const {
    vlu::Factor_Args a;
    a.n = n;
    a.nz = nz();
    a.colStart = colStart.data();
    a.rowIdx = rowIdx.data();
    a.colIdx = colIdx.data();
    a.val = val.data();
    a.basisStat = stat.data();
    return a;
  }
  // Columns given as row lists; values 1.
  static Args Of(int n, const std::vector<std::vector<int>> &cols) {
    Args a;
    a.n = n;
    a.colStart = {1};
    a.rowIdx.clear();
    a.colIdx.clear();
    a.val.clear();
    for (size_t j = 0; j < cols.size(); ++j) {
      for (int i : cols[j]) {
        a.rowIdx.push_back(i);
        a.colIdx.push_back(static_cast<int>(j) + 1);
        a.val.push_back(1.0);
      }
      a.colStart.push_back(static_cast<int>(a.rowIdx.size()) + 1);
    }
    a.stat.assign(2 * n + 1, 0);
    for (int i = 1; i <= n; ++i) a.stat[n + i] = 2;
    return a;
  }
};

// Runs the copy and the checks on an environment set up for the arguments'
// sizes; returns the message ("" when the arguments pass).
std::string Load(const Args &x) {
  const vlu::Factor_Args a = x.Get();
  char msg[vlu::Arg_Msg_Len];
  if (!vlu::Check_Factor_Sizes(a, msg)) return msg;
  vlu::VMI *v = nullptr;
  int status = 0;
  vlu::Allocate_Space(&v, &status);
  EXPECT_EQ(status, 0);
  v->Vim->NumRow = a.n;
  v->Vim->NumCol = a.n + 1;
  v->Vim->NumNz = a.nz + a.n;
  v->Max_Updates = 100;
  vlu::Allocate_Inversion(v);
  const bool ok = vlu::Load_Factor_Matrix(v, a, msg);
  for (int i = 1; i <= a.n + 1; ++i) EXPECT_EQ(v->Vim->HelpZ[i], 0) << "scratch left dirty at " << i;
  if (ok) {  // the store is the caller's matrix with column t behind it
    for (int j = 1; j <= a.n + 1; ++j) EXPECT_EQ(v->Vim->Stcl[j], x.colStart[j - 1]);
    EXPECT_EQ(v->Vim->Stcl[a.n + 2], a.nz + 1 + a.n);
    for (int p = 1; p <= a.nz; ++p) EXPECT_EQ(v->Vim->Rnum[p], x.rowIdx[p - 1]);
    for (int i = 1; i <= a.n; ++i) EXPECT_EQ(v->Vim->Rnum[a.nz + i], i);
  }
  vlu::VMI_Deallocate(&v, &status);
  return ok ? "" : msg;
}

TEST(FactorArgs, EachFaultHasItsLine) {
  struct Case {
    const char *what;
    Args a;
    std::string msg;
  };
  std::vector<Case> cases;
  auto add = [&](const char *what, std::string msg, auto spoil) {
    Args a;
    a.stat = {2, 2, 2, 0, 0, 0, 0};
    spoil(a);
    cases.push_back({what, a, msg});
  };
  add("negative n", "vlu_factor: n = -1 is negative", [](Args &a) { a.n = -1; });
  add("first start", "vlu_factor: colStart[0] = 0, expected 1", [](Args &a) { a.colStart[0] = 0; });
  add("falling start", "vlu_factor: colStart[2] = 2 is below colStart[1] = 3",
      [](Args &a) { a.colStart[2] = 2; });
  add("last start", "vlu_factor: colStart[3] = 5, expected nz + 1 = 6",
      [](Args &a) { a.colStart[3] = 5; });
  add("row 0", "vlu_factor: rowIdx[3] = 0 in column 2 is outside 1..n = 3",
      [](Args &a) { a.rowIdx[3] = 0; });
  add("row n + 1", "vlu_factor: rowIdx[4] = 4 in column 3 is outside 1..n = 3",
      [](Args &a) { a.rowIdx[4] = 4; });
  add("row 10^6", "vlu_factor: rowIdx[0] = 1000000 in column 1 is outside 1..n = 3",
      [](Args &a) { a.rowIdx[0] = 1000000; });
  add("row INT_MIN", "vlu_factor: rowIdx[1] = -2147483648 in column 1 is outside 1..n = 3",
      [](Args &a) { a.rowIdx[1] = INT_MIN; });
  add("repeat, rows ascending", "vlu_factor: row 2 appears twice in column 2 (rowIdx[2] and rowIdx[3])",
      [](Args &a) { a.rowIdx[3] = 2; });
  add("repeat, rows out of order", "vlu_factor: row 3 appears twice in column 1 (rowIdx[0] and rowIdx[2])",
      [](Args &a) {
        a.rowIdx = {3, 1, 3, 2, 3};
        a.colStart = {1, 4, 5, 6};
      });
  for (Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Load(c.a), c.msg);
  }
}

TEST(FactorArgs, SizesAndPointers) {
  Args x;
  x.stat = {2, 2, 2, 0, 0, 0, 0};
  char msg[vlu::Arg_Msg_Len];
  vlu::Factor_Args a = x.Get();
  EXPECT_TRUE(vlu::Check_Factor_Sizes(a, msg));
  a.nz = -2;
  EXPECT_FALSE(vlu::Check_Factor_Sizes(a, msg));
  EXPECT_STREQ(msg, "vlu_factor: nz = -2 is negative");
  // nz + 2n must leave room for the rounding of the store sizes.
  a.n = 1000000000;
  a.nz = 147482623;
  EXPECT_TRUE(vlu::Check_Factor_Sizes(a, msg));
  a.nz += 1;
  EXPECT_FALSE(vlu::Check_Factor_Sizes(a, msg));
  EXPECT_STREQ(msg, "vlu_factor: n = 1000000000 and nz = 147482624 are too large: "
                    "nz + 2n must not exceed 2147482623");
  a.n = INT_MAX;
  a.nz = INT_MAX;
  EXPECT_FALSE(vlu::Check_Factor_Sizes(a, msg));
  const std::pair<const char *, std::function<void(vlu::Factor_Args &)>> nulls[] = {
      {"vlu_factor: colStart is null", [](vlu::Factor_Args &b) { b.colStart = nullptr; }},
      {"vlu_factor: rowIdx is null with nz = 5", [](vlu::Factor_Args &b) { b.rowIdx = nullptr; }},
      {"vlu_factor: colIdx is null with nz = 5", [](vlu::Factor_Args &b) { b.colIdx = nullptr; }},
      {"vlu_factor: val is null with nz = 5", [](vlu::Factor_Args &b) { b.val = nullptr; }},
      {"vlu_factor: basisStat is null", [](vlu::Factor_Args &b) { b.basisStat = nullptr; }},
  };
  for (const auto &c : nulls) {
    vlu::Factor_Args b = x.Get();
    c.second(b);
    EXPECT_FALSE(vlu::Check_Factor_Sizes(b, msg));
    EXPECT_STREQ(msg, c.first);
  }
  // With no entries the entry arrays are not needed.
  vlu::Factor_Args e = Args::Of(2, {{}, {}}).Get();
  e.rowIdx = e.colIdx = nullptr;
  e.val = nullptr;
  EXPECT_TRUE(vlu::Check_Factor_Sizes(e, msg));
}

TEST(FactorArgs, WellFormedMatricesPassInAnyRowOrder) {
  // Rows falling from one column to the next, empty columns at both ends and
  // inside, a column in descending order, and the empty system.
  EXPECT_EQ(Load(Args::Of(4, {{}, {4, 2}, {}, {1, 3, 4}})), "");
  EXPECT_EQ(Load(Args::Of(4, {{3, 4}, {1}, {2}, {}})), "");
  EXPECT_EQ(Load(Args::Of(4, {{4, 3, 2, 1}, {1, 2, 3, 4}, {2, 4, 1, 3}, {4}})), "");
  EXPECT_EQ(Load(Args::Of(0, {})), "");
  // A repeat hidden behind a boundary fall: column 2 goes down after column
  // 1 ends high, then repeats.
  EXPECT_EQ(Load(Args::Of(2, {{2}, {1, 2, 1}})),
            "vlu_factor: row 1 appears twice in column 2 (rowIdx[1] and rowIdx[3])");
  // A boundary counts once, however many empty columns start there.
  EXPECT_EQ(Load(Args::Of(3, {{3}, {}, {1, 1}})),
            "vlu_factor: row 1 appears twice in column 3 (rowIdx[1] and rowIdx[2])");
  // The same row in two columns is no repeat.
  EXPECT_EQ(Load(Args::Of(3, {{2}, {2}, {2, 1}})), "");
}

// The factor call in a fresh environment; exits with 0 if it returns.
void Factor_Then_Exit(const Args &a) {
  vlu_destroy();
  vlu_create();
  int n = a.n, nz = a.nz();
  vlu_factor(&n, &nz, a.colStart.data(), a.rowIdx.data(), a.colIdx.data(), a.val.data(), nullptr,
             a.stat.data());
  std::exit(0);
}

// Through the exported call the first fault ends the process with its line.
TEST(FactorArgsDeath, MalformedMatrixStopsTheCall) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Twenty (row 1, row 2) pairs in one column of a regular 2 x 2 basis.
  std::vector<std::vector<int>> cols(2);
  for (int t = 0; t < 20; ++t) cols[0].insert(cols[0].end(), {1, 2});
  cols[1] = {2};
  Args rep = Args::Of(2, cols);
  rep.stat = {2, 2, 0, 0, 0};
  Args low;
  low.stat = {2, 2, 2, 0, 0, 0, 0};
  low.rowIdx[2] = 0;
  const std::pair<Args, const char *> runs[] = {
      {rep, "^vlu_factor: row 1 appears twice in column 1 \\(rowIdx\\[0\\] and rowIdx\\[2\\]\\)\n$"},
      {low, "^vlu_factor: rowIdx\\[2\\] = 0 in column 2 is outside 1\\.\\.n = 3\n$"},
  };
  for (const auto &run : runs)
    EXPECT_EXIT(Factor_Then_Exit(run.first), ::testing::ExitedWithCode(EXIT_FAILURE), run.second);
  Args neg;
  neg.n = -4;
  EXPECT_EXIT(Factor_Then_Exit(neg), ::testing::ExitedWithCode(EXIT_FAILURE),
              "^vlu_factor: n = -4 is negative\n$");
}

}  // namespace
