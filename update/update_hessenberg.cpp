// Shrinking the range of an update by permutations alone.
//
//   VIM%Rnto, Cnto, Rotn, Cotn, Cbto   positions of rows and U columns
//   LUF%Ic/Rstr/Rlen, VIM%AUrmat       row copy of U (pivot first)
//   LUF%Ir/Cstr/Clen, LUF%Ucmat        column copy of U (pivot first)
//   VIM%HelpZ  marks: by position in the two trims (positions Spike_First ..
//              Spike_Last + 1, all 0 on entry and on exit); by row number in
//              Hess_Single_Col and by column number in Hess_Single_Row
//              (1: still in the range)
//   VIM%HelpI  list of columns (trims: saved positions; passes: singletons)
//   IIN%Cpnx   list of rows, beside HelpI
//   IIN%Cppr   list of VIM%Cbto values, beside HelpI (trims only)
//
// On entry the spike stands as U column Icolcr at position Spike_First, and
// every other column is upper triangular in the current order.  The trims
// throw out of the range every position that the spike cannot reach (the
// forward sweep from the row at Spike_First, the backward sweep from the
// spike column) and keep Rotn, Cotn and Cbto right as they go.  After the
// spike has moved to the end the range is upper Hessenberg, and the passes
// peel column singletons off its end and row singletons off its front; they
// change only Rnto and Cnto, the driver renumbers the rest at the end.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "runtime/dumps.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "update/update_inner.h"

namespace vlu {

namespace {

constexpr int Err_Diag_Col = 6401;
constexpr int Err_Diag_Row = 6402;
constexpr int Err_HessCol_Col = 6403;
constexpr int Err_HessCol_Row = 6404;
constexpr int Err_HessRow_Row = 6405;
constexpr int Err_HessRow_Col = 6406;

// Brings row `irow` to the front of column `icol`.  Returns false when the
// column does not hold the row.
bool Front_Of_Column(LUF *luf, int32_t icol, int32_t irow, int32_t &s, int32_t &e) {
  int32_t *ir = luf->Ir.V;
  double *ucmat = luf->Ucmat.Val;
  s = luf->Cstr.V[icol];
  e = s + luf->Clen.V[icol] - 1;
  const int32_t q = Int_Lookup(ir, s, e, irow);
  if (q == 0) return false;
  std::swap(ir[q], ir[s]);
  std::swap(ucmat[q], ucmat[s]);
  return true;
}

// Brings column `icol` to the front of row `irow`.
bool Front_Of_Row(VMI *vmi, int32_t irow, int32_t icol, int32_t &s, int32_t &e) {
  LUF *luf = vmi->Luf;
  int32_t *ic = luf->Ic.V;
  double *aur = vmi->Vim->AUrmat.Val;
  s = luf->Rstr.V[irow];
  e = s + luf->Rlen.V[irow] - 1;
  const int32_t q = Int_Lookup(ic, s, e, icol);
  if (q == 0) return false;
  std::swap(ic[q], ic[s]);
  std::swap(aur[q], aur[s]);
  return true;
}

// The five vectors of the order, as raw pointers for the sweeps.
struct Order {
  int32_t *rnto, *cnto, *rotn, *cotn, *cbto;
  explicit Order(VIM *vim)
      : rnto(vim->Rnto.V), cnto(vim->Cnto.V), rotn(vim->Rotn.V), cotn(vim->Cotn.V),
        cbto(vim->Cbto.V) {}
  // Writes position p: row r, column c and model column m.
  void Put(int32_t p, int32_t r, int32_t c, int32_t m) const {
    rnto[p] = r;
    cnto[p] = c;
    rotn[r] = p;
    cotn[c] = p;
    cbto[p] = m;
  }
};

// The first position from p on whose mark is set; the mark at `stop` (set)
// ends the search, and nothing behind it is read.  Eight marks at a time
// while all eight lie before or at `stop`, then one by one.
inline int32_t Next_Mark(const int32_t *marks, int32_t p, int32_t stop) {
#if defined(__SSE2__)
  for (; p + 7 <= stop; p += 8) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(marks + p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(marks + p + 4));
    const __m128i o = _mm_or_si128(a, b);
    if (_mm_movemask_epi8(_mm_cmpeq_epi32(o, _mm_setzero_si128())) != 0xFFFF) break;
  }
#endif
  while (marks[p] == 0) ++p;
  return p;
}

// Rotn and Cotn for the positions first .. last from Rnto and Cnto.
inline void Set_Inverse(const Order &o, int32_t first, int32_t last) {
  int32_t q = first;
  for (; q + 3 <= last; q += 4) {
    const int32_t r0 = o.rnto[q], r1 = o.rnto[q + 1], r2 = o.rnto[q + 2], r3 = o.rnto[q + 3];
    const int32_t c0 = o.cnto[q], c1 = o.cnto[q + 1], c2 = o.cnto[q + 2], c3 = o.cnto[q + 3];
    o.rotn[r0] = q;
    o.rotn[r1] = q + 1;
    o.rotn[r2] = q + 2;
    o.rotn[r3] = q + 3;
    o.cotn[c0] = q;
    o.cotn[c1] = q + 1;
    o.cotn[c2] = q + 2;
    o.cotn[c3] = q + 3;
  }
  for (; q <= last; ++q) {
    o.rotn[o.rnto[q]] = q;
    o.cotn[o.cnto[q]] = q;
  }
}

// Moves the len positions from p on to the positions from `to` on (to < p),
// rows, columns and model columns, and sets Rotn and Cotn for them.
void Shift_Down(const Order &o, int32_t p, int32_t len, int32_t to) {
  if (len < 16) {
    for (int32_t k = 0; k < len; ++k) o.Put(to + k, o.rnto[p + k], o.cnto[p + k], o.cbto[p + k]);
    return;
  }
  const size_t bytes = sizeof(int32_t) * static_cast<size_t>(len);
  std::memmove(o.rnto + to, o.rnto + p, bytes);
  std::memmove(o.cnto + to, o.cnto + p, bytes);
  std::memmove(o.cbto + to, o.cbto + p, bytes);
  Set_Inverse(o, to, to + len - 1);
}

}  // namespace

