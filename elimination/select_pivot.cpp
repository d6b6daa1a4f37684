// Pivot selection of the sparse phase: the Markowitz search over the count
// lists and the Markowitz lists, its column and row scans, and the final
// test of every pivot.
//
// Data read and written here (1-based, old numbers):
//
//   LUF%Cstr/Clen, LUF%Ir   column j: rows Ir(Cstr(j) .. Cstr(j)+Clen(j)-1),
//                           values at the same positions of VIM%AUrmat.  Only
//                           the column file holds values, so every value the
//                           search needs is read from a column.
//   LUF%Rstr/Rlen, LUF%Ic   row i: columns Ic(Rstr(i) .. Rstr(i)+Rlen(i)-1).  A
//                           row scan reads only Ic and the Clen of the columns.
//   IIN%Mcex, IIN%Mrex      tails; a pivot row or column never has one: the
//                           search compresses it and starts over.
//   IIN%Clmx/Clmin/Clok     column maximum (exact while Clok is true), the
//                           column's smallest admissible magnitude (only
//                           raised), and the validity flag.  The threshold of
//                           column j is max(VMI%Rtpiva, VIM%Tol_Piv_Rel*Clmx(j)).
//   IIN%Mact/Mlow           the column's known count (0 in a C-list) and its
//                           lower bound.
//   IIN%Stcc/Stcr(c)        heads of the C-lists of count c; IIN%Stmc(m) heads
//                           of the M-lists of count m, from 1 to IIN%MarkBad
//                           (MarkBad - 1: overflow list, MarkBad: the columns
//                           without an acceptable element).  Members are
//                           threaded through Nxtc/Prvc and Nxtr/Prvr and are
//                           moved only by the list routines.
//   Bump_State              Piv_Row, Piv_Col, MarkBest (results); the list
//                           bounds MIN_CC_List, MIN_RC_List, Min_M_InList; the
//                           flags Search_Restart, Do_Restart, Need_Compression.
//
// Counts are 32-bit Markowitz products (Rlen - 1)(Clen - 1).  Products are
// formed in 64 bits and held to the 32-bit range, so that a product that
// would not fit lands in the overflow list instead of wrapping.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "elimination/bump.h"
#include "runtime/messages.h"
#include "runtime/records.h"

