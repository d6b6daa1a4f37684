// Pivots with a row or a column of exactly two elements, done without a
// dense block.
//
// Data touched (old numbers throughout; see elimination/bump.h):
//   - the pivot row leaves the row file for the U-file (LUF%Ic and
//     VIM%AUrmat from U_elefirst down), pivot first; its other elements leave
//     their columns in the column file (LUF%Ir, VIM%AUrmat, IIN%C2rp/R2cp);
//   - the pivot column goes to the L-file through Store_L_Column, which also
//     takes its elements out of their rows and lists those rows in IIN%Lisr;
//   - the one other row (PIV_2_BY_P), the one other column (PIV_P_BY_2) or
//     the one element (PIV_2_BY_2) that the pivot changes is updated in
//     place; new elements go in through Store_ele_in_both after room was
//     reserved with Make_Row_Space / Make_Col_Space;
//   - IIN%Mmat serves as a plain vector of the P values of the step (1-based,
//     Mmat.Val[k]); IIN%Lisc/Indc/Clol (PIV_2_BY_P) or IIN%Lisr/Indr/Rlol
//     (PIV_P_BY_2) hold the places of the step, Indc/Indr zero again at the
//     end;
//   - column bounds IIN%Clmx/Clmin/Clok and the count and Markowitz lists
//     follow every change.
// The places of PIV_2_BY_P and PIV_P_BY_2 are kept so that those already
// matched by an element of the other row (column) stand at the end and the
// ones still to be filled at 1..F.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

constexpr int Err_Pivot_Not_In_Row = 4510;
constexpr int Err_Short_U_Space = 4511;
constexpr int Err_2P_Indc = 4512;
constexpr int Err_P2_Indr = 4513;
constexpr int Err_Short_Shape = 4514;

constexpr double Two_M52 = 0x1p-52;

// The full checks of the work vectors run with the per-pivot trace or the
// test trace.
bool Debug_Checks(const Bump_State &s) { return s.vmi->Trace_Inv >= 3 || s.vmi->Test_Trace > 0; }

// A count in 32 bits for the Markowitz lists, (a - 1)(b - 1) capped below
// Mark_Infinite (Store_col_in_M_list sends it to the overflow list).
int32_t Mark_Count(int32_t a, int32_t b) {
  const int64_t m = static_cast<int64_t>(a - 1) * (b - 1);
  return static_cast<int32_t>(std::min<int64_t>(m, Mark_Infinite - 1));
}

// Column bounds after one element of column `col` changed from magnitude
// oldMag to newMag (0 for an element that is not there) in a step in which
// the pivot row's element of magnitude uMag left the column.  clength is the
// length of the column before the step.
void Clmx_Changed(Bump_State &s, int32_t col, double oldMag, double uMag, double newMag,
                  int32_t clength) {
  IIN *iin = s.iin;
  if (!IsTrue(iin->Clok.V[col])) return;
  double &clmx = iin->Clmx.Val[col];
  if (newMag >= clmx) {
    clmx = newMag;
    double &clmin = iin->Clmin.Val[col];
    clmin = std::max(clmin, Two_M52 * newMag);
  } else if (std::max(oldMag, uMag) >= s.Clok_Frac * clmx) {
    CLEAR_Clok(s, col, clength);
  }
}

