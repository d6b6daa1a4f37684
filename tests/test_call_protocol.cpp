// Calls made out of order or after a harmless event: solves and updates
// without factors, conditions that an earlier call left in VMI%Exception,
// update limits whose sizes would wrap, a factor call that runs out of
// memory in its last step, and an environment left by a vlu_factor without
// vlu_create.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "interface/state.h"
#include "runtime/block_cache.h"
#include "runtime/records.h"
#include "support/lu_check.h"

namespace {

// Lines of the messages, and the result that the callback gives for a block
// holding a line with `refuse` in it.
struct Channel {
  std::vector<std::string> lines;
  std::string refuse;
  int calls = 0;
};
int Channel_Callback(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  auto *c = static_cast<Channel *>(usrmem);
  ++c->calls;
  int rc = 0;
  for (int i = 0; i < std::max(smsg, std::max(dmsg, nmsg)); ++i) {
    c->lines.emplace_back(lines[i]);
    if (!c->refuse.empty() && c->lines.back().find(c->refuse) != std::string::npos) rc = 1;
  }
  return rc;
}

class Protocol : public luc::ApiTest {
 protected:
  luc::Triangular s = luc::Make_Triangular(30, luc::Shape::Lower, 77, true, 0.3);
  std::vector<int> stat = s.c.basis;
  int zero = 0;
  Channel ch;

  int Factor() { return luc::Factor(s.c, stat); }
  int Step(int k, int force = 0) {
    int q, l;
    luc::Swap_At(s, stat, k, q, l);
    return luc::Change(s.c, stat, q, l, force);
  }
  double Residual() { return luc::Solve_Residual(s.c, stat, std::vector<double>(s.c.n, 1.0)); }
};

// A callback that asks for silence on the NaN repair message of a solve
// leaves Exception at 100; the next updates, and the solves after them,
// still run, and the channel stays silent.
TEST_F(Protocol, SilencedChannelDoesNotStopLaterUpdates) {
  vlu_regmsgcb(&ch, Channel_Callback);
  ch.refuse = "Overflow or Nan";
  ASSERT_EQ(Factor(), 0);
  std::vector<double> nan(s.c.n, std::nan("")), sol(2 * s.c.n + 1);
  vlu_solve(sol.data(), nan.data());
  vlu::VMI *env = vlu::Iface().env;
  ASSERT_EQ(env->Exception, 100);
  const int callsBefore = ch.calls;
  for (int t = 0; t < 4; ++t) {
    const int rc = Step(1 + 7 * t);
    EXPECT_TRUE(rc == 1 || rc == 2) << rc;
    EXPECT_LT(Residual(), 1e-13);
    EXPECT_EQ(vlu::Iface().env->Exception, 100);  // kept, not lowered
  }
  EXPECT_EQ(ch.calls, callsBefore);  // nothing more was sent
}

TEST_F(Protocol, MsghackDoesNotStopLaterUpdates) {
  vlu_regmsgcb(&ch, Channel_Callback);
  ASSERT_EQ(Factor(), 0);
  int k = 3;
  vlu_msghack(&k);
  ASSERT_EQ(vlu::Iface().env->Exception, 99);
  const int rc = Step(4);
  EXPECT_TRUE(rc == 1 || rc == 2) << rc;
  EXPECT_LT(Residual(), 1e-13);
  EXPECT_EQ(vlu::Iface().env->Exception, 99);
}

// What the update raises itself still stops it, an earlier condition or not.
TEST_F(Protocol, OwnConditionStillStopsTheUpdate) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ASSERT_EQ(Factor(), 0);
  int q, l;
  luc::Swap_At(s, stat, 2, q, l);
  stat[q - 1] = 2;
  stat[l - 1] = 0;
  vlu::VMI *env = vlu::Iface().env;
  EXPECT_EXIT(
      {
        env->Exception = 100;
        env->Msg_Dead = true;
        env->Vim->Basc[l] = vlu::NBasic;  // the bookkeeping disagrees: error 6103
        vlu_update(stat.data(), &q, &l, &zero);
      },
      ::testing::ExitedWithCode(EXIT_FAILURE), "^VMI%Exception is not zero\n$");
}

