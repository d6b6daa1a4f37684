// The inner routines of the in-place update and the scalars they share.
//
// Positions are new numbers: position p holds row VIM%Rnto(p) and U column
// VIM%Cnto(p).  U stands twice, by rows (LUF%Ic, VIM%AUrmat, LUF%Rstr,
// LUF%Rlen, used slots RowFileUsed..RowUSpace) and by columns (LUF%Ir,
// LUF%Ucmat, LUF%Cstr, LUF%Clen, used slots ColFileUsed..ColUSpace); a 0
// index marks a free slot, everything below the used range is free, and the
// first element of a row or a column is its pivot.
#pragma once
#include <cstdint>

#include "runtime/records.h"

namespace vlu {

// Scalars of one call of Update_Inverse, passed by reference to the routines
// it calls.  They live for that call only.
struct Upd_State {
  double Pivmin = 0.0;       // smallest magnitude accepted for a pivot
  double Uumax = 0.0;        // largest magnitude accepted for an element, and
                             // for the ratio of an element to its pivot
  double Tol_L = 0.0;        // multipliers at or below it are not stored
  int32_t Irowcr = 0;        // old row of the leaving position
  int32_t Icolcr = 0;        // U column of the leaving position
  int32_t Spike_First = 0;   // first position of the range still open
  int32_t Spike_Last = 0;    // last position of the range still open
  int32_t Group_Row = 0;     // row of the last row-eta group opened by this
                             // update; 0 while none is open
  bool Fail_Memory = false;  // column or row space gone after compression and growth
  bool Fail_U_Large = false; // an element or a ratio above Uumax
  bool Fail_Pivot = false;   // a pivot below Pivmin, or none at all
  int32_t Trace = 0;         // trace level of the update
  bool Failed() const { return Fail_Memory || Fail_U_Large || Fail_Pivot; }
};

// Singular and Hessenberg handling: shrink the range by permutations.
void Trim_Singular_Cols(VMI *vmi, Upd_State &st);
void Trim_Singular_Rows(VMI *vmi, Upd_State &st);
void Diagonal_Spike(VMI *vmi, Upd_State &st);
void Hess_Single_Col(VMI *vmi, Upd_State &st);
void Hess_Single_Row(VMI *vmi, Upd_State &st);

// Row elimination of the remaining upper Hessenberg range with row etas.
void Row_Elimination(VMI *vmi, Upd_State &st);
// Takes column icol out of the working row `irow` (and out of both copies of
// U when the element is stored there); len is the list length.
void Remove_Work_Element(VMI *vmi, int32_t irow, int32_t icol, int32_t &len);

// Storage of the updated rows and columns.
void Store_Work_Row(VMI *vmi, Upd_State &st, int32_t irow, int32_t icolp, int32_t len);
void Place_Pivot_In_Column(VMI *vmi, Upd_State &st, int32_t icolp, int32_t irow, int32_t &ifill);

// Largest magnitude of the elements of row `irow` in the row copy behind its
// first slot; 0 for a row of one element.
double Row_Max_Behind_First(const VMI *vmi, int32_t irow);

}  // namespace vlu
