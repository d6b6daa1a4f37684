// The column copy of U, built on hand-made U-files: the packed triangle of a
// dense final block, the growth of its store, and the removal of singular
// columns.
#include <gtest/gtest.h>

#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

constexpr int N = 5;
// Pivot order: position -> row, position -> place.
const int Rows[N + 1] = {0, 3, 1, 5, 2, 4};
const int Places[N + 1] = {0, 2, 5, 1, 4, 3};

double Uval(int k, int kk) { return 10.0 * k + kk + (k == kk ? 0.5 : 0.0); }

class ColumnCopy : public ::testing::Test {
 protected:
  luc::Messages msgs;
  vlu::VMI *env = nullptr;
  // stored[k] = positions of the elements of U row k (the pivot first).
  std::vector<std::vector<int>> stored;

  void SetUp() override {
    vlu_regmsgcb(&msgs, luc::Capture_Callback);
    luc::Cols cols(N);
    luc::Problem p = luc::From_Columns(N, cols);
    for (int i = 1; i <= N; ++i) p.stat[size_t(N + i)] = 2;
    env = luc::Load_Env(p);
    ASSERT_NE(env, nullptr);
    vlu::LUFactor(env);  // sizes the stores
    ASSERT_EQ(env->Exception, 0);
  }
  void TearDown() override {
    luc::Free_Env(env);
    vlu_regmsgcb(nullptr, nullptr);
    EXPECT_FALSE(msgs.Has("not in balance")) << msgs.All();
  }

  // Writes U into the U-file: rows 1 and 2 sparse, the last dSize rows as a
  // packed triangle.
  void Build(int dSize) {
    vlu::VIM *vim = env->Vim;
    vlu::LUF *luf = env->Luf;
    stored.assign(N + 1, {});
    stored[1] = {1, 3, 5};
    stored[2] = {2, 4};
    for (int k = 3; k <= N - dSize; ++k) stored[size_t(k)] = {k};
    for (int k = N - dSize + 1; k <= N; ++k) {
      stored[size_t(k)].clear();
      for (int kk = k; kk <= N; ++kk) stored[size_t(k)].push_back(kk);
    }
    for (int k = 1; k <= N; ++k) {
      vim->Rnto.V[k] = Rows[k];
      vim->Rotn.V[Rows[k]] = k;
      vim->Cnto.V[k] = Places[k];
      vim->Cotn.V[Places[k]] = k;
    }
    int pos = luf->RowUSpace + 1;
    int total = 0;
    for (int k = 1; k <= N; ++k) {
      const int len = static_cast<int>(stored[size_t(k)].size());
      pos -= len;
      total += len;
      luf->Rstr.V[Rows[k]] = pos;
      luf->Rlen.V[Rows[k]] = len;
      for (int e = 0; e < len; ++e) {
        const int kk = stored[size_t(k)][size_t(e)];
        luf->Ic.V[pos + e] = Places[kk];
        vim->AUrmat.Val[pos + e] = Uval(k, kk);
      }
    }
    for (int q = 1; q < pos; ++q) luf->Ic.V[q] = 77;  // dirt the routine must clear
    for (int q = 1; q <= luf->ColUSpace; ++q) luf->Ir.V[q] = 77;
    luf->U_elefirst = pos;
    luf->U_numele = total;
    luf->D_Size = dSize;
    vim->Num_Sing = vim->Num_Sing_Tria = 0;
  }

  // The expected column at position kk: pivot, earlier dense rows going up,
  // then the sparse rows from the last to the first.
  std::vector<std::pair<int, double>> Expected(int kk, int dSize) {
    std::vector<std::pair<int, double>> col;
    const int firstDense = N - dSize + 1;
    col.emplace_back(Rows[kk], Uval(kk, kk));
    for (int k = kk - 1; k >= 1; --k) {
      if (k < firstDense && kk >= firstDense) break;
      if (k >= firstDense) col.emplace_back(Rows[k], Uval(k, kk));
    }
    for (int k = std::min(kk - 1, N - dSize); k >= 1; --k)
      for (int e : stored[size_t(k)])
        if (e == kk) col.emplace_back(Rows[k], Uval(k, kk));
    return col;
  }

  void Expect_Columns(int dSize) {
    const vlu::LUF *luf = env->Luf;
    int total = 0;
    for (int kk = 1; kk <= N; ++kk) {
      const int c = Places[kk];
      std::vector<std::pair<int, double>> got;
      for (int q = luf->Cstr.V[c]; q < luf->Cstr.V[c] + luf->Clen.V[c]; ++q)
        got.emplace_back(luf->Ir.V[q], luf->Ucmat.Val[q]);
      EXPECT_EQ(got, Expected(kk, dSize)) << "position " << kk;
      total += luf->Clen.V[c];
    }
    EXPECT_EQ(luf->U_colfirst, luf->ColUSpace - total + 1);
    EXPECT_EQ(luf->ColFileUsed, luf->U_colfirst);
    for (int q = 1; q < luf->U_colfirst; ++q) ASSERT_EQ(luf->Ir.V[q], 0) << q;
    for (int q = 1; q < luf->U_elefirst; ++q) ASSERT_EQ(luf->Ic.V[q], 0) << q;
    EXPECT_TRUE(luf->ColCopy);
  }
};

