// Elapsed time from a 32-bit tick counter that may wrap or step back.
#pragma once
#include <cstdint>
#include "runtime/records.h"

namespace vlu {

// Starts the clock of the environment.
void Vdclcki(VMI *vmi);
// Seconds since Vdclcki; 0.0 when VMI::Clock_Off is set.
double Clock_Read(VMI *vmi);
// True when Clock_Read exceeds the time limit.
bool Clock_Over(VMI *vmi);
// The system tick counter (microseconds, wrapping at 2^31 - 1).
void System_Ticks(int32_t *now, int32_t *rate, int32_t *max);

}  // namespace vlu