// Room for nuele more elements of the U-file below U_elefirst, clear of the
// row file and of the column file.  False with the stop flag up (or an
// internal error) when there is none.
bool U_Room(Bump_State &s, int32_t nuele) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  auto enough = [&]() {
    return static_cast<int64_t>(luf->U_elefirst) - nuele >
           std::max(luf->RowFileUsed, luf->ColFileUsed);
  };
  if (enough()) return true;
  if (vmi->Trace_Inv >= 2) {
    Doc(vmi, "Insufficient space before writing to U-file in a short pivot");
    Doc(vmi, "U_Elefirst=%d NUEle=%d RowFileUsed=%d ColFileUsed=%d", luf->U_elefirst, nuele,
        luf->RowFileUsed, luf->ColFileUsed);
  }
  if (static_cast<int64_t>(luf->U_elefirst) - nuele <= luf->RowFileUsed) Compres_Rows(s);
  if (Stopped(s)) return false;
  if (static_cast<int64_t>(luf->U_elefirst) - nuele <= luf->ColFileUsed) Compres_Cols(s);
  if (Stopped(s)) return false;
  if (!enough()) {
    const int64_t missing = std::max(luf->RowFileUsed, luf->ColFileUsed) +
                            static_cast<int64_t>(nuele) + 1 - luf->U_elefirst;
    const int64_t demand = std::min<int64_t>(luf->RowUSpace + missing, 2147483647);
    Increase_Uspace(vmi, static_cast<int32_t>(demand));
    if (Stopped(s)) return false;
  }
  if (!enough()) {
    Doc(vmi, "Short pivot: no room in the U-file. U_Elefirst=%d NUEle=%d RowFileUsed=%d",
        luf->U_elefirst, nuele, luf->RowFileUsed);
    Internal_Error(vmi, Err_Short_U_Space, true);
    return false;
  }
  return true;
}

// The work vectors of a step of P places.
bool Step_Lists_Fit(Bump_State &s, int32_t places, const char *who) {
  IIN *iin = s.iin;
  if (Size(iin->Mmat) >= places && Size(iin->Lisc) >= places && Size(iin->Clol) >= places &&
      Size(iin->Lisr) >= places && Size(iin->Rlol) >= places)
    return true;
  Doc(s.vmi, "%s: work vectors too short for %d places. Size(Mmat)=%d Size(Lisc)=%d", who, places,
      Size(iin->Mmat), Size(iin->Lisc));
  Internal_Error(s.vmi, Err_Short_Shape, true);
  return false;
}

// The prelude of every short pivot: the pivot row to U, the pivot test, the
// L column.  Returns the position of the pivot in the U-file, 0 on a stop.
int32_t Short_Prelude(Bump_State &s) {
  double umax = 0.0;
  Remove_Pivot_Element(s, umax);
  if (Stopped(s)) return 0;
  const int32_t uf = s.luf->U_elefirst;
  Test_Pivot(s, umax, s.vim->AUrmat.Val[uf]);
  if (Stopped(s)) return 0;
  Store_L_Column(s, s.vim->AUrmat.Val[uf]);
  if (Stopped(s)) return 0;
  return uf;
}

// The list move of a row whose length changed in the step: out of whichever
// list it stood in (a scanned row loses that status) into the C-list of its
// new length; then the rescan for a row that got shorter.
void Row_Length_Changed(Bump_State &s, int32_t irow, int32_t oldLen, int32_t skipE, int32_t skipC) {
  if (s.luf->Rlen.V[irow] == oldLen) return;
  Remove_Row_from_List(s, irow);
  Store_Row_in_C_List(s, irow, s.luf->Rlen.V[irow]);
  if (Stopped(s)) return;
  Rescan_row_for_m(s, irow, oldLen, skipE, skipC);
}

// A column of the pivot row that holds the other row R after the step: when
// it stands in an M-list with a lower bound above the one that R gives now,
// it moves to the M-list of that bound.
void Lower_Bound_By_Row(Bump_State &s, int32_t icol, int32_t rlenR) {
  if (s.Semi_Dense) return;
  IIN *iin = s.iin;
  if (iin->Mact.V[icol] <= 0) return;
  const int32_t mnew = Mark_Count(rlenR, s.luf->Clen.V[icol]);
  if (mnew <= 0 || iin->Mlow.V[icol] <= mnew) return;
  Remove_col_from_list(s, icol);
  Store_col_in_M_list(s, icol, mnew);
  iin->Mlow.V[icol] = mnew;
}

