// Semi-dense mode: the change of mode, its light pivot search with a small
// cache of candidate columns, the thresholds that follow MarkHigh, and the
// statistics-driven test that decides the change.
//
// Data read and written here (1-based, old numbers):
//
//   LUF%Cstr/Clen, LUF%Ir   column j: rows Ir(Cstr(j) .. Cstr(j)+Clen(j)-1),
//                           values at the same positions of VIM%AUrmat.
//   LUF%Rstr/Rlen, LUF%Ic   row i: columns Ic(Rstr(i) .. Rstr(i)+Rlen(i)-1);
//                           the value of row-file position p is
//                           AUrmat(IIN%R2cp(p)).
//   IIN%Clmx/Clmin/Clok     column maximum, smallest admissible magnitude,
//                           validity flag of Clmx.
//   IIN%Stcc/Stcr(c)        the C-lists.  In semi-dense mode every active
//                           column stands in a C-list (or the zero list) and
//                           every active row likewise: the M-lists and the
//                           scanned-row list are emptied by the switch.
//   IIN%Mcex/Mrex           tails, all compressed by the switch; afterwards
//                           Mcex is 0 and Mrex is not consulted.
//   Bump_State              Cand_Col(1..Cand_Count), Cand_M(1..Cand_Count):
//                           the candidate cache, columns with the count they
//                           had when stored, oldest first.  Also MarkHigh,
//                           Length_Lim, Len_Crit, Extra_Crit, DO_Squeeze,
//                           Pre_Switch, Switch_Indx and the bases of the
//                           periodic test (Stat_Last_*).
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "elimination/bump.h"
#include "runtime/messages.h"
#include "runtime/records.h"

