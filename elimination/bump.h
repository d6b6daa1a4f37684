// The Markowitz elimination of the bump: the state that Factor_Bump shares
// with its inner routines, and the declarations of those routines.
//
// Data the elimination works on (all 1-based, all in old numbers; a column
// is known by its place in VIM%Cbto, a row by its row number):
//
//   LUF%Ic      lower part: the row file, column numbers of the active rows,
//               positions 1..RowFileUsed; upper part: the U-file, column
//               numbers of the finished rows, U_elefirst..RowUSpace.
//   LUF%Ir      the column file: row numbers of the active columns,
//               positions 1..ColFileUsed (each column starts on a cache
//               line: Cstr(j) - 1 is a multiple of 8).
//   VIM%AUrmat  values: of the column file (parallel to LUF%Ir) below, of
//               the U-file (parallel to LUF%Ic) from U_elefirst up.  The row
//               file has no values: position p of the row file finds its
//               value at AUrmat(R2cp(p)).
//   IIN%R2cp(p) row-file position p -> column-file position of the element.
//   IIN%C2rp(q) column-file position q -> row-file position of the element.
//               R2cp(C2rp(q)) = q and C2rp(R2cp(p)) = p for every element.
//   Row i:      compressed part Rstr(i) .. Rstr(i)+Rlen(i)-1, then the
//               uncompressed tail of Mrex(i) elements right behind it.
//   Column j:   compressed part Cstr(j) .. Cstr(j)+Clen(j)-1, then the tail
//               of Mcex(j) elements.  An element is compressed in its row
//               exactly when it is compressed in its column.  A zero in
//               Ic or Ir marks a slot removed from an uncompressed stretch.
//               In semi-dense mode there are no tails: Mcex is 0 and Mrex is
//               never consulted (use Row_Tail/Col_Tail below).
//   Physical chains: IIN%Rpnx/Rppr with RPfrst/RPlast (rows in file order),
//               IIN%Cpnx/Cppr with CPfrst/CPlast (columns); ends are 0.
//   Count lists: Nxtc/Prvc (columns), Nxtr/Prvr (rows).  Column lists: zero
//               list (Ptr_Zero_Cols), C-lists Stcc(c), M-lists Stmc(m).  Row
//               lists: zero list (Ptr_Zero_Rows), C-lists Stcr(c), scanned
//               list (Ptr_M_Rows).  Prv of a list head is -key (0 for the
//               zero lists, -1 for the scanned-row list).
//   IIN%Mmat    the dense work block, by columns: block element (i, j)
//               (block row i, block column j) stands at
//               Mmat.Val[1 + (i - 1) + (j - 1) * ld], ld being the leading
//               dimension of the step (Mr of Assign_Mmat in a block pivot,
//               the ld of Dense_Pivot in the dense final block).  Block rows
//               are IIN%Lisr(i), block columns IIN%Lisc(j); IIN%Indr(row) and
//               IIN%Indc(col) give the place back (0 outside the block).
//   L-file:     LUF%Lmat/Lrow/Lpiv from 1 to LFileUsed, columns addressed by
//               LUF%Lsor(1..L_Cols+1).
//
// Raw pointers into these vectors must be fetched again after any call that
// can enlarge a vector (the Increase_* routines, Make_*_Space, LU_Space,
// compressions with growth), since enlargement moves the block.
#pragma once
#include <cstdint>

#include "runtime/records.h"

