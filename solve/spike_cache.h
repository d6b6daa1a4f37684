// The L stage of the last listed solve, kept for the update that follows it.
//
//   inRows(1..inLen), inVals(1..inLen)    the right-hand side as the solve
//                                         listed it: rows whose entries are
//                                         not +0, increasing, and their values
//   outRows(1..outLen), outVals(1..outLen) the list after the L columns of
//                                         the factorization (the input rows
//                                         first, in the same order) and the
//                                         values there
//   finRows(1..finLen), finVals(1..finLen) the same after the row etas, when
//                                         the solve applied them in the dot
//                                         form, the one of the update; finLen
//                                         -1 when there are no etas (the
//                                         spike is out..), -2 when they went
//                                         in another form
//
// A simplex step solves the entering column and then updates with it; the
// update sends the same column through L again to form its spike.  When
// the column the update loads is the listed right-hand side entry for
// entry (same rows in the same order, same bits), and L has not changed
// since, the update starts from the vector kept here: the column stage of
// the listed solve is the one the update runs, same columns in the same
// order, same list; the row etas are taken over as well when the solve
// applied them as the update does, and applied by the update otherwise.  The arrays belong to the exported
// interface (allocated by the first listed solve, n + 1 entries each, freed
// with the other interface arrays); `valid` is set by the solve that fills
// them and cleared by every call that changes the factors.
#pragma once
#include <cstdint>

namespace vlu {

// The state of the factors that a kept vector or a base of the solution
// belongs to: Update_Inverse calls and the counts that every factorization
// and update moves.  Made and compared by the exported interface.
struct Factors_Key {
  uint32_t calls = 0;      // Update_Inverse_Calls()
  int32_t done = -1;       // VIM::Updates_Done
  int32_t lUsed = -1;      // LUF::LFileUsed
  int32_t uElems = -1;     // LUF::U_numele
  bool operator==(const Factors_Key &o) const {
    return calls == o.calls && done == o.done && lUsed == o.lUsed && uElems == o.uElems;
  }
};

struct Spike_Cache {
  bool valid = false;          // the arrays hold the L stage of the last solve
  Factors_Key key;             // the factors of that solve
  int32_t inLen = 0;           // entries of the listed right-hand side, 0..n
  int32_t outLen = 0;          // entries after the L stage, inLen..n
  int32_t *inRows = nullptr;   // n+1, 1-based
  double *inVals = nullptr;    // n+1, 1-based
  int32_t *outRows = nullptr;  // n+1, 1-based
  double *outVals = nullptr;   // n+1, 1-based
  int32_t finLen = -2;         // entries after the row etas, -1 or -2 (above)
  int32_t *finRows = nullptr;  // n+1, 1-based
  double *finVals = nullptr;   // n+1, 1-based
};

}  // namespace vlu
