// Reuse of released vector memory: only blocks of the same size, never more
// cached than the environment uses outside a rebuild, everything given back
// when the system refuses a block, and poisoned while cached.
#include <gtest/gtest.h>

#include <vector>

#include "interface/state.h"
#include "runtime/block_cache.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

class BlockCache : public ::testing::Test {
 protected:
  void SetUp() override {
    vlu_destroy();  // no environment: nothing live, nothing cached
    if (!vlu::Block_Cache_Enabled()) GTEST_SKIP() << "cache disabled in this build";
    ASSERT_EQ(vlu::Block_Live_Bytes(), 0u);
    ASSERT_EQ(vlu::Block_Cache_Bytes(), 0u);
  }
  void TearDown() override {
    vlu::Block_Test_System_Limit = 0;
    vlu_destroy();
  }
};

TEST_F(BlockCache, ReusesBlocksOfTheSameSizeWithinWhatIsLive) {
  void *keep = vlu::Block_Get(4000);  // what the "environment" uses
  void *p = vlu::Block_Get(1000);
  void *q = vlu::Block_Get(900);
  EXPECT_EQ(vlu::Block_Live_Bytes(), 5900u);
  vlu::Block_Put(p, 1000);
  vlu::Block_Put(q, 900);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 1900u);
  void *other = vlu::Block_Get(800);  // another size: a new block
  EXPECT_TRUE(other != p && other != q);
  void *r = vlu::Block_Get(1000);
  EXPECT_EQ(r, p);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 900u);
  vlu::Block_Put(r, 1000);
  // With the environment's block gone only what is still live may stay,
  // and the larger blocks go first.
  vlu::Block_Put(keep, 4000);
  EXPECT_EQ(vlu::Block_Live_Bytes(), 800u);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
  vlu::Block_Put(other, 800);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
}

TEST_F(BlockCache, RebuildKeepsTheOldEnvironmentUntilTrimmed) {
  void *a = vlu::Block_Get(3000), *b = vlu::Block_Get(2000);
  vlu::Block_Cache_Rebuild();
  vlu::Block_Put(a, 3000);
  vlu::Block_Put(b, 2000);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 5000u);
  void *c = vlu::Block_Get(2000);  // the new environment takes one back
  EXPECT_EQ(c, b);
  vlu::Block_Cache_Trim();
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);  // 3000 > 2000 live: the larger went
  vlu::Block_Put(c, 2000);
}

TEST_F(BlockCache, RefusedBlockEmptiesTheCacheAndSucceeds) {
  void *a = vlu::Block_Get(1000), *b = vlu::Block_Get(1000);
  vlu::Block_Cache_Rebuild();
  vlu::Block_Put(a, 1000);
  vlu::Block_Put(b, 1000);
  vlu::Block_Test_System_Limit = 3000;
  void *c = vlu::Block_Get(2500);  // 2000 cached + 2500 > 3000: refused, then granted
  EXPECT_NE(c, nullptr);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
  EXPECT_EQ(vlu::Block_Get(1000), nullptr);  // a real shortage stays one
  vlu::Block_Put(c, 2500);
  vlu::Block_Cache_Trim();
}

// Lower triangular systems of two sizes, factorized in one environment.
class CacheApi : public BlockCache {
 protected:
  int Factor(int n) {
    sys = luc::Make_Triangular(n, luc::Shape::Lower, 11, true, 0.2);
    return luc::Factor(sys.c, sys.c.basis);
  }
  luc::Triangular sys;
};

TEST_F(CacheApi, SmallAfterLargeKeepsOnlyWhatTheSmallUses) {
  ASSERT_EQ(vlu_create(), 0);
  ASSERT_EQ(Factor(20000), 0);
  ASSERT_EQ(Factor(50), 0);
  EXPECT_LE(vlu::Block_Cache_Bytes(), vlu::Block_Live_Bytes());
  EXPECT_LT(vlu::Block_Live_Bytes(), 100000u);
  // A same-size refactorization reuses the blocks and keeps the bound.
  ASSERT_EQ(Factor(50), 0);
  EXPECT_LE(vlu::Block_Cache_Bytes(), vlu::Block_Live_Bytes());
  vlu_destroy();
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
  EXPECT_EQ(vlu::Block_Live_Bytes(), 0u);
}

// Under a limit that a fresh environment meets, a factorization of another
// size after a large one must succeed as well.
TEST_F(CacheApi, CachedBlocksNeverTurnSuccessIntoFailure) {
  const int n = 20000;
  ASSERT_EQ(vlu_create(), 0);
  ASSERT_EQ(Factor(n + 1), 0);
  const size_t peak = static_cast<size_t>(vlu::Iface().env->Mem_Max);
  vlu_destroy();
  ASSERT_EQ(vlu_create(), 0);
  vlu::Block_Test_System_Limit = peak + peak / 2 + 65536;
  ASSERT_EQ(Factor(n), 0);
  EXPECT_EQ(Factor(n + 1), 0);
  EXPECT_LE(vlu::Block_Cache_Bytes(), vlu::Block_Live_Bytes());
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(BlockCache, CachedBlockIsPoisoned) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  void *keep = vlu::Block_Get(4096);
  char *p = static_cast<char *>(vlu::Block_Get(64));
  vlu::Block_Put(p, 64);
  ASSERT_EQ(vlu::Block_Cache_Bytes(), 64u);
  EXPECT_DEATH(p[10] = 1, "use-after-poison");
  char *q = static_cast<char *>(vlu::Block_Get(64));
  ASSERT_EQ(q, p);
  q[63] = 1;  // handed out again: usable
  vlu::Block_Put(q, 64);
  vlu::Block_Put(keep, 4096);
  vlu::Block_Cache_Drain();
}
#endif

}  // namespace
