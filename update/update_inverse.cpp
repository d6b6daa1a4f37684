// In-place update of the factors after a basis change.
//
// For now every update reports failure, so that the caller always takes the
// refactorization road; the count of attempted updates is kept as the
// complete routine keeps it, raised before anything else happens.
#include <cstdint>

#include "update/update.h"

namespace vlu {

bool Update_Inverse(VMI *vmi, int32_t entering, int32_t leaving) {
  (void)entering;
  (void)leaving;
  vmi->Vim->Updates_Done += 1;
  return false;
}

}  // namespace vlu
