// The triangular phases of a factorization.
//
// The basic columns listed in VIM%Cbto are read from the matrix store and
// every pivot that needs no arithmetic is found by counting alone: the basic
// slacks, the post-triangular part (columns with one active element) and the
// pre-triangular part (rows with one active element).  The triangular rows go
// to the U-file, which grows downward from RowUSpace, the pre-triangular
// multipliers to the L-file, and what is left, the bump, is loaded into the
// row file and the column file with cross pointers for the elimination.
//
// Columns are known here by their place k in VIM%Cbto; LUF%Clen, LUF%Cstr,
// VIM%Cotn, VIM%Cnto and LUF%Ic speak of places.  An element of the matrix
// store exists when its magnitude is not below Tol_Zero; every scan repeats
// that test, nothing is compressed in the store.
//
// No scratch vector is allocated: the row write positions (Rfree), the queue
// of singletons (Queue) and the old row lengths (RlenOld) live in the memory
// of VIM%Rnto and VIM%Cnto, which are not needed before the phases end.
//
// The count of step 2 tells whether the basic columns hold any element below
// Tol_Zero at all.  Mostly they do not, and the later passes are then
// compiled without the test (Extract_Phases<true>); their visiting order is
// the same either way.  The pivot test of a triangular pivot that is clearly
// good only lowers Min_Pivot and is done in line; every other case (a small
// pivot, a slack, a trace) goes through Small_Pivot_Post / Small_Pivot_Pre.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "factor/factor.h"
#include "runtime/clock.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

constexpr int Err_No_Pivot_Element = 3201;
constexpr int Err_No_Bump_Space = 3202;

// An element of the matrix store exists when its magnitude is not below
// Tol_Zero (a NaN exists).  Clean: the count found no other kind.
template <bool Clean>
inline bool Exists(const double *jace, int32_t p, double tolZero) {
  return Clean || !(std::fabs(jace[p]) < tolZero);
}

