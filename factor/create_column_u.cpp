// The column copy of U.
//
// The elimination leaves U by rows in the U-file (LUF%Ic, VIM%AUrmat).  The
// solves and the updates also need it by columns: column c stands in LUF%Ir
// and LUF%Ucmat from LUF%Cstr(c), LUF%Clen(c) long, pivot first, the other
// rows in descending pivot order.  The copy sits at the top of the two
// vectors, ending at ColUSpace; below it everything is zero for the updates.
#include <algorithm>
#include <cstdint>

#include "factor/factor.h"
#include "runtime/clock.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {
constexpr int Err_Singular_Column = 3501;
}

void Increase_UCol(VMI *vmi, int32_t demand) {
  LUF *luf = vmi->Luf;
  const bool trace = vmi->Trace_Inv >= 2;
  if (trace) {
    Doc(vmi, "Increasing Column structure for U-factor Ir and Ucmat to at least%10d Copy=F",
        demand);
    Doc(vmi, "Original length Ir=%d and Ucmat=%d", Size(luf->Ir), Size(luf->Ucmat));
  }
  const int64_t t64 = std::max<int64_t>(
      demand, 2 * static_cast<int64_t>(std::min(Size(luf->Ir), Size(luf->Ucmat))));
  const int32_t t = static_cast<int32_t>(std::min<int64_t>(t64, 2147483647));
  // The copy is rebuilt from the rows, so the old contents need not move.
  if (Size(luf->Ir) <= t) Increase_Int(vmi, luf->Ir, "LUF%Ir", t - Size(luf->Ir), false);
  if (Size(luf->Ucmat) <= t) Increase_RVec(vmi, luf->Ucmat, t - Size(luf->Ucmat), false);
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Failure when attempting to increase Ir and Ucmat");
    return;
  }
  luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
  if (trace) {
    Doc(vmi, "Adjusted length Ir=%d and Ucmat=%d", Size(luf->Ir), Size(luf->Ucmat));
    Doc(vmi, "ColASpace=%d and ColUSpace=%d", luf->ColASpace, luf->ColUSpace);
  }
}

