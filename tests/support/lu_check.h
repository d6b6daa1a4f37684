// Test helpers of the factorization: problems in the layout of the factor
// call, environments loaded by hand, message capture, the fixtures, and the
// check of the factors against the basis.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/records.h"

namespace luc {

// A problem for vlu_factor: n x n matrix by columns (1-based positions in
// colStart), r of column t (empty: unknown), the status of the 2n+1 columns.
struct Problem {
  int n = 0;
  std::vector<int> colStart, rowIdx, colIdx, stat;
  std::vector<double> val, r;
  int nz() const { return static_cast<int>(val.size()); }
  int Factor() const;  // vlu_factor; vlu_create must have been called
};

// Column lists: cols[j-1] = {(row, value), ...}; basic: the structural
// columns basic, else no column.
using Cols = std::vector<std::vector<std::pair<int, double>>>;
Problem From_Columns(int n, const Cols &cols, bool basic = false);
Problem All_Slack(int n);  // n empty structural columns, the slacks basic

// A basis triangular in a hidden pivot order: the column at position k has
// its diagonal in row prow[k] and up to six further elements in rows of
// later (lower) or earlier (upper) positions; rows and columns shuffled.
// slackShare of the positions take the slack of their row instead.
struct Triangular {
  Cols cols;
  Problem p;
  std::vector<int> prow, colOfPos;  // position -> row, position -> column
};
Triangular Make_Triangular(int n, bool lower, uint64_t seed, double slackShare = 0.0);

// Message capture through vlu_regmsgcb.
struct Messages {
  std::vector<std::string> lines;
  int Find(const std::string &text) const;  // first line containing text, or -1
  bool Has(const std::string &text) const { return Find(text) >= 0; }
  std::string All() const;
};

// Through the exported interface: a fresh vlu_create, messages captured; the
// teardown's memory balance must hold.
struct ApiTest : ::testing::Test {
  Messages msgs;
  void SetUp() override;
  void TearDown() override;
  static vlu::VMI *Env();
};

// Routines driven on an environment set up as the factor call sets it up
// (matrix and basis loaded, nothing factored); freed and balanced at the end.
struct EnvTest : ::testing::Test {
  Messages msgs;
  vlu::VMI *env = nullptr;
  void SetUp() override;
  void TearDown() override;
  void Load(const Problem &p);  // frees the previous one; throws on failure
};

// The factors against the basis B: permutations inverse to each other, U rows
// contiguous in pivot order, the L-file in pivot order, L U = B column by
// column.  Complete factorization: also the published order and the column
// copy holding exactly the elements of the row copy.  afterExtract: the
// state ExtractBasis leaves, U of the triangular rows plus the active bump
// in the row and column files (cross pointers, chains, used sizes).
::testing::AssertionResult Check_Factors(vlu::VMI *env, bool afterExtract = false);

}  // namespace luc