void Trim_Singular_Cols(VMI *vmi, Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t sf = st.Spike_First, sl = st.Spike_Last;
  int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V;
  int32_t *rows = vmi->Iin->Cpnx.V, *models = vmi->Iin->Cppr.V;
  const Order o(vim);
  const int32_t *rnto = o.rnto, *cnto = o.cnto, *cotn = o.cotn, *cbto = o.cbto;
  const int32_t *ic = luf->Ic.V, *rstr = luf->Rstr.V, *rlen = luf->Rlen.V;
  const int32_t beyond = sl + 1;

  // Position q is reached from position p when the row at p has an element
  // in the column at q.  The sweep starts from the row at Spike_First.  The
  // row at p has its other elements in columns behind p (but for the spike
  // column, at Spike_First), so the sweep can jump from one marked position
  // to the next, and everything between two of them leaves the range at its
  // front in one stretch.  The mark at Spike_Last + 1 ends every search.
  int32_t count = 1;
  helpi[1] = cnto[sf];
  rows[1] = rnto[sf];
  models[1] = cbto[sf];
  helpz[beyond] = 1;
  {
    const int32_t r = rnto[sf];
    for (int32_t j = rstr[r], e = rstr[r] + rlen[r]; j < e; ++j)
      {
        const int32_t q = cotn[ic[j]];
        helpz[q < beyond ? q : beyond] = 1;  // a conditional move, not a jump
      }
  }
  int32_t out = sf;
  int32_t moved = 0;  // list places before the last stretch thrown out
  // A short range is swept one position at a time: looking for stretches
  // costs more there than it saves.
  const bool shortRange = sl - sf < 48;
  for (int32_t p = sf + 1; p <= sl; ++p) {
    if (helpz[p] == 0) {
      // Not reached: p (.. next - 1) move forward to out.
      moved = count;
      if (shortRange || helpz[p + 1] != 0) {
        o.Put(out, rnto[p], cnto[p], cbto[p]);
        ++out;
        continue;
      }
      const int32_t next = Next_Mark(helpz, p + 2, beyond);
      Shift_Down(o, p, next - p, out);
      out += next - p;
      p = next;
      if (p == beyond) break;
    }
    helpz[p] = 0;
    ++count;
    helpi[count] = cnto[p];
    rows[count] = rnto[p];
    models[count] = cbto[p];
    const int32_t r = rnto[p];
    for (int32_t j = rstr[r] + 1, e = rstr[r] + rlen[r]; j < e; ++j)
      {
        const int32_t q = cotn[ic[j]];
        helpz[q < beyond ? q : beyond] = 1;  // a conditional move, not a jump
      }
  }
  helpz[sf] = 0;
  helpz[beyond] = 0;
  if (st.Trace >= 2) Doc(vmi, "The number of singular columns =%d", out - sf);
  st.Spike_First = out;
  // The list in order from out on; what came after the last stretch thrown
  // out stands there already.
  for (int32_t k = 1; k <= moved; ++k) o.Put(out + k - 1, rows[k], helpi[k], models[k]);
}

