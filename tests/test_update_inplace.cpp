// The in-place update on small hand-made bases: the clean-up after a factor
// call, spikes of length one and longer than the old column, the cache of
// the leaving position, each failure end (pivot too small, U-factor too
// large, memory through injected allocation failures), the debug checks, and
// the removal of small elements from the L-file.
#include <functional>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "update/update.h"

namespace {

using Entries = std::vector<std::pair<int, double>>;

// A case from its matrix columns and the list of basic columns (1..2n+1).
luc::Problem Case_Of(int n, const luc::Cols &cols, const std::vector<int> &basic) {
  luc::Problem c = luc::From_Columns(n, cols);
  for (int j : basic) c.basis[size_t(j - 1)] = 2;
  return c;
}
std::vector<int> Slacks(int n) {
  std::vector<int> b;
  for (int i = 1; i <= n; ++i) b.push_back(n + 1 + i);
  return b;
}

class InPlace : public luc::ApiTest {
 protected:
  luc::Problem c;
  std::vector<int> stat;

  // With the default limit the L-file of a small basis is capped below the
  // room that the limit test asks for (the cap takes the limit times n in
  // 32 bits), so these tests set a limit of their own.
  void Factor(const luc::Problem &cs, int limit = 1000) {
    c = cs;
    stat = c.basis;
    vlu_setupdatelimit(&limit);
    ASSERT_EQ(luc::Factor(c, stat), 0);
  }
  // A change through the exported call; the caller's status follows.
  int Update(int q, int l, int force = 0) {
    stat[size_t(q - 1)] = 2;
    stat[size_t(l - 1)] = 0;
    return vlu_update(stat.data(), &q, &l, &force);
  }
  double Residual() { return luc::Solve_Residual(c, stat, std::vector<double>(size_t(c.n), 1.0)); }
  // The road of vlu_update without the refactorization that follows a
  // failure, so that the state the failed update left can be looked at.
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
luc::Problem Upper_Bidiagonal(int n) {
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    if (j > 1) cols[size_t(j - 1)].push_back({j - 1, 1.0});
    cols[size_t(j - 1)].push_back({j, j == 2 ? 3.0 : 1.0 + j});
  }
  return luc::From_Columns(n, cols, true);
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
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
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
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
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
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);

  // Back to the slack: one element in the four slots, three left free.
  const int32_t start = luf->Cstr[c1];
  ASSERT_EQ(Update(n + 2, 1), 2);
  EXPECT_EQ(luf->Cstr[c1], start) << "a shorter spike stays in place";
  EXPECT_EQ(luf->Clen[c1], 1);
  for (int32_t q = start + 1; q < start + 4; ++q) EXPECT_EQ(luf->Ir[q], 0) << "slot " << q;
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));

  // A compression takes the free slots back.
  bool error = true;
  const int32_t usedBefore = luf->ColFileUsed, spaceBefore = luf->ColUSpace;
  vlu::Update_CompressColumn(Env(), 1, error);
  EXPECT_FALSE(error);
  EXPECT_GE(luf->ColFileUsed - luf->ColUSpace, usedBefore + 3 - spaceBefore);
  EXPECT_EQ(luf->ColUSpace - luf->ColFileUsed + 1, luf->U_numele) << "packed against the top";
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
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
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
  // Another position leaves: the stale cache costs only the search.
  ASSERT_EQ(Update(6 + 5, 5), 2);
  EXPECT_EQ(vim->IndxCr, vim->Rotn[5]);
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
  // The map from model column to row is checked before use: a wrong entry
  // costs a search and a refill, never a wrong row.
  ASSERT_TRUE(vim->Clrw.Allocated());
  EXPECT_EQ(vim->Clrw[9], 3);
  vim->Clrw[4] = 2;
  ASSERT_EQ(Update(6 + 4, 4), 2);
  EXPECT_EQ(vim->IndxCr, vim->Rotn[4]);
  EXPECT_EQ(vim->Clrw[10], 4);
  EXPECT_TRUE(luc::Check_Updated_Factors(Env()));
  EXPECT_LT(Residual(), 1e-15);
}