namespace vlu {

// Constants of the elimination.
constexpr int32_t Mark_Infinite = 1073741823;  // count of a column without an acceptable element
constexpr int32_t Mark_Tol = 64;               // the search proves a count within 1 + 1/Mark_Tol
constexpr double Merged_Mark = 1.234e34;       // an Mmat place already merged into the file
constexpr int32_t Dense_Min_Rows = 100;        // fewest rows for the density rule of Dense_Factor
constexpr double Dense_Factor = 0.5;           // density above which the rest is dense
constexpr int32_t Switch_Mark = 1000;          // semi-dense switch: average count per pivot ...
constexpr int32_t Switch_Elem = 16;            // ... and elements scanned per unit of count
constexpr int32_t Batch_Width = 64;            // pending pivots of a dense block before Inter_Updt
constexpr int32_t Panel_Rows = 256;            // rows of one panel of Inter_Updt
constexpr int32_t Cand_Max = 12;               // entries of the candidate cache of Select_Pivot_D

// Work counters of one elimination, reported in the statistics block.
struct Bump_Stats {
  // Pivots by kind (the dispatch of Factor_Bump, the pivots of blocks).
  int32_t RC1 = 0;          // row singletons
  int32_t CC1 = 0;          // column singletons
  int32_t RC2CC2 = 0;       // 2 by 2 pivots
  int32_t RC2 = 0;          // PIV_P_BY_2 (row of two)
  int32_t CC2 = 0;          // PIV_2_BY_P (column of two)
  int32_t Gen = 0;          // pivots taken inside General_Pivot (all of a block)
  int32_t Gen_Calls = 0;    // calls of General_Pivot
  int32_t Dense = 0;        // pivots of the dense final block
  // Search work (Select_Pivot, Select_Pivot_D, Scan_*).
  int64_t Scan_Cols = 0;    // columns scanned
  int64_t Scan_Rows = 0;    // rows scanned
  int64_t Rescans = 0;      // rows rescanned by Rescan_row_for_m
  int64_t Short_Steps = 0;  // the "2*P" statistic: short pivots
  int64_t Clmx_Redone = 0;  // column maxima recomputed
  int64_t Elem_Cols = 0;    // elements touched in column scans
  int64_t Elem_Rows = 0;    // elements touched in row scans
  int64_t Revisions = 0;    // Markowitz values stored (Store_col_in_M_list)
  int64_t Revisions_Tm = 0; // ... of which by Test_Mcount
  double Sum_MarkBest = 0;  // sum of the counts of all pivots (Test_Pivot adds)
  int64_t L_Count = 0;      // Test_Pivot: sum of Len_Piv_Col - 1
  int64_t U_Count = 0;      // Test_Pivot: sum of Len_Piv_Row - 1
  // Update_Amat: runs by kind of scan.
  int64_t Upd_Col_Only = 0, Upd_Row_Only = 0, Upd_Both = 0, Upd_Parallel = 0;
  int64_t Merged_By_Col = 0, Merged_By_Row = 0;  // elements extracted or merged
  int64_t Scanned_Upd = 0;                       // elements scanned by Update_Amat
  // General_Pivot block extension.
  int64_t Count_ClmaxOK = 0, Count_RlmaxOK = 0, Count_CountExtRow = 0;
  int64_t Count_CountExtCol = 0, Count_ExtractCol = 0, Count_AcceptCol = 0;
  // Storage.
  int64_t Compres_Rows = 0, Compres_Cols = 0;   // whole-file compressions
  int64_t Moved_Elements = 0;                   // elements moved by compressions and moves
  int64_t Compres_Tails = 0;                    // tails compressed (rows and columns)
};

// Everything Factor_Bump shares with its inner routines.  Factor_Bump owns the
// one instance (on its stack) and sets every field at its start; the inner
// routines read and write the fields directly.
struct Bump_State {
  VMI *vmi = nullptr;
  VIM *vim = nullptr;
  LUF *luf = nullptr;
  IIN *iin = nullptr;

  // Sizes.
  int32_t NumRow = 0;      // rows of the basis
  int32_t NumVTria = 0;    // pivots of the triangular phases; the bump starts at NumVTria + 1
  int32_t Bump_Size = 0;   // NumRow - NumVTria

