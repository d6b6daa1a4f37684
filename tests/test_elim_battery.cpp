// The consistency battery on real bumps: the state ExtractBasis leaves with
// the lists built as the elimination builds them, and states further on that
// a plain dense elimination writes into the files (U rows, L columns, the
// rest laid out again, with tails where rows and columns are long).  A sound
// state passes every test; each kind of damage is found by the test that
// owns it, with its message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"
#include "tools/case_io.h"

namespace vlu {
extern int64_t Test_LUeqB_Budget;
}

namespace {

using vlu::IIN;
using vlu::LUF;
using vlu::VIM;

// n columns, all basic: a strong diagonal and `extra` further elements in
// random rows, which leaves most of the matrix to the bump.
luc::Problem Random_Bump(int n, int extra, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    auto &c = cols[size_t(j - 1)];
    c.push_back({j, 3.0 + uni(gen)});
    while (int(c.size()) < extra + 1) {
      const int r = 1 + int(gen() % uint64_t(n));
      if (std::none_of(c.begin(), c.end(), [&](const auto &e) { return e.first == r; }))
        c.push_back({r, (uni(gen) < 0.5 ? -1.0 : 1.0) * (0.1 + uni(gen))});
    }
    std::sort(c.begin(), c.end());
  }
  return luc::From_Columns(n, cols, true);
}

struct Battery : luc::EnvTest {
  vlu::Bump_State s;
  bool borrowed = false;
  int n = 0;

  void TearDown() override {
    Give_Back();
    vlu::Test_LUeqB_Budget = -1;
    EnvTest::TearDown();
  }
  void Give_Back() {
    if (!borrowed) return;
    vlu::Reuse_RVec(env, env->Iin->Clmin, env->Vim->WorkZ);
    vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
    borrowed = false;
  }

