// Row elimination of the upper Hessenberg range of an update.
//
//   VIM%Rnto, Cnto      positions Spike_First .. Spike_Last of the range
//   row copy of U       LUF%Ic, VIM%AUrmat, LUF%Rstr, LUF%Rlen (pivot first)
//   column copy of U    LUF%Ir, LUF%Ucmat, LUF%Cstr, LUF%Clen (pivot first)
//   the working row     VIM%WorkZ(c) its value in U column c; VIM%HelpI(1..Len)
//                       its columns; VIM%HelpZ(c) = -k when column c stands
//                       at list place k and is stored in U as well (loaded
//                       from the row copy), +k when it is fill known only
//                       here, 0 when c is not in the row
//   row etas            LUF%Lmat (multiplier), Lrow (the changed row), Lpiv
//                       (the subtracted row) behind the L columns; a group of
//                       consecutive elements with one Lrow starts at
//                       LUF%Lstr(g); LUF%Lstr(L_Groups + 1) = LFileUsed + 1
//
// The first row of the range goes to the bottom; every other row of the
// range then has its pivot in the column of its new position.  The bottom
// row is scattered into the work vectors and eliminated column by column,
// each step a row eta; at each column the working row and the stored row
// compete for the pivot, the shorter row being favoured, and a swap writes
// the working row into U and loads the other.  A row that is not swapped is
// only read.
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

constexpr int Err_Remove_Row = 6301;
constexpr int Err_Remove_Col = 6302;

enum class Choice { Keep, Swap, Fail };

// The choice between pivot 1 (the stored row, R1 long) and pivot 2 (the
// working row, R2 long).  `apriori` is the test made on the stored rows
// before the elimination starts.
Choice Choose_Pivot(VMI *vmi, Upd_State &st, double p1, double p2, int32_t r1, int32_t r2,
                    bool apriori) {
  const double a1 = std::fabs(p1), a2 = std::fabs(p2);
  const double big = std::max(a1, a2), small = std::min(a1, a2);
  const double tolRel = vmi->Vim->Tol_Piv_Rel;
  if (big < st.Pivmin) {
    if (st.Trace >= 1)
      Doc(vmi, "%s: Pivot=%13.5E and pivmin=%13.5E", apriori ? "1" : "2", big, st.Pivmin);
    st.Fail_Pivot = true;
    return Choice::Fail;
  }
  bool swap;
  if (small >= st.Pivmin) {
    if (r1 < r2)
      swap = a1 < tolRel * a2;
    else if (r1 > r2)
      swap = tolRel * a1 < a2;
    else
      swap = apriori ? a1 < a2 : a1 < tolRel * a2;
  } else {
    swap = a1 < a2;
  }
  if (big > st.Uumax) {
    if (st.Trace >= 1)
      Doc(vmi, "%s: Largest element=%13.5E and Uumax=%13.5E", apriori ? "5" : "6", big, st.Uumax);
    st.Fail_U_Large = true;
    return Choice::Fail;
  }
  return swap ? Choice::Swap : Choice::Keep;
}

// Scatters row `irow` of the row copy into the work vectors.
int32_t Load_Work_Row(VMI *vmi, int32_t irow) {
  VIM *vim = vmi->Vim;
  const LUF *luf = vmi->Luf;
  const int32_t s = luf->Rstr.V[irow], l = luf->Rlen.V[irow];
  const int32_t *ic = luf->Ic.V;
  const double *aur = vim->AUrmat.Val;
  int32_t *helpi = vim->HelpI.V, *helpz = vim->HelpZ.V;
  double *workz = vim->WorkZ.Val;
  for (int32_t k = 1; k <= l; ++k) {
    const int32_t c = ic[s + k - 1];
    helpi[k] = c;
    helpz[c] = -k;
    workz[c] = aur[s + k - 1];
  }
  return l;
}

void Trace_Rows(VMI *vmi, int32_t irow1, double p1, int32_t irow2, double p2, int32_t r2) {
  Doc(vmi, "Pivot1: Row=%d Value=%13.5E Rl=%d", irow1, p1, vmi->Luf->Rlen.V[irow1]);
  Doc(vmi, "Pivot2: Row=%d Value=%13.5E Rl=%d", irow2, p2, r2);
}

// Largest magnitude of the working row: the pivot and list places 2 on.
double Work_Row_Max(const VMI *vmi, double pivot, int32_t len) {
  const int32_t *helpi = vmi->Vim->HelpI.V;
  const double *workz = vmi->Vim->WorkZ.Val;
  double m = std::fabs(pivot);
  for (int32_t k = 2; k <= len; ++k) m = std::max(m, std::fabs(workz[helpi[k]]));
  return m;
}

