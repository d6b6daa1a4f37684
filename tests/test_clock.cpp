// The clock over a 32-bit counter that wraps or steps back.
#include <gtest/gtest.h>

#include <vector>

#include "runtime/clock.h"
#include "runtime_env.h"

using namespace vlu;

namespace {

// An injected counter: the test sets the next reading.
struct Counter {
  int32_t now = 0, rate = 1000000, max = 1000000;
  int reads = 0;
};
Counter g_counter;

void Fake_Ticks(int32_t *now, int32_t *rate, int32_t *max) {
  ++g_counter.reads;
  *now = g_counter.now;
  *rate = g_counter.rate;
  *max = g_counter.max;
}

struct ClockEnv : rt::Env {
  explicit ClockEnv(int32_t start, int32_t rate = 1000, int32_t max = 1000000) {
    g_counter = Counter{start, rate, max, 0};
    v->Clock_Source = &Fake_Ticks;
    Vdclcki(v);
  }
  double At(int32_t now) {
    g_counter.now = now;
    return Clock_Read(v);
  }
};

// Each backward step is a wrap when going forward to the maximum and on
// from 0 is shorter than the step back; otherwise (ties included) a glitch.
TEST(Clock, BackStepsAreWrapsOrGlitches) {
  struct Case {
    const char *what;
    int32_t start, max;
    std::vector<int32_t> reads;
    double acc, last;  // Clock_Acc and the last reading after the reads
  };
  const Case cases[] = {
      {"forward only", 250, 1000000, {250, 1250, 3750}, 0.0, 3.5},
      {"old 999990, now 5: one wrap", 999000, 1000000, {999990, 5}, 1000.0, 1.005},
      {"500000 -> 499999: a glitch", 400000, 1000000, {500000, 499999}, 0.0, 99.999},
      {"equal steps: a glitch", 0, 1000, {600, 100}, 0.0, 0.1},
      {"forward shorter by 2: a wrap", 0, 1000, {600, 99}, 1.0, 1.099},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    ClockEnv clk(c.start, 1000, c.max);
    double t = 0.0;
    for (int32_t r : c.reads) t = clk.At(r);
    EXPECT_DOUBLE_EQ(clk.v->Clock_Acc, c.acc);
    EXPECT_NEAR(t, c.last, 1e-9);
    EXPECT_EQ(clk.v->Count_Old, c.reads.back());
  }
}

TEST(Clock, CountAccIsMaxOverThousandCappedByRateWithAFloorOfTen) {
  EXPECT_EQ(ClockEnv(0, 1000, 5000).v->Count_Acc, 10);  // 5 raised to 10
  EXPECT_EQ(ClockEnv(0, 1000, 11000).v->Count_Acc, 11);
  EXPECT_EQ(ClockEnv(0, 50, 200000).v->Count_Acc, 50);
  EXPECT_EQ(ClockEnv(0, 1000000, 2147483647).v->Count_Acc, 1000000);
}

TEST(Clock, TimeLimitClockOffAndTheSystemCounter) {
  ClockEnv c(10);
  c.v->Time_Limit = 2.0;
  g_counter.now = 1500;
  EXPECT_FALSE(Clock_Over(c.v));
  g_counter.now = 2011;
  EXPECT_TRUE(Clock_Over(c.v));
  c.v->Clock_Off = true;  // then nothing is read at all
  const int reads = g_counter.reads;
  EXPECT_EQ(c.At(90000), 0.0);
  EXPECT_EQ(g_counter.reads, reads);
  EXPECT_EQ(c.v->Count_Old, 2011);

  int32_t now = -1, rate = 0, max = 0;
  System_Ticks(&now, &rate, &max);
  EXPECT_GE(now, 0);
  EXPECT_EQ(rate, 1000000);
  EXPECT_EQ(max, 2147483647);
}

}  // namespace
