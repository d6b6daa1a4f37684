// The column copy of U, built on hand-made U-files: the packed triangle of a
// dense final block, the growth of its store, and the removal of singular
// columns.
#include <gtest/gtest.h>

#include <vector>

#include "factor/factor.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"

namespace {

constexpr int N = 5;
const int Rows[N + 1] = {0, 3, 1, 5, 2, 4};    // position -> row
const int Places[N + 1] = {0, 2, 5, 1, 4, 3};  // position -> place

double Uval(int k, int kk) { return 10.0 * k + kk + (k == kk ? 0.5 : 0.0); }

struct ColumnCopy : luc::EnvTest {
  std::vector<std::vector<int>> stored;  // positions in U row k, pivot first

  void SetUp() override {
    luc::EnvTest::SetUp();
    Load(luc::All_Slack(N));
    vlu::LUFactor(env);  // sizes the stores
    ASSERT_EQ(env->Exception, 0);
  }

  // Writes U into the U-file: the last dSize rows a packed triangle, the
  // others sparse (row 1: positions 1, 3, 5; row 2: 2, 4; then pivots only).
  void Build(int dSize) {
    vlu::VIM *vim = env->Vim;
    vlu::LUF *luf = env->Luf;
    stored.assign(N + 1, {});
    int pos = luf->RowUSpace + 1;
    for (int k = 1; k <= N; ++k) {
      stored[size_t(k)] = {k};
      for (int kk = k + 1; kk <= N; ++kk)
        if (k > N - dSize || (k == 1 && kk % 2 == 1) || (k == 2 && kk == 4))
          stored[size_t(k)].push_back(kk);
      vim->Rnto.V[k] = Rows[k];
      vim->Rotn.V[Rows[k]] = k;
      vim->Cnto.V[k] = Places[k];
      vim->Cotn.V[Places[k]] = k;
      const int len = int(stored[size_t(k)].size());
      pos -= len;
      luf->Rstr.V[Rows[k]] = pos;
      luf->Rlen.V[Rows[k]] = len;
      for (int e = 0; e < len; ++e) {
        luf->Ic.V[pos + e] = Places[stored[size_t(k)][size_t(e)]];
        vim->AUrmat.Val[pos + e] = Uval(k, stored[size_t(k)][size_t(e)]);
      }
    }
    for (int q = 1; q < pos; ++q) luf->Ic.V[q] = 77;  // dirt the routine must clear
    for (int q = 1; q <= luf->ColUSpace; ++q) luf->Ir.V[q] = 77;
    luf->U_elefirst = pos;
    luf->U_numele = luf->RowUSpace + 1 - pos;
    luf->D_Size = dSize;
    vim->Num_Sing = vim->Num_Sing_Tria = 0;
  }

  // The column at position kk holds the pivot, the earlier dense rows going
  // up, then the sparse rows from the last to the first.
  void Expect_Columns(int dSize) {
    const vlu::LUF *luf = env->Luf;
    int total = 0;
    for (int kk = 1; kk <= N; ++kk) {
      std::vector<std::pair<int, double>> want{{Rows[kk], Uval(kk, kk)}}, got;
      for (int k = kk - 1; k > N - dSize; --k) want.emplace_back(Rows[k], Uval(k, kk));
      for (int k = std::min(kk - 1, N - dSize); k >= 1; --k)
        for (int e : stored[size_t(k)])
          if (e == kk) want.emplace_back(Rows[k], Uval(k, kk));
      const int c = Places[kk];
      for (int q = luf->Cstr.V[c]; q < luf->Cstr.V[c] + luf->Clen.V[c]; ++q)
        got.emplace_back(luf->Ir.V[q], luf->Ucmat.Val[q]);
      EXPECT_EQ(got, want) << "position " << kk << ", dense block of " << dSize;
      total += luf->Clen.V[c];
    }
    EXPECT_EQ(luf->U_colfirst, luf->ColUSpace - total + 1);
    EXPECT_EQ(luf->ColFileUsed, luf->U_colfirst);
    for (int q = 1; q < luf->U_colfirst; ++q) ASSERT_EQ(luf->Ir.V[q], 0) << q;
    for (int q = 1; q < luf->U_elefirst; ++q) ASSERT_EQ(luf->Ic.V[q], 0) << q;
    EXPECT_TRUE(luf->ColCopy);
  }
};

TEST_F(ColumnCopy, DenseTrianglesOfEveryEdge) {
  for (int dSize : {0, 1, 3, N}) {
    Build(dSize);
    vlu::CreateColumnU(env);
    ASSERT_EQ(env->Exception, 0);
    Expect_Columns(dSize);
  }
}

TEST_F(ColumnCopy, StoreGrowsOnlyWhenTooSmall) {
  Build(3);
  vlu::LUF *luf = env->Luf;
  const int small = std::min(vlu::Size(luf->Ir), vlu::Size(luf->Ucmat));
  luf->ColUSpace = luf->U_numele;  // exactly enough
  vlu::CreateColumnU(env);
  EXPECT_EQ(luf->U_colfirst, 1);
  EXPECT_EQ(vlu::Size(luf->Ir), small);
  Expect_Columns(3);
  Build(3);
  luf->ColUSpace = luf->U_numele - 1;  // one short
  vlu::CreateColumnU(env);
  EXPECT_EQ(luf->ColUSpace, 2 * small);
  EXPECT_EQ(vlu::Size(luf->Ucmat), 2 * small);
  Expect_Columns(3);
}

TEST_F(ColumnCopy, SingularColumnsKeepOnlyTheirPivot) {
  Build(0);
  vlu::LUF *luf = env->Luf;
  env->Vim->Num_Sing = 1;
  env->Vim->HelpZ.V[1] = Places[5];  // column of position 5: rows of positions 1 and 5
  env->Iin->RowFill = 10;
  const int before = luf->U_numele;
  vlu::CreateColumnU(env);
  ASSERT_EQ(env->Exception, 0);
  const int c = Places[5];
  EXPECT_EQ(luf->Clen.V[c], 1);
  EXPECT_EQ(luf->Ir.V[luf->Cstr.V[c]], Rows[5]);
  EXPECT_EQ(luf->Ir.V[luf->Cstr.V[c] + 1], 0);
  EXPECT_EQ(env->Vim->HelpZ.V[1], 0);
  EXPECT_EQ(luf->U_numele, before - 1);
  EXPECT_EQ(env->Iin->RowFill, 9);
  // Row of position 1 lost the element: its last one moved into the slot.
  const int r = Rows[1];
  EXPECT_EQ(luf->Rlen.V[r], 2);
  EXPECT_EQ(std::vector<int>(luf->Ic.V + luf->Rstr.V[r], luf->Ic.V + luf->Rstr.V[r] + 3),
            (std::vector<int>{Places[1], Places[3], 0}));
}

}  // namespace