void Trace_Short(Bump_State &s, const char *who) {
  if (s.vmi->Trace_Inv >= 3)
    Doc(s.vmi, "%s: Piv_Row=%d Piv_Col=%d Len_Piv_Row=%d Len_Piv_Col=%d", who, s.Piv_Row, s.Piv_Col,
        s.Len_Piv_Row, s.Len_Piv_Col);
}

}  // namespace

// ---------------------------------------------------------------------------

void Remove_Pivot_Element(Bump_State &s, double &umax) {
  umax = 0.0;
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t prow = s.Piv_Row;
  const int32_t pcol = s.Piv_Col;
  const int32_t len = luf->Rlen.V[prow];
  if (!U_Room(s, len)) return;  // may compress: positions are read after it

  int32_t *ic = luf->Ic.V;
  int32_t *ir = luf->Ir.V;
  int32_t *r2cp = iin->R2cp.V;
  int32_t *c2rp = iin->C2rp.V;
  double *aur = vim->AUrmat.Val;
  const int32_t rs = luf->Rstr.V[prow];
  int32_t p0 = 0;
  for (int32_t p = rs; p < rs + len; ++p) {
    if (ic[p] == pcol) {
      p0 = p;
      break;
    }
  }
  if (p0 == 0) {
    Doc(vmi, "Remove_Pivot_Element: column %d is not in row %d. Rstr=%d Rlen=%d", pcol, prow, rs,
        len);
    Internal_Error(vmi, Err_Pivot_Not_In_Row, true);
    return;
  }

  // The pivot to the head of its column ...
  const int32_t q0 = r2cp[p0];
  const int32_t cs = luf->Cstr.V[pcol];
  if (q0 != cs) {
    std::swap(ir[q0], ir[cs]);
    std::swap(aur[q0], aur[cs]);
    std::swap(c2rp[q0], c2rp[cs]);
    r2cp[c2rp[q0]] = q0;
    r2cp[c2rp[cs]] = cs;
  }
  // ... and of its row.
  if (p0 != rs) {
    std::swap(ic[p0], ic[rs]);
    std::swap(r2cp[p0], r2cp[rs]);
    c2rp[r2cp[p0]] = p0;
    c2rp[r2cp[rs]] = rs;
  }

  // The row to the U-file, pivot first.
  const int32_t uf = luf->U_elefirst - len;
  for (int32_t t = 0; t < len; ++t) {
    const int32_t p = rs + t;
    const double v = aur[r2cp[p]];
    ic[uf + t] = ic[p];
    aur[uf + t] = v;
    umax = std::max(umax, std::fabs(v));
  }
  luf->U_elefirst = uf;
  luf->Rstr.V[prow] = uf;

  // Its other elements leave their columns; the old stretch is empty.
  for (int32_t t = 1; t < len; ++t) {
    const int32_t p = rs + t;
    Remove_Element_From_Col(s, ic[p], r2cp[p]);
    if (Stopped(s)) return;
  }
  for (int32_t t = 0; t < len; ++t) {
    ic[rs + t] = 0;
    r2cp[rs + t] = 0;
  }
  Unlink_Row(s, prow);
}

// ---------------------------------------------------------------------------

