// Shared by the two general targets: the options of a system (fuzz_system.h)
// turned into the library's test settings, and the message texts that a
// target's callback treats as failures.
//
// Data: vlu::Test_Options and vlu::Test_Heap_Limit, process-wide; set before
// each vlu_factor of an input and cleared at its end by Clear_Hooks.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz/fuzz_system.h"
#include "runtime/records.h"
#include "runtime/test_hooks.h"

namespace fz {

inline void Apply_Hooks(const Options &o) {
  vlu::Test_Options = vlu::Test_Hooks();
  vlu::Test_Options.Test_LU = o.checks == 1;
  vlu::Test_Options.Test_Every = o.checks == 2 ? 7 : o.checks == 3 ? 1 : 0;
  vlu::Test_Options.Test_Full = o.checks == 3;
  vlu::Test_Options.Min_Space = o.minSpace;
  vlu::Test_Options.Trace_Inv = o.trace;
  vlu::Test_Options.Trace_Upd = o.trace;
}

inline void Clear_Hooks() {
  vlu::Test_Options = vlu::Test_Hooks();
  vlu::Test_Heap_Limit = 0;
}

// Texts that no run may produce: a memory balance gone wrong at teardown.
// Returns the number of lines of the block (the largest of the three counts).
// With FUZZ_VERBOSE set in the environment the lines go to the error stream
// (for reproductions).
inline int Check_Lines(int smsg, int dmsg, int nmsg, char **lines) {
  static const bool verbose = std::getenv("FUZZ_VERBOSE") != nullptr;
  const int count = std::max(smsg, std::max(dmsg, nmsg));
  if (verbose)
    for (int k = 0; k < count; ++k) std::fprintf(stderr, "| %s\n", lines[k]);
  for (int k = 0; k < count; ++k)
    if (std::strstr(lines[k], "not in balance") != nullptr) Fail("memory statistics not in balance");
  return count;
}

}  // namespace fz
