// Forward solve with the factors: W = U^-1 R L^-1 W, in place, by row.
//
// L stands in the L-file as eta columns (LUF%Lsor addresses them), followed
// by the row etas that updates append (LUF%Lstr addresses those).  U stands
// in its column copy (LUF%Cstr, LUF%Clen, LUF%Ir, LUF%Ucmat), pivot first in
// every column.  The solve of a right-hand side with few nonzeros keeps
// its rows in VIM%HelpI (marks in VIM%HelpZ, clear on return) and the
// positions U reaches as a bit set in IIN%Cpnx, which only the update uses
// otherwise and always writes before it reads.  The sparse L stages keep
// the L columns still to visit as a bit set there too, found through the
// map IIN%Rppr(row) = the L column whose pivot row it is (made by the
// first update after each factorization).
#include "solve/solve.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "factor/factor.h"
#include "runtime/clock.h"
#include "runtime/dumps.h"
#include "runtime/messages.h"

namespace vlu {

namespace {

// Dot product of one row eta, positions from..to: eight partial sums over
// blocks of eight, combined at the end, then the remainder one by one.  The
// grouping fixes the rounding and must stay as it is.
inline double Eta_Dot(const double *lmat, const int32_t *lpiv, const double *w,
                      int32_t from, int32_t to) {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  double s4 = 0.0, s5 = 0.0, s6 = 0.0, s7 = 0.0;
  int32_t p = from;
  const int32_t blockEnd = from + ((to - from + 1) / 8) * 8;
  for (; p < blockEnd; p += 8) {
    s0 += lmat[p] * w[lpiv[p]];
    s1 += lmat[p + 1] * w[lpiv[p + 1]];
    s2 += lmat[p + 2] * w[lpiv[p + 2]];
    s3 += lmat[p + 3] * w[lpiv[p + 3]];
    s4 += lmat[p + 4] * w[lpiv[p + 4]];
    s5 += lmat[p + 5] * w[lpiv[p + 5]];
    s6 += lmat[p + 6] * w[lpiv[p + 6]];
    s7 += lmat[p + 7] * w[lpiv[p + 7]];
  }
  double sum = s0 + s1 + s2 + s3 + s4 + s5 + s6 + s7;
  for (; p <= to; ++p) sum += lmat[p] * w[lpiv[p]];
  return sum;
}

// Magnitude of the last NaN among the listed rows, in list order.
double Last_NaN_Magnitude(const double *w, const int32_t *list, int32_t len) {
  double m = 0.0;
  for (int32_t i = 1; i <= len; ++i)
    if (w[list[i]] != w[list[i]]) m = std::fabs(w[list[i]]);
  return m;
}

// The end of the U stage: the count and the largest magnitude of the
// nonzeros, and the repair of the tolerances after a NaN or a huge value.
// `sumAbs` is the sum of the magnitudes: a sum of non-negative terms turns
// NaN only through a NaN term.  A NaN, once seen, is the maximum: the last
// one met, as a running maximum that takes every NaN would keep it.
void U_Solve_End(VMI *vmi, RVec &w, int32_t numNz, double maxAbs, double sumAbs) {
  VIM *vim = vmi->Vim;
  if (sumAbs != sumAbs) maxAbs = Last_NaN_Magnitude(w.Val, vim->HelpI.V, numNz);
  vim->Num_UpNz = numNz;
  vim->Max_UpCol = maxAbs;
  if (maxAbs != maxAbs || maxAbs >= 1.0e100) {
    if (vmi->Trace_Inv >= 1) Doc(vmi, "DefNan called from Vdsuxy. Max_UpCol=%15.7E", maxAbs);
    if (vmi->Trace_Inv >= 2) PS_RVec(vmi, w, "VIM%Work1", vim->NumRow);
    DefNan(vmi);
  }
}

}  // namespace

void L_Solve(VMI *vmi, RVec &w) {
  const bool timing = vmi->Timing;
  const double t0 = timing ? Clock_Read(vmi) : 0.0;

  LUF *luf = vmi->Luf;
  double *W = w.Val;
  const int32_t *lsor = luf->Lsor.V;
  const int32_t *lrow = luf->Lrow.V;
  const int32_t *lpiv = luf->Lpiv.V;
  const double *lmat = luf->Lmat.Val;
  const int32_t nCols = luf->L_Cols;
  const int32_t m = lsor[nCols + 1] - 1;

  // First stage: the L columns of the factorization.
  if (2 * static_cast<int64_t>(nCols) < static_cast<int64_t>(m) + 1) {
    // Long columns on average: a zero pivot value skips the whole column.
    for (int32_t k = 1; k <= nCols; ++k) {
      const int32_t p0 = lsor[k], p1 = lsor[k + 1];
      if (p0 == p1) continue;
      const double x = W[lpiv[p0]];
      if (x != 0.0)
        for (int32_t p = p0; p < p1; ++p) W[lrow[p]] -= lmat[p] * x;
    }
  } else {
    // Short columns: one flat pass, cheaper than testing each column.
    for (int32_t p = 1; p <= m; ++p) W[lrow[p]] -= lmat[p] * W[lpiv[p]];
  }

  // Second stage: the row etas of the updates.
  const int32_t used = luf->LFileUsed;
  const int32_t e = used - m;
  const int32_t groups = luf->L_Groups;
  if (e > 0 || groups > 0) {
    if (5 * static_cast<int64_t>(groups) < static_cast<int64_t>(e)) {
      const int32_t *lstr = luf->Lstr.V;
      int32_t prevEnd = m;
      for (int32_t g = 1; g <= groups; ++g) {
        const int32_t last = lstr[g + 1] - 1;
        const int32_t first = prevEnd + 1;
        if (last >= first) {
          W[lrow[last]] -= Eta_Dot(lmat, lpiv, W, first, last);
        } else if (last >= 1) {
          W[lrow[last]] -= 0.0;  // an empty eta: nothing to add
        }
        prevEnd = last;
      }
    } else {
      for (int32_t p = m + 1; p <= used; ++p) W[lrow[p]] -= lmat[p] * W[lpiv[p]];
    }
  }

  if (timing) {
    vmi->Vim->Calls_L_Solve += 1;
    vmi->Vim->Time_L_Solve += Clock_Read(vmi) - t0;
  }
}

namespace {

// The column copy of U as the solves read it.
struct U_Columns {
  const int32_t *cstr, *clen, *ir;
  const double *ucmat;
};

// One position of the backward solve with U: the value of its pivot row r
// is divided by the pivot of its column c and taken out of the rows below
// the pivot in that column.  A zero stays (a negative zero becomes +0) and
// gives false; a nonzero is counted in numNz and its magnitude goes into the
// largest and the sum.
inline bool U_Solve_Position(const U_Columns &u, double *W, int32_t r, int32_t c, int32_t &numNz,
                             double &maxAbs, double &sumAbs) {
  double x = W[r];
  if (x == 0.0) {
    W[r] = 0.0;
    return false;
  }
  const int32_t q = u.cstr[c];
  x = x / u.ucmat[q];
  W[r] = x;
  ++numNz;
  const double ax = std::fabs(x);
  maxAbs = ax > maxAbs ? ax : maxAbs;
  sumAbs += ax;
  const int32_t qEnd = q + u.clen[c];
  for (int32_t p = q + 1; p < qEnd; ++p) W[u.ir[p]] -= u.ucmat[p] * x;
  return true;
}

}  // namespace

void Vdsuxy(VMI *vmi, RVec &w) {
  const bool timing = vmi->Timing;
  const double t0 = timing ? Clock_Read(vmi) : 0.0;

  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  double *W = w.Val;
  const int32_t n = vim->NumRow;
  const int32_t *rnto = vim->Rnto.V;
  const int32_t *cnto = vim->Cnto.V;
  const U_Columns u{luf->Cstr.V, luf->Clen.V, luf->Ir.V, luf->Ucmat.Val};
  int32_t *helpi = vim->HelpI.V;

  int32_t numNz = 0;
  // The largest magnitude, and beside it the sum of all magnitudes, which
  // tells after the loop whether a NaN came out, without a test per row.
  double maxAbs = 0.0, sumAbs = 0.0;
  for (int32_t k = n; k >= 1; --k) {
    const int32_t r = rnto[k];
    if (U_Solve_Position(u, W, r, cnto[k], numNz, maxAbs, sumAbs)) helpi[numNz] = r;
  }
  U_Solve_End(vmi, w, numNz, maxAbs, sumAbs);
  if (timing) {
    vim->Calls_Vdsuxy += 1;
    vim->Time_Vdsuxy += Clock_Read(vmi) - t0;
  }
}

void Solve_Ftran(VMI *vmi, RVec &w) {
  const bool detail = vmi->Timing && vmi->Timing_Detail;
  const double t0 = detail ? Clock_Read(vmi) : 0.0;
  L_Solve(vmi, w);
  const double t1 = detail ? Clock_Read(vmi) : 0.0;
  Vdsuxy(vmi, w);
  if (detail) {
    const double t2 = Clock_Read(vmi);
    vmi->Vim->Time_Ftran_L += t1 - t0;
    vmi->Vim->Time_Ftran_U += t2 - t1;
  }
}

namespace {

// Share of NumRow up to which a solve keeps to the rows it reaches: past it
// the full forms are cheaper than the search of the rows.
constexpr int32_t Listed_Share = 10;

// Zeroes the first `words` words of a bit set; a call to memset costs more
// than a short loop.
inline void Clear_Words(uint32_t *bits, int32_t words) {
  if (words > 16) {
    std::memset(bits, 0, sizeof(uint32_t) * static_cast<size_t>(words));
    return;
  }
  for (int32_t i = 0; i < words; ++i) bits[i] = 0;
}

// The index of the lowest set bit of a nonzero word.
inline int32_t Lowest_Bit(uint32_t word) {
#if defined(__GNUC__) || defined(__clang__)
  return __builtin_ctz(word);
#else
  int32_t b = 0;
  while (((word >> b) & 1u) == 0) ++b;
  return b;
#endif
}

// The index of the highest set bit of a nonzero word.
inline int32_t Highest_Bit(uint32_t word) {
#if defined(__GNUC__) || defined(__clang__)
  return 31 - __builtin_clz(word);
#else
  int32_t b = 31;
  while ((word >> b) == 0) --b;
  return b;
#endif
}

// The L columns on a vector whose rows off the list hold +0: every column
// whose pivot row is listed and not zero is applied, in increasing order,
// and the rows it reaches join the list (marks 1).  With `lcol`, the map
// from a row to the L column it pivots (Build_L_Column_Map), the columns
// are found through a bit set of column numbers borrowed from IIN%Cpnx; a
// row listed by column k has its own column, if any, behind k, and a
// column before k whose pivot row is listed only now would have met a zero
// there, as in the sweep.  Without it every column is looked at.
int32_t L_Columns_Listed(VMI *vmi, double *W, int32_t *lst, int32_t *mk, int32_t len,
                         const int32_t *lcol) {
  const LUF *luf = vmi->Luf;
  const int32_t *lsor = luf->Lsor.V;
  const int32_t *lrow = luf->Lrow.V;
  const int32_t *lpiv = luf->Lpiv.V;
  const double *lmat = luf->Lmat.Val;
  const int32_t nCols = luf->L_Cols;
  if (nCols == 0) return len;
  // A few columns are swept faster than searched for.
  if (lcol == nullptr || nCols < 64) {
    int32_t p0 = lsor[1];
    for (int32_t k = 1; k <= nCols; ++k) {
      const int32_t p1 = lsor[k + 1];
      if (p0 != p1 && mk[lpiv[p0]] != 0) {
        const double x = W[lpiv[p0]];
        if (x != 0.0) {
          for (int32_t p = p0; p < p1; ++p) {
            const int32_t r = lrow[p];
            W[r] -= lmat[p] * x;
            if (mk[r] == 0) {
              mk[r] = 1;
              lst[++len] = r;
            }
          }
        }
      }
      p0 = p1;
    }
    return len;
  }
  uint32_t *bits = reinterpret_cast<uint32_t *>(vmi->Iin->Cpnx.V + 1);
  const int32_t words = (nCols >> 5) + 1;
  Clear_Words(bits, words);
  for (int32_t i = 1; i <= len; ++i) {
    const int32_t k = lcol[lst[i]];
    if (k > 0) bits[k >> 5] |= 1u << (k & 31);
  }
  for (int32_t wd = 0; wd < words; ++wd) {
    while (bits[wd] != 0) {
      const int32_t b = Lowest_Bit(bits[wd]);
      bits[wd] &= ~(1u << b);
      const int32_t k = (wd << 5) + b;
      const int32_t p0 = lsor[k], p1 = lsor[k + 1];
      const double x = W[lpiv[p0]];
      if (x == 0.0) continue;
      for (int32_t p = p0; p < p1; ++p) {
        const int32_t r = lrow[p];
        W[r] -= lmat[p] * x;
        if (mk[r] == 0) {
          mk[r] = 1;
          lst[++len] = r;
          const int32_t kr = lcol[r];
          if (kr > k) bits[kr >> 5] |= 1u << (kr & 31);
        }
      }
    }
  }
  return len;
}

// L_Solve on a vector whose rows off the list hold +0, extending the list
// (marks 1) by every row that the stage may make nonzero.  The arithmetic is
// that of L_Solve; where L_Solve takes the element form for the L columns,
// a column whose pivot value is zero is skipped here, which changes at most
// the sign of a zero, and every zero leaves the solve as +0.  Rows that get
// no element stay +0 and off the list.
int32_t L_Solve_Listed(VMI *vmi, double *W, int32_t *lst, int32_t *mk, int32_t len,
                       const int32_t *lcol, Spike_Cache *cache) {
  LUF *luf = vmi->Luf;
  const int32_t *lsor = luf->Lsor.V;
  const int32_t *lrow = luf->Lrow.V;
  const int32_t *lpiv = luf->Lpiv.V;
  const double *lmat = luf->Lmat.Val;
  const int32_t nCols = luf->L_Cols;
  const int32_t m = lsor[nCols + 1] - 1;

  len = L_Columns_Listed(vmi, W, lst, mk, len, lcol);
  if (cache != nullptr) {
    // The vector after the L columns, for the spike of the update.
    cache->outLen = len;
    for (int32_t i = 1; i <= len; ++i) {
      cache->outRows[i] = lst[i];
      cache->outVals[i] = W[lst[i]];
    }
    cache->valid = true;
    cache->finLen = -2;  // unknown until the row etas are done
  }

  const int32_t used = luf->LFileUsed;
  const int32_t e = used - m;
  const int32_t groups = luf->L_Groups;
  if (e <= 0 && groups <= 0) {
    if (cache != nullptr) cache->finLen = -1;  // the same as after the columns
    return len;
  }
  // A target that the etas leave at zero is stored as +0, as the full solve
  // would store it, and stays off the list.
  auto target = [&](int32_t r) {
    if (mk[r] != 0) return;
    if (W[r] != 0.0) {
      mk[r] = 1;
      lst[++len] = r;
    } else {
      W[r] = 0.0;
    }
  };
  if (5 * static_cast<int64_t>(groups) < static_cast<int64_t>(e)) {
    // Dot form; an empty eta subtracts 0.0, which changes nothing.
    const int32_t *lstr = luf->Lstr.V;
    int32_t prevEnd = m;
    for (int32_t g = 1; g <= groups; ++g) {
      const int32_t last = lstr[g + 1] - 1;
      const int32_t first = prevEnd + 1;
      prevEnd = last;
      if (last < first) continue;
      const int32_t r = lrow[last];
      W[r] -= Eta_Dot(lmat, lpiv, W, first, last);
      target(r);
    }
    if (cache != nullptr) {
      // The form of the update's spike too: the whole of it is kept.
      cache->finLen = len;
      for (int32_t i = 1; i <= len; ++i) {
        cache->finRows[i] = lst[i];
        cache->finVals[i] = W[lst[i]];
      }
    }
  } else {
    for (int32_t p = m + 1; p <= used; ++p) {
      const int32_t r = lrow[p];
      W[r] -= lmat[p] * W[lpiv[p]];
      target(r);
    }
  }
  return len;
}


}  // namespace

int32_t Listed_Rhs_Limit(int32_t numRow) { return numRow / Listed_Share; }

void Solve_Ftran_Listed(VMI *vmi, RVec &w, int32_t len, Spike_Cache *cache) {
  const bool timing = vmi->Timing;
  const bool detail = timing && vmi->Timing_Detail;
  const double t0 = timing ? Clock_Read(vmi) : 0.0;

  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  double *W = w.Val;
  const int32_t n = vim->NumRow;
  int32_t *lst = vim->HelpI.V;
  int32_t *mk = vim->HelpZ.V;
  const int32_t *rnto = vim->Rnto.V;
  const int32_t *rotn = vim->Rotn.V;
  const int32_t *cnto = vim->Cnto.V;
  const int32_t *cstr = luf->Cstr.V;
  const int32_t *clen = luf->Clen.V;
  const int32_t *ir = luf->Ir.V;
  const double *ucmat = luf->Ucmat.Val;
  const int32_t cap = n / Listed_Share;

  // The map from a row to its L column stands from the first update after
  // a factorization, which makes it, to the next factorization, which
  // leaves Updates_Done at 0 or at Max_Updates.
  const int32_t done = vim->Updates_Done;
  const int32_t *lcol = vmi->Iin->Rppr.V;
  const bool mapped = done >= 1 && done < vmi->Max_Updates && lcol[1] >= 0;
  if (cache != nullptr) {
    cache->valid = false;
    cache->inLen = len;
    for (int32_t i = 1; i <= len; ++i) {
      cache->inRows[i] = lst[i];
      cache->inVals[i] = W[lst[i]];
    }
  }
  len = L_Solve_Listed(vmi, W, lst, mk, len, mapped ? lcol : nullptr, cache);
  const double t1 = timing ? Clock_Read(vmi) : 0.0;
  if (timing) {
    vim->Calls_L_Solve += 1;
    vim->Time_L_Solve += t1 - t0;
  }

  // The rows that U reaches from the list: a row at position k reaches the
  // rows of the column at k behind its pivot.  Their positions are marked
  // in a bit set borrowed from IIN%Cpnx (free outside the update), which
  // hands them back from the last to the first, the order of the full form:
  // every value gets its updates in the same order.
  uint32_t *bits = reinterpret_cast<uint32_t *>(vmi->Iin->Cpnx.V + 1);
  const int32_t words = (n >> 5) + 1;
  bool full = len > cap;
  if (len == 0) {
    // Nothing to solve: every entry is +0 already, as the full form leaves
    // it (and the bit set is not touched, which an empty system lacks).
    U_Solve_End(vmi, w, 0, 0.0, 0.0);
    if (timing) vim->Calls_Vdsuxy += 1;
  } else if (!full) {
    Clear_Words(bits, words);
    for (int32_t i = 1; i <= len; ++i) {
      const int32_t k = rotn[lst[i]];
      bits[k >> 5] |= 1u << (k & 31);
      const int32_t c = cnto[k];
      const int32_t q = cstr[c], qEnd = q + clen[c];
      for (int32_t p = q + 1; p < qEnd; ++p) {
        const int32_t r = ir[p];
        if (mk[r] == 0) {
          mk[r] = 1;
          lst[++len] = r;
        }
      }
      if (len > cap) {
        full = true;
        break;
      }
    }
  }
  if (full) {
    for (int32_t i = 1; i <= len; ++i) mk[lst[i]] = 0;
    Vdsuxy(vmi, w);
  } else if (len > 0) {
    int32_t numNz = 0;  // the list is read no more: it takes the nonzeros
    double maxAbs = 0.0, sumAbs = 0.0;
    const U_Columns u{cstr, clen, ir, ucmat};
    for (int32_t wd = words - 1; wd >= 0; --wd) {
      uint32_t word = bits[wd];
      while (word != 0) {
        const int32_t b = Highest_Bit(word);
        word &= ~(1u << b);
        const int32_t k = (wd << 5) + b;
        const int32_t r = rnto[k];
        mk[r] = 0;
        if (U_Solve_Position(u, W, r, cnto[k], numNz, maxAbs, sumAbs)) lst[numNz] = r;
      }
    }
    U_Solve_End(vmi, w, numNz, maxAbs, sumAbs);
    if (timing) vim->Calls_Vdsuxy += 1;
  }
  if (timing) {
    const double t2 = Clock_Read(vmi);
    if (!full) vim->Time_Vdsuxy += t2 - t1;
    if (detail) {
      vim->Time_Ftran_L += t1 - t0;
      vim->Time_Ftran_U += t2 - t1;
    }
  }
}

bool Build_L_Column_Map(VMI *vmi, int32_t *lcol) {
  const LUF *luf = vmi->Luf;
  const int32_t n = vmi->Vim->NumRow;
  const int32_t *lsor = luf->Lsor.V, *lpiv = luf->Lpiv.V;
  std::memset(lcol + 1, 0, sizeof(int32_t) * static_cast<size_t>(n));
  for (int32_t k = 1; k <= luf->L_Cols; ++k) {
    if (lsor[k] == lsor[k + 1]) continue;
    const int32_t r = lpiv[lsor[k]];
    if (lcol[r] != 0) {
      lcol[1] = -1;
      return false;
    }
    lcol[r] = k;
  }
  return true;
}

int32_t L_Solve_Sparse(VMI *vmi, RVec &w, IntVec &list, IntVec &marks, int32_t listLen,
                       const int32_t *lcol, bool columnsDone) {
  const bool timing = vmi->Timing;
  const double t0 = timing ? Clock_Read(vmi) : 0.0;

  LUF *luf = vmi->Luf;
  double *W = w.Val;
  int32_t *lst = list.V;
  int32_t *mk = marks.V;
  const int32_t *lsor = luf->Lsor.V;
  const int32_t *lrow = luf->Lrow.V;
  const int32_t *lpiv = luf->Lpiv.V;
  const double *lmat = luf->Lmat.Val;
  const int32_t nCols = luf->L_Cols;
  const int32_t m = lsor[nCols + 1] - 1;
  int32_t len = listLen;

  // L columns, column form (unless the caller has done them).
  if (!columnsDone) len = L_Columns_Listed(vmi, W, lst, mk, len, lcol);

  // Row etas, dot form.
  const int32_t groups = luf->L_Groups;
  if (groups > 0) {
    const int32_t *lstr = luf->Lstr.V;
    int32_t prevEnd = m;
    for (int32_t g = 1; g <= groups; ++g) {
      const int32_t last = lstr[g + 1] - 1;
      const int32_t first = prevEnd + 1;
      prevEnd = last;
      if (last < first) {
        if (last >= 1) W[lrow[last]] -= 0.0;
        continue;
      }
      const int32_t r = lrow[last];
      W[r] -= Eta_Dot(lmat, lpiv, W, first, last);
      if (mk[r] == 0 && W[r] != 0.0) {
        mk[r] = 1;
        lst[++len] = r;
      }
    }
  }

  if (timing) {
    vmi->Vim->Calls_L_Solve_Sparse += 1;
    vmi->Vim->Time_L_Solve_Sparse += Clock_Read(vmi) - t0;
  }
  return len;
}

}  // namespace vlu