namespace vlu {

namespace {

constexpr double Eps_Mach = 2.220446049250313e-16;  // 2^-52

// Internal error numbers of the selection.
constexpr int Err_Singleton_Col_Tail = 4301;
constexpr int Err_Singleton_Row_Tail = 4302;
constexpr int Err_Checking_Col_Tail = 4303;
constexpr int Err_After_Scan_Col = 4304;
constexpr int Err_Candidate_Row_Tail = 4305;
constexpr int Err_Checking_Row_Tail = 4306;
constexpr int Err_Out_Of_Loop = 4307;
constexpr int Err_Mcount_Range = 4308;
constexpr int Err_Pivot_Tail = 4309;

// A Markowitz product held to the 32-bit range.
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

// Threshold of column icol (Clmx must be exact).
inline double Threshold(const Bump_State &s, int32_t icol) {
  return std::max(s.vmi->Rtpiva, s.vim->Tol_Piv_Rel * s.iin->Clmx.Val[icol]);
}

// Outcome of one pass of the search.
enum class Flow { Go, Restart, Done };

// A count above MarkHigh raises it; the raise may ask for a restart.
Flow Raise_High(Bump_State &s, int64_t mmin) {
  if (mmin <= s.MarkHigh) return Flow::Go;
  Increase_MarkHigh(s, static_cast<int32_t>(std::min<int64_t>(mmin, INT32_MAX)));
  if (Stopped(s)) return Flow::Done;
  return s.Do_Restart ? Flow::Restart : Flow::Go;
}

// Test_Mcount as the search calls it.
Flow Mcount(Bump_State &s, int32_t m1, int32_t m2) {
  bool found = false;
  Test_Mcount(s, m1, m2, found);
  if (Stopped(s) || found) return Flow::Done;
  return s.Search_Restart ? Flow::Restart : Flow::Go;
}

// The chosen column of step c: its row.  rmin > Rowlft means that no element
// passed the threshold: the longest row then, first of equals.  Otherwise the
// largest magnitude, at or above the threshold, among the rows of length rmin;
// the last of equal magnitudes.
int32_t Choose_Row(Bump_State &s, int32_t icol, int32_t rmin, double best) {
  const LUF *luf = s.luf;
  const int32_t *ir = luf->Ir.V, *rlen = luf->Rlen.V;
  const double *a = s.vim->AUrmat.Val;
  const int32_t q0 = luf->Cstr.V[icol], q1 = q0 + luf->Clen.V[icol];
  s.St.Elem_Cols += q1 - q0;
  int32_t prow = 0;
  if (rmin > s.Rowlft) {
    int32_t longest = -1;
    for (int32_t q = q0; q < q1; ++q)
      if (rlen[ir[q]] > longest) {
        longest = rlen[ir[q]];
        prow = ir[q];
      }
  } else {
    double bval = best;
    for (int32_t q = q0; q < q1; ++q) {
      const double v = std::fabs(a[q]);
      if (rlen[ir[q]] == rmin && v >= bval) {
        bval = v;
        prow = ir[q];
      }
    }
  }
  return prow;
}

void Report_No_Row(Bump_State &s, int32_t icol, double best, int32_t rmin, int32_t cnt1) {
  VMI *vmi = s.vmi;
  const LUF *luf = s.luf;
  const double *a = s.vim->AUrmat.Val;
  Doc(vmi, "Error after Scan_Col_for_m. Icol=%d", icol);
  Doc(vmi, "Bmin=%13.5E Clmx=%13.5E", best, s.iin->Clmx.Val[icol]);
  Doc(vmi, "Rmin=%d Cnt1=%d and Clen=%d", rmin, cnt1, luf->Clen.V[icol]);
  const int32_t q0 = luf->Cstr.V[icol], q1 = q0 + luf->Clen.V[icol];
  for (int32_t q = q0; q < q1; ++q)
    Doc(vmi, "Irow=%d RLEN=%d Amat=%13.5E", luf->Ir.V[q], luf->Rlen.V[luf->Ir.V[q]], a[q]);
  Internal_Error(vmi, Err_After_Scan_Col, true);
}

// One pass of the search, from the top: singletons, then the count loop.
Flow Search(Bump_State &s) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  LUF *luf = s.luf;
  const bool trace = vmi->Trace_Inv >= 3;

  if (s.Need_Compression) {
    Do_Extra_Compression(s, 1);
    if (Stopped(s)) return Flow::Done;
  }
  s.Search_Restart = false;

  // 1. A column singleton.  Its row must be compressed first; the compression
  // may move the column, and then the search starts over.
  if (const int32_t j = iin->Stcc.V[1]; j != 0) {
    if (iin->Mcex.V[j] > 0) {
      Doc(vmi, "Singleton column %d with Clen=%d and Mcex=%d", j, luf->Clen.V[j], iin->Mcex.V[j]);
      Internal_Error(vmi, Err_Singleton_Col_Tail, true);
      return Flow::Done;
    }
    s.Piv_Row = luf->Ir.V[luf->Cstr.V[j]];
    if (iin->Mrex.V[s.Piv_Row] > 0) {
      Compres_Uncompressed_Row(s, s.Piv_Row);
      if (Stopped(s)) return Flow::Done;
      if (iin->Stcc.V[1] != j || s.Need_Compression) return Flow::Restart;
      s.Piv_Row = luf->Ir.V[luf->Cstr.V[j]];
    }
    Remove_col_from_C_head(s, j, 1);
    s.Piv_Col = j;
    s.MarkBest = 0;
    return Flow::Done;
  }

  // 2. No column of count 1 is left.
  s.MIN_CC_List = std::max(s.MIN_CC_List, 2);

