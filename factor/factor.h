// One factorization from the basis marked in VIM%Basc to the factors L, U.
#pragma once
#include <cstdint>
#include "runtime/records.h"

namespace vlu {

// The driver: passes of ExtractBasis + Factor_Bump with space and tolerance
// rules.  Outcome in VIM (Num_Sing, NewBasis, Basc, Rwcl, Cbto, Rnto, Cnto)
// and in VMI (Exception, EnoughSpace).
void LUFactor(VMI *vmi);
// Slacks, post- and pre-triangular parts; loads the bump into the files.
void ExtractBasis(VMI *vmi);
// Pivot tests of the triangular phases (repair by the slack of the row).
void Small_Pivot_Post(VMI *vmi, int32_t p, int32_t i, int32_t k, int32_t pivNo);
int32_t Small_Pivot_Pre(VMI *vmi, int32_t i, int32_t k, int32_t pivNo);
// Eliminates the bump that ExtractBasis left.
void Factor_Bump(VMI *vmi);
// Builds the column copy of U in LUF%Ir / LUF%Ucmat.
void CreateColumnU(VMI *vmi);
void Increase_UCol(VMI *vmi, int32_t demand);
// Growth of the stores of the factorization.  keep false: the contents of
// the stores are dead (the set-up of a pass, before anything is loaded), so
// the grown vectors need not carry them over and the U-file is not moved.
void Increase_Uspace(VMI *vmi, int32_t demand, bool keep = true);
void Increase_ASpace(VMI *vmi, int32_t demand, bool keep = true);
void Increase_L(VMI *vmi, int32_t demand, bool keep = true);
// Repair of the tolerances after a NaN or overflow.
void DefNan(VMI *vmi);
void Turnoff_Degeneracy(VMI *vmi);

// Steps of one pass of LUFactor before ExtractBasis: lists the basic columns
// in VIM%Cbto (slacks first), allocates the bump vectors at the first need,
// sizes the stores and checks that the basis is square.  Returns false when
// the pass cannot go on (VMI%Exception is then set).  *elemnt receives the
// element count of the basic columns, each slack counted 1.
bool LU_Setup_Pass(VMI *vmi, int32_t *elemnt);
// The tolerance rules applied after a pass.  Returns true when the pass is
// to be restarted with the raised tolerance.
bool LU_Tolerance_Rules(VMI *vmi);

}  // namespace vlu
