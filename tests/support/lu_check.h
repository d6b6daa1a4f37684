// Test helpers shared by the factor, solve, update and walk tests: problems
// in the layout of the factor call (vlu_case::Case, columns 1..n, n+1 for t,
// n+1+i for the slack of row i, status 2 basic), generated bases, message
// capture, the fixtures (a library session, or an environment loaded by
// hand), simplex-like basis changes, and the checks of factors against the
// basis, of updated factors, and of solves against a fresh factorization.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "runtime/records.h"
#include "tools/case_io.h"

namespace luc {

using Problem = vlu_case::Case;

// Column lists: cols[j-1] = {(row, value), ...}; basic: the structural
// columns basic, else no column.
using Cols = std::vector<std::vector<std::pair<int, double>>>;
Problem From_Columns(int n, const Cols &cols, bool basic = false);
Problem All_Slack(int n);  // n empty structural columns, the slacks basic
// A random sparse n x n matrix, `perCol` entries a column in distinct rows,
// values of magnitude in [0.5, 2), the slacks basic.
Problem Random_Sparse(int n, int perCol, uint64_t seed);

// vlu_factor on the case with the given status (default: its own basis).
int Factor(const Problem &p, const std::vector<int> &stat);
inline int Factor(const Problem &p) { return Factor(p, p.basis); }

// A basis triangular in a hidden pivot order: the column at position k has
// its diagonal in row prow[k] and up to five further elements in rows of
// later (Lower) or earlier (Upper) positions; with `permute` rows and columns
// shuffled.  A share `slacks` of the positions starts with the slack of its
// pivot row basic instead; trading the two keeps the basis triangular.
// Every column is diagonally dominant, so any size is well conditioned.
enum class Shape { Lower, Upper };
struct Triangular {
  Problem c;
  Cols cols;                        // the columns of c
  std::vector<int> prow, colOfPos;  // position -> row, position -> matrix column
};
Triangular Make_Triangular(int n, Shape shape, uint64_t seed, bool permute = true,
                           double slacks = 0.0);

// True when the basis has no bump: peeling off rows with one basic entry,
// with that entry's column, takes the whole basis apart.
bool Is_Triangular(const Problem &c, const std::vector<int> &stat);

// Message capture through vlu_regmsgcb (Capture_Lines takes a Messages *).
struct Messages {
  std::vector<std::string> lines;
  int Find(const std::string &text) const;  // first line containing text, or -1
  bool Has(const std::string &text) const { return Find(text) >= 0; }
  std::string All() const;
};
int Capture_Lines(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);

// Through the exported interface: a fresh vlu_create, messages captured; the
// test options and injected failures reset and the teardown's memory balance
// checked at the end.  Restart() begins another session.
struct ApiTest : ::testing::Test {
  Messages msgs;
  void SetUp() override;
  void TearDown() override;
  void Restart();
  static vlu::VMI *Env();
  // Sends what is pending, then looks for the text among the lines so far.
  bool Said(const std::string &text);
};

// The matrix and the status of p loaded into env as the factor call loads
// them (nothing factored).  False when an allocation fails.
bool Load_Env(vlu::VMI *&env, const Problem &p, const std::vector<int> &stat);

// Routines driven on an environment set up as the factor call sets it up
// (matrix and basis loaded, nothing factored); freed and balanced at the end.
struct EnvTest : ::testing::Test {
  Messages msgs;
  vlu::VMI *env = nullptr;
  void SetUp() override;
  void TearDown() override;
  void Load(const Problem &p);  // frees the previous one; throws on failure
};

// Solves B x = b through the interface; returns the relative residual and,
// on request, the whole solution vector.
double Solve_Residual(const Problem &c, const std::vector<int> &stat, const std::vector<double> &b,
                      std::vector<double> *out = nullptr);
// The change at position k that keeps a Triangular basis triangular: its
// matrix column and the slack of its pivot row trade places.
void Swap_At(const Triangular &s, const std::vector<int> &stat, int k, int &q, int &l);
// One basis change as a simplex method makes it: the solve with the entering
// column q, in which the leaving column l must take part, then the status
// change and the update.  Returns the update's result.
int Change(const Problem &c, std::vector<int> &stat, int q, int l, int force = 0);
// A simplex-like change from the current basis: a random nonbasic column q
// (t left out) with alpha = B^-1 a_q not negligible, leaving the basic column
// with the largest |alpha| (ties: the first).  With `triangular`, only
// changes whose new basis has no bump.  False when none was found.
bool Random_Change(const Problem &c, const std::vector<int> &stat, std::mt19937_64 &gen,
                   bool triangular, int &q, int &l);

// The factors against the basis B: permutations inverse to each other, U rows
// contiguous in pivot order, the L-file in pivot order, L U = B column by
// column.  Complete factorization: also the published order and the column
// copy holding exactly the elements of the row copy.  afterExtract: the
// state ExtractBasis leaves, U of the triangular rows plus the active bump
// in the row and column files (cross pointers, chains, used sizes).
::testing::AssertionResult Check_Factors(vlu::VMI *env, bool afterExtract = false);

// The factors as one number, independent of where in their vectors they
// stand: the permutations and the published order, each U row (columns and
// the bits of the values) and each L column, in pivot order (FNV-1a).
uint64_t Digest(const vlu::VMI *env);
// The digest against the one recorded for `label` (support/digests.inc):
// the factors of these bases are pinned bit for bit, which every rule of the
// pivot choice and every rounding of the elimination decides.  With
// VLU_RECORD_DIGESTS set, prints the table line instead and passes.
::testing::AssertionResult Recorded(const std::string &label, const vlu::VMI *env);

// The factors as the updates leave them, beyond the library's own debug
// check: permutations inverse and the published order consistent with the
// status; in both copies of U the pivot of each position first and every
// other element in a later position; every line inside the used part of its
// file, no slot shared, the free slots zero and as many index slots in use as
// U_numele; the work vectors clear; the row-eta groups each acting on one row
// and closing at LFileUsed + 1.
::testing::AssertionResult Check_Updated_Factors(vlu::VMI *env);

// x with B x = b from a fresh factorization in an environment of its own;
// the library's session is left alone.  x has 2n+1 entries, the basic ones
// set.  False when the basis is singular.
bool Fresh_Solve(const Problem &c, const std::vector<int> &stat, const std::vector<double> &b,
                 std::vector<double> &x);
// max |x - y| / max(|y|, tiny) over the basic columns.
double Rel_Diff(const std::vector<int> &stat, const std::vector<double> &x,
                const std::vector<double> &y);

// The library's update statistics (VIM%Upd_*), summed over sessions.
struct Stats {
  int compRow = 0, compCol = 0, growRow = 0, growCol = 0, growL = 0, growLstr = 0;
  int failMemory = 0, failULarge = 0, failPivot = 0, bumpMax = 0, swaps = 0;
  void Add(const vlu::VMI *env);
  std::string Line() const;
};

}  // namespace luc