// Grows a plain vector by delta in the memory mode in which a failure is
// only a wish turned down; the caller looks at the size it got.
void Explore_Growth(VMI *vmi, IntVec &v, const char *name, int32_t delta) {
  const int32_t mode = vmi->MemoryMode;
  vmi->MemoryMode = 2;
  Increase_Int(vmi, v, name, delta);
  vmi->MemoryMode = mode;
  vmi->EnoughSpace = true;
}

// Room for one more element in the L-file, and a new group when the
// element changes another row than the last group of this update.
bool L_Room(VMI *vmi, Upd_State &st, int32_t changedRow) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t need = luf->LFileUsed + 1;
  if (Size(luf->Lmat) <= need || Size(luf->Lrow) <= need || Size(luf->Lpiv) <= need) {
    int32_t mode = vmi->MemoryMode;
    vmi->MemoryMode = 2;
    Increase_Lmat(vmi, Wrap_Add(luf->LFileUsed, vim->NumRow));
    vmi->MemoryMode = mode;
    const bool ok = vmi->EnoughSpace && Size(luf->Lmat) > need && Size(luf->Lrow) > need &&
                    Size(luf->Lpiv) > need;
    vmi->EnoughSpace = true;
    if (!ok) {
      if (st.Trace >= 1) Doc(vmi, "Insufficient memory to increase length of Lmat, Lrow, and Lpiv");
      st.Fail_Memory = true;
      return false;
    }
  }
  if (changedRow != st.Group_Row) {
    if (Size(luf->Lstr) <= luf->L_Groups + 1) {
      Explore_Growth(vmi, luf->Lstr, "LUF%Lstr", std::max(Size(luf->Lstr), 16));
      if (Size(luf->Lstr) <= luf->L_Groups + 1) {
        if (st.Trace >= 1) Doc(vmi, "Insufficient memory to increase length of Lstr");
        st.Fail_Memory = true;
        return false;
      }
      vim->Upd_Grow_Lstr += 1;
    }
  }
  return true;
}

}  // namespace

void Remove_Work_Element(VMI *vmi, int32_t irow, int32_t icol, int32_t &len) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V;
  const int32_t h = helpz[icol];
  helpz[icol] = 0;
  vim->WorkZ.Val[icol] = 0.0;
  if (h == 0) return;
  if (h < 0) {
    // A stored element: out of both copies of U.
    luf->U_numele -= 1;
    {
      int32_t *ic = luf->Ic.V;
      double *aur = vim->AUrmat.Val;
      const int32_t s = luf->Rstr.V[irow];
      const int32_t end = s + luf->Rlen.V[irow] - 1;
      luf->Rlen.V[irow] -= 1;
      if (ic[end] != icol) {
        const int32_t j = Int_Lookup(ic, s, end - 1, icol);
        if (j == 0) {
          Doc(vmi, "Icolp=%d Irowsp=%d", icol, irow);
          Doc(vmi, "Istr=%d Iend=%d", s, end);
          PP_Int(vmi, luf->Ic, "LUF%Ic", s - 1, std::max(end - s + 1, 0));
          Internal_Error(vmi, Err_Remove_Row, true);
          return;
        }
        ic[j] = ic[end];
        aur[j] = aur[end];
      }
      ic[end] = 0;
    }
    {
      int32_t *ir = luf->Ir.V;
      double *ucmat = luf->Ucmat.Val;
      const int32_t s = luf->Cstr.V[icol];
      const int32_t end = s + luf->Clen.V[icol] - 1;
      luf->Clen.V[icol] -= 1;
      if (ir[end] != irow) {
        const int32_t j = Int_Lookup(ir, s, end - 1, irow);
        if (j == 0) {
          Doc(vmi, "Icolp=%d Irowsp=%d", icol, irow);
          Doc(vmi, "Istr=%d Iend=%d", s, end);
          PP_Int(vmi, luf->Ir, "LUF%Ir", s - 1, std::max(end - s + 1, 0));
          Internal_Error(vmi, Err_Remove_Col, true);
          return;
        }
        ir[j] = ir[end];
        ucmat[j] = ucmat[end];
      }
      ir[end] = 0;
    }
  }
  // Out of the list: the last column takes its place.
  const int32_t k = std::abs(h);
  if (k != len) {
    const int32_t c = helpi[len];
    helpi[k] = c;
    helpz[c] = helpz[c] < 0 ? -k : k;
  }
  len -= 1;
}

