// Merge of the work block of a General_Pivot step into the active matrix.
//
// Data touched (1-based, old numbers; the files are described in
// elimination/bump.h):
//
//   IIN%Mmat    block element (r, c) at Mmat.Val[1 + (r - 1) + (c - 1) ld]:
//               for block rows and columns from `first` on, the amount to
//               add to the active element (Lisr(r), Lisc(c)).  A place whose
//               element exists in a scanned part of the files is added to it
//               and marked Merged_Mark; what stays unmarked is fill.
//   LUF%Ir, Cstr, Clen / LUF%Ic, Rstr, Rlen, IIN%R2cp: the compressed parts
//               of the block's columns and rows are scanned; tails are not
//               (an element of a tail lies in a long row and a long column).
//   VIM%AUrmat  values of the column file, updated in place.
//   IIN%Indr, Indc  block place of a row or column (0 outside the block);
//               IIN%Lngr, Lngc: long block rows and columns.
//   IIN%Rlin(r), Clin(c)  on return: unmerged places of block row r and
//               block column c, the room the fill will need.  Rlin has one
//               section per thread for the parallel form.
//
// With DO_Squeeze on, a merged result at or below Clmin of its column leaves
// both files at once.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "elimination/bump.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

constexpr int Err_Fill_Count = 4450;
constexpr int64_t Par_Min_Elements = 65536;  // column elements that pay for the parallel form
constexpr int32_t Par_Min_Columns = 33;      // ... and block columns
constexpr double Col_Price = 0.125;          // a column element against a row element

// What one merge pass sees.
struct Merge {
  Bump_State *s = nullptr;
  double *a = nullptr;  // block element (1, 1)
  int32_t ld = 0;
  int32_t first = 0;
  bool squeeze = false;
  int64_t scanned = 0;  // elements looked at
  int64_t merged = 0;   // places merged

  double &at(int32_t r, int32_t c) const {
    return a[(r - 1) + static_cast<std::ptrdiff_t>(c - 1) * ld];
  }
};

// Drops a merged element that came out at or below Clmin of its column from
// both files.  p, q: its row-file and column-file positions.
void Drop_Element(Bump_State &s, int32_t row, int32_t col, int32_t p, int32_t q, double old) {
  IIN *iin = s.iin;
  if (IsTrue(iin->Clok.V[col]) && std::fabs(old) >= s.Clok_Frac * iin->Clmx.Val[col])
    CLEAR_Clok(s, col, s.luf->Clen.V[col]);
  Remove_Element_From_Row(s, row, p);
  Remove_Element_From_Col(s, col, q);
}

// Scan by columns: block columns c1..c2 (the short ones only when
// shortOnly), every compressed element in a block row.  rlin: the section of
// Rlin to count in.
void Merge_By_Cols(Merge &m, int32_t c1, int32_t c2, bool shortOnly, int32_t *rlin) {
  Bump_State &s = *m.s;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t *lisc = iin->Lisc.V, *indr = iin->Indr.V;
  const Logical *lngc = iin->Lngc.V;
  int32_t *clin = iin->Clin.Val;
  const int32_t first = m.first;
  for (int32_t c = c1; c <= c2; ++c) {
    if (shortOnly && IsTrue(lngc[c])) continue;
    const int32_t col = lisc[c];
    const int32_t *ir = luf->Ir.V;
    double *aur = s.vim->AUrmat.Val;
    double *mc = &m.at(1, c) - 1;
    const double cmin = iin->Clmin.Val[col];
    int32_t q = luf->Cstr.V[col];
    int32_t end = q + luf->Clen.V[col];
    m.scanned += end - q;
    while (q < end) {
      const int32_t row = ir[q];
      const int32_t r = indr[row];
      if (r < first) {
        ++q;
        continue;
      }
      const double old = aur[q];
      const double nv = old + mc[r];
      aur[q] = nv;
      mc[r] = Merged_Mark;
      --rlin[r];
      --clin[c];
      ++m.merged;
      if (m.squeeze && std::fabs(nv) <= cmin) {
        Drop_Element(s, row, col, iin->C2rp.V[q], q, old);
        end = luf->Cstr.V[col] + luf->Clen.V[col];
        continue;  // the element moved into q is next
      }
      ++q;
    }
  }
}