TEST_F(InPlace, UpdatesAgreeWithRefactorization) {
  // Triangular walks of both shapes; after every change the updated factors
  // solve as a fresh factorization does.
  for (const luc::Shape shape : {luc::Shape::Lower, luc::Shape::Upper}) {
    const luc::Triangular s = luc::Make_Triangular(60, shape, 31, true, 0.4);
    Factor(s.c);
    Env()->Debug_Upd = 1;
    std::mt19937_64 gen(5);
    std::vector<double> b(size_t(c.n));
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    int updates = 0;
    for (int t = 0; t < 150; ++t) {
      int q, l;
      luc::Swap_At(s, stat, 1 + static_cast<int>(gen() % 60), q, l);
      const int rc = luc::Change(c, stat, q, l);
      ASSERT_TRUE(rc == 1 || rc == 2);
      updates += rc == 2;
      for (double &v : b) v = uni(gen);
      std::vector<double> x, y;
      luc::Solve_Residual(c, stat, b, &x);
      ASSERT_TRUE(luc::Fresh_Solve(c, stat, b, y));
      EXPECT_LE(luc::Rel_Diff(stat, x, y), 1e-13) << "after change " << t;
    }
    EXPECT_GT(updates, 100);
  }
}

// ---------------------------------------------------------------------------
// Failure ends.  Each ends the update with nothing rolled back; vlu_update
// then refactorizes, and the caller sees 1 (or 3 for a singular basis).  The
// update is also driven directly, to see the state the failure leaves: no
// exception, the work vectors clear.  Pivmin is max(Rtpiva, sqrt(Min_Pivot
// Rtpiva)) = 1e-5 for these bases.

TEST_F(InPlace, EachFailureEndIsTracedCountedAndRefactorized) {
  const luc::Cols uLarge = {{{1, 2.0}},           {{1, 1.0}, {2, 1e-3}}, {{2, 1.0}, {3, 4.0}},
                            {{3, 1.0}, {4, 5.0}}, {{2, 1e13}, {4, 1.0}}};
  const struct {
    const char *name;
    luc::Problem cs;
    int q, l, result;  // result of vlu_update
    std::vector<const char *> trace;
    int32_t vlu::VIM::*counter;
  } ends[] = {
      // Column 1 holds only entries below Tol_Zero: nothing is left of the
      // spike, and the new basis is singular.
      {"spike drops entirely", Case_Of(3, {{{1, 1e-21}, {2, -1e-21}}, {}, {}}, Slacks(3)), 1, 5, 3,
       {"Failure in Update_Inverse. Pivot too small.", "Updating the incoming column, Length=0"},
       &vlu::VIM::Upd_Fail_Pivot},
      // The spike ends on the diagonal with 1e-7.
      {"diagonal spike", Case_Of(4, {{{1, 1e-7}}, {}, {}, {}}, Slacks(4)), 1, 6, 1,
       {"Diagonal spike singular.", "Failure in Update_Inverse. Pivot too small."},
       &vlu::VIM::Upd_Fail_Pivot},
      // The spike reaches row 3 too, but the sweeps leave one position whose
      // column singleton is 1e-7.
      {"Hessenberg switch", Case_Of(4, {{{1, 1e-7}, {3, 1.0}}, {}, {}, {}}, Slacks(4)), 1, 6, 1,
       {"Hessenberg switch singular.", "Failure in Update_Inverse. Pivot too small."},
       &vlu::VIM::Upd_Fail_Pivot},
      // Basis [e1, (1,1,0), e3]; column 3 = (1 + 1e-7, 1, 0) replaces e1 and
      // the row elimination leaves 1e-7 as last pivot.
      {"row elimination",
       Case_Of(3, {{{1, 1.0}}, {{1, 1.0}, {2, 1.0}}, {{1, 1.0 + 1e-7}, {2, 1.0}}}, {1, 2, 7}), 3, 1,
       1, {"3: Pivot=", "Failure in Update_Inverse. Pivot too small."}, &vlu::VIM::Upd_Fail_Pivot},
      // Row 2 has the pivot 1e-3; column 5 puts 1e13 into it, a ratio of 1e16
      // to the pivot of its row, above Uumax = max(2 Max_UFac, 2^52).
      {"U-factor too large", Case_Of(5, uLarge, {1, 2, 3, 4, 11}), 5, 4, 1,
       {"Position 1: Umax=", "Failure in Update_Inverse. U-factor too large."},
       &vlu::VIM::Upd_Fail_U_Large},
  };
  for (const auto &e : ends) {
    SCOPED_TRACE(e.name);
    for (const bool direct : {true, false}) {
      Restart();
      Factor(e.cs);
      Env()->Trace_Upd = 1;
      msgs.lines.clear();
      if (direct) {
        EXPECT_FALSE(Direct_Update(e.q, e.l));
        EXPECT_EQ(Env()->Exception, 0);
        EXPECT_EQ(Env()->Vim->*e.counter, 1);
        for (const char *t : e.trace) EXPECT_TRUE(Said(t)) << t << "\n" << msgs.All();
        for (int i = 1; i <= c.n + 1; ++i)
          ASSERT_TRUE(Env()->Vim->WorkZ[i] == 0.0 && Env()->Vim->HelpZ[i] == 0) << i;
        continue;
      }
      EXPECT_EQ(Update(e.q, e.l), e.result);
      int f, u, r;
      vlu_getstats(&f, &u, &r);
      EXPECT_EQ(u, 0);
      if (e.result == 3) {
        EXPECT_EQ(vlu_getnumsing(), 1);
        continue;
      }
      EXPECT_EQ(r, 1);
      EXPECT_EQ(Env()->Vim->*e.counter, 1);
      EXPECT_LT(Residual(), 1e-12);
    }
  }
}

