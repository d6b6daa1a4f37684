// The dense kernels against the plain order of elimination, and the dense
// final block.
//
// Every kernel subtracts the pending pivots from each element one at a time
// in ascending order (x = x - l * u), so every member, unrolled or general,
// must give the bits of the plain loops below; whole blocks are compared with
// memcmp, padding rows of the leading dimension included, so that a write
// outside a kernel's range shows too (the elimination itself never reads
// those places, and cannot see such a write).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/bump_support.h"

namespace {

// A block by columns: (i, j), 1-based, at v[(i - 1) + (j - 1) ld]; every
// slot of the ld x cols storage gets a value.
struct Block {
  int ld = 0;
  std::vector<double> v;
  Block(int cols, int lead, uint64_t seed) : ld(lead) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    v.resize(size_t(std::max(1, ld * std::max(cols, 1))));
    for (double &x : v) x = uni(gen);
  }
  double &at(int i, int j) { return v[size_t(i - 1) + size_t(j - 1) * size_t(ld)]; }
  double *a() { return v.data(); }
  bool Same(const Block &o) const {
    return v.size() == o.v.size() &&
           std::memcmp(v.data(), o.v.data(), v.size() * sizeof(double)) == 0;
  }
};

// The plain order: rows i1..i2, columns j1..j2 get the pivots npused + 1 ..
// npiv one at a time.
void Plain_Update(Block &b, int npused, int npiv, int i1, int i2, int j1, int j2) {
  for (int j = j1; j <= j2; ++j)
    for (int i = i1; i <= i2; ++i) {
      double x = b.at(i, j);
      for (int p = npused + 1; p <= npiv; ++p) x = x - b.at(i, p) * b.at(p, j);
      b.at(i, j) = x;
    }
}

struct Kernels : luc::EnvTest {
  vlu::Bump_State s;  // Final_Updt speaks through the environment
  void SetUp() override {
    EnvTest::SetUp();
    Load(luc::All_Slack(2));
    s.vmi = env;
  }
};

// Widths 0 to 7 take the unrolled members, 8 and up the general one.
TEST_F(Kernels, EveryWidthOfEveryKernelGivesThePlainBits) {
  for (int w : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 63})
    for (int npused : {0, 3})
      for (int extra : {0, 1, 37}) {
        SCOPED_TRACE(::testing::Message()
                     << "w=" << w << " npused=" << npused << " extra=" << extra);
        const int npiv = npused + w, n = npiv + extra, ld = n + 3;  // padding rows below
        const uint64_t seed = uint64_t(1000 * w + 100 * npused + extra);
        // Update_LCol on a column behind the pivots, and its first largest.
        for (int jOff : {1, 4}) {
          Block b(npiv + jOff + 1, ld, seed + uint64_t(jOff)), ref = b;
          Plain_Update(ref, npused, npiv, npiv + 1, n, npiv + jOff, npiv + jOff);
          double largest = -1.0;
          int32_t best = -1;
          vlu::Update_LCol(b.a(), ld, npiv, npused, npiv + jOff, n, largest, best);
          EXPECT_TRUE(b.Same(ref)) << "Update_LCol";
          double big = 0.0;
          int at = npiv + 1;
          for (int i = npiv + 1; i <= n; ++i)
            if (std::fabs(ref.at(i, npiv + jOff)) > big)
              big = std::fabs(ref.at(i, npiv + jOff)), at = i;
          EXPECT_EQ(largest, big);
          EXPECT_EQ(best, at);
        }
        // Update_URow on row npiv + 1 (extra + 1 columns right of it).
        {
          Block b(n + 2, npiv + 7, seed + 11), ref = b;
          Plain_Update(ref, npused, npiv, npiv + 1, npiv + 1, npiv + 2, n + 2);
          double umax = -1.0;
          vlu::Update_URow(b.a(), npiv + 7, npiv, npused, n + 2, umax);
          EXPECT_TRUE(b.Same(ref)) << "Update_URow";
          double big = 0.0;
          for (int j = npiv + 2; j <= n + 2; ++j)
            big = std::max(big, std::fabs(ref.at(npiv + 1, j)));
          EXPECT_EQ(umax, big);
        }
        // Final_Updt on the rectangle behind the pivots (64 and more refused).
        if (w < vlu::Batch_Width) {
          for (int extraCols : {0, 1, 9}) {
            Block b(npiv + extraCols, ld, seed + 7 * uint64_t(extraCols)), ref = b;
            Plain_Update(ref, npused, npiv, npiv + 1, n, npiv + 1, npiv + extraCols);
            int32_t used = npused;
            vlu::Final_Updt(s, b.a(), ld, n, npiv + extraCols, npiv, used);
            EXPECT_EQ(used, npiv);
            EXPECT_TRUE(b.Same(ref)) << "Final_Updt, columns " << extraCols;
          }
        }
      }
  EXPECT_EQ(env->Exception, 0) << msgs.All();
}

