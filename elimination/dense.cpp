// The dense kernels of the elimination and the dense final block.
//
// Block layout.  A block is stored by columns with leading dimension ld:
// block element (i, j), 1-based, stands at a[(i - 1) + (j - 1) * ld], where
// `a` points at element (1, 1).  Block rows 1..npiv and block columns 1..npiv
// are pivots: after pivot p, column p below the diagonal holds the
// multipliers of p (already divided by the pivot) and row p right of the
// diagonal the U row of p.  Pivots 1..npused have been applied to the whole
// rest of the block; pivots npused + 1 .. npiv are pending.
//
//          col:  1 .. npused   npused+1 .. npiv   npiv+1 .. ncols
//   rows 1..npiv   L\U (final)  L\U (final)        U rows (final)
//   rows npiv+1..  multipliers  multipliers        rest: pivots 1..npused
//                                                  applied, the pending not
//
// Every kernel brings its part of the block up to date with the pending
// pivots by subtracting them one at a time, in ascending order, from each
// element: x = x - l * u, never a fused multiply-add.  So every member of a
// kernel, unrolled or general, and every kernel that touches an element
// (Update_LCol, Update_URow, Inter_Updt, Final_Updt) gives the same bits as a
// plain right-looking elimination with the same pivots.  Inner loops run down
// the columns (contiguous in i) so that the compiler vectorizes them.
//
// Dense_Pivot holds the whole remaining matrix in IIN%Mmat: block row i is
// the active row IIN%Lisr(i), block column j the active column IIN%Lisc(j),
// with IIN%Indr / IIN%Indc the places back.  It factors the block with
// partial pivoting by rows (rows exchanged over all n columns, and in
// Lisr/Indr), then writes:
//   - VIM%Rnto/Rotn/Cnto/Cotn of positions Piv_Indx .. NumRow (block place k
//     is position Piv_Indx + k - 1);
//   - the U-file as a packed triangle: the row at block place k has n - k + 1
//     elements (pivot first, columns in position order) and stands below the
//     row of place k - 1, so the row of the last position is lowest in the
//     file; LUF%D_Size = n tells CreateColumnU of this layout;
//   - the L-file: one column of n - k multipliers per pivot k below n
//     (LUF%Lrow the block rows below k, LUF%Lpiv the pivot row), except the
//     columns of pivots that were replaced by a slack.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "elimination/bump.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "update/update.h"

#if defined(__clang__)
// The kernels promise the same bits in every member: no contraction.
#pragma clang fp contract(off)
#endif

// The inner loops of the kernels read other columns than the one they write:
// no dependence between iterations, so no run-time alias test is needed to
// vectorize them.
#if defined(__GNUC__) && !defined(__clang__)
#define VLU_NO_DEPENDENCE _Pragma("GCC ivdep")
#else
#define VLU_NO_DEPENDENCE
#endif

