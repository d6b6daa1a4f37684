// The in-place update on small hand-made bases: the clean-up after a factor
// call, spikes of length one and longer than the old column, the cache of
// the leaving position, each failure end (pivot too small, U-factor too
// large, memory through injected allocation failures), the debug checks, and
// the storage routines (compressions, growth, removal of small elements).
#include <functional>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "support/update_support.h"
#include "triangular_support.h"
#include "update/update.h"

namespace {

using Entries = std::vector<std::pair<int, double>>;

// A case from its matrix columns and the list of basic columns (numbering
// 1..2n+1).
vlu_case::Case Case_Of(int n, const std::vector<Entries> &cols, const std::vector<int> &basic) {
  vlu_case::Case c;
  c.name = "hand-made";
  c.n = n;
  c.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    for (const auto &e : cols[size_t(j - 1)]) {
      c.rowIdx.push_back(e.first);
      c.colIdx.push_back(j);
      c.val.push_back(e.second);
    }
    c.colStart.push_back(static_cast<int>(c.val.size()) + 1);
  }
  c.nz = static_cast<int>(c.val.size());
  c.basis.assign(size_t(2 * n + 1), 0);
  for (int j : basic) c.basis[size_t(j - 1)] = 2;
  return c;
}

class InPlace : public luc::ApiTest {
 protected:
  vlu_case::Case c;
  std::vector<int> stat;

  // With the default limit the L-file of a small basis is capped below the
  // room that the limit test asks for (the cap takes the limit times n in
  // 32 bits), so these tests set a limit of their own.
  void Factor(const vlu_case::Case &cs, int limit = 1000) {
    c = cs;
    stat = c.basis;
    vlu_setupdatelimit(&limit);
    ASSERT_EQ(tri::Factor(c, stat), 0);
  }
  // Sends what is pending, then looks for the text among the lines so far.
  bool Said(const std::string &text) {
    vlu::Msg_Flush(Env());
    return msgs.Has(text);
  }
  // A change through the exported call; the caller's status follows.
  int Update(int q, int l, int force = 0) {
    stat[size_t(q - 1)] = 2;
    stat[size_t(l - 1)] = 0;
    return vlu_update(stat.data(), &q, &l, &force);
  }
  double Residual() { return tri::Solve_Residual(c, stat, std::vector<double>(size_t(c.n), 1.0)); }
  // The road of vlu_update without its refactorization: for changes whose
  // failure would need a factorization that this build cannot make.
  bool Direct_Update(int q, int l) {
    stat[size_t(q - 1)] = 2;
    stat[size_t(l - 1)] = 0;
    vlu::IfaceState &s = vlu::Iface();
    s.curStat[q] = 2;
    s.curStat[l] = 0;
    vlu::RecordBasisChange(s.env, q, l);
    return vlu::Update_Inverse(s.env, q, l);
  }
  // Elements of the row copy of U at or below `tiny`.
  int Tiny_In_U(double tiny) {
    const vlu::LUF *luf = Env()->Luf;
    int count = 0;
    for (int r = 1; r <= c.n; ++r)
      for (int j = luf->Rstr[r]; j < luf->Rstr[r] + luf->Rlen[r]; ++j)
        count += std::fabs(Env()->Vim->AUrmat[j]) <= tiny;
    return count;
  }
};

// Upper bidiagonal: column j has its pivot in row j and a 1 in row j - 1.
vlu_case::Case Upper_Bidiagonal(int n, double pivot2 = 3.0) {
  std::vector<Entries> cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    if (j > 1) cols[size_t(j - 1)].push_back({j - 1, 1.0});
    cols[size_t(j - 1)].push_back({j, j == 2 ? pivot2 : 1.0 + j});
  }
  std::vector<int> basic;
  for (int j = 1; j <= n; ++j) basic.push_back(j);
  return Case_Of(n, cols, basic);
}

// ---------------------------------------------------------------------------
// Edge cases of the spike.