  // 3. Row singletons, while there are any.
  for (int32_t i = iin->Stcr.V[1]; i != 0; i = iin->Stcr.V[1]) {
    s.Piv_Row = i;
    if (iin->Mrex.V[i] > 0) {
      Doc(vmi, "Singleton row %d with Rlen=%d and Mrex=%d", i, luf->Rlen.V[i], iin->Mrex.V[i]);
      Internal_Error(vmi, Err_Singleton_Row_Tail, true);
      return Flow::Done;
    }
    s.Piv_Col = luf->Ic.V[luf->Rstr.V[i]];
    if (iin->Mcex.V[s.Piv_Col] > 0) {
      Compres_Uncompressed_Col(s, s.Piv_Col);
      if (Stopped(s)) return Flow::Done;
      if (iin->Stcr.V[1] != i) continue;  // the compression moved the row
      if (s.Need_Compression) return Flow::Restart;
      s.Piv_Col = luf->Ic.V[luf->Rstr.V[i]];
    }
    Remove_col_from_list(s, s.Piv_Col);
    iin->Mlow.V[s.Piv_Col] = 0;
    s.MarkBest = 0;
    return Flow::Done;
  }

  // 4. The count loop.
  s.MIN_RC_List = std::max(s.MIN_RC_List, 2);
  s.MarkBest = Mark_Infinite;
  if (trace)
    Doc(vmi, "Select_Pivot. MIN_CC_List=%d MIN_RC_List=%d MIN_M_InList=%d", s.MIN_CC_List,
        s.MIN_RC_List, s.Min_M_InList);

  const int32_t rowlft = s.Rowlft;
  const double mfac = s.Mfac;
  int32_t c = std::min({s.MIN_CC_List, s.MIN_RC_List, rowlft});
  int64_t mmin = 0;  // the bound the search has proved so far
  int64_t m1 = 1;
  Flow f = Flow::Go;

