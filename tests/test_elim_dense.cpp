// The dense kernels against the plain order of elimination, and the dense
// final block of the elimination.
//
// Every kernel promises to subtract the pending pivots from each element one
// at a time in ascending order (x = x - l * u), so every member, unrolled or
// general, must give the same bits as the plain loops below; the tests
// compare whole blocks with memcmp, padding rows of the leading dimension
// included (a write outside the kernel's range shows up as well).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"

namespace {

// A block by columns: (i, j), 1-based, at v[(i - 1) + (j - 1) ld].  Every
// slot of the ld x cols storage gets a value.
struct Block {
  int rows = 0, cols = 0, ld = 0;
  std::vector<double> v;
  Block(int r, int c, int lead, uint64_t seed) : rows(r), cols(c), ld(lead) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    v.resize(size_t(std::max(1, ld * std::max(c, 1))));
    for (double &x : v) x = uni(gen);
  }
  double &at(int i, int j) { return v[size_t(i - 1) + size_t(j - 1) * size_t(ld)]; }
  double *a() { return v.data(); }
  bool Same(const Block &o) const {
    return v.size() == o.v.size() &&
           std::memcmp(v.data(), o.v.data(), v.size() * sizeof(double)) == 0;
  }
};

// The plain order: rows i1..i2 and columns j1..j2 get the pivots
// npused + 1 .. npiv one at a time.
void Plain_Update(Block &b, int npused, int npiv, int i1, int i2, int j1, int j2) {
  for (int j = j1; j <= j2; ++j)
    for (int i = i1; i <= i2; ++i) {
      double x = b.at(i, j);
      for (int p = npused + 1; p <= npiv; ++p) x = x - b.at(i, p) * b.at(p, j);
      b.at(i, j) = x;
    }
}

const int Widths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 63};

TEST(DenseKernels, UpdateLColEveryWidthGivesThePlainBitsAndTheFirstLargest) {
  for (int w : Widths)
    for (int npused : {0, 3})
      for (int extraRows : {0, 1, 37})
        for (int jOff : {1, 4}) {
          const int npiv = npused + w, nrows = npiv + extraRows, jcol = npiv + jOff;
          const int ld = nrows + 3;  // odd leading dimensions, padding rows below
          Block b(nrows, jcol + 2, ld, uint64_t(1000 * w + 100 * npused + extraRows + jOff));
          Block ref = b;
          Plain_Update(ref, npused, npiv, npiv + 1, nrows, jcol, jcol);
          double largest = -1.0;
          int32_t best = -1;
          vlu::Update_LCol(b.a(), ld, npiv, npused, jcol, nrows, largest, best);
          EXPECT_TRUE(b.Same(ref)) << "w=" << w << " npused=" << npused << " rows=" << nrows;
          double big = 0.0;
          int at = npiv + 1;
          for (int i = npiv + 1; i <= nrows; ++i)
            if (std::fabs(ref.at(i, jcol)) > big) big = std::fabs(ref.at(i, jcol)), at = i;
          EXPECT_EQ(largest, big);
          EXPECT_EQ(best, at);
        }
}

TEST(DenseKernels, UpdateLColSearchTakesTheFirstOfEqualsAndEmptyRangesGivePlaceOne) {
  Block b(6, 3, 7, 5);
  for (int i = 1; i <= 6; ++i) b.at(i, 3) = 0.25;
  b.at(4, 3) = -0.5;
  b.at(6, 3) = 0.5;
  double largest = 0.0;
  int32_t best = 0;
  vlu::Update_LCol(b.a(), 7, 2, 2, 3, 6, largest, best);  // nothing pending
  EXPECT_EQ(largest, 0.5);
  EXPECT_EQ(best, 4);
  for (int i = 1; i <= 6; ++i) b.at(i, 3) = 0.0;
  vlu::Update_LCol(b.a(), 7, 2, 2, 3, 6, largest, best);  // all zero: the first place
  EXPECT_EQ(largest, 0.0);
  EXPECT_EQ(best, 3);
  Block before = b;
  vlu::Update_LCol(b.a(), 7, 6, 0, 3, 6, largest, best);  // no rows below the pivots
  EXPECT_EQ(largest, 0.0);
  EXPECT_EQ(best, 7);
  EXPECT_TRUE(b.Same(before));
}

