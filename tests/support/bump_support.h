// Test helpers of the elimination: a bump that ExtractBasis loaded, with the
// state Factor_Bump sets up before its first pivot, pivot steps carried out
// the way Factor_Bump carries them out, and the consistency battery as the
// judge of the structures.
//
// The fixture owns an environment (luc::EnvTest) in the state LUFactor gives
// Factor_Bump: IIN%Clmin lent the memory of VIM%WorkZ and IIN%Indr that of
// VIM%HelpI (given back at the teardown), the list vectors cleared, the
// column maxima exact, and, on request, every active column and row in the
// C-list of its length (columns in Cnto order, then rows in Rnto order).
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

#include "elimination/bump.h"
#include "support/lu_check.h"

namespace bmp {

// n structural columns, all basic: a diagonal element of 2 to 4 and lo..hi
// further elements in distinct random rows, so that the triangular phases
// leave most of the matrix to the bump.  The generator is portable.
luc::Problem Random_Bump(int n, int lo, int hi, uint64_t seed);
// n x n, the diagonal 4 and a band of width w; with `anti` also the element
// (n + 1 - j, j) outside the band.  No singletons.
luc::Problem Banded(int n, int w, bool anti);
// n x n with every element present, random values in (-1, 1).
luc::Problem Full(int n, uint64_t seed);

// One active element: row, column, value, compressed (or in a tail).
using Elem = std::tuple<int32_t, int32_t, double, bool>;
using Elems = std::vector<Elem>;

struct BumpTest : luc::EnvTest {
  vlu::Bump_State s;
  vlu::VIM *vim = nullptr;
  vlu::LUF *luf = nullptr;
  vlu::IIN *iin = nullptr;
  // Settings applied right after the problem is loaded (0: the default).
  int32_t markBad = 0;       // size of the Markowitz lists (a prime)
  double spaceFactor = 0.0;  // VMI%Space_Factor

  // Load, the set-up of a pass, ExtractBasis, and Factor_Bump's set-up
  // (with the C-lists when `lists`) and Define_Mmat_Rows.
  void Start(const luc::Problem &p, bool lists = true);
  void TearDown() override;

  // Clmx, Clmin of every active column as at the start; Clok true but for
  // columns with a tail.
  void Fresh_Clmx();
  // Column-file position of the element (row, col) in the compressed part of
  // the column, 0 when none; its value; the rows of a column in file order.
  int32_t Pos(int32_t row, int32_t col) const;
  double &A(int32_t row, int32_t col);
  std::vector<int32_t> Rows(int32_t col) const;
  // The threshold of column j (Clmx exact).
  double Thr(int32_t j) const;
  // Every active element, sorted.
  Elems Elements() const;

  // One pass of Factor_Bump with the pivot (row, col) forced: the column out
  // of its list, MarkBest its count, then Carry_Out with `step` (0: the step
  // Factor_Bump chooses by the shape).
  void Step(int32_t row, int32_t col, void (*step)(vlu::Bump_State &) = nullptr);
  // One pass with the pivot the search of the mode chooses.
  void Pivot();
  // The rest of a pass: room (LU_Space), the row out of its list, the step
  // (Dense_Pivot when LU_Space found the rest dense: it ends the bump), the
  // pivot placed, Piv_Indx on.  A bad pivot is left to the caller.
  void Carry_Out(void (*step)(vlu::Bump_State &));

  // The battery as the elimination runs it, with the full structure test and
  // (when lu) L times U against the basis; VMI%Exception afterwards.
  int Battery(bool lu = true);
  // Clmin and Indr back to WorkZ and HelpI, as LUFactor gives them back.
  void Give_Back();

 private:
  bool lent_ = false;
};

}  // namespace bmp
