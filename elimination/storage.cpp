// Storage of the active matrix during the elimination: room for fill,
// moves of rows and columns to the end of their file, compaction of the
// files, compression of the uncompressed tails, and the space of the stores
// that a pivot step needs (L-file, U-file, the dense work block).
//
// Layout (all 1-based, rows and columns by their old numbers):
//
//   LUF%Ic      1 .. RowFileUsed: the row file.  Row i is Ic(Rstr(i)) ..
//               Ic(Rstr(i) + Rlen(i) - 1) (compressed part), then Mrex(i)
//               tail entries.  From U_elefirst up to RowUSpace: the U-file.
//   LUF%Ir      1 .. ColFileUsed: the column file.  Column j is Ir(Cstr(j))
//               .. (compressed part, Clen(j)), then Mcex(j) tail entries.
//               Cstr(j) - 1 is always a multiple of 8.
//   VIM%AUrmat  values of the column file below, of the U-file from
//               U_elefirst up (so the column file too must stay below
//               U_elefirst).
//   IIN%R2cp    row-file position -> column-file position of the element;
//   IIN%C2rp    column-file position -> row-file position.  Both are as long
//               as ColASpace at least, so neither file may pass ColASpace.
//
//   The last row or column of a file may reach min(ColASpace + 1,
//   U_elefirst) - 1.  Spare room behind a row or column is not stored: it
//   is the gap to the start of the next one in physical (chain) order.
//   RowFileUsed / ColFileUsed are the last positions handed out; they are at
//   least the end of the last row / column and may lie beyond the hard limit
//   (a move to the top then grows the stores first).
//
//   Slots with Ic = 0 (Ir = 0) hold no element: they are copied as zeros by
//   every move and carry no value and no cross pointer.  An element is in
//   the compressed part of its row exactly when it is in the compressed part
//   of its column; tails are packed.  In semi-dense mode there are no tails
//   (Mrex may be stale and is never read: see Row_Tail).
//
// The room of a row or column is Space_Factor times its length whenever it
// is placed (compaction, move to the top), and at least its length + 1, so
// that an empty row or column keeps a place of its own in the chain.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/clock.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

// Internal error numbers of this file.
constexpr int Err_Last_Col_Up = 4201;
constexpr int Err_Last_Row_Up = 4202;
constexpr int Err_Col_To_Top = 4203;
constexpr int Err_Row_To_Top = 4204;
constexpr int Err_Row_No_Tail = 4205;
constexpr int Err_Row_Indx_In = 4206;
constexpr int Err_Row_Indx_Out = 4207;
constexpr int Err_Col_No_Tail = 4208;
constexpr int Err_Col_Indx_In = 4209;
constexpr int Err_Col_Indx_Out = 4210;
constexpr int Err_Assign_Mmat = 4211;
constexpr int Err_Col_No_Room = 4212;
constexpr int Err_Row_No_Room = 4213;

// Trace levels: space decisions and compactions, decisions of one step,
// single elements and the checks of the work vectors.
constexpr int32_t Lvl_Space = 2;
constexpr int32_t Lvl_Step = 3;
constexpr int32_t Lvl_Elem = 4;

constexpr int32_t Max_Int = 2147483647;

const char *Flag(bool b) { return b ? "T" : "F"; }

// A position computed in double, cut to an integer (never beyond the range
// of a 32-bit integer).
int32_t To_Pos(double x) {
  if (x >= static_cast<double>(Max_Int)) return Max_Int;
  return static_cast<int32_t>(x);
}
int32_t To_Pos(int64_t x) { return x >= Max_Int ? Max_Int : static_cast<int32_t>(x); }

// Up to the next multiple of 8 (column starts are Used + 1).
int32_t Round8(int32_t x) { return x >= Max_Int - 7 ? (Max_Int / 8) * 8 : (x + 7) & ~7; }

// Last position of a row or column of length len that starts at used + 1
// and keeps its reserve: max(len + 1, Space_Factor len).
int32_t Reserve_End(double sf, int32_t used, int32_t len) {
  return To_Pos(static_cast<double>(used) + std::max(len + 1.0, sf * len));
}
// Last position of Space_Factor len positions from used + 1.
int32_t Span_End(double sf, int32_t used, int32_t len) {
  return To_Pos(static_cast<double>(used) + sf * len);
}

// Highest position the last row or column of a file may reach.
int32_t File_Top(const LUF *luf) { return std::min(luf->ColASpace, luf->U_elefirst - 1); }

// Grows the U-file (with the value array) by Increase_Uspace, which moves the
// finished rows up by the growth.
void Grow_U(Bump_State &s, int32_t demand) { Increase_Uspace(s.vmi, demand); }

// Grows the stores so that a row or column may reach position `last`:
// the active column space (Ir, C2rp, R2cp) and the U-file, which is moved
// up by its growth.  Leaves the stop flag on failure.
void Ensure_Top(Bump_State &s, int32_t last) {
  LUF *luf = s.luf;
  if (last > luf->ColASpace) {
    Increase_ASpace(s.vmi, last);
    if (Stopped(s)) return;
  }
  if (last >= luf->U_elefirst) {
    const int64_t want = static_cast<int64_t>(luf->RowUSpace) + (last - luf->U_elefirst + 1);
    Grow_U(s, To_Pos(want));
  }
}

// Moves the len entries of column icol to positions to .. to + len - 1 and
// sets Cstr.  Either to lies below the present start (compaction: a forward
// copy is safe) or the ranges do not meet.
void Copy_Col(Bump_State &s, int32_t icol, int32_t to, int32_t len) {
  int32_t *ir = s.luf->Ir.V;
  int32_t *c2rp = s.iin->C2rp.V;
  int32_t *r2cp = s.iin->R2cp.V;
  double *a = s.vim->AUrmat.Val;
  const int32_t from = s.luf->Cstr.V[icol];
  for (int32_t k = 0; k < len; ++k) {
    const int32_t r = ir[from + k];
    ir[to + k] = r;
    if (r != 0) {
      a[to + k] = a[from + k];
      const int32_t p = c2rp[from + k];
      c2rp[to + k] = p;
      r2cp[p] = to + k;
    }
  }
  s.luf->Cstr.V[icol] = to;
  s.St.Moved_Elements += len;
}

// The same for row irow (no values: they stay in the column file).
void Copy_Row(Bump_State &s, int32_t irow, int32_t to, int32_t len) {
  int32_t *ic = s.luf->Ic.V;
  int32_t *c2rp = s.iin->C2rp.V;
  int32_t *r2cp = s.iin->R2cp.V;
  const int32_t from = s.luf->Rstr.V[irow];
  for (int32_t k = 0; k < len; ++k) {
    const int32_t c = ic[from + k];
    ic[to + k] = c;
    if (c != 0) {
      const int32_t q = r2cp[from + k];
      r2cp[to + k] = q;
      c2rp[q] = to + k;
    }
  }
  s.luf->Rstr.V[irow] = to;
  s.St.Moved_Elements += len;
}

