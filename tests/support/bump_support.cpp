// Test helpers of the elimination (see bump_support.h).
#include "support/bump_support.h"

#include <algorithm>
#include <cmath>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace bmp {

namespace {

// A portable generator (every platform builds the same bumps).
struct Lcg {
  uint64_t x;
  uint32_t Next() {
    x = x * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(x >> 33);
  }
  double Unit() { return Next() / 4294967296.0 * 2.0; }  // [0, 1)
};

}  // namespace

luc::Problem Random_Bump(int n, int lo, int hi, uint64_t seed) {
  Lcg g{seed * 0x9E3779B97F4A7C15ull + 1};
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    auto &c = cols[size_t(j - 1)];
    c.emplace_back(j, 2.0 + 2.0 * g.Unit());
    const int extra = lo + int(g.Next() % uint32_t(hi - lo + 1));
    while (int(c.size()) < std::min(n, extra + 1)) {
      const int r = 1 + int(g.Next() % uint32_t(n));
      if (std::none_of(c.begin(), c.end(), [&](const auto &e) { return e.first == r; }))
        c.emplace_back(r, (g.Next() % 2 ? -1.0 : 1.0) * (0.1 + 0.9 * g.Unit()));
    }
  }
  return luc::From_Columns(n, cols, true);
}

luc::Problem Banded(int n, int w, bool anti) {
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    auto &c = cols[size_t(j - 1)];
    for (int i = std::max(1, j - w); i <= std::min(n, j + w); ++i)
      c.emplace_back(i, i == j ? 4.0 : 1.0 / (1 + i + 2 * j));
    const int a = n + 1 - j;
    if (anti && std::abs(a - j) > w) c.emplace_back(a, 0.3 + 0.01 * j);
  }
  return luc::From_Columns(n, cols, true);
}

luc::Problem Full(int n, uint64_t seed) {
  Lcg g{seed * 0x9E3779B97F4A7C15ull + 7};
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j)
    for (int i = 1; i <= n; ++i) cols[size_t(j - 1)].emplace_back(i, g.Unit() - 1.0);
  return luc::From_Columns(n, cols, true);
}

