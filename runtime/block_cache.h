// Raw memory behind the managed vectors.  Released blocks are kept in a small
// cache and handed out again for a request of the same size, so that a
// repeated factorization of the same size reuses warm memory instead of
// returning it to the system and faulting it in again.
//
// The accounting of the managed vectors does not see the cache: a cached
// block counts as released.  So that memory outside the accounting stays
// small, the cache never holds more bytes than the blocks handed out and not
// yet given back (the environment's own use), except while an environment
// is torn down to be built again (Block_Cache_Rebuild .. Block_Cache_Trim),
// when it may hold up to what the old environment used.  When the system
// refuses a block, everything cached goes back to the system and the
// request is tried once more: the cache never turns a success into a
// failure.
#pragma once
#include <cstddef>

namespace vlu {

// At least `bytes` bytes aligned to 16, or null when the system has none.
void *Block_Get(size_t bytes);
// Gives back a block obtained from Block_Get(bytes).
void Block_Put(void *p, size_t bytes);
// The environment in use is about to be released and built again: until the
// next Block_Cache_Trim the cache may keep what it used.
void Block_Cache_Rebuild();
// Ends a rebuild: frees cached blocks, the largest first, until the cache
// holds no more than the bytes in use.
void Block_Cache_Trim();
// Returns all cached blocks to the system (the environment is gone).
void Block_Cache_Drain();
// Bytes held in the cache now.
size_t Block_Cache_Bytes();
// Bytes handed out by Block_Get and not given back.
size_t Block_Live_Bytes();
// False in builds that hand every block straight back to the system.
bool Block_Cache_Enabled();

// Tests only: when not zero, the system counts as refusing any request that
// would bring the bytes in use plus the bytes cached above this many, as an
// address-space limit would.
extern size_t Block_Test_System_Limit;

}  // namespace vlu