// Entry moves inside one column (from -> to, to free) and inside one row.
inline void Move_Col_Entry(int32_t *ir, double *a, int32_t *c2rp, int32_t *r2cp, int32_t from,
                           int32_t to) {
  const int32_t r = ir[from];
  ir[to] = r;
  if (r != 0) {
    a[to] = a[from];
    c2rp[to] = c2rp[from];
    r2cp[c2rp[to]] = to;
  }
}
inline void Move_Row_Entry(int32_t *ic, int32_t *c2rp, int32_t *r2cp, int32_t from, int32_t to) {
  const int32_t c = ic[from];
  ic[to] = c;
  if (c != 0) {
    r2cp[to] = r2cp[from];
    c2rp[r2cp[to]] = to;
  }
}
// Exchanges two occupied entries of one column (one of a row).
inline void Swap_Col_Entries(int32_t *ir, double *a, int32_t *c2rp, int32_t *r2cp, int32_t x,
                             int32_t y) {
  std::swap(ir[x], ir[y]);
  std::swap(a[x], a[y]);
  std::swap(c2rp[x], c2rp[y]);
  r2cp[c2rp[x]] = x;
  r2cp[c2rp[y]] = y;
}
inline void Swap_Row_Entries(int32_t *ic, int32_t *c2rp, int32_t *r2cp, int32_t x, int32_t y) {
  std::swap(ic[x], ic[y]);
  std::swap(r2cp[x], r2cp[y]);
  c2rp[r2cp[x]] = x;
  c2rp[r2cp[y]] = y;
}

// A Markowitz bound scaled from a column length to another: a multiple of
// Clen - 1 stays one.  0 when either length leaves no multiple.
int32_t Scale_Bound(int32_t m, int32_t oldLen, int32_t newLen) {
  if (m <= 0 || oldLen < 2 || newLen < 2) return 0;
  return To_Pos(static_cast<int64_t>(m / (oldLen - 1)) * (newLen - 1));
}

// Column c changed its compressed length from oldLen: it moves to the list
// of its new length.  A member of an M-list keeps its bound scaled to the
// new length (the M-list of that bound, or its C-list when nothing is left
// of the bound); a member of a C-list or of the zero list goes to the C-list
// of the new length with its lower bound scaled the same way.
void Col_Len_Changed(Bump_State &s, int32_t c, int32_t oldLen) {
  IIN *iin = s.iin;
  const int32_t newLen = s.luf->Clen.V[c];
  if (newLen == oldLen) return;
  const bool inM = !s.Semi_Dense && iin->Mact.V[c] > 0;
  if (s.vmi->Trace_Inv >= Lvl_Elem)
    Doc(s.vmi, "Column length changes and column moved. Icol=%d Clen=%d Mact=%d Mcex=%d", c, newLen,
        iin->Mact.V[c], iin->Mcex.V[c]);
  Remove_col_from_list(s, c);
  const int32_t m = Scale_Bound(iin->Mlow.V[c], oldLen, newLen);
  iin->Mlow.V[c] = m;
  if (inM && m > 0)
    Store_col_in_M_list(s, c, m);
  else
    Store_col_in_c_list(s, c, newLen);
}

// Row r changed its compressed length: it goes to the C-list of the new
// length and loses its scanned status.
void Row_Len_Changed(Bump_State &s, int32_t r) {
  IIN *iin = s.iin;
  if (s.vmi->Trace_Inv >= Lvl_Elem)
    Doc(s.vmi, "%s%d from R-list", iin->Mrow.V[r] != 0 ? "Moving M-row" : "Moving row", r);
  Remove_Row_from_List(s, r);
  iin->Mrow.V[r] = 0;
  Store_Row_in_C_List(s, r, s.luf->Rlen.V[r]);
}

// Debug check of the scatter vector before a compression: it must be clear.
bool Indx_Clear(Bump_State &s, const char *what, int err) {
  const int32_t *indx = s.iin->Indx.V;
  for (int32_t k = 1; k <= s.NumRow; ++k) {
    if (indx[k] != 0) {
      Doc(s.vmi, "%s%d)=%d", what, k, indx[k]);
      Internal_Error(s.vmi, err, true);
      return false;
    }
  }
  return true;
}

// The last column of the file may have been given more room than it keeps;
// the file end comes back to its reserve (never beyond the present end).
void Trim_Col_End(Bump_State &s) {
  LUF *luf = s.luf;
  const int32_t last = s.iin->CPlast;
  if (last == 0) return;
  const int32_t len = luf->Clen.V[last] + Col_Tail(s, last);
  const int32_t end = Reserve_End(s.vmi->Space_Factor, luf->Cstr.V[last] - 1, len);
  if (end < luf->ColFileUsed) luf->ColFileUsed = end;
}
void Trim_Row_End(Bump_State &s) {
  LUF *luf = s.luf;
  const int32_t last = s.iin->RPlast;
  if (last == 0) return;
  const int32_t len = luf->Rlen.V[last] + Row_Tail(s, last);
  const int32_t end = Reserve_End(s.vmi->Space_Factor, luf->Rstr.V[last] - 1, len);
  if (end < luf->RowFileUsed) luf->RowFileUsed = end;
}

// The last column `last` moves further up, to start after both the file end
// and position `after` (so that the column before it gets room up to there),
// on a cache line, with its reserve.  It stays last in the chain.
void Move_Last_Col_Up(Bump_State &s, int32_t last, int32_t after) {
  LUF *luf = s.luf;
  const int32_t len = luf->Clen.V[last] + Col_Tail(s, last);
  const int32_t from = luf->Cstr.V[last];
  const int32_t used = Round8(std::max(luf->ColFileUsed, after));
  const int32_t end = Reserve_End(s.vmi->Space_Factor, used, len);
  Ensure_Top(s, end);
  if (Stopped(s)) return;
  Copy_Col(s, last, used + 1, len);
  luf->ColFileUsed = end;
  if (s.vmi->Trace_Inv >= Lvl_Step) {
    Doc(s.vmi, "Next col is last and shorter. Moving next column from%10d to%10d", from, used + 1);
    Doc(s.vmi, "ColFileUsed increased to%10d", end);
  }
}
void Move_Last_Row_Up(Bump_State &s, int32_t last, int32_t after) {
  LUF *luf = s.luf;
  const int32_t len = luf->Rlen.V[last] + Row_Tail(s, last);
  const int32_t from = luf->Rstr.V[last];
  const int32_t used = std::max(luf->RowFileUsed, after);
  const int32_t end = Reserve_End(s.vmi->Space_Factor, used, len);
  Ensure_Top(s, end);
  if (Stopped(s)) return;
  Copy_Row(s, last, used + 1, len);
  luf->RowFileUsed = end;
  if (s.vmi->Trace_Inv >= Lvl_Step) {
    Doc(s.vmi, "Next=%d at top. Moved with Rlen+Mrex=%d Ifrom=%d Ito=%d", last, len, from, used + 1);
    Doc(s.vmi, "RowFileUsed updated to%10d", end);
    Doc(s.vmi, "After: Rstr=%d", luf->Rstr.V[last]);
  }
}

// Shape lists of the block (Lisr, Lisc, ...) must hold Max_Mmat entries
// (never more than NumRow are used).
bool Lists_Short(const Bump_State &s) {
  return s.iin->BlockSize < std::min(s.iin->Max_Mmat, s.NumRow);
}

}  // namespace

// ---------------------------------------------------------------------------
// Spare room and long rows and columns.
// ---------------------------------------------------------------------------

int32_t Row_Extra(const Bump_State &s, int32_t irow) {
  const LUF *luf = s.luf;
  const int32_t next = s.iin->Rpnx.V[irow];
  const int32_t bound =
      next != 0 ? luf->Rstr.V[next] : std::min(luf->ColASpace + 1, luf->U_elefirst);
  return bound - luf->Rstr.V[irow] - luf->Rlen.V[irow] - Row_Tail(s, irow);
}

