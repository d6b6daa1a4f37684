// The consistency battery of the elimination: every invariant of the row
// file, the column file, the U-file, the L-file, the lists, the chains and the
// permutations, checked between two pivots.
//
// State read (all 1-based, rows and columns by old number; "active" means a
// new number Piv_Indx .. NumRow):
//
//   VIM%Rnto/Rotn, VIM%Cnto/Cotn   permutations, inverse to each other.
//   LUF%Rstr/Rlen, IIN%Mrex        active row i: compressed part Rstr .. Rstr +
//                                  Rlen - 1 of the row file (LUF%Ic), its tail
//                                  of Mrex slots behind; pivoted row: its U row
//                                  at Rstr (U_elefirst .. RowUSpace), pivot
//                                  first, rows in pivot order downward.
//   LUF%Cstr/Clen, IIN%Mcex        active column j: compressed part and tail in
//                                  the column file (LUF%Ir, values VIM%AUrmat);
//                                  pivoted columns have Clen = Mcex = 0.
//   IIN%R2cp, IIN%C2rp             cross pointers of every active element.
//   IIN%Rpnx/Rppr, IIN%Cpnx/Cppr   physical chains with RPfrst/RPlast,
//                                  CPfrst/CPlast.
//   Lists: IIN%Nxtc/Prvc with Ptr_Zero_Cols, IIN%Stcc, IIN%Stmc; IIN%Nxtr/Prvr
//          with Ptr_Zero_Rows, IIN%Stcr, Ptr_M_Rows; IIN%Mact/Mlow/Mrow.
//   IIN%Clmx, IIN%Clok             column maxima and their validity.
//   LUF%Lmat/Lrow/Lpiv/Lsor        the L-file so far (L_Cols columns).
//   VIM%Cbto, VIM%Stcl/Rnum/Jace   the basis columns, for Test_LUeqB.
//
// Scratch: VIM%HelpI (Indr's memory, lent back for the run: zero on entry,
// left zero) marks rows, then columns, by number in 1..NumRow;
// VIM%Work1 (cleared on entry, left zero) is the dense column of Test_LUeqB.
// Test_LUeqB also allocates and releases its own work vectors.
//
// Every test returns at once when VMI%Exception is set; the first violation
// in a test is reported with its values and raises a fatal internal error.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "elimination/bump.h"
#include "runtime/clock.h"
#include "runtime/dumps.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

// Work budget of the element-by-element product in Test_LUeqB: negative
// chooses by the size of the structures (see Test_LUeqB); 0 or more is a fixed
// limit (tests set it to reach either road).
int64_t Test_LUeqB_Budget = -1;

