// Test helpers of the factorization: problems in the layout of the factor
// call, environments loaded by hand, message capture, and checks that the
// factors reproduce the basis column by column.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/records.h"

namespace luc {

// A problem for vlu_factor: n x n matrix by columns (1-based positions in
// colStart), r of column t (empty: unknown), and the status of the 2n+1
// columns.
struct Problem {
  int n = 0;
  std::vector<int> colStart;  // n + 1 entries
  std::vector<int> rowIdx, colIdx;
  std::vector<double> val;
  std::vector<double> r;      // n entries or empty
  std::vector<int> stat;      // 2n + 1 entries

  int nz() const { return static_cast<int>(val.size()); }
  // Calls vlu_factor (vlu_create must have been called).
  int Factor() const;
};

// Column lists: cols[j-1] = {(row, value), ...}.
using Cols = std::vector<std::vector<std::pair<int, double>>>;
// Builds a problem from column lists; every status 0.
Problem From_Columns(int n, const Cols &cols);

// A basis triangular in a hidden pivot order: the column at position k has
// its diagonal in row prow[k] and further elements only in rows of later
// (lower) or earlier (upper) positions, about perColumn of them.  Rows and
// columns are shuffled.  slackShare of the positions are given to the slack
// of their pivot row instead, which keeps the basis triangular.
struct Triangular {
  Problem p;
  std::vector<int> prow;      // position -> row
  std::vector<int> colOfPos;  // position -> matrix column
};
Triangular Make_Triangular(int n, bool lower, uint64_t seed, double perColumn = 3.0,
                           double slackShare = 0.0);

// Message capture through vlu_regmsgcb.
struct Messages {
  std::vector<std::string> lines;
  bool Has(const std::string &text) const;
  // Index of the first line containing text, or -1.
  int Find(const std::string &text) const;
  std::string All() const;
};
int Capture_Callback(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);

// An environment set up as the factor call sets it up, with the matrix and
// the basis loaded, but no factorization run.  Returns nullptr when the
// allocation failed.  Messages go to the registered callback.
vlu::VMI *Load_Env(const Problem &p);
// Tears it down (the teardown reports an imbalance through the messages).
bool Free_Env(vlu::VMI *&env);

// Checks of a complete factorization after the factor call returned 0: the
// permutations, the published order, the U-file, the column copy of U (both
// copies hold the same elements), the L-file, and L U = B column by column.
::testing::AssertionResult Check_Factors(vlu::VMI *env, double tol = 1e-12);

// Checks of the state that ExtractBasis leaves (order not yet published):
// the U-file of the triangular rows, the L-file, the bump in the row and the
// column file with cross pointers, cache-aligned column starts, physical
// chains and used sizes, and L M = B column by column where M holds the
// triangular rows of U and the active bump.
::testing::AssertionResult Check_Extract(vlu::VMI *env, double tol = 1e-12);

}  // namespace luc