int32_t Col_Extra(const Bump_State &s, int32_t icol) {
  const LUF *luf = s.luf;
  const int32_t next = s.iin->Cpnx.V[icol];
  const int32_t bound =
      next != 0 ? luf->Cstr.V[next] : std::min(luf->ColASpace + 1, luf->U_elefirst);
  return bound - luf->Cstr.V[icol] - luf->Clen.V[icol] - Col_Tail(s, icol);
}

bool Long_col(Bump_State &s, int32_t icol) {
  if (s.Semi_Dense) return false;
  const IIN *iin = s.iin;
  if (iin->Mcex.V[icol] > 0) return true;
  const int32_t len = s.luf->Clen.V[icol];
  const int32_t low = iin->Mlow.V[icol];
  // A column whose count after this step may beat the pivot's stays short.
  if (low > 0 && static_cast<int64_t>(low) * (len - 2) < static_cast<int64_t>(len - 1) * s.MarkBest)
    return false;
  if (len <= s.Length_Lim) return false;
  if (static_cast<float>(len) <= 1.2f * static_cast<float>(s.Len_Piv_Col)) return false;
  return Col_Extra(s, icol) > std::min(s.Len_Piv_Col - 1, s.Extra_Crit);
}

bool Long_row(Bump_State &s, int32_t irow) {
  if (s.Semi_Dense) return false;
  if (s.iin->Mrex.V[irow] > 0) return true;
  const int32_t len = s.luf->Rlen.V[irow];
  if (len <= s.Length_Lim) return false;
  if (static_cast<float>(len) <= 1.2f * static_cast<float>(s.Len_Piv_Row)) return false;
  return Row_Extra(s, irow) > std::min(s.Len_Piv_Row - 1, s.Extra_Crit);
}

// ---------------------------------------------------------------------------
// Moves to the end of the file.
// ---------------------------------------------------------------------------

void Col_to_top(Bump_State &s, int32_t icol, int32_t iextra) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  if (icol == iin->CPlast) {
    Doc(vmi, "Cannot move last column up. Icol=%d", icol);
    Internal_Error(vmi, Err_Last_Col_Up, true);
    return;
  }
  const bool lastButOne = iin->Cpnx.V[icol] == iin->CPlast;
  Unlink_Col(s, icol);
  if (Stopped(s)) return;
  if (lastButOne) Trim_Col_End(s);
  luf->ColFileUsed = Round8(luf->ColFileUsed);

  const int32_t len = luf->Clen.V[icol] + Col_Tail(s, icol);
  const int32_t start = luf->ColFileUsed + 1;
  const int32_t end = std::max(Span_End(vmi->Space_Factor, luf->ColFileUsed, len + iextra),
                               start + len + iextra - 1);
  Ensure_Top(s, end);
  if (Stopped(s)) return;
  if (end > File_Top(luf)) {
    Doc(vmi, "Error in Col_To_Top. ColFileUsed updated to%10d in col=%d", end, icol);
    Doc(vmi, "with len=%d Mcex=%d ColASpace =%d and U_elefirst=%d", luf->Clen.V[icol],
        iin->Mcex.V[icol], luf->ColASpace, luf->U_elefirst);
    Internal_Error(vmi, Err_Col_To_Top, true);
    return;
  }
  Copy_Col(s, icol, start, len);
  luf->ColFileUsed = end;
  Link_Col_Last(s, icol);
}

void Row_to_top(Bump_State &s, int32_t irow, int32_t iextra) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  if (irow == iin->RPlast) {
    Doc(vmi, "Row_to_top: Cannot move last row up. Irow=%d", irow);
    Internal_Error(vmi, Err_Last_Row_Up, true);
    return;
  }
  const bool lastButOne = iin->Rpnx.V[irow] == iin->RPlast;
  Unlink_Row(s, irow);
  if (Stopped(s)) return;
  if (lastButOne) Trim_Row_End(s);

  const int32_t len = luf->Rlen.V[irow] + Row_Tail(s, irow);
  const int32_t start = luf->RowFileUsed + 1;
  const int32_t end = std::max(Span_End(vmi->Space_Factor, luf->RowFileUsed, len + iextra),
                               start + len + iextra - 1);
  Ensure_Top(s, end);
  if (Stopped(s)) return;
  if (end > File_Top(luf)) {
    Doc(vmi, "Error in Row_To_Top. RowFileUsed updated to%10d in row=%d", end, irow);
    Doc(vmi, "with len=%d Mrex=%d ColASpace =%d and U_elefirst=%d", luf->Rlen.V[irow],
        Row_Tail(s, irow), luf->ColASpace, luf->U_elefirst);
    Internal_Error(vmi, Err_Row_To_Top, true);
    return;
  }
  Copy_Row(s, irow, start, len);
  luf->RowFileUsed = end;
  Link_Row_Last(s, irow);
}

// ---------------------------------------------------------------------------
// Room for fill behind one row or column.
// ---------------------------------------------------------------------------

void Make_Col_Space(Bump_State &s, int32_t icol, int32_t needed) {
  if (needed <= 0) return;
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const double sf = vmi->Space_Factor;
  const bool trace = vmi->Trace_Inv >= Lvl_Step;
  int32_t avail = Col_Extra(s, icol);
  if (needed > avail) {
    if (icol == iin->CPlast) {
      // The last column grows into the free end of the file; a compaction
      // first brings it down when the file is out of room.
      if (trace) {
        Doc(vmi, "Make_Col_Space. Icol=%d Needed=%d Available=%d", icol, needed, avail);
        Doc(vmi, "Make_Col_Space. Column was last. Compres_Cols");
        Doc(vmi, "Compres_Cols will be called from Make_Col_Space. Last col needs more space");
      }
      Compres_Cols(s);
      if (needed > Col_Extra(s, icol)) {
        const int32_t len = luf->Clen.V[icol] + Col_Tail(s, icol);
        Ensure_Top(s, To_Pos(static_cast<int64_t>(luf->Cstr.V[icol]) + len + needed - 1));
      }
    } else {
      const double atEnd =
          luf->ColFileUsed + 8 + sf * (needed + luf->Clen.V[icol] + Col_Tail(s, icol));
      if (atEnd >= File_Top(luf)) {
        if (trace) Doc(vmi, "Make_Col_Space. Not space at end. Compres_Cols");
        Compres_Cols(s);
        avail = Col_Extra(s, icol);
      }
      if (needed > avail) {
        const int32_t next = iin->Cpnx.V[icol];
        const int32_t len = luf->Clen.V[icol] + Col_Tail(s, icol);
        if (next == iin->CPlast && luf->Clen.V[next] + Col_Tail(s, next) < len) {
          Move_Last_Col_Up(s, next, luf->Cstr.V[icol] - 1 + len + needed);
        } else {
          if (trace) {
            if (next == iin->CPlast)
              Doc(vmi, "Next col is last but long. Moving%10d to top.", icol);
            else
              Doc(vmi, "Make_Col_Space. Moving%10d to top. Len=%d", icol, len);
          }
          Col_to_top(s, icol, needed);
        }
      }
    }
    if (Stopped(s)) return;
    if (needed > Col_Extra(s, icol)) {
      Doc(vmi, "Make_Col_Space: no room after the move. Icol=%d Needed=%d Available=%d", icol, needed,
          Col_Extra(s, icol));
      Internal_Error(vmi, Err_Col_No_Room, true);
      return;
    }
  }
  // Reserve the slots behind the column (after its tail).
  int32_t *ir = luf->Ir.V;
  const int32_t q0 = luf->Cstr.V[icol] + luf->Clen.V[icol] + Col_Tail(s, icol);
  for (int32_t q = q0; q < q0 + needed; ++q) ir[q] = 0;
  luf->Clen.V[icol] += needed;
  if (icol == iin->CPlast) {
    luf->ColFileUsed =
        Span_End(sf, luf->Cstr.V[icol] - 1, luf->Clen.V[icol] + Col_Tail(s, icol));
    if (trace) Doc(vmi, "ColFileUsed increased to%10d", luf->ColFileUsed);
  }
}