void PIV_2_BY_P(Bump_State &s) {
  s.St.CC2 += 1;
  s.St.Short_Steps += 1;
  Trace_Short(s, "PIV_2_BY_P");
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t P = s.Len_Piv_Row;
  if (!Step_Lists_Fit(s, P, "PIV_2_BY_P")) return;

  const int32_t uf = Short_Prelude(s);
  if (uf == 0) return;
  const int32_t R = iin->Lisr.V[1];
  const double m = luf->Lmat.Val[luf->LFileUsed];
  const int32_t rold = luf->Rlen.V[R] + 1;  // R before the step, with its pivot-column element

  int32_t *lisc = iin->Lisc.V;
  int32_t *indc = iin->Indc.V;
  int32_t *clol = iin->Clol.V;
  double *mm = iin->Mmat.Val;

  // 1. The places: the pivot row's other elements, now in U.
  for (int32_t k = 1; k < P; ++k) {
    const int32_t c = luf->Ic.V[uf + k];
    mm[k] = vim->AUrmat.Val[uf + k];
    lisc[k] = c;
    indc[c] = k;
    clol[k] = luf->Clen.V[c] + 1;
  }

  // 2. Row R from its end: the elements that the pivot row meets are updated
  // (small results leave at once); their places move behind F.  Mmat of a
  // place behind F then says whether R still holds the column.
  int32_t F = P - 1;
  {
    const int32_t rs = luf->Rstr.V[R];
    for (int32_t p = rs + luf->Rlen.V[R] - 1; p >= rs && F > 0; --p) {
      const int32_t c = luf->Ic.V[p];
      const int32_t k = indc[c];
      if (k == 0) continue;
      const int32_t q = iin->R2cp.V[p];
      const double old = vim->AUrmat.Val[q];
      const double v = old - m * mm[k];
      const double mag = std::fabs(v);
      // A result that leaves is no new maximum: Clmin may stand above Clmx
      // once a column's largest elements have gone.
      const bool removed = mag <= iin->Clmin.Val[c];
      Clmx_Changed(s, c, std::fabs(old), std::fabs(mm[k]), removed ? 0.0 : mag, clol[k]);
      if (Stopped(s)) return;
      if (removed) {
        Remove_Element_From_Row(s, R, p);
        Remove_Element_From_Col(s, c, q);
        if (Stopped(s)) return;
      } else {
        vim->AUrmat.Val[q] = v;
      }
      if (k != F) {
        std::swap(lisc[k], lisc[F]);
        std::swap(clol[k], clol[F]);
        std::swap(mm[k], mm[F]);
        indc[lisc[k]] = k;
        indc[lisc[F]] = F;
      }
      mm[F] = removed ? 0.0 : 1.0;
      --F;
    }
  }

  // 3. Room for the fill that will be stored: once in R, one slot in each
  // column; all reserved before any length is lowered again.
  int32_t nfill = 0;
  for (int32_t k = 1; k <= F; ++k)
    if (std::fabs(-m * mm[k]) > iin->Clmin.Val[lisc[k]]) ++nfill;
  if (nfill > 0) {
    Make_Row_Space(s, R, nfill);
    if (Stopped(s)) return;
    for (int32_t k = 1; k <= F; ++k) {
      // The same test as the count (a NaN fails both): every column that
      // gets a slot gives it back below.
      if (!(std::fabs(-m * mm[k]) > iin->Clmin.Val[lisc[k]])) continue;
      Make_Col_Space(s, lisc[k], 1);
      if (Stopped(s)) return;
    }
    luf->Rlen.V[R] -= nfill;
    for (int32_t k = 1; k <= F; ++k)
      if (std::fabs(-m * mm[k]) > iin->Clmin.Val[lisc[k]]) luf->Clen.V[lisc[k]] -= 1;
  }

  // 4. The fill; a value at or below Clmin of its column is not stored.
  for (int32_t k = 1; k <= F; ++k) {
    const int32_t c = lisc[k];
    const double v = -m * mm[k];
    const double mag = std::fabs(v);
    const bool store = mag > iin->Clmin.Val[c];
    if (store) Store_ele_in_both(s, R, c, v, true);
    Clmx_Changed(s, c, 0.0, std::fabs(mm[k]), store ? mag : 0.0, clol[k]);
    if (Stopped(s)) return;
    mm[k] = store ? 1.0 : 0.0;
  }

  // 5. The columns of the pivot row.
  const int32_t rlenR = luf->Rlen.V[R];
  for (int32_t k = 1; k < P; ++k) {
    const int32_t c = lisc[k];
    Update_Col_Info(s, c, clol[k], iin->Mlow.V[c]);
    if (Stopped(s)) return;
    if (mm[k] != 0.0) Lower_Bound_By_Row(s, c, rlenR);
    if (Stopped(s)) return;
  }

  // 6. Row R.
  Row_Length_Changed(s, R, rold, 0, 0);
  if (Stopped(s)) return;

  // 7. The places are free again; short rows and columns lose their tails.
  for (int32_t k = 1; k < P; ++k) indc[lisc[k]] = 0;
  Compress_Short_Lists(s, 1, P - 1, 1, 1);
  if (Stopped(s)) return;

  if (Debug_Checks(s)) {
    const int32_t *indcNow = iin->Indc.V;
    for (int32_t j = 1; j <= s.NumRow; ++j) {
      if (indcNow[j] != 0) {
        Doc(vmi, "PIV_2_BY_P: IIN%%Indc(%d)=%d", j, indcNow[j]);
        Internal_Error(vmi, Err_2P_Indc, true);
        return;
      }
    }
  }
}

