// Elimination of the bump that ExtractBasis leaves behind.
//
// On entry the triangular rows stand in the U-file (U_elefirst..RowUSpace),
// the triangular L columns in the L-file (1..LFileUsed), and the bump, rows
// and columns of new numbers NumVTria+1..NumRow, in the row file (LUF%Ic
// from 1) and the column file (LUF%Ir and VIM%AUrmat from 1) with cross
// pointers IIN%R2cp / IIN%C2rp and no tails.  Factor_Bump builds the count
// lists (IIN%Stcc, Stcr, Stmc and the links Nxtc/Prvc/Nxtr/Prvr), then takes
// one pivot per pass: it chooses it (Select_Pivot, or Select_Pivot_D in
// semi-dense mode, or the dense start), makes room (LU_Space), and hands it
// to the step that fits its shape; the steps write the U rows downward from
// U_elefirst and the L columns behind LFileUsed.  A dense enough rest is
// finished by Dense_Pivot in one block.  All scalars of the elimination live
// in one Bump_State (elimination/bump.h) that the inner routines share.
//
// A pivot below the absolute tolerance becomes a singularity: its column
// leaves the basis and the slack of its row takes the place (VIM%Cbto,
// VIM%Basc), the column is listed in VIM%HelpZ, and the elimination goes on.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/clock.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "update/update.h"