void Trim_Singular_Rows(VMI *vmi, Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t sf = st.Spike_First, sl = st.Spike_Last;
  int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V;
  int32_t *rows = vmi->Iin->Cpnx.V, *models = vmi->Iin->Cppr.V;
  const Order o(vim);
  const int32_t *rnto = o.rnto, *cnto = o.cnto, *rotn = o.rotn, *cbto = o.cbto;
  const int32_t *ir = luf->Ir.V, *cstr = luf->Cstr.V, *clen = luf->Clen.V;

  // Position q is reached from position p when the column at p has an
  // element in the row at q.  The sweep starts from the spike.
  {
    const int32_t c = st.Icolcr;
    for (int32_t q = cstr[c], e = cstr[c] + clen[c]; q < e; ++q)
      helpz[std::max(rotn[ir[q]], sf)] = 1;
  }
  int32_t count = 0;
  int32_t out = sl;
  int32_t moved = 0;  // list places before the last position thrown out
  for (int32_t p = sl; p > sf; --p) {
    if (helpz[p] == 0) {
      // Not reached: the position leaves the range at its end.
      o.Put(out, rnto[p], cnto[p], cbto[p]);
      --out;
      moved = count;
      continue;
    }
    helpz[p] = 0;
    ++count;
    helpi[count] = cnto[p];
    rows[count] = rnto[p];
    models[count] = cbto[p];
    // The elements behind the pivot.  A column that holds only its pivot
    // reaches nothing.
    const int32_t c = cnto[p];
    for (int32_t q = cstr[c] + 1, e = cstr[c] + clen[c]; q < e; ++q)
      helpz[std::max(rotn[ir[q]], sf)] = 1;
  }
  helpz[sf] = 0;
  if (st.Trace >= 2) Doc(vmi, "The number of singular rows    =%d", sl - out);
  st.Spike_Last = out;
  for (int32_t k = 1; k <= moved; ++k) o.Put(out - k + 1, rows[k], helpi[k], models[k]);
}

void Diagonal_Spike(VMI *vmi, Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t c = vim->Cnto.V[st.Spike_First];
  const int32_t r = vim->Rnto.V[st.Spike_First];
  int32_t s = 0, e = 0;
  if (!Front_Of_Column(luf, c, r, s, e)) {
    Doc(vmi, "Diagonal element in column%d and row%d not found in column copy.", c, r);
    Doc(vmi, "Istr=%d and Iend=%d", s, e);
    Internal_Error(vmi, Err_Diag_Col, true);
    return;
  }
  if (!Front_Of_Row(vmi, r, c, s, e)) {
    Doc(vmi, "Diagonal element in column%d and row%d not found in row copy.", c, r);
    Doc(vmi, "Istr=%d and Iend=%d", s, e);
    Internal_Error(vmi, Err_Diag_Row, true);
    return;
  }
  const double pivot = vim->AUrmat.Val[luf->Rstr.V[r]];
  if (!(std::fabs(pivot) > st.Pivmin)) {
    if (st.Trace >= 1) {
      Doc(vmi, "Diagonal spike singular.");
      Doc(vmi, "Singular column%d in row%d", c, r);
      Doc(vmi, "Pivot=%13.5E", pivot);
    }
    st.Fail_Pivot = true;
    return;
  }
  const double rowmax = Row_Max_Behind_First(vmi, r);
  if (rowmax > st.Uumax * std::fabs(pivot)) {
    if (st.Trace >= 1) Doc(vmi, "Position 4: Umax=%13.5E and Pivot=%13.5E", rowmax, pivot);
    st.Fail_U_Large = true;
    return;
  }
  if (st.Trace >= 2) Doc(vmi, "Spike ends on the Diagonal");
}