namespace vlu {

namespace {

constexpr double Eps_Mach = 2.220446049250313e-16;  // 2^-52

constexpr int Err_After_Scan_Rmin = 4320;
constexpr int Err_Out_Of_Loop_D = 4321;

inline int32_t Count_Of(int64_t a, int64_t b) {
  const int64_t p = a * b;
  return p > INT32_MAX ? INT32_MAX : static_cast<int32_t>(p);
}

// Makes Clmx(icol) exact again when Clok says it may be stale.
void Refresh_Clmx(Bump_State &s, int32_t icol) {
  IIN *iin = s.iin;
  if (IsTrue(iin->Clok.V[icol])) return;
  const LUF *luf = s.luf;
  const double *a = s.vim->AUrmat.Val;
  const int32_t q0 = luf->Cstr.V[icol], q1 = q0 + luf->Clen.V[icol];
  double big = 0.0;
  for (int32_t q = q0; q < q1; ++q) big = std::max(big, std::fabs(a[q]));
  iin->Clok.V[icol] = LTrue;
  iin->Clmx.Val[icol] = big;
  iin->Clmin.Val[icol] = std::max(iin->Clmin.Val[icol], Eps_Mach * big);
  ++s.St.Clmx_Redone;
  s.St.Elem_Cols += q1 - q0;
}

inline double Threshold(const Bump_State &s, int32_t icol) {
  return std::max(s.vmi->Rtpiva, s.vim->Tol_Piv_Rel * s.iin->Clmx.Val[icol]);
}

// The shortest row among the elements of icol at or above the threshold, on
// equal length the strictly larger magnitude (first of exact ties).  Returns
// false when no element passes.  That is normal for a column whose maximum is
// below Rtpiva (it is left for the last resort of the search); for any other
// column it means that Clmx was wrong, an internal error.
bool Scan_Col_for_Rmin(Bump_State &s, int32_t icol, int32_t &irow, int32_t &rmin) {
  Refresh_Clmx(s, icol);
  const LUF *luf = s.luf;
  const int32_t *ir = luf->Ir.V, *rlen = luf->Rlen.V;
  const double *a = s.vim->AUrmat.Val;
  const double thr = Threshold(s, icol);
  const int32_t clen = luf->Clen.V[icol];
  const int32_t q0 = luf->Cstr.V[icol], q1 = q0 + clen;
  irow = 0;
  rmin = s.NumRow + 1;
  double bval = 0.0;
  for (int32_t q = q0; q < q1; ++q) {
    const double v = std::fabs(a[q]);
    if (v < thr) continue;
    const int32_t r = rlen[ir[q]];
    if (r < rmin || (r == rmin && v > bval)) {
      rmin = r;
      bval = v;
      irow = ir[q];
    }
  }
  ++s.St.Scan_Cols;
  s.St.Elem_Cols += clen;
  if (irow != 0) return true;
  const double clmx = s.iin->Clmx.Val[icol];
  if (clen > 0 && clmx >= s.vmi->Rtpiva) {
    VMI *vmi = s.vmi;
    Doc(vmi, "Error after Scan_Col_for_Rmin. Icol=%d", icol);
    Doc(vmi, "Bmin=%13.5E Clmx=%13.5E", thr, clmx);
    Doc(vmi, "Rmin=%d Cnt1=%d and Clen=%d", rmin, clen - 1, clen);
    Doc(vmi, "Cstr=%d", q0);
    for (int32_t q = q0; q < q1; ++q)
      Doc(vmi, "Irow=%d RLEN=%d Amat=%13.5E", ir[q], rlen[ir[q]], a[q]);
    Internal_Error(vmi, Err_After_Scan_Rmin, true);
  }
  return false;
}

// The row's counterpart: among its elements at or above the threshold of
// their column, the one in the shortest column, on equal length the strictly
// larger magnitude.  Returns false when none passes.
bool Scan_Row_for_Cmin(Bump_State &s, int32_t irow, int32_t &icol, int32_t &cmin) {
  const LUF *luf = s.luf;
  const int32_t p0 = luf->Rstr.V[irow], rl = luf->Rlen.V[irow];
  icol = 0;
  cmin = s.NumRow + 1;
  double bval = 0.0;
  for (int32_t p = p0; p < p0 + rl; ++p) {
    const int32_t j = luf->Ic.V[p];
    Refresh_Clmx(s, j);
    const double v = std::fabs(s.vim->AUrmat.Val[s.iin->R2cp.V[p]]);
    if (v < Threshold(s, j)) continue;
    const int32_t cl = luf->Clen.V[j];
    if (cl < cmin || (cl == cmin && v > bval)) {
      cmin = cl;
      bval = v;
      icol = j;
    }
  }
  ++s.St.Scan_Rows;
  s.St.Elem_Rows += rl;
  return icol != 0;
}

// The cache keeps the columns in the order they were stored.  A column
// already cached gets its new count.  When the cache is full, the entry with
// the highest count leaves (the oldest of equal ones): the entries most
// likely to give a good target again are kept.
void Cache_Put(Bump_State &s, int32_t icol, int32_t m) {
  for (int32_t k = 1; k <= s.Cand_Count; ++k)
    if (s.Cand_Col[k] == icol) {
      s.Cand_M[k] = m;
      return;
    }
  if (s.Cand_Count == Cand_Max) {
    int32_t worst = 1;
    for (int32_t k = 2; k <= s.Cand_Count; ++k)
      if (s.Cand_M[k] > s.Cand_M[worst]) worst = k;
    for (int32_t k = worst; k < s.Cand_Count; ++k) {
      s.Cand_Col[k] = s.Cand_Col[k + 1];
      s.Cand_M[k] = s.Cand_M[k + 1];
    }
    --s.Cand_Count;
  }
  ++s.Cand_Count;
  s.Cand_Col[s.Cand_Count] = icol;
  s.Cand_M[s.Cand_Count] = m;
}

// Best column of the cache, with its row, into Piv_Col, Piv_Row, MarkBest
// (Mark_Infinite and no column when the cache gives nothing).  Each column
// taken is scanned again, since its rows may have changed; a count found
// right ends the loop, a changed count is stored and the lowest entry is
// taken again, and a column that comes up a second time (its count now
// fresh) ends it too.
void Select_From_Cache(Bump_State &s) {
  s.MarkBest = Mark_Infinite;
  s.Piv_Col = 0;
  s.Piv_Row = 0;
  const int32_t *cotn = s.vim->Cotn.V;
  int32_t n = 0;
  for (int32_t k = 1; k <= s.Cand_Count; ++k)
    if (cotn[s.Cand_Col[k]] > s.Piv_Indx) {
      ++n;
      s.Cand_Col[n] = s.Cand_Col[k];
      s.Cand_M[n] = s.Cand_M[k];
    }
  s.Cand_Count = n;

  bool seen[Cand_Max + 1] = {false};
  int32_t seenRow[Cand_Max + 1] = {0};
  while (s.Cand_Count > 0) {
    int32_t k = 1;
    for (int32_t l = 2; l <= s.Cand_Count; ++l)
      if (s.Cand_M[l] < s.Cand_M[k]) k = l;
    const int32_t j = s.Cand_Col[k];
    if (seen[k]) {
      s.MarkBest = s.Cand_M[k];
      s.Piv_Col = j;
      s.Piv_Row = seenRow[k];
      return;
    }
    int32_t irow = 0, rmin = 0;
    const bool ok = Scan_Col_for_Rmin(s, j, irow, rmin);
    if (Stopped(s)) return;
    if (!ok) {
      for (int32_t l = k; l < s.Cand_Count; ++l) {
        s.Cand_Col[l] = s.Cand_Col[l + 1];
        s.Cand_M[l] = s.Cand_M[l + 1];
        seen[l] = seen[l + 1];
        seenRow[l] = seenRow[l + 1];
      }
      seen[s.Cand_Count] = false;
      --s.Cand_Count;
      continue;
    }
    const int32_t m = Count_Of(s.luf->Clen.V[j] - 1, rmin - 1);
    if (m == s.Cand_M[k]) {
      s.MarkBest = m;
      s.Piv_Col = j;
      s.Piv_Row = irow;
      return;
    }
    s.Cand_M[k] = m;
    seen[k] = true;
    seenRow[k] = irow;
  }
}

}  // namespace

void Switch_to_Semi_Dense(Bump_State &s, int32_t indx) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  LUF *luf = s.luf;
  VIM *vim = s.vim;
  if (vmi->Trace_Inv >= 1)
    Doc(vmi, "Switching to semi-dense mode. Indx=%d Rows left=%d", indx, s.Rowlft);