TEST_F(InPlace, FirstUpdateCleansUAndARefactorizationInsideUpdateDoesNot) {
  // Lower bidiagonal: the element (3, 2) of magnitude Tol_Zero survives the
  // factorization and goes at the first update.
  Factor(Case_Of(4, {{{1, 2.0}, {2, 1.0}}, {{2, 3.0}, {3, 1e-20}}, {{3, 4.0}, {4, 1.0}}, {{4, 5.0}}},
                 {1, 2, 3, 4}));
  EXPECT_FALSE(Env()->Vim->UL_Cleaned);
  ASSERT_EQ(Tiny_In_U(1e-20), 1);
  const int32_t before = Env()->Luf->U_numele;
  // The slack of row 4 replaces column 4: a spike of one element.
  ASSERT_EQ(Update(9, 4), 2);
  EXPECT_TRUE(Env()->Vim->UL_Cleaned);
  EXPECT_EQ(Tiny_In_U(1e-20), 0);
  EXPECT_EQ(Env()->Luf->U_numele, before - 1);
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));
  // A forced refactorization brings the element back and leaves the flag.
  ASSERT_EQ(Update(4, 9, 1), 1);
  EXPECT_TRUE(Env()->Vim->UL_Cleaned);
  EXPECT_EQ(Tiny_In_U(1e-20), 1);
  ASSERT_EQ(Update(9, 4), 2);
  EXPECT_EQ(Tiny_In_U(1e-20), 1) << "the clean-up runs once per factor call";
  EXPECT_LT(Residual(), 1e-15);
}

TEST_F(InPlace, SpikeOfLengthOneEndsOnTheDiagonal) {
  Factor(Upper_Bidiagonal(5));
  vlu::VIM *vim = Env()->Vim;
  const std::vector<int32_t> rnto(vim->Rnto.V + 1, vim->Rnto.V + 6), cnto(vim->Cnto.V + 1, vim->Cnto.V + 6);
  Env()->Trace_Upd = 2;
  // The slack of row 3 replaces column 3, whose pivot is in row 3: no L
  // column acts on row 3, so the spike is e_3.
  ASSERT_EQ(Update(6 + 3, 3), 2);
  EXPECT_TRUE(Said("Spike ends on the Diagonal")) << msgs.All();
  EXPECT_TRUE(Said("Spike from3 to3 with1 nonzeros out of1")) << msgs.All();
  EXPECT_EQ(std::vector<int32_t>(vim->Rnto.V + 1, vim->Rnto.V + 6), rnto);
  EXPECT_EQ(std::vector<int32_t>(vim->Cnto.V + 1, vim->Cnto.V + 6), cnto);
  EXPECT_EQ(vim->Cbto[vim->Rotn[3]], 9);
  EXPECT_EQ(vim->Rwcl[3], 9);
  EXPECT_EQ(Env()->Luf->Clen[cnto[2]], 1);
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
}

TEST_F(InPlace, SpikeLongerThanTheOldColumnMovesAndAShorterOneLeavesFreeSlots) {
  // Slack basis; column 1 has four elements.
  const int n = 6;
  std::vector<Entries> cols(static_cast<size_t>(n));
  cols[0] = {{1, 2.0}, {2, 1.0}, {3, -1.0}, {4, 0.5}};
  std::vector<int> basic;
  for (int i = 1; i <= n; ++i) basic.push_back(n + 1 + i);
  Factor(Case_Of(n, cols, basic));
  vlu::LUF *luf = Env()->Luf;
  const int32_t used0 = luf->ColFileUsed, space0 = luf->ColUSpace;
  ASSERT_EQ(luf->U_numele, n);

  // Column 1 for the slack of row 1: four elements where one stood.
  ASSERT_EQ(Update(1, n + 2), 2);
  const int32_t c1 = Env()->Vim->Cnto[Env()->Vim->Rotn[1]];
  EXPECT_EQ(luf->Clen[c1], 4);
  EXPECT_EQ(luf->Cstr[c1], luf->ColFileUsed) << "written at the low end of the file";
  EXPECT_TRUE(luf->ColFileUsed < used0 || luf->ColUSpace > space0);
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);

  // Back to the slack: one element in the four slots, three left free.
  const int32_t start = luf->Cstr[c1];
  ASSERT_EQ(Update(n + 2, 1), 2);
  EXPECT_EQ(luf->Cstr[c1], start) << "a shorter spike stays in place";
  EXPECT_EQ(luf->Clen[c1], 1);
  for (int32_t q = start + 1; q < start + 4; ++q) EXPECT_EQ(luf->Ir[q], 0) << "slot " << q;
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));

  // A compression takes the free slots back.
  bool error = true;
  const int32_t usedBefore = luf->ColFileUsed, spaceBefore = luf->ColUSpace;
  vlu::Update_CompressColumn(Env(), 1, error);
  EXPECT_FALSE(error);
  EXPECT_GE(luf->ColFileUsed - luf->ColUSpace, usedBefore + 3 - spaceBefore);
  EXPECT_EQ(luf->ColUSpace - luf->ColFileUsed + 1, luf->U_numele) << "packed against the top";
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
}