// ---------------------------------------------------------------------------

void PIV_P_BY_2(Bump_State &s) {
  s.St.RC2 += 1;
  s.St.Short_Steps += 1;
  Trace_Short(s, "PIV_P_BY_2");
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t lpc = s.Len_Piv_Col;
  if (!Step_Lists_Fit(s, lpc, "PIV_P_BY_2")) return;

  const int32_t uf = Short_Prelude(s);
  if (uf == 0) return;
  const int32_t C = luf->Ic.V[uf + 1];
  const double u = vim->AUrmat.Val[uf + 1];

  // 1. C before the step had the pivot row's element too.
  const int32_t cold = luf->Clen.V[C] + 1;
  s.St.Merged_By_Col += luf->Clen.V[C];
  s.St.Scanned_Upd += luf->Clen.V[C];
  int32_t F = lpc - 1;
  double big = 0.0;
  double old = std::fabs(u);
  int32_t rmin = s.NumRow + 1;

  int32_t *lisr = iin->Lisr.V;
  int32_t *indr = iin->Indr.V;
  int32_t *rlol = iin->Rlol.V;
  double *mm = iin->Mmat.Val;

  // 2. The places: the rows of the L column, with their lengths before the
  // step (Store_L_Column took one element out of each).
  for (int32_t k = 1; k <= F; ++k) {
    const int32_t r = lisr[k];
    indr[r] = k;
    mm[k] = 0.0;
    rlol[k] = luf->Rlen.V[r] + 1;
  }

  // 3. What the pivot adds to column C in each row.
  {
    const int32_t lc = luf->L_Cols;
    for (int32_t e = luf->Lsor.V[lc]; e <= luf->LFileUsed; ++e) {
      const int32_t k = indr[luf->Lrow.V[e]];
      if (k != 0) mm[k] = -u * luf->Lmat.Val[e];
    }
  }

  // 4. Column C from its last element: the rows that the pivot column meets
  // are updated (small results leave at once) and their places move behind F.
  {
    const int32_t cs = luf->Cstr.V[C];
    for (int32_t q = cs + luf->Clen.V[C] - 1; q >= cs; --q) {
      const int32_t r = luf->Ir.V[q];
      s.St.Scanned_Upd += luf->Rlen.V[r];
      const int32_t k = indr[r];
      bool removed = false;
      if (k != 0) {
        const double ov = vim->AUrmat.Val[q];
        const double nv = ov + mm[k];
        old = std::max(old, std::fabs(ov));
        if (std::fabs(nv) <= iin->Clmin.Val[C]) {
          Remove_Element_From_Row(s, r, iin->C2rp.V[q]);
          Remove_Element_From_Col(s, C, q);
          if (Stopped(s)) return;
          removed = true;
        } else {
          big = std::max(big, std::fabs(nv));  // only what stays can be the maximum
          vim->AUrmat.Val[q] = nv;
        }
        if (k < F) {
          std::swap(lisr[k], lisr[F]);
          std::swap(rlol[k], rlol[F]);
          std::swap(mm[k], mm[F]);
          indr[lisr[k]] = k;
          indr[lisr[F]] = F;
        }
        --F;
      }
      if (!removed && luf->Rlen.V[r] > 0) rmin = std::min(rmin, luf->Rlen.V[r]);
    }
  }

  // 5. The fill of column C: room reserved in C and in each row first.
  const double clminC = iin->Clmin.Val[C];
  int32_t nfill = 0;
  for (int32_t k = 1; k <= F; ++k)
    if (std::fabs(mm[k]) > clminC) ++nfill;
  if (nfill > 0) {
    Make_Col_Space(s, C, nfill);
    if (Stopped(s)) return;
    for (int32_t k = 1; k <= F; ++k) {
      if (!(std::fabs(mm[k]) > clminC)) continue;  // as the count, NaN included
      Make_Row_Space(s, lisr[k], 1);
      if (Stopped(s)) return;
    }
    luf->Clen.V[C] -= nfill;
    for (int32_t k = 1; k <= F; ++k)
      if (std::fabs(mm[k]) > clminC) luf->Rlen.V[lisr[k]] -= 1;
  }
  for (int32_t k = 1; k <= F; ++k) {
    const int32_t r = lisr[k];
    if (std::fabs(mm[k]) > clminC) {
      big = std::max(big, std::fabs(mm[k]));
      Store_ele_in_both(s, r, C, mm[k], true);
      if (Stopped(s)) return;
    }
    if (luf->Rlen.V[r] > 0) rmin = std::min(rmin, luf->Rlen.V[r]);
  }

  // 6. The rows whose length changed.
  for (int32_t k = 1; k < lpc; ++k) {
    Row_Length_Changed(s, lisr[k], rlol[k], 0, C);
    if (Stopped(s)) return;
  }

  // 7. The maximum of C.
  if (IsTrue(iin->Clok.V[C])) {
    double &clmx = iin->Clmx.Val[C];
    if (big >= clmx) {
      clmx = big;
      iin->Clmin.Val[C] = std::max(iin->Clmin.Val[C], Two_M52 * big);
    } else if (old >= s.Clok_Frac * clmx) {
      // The old maximum may be gone.  Only the flag changes here: the list
      // place of C is settled below from the new bound, and its Mlow still
      // belongs to the length C had before the step.
      iin->Clok.V[C] = LFalse;
    }
  }

  // 8. The list of C: in semi-dense mode by its length, else the M-list of
  // the bound that the shortest row seen gives.
  const int32_t c = luf->Clen.V[C];
  if (s.Semi_Dense) {
    if (c != cold) {
      Remove_col_from_list(s, C);
      Store_col_in_c_list(s, C, c);
      s.Max_Col_Shrink = std::max(s.Max_Col_Shrink, cold - c);
    }
    iin->Mact.V[C] = 0;
    iin->Mlow.V[C] = 0;
  } else if (c >= 2 && rmin >= 2 && rmin <= s.NumRow) {
    const int32_t mc = Mark_Count(rmin, c);
    if (mc != iin->Mact.V[C]) {
      Remove_col_from_list(s, C);
      Store_col_in_M_list(s, C, mc);
    }
    iin->Mlow.V[C] = mc;
  } else {
    Remove_col_from_list(s, C);
    Store_col_in_c_list(s, C, c);
    iin->Mlow.V[C] = 0;
  }
  if (Stopped(s)) return;

  // 9. The places are free again; short rows and columns lose their tails.
  for (int32_t k = 1; k < lpc; ++k) indr[lisr[k]] = 0;
  iin->Lisc.V[1] = C;
  Compress_Short_Lists(s, 1, 1, 1, lpc - 1);
  if (Stopped(s)) return;

  if (Debug_Checks(s)) {
    const int32_t *indrNow = iin->Indr.V;
    for (int32_t i = 1; i <= s.NumRow; ++i) {
      if (indrNow[i] != 0) {
        Doc(vmi, "PIV_P_BY_2: IIN%%Indr(%d)=%d", i, indrNow[i]);
        Internal_Error(vmi, Err_P2_Indr, true);
        return;
      }
    }
  }
}

