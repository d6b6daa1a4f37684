// Storage of the factors during updates: the two copies of U and the L-file.
//
//   LUF%Ic, VIM%AUrmat    row copy of U.  Row r: slots Rstr(r) .. Rstr(r) +
//                         Rlen(r) - 1, pivot first.  Rows lie in
//                         RowFileUsed .. RowUSpace; everything below
//                         RowFileUsed is free.
//   LUF%Ir, LUF%Ucmat     column copy of U.  Column c: slots Cstr(c) ..
//                         Cstr(c) + Clen(c) - 1, pivot first.  Columns lie
//                         in ColFileUsed .. ColUSpace; below is free.
//   LUF%Lmat, Lrow, Lpiv  the L-file: L columns (LUF%Lsor) then row etas
//                         (LUF%Lstr), LFileUsed elements.
//
// Both U files grow downward.  A slot whose index (Ic or Ir) is 0 is free,
// inside the used range too, and every free slot has index 0: rows and
// columns extend into a free neighbour slot when they can and otherwise move
// to the low end of their file.  A compression packs a file against its top;
// when less than half of it stays free (Space_Factor 2) the vectors are
// doubled, so that compressions stay rare.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "runtime/dumps.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "update/update.h"
#include "update/update_inner.h"

namespace vlu {

namespace {

constexpr int Err_RemoveU_Not_Found = 6501;
constexpr int Err_Store_Not_Found = 6502;
constexpr int Err_Store_Balance = 6503;
constexpr int Err_Pivot_Not_Found = 6504;

constexpr int64_t Max_Len = 2147483647;

int32_t Clamp_Len(int64_t t) { return static_cast<int32_t>(std::min<int64_t>(t, Max_Len)); }

int Trace_Level(const VMI *vmi) { return std::max(vmi->Trace_Upd, vmi->Trace_Inv); }

// Growth in the memory mode that lets an allocation fail quietly: the
// callers look at the room they got, not at the flag.
struct Explore_Memory {
  VMI *vmi;
  int32_t mode;
  explicit Explore_Memory(VMI *v) : vmi(v), mode(v->MemoryMode) { vmi->MemoryMode = 2; }
  ~Explore_Memory() {
    vmi->MemoryMode = mode;
    vmi->EnoughSpace = true;
  }
};

// The file is judged too full when the free slots below it are at most
// (Space_Factor - 1) times the slots in use.
bool Too_Full(const VMI *vmi, int32_t fileUsed, int32_t space) {
  const double freeSlots = static_cast<double>(fileUsed) - 1.0;
  const double used = static_cast<double>(space) - static_cast<double>(fileUsed) + 1.0;
  return freeSlots <= (vmi->Space_Factor - 1.0) * used;
}

}  // namespace

void RemoveZerosfromU(VMI *vmi) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t n = vim->NumRow;
  const double tolZero = vmi->Tol_Zero;
  int32_t *ic = luf->Ic.V, *ir = luf->Ir.V;
  int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V, *cstr = luf->Cstr.V, *clen = luf->Clen.V;
  double *aur = vim->AUrmat.Val, *ucmat = luf->Ucmat.Val;

  int32_t removed = 0;
  for (int32_t r = 1; r <= n; ++r) {
    const int32_t s = rstr[r];
    // From the end down to the second slot: the pivot always stays.
    for (int32_t j = s + rlen[r] - 1; j > s; --j) {
      if (std::fabs(aur[j]) > tolZero) continue;
      const int32_t c = ic[j];
      const int32_t last = s + rlen[r] - 1;
      ic[j] = ic[last];
      aur[j] = aur[last];
      ic[last] = 0;
      rlen[r] -= 1;
      // The same element in its column.
      const int32_t cs = cstr[c];
      const int32_t cEnd = cs + clen[c] - 1;
      clen[c] -= 1;
      if (ir[cEnd] != r) {
        const int32_t q = Int_Lookup(ir, cs + 1, cEnd - 1, r);
        if (q == 0) {
          Doc(vmi, "Irow=%d Istr=%d Iend=%d", r, cs, cEnd);
          PP_Int(vmi, luf->Ir, "LUF%Ir", cs - 1, cEnd - cs + 1);
          Internal_Error(vmi, Err_RemoveU_Not_Found, true);
          return;
        }
        ir[q] = ir[cEnd];
        ucmat[q] = ucmat[cEnd];
      }
      ir[cEnd] = 0;
      ++removed;
    }
  }
  luf->U_numele -= removed;
  if (Trace_Level(vmi) >= 1) {
    Doc(vmi, "Removing small elements from U. Number removed=%d", removed);
    Doc(vmi, "New number of elements in U=%d", luf->U_numele);
  }
}

