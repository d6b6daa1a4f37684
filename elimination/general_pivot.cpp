// Pivot steps of the sparse elimination that use a dense work block, the two
// singleton steps, and the list bookkeeping that ends every step.
//
// Data touched (all 1-based, old numbers; the files are described in
// elimination/bump.h):
//
//   IIN%Mmat   the work block of General_Pivot, by columns with leading
//              dimension mr: block element (i, j) at Mmat.Val[1 + (i - 1) +
//              (j - 1) mr], i over block rows Lisr(1..Nrow), j over block
//              columns Lisc(1..Ncol).  Pivot k of the block is block row k
//              and block column k.  During the step a place means:
//                row k <= Npiv, column j >= k: the actual value of U(k, j);
//                column k <= Npiv, row i > k:  the multiplier l(i, k);
//                row i > Npiv, column j > Npiv: the amount still to be ADDED
//                  to the active element (i, j) of the files (0 at the start;
//                  the kernels accumulate -l u into it as pivots are applied
//                  to it; Npused of them have been applied to every such
//                  place, the rest is pending).
//              Further pivots are tried only while the block leaves the last
//              column Mmat(., mc) free: a candidate pivot column is examined
//              in a copy there (its block column keeps the amounts to add),
//              so that a rejected candidate leaves block and files as they
//              were.  An accepted one takes the copy, now actual values, and
//              its elements and those of the new pivot row leave the files
//              and are added into the block (rows and columns new to the
//              block start at zero: no earlier pivot touched them).
//   IIN%Lisr, Lisc, Indr, Indc, Rlol, Clol, Rlin, Clin, Lngr, Lngc
//              the block lists (IIN in runtime/records.h); Indr and Indc are
//              zero again when a step returns.
//   LUF%Ic, AUrmat from U_elefirst down: the U rows written here, pivot
//              first; LUF%Lmat, Lrow, Lpiv, Lsor: the L columns written here.
//
// The first pivot of a step is placed by Factor_Bump.  Further pivots of a
// block are placed here (Set_Pivot_Position, Piv_Indx + 1) when the next one
// is taken, so that the last pivot of the block is again Factor_Bump's to
// place; Piv_Row and Piv_Col name it on return.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

constexpr int Err_Pivot_Not_In_Row = 4401;
constexpr int Err_Pivot_Column_Length = 4402;
constexpr int Err_Candidate_Column = 4403;
constexpr int Err_U_Space = 4404;
constexpr int Err_Block_Shape = 4405;
constexpr int Err_Pivot_Row_Length = 4406;

constexpr int32_t Work_Per_Thread = 32768;  // element operations that pay for a thread
constexpr int32_t Ext_Small_Mark = 32;      // a block step stops below this count ...
constexpr int32_t Ext_Small_Next = 10;      // ... while Next_Free is at most this

bool Trace_Pivot(const Bump_State &s) { return s.vmi->Trace_Inv >= 3; }
bool Trace_Detail(const Bump_State &s) { return s.vmi->Trace_Inv >= 4; }

// Thread count of a parallel region: estimate `work` in element operations
// (32-bit, as the thread rules count), at most `items`, at most Threads.
int32_t Region_Threads(const VMI *vmi, int32_t work, int32_t items) {
  int32_t t = work / Work_Per_Thread;
  t = std::min(t, items);
  t = std::min(t, vmi->Threads);
  return std::max(t, 1);
}

// Equal stretch lo..hi of the items first..last for thread t of nt.
void Stretch(int32_t first, int32_t last, int32_t t, int32_t nt, int32_t &lo, int32_t &hi) {
  const int64_t len = static_cast<int64_t>(last) - first + 1;
  lo = first + static_cast<int32_t>((t - 1) * len / nt);
  hi = first + static_cast<int32_t>(t * len / nt) - 1;
}

// f1 f2 as a Markowitz value: 0 unless both are positive, and kept below
// Mark_Infinite as a multiple of f2.
int32_t Mark_Product(int64_t f1, int64_t f2) {
  if (f1 <= 0 || f2 <= 0) return 0;
  int64_t m = f1 * f2;
  if (m >= Mark_Infinite) m = ((Mark_Infinite - 1) / f2) * f2;
  return static_cast<int32_t>(m);
}

int32_t L_Room(const LUF *luf) {
  return std::min(Size(luf->Lmat), std::min(Size(luf->Lrow), Size(luf->Lpiv)));
}

// Room in the U-file for `nuele` more elements below U_elefirst: the row or
// column file in the way is compressed, and if that is not enough the U-file
// grows.  False on a stop.
bool Ensure_U_Room(Bump_State &s, int32_t nuele, bool report) {
  LUF *luf = s.luf;
  auto used = [luf] { return std::max(luf->RowFileUsed, luf->ColFileUsed); };
  if (luf->U_elefirst - nuele > used()) return true;
  if (report && s.vmi->Trace_Inv >= 2) {
    Doc(s.vmi, "Insufficient space before writing to U-file in General_Pivot");
    Doc(s.vmi, "U_Elefirst=%d NUEle=%d Next U_Elefirst=%d", luf->U_elefirst, nuele,
        luf->U_elefirst - nuele);
    Doc(s.vmi, "RowFileUsed=%d ColFileUsed=%d", luf->RowFileUsed, luf->ColFileUsed);
  }
  if (luf->RowFileUsed >= luf->U_elefirst - nuele) {
    Compres_Rows(s);
    if (Stopped(s)) return false;
  }
  if (luf->ColFileUsed >= luf->U_elefirst - nuele) {
    Compres_Cols(s);
    if (Stopped(s)) return false;
  }
  if (luf->U_elefirst - nuele <= used()) {
    const int32_t missing = used() - (luf->U_elefirst - nuele) + 1;
    Increase_Uspace(s.vmi, Wrap_Add(luf->RowUSpace, missing));
    if (Stopped(s)) return false;
  }
  if (luf->U_elefirst - nuele <= used()) {
    Doc(s.vmi, "No room for %d elements in the U-file: U_elefirst=%d RowFileUsed=%d ColFileUsed=%d",
        nuele, luf->U_elefirst, luf->RowFileUsed, luf->ColFileUsed);
    Internal_Error(s.vmi, Err_U_Space, true);
    return false;
  }
  return true;
}

