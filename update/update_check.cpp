// Debug checks of the updated factors: the two copies of U against each
// other, and the four permutations against each other.
//
//   row copy      LUF%Ic, VIM%AUrmat from LUF%Rstr(r), LUF%Rlen(r) long,
//                 inside 1 .. RowUSpace
//   column copy   LUF%Ir, LUF%Ucmat from LUF%Cstr(c), LUF%Clen(c) long,
//                 inside 1 .. ColUSpace
//   IIN%Indx      scatter of the slots of one line; zero between uses
//
// They run over all of U and are meant for tests and debugging only
// (VMI%Debug_Upd).  Findings are written one a line, up to a limit, and end
// in an internal error.
#include <cmath>
#include <cstdint>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "update/update.h"

namespace vlu {

namespace {

constexpr int Err_U_Copies = 6204;
constexpr int Err_Permutations = 6205;
constexpr int Max_Findings = 20;

struct Findings {
  VMI *vmi;
  int count = 0;
  // Writes the line (while under the limit) and counts it.
  template <typename... A> void Add(const char *fmt, A... a) {
    if (count++ < Max_Findings) Doc(vmi, fmt, a...);
  }
};

}  // namespace

bool Check_U_Copies(VMI *vmi) {
  const VIM *vim = vmi->Vim;
  const LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const int32_t n = vim->NumRow;
  const int32_t *ic = luf->Ic.V, *ir = luf->Ir.V;
  const int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V, *cstr = luf->Cstr.V, *clen = luf->Clen.V;
  const double *aur = vim->AUrmat.Val, *ucmat = luf->Ucmat.Val;
  Findings f{vmi};

  // Starts, lengths and ends; a line that fails here is not read further.
  int64_t sumCol = 0, sumRow = 0;
  int32_t shape = 0;
  for (int32_t c = 1; c <= n; ++c) {
    sumCol += clen[c];
    if (cstr[c] < 1) f.Add("Illegal Column start: Cstr(%d)=%d", c, cstr[c]);
    else if (clen[c] < 1) f.Add("Illegal Column Length: Clen(%d)=%d", c, clen[c]);
    else if (cstr[c] + clen[c] - 1 > luf->ColUSpace)
      f.Add("Illegal Column end: Cstr(%d)=%d Clen=%d ColUSpace=%d", c, cstr[c], clen[c],
            luf->ColUSpace);
    else continue;
    ++shape;
  }
  for (int32_t r = 1; r <= n; ++r) {
    sumRow += rlen[r];
    if (rstr[r] < 1) f.Add("Illegal Row start: Rstr(%d)=%d", r, rstr[r]);
    else if (rlen[r] < 1) f.Add("Illegal Row Length: Clen(%d)=%d", r, rlen[r]);
    else if (rstr[r] + rlen[r] - 1 > luf->RowUSpace)
      f.Add("Illegal Row end: Rstr(%d)=%d Rlen=%d RowUSpace=%d", r, rstr[r], rlen[r],
            luf->RowUSpace);
    else continue;
    ++shape;
  }
  if (sumCol != luf->U_numele)
    f.Add("Illegal sum of column lengths =%lld U_numele=%d", static_cast<long long>(sumCol),
          luf->U_numele);
  if (sumRow != luf->U_numele)
    f.Add("Illegal sum of row lengths =%lld U_numele=%d", static_cast<long long>(sumRow),
          luf->U_numele);

  if (shape == 0) {
    int32_t *mark = iin->Indx.V;
    // Every element of the column copy in the row copy with its value; a
    // row is scattered into Indx (column -> slot) while its columns are
    // looked at from the column side.
    for (int32_t c = 1; c <= n; ++c) {
      for (int32_t q = cstr[c]; q < cstr[c] + clen[c]; ++q)
        if (ir[q] < 1 || ir[q] > n) f.Add("Illegal row number=%d in column %d", ir[q], c);
    }
    for (int32_t r = 1; r <= n; ++r) {
      for (int32_t j = rstr[r]; j < rstr[r] + rlen[r]; ++j) {
        if (ic[j] < 1 || ic[j] > n) f.Add("Illegal column number=%d in row %d", ic[j], r);
      }
    }
    if (f.count == 0) {
      for (int32_t r = 1; r <= n; ++r) {
        const int32_t s = rstr[r], e = s + rlen[r];
        for (int32_t j = s; j < e; ++j) mark[ic[j]] = j;
        for (int32_t j = s; j < e; ++j) {
          const int32_t c = ic[j];
          const int32_t q = Int_Lookup(ir, cstr[c], cstr[c] + clen[c] - 1, r);
          if (q == 0) {
            f.Add("Nonzero(%d,%d) exist in row copy but not in column copy.", r, c);
          } else if (ucmat[q] != aur[j]) {
            f.Add("Nonzero(%d,%d) has different value in column and row copy.", r, c);
            f.Add(" Irow=%d and  Ucmat(i)=%22.15E Icol=%d and AUrmat(J)=%22.15E", r, ucmat[q], c,
                  aur[j]);
          }
          if (mark[c] != j) f.Add("Nonzero(%d,%d) stands twice in the row copy.", r, c);
        }
        for (int32_t j = s; j < e; ++j) mark[ic[j]] = 0;
      }
      for (int32_t c = 1; c <= n; ++c) {
        const int32_t s = cstr[c], e = s + clen[c];
        for (int32_t q = s; q < e; ++q) {
          const int32_t r = ir[q];
          if (Int_Lookup(ic, rstr[r], rstr[r] + rlen[r] - 1, c) == 0)
            f.Add("Nonzero(%d,%d) exist in column copy but not in row copy.", r, c);
        }
      }
    }
  }
  if (f.count == 0) return true;
  Doc(vmi, "Check of the two copies of U: %d finding(s).", f.count);
  Internal_Error(vmi, Err_U_Copies, true);
  return false;
}

bool Check_Permutations(VMI *vmi) {
  const VIM *vim = vmi->Vim;
  const int32_t n = vim->NumRow;
  const int32_t *rnto = vim->Rnto.V, *rotn = vim->Rotn.V, *cnto = vim->Cnto.V, *cotn = vim->Cotn.V;
  Findings f{vmi};
  for (int32_t k = 1; k <= n; ++k) {
    const int32_t r = rnto[k], c = cnto[k];
    if (r < 1 || r > n || rotn[r] != k) f.Add("Rnto(%d)=%d but Rotn of it is not %d", k, r, k);
    if (c < 1 || c > n || cotn[c] != k) f.Add("Cnto(%d)=%d but Cotn of it is not %d", k, c, k);
  }
  if (f.count == 0) return true;
  Doc(vmi, "Check of the permutations: %d finding(s).", f.count);
  Internal_Error(vmi, Err_Permutations, true);
  return false;
}

}  // namespace vlu
