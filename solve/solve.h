// Solves with the factors: B x = b in place in a work vector indexed by row.
#pragma once
#include <cstdint>
#include "runtime/records.h"
#include "solve/spike_cache.h"

namespace vlu {

// L_Solve then Vdsuxy.  On return W(i) is the value of the column whose pivot
// row is i (VIM%Rwcl(i)).
void Solve_Ftran(VMI *vmi, RVec &w);
// W = L^-1 W: the L columns, then the row etas of the updates.
void L_Solve(VMI *vmi, RVec &w);
// Solves U in place; lists the nonzeros in VIM%HelpI (VIM::Num_UpNz) and
// stores the largest magnitude in VIM::Max_UpCol.
void Vdsuxy(VMI *vmi, RVec &w);
// Solve_Ftran for a right-hand side with few nonzeros.  On entry
// VIM%HelpI(1..len) lists the rows whose entries of W are not +0, and
// VIM%HelpZ holds 1 for them and 0 elsewhere.  The result, the list of
// nonzeros in VIM%HelpI, Num_UpNz and Max_UpCol are those of Solve_Ftran;
// the work stays in proportion to the rows the solve reaches unless they
// are many, in which case the solve finishes in the full form.  HelpZ is
// clear on return.  With `cache` (its arrays allocated), the listed
// right-hand side and the vector after the L columns are kept there for
// the update that may follow (Spike_Cache).
void Solve_Ftran_Listed(VMI *vmi, RVec &w, int32_t len, Spike_Cache *cache = nullptr);
// Largest number of nonzeros of a right-hand side for which a caller hands
// the solve a list (Solve_Ftran_Listed) rather than the full vector.
int32_t Listed_Rhs_Limit(int32_t numRow);
// L_Solve that keeps the list of nonzero rows (marks: 1 for a listed row).
// Returns the new list length.  With `lcol`, the map from a row to the L
// column whose pivot row it is (0 for none; Build_L_Column_Map), only the
// columns that the list reaches are visited; without it every column is.
// With `columnsDone` the vector and the list stand after the L columns
// already, and only the row etas are applied.
int32_t L_Solve_Sparse(VMI *vmi, RVec &w, IntVec &list, IntVec &marks, int32_t listLen,
                       const int32_t *lcol = nullptr, bool columnsDone = false);
// Fills lcol(1..NumRow) with the L column of the factorization whose pivot
// row each row is (empty columns left out), 0 for a row with none.  False,
// and lcol(1) = -1, when a row is the pivot row of two columns: such a map
// cannot stand for the L-file.
bool Build_L_Column_Map(VMI *vmi, int32_t *lcol);

}  // namespace vlu