  // 1. Every M-list is emptied into the C-lists.
  for (int32_t m = iin->MarkBad; m >= 1; --m)
    for (int32_t j = iin->Stmc.V[m]; j != 0; j = iin->Stmc.V[m]) {
      Remove_col_from_M_head(s, j, m);
      Store_col_in_c_list(s, j, luf->Clen.V[j]);
      if (Stopped(s)) return;
    }

  // 2. No column keeps a tail.
  for (int32_t k = indx; k <= s.NumRow; ++k) {
    const int32_t j = vim->Cnto.V[k];
    if (iin->Mcex.V[j] != 0) {
      Compres_Uncompressed_Col(s, j);
      if (Stopped(s)) return;
    }
  }

  // 3. No row keeps a tail, and scanned rows go back to their C-lists.
  for (int32_t k = indx; k <= s.NumRow; ++k) {
    const int32_t i = vim->Rnto.V[k];
    if (iin->Mrex.V[i] != 0) {
      Compres_Uncompressed_Row(s, i);
      if (Stopped(s)) return;
    }
    if (iin->Mrow.V[i] != 0) {
      Remove_Row_from_List(s, i);
      Store_Row_in_C_List(s, i, luf->Rlen.V[i]);
      if (Stopped(s)) return;
    }
  }

  // 4. Counts are not kept in this mode: no column carries a bound.
  for (int32_t k = indx; k <= s.NumRow; ++k) iin->Mlow.V[vim->Cnto.V[k]] = 0;