  // A case folder as a problem; false when the folder is absent.
  static bool Read(const std::string &dir, luc::Problem &p) {
    vlu_case::Case c;
    std::string err;
    if (!vlu_case::Read_Case(dir, c, err)) return false;
    p = luc::Problem();
    p.n = c.n;
    p.colStart = c.colStart;
    p.rowIdx = c.rowIdx;
    p.colIdx = c.colIdx;
    p.val = c.val;
    p.stat = c.basis;
    if (c.hasR) p.r = c.r;
    return true;
  }
  void Start(const std::string &name) {
    luc::Problem p;
    ASSERT_TRUE(Read(std::string(VLU_TEST_DATA) + "/" + name, p)) << name;
    Start(p);
  }
  // Loads the problem, runs the triangular phases and builds the lists of the
  // bump as the elimination's set-up does.
  void Start(const luc::Problem &p) {
    Give_Back();
    Load(p);
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    vlu::ExtractBasis(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    n = p.n;
    ASSERT_LT(env->Luf->NumVTria, n) << "no bump";
    vlu::Reuse_RVec(env, env->Vim->WorkZ, env->Iin->Clmin);
    vlu::Reuse_Int(env, env->Vim->HelpI, "VIM%HelpI", env->Iin->Indr, "IIN%Indr");
    borrowed = true;
    s = vlu::Bump_State();
    s.vmi = env;
    s.vim = env->Vim;
    s.luf = env->Luf;
    s.iin = env->Iin;
    s.NumRow = n;
    s.NumVTria = env->Luf->NumVTria;
    s.Bump_Size = n - s.NumVTria;
    s.Piv_Indx = s.NumVTria + 1;
    s.Rowlft = n - s.Piv_Indx + 1;
    s.Clok_Frac = 1.0 - env->Eps08;
    s.Test_Next = s.Piv_Indx;
    env->Test_Full = 1;
    env->Test_LU = 1;
    // Set-up of the lists: clear, column maxima, columns then rows into their
    // C-lists in the order of the permutations.
    IIN *iin = env->Iin;
    for (vlu::IntVec *v : {&iin->Nxtc, &iin->Prvc, &iin->Nxtr, &iin->Prvr, &iin->Mrow, &iin->Indr,
                           &iin->Mrex, &iin->Mact, &iin->Mlow, &iin->Indc, &iin->Mcex, &iin->Indx,
                           &iin->Stcc, &iin->Stcr})
      vlu::ClearS_Int(env, *v, n);
    vlu::Clear_Int(env, iin->Stmc);
    vlu::Clear_Rvec(env, env->Vim->Work1);  // as no solve has run
    Lists_And_Maxima({}, {});
  }

  // Clmx/Clmin/Clok of the active columns and the lists; the columns of
  // `mcol` go to the top M-list (Clok false), the rows of `mrow` to the
  // scanned-row list; every third other column of length 2 or more to the
  // M-list of its exact count.
  void Lists_And_Maxima(const std::vector<char> &mcol, const std::vector<char> &mrow) {
    IIN *iin = env->Iin;
    const LUF *luf = env->Luf;
    const int *cnto = env->Vim->Cnto.V, *rnto = env->Vim->Rnto.V;
    for (vlu::IntVec *v : {&iin->Nxtc, &iin->Prvc, &iin->Nxtr, &iin->Prvr, &iin->Mrow, &iin->Mact,
                           &iin->Mlow, &iin->Stcc, &iin->Stcr})
      vlu::ClearS_Int(env, *v, n);
    vlu::Clear_Int(env, iin->Stmc);
    s.Ptr_Zero_Cols = s.Ptr_Zero_Rows = s.Ptr_M_Rows = 0;
    s.Count_Mark_Col = s.COUNT_MARK_ROW = 0;
    s.MIN_CC_List = s.MIN_RC_List = n;
    s.Min_M_InList = iin->MarkBad;
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int j = cnto[k];
      double m = 0.0;
      for (int q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        m = std::max(m, std::fabs(env->Vim->AUrmat.Val[q]));
      iin->Clmx.Val[j] = m;
      iin->Clmin.Val[j] = std::max(1e-20, m * std::ldexp(1.0, -52));
      iin->Clok.V[j] = mcol.empty() || !mcol[size_t(j)] ? vlu::LTrue : vlu::LFalse;
    }
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int j = cnto[k], len = luf->Clen.V[j];
      if (!mcol.empty() && mcol[size_t(j)]) {
        vlu::Store_col_in_M_list(s, j, vlu::Mark_Infinite);
        continue;
      }
      int m = 0;
      if (!s.Semi_Dense && !mcol.empty() && k % 3 == 0 && len >= 2) {
        m = vlu::Mark_Infinite;
        for (int q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + len; ++q)
          m = std::min(m, (luf->Rlen.V[luf->Ir.V[q]] - 1) * (len - 1));
      }
      if (m > 0 && m < iin->MarkBad - 1) {
        vlu::Store_col_in_M_list(s, j, m);
        iin->Mlow.V[j] = m;
      } else {
        vlu::Store_col_in_c_list(s, j, len);
      }
    }
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int i = rnto[k];
      if (!mrow.empty() && mrow[size_t(i)])
        vlu::Store_Row_in_M_List(s, i);
      else
        vlu::Store_Row_in_C_List(s, i, luf->Rlen.V[i]);
    }
  }

  // Takes `steps` pivots by a dense elimination (column of fewest elements,
  // its largest element), writes their U rows and L columns, and lays the
  // rest out again; with tails > 0 the elements shared by the `tails`
  // longest rows and columns go to the tails.
  void Advance(int steps, int tails = 0) {
    VIM *vim = env->Vim;
    LUF *luf = env->Luf;
    IIN *iin = env->Iin;
    const int w = n + 1;
    std::vector<double> a(size_t(w) * size_t(w), 0.0);
    std::vector<char> on(size_t(w) * size_t(w), 0);
    auto at = [&](int i, int j) { return size_t(i) * size_t(w) + size_t(j); };
    int *cnto = vim->Cnto.V, *rnto = vim->Rnto.V, *cotn = vim->Cotn.V, *rotn = vim->Rotn.V;
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int j = cnto[k];
      const int end = luf->Cstr.V[j] + luf->Clen.V[j] + vlu::Col_Tail(s, j);
      for (int q = luf->Cstr.V[j]; q < end; ++q) {
        const int i = luf->Ir.V[q];
        if (i == 0) continue;
        a[at(i, j)] += vim->AUrmat.Val[q];
        on[at(i, j)] = 1;
      }
    }
    for (int t = 0; t < steps && s.Piv_Indx <= n; ++t) {
      int c = 0, best = n + 1;
      for (int k = s.Piv_Indx; k <= n; ++k) {
        int cnt = 0;
        for (int kk = s.Piv_Indx; kk <= n; ++kk) cnt += on[at(rnto[kk], cnto[k])];
        if (cnt > 0 && cnt < best) {
          best = cnt;
          c = cnto[k];
        }
      }
      ASSERT_NE(c, 0) << "no column left to pivot";
      int r = 0;
      for (int kk = s.Piv_Indx; kk <= n; ++kk) {
        const int i = rnto[kk];
        if (on[at(i, c)] && (r == 0 || std::fabs(a[at(i, c)]) > std::fabs(a[at(r, c)]))) r = i;
      }
      s.Piv_Row = r;
      s.Piv_Col = c;
      vlu::Set_Pivot_Position(s);
      std::vector<int> ucols{c};
      for (int k = s.Piv_Indx + 1; k <= n; ++k)
        if (on[at(r, cnto[k])]) ucols.push_back(cnto[k]);
      luf->U_elefirst -= int(ucols.size());
      luf->Rstr.V[r] = luf->U_elefirst;
      luf->Rlen.V[r] = int(ucols.size());
      for (size_t e = 0; e < ucols.size(); ++e) {
        luf->Ic.V[luf->U_elefirst + int(e)] = ucols[e];
        vim->AUrmat.Val[luf->U_elefirst + int(e)] = a[at(r, ucols[e])];
      }
      const double piv = a[at(r, c)];
      bool any = false;
      for (int k = s.Piv_Indx + 1; k <= n; ++k) {
        const int i = rnto[k];
        if (!on[at(i, c)]) continue;
        if (luf->LFileUsed + 1 > vlu::Size(luf->Lmat)) vlu::Increase_L(env, luf->LFileUsed + n + 8);
        ASSERT_EQ(env->Exception, 0);
        const double l = a[at(i, c)] / piv;
        ++luf->LFileUsed;
        luf->Lmat.Val[luf->LFileUsed] = l;
        luf->Lrow.V[luf->LFileUsed] = i;
        luf->Lpiv.V[luf->LFileUsed] = r;
        any = true;
        for (size_t e = 1; e < ucols.size(); ++e) {
          a[at(i, ucols[e])] -= l * a[at(r, ucols[e])];
          on[at(i, ucols[e])] = 1;
        }
      }
      if (any) {
        ++luf->L_Cols;
        luf->Lsor.V[luf->L_Cols + 1] = luf->LFileUsed + 1;
      }
      for (int x = 1; x <= n; ++x) on[at(r, x)] = on[at(x, c)] = 0;
      luf->Clen.V[c] = 0;
      iin->Mcex.V[c] = 0;
      iin->Mrex.V[r] = 0;
      ++s.Piv_Indx;
    }
    s.Rowlft = n - s.Piv_Indx + 1;
    s.Test_Next = s.Piv_Indx;
    (void)cotn;
    (void)rotn;

    // Which rows and columns keep tails: the longest ones, each left with at
    // least two compressed elements.
    std::vector<char> trow(size_t(w), 0), tcol(size_t(w), 0);
    if (tails > 0 && !s.Semi_Dense) {
      std::vector<std::pair<int, int>> rl, cl;
      for (int k = s.Piv_Indx; k <= n; ++k) {
        int lr = 0, lc = 0;
        for (int kk = s.Piv_Indx; kk <= n; ++kk) {
          lr += on[at(rnto[k], cnto[kk])];
          lc += on[at(rnto[kk], cnto[k])];
        }
        rl.push_back({-lr, rnto[k]});
        cl.push_back({-lc, cnto[k]});
      }
      std::sort(rl.begin(), rl.end());
      std::sort(cl.begin(), cl.end());
      for (int e = 0; e < tails && e < int(rl.size()); ++e) {
        trow[size_t(rl[size_t(e)].second)] = 1;
        tcol[size_t(cl[size_t(e)].second)] = 1;
      }
      for (bool changed = true; changed;) {
        changed = false;
        for (int k = s.Piv_Indx; k <= n; ++k) {
          int cr = 0, cc = 0;
          const int i = rnto[k], j = cnto[k];
          for (int kk = s.Piv_Indx; kk <= n; ++kk) {
            const int jj = cnto[kk], ii = rnto[kk];
            cr += on[at(i, jj)] && !(trow[size_t(i)] && tcol[size_t(jj)]);
            cc += on[at(ii, j)] && !(trow[size_t(ii)] && tcol[size_t(j)]);
          }
          if (trow[size_t(i)] && cr < 2) trow[size_t(i)] = 0, changed = true;
          if (tcol[size_t(j)] && cc < 2) tcol[size_t(j)] = 0, changed = true;
        }
      }
    }
    auto isTail = [&](int i, int j) { return trow[size_t(i)] && tcol[size_t(j)]; };

    // The row file, compressed part then tail, room for twice the length.
    std::vector<int> rpos(size_t(w) * size_t(w), 0);
    int pos = 1, last = 0;
    luf->RowFileUsed = 0;
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int i = rnto[k];
      luf->Rstr.V[i] = pos;
      int p = pos, cmp = 0, tl = 0;
      for (int pass = 0; pass < 2; ++pass)
        for (int kk = s.Piv_Indx; kk <= n; ++kk) {
          const int j = cnto[kk];
          if (!on[at(i, j)] || isTail(i, j) != (pass == 1)) continue;
          luf->Ic.V[p] = j;
          rpos[at(i, j)] = p++;
          (pass == 0 ? cmp : tl) += 1;
        }
      luf->Rlen.V[i] = cmp;
      iin->Mrex.V[i] = tl;
      luf->RowFileUsed = p - 1;
      const int room = std::max(cmp + tl + 1, 2 * (cmp + tl));
      for (; p < pos + room; ++p) luf->Ic.V[p] = 0;
      pos += room;
      last = i;
    }
    (void)last;
    // The column file, each column on a cache line.
    pos = 1;
    luf->ColFileUsed = 0;
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int j = cnto[k];
      luf->Cstr.V[j] = pos;
      int q = pos, cmp = 0, tl = 0;
      for (int pass = 0; pass < 2; ++pass)
        for (int kk = s.Piv_Indx; kk <= n; ++kk) {
          const int i = rnto[kk];
          if (!on[at(i, j)] || isTail(i, j) != (pass == 1)) continue;
          luf->Ir.V[q] = i;
          vim->AUrmat.Val[q] = a[at(i, j)];
          iin->C2rp.V[q] = rpos[at(i, j)];
          iin->R2cp.V[rpos[at(i, j)]] = q;
          ++q;
          (pass == 0 ? cmp : tl) += 1;
        }
      luf->Clen.V[j] = cmp;
      iin->Mcex.V[j] = tl;
      luf->ColFileUsed = q - 1;
      const int room = std::max(cmp + tl + 1, 2 * (cmp + tl));
      int next = pos + room;
      next = ((next - 1 + 7) / 8) * 8 + 1;
      for (; q < next; ++q) luf->Ir.V[q] = 0;
      pos = next;
    }
    ASSERT_LT(std::max(luf->RowFileUsed, luf->ColFileUsed), std::min(luf->ColASpace + 1, luf->U_elefirst));
    // Chains in position order.
    iin->RPfrst = iin->RPlast = iin->CPfrst = iin->CPlast = 0;
    for (int k = s.Piv_Indx; k <= n; ++k) {
      vlu::Link_Row_Last(s, rnto[k]);
      vlu::Link_Col_Last(s, cnto[k]);
    }
    Lists_And_Maxima(tcol, trow);
  }

  // Runs the battery as the elimination does: Indr's memory lent to HelpI.
  int Run() {
    vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
    vlu::Inversion_Tests(s);
    vlu::Reuse_Int(env, env->Vim->HelpI, "VIM%HelpI", env->Iin->Indr, "IIN%Indr");
    vlu::Msg_Flush(env);
    for (int i = 1; i <= n && checkScratch; ++i)
      EXPECT_EQ(env->Iin->Indr.V[i], 0) << "HelpI(" << i << ") left";
    for (int i = 1; i <= n; ++i) EXPECT_EQ(env->Vim->Work1.Val[i], 0.0) << "Work1(" << i << ") left";
    return env->Exception;
  }
  bool Said(const std::string &text) const { return msgs.Has(text); }
  // The first active column with at least `len` compressed elements and no
  // tail (and with an exact maximum above Rtpiva, if `exactMax`).
  int Col_With(int len, bool exactMax = false) const {
    for (int k = s.Piv_Indx; k <= n; ++k) {
      const int j = env->Vim->Cnto.V[k];
      if (env->Luf->Clen.V[j] >= len && env->Iin->Mcex.V[j] == 0 &&
          (!exactMax || (vlu::IsTrue(env->Iin->Clok.V[j]) && env->Iin->Clmx.Val[j] > env->Rtpiva)))
        return j;
    }
    return 0;
  }
  bool checkScratch = true;  // Run() expects HelpI and Work1 clear afterwards
};