void Make_Row_Space(Bump_State &s, int32_t irow, int32_t needed) {
  if (needed <= 0) return;
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const double sf = vmi->Space_Factor;
  const bool trace = vmi->Trace_Inv >= Lvl_Step;
  int32_t avail = Row_Extra(s, irow);
  if (needed > avail) {
    if (irow == iin->RPlast) {
      if (trace) {
        Doc(vmi, "Make_Row_Space before Compres: The last row%10d with Rstr=%d Rlen=%d and Iextra=%d",
            irow, luf->Rstr.V[irow], luf->Rlen.V[irow], needed);
      }
      Compres_Rows(s);
      if (needed > Row_Extra(s, irow)) {
        const int32_t len = luf->Rlen.V[irow] + Row_Tail(s, irow);
        Ensure_Top(s, To_Pos(static_cast<int64_t>(luf->Rstr.V[irow]) + len + needed - 1));
      }
    } else {
      const double atEnd =
          luf->RowFileUsed + sf * (needed + luf->Rlen.V[irow] + Row_Tail(s, irow));
      if (atEnd >= File_Top(luf)) {
        if (trace)
          Doc(vmi, "Make_Row_Space before Compres: This was not the last row%10d but we need to "
                   "compress.", irow);
        Compres_Rows(s);
        avail = Row_Extra(s, irow);
      }
      if (needed > avail) {
        const int32_t next = iin->Rpnx.V[irow];
        const int32_t len = luf->Rlen.V[irow] + Row_Tail(s, irow);
        if (next == iin->RPlast && luf->Rlen.V[next] + Row_Tail(s, next) < len) {
          Move_Last_Row_Up(s, next, luf->Rstr.V[irow] - 1 + len + needed);
        } else {
          if (trace) Doc(vmi, "Make_Row_Space. Moving%10d to top. Len=%d", irow, len);
          Row_to_top(s, irow, needed);
        }
      }
    }
    if (Stopped(s)) return;
    if (needed > Row_Extra(s, irow)) {
      Doc(vmi, "Make_Row_Space: no room after the move. Irow=%d Needed=%d Available=%d", irow, needed,
          Row_Extra(s, irow));
      Internal_Error(vmi, Err_Row_No_Room, true);
      return;
    }
  }
  int32_t *ic = luf->Ic.V;
  const int32_t p0 = luf->Rstr.V[irow] + luf->Rlen.V[irow] + Row_Tail(s, irow);
  for (int32_t p = p0; p < p0 + needed; ++p) ic[p] = 0;
  luf->Rlen.V[irow] += needed;
  if (irow == iin->RPlast) {
    luf->RowFileUsed =
        Span_End(sf, luf->Rstr.V[irow] - 1, luf->Rlen.V[irow] + Row_Tail(s, irow));
    if (trace) Doc(vmi, "RowFileUsed updated to%10d", luf->RowFileUsed);
  }
}

// ---------------------------------------------------------------------------
// Compaction of a whole file.  One pass along the physical chain: rows and
// columns only move down, each keeps its reserve.
// ---------------------------------------------------------------------------

void Compres_Rows(Bump_State &s) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const bool trace = vmi->Trace_Inv >= Lvl_Space;
  if (trace) Doc(vmi, "Compres_Rows.");
  const double sf = vmi->Space_Factor;
  int32_t *ic = luf->Ic.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  int32_t *rstr = luf->Rstr.V;
  const int32_t *rlen = luf->Rlen.V;
  const int32_t *rpnx = iin->Rpnx.V;
  int64_t moved = 0;
  int32_t used = 0;
  for (int32_t i = iin->RPfrst; i != 0; i = rpnx[i]) {
    const int32_t len = rlen[i] + Row_Tail(s, i);
    const int32_t from = rstr[i];
    if (used > from - 1) {
      used = from - 1;  // no row moves up: the reserve of the one before shrinks
    } else if (used < from - 1) {
      const int32_t to = used + 1;
      for (int32_t k = 0; k < len; ++k) {
        const int32_t c = ic[from + k];
        ic[to + k] = c;
        if (c != 0) {
          const int32_t q = r2cp[from + k];
          r2cp[to + k] = q;
          c2rp[q] = to + k;
        }
      }
      rstr[i] = to;
      moved += len;
    }
    used = Reserve_End(sf, used, len);
  }
  luf->RowFileUsed = used;
  ++s.St.Compres_Rows;
  s.St.Moved_Elements += moved;
  if (trace)
    Doc(vmi, "End of Compres_Rows: RowFileUsed=%10d and U_elefirst=%10d RowFill=%10d", used,
        luf->U_elefirst, iin->RowFill);
}

void Compres_Cols(Bump_State &s) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const bool trace = vmi->Trace_Inv >= Lvl_Space;
  if (trace) Doc(vmi, "Compres_Cols.");
  const double sf = vmi->Space_Factor;
  int32_t *ir = luf->Ir.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  double *a = s.vim->AUrmat.Val;
  int32_t *cstr = luf->Cstr.V;
  const int32_t *clen = luf->Clen.V;
  const int32_t *cpnx = iin->Cpnx.V;
  int64_t moved = 0;
  int32_t used = 0;
  for (int32_t j = iin->CPfrst; j != 0; j = cpnx[j]) {
    const int32_t len = clen[j] + Col_Tail(s, j);
    const int32_t from = cstr[j];
    if (used > from - 1) {
      used = from - 1;
    } else if (used < from - 1) {
      const int32_t to = used + 1;
      for (int32_t k = 0; k < len; ++k) {
        const int32_t r = ir[from + k];
        ir[to + k] = r;
        if (r != 0) {
          a[to + k] = a[from + k];
          const int32_t p = c2rp[from + k];
          c2rp[to + k] = p;
          r2cp[p] = to + k;
        }
      }
      cstr[j] = to;
      moved += len;
    }
    used = Round8(Reserve_End(sf, used, len));
  }
  luf->ColFileUsed = used;
  ++s.St.Compres_Cols;
  s.St.Moved_Elements += moved;
  if (trace) Doc(vmi, "End of Compres_Cols. ColFileUsed=%10d", used);
}

// ---------------------------------------------------------------------------
// Single elements.
// ---------------------------------------------------------------------------