// Steps 3 to 14 (see ExtractBasis), with the queue of step 5 as step 2 left
// it (tail entries).
template <bool Clean>
void Extract_Phases(VMI *vmi, double tStart, IntVec &queueVec, int32_t tail) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;

  const int32_t n = vim->NumRow;
  const int32_t numCol = vim->NumCol;
  const int32_t numSlack = luf->Num_Slack;
  const double tolZero = vmi->Tol_Zero;
  const double rtpiva = vmi->Rtpiva;
  const double spaceFactor = vmi->Space_Factor;
  const bool stopFlags = vmi->Lssqrs || vmi->TraceCNS || vim->In_OneDim;
  auto giveUp = [&]() { return vim->Num_Sing > 0 && stopFlags; };
  // Pivots that pass their test are only counted in Min_Pivot, in line,
  // unless each pivot is traced or a small one would end the phases.
  const bool inlineTests = vmi->Trace_Inv < 3 && !stopFlags;

  int32_t *cbto = vim->Cbto.V;
  const int32_t *stcl = vim->Stcl.V;
  const int32_t *rnum = vim->Rnum.V;
  const double *jace = vim->Jace.Val;
  int32_t *rotn = vim->Rotn.V;
  int32_t *cotn = vim->Cotn.V;
  int32_t *helpz = vim->HelpZ.V;
  int32_t *rlen = luf->Rlen.V;
  int32_t *clen = luf->Clen.V;
  int32_t *rstr = luf->Rstr.V;
  int32_t *ic = luf->Ic.V;

  // 3. Row starts of the row lists; Rfree is the next free slot of a row.
  IntVec rfreeVec;
  Reuse_Int(vmi, vim->Rnto, "VIM%Rnto", rfreeVec, "Rfree");
  int32_t *rfree = rfreeVec.V;
  {
    int32_t pos = 1;
    for (int32_t i = 1; i <= n; ++i) {
      rstr[i] = pos;
      rfree[i] = pos;
      pos += rlen[i];
    }
  }

  // 4. Row lists: the places of each row, ascending.
  for (int32_t k = numSlack + 1; k <= n; ++k) {
    const int32_t j = cbto[k];
    const int32_t pe = stcl[j + 1];
    for (int32_t p = stcl[j]; p < pe; ++p) {
      if (!Exists<Clean>(jace, p, tolZero)) continue;
      ic[rfree[rnum[p]]++] = k;
    }
  }

  // 5. Post-triangular phase: column singletons, taken from a queue (the
  // places of one element are in it already).
  int32_t *queue = queueVec.V;

  // Removing a row lowers the counts of its columns; a column that is left
  // with one element joins the queue.
  auto removeRow = [&](int32_t i) {
    const int32_t end = rstr[i] + rlen[i];
    for (int32_t q = rstr[i]; q < end; ++q) {
      const int32_t c = ic[q];
      if (--clen[c] == 1) queue[++tail] = c;
    }
  };

  for (int32_t k = 1; k <= numSlack; ++k) {
    const int32_t i = cbto[k] - numCol;
    rotn[i] = k;
    cotn[k] = k;
    clen[k] = 0;
    removeRow(i);
  }
  int32_t numPost = numSlack;

  for (int32_t head = 1; head <= tail; ++head) {
    const int32_t k = queue[head];
    if (clen[k] != 1) continue;
    const int32_t j = cbto[k];
    int32_t p = 0, i = 0;
    if (j > numCol) {
      i = j - numCol;
    } else {
      const int32_t pe = stcl[j + 1];
      for (int32_t q = stcl[j]; q < pe; ++q) {
        if (Exists<Clean>(jace, q, tolZero) && rotn[rnum[q]] == 0) {
          p = q;
          i = rnum[q];
          break;
        }
      }
    }
    if (i == 0) {
      Doc(vmi, "ExtractBasis: no active element in post-triangular column %d (place %d)", j, k);
      Internal_Error(vmi, Err_No_Pivot_Element, true);
      break;
    }
    ++numPost;
    const double size = p > 0 ? std::fabs(jace[p]) : 0.0;
    if (inlineTests && j <= numCol && p > 0 && size > rtpiva) {
      if (size < vim->Min_Pivot) vim->Min_Pivot = size;
    } else {
      Small_Pivot_Post(vmi, p, i, k, numPost);
      if (giveUp()) break;
    }
    rotn[i] = numPost;
    cotn[k] = numPost;
    removeRow(i);
  }
  luf->Num_Post = numPost;
  if (vmi->Trace_Inv >= 1)
    Doc(vmi, " Number of Variable Post-triangular%8d of which slacks%8d", numPost, numSlack);

  // 6. Pre-triangular phase: row singletons.  The row stretches keep their
  // old lengths, the counts fall as columns are pivoted.
  Reuse_Int(vmi, rfreeVec, "Rfree", vim->Rnto, "VIM%Rnto");
  IntVec rlenOldVec;
  Reuse_Int(vmi, vim->Rnto, "VIM%Rnto", rlenOldVec, "RlenOld");
  int32_t *rlenOld = rlenOldVec.V;
  tail = 0;
  for (int32_t i = 1; i <= n; ++i) {
    rlenOld[i] = rlen[i];
    if (rotn[i] == 0 && rlen[i] == 1) queue[++tail] = i;
  }
  int32_t numPre = 0;
  int32_t numVTria = numPost;
  if (!giveUp() && vmi->Exception == 0) {
    for (int32_t head = 1; head <= tail; ++head) {
      const int32_t i = queue[head];
      if (rlen[i] != 1) continue;
      int32_t k = 0;
      const int32_t end = rstr[i] + rlenOld[i];
      for (int32_t q = rstr[i]; q < end; ++q) {
        if (cotn[ic[q]] == 0) {
          k = ic[q];
          break;
        }
      }
      if (k == 0) {
        Doc(vmi, "ExtractBasis: no active column in pre-triangular row %d", i);
        Internal_Error(vmi, Err_No_Pivot_Element, true);
        break;
      }
      ++numPre;
      ++numVTria;
      // The column as it was before the pivot test: a repair puts the slack
      // of row i in its place, and the other active rows of the old column
      // lose their element all the same.
      const int32_t j = cbto[k];
      if (inlineTests && j <= numCol) {
        // One pass over the column finds the pivot and takes the column out
        // of its active rows (the pivot row too; it is pivoted below).  The
        // test comes after it: a repair only touches rows already pivoted.
        int32_t p = 0;
        const int32_t pe = stcl[j + 1];
        for (int32_t q = stcl[j]; q < pe; ++q) {
          const int32_t r = rnum[q];
          if (r == i && p == 0) p = q;
          if (!Exists<Clean>(jace, q, tolZero) || rotn[r] != 0) continue;
          if (--rlen[r] == 1) queue[++tail] = r;
        }
        const double size = p > 0 ? std::fabs(jace[p]) : 1.0;
        if (size > rtpiva) {
          if (size < vim->Min_Pivot) vim->Min_Pivot = size;
          helpz[numPre] = p;
        } else {
          helpz[numPre] = Small_Pivot_Pre(vmi, i, k, numVTria);
        }
      } else {
        helpz[numPre] = Small_Pivot_Pre(vmi, i, k, numVTria);
        if (giveUp()) break;
        if (j > numCol) {
          const int32_t r = j - numCol;
          if (rotn[r] == 0) {
            if (--rlen[r] == 1) queue[++tail] = r;
          }
        } else {
          const int32_t pe = stcl[j + 1];
          for (int32_t q = stcl[j]; q < pe; ++q) {
            if (!Exists<Clean>(jace, q, tolZero)) continue;
            const int32_t r = rnum[q];
            if (rotn[r] != 0) continue;
            if (--rlen[r] == 1) queue[++tail] = r;
          }
        }
      }
      rotn[i] = numVTria;
      cotn[k] = numVTria;
    }
  }
  luf->Num_Pre = numPre;
  luf->NumVTria = numVTria;
  if (vmi->Trace_Inv >= 1) Doc(vmi, " Number of Variable Pre-triangular %8d", numPre);

  // 7. Give the permutations their memory back and number the bump.
  Reuse_Int(vmi, queueVec, "Queue", vim->Cnto, "VIM%Cnto");
  Reuse_Int(vmi, rlenOldVec, "RlenOld", vim->Rnto, "VIM%Rnto");
  if (giveUp() || vmi->Exception != 0) {
    Zero_Int(helpz, numPre);
    return;
  }
  int32_t *rnto = vim->Rnto.V;
  int32_t *cnto = vim->Cnto.V;
  {
    int32_t next = numVTria;
    for (int32_t i = 1; i <= n; ++i) {
      if (rotn[i] == 0) rotn[i] = ++next;
      rnto[rotn[i]] = i;
    }
    next = numVTria;
    for (int32_t c = 1; c <= n; ++c) {
      if (cotn[c] == 0) cotn[c] = ++next;
      cnto[cotn[c]] = c;
    }
  }

  // 8. Positions of the rows.  The U-file fills downward in pivot order; the
  // bump rows get room of Space_Factor per element from the bottom of the
  // store.  HelpI holds the write position of every row from here on.
  int32_t *helpi = vim->HelpI.V;
  double *aur = vim->AUrmat.Val;
  int32_t uFirst = luf->RowUSpace + 1;
  for (int32_t k = 1; k <= numSlack; ++k) {
    const int32_t i = rnto[k];
    rlen[i] += 1;
    uFirst -= rlen[i];
    rstr[i] = uFirst;
    helpi[i] = uFirst + 1;
  }
  for (int32_t k = numSlack + 1; k <= numPost; ++k) {
    const int32_t i = rnto[k];
    uFirst -= rlen[i];
    rstr[i] = uFirst;
    helpi[i] = uFirst;
  }
  for (int32_t k = numPost + 1; k <= numVTria; ++k) {
    const int32_t i = rnto[k];
    uFirst -= 1;
    rstr[i] = uFirst;
    helpi[i] = uFirst;
    rlen[i] = 1;
  }
  int32_t rowFileUsed = 0;
  {
    int32_t v = 1;
    for (int32_t k = numVTria + 1; k <= n; ++k) {
      const int32_t i = rnto[k];
      rstr[i] = v;
      helpi[i] = v;
      rowFileUsed = v + rlen[i] - 1;
      v += static_cast<int32_t>(rlen[i] * spaceFactor);
    }
  }
  // The sizing of the driver leaves room for all of this; a shortfall would
  // overwrite the U-file.
  const int32_t lowLimit = (luf->ColASpace + 1 < uFirst ? luf->ColASpace + 1 : uFirst);
  if (uFirst < 1 || rowFileUsed >= lowLimit) {
    Doc(vmi, "ExtractBasis: no room for the row file. RowFileUsed=%d U_elefirst=%d ColASpace=%d",
        rowFileUsed, uFirst, luf->ColASpace);
    Internal_Error(vmi, Err_No_Bump_Space, true);
    return;
  }
  // The slack pivots.
  for (int32_t k = 1; k <= numSlack; ++k) {
    const int32_t q = rstr[rnto[k]];
    ic[q] = k;
    aur[q] = 1.0;
  }

  // 9. Post-triangular columns into the rows of U.  Such a column touches
  // only its own row and rows pivoted before it, and the places are visited
  // in pivot order, so each row of U starts with its pivot.
  const bool singular = vim->Num_Sing != 0;
  for (int32_t k = numSlack + 1; k <= numPost; ++k) {
    const int32_t c = cnto[k];
    const int32_t j = cbto[c];
    if (singular && j > numCol) {
      const int32_t q = helpi[j - numCol]++;
      ic[q] = c;
      aur[q] = 1.0;
      continue;
    }
    const int32_t pe = stcl[j + 1];
    for (int32_t p = stcl[j]; p < pe; ++p) {
      if (!Exists<Clean>(jace, p, tolZero)) continue;
      const int32_t q = helpi[rnum[p]]++;
      ic[q] = c;
      aur[q] = jace[p];
    }
  }

  // 10-11. Pre-triangular columns: elements in rows pivoted later are the
  // multipliers of the L column, the others belong to rows of U.
  int32_t *lsor = luf->Lsor.V;
  lsor[1] = 1;
  int32_t lCols = 0;
  int32_t m = 0;
  {
    // The L-file as it stands; fetched again after a growth.
    double *lmat = luf->Lmat.Val;
    int32_t *lrow = luf->Lrow.V, *lpiv = luf->Lpiv.V;
    int32_t lRoom = std::min(Size(luf->Lmat), std::min(Size(luf->Lrow), Size(luf->Lpiv)));
    for (int32_t k = numPost + 1; k <= numVTria; ++k) {
      const int32_t c = cnto[k];
      clen[c] = 0;
      const int32_t j = cbto[c];
      const int32_t pre = k - numPost;
      if (j > numCol) {
        const int32_t q = helpi[j - numCol]++;
        ic[q] = c;
        aur[q] = 1.0;
        helpz[pre] = 0;
        continue;
      }
      const int32_t i = rnto[k];
      const double d = jace[helpz[pre]];
      const int32_t pe = stcl[j + 1];
      for (int32_t p = stcl[j]; p < pe; ++p) {
        const double a = jace[p];
        if (!Exists<Clean>(jace, p, tolZero)) continue;
        const int32_t r = rnum[p];
        if (rotn[r] > k) {
          if (m >= lRoom) {
            Increase_L(vmi, m + 1);
            if (vmi->Exception != 0 || !vmi->EnoughSpace) return;
            lmat = luf->Lmat.Val;
            lrow = luf->Lrow.V;
            lpiv = luf->Lpiv.V;
            lRoom = std::min(Size(luf->Lmat), std::min(Size(luf->Lrow), Size(luf->Lpiv)));
          }
          ++m;
          lmat[m] = a / d;
          lrow[m] = r;
          lpiv[m] = i;
        } else {
          const int32_t q = helpi[r]++;
          ic[q] = c;
          aur[q] = a;
        }
      }
      ++lCols;
      lsor[lCols + 1] = m + 1;
      helpz[pre] = 0;
    }
  }
  luf->L_Cols = lCols;

  // 12. Column starts of the bump, each on a cache line (8 m + 1).
  int32_t *cstr = luf->Cstr.V;
  int32_t colFileUsed = 0;
  {
    int32_t v = 1;
    for (int32_t k = numVTria + 1; k <= n; ++k) {
      const int32_t c = cnto[k];
      cstr[c] = v;
      colFileUsed = v + clen[c] - 1;
      v += static_cast<int32_t>(clen[c] * spaceFactor);
      v = ((v - 1 + 7) / 8) * 8 + 1;
    }
  }
  if (colFileUsed >= lowLimit) {
    Doc(vmi, "ExtractBasis: no room for the column file. ColFileUsed=%d U_elefirst=%d ColASpace=%d",
        colFileUsed, uFirst, luf->ColASpace);
    Internal_Error(vmi, Err_No_Bump_Space, true);
    return;
  }

  // 13. Load the bump.  Its elements in finished rows go to the U-file; the
  // active ones get one value, in the column file, and an index entry in
  // each file, tied by the cross pointers.
  int32_t *ir = luf->Ir.V;
  int32_t *r2cp = iin->R2cp.V;
  int32_t *c2rp = iin->C2rp.V;
  for (int32_t k = numVTria + 1; k <= n; ++k) {
    const int32_t c = cnto[k];
    const int32_t j = cbto[c];
    int32_t q = cstr[c];
    const int32_t pe = stcl[j + 1];
    for (int32_t p = stcl[j]; p < pe; ++p) {
      const double a = jace[p];
      if (!Exists<Clean>(jace, p, tolZero)) continue;
      const int32_t r = rnum[p];
      const int32_t pr = helpi[r]++;
      ic[pr] = c;
      if (rotn[r] <= numVTria) {
        aur[pr] = a;
      } else {
        aur[q] = a;
        ir[q] = r;
        r2cp[pr] = q;
        c2rp[q] = pr;
        ++q;
      }
    }
  }

  // 14. Physical chains of the bump rows and columns, in position order.
  {
    int32_t *rpnx = iin->Rpnx.V, *rppr = iin->Rppr.V;
    int32_t *cpnx = iin->Cpnx.V, *cppr = iin->Cppr.V;
    int32_t prevR = 0, prevC = 0;
    iin->RPfrst = iin->CPfrst = 0;
    for (int32_t k = numVTria + 1; k <= n; ++k) {
      const int32_t i = rnto[k];
      rppr[i] = prevR;
      rpnx[i] = 0;
      if (prevR != 0) rpnx[prevR] = i; else iin->RPfrst = i;
      prevR = i;
      const int32_t c = cnto[k];
      cppr[c] = prevC;
      cpnx[c] = 0;
      if (prevC != 0) cpnx[prevC] = c; else iin->CPfrst = c;
      prevC = c;
    }
    iin->RPlast = prevR;
    iin->CPlast = prevC;
  }
  luf->RowFileUsed = rowFileUsed;
  luf->ColFileUsed = colFileUsed;
  luf->U_elefirst = uFirst;
  luf->LFileUsed = m;
  iin->L_Elements = m;

  // 15. Time.
  if (vmi->Trace_Inv >= 1)
    Doc(vmi, "Time in ExtractBasis:%10.3f seconds.", Clock_Read(vmi) - tStart);
}

}  // namespace