  // The pivot being chosen and carried out.
  int32_t Piv_Indx = 0;    // new number of the pivot (NumVTria+1 .. NumRow)
  int32_t Rowlft = 0;      // rows left: NumRow - Piv_Indx + 1
  int32_t Piv_Row = 0;     // old row number of the pivot
  int32_t Piv_Col = 0;     // place (old column number) of the pivot
  int32_t Len_Piv_Row = 0; // Rlen(Piv_Row) when the pivot was chosen
  int32_t Len_Piv_Col = 0; // Clen(Piv_Col) when the pivot was chosen
  int32_t MarkBest = 0;    // Markowitz count of the pivot chosen, or the best so far
  int32_t MarkHigh = 0;    // highest count the M-lists take at the moment (Increase_MarkHigh)
  bool Bad_Pivot = false;  // Test_Pivot replaced a pivot below Rtpiva by 1.0

  // List bounds (Part of the lists' invariants: no non-empty list below them).
  int32_t Min_M_InList = 0;  // lowest M-list that may be non-empty
  int32_t MIN_CC_List = 0;   // lowest column C-list that may be non-empty
  int32_t MIN_RC_List = 0;   // lowest row C-list that may be non-empty
  int32_t Ptr_Zero_Rows = 0, Ptr_Zero_Cols = 0, Ptr_M_Rows = 0;  // list heads
  int32_t Count_Mark_Col = 0;  // members of the M-lists
  int32_t COUNT_MARK_ROW = 0;  // members of the scanned-row list

  // Search control.
  double Mfac = 1.0 + 1.0 / Mark_Tol;  // a count within Mfac of the bound is accepted
  bool In_Select_Pivot = false;  // set while Select_Pivot runs
  bool Search_Restart = false;   // a store below the search's bound: start over
  bool Do_Restart = false;       // Increase_MarkHigh / Do_Extra_Compression ask for a restart
  bool Need_Compression = false; // a small element was left: Do_Extra_Compression before the next search

  // Modes.
  bool Dense = false;       // the dense start: the rest goes to Dense_Pivot
  bool Dense_Now = false;   // LU_Space found the rest dense: Dense_Pivot now
  bool Semi_Dense = false;  // semi-dense mode (no tails, no M-lists, Select_Pivot_D)
  bool DO_Squeeze = true;   // Update_Amat drops small results at once
  bool Pre_Switch = false;  // the first of two intervals that ask for semi-dense mode
  int32_t Switch_Indx = 2147483647;  // Piv_Indx at which to switch to semi-dense mode

  // Thresholds of long rows and columns (Increase_MarkHigh raises them).
  int32_t Length_Lim = 8, Len_Crit = 8, Extra_Crit = 2;

  // Tolerances of the elimination.
  double Clok_Frac = 0.0;   // 1 - eps^0.8: an element at least this share of Clmx may be the maximum
  double Tol_Small = 0.0;   // max(Tol_Zero, 2^-52): multipliers at or below are stored as 0

  // Shrinks seen in semi-dense mode (Rescan_row_for_m, PIV_P_BY_2).
  int32_t Max_Row_Shrink = 0, Max_Col_Shrink = 0;

  // Shape of IIN%Mmat that Define_Mmat_Rows set up (rows = leading dimension).
  int32_t Mmat_Rows = 0, Mmat_Cols = 0;

  // Reference points of the bump (for "elements left" and the statistics).
  int32_t L_Base = 0;       // LFileUsed when the bump started
  int32_t U_Count0 = 0;     // RowUSpace - U_elefirst when the bump started: the U-file's
                            // elements then (both ends move together when it grows)

  // Candidate cache of Select_Pivot_D (lives between its calls).
  int32_t Cand_Count = 0;
  int32_t Cand_Col[Cand_Max + 1] = {0};
  int32_t Cand_M[Cand_Max + 1] = {0};