void RemoveZerosfromL(VMI *vmi) {
  LUF *luf = vmi->Luf;
  const double tolL = std::max(vmi->Tol_Zero, vmi->Eps);
  int32_t *lsor = luf->Lsor.V, *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
  double *lmat = luf->Lmat.Val;
  const int32_t nCols = luf->L_Cols;

  int32_t removed = 0;
  int32_t from = lsor[1];  // the start of column c before any change
  for (int32_t c = 1; c <= nCols; ++c) {
    const int32_t to = lsor[c + 1] - 1;  // not lowered yet
    for (int32_t p = from; p <= to; ++p) {
      if (std::fabs(lmat[p]) > tolL) {
        lmat[p - removed] = lmat[p];
        lrow[p - removed] = lrow[p];
        lpiv[p - removed] = lpiv[p];
      } else {
        ++removed;
      }
    }
    from = lsor[c + 1];
    lsor[c + 1] -= removed;
  }
  // Columns left empty lose their entry: an entry equal to its predecessor
  // goes.
  int32_t kept = 1;
  for (int32_t c = 2; c <= nCols + 1; ++c) {
    if (lsor[c] == lsor[kept]) continue;
    lsor[++kept] = lsor[c];
  }
  // An L-file that lost every element still ends at LFileUsed + 1.
  const int32_t skipped = nCols + 1 - kept;
  luf->L_Cols = nCols - skipped;
  luf->LFileUsed -= removed;
  if (Trace_Level(vmi) >= 1) {
    Doc(vmi, "Removing small elements from L. Number removed=%d", removed);
    Doc(vmi, "New number of columns  in L=%d", luf->L_Cols);
    Doc(vmi, "New number of elements in L=%d", luf->LFileUsed);
  }
}

void Increase_Lmat(VMI *vmi, int32_t required) {
  LUF *luf = vmi->Luf;
  const bool trace = Trace_Level(vmi) >= 2;
  if (trace) {
    Doc(vmi, "Increasing structure for L-factor Lmat, Lrow, and Lpiv to at least%10d", required);
    Doc(vmi, "Original length Lmat=%d", Size(luf->Lmat));
  }
  const int32_t t = Clamp_Len(std::max<int64_t>(required, 2 * static_cast<int64_t>(Size(luf->Lmat))));
  if (Size(luf->Lmat) < t) Increase_RVec(vmi, luf->Lmat, t - Size(luf->Lmat));
  if (Size(luf->Lrow) < t) Increase_Int(vmi, luf->Lrow, "LUF%Lrow", t - Size(luf->Lrow));
  if (Size(luf->Lpiv) < t) Increase_Int(vmi, luf->Lpiv, "LUF%Lpiv", t - Size(luf->Lpiv));
  if (!vmi->EnoughSpace) {
    if (trace) Doc(vmi, "Failure when attempting to increase Lmat, Lrow, and Lpiv");
    return;
  }
  vmi->Vim->Upd_Grow_L += 1;
  if (trace) Doc(vmi, "Adjusted length of Lmat, Lrow, and Lpiv=%d", Size(luf->Lmat));
}

void Increase_Ucmat(VMI *vmi, int32_t required, bool copy) {
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const bool trace = Trace_Level(vmi) >= 2;
  if (trace) {
    Doc(vmi, "Increasing Column structure for U-factor Ir and Ucmat to at least%10d Copy=%s",
        required, copy ? "T" : "F");
    Doc(vmi, "Original length Ir=%d and Ucmat=%d", Size(luf->Ir), Size(luf->Ucmat));
  }
  const int32_t t = Clamp_Len(std::max<int64_t>(
      required, 2 * static_cast<int64_t>(std::min(Size(luf->Ir), Size(luf->Ucmat)))));
  if (Size(luf->Ir) <= t) Increase_Int(vmi, luf->Ir, "LUF%Ir", t - Size(luf->Ir), copy);
  if (Size(luf->Ucmat) <= t) Increase_RVec(vmi, luf->Ucmat, t - Size(luf->Ucmat), copy);
  if (!vmi->EnoughSpace) {
    if (trace) Doc(vmi, "Failure when attempting to increase Ir and Ucmat");
    return;
  }
  luf->ColASpace = std::min(Size(iin->C2rp), std::min(Size(iin->R2cp), Size(luf->Ir)));
  luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
  if (trace) {
    Doc(vmi, "Adjusted length Ir=%d and Ucmat=%d", Size(luf->Ir), Size(luf->Ucmat));
    Doc(vmi, "ColASpace=%d and ColUSpace=%d", luf->ColASpace, luf->ColUSpace);
  }
}