void Store_ele_in_both(Bump_State &s, int32_t irow, int32_t icol, double value, bool compr) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  int32_t *ic = luf->Ic.V;
  int32_t *ir = luf->Ir.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  double *a = s.vim->AUrmat.Val;
  int32_t p, q;
  if (compr || s.Semi_Dense) {
    // At the old end of both compressed parts; the first tail element there
    // goes to the end of its tail.
    p = luf->Rstr.V[irow] + luf->Rlen.V[irow];
    q = luf->Cstr.V[icol] + luf->Clen.V[icol];
    if (!s.Semi_Dense) {
      const int32_t mr = iin->Mrex.V[irow];
      if (mr > 0) {
        if (s.vmi->Trace_Inv >= Lvl_Elem)
          Doc(s.vmi, "Moving uncompressed row-element from%10d to%10d Col=%d", p, p + mr, ic[p]);
        Move_Row_Entry(ic, c2rp, r2cp, p, p + mr);
      }
      const int32_t mc = iin->Mcex.V[icol];
      if (mc > 0) {
        if (s.vmi->Trace_Inv >= Lvl_Elem)
          Doc(s.vmi, "Moving uncompressed col-element from%10d to%10d Row=%d", q, q + mc, ir[q]);
        Move_Col_Entry(ir, a, c2rp, r2cp, q, q + mc);
      }
    }
    ++luf->Rlen.V[irow];
    ++luf->Clen.V[icol];
    if (!compr) iin->Clok.V[icol] = LFalse;  // no tails in semi-dense mode
  } else {
    p = luf->Rstr.V[irow] + luf->Rlen.V[irow] + iin->Mrex.V[irow];
    q = luf->Cstr.V[icol] + luf->Clen.V[icol] + iin->Mcex.V[icol];
    ++iin->Mrex.V[irow];
    ++iin->Mcex.V[icol];
    iin->Clok.V[icol] = LFalse;
  }
  ic[p] = icol;
  r2cp[p] = q;
  ir[q] = irow;
  c2rp[q] = p;
  a[q] = value;
  ++iin->RowFill;
}

void Remove_Element_From_Row(Bump_State &s, int32_t irow, int32_t p) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  int32_t *ic = luf->Ic.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  const int32_t last = luf->Rstr.V[irow] + luf->Rlen.V[irow] - 1;
  if (p != last) Move_Row_Entry(ic, c2rp, r2cp, last, p);
  int32_t vacated = last;
  const int32_t tail = Row_Tail(s, irow);
  if (tail > 0) {
    Move_Row_Entry(ic, c2rp, r2cp, last + tail, last);
    vacated = last + tail;
  }
  ic[vacated] = 0;
  --luf->Rlen.V[irow];
}

void Remove_Element_From_Col(Bump_State &s, int32_t icol, int32_t q) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  int32_t *ir = luf->Ir.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  double *a = s.vim->AUrmat.Val;
  const int32_t last = luf->Cstr.V[icol] + luf->Clen.V[icol] - 1;
  if (q != last) Move_Col_Entry(ir, a, c2rp, r2cp, last, q);
  int32_t vacated = last;
  const int32_t tail = Col_Tail(s, icol);
  if (tail > 0) {
    Move_Col_Entry(ir, a, c2rp, r2cp, last + tail, last);
    vacated = last + tail;
  }
  ir[vacated] = 0;
  --luf->Clen.V[icol];
}