const char *const kAllTests[] = {"Test_Permutations: syserr=0",
                                 "Test_Extra - Mrex/Mcex and Row/Col_Extra: syserr=0",
                                 "Test_Row_Col_Structure - Structure: syserr=0",
                                 "Test_Order_in_Structure - Structure/Permutations: syserr=0",
                                 "Test_Length_Counts - Counts: syserr=0",
                                 "Test_Length_Lists - Start, Length and Next: syserr=0",
                                 "Test_Mrex_Mcex - Are Mrex and Mcex zero length short: syserr=0",
                                 "Test_Clmx - Column Max: syserr=0",
                                 "Test_Markowitz_Lists - Markowitz sort lists: syserr=0",
                                 "Test_Markowitz_Counts - Markowitz values: syserr=0",
                                 "Test_Position: syserr=0",
                                 "Test_LUeqB: syserr=0"};

TEST_F(Battery, BumpsAfterTheTriangularPhasesPassEveryTest) {
  // A small case of the data folder, two generated bumps, and the larger
  // bumps of the shared cases when they are at hand.
  std::vector<std::pair<std::string, luc::Problem>> bumps;
  luc::Problem p;
  ASSERT_TRUE(Read(std::string(VLU_TEST_DATA) + "/special-t-basic", p));
  bumps.push_back({"special-t-basic", p});
  bumps.push_back({"random 60", Random_Bump(60, 2, 1)});
  bumps.push_back({"random 150", Random_Bump(150, 3, 2)});
  for (const char *name : {"pilot4", "d6cube"})
    if (Read(std::string(VLU_SHARED_CASES) + "/" + name, p)) bumps.push_back({name, p});
  for (const auto &b : bumps) {
    SCOPED_TRACE(b.first);
    Start(b.second);
    env->Test_Trace = 1;
    msgs.lines.clear();
    ASSERT_EQ(Run(), 0) << msgs.All();
    char start[96];
    std::snprintf(start, sizeof start, "Starting Inversion_Tests: Piv_Indx=%d Semi_dense=F DO_Squeeze=T",
                  s.Piv_Indx);
    EXPECT_TRUE(Said(start)) << msgs.All();
    int last = msgs.Find(start);
    for (const char *t : kAllTests) {  // every test, in this order
      const int at = msgs.Find(t);
      EXPECT_GT(at, last) << t << "\n" << msgs.All();
      last = std::max(last, at);
    }
    EXPECT_TRUE(Said("End of Test_LUeqB for Piv_Indx=")) << msgs.All();
    EXPECT_TRUE(Said("After testing at Piv_Indx=")) << msgs.All();
  }
}