TEST(DenseKernels, UpdateURowEveryWidthGivesThePlainBitsAndItsLargest) {
  for (int w : Widths)
    for (int npused : {0, 2})
      for (int extraCols : {1, 2, 40}) {
        const int npiv = npused + w, ncols = npiv + extraCols, nrows = npiv + 5;
        const int ld = nrows + 2;
        Block b(nrows, ncols, ld, uint64_t(77 * w + 7 * npused + extraCols));
        Block ref = b;
        Plain_Update(ref, npused, npiv, npiv + 1, npiv + 1, npiv + 2, ncols);
        double umax = -1.0;
        vlu::Update_URow(b.a(), ld, npiv, npused, ncols, umax);
        EXPECT_TRUE(b.Same(ref)) << "w=" << w << " npused=" << npused << " cols=" << ncols;
        double big = 0.0;
        for (int j = npiv + 2; j <= ncols; ++j) big = std::max(big, std::fabs(ref.at(npiv + 1, j)));
        EXPECT_EQ(umax, big);
      }
}

TEST(DenseKernels, InterUpdtSixtyFourWideOverSeveralPanels) {
  // 600 rows behind the pivots: panels of 256, 256 and the rest.
  for (int npused : {0, 5}) {
    const int npiv = npused + vlu::Batch_Width, nrows = npiv + 600, ncols = npiv + 23;
    const int ld = nrows + 1;
    Block b(nrows, ncols, ld, uint64_t(31 + npused));
    Block ref = b;
    Plain_Update(ref, npused, npiv, npiv + 1, nrows, npiv + 1, ncols);
    int32_t used = npused;
    vlu::Inter_Updt(b.a(), ld, nrows, ncols, npiv, used);
    EXPECT_EQ(used, npiv);
    EXPECT_TRUE(b.Same(ref)) << "npused=" << npused;
  }
  // Nothing behind the pivots: only the count moves.
  Block b(70, 70, 71, 3);
  Block before = b;
  int32_t used = 6;
  vlu::Inter_Updt(b.a(), 71, 70, 70, 70, used);
  EXPECT_EQ(used, 70);
  EXPECT_TRUE(b.Same(before));
}

// A fresh environment for the kernels that speak through it.
struct DenseEnv : luc::EnvTest {
  vlu::Bump_State s;
  void SetUp() override {
    EnvTest::SetUp();
    Load(luc::All_Slack(2));
    s.vmi = env;
    s.vim = env->Vim;
    s.luf = env->Luf;
    s.iin = env->Iin;
  }
};

TEST_F(DenseEnv, FinalUpdtEveryWidthBelowSixtyFourGivesThePlainBits) {
  for (int w : Widths)
    for (int extraRows : {0, 1, 30})
      for (int extraCols : {0, 1, 9}) {
        const int npused = 1, npiv = npused + w;
        const int nrows = npiv + extraRows, ncols = npiv + extraCols, ld = nrows + 5;
        Block b(nrows, ncols, ld, uint64_t(13 * w + extraRows + 100 * extraCols));
        Block ref = b;
        Plain_Update(ref, npused, npiv, npiv + 1, nrows, npiv + 1, ncols);
        int32_t used = npused;
        vlu::Final_Updt(s, b.a(), ld, nrows, ncols, npiv, used);
        EXPECT_EQ(used, npiv);
        EXPECT_TRUE(b.Same(ref)) << "w=" << w << " rows=" << nrows << " cols=" << ncols;
      }
  EXPECT_EQ(env->Exception, 0) << msgs.All();
}

TEST_F(DenseEnv, FinalUpdtRefusesSixtyFourPendingPivots) {
  Block b(80, 80, 81, 9);
  Block before = b;
  int32_t used = 0;
  vlu::Final_Updt(s, b.a(), 81, 80, 80, 64, used);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Final_Updt: Error in Npused and Npiv. Npused=0 and Npiv=64")) << msgs.All();
  EXPECT_EQ(env->Exception, 99);
  EXPECT_EQ(used, 0);
  EXPECT_TRUE(b.Same(before));
}