namespace {

constexpr int Err_Permutations = 110;
constexpr int Err_Extra_Col = 121;
constexpr int Err_Extra_Row = 122;
constexpr int Err_Struct_Col = 116;
constexpr int Err_Struct_Row = 117;
constexpr int Err_Struct_Cross = 118;
constexpr int Err_Struct_Count = 347;
constexpr int Err_Order = 222;
constexpr int Err_Length_Counts = 137;
constexpr int Err_Length_Rows = 20050;
constexpr int Err_Length_Cols = 20060;
constexpr int Err_Mcex_Short = 22100;
constexpr int Err_Mrex_Short = 22101;
constexpr int Err_Clmx = 138;
constexpr int Err_Lists_Rows = 300;
constexpr int Err_Lists_Cols = 301;
constexpr int Err_Lists_Count = 303;
constexpr int Err_Counts = 2035;
constexpr int Err_Position = 344;
constexpr int Err_LUeqB = 515;

// Relative and absolute parts of the tolerance of Test_LUeqB.
constexpr double LUeqB_Rel = 1.0e-9;
constexpr double LUeqB_Abs_Factor = 1.0e5;  // times Tol_Zero

// Longest listing of a row or column in a failure report.
constexpr int32_t List_Max = 60;

const char *TF(bool b) { return b ? "T" : "F"; }

void Fail(VMI *vmi, int number) { Internal_Error(vmi, number, true); }

// Shorthands for the vectors every test reads.
struct View {
  VMI *vmi;
  VIM *vim;
  LUF *luf;
  IIN *iin;
  int32_t n, k0;  // NumRow, Piv_Indx
  const int32_t *rnto, *rotn, *cnto, *cotn;
  const int32_t *rstr, *rlen, *cstr, *clen, *ic, *ir, *r2cp, *c2rp;
  const int32_t *mrex, *mcex;
  const double *aur;
  explicit View(const Bump_State &s)
      : vmi(s.vmi), vim(s.vim), luf(s.luf), iin(s.iin), n(s.NumRow), k0(s.Piv_Indx),
        rnto(s.vim->Rnto.V), rotn(s.vim->Rotn.V), cnto(s.vim->Cnto.V), cotn(s.vim->Cotn.V),
        rstr(s.luf->Rstr.V), rlen(s.luf->Rlen.V), cstr(s.luf->Cstr.V), clen(s.luf->Clen.V),
        ic(s.luf->Ic.V), ir(s.luf->Ir.V), r2cp(s.iin->R2cp.V), c2rp(s.iin->C2rp.V),
        mrex(s.iin->Mrex.V), mcex(s.iin->Mcex.V), aur(s.vim->AUrmat.Val) {}
  bool Active_Row(int32_t i) const { return i >= 1 && i <= n && rotn[i] >= k0; }
  bool Active_Col(int32_t j) const { return j >= 1 && j <= n && cotn[j] >= k0; }
};

// The row with its entries: positions, columns and cross pointers.
void List_Row(const View &v, const Bump_State &s, int32_t i) {
  if (i < 1 || i > v.n) return;
  const int32_t tail = Row_Tail(s, i);
  Doc(v.vmi, "Row %d: Rstr=%d Rlen=%d Mrex=%d VIM%%Rotn=%d", i, v.rstr[i], v.rlen[i], tail, v.rotn[i]);
  const int32_t st = v.rstr[i], end = std::min(st + v.rlen[i] + tail, st + List_Max);
  if (st < 1 || end - 1 > std::min(Size(v.luf->Ic), Size(v.iin->R2cp))) return;
  for (int32_t p = st; p < end; ++p)
    Doc(v.vmi, "   p=%d Ic=%d R2cp=%d%s", p, v.ic[p], v.r2cp[p], p >= st + v.rlen[i] ? " (tail)" : "");
}

void List_Col(const View &v, const Bump_State &s, int32_t j) {
  if (j < 1 || j > v.n) return;
  const int32_t tail = Col_Tail(s, j);
  Doc(v.vmi, "Column %d: Cstr=%d Clen=%d Mcex=%d VIM%%Cotn=%d", j, v.cstr[j], v.clen[j], tail,
      v.cotn[j]);
  const int32_t st = v.cstr[j], end = std::min(st + v.clen[j] + tail, st + List_Max);
  if (st < 1 || end - 1 > std::min(Size(v.luf->Ir), Size(v.iin->C2rp))) return;
  for (int32_t q = st; q < end; ++q)
    Doc(v.vmi, "   q=%d Ir=%d C2rp=%d Value=%.17g%s", q, v.ir[q], v.c2rp[q], v.aur[q],
        q >= st + v.clen[j] ? " (tail)" : "");
}

// ---------------------------------------------------------------------------

void Test_Permutations(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n;
  auto failWith = [&]() {
    PS_Int(vmi, v.vim->Rnto, "VIM%Rnto", n);
    PS_Int(vmi, v.vim->Rotn, "VIM%Rotn", n);
    PS_Int(vmi, v.vim->Cnto, "VIM%Cnto", n);
    PS_Int(vmi, v.vim->Cotn, "VIM%Cotn", n);
    Fail(vmi, Err_Permutations);
  };
  for (int32_t i = 1; i <= n; ++i) {
    if (v.rotn[i] < 1 || v.rotn[i] > n) {
      Doc(vmi, "Row permuation out of range. VIM%%Rotn(%d)=%d NumRow=%d", i, v.rotn[i], n);
      return failWith();
    }
    if (v.cotn[i] < 1 || v.cotn[i] > n) {
      Doc(vmi, "Col permuation out of range. VIM%%Cotn(%d)=%d NumRow=%d", i, v.cotn[i], n);
      return failWith();
    }
    if (v.rnto[i] < 1 || v.rnto[i] > n) {
      Doc(vmi, "Row permuation out of range. VIM%%Rnto(%d)=%d NumRow=%d", i, v.rnto[i], n);
      return failWith();
    }
    if (v.cnto[i] < 1 || v.cnto[i] > n) {
      Doc(vmi, "Col permuation out of range. VIM%%Cnto(%d)=%d NumRow=%d", i, v.cnto[i], n);
      return failWith();
    }
  }
  for (int32_t k = 1; k <= n; ++k) {
    if (v.rotn[v.rnto[k]] != k || v.rnto[v.rotn[k]] != k) {
      const int32_t i = v.rotn[v.rnto[k]] != k ? v.rnto[k] : k;
      Doc(vmi, "Inconsistent row permutation in row%8d: VIM%%Rotn(%d)=%d VIM%%Rnto(%d)=%d", i, i,
          v.rotn[i], v.rotn[i], v.rnto[v.rotn[i]]);
      return failWith();
    }
    if (v.cotn[v.cnto[k]] != k || v.cnto[v.cotn[k]] != k) {
      const int32_t j = v.cotn[v.cnto[k]] != k ? v.cnto[k] : k;
      Doc(vmi, "Inconsistent column permutation in column%8d: VIM%%Cotn(%d)=%d VIM%%Cnto(%d)=%d", j,
          j, v.cotn[j], v.cotn[j], v.cnto[v.cotn[j]]);
      return failWith();
    }
  }
}

// Spare room of every active row or column, in chain order, is not negative.
void Test_Extra(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n;
  const int32_t limit = std::min(v.luf->ColASpace + 1, v.luf->U_elefirst);

  int32_t steps = 0;
  for (int32_t j = v.iin->CPfrst, prev = 0; j != 0; prev = j, j = v.iin->Cpnx.V[j]) {
    if (j < 1 || j > n || ++steps > n) {
      Doc(vmi, "Test_Extra: the column chain is broken at %d after column %d.", j, prev);
      return Fail(vmi, Err_Extra_Col);
    }
    const int32_t end = v.cstr[j] + v.clen[j] + Col_Tail(s, j);
    const int32_t next = v.iin->Cpnx.V[j];
    if (next < 0 || next > n) continue;  // reported at the next step
    const int32_t extra = (next != 0 ? v.cstr[next] : limit) - end;
    if (extra < 0) {
      Doc(vmi, "Test_Extra: Col_Extra(%d) = %d is negative.", j, extra);
      Doc(vmi, "Cstr=%d Clen=%d Mcex=%d", v.cstr[j], v.clen[j], Col_Tail(s, j));
      if (next != 0)
        Doc(vmi, "Next=%d with Cstr=%d", next, v.cstr[next]);
      else
        Doc(vmi, "Next=0, U_Elefirst=%d and ColASpace%d", v.luf->U_elefirst, v.luf->ColASpace);
      return Fail(vmi, Err_Extra_Col);
    }
  }
  if (s.Semi_Dense) {
    for (int32_t k = v.k0; k <= n; ++k) {
      const int32_t j = v.cnto[k];
      if (v.mcex[j] != 0) {
        Doc(vmi, "Test_Extra with Semi_Dense: IIN%%Mcex(%d) = %d is not zero.", j, v.mcex[j]);
        return Fail(vmi, Err_Extra_Col);
      }
    }
  }

  steps = 0;
  for (int32_t i = v.iin->RPfrst, prev = 0; i != 0; prev = i, i = v.iin->Rpnx.V[i]) {
    if (i < 1 || i > n || ++steps > n) {
      Doc(vmi, "Test_Extra: the row chain is broken at %d after row %d.", i, prev);
      return Fail(vmi, Err_Extra_Row);
    }
    const int32_t end = v.rstr[i] + v.rlen[i] + Row_Tail(s, i);
    const int32_t next = v.iin->Rpnx.V[i];
    if (next < 0 || next > n) continue;
    const int32_t extra = (next != 0 ? v.rstr[next] : limit) - end;
    if (extra < 0) {
      Doc(vmi, "Test_Extra: Row_Extra(%d) = %d is negative.", i, extra);
      Doc(vmi, "Rstr=%d Rlen=%d Mrex=%d", v.rstr[i], v.rlen[i], Row_Tail(s, i));
      if (next != 0)
        Doc(vmi, "Next=%d with Rstr=%d", next, v.rstr[next]);
      else
        Doc(vmi, "Next=0, U_Elefirst=%d and ColASpace%d", v.luf->U_elefirst, v.luf->ColASpace);
      return Fail(vmi, Err_Extra_Row);
    }
  }
}

// Pivoted rows in the U-file in pivot order, pivot first; pivoted columns
// empty; active rows and columns below the U-file and speaking only of
// active columns and rows.
void Test_Order_in_Structure(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n;
  const LUF *luf = v.luf;
  int32_t next = luf->RowUSpace + 1;  // start of the row pivoted before
  for (int32_t k = 1; k < v.k0 && k <= n; ++k) {
    const int32_t r = v.rnto[k], c = v.cnto[k];
    const int32_t st = v.rstr[r], len = v.rlen[r];
    if (st < luf->U_elefirst || st > luf->RowUSpace) {
      Doc(vmi, "Test_Order_in_Structure(A): pivoted row %d (new number %d) lies outside the U-file",
          r, k);
      Doc(vmi, "Rstr=%d U_elefirst=%d RowUSpace=%d", st, luf->U_elefirst, luf->RowUSpace);
      return Fail(vmi, Err_Order);
    }
    if (len < 1 || st + len != next) {
      Doc(vmi, "Test_Order_in_Structure(B): pivoted row %d (new number %d) is out of pivot order", r,
          k);
      Doc(vmi, "Rstr=%d Rlen=%d; the row pivoted before starts at %d", st, len, next);
      return Fail(vmi, Err_Order);
    }
    if (v.ic[st] != c) {
      Doc(vmi, "Test_Order_in_Structure(B): U row %d (new number %d) does not start with its pivot",
          r, k);
      Doc(vmi, "First column %d, pivot column %d", v.ic[st], c);
      return Fail(vmi, Err_Order);
    }
    for (int32_t p = st + 1; p < st + len; ++p) {
      const int32_t j = v.ic[p];
      if (j < 1 || j > n || v.cotn[j] <= k) {
        Doc(vmi, "Test_Order_in_Structure(B): U row %d (new number %d) holds column %d", r, k, j);
        Doc(vmi, "at %d, with new number %d", p, (j >= 1 && j <= n) ? v.cotn[j] : 0);
        return Fail(vmi, Err_Order);
      }
    }
    if (!s.Semi_Dense && v.mrex[r] != 0) {
      Doc(vmi, "Test_Order_in_Structure(G): pivoted row %d (new number %d) has Mrex=%d", r, k,
          v.mrex[r]);
      return Fail(vmi, Err_Order);
    }
    if (v.clen[c] != 0) {
      Doc(vmi, "Test_Order_in_Structure(E): pivoted column %d (new number %d) has Clen=%d", c, k,
          v.clen[c]);
      return Fail(vmi, Err_Order);
    }
    if (v.mcex[c] != 0) {
      Doc(vmi, "Test_Order_in_Structure(H): pivoted column %d (new number %d) has Mcex=%d", c, k,
          v.mcex[c]);
      return Fail(vmi, Err_Order);
    }
    next = st;
  }
  if (next != luf->U_elefirst) {
    Doc(vmi, "Test_Order_in_Structure(A): the pivoted rows start at %d but U_elefirst=%d", next,
        luf->U_elefirst);
    return Fail(vmi, Err_Order);
  }

  const int32_t icSize = Size(luf->Ic), irSize = Size(luf->Ir);
  for (int32_t k = v.k0; k <= n; ++k) {
    const int32_t i = v.rnto[k];
    const int32_t st = v.rstr[i], tl = Row_Tail(s, i);
    const int32_t end = st + v.rlen[i] + tl - 1;
    if (st < 1 || end >= luf->U_elefirst || end > icSize) {
      Doc(vmi, "Test_Order_in_Structure(C): active row %d ends at %d", i, end);
      Doc(vmi, "Rstr=%d Rlen=%d Mrex=%d U_elefirst=%d Size(Ic)=%d", st, v.rlen[i], tl,
          luf->U_elefirst, icSize);
      return Fail(vmi, Err_Order);
    }
    for (int32_t p = st; p <= end; ++p) {
      const int32_t j = v.ic[p];
      if (j == 0 && p >= st + v.rlen[i]) continue;  // a removed slot of the tail
      if (!v.Active_Col(j)) {
        Doc(vmi, "Test_Order_in_Structure(D): active row %d holds column %d (new number %d)", i, j,
            (j >= 1 && j <= n) ? v.cotn[j] : 0);
        Doc(vmi, "at %d; Piv_Indx=%d", p, v.k0);
        List_Row(v, s, i);
        return Fail(vmi, Err_Order);
      }
    }
  }
  for (int32_t k = v.k0; k <= n; ++k) {
    const int32_t j = v.cnto[k];
    const int32_t st = v.cstr[j], tl = Col_Tail(s, j);
    const int32_t end = st + v.clen[j] + tl - 1;
    if (st < 1 || end > irSize || end >= luf->U_elefirst) {
      Doc(vmi, "Test_Order_in_Structure(F): active column %d ends at %d", j, end);
      Doc(vmi, "Cstr=%d Clen=%d Mcex=%d Size(Ir)=%d U_elefirst=%d", st, v.clen[j], tl, irSize,
          luf->U_elefirst);
      return Fail(vmi, Err_Order);
    }
    for (int32_t q = st; q <= end; ++q) {
      const int32_t i = v.ir[q];
      if (i == 0 && q >= st + v.clen[j]) continue;
      if (!v.Active_Row(i)) {
        Doc(vmi, "Test_Order_in_Structure(F): active column %d holds row %d (new number %d)", j, i,
            (i >= 1 && i <= n) ? v.rotn[i] : 0);
        Doc(vmi, "at %d; Piv_Indx=%d", q, v.k0);
        List_Col(v, s, j);
        return Fail(vmi, Err_Order);
      }
    }
  }
}

void Test_Length_Counts(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  for (int32_t k = v.k0; k <= v.n; ++k) {
    const int32_t j = v.cnto[k];
    if (v.clen[j] < 0 || Col_Tail(s, j) < 0) {
      Doc(vmi, "Test_Length_Counts: Error in col count in col%8d Clen=%d Mcex=%d", j, v.clen[j],
          Col_Tail(s, j));
      return Fail(vmi, Err_Length_Counts);
    }
    const int32_t i = v.rnto[k];
    if (v.rlen[i] < 0 || Row_Tail(s, i) < 0) {
      Doc(vmi, "Test_Length_Counts: Error in row count in row%8d Rlen=%d Mrex=%d", i, v.rlen[i],
          Row_Tail(s, i));
      return Fail(vmi, Err_Length_Counts);
    }
  }
}

// The chains reach every active row and column once, in rising file order.
void Test_Length_Lists(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n, rowlft = n - v.k0 + 1;
  int32_t *mark = v.vim->HelpI.V;

  // Rows and columns are marked in turn, each by its number.
  auto clearRows = [&]() {
    for (int32_t k = v.k0; k <= n; ++k) mark[v.rnto[k]] = 0;
  };
  auto clearCols = [&]() {
    for (int32_t k = v.k0; k <= n; ++k) mark[v.cnto[k]] = 0;
  };

  // Rows.
  {
    int32_t count = 0, prev = 0;
    for (int32_t i = v.iin->RPfrst; i != 0; prev = i, i = v.iin->Rpnx.V[i]) {
      if (!v.Active_Row(i) || mark[i] != 0) {
        Doc(vmi, "Test_Length_Lists: Error in Rpnx in row=%d after row %d: %s", i, prev,
            !v.Active_Row(i) ? "not an active row" : "reached twice");
        clearRows();
        return Fail(vmi, Err_Length_Rows);
      }
      mark[i] = 1;
      ++count;
      const int32_t next = v.iin->Rpnx.V[i];
      if (next >= 1 && next <= n && v.rstr[next] < v.rstr[i] + v.rlen[i] + Row_Tail(s, i)) {
        Doc(vmi, "Test_Length_Lists: Error in Rstr/Rlen in row%8d: Rstr=%d Rlen=%d Mrex=%d", i,
            v.rstr[i], v.rlen[i], Row_Tail(s, i));
        Doc(vmi, "The next row %d has Rstr=%d", next, v.rstr[next]);
        clearRows();
        return Fail(vmi, Err_Length_Rows);
      }
    }
    if (count != rowlft) {
      int32_t missing = 0;
      for (int32_t k = v.k0; k <= n && missing == 0; ++k)
        if (mark[v.rnto[k]] == 0) missing = v.rnto[k];
      Doc(vmi, "Test_Length_Lists: Error in Rpnx in row=%d: the chain ends there", prev);
      Doc(vmi, "It holds %d rows, %d are active; row %d is not in it", count, rowlft, missing);
      clearRows();
      return Fail(vmi, Err_Length_Rows);
    }
  }
  clearRows();
  // Columns.
  {
    int32_t count = 0, prev = 0;
    for (int32_t j = v.iin->CPfrst; j != 0; prev = j, j = v.iin->Cpnx.V[j]) {
      if (!v.Active_Col(j) || mark[j] != 0) {
        Doc(vmi, "Test_Length_Lists: Error in Cpnx in col=%d after column %d: %s", j, prev,
            !v.Active_Col(j) ? "not an active column" : "reached twice");
        clearCols();
        return Fail(vmi, Err_Length_Cols);
      }
      mark[j] = 1;
      ++count;
      const int32_t next = v.iin->Cpnx.V[j];
      if (next >= 1 && next <= n && v.cstr[next] < v.cstr[j] + v.clen[j] + Col_Tail(s, j)) {
        Doc(vmi, "Test_Length_Lists: Error in Cstr/Clen in col%8d: Cstr=%d Clen=%d Mcex=%d", j,
            v.cstr[j], v.clen[j], Col_Tail(s, j));
        Doc(vmi, "The next column %d has Cstr=%d", next, v.cstr[next]);
        clearCols();
        return Fail(vmi, Err_Length_Cols);
      }
    }
    if (count != rowlft) {
      int32_t missing = 0;
      for (int32_t k = v.k0; k <= n && missing == 0; ++k)
        if (mark[v.cnto[k]] == 0) missing = v.cnto[k];
      Doc(vmi, "Test_Length_Lists: Error in col count in col%8d: the chain ends there", prev);
      Doc(vmi, "It holds %d columns, %d are active; column %d is not in it", count, rowlft, missing);
      clearCols();
      return Fail(vmi, Err_Length_Cols);
    }
  }
  clearCols();
}

// Members of the short C-lists have no tails.
void Test_Mrex_Mcex(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  // Tails are compressed below Length_Lim (Compress_Short_Lists); Len_Crit
  // may stand above it, and lists between the two may hold tails.
  const int32_t n = v.n, cmax = std::min(n, std::min(s.Len_Crit, s.Length_Lim) - 1);
  const int32_t *nxtc = v.iin->Nxtc.V, *nxtr = v.iin->Nxtr.V;
  for (int32_t c = 1; c <= cmax; ++c) {
    int32_t steps = 0;
    for (int32_t j = v.iin->Stcc.V[c]; j >= 1 && j <= n && ++steps <= n; j = nxtc[j]) {
      if (v.mcex[j] != 0) {
        Doc(vmi, "Icol=%d in C-list%d, Clen=%d and Mcex=%d", j, c, v.clen[j], v.mcex[j]);
        return Fail(vmi, Err_Mcex_Short);
      }
    }
    steps = 0;
    for (int32_t i = v.iin->Stcr.V[c]; i >= 1 && i <= n && ++steps <= n; i = nxtr[i]) {
      if (v.mrex[i] != 0) {
        Doc(vmi, "Irow=%d in R-list%d, Rlen=%d and Mrex=%d", i, c, v.rlen[i], v.mrex[i]);
        return Fail(vmi, Err_Mrex_Short);
      }
    }
  }
}

// Columns whose maximum is marked exact hold it.
void Test_Clmx(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0 || v.k0 > v.n) return;
  const double frac = 1.0 - vmi->Eps08;
  const double *clmx = v.iin->Clmx.Val;
  const Logical *clok = v.iin->Clok.V;
  int32_t first = 0, bad = 0;
  for (int32_t k = v.k0; k <= v.n; ++k) {
    const int32_t j = v.cnto[k];
    if (!IsTrue(clok[j])) continue;
    double amax = 0.0;
    for (int32_t q = v.cstr[j]; q < v.cstr[j] + v.clen[j]; ++q) amax = std::max(amax, std::fabs(v.aur[q]));
    const bool wrong =
        Col_Tail(s, j) != 0 || (clmx[j] * frac > amax && amax > vmi->Rtpiva) || amax > clmx[j];
    if (!wrong) continue;
    if (bad == 0) {
      Doc(vmi, "**Error in Clmx. NumVTria+1=%d Piv_Indx=%d and NumRow=%d", s.NumVTria + 1, v.k0, v.n);
      Doc(vmi, "RowFileUsed=%d ColFileUsed=%d U_elefirst=%d and Size(Ir)=%d", v.luf->RowFileUsed,
          v.luf->ColFileUsed, v.luf->U_elefirst, Size(v.luf->Ir));
      first = j;
    }
    if (++bad <= 20)
      Doc(vmi, "Clmx(%d)=%.17g Amax=%.17g Clen=%d Mcex=%d", j, clmx[j], amax, v.clen[j], Col_Tail(s, j));
  }
  if (bad == 0) return;
  if (bad > 20) Doc(vmi, "... %d columns with errors in all", bad);
  const int32_t st = v.cstr[first], end = v.cstr[first] + v.clen[first] - 1;
  for (int32_t q = st; q <= end && q < st + List_Max; ++q)
    Doc(vmi, "First column with errors: Istr=%d Iend=%d Amat=%.17g Row=%d", st, end, v.aur[q], v.ir[q]);
  Fail(vmi, Err_Clmx);
}