namespace vlu {

namespace {

constexpr int Err_Final_Width = 4501;
constexpr int Err_Dense_Rows = 4502;
constexpr int Err_Dense_Cols = 4503;
constexpr int Err_Dense_U_Space = 4504;
constexpr int Err_Dense_L_Space = 4505;
constexpr int Err_Dense_Marks = 4506;
constexpr int Err_Dense_Setup = 4507;
constexpr int Err_Dense_Scatter = 4508;

// The kernels have no environment at hand; the library runs every region on
// the caller's thread, so their thread limit is 1.  Raising it is the one
// change that the parallel forms need (besides the regions themselves).
constexpr int32_t Kernel_Threads = 1;

// Work per thread below which a kernel stays sequential.
constexpr int32_t Kernel_Work = 16384;
constexpr int32_t Scatter_Work = 32768;

inline double *Column(double *a, int32_t ld, int32_t j) {
  return a + static_cast<ptrdiff_t>(j - 1) * ld;
}

// Stretch t of T equal stretches of lo..hi (the static split of a region).
inline void Stretch(int32_t lo, int32_t hi, int32_t T, int32_t t, int32_t &from, int32_t &to) {
  const int64_t len = static_cast<int64_t>(hi) - lo + 1;
  from = lo + static_cast<int32_t>(len * (t - 1) / T);
  to = lo + static_cast<int32_t>(len * t / T) - 1;
}

// Thread count of a vector kernel over r elements with w pending pivots:
// min(r, r * w / 16384) in 32-bit integers, capped and raised to 1.
inline int32_t Vector_Threads(int32_t r, int32_t w) {
  int32_t t = std::min(r, Wrap_Mul(r, w) / Kernel_Work);
  t = std::min(t, Kernel_Threads);
  return std::max(t, 1);
}

// t - l[0][i] u[0] - l[1][i] u[1] - ..., one product at a time from the left:
// the unrolled body of the width-W members (no loop left for the compiler to
// keep).
template <size_t... Q>
inline double Sub_Col(double t, const double *const *l, const double *u, int32_t i,
                      std::index_sequence<Q...>) {
  ((t = t - l[Q][i] * u[Q]), ...);
  return t;
}
// t - l[0] c[0] - l[1] c[1] - ..., the same for a dot product down a column.
template <size_t... Q>
inline double Sub_Dot(double t, const double *l, const double *c, std::index_sequence<Q...>) {
  ((t = t - l[Q] * c[Q]), ...);
  return t;
}

// ---------------------------------------------------------------------------
// Update_LCol members: column jcol, block rows lo..hi.
// ---------------------------------------------------------------------------
template <int W>
void LCol_W(double *a, int32_t ld, int32_t npused, int32_t jcol, int32_t lo, int32_t hi) {
  double *__restrict x = Column(a, ld, jcol);
  double u[W];
  const double *l[W];
  for (int q = 0; q < W; ++q) {
    u[q] = x[npused + q];
    l[q] = Column(a, ld, npused + 1 + q);
  }
  VLU_NO_DEPENDENCE
  for (int32_t i = lo - 1; i < hi; ++i)
    x[i] = Sub_Col(x[i], l, u, i, std::make_index_sequence<W>());
}

void LCol_N(double *a, int32_t ld, int32_t npused, int32_t npiv, int32_t jcol, int32_t lo,
            int32_t hi) {
  double *__restrict x = Column(a, ld, jcol);
  for (int32_t p = npused + 1; p <= npiv; ++p) {
    const double u = x[p - 1];
    const double *__restrict l = Column(a, ld, p);
    VLU_NO_DEPENDENCE
    for (int32_t i = lo - 1; i < hi; ++i) x[i] = x[i] - l[i] * u;
  }
}

void LCol_Stretch(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t jcol, int32_t lo,
                  int32_t hi) {
  switch (npiv - npused) {
    case 0:
      return;
    case 1:
      LCol_W<1>(a, ld, npused, jcol, lo, hi);
      return;
    case 2:
      LCol_W<2>(a, ld, npused, jcol, lo, hi);
      return;
    case 3:
      LCol_W<3>(a, ld, npused, jcol, lo, hi);
      return;
    case 4:
      LCol_W<4>(a, ld, npused, jcol, lo, hi);
      return;
    case 5:
      LCol_W<5>(a, ld, npused, jcol, lo, hi);
      return;
    case 6:
      LCol_W<6>(a, ld, npused, jcol, lo, hi);
      return;
    case 7:
      LCol_W<7>(a, ld, npused, jcol, lo, hi);
      return;
    default:
      LCol_N(a, ld, npused, npiv, jcol, lo, hi);
      return;
  }
}

// ---------------------------------------------------------------------------
// Update_URow members: row r = npiv + 1, columns lo..hi.  Each element is one
// dot product with the pending pivots above it (contiguous in its column).
// ---------------------------------------------------------------------------
template <int W>
void URow_W(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t lo, int32_t hi) {
  const int32_t r0 = npiv;  // 0-based offset of row npiv + 1
  double l[W];
  for (int q = 0; q < W; ++q) l[q] = Column(a, ld, npused + 1 + q)[r0];
  for (int32_t j = lo; j <= hi; ++j) {
    double *c = Column(a, ld, j);
    c[r0] = Sub_Dot(c[r0], l, c + npused, std::make_index_sequence<W>());
  }
}

void URow_N(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t lo, int32_t hi) {
  const int32_t r0 = npiv;
  for (int32_t j = lo; j <= hi; ++j) {
    double *c = Column(a, ld, j);
    double t = c[r0];
    for (int32_t p = npused + 1; p <= npiv; ++p) t = t - Column(a, ld, p)[r0] * c[p - 1];
    c[r0] = t;
  }
}

void URow_Stretch(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t lo, int32_t hi) {
  switch (npiv - npused) {
    case 0:
      return;
    case 1:
      URow_W<1>(a, ld, npiv, npused, lo, hi);
      return;
    case 2:
      URow_W<2>(a, ld, npiv, npused, lo, hi);
      return;
    case 3:
      URow_W<3>(a, ld, npiv, npused, lo, hi);
      return;
    case 4:
      URow_W<4>(a, ld, npiv, npused, lo, hi);
      return;
    case 5:
      URow_W<5>(a, ld, npiv, npused, lo, hi);
      return;
    case 6:
      URow_W<6>(a, ld, npiv, npused, lo, hi);
      return;
    case 7:
      URow_W<7>(a, ld, npiv, npused, lo, hi);
      return;
    default:
      URow_N(a, ld, npiv, npused, lo, hi);
      return;
  }
}

// ---------------------------------------------------------------------------
// Rectangle members (Final_Updt, Inter_Updt): rows i1..i2, columns j1..j2.
// ---------------------------------------------------------------------------
template <int W>
void Rect_W(double *a, int32_t ld, int32_t npused, int32_t i1, int32_t i2, int32_t j1, int32_t j2) {
  const double *l[W];
  for (int q = 0; q < W; ++q) l[q] = Column(a, ld, npused + 1 + q);
  for (int32_t j = j1; j <= j2; ++j) {
    double *__restrict x = Column(a, ld, j);
    double u[W];
    for (int q = 0; q < W; ++q) u[q] = x[npused + q];
    VLU_NO_DEPENDENCE
    for (int32_t i = i1 - 1; i < i2; ++i)
      x[i] = Sub_Col(x[i], l, u, i, std::make_index_sequence<W>());
  }
}

void Rect_N(double *a, int32_t ld, int32_t npused, int32_t npiv, int32_t i1, int32_t i2, int32_t j1,
            int32_t j2) {
  for (int32_t j = j1; j <= j2; ++j) {
    double *__restrict x = Column(a, ld, j);
    for (int32_t p = npused + 1; p <= npiv; ++p) {
      const double u = x[p - 1];
      const double *__restrict l = Column(a, ld, p);
      VLU_NO_DEPENDENCE
      for (int32_t i = i1 - 1; i < i2; ++i) x[i] = x[i] - l[i] * u;
    }
  }
}

void Rect_Stretch(double *a, int32_t ld, int32_t npused, int32_t npiv, int32_t i1, int32_t i2,
                  int32_t j1, int32_t j2) {
  switch (npiv - npused) {
    case 0:
      return;
    case 1:
      Rect_W<1>(a, ld, npused, i1, i2, j1, j2);
      return;
    case 2:
      Rect_W<2>(a, ld, npused, i1, i2, j1, j2);
      return;
    case 3:
      Rect_W<3>(a, ld, npused, i1, i2, j1, j2);
      return;
    case 4:
      Rect_W<4>(a, ld, npused, i1, i2, j1, j2);
      return;
    case 5:
      Rect_W<5>(a, ld, npused, i1, i2, j1, j2);
      return;
    case 6:
      Rect_W<6>(a, ld, npused, i1, i2, j1, j2);
      return;
    case 7:
      Rect_W<7>(a, ld, npused, i1, i2, j1, j2);
      return;
    default:
      Rect_N(a, ld, npused, npiv, i1, i2, j1, j2);
      return;
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// The kernels.
// ---------------------------------------------------------------------------

void Update_LCol(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t jcol, int32_t nrows,
                 double &largest, int32_t &best) {
  largest = 0.0;
  best = npiv + 1;
  const int32_t r = nrows - npiv;
  if (r <= 0) return;
  // Regions "Inversion_FactorBump_LCol_1" .. "_7" / "_N": the rows split into
  // T equal stretches; the search for the largest runs after the region.
  const int32_t T = Vector_Threads(r, npiv - npused);
  for (int32_t t = 1; t <= T; ++t) {
    int32_t lo, hi;
    Stretch(npiv + 1, nrows, T, t, lo, hi);
    LCol_Stretch(a, ld, npiv, npused, jcol, lo, hi);
  }
  const double *x = Column(a, ld, jcol);
  for (int32_t i = npiv; i < nrows; ++i) {
    const double v = std::fabs(x[i]);
    if (v > largest) {
      largest = v;
      best = i + 1;
    }
  }
}

void Update_URow(double *a, int32_t ld, int32_t npiv, int32_t npused, int32_t ncols, double &umax) {
  umax = 0.0;
  const int32_t r = ncols - npiv - 1;
  if (r <= 0) return;
  // Regions "Inversion_FactorBump_URow_1" .. "_7" / "_N": the columns split
  // into T stretches; the maximum is taken after the region.
  const int32_t T = Vector_Threads(r, npiv - npused);
  for (int32_t t = 1; t <= T; ++t) {
    int32_t lo, hi;
    Stretch(npiv + 2, ncols, T, t, lo, hi);
    URow_Stretch(a, ld, npiv, npused, lo, hi);
  }
  for (int32_t j = npiv + 2; j <= ncols; ++j)
    umax = std::max(umax, std::fabs(Column(a, ld, j)[npiv]));
}

void Inter_Updt(double *a, int32_t ld, int32_t nrows, int32_t ncols, int32_t npiv,
                int32_t &npused) {
  if (nrows > npiv && ncols > npiv && npiv > npused) {
    // Region "Inversion_FactorBump_M2": per panel of Panel_Rows rows, the
    // columns split over T threads.  The estimate is in single precision.
    const float work = static_cast<float>(ncols - npiv + 1) * static_cast<float>(Batch_Width) *
                       static_cast<float>(nrows - npiv + 1) / static_cast<float>(Kernel_Work);
    int32_t T =
        work >= static_cast<float>(Kernel_Threads) ? Kernel_Threads : static_cast<int32_t>(work);
    T = std::max(1, std::min(T, ncols - npiv));
    for (int32_t i1 = npiv + 1; i1 <= nrows; i1 += Panel_Rows) {
      const int32_t i2 = std::min(nrows, i1 + Panel_Rows - 1);
      for (int32_t t = 1; t <= T; ++t) {
        int32_t j1, j2;
        Stretch(npiv + 1, ncols, T, t, j1, j2);
        Rect_Stretch(a, ld, npused, npiv, i1, i2, j1, j2);
      }
    }
  }
  npused = npiv;
}

void Final_Updt(Bump_State &s, double *a, int32_t ld, int32_t nrows, int32_t ncols, int32_t npiv,
                int32_t &npused) {
  VMI *vmi = s.vmi;
  const int32_t w = npiv - npused;
  if (w < 0 || w >= Batch_Width) {
    Doc(vmi, "Final_Updt: Error in Npused and Npiv. Npused=%d and Npiv=%d", npused, npiv);
    Internal_Error(vmi, Err_Final_Width, true);
    return;
  }
  if (w > 0 && nrows > npiv && ncols > npiv) {
    // Regions "Inversion_FactorBump_Fupdt_1" .. "_7" / "_N": the columns split
    // over T threads; the estimate is in single precision.
    const float work = static_cast<float>(nrows - npiv + 1) * static_cast<float>(ncols - npiv + 1) *
                       static_cast<float>(w) / static_cast<float>(Kernel_Work);
    const int32_t limit = std::min(Kernel_Threads, std::max(vmi->Threads, 1));
    int32_t T = work >= static_cast<float>(limit) ? limit : static_cast<int32_t>(work);
    T = std::max(1, std::min(T, ncols - npiv));
    for (int32_t t = 1; t <= T; ++t) {
      int32_t j1, j2;
      Stretch(npiv + 1, ncols, T, t, j1, j2);
      Rect_Stretch(a, ld, npused, npiv, npiv + 1, nrows, j1, j2);
    }
  }
  npused = npiv;
  if (vmi->Trace_Inv >= 4 && nrows > npiv && ncols > npiv) {
    Doc(vmi, "Mmat (after final update). Npiv=%d", npiv);
    for (int32_t i = npiv + 1; i <= nrows; ++i)
      for (int32_t j = npiv + 1; j <= ncols; ++j)
        Doc(vmi, "%8d%8d%15.6E", i, j, Column(a, ld, j)[i - 1]);
  }
  if (vmi->Trace_Inv >= 3 && nrows <= npiv) Doc(vmi, "Remaining Matrix is empty.");
}

// ---------------------------------------------------------------------------
// Dense_Pivot.
// ---------------------------------------------------------------------------

namespace {

// Clears the places of the block rows 1..nr and block columns 1..nc.
void Clear_Block_Marks(Bump_State &s, int32_t nr, int32_t nc) {
  IIN *iin = s.iin;
  for (int32_t i = 1; i <= nr; ++i) iin->Indr.V[iin->Lisr.V[i]] = 0;
  for (int32_t j = 1; j <= nc; ++j) iin->Indc.V[iin->Lisc.V[j]] = 0;
}

// Exchanges block rows i1 and i2 over all n columns.
void Swap_Rows(double *a, int32_t ld, int32_t n, int32_t i1, int32_t i2) {
  for (int32_t j = 1; j <= n; ++j) {
    double *c = Column(a, ld, j);
    std::swap(c[i1 - 1], c[i2 - 1]);
  }
}

}  // namespace

void Dense_Pivot(Bump_State &s, int32_t ld) {
  VMI *vmi = s.vmi;
  VIM *vim = s.vim;
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  const int32_t n = s.Rowlft;
  const int32_t base = s.Piv_Indx;

  if (vmi->Trace_Inv >= 1) Doc(vmi, "Final Dense Block has%8d Rows and Columns.", n);
  luf->D_Size = n;

  // The set-up the driver promises: the block is the whole rest, Mmat and the
  // block lists hold it, the chosen pivot is active.
  if (n < 1 || base + n - 1 != s.NumRow || ld < n ||
      static_cast<int64_t>(Size(iin->Mmat)) < static_cast<int64_t>(ld) * n || Size(iin->Lisr) < n ||
      Size(iin->Lisc) < n || s.Piv_Row < 1 || s.Piv_Row > s.NumRow || s.Piv_Col < 1 ||
      s.Piv_Col > s.NumRow || vim->Rotn.V[s.Piv_Row] < base || vim->Cotn.V[s.Piv_Col] < base) {
    Doc(vmi, "Dense_Pivot: Rowlft=%d Piv_Indx=%d NumRow=%d Ld=%d Size(Mmat)=%d", n, base, s.NumRow,
        ld, Size(iin->Mmat));
    Doc(vmi, "Dense_Pivot: Size(Lisr)=%d Size(Lisc)=%d Piv_Row=%d Piv_Col=%d", Size(iin->Lisr),
        Size(iin->Lisc), s.Piv_Row, s.Piv_Col);
    Internal_Error(vmi, Err_Dense_Setup, true);
    return;
  }

  // Room for the triangle of U and for the multipliers of L.
  const int64_t nuele = static_cast<int64_t>(n) * (n + 1) / 2;
  const int64_t nlele = static_cast<int64_t>(n) * (n - 1) / 2;
  if (luf->U_elefirst - nuele <= luf->RowFileUsed) {
    Doc(vmi, "U_SPACE in Dense_Pivot: U_elefirst=%d Nuele=%lld RowFileUsed=%d", luf->U_elefirst,
        static_cast<long long>(nuele), luf->RowFileUsed);
    Doc(vmi, "Insufficient memory in U.");
    Internal_Error(vmi, Err_Dense_U_Space, true);
    return;
  }
  {
    const int64_t lsize = std::min({Size(luf->Lmat), Size(luf->Lrow), Size(luf->Lpiv)});
    if (luf->LFileUsed + nlele > lsize || luf->L_Cols + n > Size(luf->Lsor)) {
      Doc(vmi, "L_SPACE in Dense_Pivot: LFileUsed=%d Nlele=%lld size(Lmat)=%lld L_Cols=%d",
          luf->LFileUsed, static_cast<long long>(nlele), static_cast<long long>(lsize),
          luf->L_Cols);
      Doc(vmi, "Insufficient memory in L.");
      Internal_Error(vmi, Err_Dense_L_Space, true);
      return;
    }
  }

  // 1. The block lists: the chosen pivot at place 1, the rest in position
  // order.
  int32_t *lisr = iin->Lisr.V;
  int32_t *lisc = iin->Lisc.V;
  int32_t *indr = iin->Indr.V;
  int32_t *indc = iin->Indc.V;
  {
    const int32_t *rnto = vim->Rnto.V;
    const int32_t *cnto = vim->Cnto.V;
    const int32_t *rlen = luf->Rlen.V;
    const int32_t *clen = luf->Clen.V;
    const int32_t *mrow = iin->Mrow.V;
    const int32_t *mact = iin->Mact.V;
    lisr[1] = s.Piv_Row;
    indr[s.Piv_Row] = 1;
    lisc[1] = s.Piv_Col;
    indc[s.Piv_Col] = 1;
    int32_t nr = 1, nc = 1;
    int32_t badRow = 0, badCol = 0;
    for (int32_t k = base; k <= s.NumRow; ++k) {
      const int32_t r = rnto[k];
      const int32_t c = cnto[k];
      if (mrow[r] < 0 && badRow == 0) badRow = r;
      if (mact[c] < 0 && badCol == 0) badCol = c;
      if (r != s.Piv_Row && nr < n) {
        lisr[++nr] = r;
        indr[r] = nr;
        s.St.Elem_Rows += rlen[r];
      }
      if (c != s.Piv_Col && nc < n) {
        lisc[++nc] = c;
        indc[c] = nc;
        s.St.Elem_Cols += clen[c];
      }
    }
    if (badRow != 0 || badCol != 0) {
      if (badRow != 0) Doc(vmi, "Error. There are dense rows in Dense_Pivot");
      if (badCol != 0) Doc(vmi, "Error. There are dense columns in Dense_Pivot");
      Clear_Block_Marks(s, nr, nc);
      Internal_Error(vmi, badRow != 0 ? Err_Dense_Rows : Err_Dense_Cols, true);
      return;
    }
  }

  // 2. The block: cleared, then the active rows scattered into it by their
  // columns; tails included (two fills of one place add up), removed slots
  // (column 0) skipped.  Region "Inversion_FactorBump_H": rows in stretches,
  // each thread writing its own block rows.
  double *a = iin->Mmat.Val + 1;
  for (int32_t j = 1; j <= n; ++j) Zero_Real(Column(a, ld, j) - 1, n);
  {
    const int32_t *rstr = luf->Rstr.V;
    const int32_t *rlen = luf->Rlen.V;
    const int32_t *ic = luf->Ic.V;
    const int32_t *r2cp = iin->R2cp.V;
    const double *aur = vim->AUrmat.Val;
    int32_t T = Wrap_Mul(n, n) / Scatter_Work;
    T = std::max(1, std::min(T, std::min(vmi->Threads, n)));
    int32_t strayRow = 0, strayCol = 0;
    for (int32_t t = 1; t <= T; ++t) {
      int32_t lo, hi;
      Stretch(1, n, T, t, lo, hi);
      for (int32_t i = lo; i <= hi; ++i) {
        const int32_t r = lisr[i];
        const int32_t end = rstr[r] + rlen[r] + Row_Tail(s, r);
        double *row = a + (i - 1);
        for (int32_t p = rstr[r]; p < end; ++p) {
          const int32_t c = ic[p];
          if (c == 0) continue;
          const int32_t j = indc[c];
          if (j == 0) {
            strayRow = r;
            strayCol = c;
            continue;
          }
          row[static_cast<ptrdiff_t>(j - 1) * ld] += aur[r2cp[p]];
        }
      }
    }
    if (strayRow != 0) {
      Doc(vmi, "Dense_Pivot: row %d holds column %d, which is not active.", strayRow, strayCol);
      Clear_Block_Marks(s, n, n);
      Internal_Error(vmi, Err_Dense_Scatter, true);
      return;
    }
    // The rows and columns now live in the block only.
    for (int32_t k = 1; k <= n; ++k) {
      iin->Mrex.V[lisr[k]] = 0;
      luf->Clen.V[lisc[k]] = 0;
      iin->Mcex.V[lisc[k]] = 0;
    }
  }

  // 3. The pivot loop, left-looking with the updates delayed in batches.
  const int32_t numSing0 = vim->Num_Sing;
  const double ufacLimit = 1.1e15 * vim->Ufac_Scale;
  const bool stopOnSingular = vmi->Lssqrs || vmi->TraceCNS || vim->In_OneDim;
  int32_t npused = 0;
  for (int32_t k = 1; k <= n; ++k) {
    double *ck = Column(a, ld, k);
    s.Piv_Row = lisr[k];
    s.Piv_Col = lisc[k];
    s.Len_Piv_Row = n - k + 1;
    s.Len_Piv_Col = n - k + 1;
    s.MarkBest = static_cast<int32_t>(
        std::min<int64_t>(static_cast<int64_t>(n - k) * (n - k), Mark_Infinite));
    s.Bad_Pivot = false;
    Test_Pivot(s, 0.0, ck[k - 1]);
    if (Stopped(s)) {
      Clear_Block_Marks(s, n, n);
      return;
    }
    const double pivot = ck[k - 1];
    for (int32_t i = k; i < n; ++i) ck[i] = ck[i] / pivot;

    double umax = 0.0;
    Update_URow(a, ld, k - 1, npused, n, umax);
    vim->Max_UFac = std::max(vim->Max_UFac, umax / std::fabs(pivot));
    if (!vim->Large_Ufac && vim->Max_UFac > ufacLimit) {
      vim->Large_Ufac = true;
      if (vmi->Trace_Inv >= 1)
        Doc(vmi, "Large_Ufac set to .true. after Update_Urow. Umax=%13.5E and Pivot=%13.5E", umax,
            pivot);
    }

    if (s.Bad_Pivot) {
      // The slack of the pivot row takes the place of the column.
      if (stopOnSingular) {
        Clear_Block_Marks(s, n, n);
        return;
      }
      s.Bad_Pivot = false;
      const int32_t place = lisc[k];
      const int32_t row = lisr[k];
      if (vim->Num_Sing >= 1 && vim->Num_Sing <= Size(vim->HelpZ))
        vim->HelpZ.V[vim->Num_Sing] = place;
      const int32_t leaving = vim->Cbto.V[place];
      const int32_t entering = vim->NumCol + row;
      vim->Cbto.V[place] = entering;
      if (vmi->Trace_Inv > 2) {
        Doc(vmi, "Basis change in Factor_Bump/Dense_Pivot:");
        Doc(vmi, "Leaving  column=%10d", leaving);
        Doc(vmi, "Entering column=%10d = Slack in row%10d", entering, row);
        Doc(vmi, "L_Cols=%10d", luf->L_Cols);
      }
      RecordBasisChange(vmi, entering, leaving);
      if (Stopped(s)) {
        Clear_Block_Marks(s, n, n);
        return;
      }
      // The slack has nothing right of the diagonal; no later update may see
      // the old values.
      for (int32_t j = k + 1; j <= n; ++j) Column(a, ld, j)[k - 1] = 0.0;
    }

    if (k == npused + Batch_Width) Inter_Updt(a, ld, n, n, k, npused);

    if (k < n) {
      double largest = 0.0;
      int32_t best = k + 1;
      Update_LCol(a, ld, k, npused, k + 1, n, largest, best);
      if (best != k + 1) {
        Swap_Rows(a, ld, n, k + 1, best);
        std::swap(lisr[k + 1], lisr[best]);
        indr[lisr[k + 1]] = k + 1;
        indr[lisr[best]] = best;
      }
    }
  }

  // 4. The permutations of the dense positions.
  {
    int32_t *rnto = vim->Rnto.V, *rotn = vim->Rotn.V;
    int32_t *cnto = vim->Cnto.V, *cotn = vim->Cotn.V;
    for (int32_t k = 1; k <= n; ++k) {
      const int32_t pos = base + k - 1;
      rnto[pos] = lisr[k];
      rotn[lisr[k]] = pos;
      cnto[pos] = lisc[k];
      cotn[lisc[k]] = pos;
    }
  }

  // 5. U: the packed triangle, the row of place k starting at
  // U_elefirst + (n - k)(n - k + 1) / 2.  Regions "Inversion_FactorBump_L" /
  // "Inversion_FactorBump_M1" split it by BalanceTria when there are threads;
  // with one thread it runs here.
  const int32_t ufirst = luf->U_elefirst - static_cast<int32_t>(nuele);
  {
    int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V, *ic = luf->Ic.V;
    double *aur = vim->AUrmat.Val;
    for (int32_t k = 1; k <= n; ++k) {
      const int32_t len = n - k + 1;
      const int32_t start =
          ufirst + static_cast<int32_t>(static_cast<int64_t>(n - k) * (n - k + 1) / 2);
      rstr[lisr[k]] = start;
      rlen[lisr[k]] = len;
      for (int32_t j = k; j <= n; ++j) {
        ic[start + j - k] = lisc[j];
        aur[start + j - k] = Column(a, ld, j)[k - 1];
      }
    }
  }
  luf->U_elefirst = ufirst;

  // 6. L: the multipliers below each pivot, exact 0 at or below Tol_Small.
  {
    const int32_t numSing = vim->Num_Sing;
    const int32_t *helpz = vim->HelpZ.V;
    const double tolSmall = s.Tol_Small;
    double *lmat = luf->Lmat.Val;
    int32_t *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V, *lsor = luf->Lsor.V;
    if (numSing > numSing0) {
      // Some columns were replaced: store one by one, skipping theirs.
      int32_t pos = luf->LFileUsed;
      for (int32_t k = 1; k < n; ++k) {
        if (Int_Lookup(helpz, numSing0 + 1, numSing, lisc[k]) != 0) continue;
        const double *ck = Column(a, ld, k);
        for (int32_t i = k + 1; i <= n; ++i) {
          const double m = ck[i - 1];
          ++pos;
          lmat[pos] = std::fabs(m) <= tolSmall ? 0.0 : m;
          lrow[pos] = lisr[i];
          lpiv[pos] = lisr[k];
        }
        luf->L_Cols += 1;
        lsor[luf->L_Cols + 1] = pos + 1;
      }
      luf->LFileUsed = pos;
    } else {
      if (vmi->Trace_Threads) Doc(vmi, "Inversion_FactorDump_M run sequentially");
      const int32_t l0 = luf->LFileUsed;
      const int32_t c0 = luf->L_Cols;
      for (int32_t k = 1; k < n; ++k) {
        // Column k starts behind the n - 1, n - 2, ... multipliers before it.
        const int32_t start = l0 + 1 +
                              static_cast<int32_t>(static_cast<int64_t>(k - 1) * n -
                                                   static_cast<int64_t>(k - 1) * k / 2);
        lsor[c0 + k] = start;
        const double *ck = Column(a, ld, k);
        for (int32_t i = k + 1; i <= n; ++i) {
          const double m = ck[i - 1];
          const int32_t pos = start + i - k - 1;
          lmat[pos] = std::fabs(m) <= tolSmall ? 0.0 : m;
          lrow[pos] = lisr[i];
          lpiv[pos] = lisr[k];
        }
      }
      if (n > 1) {
        luf->L_Cols = c0 + n - 1;
        luf->LFileUsed = l0 + static_cast<int32_t>(nlele);
        lsor[luf->L_Cols + 1] = luf->LFileUsed + 1;
      }
    }
  }

  // 7. Nothing is active any more: empty chains, places cleared; the fill of
  // the block counted so that no element is left.
  Clear_Block_Marks(s, n, n);
  iin->RPfrst = iin->RPlast = 0;
  iin->CPfrst = iin->CPlast = 0;
  iin->RowFill = static_cast<int32_t>(iin->RowFill - Elements_Left(s));
  s.St.Dense += n;

  if (vmi->Trace_Inv >= 3 || vmi->Test_Trace > 0) {
    const int32_t nrow = s.NumRow;
    for (int32_t i = 1; i <= nrow; ++i) {
      if (indr[i] != 0) {
        Doc(vmi, "DENSE_PIVOT: IIN%%Indr(%d)=%d", i, indr[i]);
        Internal_Error(vmi, Err_Dense_Marks, true);
        return;
      }
      if (indc[i] != 0) {
        Doc(vmi, "DENSE_PIVOT: IIN%%Indc(%d)=%d", i, indc[i]);
        Internal_Error(vmi, Err_Dense_Marks, true);
        return;
      }
    }
  }
}

}  // namespace vlu