void Hess_Single_Col(VMI *vmi, Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t sf = st.Spike_First, sl = st.Spike_Last;
  int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V, *rows = vmi->Iin->Cpnx.V;
  int32_t *rnto = vim->Rnto.V, *cnto = vim->Cnto.V;
  const int32_t *ir = luf->Ir.V, *cstr = luf->Cstr.V, *clen = luf->Clen.V;

  for (int32_t p = sf; p <= sl; ++p) helpz[rnto[p]] = 1;

  // From the end: a column with one element left in the range is a pivot by
  // itself; by the trims that element lies in the row of its position.
  int32_t count = 0;
  for (int32_t p = sl; p >= sf; --p) {
    const int32_t c = cnto[p];
    int32_t sum = 0;
    for (int32_t q = cstr[c], e = cstr[c] + clen[c]; q < e; ++q) sum += helpz[ir[q]];
    if (clen[c] == 0 || sum != 1) break;
    const int32_t r = rnto[p];
    ++count;
    helpi[count] = c;
    rows[count] = r;
    helpz[r] = 0;
    int32_t s = 0, e = 0;
    if (!Front_Of_Column(luf, c, r, s, e)) {
      Doc(vmi, "Singular column%d not found in row%d in column copy.", c, r);
      Doc(vmi, "Istr=%d and Iend=%d", s, e);
      Internal_Error(vmi, Err_HessCol_Col, true);
      return;
    }
    if (!Front_Of_Row(vmi, r, c, s, e)) {
      Doc(vmi, "Singular column%d not found in row%d in row copy.", c, r);
      Doc(vmi, "Istr=%d and Iend=%d", s, e);
      Internal_Error(vmi, Err_HessCol_Row, true);
      return;
    }
    const double pivot = vim->AUrmat.Val[luf->Rstr.V[r]];
    if (!(std::fabs(pivot) > st.Pivmin)) {
      if (st.Trace >= 1) {
        Doc(vmi, "Hessenberg switch singular.");
        Doc(vmi, "Singular column%d in row%d", c, r);
        Doc(vmi, "Pivot=%13.5E", pivot);
      }
      st.Fail_Pivot = true;
      return;
    }
    const double rowmax = Row_Max_Behind_First(vmi, r);
    if (rowmax > st.Uumax * std::fabs(pivot)) {
      if (st.Trace >= 1) Doc(vmi, "Position 2: Umax=%13.5E and Pivot=%13.5E", rowmax, pivot);
      st.Fail_U_Large = true;
      return;
    }
  }

  // The singletons go to the front in the order found, the rest moves up.
  if (count > 0) {
    for (int32_t p = sl - count; p >= sf; --p) {
      cnto[p + count] = cnto[p];
      rnto[p + count] = rnto[p];
    }
    for (int32_t k = 1; k <= count; ++k) {
      cnto[sf + k - 1] = helpi[k];
      rnto[sf + k - 1] = rows[k];
    }
    st.Spike_First = sf + count;
  }
  if (st.Trace >= 2) Doc(vmi, "Number of Hessenberg single col=%d", count);
}

void Hess_Single_Row(VMI *vmi, Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t sf = st.Spike_First, sl = st.Spike_Last;
  int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V, *rows = vmi->Iin->Cpnx.V;
  int32_t *rnto = vim->Rnto.V, *cnto = vim->Cnto.V;
  const int32_t *ic = luf->Ic.V, *rstr = luf->Rstr.V, *rlen = luf->Rlen.V;

  // From the front, the last position left out: a row with one element left
  // in the range is a pivot by itself, in the column of its position.
  int32_t count = 0;
  for (int32_t p = sf; p < sl; ++p) {
    const int32_t r = rnto[p];
    int32_t sum = 0;
    for (int32_t j = rstr[r], e = rstr[r] + rlen[r]; j < e; ++j) sum += helpz[ic[j]];
    if (rlen[r] == 0 || sum != 1) break;
    const int32_t c = cnto[p];
    ++count;
    rows[count] = r;
    helpi[count] = c;
    helpz[c] = 0;
    int32_t s = 0, e = 0;
    if (!Front_Of_Row(vmi, r, c, s, e)) {
      Doc(vmi, "Singular column%d not found in row%d in row structure.", c, r);
      Doc(vmi, "Istr=%d and Iend=%d", s, e);
      PP_Int(vmi, luf->Ic, "LUF%Ic", s - 1, std::max(e - s + 1, 0));
      Internal_Error(vmi, Err_HessRow_Row, true);
      return;
    }
    const double pivot = vim->AUrmat.Val[luf->Rstr.V[r]];
    if (!(std::fabs(pivot) > st.Pivmin)) {
      if (st.Trace >= 1) {
        Doc(vmi, "Hessenberg switch singular.");
        Doc(vmi, "Singular row%d in column%d", r, c);
        Doc(vmi, "Pivot=%13.5E", pivot);
      }
      st.Fail_Pivot = true;
      return;
    }
    const double rowmax = Row_Max_Behind_First(vmi, r);
    if (rowmax > st.Uumax * std::fabs(pivot)) {
      if (st.Trace >= 1) Doc(vmi, "Position 6: Umax=%13.5E and Pivot=%13.5E", rowmax, pivot);
      st.Fail_U_Large = true;
      return;
    }
    if (!Front_Of_Column(luf, c, r, s, e)) {
      Doc(vmi, "Singular column%d not found in row%d in column structure.", c, r);
      Doc(vmi, "Istr=%d and Iend=%d", s, e);
      Internal_Error(vmi, Err_HessRow_Col, true);
      return;
    }
  }

  // The singletons go to the end, the first found last; the rest moves down.
  if (count > 0) {
    for (int32_t p = sf + count; p <= sl; ++p) {
      cnto[p - count] = cnto[p];
      rnto[p - count] = rnto[p];
    }
    for (int32_t k = 1; k <= count; ++k) {
      cnto[sl - k + 1] = helpi[k];
      rnto[sl - k + 1] = rows[k];
    }
    st.Spike_Last = sl - count;
  }
  if (st.Trace >= 2) Doc(vmi, "Number of Hessenberg single row=%d", count);
}

}  // namespace vlu