TEST_F(Protocol, SolveAndUpdateNeedFactors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::vector<double> rhs(s.c.n, 1.0), sol(2 * s.c.n + 1);
  int q = 1, l = s.c.n + 2;
  const char *noFactorsSolve = "^vlu_solve called without factors: call vlu_factor first\n$";
  const char *noFactorsUpdate = "^vlu_update called without factors: call vlu_factor first\n$";
  // After vlu_create only, and with no environment at all.
  EXPECT_EXIT(vlu_solve(sol.data(), rhs.data()), ::testing::ExitedWithCode(EXIT_FAILURE),
              noFactorsSolve);
  EXPECT_EXIT(vlu_update(stat.data(), &q, &l, &zero), ::testing::ExitedWithCode(EXIT_FAILURE),
              noFactorsUpdate);
  EXPECT_EXIT((vlu_destroy(), vlu_solve(sol.data(), rhs.data())),
              ::testing::ExitedWithCode(EXIT_FAILURE), noFactorsSolve);
  // After a factor call that ran out of memory.
  vlu::Test_Heap_Limit = 100;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Factor(), 4);
  testing::internal::GetCapturedStdout();
  vlu::Test_Heap_Limit = 0;
  EXPECT_EXIT(vlu_solve(sol.data(), rhs.data()), ::testing::ExitedWithCode(EXIT_FAILURE),
              noFactorsSolve);
  // After a singular result: two small pivots.
  luc::Cols cols(2);
  cols[0] = {{1, 1e-13}};
  cols[1] = {{2, 1.0}};
  luc::Problem p = luc::From_Columns(2, cols, true);
  ASSERT_EQ(luc::Factor(p), 3);
  EXPECT_EXIT(vlu_solve(sol.data(), rhs.data()), ::testing::ExitedWithCode(EXIT_FAILURE),
              "^vlu_solve called on a singular basis: call vlu_factor first\n$");
  std::vector<int> st = p.basis;
  int in = 3, out = 1;
  st[2] = 2, st[0] = 0;
  EXPECT_EXIT(vlu_update(st.data(), &in, &out, &zero), ::testing::ExitedWithCode(EXIT_FAILURE),
              "^vlu_update called on a singular basis: call vlu_factor first\n$");
}

// Limits whose 32-bit size of LUF%Lstr would be negative are brought to the
// nearest limit that means the same; the others pass unchanged.
TEST_F(Protocol, UpdateLimitsThatWouldWrapAreClamped) {
  const std::pair<int, int> limits[] = {
      {-1, -1},       {-2, 0},        {-5, 0},        {INT32_MIN, 0}, {0, 0},
      {3, 3},         {429496729, 429496729},         {429496730, 429496729},
      {858993459, 429496729},         {858993460, 858993460},         {2147483647, 2147483647}};
  for (const auto &[asked, taken] : limits) {
    SCOPED_TRACE(asked);
    int lim = asked;
    EXPECT_EQ(vlu_setupdatelimit(&lim), taken);
    ASSERT_EQ(Factor(), 0);
    vlu::VMI *env = vlu::Iface().env;
    EXPECT_EQ(env->Max_Updates, taken == -1 ? vlu::Auto_Max_Updates(s.c.n) : taken);
    EXPECT_GE(vlu::Size(env->Luf->Lstr), 0);
    const int rc = Step(5);
    EXPECT_EQ(rc, taken == 0 ? 1 : rc);  // no updates allowed: refactorized
    EXPECT_LT(Residual(), 1e-13);
  }
}

// After an update that found the basis singular the pairs read zero, never
// left-over memory.
TEST_F(Protocol, PairsAfterASingularUpdateReadZero) {
  // Dirty a few blocks of the size of the pair arrays first.
  for (int t = 0; t < 8; ++t) {
    int *junk = new int[3];
    std::memset(junk, 0x5a, 3 * sizeof(int));
    delete[] junk;
  }
  luc::Cols cols(2);
  cols[0] = {{1, 1.0}};
  cols[1] = {{2, 1e-12}};
  luc::Problem p = luc::From_Columns(2, cols);
  p.basis = {2, 0, 0, 0, 2};
  ASSERT_EQ(luc::Factor(p), 0);
  std::vector<int> st = {2, 2, 0, 0, 0};
  int q = 2, l = 5;
  ASSERT_EQ(vlu_update(st.data(), &q, &l, &zero), 3);
  ASSERT_EQ(vlu_getnumsing(), 1);
  for (int k = 1; k <= 2; ++k) {
    int row = -1, col = -1;
    EXPECT_EQ(vlu_getsingpair(&k, &row, &col), 0);
    EXPECT_EQ(row, 0);
    EXPECT_EQ(col, 0);
  }
}