void BumpTest::Start(const luc::Problem &p, bool lists) {
  Give_Back();
  Load(p);
  if (markBad > 0) {
    env->Iin->MarkBad = markBad;
    env->Iin->MarkOver = markBad - 1;
    env->Iin->MarkMax = markBad - 2;
  }
  if (spaceFactor > 0.0) env->Space_Factor = spaceFactor;
  int32_t elemnt = 0;
  ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
  vlu::ExtractBasis(env);
  vlu::Msg_Flush(env);
  ASSERT_EQ(env->Exception, 0) << msgs.All();
  vim = env->Vim;
  luf = env->Luf;
  iin = env->Iin;
  vlu::Reuse_RVec(env, vim->WorkZ, iin->Clmin);
  vlu::Reuse_Int(env, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
  lent_ = true;
  vlu::Clear_Rvec(env, vim->Work1);  // the battery's dense column

  const int32_t n = vim->NumRow;
  s = vlu::Bump_State();
  s.vmi = env;
  s.vim = vim;
  s.luf = luf;
  s.iin = iin;
  s.NumRow = n;
  s.NumVTria = luf->NumVTria;
  s.Bump_Size = n - s.NumVTria;
  s.Piv_Indx = s.NumVTria + 1;
  s.Rowlft = n - s.Piv_Indx + 1;
  s.L_Base = luf->LFileUsed;
  s.U_Count0 = luf->RowUSpace - luf->U_elefirst;
  s.Clok_Frac = 1.0 - env->Eps08;
  s.Tol_Small = std::max(env->Tol_Zero, env->Eps);
  s.Min_M_InList = iin->MarkBad;
  s.MIN_CC_List = vlu::Size(iin->Stcc);
  s.MIN_RC_List = vlu::Size(iin->Stcr);
  s.Stat_Step = std::max(100, n / 1024);
  s.Stat_Last_Indx = s.Piv_Indx;
  s.Test_Next = s.Piv_Indx;
  iin->RowFill = 0;
  iin->Nele = 0;
  for (int32_t k = s.Piv_Indx; k <= n; ++k) iin->Nele += luf->Rlen.V[vim->Rnto.V[k]];
  if (s.Rowlft > 0) {  // the dense start
    const float rows = static_cast<float>(s.Rowlft);
    const float density = static_cast<float>(iin->Nele) / rows / rows;
    s.Dense = (s.Rowlft >= vlu::Dense_Min_Rows &&
               density > static_cast<float>(vlu::Dense_Factor * env->Thread_Damp)) ||
              (s.Rowlft >= 8 && density > 0.99f);
  }
  for (vlu::IntVec *v :
       {&iin->Nxtc, &iin->Prvc, &iin->Nxtr, &iin->Prvr, &iin->Mrow, &iin->Indr, &iin->Mrex,
        &iin->Mact, &iin->Mlow, &iin->Indc, &iin->Mcex, &iin->Indx, &iin->Stcc, &iin->Stcr})
    vlu::Zero_Int(v->V, n);
  vlu::Zero_Int(iin->Stmc.V, vlu::Size(iin->Stmc));
  Fresh_Clmx();
  if (lists) {
    for (int32_t k = s.Piv_Indx; k <= n; ++k)
      vlu::Store_col_in_c_list(s, vim->Cnto.V[k], luf->Clen.V[vim->Cnto.V[k]]);
    for (int32_t k = s.Piv_Indx; k <= n; ++k)
      vlu::Store_Row_in_C_List(s, vim->Rnto.V[k], luf->Rlen.V[vim->Rnto.V[k]]);
  }
  vlu::Define_Mmat_Rows(s);
  vlu::Msg_Flush(env);
  ASSERT_EQ(env->Exception, 0) << msgs.All();
}

void BumpTest::Give_Back() {
  if (!lent_) return;
  vlu::Reuse_RVec(env, iin->Clmin, vim->WorkZ);
  vlu::Reuse_Int(env, iin->Indr, "IIN%Indr", vim->HelpI, "VIM%HelpI");
  vlu::Clear_Rvec(env, vim->WorkZ);
  lent_ = false;
}

void BumpTest::TearDown() {
  if (env != nullptr) Give_Back();
  luc::EnvTest::TearDown();
}

void BumpTest::Fresh_Clmx() {
  for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
    const int32_t j = vim->Cnto.V[k];
    double big = 0.0;
    for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
      big = std::max(big, std::fabs(vim->AUrmat.Val[q]));
    iin->Clmx.Val[j] = big;
    iin->Clmin.Val[j] = std::max(1e-20, env->Eps * big);
    iin->Clok.V[j] = vlu::Col_Tail(s, j) == 0 ? vlu::LTrue : vlu::LFalse;
  }
}

int32_t BumpTest::Pos(int32_t row, int32_t col) const {
  for (int32_t q = luf->Cstr.V[col]; q < luf->Cstr.V[col] + luf->Clen.V[col]; ++q)
    if (luf->Ir.V[q] == row) return q;
  return 0;
}

double &BumpTest::A(int32_t row, int32_t col) {
  const int32_t q = Pos(row, col);
  EXPECT_NE(q, 0) << "no element (" << row << "," << col << ")";
  return vim->AUrmat.Val[q];
}

std::vector<int32_t> BumpTest::Rows(int32_t col) const {
  return std::vector<int32_t>(luf->Ir.V + luf->Cstr.V[col],
                              luf->Ir.V + luf->Cstr.V[col] + luf->Clen.V[col]);
}

double BumpTest::Thr(int32_t j) const {
  return std::max(env->Rtpiva, vim->Tol_Piv_Rel * iin->Clmx.Val[j]);
}

Elems BumpTest::Elements() const {
  Elems e;
  for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
    const int32_t j = vim->Cnto.V[k], q0 = luf->Cstr.V[j];
    for (int32_t q = q0; q < q0 + luf->Clen.V[j] + vlu::Col_Tail(s, j); ++q)
      if (luf->Ir.V[q] != 0)
        e.emplace_back(luf->Ir.V[q], j, vim->AUrmat.Val[q], q < q0 + luf->Clen.V[j]);
  }
  std::sort(e.begin(), e.end());
  return e;
}