void Update_CompressColumn(VMI *vmi, int32_t required, bool &error) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t n = vim->NumRow;
  const bool trace = Trace_Level(vmi) >= 2;
  error = false;
  vim->Upd_Compress_Col += 1;
  if (trace) Doc(vmi, "Before compressing column structure. ColFileUsed=%d", luf->ColFileUsed);

  {
    int32_t *ir = luf->Ir.V, *cstr = luf->Cstr.V;
    double *ucmat = luf->Ucmat.Val;
    // Each column is found in the sweep by the marker -j in its first slot;
    // meanwhile Cstr(j) keeps the index that the marker displaced.
    for (int32_t j = 1; j <= n; ++j) {
      const int32_t s = cstr[j];
      cstr[j] = ir[s];
      ir[s] = -j;
    }
    // One sweep from the top: every used slot moves up over the free ones
    // seen so far, so the order within each column is kept.
    const int32_t top = luf->ColUSpace, bottom = luf->ColFileUsed;
    int32_t ndrop = 0;
    for (int32_t s = top; s >= bottom; --s) {
      const int32_t idx = ir[s];
      if (idx == 0) {
        ++ndrop;
        continue;
      }
      const int32_t to = s + ndrop;
      if (idx < 0) {
        ir[to] = cstr[-idx];
        cstr[-idx] = to;
      } else {
        ir[to] = idx;
      }
      ucmat[to] = ucmat[s];
    }
    Zero_Int(ir + bottom - 1, ndrop);
    luf->ColFileUsed = bottom + ndrop;
    if (trace)
      Doc(vmi, "After compressing column structure. Ndrop=%d ColFileUsed=%d", ndrop,
          luf->ColFileUsed);
  }

  // Double the file when little stays free, so that the next compression
  // is far away; on failure the compressed file stands.
  if (luf->ColFileUsed <= required || Too_Full(vmi, luf->ColFileUsed, luf->ColUSpace)) {
    const int32_t oldSpace = luf->ColUSpace;
    bool grown = false;
    {
      Explore_Memory guard(vmi);
      Increase_Ucmat(vmi, Clamp_Len(2 * static_cast<int64_t>(oldSpace)), true);
      grown = vmi->EnoughSpace;
    }
    const int32_t d = luf->ColUSpace - oldSpace;
    if (grown && d > 0) {
      int32_t *ir = luf->Ir.V, *cstr = luf->Cstr.V;
      double *ucmat = luf->Ucmat.Val;
      const int32_t first = luf->ColFileUsed;
      for (int32_t s = oldSpace; s >= first; --s) {
        ir[s + d] = ir[s];
        ucmat[s + d] = ucmat[s];
      }
      // Everything below the moved file is free, new slots included.
      Zero_Int(ir + first - 1, d);
      for (int32_t j = 1; j <= n; ++j) cstr[j] += d;
      luf->ColFileUsed = first + d;
      vim->Upd_Grow_Col += 1;
      if (trace)
        Doc(vmi, "After increase column structure. ColUSpace=%d and ColFileUsed=%d",
            luf->ColUSpace, luf->ColFileUsed);
    }
  }
  if (required >= luf->ColFileUsed) {
    error = true;
    if (trace) Doc(vmi, "Insufficient memory after Compressing columns.");
  }
}