TEST_F(ColumnCopy, DenseTriangleAndSparseRows) {
  Build(3);
  vlu::CreateColumnU(env);
  ASSERT_EQ(env->Exception, 0);
  Expect_Columns(3);
  // Column counts: sparse 1, 1; dense 1 + 1, 2 + 1 (row 2 reaches it), 3 + 1.
  EXPECT_EQ(env->Luf->Clen.V[Places[3]], 2);
  EXPECT_EQ(env->Luf->Clen.V[Places[4]], 3);
  EXPECT_EQ(env->Luf->Clen.V[Places[5]], 4);
}

TEST_F(ColumnCopy, DenseBlockOfEdgeOneAndNone) {
  Build(1);
  vlu::CreateColumnU(env);
  Expect_Columns(1);
  Build(0);
  vlu::CreateColumnU(env);
  Expect_Columns(0);
}

TEST_F(ColumnCopy, WholeMatrixDense) {
  stored.clear();
  Build(N);
  vlu::CreateColumnU(env);
  // With D_Size = n the sparse rows are gone: each column holds its part of
  // the triangle only.
  const vlu::LUF *luf = env->Luf;
  for (int kk = 1; kk <= N; ++kk) EXPECT_EQ(luf->Clen.V[Places[kk]], kk);
  EXPECT_EQ(luf->U_colfirst, luf->ColUSpace - N * (N + 1) / 2 + 1);
}

TEST_F(ColumnCopy, TotalEqualToTheSpaceNeedsNoGrowth) {
  Build(3);
  vlu::LUF *luf = env->Luf;
  const int sizeIr = vlu::Size(luf->Ir);
  luf->ColUSpace = luf->U_numele;
  vlu::CreateColumnU(env);
  EXPECT_EQ(luf->U_colfirst, 1);
  EXPECT_EQ(vlu::Size(luf->Ir), sizeIr);
  Expect_Columns(3);
}

TEST_F(ColumnCopy, TooLittleSpaceGrowsTheStore) {
  Build(3);
  vlu::LUF *luf = env->Luf;
  env->Trace_Inv = 2;
  const int small = std::min(vlu::Size(luf->Ir), vlu::Size(luf->Ucmat));
  luf->ColUSpace = luf->U_numele - 1;
  vlu::CreateColumnU(env);
  vlu::Msg_Flush(env);
  EXPECT_EQ(luf->ColUSpace, 2 * small);
  EXPECT_EQ(vlu::Size(luf->Ir), 2 * small);
  EXPECT_EQ(vlu::Size(luf->Ucmat), 2 * small);
  EXPECT_TRUE(msgs.Has("Increasing Column structure for U-factor Ir and Ucmat to at least"));
  EXPECT_TRUE(msgs.Has("Original length Ir="));
  EXPECT_TRUE(msgs.Has("Adjusted length Ir="));
  EXPECT_TRUE(msgs.Has(" and ColUSpace="));
  Expect_Columns(3);
}

TEST_F(ColumnCopy, SingularColumnsKeepOnlyTheirPivot) {
  Build(0);
  vlu::VIM *vim = env->Vim;
  vlu::LUF *luf = env->Luf;
  env->Trace_Inv = 1;
  vim->Num_Sing_Tria = 0;
  vim->Num_Sing = 1;
  vim->HelpZ.V[1] = Places[5];  // column of position 5: rows of positions 1 and 5
  env->Iin->RowFill = 10;
  const int before = luf->U_numele;
  vlu::CreateColumnU(env);
  vlu::Msg_Flush(env);
  ASSERT_EQ(env->Exception, 0);
  const int c = Places[5];
  EXPECT_EQ(luf->Clen.V[c], 1);
  EXPECT_EQ(luf->Ir.V[luf->Cstr.V[c]], Rows[5]);
  EXPECT_EQ(luf->Ir.V[luf->Cstr.V[c] + 1], 0);
  EXPECT_EQ(vim->HelpZ.V[1], 0);
  EXPECT_EQ(luf->U_numele, before - 1);
  EXPECT_EQ(env->Iin->RowFill, 9);
  // Row of position 1 lost the element: its last one moved into the slot.
  const int r = Rows[1];
  EXPECT_EQ(luf->Rlen.V[r], 2);
  EXPECT_EQ(luf->Ic.V[luf->Rstr.V[r]], Places[1]);
  EXPECT_EQ(luf->Ic.V[luf->Rstr.V[r] + 1], Places[3]);
  EXPECT_EQ(luf->Ic.V[luf->Rstr.V[r] + 2], 0);
  EXPECT_TRUE(msgs.Has(" Fill reduced to"));
}

}  // namespace