// ---------------------------------------------------------------------------

void PIV_2_BY_2(Bump_State &s) {
  s.St.RC2CC2 += 1;
  s.St.Short_Steps += 1;
  Trace_Short(s, "PIV_2_BY_2");
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  if (!Step_Lists_Fit(s, 2, "PIV_2_BY_2")) return;

  const int32_t uf = Short_Prelude(s);
  if (uf == 0) return;
  const int32_t C = luf->Ic.V[uf + 1];
  const double u = vim->AUrmat.Val[uf + 1];
  const int32_t R = iin->Lisr.V[1];
  const double m = luf->Lmat.Val[luf->LFileUsed];
  const int32_t cold = luf->Clen.V[C] + 1;
  const int32_t rold = luf->Rlen.V[R] + 1;

  // 1.
  const bool longR = Long_row(s, R);
  const bool longC = Long_col(s, C);
  if (Stopped(s)) return;
  s.St.Scanned_Upd += luf->Rlen.V[R] + luf->Clen.V[C];

  // 2.
  const int32_t q = Find_Element(s, R, C);
  if (Stopped(s)) return;
  if (longR || longC) s.St.Merged_By_Col += luf->Clen.V[C];

  bool heldByR = false;
  if (q != 0) {
    // 3. The element exists: updated; a small result leaves a compressed
    // part at once, a tail keeps it for its compression.
    const double ov = vim->AUrmat.Val[q];
    const double nv = ov - m * u;
    const double mag = std::fabs(nv);
    const int32_t cs = luf->Cstr.V[C];
    const bool compressed = q >= cs && q < cs + luf->Clen.V[C];
    const bool drop = mag <= iin->Clmin.Val[C] && compressed;
    Clmx_Changed(s, C, std::fabs(ov), std::fabs(u), drop ? 0.0 : mag, cold);  // as in PIV_2_BY_P
    if (Stopped(s)) return;
    if (drop) {
      Remove_Element_From_Row(s, R, iin->C2rp.V[q]);
      Remove_Element_From_Col(s, C, q);
      if (Stopped(s)) return;
    } else {
      vim->AUrmat.Val[q] = nv;
      heldByR = true;
    }
  } else {
    // 4. Fill, unless small.
    const double v = -m * u;
    const double mag = std::fabs(v);
    const bool store = mag > iin->Clmin.Val[C];
    if (store) {
      Make_Row_Space(s, R, 1);
      if (Stopped(s)) return;
      Make_Col_Space(s, C, 1);
      if (Stopped(s)) return;
      luf->Rlen.V[R] -= 1;
      luf->Clen.V[C] -= 1;
      Store_ele_in_both(s, R, C, v, true);
      if (Stopped(s)) return;
      heldByR = true;
    }
    Clmx_Changed(s, C, 0.0, std::fabs(u), store ? mag : 0.0, cold);
    if (Stopped(s)) return;
  }

  // 5. Lists of the one column and the one row.
  Update_Col_Info(s, C, cold, iin->Mlow.V[C]);
  if (Stopped(s)) return;
  if (heldByR) Lower_Bound_By_Row(s, C, luf->Rlen.V[R]);
  if (Stopped(s)) return;
  Row_Length_Changed(s, R, rold, 0, 0);
  if (Stopped(s)) return;
  iin->Lisc.V[1] = C;
  iin->Lisr.V[1] = R;
  Compress_Short_Lists(s, 1, 1, 1, 1);
}

}  // namespace vlu