void Update_CompressRow(VMI *vmi, int32_t required) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t n = vim->NumRow;
  const bool trace = Trace_Level(vmi) >= 2;
  vim->Upd_Compress_Row += 1;
  if (trace) Doc(vmi, "Before compressing row structure. RowFileUsed=%d", luf->RowFileUsed);

  {
    int32_t *ic = luf->Ic.V, *rstr = luf->Rstr.V;
    double *aur = vim->AUrmat.Val;
    for (int32_t j = 1; j <= n; ++j) {
      const int32_t s = rstr[j];
      rstr[j] = ic[s];
      ic[s] = -j;
    }
    const int32_t top = luf->RowUSpace, bottom = luf->RowFileUsed;
    int32_t ndrop = 0;
    for (int32_t s = top; s >= bottom; --s) {
      const int32_t idx = ic[s];
      if (idx == 0) {
        ++ndrop;
        continue;
      }
      const int32_t to = s + ndrop;
      if (idx < 0) {
        ic[to] = rstr[-idx];
        rstr[-idx] = to;
      } else {
        ic[to] = idx;
      }
      aur[to] = aur[s];
    }
    Zero_Int(ic + bottom - 1, ndrop);
    luf->RowFileUsed = bottom + ndrop;
    if (trace)
      Doc(vmi, "After compressing row structure. Ndrop=%d RowFileUsed=%d", ndrop,
          luf->RowFileUsed);
  }

  if (luf->RowFileUsed <= required || Too_Full(vmi, luf->RowFileUsed, luf->RowUSpace)) {
    const int32_t oldSpace = luf->RowUSpace;
    const int32_t t = Clamp_Len(2 * static_cast<int64_t>(oldSpace));
    if (Trace_Level(vmi) >= 2) {
      Doc(vmi, "Increasing Row structure for U-factor Ic and Aurmat (eqv Amat) by at least%10d",
          oldSpace);
      Doc(vmi, "Original length Ic=%d AUrmat=%d", Size(luf->Ic), Size(vim->AUrmat));
    }
    bool grown = false;
    {
      Explore_Memory guard(vmi);
      if (Size(luf->Ic) <= t) Increase_Int(vmi, luf->Ic, "LUF%Ic", t - Size(luf->Ic));
      if (Size(vim->AUrmat) <= t) Increase_RVec(vmi, vim->AUrmat, t - Size(vim->AUrmat));
      grown = vmi->EnoughSpace;
    }
    if (!grown) {
      if (trace) Doc(vmi, "Memory failure when attempting to increase Ic and Aurmat");
      return;
    }
    luf->RowUSpace = std::min(Size(luf->Ic), Size(vim->AUrmat));
    const int32_t d = luf->RowUSpace - oldSpace;
    if (d > 0) {
      int32_t *ic = luf->Ic.V, *rstr = luf->Rstr.V;
      double *aur = vim->AUrmat.Val;
      const int32_t first = luf->RowFileUsed;
      for (int32_t s = oldSpace; s >= first; --s) {
        ic[s + d] = ic[s];
        aur[s + d] = aur[s];
      }
      Zero_Int(ic + first - 1, d);
      for (int32_t j = 1; j <= n; ++j) rstr[j] += d;
      luf->RowFileUsed = first + d;
      vim->Upd_Grow_Row += 1;
      if (trace)
        Doc(vmi, "After increasing row structure. RowUSpace=%d and RowFileUsed=%d",
            luf->RowUSpace, luf->RowFileUsed);
    }
  }
}

double Row_Max_Behind_First(const VMI *vmi, int32_t irow) {
  const LUF *luf = vmi->Luf;
  const double *aur = vmi->Vim->AUrmat.Val;
  const int32_t s = luf->Rstr.V[irow], e = s + luf->Rlen.V[irow];
  double m = 0.0;
  for (int32_t j = s + 1; j < e; ++j) m = std::max(m, std::fabs(aur[j]));
  return m;
}