void Row_Elimination(VMI *vmi, Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t sf = st.Spike_First, sl = st.Spike_Last;
  const double tolZero = vmi->Tol_Zero;
  int32_t *rnto = vim->Rnto.V, *helpz = vim->HelpZ.V;
  const int32_t *cnto = vim->Cnto.V;
  vim->Upd_Bump_Max = std::max(vim->Upd_Bump_Max, sl - sf + 1);
  vim->Upd_Bump_Sum += sl - sf + 1;

  // 1. The column marks of Hess_Single_Row go.
  for (int32_t p = sf; p <= sl; ++p) helpz[cnto[p]] = 0;

  // 2. The first row of the range to the bottom.
  {
    const int32_t r = rnto[sf];
    for (int32_t p = sf; p < sl; ++p) rnto[p] = rnto[p + 1];
    rnto[sl] = r;
  }

  // 3. The first column, decided on the stored rows.
  {
    const int32_t icolp = cnto[sf], irow1 = rnto[sf], irow2 = rnto[sl];
    int32_t *ic = luf->Ic.V;
    double *aur = vim->AUrmat.Val;
    const double p1 = aur[luf->Rstr.V[irow1]];
    const int32_t istr = luf->Rstr.V[irow2], iend = istr + luf->Rlen.V[irow2] - 1;
    const int32_t j2 = Int_Lookup(ic, istr, iend, icolp);
    if (j2 == 0) {
      if (st.Trace >= 1) Doc(vmi, "Int_Lookup returned zero. Istr=%d Iend=%d IcolP=%d", istr, iend, icolp);
      st.Fail_Pivot = true;
      return;
    }
    const double p2 = aur[j2];
    const Choice ch =
        Choose_Pivot(vmi, st, p1, p2, luf->Rlen.V[irow1], luf->Rlen.V[irow2], true);
    if (ch == Choice::Fail) return;
    if (ch == Choice::Swap) {
      if (st.Trace >= 1) {
        Doc(vmi, "A priori swap.");
        Trace_Rows(vmi, irow1, p1, irow2, p2, luf->Rlen.V[irow2]);
      }
      std::swap(ic[j2], ic[istr]);
      std::swap(aur[j2], aur[istr]);
      double rowmax = 0.0;
      for (int32_t j = istr; j <= iend; ++j) rowmax = std::max(rowmax, std::fabs(aur[j]));
      if (rowmax > st.Uumax * std::fabs(p2)) {
        if (st.Trace >= 1) Doc(vmi, "Position 7: Umax=%13.5E and Pivot=%13.5E", rowmax, p2);
        st.Fail_U_Large = true;
        return;
      }
      int32_t *ir = luf->Ir.V;
      double *ucmat = luf->Ucmat.Val;
      const int32_t cs = luf->Cstr.V[icolp], ce = cs + luf->Clen.V[icolp] - 1;
      // Behind the first slot, which holds the row's stored pivot; a bump of
      // one position has but one row, which may stand there itself.
      const int32_t q = Int_Lookup(ir, irow1 == irow2 ? cs : cs + 1, ce, irow2);
      if (q == 0) {
        st.Fail_Pivot = true;
        return;
      }
      std::swap(ir[q], ir[cs]);
      std::swap(ucmat[q], ucmat[cs]);
      rnto[sf] = irow2;
      rnto[sl] = irow1;
      vim->Upd_Swaps += 1;
    }
  }

  // 4. The working row.
  int32_t len = Load_Work_Row(vmi, rnto[sl]);

  // 5. Column by column.
  for (int32_t indx = sf; indx < sl; ++indx) {
    const int32_t icolp = cnto[indx];
    int32_t irow1 = rnto[indx], irow2 = rnto[sl];
    double *workz = vim->WorkZ.Val;
    const double p1 = vim->AUrmat.Val[luf->Rstr.V[irow1]];
    const double p2 = workz[icolp];
    if (st.Trace >= 2) {
      Doc(vmi, "Eliminating in column%d LFileUsed=%d", icolp, luf->LFileUsed);
      Doc(vmi, "RowFileUsed=%d ColFileUsed=%d and indx=%d", luf->RowFileUsed, luf->ColFileUsed,
          indx);
      Trace_Rows(vmi, irow1, p1, irow2, p2, len);
    }
    if (luf->Ic.V[luf->Rstr.V[irow1]] != icolp) {
      if (st.Trace >= 1)
        Doc(vmi, "Error. Icolp=%d Irowp=%d Rs=%d Ic=%d", icolp, irow1, luf->Rstr.V[irow1],
            luf->Ic.V[luf->Rstr.V[irow1]]);
      st.Fail_Pivot = true;
      return;
    }
    const Choice ch = Choose_Pivot(vmi, st, p1, p2, luf->Rlen.V[irow1], len, false);
    if (ch == Choice::Fail) return;
    if (ch == Choice::Swap) {
      const double rowmax = Work_Row_Max(vmi, p2, len);
      if (rowmax > st.Uumax * std::fabs(p2)) {
        if (st.Trace >= 1) Doc(vmi, "Position 3: Umax=%13.5E and Pivot=%13.5E", rowmax, p2);
        st.Fail_U_Large = true;
        return;
      }
      Store_Work_Row(vmi, st, irow2, icolp, len);
      if (st.Fail_Memory || vmi->Exception != 0) return;
      rnto[indx] = irow2;
      rnto[sl] = irow1;
      len = Load_Work_Row(vmi, irow1);
      std::swap(irow1, irow2);
      vim->Upd_Swaps += 1;
      if (st.Trace >= 3) Doc(vmi, "Swap of rows");
    }
    if (helpz[icolp] == 0) {
      if (st.Trace >= 3) Doc(vmi, "Pivot in Row%d L=structural zero", irow1);
      continue;
    }
    const double m = workz[icolp] / vim->AUrmat.Val[luf->Rstr.V[irow1]];
    if (st.Trace >= 3) Doc(vmi, "Pivot in Row%d L=%13.5E", irow1, m);
    if (std::fabs(m) <= st.Tol_L) {
      if (st.Trace >= 3) Doc(vmi, "L element not stored - too small.");
    } else {
      if (!L_Room(vmi, st, irow2)) return;
      const int32_t e = ++luf->LFileUsed;
      luf->Lmat.Val[e] = m;
      luf->Lrow.V[e] = irow2;
      luf->Lpiv.V[e] = irow1;
      if (irow2 != st.Group_Row) {
        luf->L_Groups += 1;
        luf->Lstr.V[luf->L_Groups] = e;
        st.Group_Row = irow2;
      }
      // The working row minus m times the pivot row, behind its pivot.
      const int32_t s = luf->Rstr.V[irow1], end = s + luf->Rlen.V[irow1];
      const int32_t *ic = luf->Ic.V;
      const double *aur = vim->AUrmat.Val;
      int32_t *helpi = vim->HelpI.V;
      for (int32_t j = s + 1; j < end; ++j) {
        const int32_t c = ic[j];
        workz[c] -= aur[j] * m;
        if (std::fabs(workz[c]) <= tolZero) {
          Remove_Work_Element(vmi, irow2, c, len);
          if (vmi->Exception != 0) return;
        } else if (helpz[c] == 0) {
          ++len;
          helpi[len] = c;
          helpz[c] = len;
        }
      }
    }
    Remove_Work_Element(vmi, irow2, icolp, len);
    if (vmi->Exception != 0) return;
  }

  // 6. The last row and its pivot in the spike column.
  const int32_t irow = rnto[sl], icol = cnto[sl];
  const double p = vim->WorkZ.Val[icol];
  if (st.Trace >= 2) Doc(vmi, "Processing last row=%d col=%d indx=%d and ele=%13.5E", irow, icol, sl, p);
  if (!(std::fabs(p) >= st.Pivmin)) {
    if (st.Trace >= 1) Doc(vmi, "3: Pivot=%13.5E and pivmin=%13.5E", p, st.Pivmin);
    st.Fail_Pivot = true;
    return;
  }
  if (std::fabs(p) > st.Uumax) {
    if (st.Trace >= 1) Doc(vmi, "4: Pivot=%13.5E and Uumax=%13.5E", p, st.Uumax);
    st.Fail_U_Large = true;
    return;
  }
  const double rowmax = Work_Row_Max(vmi, p, len);
  if (rowmax > st.Uumax * std::fabs(p)) {
    if (st.Trace >= 1) Doc(vmi, "Position 5: Umax=%13.5E and Pivot=%13.5E", rowmax, p);
    st.Fail_U_Large = true;
    return;
  }
  Store_Work_Row(vmi, st, irow, icol, len);
  if (st.Fail_Memory || vmi->Exception != 0) return;
  if (Size(luf->Lstr) < luf->L_Groups + 1) {
    // Only a vector sized for no update at all can be this short.
    Explore_Growth(vmi, luf->Lstr, "LUF%Lstr", luf->L_Groups + 1 - Size(luf->Lstr));
    if (Size(luf->Lstr) < luf->L_Groups + 1) {
      st.Fail_Memory = true;
      return;
    }
  }
  luf->Lstr.V[luf->L_Groups + 1] = luf->LFileUsed + 1;
}

}  // namespace vlu