// The kernels as the dense block uses them (left-looking, updates delayed up
// to 64 pivots, partial pivoting by rows) give the bits of a plain
// right-looking elimination with the same pivots.
TEST(DenseKernels, DelayedUpdatesGiveThePlainEliminationBitwise) {
  for (int n : {1, 7, 65, 150}) {
    const int ld = n + 1;
    Block b(n, ld, uint64_t(n)), ref = b;
    std::vector<int> perm(size_t(n) + 1), refPerm(size_t(n) + 1);
    for (int i = 1; i <= n; ++i) perm[size_t(i)] = refPerm[size_t(i)] = i;
    for (int k = 1; k <= n; ++k) {  // plain: pivot search, swap, divide, update
      int at = k;
      for (int i = k + 1; i <= n; ++i)
        if (std::fabs(ref.at(i, k)) > std::fabs(ref.at(at, k))) at = i;
      for (int j = 1; j <= n; ++j) std::swap(ref.at(k, j), ref.at(at, j));
      std::swap(refPerm[size_t(k)], refPerm[size_t(at)]);
      for (int i = k + 1; i <= n; ++i) ref.at(i, k) = ref.at(i, k) / ref.at(k, k);
      Plain_Update(ref, k - 1, k, k + 1, n, k + 1, n);
    }
    int32_t npused = 0, best = 1;
    double largest = 0.0;
    vlu::Update_LCol(b.a(), ld, 0, 0, 1, n, largest, best);
    for (int k = 1; k <= n; ++k) {
      if (best != k) {
        for (int j = 1; j <= n; ++j) std::swap(b.at(k, j), b.at(best, j));
        std::swap(perm[size_t(k)], perm[size_t(best)]);
      }
      for (int i = k + 1; i <= n; ++i) b.at(i, k) = b.at(i, k) / b.at(k, k);
      double umax = 0.0;
      vlu::Update_URow(b.a(), ld, k - 1, npused, n, umax);
      if (k == npused + vlu::Batch_Width) vlu::Inter_Updt(b.a(), ld, n, n, k, npused);
      if (k < n) vlu::Update_LCol(b.a(), ld, k, npused, k + 1, n, largest, best);
    }
    EXPECT_EQ(perm, refPerm) << "n=" << n;
    EXPECT_TRUE(b.Same(ref)) << "n=" << n;
  }
}

// ---------------------------------------------------------------------------
// Dense_Pivot on full bumps: the whole basis is the dense block.

struct DenseBump : bmp::BumpTest {};

TEST_F(DenseBump, WholeBumpFactorsIntoAPackedTriangle) {
  for (int n : {2, 12, 70}) {  // 70: one batch of 64 delayed updates, then 6 pending
    SCOPED_TRACE(::testing::Message() << "n=" << n);
    ASSERT_NO_FATAL_FAILURE(Start(bmp::Full(n, uint64_t(n))));
    ASSERT_EQ(s.NumVTria, 0);
    const int32_t u0 = luf->U_elefirst, l0 = luf->LFileUsed, c0 = luf->L_Cols;
    // The first pivot: the first largest of the column at the first position.
    const int32_t col1 = vim->Cnto.V[1];
    int32_t row1 = 0;
    for (int32_t i : Rows(col1))
      if (row1 == 0 || std::fabs(A(i, col1)) > std::fabs(A(row1, col1))) row1 = i;
    s.Dense = true;
    ASSERT_NO_FATAL_FAILURE(Pivot());
    EXPECT_EQ(luf->D_Size, n);
    EXPECT_EQ(u0 - luf->U_elefirst, n * (n + 1) / 2);
    EXPECT_EQ(luf->LFileUsed - l0, n * (n - 1) / 2);
    EXPECT_EQ(luf->L_Cols - c0, n - 1);
    EXPECT_EQ(s.St.Dense, n);
    EXPECT_EQ(vlu::Elements_Left(s), 0);
    for (int32_t k = 1; k < n; ++k)  // the triangle formula of the L starts
      EXPECT_EQ(luf->Lsor.V[c0 + k + 1] - luf->Lsor.V[c0 + k], n - k);
    for (int32_t e = l0 + 1; e <= luf->LFileUsed; ++e) EXPECT_LE(std::fabs(luf->Lmat.Val[e]), 1.0);
    for (int32_t i = 1; i <= n; ++i) {
      EXPECT_EQ(iin->Indr.V[i] + iin->Indc.V[i] + luf->Clen.V[i] + iin->Mcex.V[i], 0) << i;
    }
    EXPECT_EQ(vim->Cnto.V[1], col1);
    EXPECT_EQ(vim->Rnto.V[1], row1);
  }
}