void Place_Pivot_In_Column(VMI *vmi, Upd_State &st, int32_t icolp, int32_t irow, int32_t &ifill) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const double value = vim->WorkZ.Val[icolp];
  if (vim->HelpZ.V[icolp] < 0) {
    // The element is in the column already: bring it to the front.
    ifill = 0;
    int32_t *ir = luf->Ir.V;
    double *ucmat = luf->Ucmat.Val;
    const int32_t s = luf->Cstr.V[icolp], e = s + luf->Clen.V[icolp] - 1;
    const int32_t q = Int_Lookup(ir, s, e, irow);
    if (q == 0) {
      Doc(vmi, "Irowsp=%d not found in Ir between Istr=%d and Iend=%d", irow, s, e);
      PP_Int(vmi, luf->Ir, "LUF%IR", s - 1, e - s + 1);
      Internal_Error(vmi, Err_Pivot_Not_Found, true);
      return;
    }
    ir[q] = ir[s];
    ucmat[q] = ucmat[s];
    ir[s] = irow;
    ucmat[s] = value;
    return;
  }

  // A new element, and it goes first.
  ifill = 1;
  int32_t *ir = luf->Ir.V;
  double *ucmat = luf->Ucmat.Val;
  int32_t *cstr = luf->Cstr.V, *clen = luf->Clen.V;
  const int32_t s = cstr[icolp], l = clen[icolp];
  if (s - 1 >= 1 && ir[s - 1] == 0) {
    cstr[icolp] = s - 1;
    ir[s - 1] = irow;
    ucmat[s - 1] = value;
    luf->ColFileUsed = std::min(luf->ColFileUsed, s - 1);
    clen[icolp] = l + 1;
    return;
  }
  if (s + l <= luf->ColUSpace && ir[s + l] == 0) {
    ir[s + l] = ir[s];
    ucmat[s + l] = ucmat[s];
    ir[s] = irow;
    ucmat[s] = value;
    clen[icolp] = l + 1;
    return;
  }
  // The column moves to the low end, the new pivot in front of it.
  if (luf->ColFileUsed <= l + 1) {
    if (st.Trace >= 2) Doc(vmi, "Compressing column structure.");
    bool error = false;
    Update_CompressColumn(vmi, l + 1, error);
    if (error) {
      st.Fail_Memory = true;
      return;
    }
    ir = luf->Ir.V;
    ucmat = luf->Ucmat.Val;
    cstr = luf->Cstr.V;
    clen = luf->Clen.V;
  }
  const int32_t from = cstr[icolp];
  const int32_t to = luf->ColFileUsed - l;
  for (int32_t k = l - 1; k >= 0; --k) {
    ir[to + k] = ir[from + k];
    ucmat[to + k] = ucmat[from + k];
    ir[from + k] = 0;
  }
  ir[to - 1] = irow;
  ucmat[to - 1] = value;
  cstr[icolp] = to - 1;
  luf->ColFileUsed = to - 1;
  clen[icolp] = l + 1;
}