// ---------------------------------------------------------------------------
// Memory: a failure injected at each allocation that the updates of a walk
// make, one run per allocation.  A failed growth either leaves enough room
// (the update goes on) or ends the update with the memory failure, and then
// vlu_update refactorizes; every run ends with the memory in balance.

struct Walk_Run {
  std::vector<std::pair<int64_t, int64_t>> updateAllocs;  // allocation numbers inside updates
  int updates = 0, restarts = 0, memoryEnds = 0;
  luc::Stats stats;
};

class Injection : public InPlace {
 protected:
  int64_t Count() const { return vlu::Test_Alloc_Count; }

  // Through vlu_update: changes at random positions of a triangular system,
  // so that every refactorization is possible.  failAt: the allocation to
  // fail, counted from the factorization's end; 0 for none.
  Walk_Run Triangular_Walk(const luc::Triangular &sys, int steps, int64_t failAt) {
    Walk_Run w;
    Restart();
    Factor(sys.c);
    const int64_t base = Count();
    if (failAt > 0) vlu::Test_Alloc_Fail_At = base + failAt;
    std::mt19937_64 gen(11);
    for (int t = 0; t < steps; ++t) {
      int q, l;
      luc::Swap_At(sys, stat, 1 + static_cast<int>(gen() % static_cast<uint64_t>(c.n)), q, l);
      const int64_t before = Count() - base;
      const int rc = luc::Change(c, stat, q, l);
      EXPECT_TRUE(rc == 1 || rc == 2) << "change " << t << " result " << rc;
      if (rc == 2) {
        ++w.updates;
        w.updateAllocs.emplace_back(before, Count() - base);
      }
      EXPECT_EQ(Env()->Exception, 0);
      if (t % 10 == 9) {
        EXPECT_LT(Residual(), 1e-12) << "after change " << t;
      }
    }
    w.memoryEnds = Env()->Vim->Upd_Fail_Memory;
    w.stats.Add(Env());
    return w;
  }

  // Updates driven directly over bases with a bump, the limit test left out
  // so that the L-file and LUF%Lstr must grow; after a failure the walk
  // starts over from the slack basis.
  Walk_Run Free_Walk(const luc::Problem &cs, int steps, int64_t failAt) {
    Walk_Run w;
    Restart();
    Factor(cs);
    int64_t base = Count();
    if (failAt > 0) vlu::Test_Alloc_Fail_At = base + failAt;
    std::mt19937_64 gen(23);
    std::vector<double> b(static_cast<size_t>(cs.n), 1.0);
    for (int t = 0; t < steps; ++t) {
      int q, l;
      if (!luc::Random_Change(c, stat, gen, false, q, l)) break;
      const int64_t before = Count();
      const bool ok = Direct_Update(q, l);
      w.updateAllocs.emplace_back(before - base, Count() - base);
      EXPECT_EQ(Env()->Exception, 0);
      if (ok) {
        ++w.updates;
        EXPECT_LT(luc::Solve_Residual(c, stat, b), 1e-10) << "after change " << t;
        continue;
      }
      // Start over; the allocations of the factorization are not counted.
      w.memoryEnds += Env()->Vim->Upd_Fail_Memory;
      w.stats.Add(Env());
      ++w.restarts;
      const int64_t pending = vlu::Test_Alloc_Fail_At > 0 ? vlu::Test_Alloc_Fail_At - Count() : 0;
      vlu::Test_Alloc_Fail_At = 0;
      const int64_t f0 = Count();
      Factor(cs);
      base += Count() - f0;
      if (pending > 0) vlu::Test_Alloc_Fail_At = Count() + pending;
    }
    w.memoryEnds += Env()->Vim->Upd_Fail_Memory;
    w.stats.Add(Env());
    return w;
  }
};