  for (; c <= rowlft; ++c) {
    const int32_t cnt1 = c - 1;
    const int64_t sq = static_cast<int64_t>(cnt1) * cnt1;

    // a. Counts up to (c-1)^2, held to the lists that exist.
    m1 = mmin + 1;
    mmin = std::min<int64_t>(sq, iin->MarkMax);
    if ((f = Raise_High(s, mmin)) != Flow::Go) return f;
    if (mmin >= s.Min_M_InList)
      if ((f = Mcount(s, static_cast<int32_t>(m1), static_cast<int32_t>(mmin))) != Flow::Go)
        return f;

    // b. The full bound (c-1)^2; the lists must reach it with the margin.
    mmin = sq;
    if ((f = Raise_High(s, mmin)) != Flow::Go) return f;
    if (static_cast<double>(iin->MarkMax) < static_cast<double>(mmin) * mfac) {
      if (vmi->Trace_Inv >= 2)
        Doc(vmi, "Calling Increase_Stmc from Select_Pivot(A). Mmin=%lld MarkMax=%d and MarkHigh=%d",
            static_cast<long long>(mmin), iin->MarkMax, s.MarkHigh);
      Increase_Stmc(s);
      return Stopped(s) ? Flow::Done : Flow::Restart;
    }

    // c. Columns of count c: exact count from one scan each.
    for (int32_t j = iin->Stcc.V[c]; j != 0; j = iin->Stcc.V[c]) {
      if (trace) Doc(vmi, "Checking columns with Ccnt=%d Icol=%d", c, j);
      if (iin->Mcex.V[j] > 0) {
        Doc(vmi, "Checking column %d with Ccnt=%d and Mcex=%d", j, c, iin->Mcex.V[j]);
        Internal_Error(vmi, Err_Checking_Col_Tail, true);
        return Flow::Done;
      }
      int32_t mact = 0, mlow = 0;
      Scan_Col_for_m(s, j, mact, mlow);
      if (s.Search_Restart) return Flow::Restart;
      iin->Mlow.V[j] = mlow;
      if (static_cast<double>(mact) <= static_cast<double>(mmin) * mfac) {
        const int32_t rmin = mact / (luf->Clen.V[j] - 1) + 1;
        const double best = Threshold(s, j);
        s.Piv_Col = j;
        s.Piv_Row = Choose_Row(s, j, rmin, best);
        if (s.Piv_Row == 0) {
          Report_No_Row(s, j, best, rmin, cnt1);
          return Flow::Done;
        }
        if (iin->Mrex.V[s.Piv_Row] > 0) {
          // Rows this short are kept compressed; a tail here is a broken invariant.
          Doc(vmi, "Compressing candidate row. Rlen=%d and Rmin=%d", luf->Rlen.V[s.Piv_Row], rmin);
          Doc(vmi, "Row=%d Mrex=%d Icol=%d Length_Lim=%d", s.Piv_Row, iin->Mrex.V[s.Piv_Row], j,
              s.Length_Lim);
          Internal_Error(vmi, Err_Candidate_Row_Tail, true);
          return Flow::Done;
        }
        s.MarkBest = mact;
        Remove_col_from_C_head(s, j, c);
        return Flow::Done;
      }
      Remove_col_from_C_head(s, j, c);
      Store_col_in_M_list(s, j, mact);
      if (Stopped(s)) return Flow::Done;
    }

    // d. Counts up to (c-1)c.
    s.MIN_CC_List = std::max(s.MIN_CC_List, c + 1);
    m1 = mmin + 1;
    mmin = static_cast<int64_t>(cnt1) * c;
    if ((f = Raise_High(s, mmin)) != Flow::Go) return f;
    if (static_cast<double>(iin->MarkMax) < static_cast<double>(mmin) * mfac) {
      if (vmi->Trace_Inv >= 2)
        Doc(vmi,
            "Calling Increase_Stmc from Select_Pivot(B). Mmin=%lld, MarkMax=%d and MarkHigh=%d",
            static_cast<long long>(mmin), iin->MarkMax, s.MarkHigh);
      Increase_Stmc(s);
      return Stopped(s) ? Flow::Done : Flow::Restart;
    }
    if (mmin >= s.Min_M_InList)
      if ((f = Mcount(s, static_cast<int32_t>(m1), static_cast<int32_t>(mmin))) != Flow::Go)
        return f;

    // e. Rows of count c push their columns to the M-lists with a lower bound.
    if (c < rowlft) {
      for (int32_t i = iin->Stcr.V[c]; i != 0; i = iin->Stcr.V[c]) {
        if (trace) Doc(vmi, "Checking rows with Ccnt=%d Irow=%d", c, i);
        if (iin->Mrex.V[i] > 0) {
          Doc(vmi, "Checking row %d with Ccnt=%d and Mrex=%d", i, c, iin->Mrex.V[i]);
          Internal_Error(vmi, Err_Checking_Row_Tail, true);
          return Flow::Done;
        }
        Remove_Row_from_C_Head(s, i, c);
        int32_t m = Mark_Infinite;
        Scan_Row_for_M(s, i, cnt1, m);
        Store_Row_in_M_List(s, i);
        if (Stopped(s)) return Flow::Done;
        if (static_cast<double>(m) <= static_cast<double>(mmin) * mfac)
          if ((f = Mcount(s, m, m)) != Flow::Go) return f;
      }
    }

    // f.
    s.MIN_RC_List = std::max(s.MIN_RC_List, c + 1);
  }