// Exchanges two slots of the column file, with their cross pointers.
void Swap_Col_Slots(Bump_State &s, int32_t q1, int32_t q2) {
  int32_t *ir = s.luf->Ir.V, *c2rp = s.iin->C2rp.V, *r2cp = s.iin->R2cp.V;
  double *aur = s.vim->AUrmat.Val;
  std::swap(ir[q1], ir[q2]);
  std::swap(aur[q1], aur[q2]);
  std::swap(c2rp[q1], c2rp[q2]);
  r2cp[c2rp[q1]] = q1;
  r2cp[c2rp[q2]] = q2;
}

// Moves a row whose length changed out of its list into the C-list of its
// length; the row loses its scanned status.
void Move_Row_To_C_List(Bump_State &s, int32_t row) {
  Remove_Row_from_List(s, row);
  Store_Row_in_C_List(s, row, s.luf->Rlen.V[row]);
}

// ---------------------------------------------------------------------------
// The work block of one General_Pivot call.
// ---------------------------------------------------------------------------
struct Block {
  double *a = nullptr;  // block element (1, 1)
  int32_t ld = 0;       // leading dimension (mr)
  int32_t mr = 0, mc = 0;
  int32_t nrow = 0, ncol = 0;  // rows and columns of the block
  int32_t npiv = 0;            // pivots taken
  int32_t npused = 0;          // pivots applied to all of the block behind them
  int32_t nrow0 = 0, ncol0 = 0;
  int32_t gc = 0, gr = 0;      // minus the rows (columns) that extensions added

  double &at(int32_t i, int32_t j) const {
    return a[(i - 1) + static_cast<std::ptrdiff_t>(j - 1) * ld];
  }
  // col(j)[i] is block element (i, j).
  double *col(int32_t j) const { return a + static_cast<std::ptrdiff_t>(j - 1) * ld - 1; }
};

// The pivot row and the pivot column into the block, their elements out of
// the files.  umax: largest magnitude in the pivot row.
bool Gather_Pivot_Lines(Bump_State &s, Block &b, double &umax) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t prow = s.Piv_Row, pcol = s.Piv_Col;
  const int32_t *ic = luf->Ic.V, *ir = luf->Ir.V, *r2cp = iin->R2cp.V, *c2rp = iin->C2rp.V;
  const int32_t *rlen = luf->Rlen.V;
  int32_t *clen = luf->Clen.V;
  const double *aur = s.vim->AUrmat.Val;
  int32_t *lisr = iin->Lisr.V, *lisc = iin->Lisc.V, *indr = iin->Indr.V, *indc = iin->Indc.V;
  int32_t *rlol = iin->Rlol.V, *clol = iin->Clol.V, *rlin = iin->Rlin.Val, *clin = iin->Clin.Val;
  Logical *lngr = iin->Lngr.V, *lngc = iin->Lngc.V;
  const Logical *clok = iin->Clok.V;

  // The pivot row: the pivot column takes block column 1, the others follow
  // in row order.  The search never takes a row or column with a tail.
  if (rlen[prow] != b.ncol || Row_Tail(s, prow) != 0) {
    Doc(s.vmi, "General_Pivot: pivot row %d has Rlen=%d and Mrex=%d, expected %d and 0.", prow,
        rlen[prow], Row_Tail(s, prow), b.ncol);
    Internal_Error(s.vmi, Err_Pivot_Row_Length, true);
    return false;
  }
  umax = 0.0;
  const int32_t pstart = luf->Rstr.V[prow];
  int32_t k = 1;
  bool found = false;
  for (int32_t p = pstart; p < pstart + b.ncol; ++p) {
    const int32_t col = ic[p];
    const int32_t q = r2cp[p];
    const double v = aur[q];
    int32_t kk;
    if (col == pcol && !found) {
      kk = 1;
      found = true;
    } else {
      kk = ++k;
      if (kk > b.ncol) break;
    }
    b.at(1, kk) = v;
    umax = std::max(umax, std::fabs(v));
    lisc[kk] = col;
    indc[col] = kk;
    clol[kk] = clin[kk] = clen[col];
    if (kk == 1) {
      lngc[1] = LFalse;
    } else {
      lngc[kk] = Long_col(s, col) ? LTrue : LFalse;
      if (IsTrue(clok[col])) CLEAR_Clok(s, col, clol[kk]);
    }
    Remove_Element_From_Col(s, col, q);
  }
  if (!found || k != b.ncol) {
    Doc(s.vmi, "General_Pivot: pivot column %d is not in pivot row %d of length %d.", pcol, prow,
        b.ncol);
    Internal_Error(s.vmi, Err_Pivot_Not_In_Row, true);
    return false;
  }
  if (Stopped(s)) return false;

  Unlink_Col(s, pcol);
  lisr[1] = prow;
  indr[prow] = 1;
  rlol[1] = rlin[1] = b.ncol;
  lngr[1] = LFalse;

  // The rest of the pivot column, in column order.
  if (clen[pcol] != b.nrow - 1 || Col_Tail(s, pcol) != 0) {
    Doc(s.vmi, "General_Pivot: pivot column %d has Clen=%d and Mcex=%d, expected %d and 0.", pcol,
        clen[pcol], Col_Tail(s, pcol), b.nrow - 1);
    Internal_Error(s.vmi, Err_Pivot_Column_Length, true);
    return false;
  }
  const int32_t qstart = luf->Cstr.V[pcol];
  for (k = 2; k <= b.nrow; ++k) {
    const int32_t q = qstart + k - 2;
    const int32_t row = ir[q];
    b.at(k, 1) = aur[q];
    lisr[k] = row;
    indr[row] = k;
    rlol[k] = rlin[k] = rlen[row];
    lngr[k] = Long_row(s, row) ? LTrue : LFalse;
    Remove_Element_From_Row(s, row, c2rp[q]);
  }
  clen[pcol] = 0;
  iin->Mcex.V[pcol] = 0;
  return !Stopped(s);
}

