// Whole factorizations of dense and nearly dense bases, through the exported
// calls, and allocation failures injected into factorizations with a dense
// final block.
//
// The bases are built from a hidden matching: column j has its matched entry
// in row match[j] and further entries at chosen positions, the rows in a
// random order.  Every test reads back which road the elimination took:
//   LUF%D_Size             rows of the dense final block (0: none)
//   LUF%NumVTria           pivots taken before the bump (0: all of the basis
//                          is the bump, so Rowlft at its start is n)
//   "Final Dense Block has"           Dense_Pivot ran
//   "Switching to semi-dense mode. Indx="  where semi-dense mode began: at the
//                          first position of the dense block when LU_Space's
//                          density test switched, earlier when the count rule
//                          of Factor_Bump did ("Max Markowich count=")
// and checks the factors (L U = B, for the smaller ones) and the relative
// residuals of two solves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <numeric>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/test_hooks.h"
#include "support/lu_check.h"
#include "tools/case_io.h"
#include "vardenlu.h"

#if defined(__SANITIZE_ADDRESS__)
#define VLU_DENSE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VLU_DENSE_SANITIZED 1
#endif
#endif
#ifndef VLU_DENSE_SANITIZED
#define VLU_DENSE_SANITIZED 0
#endif

namespace {

using vlu::LUF;
using vlu::VMI;

enum class Kind { Dominant, Plain };

// A basis of n structural columns: column j holds rows rowsOf[j - 1] (which
// include its matched row).  Dominant: entries in [-1, 1] and the matched
// entry larger than the rest of its column together; Plain: all in [-1, 1].
vlu_case::Case Make_Basis(int n, const std::vector<std::vector<int>> &rowsOf,
                          const std::vector<int> &match, Kind kind, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  vlu_case::Case c;
  c.name = "generated";
  c.n = n;
  c.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    std::vector<int> rows = rowsOf[size_t(j - 1)];
    std::sort(rows.begin(), rows.end());
    double sum = 0.0;
    size_t matchedAt = 0;
    for (int r : rows) {
      double v = uni(gen);
      if (std::fabs(v) < 0.01) v = 0.5;  // no values near zero: the pattern is the structure
      if (r == match[size_t(j - 1)]) matchedAt = c.val.size();
      sum += std::fabs(v);
      c.rowIdx.push_back(r);
      c.colIdx.push_back(j);
      c.val.push_back(v);
    }
    if (kind == Kind::Dominant) c.val[matchedAt] = (c.val[matchedAt] < 0 ? -1.0 : 1.0) * (1.0 + sum);
    c.colStart.push_back(int(c.val.size()) + 1);
  }
  c.nz = int(c.val.size());
  c.basis.assign(size_t(2 * n + 1), 0);
  for (int j = 1; j <= n; ++j) c.basis[size_t(j - 1)] = 2;
  return c;
}

std::vector<int> Random_Match(int n, std::mt19937_64 &gen) {
  std::vector<int> m(static_cast<size_t>(n));
  std::iota(m.begin(), m.end(), 1);
  std::shuffle(m.begin(), m.end(), gen);
  return m;
}

// n x n with exactly `elements` entries: column 1 full, the matching, and
// positions drawn from the others.  A dense start pivots on column 1 (the
// first of the bump), which no Markowitz search would choose first.
vlu_case::Case Near_Dense(int n, int64_t elements, Kind kind, uint64_t seed) {
  std::mt19937_64 gen(seed);
  const std::vector<int> match = Random_Match(n, gen);
  std::vector<std::vector<int>> rowsOf(static_cast<size_t>(n));
  for (int i = 1; i <= n; ++i) rowsOf[0].push_back(i);
  std::vector<int64_t> others;
  for (int j = 2; j <= n; ++j) {
    rowsOf[size_t(j - 1)].push_back(match[size_t(j - 1)]);
    for (int i = 1; i <= n; ++i)
      if (i != match[size_t(j - 1)]) others.push_back(int64_t(j - 1) * n + (i - 1));
  }
  std::shuffle(others.begin(), others.end(), gen);
  others.resize(size_t(elements - (2 * n - 1)));
  for (int64_t p : others) rowsOf[size_t(p / n)].push_back(int(p % n) + 1);
  return Make_Basis(n, rowsOf, match, kind, seed + 1);
}