// Every active row and column in exactly one list, with the keys, lengths and
// marks its list requires.
void Test_Markowitz_Lists(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n, rowlft = n - v.k0 + 1;
  IIN *iin = v.iin;
  int32_t *mark = v.vim->HelpI.V;
  for (int32_t i = 1; i <= n; ++i) {
    if (mark[i] != 0) {
      Doc(vmi, "Error in HelpI before calling Test_Markowitz_Lists. VIM%%HelpI(%d)=%d", i, mark[i]);
      return Fail(vmi, Err_Lists_Rows);
    }
  }
  const int32_t *nxtr = iin->Nxtr.V, *prvr = iin->Prvr.V, *nxtc = iin->Nxtc.V, *prvc = iin->Prvc.V;
  const int32_t *mrow = iin->Mrow.V, *mact = iin->Mact.V;
  const int32_t *stcc = iin->Stcc.V, *stcr = iin->Stcr.V, *stmc = iin->Stmc.V;
  const int32_t markBad = iin->MarkBad, stmcSize = Size(iin->Stmc);
  int32_t rowsFound = 0, colsFound = 0, scanned = 0, inM = 0;
  bool failed = false;
  int errNo = Err_Lists_Rows;

  // Rows, then columns, are marked by their numbers.
  auto clearRows = [&]() {
    for (int32_t k = v.k0; k <= n; ++k) mark[v.rnto[k]] = 0;
  };
  auto clearCols = [&]() {
    for (int32_t k = v.k0; k <= n; ++k) mark[v.cnto[k]] = 0;
  };
  auto fail = [&](int number) {
    failed = true;
    errNo = number;
  };

  // Lists below their lower bounds are empty.
  for (int32_t c = 1; c < std::min(s.MIN_RC_List, n + 1) && !failed; ++c)
    if (stcr[c] != 0) {
      Doc(vmi, "Test_Markowitz_Lists: IIN%%Stcr(%d)=%d below MIN_RC_List=%d", c, stcr[c], s.MIN_RC_List);
      fail(Err_Lists_Rows);
    }
  for (int32_t c = 1; c < std::min(s.MIN_CC_List, n + 1) && !failed; ++c)
    if (stcc[c] != 0) {
      Doc(vmi, "Test_Markowitz_Lists: IIN%%Stcc(%d)=%d below MIN_CC_List=%d", c, stcc[c], s.MIN_CC_List);
      fail(Err_Lists_Cols);
    }
  if (!failed && stmcSize < markBad) {
    Doc(vmi, "Test_Markowitz_Lists: Size(Stmc)=%d below MarkBad=%d", stmcSize, markBad);
    fail(Err_Lists_Cols);
  }
  for (int32_t m = 1; m <= stmcSize && !failed; ++m)
    if (stmc[m] != 0 && (m < s.Min_M_InList || m > markBad)) {
      Doc(vmi, "Test_Markowitz_Lists: IIN%%Stmc(%d)=%d outside Min_M_InList=%d .. MarkBad=%d", m,
          stmc[m], s.Min_M_InList, markBad);
      fail(Err_Lists_Cols);
    }

  // Walks one row list; kind 0 zero list, 1 C-list of count key, 2 scanned.
  auto walkRows = [&](int32_t head, int kind, int32_t key) {
    const int32_t headPrv = kind == 0 ? 0 : kind == 1 ? -key : -1;
    char name[48];
    if (kind == 0) std::snprintf(name, sizeof name, "the zero row list");
    else if (kind == 1) std::snprintf(name, sizeof name, "R-list%d", key);
    else std::snprintf(name, sizeof name, "the scanned-row list");
    for (int32_t i = head, prev = 0; i != 0 && !failed; prev = i, i = nxtr[i]) {
      if (i < 1 || i > n) {
        Doc(vmi, "Test_Markowitz_Lists: Row%d in %s (after row %d) is out of range.", i, name, prev);
        return fail(Err_Lists_Rows);
      }
      if (mark[i] != 0) {
        Doc(vmi, "Test_Markowitz_Lists: Row%d in %s is in a list twice.", i, name);
        return fail(Err_Lists_Rows);
      }
      if (v.rotn[i] < v.k0) {
        Doc(vmi, "Test_Markowitz_Lists: Row%d in %s is not active: VIM%%Rotn=%d Piv_Indx=%d", i, name,
            v.rotn[i], v.k0);
        return fail(Err_Lists_Rows);
      }
      mark[i] = 1;
      ++rowsFound;
      const int32_t want = prev == 0 ? headPrv : prev;
      if (prvr[i] != want) {
        Doc(vmi, "Test_Markowitz_Lists: Prvr(%d)=%d in %s, but the link before it is %d", i, prvr[i],
            name, want);
        return fail(Err_Lists_Rows);
      }
      if (nxtr[i] == i) {
        Doc(vmi, "Test_Markowitz_Lists: Nxtr of row%d in %s points to itselt", i, name);
        return fail(Err_Lists_Rows);
      }
      const int32_t len = v.rlen[i];
      const bool okLen = kind == 0 ? len == 0 : kind == 1 ? len == key : len > 1;
      const bool okMark = kind == 2 ? mrow[i] != 0 : mrow[i] == 0;
      if (!okLen || !okMark) {
        Doc(vmi, "Test_Markowitz_Lists: Row%d in %s has Rlen=%d and Mrow=%d", i, name, len, mrow[i]);
        return fail(Err_Lists_Rows);
      }
      if (kind == 2) ++scanned;
    }
  };
  // Columns; kind 0 zero list, 1 C-list of count key, 2 M-list of count key.
  auto walkCols = [&](int32_t head, int kind, int32_t key) {
    const int32_t headPrv = kind == 0 ? 0 : -key;
    char name[48];
    if (kind == 0) std::snprintf(name, sizeof name, "the zero column list");
    else if (kind == 1) std::snprintf(name, sizeof name, "C-list%d", key);
    else std::snprintf(name, sizeof name, "M-list%d", key);
    for (int32_t j = head, prev = 0; j != 0 && !failed; prev = j, j = nxtc[j]) {
      if (j < 1 || j > n) {
        Doc(vmi, "Test_Markowitz_Lists: Column%d in %s (after column %d) is out of range.", j, name,
            prev);
        return fail(Err_Lists_Cols);
      }
      if (mark[j] != 0) {
        Doc(vmi, "Test_Markowitz_Lists: Column%d in %s is in a list twice.", j, name);
        return fail(Err_Lists_Cols);
      }
      if (v.cotn[j] < v.k0) {
        Doc(vmi, "Test_Markowitz_Lists: Column%d in %s is not active: VIM%%Cotn=%d Piv_Indx=%d", j,
            name, v.cotn[j], v.k0);
        return fail(Err_Lists_Cols);
      }
      mark[j] = 1;
      ++colsFound;
      const int32_t want = prev == 0 ? headPrv : prev;
      if (prvc[j] != want) {
        Doc(vmi, "Test_Markowitz_Lists: Prvc(%d)=%d in %s, but the link before it is %d", j, prvc[j],
            name, want);
        return fail(Err_Lists_Cols);
      }
      if (nxtc[j] == j) {
        Doc(vmi, "Test_Markowitz_Lists: Nxtc of column%d in %s points to itselt", j, name);
        return fail(Err_Lists_Cols);
      }
      const int32_t len = v.clen[j];
      bool ok;
      if (kind == 0) ok = len == 0 && mact[j] == 0 && v.mcex[j] == 0;
      else if (kind == 1) ok = len == key && mact[j] == 0;
      else ok = len > 1 && mact[j] == key;
      if (!ok) {
        Doc(vmi, "Test_Markowitz_Lists: Column%d in %s has Clen=%d Mact=%d and Mcex=%d", j, name, len,
            mact[j], v.mcex[j]);
        return fail(Err_Lists_Cols);
      }
      if (kind == 2) ++inM;
    }
  };

  if (!failed) walkRows(s.Ptr_Zero_Rows, 0, 0);
  for (int32_t c = 1; c <= n && !failed; ++c) walkRows(stcr[c], 1, c);
  if (!failed) walkRows(s.Ptr_M_Rows, 2, 1);
  if (!failed && scanned != s.COUNT_MARK_ROW) {
    Doc(vmi, "Test_Markowitz_Lists: the scanned-row list holds %d rows but COUNT_MARK_ROW=%d", scanned,
        s.COUNT_MARK_ROW);
    fail(Err_Lists_Count);
  }
  if (!failed && rowsFound != rowlft) {
    Doc(vmi, "Test_Markowitz_Lists: Number of rows in lists was%d but Piv_Indx=%d and NumRow=%d",
        rowsFound, v.k0, n);
    int32_t shown = 0;
    for (int32_t k = v.k0; k <= n && shown < 20; ++k)
      if (mark[v.rnto[k]] == 0) {
        Doc(vmi, "Test_Markowitz_Lists: Row%d = VIM%%Rnto(%d) was not in list", v.rnto[k], k);
        ++shown;
      }
    fail(Err_Lists_Count);
  }
  clearRows();

  if (!failed) walkCols(s.Ptr_Zero_Cols, 0, 0);
  for (int32_t c = 1; c <= n && !failed; ++c) walkCols(stcc[c], 1, c);
  for (int32_t m = 1; m <= std::min(markBad, stmcSize) && !failed; ++m) walkCols(stmc[m], 2, m);
  if (!failed && inM != s.Count_Mark_Col) {
    Doc(vmi, "Test_Markowitz_Lists: the M-lists hold %d columns but Count_Mark_Col=%d", inM,
        s.Count_Mark_Col);
    fail(Err_Lists_Count);
  }
  if (!failed && colsFound != rowlft) {
    Doc(vmi, "Test_Markowitz_Lists: Number of columns in lists was%d Expected Number=%d", colsFound,
        rowlft);
    int32_t shown = 0;
    for (int32_t k = v.k0; k <= n && shown < 20; ++k)
      if (mark[v.cnto[k]] == 0) {
        Doc(vmi, "Test_Markowitz_Lists: Column%d = VIM%%Cnto(%d) was not in list", v.cnto[k], k);
        ++shown;
      }
    fail(Err_Lists_Count);
  }
  clearCols();
  if (failed) Fail(vmi, errNo);
}