TEST_F(DenseBump, DependentColumnIsReplacedByTheSlackOfItsPivotRow) {
  // Column 4 is twice column 2: its pivot comes out at rounding level, below
  // the absolute tolerance.
  const int n = 9;
  luc::Problem p = bmp::Full(n, 99);
  for (int i = 0; i < n; ++i) p.val[size_t(3 * n + i)] = 2.0 * p.val[size_t(1 * n + i)];
  ASSERT_NO_FATAL_FAILURE(Start(p));
  const int32_t u0 = luf->U_elefirst, l0 = luf->LFileUsed;
  s.Dense = true;
  ASSERT_NO_FATAL_FAILURE(Pivot());
  ASSERT_EQ(vim->Num_Sing, 1);
  EXPECT_FALSE(s.Bad_Pivot);
  const int32_t place = vim->HelpZ.V[1], k = vim->Cotn.V[place], row = vim->Rnto.V[k];
  EXPECT_TRUE(place == 2 || place == 4) << place;
  EXPECT_EQ(vim->Cbto.V[place], vim->NumCol + row);
  EXPECT_EQ(vim->Basc.V[vim->NumCol + row], 2);
  EXPECT_EQ(vim->Basc.V[place], 0);
  // Its U row is the slack's: 1 and nothing else; its L column is not stored.
  EXPECT_EQ(luf->Rlen.V[row], n - k + 1);
  EXPECT_EQ(vim->AUrmat.Val[luf->Rstr.V[row]], 1.0);
  for (int32_t e = 1; e < luf->Rlen.V[row]; ++e)
    EXPECT_EQ(vim->AUrmat.Val[luf->Rstr.V[row] + e], 0.0);
  EXPECT_EQ(u0 - luf->U_elefirst, n * (n + 1) / 2);
  EXPECT_EQ(luf->LFileUsed - l0, n * (n - 1) / 2 - (n - k));
  EXPECT_EQ(luf->L_Cols, n - 2);
  EXPECT_EQ(luf->Lsor.V[luf->L_Cols + 1], luf->LFileUsed + 1);
  for (int32_t e = l0 + 1; e <= luf->LFileUsed; ++e) EXPECT_NE(luf->Lpiv.V[e], row);
}

TEST_F(DenseBump, MissingRoomInUIsRefusedBeforeAnythingChanges) {
  ASSERT_NO_FATAL_FAILURE(Start(bmp::Full(8, 4)));
  s.Dense = true;
  vlu::Select_Pivot_Dense(s);
  vlu::LU_Space(s);
  vlu::Remove_Row_from_List(s, s.Piv_Row);
  luf->RowFileUsed = luf->U_elefirst - 36;  // the triangle of 8 needs 36
  const int32_t u0 = luf->U_elefirst;
  vlu::Dense_Pivot(s, 8);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("U_SPACE in Dense_Pivot: U_elefirst=")) << msgs.All();
  EXPECT_TRUE(msgs.Has("Insufficient memory in U."));
  EXPECT_EQ(env->Exception, 99);
  EXPECT_EQ(luf->U_elefirst, u0);
  for (int32_t i = 1; i <= 8; ++i) EXPECT_EQ(iin->Indc.V[i], 0);
}

}  // namespace
