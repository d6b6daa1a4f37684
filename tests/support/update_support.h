// Test helpers of the in-place update: a structural check of updated
// factors, a reference solve from a fresh factorization in an environment of
// its own, simplex-like random basis changes, and walks that stop where this
// build could not refactorize.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "runtime/records.h"
#include "tools/case_io.h"

namespace upd {

// The factors as the updates leave them, beyond the library's own debug
// check: permutations inverse and the published order consistent with the
// status; in both copies of U the pivot of each position first and every
// other element in a later position (U upper triangular in the current
// order); every line inside the used part of its file, no slot shared, the
// free slots zero and as many index slots in use as U_numele; the work
// vectors clear; the row-eta groups each acting on one row and closing at
// LFileUsed + 1.
::testing::AssertionResult Check_Updated_Factors(vlu::VMI *env);

// True when this build can factorize the basis (no bump, or a build with
// the bump elimination).
bool Can_Factor(const vlu_case::Case &c, const std::vector<int> &stat);

// x with B x = b from a fresh factorization in an environment of its own;
// the library's session is left alone.  x has 2n+1 entries, the basic ones
// set.  False when this build cannot factorize the basis or it is singular.
bool Fresh_Solve(const vlu_case::Case &c, const std::vector<int> &stat, const std::vector<double> &b,
                 std::vector<double> &x);

// max |x - y| / max(|y|, tiny) over the basic columns.
double Rel_Diff(const std::vector<int> &stat, const std::vector<double> &x,
                const std::vector<double> &y);

// Outcome of a step of a walk.
enum class Step { Updated = 2, Refactorized = 1, Singular = 3, Stopped = 0 };

// One basis change through vlu_solve and vlu_update, as tri::Change makes
// it.  When this build could not refactorize the new basis, vlu_update's road
// is taken here instead (status check aside), and where it would refactorize
// Stopped comes back: the session's factors are then spoilt, and the caller
// must factor again.
Step Walk_Step(const vlu_case::Case &c, std::vector<int> &stat, int q, int l);

// A simplex-like change from the current basis: a random nonbasic column q
// (column t left out) with alpha = B^-1 a_q not negligible, and as leaving
// column the basic column with the largest |alpha| (ties: the first).  With
// `triangular`, only changes whose new basis has no bump are taken.  False
// when no candidate was found.
bool Random_Change(const vlu_case::Case &c, const std::vector<int> &stat, std::mt19937_64 &gen,
                   bool triangular, int &q, int &l);

// The library's update statistics (VIM%Upd_*), summed over sessions.
struct Stats {
  int compRow = 0, compCol = 0, growRow = 0, growCol = 0, growL = 0, growLstr = 0;
  int failMemory = 0, failULarge = 0, failPivot = 0, bumpMax = 0, swaps = 0;
  void Add(const vlu::VMI *env);
  std::string Line() const;
};
// The statistics of the current session, in one line.
std::string Update_Stats_Line(const vlu::VMI *env);

}  // namespace upd