// Scan by rows: block rows r1..r2 (the short ones only when shortOnly), every
// compressed element in a block column (in a long one only when longOnly).
void Merge_By_Rows(Merge &m, int32_t r1, int32_t r2, bool shortOnly, bool longOnly) {
  Bump_State &s = *m.s;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t *lisr = iin->Lisr.V, *indc = iin->Indc.V;
  const Logical *lngr = iin->Lngr.V, *lngc = iin->Lngc.V;
  int32_t *rlin = iin->Rlin.Val, *clin = iin->Clin.Val;
  const int32_t first = m.first;
  for (int32_t r = r1; r <= r2; ++r) {
    if (shortOnly && IsTrue(lngr[r])) continue;
    const int32_t row = lisr[r];
    const int32_t *ic = luf->Ic.V, *r2cp = iin->R2cp.V;
    double *aur = s.vim->AUrmat.Val;
    int32_t p = luf->Rstr.V[row];
    int32_t end = p + luf->Rlen.V[row];
    m.scanned += end - p;
    while (p < end) {
      const int32_t col = ic[p];
      const int32_t c = indc[col];
      if (c < first || (longOnly && !IsTrue(lngc[c]))) {
        ++p;
        continue;
      }
      const int32_t q = r2cp[p];
      double &x = m.at(r, c);
      const double old = aur[q];
      const double nv = old + x;
      aur[q] = nv;
      x = Merged_Mark;
      --rlin[r];
      --clin[c];
      ++m.merged;
      if (m.squeeze && std::fabs(nv) <= iin->Clmin.Val[col]) {
        Drop_Element(s, row, col, p, q, old);
        end = luf->Rstr.V[row] + luf->Rlen.V[row];
        continue;
      }
      ++p;
    }
  }
}

// The scan by columns in its parallel form: the block columns cut into
// stretches of equal work on a grid of 16 (BalanceThreadI), each thread
// counting its rows in its own section of Rlin, the sections summed into the
// first afterwards; region Inversion_UpdateByCol.  Every write of a thread
// falls in its own columns' stretches of AUrmat and Mmat.  Until a thread
// runtime is attached the stretches run one after the other on this thread;
// the result is the same.
void UpdateByColPar(Merge &m, int32_t c1, int32_t c2) {
  IIN *iin = m.s->iin;
  Merge_By_Cols(m, c1, c2, false, iin->Rlin.Val);
}

// Recount of the unmerged places against Rlin and Clin (a test).
void Check_Fill_Counts(Bump_State &s, const Merge &m, int32_t nrow, int32_t ncol) {
  const int32_t *rlin = s.iin->Rlin.Val, *clin = s.iin->Clin.Val;
  for (int32_t r = m.first; r <= nrow; ++r) {
    int32_t n = 0;
    for (int32_t c = m.first; c <= ncol; ++c)
      if (m.at(r, c) != Merged_Mark) ++n;
    if (n != rlin[r]) {
      Doc(s.vmi, "Update_Amat: block row %d: Rlin=%d but counted=%d", r, rlin[r], n);
      Internal_Error(s.vmi, Err_Fill_Count, true);
      return;
    }
  }
  for (int32_t c = m.first; c <= ncol; ++c) {
    int32_t n = 0;
    for (int32_t r = m.first; r <= nrow; ++r)
      if (m.at(r, c) != Merged_Mark) ++n;
    if (n != clin[c]) {
      Doc(s.vmi, "Update_Amat: block column %d: Clin=%d but counted=%d", c, clin[c], n);
      Internal_Error(s.vmi, Err_Fill_Count, true);
      return;
    }
  }
}

}  // namespace

