#include "runtime/block_cache.h"

#include <cstdint>
#include <cstdlib>

namespace vlu {

namespace {

#if defined(VLU_NO_BLOCK_CACHE)
constexpr int CacheSlots = 0;
#else
constexpr int CacheSlots = 128;
#endif
constexpr size_t CacheLimit = size_t(4) << 30;  // bytes kept at most
constexpr int Buckets = 256;                    // chains by size, a power of 2

// Cached blocks stand in chains by size; free slots form a chain of their own.
struct Slot {
  void *p;
  size_t bytes;
  int next;
};
Slot g_slots[CacheSlots > 0 ? CacheSlots : 1];
int g_head[Buckets];
int g_free = -1;
bool g_ready = false;
int g_used = 0;
size_t g_bytes = 0;

int Bucket(size_t bytes) {
  uint64_t h = static_cast<uint64_t>(bytes) * 0x9E3779B97F4A7C15ull;
  return static_cast<int>(h >> 56) & (Buckets - 1);
}

void Ready() {
  if (g_ready) return;
  for (int b = 0; b < Buckets; ++b) g_head[b] = -1;
  g_free = -1;
  for (int i = CacheSlots - 1; i >= 0; --i) {
    g_slots[i].next = g_free;
    g_free = i;
  }
  g_used = 0;
  g_bytes = 0;
  g_ready = true;
}

}  // namespace

void *Block_Get(size_t bytes) {
  // Only a block of exactly this size: a factorization asks for the same
  // sequence of sizes as the one before it, and a looser match would let a
  // larger request go without.
  if (g_used > 0) {
    int *link = &g_head[Bucket(bytes)];
    for (int i = *link; i >= 0; link = &g_slots[i].next, i = *link) {
      if (g_slots[i].bytes != bytes) continue;
      *link = g_slots[i].next;
      g_slots[i].next = g_free;
      g_free = i;
      --g_used;
      g_bytes -= bytes;
      return g_slots[i].p;
    }
  }
  return std::malloc(bytes);
}

void Block_Put(void *p, size_t bytes) {
  if (p == nullptr) return;
  Ready();
  if (g_free >= 0 && g_bytes + bytes <= CacheLimit) {
    const int i = g_free;
    g_free = g_slots[i].next;
    const int b = Bucket(bytes);
    g_slots[i] = Slot{p, bytes, g_head[b]};
    g_head[b] = i;
    ++g_used;
    g_bytes += bytes;
    return;
  }
  std::free(p);
}

void Block_Cache_Drain() {
  if (!g_ready) return;
  for (int b = 0; b < Buckets; ++b) {
    for (int i = g_head[b]; i >= 0; i = g_slots[i].next) std::free(g_slots[i].p);
  }
  g_ready = false;
  Ready();
}

size_t Block_Cache_Bytes() { return g_bytes; }

bool Block_Cache_Enabled() { return CacheSlots > 0; }

}  // namespace vlu
