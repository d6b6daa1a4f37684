// Reuse of released vector memory between factorizations.
#include <gtest/gtest.h>

#include "runtime/block_cache.h"
#include "vardenlu.h"

namespace {

TEST(BlockCache, ReusesBlocksOfTheSameSize) {
  if (!vlu::Block_Cache_Enabled()) GTEST_SKIP() << "cache disabled in this build";
  vlu::Block_Cache_Drain();
  void *p = vlu::Block_Get(1000);
  ASSERT_NE(p, nullptr);
  vlu::Block_Put(p, 1000);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 1000u);
  void *q = vlu::Block_Get(900);  // another size: a new block
  EXPECT_NE(q, p);
  EXPECT_EQ(vlu::Block_Get(1000), p);
  vlu::Block_Put(q, 900);
  vlu::Block_Put(p, 1000);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 1900u);
  vlu::Block_Cache_Drain();
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
}

TEST(BlockCache, DestroyReturnsEverything) {
  int n = 3, nz = 5;
  int colStart[] = {1, 3, 5, 6};
  int rowIdx[] = {1, 2, 2, 3, 3};
  int colIdx[] = {1, 1, 2, 2, 3};
  double val[] = {2.0, 1.0, 3.0, 1.0, 4.0};
  int stat[] = {2, 2, 2, 0, 0, 0, 0};
  vlu_destroy();
  ASSERT_EQ(vlu_create(), 0);
  ASSERT_EQ(vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, nullptr, stat), 0);
  ASSERT_EQ(vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, nullptr, stat), 0);
  vlu_destroy();
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
}

}  // namespace