// The places behind the pivot lines start as "nothing to add".
void Clear_Block(Bump_State &s, const Block &b) {
  const int32_t nr = b.nrow - 1, nc = b.ncol - 1;
  if (nr <= 0 || nc <= 0) return;
  // Region Inversion_FactorBump_B: block columns split over the threads.
  const int32_t nt = Region_Threads(s.vmi, Wrap_Mul(nr, nc), nr);
  for (int32_t t = 1; t <= nt; ++t) {
    int32_t lo, hi;
    Stretch(2, b.ncol, t, nt, lo, hi);
    for (int32_t j = lo; j <= hi; ++j) {
      double *c = b.col(j);
      for (int32_t i = 2; i <= b.nrow; ++i) c[i] = 0.0;
    }
  }
}

// Tries to take one more pivot into the block.  True when a
// new pivot stands at block position Npiv + 1 (Npiv already raised, umax its
// row's largest magnitude right of the pivot); false to end the block.
bool Try_Extension(Bump_State &s, Block &b, double &umax) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  int32_t *lisr = iin->Lisr.V, *lisc = iin->Lisc.V, *indr = iin->Indr.V, *indc = iin->Indc.V;
  int32_t *rlol = iin->Rlol.V, *clol = iin->Clol.V, *rlin = iin->Rlin.Val, *clin = iin->Clin.Val;
  Logical *lngr = iin->Lngr.V, *lngc = iin->Lngc.V;
  const int32_t nf = b.npiv + 1;

  // Limits: the block may grow by a fifth of its first size, plus one
  // per pivot taken.
  const int32_t collim =
      std::min(b.mr - 1, b.nrow + b.nrow0 / 5 + std::min(b.npiv + b.gc, 1));
  const int32_t rowlim =
      std::min(b.mc - 1, b.ncol + b.ncol0 / 5 + std::min(b.npiv + b.gr, 1));

  // Candidates by their counts.
  int32_t ncc = 0, ncr = 0;
  for (int32_t c = nf; c <= b.ncol; ++c)
    if (clin[c] <= collim) ++ncc;
  if (ncc == 0) return false;
  ++s.St.Count_ClmaxOK;
  for (int32_t r = nf; r <= b.nrow; ++r)
    if (rlin[r] <= rowlim) ++ncr;
  if (ncr == 0) return false;
  ++s.St.Count_RlmaxOK;
  // The candidate column is examined in the last column of Mmat, which the
  // block never reaches once it is extended; a block that fills Mmat to its
  // last column cannot be extended anyway.
  if (b.ncol >= b.mc) return false;

  // The column: not long, least Clin, first of equals.
  int32_t jc = 0;
  for (int32_t c = nf; c <= b.ncol; ++c)
    if (!IsTrue(lngc[c]) && clin[c] <= collim && (jc == 0 || clin[c] < clin[jc])) jc = c;
  if (jc == 0) return false;
  ++s.St.Count_CountExtRow;
  const int32_t ccol = lisc[jc];
  double *sp = b.col(b.mc);
  double *cj = b.col(jc);
  // Its places hold what is still to be added to the file values; the
  // candidate copy gets the file values added, so that it holds actual
  // values once the pending pivots are applied.  The block column itself
  // stays as it is until the candidate is accepted.
  for (int32_t i = 1; i <= b.nrow; ++i) sp[i] = cj[i];
  int32_t extraRows = 0;
  double outMax = 0.0;
  {
    const int32_t *ir = luf->Ir.V;
    const double *aur = s.vim->AUrmat.Val;
    const int32_t q1 = luf->Cstr.V[ccol], q2 = q1 + luf->Clen.V[ccol];
    for (int32_t q = q1; q < q2; ++q) {
      const int32_t r = indr[ir[q]];
      if (r == 0) {
        ++extraRows;
        outMax = std::max(outMax, std::fabs(aur[q]));
      } else if (r <= b.npiv) {
        // A pivot row of the block still in the file: the block is broken.
        Doc(vmi, "Expected length of column %d = internal %d was %d", ccol, clin[jc],
            luf->Clen.V[ccol]);
        Doc(vmi, "Expanded length was %d (row %d is pivot %d of the block)", b.nrow + extraRows,
            ir[q], r);
        Internal_Error(vmi, Err_Candidate_Column, true);
        return false;
      } else {
        sp[r] += aur[q];
      }
    }
    ++s.St.Count_ExtractCol;
    s.St.Merged_By_Col += q2 - q1;
  }
  if (b.nrow + extraRows > b.mr - 1) return false;  // the rows would not fit in Mmat
  double largest = 0.0;
  int32_t best = 0;
  Update_LCol(b.a, b.ld, b.npiv, b.npused, b.mc, b.nrow, largest, best);
  const double thr = std::max(vmi->Rtpiva, s.vim->Tol_Piv_Rel * std::max(largest, outMax));

  // The row: not long, least Rlin, at or above thr, on equal Rlin the
  // strictly larger magnitude; its length once in the block within limits.
  int32_t irow = 0;
  for (;;) {
    irow = 0;
    double bestv = 0.0;
    for (int32_t r = nf; r <= b.nrow; ++r) {
      if (IsTrue(lngr[r]) || rlin[r] > rowlim) continue;
      const double v = std::fabs(sp[r]);
      if (v < thr) continue;
      if (irow == 0 || rlin[r] < rlin[irow] || (rlin[r] == rlin[irow] && v > bestv)) {
        irow = r;
        bestv = v;
      }
    }
    if (irow == 0) return false;
    ++s.St.Count_CountExtCol;
    const int32_t row = lisr[irow];
    int32_t extraCols = 0;
    {
      const int32_t *ic = luf->Ic.V;
      const int32_t p1 = luf->Rstr.V[row], p2 = p1 + luf->Rlen.V[row];
      for (int32_t p = p1; p < p2; ++p)
        if (indc[ic[p]] == 0) ++extraCols;
    }
    rlin[irow] = b.ncol + extraCols;
    if (rlin[irow] <= rowlim) break;
    if (--ncr <= 0) return false;
  }
  ++s.St.Count_AcceptCol;
  const int32_t crow = lisr[irow];

  // Extend the block by the new pivot column's rows and the new pivot
  // row's columns; both leave the files.
  if (Trace_Pivot(s)) {
    Doc(vmi, "    Internal row=%d with Rlen=%d Extra=%d", crow, luf->Rlen.V[crow],
        rlin[irow] - b.ncol);
    Doc(vmi, "    Internal col=%d with Clen=%d Extra=%d", ccol, luf->Clen.V[ccol], extraRows);
  }
  const int32_t nrowOld = b.nrow, ncolOld = b.ncol;
  {
    const int32_t q1 = luf->Cstr.V[ccol], q2 = q1 + luf->Clen.V[ccol];
    for (int32_t q = q1; q < q2; ++q) {
      const int32_t row = luf->Ir.V[q];
      if (indr[row] == 0) {
        const int32_t r = ++b.nrow;
        lisr[r] = row;
        indr[row] = r;
        rlol[r] = rlin[r] = luf->Rlen.V[row];
        lngr[r] = Long_row(s, row) ? LTrue : LFalse;
        for (int32_t j = 1; j <= ncolOld; ++j) b.at(r, j) = 0.0;
        sp[r] = s.vim->AUrmat.Val[q];
      }
      Remove_Element_From_Row(s, row, iin->C2rp.V[q]);
    }
    luf->Clen.V[ccol] = 0;
    iin->Mcex.V[ccol] = 0;
    Unlink_Col(s, ccol);
    if (Stopped(s)) return false;
  }
  {
    const int32_t p1 = luf->Rstr.V[crow], p2 = p1 + luf->Rlen.V[crow];
    for (int32_t p = p1; p < p2; ++p) {
      const int32_t col = luf->Ic.V[p];
      const int32_t q = iin->R2cp.V[p];
      const double v = s.vim->AUrmat.Val[q];
      int32_t c = indc[col];
      if (c == 0) {
        c = ++b.ncol;
        lisc[c] = col;
        indc[col] = c;
        clol[c] = clin[c] = luf->Clen.V[col];
        lngc[c] = Long_col(s, col) ? LTrue : LFalse;
        double *cc = b.col(c);
        for (int32_t i = 1; i <= b.nrow; ++i) cc[i] = 0.0;
        cc[irow] = v;
      } else {
        b.at(irow, c) += v;
      }
      if (IsTrue(iin->Clok.V[col])) CLEAR_Clok(s, col, luf->Clen.V[col]);
      Remove_Element_From_Col(s, col, q);
    }
    Unlink_Row(s, crow);
    if (Stopped(s)) return false;
  }
  b.gc -= b.nrow - nrowOld;
  b.gr -= b.ncol - ncolOld;
  // The candidate holds the actual values of the new pivot column now.
  for (int32_t i = 1; i <= b.nrow; ++i) cj[i] = sp[i];

  // The new pivot into block position Npiv + 1.
  const int32_t t = b.npiv + 1;
  if (irow != t) {
    for (int32_t j = 1; j <= b.ncol; ++j) std::swap(b.at(irow, j), b.at(t, j));
    std::swap(lisr[irow], lisr[t]);
    std::swap(rlol[irow], rlol[t]);
    std::swap(rlin[irow], rlin[t]);
    std::swap(lngr[irow], lngr[t]);
    indr[lisr[irow]] = irow;
    indr[lisr[t]] = t;
  }
  if (jc != t) {
    double *x = b.col(jc), *y = b.col(t);
    for (int32_t i = 1; i <= b.nrow; ++i) std::swap(x[i], y[i]);
    std::swap(lisc[jc], lisc[t]);
    std::swap(clol[jc], clol[t]);
    std::swap(clin[jc], clin[t]);
    std::swap(lngc[jc], lngc[t]);
    indc[lisc[jc]] = jc;
    indc[lisc[t]] = t;
  }
  s.Len_Piv_Col = b.nrow;
  s.Len_Piv_Row = b.ncol;
  Update_URow(b.a, b.ld, b.npiv, b.npused, b.ncol, umax);

  // The pivot before it is placed; the new one is the step's pivot now.
  Remove_Row_from_List(s, crow);
  Remove_col_from_list(s, ccol);
  Set_Pivot_Position(s);
  ++s.Piv_Indx;
  s.Rowlft = s.NumRow - s.Piv_Indx + 1;
  s.Piv_Row = crow;
  s.Piv_Col = ccol;
  ++b.npiv;
  return !Stopped(s);
}