// Counts and bounds of the active columns agree with their lengths.
void Test_Markowitz_Counts(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t *mact = v.iin->Mact.V, *mlow = v.iin->Mlow.V;
  const Logical *clok = v.iin->Clok.V;
  const int32_t over = v.iin->MarkBad - 1;
  for (int32_t k = v.k0; k <= v.n; ++k) {
    const int32_t j = v.cnto[k], t = v.clen[j] - 1;
    const int32_t ma = mact[j], ml = mlow[j];
    const bool top = ma >= over;  // the top lists keep no multiple
    if (t > 0 && !top && ma % t != 0) {
      Doc(vmi, "Test_Markowitz_Counts: Column%d has Mact=%d which is not a multiple of clen-1=%d", j,
          ma, t);
      Doc(vmi, "Blkstr=%d Blkend=%d", v.k0, v.n);
      return Fail(vmi, Err_Counts);
    }
    if (t > 0 && ml % t != 0) {
      Doc(vmi, "Test_Markowitz_Counts: Column%d has Mlow=%d which is not a multiple of clen-1=%d", j,
          ml, t);
      Doc(vmi, "Mact=%d", ma);
      Doc(vmi, "Blkstr=%d Blkend=%d", v.k0, v.n);
      return Fail(vmi, Err_Counts);
    }
    // A column whose count the search has just taken keeps, beside the
    // count of its best acceptable row, the lower bound of its shortest row;
    // the two differ when that row's element fails the threshold.  With Clok
    // true both are current, so only the order of the two is checked.
    static_cast<void>(clok);
    if (ma > 0 && !top && ml > ma) {
      Doc(vmi, "Test_Markowitz_Counts: Column%d has Mlow=%d above Mact=%d", j, ml, ma);
      Doc(vmi, "Blkstr=%d Blkend=%d", v.k0, v.n);
      return Fail(vmi, Err_Counts);
    }
  }
}