  // 7. The last range; then only the top lists can hold columns.
  if ((f = Mcount(s, static_cast<int32_t>(m1), static_cast<int32_t>(mmin))) != Flow::Go) return f;
  // A count is revised only when the search meets it, so a column whose rows
  // have all shortened since its count was taken can stand in a list above
  // every count that is left.  Those lists are swept before the top lists,
  // and the overflow list after them; a rescan gives each its true count.
  if (mmin < iin->MarkMax)
    if ((f = Mcount(s, static_cast<int32_t>(mmin + 1), iin->MarkMax)) != Flow::Go) return f;
  if (const int32_t jo = iin->Stmc.V[iin->MarkBad - 1]; jo != 0) {
    if (iin->Mcex.V[jo] > 0) {
      Compres_Uncompressed_Col(s, jo);
      return Stopped(s) ? Flow::Done : Flow::Restart;
    }
    Refresh_Clmx(s, jo);
    const double thr = Threshold(s, jo);
    const int32_t *ir = luf->Ir.V, *rlen = luf->Rlen.V;
    const double *a = s.vim->AUrmat.Val;
    const int32_t q0 = luf->Cstr.V[jo], q1 = q0 + luf->Clen.V[jo];
    int32_t rbest = s.NumRow + 1, prow = 0;
    double bval = 0.0;
    for (int32_t q = q0; q < q1; ++q) {
      const int32_t r = rlen[ir[q]];
      const double v = std::fabs(a[q]);
      if (v > thr && (r < rbest || (r == rbest && v > bval))) {
        rbest = r;
        bval = v;
        prow = ir[q];
      }
    }
    if (prow != 0) {
      if (iin->Mrex.V[prow] > 0) {
        Compres_Uncompressed_Row(s, prow);
        return Stopped(s) ? Flow::Done : Flow::Restart;
      }
      s.Piv_Col = jo;
      s.Piv_Row = prow;
      s.MarkBest = Count_Of(luf->Clen.V[jo] - 1, rbest - 1);
      Remove_col_from_list(s, jo);
      return Flow::Done;
    }
    // Nothing passes the threshold: the column belongs to the top list.
    Remove_col_from_list(s, jo);
    Store_col_in_M_list(s, jo, Mark_Infinite);
    return Stopped(s) ? Flow::Done : Flow::Restart;
  }
  const int32_t j = iin->Stmc.V[iin->MarkBad];
  if (j == 0) {
    Doc(vmi, "Out at the end of the loop. This is not possible. Rowlft=%d", rowlft);
    Doc(vmi, "MIN_CC_List=%d and MIN_RC_List=%d", s.MIN_CC_List, s.MIN_RC_List);
    Doc(vmi, "Min_M_InList=%d", s.Min_M_InList);
    Internal_Error(vmi, Err_Out_Of_Loop, true);
    return Flow::Done;
  }
  // Such a column may have taken fill in its tail since it was scanned; the
  // pivot must be compressed like any other.
  if (iin->Mcex.V[j] > 0) {
    Compres_Uncompressed_Col(s, j);
    return Stopped(s) ? Flow::Done : Flow::Restart;
  }
  s.Piv_Col = j;
  s.Piv_Row = luf->Ir.V[luf->Cstr.V[j]];
  if (iin->Mrex.V[s.Piv_Row] > 0) {
    Compres_Uncompressed_Row(s, s.Piv_Row);
    return Stopped(s) ? Flow::Done : Flow::Restart;
  }
  s.MarkBest = Count_Of(luf->Clen.V[j] - 1, luf->Rlen.V[s.Piv_Row] - 1);
  Remove_col_from_list(s, j);
  return Flow::Done;
}

}  // namespace

void Select_Pivot(Bump_State &s) {
  while (Search(s) == Flow::Restart) {
  }
}

void Scan_Col_for_m(Bump_State &s, int32_t icol, int32_t &mact_new, int32_t &mlow_new) {
  Refresh_Clmx(s, icol);
  const LUF *luf = s.luf;
  const int32_t clen = luf->Clen.V[icol];
  ++s.St.Scan_Cols;
  const int32_t t = clen - 1;
  if (t < 1) {
    mact_new = 0;
    mlow_new = 0;
    return;
  }
  const int32_t *ir = luf->Ir.V, *rlen = luf->Rlen.V;
  const double *a = s.vim->AUrmat.Val;
  const double thr = Threshold(s, icol);
  int32_t rlow = s.Rowlft + 1, rbest = s.Rowlft + 1;
  const int32_t q0 = luf->Cstr.V[icol], q1 = q0 + clen;
  for (int32_t q = q0; q < q1; ++q) {
    const int32_t r = rlen[ir[q]];
    if (r < rlow) rlow = r;
    if (r < rbest && std::fabs(a[q]) > thr) rbest = r;
  }
  s.St.Elem_Cols += clen;
  mlow_new = Count_Of(rlow - 1, t);
  mact_new = rlow < 2 ? 0 : Count_Of(rbest - 1, t);
}

