// Solves with the factors: B x = b in place in a work vector indexed by row.
#pragma once
#include <cstdint>
#include "runtime/records.h"

namespace vlu {

// L_Solve then Vdsuxy.  On return W(i) is the value of the column whose pivot
// row is i (VIM%Rwcl(i)).
void Solve_Ftran(VMI *vmi, RVec &w);
// W = L^-1 W: the L columns, then the row etas of the updates.
void L_Solve(VMI *vmi, RVec &w);
// Solves U in place; lists the nonzeros in VIM%HelpI (VIM::Num_UpNz) and
// stores the largest magnitude in VIM::Max_UpCol.
void Vdsuxy(VMI *vmi, RVec &w);
// L_Solve that keeps the list of nonzero rows (marks: 1 for a listed row).
// Returns the new list length.
int32_t L_Solve_Sparse(VMI *vmi, RVec &w, IntVec &list, IntVec &marks, int32_t listLen);

}  // namespace vlu