  s.Cand_Count = 0;
  s.Semi_Dense = true;
}

void Select_Pivot_D(Bump_State &s) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const LUF *luf = s.luf;
  s.Max_Row_Shrink = 0;
  s.Max_Col_Shrink = 0;

  // 1. A column singleton.
  if (const int32_t j = iin->Stcc.V[1]; j != 0) {
    s.Piv_Col = j;
    s.Piv_Row = luf->Ir.V[luf->Cstr.V[j]];
    Remove_col_from_C_head(s, j, 1);
    iin->Mlow.V[j] = 0;
    s.MarkBest = 0;
    return;
  }
  // 2. A row singleton.
  s.MIN_CC_List = std::max(s.MIN_CC_List, 2);
  if (const int32_t i = iin->Stcr.V[1]; i != 0) {
    s.Piv_Row = i;
    s.Piv_Col = luf->Ic.V[luf->Rstr.V[i]];
    Remove_col_from_list(s, s.Piv_Col);
    s.MarkBest = 0;
    return;
  }

  // 3. The cache gives a first count, 4. and the target of the walk.
  Select_From_Cache(s);
  if (Stopped(s)) return;
  const float target =
      s.MarkBest > 100 ? static_cast<float>(s.MarkBest) / 1.2f : static_cast<float>(s.MarkBest);
  const double tgt = target;
  const bool trace = vmi->Trace_Inv >= 3;
  if (trace)
    Doc(vmi, "Select_Pivot_D: cache count=%d Col=%d Target=%13.5E Candidates=%d", s.MarkBest,
        s.Piv_Col, tgt, s.Cand_Count);

  // A new best count replaces the pivot and enters the cache; a count at or
  // below the target ends the walk.
  auto consider = [&](int32_t m, int32_t icol, int32_t irow) {
    if (m < s.MarkBest) {
      s.MarkBest = m;
      s.Piv_Col = icol;
      s.Piv_Row = irow;
      Cache_Put(s, icol, m);
    }
    return static_cast<double>(m) <= tgt;
  };

  // 5. The walk by count: columns of count c, then rows of count c.
  bool done = false;
  for (int32_t c = 2; c <= s.Rowlft && !done; ++c) {
    const int64_t cnt1 = c - 1;
    if (!(static_cast<double>(cnt1 * cnt1) < tgt)) break;
    for (int32_t j = iin->Stcc.V[c]; j != 0 && !done; j = iin->Nxtc.V[j]) {
      int32_t irow = 0, rmin = 0;
      const bool ok = Scan_Col_for_Rmin(s, j, irow, rmin);
      if (Stopped(s)) return;
      if (ok) done = consider(Count_Of(cnt1, rmin - 1), j, irow);
    }
    for (int32_t i = iin->Stcr.V[c]; i != 0 && !done; i = iin->Nxtr.V[i]) {
      int32_t icol = 0, cmin = 0;
      if (Scan_Row_for_Cmin(s, i, icol, cmin)) done = consider(Count_Of(cmin - 1, cnt1), icol, i);
    }
  }

  if (s.Piv_Col != 0) {
    Remove_col_from_list(s, s.Piv_Col);
    return;
  }

  // 7. Nothing passed anywhere: the first non-empty column, its first element.
  const int32_t *cnto = s.vim->Cnto.V;
  for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
    const int32_t j = cnto[k];
    if (luf->Clen.V[j] > 0) {
      s.Piv_Col = j;
      s.Piv_Row = luf->Ir.V[luf->Cstr.V[j]];
      s.MarkBest = Count_Of(luf->Clen.V[j] - 1, luf->Rlen.V[s.Piv_Row] - 1);
      Remove_col_from_list(s, j);
      return;
    }
  }

  // 8. No column at all: the state is broken.
  Doc(vmi, "Out at the end of the loop in Select_Pivot_D. Rowlft=%d Piv_Indx=%d", s.Rowlft,
      s.Piv_Indx);
  Doc(vmi, "MIN_CC_List=%d and MIN_RC_List=%d", s.MIN_CC_List, s.MIN_RC_List);
  for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
    const int32_t j = cnto[k], i = s.vim->Rnto.V[k];
    Doc(vmi, "Col=%d Clen=%d Cstr=%d Row=%d Rlen=%d Rstr=%d", j, luf->Clen.V[j], luf->Cstr.V[j], i,
        luf->Rlen.V[i], luf->Rstr.V[i]);
  }
  Internal_Error(vmi, Err_Out_Of_Loop_D, true);
}