void BumpTest::Step(int32_t row, int32_t col, void (*step)(vlu::Bump_State &)) {
  s.Piv_Row = row;
  s.Piv_Col = col;
  s.MarkBest = (luf->Rlen.V[row] - 1) * (luf->Clen.V[col] - 1);
  vlu::Remove_col_from_list(s, col);
  Carry_Out(step);
}

void BumpTest::Pivot() {
  if (s.Dense) {
    vlu::Select_Pivot_Dense(s);
  } else if (s.Semi_Dense) {
    vlu::Select_Pivot_D(s);
    if (!vlu::Stopped(s) && s.MarkBest > s.MarkHigh) vlu::Increase_MarkHigh(s, s.MarkBest);
  } else {
    s.In_Select_Pivot = true;
    vlu::Select_Pivot(s);
    s.In_Select_Pivot = false;
  }
  vlu::Msg_Flush(env);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  Carry_Out(nullptr);
}

void BumpTest::Carry_Out(void (*step)(vlu::Bump_State &)) {
  s.Bad_Pivot = false;
  s.Len_Piv_Row = luf->Rlen.V[s.Piv_Row];
  s.Len_Piv_Col = luf->Clen.V[s.Piv_Col];
  // A long other line of a short pivot sends it to General_Pivot.
  bool otherLong = false;
  if (s.Len_Piv_Col == 2 && s.Len_Piv_Row != 2) {
    const int32_t q = luf->Cstr.V[s.Piv_Col];
    otherLong = vlu::Long_row(s, luf->Ir.V[q] + luf->Ir.V[q + 1] - s.Piv_Row);
  } else if (s.Len_Piv_Row == 2 && s.Len_Piv_Col != 2) {
    const int32_t p = luf->Rstr.V[s.Piv_Row];
    otherLong = vlu::Long_col(s, luf->Ic.V[p] + luf->Ic.V[p + 1] - s.Piv_Col);
  }
  vlu::LU_Space(s);
  vlu::Msg_Flush(env);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  vlu::Remove_Row_from_List(s, s.Piv_Row);
  if (s.Dense_Now) {
    const int32_t ld = (s.Rowlft + 7) / 8 * 8;
    vlu::Dense_Pivot(s, ld);
    vlu::Msg_Flush(env);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    s.Piv_Indx = s.NumRow + 1;
    s.Rowlft = 0;
    return;
  }
  if (step != nullptr) {
    step(s);
  } else if (s.Len_Piv_Row == 1) {
    vlu::Row_Singleton_Pivot(s);
  } else if (s.Len_Piv_Col == 1) {
    vlu::Col_Singleton_Pivot(s);
  } else if (s.Len_Piv_Row == 2 && s.Len_Piv_Col == 2) {
    vlu::PIV_2_BY_2(s);
  } else if (s.Len_Piv_Row == 2 && !otherLong) {
    vlu::PIV_P_BY_2(s);
  } else if (s.Len_Piv_Col == 2 && !otherLong) {
    vlu::PIV_2_BY_P(s);
  } else {
    iin->Max_Mmat = std::max({iin->Max_Mmat, s.Len_Piv_Row, s.Len_Piv_Col});
    int32_t mr = 0, mc = 0;
    vlu::Assign_Mmat(s, mr, mc);
    if (!vlu::Stopped(s)) vlu::General_Pivot(s, mr, mc);
  }
  vlu::Msg_Flush(env);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  vlu::Set_Pivot_Position(s);
  s.Piv_Indx += 1;
  s.Rowlft = s.NumRow - s.Piv_Indx + 1;
}

int BumpTest::Battery(bool lu) {
  env->Test_Full = 1;
  env->Test_LU = lu ? 1 : 0;
  s.Test_Next = s.Piv_Indx;
  vlu::Reuse_Int(env, iin->Indr, "IIN%Indr", vim->HelpI, "VIM%HelpI");
  vlu::Inversion_Tests(s);
  vlu::Reuse_Int(env, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
  vlu::Msg_Flush(env);
  return env->Exception;
}

}  // namespace bmp