int32_t Find_Element(Bump_State &s, int32_t irow, int32_t icol) {
  const LUF *luf = s.luf;
  const int32_t lr = luf->Rlen.V[irow] + Row_Tail(s, irow);
  const int32_t lc = luf->Clen.V[icol] + Col_Tail(s, icol);
  if (lr < lc) {
    const int32_t *ic = luf->Ic.V;
    const int32_t *r2cp = s.iin->R2cp.V;
    const int32_t p0 = luf->Rstr.V[irow];
    for (int32_t p = p0; p < p0 + lr; ++p)
      if (ic[p] == icol) return r2cp[p];
  } else {
    const int32_t *ir = luf->Ir.V;
    const int32_t q0 = luf->Cstr.V[icol];
    for (int32_t q = q0; q < q0 + lc; ++q)
      if (ir[q] == irow) return q;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Compression of the tail of one row or column.
// ---------------------------------------------------------------------------

void Compres_Uncompressed_Row(Bump_State &s, int32_t irow) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t tail = Row_Tail(s, irow);
  if (tail <= 0) {
    Doc(vmi, "Compres_Uncompressed_Row: IIN%%Mrex(%d)=%d and Semi_Dense=%s", irow,
        iin->Mrex.V[irow], Flag(s.Semi_Dense));
    Internal_Error(vmi, Err_Row_No_Tail, true);
    return;
  }
  if (vmi->Trace_Inv >= Lvl_Elem &&
      !Indx_Clear(s, "Compres_Uncompressed_Row: Input error: IIN%Indx(", Err_Row_Indx_In))
    return;
  ++s.St.Compres_Tails;
  int32_t *ic = luf->Ic.V;
  int32_t *ir = luf->Ir.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  double *a = s.vim->AUrmat.Val;
  int32_t *indx = iin->Indx.V;
  int32_t *clen = luf->Clen.V;
  const int32_t *cstr = luf->Cstr.V;
  int32_t *mcex = iin->Mcex.V;
  const double *clmin = iin->Clmin.Val;

  // 1. Where each column of the compressed part stands.
  const int32_t start = luf->Rstr.V[irow];
  const int32_t len0 = luf->Rlen.V[irow];
  for (int32_t p = start; p < start + len0; ++p) indx[ic[p]] = p;

  // 2-3. The tail, in order: a new column joins the compressed part (in the
  // row at the write position w, in the column in front of its tail); a
  // column met before is a second fill of one place: its value is added
  // there and its column entry leaves the column's tail.  A sum at or below
  // Clmin is marked by a negative Indx for removal after the pass.
  int32_t w = start + len0;
  const int32_t tend = start + len0 + tail;
  int32_t nsmall = 0;
  for (int32_t t = start + len0; t < tend; ++t) {
    const int32_t c = ic[t];
    if (c == 0) continue;
    const int32_t q = r2cp[t];
    const int32_t at = indx[c];
    if (at == 0) {
      if (t != w) Move_Row_Entry(ic, c2rp, r2cp, t, w);
      indx[c] = w;
      ++w;
      ++luf->Rlen.V[irow];
      const int32_t f = cstr[c] + clen[c];
      if (q != f) Swap_Col_Entries(ir, a, c2rp, r2cp, q, f);
      --mcex[c];
      ++clen[c];
      Col_Len_Changed(s, c, clen[c] - 1);
    } else {
      const int32_t first = at > 0 ? at : -at;
      const int32_t qf = r2cp[first];
      const double sum = a[qf] + a[q];
      a[qf] = sum;
      if (std::fabs(sum) <= clmin[c]) {
        if (vmi->Trace_Inv >= Lvl_Elem)
          Doc(vmi, "Small element in Compres_uncompressed_row. Icol=%d with Clen=%d and MCex=%d", c,
              clen[c], mcex[c]);
        if (at > 0) ++nsmall;
        indx[c] = -first;
      } else if (at < 0) {
        --nsmall;
        indx[c] = first;
      }
      const int32_t ql = cstr[c] + clen[c] + mcex[c] - 1;
      if (q != ql) Move_Col_Entry(ir, a, c2rp, r2cp, ql, q);
      ir[ql] = 0;
      --mcex[c];
      --iin->RowFill;  // two fills of one place are one element
    }
  }
  // 4. The tail is gone.
  for (int32_t t = w; t < tend; ++t) ic[t] = 0;
  iin->Mrex.V[irow] = 0;

  // 5. Small sums leave the row and their column, except from a column of
  // length 1 that still has a tail (it would be left with a tail only).
  if (nsmall > 0) {
    if (vmi->Trace_Inv >= Lvl_Step)
      Doc(vmi, "Small elements in Compres_Uncompressed_rol: Nsmall=%d Rlen=%d", nsmall,
          luf->Rlen.V[irow]);
    for (int32_t p = start + luf->Rlen.V[irow] - 1; p >= start; --p) {
      const int32_t c = ic[p];
      if (indx[c] >= 0) continue;
      if (clen[c] == 1 && mcex[c] > 0) {
        if (vmi->Trace_Inv >= Lvl_Step)
          Doc(vmi, "**** Skip compression in Row: Icol=%d with Clen=1 and Mcex=%d", c, mcex[c]);
        s.Need_Compression = true;
        indx[c] = p;
        continue;
      }
      const int32_t q = r2cp[p];
      indx[c] = 0;
      const int32_t last = start + luf->Rlen.V[irow] - 1;
      Remove_Element_From_Row(s, irow, p);
      if (p != last) indx[ic[p]] = p;  // the last one moved in (already looked at)
      Remove_Element_From_Col(s, c, q);
      Col_Len_Changed(s, c, clen[c] + 1);
    }
    if (vmi->Trace_Inv >= Lvl_Step)
      Doc(vmi, "After removing small elements. Rlen=%d", luf->Rlen.V[irow]);
  }

  // 6. The row's own list.
  if (luf->Rlen.V[irow] != len0) Row_Len_Changed(s, irow);

  // 7. Clear the scatter vector, checking it on the way.
  const int32_t len = luf->Rlen.V[irow];
  for (int32_t p = start; p < start + len; ++p) {
    const int32_t c = ic[p];
    if (indx[c] != p) {
      Doc(vmi, "COMPRES_UNCOMPRESSED_ROW: IIN%%Indx(%d)=%d but position=%d in row %d", c, indx[c], p,
          irow);
      Internal_Error(vmi, Err_Row_Indx_Out, true);
    }
    indx[c] = 0;
  }
}

void Compres_Uncompressed_Col(Bump_State &s, int32_t icol) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t tail = Col_Tail(s, icol);
  if (tail <= 0) {
    Doc(vmi, "Calling COMPRES_UNCOMPRESSED_COL with IIN%%Mcex(%d)=%d and Semi_Dense=%s", icol,
        iin->Mcex.V[icol], Flag(s.Semi_Dense));
    Internal_Error(vmi, Err_Col_No_Tail, true);
    return;
  }
  if (vmi->Trace_Inv >= Lvl_Elem &&
      !Indx_Clear(s, "COMPRES_UNCOMPRESSED_COL(A): IIN%Indx(", Err_Col_Indx_In))
    return;
  ++s.St.Compres_Tails;
  int32_t *ic = luf->Ic.V;
  int32_t *ir = luf->Ir.V;
  int32_t *c2rp = iin->C2rp.V;
  int32_t *r2cp = iin->R2cp.V;
  double *a = s.vim->AUrmat.Val;
  int32_t *indx = iin->Indx.V;
  int32_t *rlen = luf->Rlen.V;
  const int32_t *rstr = luf->Rstr.V;
  int32_t *mrex = iin->Mrex.V;
  const double clmin = iin->Clmin.Val[icol];

  const int32_t start = luf->Cstr.V[icol];
  const int32_t len0 = luf->Clen.V[icol];
  for (int32_t q = start; q < start + len0; ++q) indx[ir[q]] = q;

  int32_t w = start + len0;
  const int32_t tend = start + len0 + tail;
  int32_t nsmall = 0;
  for (int32_t u = start + len0; u < tend; ++u) {
    const int32_t r = ir[u];
    if (r == 0) continue;
    const int32_t p = c2rp[u];
    const int32_t at = indx[r];
    if (at == 0) {
      if (u != w) Move_Col_Entry(ir, a, c2rp, r2cp, u, w);
      indx[r] = w;
      ++w;
      ++luf->Clen.V[icol];
      const int32_t f = rstr[r] + rlen[r];
      if (p != f) Swap_Row_Entries(ic, c2rp, r2cp, p, f);
      --mrex[r];
      ++rlen[r];
      if (vmi->Trace_Inv >= Lvl_Elem)
        Doc(vmi, "Row length changes and row moved. Irow=%d Rlen=%d", r, rlen[r]);
      Row_Len_Changed(s, r);
    } else {
      const int32_t first = at > 0 ? at : -at;
      const double sum = a[first] + a[u];
      a[first] = sum;
      if (std::fabs(sum) <= clmin) {
        if (at > 0) ++nsmall;
        indx[r] = -first;
      } else if (at < 0) {
        --nsmall;
        indx[r] = first;
      }
      const int32_t pl = rstr[r] + rlen[r] + mrex[r] - 1;
      if (p != pl) Move_Row_Entry(ic, c2rp, r2cp, pl, p);
      ic[pl] = 0;
      --mrex[r];
      --iin->RowFill;
    }
  }
  for (int32_t u = w; u < tend; ++u) ir[u] = 0;
  iin->Mcex.V[icol] = 0;

  if (nsmall > 0) {
    if (vmi->Trace_Inv >= Lvl_Step)
      Doc(vmi, "Small elements in Compres_uncompressed_col: Nsmall=%d Clen=%d", nsmall,
          luf->Clen.V[icol]);
    for (int32_t q = start + luf->Clen.V[icol] - 1; q >= start; --q) {
      const int32_t r = ir[q];
      if (indx[r] >= 0) continue;
      if (rlen[r] == 1 && mrex[r] > 0) {
        if (vmi->Trace_Inv >= Lvl_Step)
          Doc(vmi, "**** Skip compression in Col: Irow=%d with Rlen=1 and Mrex=%d", r, mrex[r]);
        s.Need_Compression = true;
        indx[r] = q;
        continue;
      }
      const int32_t p = c2rp[q];
      indx[r] = 0;
      const int32_t last = start + luf->Clen.V[icol] - 1;
      Remove_Element_From_Col(s, icol, q);
      if (q != last) indx[ir[q]] = q;
      Remove_Element_From_Row(s, r, p);
      Row_Len_Changed(s, r);
    }
    if (vmi->Trace_Inv >= Lvl_Step)
      Doc(vmi, "After removing small elements. Clen=%d", luf->Clen.V[icol]);
  }

  // The column's own list: with a new length it leaves an M-list for the
  // C-list of its length (its count is not known any more).
  const int32_t len = luf->Clen.V[icol];
  if (len != len0) {
    if (vmi->Trace_Inv >= Lvl_Elem)
      Doc(vmi, "In compres_uncompressed_col(A): Length changes. Icol=%d Clen=%d Cold=%d", icol, len,
          len0);
    Remove_col_from_list(s, icol);
    iin->Mlow.V[icol] = Scale_Bound(iin->Mlow.V[icol], len0, len);
    Store_col_in_c_list(s, icol, len);
  }
  iin->Clok.V[icol] = LFalse;

  for (int32_t q = start; q < start + len; ++q) {
    const int32_t r = ir[q];
    if (indx[r] != q) {
      Doc(vmi, "COMPRES_DENSE_COL(B): IIN%%Indx(%d)=%d but position=%d in column %d", r, indx[r], q,
          icol);
      Internal_Error(vmi, Err_Col_Indx_Out, true);
    }
    indx[r] = 0;
  }
}