TEST_F(Battery, EveryPivotOfADenseEliminationPasses) {
  // Pivot by pivot to the end, with tails and M-lists, by the product road
  // and by the screen.
  for (int64_t budget : {int64_t(-1), int64_t(0)}) {
    vlu::Test_LUeqB_Budget = budget;
    for (int size : {40, 120}) {
      SCOPED_TRACE(::testing::Message() << "size " << size << " budget " << budget);
      Start(Random_Bump(size, 2, uint64_t(size)));
      while (s.Piv_Indx <= n) {
        Advance(1, 3);
        ASSERT_EQ(Run(), 0) << "Piv_Indx=" << s.Piv_Indx << "\n" << msgs.All();
      }
      // All of it is in the U-file now: the factors against B, independently.
      env->Luf->NumVTria = n;
      env->Iin->L_Elements = env->Luf->LFileUsed;
      EXPECT_TRUE(luc::Check_Factors(env, true));
    }
  }
}

TEST_F(Battery, TailsListsAndSemiDenseModeAreTestedAsTheModeSays) {
  Start(Random_Bump(150, 3, 2));
  Advance(20, 4);
  ASSERT_GT(s.Count_Mark_Col, 0);
  ASSERT_GT(s.COUNT_MARK_ROW, 0);
  int tails = 0;
  for (int k = s.Piv_Indx; k <= n; ++k) tails += env->Iin->Mcex.V[env->Vim->Cnto.V[k]];
  ASSERT_GT(tails, 0);
  env->Test_Trace = 1;
  EXPECT_EQ(Run(), 0) << msgs.All();

  // Semi-dense: no tails, no M-lists; Test_Mrex_Mcex does not run and a tail
  // is a fault of Test_Extra.  Stale Mrex of the rows is not looked at.
  Start(Random_Bump(150, 3, 2));
  s.Semi_Dense = true;
  Advance(20);
  env->Iin->Mrex.V[env->Vim->Rnto.V[n]] = 5;                 // active
  env->Iin->Mrex.V[env->Vim->Rnto.V[s.Piv_Indx - 1]] = 2;  // pivoted
  env->Test_Trace = 1;
  msgs.lines.clear();
  EXPECT_EQ(Run(), 0) << msgs.All();
  EXPECT_TRUE(Said("Semi_dense=T"));
  EXPECT_FALSE(Said("Test_Mrex_Mcex"));
  const int j = Col_With(1);
  env->Iin->Mcex.V[j] = 1;
  EXPECT_EQ(Run(), 99);
  char text[96];
  std::snprintf(text, sizeof text, "Test_Extra with Semi_Dense: IIN%%Mcex(%d) = 1 is not zero.", j);
  EXPECT_TRUE(Said(text)) << msgs.All();
  EXPECT_TRUE(Said("Test_Extra - Mrex/Mcex and Row/Col_Extra: syserr=99"));
}

