// The process-wide state of the exported interface.
#pragma once
#include <cstdint>
#include "vardenlu.h"
#include "runtime/records.h"
#include "solve/spike_cache.h"

namespace vlu {

struct IfaceState {
  bool envExists = false;          // set by vlu_create, cleared by vlu_destroy
  bool dataReady = false;          // records and arrays below exist (vlu_factor; cleared on release)
  bool rKnown = false;             // column t's values are fixed (r given, or t entered)
  VMI *env = nullptr;              // the environment; null when no records exist
  VIM *vim = nullptr;              // env->Vim, taken when the records are built
  int32_t numRows = 0;             // n of the last vlu_factor, >= 0
  int32_t numNz = 0;               // nz of the last vlu_factor, >= 0
  int32_t numSing = 0;             // singular pairs the last factor or update call found
  int32_t updateLimit = 0;         // limit for the next vlu_factor: -1 or 0..2147483647
                                   // (vlu_setupdatelimit, 2147483647 after vlu_create)
  int32_t nFactor = 0;             // regular vlu_factor results since vlu_create
  int32_t nUpdate = 0;             // in-place updates since vlu_create
  int32_t nRefactor = 0;           // refactorizations of vlu_update since vlu_create
  vlu_msgcb_t msgcbPtr = nullptr;  // the caller's message callback (vlu_regmsgcb), or null
  void *usrmem = nullptr;          // handed to the callback unchanged
  // Interface arrays of vlu_factor, 1-based (element 0 unused).
  int32_t *curStat = nullptr;      // 2n+1: the status the caller asked for
  double *rSave = nullptr;         // n: the last right-hand side while rKnown is false
  int32_t *singRow = nullptr;      // n: row of pair k, zero until a reconciliation
  int32_t *singCol = nullptr;      // n: column of pair k, zero until a reconciliation
  uint8_t *mark = nullptr;         // n+1: scratch of the reconciliation
  // The solution of a solve before its values go in, 0-based like `sol`
  // (2n+1): +0.0 for the columns that pivot on some row (VIM%Rwcl), the
  // largest double for the others.  Made by vlu_solve when it is needed and
  // solBaseReady is false or its key differs from the factors' (after its
  // rows were checked as basic), kept by the in-place updates of vlu_update
  // (two entries change), and dropped by every factorization; null while not allocated (a failed allocation leaves the
  // solve on its plain road).
  double *solBase = nullptr;
  bool solBaseReady = false;
  Factors_Key solBaseKey;          // the factors solBase stands for
  bool solBaseOff = false;         // tests only: solutions without the base
  // The L stage of the last listed solve, for the update after it.
  Spike_Cache spike;
  // The rows where VIM%Work1 and rSave may be other than +0: workRows(1..
  // workCount) from the solution of the last solve, saveRows(1..saveCount)
  // from its right-hand side; a count of -1 when the vector is not known to
  // be +0 elsewhere (it is then written in full).  n+1 each, allocated by
  // the first solve, null when not.
  int32_t *workRows = nullptr;
  int32_t *saveRows = nullptr;
  int32_t workCount = -1;
  int32_t saveCount = -1;
};

// The one instance (tests read it).
IfaceState &Iface();

// Ends the process with one line of text on the error stream.
[[noreturn]] void Hard_Stop(const char *text);

// The library's message exit: to the registered callback, or the fallback
// lines on standard output.
int c_std_message(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);

}  // namespace vlu
