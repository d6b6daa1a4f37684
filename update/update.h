// Basis changes: status bookkeeping, the limit test and the in-place update.
#pragma once
#include <cstdint>
#include "runtime/records.h"

namespace vlu {

// Records that `incoming` enters and `leaving` leaves (VIM%Basc).
void RecordBasisChange(VMI *vmi, int32_t incoming, int32_t leaving);
// True when an in-place update may be tried.
bool Update_Possible(VMI *vmi);
void TestDegenerate(VMI *vmi, RVec &x, int32_t column, bool lookup, bool exactBound);
// Replaces the column of `leaving` by that of `entering` in the factors.
// Returns false when the update failed; the caller then refactorizes.
bool Update_Inverse(VMI *vmi, int32_t entering, int32_t leaving);

}  // namespace vlu