TEST_F(Injection, MemoryFailureAtEachAllocationOfTheUpdates) {
  const luc::Triangular sys = luc::Make_Triangular(60, luc::Shape::Lower, 77, true, 1.0);
  const luc::Problem sparse = luc::Random_Sparse(8, 3, 5);
  struct Scenario {
    const char *name;
    std::function<Walk_Run(int64_t)> run;
  } scenarios[] = {
      {"triangular walk through vlu_update", [&](int64_t k) { return Triangular_Walk(sys, 150, k); }},
      {"direct updates over bases with a bump", [&](int64_t k) { return Free_Walk(sparse, 120, k); }},
  };
  int runs = 0, memoryEnds = 0;
  for (const Scenario &sc : scenarios) {
    SCOPED_TRACE(sc.name);
    const Walk_Run dry = sc.run(0);
    std::vector<int64_t> targets;
    for (const auto &range : dry.updateAllocs)
      for (int64_t k = range.first + 1; k <= range.second; ++k) targets.push_back(k);
    std::printf("  %s: %d updates, %zu allocations inside them; %s\n", sc.name, dry.updates,
                targets.size(), dry.stats.Line().c_str());
    ASSERT_GE(targets.size(), 1u) << "the walk must make the updates allocate";
    for (int64_t k : targets) {
      SCOPED_TRACE(::testing::Message() << "allocation " << k);
      const Walk_Run w = sc.run(k);
      EXPECT_EQ(vlu::Test_Alloc_Fail_At, 0) << "the injected failure was not reached";
      memoryEnds += w.memoryEnds;
      ++runs;
      if (::testing::Test::HasFailure()) return;
    }
    if (std::string(sc.name).find("direct") != std::string::npos) {
      EXPECT_GT(dry.stats.growL, 0) << "the L-file never grew";
      EXPECT_GT(dry.stats.growLstr, 0) << "LUF%Lstr never grew";
    }
  }
  std::printf("  %d runs with an injected failure, %d of them ended in the memory failure\n", runs,
              memoryEnds);
  EXPECT_GT(memoryEnds, 0);
}

// ---------------------------------------------------------------------------
// Removal of small elements from the L-file.  (The compressions and growths
// of the U files are driven by the long walks, which bound the sizes of the
// files, and fail at every allocation in the runs above.)

class UpdateStorage : public luc::EnvTest {
 protected:
  // Upper bidiagonal 6 x 6, factorized.
  void SetUp() override {
    luc::EnvTest::SetUp();
    luc::Cols cs(6);
    for (int j = 1; j <= 6; ++j) {
      if (j > 1) cs[size_t(j - 1)].push_back({j - 1, 0.5 * j});
      cs[size_t(j - 1)].push_back({j, 1.0 + j});
    }
    Load(luc::From_Columns(6, cs, true));
    vlu::LUFactor(env);
    vlu::CreateColumnU(env);
    ASSERT_EQ(env->Exception, 0);
  }
};

