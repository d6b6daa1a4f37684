// The clock over a 32-bit counter that wraps or steps back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/clock.h"
#include "runtime/messages.h"
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

TEST(Clock, ForwardCountsGiveElapsedTime) {
  ClockEnv c(250);
  EXPECT_EQ(c.v->Count_Old, 250);
  EXPECT_DOUBLE_EQ(c.At(250), 0.0);
  EXPECT_DOUBLE_EQ(c.At(1250), 1.0);
  EXPECT_DOUBLE_EQ(c.At(3750), 3.5);
  EXPECT_EQ(c.v->Count_Old, 3750);
  EXPECT_EQ(c.v->Clock_Acc, 0.0);
}

TEST(Clock, ShortBackStepIsAWrap) {
  ClockEnv c(999000);
  EXPECT_NEAR(c.At(999990), 0.99, 1e-9);
  // StepFrwd = 5 + 10 = 15 < StepBack = 999985: one wrap of max / rate.
  EXPECT_NEAR(c.At(5), 1.005, 1e-9);
  EXPECT_DOUBLE_EQ(c.v->Clock_Acc, 1000.0);
  EXPECT_EQ(c.v->Count_Old, 5);
}

TEST(Clock, LongBackStepIsAGlitch) {
  ClockEnv c(400000);
  const double t1 = c.At(500000);
  // StepFrwd = 499999 + 500000 = 999999 > StepBack = 1: time falls by a tick.
  const double t2 = c.At(499999);
  EXPECT_NEAR(t1 - t2, 0.001, 1e-9);
  EXPECT_EQ(c.v->Clock_Acc, 0.0);
}

TEST(Clock, EqualStepsCountAsGlitch) {
  ClockEnv c(0, 1000, 1000);
  c.At(600);
  c.At(100);  // Dist2Max = 400: StepFrwd = 500, StepBack = 500
  EXPECT_EQ(c.v->Clock_Acc, 0.0);
  EXPECT_EQ(c.v->Count_Old, 100);
  c.At(600);
  c.At(99);  // StepFrwd = 499 < StepBack = 501: a wrap
  EXPECT_DOUBLE_EQ(c.v->Clock_Acc, 1.0);
}

TEST(Clock, OffReadsNothing) {
  ClockEnv c(10);
  c.v->Clock_Off = true;
  const int reads = g_counter.reads;
  EXPECT_EQ(c.At(90000), 0.0);
  EXPECT_EQ(g_counter.reads, reads);
  EXPECT_EQ(c.v->Count_Old, 10);
}

TEST(Clock, CountAccFloor) {
  ClockEnv a(0, 1000, 5000);
  EXPECT_EQ(a.v->Count_Acc, 10);  // min(5, 1000) raised to 10
  ClockEnv b(0, 1000000, 2147483647);
  EXPECT_EQ(b.v->Count_Acc, 1000000);
  ClockEnv c(0, 50, 200000);
  EXPECT_EQ(c.v->Count_Acc, 50);
  ClockEnv d(0, 1000, 11000);
  EXPECT_EQ(d.v->Count_Acc, 11);
}

TEST(Clock, TraceLines) {
  g_counter = Counter{999990, 1000, 1000000, 0};
  rt::Env e;
  e.v->Clock_Source = &Fake_Ticks;
  e.v->Trace_Clock = true;
  Vdclcki(e.v);
  g_counter.now = 5;
  Clock_Read(e.v);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.Lines(), (std::vector<std::string>{
                               "Athome: Vdclcki: Count=     999990 Count_Rate=       1000",
                               "Athome:     Count_Max=    1000000 Count_Acc =       1000",
                               "Count_Now=          5 Count_Old=     999990 Count_Rate=       1000",
                               "Count_Max=    1000000 Count_Acc=       1000 Large stepback=T",
                               "Dist2Max =         10 StepFrwd =         15 StepBack  =     999985",
                               "Timer backstep counted as overflow."}));
}

TEST(Clock, OverTheTimeLimit) {
  ClockEnv c(0);
  c.v->Time_Limit = 2.0;
  g_counter.now = 1500;
  EXPECT_FALSE(Clock_Over(c.v));
  g_counter.now = 2001;
  EXPECT_TRUE(Clock_Over(c.v));
}

TEST(Clock, SystemCounterIsA31BitMicrosecondCount) {
  int32_t now = -1, rate = 0, max = 0;
  System_Ticks(&now, &rate, &max);
  EXPECT_GE(now, 0);
  EXPECT_EQ(rate, 1000000);
  EXPECT_EQ(max, 2147483647);
  rt::Env e;
  Vdclcki(e.v);
  const double t1 = Clock_Read(e.v);
  const double t2 = Clock_Read(e.v);
  EXPECT_GE(t1, 0.0);
  EXPECT_GE(t2, t1);
  EXPECT_LT(t2, 60.0);
}

}  // namespace