// The block's U rows and L columns into their files.
bool Store_Block_U_L(Bump_State &s, const Block &b) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t npiv = b.npiv, nrow = b.nrow, ncol = b.ncol;
  const int32_t nuele = ((2 * ncol - npiv + 1) * npiv) / 2;
  if (!Ensure_U_Room(s, nuele, true)) return false;
  const int32_t nl = npiv * nrow - (npiv * (npiv + 1)) / 2;
  if (nl > 0 && luf->LFileUsed + nl > L_Room(luf)) {
    Increase_L(s.vmi, luf->LFileUsed + nl);
    if (Stopped(s)) return false;
  }
  const int32_t *lisr = iin->Lisr.V, *lisc = iin->Lisc.V;
  int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V, *ic = luf->Ic.V, *mrex = iin->Mrex.V;
  double *aur = s.vim->AUrmat.Val;

  // U rows from U_elefirst down, the first pivot highest; row k starts at
  // top - (k ncol - k (k - 1) / 2), which each thread works out alone.
  // Region Inversion_FactorBump_E.
  const int32_t top = luf->U_elefirst;
  luf->U_elefirst = top - nuele;
  const int32_t work = Wrap_Mul(nrow, npiv);
  int32_t nt = Region_Threads(s.vmi, work, npiv);
  for (int32_t t = 1; t <= nt; ++t) {
    int32_t lo, hi;
    Stretch(1, npiv, t, nt, lo, hi);
    for (int32_t k = lo; k <= hi; ++k) {
      const int32_t start = top - (k * ncol - (k * (k - 1)) / 2);
      const int32_t row = lisr[k];
      rstr[row] = start;
      rlen[row] = ncol - k + 1;
      mrex[row] = 0;
      for (int32_t j = k; j <= ncol; ++j) {
        ic[start + j - k] = lisc[j];
        aur[start + j - k] = b.at(k, j);
      }
    }
  }

  // L columns behind LFileUsed, one per pivot with multipliers; column k
  // starts nrow - j positions after column j.  Region Inversion_FactorBump_F.
  int32_t *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V, *lsor = luf->Lsor.V;
  double *lmat = luf->Lmat.Val;
  const int32_t base = luf->LFileUsed, cols0 = luf->L_Cols;
  const double tolSmall = s.Tol_Small;
  nt = Region_Threads(s.vmi, work, npiv);
  for (int32_t t = 1; t <= nt; ++t) {
    int32_t lo, hi;
    Stretch(1, npiv, t, nt, lo, hi);
    for (int32_t k = lo; k <= hi; ++k) {
      if (nrow - k <= 0) continue;
      int32_t l = base + (k - 1) * nrow - ((k - 1) * k) / 2;
      lsor[cols0 + k] = l + 1;
      const double *m = b.col(k);
      const int32_t prow = lisr[k];
      for (int32_t i = k + 1; i <= nrow; ++i) {
        ++l;
        const double x = m[i];
        lmat[l] = std::fabs(x) <= tolSmall ? 0.0 : x;
        lrow[l] = lisr[i];
        lpiv[l] = prow;
      }
    }
  }
  const int32_t lcols = std::min(npiv, nrow - 1);
  luf->LFileUsed = base + nl;
  luf->L_Cols = cols0 + std::max(lcols, 0);
  lsor[luf->L_Cols + 1] = luf->LFileUsed + 1;
  return true;
}