void Scan_Row_for_M(Bump_State &s, int32_t irow, int32_t cnt1, int32_t &mrow_min) {
  mrow_min = Mark_Infinite;
  IIN *iin = s.iin;
  const LUF *luf = s.luf;
  const int32_t p0 = luf->Rstr.V[irow], p1 = p0 + luf->Rlen.V[irow];
  for (int32_t p = p0; p < p1; ++p) {
    const int32_t j = luf->Ic.V[p];
    if (iin->Mact.V[j] != 0) continue;  // already in an M-list
    const int32_t m = Count_Of(luf->Clen.V[j] - 1, cnt1);
    // A count of 0 has no M-list: such a column stays in its C-list.
    if (m <= 0) continue;
    Remove_col_from_list(s, j);
    Store_col_in_M_list(s, j, m);
    iin->Mlow.V[j] = m;
    if (m < mrow_min) mrow_min = m;
  }
  ++s.St.Scan_Rows;
  s.St.Elem_Rows += cnt1 + 1;
}

void Test_Mcount(Bump_State &s, int32_t m1, int32_t m2, bool &found) {
  VMI *vmi = s.vmi;
  IIN *iin = s.iin;
  const LUF *luf = s.luf;
  found = false;
  if (m2 < s.Min_M_InList) {
    if (vmi->Trace_Inv >= 3)
      Doc(vmi, "Testing M-cols with M1/M2=%d/%d but Min_M_InList=%d", m1, m2, s.Min_M_InList);
    return;
  }
  const int32_t m3 = std::max(m1, s.Min_M_InList);
  if (m2 > iin->MarkMax) {
    Doc(vmi, "Error in Test_Mcount. M2=%d, MarkMax=%d and size(Stmc)=%d", m2, iin->MarkMax,
        Size(iin->Stmc));
    Internal_Error(vmi, Err_Mcount_Range, true);
    found = true;
    return;
  }
  if (m3 > m2) return;
  const int32_t top = iin->MarkBad - 1;
  // The lowest non-empty list may lie below m3 only when the lists between
  // are known to be empty; catch up over them first, so that the walk below
  // never raises Min_M_InList past a list that holds a column.
  while (s.Min_M_InList < m3 && iin->Stmc.V[s.Min_M_InList] == 0) ++s.Min_M_InList;

  int32_t m = m3;
  for (;;) {
    const int32_t *stmc = iin->Stmc.V;
    while (stmc[m] == 0) {
      const bool bottom = m == s.Min_M_InList;
      ++m;
      if (bottom) s.Min_M_InList = m;
      if (m >= top || m > m2) return;
    }
    const int32_t j = stmc[m];
    if (iin->Mcex.V[j] > 0) {
      Compres_Uncompressed_Col(s, j);
      s.Search_Restart = true;
      return;
    }
    Refresh_Clmx(s, j);

    // One scan: the shortest acceptable row, on equal length the strictly
    // largest magnitude (the first of exact ties stays).
    const int32_t *ir = luf->Ir.V, *rlen = luf->Rlen.V;
    const double *a = s.vim->AUrmat.Val;
    const double thr = Threshold(s, j);
    const int32_t clen = luf->Clen.V[j];
    const int32_t q0 = luf->Cstr.V[j], q1 = q0 + clen;
    int32_t rlow = s.NumRow + 1, rbest = s.NumRow + 1, prow = 0;
    double bval = 0.0;
    for (int32_t q = q0; q < q1; ++q) {
      const int32_t r = rlen[ir[q]];
      if (r < rlow) rlow = r;
      const double v = std::fabs(a[q]);
      if (v > thr && (r < rbest || (r == rbest && v > bval))) {
        rbest = r;
        bval = v;
        prow = ir[q];
      }
    }
    ++s.St.Scan_Cols;
    s.St.Elem_Cols += clen;
    s.Piv_Row = prow;
    const int32_t mnew = prow == 0 ? Mark_Infinite : Count_Of(clen - 1, rbest - 1);

    if (static_cast<double>(mnew) <= static_cast<double>(m) * s.Mfac) {
      if (iin->Mrex.V[prow] > 0) {
        // The column stays at the head of its list; the search comes back to
        // it once the row is compressed.
        if (vmi->Trace_Inv >= 3)
          Doc(vmi, "Pivot Candidate row %d has Rlen=%d and Mrex=%d", prow, luf->Rlen.V[prow],
              iin->Mrex.V[prow]);
        Compres_Uncompressed_Row(s, prow);
        s.Search_Restart = true;
        return;
      }
      Remove_col_from_M_head(s, j, m);
      s.MarkBest = m;
      s.Piv_Col = j;
      found = true;
      return;
    }
    // Its count has grown: store it where it belongs now and go on with list m.
    Remove_col_from_M_head(s, j, m);
    ++s.St.Revisions_Tm;
    Store_col_in_M_list(s, j, mnew);
    iin->Mlow.V[j] = Count_Of(rlow - 1, clen - 1);
    if (Stopped(s)) return;
  }
}