// A sparse basis of n columns (the matched entry and `perCol` - 1 more in
// random rows) in which the last `block` columns are dense in the last
// `block` rows (at `density`) and tied to the sparse part both ways: the
// elimination takes the sparse pivots first and meets the block filled in.
vlu_case::Case Sparse_With_Block(int n, int perCol, int block, double density, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  std::vector<int> match(static_cast<size_t>(n));
  std::iota(match.begin(), match.end(), 1);
  std::vector<std::vector<int>> rowsOf(static_cast<size_t>(n));
  const int b0 = n - block + 1;
  for (int j = 1; j <= n; ++j) {
    std::vector<int> &rows = rowsOf[size_t(j - 1)];
    rows.push_back(j);
    auto add = [&](int r) {
      if (std::find(rows.begin(), rows.end(), r) == rows.end()) rows.push_back(r);
    };
    if (j < b0) {
      while (int(rows.size()) < perCol) add(1 + int(uni(gen) * n) % n);
    } else {
      for (int i = b0; i <= n; ++i)
        if (uni(gen) < density) add(i);
      add(1 + int(uni(gen) * (b0 - 1)) % (b0 - 1));  // a row of the sparse part
    }
  }
  return Make_Basis(n, rowsOf, match, Kind::Dominant, seed + 1);
}

// Reads the road of the last factorization from the environment and the
// trace (level 1).
struct Road {
  int32_t dSize = 0, numVTria = 0;
  int semiAt = 0;          // Indx of "Switching to semi-dense mode", 0 when none
  bool denseLine = false;  // "Final Dense Block has" with D_Size
  bool byCount = false;    // the count rule of Factor_Bump asked for the switch
  int firstCol = 0;        // column of the first pivot of the bump (place)
  int DenseStart(int n) const { return n - dSize + 1; }
};

class DenseBases : public luc::ApiTest {
 protected:
  void TearDown() override {
    vlu::Test_Options = vlu::Test_Hooks();
    luc::ApiTest::TearDown();
  }

  int Factor(const vlu_case::Case &c) {
    msgs.lines.clear();
    vlu::Test_Options.Trace_Inv = 1;
    const int rc = vlu_factor(&c.n, &c.nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(),
                              c.val.data(), c.rPtr(), c.basis.data());
    if (Env() != nullptr) vlu::Msg_Flush(Env());
    return rc;
  }

  Road Read_Road() const {
    Road r;
    const LUF *luf = Env()->Luf;
    r.dSize = luf->D_Size;
    r.numVTria = luf->NumVTria;
    char line[80];
    std::snprintf(line, sizeof line, "Final Dense Block has%8d Rows and Columns.", r.dSize);
    r.denseLine = msgs.Has(line);
    const int at = msgs.Find("Switching to semi-dense mode. Indx=");
    if (at >= 0) r.semiAt = std::atoi(msgs.lines[size_t(at)].c_str() + 35);
    r.byCount = msgs.Has("Max Markowich count=");
    r.firstCol = Env()->Vim->Cnto.V[r.numVTria + 1];
    return r;
  }

  // Residuals of b = ones and a random b; L U = B when n is small enough for
  // the dense check of the factors.
  void Expect_Accurate(const vlu_case::Case &c) {
    if (c.n <= 600) {
      EXPECT_TRUE(luc::Check_Factors(Env()));
    }
    const ::testing::TestInfo *t = ::testing::UnitTest::GetInstance()->current_test_info();
    EXPECT_TRUE(luc::Recorded(std::string(t->test_suite_name()) + "." + t->name(), Env()));
    std::vector<double> b(size_t(c.n), 1.0);
    EXPECT_LE(luc::Solve_Residual(c, c.basis, b), 1e-12) << "b = ones";
    std::mt19937_64 gen(uint64_t(c.n));
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    for (double &v : b) v = uni(gen);
    EXPECT_LE(luc::Solve_Residual(c, c.basis, b), 1e-12) << "random b";
  }
};

