// Pivot tests of the triangular phases.  The triangular pivots are chosen by
// counting alone; here their values are looked at.  A pivot that is not
// larger than the absolute tolerance makes the column leave the basis: the
// slack of the pivot row takes its place, and the counts of the rows already
// pivoted are corrected for the element that disappears.
#include <cmath>
#include <cstdint>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "update/update.h"

namespace vlu {

namespace {

// The common part of both tests.  p is the position of the pivot in the
// matrix store (0 for a slack column), word is "Post" or "Pre ".
void Test_Triangular_Pivot(VMI *vmi, int32_t p, int32_t i, int32_t k, int32_t pivNo,
                           const char *word) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t numCol = vim->NumCol;
  const int32_t j = vim->Cbto.V[k];
  const double size = (j > numCol || p <= 0) ? 1.0 : std::fabs(vim->Jace.Val[p]);

  if (size > vmi->Rtpiva) {
    if (size < vim->Min_Pivot) vim->Min_Pivot = size;
    if (vmi->Trace_Inv >= 3)
      Doc(vmi, "Piv no.%8d Row=%8d Col=%8d and Pivot=%13.5E %s", pivNo, i, k,
          (j > numCol || p <= 0) ? 1.0 : vim->Jace.Val[p], word);
    return;
  }

  vim->Num_Sing += 1;
  if (vmi->Trace_Inv >= 2) {
    Doc(vmi, "Small pivot in Variable %s-triangular (Row,Col)=(%d,%d)", word, i, j);
    Doc(vmi, "Pivot=%13.5E Absolute tolerance=%13.5E", size, vmi->Rtpiva);
  }

  if (vmi->Lssqrs || vmi->TraceCNS) {
    // No way around a small pivot in these modes: the run ends here.
    Vdnmsg(vmi, 2145, i, j, size, vmi->Rtpiva, true, true);
    vmi->Exit_Code = 14;
    return;
  }
  if (vim->In_OneDim) return;

  // Repair: the slack of the pivot row replaces the column at its place.
  const int32_t s = i + numCol;
  RecordBasisChange(vmi, s, j);
  if (vmi->Trace_Inv >= 2) Doc(vmi, "Incoming slack column=%d", s);
  if (vmi->Trace_Inv >= 1) Doc(vmi, "Basis change due to small pivot. NewBasis set to .true.");
  vim->Cbto.V[k] = s;
  vim->NewBasis = true;
  vim->AttemptCNS = false;

  // Rows already pivoted lose the element of the old column; the pivot row
  // keeps its count, the slack's 1.0 stands in for the dropped element.
  const int32_t *rotn = vim->Rotn.V;
  int32_t *rlen = luf->Rlen.V;
  if (j > numCol) {
    const int32_t r = j - numCol;
    if (rotn[r] != 0) rlen[r] -= 1;
    return;
  }
  const int32_t *stcl = vim->Stcl.V;
  const int32_t *rnum = vim->Rnum.V;
  const double *jace = vim->Jace.Val;
  const double tolZero = vmi->Tol_Zero;
  for (int32_t q = stcl[j]; q < stcl[j + 1]; ++q) {
    if (std::fabs(jace[q]) < tolZero) continue;
    const int32_t r = rnum[q];
    if (rotn[r] != 0) rlen[r] -= 1;
  }
}

}  // namespace

void Small_Pivot_Post(VMI *vmi, int32_t p, int32_t i, int32_t k, int32_t pivNo) {
  Test_Triangular_Pivot(vmi, p, i, k, pivNo, "Post");
}

int32_t Small_Pivot_Pre(VMI *vmi, int32_t i, int32_t k, int32_t pivNo) {
  VIM *vim = vmi->Vim;
  const int32_t j = vim->Cbto.V[k];
  int32_t p = 0;
  if (j <= vim->NumCol) {
    const int32_t *stcl = vim->Stcl.V;
    const int32_t *rnum = vim->Rnum.V;
    for (int32_t q = stcl[j]; q < stcl[j + 1]; ++q) {
      if (rnum[q] == i) {
        p = q;
        break;
      }
    }
  }
  Test_Triangular_Pivot(vmi, p, i, k, pivNo, "Pre ");
  return p;
}

}  // namespace vlu
