// Raw memory behind the managed vectors.  Released blocks are kept in a small
// cache and handed out again for a request of the same size, so that
// a repeated factorization of the same size reuses warm memory instead of
// returning it to the system and faulting it in again.  The accounting of
// the managed vectors does not see the cache: a cached block counts as
// released.
#pragma once
#include <cstddef>

namespace vlu {

// At least `bytes` bytes aligned to 16, or null when the system has none.
void *Block_Get(size_t bytes);
// Gives back a block obtained from Block_Get(bytes).
void Block_Put(void *p, size_t bytes);
// Returns all cached blocks to the system (the environment is gone).
void Block_Cache_Drain();
// Bytes held in the cache now.
size_t Block_Cache_Bytes();
// False in builds that hand every block straight back to the system.
bool Block_Cache_Enabled();

}  // namespace vlu