// One kind of damage each: what to break, the test that must fire, a piece of
// its message.
struct Damage {
  const char *what;
  int steps;      // pivots before the damage
  int testFull;   // Test_Full
  std::function<void(Battery &)> apply;
  const char *test;
  const char *message;
};

TEST_F(Battery, EachKindOfDamageIsFoundByItsTest) {
  auto col = [](Battery &b, int len) { return b.Col_With(len); };
  const Damage damages[] = {
      {"row permutation", 0, 1,
       [](Battery &b) { std::swap(b.env->Vim->Rotn.V[1], b.env->Vim->Rotn.V[2]); },
       "Test_Permutations", "Inconsistent row permutation in row"},
      {"column overlaps the next", 5, 1,
       [&](Battery &b) {
         const int j = b.env->Iin->CPfrst;
         b.env->Luf->Clen.V[j] = b.env->Luf->Cstr.V[b.env->Iin->Cpnx.V[j]];
       },
       "Test_Extra", "is negative."},
      {"cross pointer C2rp", 5, 1,
       [&](Battery &b) {
         const int j = col(b, 2), q = b.env->Luf->Cstr.V[j];
         std::swap(b.env->Iin->C2rp.V[q], b.env->Iin->C2rp.V[q + 1]);
       },
       "Test_Row_Col_Structure", "does not exist in the row structure."},
      {"cross pointer R2cp", 5, 1,
       [&](Battery &b) {
         const int j = col(b, 2), q = b.env->Luf->Cstr.V[j];
         b.env->Iin->R2cp.V[b.env->Iin->C2rp.V[q]] = q + 1;
       },
       "Test_Row_Col_Structure", "Cross pointers are inconsistent"},
      {"shorter Clen", 5, 1, [&](Battery &b) { b.env->Luf->Clen.V[col(b, 3)] -= 1; },
       "Test_Row_Col_Structure", "but no cross pointers."},
      {"U row of another length", 5, 1,
       [](Battery &b) { b.env->Luf->Rlen.V[b.env->Vim->Rnto.V[b.s.Piv_Indx - 1]] += 1; },
       "Test_Order_in_Structure", "Test_Order_in_Structure(B)"},
      {"negative tail", 5, 0,
       [](Battery &b) { b.env->Iin->Mrex.V[b.env->Vim->Rnto.V[b.n]] = -1; },
       "Test_Length_Counts", "Test_Length_Counts: Error in row count in row"},
      {"row chain skips a row", 5, 1,
       [](Battery &b) {
         IIN *iin = b.env->Iin;
         const int second = iin->Rpnx.V[iin->RPfrst];
         iin->Rpnx.V[iin->RPfrst] = iin->Rpnx.V[second];
       },
       "Test_Length_Lists", "Test_Length_Lists: Error in Rpnx in row="},
      {"tail in a short C-list", 5, 1,
       [](Battery &b) {
         IIN *iin = b.env->Iin;
         for (int c = 2; c < 8; ++c)
           if (iin->Stcc.V[c] != 0) {
             iin->Mcex.V[iin->Stcc.V[c]] = 1;  // the slot behind is empty
             return;
           }
       },
       "Test_Mrex_Mcex", "in C-list"},
      {"column maximum", 5, 1, [](Battery &b) { b.env->Iin->Clmx.Val[b.Col_With(1, true)] *= 2.0; },
       "Test_Clmx", "**Error in Clmx. NumVTria+1="},
      {"list link", 5, 1,
       [](Battery &b) {  // the rest of a C-list cut off
         IIN *iin = b.env->Iin;
         for (int c = 1; c <= b.n; ++c)
           if (iin->Stcc.V[c] != 0 && iin->Nxtc.V[iin->Stcc.V[c]] != 0) {
             iin->Nxtc.V[iin->Stcc.V[c]] = 0;
             return;
           }
       },
       "Test_Markowitz_Lists", "was not in list"},
      {"list back link", 5, 1,
       [](Battery &b) {  // the second member of a C-list points back past the first
         IIN *iin = b.env->Iin;
         for (int c = 1; c <= b.n; ++c)
           if (iin->Stcc.V[c] != 0 && iin->Nxtc.V[iin->Stcc.V[c]] != 0) {
             iin->Prvc.V[iin->Nxtc.V[iin->Stcc.V[c]]] = -c;
             return;
           }
       },
       "Test_Markowitz_Lists", "but the link before it is"},
      {"scanned-row count", 20, 1, [](Battery &b) { b.s.COUNT_MARK_ROW += 1; },
       "Test_Markowitz_Lists", "COUNT_MARK_ROW="},
      {"HelpI not clear", 5, 1,
       [](Battery &b) { b.env->Iin->Indr.V[b.env->Vim->Rnto.V[1]] = 7; },  // a pivoted row
       "Test_Markowitz_Lists", "Error in HelpI before calling Test_Markowitz_Lists."},
      {"lower bound", 20, 1,
       [](Battery &b) {
         IIN *iin = b.env->Iin;
         for (int k = b.s.Piv_Indx; k <= b.n; ++k) {
           const int j = b.env->Vim->Cnto.V[k];
           if (iin->Mact.V[j] > 0 && iin->Mact.V[j] < iin->MarkBad - 1 && b.env->Luf->Clen.V[j] > 2) {
             iin->Mlow.V[j] += 1;
             return;
           }
         }
       },
       "Test_Markowitz_Counts", "which is not a multiple of clen-1="},
      {"lower bound above the count", 20, 1,
       [](Battery &b) {  // a lower bound above the known count of a column
         IIN *iin = b.env->Iin;
         for (int k = b.s.Piv_Indx; k <= b.n; ++k) {
           const int j = b.env->Vim->Cnto.V[k], t = b.env->Luf->Clen.V[j] - 1;
           if (iin->Mact.V[j] > t && iin->Mact.V[j] < iin->MarkBad - 1 - t) {
             iin->Mlow.V[j] = iin->Mact.V[j] + t;
             return;
           }
         }
       },
       "Test_Markowitz_Counts", "above Mact="},
      {"column chain back link", 5, 1,
       [](Battery &b) {
         IIN *iin = b.env->Iin;
         iin->Cppr.V[iin->CPlast] = iin->CPfrst;
       },
       "Test_Position", "Test_Position_CA"},
      {"L multiplier", 20, 1, [](Battery &b) { b.env->Luf->Lmat.Val[b.env->Luf->LFileUsed] *= 1.5; },
       "Test_LUeqB", "Test_LUeqB: Column"},
      {"U value", 20, 1,
       [](Battery &b) { b.env->Vim->AUrmat.Val[b.env->Luf->U_elefirst] += 1e-6; },
       "Test_LUeqB", "Test_LUeqB: Column"},
      {"lost active element", 20, 1,
       [&](Battery &b) {
         const int j = col(b, 2);
         b.env->Iin->Clok.V[j] = vlu::LFalse;  // its maximum may go
         b.env->Vim->AUrmat.Val[b.env->Luf->Cstr.V[j]] = 0.0;
       },
       "Test_LUeqB", "Test_LUeqB: Column"},
  };
  for (int64_t budget : {int64_t(-1), int64_t(0)}) {
    for (const Damage &d : damages) {
      if (budget == 0 && std::string(d.test) != "Test_LUeqB") continue;
      SCOPED_TRACE(::testing::Message() << d.what << " budget " << budget);
      vlu::Test_LUeqB_Budget = budget;
      Start(Random_Bump(60, 2, 1));
      if (d.steps > 0) Advance(d.steps, 2);
      env->Test_Full = d.testFull;
      ASSERT_EQ(Run(), 0) << msgs.All();
      msgs.lines.clear();
      s.Test_Next = s.Piv_Indx;
      d.apply(*this);
      checkScratch = std::string(d.what) != "HelpI not clear";
      EXPECT_EQ(Run(), 99);
      EXPECT_TRUE(Said(": syserr=99 Time_Used=")) << msgs.All();
      const int report = msgs.Find(": syserr=99");
      EXPECT_EQ(msgs.lines[size_t(std::max(report, 0))].find(d.test), 0u) << msgs.All();
      EXPECT_TRUE(Said(d.message)) << msgs.All();
      EXPECT_TRUE(Said("**** Fatal System Error Number")) << msgs.All();
      EXPECT_TRUE(Said("After testing at Piv_Indx=")) << msgs.All();
    }
  }
}