// Room for the fill of every block row and column, then the
// fill itself.  All reservations stand (raised lengths) until the last one is
// made, so that a compression on the way keeps each of them.
bool Store_Block_Fill(Bump_State &s, const Block &b) {
  IIN *iin = s.iin;
  const int32_t nf = b.npiv + 1;
  const int32_t *lisr = iin->Lisr.V, *lisc = iin->Lisc.V;
  const int32_t *rlin = iin->Rlin.Val, *clin = iin->Clin.Val;
  for (int32_t r = nf; r <= b.nrow; ++r)
    if (rlin[r] > 0) {
      Make_Row_Space(s, lisr[r], rlin[r]);
      if (Stopped(s)) return false;
    }
  for (int32_t c = nf; c <= b.ncol; ++c)
    if (clin[c] > 0) {
      Make_Col_Space(s, lisc[c], clin[c]);
      if (Stopped(s)) return false;
    }
  {
    int32_t *rlen = s.luf->Rlen.V, *clen = s.luf->Clen.V;
    for (int32_t r = nf; r <= b.nrow; ++r) rlen[lisr[r]] -= rlin[r];
    for (int32_t c = nf; c <= b.ncol; ++c) clen[lisc[c]] -= clin[c];
  }
  if (Trace_Pivot(s)) {
    int64_t newele = 0;
    for (int32_t r = nf; r <= b.nrow; ++r) newele += rlin[r];
    Doc(s.vmi, "After testing space. Newele=%lld", static_cast<long long>(newele));
  }
  const Logical *lngr = iin->Lngr.V, *lngc = iin->Lngc.V;
  const double tolSmall = s.Tol_Small;
  for (int32_t c = nf; c <= b.ncol; ++c) {
    if (clin[c] <= 0) continue;
    const double *m = b.col(c);
    const int32_t col = lisc[c];
    const bool longCol = IsTrue(lngc[c]);
    for (int32_t r = nf; r <= b.nrow; ++r) {
      const double v = m[r];
      if (v == Merged_Mark || !(std::fabs(v) > tolSmall)) continue;
      Store_ele_in_both(s, lisr[r], col, v, !longCol && !IsTrue(lngr[r]));
    }
  }
  return !Stopped(s);
}

// Lists of the block's rows and columns after the step.
void Block_Lists(Bump_State &s, const Block &b) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const int32_t nf = b.npiv + 1;
  const int32_t *lisr = iin->Lisr.V, *lisc = iin->Lisc.V;
  const int32_t *rlol = iin->Rlol.V, *clol = iin->Clol.V;
  const int32_t *rlen = s.luf->Rlen.V, *clen = s.luf->Clen.V;
  const int32_t *mrow = iin->Mrow.V;

  int32_t rlmin = s.NumRow + 1;
  for (int32_t r = nf; r <= b.nrow; ++r) rlmin = std::min(rlmin, rlen[lisr[r]]);
  if (Trace_Detail(s)) Doc(vmi, "Moving rows to proper r-lists. Rlmin=%d", rlmin);
  for (int32_t r = nf; r <= b.nrow; ++r) {
    const int32_t row = lisr[r];
    if ((mrow[row] == 0 || s.Semi_Dense) && rlen[row] != rlol[r]) {
      if (Trace_Detail(s)) Doc(vmi, "Moving row %d from R-list %d to %d", row, rlol[r], rlen[row]);
      Move_Row_To_C_List(s, row);
    } else if (mrow[row] != 0 && rlen[row] >= s.Length_Lim) {
      if (Trace_Detail(s)) Doc(vmi, "Moving row %d from M-list to R-list %d", row, rlen[row]);
      Move_Row_To_C_List(s, row);
    }
    if (Stopped(s)) return;
  }

  if (Trace_Detail(s)) Doc(vmi, "Before Update_Col_Info.");
  for (int32_t c = nf; c <= b.ncol; ++c) {
    const int32_t col = lisc[c];
    Update_Col_Info(s, col, clol[c], iin->Mlow.V[col]);
    if (Stopped(s)) return;
  }
  if (Trace_Detail(s)) Doc(vmi, "After Update_Col_Info.");

  for (int32_t r = nf; r <= b.nrow; ++r) {
    Rescan_row_for_m(s, lisr[r], rlol[r], 0, 0);
    if (Stopped(s)) return;
  }
  if (Trace_Detail(s)) Doc(vmi, "After Update_Row_Info.");

  // A scanned row that fell below the shortest row list: the columns of the
  // block whose count is unknown get the bound of the block's shortest row,
  // so that the search does not pass over them.
  if (!s.Semi_Dense) {
    bool shrunk = false;
    rlmin = s.NumRow + 1;
    for (int32_t r = nf; r <= b.nrow; ++r) {
      const int32_t row = lisr[r];
      rlmin = std::min(rlmin, rlen[row]);
      if (mrow[row] != 0 && rlen[row] < s.MIN_RC_List) shrunk = true;
    }
    if (shrunk) {
      int32_t *mact = iin->Mact.V, *mlow = iin->Mlow.V;
      for (int32_t c = nf; c <= b.ncol; ++c) {
        const int32_t col = lisc[c];
        if (mact[col] != 0) continue;
        const int32_t m = Mark_Product(rlmin - 1, clen[col] - 1);
        if (m <= 0) continue;
        Remove_col_from_list(s, col);
        Store_col_in_M_list(s, col, m);
        mlow[col] = m;
        if (Stopped(s)) return;
      }
    }
  }

  int32_t *indr = iin->Indr.V, *indc = iin->Indc.V;
  for (int32_t r = 1; r <= b.nrow; ++r) indr[lisr[r]] = 0;
  for (int32_t c = 1; c <= b.ncol; ++c) indc[lisc[c]] = 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Singleton steps.