// The physical chains: back links, rising starts, the last member, and the
// last member's end within the used part of its file.
void Test_Position(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n;
  const LUF *luf = v.luf;
  const IIN *iin = v.iin;
  {
    int32_t prev = 0, prevEnd = 1, steps = 0;
    for (int32_t i = iin->RPfrst; i != 0; prev = i, i = iin->Rpnx.V[i]) {
      if (i < 1 || i > n || ++steps > n) {
        Doc(vmi, "Test_Position_RA: the row chain is broken at %d after row %d", i, prev);
        return Fail(vmi, Err_Position);
      }
      if (iin->Rppr.V[i] != prev) {
        Doc(vmi, "Test_Position_RA: Rppr(%d)=%d but the row before it is %d", i, iin->Rppr.V[i], prev);
        return Fail(vmi, Err_Position);
      }
      if (v.rstr[i] < prevEnd) {
        Doc(vmi, "Test_Position_RB: row %d starts at %d, before the end %d of row %d", i, v.rstr[i],
            prevEnd, prev);
        return Fail(vmi, Err_Position);
      }
      prevEnd = v.rstr[i] + v.rlen[i] + Row_Tail(s, i);
    }
    if (prev != iin->RPlast) {
      Doc(vmi, "Test_Position_RC: the row chain ends with %d but RPlast=%d", prev, iin->RPlast);
      return Fail(vmi, Err_Position);
    }
    if (prev != 0 && prevEnd - 1 >= luf->U_elefirst) {
      Doc(vmi, "Test_Position_RD: the last row %d ends at %d, U_elefirst=%d", prev, prevEnd - 1,
          luf->U_elefirst);
      return Fail(vmi, Err_Position);
    }
    if (prev != 0 && prevEnd - 1 > luf->RowFileUsed) {
      Doc(vmi, "Test_Position_RE: the last row %d ends at %d, RowFileUsed=%d", prev, prevEnd - 1,
          luf->RowFileUsed);
      return Fail(vmi, Err_Position);
    }
  }
  {
    int32_t prev = 0, prevEnd = 1, steps = 0;
    for (int32_t j = iin->CPfrst; j != 0; prev = j, j = iin->Cpnx.V[j]) {
      if (j < 1 || j > n || ++steps > n) {
        Doc(vmi, "Test_Position_CA: the column chain is broken at %d after column %d", j, prev);
        return Fail(vmi, Err_Position);
      }
      if (iin->Cppr.V[j] != prev) {
        Doc(vmi, "Test_Position_CA: Cppr(%d)=%d but the column before it is %d", j, iin->Cppr.V[j],
            prev);
        return Fail(vmi, Err_Position);
      }
      if (v.cstr[j] < prevEnd) {
        Doc(vmi, "Test_Position_CB: column %d starts at %d, before the end %d of column %d", j,
            v.cstr[j], prevEnd, prev);
        return Fail(vmi, Err_Position);
      }
      prevEnd = v.cstr[j] + v.clen[j] + Col_Tail(s, j);
    }
    if (prev != iin->CPlast) {
      Doc(vmi, "Test_Position_CC: the column chain ends with %d but CPlast=%d", prev, iin->CPlast);
      return Fail(vmi, Err_Position);
    }
    if (prev != 0 && prevEnd - 1 > Size(luf->Ir)) {
      Doc(vmi, "Test_Position_CD: the last column %d ends at %d, Size(Ir)=%d", prev, prevEnd - 1,
          Size(luf->Ir));
      return Fail(vmi, Err_Position);
    }
    if (prev != 0 && prevEnd - 1 > luf->ColFileUsed) {
      Doc(vmi, "Test_Position_CE: the last column %d ends at %d, ColFileUsed=%d", prev, prevEnd - 1,
          luf->ColFileUsed);
      return Fail(vmi, Err_Position);
    }
  }
}

// ---------------------------------------------------------------------------
// Test_LUeqB.
//
// B = L M, where M holds the U rows of the pivoted rows and the active
// submatrix, and L = I + sum of the L columns (each in the rows pivoted
// after its pivot row).  Column c of L M is the sum over the elements (r, c)
// of M of the element times (e_r + the L column of pivot row r).
//
// Tolerance, per place c: |(L M - B)(r, c)| <= 1e-9 * scale_c + 1e5 * Tol_Zero,
// scale_c = the larger of max_r |B(r, c)| and max_r of the sum of the
// magnitudes of the terms that make (L M)(r, c).  The second term is the
// natural size of rounding in the product and in the elimination, so growth
// in U widens the tolerance of exactly the columns it touches; the absolute
// part covers elements dropped at or below Clmin.
//
// The product costs the elimination's multiply-adds so far.  When that is
// more than a few passes over the structures, a projection screen comes
// first: (B - L M) v for a fixed pseudo-random v, row by row against the
// same tolerance on |B| |v| + |L| |M| |v|; only if it finds a difference does
// the product run column by column, to name the place.