void ExtractBasis(VMI *vmi) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const double tStart = vmi->Trace_Inv >= 1 ? Clock_Read(vmi) : 0.0;

  const int32_t n = vim->NumRow;
  const int32_t numSlack = luf->Num_Slack;
  const double tolZero = vmi->Tol_Zero;
  const int32_t *cbto = vim->Cbto.V;
  const int32_t *stcl = vim->Stcl.V;
  const int32_t *rnum = vim->Rnum.V;
  const double *jace = vim->Jace.Val;
  int32_t *rlen = luf->Rlen.V;
  int32_t *clen = luf->Clen.V;

  // 1. Start values.
  vim->Min_Pivot = (numSlack > 0 || n == 0) ? 1.0 : 1.0e15;
  Zero_Int(vim->Rotn.V, n);
  Zero_Int(vim->Cotn.V, n);
  Zero_Int(rlen, n);
  Zero_Int(clen, n);

  // 2. Count the existing elements of the structural columns by column and
  // by row; the rest are counted as removed zeros.  Places of one element
  // start the queue of step 5, which lives in the memory of VIM%Cnto.
  IntVec queueVec;
  Reuse_Int(vmi, vim->Cnto, "VIM%Cnto", queueVec, "Queue");
  int32_t *queue = queueVec.V;
  int32_t tail = 0;
  int32_t zeros = 0;
  for (int32_t k = numSlack + 1; k <= n; ++k) {
    const int32_t j = cbto[k];
    const int32_t p0 = stcl[j], pe = stcl[j + 1];
    int32_t cnt = 0;
    for (int32_t p = p0; p < pe; ++p) {
      if (std::fabs(jace[p]) < tolZero) continue;
      ++cnt;
      rlen[rnum[p]] += 1;
    }
    clen[k] = cnt;
    if (cnt == 1) queue[++tail] = k;
    zeros += (pe - p0) - cnt;
  }
  iin->Zeros_Removed = zeros;

  if (zeros == 0)
    Extract_Phases<true>(vmi, tStart, queueVec, tail);
  else
    Extract_Phases<false>(vmi, tStart, queueVec, tail);
}

}  // namespace vlu