// ---------------------------------------------------------------------------
// Fully dense bases go to Dense_Pivot at once, whatever the batch position:
// 9, 100 and 101 stand beside the row counts of the dense-start rules, 64/65
// end on a full batch and one past it, 500 and 3000 run several batches
// and panels of the delayed updates.  (The least dense starts, of 8 rows and
// at the density rules, are the edges below.)

struct FullyDense : DenseBases, ::testing::WithParamInterface<std::tuple<int, Kind>> {};

TEST_P(FullyDense, DenseStartWithSmallResiduals) {
  const auto [n, kind] = GetParam();
  if (VLU_DENSE_SANITIZED && n > 500) GTEST_SKIP() << "only in the optimised build";
  const vlu_case::Case c = Near_Dense(n, int64_t(n) * n, kind, uint64_t(n));
  ASSERT_EQ(Factor(c), 0) << msgs.All();
  const Road r = Read_Road();
  EXPECT_EQ(r.numVTria, 0);
  EXPECT_EQ(r.dSize, n);
  EXPECT_TRUE(r.denseLine) << msgs.All();
  Expect_Accurate(c);
}

std::vector<std::tuple<int, Kind>> Dense_Sizes() {
  std::vector<std::tuple<int, Kind>> v;
  for (int n : {64, 65, 500})
    for (Kind k : {Kind::Dominant, Kind::Plain}) v.emplace_back(n, k);
  for (int n : {9, 100, 101}) v.emplace_back(n, Kind::Plain);  // beside the rules' row counts
  v.emplace_back(3000, Kind::Plain);  // about 10 s in the optimised build
  return v;
}

INSTANTIATE_TEST_SUITE_P(Sizes, FullyDense, ::testing::ValuesIn(Dense_Sizes()),
                         [](const auto &info) {
                           return "n" + std::to_string(std::get<0>(info.param)) +
                                  (std::get<1>(info.param) == Kind::Dominant ? "_dominant" : "_plain");
                         });

// ---------------------------------------------------------------------------
// The two rules of the dense start, each just above and just below its
// density; below, the rest reaches Dense_Pivot later (or never, when fewer
// than 8 rows are left).  The consistency battery runs between the pivots.

struct Edge {
  const char *name;
  int n;
  int64_t elements;
  bool denseStart;
  int later;  // without a dense start: 1 Dense_Pivot after some pivots, 0 never, -1 either
};
void PrintTo(const Edge &e, std::ostream *os) { *os << e.name; }

struct DenseStartEdge : DenseBases, ::testing::WithParamInterface<Edge> {};