struct LUeqB_Work {
  IntVec ucs, ucr, rowL, touch;  // U by columns: starts, rows; L column of a row; touched rows
  RVec ucv, wabs, z, za;         // U values; magnitudes; the screen's M v and |M| |v|
  void Release(VMI *vmi) {
    Deallocate_Int(vmi, ucs, "Test_LUeqB%Ucs");
    Deallocate_Int(vmi, ucr, "Test_LUeqB%Ucr");
    Deallocate_Int(vmi, rowL, "Test_LUeqB%RowL");
    Deallocate_Int(vmi, touch, "Test_LUeqB%Touch");
    Deallocate_RVec(vmi, ucv);
    Deallocate_RVec(vmi, wabs);
    Deallocate_RVec(vmi, z);
    Deallocate_RVec(vmi, za);
  }
};

// Weight of basis place c in the screen: in [1, 2), from a mix of c.
double Screen_Weight(int32_t c) {
  uint64_t x = static_cast<uint64_t>(c) * 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  x ^= x >> 31;
  return 1.0 + static_cast<double>(x >> 11) * (1.0 / 9007199254740992.0);
}

void Test_LUeqB(Bump_State &s) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  VIM *vim = v.vim;
  const LUF *luf = v.luf;
  if (vim->Num_Sing > 0) {
    Doc(vmi, "Test_LUeqB skipped due to singularities.");
    return;
  }
  const int32_t n = v.n, k0 = v.k0, numCol = vim->NumCol;
  const double absTol = LUeqB_Abs_Factor * vmi->Tol_Zero;
  const int32_t *lsor = luf->Lsor.V, *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
  const double *lmat = luf->Lmat.Val;
  const int32_t *cbto = vim->Cbto.V, *stcl = vim->Stcl.V, *rnum = vim->Rnum.V;
  const double *jace = vim->Jace.Val;
  const double tolZero = vmi->Tol_Zero;
  int32_t *stamp = vim->HelpI.V;
  double *w = vim->Work1.Val;
  Zero_Real(w, n);  // Work1 is the solves' vector and may still hold a result

  LUeqB_Work wk;
  Set_Name(wk.ucv, "Test_LUeqB%Ucv");
  Set_Name(wk.wabs, "Test_LUeqB%Wabs");
  Set_Name(wk.z, "Test_LUeqB%Z");
  Set_Name(wk.za, "Test_LUeqB%Za");
  auto failed = [&]() {
    wk.Release(vmi);
    Fail(vmi, Err_LUeqB);
  };

  // The U rows of the pivoted rows, and their number of elements.
  int64_t nU = 0;
  for (int32_t k = 1; k < k0; ++k) {
    const int32_t r = v.rnto[k];
    const int32_t st = v.rstr[r], len = v.rlen[r];
    if (len < 0 || st < luf->U_elefirst || st + len - 1 > luf->RowUSpace) {
      Doc(vmi, "Test_LUeqB: U row %d (new number %d) with Rstr=%d Rlen=%d is outside the U-file", r,
          k, st, len);
      return failed();
    }
    nU += len;
  }
  // The L-file.
  const int32_t lCols = luf->L_Cols, lUsed = luf->LFileUsed;
  const int32_t lSize = std::min({Size(luf->Lmat), Size(luf->Lrow), Size(luf->Lpiv)});
  if (lCols < 0 || lCols > n || lUsed < 0 || lUsed > lSize || lsor[1] != 1 ||
      lsor[lCols + 1] != lUsed + 1) {
    Doc(vmi, "Test_LUeqB: L_Cols=%d LFileUsed=%d Lsor(1)=%d Lsor(L_Cols+1)=%d do not describe the "
        "L-file", lCols, lUsed, lsor[1], (lCols >= 0 && lCols <= n) ? lsor[lCols + 1] : 0);
    return failed();
  }
  Allocate_Int(vmi, wk.ucs, "Test_LUeqB%Ucs", n + 2);
  Allocate_Int(vmi, wk.ucr, "Test_LUeqB%Ucr", static_cast<int32_t>(std::max<int64_t>(nU, 1)));
  Allocate_Int(vmi, wk.rowL, "Test_LUeqB%RowL", n);
  Allocate_Int(vmi, wk.touch, "Test_LUeqB%Touch", n);
  Allocate_RVec(vmi, wk.ucv, static_cast<int32_t>(std::max<int64_t>(nU, 1)));
  Allocate_RVec(vmi, wk.wabs, n);
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Test_LUeqB: no memory for the work vectors.");
    wk.Release(vmi);
    return;
  }
  int32_t *ucs = wk.ucs.V, *ucr = wk.ucr.V, *rowL = wk.rowL.V, *touch = wk.touch.V;
  double *ucv = wk.ucv.Val, *wabs = wk.wabs.Val;
  Zero_Int(ucs, n + 2);
  Zero_Int(rowL, n);
  Zero_Real(wabs, n);

  int64_t work = 0;  // multiply-adds of the product
  for (int32_t l = 1; l <= lCols; ++l) {
    const int32_t from = lsor[l], to = lsor[l + 1];
    if (to < from || to > lUsed + 1) {
      Doc(vmi, "Test_LUeqB: Lsor(%d)=%d Lsor(%d)=%d", l, from, l + 1, to);
      return failed();
    }
    if (to == from) continue;
    const int32_t piv = lpiv[from];
    if (piv < 1 || piv > n || v.rotn[piv] >= k0 || rowL[piv] != 0) {
      Doc(vmi, "Test_LUeqB: L column %d has pivot row %d: out of range, not pivoted (Piv_Indx=%d) "
          "or with an L column %d before", l, piv, k0, (piv >= 1 && piv <= n) ? rowL[piv] : 0);
      return failed();
    }
    rowL[piv] = l;
    for (int32_t e = from; e < to; ++e) {
      const int32_t r = lrow[e];
      if (lpiv[e] != piv || r < 1 || r > n || v.rotn[r] <= v.rotn[piv]) {
        Doc(vmi, "Test_LUeqB: L column %d of pivot row %d holds row %d (Lpiv=%d) at %d", l, piv, r,
            lpiv[e], e);
        return failed();
      }
    }
  }
  // U by columns.
  for (int32_t k = 1; k < k0; ++k) {
    const int32_t r = v.rnto[k];
    const int32_t lenL = rowL[r] != 0 ? lsor[rowL[r] + 1] - lsor[rowL[r]] : 0;
    work += static_cast<int64_t>(lenL + 1) * v.rlen[r];
    for (int32_t p = v.rstr[r]; p < v.rstr[r] + v.rlen[r]; ++p) {
      const int32_t c = v.ic[p];
      if (c < 1 || c > n) {
        Doc(vmi, "Test_LUeqB: U row %d holds column %d at %d", r, c, p);
        return failed();
      }
      ucs[c + 1] += 1;
    }
  }
  ucs[1] = 1;
  for (int32_t c = 1; c <= n; ++c) ucs[c + 1] += ucs[c];  // ucs(c): first slot of column c
  // touch serves as the fill cursor here; the product reuses it afterwards.
  for (int32_t c = 1; c <= n; ++c) touch[c] = ucs[c];
  for (int32_t k = 1; k < k0; ++k) {
    const int32_t r = v.rnto[k];
    for (int32_t p = v.rstr[r]; p < v.rstr[r] + v.rlen[r]; ++p) {
      const int32_t e = touch[v.ic[p]]++;
      ucr[e] = r;
      ucv[e] = v.aur[p];
    }
  }
  // Active columns: their elements, and the size of the structures.
  int64_t nAct = 0, nB = 0;
  const int32_t irSize = std::min(Size(luf->Ir), Size(vim->AUrmat));
  for (int32_t k = k0; k <= n; ++k) {
    const int32_t j = v.cnto[k];
    const int32_t st = v.cstr[j], end = st + v.clen[j] + Col_Tail(s, j) - 1;
    if (st < 1 || end > irSize) {
      Doc(vmi, "Test_LUeqB: active column %d with Cstr=%d ends at %d, beyond %d", j, st, end, irSize);
      return failed();
    }
    for (int32_t q = st; q <= end; ++q) {
      if (v.ir[q] < 0 || v.ir[q] > n) {
        Doc(vmi, "Test_LUeqB: active column %d holds row %d at %d", j, v.ir[q], q);
        return failed();
      }
    }
    nAct += end - st + 1;
  }
  for (int32_t c = 1; c <= n; ++c) nB += cbto[c] > numCol ? 1 : stcl[cbto[c] + 1] - stcl[cbto[c]];

  // Elements of M in place c, each with its value: f(row, value).
  auto forColumn = [&](int32_t c, auto &&f) {
    for (int32_t e = ucs[c]; e < ucs[c + 1]; ++e) f(ucr[e], ucv[e]);
    if (v.cotn[c] >= k0) {
      const int32_t st = v.cstr[c], end = st + v.clen[c] + Col_Tail(s, c);
      for (int32_t q = st; q < end; ++q)
        if (v.ir[q] != 0) f(v.ir[q], v.aur[q]);
    }
  };
  // Elements of B in place c: g(row, value).
  auto forBasis = [&](int32_t c, auto &&g) {
    const int32_t j = cbto[c];
    if (j > numCol) {
      g(j - numCol, 1.0);
      return;
    }
    for (int32_t p = stcl[j]; p < stcl[j + 1]; ++p)
      if (std::fabs(jace[p]) >= tolZero) g(rnum[p], jace[p]);
  };

  // The element-by-element product, place by place.  Returns false after a
  // report.
  auto exact = [&]() -> bool {
    for (int32_t c = 1; c <= n; ++c) {
      int32_t nt = 0;
      auto add = [&](int32_t r, double x) {
        if (stamp[r] != c) {
          stamp[r] = c;
          touch[++nt] = r;
        }
        w[r] += x;
        wabs[r] += std::fabs(x);
      };
      forColumn(c, [&](int32_t r, double x) {
        add(r, x);
        if (const int32_t l = rowL[r])
          for (int32_t e = lsor[l]; e < lsor[l + 1]; ++e) add(lrow[e], lmat[e] * x);
      });
      double scale = 0.0;
      forBasis(c, [&](int32_t, double a) { scale = std::max(scale, std::fabs(a)); });
      for (int32_t t = 1; t <= nt; ++t) scale = std::max(scale, wabs[touch[t]]);
      const double tol = LUeqB_Rel * scale + absTol;
      const int32_t j = cbto[c];
      int32_t badRow = 0;
      double badB = 0.0, badW = 0.0;
      // The basis column is subtracted; what stays must vanish.
      forBasis(c, [&](int32_t r, double a) {
        const double d = w[r] - a;
        if (badRow == 0 && std::fabs(d) > tol) {
          badRow = r;
          badB = a;
          badW = w[r];
        }
        w[r] = 0.0;
      });
      if (badRow != 0) {
        if (j > numCol) {
          Doc(vmi, "Test_LUeqB: Column %d (VIM%%Cbto=%d) is a slack column with +1 in row %d", c, j,
              badRow);
          Doc(vmi, "L*U gives %.17g. Tol=%.3e", badW, tol);
        } else {
          Doc(vmi, "Test_LUeqB: Column %d (VIM%%Cbto=%d) differs from B in row %d", c, j, badRow);
          Doc(vmi, "B=%.17g but L*U=%.17g. Tol=%.3e", badB, badW, tol);
        }
      } else {
        for (int32_t t = 1; t <= nt && badRow == 0; ++t)
          if (std::fabs(w[touch[t]]) > tol) badRow = touch[t];
        if (badRow != 0) {
          Doc(vmi, "Test_LUeqB: Nwk1 is not zero after clearing Jace elements.");
          Doc(vmi, "Test_LUeqB: Column %d (VIM%%Cbto=%d) row %d: L*U-B=%.17g Tol=%.3e", c, j, badRow,
              w[badRow], tol);
        }
      }
      for (int32_t t = 1; t <= nt; ++t) {
        const int32_t r = touch[t];
        w[r] = 0.0;
        wabs[r] = 0.0;
        stamp[r] = 0;
      }
      if (badRow != 0) {
        Doc(vmi, "Piv_Indx=%d: the elements of column %d in the U-file (LUF%%Ic) and in the column "
            "file (LUF%%Ir):", k0, c);
        int32_t shown = 0;
        for (int32_t e = ucs[c]; e < ucs[c + 1] && shown < List_Max; ++e, ++shown)
          Doc(vmi, "   U row %d (new number %d): %.17g", ucr[e], v.rotn[ucr[e]], ucv[e]);
        if (v.cotn[c] >= k0) List_Col(v, s, c);
        if (badRow >= 1 && badRow <= n && rowL[badRow] != 0)
          Doc(vmi, "   row %d is the pivot row of L column %d", badRow, rowL[badRow]);
        return false;
      }
    }
    return true;
  };

  const int64_t size = nU + nAct + lUsed + nB;
  const int64_t budget = Test_LUeqB_Budget >= 0 ? Test_LUeqB_Budget : 8 * size + 200000;
  bool ok = true;
  if (work <= budget) {
    ok = exact();
  } else {
    Allocate_RVec(vmi, wk.z, n);
    Allocate_RVec(vmi, wk.za, n);
    if (!vmi->EnoughSpace) {
      Doc(vmi, "Test_LUeqB: no memory for the work vectors.");
      wk.Release(vmi);
      return;
    }
    double *z = wk.z.Val, *za = wk.za.Val;
    Zero_Real(z, n);
    Zero_Real(za, n);
    for (int32_t c = 1; c <= n; ++c) {
      const double vc = Screen_Weight(c);
      forColumn(c, [&](int32_t r, double x) {
        z[r] += x * vc;
        za[r] += std::fabs(x) * vc;
      });
    }
    for (int32_t r = 1; r <= n; ++r) {
      w[r] = z[r];
      wabs[r] = za[r];
    }
    for (int32_t l = 1; l <= lCols; ++l) {
      if (lsor[l + 1] == lsor[l]) continue;
      const int32_t piv = lpiv[lsor[l]];
      const double zp = z[piv], zap = za[piv];
      for (int32_t e = lsor[l]; e < lsor[l + 1]; ++e) {
        w[lrow[e]] += lmat[e] * zp;
        wabs[lrow[e]] += std::fabs(lmat[e]) * zap;
      }
    }
    for (int32_t c = 1; c <= n; ++c) {
      const double vc = Screen_Weight(c);
      forBasis(c, [&](int32_t r, double a) {
        w[r] -= a * vc;
        wabs[r] += std::fabs(a) * vc;
      });
    }
    int32_t badRow = 0;
    for (int32_t r = 1; r <= n && badRow == 0; ++r)
      if (std::fabs(w[r]) > LUeqB_Rel * wabs[r] + 2.0 * absTol) badRow = r;
    const double badV = badRow != 0 ? w[badRow] : 0.0, badS = badRow != 0 ? wabs[badRow] : 0.0;
    Zero_Real(w, n);
    Zero_Real(wabs, n);
    if (badRow != 0) {
      ok = exact();
      if (ok) {
        Doc(vmi, "Test_LUeqB: L*U differs from B in row %d: (L*U-B) v=%.17g, |L| |U| |v| + |B| |v|="
            "%.17g", badRow, badV, badS);
        ok = false;
      }
    }
  }
  if (!ok) return failed();
  wk.Release(vmi);
  Doc(vmi, "End of Test_LUeqB for Piv_Indx=%d", k0);
}

}  // namespace