void Increase_MarkHigh(Bump_State &s, int32_t m) {
  VMI *vmi = s.vmi;
  if (m > 2499 && s.MarkHigh < 2500) {
    if (vmi->Trace_Inv >= 1) Doc(vmi, "Turn squeeze off at MarkHigh=%d and Rowlft=%d", m, s.Rowlft);
    s.DO_Squeeze = false;
  }
  s.MarkHigh = m;
  const float root = std::sqrt(static_cast<float>(m));
  s.Len_Crit = static_cast<int32_t>(2.5f * root + 8.0f);
  s.Extra_Crit = static_cast<int32_t>(2.0f * root);
  if (vmi->Trace_Inv >= 2)
    Doc(vmi, "Increase_MarkHigh: MarkHigh=%d Len_Crit=%d Extra_Crit=%d", m, s.Len_Crit,
        s.Extra_Crit);

  int64_t lim = std::min<int64_t>(std::max<int64_t>(8, 3 * static_cast<int64_t>(m) / 2),
                                  static_cast<int64_t>(m) + 8);
  if (lim > s.NumRow) lim = static_cast<int64_t>(s.NumRow) + 1;

  s.Do_Restart = false;
  if (lim > s.Length_Lim && !s.Semi_Dense) {
    const int32_t old = s.Length_Lim;
    if (vmi->Trace_Inv >= 2)
      Doc(vmi, "Length_Lim increased from %d to %d", old, static_cast<int32_t>(lim));
    s.Length_Lim = static_cast<int32_t>(lim);
    // Rows and columns that are short now must not keep tails.
    Do_Extra_Compression(s, old);
  }
}

void Stat_Switch_Check(Bump_State &s) {
  if (s.Semi_Dense) return;
  const int32_t n = s.Piv_Indx - s.Stat_Last_Indx;
  if (n < s.Stat_Step) return;
  VMI *vmi = s.vmi;
  const int64_t elem = s.St.Elem_Cols + s.St.Elem_Rows;
  const double dM = s.St.Sum_MarkBest - s.Stat_Last_Mark;
  const double dE = static_cast<double>(elem - s.Stat_Last_Elem);
  // Counts average above Switch_Mark, and the search reads more than
  // Switch_Elem elements per unit of count.
  const bool test = static_cast<double>(Switch_Mark) * n < dM && Switch_Elem * dM < dE;
  if (s.Pre_Switch && test) {
    s.Switch_Indx = s.Piv_Indx;
    if (vmi->Trace_Inv >= 1) Doc(vmi, "Turning switch on. Indx=%d", s.Piv_Indx);
  }
  if (test && !s.Pre_Switch && vmi->Trace_Inv >= 1)
    Doc(vmi, "Turning pre_switch on. Indx=%d", s.Piv_Indx);
  s.Pre_Switch = test;
  s.Stat_Last_Indx = s.Piv_Indx;
  s.Stat_Last_Mark = s.St.Sum_MarkBest;
  s.Stat_Last_Elem = elem;
}

}  // namespace vlu