void Do_Extra_Compression(Bump_State &s, int32_t start) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const bool trace = vmi->Trace_Inv >= Lvl_Step;
  s.Do_Restart = false;
  for (;;) {
    const double t0 = trace ? Clock_Read(vmi) : 0.0;
    if (trace)
      Doc(vmi, "Starting Do_Extra_Compression loop with Start=%d and Length_Lim=%d", start,
          s.Length_Lim);
    int32_t numComp = 0, numScan = 0;
    const int32_t top = std::min(s.NumRow, s.Length_Lim - 1);
    for (int32_t c = start; c <= top; ++c) {
      // The next member is read first: a compression moves the member.
      for (int32_t i = iin->Stcr.V[c]; i != 0;) {
        const int32_t next = iin->Nxtr.V[i];
        ++numScan;
        if (iin->Mrex.V[i] > 0) {
          Compres_Uncompressed_Row(s, i);
          if (Stopped(s)) return;
          ++numComp;
        }
        i = next;
      }
      for (int32_t j = iin->Stcc.V[c]; j != 0;) {
        const int32_t next = iin->Nxtc.V[j];
        ++numScan;
        if (iin->Mcex.V[j] > 0) {
          Compres_Uncompressed_Col(s, j);
          if (Stopped(s)) return;
          ++numComp;
        }
        j = next;
      }
    }
    if (trace)
      Doc(vmi, "After loop. NumComp=%d NumScan=%d Time_Used=%.3f", numComp, numScan,
          Clock_Read(vmi) - t0);
    if (numComp == 0 || !s.DO_Squeeze) {
      s.Need_Compression = false;
      return;
    }
    // A compression may have brought other rows and columns below the
    // limit: look again from the start.
    s.Do_Restart = true;
    start = 1;
  }
}

// ---------------------------------------------------------------------------
// Space of the stores for the coming pivot.
// ---------------------------------------------------------------------------

void LU_Space(Bump_State &s) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const bool trace = vmi->Trace_Inv >= Lvl_Space;
  const double sf = vmi->Space_Factor;
  const int32_t rowlft = s.Rowlft;
  const int64_t left = Elements_Left(s);

  // 1-2. Is the rest dense?
  if (s.Dense) {
    s.Dense_Now = true;
  } else if (s.Len_Piv_Row >= 3 && s.Len_Piv_Col >= 3 && rowlft > 0) {
    const double density = static_cast<double>(left) / rowlft / rowlft;
    s.Dense_Now = (rowlft >= Dense_Min_Rows && density > Dense_Factor * vmi->Thread_Damp) ||
                  (rowlft < Dense_Min_Rows && rowlft >= 8 && density > 0.99);
  } else {
    s.Dense_Now = false;
  }
  if (s.Dense_Now && !s.Semi_Dense) {
    Switch_to_Semi_Dense(s, s.Piv_Indx);
    if (Stopped(s)) return;
  }

  // 3.
  iin->Max_Mmat = std::max({iin->Max_Mmat, s.Len_Piv_Row, s.Len_Piv_Col});

  if (!s.Dense_Now) {
    // 4. L-file and the work block of the step.
    const int32_t nextend = std::min(5, rowlft);
    const int64_t needL = static_cast<int64_t>(luf->LFileUsed) + int64_t(s.Len_Piv_Col) * nextend;
    if (needL > Size(luf->Lmat)) {
      Increase_L(vmi, To_Pos(needL));
      if (Stopped(s)) return;
    }
    if (s.Len_Piv_Row > 1 && s.Len_Piv_Col > 1) {
      const int64_t mr = std::min(s.Len_Piv_Col + nextend + 7, rowlft);
      const int64_t mc = std::min(s.Len_Piv_Row + nextend + 7, rowlft);
      const int64_t need = mr * mc;
      if (Size(iin->Mmat) < need) {
        if (trace)
          Doc(vmi, "LU_Space: Mmat-Space needed=%lld Len_Piv_Row=%d, Len_Piv_Col=%d, Factor=%g, "
                   "Rowlft=%d", static_cast<long long>(need), s.Len_Piv_Row, s.Len_Piv_Col, sf,
              rowlft);
        Increase_Mmat(s, To_Pos(need));
        if (Stopped(s)) return;
      }
      const int32_t edge = std::min(std::max(s.Len_Piv_Row, s.Len_Piv_Col) + nextend + 1, rowlft);
      iin->Max_Mmat = std::max(iin->Max_Mmat, edge);
    }

    // 5-6. Room at the end of the row file and of the column file for the
    // predicted fill of the next steps; compaction first, growth when the
    // compaction leaves the file too full.
    const double fill = sf * static_cast<double>(s.MarkBest) * nextend + rowlft;
    const int64_t uReserve = static_cast<int64_t>(s.Len_Piv_Row) * nextend;
    auto top = [&]() {
      return std::min<int64_t>(luf->U_elefirst - uReserve, luf->ColASpace - 1);
    };
    for (int pass = 0; pass < 2; ++pass) {
      const bool rows = pass == 0;
      int32_t &used = rows ? luf->RowFileUsed : luf->ColFileUsed;
      if (static_cast<double>(top()) > used + fill) continue;
      if (trace) {
        if (rows)
          Doc(vmi, "Before row compression in LU_Space: RowFileUsed=%d U_elefirst =%d and "
                   "ColASpace=%d", used, luf->U_elefirst, luf->ColASpace);
        else
          Doc(vmi, "Before col compression in LU_Space: ColFileUsed=%d ColASpace=%d and "
                   "U_elefirst=%d", used, luf->ColASpace, luf->U_elefirst);
        Doc(vmi, "MarkBest=%d Piv_Indx=%d Rowlft=%d and Factor=%g", s.MarkBest, s.Piv_Indx, rowlft,
            sf);
      }
      if (rows)
        Compres_Rows(s);
      else
        Compres_Cols(s);
      const double needed = used + fill;
      if (luf->ColASpace < needed ||
          static_cast<float>(used) > 0.6f * static_cast<float>(top())) {
        if (trace) Doc(vmi, "Increase_ASpace: High=%.0f ColASpace=%d", needed, luf->ColASpace);
        // Two more, so that the top (ColASpace - 1) lies above the need.
        Increase_ASpace(vmi, To_Pos(needed + 2.0));
        if (Stopped(s)) return;
      }
      const int64_t t = top();
      if (static_cast<double>(t) <= needed || t <= 2 * static_cast<int64_t>(used)) {
        const double want = std::max(needed, 2.0 * used);
        if (trace) Doc(vmi, "Increase_Uspace: High=%.0f Low=%lld", want, static_cast<long long>(t));
        Grow_U(s, To_Pos(luf->RowUSpace + (want - static_cast<double>(t)) + 1.0));
        if (Stopped(s)) return;
      }
    }
  } else {
    // 7. The dense rest: L and U of a full block, the block in Mmat.
    s.MarkHigh = rowlft * rowlft;
    const int64_t sq = static_cast<int64_t>(rowlft) * rowlft;
    if (trace)
      Doc(vmi, "LU_Space: Dense. Nele=%lld Rowlft=%d Density=%g", static_cast<long long>(left),
          rowlft, rowlft > 0 ? static_cast<double>(left) / rowlft / rowlft : 0.0);
    const int64_t needL = static_cast<int64_t>(luf->LFileUsed) + left + sq;
    if (trace)
      Doc(vmi, "LU_Space: LFileUsed=%d size(Lmat)=%d Needed=%lld", luf->LFileUsed, Size(luf->Lmat),
          static_cast<long long>(needL));
    if (needL > Size(luf->Lmat)) {
      Increase_L(vmi, To_Pos(needL));
      if (Stopped(s)) return;
    }
    const int64_t tri = (sq + rowlft) / 2;  // the triangle of U
    const int64_t needU = static_cast<int64_t>(luf->RowFileUsed) + tri + 1;
    if (trace)
      Doc(vmi, "LU_Space: RowFileUsed=%d Needed=%lld RowUspace=%d", luf->RowFileUsed,
          static_cast<long long>(needU), luf->RowUSpace);
    if (needU > luf->U_elefirst) {
      Grow_U(s, To_Pos(luf->RowUSpace + (needU - luf->U_elefirst)));
      if (Stopped(s)) return;
    }
    const int32_t ld = Round8(rowlft);
    const int64_t needM = static_cast<int64_t>(ld) * rowlft;
    if (Size(iin->Mmat) < needM) {
      Increase_Mmat(s, To_Pos(needM));
      if (Stopped(s)) return;
    }
    iin->Max_Mmat = std::max(iin->Max_Mmat, ld);
  }

  // 8. The block lists.
  if (Lists_Short(s)) {
    if (trace)
      Doc(vmi, "LU_Space: Insufficient length in Clin, Clol, Rlin, Rlol, Lisr, and Lisc.");
    Increase_Mmat_Lists(s);
  }
}

