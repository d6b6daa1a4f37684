// The process-wide state of the exported interface.
#pragma once
#include <cstdint>
#include "vardenlu.h"
#include "runtime/records.h"

namespace vlu {

struct IfaceState {
  bool envExists = false;
  bool dataReady = false;
  bool rKnown = false;
  VMI *env = nullptr;
  VIM *vim = nullptr;
  int32_t numRows = 0, numNz = 0, numSing = 0;
  int32_t updateLimit = 0;
  int32_t nFactor = 0, nUpdate = 0, nRefactor = 0;
  vlu_msgcb_t msgcbPtr = nullptr;
  void *usrmem = nullptr;
  // Interface arrays, 1-based (element 0 unused).
  int32_t *curStat = nullptr;
  double *rSave = nullptr;
  int32_t *singRow = nullptr;
  int32_t *singCol = nullptr;
  uint8_t *mark = nullptr;
};

// The one instance (tests read it).
IfaceState &Iface();

// Ends the process with one line of text on the error stream.
[[noreturn]] void Hard_Stop(const char *text);

// The library's message exit: to the registered callback, or the fallback
// lines on standard output.
int c_std_message(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);

}  // namespace vlu