TEST_F(Battery, ScheduleSingularitiesAndScratch) {
  Start(Random_Bump(60, 2, 1));
  Advance(3);
  // Not due yet: nothing at all.
  s.Test_Next = s.Piv_Indx + 1;
  s.Test_Step = 4;
  EXPECT_EQ(Run(), 0);
  EXPECT_FALSE(Said("Starting Inversion_Tests"));
  // Due: it runs quietly and sets the next index.
  s.Test_Next = s.Piv_Indx;
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(Said("Starting Inversion_Tests"));
  EXPECT_FALSE(Said("Test_Permutations: syserr="));
  EXPECT_FALSE(Said("After testing at"));
  EXPECT_EQ(s.Test_Next, s.Piv_Indx + 4);
  // With the trace every call runs, and every test reports.
  msgs.lines.clear();
  env->Test_Trace = 1;
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(Said("Test_Permutations: syserr=0"));
  char after[96];
  std::snprintf(after, sizeof after, "After testing at Piv_Indx=%d Rows processed=3 Syserr=0",
                s.Piv_Indx);
  EXPECT_TRUE(Said(after)) << msgs.All();
  // A solve's result in Work1 does not disturb the product, which leaves it
  // clear; the work vectors go back.
  for (int i = 1; i <= n; ++i) env->Vim->Work1.Val[i] = 1.0 + i;
  const int64_t vecs = env->NumVec_Int + env->NumVec_Real, mem = env->Mem_Current;
  EXPECT_EQ(Run(), 0) << msgs.All();
  EXPECT_EQ(env->NumVec_Int + env->NumVec_Real, vecs);
  EXPECT_EQ(env->Mem_Current, mem);
  // A recorded singularity skips the product.
  msgs.lines.clear();
  env->Vim->Num_Sing = 1;
  env->Luf->Lmat.Val[1] += 1.0;  // would fail it
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(Said("Test_LUeqB skipped due to singularities."));
  EXPECT_FALSE(Said("End of Test_LUeqB"));
  // A failing product gives its vectors back too.
  env->Vim->Num_Sing = 0;
  EXPECT_EQ(Run(), 99);
  EXPECT_EQ(env->NumVec_Int + env->NumVec_Real, vecs);
  // After a failure nothing more runs.
  msgs.lines.clear();
  EXPECT_EQ(Run(), 99);
  EXPECT_FALSE(Said("Starting Inversion_Tests"));
}

TEST_F(Battery, StructureTestAtANamedPlace) {
  Start(Random_Bump(150, 3, 2));
  vlu::Test_Row_Col_Structure(s, "Set-up");
  EXPECT_EQ(env->Exception, 0) << msgs.All();
  const int j = Col_With(2);
  env->Luf->Cstr.V[j] += 1;
  vlu::Test_Row_Col_Structure(s, "Set-up");
  vlu::Msg_Flush(env);
  char text[96];
  std::snprintf(text, sizeof text, "Test_Row_Col_Structure(Set-up): Column %d Cstr not on a cache line.", j);
  EXPECT_TRUE(Said(text)) << msgs.All();
  EXPECT_EQ(env->Exception, 99);
}

}  // namespace
