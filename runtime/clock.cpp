// Elapsed time from a 32-bit tick counter.  The counter may wrap around at
// its maximum and, on some systems, step back a little; each backward step
// is taken as whichever story is shorter: a wrap or a glitch.
#include "runtime/clock.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "runtime/messages.h"

namespace vlu {

namespace {

void Read_Counter(const VMI *vmi, int32_t *now, int32_t *rate, int32_t *max) {
  if (vmi->Clock_Source != nullptr)
    vmi->Clock_Source(now, rate, max);
  else
    System_Ticks(now, rate, max);
  if (*rate <= 0) *rate = 1;  // a broken source must not divide by zero
}

const char *Flag(bool b) { return b ? "T" : "F"; }

}  // namespace

void System_Ticks(int32_t *now, int32_t *rate, int32_t *max) {
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count();
  // Counts 0 .. 2147483647, then restarts at 0.
  *now = static_cast<int32_t>(static_cast<uint64_t>(us) & 0x7fffffffu);
  *rate = 1000000;
  *max = 2147483647;
}

void Vdclcki(VMI *vmi) {
  int32_t now = 0, rate = 1, max = 0;
  Read_Counter(vmi, &now, &rate, &max);
  vmi->Clock_Start = double(now) / double(rate);
  vmi->Clock_Acc = 0.0;
  vmi->Count_Old = now;
  vmi->Count_Acc = std::min(max / 1000, rate);
  if (vmi->Count_Acc < 11) vmi->Count_Acc = 10;
  if (vmi->Trace_Clock) {
    Doc(vmi, "Athome: Vdclcki: Count=%11d Count_Rate=%11d", now, rate);
    Doc(vmi, "Athome:     Count_Max=%11d Count_Acc =%11d", max, vmi->Count_Acc);
  }
}

double Clock_Read(VMI *vmi) {
  if (vmi->Clock_Off) return 0.0;
  int32_t now = 0, rate = 1, max = 0;
  Read_Counter(vmi, &now, &rate, &max);
  if (now < vmi->Count_Old) {
    const int64_t dist2Max = int64_t(max) - vmi->Count_Old;
    const int64_t stepBack = int64_t(vmi->Count_Old) - now;
    const int64_t stepFrwd = int64_t(now) + dist2Max;
    if (vmi->Trace_Clock) {
      const bool large = std::llabs(int64_t(now) - vmi->Count_Old) > vmi->Count_Acc;
      Doc(vmi, "Count_Now=%11d Count_Old=%11d Count_Rate=%11d", now, vmi->Count_Old, rate);
      Doc(vmi, "Count_Max=%11d Count_Acc=%11d Large stepback=%s", max, vmi->Count_Acc, Flag(large));
      Doc(vmi, "Dist2Max =%11lld StepFrwd =%11lld StepBack  =%11lld", static_cast<long long>(dist2Max),
          static_cast<long long>(stepFrwd), static_cast<long long>(stepBack));
    }
    if (stepFrwd < stepBack) {
      // The counter wrapped.  One tick per wrap is knowingly lost.
      vmi->Clock_Acc += double(max) / double(rate);
      if (vmi->Trace_Clock) Doc(vmi, "Timer backstep counted as overflow.");
    }
  }
  vmi->Count_Old = now;
  return double(now) / double(rate) + vmi->Clock_Acc - vmi->Clock_Start;
}

bool Clock_Over(VMI *vmi) { return Clock_Read(vmi) > vmi->Time_Limit; }

}  // namespace vlu
