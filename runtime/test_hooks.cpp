// The test-only settings and their copy into a new environment.
#include "runtime/test_hooks.h"

#include "runtime/records.h"

namespace vlu {

Test_Hooks Test_Options;

void Apply_Test_Hooks(VMI *vmi) {
  const Test_Hooks &t = Test_Options;
  vmi->Test_Full = t.Test_Full;
  vmi->Test_Trace = t.Test_Trace;
  vmi->Test_LU = t.Test_LU;
  vmi->Test_Every = t.Test_Every;
  vmi->Test_Start = t.Test_Start;
  vmi->Trace_Inv = t.Trace_Inv;
  vmi->Trace_Upd = t.Trace_Upd;
  vmi->Trace_Memory = t.Trace_Memory;
}

}  // namespace vlu