// ---------------------------------------------------------------------------

void Store_L_Column(Bump_State &s, double pivot) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t pcol = s.Piv_Col, prow = s.Piv_Row;
  const int32_t nmul = s.Len_Piv_Col - 1;
  Unlink_Col(s, pcol);
  if (Stopped(s)) return;
  const int32_t q0 = luf->Cstr.V[pcol] + 1;
  luf->Clen.V[pcol] = 0;
  iin->Mcex.V[pcol] = 0;
  if (nmul <= 0) return;  // nothing below the pivot: no L column
  if (luf->LFileUsed + nmul > L_Room(luf)) {
    Increase_L(s.vmi, luf->LFileUsed + nmul);
    if (Stopped(s)) return;
  }
  const int32_t *ir = luf->Ir.V, *c2rp = iin->C2rp.V;
  const double *aur = s.vim->AUrmat.Val;
  int32_t *lisr = iin->Lisr.V, *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
  double *lmat = luf->Lmat.Val;
  const double tolSmall = s.Tol_Small;
  int32_t l = luf->LFileUsed;
  luf->Lsor.V[luf->L_Cols + 1] = l + 1;
  for (int32_t k = 1; k <= nmul; ++k) {
    const int32_t q = q0 + k - 1;
    const int32_t row = ir[q];
    lisr[k] = row;
    double m = aur[q] / pivot;
    if (std::fabs(m) <= tolSmall) m = 0.0;
    ++l;
    lmat[l] = m;
    lrow[l] = row;
    lpiv[l] = prow;
    Remove_Element_From_Row(s, row, c2rp[q]);
  }
  luf->LFileUsed = l;
  luf->L_Cols += 1;
  luf->Lsor.V[luf->L_Cols + 1] = l + 1;
}

void Row_Singleton_Pivot(Bump_State &s) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t prow = s.Piv_Row, pcol = s.Piv_Col;
  ++s.St.RC1;
  if (Trace_Pivot(s))
    Doc(s.vmi, "Row singleton: Pivot row=%d Pivot col=%d with length=%d", prow, pcol,
        s.Len_Piv_Col);
  if (!Ensure_U_Room(s, 1, false)) return;
  Unlink_Row(s, prow);
  if (Stopped(s)) return;
  // The pivot to the head of its column, the layout Store_L_Column reads.
  const int32_t p = luf->Rstr.V[prow];
  const int32_t q = iin->R2cp.V[p];
  const int32_t q0 = luf->Cstr.V[pcol];
  if (q != q0) Swap_Col_Slots(s, q, q0);
  Remove_Element_From_Row(s, prow, p);
  if (Stopped(s)) return;
  const int32_t u = --luf->U_elefirst;
  luf->Ic.V[u] = pcol;
  double *aur = s.vim->AUrmat.Val;
  aur[u] = aur[q0];
  luf->Rstr.V[prow] = u;
  luf->Rlen.V[prow] = 1;
  iin->Mrex.V[prow] = 0;
  Test_Pivot(s, std::fabs(aur[u]), aur[u]);
  if (Stopped(s)) return;
  Store_L_Column(s, s.vim->AUrmat.Val[u]);
  if (Stopped(s)) return;

  const int32_t nrows = s.Len_Piv_Col - 1;
  const int32_t *lisr = iin->Lisr.V;
  for (int32_t k = 1; k <= nrows; ++k) {
    const int32_t row = lisr[k];
    if (s.Semi_Dense || iin->Mrow.V[row] == 0) Move_Row_To_C_List(s, row);
    Rescan_row_for_m(s, row, luf->Rlen.V[row] + 1, 0, 0);
    if (Stopped(s)) return;
  }
  Compress_Short_Lists(s, 1, 0, 1, nrows);
}