TEST_F(InPlace, SameLeavingPositionTwiceUsesTheCache) {
  Factor(Upper_Bidiagonal(5));
  vlu::VIM *vim = Env()->Vim;
  ASSERT_EQ(Update(6 + 3, 3), 2);
  const int32_t pos = vim->IndxCr;
  ASSERT_EQ(pos, vim->Rotn[3]);
  // The slack leaves from the same position.  With the cache the published
  // order is not searched: spoil the entry that a search would need.
  vim->Rwcl[vim->Rnto[pos]] = 0;
  ASSERT_EQ(Update(3, 6 + 3), 2);
  EXPECT_EQ(vim->IndxCr, pos);
  EXPECT_EQ(vim->Rwcl[3], 3);
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
  // Another position leaves: the stale cache costs only the search.
  ASSERT_EQ(Update(6 + 5, 5), 2);
  EXPECT_EQ(vim->IndxCr, vim->Rotn[5]);
  EXPECT_TRUE(upd::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
}

TEST_F(InPlace, UpdatesAgreeWithRefactorization) {
  // Triangular walks of both shapes; after every change the updated factors
  // solve as a fresh factorization does.
  for (const tri::Shape shape : {tri::Shape::Lower, tri::Shape::Upper}) {
    const tri::System s = tri::Make_System(60, shape, 31, true, 0.4);
    Factor(s.c);
    Env()->Debug_Upd = 1;
    std::mt19937_64 gen(5);
    std::vector<double> b(size_t(c.n));
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    int updates = 0;
    for (int t = 0; t < 150; ++t) {
      int q, l;
      tri::Swap_At(s, stat, 1 + static_cast<int>(gen() % 60), q, l);
      const int rc = tri::Change(c, stat, q, l);
      ASSERT_TRUE(rc == 1 || rc == 2);
      updates += rc == 2;
      for (double &v : b) v = uni(gen);
      std::vector<double> x, y;
      tri::Solve_Residual(c, stat, b, &x);
      ASSERT_TRUE(upd::Fresh_Solve(c, stat, b, y));
      EXPECT_LE(upd::Rel_Diff(stat, x, y), 1e-13) << "after change " << t;
    }
    EXPECT_GT(updates, 100);
  }
}

// ---------------------------------------------------------------------------
// Failure ends.  Each ends the update with nothing rolled back; vlu_update
// refactorizes, and the caller sees 1 (or 3 for a singular basis).

TEST_F(InPlace, PivotTooSmallWhenTheSpikeDropsEntirely) {
  // Column 1 holds only entries below Tol_Zero: nothing is left of the
  // spike.  The new basis is singular, which only the bump elimination
  // reports, so the update is driven directly.
  Factor(Case_Of(3, {{{1, 1e-21}, {2, -1e-21}}, {}, {}}, {5, 6, 7}));
  Env()->Trace_Upd = 1;
  EXPECT_FALSE(Direct_Update(1, 5));
  EXPECT_EQ(Env()->Vim->Upd_Fail_Pivot, 1);
  EXPECT_TRUE(Said("Failure in Update_Inverse. Pivot too small.")) << msgs.All();
  EXPECT_TRUE(Said("Updating the incoming column, Length=0")) << msgs.All();
  EXPECT_EQ(Env()->Exception, 0);
  if (tri::Bump_Supported()) {
    Factor(c);
    EXPECT_EQ(Update(1, 5), 3);
    EXPECT_EQ(vlu_getnumsing(), 1);
  }
}

TEST_F(InPlace, PivotTooSmallAtEachTestOfThePermutationStage) {
  // Pivmin is max(Rtpiva, sqrt(Min_Pivot Rtpiva)) = 1e-5 for these bases.
  struct Case {
    const char *message;
    vlu_case::Case cs;
    int q, l;
  };
  const int n = 4;
  std::vector<int> slacks;
  for (int i = 1; i <= n; ++i) slacks.push_back(n + 1 + i);
  const Case cases[] = {
      // The spike ends on the diagonal with 1e-7.
      {"Diagonal spike singular.", Case_Of(n, {{{1, 1e-7}}, {}, {}, {}}, slacks), 1, n + 2},
      // The spike reaches row 3 too, but the sweeps leave one position whose
      // column singleton is 1e-7.
      {"Hessenberg switch singular.", Case_Of(n, {{{1, 1e-7}, {3, 1.0}}, {}, {}, {}}, slacks), 1,
       n + 2},
  };
  for (const Case &k : cases) {
    SCOPED_TRACE(k.message);
    Factor(k.cs);
    Env()->Trace_Upd = 1;
    msgs.lines.clear();
    EXPECT_EQ(Update(k.q, k.l), 1) << "a triangular basis refactorizes";
    EXPECT_EQ(Env()->Vim->Upd_Fail_Pivot, 1);
    EXPECT_TRUE(Said(k.message)) << msgs.All();
    EXPECT_TRUE(Said("Failure in Update_Inverse. Pivot too small.")) << msgs.All();
    EXPECT_LT(Residual(), 1e-12);
  }
}

TEST_F(InPlace, PivotTooSmallInTheRowElimination) {
  // Basis [e1, (1,1,0), e3]; column 3 = (1 + 1e-7, 1, 0) replaces e1 and the
  // elimination leaves 1e-7 as last pivot.  The new basis has a bump, so the
  // update is driven directly and looked at before any refactorization.
  Factor(Case_Of(3, {{{1, 1.0}}, {{1, 1.0}, {2, 1.0}}, {{1, 1.0 + 1e-7}, {2, 1.0}}}, {1, 2, 7}));
  Env()->Trace_Upd = 1;
  EXPECT_FALSE(Direct_Update(3, 1));
  EXPECT_TRUE(Said("3: Pivot=")) << msgs.All();
  EXPECT_TRUE(Said("Failure in Update_Inverse. Pivot too small.")) << msgs.All();
  EXPECT_EQ(Env()->Vim->Upd_Fail_Pivot, 1);
  EXPECT_EQ(Env()->Exception, 0);
  for (int i = 1; i <= c.n + 1; ++i) {
    EXPECT_EQ(Env()->Vim->WorkZ[i], 0.0) << "WorkZ " << i;
    EXPECT_EQ(Env()->Vim->HelpZ[i], 0) << "HelpZ " << i;
  }
}

TEST_F(InPlace, UFactorTooLarge) {
  // Row 2 has the pivot 1e-3; column 5 puts 1e13 into it, a ratio of 1e16
  // to the pivot of its row, above Uumax = max(2 Max_UFac, 2^52).
  std::vector<Entries> cols = {{{1, 2.0}},           {{1, 1.0}, {2, 1e-3}}, {{2, 1.0}, {3, 4.0}},
                               {{3, 1.0}, {4, 5.0}}, {{2, 1e13}, {4, 1.0}}};
  Factor(Case_Of(5, cols, {1, 2, 3, 4, 11}));
  Env()->Trace_Upd = 1;
  EXPECT_EQ(Update(5, 4), 1) << "the basis is triangular: the refactorization takes over";
  EXPECT_EQ(Env()->Vim->Upd_Fail_U_Large, 1);
  EXPECT_TRUE(Said("Position 1: Umax=")) << msgs.All();
  EXPECT_TRUE(Said("Failure in Update_Inverse. U-factor too large.")) << msgs.All();
  int f, u, r;
  vlu_getstats(&f, &u, &r);
  EXPECT_EQ(u, 0);
  EXPECT_EQ(r, 1);
  EXPECT_LT(Residual(), 1e-12);
}

}  // namespace
