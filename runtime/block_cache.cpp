// The cache of released vector blocks.
//
// Data: g_slots holds up to CacheSlots cached blocks {address, bytes}; a
// used slot stands in the chain of its size bucket (g_head), a free one in
// the free chain (g_free); chains are linked through Slot::next, -1 ends
// them.  g_cached is the sum of the cached bytes, g_live the bytes handed out
// and not given back, g_hold the allowance of a rebuild (0 outside one).
// Only the main thread allocates, so nothing here is locked.
//
// With the address sanitizer a cached block is poisoned as a whole and a
// block handed out again is unpoisoned to the requested size, so that a use
// after release or beyond the end is reported as it would be without the
// cache.
#include "runtime/block_cache.h"

#include <cstdint>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define VLU_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VLU_ASAN 1
#endif
#endif
#if defined(VLU_ASAN)
#include <sanitizer/asan_interface.h>
#define VLU_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define VLU_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define VLU_POISON(p, n) ((void)(p), (void)(n))
#define VLU_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace vlu {

size_t Block_Test_System_Limit = 0;

namespace {

#if defined(VLU_NO_BLOCK_CACHE)
constexpr int CacheSlots = 0;
#else
constexpr int CacheSlots = 128;
#endif
constexpr int Buckets = 256;  // chains by size, a power of 2

struct Slot {
  void *p;       // the cached block, null for a free slot
  size_t bytes;  // its size as given to Block_Put
  int next;      // next slot of the same chain, -1 at the end
};
Slot g_slots[CacheSlots > 0 ? CacheSlots : 1];
int g_head[Buckets];
int g_free = -1;
bool g_ready = false;
int g_used = 0;        // cached blocks
size_t g_cached = 0;   // cached bytes
size_t g_live = 0;     // bytes handed out and not given back
size_t g_hold = 0;     // bytes a rebuild may keep cached; 0 outside a rebuild

int Bucket(size_t bytes) {
  uint64_t h = static_cast<uint64_t>(bytes) * 0x9E3779B97F4A7C15ull;
  return static_cast<int>(h >> 56) & (Buckets - 1);
}

void Ready() {
  if (g_ready) return;
  for (int b = 0; b < Buckets; ++b) g_head[b] = -1;
  g_free = -1;
  for (int i = CacheSlots - 1; i >= 0; --i) {
    g_slots[i] = Slot{nullptr, 0, g_free};
    g_free = i;
  }
  g_used = 0;
  g_cached = 0;
  g_ready = true;
}

// Takes the slot behind *link out of its chain and frees the slot.
void *Unlink(int *link) {
  const int i = *link;
  void *p = g_slots[i].p;
  *link = g_slots[i].next;
  g_slots[i].next = g_free;
  g_slots[i].p = nullptr;
  g_free = i;
  --g_used;
  g_cached -= g_slots[i].bytes;
  VLU_UNPOISON(p, g_slots[i].bytes);
  return p;
}

// Frees cached blocks, the largest first, until at most `bound` bytes stay.
void Evict_To(size_t bound) {
  while (g_used > 0 && g_cached > bound) {
    int largest = -1;
    for (int i = 0; i < CacheSlots; ++i)
      if (g_slots[i].p != nullptr && (largest < 0 || g_slots[i].bytes > g_slots[largest].bytes)) largest = i;
    int *link = &g_head[Bucket(g_slots[largest].bytes)];
    while (*link != largest) link = &g_slots[*link].next;
    std::free(Unlink(link));
  }
}

// The system's block, or null when it refuses (or the test limit does).
void *System_Get(size_t bytes) {
  if (Block_Test_System_Limit != 0 && g_live + g_cached + bytes > Block_Test_System_Limit)
    return nullptr;
  return std::malloc(bytes);
}

}  // namespace

void *Block_Get(size_t bytes) {
  // Only a block of exactly this size: a factorization asks for the same
  // sequence of sizes as the one before it, a looser match would let a
  // larger request go without, and a larger block would carry bytes that the
  // accounting does not see.
  if (g_used > 0) {
    for (int *link = &g_head[Bucket(bytes)]; *link >= 0; link = &g_slots[*link].next) {
      if (g_slots[*link].bytes != bytes) continue;
      g_live += bytes;
      return Unlink(link);
    }
  }
  void *p = System_Get(bytes);
  if (p == nullptr && g_used > 0) {
    // What is cached may be what the system misses.
    Block_Cache_Drain();
    p = System_Get(bytes);
  }
  if (p != nullptr) g_live += bytes;
  return p;
}

void Block_Put(void *p, size_t bytes) {
  if (p == nullptr) return;
  g_live -= bytes;
  Ready();
  const size_t bound = g_live > g_hold ? g_live : g_hold;
  if (g_free >= 0 && g_cached + bytes <= bound) {
    const int i = g_free;
    g_free = g_slots[i].next;
    const int b = Bucket(bytes);
    g_slots[i] = Slot{p, bytes, g_head[b]};
    g_head[b] = i;
    ++g_used;
    g_cached += bytes;
    VLU_POISON(p, bytes);
    return;
  }
  std::free(p);
  Evict_To(bound);  // the environment shrank below what is cached
}

void Block_Cache_Rebuild() { g_hold = g_live; }

void Block_Cache_Trim() {
  g_hold = 0;
  Evict_To(g_live);
}

void Block_Cache_Drain() {
  if (!g_ready) return;
  for (int b = 0; b < Buckets; ++b)
    while (g_head[b] >= 0) std::free(Unlink(&g_head[b]));
  g_hold = 0;
}

size_t Block_Cache_Bytes() { return g_cached; }

size_t Block_Live_Bytes() { return g_live; }

bool Block_Cache_Enabled() { return CacheSlots > 0; }

}  // namespace vlu