void Update_Amat(Bump_State &s, int32_t first, int32_t nrow, int32_t ncol, int32_t ld) {
  VMI *vmi = s.vmi;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t nr = std::max(nrow - first + 1, 0), nc = std::max(ncol - first + 1, 0);

  // Every place is fill until found; the four sums of lengths.
  int32_t *rlin = iin->Rlin.Val, *clin = iin->Clin.Val;
  const int32_t *lisr = iin->Lisr.V, *lisc = iin->Lisc.V;
  const Logical *lngr = iin->Lngr.V, *lngc = iin->Lngc.V;
  int64_t nzrows = 0, nzrowd = 0, nzcols = 0, nzcold = 0;
  for (int32_t r = first; r <= nrow; ++r) {
    rlin[r] = nc;
    if (nc == 0) continue;
    (IsTrue(lngr[r]) ? nzrowd : nzrows) += luf->Rlen.V[lisr[r]];
  }
  for (int32_t c = first; c <= ncol; ++c) {
    clin[c] = nr;
    if (nr == 0) continue;
    (IsTrue(lngc[c]) ? nzcold : nzcols) += luf->Clen.V[lisc[c]];
  }

  // The parallel form pays only for many column elements in many columns.
  const bool doParallel =
      vmi->Threads >= 2 && !s.DO_Squeeze && nzcols > Par_Min_Elements && nc >= Par_Min_Columns;
  const bool trace = vmi->Trace_Inv >= 3;
  if (trace) {
    Doc(vmi, "In Update_Amat: Lenrow=%d and Lencol=%d", nc, nr);
    Doc(vmi, "Nzcols=%lld Nzrows=%lld", static_cast<long long>(nzcols),
        static_cast<long long>(nzrows));
    Doc(vmi, "Nzcold=%lld Nzrowd=%lld", static_cast<long long>(nzcold),
        static_cast<long long>(nzrowd));
    Doc(vmi, "DO_Parallel=%s DO_Squeeze=%s", doParallel ? "T" : "F", s.DO_Squeeze ? "T" : "F");
  }

  // Nothing short: every place is fill for the tails.
  if (nzrows == 0 && nzcols == 0) {
    if (trace) Doc(vmi, "No Scanning - No short rows or columns.");
    return;
  }

  // The cheapest scan; on equal costs by columns, then by rows.
  const double costBoth = static_cast<double>(nzrows) + Col_Price * static_cast<double>(nzcols);
  const double costRows = static_cast<double>(nzrows + nzrowd);
  const double costCols = Col_Price * static_cast<double>(nzcold + nzcols);

  Merge m;
  m.s = &s;
  m.a = iin->Mmat.Val + 1;
  m.ld = ld;
  m.first = first;
  m.squeeze = s.DO_Squeeze;

  if (costCols <= costBoth && costCols <= costRows) {
    // By columns only.
    if (trace)
      Doc(vmi, "Scanning by column only. Nzcols=%lld NzcolD=%lld", static_cast<long long>(nzcols),
          static_cast<long long>(nzcold));
    ++s.St.Upd_Col_Only;
    if (doParallel) {
      ++s.St.Upd_Parallel;
      UpdateByColPar(m, first, ncol);
    } else {
      if (vmi->Trace_Threads) Doc(vmi, "UpdateByCol run sequentially");
      Merge_By_Cols(m, first, ncol, false, rlin);
    }
    s.St.Merged_By_Col += m.merged;
  } else if (costRows <= costBoth) {
    // By rows only.
    if (trace)
      Doc(vmi, "Scanning by row only. Nzrows=%lld NzRowd=%lld", static_cast<long long>(nzrows),
          static_cast<long long>(nzrowd));
    ++s.St.Upd_Row_Only;
    Merge_By_Rows(m, first, nrow, false, false);
    s.St.Merged_By_Row += m.merged;
  } else {
    // Short columns by column, then short rows by row for the elements in
    // long columns.  Long rows meet long columns in neither scan: such a
    // place stays fill, goes to both tails, and a later compression adds it
    // to the element that is there.
    if (trace)
      Doc(vmi, "Scanning by column and by row. Nzrows=%lld Nzcols=%lld",
          static_cast<long long>(nzrows), static_cast<long long>(nzcols));
    ++s.St.Upd_Both;
    Merge_By_Cols(m, first, ncol, true, rlin);
    s.St.Merged_By_Col += m.merged;
    const int64_t byCols = m.merged;
    Merge_By_Rows(m, first, nrow, true, true);
    s.St.Merged_By_Row += m.merged - byCols;
  }
  s.St.Scanned_Upd += m.scanned;

  // Test of the counts.
  if (!Stopped(s) && (vmi->Test_Trace >= 1 || vmi->Trace_Inv >= 4))
    Check_Fill_Counts(s, m, nrow, ncol);
}

}  // namespace vlu