// The kernels put together as the dense block uses them (left-looking, the
// updates delayed up to 64 pivots, partial pivoting by rows) give exactly the
// bits of a plain right-looking elimination with the same pivots.
TEST(DenseKernels, DelayedUpdatesGiveThePlainEliminationBitwise) {
  for (int n : {1, 7, 65, 150}) {
    const int ld = n + 1;
    Block b(n, n, ld, uint64_t(n));
    Block ref = b;
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

    int32_t npused = 0;
    double largest = 0.0;
    int32_t best = 1;
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
// Dense_Pivot on bumps that ExtractBasis loaded: no slack, no triangle, the
// whole basis is the dense block.
// ---------------------------------------------------------------------------

luc::Problem Dense_Problem(int n, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j)
    for (int i = 1; i <= n; ++i) cols[size_t(j - 1)].push_back({i, uni(gen)});
  return luc::From_Columns(n, cols, true);
}

struct DenseBump : luc::EnvTest {
  vlu::Bump_State s;
  bool borrowed = false;
  int32_t ld = 0;

  // The state Factor_Bump has when it calls Dense_Pivot at the start of a
  // dense bump (Select_Pivot_Dense's pivot: the largest of the first column).
  void Start(const luc::Problem &p) {
    Load(p);
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    vlu::ExtractBasis(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    vlu::VIM *vim = env->Vim;
    vlu::LUF *luf = env->Luf;
    vlu::IIN *iin = env->Iin;
    const int32_t n = vim->NumRow;
    ASSERT_EQ(luf->NumVTria, 0);
    iin->Nele = 0;
    for (int32_t k = 1; k <= n; ++k) iin->Nele += luf->Rlen.V[vim->Rnto.V[k]];
    vlu::Reuse_RVec(env, vim->WorkZ, iin->Clmin);
    vlu::Reuse_Int(env, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
    borrowed = true;
    for (vlu::IntVec *v : {&iin->Indr, &iin->Indc, &iin->Mrow, &iin->Mact, &iin->Mrex, &iin->Mcex})
      vlu::Zero_Int(v->V, n);
    iin->RowFill = 0;

    s = vlu::Bump_State();
    s.vmi = env;
    s.vim = vim;
    s.luf = luf;
    s.iin = iin;
    s.NumRow = n;
    s.NumVTria = 0;
    s.Bump_Size = n;
    s.Piv_Indx = 1;
    s.Rowlft = n;
    s.Dense = true;
    s.Tol_Small = std::max(env->Tol_Zero, env->Eps);
    s.Clok_Frac = 1.0 - env->Eps08;
    s.L_Base = luf->LFileUsed;
    s.U_Count0 = luf->RowUSpace - luf->U_elefirst;

    ld = (n + 7) / 8 * 8;
    if (vlu::Size(iin->Mmat) < ld * n)
      vlu::Increase_RVec(env, iin->Mmat, ld * n - vlu::Size(iin->Mmat));
    ASSERT_GE(vlu::Size(iin->Lisr), n);
    ASSERT_GE(vlu::Size(iin->Lisc), n);

    s.Piv_Col = vim->Cnto.V[1];
    double big = -1.0;
    for (int32_t q = luf->Cstr.V[s.Piv_Col]; q < luf->Cstr.V[s.Piv_Col] + luf->Clen.V[s.Piv_Col];
         ++q)
      if (std::fabs(vim->AUrmat.Val[q]) > big)
        big = std::fabs(vim->AUrmat.Val[q]), s.Piv_Row = luf->Ir.V[q];
    s.MarkBest = (n - 1) * (n - 1);
  }

  // Runs Dense_Pivot; false when the build has no pivot test yet.
  bool Run() {
    vlu::Dense_Pivot(s, ld);
    vlu::Msg_Flush(env);
    return !msgs.Has("is not available in this build");
  }

  void Give_Back() {
    if (!borrowed) return;
    vlu::Reuse_RVec(env, env->Iin->Clmin, env->Vim->WorkZ);
    vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
    vlu::Clear_Rvec(env, env->Vim->WorkZ);
    borrowed = false;
  }

  // What LUFactor and the factor call do after a regular bump: the sizes of
  // the factors, the published order, the column copy.
  void Finish() {
    Give_Back();
    vlu::VIM *vim = env->Vim;
    vlu::LUF *luf = env->Luf;
    const int32_t n = vim->NumRow;
    luf->U_numele = luf->U_numini = luf->RowUSpace - luf->U_elefirst + 1;
    luf->RowFileUsed = luf->U_elefirst;
    luf->LFileIni = luf->LFileUsed;
    for (int32_t k = 1; k <= n; ++k) vim->Rwcl.V[vim->Rnto.V[k]] = vim->Cbto.V[vim->Cnto.V[k]];
    for (int32_t k = 1; k <= n; ++k) vim->Cbto.V[k] = vim->Rwcl.V[vim->Rnto.V[k]];
    vlu::CreateColumnU(env);
  }

  void TearDown() override {
    Give_Back();
    EnvTest::TearDown();
  }
};

TEST_F(DenseBump, WholeBumpFactorsIntoATriangleThatMultipliesBackToTheBasis) {
  for (int n : {2, 12, 70}) {  // 70: one batch of 64 delayed updates, then 6 pending
    Start(Dense_Problem(n, uint64_t(n)));
    if (HasFatalFailure()) return;
    const vlu::LUF *luf = env->Luf;
    const int32_t u0 = luf->U_elefirst, l0 = luf->LFileUsed, c0 = luf->L_Cols;
    const int32_t row1 = s.Piv_Row, col1 = s.Piv_Col;
    if (!Run()) GTEST_SKIP() << "Dense_Pivot needs the pivot test of the elimination";
    ASSERT_EQ(env->Exception, 0) << msgs.All();

    EXPECT_EQ(luf->D_Size, n);
    EXPECT_EQ(u0 - luf->U_elefirst, n * (n + 1) / 2);
    EXPECT_EQ(luf->LFileUsed - l0, n * (n - 1) / 2);
    EXPECT_EQ(luf->L_Cols - c0, n - 1);
    EXPECT_EQ(s.St.Dense, n);
    EXPECT_EQ(vlu::Elements_Left(s), 0);
    for (int32_t k = 1; k < n; ++k)  // the triangle formula of the L starts
      EXPECT_EQ(luf->Lsor.V[c0 + k + 1] - luf->Lsor.V[c0 + k], n - k);
    double lmax = 0.0;
    for (int32_t e = l0 + 1; e <= luf->LFileUsed; ++e)
      lmax = std::max(lmax, std::fabs(luf->Lmat.Val[e]));
    EXPECT_LE(lmax, 1.0);  // partial pivoting
    for (int32_t i = 1; i <= n; ++i) {
      EXPECT_EQ(env->Iin->Indr.V[i], 0);
      EXPECT_EQ(env->Iin->Indc.V[i], 0);
      EXPECT_EQ(luf->Clen.V[i], 0);
      EXPECT_EQ(env->Iin->Mcex.V[i], 0);
    }
    // The first pivot is the one chosen before the call.
    EXPECT_EQ(env->Vim->Rnto.V[1], row1);
    EXPECT_EQ(env->Vim->Cnto.V[1], col1);
    Finish();
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    EXPECT_TRUE(luc::Check_Factors(env)) << "n=" << n;
  }
}

TEST_F(DenseBump, DependentColumnIsReplacedByTheSlackOfItsPivotRow) {
  // Column 4 is twice column 2: its pivot comes out at rounding level, below
  // the absolute tolerance.
  const int n = 9;
  luc::Problem p = Dense_Problem(n, 99);
  for (int i = 0; i < n; ++i) p.val[size_t(3 * n + i)] = 2.0 * p.val[size_t(1 * n + i)];
  Start(p);
  if (HasFatalFailure()) return;
  const vlu::LUF *luf = env->Luf;
  const vlu::VIM *vim = env->Vim;
  const int32_t u0 = luf->U_elefirst, l0 = luf->LFileUsed;
  if (!Run()) GTEST_SKIP() << "Dense_Pivot needs the pivot test of the elimination";
  ASSERT_EQ(env->Exception, 0) << msgs.All();
  ASSERT_EQ(vim->Num_Sing, 1);
  EXPECT_FALSE(s.Bad_Pivot);

  const int32_t place = vim->HelpZ.V[1];
  const int32_t k = vim->Cotn.V[place];
  const int32_t row = vim->Rnto.V[k];
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
  Start(Dense_Problem(6, 4));
  if (HasFatalFailure()) return;
  vlu::LUF *luf = env->Luf;
  luf->RowFileUsed = luf->U_elefirst - 21;  // the triangle of 6 needs 21
  const int32_t u0 = luf->U_elefirst;
  vlu::Dense_Pivot(s, ld);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("U_SPACE in Dense_Pivot: U_elefirst=")) << msgs.All();
  EXPECT_TRUE(msgs.Has("Insufficient memory in U."));
  EXPECT_EQ(env->Exception, 99);
  EXPECT_EQ(luf->U_elefirst, u0);
  for (int32_t i = 1; i <= 6; ++i) EXPECT_EQ(env->Iin->Indc.V[i], 0);
}

}  // namespace