void Store_Work_Row(VMI *vmi, Upd_State &st, int32_t irow, int32_t icolp, int32_t len) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const double tolZero = vmi->Tol_Zero;
  int32_t *helpi = vim->HelpI.V, *helpz = vim->HelpZ.V;
  double *workz = vim->WorkZ.Val;

  // 1. Room in the row file.  The stored elements of the row are still in
  // both copies (Rlen counts them), the rest of the list is fill.
  const int32_t old = luf->Rlen.V[irow];
  const int32_t nfill = len - old;
  int32_t jstr = luf->Rstr.V[irow];
  {
    const int32_t jend = jstr + old - 1;
    const int32_t *ic = luf->Ic.V;
    bool stay = jend + nfill <= luf->RowUSpace;
    for (int32_t j = jend + 1; stay && j <= jend + nfill; ++j) stay = ic[j] == 0;
    if (!stay) {
      if (len >= luf->RowFileUsed) Update_CompressRow(vmi, len);
      if (luf->RowFileUsed <= luf->Rlen.V[irow] + nfill) {
        if (st.Trace >= 1) Doc(vmi, "Insufficient space to increase row structure in Ucmat and Ir.");
        st.Fail_Memory = true;
        return;
      }
      int32_t *icw = luf->Ic.V;
      jstr = luf->Rstr.V[irow];
      for (int32_t j = jstr; j < jstr + old; ++j) icw[j] = 0;
      luf->RowFileUsed -= len;
      luf->Rstr.V[irow] = luf->RowFileUsed;
      jstr = luf->RowFileUsed;
    }
  }

  // 2. The pivot to the front of the list.
  {
    const int32_t k = std::abs(helpz[icolp]);
    if (k != 1) {
      const int32_t c1 = helpi[1];
      helpi[1] = icolp;
      helpi[k] = c1;
      helpz[c1] = helpz[c1] < 0 ? -k : k;
      helpz[icolp] = helpz[icolp] < 0 ? -1 : 1;
    }
  }

  // 3. The row, dropping what has become too small.
  int32_t written = 0;
  {
    int32_t *ic = luf->Ic.V;
    double *aur = vim->AUrmat.Val;
    for (int32_t k = 1; k <= len; ++k) {
      const int32_t c = helpi[k];
      const double v = workz[c];
      if (std::fabs(v) <= tolZero) continue;
      ic[jstr + written] = c;
      aur[jstr + written] = v;
      ++written;
    }
    for (int32_t j = jstr + written; j < jstr + len; ++j) ic[j] = 0;
  }
  luf->Rlen.V[irow] = written;
  const int32_t ndrop = len - written;
  luf->U_numele += nfill - ndrop;

  // 4. The pivot in its column.
  int32_t ifill = 0;
  Place_Pivot_In_Column(vmi, st, icolp, irow, ifill);
  if (st.Fail_Memory || vmi->Exception != 0) return;
  workz[icolp] = 0.0;
  helpz[icolp] = 0;

  // 5. The other elements in their columns: new values, removals and fill.
  int32_t idrop = 0;
  for (int32_t k = 2; k <= len; ++k) {
    const int32_t c = helpi[k];
    const int32_t h = helpz[c];
    const double v = workz[c];
    helpz[c] = 0;
    workz[c] = 0.0;
    int32_t *ir = luf->Ir.V;
    double *ucmat = luf->Ucmat.Val;
    int32_t *cstr = luf->Cstr.V, *clen = luf->Clen.V;
    if (h < 0) {
      const int32_t s = cstr[c], e = s + clen[c] - 1;
      const int32_t q = Int_Lookup(ir, s, e, irow);
      if (q == 0) {
        Doc(vmi, "Row%d cannot be found in column%d", irow, c);
        Internal_Error(vmi, Err_Store_Not_Found, true);
        return;
      }
      if (std::fabs(v) > tolZero) {
        ucmat[q] = v;
      } else {
        ir[q] = ir[e];
        ucmat[q] = ucmat[e];
        ir[e] = 0;
        clen[c] -= 1;
        ++idrop;
      }
      continue;
    }
    if (std::fabs(v) <= tolZero) continue;
    ++ifill;
    const int32_t s = cstr[c], l = clen[c];
    if (s + l <= luf->ColUSpace && ir[s + l] == 0) {
      ir[s + l] = irow;
      ucmat[s + l] = v;
      clen[c] = l + 1;
    } else if (s - 1 >= 1 && ir[s - 1] == 0) {
      // The pivot stays in front: it moves down one slot, the new element
      // takes its old slot.
      ir[s - 1] = ir[s];
      ucmat[s - 1] = ucmat[s];
      ir[s] = irow;
      ucmat[s] = v;
      cstr[c] = s - 1;
      clen[c] = l + 1;
      luf->ColFileUsed = std::min(luf->ColFileUsed, s - 1);
    } else {
      if (luf->ColFileUsed <= l + 1) {
        if (st.Trace >= 2)
          Doc(vmi, "Before Update_CompressColumn. Icol1=%d Cl=%d J=%d and Len=%d", c, l, k, len);
        bool error = false;
        Update_CompressColumn(vmi, l + 1, error);
        if (error) {
          st.Fail_Memory = true;
          return;
        }
        ir = luf->Ir.V;
        ucmat = luf->Ucmat.Val;
        cstr = luf->Cstr.V;
      }
      const int32_t from = cstr[c];
      const int32_t last = luf->ColFileUsed - 1;
      ir[last] = irow;
      ucmat[last] = v;
      const int32_t to = last - l;
      for (int32_t m = 0; m < l; ++m) {
        ir[to + m] = ir[from + m];
        ucmat[to + m] = ucmat[from + m];
        ir[from + m] = 0;
      }
      cstr[c] = to;
      luf->ColFileUsed = to;
      clen[c] = l + 1;
    }
  }

  // 6. Every element that entered or left one copy did the same in the other.
  if (ifill + ndrop != nfill + idrop) {
    Doc(vmi, "Nfill=%d Ndrop=%d Ifill=%d Idrop=%d", nfill, ndrop, ifill, idrop);
    Internal_Error(vmi, Err_Store_Balance, true);
  }
}

}  // namespace vlu