  // Periodic statistics and the statistics-driven switch.
  int32_t Stat_Step = 100;        // max(100, NumRow / 1024)
  int32_t Stat_Last_Indx = 0;     // Piv_Indx at the last check
  double Stat_Last_Mark = 0.0;    // Sum_MarkBest at the last check
  int64_t Stat_Last_Elem = 0;     // Elem_Cols + Elem_Rows at the last check
  int32_t Print_Last_Indx = 0;    // Piv_Indx at the last printed statistics block
  Bump_Stats Print_Last;          // counters at the last printed block ("Part." line)
  double Time_Start = 0.0;        // clock at the start of Factor_Bump

  // Consistency battery: next Piv_Indx at which it runs, and its step.
  int32_t Test_Next = 2147483647, Test_Step = 1;

  Bump_Stats St;
};

// Length of the tail of a row or column as the current mode sees it.
inline int32_t Row_Tail(const Bump_State &s, int32_t i) { return s.Semi_Dense ? 0 : s.iin->Mrex.V[i]; }
inline int32_t Col_Tail(const Bump_State &s, int32_t j) { return s.Semi_Dense ? 0 : s.iin->Mcex.V[j]; }
// Elements not yet eliminated: the bump's elements plus fill, less what went
// to U and to L.
inline int64_t Elements_Left(const Bump_State &s) {
  const int32_t uWritten = (s.luf->RowUSpace - s.luf->U_elefirst) - s.U_Count0;
  return static_cast<int64_t>(s.iin->Nele) + s.iin->RowFill - uWritten - (s.luf->LFileUsed - s.L_Base);
}
// The stop flag of the elimination: a resource failure or an internal error
// anywhere below.  Every routine that can raise it is followed by a test.
inline bool Stopped(const Bump_State &s) { return s.vmi->Exception != 0 || !s.vmi->EnoughSpace; }

// ---------------------------------------------------------------------------
// Count and Markowitz lists (elimination/lists.cpp).  Constant time each.
// ---------------------------------------------------------------------------
void Store_col_in_c_list(Bump_State &s, int32_t icol, int32_t ncnt);
void Store_Row_in_C_List(Bump_State &s, int32_t irow, int32_t ncnt);
void Store_col_in_M_list(Bump_State &s, int32_t icol, int32_t m);
void Store_Row_in_M_List(Bump_State &s, int32_t irow);
void Remove_col_from_list(Bump_State &s, int32_t icol);
void Remove_Row_from_List(Bump_State &s, int32_t irow);
void Remove_col_from_C_head(Bump_State &s, int32_t icol, int32_t cnt);
void Remove_Row_from_C_Head(Bump_State &s, int32_t irow, int32_t cnt);
void Remove_col_from_M_head(Bump_State &s, int32_t icol, int32_t m);
void CLEAR_Clok(Bump_State &s, int32_t icol, int32_t clength);
void Increase_Stmc(Bump_State &s);
// Swaps Piv_Row and Piv_Col into position Piv_Indx of Rnto/Cnto; the
// displaced row and column take the pivot's old positions; Rotn and Cotn
// follow.
void Set_Pivot_Position(Bump_State &s);
// Physical chains: unlink a row or column (a pivoted one, or one about to be
// moved); link one at the end of its file (it becomes RPlast / CPlast).  The
// used sizes RowFileUsed / ColFileUsed are not touched here.
void Unlink_Row(Bump_State &s, int32_t irow);
void Unlink_Col(Bump_State &s, int32_t icol);
void Link_Row_Last(Bump_State &s, int32_t irow);
void Link_Col_Last(Bump_State &s, int32_t icol);

// ---------------------------------------------------------------------------
// Active-matrix storage and compression (elimination/storage.cpp).
// ---------------------------------------------------------------------------
// Spare room behind a row or column: distance to the start of the next one in
// file order, less its compressed part and tail; for the last one, up to
// min(ColASpace + 1, U_elefirst).
int32_t Row_Extra(const Bump_State &s, int32_t irow);
int32_t Col_Extra(const Bump_State &s, int32_t icol);
bool Long_col(Bump_State &s, int32_t icol);
bool Long_row(Bump_State &s, int32_t irow);
void Col_to_top(Bump_State &s, int32_t icol, int32_t iextra);
void Row_to_top(Bump_State &s, int32_t irow, int32_t iextra);
// Make room for `needed` more elements behind the row (column).  On return
// (unless the stop flag is up) the `needed` slots behind the present end are
// cleared and Rlen (Clen) is raised by `needed`: the slots are reserved.  The
// caller lowers the length by `needed` again once all reservations of its
// step are made, and then stores the elements one by one with
// Store_ele_in_both (which raises the lengths back).
void Make_Col_Space(Bump_State &s, int32_t icol, int32_t needed);
void Make_Row_Space(Bump_State &s, int32_t irow, int32_t needed);
void Compres_Rows(Bump_State &s);
void Compres_Cols(Bump_State &s);
void Compres_Uncompressed_Row(Bump_State &s, int32_t irow);
void Compres_Uncompressed_Col(Bump_State &s, int32_t icol);
void Do_Extra_Compression(Bump_State &s, int32_t start);
// Stores a new element (fill) in both files at the spare slots behind the row
// and the column: compr true in the compressed parts (Rlen, Clen + 1), false
// in the tails (Mrex, Mcex + 1, Clok false).  Adds 1 to IIN%RowFill.  Room
// must have been made before.
void Store_ele_in_both(Bump_State &s, int32_t irow, int32_t icol, double value, bool compr);
// Take the element at row-file position p out of the compressed part of row
// irow only: the last compressed element of the row moves into p, and, when
// the row has a tail, the last tail element into the slot so freed; the
// vacated slot gets Ic = 0; Rlen - 1.  Cross pointers of moved elements are
// kept.  The column structure is not touched.
void Remove_Element_From_Row(Bump_State &s, int32_t irow, int32_t p);
// The same for column-file position q of column icol (Ir, AUrmat, C2rp move;
// the vacated slot gets Ir = 0; Clen - 1).  The row structure is not touched.
void Remove_Element_From_Col(Bump_State &s, int32_t icol, int32_t q);
// Column-file position of the element (irow, icol), searching the shorter of
// the row and the column (compressed parts and tails); 0 when none.
int32_t Find_Element(Bump_State &s, int32_t irow, int32_t icol);
// Room for the coming pivot: L-file, Mmat, row and column files, U-file;
// decides Dense_Now.  Called before every pivot.
void LU_Space(Bump_State &s);
void Assign_Mmat(Bump_State &s, int32_t &mr, int32_t &mc);
void Define_Mmat_Rows(Bump_State &s);
void Increase_Mmat(Bump_State &s, int32_t needed);
void Increase_Mmat_Lists(Bump_State &s);

// ---------------------------------------------------------------------------
// Pivot selection (elimination/select_pivot.cpp) and semi-dense mode
// (elimination/semi_dense.cpp).
// ---------------------------------------------------------------------------
// Result in Piv_Row, Piv_Col, MarkBest; the column has left its list, the
// row has not (Factor_Bump takes it out).
void Select_Pivot(Bump_State &s);
void Scan_Col_for_m(Bump_State &s, int32_t icol, int32_t &mact_new, int32_t &mlow_new);
void Scan_Row_for_M(Bump_State &s, int32_t irow, int32_t cnt1, int32_t &mrow_min);
void Test_Mcount(Bump_State &s, int32_t m1, int32_t m2, bool &found);
// Final test of a pivot.  umax: the largest magnitude in the pivot's U row;
// pivot: the storage of the pivot value (overwritten with 1.0 when it is
// below Rtpiva: Bad_Pivot is then set and Num_Sing raised).
void Test_Pivot(Bump_State &s, double umax, double &pivot);
void Select_Pivot_Dense(Bump_State &s);
void Select_Pivot_D(Bump_State &s);
void Switch_to_Semi_Dense(Bump_State &s, int32_t indx);
void Increase_MarkHigh(Bump_State &s, int32_t m);
// The periodic part of the statistics: every Stat_Step pivots, the test that
// may set Switch_Indx.  Called by Factor_Bump after every pivot step.
void Stat_Switch_Check(Bump_State &s);

// ---------------------------------------------------------------------------
// Pivot steps (elimination/general_pivot.cpp, elimination/short_pivots.cpp,
// elimination/update_amat.cpp).  Each carries out the pivot Piv_Row/Piv_Col
// that Factor_Bump chose (the row already out of its list, room made by
// LU_Space); General_Pivot may take further pivots in its block, each of them
// placed with Set_Pivot_Position and counted in Piv_Indx, leaving the last one
// for Factor_Bump to place.  After a bad pivot (Bad_Pivot) no further pivot is
// taken in the block.
// ---------------------------------------------------------------------------
void Row_Singleton_Pivot(Bump_State &s);
void Col_Singleton_Pivot(Bump_State &s);
void Store_L_Column(Bump_State &s, double pivot);
// mr, mc: the shape of IIN%Mmat for this step (Assign_Mmat); mr is the
// leading dimension.
void General_Pivot(Bump_State &s, int32_t mr, int32_t mc);
void Update_Col_Info(Bump_State &s, int32_t icol, int32_t ocnt, int32_t mlow_new);
void Rescan_row_for_m(Bump_State &s, int32_t irow, int32_t ocnt, int32_t skipE, int32_t skipC);
// Columns Lisc(c1..c2) and rows Lisr(r1..r2) of the block.
void Compress_Short_Lists(Bump_State &s, int32_t c1, int32_t c2, int32_t r1, int32_t r2);
// Merges Mmat (leading dimension ld) into the active elements for the block
// rows and columns from `first` on; leaves in Rlin/Clin the fill per row and
// column.
void Update_Amat(Bump_State &s, int32_t first, int32_t nrow, int32_t ncol, int32_t ld);
void Remove_Pivot_Element(Bump_State &s, double &umax);
void PIV_2_BY_P(Bump_State &s);
void PIV_P_BY_2(Bump_State &s);
void PIV_2_BY_2(Bump_State &s);

// ---------------------------------------------------------------------------
// Dense block and update kernels (elimination/dense.cpp).  `a` points at
// block element (1, 1) of a block stored by columns with leading dimension
// ld: element (i, j) is a[(i - 1) + (j - 1) * ld].  Pending pivots are
// npused + 1 .. npiv; every kernel subtracts them one at a time in ascending
// order from each element (x = x - l * u, no fused multiply-add), so that the
// unrolled and the general members give the same bits.
// ---------------------------------------------------------------------------
// Column jcol, rows npiv + 1 .. nrows; then the largest magnitude there
// (first of equals): best = its block row (npiv + 1 on an empty range,
// largest = 0).
void Update_LCol(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t jcol, int32_t nrows,
                 double &largest, int32_t &best);
// Row npiv + 1, columns npiv + 2 .. ncols; umax = largest magnitude there.
void Update_URow(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t ncols, double &umax);
// Rows npiv + 1 .. nrows, columns npiv + 1 .. ncols: all pending pivots.
void Inter_Updt(double *a, int32_t ld, int32_t nrows, int32_t ncols, int32_t npiv, int32_t &npused);
void Final_Updt(Bump_State &s, double *a, int32_t ld, int32_t nrows, int32_t ncols, int32_t npiv,
                int32_t &npused);
// Factors the whole remaining matrix as one dense block (ld: the leading
// dimension, at least Rowlft).
void Dense_Pivot(Bump_State &s, int32_t ld);

// ---------------------------------------------------------------------------
// Consistency battery (elimination/inversion_tests.cpp).
// ---------------------------------------------------------------------------
// Runs the tests that the test options of VMI ask for; returns with
// VMI%Exception set when one failed.
void Inversion_Tests(Bump_State &s);
void Test_Row_Col_Structure(Bump_State &s, const char *where);

}  // namespace vlu
