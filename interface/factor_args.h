// The arguments of vlu_factor: the checks that keep a malformed matrix out of
// the library, and the copy of the matrix into the store of VIM.
#pragma once
#include <cstddef>
#include <cstdint>

#include "runtime/records.h"

namespace vlu {

// The caller's arguments as vlu_factor received them (arrays 0-based, the
// values in them 1-based).
struct Factor_Args {
  int32_t n = 0;                      // rows and matrix columns
  int32_t nz = 0;                     // matrix entries
  const int32_t *colStart = nullptr;  // n + 1 column starts, 1 .. nz + 1
  const int32_t *rowIdx = nullptr;    // nz row numbers, 1 .. n
  const int32_t *colIdx = nullptr;    // nz column numbers (copied, never read)
  const double *val = nullptr;        // nz values
  const double *r = nullptr;          // n coefficients of column t, or null
  const int32_t *basisStat = nullptr; // 2n + 1 status values
};

// Largest nz + 2n accepted: the sizes of the store (nz + 2n for LUF%Ic and
// LUF%Ir) and the rounding of record vectors to whole cache lines, and the
// prime above 2n that the factorization chooses, must stay in 32 bits.
constexpr int64_t Max_Factor_Size = 2147483647 - 1024;

// Message buffer of the argument checks: one line.
constexpr size_t Arg_Msg_Len = 160;

// Checks of the scalars and the pointers, made before anything is
// allocated.  False with the reason in msg.
bool Check_Factor_Sizes(const Factor_Args &a, char *msg);

// Copies the matrix into VIM%Stcl, VIM%Rnum, VIM%Cnum and VIM%Jace, with
// column t behind it, and checks on the way that the column starts rise from
// 1 to nz + 1, that every row number lies in 1 .. n and that no row appears
// twice in a column.  False with the first fault in msg; the store is then
// not to be used.  VIM%HelpZ serves as scratch and is zero again on return.
bool Load_Factor_Matrix(VMI *vmi, const Factor_Args &a, char *msg);

}  // namespace vlu