void Col_Singleton_Pivot(Bump_State &s) {
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t prow = s.Piv_Row, pcol = s.Piv_Col;
  const int32_t n = s.Len_Piv_Row;
  ++s.St.CC1;
  if (Trace_Pivot(s))
    Doc(s.vmi, "Column singleton: Pivot row=%d with length=%d Pivot col=%d", prow, n, pcol);
  if (!Ensure_U_Room(s, n, false)) return;
  Unlink_Row(s, prow);
  Unlink_Col(s, pcol);
  if (Stopped(s)) return;

  // The row to the U-file, pivot first; every element leaves its column.
  const int32_t ufirst = luf->U_elefirst - n;
  const int32_t pstart = luf->Rstr.V[prow];
  int32_t next = ufirst + 1;
  int32_t k = 0;
  bool found = false;
  double umax = 0.0;
  const double clokFrac = s.Clok_Frac;
  for (int32_t p = pstart; p < pstart + n; ++p) {
    const int32_t col = luf->Ic.V[p];
    const int32_t q = iin->R2cp.V[p];
    double *aur = s.vim->AUrmat.Val;
    const double v = aur[q];
    umax = std::max(umax, std::fabs(v));
    if (col == pcol && !found) {
      found = true;
      luf->Ic.V[ufirst] = col;
      aur[ufirst] = v;
      continue;
    }
    if (next >= ufirst + n) break;
    luf->Ic.V[next] = col;
    aur[next] = v;
    ++next;
    if (IsTrue(iin->Clok.V[col]) && std::fabs(v) >= clokFrac * iin->Clmx.Val[col])
      CLEAR_Clok(s, col, luf->Clen.V[col]);
    Remove_Element_From_Col(s, col, q);
    iin->Lisc.V[++k] = col;
  }
  if (!found || k != n - 1) {
    Doc(s.vmi, "Col_Singleton_Pivot: pivot column %d is not in pivot row %d of length %d.", pcol,
        prow, n);
    Internal_Error(s.vmi, Err_Pivot_Not_In_Row, true);
    return;
  }
  luf->Clen.V[pcol] = 0;
  iin->Mcex.V[pcol] = 0;
  luf->U_elefirst = ufirst;
  luf->Rstr.V[prow] = ufirst;
  luf->Rlen.V[prow] = n;
  iin->Mrex.V[prow] = 0;
  if (Stopped(s)) return;

  for (int32_t c = 1; c <= n - 1; ++c) {
    const int32_t col = iin->Lisc.V[c];
    Update_Col_Info(s, col, luf->Clen.V[col] + 1, iin->Mlow.V[col]);
    if (Stopped(s)) return;
  }
  Test_Pivot(s, umax, s.vim->AUrmat.Val[ufirst]);
  if (Stopped(s)) return;
  Compress_Short_Lists(s, 1, n - 1, 1, 0);
}

// ---------------------------------------------------------------------------
// General_Pivot.
// ---------------------------------------------------------------------------

void General_Pivot(Bump_State &s, int32_t mr, int32_t mc) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  ++s.St.Gen_Calls;

  Block b;
  b.a = iin->Mmat.Val + 1;
  b.ld = mr;
  b.mr = mr;
  b.mc = mc;
  b.nrow = b.nrow0 = s.Len_Piv_Col;
  b.ncol = b.ncol0 = s.Len_Piv_Row;
  if (b.nrow < 1 || b.ncol < 1 || b.nrow > mr || b.ncol > mc ||
      static_cast<int64_t>(mr) * mc > Size(iin->Mmat)) {
    Doc(vmi, "General_Pivot: block of %d x %d does not fit Mmat of %d x %d (size %d).", b.nrow,
        b.ncol, mr, mc, Size(iin->Mmat));
    Internal_Error(vmi, Err_Block_Shape, true);
    return;
  }

  // The pivot.
  if (Trace_Pivot(s)) {
    Doc(vmi, "Pivot row=%d with length=%d", s.Piv_Row, b.ncol);
    Doc(vmi, "Pivot col=%d with length=%d", s.Piv_Col, b.nrow);
    const int32_t rs = luf->Rstr.V[s.Piv_Row], cs = luf->Cstr.V[s.Piv_Col];
    Doc(vmi, "The pivot row: Jstr=%d and jend=%d", rs, rs + b.ncol - 1);
    Doc(vmi, "The pivot col: Jstr=%d and jend=%d", cs, cs + b.nrow - 1);
  }
  Unlink_Row(s, s.Piv_Row);
  if (Stopped(s)) return;

  // The pivot lines into the block; the rest of it to zero.
  double umax = 0.0;
  if (!Gather_Pivot_Lines(s, b, umax)) return;
  Clear_Block(s, b);

  // The pivots of the block.
  b.npiv = 1;
  b.npused = 0;
  for (;;) {
    // Test of the pivot.
    s.MarkBest = (b.nrow - b.npiv) * (b.ncol - b.npiv);
    double &pivot = b.at(b.npiv, b.npiv);
    Test_Pivot(s, umax, pivot);
    if (Stopped(s)) return;
    ++s.St.Gen;
    // Multipliers.
    const double pv = pivot;
    double *m = b.col(b.npiv);
    for (int32_t i = b.npiv + 1; i <= b.nrow; ++i) m[i] /= pv;
    // Batches of pivots for the rest of the block.
    if (b.npiv - b.npused >= Batch_Width) Inter_Updt(b.a, b.ld, b.nrow, b.ncol, b.npiv, b.npused);
    // A pivot that failed its test ends the block: Factor_Bump repairs it.
    if (s.Bad_Pivot) break;
    // A small block is not worth another pivot.
    if (s.MarkBest <= Ext_Small_Mark && b.npiv + 1 <= Ext_Small_Next) break;
    // Another pivot from the rows and columns at hand, if it is cheap.
    if (!Try_Extension(s, b, umax)) break;
  }
  if (Stopped(s)) return;

  // The rest of the block gets all pending pivots.
  Final_Updt(s, b.a, b.ld, b.nrow, b.ncol, b.npiv, b.npused);
  if (Stopped(s)) return;

  // U and L.
  if (!Store_Block_U_L(s, b)) return;

  // Merge into the existing elements; the rest is fill.
  if (Trace_Pivot(s)) Doc(vmi, "Before Update_Amat");
  const int32_t nf = b.npiv + 1;
  Update_Amat(s, nf, b.nrow, b.ncol, b.ld);
  if (Stopped(s)) return;
  if (Trace_Pivot(s)) {
    int64_t newele = 0;
    for (int32_t r = nf; r <= b.nrow; ++r) newele += iin->Rlin.Val[r];
    Doc(vmi, "After Update_Amat. Newele=%lld", static_cast<long long>(newele));
  }

  // Fill.
  if (!Store_Block_Fill(s, b)) return;

  // Lists, and the block's index vectors back to zero.
  Block_Lists(s, b);
  if (Stopped(s)) return;

  // Short rows and columns without tails.
  Compress_Short_Lists(s, nf, b.ncol, nf, b.nrow);
}

