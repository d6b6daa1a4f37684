// Checks of the arguments of vlu_factor and the copy of the matrix.
//
// Data touched: the caller's colStart (n + 1), rowIdx, colIdx, val (nz each)
// and r (n, or null) are read once; VIM%Stcl (n + 2), VIM%Rnum, VIM%Cnum and
// VIM%Jace (nz + n each) are written, positions nz + 1 .. nz + n being the
// full column t.  Before it receives colIdx, the memory of VIM%Cnum holds a
// byte per place p = 1 .. nz + 1: 0 where a column begins, 1 inside one.
// VIM%HelpZ (n + 1, zero on entry and on return) holds, only when some
// column lists its rows out of ascending order, the last column in which
// each row was seen.
//
// The checks ride on the copy so that the arrays are read once: column
// starts and row numbers are tested with branch-free comparisons that the
// compiler turns into vector code, and the position of a fault is looked up
// afterwards, in the rare failing case.  Rows that rise strictly within
// every column cannot repeat; only when some column does not rise is every
// column searched for a repeated row.  Per column the work is one store, the
// mark of its first place, where the row may lie below the last row of the
// column before.
#include "interface/factor_args.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "runtime/primitives.h"

namespace vlu {

namespace {

// The column (1-based) that holds position p (1-based) of a checked colStart:
// the last column whose start is at or before p.
int32_t Column_Of(const int32_t *colStart, int32_t n, int32_t p) {
  const int32_t *it = std::upper_bound(colStart, colStart + n, p);
  return static_cast<int32_t>(it - colStart);
}

bool Fail(char *msg, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
bool Fail(char *msg, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(msg, Arg_Msg_Len, fmt, ap);
  va_end(ap);
  return false;
}

}  // namespace

bool Check_Factor_Sizes(const Factor_Args &a, char *msg) {
  msg[0] = '\0';
  if (a.n < 0) return Fail(msg, "vlu_factor: n = %d is negative", a.n);
  if (a.nz < 0) return Fail(msg, "vlu_factor: nz = %d is negative", a.nz);
  if (int64_t(a.nz) + 2 * int64_t(a.n) > Max_Factor_Size)
    return Fail(msg, "vlu_factor: n = %d and nz = %d are too large: nz + 2n must not exceed %" PRId64,
                a.n, a.nz, Max_Factor_Size);
  if (a.colStart == nullptr) return Fail(msg, "vlu_factor: colStart is null");
  if (a.nz > 0) {
    if (a.rowIdx == nullptr) return Fail(msg, "vlu_factor: rowIdx is null with nz = %d", a.nz);
    if (a.colIdx == nullptr) return Fail(msg, "vlu_factor: colIdx is null with nz = %d", a.nz);
    if (a.val == nullptr) return Fail(msg, "vlu_factor: val is null with nz = %d", a.nz);
  }
  if (a.basisStat == nullptr) return Fail(msg, "vlu_factor: basisStat is null");
  return true;
}

bool Load_Factor_Matrix(VMI *vmi, const Factor_Args &a, char *msg) {
  VIM *vim = vmi->Vim;
  const int32_t n = a.n, nz = a.nz;
  const int32_t *cs = a.colStart;
  const int32_t *ri = a.rowIdx;
  int32_t *stcl = vim->Stcl.V, *rnum = vim->Rnum.V, *cnum = vim->Cnum.V;
  double *jace = vim->Jace.Val;
  msg[0] = '\0';

  // Column starts: copied, and a fall anywhere noted.
  int32_t falls = 0;
  stcl[1] = cs[0];
  for (int32_t j = 2; j <= n + 1; ++j) {
    stcl[j] = cs[j - 1];
    falls |= cs[j - 1] < cs[j - 2];
  }
  if (cs[0] != 1) return Fail(msg, "vlu_factor: colStart[0] = %d, expected 1", cs[0]);
  if (falls != 0) {
    for (int32_t j = 1; j <= n; ++j)
      if (cs[j] < cs[j - 1])
        return Fail(msg, "vlu_factor: colStart[%d] = %d is below colStart[%d] = %d", j, cs[j],
                    j - 1, cs[j - 1]);
  }
  if (cs[n] != nz + 1)
    return Fail(msg, "vlu_factor: colStart[%d] = %d, expected nz + 1 = %d", n, cs[n], nz + 1);
  stcl[n + 2] = stcl[n + 1] + n;

  // Row numbers: copied; one outside 1..n noted, and so is every place
  // where a row does not rise over the one before it in the same column.
  // Which places begin a column is marked first, a byte per place, in the
  // memory of VIM%Cnum, which receives its copy of colIdx only at the end
  // (nz + 2 bytes fit in its nz + n integers when n >= 1, and nz is 0 when
  // n is 0).
  uint32_t outside = 0;
  int32_t noRise = 0;
  if (nz > 0) {
    uint8_t *inside = reinterpret_cast<uint8_t *>(cnum + 1);  // byte p for place p
    std::memset(inside + 1, 1, static_cast<size_t>(nz));
    for (int32_t j = 0; j < n; ++j) inside[cs[j]] = 0;  // cs[j] <= nz + 1
    const uint32_t un = static_cast<uint32_t>(n);
    rnum[1] = ri[0];
    outside = static_cast<uint32_t>(ri[0]) - 1u >= un;
    for (int32_t p = 2; p <= nz; ++p) {
      const int32_t x = ri[p - 1];
      rnum[p] = x;
      outside |= static_cast<uint32_t>(x) - 1u >= un;
      noRise += (x <= ri[p - 2]) & inside[p];
    }
  }
  if (outside != 0) {
    for (int32_t p = 1; p <= nz; ++p) {
      const int32_t x = ri[p - 1];
      if (x < 1 || x > n)
        return Fail(msg, "vlu_factor: rowIdx[%d] = %d in column %d is outside 1..n = %d", p - 1, x,
                    Column_Of(cs, n, p), n);
    }
  }
  if (noRise > 0) {
    // Some column is not in ascending order: look for a row seen twice.
    int32_t *seen = vim->HelpZ.V;
    for (int32_t j = 1; j <= n; ++j) {
      for (int32_t p = stcl[j]; p < stcl[j + 1]; ++p) {
        const int32_t i = rnum[p];
        if (seen[i] == j) {
          int32_t first = stcl[j];
          while (rnum[first] != i) ++first;
          Zero_Int(seen, n);
          return Fail(msg, "vlu_factor: row %d appears twice in column %d (rowIdx[%d] and rowIdx[%d])",
                      i, j, first - 1, p - 1);
        }
        seen[i] = j;
      }
    }
    Zero_Int(seen, n);
  }

  // The rest of the store: column t behind the matrix, in rows 1..n.
  for (int32_t i = 1; i <= n; ++i) rnum[nz + i] = i;
  for (int32_t p = 1; p <= nz; ++p) cnum[p] = a.colIdx[p - 1];
  for (int32_t i = 1; i <= n; ++i) cnum[nz + i] = n + 1;
  for (int32_t p = 1; p <= nz; ++p) jace[p] = a.val[p - 1];
  for (int32_t i = 1; i <= n; ++i) jace[nz + i] = a.r != nullptr ? a.r[i - 1] : 0.0;
  return true;
}

}  // namespace vlu