// ---------------------------------------------------------------------------
// The dense work block and the block lists.
// ---------------------------------------------------------------------------

void Define_Mmat_Rows(Bump_State &s) {
  IIN *iin = s.iin;
  const int32_t size = Size(iin->Mmat);
  int32_t rows = static_cast<int32_t>(std::sqrt(static_cast<float>(size)) + 0.5f);
  if (rows >= 25) rows = (rows + 4) & ~7;
  if (rows < 1) rows = 1;
  s.Mmat_Rows = rows;
  s.Mmat_Cols = size / rows;
  iin->Max_Mmat = std::max({iin->Max_Mmat, s.Mmat_Rows, s.Mmat_Cols});
  if (Lists_Short(s)) {
    if (s.vmi->Trace_Inv >= Lvl_Space)
      Doc(s.vmi, "Define_Mmat_Rows: Insufficient length in Clin, Clol, Rlin, Rlol, Lisr, and Lisc.");
    Increase_Mmat_Lists(s);
    if (Stopped(s)) return;
  }
  if (s.vmi->Trace_Inv >= Lvl_Space)
    Doc(s.vmi, "Define_Mmat_Rows: New Mmat_Rows=%d and Mmat_Cols=%d", s.Mmat_Rows, s.Mmat_Cols);
}

void Assign_Mmat(Bump_State &s, int32_t &mr, int32_t &mc) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const int32_t size = Size(iin->Mmat);
  const int32_t lc = s.Len_Piv_Col, lr = s.Len_Piv_Row;
  double extra = 0.0;
  if (2 * static_cast<int64_t>(lc) <= s.Mmat_Rows && 2 * static_cast<int64_t>(lr) <= s.Mmat_Cols) {
    mr = s.Mmat_Rows;
    mc = s.Mmat_Cols;
  } else {
    // (lc + e)(lr + e) = size: the block keeps the shape of the pivot.
    const double h = std::abs(lr - lc) / 2.0;
    extra = std::sqrt(static_cast<double>(size) + h * h) - (lr + lc) / 2.0;
    int32_t plain = static_cast<int32_t>(std::min(lc + extra, static_cast<double>(s.Rowlft)));
    plain = std::max(plain, std::min(lc, s.Rowlft));
    plain = std::max(plain, 1);
    auto fits = [&](int32_t r) { return r >= 1 && r >= lc && size / r >= lr; };
    mr = plain >= 25 ? (plain + 4) & ~7 : plain;
    if (!fits(mr) && mr != plain && fits(mr - 8)) mr -= 8;
    if (!fits(mr)) mr = plain;
    mc = size / mr;
    if (!fits(mr)) {
      Doc(vmi, "Assign_Mmat: Unexpected Mr and MC. Extra=%g", extra);
      Doc(vmi, "Assign_Mmat: size(Mmat)=%d Mr=%d and Mc=%d", size, mr, mc);
      Internal_Error(vmi, Err_Assign_Mmat, true);
      return;
    }
  }
  iin->Max_Mmat = std::max({iin->Max_Mmat, mr, mc});
  if (Lists_Short(s)) {
    if (vmi->Trace_Inv >= Lvl_Space)
      Doc(vmi, "Assign_Mmat: Insufficient length in Clin, Clol, Rlin, Rlol, Lisr, and Lisc.");
    Increase_Mmat_Lists(s);
  }
}

void Increase_Mmat(Bump_State &s, int32_t needed) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  LUF *luf = s.luf;
  const int32_t old = Size(iin->Mmat);
  const int32_t target = To_Pos(std::max<int64_t>(needed, 2 * static_cast<int64_t>(old)));
  if (vmi->Trace_Inv >= Lvl_Space) {
    Doc(vmi, "Increasing Mmat and Ucmat by%10d", target - old);
    Doc(vmi, "Original length=%10d and new length=%10d", old, target);
  }
  if (target > old) Increase_RVec(vmi, iin->Mmat, target - old);
  if (Size(luf->Ucmat) < target) Increase_RVec(vmi, luf->Ucmat, target - Size(luf->Ucmat));
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Failure attempting to increase Mmat and Ucmat by%10d elements.", target - old);
    return;
  }
  luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
  Define_Mmat_Rows(s);
}

void Increase_Mmat_Lists(Bump_State &s) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const int32_t old = iin->BlockSize;
  const int64_t want = std::max<int64_t>(2 * static_cast<int64_t>(old), iin->Max_Mmat);
  const int32_t target = static_cast<int32_t>(std::min<int64_t>(want, s.NumRow));
  if (target <= old) return;
  const int32_t delta = target - old;
  if (vmi->Trace_Inv >= Lvl_Space) {
    Doc(vmi, "Increasing Clin, Clol, Lngc, Rlin, Rlol, Lngr, Lisr, and Lisc by%10d", delta);
    Doc(vmi, "Original length=%10d and new length=%10d", old, target);
    Doc(vmi, "RowLft=%d and Max_Mmat=%d", s.Rowlft, iin->Max_Mmat);
    Doc(vmi, "Extra factor for Rlin to handle threads=%d", iin->Rlin.NumThread);
  }
  auto growInt = [&](IntVec &v, const char *name) {
    if (Size(v) < target) Increase_Int(vmi, v, name, target - Size(v));
  };
  auto growLog = [&](LogVec &v, const char *name) {
    if (Size(v) < target) Increase_Log(vmi, v, name, target - Size(v));
  };
  growInt(iin->Lisr, "IIN%Lisr");
  growInt(iin->Rlol, "IIN%Rlol");
  growLog(iin->Lngr, "IIN%Lngr");
  growInt(iin->Lisc, "IIN%Lisc");
  growInt(iin->Clol, "IIN%Clol");
  growLog(iin->Lngc, "IIN%Lngc");
  // Rlin keeps one section per thread (the parallel merge counts into its
  // own section); Length is that of one section.
  if (iin->Rlin.Length < target) Increase_IVec(vmi, iin->Rlin, target - iin->Rlin.Length);
  if (iin->Clin.Length < target) Increase_IVec(vmi, iin->Clin, target - iin->Clin.Length);
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Failure attempting to increase Clin etc by%10d elements.", delta);
    return;
  }
  iin->BlockSize = target;
}

}  // namespace vlu