void Test_Pivot(Bump_State &s, double umax, double &pivot) {
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  const IIN *iin = s.iin;
  s.St.Sum_MarkBest += s.MarkBest;
  if (vmi->Trace_Inv > 0 && !s.Semi_Dense &&
      (iin->Mrex.V[s.Piv_Row] != 0 || iin->Mcex.V[s.Piv_Col] != 0)) {
    Doc(vmi, "IIN%%Mrex(%d)=%d and IIN%%Mcex(%d)=%d", s.Piv_Row, iin->Mrex.V[s.Piv_Row], s.Piv_Col,
        iin->Mcex.V[s.Piv_Col]);
    Internal_Error(vmi, Err_Pivot_Tail, true);
    return;
  }
  s.St.L_Count += s.Len_Piv_Col - 1;
  s.St.U_Count += s.Len_Piv_Row - 1;
  const double ap = std::fabs(pivot);
  if (ap >= vmi->Rtpiva) {
    vim->Min_Pivot = std::min(vim->Min_Pivot, ap);
    vim->Max_UFac = std::max(vim->Max_UFac, umax / ap);
    if (!vim->Large_Ufac && vim->Max_UFac > 1.1e15 * vim->Ufac_Scale) {
      vim->Large_Ufac = true;
      if (vmi->Trace_Inv >= 1)
        Doc(vmi, "Large_Ufac set to .true. in Test_Pivot. Umax=%13.5E and Pivot=%13.5E", umax,
            pivot);
    }
  } else {
    if (vmi->Trace_Inv >= 1)
      Doc(vmi, "Pivot too small. Pivot=%13.5E and Pivmin=%13.5E", pivot, vmi->Rtpiva);
    s.Bad_Pivot = true;
    pivot = 1.0;
    ++vim->Num_Sing;
  }
}

void Select_Pivot_Dense(Bump_State &s) {
  const LUF *luf = s.luf;
  const int32_t j = s.vim->Cnto.V[s.Piv_Indx];
  const double *a = s.vim->AUrmat.Val;
  const int32_t q0 = luf->Cstr.V[j], q1 = q0 + luf->Clen.V[j];
  int32_t prow = 0;
  double big = -1.0;
  for (int32_t q = q0; q < q1; ++q)
    if (std::fabs(a[q]) > big) {
      big = std::fabs(a[q]);
      prow = luf->Ir.V[q];
    }
  // An empty column has no row of its own: the row at the same position takes
  // it, and the zero pivot becomes a singularity in the pivot test.
  if (prow == 0) prow = s.vim->Rnto.V[s.Piv_Indx];
  s.Piv_Col = j;
  s.Piv_Row = prow;
  s.MarkBest = Wrap_Mul(s.Rowlft - 1, s.Rowlft - 1);
  Remove_col_from_list(s, j);
}

}  // namespace vlu
