// The exported lifecycle, the queries and the message registration.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "interface/state.h"
#include "runtime/messages.h"
#include "vardenlu.h"

namespace {

struct Captured {
  std::vector<std::string> lines;
  std::vector<int> counts;  // smsg, dmsg, nmsg of each call
  int result = 0;
};

int Capture(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  auto *c = static_cast<Captured *>(usrmem);
  int m = std::max(smsg, std::max(dmsg, nmsg));
  for (int i = 0; i < m; ++i) c->lines.emplace_back(lines[i]);
  c->counts.push_back(smsg);
  c->counts.push_back(dmsg);
  c->counts.push_back(nmsg);
  return c->result;
}

class Interface : public ::testing::Test {
 protected:
  void SetUp() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
  }
  void TearDown() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
  }
};

// A 3 x 3 lower triangular matrix with all three columns basic.
struct Small {
  int n = 3, nz = 5;
  int colStart[4] = {1, 3, 5, 6};
  int rowIdx[5] = {1, 2, 2, 3, 3};
  int colIdx[5] = {1, 1, 2, 2, 3};
  double val[5] = {2.0, 1.0, 3.0, 1.0, 4.0};
  int stat[7] = {2, 2, 2, 0, 0, 0, 0};
  int factor() { return vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, nullptr, stat); }
};

TEST_F(Interface, CreateTwiceWarnsAndChangesNothing) {
  EXPECT_EQ(vlu_create(), 0);
  int limit = 7;
  vlu_setupdatelimit(&limit);
  testing::internal::CaptureStdout();
  EXPECT_EQ(vlu_create(), 1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "\n** Fatal Error ** vlu_create called but environment already exists\n\n");
  EXPECT_EQ(vlu::Iface().updateLimit, 7);
}

TEST_F(Interface, CreateDestroyCycles) {
  EXPECT_EQ(vlu_create(), 0);
  vlu_destroy();
  EXPECT_EQ(vlu_create(), 0);
  vlu_destroy();
  vlu_destroy();  // harmless
  EXPECT_FALSE(vlu::Iface().envExists);
  EXPECT_EQ(vlu_create(), 0);
  EXPECT_EQ(vlu::Iface().updateLimit, 2147483647);
}

TEST_F(Interface, QueriesReadZeroBeforeAnyFactorization) {
  ASSERT_EQ(vlu_create(), 0);
  EXPECT_EQ(vlu_getnumsing(), 0);
  int a = -1, b = -1, c = -1;
  EXPECT_EQ(vlu_getstats(&a, &b, &c), 0);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  EXPECT_EQ(c, 0);
  for (int k : {-1, 0, 1, 2}) {
    int row = 9, col = 9;
    EXPECT_EQ(vlu_getsingpair(&k, &row, &col), 0);
    EXPECT_EQ(row, 0);
    EXPECT_EQ(col, 0);
  }
}

TEST_F(Interface, RegisterCallbackReturnsPrevious) {
  Captured c;
  EXPECT_EQ(vlu_regmsgcb(&c, Capture), nullptr);
  EXPECT_EQ(vlu_getmsgcb(), &Capture);
  EXPECT_EQ(vlu_regmsgcb(nullptr, Capture), &Capture);
  EXPECT_EQ(vlu_regmsgcb(nullptr, nullptr), &Capture);
  EXPECT_EQ(vlu_getmsgcb(), nullptr);
}

TEST_F(Interface, CallbackSurvivesCreateAndDestroy) {
  Captured c;
  vlu_regmsgcb(&c, Capture);
  ASSERT_EQ(vlu_create(), 0);
  vlu_destroy();
  EXPECT_EQ(vlu_getmsgcb(), &Capture);
}

TEST_F(Interface, FallbackWithoutCallbackPrintsThreeLines) {
  char line[] = "x";
  char *table[] = {line};
  testing::internal::CaptureStdout();
  EXPECT_EQ(vlu::c_std_message(1, 1, 0, table, nullptr), 0);
  std::string out = testing::internal::GetCapturedStdout();
  std::string mid = "HERE IN c_std_message with NULL msgcbPtr  smsg: 1  dmsg: 1  nmsg: 0\n";
  ASSERT_NE(out.find(mid), std::string::npos);
  size_t first = out.find('\n');
  std::string sep = out.substr(0, first + 1);
  EXPECT_EQ(out, sep + mid + sep);
  EXPECT_EQ(out.find("x\n"), std::string::npos);  // the text itself is not printed
}