// ---------------------------------------------------------------------------
// Lists after a step.
// ---------------------------------------------------------------------------

void Update_Col_Info(Bump_State &s, int32_t icol, int32_t ocnt, int32_t mlow_new) {
  IIN *iin = s.iin;
  const int32_t clen = s.luf->Clen.V[icol];
  if (s.Semi_Dense) {
    // Only the C-lists are in use: a column whose length changed moves.
    if (clen != ocnt) {
      Remove_col_from_list(s, icol);
      Store_col_in_c_list(s, icol, clen);
      s.Max_Col_Shrink = std::max(s.Max_Col_Shrink, ocnt - clen);
    }
    return;
  }
  int32_t *mact = iin->Mact.V, *mlow = iin->Mlow.V;
  const int32_t mcex = iin->Mcex.V[icol];
  // The bound of the caller is a multiple of ocnt - 1: its row part
  // carries over to the new length.
  const int32_t rlow1 = ocnt >= 2 ? mlow_new / (ocnt - 1) : 0;
  if (Trace_Detail(s)) {
    Doc(s.vmi, "Update_Col_Info: Icol=%d Clen=%d Mcex=%d", icol, clen, mcex);
    Doc(s.vmi, "Mact=%d Mlow=%d Rlmin=%d Ocnt=%d", mact[icol], mlow[icol], rlow1 + 1, ocnt);
  }
  if (clen < 2) {
    if (clen == 0 && mcex > 0) {
      if (Trace_Detail(s))
        Doc(s.vmi, "Skipping Update_Col_Info for Icol=%d with Clen=%d and Mcex=%d", icol, clen,
            mcex);
      return;
    }
    Remove_col_from_list(s, icol);
    mlow[icol] = 0;
    Store_col_in_c_list(s, icol, clen);
    return;
  }
  const int32_t newLow = Mark_Product(rlow1, clen - 1);
  if (mact[icol] == 0) {
    if (clen != ocnt) {
      Remove_col_from_list(s, icol);
      Store_col_in_c_list(s, icol, clen);
    }
    mlow[icol] = newLow;
    return;
  }
  if (newLow < 2) {
    Remove_col_from_list(s, icol);
    Store_col_in_c_list(s, icol, clen);
    mlow[icol] = newLow;
    return;
  }
  if (mact[icol] % (clen - 1) != 0) {
    Remove_col_from_list(s, icol);
    Store_col_in_M_list(s, icol, newLow);
    mlow[icol] = newLow;
    return;
  }
  mlow[icol] = std::min(newLow, mact[icol]);
}

void Rescan_row_for_m(Bump_State &s, int32_t irow, int32_t ocnt, int32_t skipE, int32_t skipC) {
  IIN *iin = s.iin;
  LUF *luf = s.luf;
  const int32_t rlen = luf->Rlen.V[irow];
  int32_t *mrow = iin->Mrow.V;
  if (s.Semi_Dense) {
    mrow[irow] = 0;
    iin->Mrex.V[irow] = 0;
    if (ocnt != rlen) s.Max_Row_Shrink = std::max(s.Max_Row_Shrink, ocnt - rlen);
    return;
  }
  if (rlen < 2) {
    if (mrow[irow] != 0 || ocnt != rlen) Move_Row_To_C_List(s, irow);
    return;
  }
  if (mrow[irow] == 0 || ocnt <= rlen) {
    if (Trace_Detail(s))
      Doc(s.vmi, "Skipping Rescan_row_for_m: Row=%d Ncnt=%d=Ocnt=%d", irow, rlen, ocnt);
    return;
  }
  // A scanned row got shorter: its columns of unknown count get the lower
  // bound of the new length.
  if (Trace_Detail(s)) {
    Doc(s.vmi, "Checking row %d for rescan. Rlen=%d Ncnt=%d Ocnt=%d", irow, rlen, rlen, ocnt);
    Doc(s.vmi, "Rescan_row_for_m: Row=%d Ncnt=%d SKIPE=%d SkipC=%d", irow, rlen, skipE, skipC);
  }
  ++s.St.Rescans;
  const int32_t cnt1 = rlen - 1;
  if (skipE == 0 && skipC == 0) {
    int32_t mmin = 0;
    Scan_Row_for_M(s, irow, cnt1, mmin);
    return;
  }
  // With columns to pass over, the same walk as Scan_Row_for_M.
  const int32_t p1 = luf->Rstr.V[irow], p2 = p1 + rlen;
  for (int32_t p = p1; p < p2; ++p) {
    const int32_t col = luf->Ic.V[p];
    if (col == skipE || col == skipC || iin->Mact.V[col] != 0) continue;
    const int32_t m = Mark_Product(luf->Clen.V[col] - 1, cnt1);
    if (m <= 0) continue;
    Remove_col_from_list(s, col);
    Store_col_in_M_list(s, col, m);
    iin->Mlow.V[col] = m;
    if (Stopped(s)) return;
  }
  ++s.St.Scan_Rows;
  s.St.Elem_Rows += cnt1 + 1;
}

void Compress_Short_Lists(Bump_State &s, int32_t c1, int32_t c2, int32_t r1, int32_t r2) {
  if (s.Semi_Dense) return;
  IIN *iin = s.iin;
  LUF *luf = s.luf;
  const int32_t lim = s.Length_Lim;
  // A compression may leave a tail behind (elements that another row's
  // compression moved in): one more run then.
  for (int32_t c = c1; c <= c2; ++c) {
    const int32_t col = iin->Lisc.V[c];
    for (int pass = 0; pass < 2; ++pass) {
      if (iin->Mcex.V[col] <= 0 || luf->Clen.V[col] >= lim) break;
      Compres_Uncompressed_Col(s, col);
      if (Stopped(s)) return;
    }
  }
  for (int32_t r = r1; r <= r2; ++r) {
    const int32_t row = iin->Lisr.V[r];
    for (int pass = 0; pass < 2; ++pass) {
      if (iin->Mrex.V[row] <= 0 || luf->Rlen.V[row] >= lim) break;
      Compres_Uncompressed_Row(s, row);
      if (Stopped(s)) return;
    }
  }
}

}  // namespace vlu