namespace vlu {

namespace {

constexpr int Err_No_Mmat_Space = 3801;
constexpr int Err_No_Slack_Space = 3802;

const char *TF(bool b) { return b ? "T" : "F"; }

bool Tests_Active(const VMI *vmi) { return vmi->Test_Every > 0 || vmi->Test_Trace >= 1; }

// The work vectors of the bump are cleared over their whole length when the
// battery, the structure test or the per-pivot debug checks may look at them.
bool Full_Clears(const VMI *vmi) {
  return Tests_Active(vmi) || vmi->Test_Full > 0 || vmi->Trace_Inv >= 3;
}

// The battery runs with IIN%Indr's memory lent back to VIM%HelpI.
void Run_Tests(Bump_State &s) {
  VMI *vmi = s.vmi;
  Reuse_Int(vmi, s.iin->Indr, "IIN%Indr", s.vim->HelpI, "VIM%HelpI");
  Inversion_Tests(s);
  Reuse_Int(vmi, s.vim->HelpI, "VIM%HelpI", s.iin->Indr, "IIN%Indr");
}

// Two-dimensional count of the active elements by row count and column count,
// printed at trace level 2 before the elimination starts.
void Print_Distribution(Bump_State &s) {
  constexpr int32_t Top = 10;  // counts above Top share the last class
  int64_t table[Top + 1][Top + 1];
  std::memset(table, 0, sizeof table);
  const int32_t *rlen = s.luf->Rlen.V, *clen = s.luf->Clen.V;
  const int32_t *cstr = s.luf->Cstr.V, *ir = s.luf->Ir.V, *cnto = s.vim->Cnto.V;
  for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
    const int32_t j = cnto[k];
    const int32_t cc = std::min(clen[j], Top);
    for (int32_t q = cstr[j]; q < cstr[j] + clen[j]; ++q) {
      const int32_t rc = std::min(rlen[ir[q]], Top);
      table[rc][cc] += 1;
    }
  }
  Doc(s.vmi, "Distribution of nonzeros according to (RC,CC) counts:");
  char line[160];
  int pos = std::snprintf(line, sizeof line, "RC Low/High");
  for (int32_t c = 1; c <= Top; ++c) pos += std::snprintf(line + pos, sizeof line - pos, "%7d", c);
  Doc(s.vmi, "%s", line);
  for (int32_t r = 1; r <= Top; ++r) {
    pos = std::snprintf(line, sizeof line, "%11d", r);
    for (int32_t c = 1; c <= Top; ++c)
      pos += std::snprintf(line + pos, sizeof line - pos, "%7lld", static_cast<long long>(table[r][c]));
    Doc(s.vmi, "%s", line);
  }
}

double Ratio(double a, double b) { return b > 0.0 ? a / b : 0.0; }

// The statistics block (trace level 2 and up).
void Print_Statistics(Bump_State &s, bool final) {
  VMI *vmi = s.vmi;
  const Bump_Stats &t = s.St;
  const Bump_Stats &o = s.Print_Last;
  const double elapsed = Clock_Read(vmi) - s.Time_Start;
  const int32_t done = s.Piv_Indx - 1 - s.NumVTria;
  const int64_t left = Elements_Left(s);
  const double rows = std::max(s.Rowlft, 1);
  const int64_t fill = s.iin->RowFill;
  Doc(vmi, "Rows processed:%9d and left:%9d Max. Markowitz:%11d", done, s.Rowlft, s.MarkHigh);
  Doc(vmi, "Element fill:%11lld and left:%11lld Per column      :%9.2f", static_cast<long long>(fill),
      static_cast<long long>(left), static_cast<double>(left) / rows);
  Doc(vmi, "Density:%9.3f%% Time:%9.3f and time per 1000 rows:%9.4f",
      100.0 * static_cast<double>(left) / rows / rows, elapsed, 1000.0 * Ratio(elapsed, done));
  Doc(vmi, "Time per 10000 fill:%10.4f and per 10000 Mcount:%10.4f",
      10000.0 * Ratio(elapsed, static_cast<double>(fill)), 10000.0 * Ratio(elapsed, t.Sum_MarkBest));
  Doc(vmi, "Markowitz: Current:%11d Max:%11d Sum%14.0f", s.MarkBest, s.MarkHigh, t.Sum_MarkBest);
  Doc(vmi, "Pivots: RC1%8d CC1%8d RC2*CC2%8d RC2%8d CC2%8d Gen%8d (calls%8d) Dense%8d. Total%9d",
      t.RC1, t.CC1, t.RC2CC2, t.RC2, t.CC2, t.Gen, t.Gen_Calls, t.Dense,
      t.RC1 + t.CC1 + t.RC2CC2 + t.RC2 + t.CC2 + t.Gen + t.Dense);
  Doc(vmi, "Total: Scanned cols%11lld Rows%11lld Rescans%11lld 2*P%11lld Clmx%11lld",
      static_cast<long long>(t.Scan_Cols), static_cast<long long>(t.Scan_Rows),
      static_cast<long long>(t.Rescans), static_cast<long long>(t.Short_Steps),
      static_cast<long long>(t.Clmx_Redone));
  Doc(vmi, "Elemt: Scanned cols%11lld Rows%11lld", static_cast<long long>(t.Elem_Cols),
      static_cast<long long>(t.Elem_Rows));
  Doc(vmi, "Part.: Scanned cols%11lld Rows%11lld Rescans%11lld 2*P%11lld Clmx%11lld",
      static_cast<long long>(t.Scan_Cols - o.Scan_Cols), static_cast<long long>(t.Scan_Rows - o.Scan_Rows),
      static_cast<long long>(t.Rescans - o.Rescans), static_cast<long long>(t.Short_Steps - o.Short_Steps),
      static_cast<long long>(t.Clmx_Redone - o.Clmx_Redone));
  Doc(vmi, "Markowitz revisions:%11lld of which in Test_Mcount:%11lld", static_cast<long long>(t.Revisions),
      static_cast<long long>(t.Revisions_Tm));
  Doc(vmi, "Content of M-lists. Cols%9d and Rows%9d out of%9d", s.Count_Mark_Col, s.COUNT_MARK_ROW,
      s.Rowlft);
  Doc(vmi, "Update_Amat runs%11lld do. with only Column structure:%11lld or Row Str:%11lld",
      static_cast<long long>(t.Upd_Col_Only + t.Upd_Row_Only + t.Upd_Both),
      static_cast<long long>(t.Upd_Col_Only), static_cast<long long>(t.Upd_Row_Only));
  Doc(vmi, "      of which executed in parallel by Column:%11lld", static_cast<long long>(t.Upd_Parallel));
  const double merged = static_cast<double>(t.Merged_By_Col + t.Merged_By_Row);
  Doc(vmi, "Extracted/Merged non-pivot elements by Column:%11lld and by Row:%11lld Total%11.0f",
      static_cast<long long>(t.Merged_By_Col), static_cast<long long>(t.Merged_By_Row), merged);
  Doc(vmi, "Extracted/Merged per Markowitz_sum:%10.4f", Ratio(merged, t.Sum_MarkBest));
  Doc(vmi, "Scanned elements per Markowitz_sum:%10.4f",
      Ratio(static_cast<double>(t.Elem_Cols + t.Elem_Rows + t.Scanned_Upd), t.Sum_MarkBest));
  if (final) {
    Doc(vmi, "Statistics for General_Pivot");
    Doc(vmi, "Count_ClmaxOK     =%11lld", static_cast<long long>(t.Count_ClmaxOK));
    Doc(vmi, "Count_RlmaxOK     =%11lld", static_cast<long long>(t.Count_RlmaxOK));
    Doc(vmi, "Count_CountExtRow =%11lld", static_cast<long long>(t.Count_CountExtRow));
    Doc(vmi, "Count_CountExtCol =%11lld", static_cast<long long>(t.Count_CountExtCol));
    Doc(vmi, "Count_ExtractCol  =%11lld", static_cast<long long>(t.Count_ExtractCol));
    Doc(vmi, "Count_AcceptCol   =%11lld", static_cast<long long>(t.Count_AcceptCol));
  }
  s.Print_Last = t;
  s.Print_Last_Indx = s.Piv_Indx;
}

// Only empty columns are left: the pair at Piv_Indx becomes a slack pivot.
// Returns false when there is no room for its U element.
bool Slack_For_Empty_Column(Bump_State &s) {
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  s.Piv_Col = vim->Cnto.V[s.Piv_Indx];
  s.Piv_Row = vim->Rnto.V[s.Piv_Indx];
  vim->Num_Sing += 1;
  if (luf->U_elefirst - 1 <= std::max(luf->RowFileUsed, luf->ColFileUsed)) {
    if (vmi->Trace_Inv >= 2)
      Doc(vmi, "Before row compression (empty cols): RowFileUsed=%d", luf->RowFileUsed);
    Compres_Rows(s);
    if (vmi->Trace_Inv >= 2)
      Doc(vmi, "After  row compression (empty cols): RowFileUsed=%d", luf->RowFileUsed);
    const int32_t gap = luf->U_elefirst - std::max(luf->RowFileUsed, luf->ColFileUsed);
    if (s.NumRow - s.Piv_Indx + 1 >= gap - 1) {
      Increase_Uspace(vmi, Wrap_Add(luf->RowUSpace, s.NumRow - s.Piv_Indx + 8));
      if (!vmi->EnoughSpace || luf->U_elefirst - 1 <= std::max(luf->RowFileUsed, luf->ColFileUsed)) {
        Doc(vmi, "Insufficient memory in row structure while adding");
        Doc(vmi, "slacks in empty columns.");
        if (vmi->EnoughSpace) Internal_Error(vmi, Err_No_Slack_Space, true);
        return false;
      }
    }
  }
  // Neither the row nor the column has an element left: both leave their
  // lists and chains, and the row of U holds the slack's 1.0.
  Remove_Row_from_List(s, s.Piv_Row);
  Remove_col_from_list(s, s.Piv_Col);
  Unlink_Row(s, s.Piv_Row);
  Unlink_Col(s, s.Piv_Col);
  luf->U_elefirst -= 1;
  const int32_t p = luf->U_elefirst;
  luf->Rstr.V[s.Piv_Row] = p;
  luf->Rlen.V[s.Piv_Row] = 1;
  luf->Ic.V[p] = s.Piv_Col;
  vim->AUrmat.Val[p] = 1.0;
  s.iin->RowFill += 1;
  s.Len_Piv_Row = 1;
  s.Len_Piv_Col = 0;
  s.Bad_Pivot = true;
  return true;
}

// A pivot that failed its test: the step's L column goes, and the slack of
// the pivot row takes the column's place in the basis.
void Replace_By_Slack(Bump_State &s, int32_t lColsBefore) {
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  const int32_t lEnd = luf->Lsor.V[lColsBefore + 1] - 1;
  s.iin->RowFill += luf->LFileUsed - lEnd;
  luf->LFileUsed = lEnd;
  luf->L_Cols = lColsBefore;
  vim->HelpZ.V[vim->Num_Sing] = s.Piv_Col;
  const int32_t entering = s.Piv_Row + vim->NumCol;
  const int32_t leaving = vim->Cbto.V[s.Piv_Col];
  vim->Cbto.V[s.Piv_Col] = entering;
  if (vmi->Trace_Inv > 2) {
    Doc(vmi, "Basis change in Factor_Bump:");
    Doc(vmi, "Leaving  column=%d", leaving);
    Doc(vmi, "Entering column=%d = Slack in row%d", entering, s.Piv_Row);
    Doc(vmi, "L_Cols=%d Piv_Col=%d", luf->L_Cols, s.Piv_Col);
  }
  RecordBasisChange(vmi, entering, leaving);
  s.Bad_Pivot = false;
}

// The set-up of one elimination: scalars, lists, column bounds.
void Set_Up(Bump_State &s, VMI *vmi) {
  s.vmi = vmi;
  s.vim = vmi->Vim;
  s.luf = vmi->Luf;
  s.iin = vmi->Iin;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;

  s.NumRow = vim->NumRow;
  s.NumVTria = luf->NumVTria;
  s.Bump_Size = s.NumRow - s.NumVTria;
  s.Piv_Indx = s.NumVTria + 1;
  s.Rowlft = s.NumRow - s.Piv_Indx + 1;
  s.Mfac = 1.0 + 1.0 / Mark_Tol;
  s.L_Base = luf->LFileUsed;
  s.U_Count0 = luf->RowUSpace - luf->U_elefirst;
  s.Clok_Frac = 1.0 - vmi->Eps08;
  s.Tol_Small = std::max(vmi->Tol_Zero, vmi->Eps);

  iin->RowFill = 0;
  vim->Max_UFac = 1.0;
  vim->Large_Ufac = false;
  s.DO_Squeeze = true;
  s.Semi_Dense = false;
  s.Switch_Indx = 2147483647;
  s.Length_Lim = 8;
  s.Len_Crit = 8;
  s.Extra_Crit = 2;
  s.St = Bump_Stats();
  s.Print_Last = Bump_Stats();
  s.Min_M_InList = iin->MarkBad;
  s.Ptr_Zero_Rows = s.Ptr_Zero_Cols = s.Ptr_M_Rows = 0;
  s.MIN_CC_List = Size(iin->Stcc);
  s.MIN_RC_List = Size(iin->Stcr);
  s.MarkHigh = 0;
  s.MarkBest = 0;
  s.Stat_Step = std::max(100, s.NumRow / 1024);
  s.Stat_Last_Indx = s.Piv_Indx;
  s.Print_Last_Indx = s.Piv_Indx;
  s.Time_Start = Clock_Read(vmi);
  s.Test_Next = std::max(vmi->Test_Start, s.Piv_Indx);
  s.Test_Step = std::max(vmi->Test_Every, 1);

  // The dense start: a rest dense enough goes to Dense_Pivot at once.
  if (s.Rowlft > 0) {
    const float rows = static_cast<float>(s.Rowlft);
    const float density = static_cast<float>(iin->Nele) / rows / rows;
    s.Dense = (s.Rowlft >= Dense_Min_Rows &&
               density > static_cast<float>(Dense_Factor * vmi->Thread_Damp)) ||
              (s.Rowlft >= 8 && density > 0.99f);
  }
}

// Lists and column bounds of the bump, built before the first pivot.
void Build_Lists(Bump_State &s) {
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t n = s.NumRow;

  // The elimination reads the marks, tails, counts and block places of the
  // bump's rows and columns only, and a list link only of a list member (every
  // member gets both links when it is stored); so those vectors are cleared
  // where the bump stands, unless the battery or the debug checks, which look
  // at every entry, may run.  Indx, the heads of the count lists (a count may
  // reach NumRow) and the M-list heads are cleared whole.
  const int32_t *cnto = vim->Cnto.V, *rnto = vim->Rnto.V;
  if (Full_Clears(s.vmi)) {
    Zero_Int(iin->Nxtc.V, n);
    Zero_Int(iin->Prvc.V, n);
    Zero_Int(iin->Nxtr.V, n);
    Zero_Int(iin->Prvr.V, n);
    Zero_Int(iin->Mrow.V, n);
    Zero_Int(iin->Indr.V, n);
    Zero_Int(iin->Mrex.V, n);
    Zero_Int(iin->Mact.V, n);
    Zero_Int(iin->Mlow.V, n);
    Zero_Int(iin->Indc.V, n);
    Zero_Int(iin->Mcex.V, n);
  } else {
    int32_t *mrow = iin->Mrow.V, *indr = iin->Indr.V, *mrex = iin->Mrex.V;
    int32_t *mact = iin->Mact.V, *mlow = iin->Mlow.V, *indc = iin->Indc.V, *mcex = iin->Mcex.V;
    for (int32_t k = s.NumVTria + 1; k <= n; ++k) {
      const int32_t i = rnto[k], j = cnto[k];
      mrow[i] = 0;
      indr[i] = 0;
      mrex[i] = 0;
      mact[j] = 0;
      mlow[j] = 0;
      indc[j] = 0;
      mcex[j] = 0;
    }
  }
  Zero_Int(iin->Indx.V, n);
  Zero_Int(iin->Stcc.V, n);
  Zero_Int(iin->Stcr.V, n);
  Zero_Int(iin->Stmc.V, Size(iin->Stmc));

  // Column bounds: the largest magnitude, the smallest pivot it allows.
  const int32_t *cstr = luf->Cstr.V, *clen = luf->Clen.V;
  const double *aur = vim->AUrmat.Val;
  double *clmx = iin->Clmx.Val, *clmin = iin->Clmin.Val;
  Logical *clok = iin->Clok.V;
  for (int32_t k = s.NumVTria + 1; k <= n; ++k) {
    const int32_t j = cnto[k];
    double big = 0.0;
    const int32_t qe = cstr[j] + clen[j];
    for (int32_t q = cstr[j]; q < qe; ++q) big = std::max(big, std::fabs(aur[q]));
    clmx[j] = big;
    clmin[j] = std::max(1.0e-20, s.vmi->Eps * big);
    clok[j] = LTrue;
  }

  // Columns in pivot order, then rows: lists are filled at the head, so the
  // last stored stands first.
  for (int32_t k = s.NumVTria + 1; k <= n; ++k) Store_col_in_c_list(s, cnto[k], clen[cnto[k]]);
  const int32_t *rlen = luf->Rlen.V;
  for (int32_t k = s.NumVTria + 1; k <= n; ++k) Store_Row_in_C_List(s, rnto[k], rlen[rnto[k]]);
}

// The other row of a column of two, or the other column of a row of two,
// found by addition: both entries less the pivot's own.
int32_t Other_Row(const Bump_State &s) {
  const int32_t q = s.luf->Cstr.V[s.Piv_Col];
  return s.luf->Ir.V[q] + s.luf->Ir.V[q + 1] - s.Piv_Row;
}
int32_t Other_Col(const Bump_State &s) {
  const int32_t p = s.luf->Rstr.V[s.Piv_Row];
  return s.luf->Ic.V[p] + s.luf->Ic.V[p + 1] - s.Piv_Col;
}

}  // namespace

