// Elimination of the bump that ExtractBasis leaves behind.
//
// ---------------------------------------------------------------------------
// PLACEHOLDER: the Markowitz elimination is not part of this build yet.
// An empty bump (every pivot found in the triangular phases) is complete and
// returns at once.  A non-empty bump is refused with a message and a fatal
// internal error, so that the factorization stops cleanly instead of
// answering with incomplete factors.  Replace this whole file with the real
// elimination.
// ---------------------------------------------------------------------------
#include <cstdint>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"

namespace vlu {

namespace {
constexpr int Err_Bump_Not_Available = 3800;
}

void Factor_Bump(VMI *vmi) {
  VIM *vim = vmi->Vim;
  const LUF *luf = vmi->Luf;
  vim->Max_UFac = 1.0;
  vim->Large_Ufac = false;
  const int32_t bump = vim->NumRow - luf->NumVTria;
  if (bump <= 0) return;
  Doc(vmi, "Factor_Bump: elimination of a bump of %d rows is not available in this build.", bump);
  Internal_Error(vmi, Err_Bump_Not_Available, true);
}

}  // namespace vlu