// ---------------------------------------------------------------------------

void Test_Row_Col_Structure(Bump_State &s, const char *where) {
  const View v(s);
  VMI *vmi = v.vmi;
  if (vmi->Exception != 0) return;
  const int32_t n = v.n;
  const LUF *luf = v.luf;
  const int32_t irSize = Size(luf->Ir);
  const int32_t colTop = std::min({irSize, Size(v.iin->C2rp), Size(v.vim->AUrmat)});
  const int32_t rowTop = std::min({Size(luf->Ic), Size(v.iin->R2cp), Size(v.vim->AUrmat)});
  if (where == nullptr) where = "";

  // 1-2. Where the active rows and columns lie.
  for (int32_t k = v.k0; k <= n; ++k) {
    const int32_t j = v.cnto[k];
    if (j < 1 || j > n) {
      Doc(vmi, "Test_Row_Col_Structure(%s): VIM%%Cnto(%d)=%d is out of range.", where, k, j);
      return Fail(vmi, Err_Struct_Col);
    }
    const int32_t st = v.cstr[j], len = v.clen[j], tl = Col_Tail(s, j);
    if (st < 1 || st > irSize) {
      Doc(vmi, "Test_Row_Col_Structure(%s): Column %d Cstr out of range. Cstr=%d Clen=%d Mcex=%d "
          "Size(Ir)=%d", where, j, st, len, tl, irSize);
      return Fail(vmi, Err_Struct_Col);
    }
    if (len < 0 || tl < 0 || st + len + tl - 1 > colTop) {
      Doc(vmi, "Test_Row_Col_Structure(%s): Column %d Cstr/Clen out of range. Cstr=%d Clen=%d "
          "Mcex=%d Size(Ir)=%d", where, j, st, len, tl, colTop);
      return Fail(vmi, Err_Struct_Col);
    }
    if ((st - 1) % 8 != 0) {
      Doc(vmi, "Test_Row_Col_Structure(%s): Column %d Cstr not on a cache line. Cstr=%d", where, j, st);
      return Fail(vmi, Err_Struct_Col);
    }
  }
  for (int32_t k = v.k0; k <= n; ++k) {
    const int32_t i = v.rnto[k];
    if (i < 1 || i > n) {
      Doc(vmi, "Test_Row_Col_Structure(%s): VIM%%Rnto(%d)=%d is out of range.", where, k, i);
      return Fail(vmi, Err_Struct_Row);
    }
    const int32_t st = v.rstr[i], len = v.rlen[i], tl = Row_Tail(s, i);
    if (st < 1 || st > luf->RowUSpace) {
      Doc(vmi, "Test_Row_Col_Structure(%s): Row %d Rstr out of range. Rstr=%d Rlen=%d Mrex=%d "
          "RowUSpace=%d", where, i, st, len, tl, luf->RowUSpace);
      return Fail(vmi, Err_Struct_Row);
    }
    if (len < 0 || tl < 0 || st + len + tl - 1 > rowTop) {
      Doc(vmi, "Test_Row_Col_Structure(%s): Row %d Rstr/Rlen out of range. Rstr=%d Rlen=%d Mrex=%d "
          "Size(AUrmat)=%d", where, i, st, len, tl, rowTop);
      return Fail(vmi, Err_Struct_Row);
    }
  }

  // 3-5. Every element of a column is found in its row, compressed part in
  // compressed part and tail in tail, with both cross pointers.
  int64_t nzcol = 0, nzucol = 0;
  for (int32_t k = v.k0; k <= n; ++k) {
    const int32_t j = v.cnto[k];
    const int32_t st = v.cstr[j], cend = st + v.clen[j], tend = cend + Col_Tail(s, j);
    nzcol += v.clen[j];
    for (int32_t q = st; q < tend; ++q) {
      const int32_t i = v.ir[q];
      const bool tail = q >= cend;
      if (tail && i == 0) continue;  // a removed slot
      if (tail) ++nzucol;
      if (!v.Active_Row(i)) {
        Doc(vmi, "Test_Row_Col_Structure(%s): Column %d at %d: Row number out of range =%d "
            "(Piv_Indx=%d)", where, j, q, i, v.k0);
        List_Col(v, s, j);
        return Fail(vmi, Err_Struct_Col);
      }
      const int32_t p = v.c2rp[q];
      const int32_t rs = v.rstr[i], re = rs + v.rlen[i], rt = re + Row_Tail(s, i);
      const bool inside = tail ? (p >= re && p < rt) : (p >= rs && p < re);
      if (!inside || v.ic[p] != j) {
        Doc(vmi, "Test_Row_Col_Structure(%s): row=%d and column%d %s", where, i, j,
            tail ? "does not exist in the uncompressed row structure."
                 : "does not exist in the row structure.");
        Doc(vmi, "Column-file position %d, C2rp=%d", q, p);
        List_Row(v, s, i);
        List_Col(v, s, j);
        return Fail(vmi, Err_Struct_Cross);
      }
      if (v.r2cp[p] != q) {
        Doc(vmi, "Test_Row_Col_Structure(%s): row=%d and column%d Cross pointers are inconsistent",
            where, i, j);
        Doc(vmi, "C2rp(%d)=%d but R2cp(%d)=%d", q, p, p, v.r2cp[p]);
        List_Row(v, s, i);
        return Fail(vmi, Err_Struct_Cross);
      }
    }
  }

  // 7. Every element of a row is reached from its column.
  int64_t nzrow = 0, nzurow = 0, nzAbove = 0;
  int32_t rowsAbove = 0;
  for (int32_t k = v.k0; k <= n; ++k) {
    const int32_t i = v.rnto[k];
    const int32_t st = v.rstr[i], rend = st + v.rlen[i], tend = rend + Row_Tail(s, i);
    if (st >= luf->U_elefirst) {
      ++rowsAbove;
      nzAbove += v.rlen[i];
    } else {
      nzrow += v.rlen[i];
    }
    for (int32_t p = st; p < tend; ++p) {
      const int32_t j = v.ic[p];
      const bool tail = p >= rend;
      if (tail && j == 0) continue;
      if (tail) ++nzurow;
      const int32_t q = v.r2cp[p];
      bool ok = v.Active_Col(j);
      if (ok) {
        const int32_t cs = v.cstr[j], ce = cs + v.clen[j], ct = ce + Col_Tail(s, j);
        ok = (tail ? (q >= ce && q < ct) : (q >= cs && q < ce)) && v.ir[q] == i && v.c2rp[q] == p;
      }
      if (!ok) {
        Doc(vmi, "Test_Row_Col_Structure(%s): column=%d and row%d do exist in the %s row structure "
            "but no cross pointers.", where, j, i, tail ? "uncompressed" : "compressed");
        Doc(vmi, "Row-file position %d, R2cp=%d", p, q);
        List_Row(v, s, i);
        if (j >= 1 && j <= n) List_Col(v, s, j);
        return Fail(vmi, Err_Struct_Cross);
      }
    }
  }

  // 6. The counts of both files agree.
  if (nzcol != nzrow + nzAbove || nzucol != nzurow || rowsAbove != 0) {
    Doc(vmi, "Test_Row_Col_Structure(%s): nzcol =%lld not equal to nzrow =%lld", where,
        static_cast<long long>(nzcol), static_cast<long long>(nzrow));
    Doc(vmi, "Test_Row_Col_Structure(%s): nzucol=%lld not equal to nzurow=%lld", where,
        static_cast<long long>(nzucol), static_cast<long long>(nzurow));
    Doc(vmi, "Computed from Clen and Rlen for (Rstr lt U_elefirst). U_elefirst=%d; %d active rows "
        "with %lld elements start at or above it", luf->U_elefirst, rowsAbove,
        static_cast<long long>(nzAbove));
    return Fail(vmi, Err_Struct_Count);
  }
}