TEST_P(DenseStartEdge, StartsDenseExactlyAboveTheRule) {
  const Edge e = GetParam();
  const vlu_case::Case c = Near_Dense(e.n, e.elements, Kind::Dominant, uint64_t(e.elements));
  vlu::Test_Options.Test_Every = 1;
  vlu::Test_Options.Test_LU = 1;
  vlu::Test_Options.Test_Full = 1;
  ASSERT_EQ(Factor(c), 0) << msgs.All();
  EXPECT_FALSE(msgs.Has("syserr=9")) << msgs.All();
  const Road r = Read_Road();
  ASSERT_EQ(r.numVTria, 0) << "the whole basis must be the bump";
  EXPECT_EQ(r.firstCol == 1, e.denseStart) << "first pivot in column " << r.firstCol;
  if (e.denseStart) {
    EXPECT_EQ(r.dSize, e.n);
    EXPECT_TRUE(r.denseLine);
  } else if (e.later == 0) {
    EXPECT_EQ(r.dSize, 0);
    EXPECT_EQ(msgs.Find("Final Dense Block has"), -1);
  } else if (e.later == 1 || r.dSize > 0) {
    EXPECT_GT(r.dSize, 0);
    EXPECT_LT(r.dSize, e.n);
    EXPECT_TRUE(r.denseLine);
    // Semi-dense mode began by LU_Space's density test, at the block, or by
    // the count rule before it (only with 101 rows or more left).
    if (r.byCount) {
      EXPECT_LT(r.semiAt, r.DenseStart(e.n));
    } else {
      EXPECT_EQ(r.semiAt, r.DenseStart(e.n));
    }
  }
  Expect_Accurate(c);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, DenseStartEdge,
    ::testing::Values(Edge{"rows8_full", 8, 64, true, 0},
                      Edge{"rows8_one_missing", 8, 63, false, 0},  // then 7 rows: never dense
                      Edge{"rows99_above_099", 99, 9703, true, 0},   // 9703 / 99^2 = 0.99001
                      Edge{"rows99_below_099", 99, 9702, false, 1},  // 0.98990
                      Edge{"rows99_density06", 99, 5881, false, -1},  // Dense_Factor needs 100 rows
                      Edge{"rows100_above_05", 100, 5001, true, 0},
                      Edge{"rows100_at_05", 100, 5000, false, 1},    // not above: no dense start
                      Edge{"rows101_above_05", 101, 5101, true, 0},  // 0.50005
                      Edge{"rows101_below_05", 101, 5100, false, 1}),  // 0.49995
    [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Dense later: a sparse basis whose last columns form a block at density
// 0.6.  The sparse pivots come first; the block, filled in, is then dense
// by the rule of Dense_Factor (100 rows or more left).

TEST_F(DenseBases, SparsePivotsThenTheDenseRuleOfLUSpace) {
  const vlu_case::Case c = Sparse_With_Block(400, 3, 180, 0.6, 5);
  ASSERT_EQ(Factor(c), 0) << msgs.All();
  const Road r = Read_Road();
  const int start = r.DenseStart(c.n);
  EXPECT_GE(r.dSize, 100);
  EXPECT_GT(start, r.numVTria + 1) << "dense from the start";
  EXPECT_TRUE(r.denseLine);
  EXPECT_FALSE(r.byCount);
  EXPECT_EQ(r.semiAt, start) << "LU_Space switches to semi-dense mode at the block";
  Expect_Accurate(c);
}

// Semi-dense mode by the count rule, semi-dense pivots, then the dense block.
// The battery runs between the pivots, through both switches.
TEST_F(DenseBases, CountRuleThenSemiDensePivotsThenDense) {
  const vlu_case::Case c = Sparse_With_Block(300, 4, 120, 0.3, 9);
  vlu::Test_Options.Test_Every = 1;
  vlu::Test_Options.Test_LU = 1;
  vlu::Test_Options.Test_Full = 1;
  ASSERT_EQ(Factor(c), 0) << msgs.All();
  EXPECT_FALSE(msgs.Has("syserr=9")) << msgs.All();
  const Road r = Read_Road();
  EXPECT_TRUE(r.byCount) << msgs.All();
  ASSERT_GT(r.semiAt, 0);
  EXPECT_LT(r.semiAt, r.DenseStart(c.n)) << "no pivot in semi-dense mode";
  EXPECT_GT(r.dSize, 0);
  Expect_Accurate(c);
}

// ---------------------------------------------------------------------------
// An allocation failure at each allocation of a factorization, one run per
// allocation: result 4, the environment released in balance, nothing left
// behind; or result 0 with correct factors when the factorization could do
// without the allocation (none is expected).  The memory trace names each
// failed vector.

struct AllocFailure : DenseBases {
  void TearDown() override {
    vlu::Test_Alloc_Fail_At = 0;
    DenseBases::TearDown();
  }

  void Restart() {
    vlu_destroy();
    ASSERT_FALSE(msgs.Has("not in balance")) << msgs.All();
    ASSERT_EQ(vlu_create(), 0);
  }

  // The name of the vector whose allocation failed, from the memory trace.
  std::string Failed_Vector() const {
    const int at = msgs.Find("Insufficient memory in ");
    if (at < 0) return "(no trace)";
    const std::string &l = msgs.lines[size_t(at)];
    const size_t v = l.find("Vector ");
    return v == std::string::npos ? l : l.substr(23, l.find(':') - 23) + " " +
                                            l.substr(v + 7, l.find(' ', v + 7) - v - 7);
  }

  // One run per allocation of the factorization of c.  Prints the vectors
  // whose growth failed (the set-up's first allocations only counted); dense:
  // some of the failures must come after the switch to semi-dense mode.
  void Fail_Each(const char *label, const vlu_case::Case &c, bool minSpace, bool dense) {
    SCOPED_TRACE(label);
    Restart();
    vlu::Test_Options.Min_Space = minSpace;
    const int64_t base = vlu::Test_Alloc_Count;
    ASSERT_EQ(Factor(c), 0) << msgs.All();
    const int64_t total = vlu::Test_Alloc_Count - base;
    ASSERT_EQ(Env()->Luf->D_Size > 0, dense);
    vlu_destroy();
    ASSERT_EQ(vlu_create(), 0);
    std::map<std::string, int> grown;
    int fours = 0, first = 0, lateFailures = 0;
    for (int64_t k = 1; k <= total; ++k) {
      SCOPED_TRACE(::testing::Message() << "allocation " << k << " of " << total);
      vlu::Test_Options.Min_Space = minSpace;
      vlu::Test_Options.Trace_Memory = 1;
      vlu::Test_Options.Trace_Inv = 1;
      vlu::Test_Alloc_Fail_At = vlu::Test_Alloc_Count + k;
      msgs.lines.clear();
      ::testing::internal::CaptureStdout();
      const int rc = vlu_factor(&c.n, &c.nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(),
                                c.val.data(), c.rPtr(), c.basis.data());
      const std::string out = ::testing::internal::GetCapturedStdout();
      vlu::Test_Options = vlu::Test_Hooks();
      EXPECT_EQ(vlu::Test_Alloc_Fail_At, 0) << "the injected failure was not reached";
      const std::string what = Failed_Vector();
      if (rc == 4) {
        ++fours;
        EXPECT_EQ(Env(), nullptr) << "the environment must be released";
        EXPECT_NE(out.find("not VMI%EnoughSpace"), std::string::npos) << out;
      } else {
        ASSERT_EQ(rc, 0) << msgs.All();
        ADD_FAILURE() << "result 0 after a failed allocation of " << what;
        EXPECT_TRUE(luc::Check_Factors(Env()));
      }
      if (what.compare(0, 9, "Increase_") == 0) {
        ++grown[what.substr(what.find(' ') + 1)];
      } else {
        ++first;
      }
      const int sw = msgs.Find("Switching to semi-dense mode"), fail = msgs.Find("Insufficient memory in ");
      if (sw >= 0 && fail > sw) ++lateFailures;
      vlu_destroy();  // the balance of every counter is checked here too
      ASSERT_FALSE(msgs.Has("not in balance")) << msgs.All();
      ASSERT_EQ(vlu_create(), 0);
      if (HasFailure()) return;
    }
    std::string names;
    for (const auto &g : grown) names += " " + g.first + (g.second > 1 ? " x" + std::to_string(g.second) : "");
    std::printf("  %s: %lld allocations, result 4 in %d; %d first allocations, %d after the "
                "semi-dense switch; growth:%s\n",
                label, static_cast<long long>(total), fours, first, lateFailures, names.c_str());
    EXPECT_EQ(fours, total);
    if (dense) {
      EXPECT_GT(lateFailures, 0) << "no failure inside the semi-dense or dense road";
    }
  }
};

TEST_F(AllocFailure, EveryAllocationOfAFactorizationWithADenseBlock) {
  Fail_Each("dense start", Near_Dense(70, 70 * 70, Kind::Plain, 3), false, true);
  const vlu_case::Case later = Sparse_With_Block(300, 4, 120, 0.3, 9);
  Fail_Each("semi-dense, then dense", later, false, true);
  Fail_Each("semi-dense, then dense, smallest stores", later, true, true);
}

// For comparison, sparse eliminations: a bundled case, and a random sparse
// basis from the smallest stores, whose elimination grows its files and
// block lists many times.
TEST_F(AllocFailure, EveryAllocationOfASparseFactorization) {
  vlu_case::Case c;
  std::string err;
  ASSERT_TRUE(vlu_case::Read_Case(std::string(VLU_TEST_DATA) + "/beaconfd", c, err)) << err;
  Fail_Each("beaconfd", c, false, false);
  Fail_Each("random sparse, smallest stores", Sparse_With_Block(300, 3, 0, 0.0, 21), true, false);
}

}  // namespace