// A column copy of U that cannot get its space makes the call return 4 with
// everything released, never 0 with unusable factors.
TEST_F(Protocol, ColumnCopyWithoutSpaceReturnsFour) {
  const int n = 40;  // dense lower triangle: U has more elements than its first copy space
  luc::Cols cols(n);
  for (int j = 1; j <= n; ++j)
    for (int i = j; i <= n; ++i) cols[j - 1].push_back({i, i == j ? 4.0 : 1.0 / (i + j)});
  luc::Problem p = luc::From_Columns(n, cols, true);
  ASSERT_EQ(luc::Factor(p), 0);
  const int64_t peak = vlu::Iface().env->Mem_Max;
  int fours = 0, inColumnCopy = 0;
  for (int64_t limit = peak / 2; limit <= peak; limit += 64) {
    vlu::Test_Heap_Limit = limit;
    testing::internal::CaptureStdout();
    const int rc = luc::Factor(p);
    const std::string out = testing::internal::GetCapturedStdout();
    vlu::Test_Heap_Limit = 0;
    ASSERT_TRUE(rc == 0 || rc == 4) << rc;
    if (rc == 4) {
      ++fours;
      inColumnCopy += out.find("after CreateColumnU(), not VMI%EnoughSpace") != std::string::npos;
      EXPECT_EQ(vlu::Iface().env, nullptr);
      continue;
    }
    ASSERT_TRUE(vlu::Iface().env->Luf->ColCopy) << limit;
    std::vector<double> b(n, 1.0), sol(2 * n + 1);
    vlu_solve(sol.data(), b.data());
    EXPECT_NEAR(sol[0], 0.25, 1e-15) << limit;  // column 1 alone reaches row 1
  }
  EXPECT_GT(fours, 0);
  EXPECT_GT(inColumnCopy, 0);  // the sweep met the last step's shortage
}

// vlu_factor without vlu_create, then vlu_create: the first environment is
// released, not lost.
TEST_F(Protocol, CreateAfterFactorReleasesTheEnvironment) {
  vlu_destroy();
  ASSERT_EQ(vlu::Block_Live_Bytes(), 0u);
  ASSERT_EQ(Factor(), 0);
  EXPECT_GT(vlu::Block_Live_Bytes(), 0u);
  ASSERT_EQ(vlu_create(), 0);
  EXPECT_EQ(vlu::Block_Live_Bytes(), 0u);
  EXPECT_EQ(vlu::Block_Cache_Bytes(), 0u);
  EXPECT_EQ(vlu::Iface().env, nullptr);
  EXPECT_FALSE(vlu::Iface().dataReady);
  ASSERT_EQ(Factor(), 0);
  vlu_destroy();
  EXPECT_EQ(vlu::Block_Live_Bytes(), 0u);
}

// The pair query reads only pairs 1..numSing: sentinels just outside stay
// unread.
TEST_F(Protocol, PairQueryStaysWithinThePairs) {
  luc::Cols cols(3);
  cols[0] = {{1, 1e-13}};
  cols[1] = {{2, 1.0}};
  cols[2] = {{3, 1e-14}};
  luc::Problem p = luc::From_Columns(3, cols, true);
  ASSERT_EQ(luc::Factor(p), 3);
  ASSERT_EQ(vlu_getnumsing(), 2);
  vlu::IfaceState &st = vlu::Iface();
  st.singRow[0] = st.singCol[0] = 99;  // element 0 is not a pair
  st.singRow[3] = st.singCol[3] = 98;  // nor is numSing + 1
  for (int k : {-1, 0, 3, 4}) {
    int row = -1, col = -1;
    EXPECT_EQ(vlu_getsingpair(&k, &row, &col), 0) << k;
    EXPECT_EQ(row, 0) << k;
    EXPECT_EQ(col, 0) << k;
  }
  int k = 2, row = 0, col = 0;
  EXPECT_EQ(vlu_getsingpair(&k, &row, &col), 3);
  EXPECT_EQ(row, 3);
}

}  // namespace