void Inversion_Tests(Bump_State &s) {
  VMI *vmi = s.vmi;
  if (vmi->Exception != 0) return;
  if (vmi->Test_Trace < 1 && s.Piv_Indx < s.Test_Next) return;
  {
    const int64_t next = static_cast<int64_t>(s.Piv_Indx) + std::max(s.Test_Step, 1);
    s.Test_Next = static_cast<int32_t>(std::min<int64_t>(next, 2147483647));
  }
  Doc(vmi, "Starting Inversion_Tests: Piv_Indx=%d Semi_dense=%s DO_Squeeze=%s", s.Piv_Indx,
      TF(s.Semi_Dense), TF(s.DO_Squeeze));

  struct Step {
    const char *text;
    bool run;
    void (*test)(Bump_State &);
  };
  const Step steps[] = {
      {"Test_Permutations", true, Test_Permutations},
      {"Test_Extra - Mrex/Mcex and Row/Col_Extra", true, Test_Extra},
      {"Test_Row_Col_Structure - Structure", vmi->Test_Full > 0,
       [](Bump_State &b) { Test_Row_Col_Structure(b, "Inversion_Tests"); }},
      {"Test_Order_in_Structure - Structure/Permutations", true, Test_Order_in_Structure},
      {"Test_Length_Counts - Counts", true, Test_Length_Counts},
      {"Test_Length_Lists - Start, Length and Next", true, Test_Length_Lists},
      {"Test_Mrex_Mcex - Are Mrex and Mcex zero length short", !s.Semi_Dense, Test_Mrex_Mcex},
      {"Test_Clmx - Column Max", true, Test_Clmx},
      {"Test_Markowitz_Lists - Markowitz sort lists", true, Test_Markowitz_Lists},
      {"Test_Markowitz_Counts - Markowitz values", true, Test_Markowitz_Counts},
      {"Test_Position", true, Test_Position},
      {"Test_LUeqB", vmi->Test_LU > 0, Test_LUeqB},
  };
  for (const Step &st : steps) {
    if (!st.run) continue;
    const double t0 = Clock_Read(vmi);
    st.test(s);
    if (vmi->Exception != 0 || vmi->Test_Trace >= 1)
      Doc(vmi, "%s: syserr=%d Time_Used=%.3f", st.text, vmi->Exception, Clock_Read(vmi) - t0);
    if (vmi->Exception != 0) break;
  }
  if (vmi->Test_Trace >= 1 || vmi->Exception != 0)
    Doc(vmi, "After testing at Piv_Indx=%d Rows processed=%d Syserr=%d", s.Piv_Indx,
        s.Piv_Indx - 1 - s.NumVTria, vmi->Exception);
}

}  // namespace vlu
