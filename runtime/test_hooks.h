// Settings that only the tests use.  The factor call copies them into each
// new environment, so a test can switch on the consistency battery, a trace
// level or the smallest store sizes without any exported function.  All are
// off by default and nothing in the library changes them.
#pragma once
#include <cstdint>

namespace vlu {

struct VMI;

struct Test_Hooks {
  int32_t Test_Full = 0;    // copied to VMI::Test_Full (structure cross check of the battery)
  int32_t Test_Trace = 0;   // copied to VMI::Test_Trace (battery at every pivot, with reports)
  int32_t Test_LU = 0;      // copied to VMI::Test_LU (L times U against the basis)
  int32_t Test_Every = 0;   // copied to VMI::Test_Every: battery every so many pivots, 0 = off
  int32_t Test_Start = 0;   // copied to VMI::Test_Start: first pivot index of the battery
  int32_t Trace_Inv = 0;    // copied to VMI::Trace_Inv (trace level of the factorization)
  int32_t Trace_Upd = 0;    // copied to VMI::Trace_Upd (trace level of the update)
  int32_t Trace_Memory = 0; // copied to VMI::Trace_Memory (allocation trace; 1 names each
                            // vector allocated, grown or not obtained)
  bool Min_Space = false;   // size the stores of each factorization at the least that the
                            // triangular phases need, so that the elimination has to make
                            // its room by compressions and growth
};

// The one instance; tests set it before vlu_factor and reset it after.
extern Test_Hooks Test_Options;

// Copies the settings into a new environment (called by the factor call).
void Apply_Test_Hooks(VMI *vmi);

}  // namespace vlu