void CreateColumnU(VMI *vmi) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const int32_t n = vim->NumRow;
  const bool trace3 = vmi->Trace_Inv >= 3;
  double tStep = trace3 ? Clock_Read(vmi) : 0.0;
  auto stepTime = [&](const char *what) {
    if (!trace3) return;
    const double now = Clock_Read(vmi);
    Doc(vmi, "CreateColumnU %s:%10.3f seconds", what, now - tStep);
    tStep = now;
  };

  const int32_t *rnto = vim->Rnto.V;
  const int32_t *cnto = vim->Cnto.V;
  const int32_t dSize = luf->D_Size;
  const int32_t nSparse = n - dSize;

  // 1. Count the elements of each column.
  {
    int32_t *clen = luf->Clen.V;
    const int32_t *rstr = luf->Rstr.V;
    const int32_t *rlen = luf->Rlen.V;
    const int32_t *ic = luf->Ic.V;
    Zero_Int(clen, n);
    int64_t total = 0;
    for (int32_t k = 1; k <= nSparse; ++k) {
      const int32_t r = rnto[k];
      const int32_t end = rstr[r] + rlen[r];
      total += rlen[r];
      for (int32_t p = rstr[r]; p < end; ++p) clen[ic[p]] += 1;
    }
    if (dSize > 0) {
      total += static_cast<int64_t>(dSize) * (dSize + 1) / 2;
      for (int32_t i = 1; i <= dSize; ++i) clen[cnto[nSparse + i]] += i;
    }
    stepTime("count");

    // 2. Room at the top of Ir and Ucmat.
    if (total > luf->ColUSpace) {
      Increase_UCol(vmi, static_cast<int32_t>(std::min<int64_t>(total, 2147483647)));
      if (vmi->Exception != 0 || !vmi->EnoughSpace) return;
    }

    // 3. Column starts; HelpI is the write position of each column.
    luf->U_colfirst = luf->ColUSpace - static_cast<int32_t>(total) + 1;
  }
  int32_t *clen = luf->Clen.V;
  int32_t *cstr = luf->Cstr.V;
  int32_t *helpi = vim->HelpI.V;
  {
    int32_t pos = luf->U_colfirst;
    for (int32_t c = 1; c <= n; ++c) {
      cstr[c] = pos;
      helpi[c] = pos;
      pos += clen[c];
    }
  }

  // 4. The free parts of both stores hold zeros.
  int32_t *ir = luf->Ir.V;
  int32_t *ic = luf->Ic.V;
  Zero_Int(ir, luf->U_colfirst - 1);
  Zero_Int(ic, luf->U_elefirst - 1);
  stepTime("starts");

  double *ucmat = luf->Ucmat.Val;
  const double *aur = vim->AUrmat.Val;
  const int32_t *rstr = luf->Rstr.V;
  const int32_t *rlen = luf->Rlen.V;

  // 5. The dense final block: a packed triangle in which the row at position
  // k has n - k + 1 elements, and the row before it in pivot order follows it
  // in the file.  Column c at position k takes its pivot, then the element of
  // each earlier dense row, going up with a step that grows by one per row.
  if (dSize > 0) {
    for (int32_t k = n; k > nSparse; --k) {
      const int32_t c = cnto[k];
      int32_t pos = rstr[rnto[k]];
      int32_t q = helpi[c];
      ir[q] = rnto[k];
      ucmat[q] = aur[pos];
      ++q;
      for (int32_t kk = k - 1; kk > nSparse; --kk) {
        pos += n - kk + 1;
        ir[q] = rnto[kk];
        ucmat[q] = aur[pos];
        ++q;
      }
      helpi[c] = q;
    }
    stepTime("dense block");
  }

  // 6. The sparse rows from the last to the first: the first row to reach a
  // column is its pivot row, so no sort is needed.
  for (int32_t k = nSparse; k >= 1; --k) {
    const int32_t r = rnto[k];
    const int32_t end = rstr[r] + rlen[r];
    for (int32_t p = rstr[r]; p < end; ++p) {
      const int32_t c = ic[p];
      const int32_t q = helpi[c]++;
      ir[q] = r;
      ucmat[q] = aur[p];
    }
  }
  stepTime("sparse rows");

  // 7. Columns that the bump gave up keep only their pivot in U: the slack
  // that took their place has nothing else.
  const int32_t numSing = vim->Num_Sing;
  const int32_t numTria = vim->Num_Sing_Tria;
  if (numSing > numTria) {
    int32_t *helpz = vim->HelpZ.V;
    int32_t *rlenW = luf->Rlen.V;
    double *aurW = vim->AUrmat.Val;
    if (trace3) {
      Doc(vmi, " Initial Fill=%d, Tria-singular columns=%d Total singular columns=%d",
          iin->RowFill, numTria, numSing);
      Doc(vmi, "VIM%%HelpZ");
      for (int32_t s = numTria + 1; s <= numSing; ++s) Doc(vmi, "%8d%8d", s, helpz[s]);
    }
    for (int32_t s = numTria + 1; s <= numSing; ++s) {
      const int32_t c = helpz[s];
      helpz[s] = 0;
      if (c < 1 || c > n) continue;
      const int32_t first = cstr[c];
      const int32_t last = cstr[c] + clen[c] - 1;
      for (int32_t q = first + 1; q <= last; ++q) {
        const int32_t r = ir[q];
        ir[q] = 0;
        rlenW[r] -= 1;
        const int32_t end = rstr[r] + rlenW[r];  // the old last element
        int32_t found = 0;
        for (int32_t p = rstr[r] + 1; p <= end; ++p) {
          if (ic[p] == c) {
            found = p;
            break;
          }
        }
        if (found == 0) {
          Doc(vmi, "Did not find element. Rstr=%d and Rlen=%d", rstr[r], rlenW[r]);
          for (int32_t p = rstr[r]; p <= end; ++p) Doc(vmi, "J=%d and Ic=%d", p, ic[p]);
          Internal_Error(vmi, Err_Singular_Column, true);
          return;
        }
        ic[found] = ic[end];
        aurW[found] = aurW[end];
        ic[end] = 0;
      }
      iin->RowFill -= clen[c] - 1;
      luf->U_numele -= clen[c] - 1;
      clen[c] = 1;
    }
    if (vmi->Trace_Inv >= 1)
      Doc(vmi, " Fill reduced to%10d after removal of%8d", iin->RowFill, numSing);
  }
  // From here on, through the updates, the column file is the copy of U and
  // ColFileUsed its first used slot, as RowFileUsed is for the U-file.
  luf->ColFileUsed = luf->U_colfirst;
  luf->ColCopy = true;
}

}  // namespace vlu