// The callback's result is the message routine's result, and a non-zero one
// silences the channel: Msg_Error keeps the first, Exception goes to 100.
TEST_F(Interface, CallbackResultReachesTheChannel) {
  char line[] = "x";
  char *table[] = {line};
  Captured c;
  vlu_regmsgcb(&c, Capture);
  c.result = 7;
  EXPECT_EQ(vlu::c_std_message(1, 1, 0, table, nullptr), 7);
  ASSERT_EQ(vlu_create(), 0);
  Small s;
  c.result = 0;
  ASSERT_EQ(s.factor(), 0);
  c.result = 5;
  int k = 1;
  vlu_msghack(&k);
  vlu::VMI *env = vlu::Iface().env;
  EXPECT_EQ(env->Msg_Error, 5);
  EXPECT_EQ(env->Exception, 100);
  const size_t seen = c.lines.size();
  c.result = 0;
  vlu_msghack(&k);  // nothing more reaches the callback
  EXPECT_EQ(c.lines.size(), seen);
}

TEST_F(Interface, AaPrintsItsArgument) {
  int j = 42;
  testing::internal::CaptureStdout();
  aa(&j);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "j =    42\n");
}

TEST_F(Interface, MsghackSendsTheSampleAndAnInternalError) {
  Captured c;
  vlu_regmsgcb(&c, Capture);
  ASSERT_EQ(vlu_create(), 0);
  Small s;
  ASSERT_EQ(s.factor(), 0);
  int k = 7;
  vlu_msghack(&k);
  ASSERT_FALSE(c.lines.empty());
  EXPECT_EQ(c.lines[0], "** Sample error emitted in vlu_msghack: k =    7");
  bool fatal = false;
  for (auto &l : c.lines)
    if (l.find(" **** Fatal System Error Number") == 0) fatal = true;
  EXPECT_TRUE(fatal);
  EXPECT_EQ(vlu::Iface().env->Exception, 99);
}

TEST_F(Interface, RepeatedFactorRebuildsAndCounts) {
  ASSERT_EQ(vlu_create(), 0);
  Small s;
  ASSERT_EQ(s.factor(), 0);
  vlu::VMI *first = vlu::Iface().env;
  ASSERT_NE(first, nullptr);
  EXPECT_FALSE(vlu::Iface().rKnown);
  double r[3] = {1.0, 0.0, 2.0};
  ASSERT_EQ(vlu_factor(&s.n, &s.nz, s.colStart, s.rowIdx, s.colIdx, s.val, r, s.stat), 0);
  EXPECT_TRUE(vlu::Iface().rKnown);
  int a, b, c;
  EXPECT_EQ(vlu_getstats(&a, &b, &c), 2);
  vlu_destroy();
  EXPECT_EQ(vlu::Iface().env, nullptr);
  EXPECT_FALSE(vlu::Iface().dataReady);
}

TEST_F(Interface, AllocationFailureReturnsFourAndLeaksNothing) {
  ASSERT_EQ(vlu_create(), 0);
  Small s;
  vlu::Test_Heap_Limit = 200;
  testing::internal::CaptureStdout();
  int rc = s.factor();
  std::string out = testing::internal::GetCapturedStdout();
  vlu::Test_Heap_Limit = 0;
  EXPECT_EQ(rc, 4);
  EXPECT_NE(out.find("\n** Fatal Error ** Not enough space inversion data structures\n\n"),
            std::string::npos);
  EXPECT_NE(out.find("after Allocate_Space(), not VMI%EnoughSpace\n"), std::string::npos);
  EXPECT_EQ(vlu::Iface().env, nullptr);
  EXPECT_FALSE(vlu::Iface().dataReady);
  // The environment is usable again afterwards.
  EXPECT_EQ(s.factor(), 0);
}

TEST_F(Interface, BogusStatusStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (int bogus : {1, 3, 4}) {
    EXPECT_EXIT(
        {
          vlu_create();
          Small s;
          s.stat[1] = bogus;
          s.factor();
        },
        ::testing::ExitedWithCode(EXIT_FAILURE),
        "BOGUS BasisStat value found: expected NBasic or IBasic");
  }
}

TEST_F(Interface, TBasicWithUnknownRStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        vlu_create();
        Small s;
        s.stat[2] = 0;
        s.stat[3] = 2;
        s.factor();
      },
      ::testing::ExitedWithCode(EXIT_FAILURE), "t basic but r unknown");
}

}  // namespace
