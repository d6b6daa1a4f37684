#include "runtime/block_cache.h"

#include <cstdlib>

namespace vlu {

namespace {

#if defined(VLU_NO_BLOCK_CACHE)
constexpr int CacheSlots = 0;
#else
constexpr int CacheSlots = 96;
#endif
constexpr size_t CacheLimit = size_t(4) << 30;  // bytes kept at most

struct Slot {
  void *p;
  size_t bytes;
};
Slot g_slots[CacheSlots > 0 ? CacheSlots : 1];
int g_used = 0;
size_t g_bytes = 0;

void Take(int i) {
  g_bytes -= g_slots[i].bytes;
  g_slots[i] = g_slots[--g_used];
}

}  // namespace

void *Block_Get(size_t bytes) {
  // Only a block of exactly this size: a factorization asks for the same
  // sequence of sizes as the one before it, and a looser match would let a
  // larger request go without.
  for (int i = g_used - 1; i >= 0; --i) {
    if (g_slots[i].bytes == bytes) {
      void *p = g_slots[i].p;
      Take(i);
      return p;
    }
  }
  return std::malloc(bytes);
}

void Block_Put(void *p, size_t bytes) {
  if (p == nullptr) return;
  if (g_used < CacheSlots && g_bytes + bytes <= CacheLimit) {
    g_slots[g_used++] = Slot{p, bytes};
    g_bytes += bytes;
    return;
  }
  std::free(p);
}

void Block_Cache_Drain() {
  for (int i = 0; i < g_used; ++i) std::free(g_slots[i].p);
  g_used = 0;
  g_bytes = 0;
}

size_t Block_Cache_Bytes() { return g_bytes; }

bool Block_Cache_Enabled() { return CacheSlots > 0; }

}  // namespace vlu