void Factor_Bump(VMI *vmi) {
  Bump_State s;
  Set_Up(s, vmi);
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const bool tests = Tests_Active(vmi);
  const double tStart = s.Time_Start;

  // The triangular phases leave the bump without tails (Build_Lists clears
  // them for the elimination; the structure test reads them before).
  if (tests && vmi->Test_Full > 0) {
    Zero_Int(iin->Mrex.V, s.NumRow);
    Zero_Int(iin->Mcex.V, s.NumRow);
    Test_Row_Col_Structure(s, "Factor_Bump");
    if (vmi->Exception != 0 || vmi->Test_Trace >= 1)
      Doc(vmi, "Test_Row_Col_Structure - Structure: syserr=%d", vmi->Exception);
    if (vmi->Exception != 0) return;
  }

  if (s.Bump_Size > 0) {
    Build_Lists(s);
    if (Stopped(s)) return;
    if (vmi->Trace_Inv >= 2) Print_Distribution(s);
    if (vmi->Trace_Inv > 2)
      Doc(vmi, "Block from %d to %d Length=%d", s.Piv_Indx, s.NumRow, s.Bump_Size);
    Define_Mmat_Rows(s);
    if (Stopped(s)) return;
    if (vmi->Trace_Inv >= 2) Print_Statistics(s, false);
  }

  bool denseDone = false;
  while (s.Bump_Size > 0 && s.Piv_Indx <= s.NumRow) {
    // 1-2. Only empty columns left: the pivot is a slack.
    const int32_t lColsBefore = luf->L_Cols;
    int32_t emptyCols = 0;
    for (int32_t j = s.Ptr_Zero_Cols; j != 0; j = iin->Nxtc.V[j]) ++emptyCols;
    bool emptyStep = false;
    if (emptyCols + s.Piv_Indx > s.NumRow) {
      if (vmi->Trace_Inv >= 1)
        Doc(vmi, "No non-empty columns left. Indx=%d out of%d", s.Piv_Indx, s.NumRow);
      if (!Slack_For_Empty_Column(s)) return;
      emptyStep = true;
    }

    if (!emptyStep) {
      // 3. The consistency battery between two pivots.
      if (tests) {
        Run_Tests(s);
        if (vmi->Exception != 0) return;
      }

      // 4. Pivot selection.
      if (s.Dense) {
        Select_Pivot_Dense(s);
      } else if (s.Semi_Dense) {
        Select_Pivot_D(s);
        if (!Stopped(s) && s.MarkBest > s.MarkHigh) Increase_MarkHigh(s, s.MarkBest);
      } else {
        s.In_Select_Pivot = true;
        Select_Pivot(s);
        s.In_Select_Pivot = false;
      }
      if (Stopped(s)) return;

      // 5. Shape of the pivot.
      s.Len_Piv_Col = luf->Clen.V[s.Piv_Col];
      s.Len_Piv_Row = luf->Rlen.V[s.Piv_Row];
      bool otherLong = false;
      if (s.Len_Piv_Col == 2 && s.Len_Piv_Row != 2) otherLong = Long_row(s, Other_Row(s));
      if (s.Len_Piv_Row == 2 && s.Len_Piv_Col != 2) otherLong = Long_col(s, Other_Col(s));

      // 6. Room, and the pivot row leaves its list.
      LU_Space(s);
      if (Stopped(s)) return;
      Remove_Row_from_List(s, s.Piv_Row);

      // 7. Dispatch by shape.
      if (s.Dense_Now) {
        const int32_t ld = ((s.Rowlft + 7) / 8) * 8;
        const int64_t need = static_cast<int64_t>(s.Rowlft) * s.Rowlft;
        const int64_t have = Size(iin->Mmat);
        if (have < need) {
          Doc(vmi, "Calling Dense_Pivot without space for Mmat.");
          Doc(vmi, "Size(Mmat)=%d and Rowlft=%d", Size(iin->Mmat), s.Rowlft);
          Internal_Error(vmi, Err_No_Mmat_Space, true);
          return;
        }
        Dense_Pivot(s, have >= static_cast<int64_t>(ld) * s.Rowlft ? ld : s.Rowlft);
        if (Stopped(s)) return;
        denseDone = true;
        break;
      }
      if (s.Len_Piv_Row == 1) {
        Row_Singleton_Pivot(s);
      } else if (s.Len_Piv_Col == 1) {
        Col_Singleton_Pivot(s);
      } else if (s.Len_Piv_Row == 2 && s.Len_Piv_Col == 2) {
        PIV_2_BY_2(s);
      } else if (s.Len_Piv_Row == 2 && !otherLong) {
        PIV_P_BY_2(s);
      } else if (s.Len_Piv_Col == 2 && !otherLong) {
        PIV_2_BY_P(s);
      } else {
        iin->Max_Mmat = std::max({iin->Max_Mmat, s.Len_Piv_Row, s.Len_Piv_Col});
        int32_t mr = 0, mc = 0;
        Assign_Mmat(s, mr, mc);
        if (Stopped(s)) return;
        General_Pivot(s, mr, mc);
      }
      if (Stopped(s)) return;
    }

    // 8. The pivot takes its position.
    Set_Pivot_Position(s);

    // 9. A pivot that failed its test is replaced by the slack of its row.
    if (s.Bad_Pivot) {
      if (vim->In_OneDim) break;
      Replace_By_Slack(s, emptyStep ? luf->L_Cols : lColsBefore);
      if (vmi->Exception != 0) return;
    }

    // 10. A U-factor too large: LUFactor starts over with a larger tolerance.
    if (vim->Large_Ufac && vim->Tol_Piv_Rel < 0.9 && !vim->Keep_Tol) {
      if (vmi->Trace_Inv >= 1) Doc(vmi, "Interrupting Factor_Bump to increase Tol_Piv_Rel.");
      break;
    }

    // 11. Next position, periodic statistics.
    s.Piv_Indx += 1;
    s.Rowlft = s.NumRow - s.Piv_Indx + 1;
    Stat_Switch_Check(s);
    if (vmi->Trace_Inv >= 2 && s.Piv_Indx - s.Print_Last_Indx >= s.Stat_Step) Print_Statistics(s, false);
    if (s.Piv_Indx > s.NumRow) break;

    // 12. The switch to semi-dense mode.
    if (!s.Semi_Dense) {
      const bool byIndex = s.Piv_Indx >= s.Switch_Indx;
      const bool byCount =
          static_cast<float>(s.MarkHigh) * 3.0f > static_cast<float>(s.Rowlft) && s.Rowlft >= 101;
      if (byIndex || byCount) {
        if (!byIndex && vmi->Trace_Inv >= 1)
          Doc(vmi, "Max Markowich count=%d*3.00 exceeds Rowlft=%d", s.MarkHigh, s.Rowlft);
        Switch_to_Semi_Dense(s, s.Piv_Indx);
        if (Stopped(s)) return;
      }
    }
  }
  static_cast<void>(denseDone);

  // End report.
  if (vmi->Trace_Inv >= 2 && s.Bump_Size > 0) {
    if (denseDone) {
      s.Piv_Indx = s.NumRow + 1;
      s.Rowlft = 0;
    }
    Print_Statistics(s, true);
  }
  if (vmi->Trace_Inv >= 1) Doc(vmi, "Time in Factor_Bump:%10.3f seconds. Semi_Dense=%s DO_Squeeze=%s",
                               Clock_Read(vmi) - tStart, TF(s.Semi_Dense), TF(s.DO_Squeeze));
}

}  // namespace vlu