TEST_F(UpdateStorage, SmallElementsLeaveTheLFile) {
  // Three L columns by hand: the second holds only a tiny multiplier.
  vlu::LUF *luf = env->Luf;
  const double eps = env->Eps;
  const double lmat[] = {0.5, 1e-17, 1e-18, 0.25, eps, -eps * 1.5};
  const int32_t lrow[] = {2, 3, 4, 5, 6, 6}, lpiv[] = {1, 1, 2, 3, 3, 4};
  for (int k = 0; k < 6; ++k) {
    luf->Lmat[k + 1] = lmat[k];
    luf->Lrow[k + 1] = lrow[k];
    luf->Lpiv[k + 1] = lpiv[k];
  }
  // Columns: {1, 2} {3} {4, 5} {6}.
  const int32_t lsor[] = {1, 3, 4, 6, 7};
  for (int k = 0; k < 5; ++k) luf->Lsor[k + 1] = lsor[k];
  luf->L_Cols = 4;
  luf->LFileUsed = 6;
  vlu::RemoveZerosfromL(env);
  EXPECT_EQ(luf->LFileUsed, 3);
  EXPECT_EQ(luf->L_Cols, 3);
  EXPECT_EQ(std::vector<int32_t>(luf->Lsor.V + 1, luf->Lsor.V + 5), (std::vector<int32_t>{1, 2, 3, 4}));
  EXPECT_EQ(std::vector<double>(luf->Lmat.Val + 1, luf->Lmat.Val + 4),
            (std::vector<double>{0.5, 0.25, -eps * 1.5}));
  EXPECT_EQ(std::vector<int32_t>(luf->Lrow.V + 1, luf->Lrow.V + 4), (std::vector<int32_t>{2, 5, 6}));
  EXPECT_EQ(std::vector<int32_t>(luf->Lpiv.V + 1, luf->Lpiv.V + 4), (std::vector<int32_t>{1, 3, 4}));
}

// ---------------------------------------------------------------------------
// The debug checks find what they are for.

TEST_F(InPlace, DebugChecksFindBrokenCopiesAndPermutations) {
  Factor(Upper_Bidiagonal(5));
  ASSERT_EQ(Update(6 + 3, 3), 2);
  vlu::VMI *env = Env();
  vlu::LUF *luf = env->Luf;
  ASSERT_TRUE(vlu::Check_U_Copies(env));
  ASSERT_TRUE(vlu::Check_Permutations(env));
  const int32_t c5 = env->Vim->Cnto[env->Vim->Rotn[5]];  // column with two elements
  ASSERT_EQ(luf->Clen[c5], 2);
  const int32_t q = luf->Cstr[c5] + 1;
  struct Fault {
    const char *text;
    std::function<void()> spoil, mend;
  };
  const double v = luf->Ucmat[q];
  const int32_t r = luf->Ir[q], len = luf->Rlen[1];
  const int32_t r1 = env->Vim->Rnto[1], r2 = env->Vim->Rnto[2];
  const Fault faults[] = {
      {"has different value in column and row copy.", [&] { luf->Ucmat[q] = v + 1.0; },
       [&] { luf->Ucmat[q] = v; }},
      {"exist in column copy but not in row copy.", [&] { luf->Ir[q] = r == 1 ? 2 : 1; },
       [&] { luf->Ir[q] = r; }},
      {"Illegal sum of row lengths", [&] { luf->Rlen[1] = len + 1; }, [&] { luf->Rlen[1] = len; }},
      {"Rnto(1)=", [&] { env->Vim->Rotn[r1] = 2, env->Vim->Rotn[r2] = 1; },
       [&] { env->Vim->Rotn[r1] = 1, env->Vim->Rotn[r2] = 2; }},
  };
  for (const Fault &f : faults) {
    SCOPED_TRACE(f.text);
    msgs.lines.clear();
    f.spoil();
    EXPECT_FALSE(vlu::Check_U_Copies(env) && vlu::Check_Permutations(env));
    EXPECT_TRUE(Said(f.text)) << msgs.All();
    EXPECT_TRUE(Said("Fatal System Error")) << msgs.All();
    f.mend();
    env->Exception = 0;
    EXPECT_TRUE(vlu::Check_U_Copies(env) && vlu::Check_Permutations(env));
  }
  // At the debug level the update looks at the copies before it starts.
  env->Debug_Upd = 1;
  luf->Ucmat[q] = v + 1.0;
  msgs.lines.clear();
  EXPECT_FALSE(Direct_Update(5, 6 + 5));
  EXPECT_TRUE(Said("has different value in column and row copy.")) << msgs.All();
  EXPECT_EQ(env->Exception, 99);
}

}  // namespace
