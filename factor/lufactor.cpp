// The factorization driver.
//
// LUFactor lists the basic columns, sizes the stores from what the previous
// factorization needed, runs ExtractBasis and Factor_Bump, and judges the
// result by the largest U-factor and the smallest pivot.  Bad factors raise
// the relative pivot tolerance and start the same basis over; factors that
// stay good for long enough lower it again.  The tolerance lives in VIM and so
// lasts from one factorization to the next within an environment.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "factor/factor.h"
#include "runtime/clock.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/test_hooks.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

constexpr int Err_Not_Square = 3101;

const char *TF(bool b) { return b ? "T" : "F"; }

// Raises m to a prime: odd first, then trial division by the odd numbers
// from 3, moving on by 2 on every hit.
int32_t Make_Prime(int32_t m) {
  if (m < 0) m += 1;
  m = (m / 2) * 2 + 1;
  if (m >= 9) {
    int64_t d = 3;
    while (d * d <= m) {
      if (m % d == 0) {
        m += 2;
        d = 3;
      } else {
        d += 2;
      }
    }
  }
  return m;
}

// Demand of a store, with the cap that applies to small models.
int32_t Capped(double demand, double cap, bool small) {
  if (small && cap < demand) demand = cap;
  if (demand > 2147483647.0) demand = 2147483647.0;
  return static_cast<int32_t>(demand);
}

// The basis is not square: list what there is and end with an internal error.
void Not_Square(VMI *vmi, int32_t count) {
  VIM *vim = vmi->Vim;
  const int32_t n = vim->NumRow;
  const int32_t numVar = vim->NumCol + n;
  int32_t *basc = vim->Basc.V;
  const int32_t *rwcl = vim->Rwcl.V;
  Doc(vmi, "Basis is not Square: Number of Columns=%d and number of rows=%d", count, n);
  int32_t basic = 0;
  for (int32_t j = 1; j <= numVar; ++j)
    if (basc[j] == IBasic) ++basic;
  Doc(vmi, "Columns with Basc=Basic:%d", basic);
  for (int32_t i = 1; i <= n; ++i) {
    const int32_t c = rwcl[i];
    if (c >= 1 && c <= numVar && basc[c] != IBasic) {
      Doc(vmi, "Rwcl(%d)=%d but Basc(%d)=%d", i, c, c, basc[c]);
      basc[c] = NBasic;
    } else {
      Doc(vmi, "Rwcl(%d)=%d", i, c);
    }
  }
  for (int32_t j = 1; j <= numVar; ++j)
    if (basc[j] == IBasic) Doc(vmi, "Column %d has Basc=%d", j, basc[j]);
  Internal_Error(vmi, Err_Not_Square, true);
}

// The countdown of good factorizations; at its end the tolerance falls.
// Returns true when the tolerance changed.
bool Count_Down(VIM *vim, const VMI *vmi) {
  if (vim->Tol_Wait > 0) vim->Tol_Wait -= 1;
  if (vim->Tol_Wait != 0) return false;
  vim->Tol_Wait = 25;
  const double old = vim->Tol_Piv_Rel;
  vim->Tol_Piv_Rel = std::max(vmi->Rvpivr, 0.5 * old);
  return vim->Tol_Piv_Rel != old;
}

}  // namespace

bool LU_Setup_Pass(VMI *vmi, int32_t *elemntOut) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const int32_t n = vim->NumRow;
  const int32_t numCol = vim->NumCol;
  const int32_t *basc = vim->Basc.V;
  const int32_t *stcl = vim->Stcl.V;
  int32_t *cbto = vim->Cbto.V;

  // 1. Basic slacks first in Cbto.
  luf->ColCopy = false;
  int32_t count = 0;
  for (int32_t i = 1; i <= n; ++i) {
    if (basc[numCol + i] != IBasic) continue;
    ++count;
    if (count <= n) cbto[count] = numCol + i;
    if (vmi->Trace_Inv >= 3)
      Doc(vmi, "Piv no.%8d Row=%8d Col=%8d and Pivot=%13.5E Slack", count, i, count, 1.0);
  }
  luf->Num_Slack = count;
  if (vmi->Trace_Inv >= 2) Doc(vmi, " Number of Basic Slacks            %10d", count);

  // 2. Then the other basic columns by ascending number.
  int32_t elemnt = count;
  for (int32_t j = 1; j <= numCol; ++j) {
    if (basc[j] != IBasic) continue;
    ++count;
    if (count <= n) cbto[count] = j;
    elemnt = Wrap_Add(elemnt, stcl[j + 1] - stcl[j]);
  }
  if (elemntOut != nullptr) *elemntOut = elemnt;

  // 3. The vectors of the bump, at the first need in this environment.
  if (!iin->Lisr.Allocated()) {
    int32_t b = 1;
    if (n > 0) {
      const int64_t per = 10 * static_cast<int64_t>(elemnt) / n + 1;
      b = static_cast<int32_t>(std::max<int64_t>(16, std::min<int64_t>(per, n)));
    }
    iin->Max_Mmat = b;
    iin->BlockSize = b;
    iin->BlockSize0 = b;
    Allocate_Int(vmi, iin->Lisr, "IIN%Lisr", b);
    Allocate_Int(vmi, iin->Rlol, "IIN%Rlol", b);
    Allocate_Log(vmi, iin->Lngr, "IIN%Lngr", b);
    Allocate_Int(vmi, iin->Lisc, "IIN%Lisc", b);
    Allocate_Int(vmi, iin->Clol, "IIN%Clol", b);
    Allocate_Log(vmi, iin->Lngc, "IIN%Lngc", b);
    Allocate_Ivec(vmi, iin->Rlin, b, std::max(1, vmi->Threads));
    Allocate_Ivec(vmi, iin->Clin, b);
    Allocate_RVec(vmi, iin->Mmat, n);
    if (b > n && vmi->EnoughSpace) {
      const int32_t size = Size(luf->Ucmat);
      Increase_RVec(vmi, luf->Ucmat, std::max(n - size + elemnt, n), false);
      luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
    }
    if (vmi->Exception != 0) return false;
  }

  // 4. Space report.
  const double f = vmi->Space_Factor;
  if (vmi->Trace_Inv >= 2) {
    Doc(vmi, "Space: U_numini=%d Elemnt=%d", luf->U_numini, elemnt);
    Doc(vmi, "Space: size(AMAT)=%d and size(Ucmat)=%d", Size(vim->AUrmat), Size(luf->Ucmat));
    Doc(vmi, "Space: LFileIni =%d and Size(Lmat)=%d", luf->LFileIni, Size(luf->Lmat));
    Doc(vmi, "Space: LFileUsed =%d and U_numele=%d", luf->LFileUsed, luf->U_numele);
    Doc(vmi, "Space: MarkBad=%d", iin->MarkBad);
  }

  // 5. Size the stores for this factorization from what the last one used.
  // Nothing in them lives on into this pass (ExtractBasis loads the files,
  // the L-file and the U-file anew, CreateColumnU rebuilds the column copy,
  // Factor_Bump clears the M-list heads), so growth copies nothing.
  {
    const double dn = n, de = elemnt, uIni = luf->U_numini;
    const bool small = n <= 32000;
    const double cap = 2.0 * std::max(8.0, f * dn) * dn;

    int32_t demandU = Capped(
        std::max({1.7 * uIni, uIni + 2.0 * dn, std::max(2.5, 2.0 * f) * de + 8.0 * dn}), cap,
        small);
    // Tests may ask for the least room the triangular phases need, so that the
    // elimination makes the rest of its room itself.
    if (Test_Options.Min_Space)
      demandU = std::min(demandU, Capped(f * de + 9.0 * dn + 16.0, cap, small));
    if (demandU > luf->RowUSpace) {
      // No U survives: the file is empty before it grows.
      luf->U_elefirst = luf->RowUSpace + 1;
      Zero_Int(luf->Rstr.V, n);
      Increase_Uspace(vmi, demandU, false);
      if (vmi->Exception != 0) return false;
    }

    int32_t demandA = Capped(
        std::max({1.2 * uIni, uIni + 2.0 * dn, 1.5 * f * (de + dn) + 8.0 * dn}), cap, small);
    if (Test_Options.Min_Space)
      demandA = std::min(demandA, Capped(f * de + 8.0 * dn + 16.0, cap, small));
    if (demandA > luf->ColASpace) {
      Increase_ASpace(vmi, demandA, false);
      if (vmi->Exception != 0) return false;
    }

    const double lIni = luf->LFileIni;
    const double capL = 0.5 * dn * (dn - 1.0) + static_cast<double>(Wrap_Mul(vmi->Max_Updates, n));
    const int32_t demandL = Capped(
        std::max({1.2 * lIni, 2.0 * dn + lIni, static_cast<double>(luf->LFileUsed) + dn, de}),
        capL, small);
    if (demandL > Size(luf->Lmat)) {
      Increase_L(vmi, demandL, false);
      if (vmi->Exception != 0) return false;
    }

    const int32_t n1 = std::max(n, 1);
    const int32_t sizeU = Size(luf->Ucmat);
    if (static_cast<int64_t>(n1) + iin->MarkBad > sizeU) {
      Increase_RVec(vmi, luf->Ucmat, std::max(n1 - sizeU + iin->MarkBad, sizeU), false);
      if (vmi->Exception != 0) return false;
      luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
    }

    if (!iin->Stmc.Allocated()) {
      Allocate_Int(vmi, iin->Stmc, "IIN%Stmc", iin->MarkBad);
    } else if (iin->MarkBad > Size(iin->Stmc)) {
      const int32_t size = Size(iin->Stmc);
      Increase_Int(vmi, iin->Stmc, "IIN%Stmc", std::max(iin->MarkBad - size, size), false);
    }
    if (vmi->Exception != 0) return false;
  }

  // 6. A square basis is needed.
  vim->Num_Sing = 0;
  luf->D_Size = 0;
  if (count != n) {
    Not_Square(vmi, count);
    return false;
  }
  return true;
}

bool LU_Tolerance_Rules(VMI *vmi) {
  VIM *vim = vmi->Vim;
  const double scale = vim->Ufac_Scale;
  const double old = vim->Tol_Piv_Rel;
  const bool trace = vmi->Trace_Inv >= 1;
  // Raising doubles the tolerance up to 0.9 and makes the next lowering wait.
  auto raise = [&]() {
    vim->Tol_Piv_Rel = std::min(0.9, 2.0 * old);
    vim->Tol_Wait = 25;
    return vim->Tol_Piv_Rel != old;
  };
  auto schedule = [&]() { vim->Updates_Done = vmi->Max_Updates; };

  if (vim->Keep_Tol) return false;
  if (vim->Tol_Only_Large) {
    if (vim->Large_Ufac && 0.9 > old) {
      if (raise() && trace)
        Doc(vmi, "Max_UFac large. Relative pivot tolerance increased to%10.3E", vim->Tol_Piv_Rel);
      return true;
    }
    return false;
  }
  if (vim->Max_UFac > 1.0e7 * scale) {
    if (raise() && trace)
      Doc(vmi, "Max_UFac large. Relative pivot tolerance increased to%10.3E", vim->Tol_Piv_Rel);
    if (0.9 > old) {
      if (vim->Max_UFac > 1.0e15 * scale) return true;
      schedule();
    }
    return false;
  }
  if (vim->Min_Pivot < std::min(vmi->Eps_Sqrt, vmi->Rtpiva)) {
    if (raise() && trace)
      Doc(vmi, "Min Pivot small=%10.3E - Relative pivot tolerance increased to%10.3E",
          vim->Min_Pivot, vim->Tol_Piv_Rel);
    if (0.9 > old) {
      if (vim->Min_Pivot < 10.0 * vmi->Rtpiva) return true;
      schedule();
    }
    return false;
  }
  if (vim->Max_UFac < 1000.0 * scale &&
      vim->Min_Pivot > std::min(100.0 * vmi->Eps_Sqrt, vmi->Rtpiva)) {
    if (Count_Down(vim, vmi) && trace)
      Doc(vmi, "Max_UFac small. Relative pivot tolerance decreased to%10.3E", vim->Tol_Piv_Rel);
    return false;
  }
  if (vim->InvertMode == 6 || vim->InvertMode == 11 || vim->InvertMode == 12) {
    if (Count_Down(vim, vmi) && trace) {
      Doc(vmi, "Many inversions with InvertMode=Inv_InLrg, Inv_BCLrg, and Upd_BCLrg.");
      Doc(vmi, "Pivots Large. Relative pivot tolerance decreased to%10.3E", vim->Tol_Piv_Rel);
    }
  }
  return false;
}

void LUFactor(VMI *vmi) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const int32_t n = vim->NumRow;
  const double tStart = vmi->Trace_Inv >= 0 ? Clock_Read(vmi) : 0.0;
  const bool stopFlags = vmi->Lssqrs || vmi->TraceCNS || vim->In_OneDim;

  iin->MarkBad = Make_Prime(std::max(iin->MarkBad, 2 * std::max(n, 1)));
  iin->MarkOver = iin->MarkBad - 1;
  iin->MarkMax = iin->MarkBad - 2;
  const bool newBasisOnEntry = vim->NewBasis;

  // Columns that a pass replaced by slacks stay replaced when the tolerance
  // rules start the basis over; they are counted here, so that the outcome
  // reports every column the factorization gave up, not only those of the
  // last pass.
  int32_t singEarlier = 0;
  bool publish = true;
  for (;;) {
    int32_t elemnt = 0;
    if (!LU_Setup_Pass(vmi, &elemnt)) return;

    // 7. Slacks and the triangular parts.
    ExtractBasis(vmi);
    if (vmi->Exception != 0) return;
    vim->Num_Sing_Tria = vim->Num_Sing;
    if (vim->Num_Sing > 0 && stopFlags) {
      if (vmi->Trace_Inv >= 1)
        Doc(vmi, "Singular triangular column(s) - give up. Lssqrs=%s TraceCNS=%s In_OneDim=%s",
            TF(vmi->Lssqrs), TF(vmi->TraceCNS), TF(vim->In_OneDim));
      publish = false;
      break;
    }

    // 8. The size of the bump.
    {
      const int32_t *rnto = vim->Rnto.V;
      const int32_t *rlen = luf->Rlen.V;
      int32_t nele = 0;
      for (int32_t k = luf->NumVTria + 1; k <= n; ++k) nele += rlen[rnto[k]];
      const int32_t bump = n - luf->NumVTria;
      iin->Nele = nele;
      iin->Nele_Per_Col = bump > 0 ? static_cast<float>(nele) / static_cast<float>(bump) : 0.0f;
      if (vmi->Trace_Inv >= 2) {
        Doc(vmi, " Number of Structurals in Bump     %10d", bump);
        Doc(vmi, " Total number of columns in Basis  %10d", n);
        Doc(vmi, " Initial Number of nonzeros        %10d", elemnt);
        Doc(vmi, " Number of zeros removed           %10d", iin->Zeros_Removed);
        Doc(vmi, " Number of elements                %10d", elemnt - iin->Zeros_Removed);
        Doc(vmi, " Number of elements in L           %10d", iin->L_Elements);
        Doc(vmi, " Number of elements in U=          %10d", luf->RowUSpace - luf->U_elefirst + 1);
        Doc(vmi, " Number of elements in the Bump    %10d Per column.%8.2f", nele,
            static_cast<double>(iin->Nele_Per_Col));
      }
    }

    // 9. The bump, in two borrowed vectors: Clmin in the memory of WorkZ,
    // Indr in that of HelpI.
    Reuse_RVec(vmi, vim->WorkZ, iin->Clmin);
    Reuse_Int(vmi, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
    Factor_Bump(vmi);
    luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
    Reuse_RVec(vmi, iin->Clmin, vim->WorkZ);
    Reuse_Int(vmi, iin->Indr, "IIN%Indr", vim->HelpI, "VIM%HelpI");
    if (vim->WorkZ.Allocated()) {
      // WorkZ was zero, and the bump writes Clmin of its own columns only.
      double *workz = vim->WorkZ.Val;
      const int32_t *cnto = vim->Cnto.V;
      for (int32_t k = luf->NumVTria + 1; k <= n; ++k) workz[cnto[k]] = 0.0;
    }

    // 10-11.
    if (!vmi->EnoughSpace) Doc(vmi, "Factor_Bump returned with memory problems. We must stop.");
    if (vmi->Exception != 0) return;
    if (vmi->Exit_Code == 14) {
      publish = false;
      break;
    }

    // 12. Singular columns found in the bump.
    if (vim->Num_Sing > 0) {
      if (vim->In_OneDim) {
        Zero_Int(vim->HelpZ.V, vim->Num_Sing);
        if (vmi->Trace_Inv >= 2) Doc(vmi, "Singular in Factor_Bump - give up.");
        break;
      }
      if (vim->AttemptCNS) {
        vim->AttemptCNS = false;
        if (vmi->Trace_Inv >= 1 || vmi->Trace_Inv2 > 0)
          Doc(vmi, "AttemptCNS set to false in LUFactor because Num_Sing positive");
      }
    }

    // 13. A changed basis resets the degeneracy bookkeeping.
    if (vim->Num_Sing > 0) vim->NewBasis = true;
    if (vim->NewBasis && !newBasisOnEntry) {
      Turnoff_Degeneracy(vmi);
      if (vmi->Trace_Inv >= 1)
        Doc(vmi, "NewBasis=.true. in LUFactor so we reset Degenerate to .false. and NumDegIter to 0");
    }

    // 14. Sizes of the new factors, the reference for the updates.
    luf->U_numele = luf->RowUSpace - luf->U_elefirst + 1;
    luf->U_numini = luf->U_numele;
    luf->L_Groups = 0;
    luf->RowFileUsed = luf->U_elefirst;
    luf->LFileIni = luf->LFileUsed;

    // 15. Tolerance rules.
    if (LU_Tolerance_Rules(vmi)) {
      if (vmi->Trace_Inv >= 1) Doc(vmi, "Restarting inversion with new tolerance.");
      if (vim->Num_Sing > 0) Zero_Int(vim->HelpZ.V, vim->Num_Sing);
      singEarlier += vim->Num_Sing;
      continue;
    }

    // 16. Report.
    if (vmi->Trace_Inv >= 1) {
      if (vim->Num_Sing > 0) Doc(vmi, "Inversion failure in LUFactor");
      Doc(vmi, "Number of columns  in L=%10d%8.2f%%", luf->L_Cols,
          static_cast<double>(100.0f * static_cast<float>(luf->L_Cols) /
                              static_cast<float>(std::max(n, 1))));
      Doc(vmi, "Number of elements in L=%10d", luf->LFileUsed);
      Doc(vmi, "Number of elements in U=%10d", luf->U_numele);
      Doc(vmi, "Largest U-factor =%13.5E", vim->Max_UFac);
      Doc(vmi, "Smallest pivot   =%13.5E", vim->Min_Pivot);
    }
    break;
  }

  vim->Num_Sing += singEarlier;

  // 17. Publish the order: Rwcl(i) is the model column pivoting on row i,
  // Cbto(k) the model column of the k-th pivot.
  if (publish) {
    int32_t *rwcl = vim->Rwcl.V;
    int32_t *cbto = vim->Cbto.V;
    const int32_t *rnto = vim->Rnto.V;
    const int32_t *cnto = vim->Cnto.V;
    for (int32_t k = 1; k <= n; ++k) rwcl[rnto[k]] = cbto[cnto[k]];
    for (int32_t k = 1; k <= n; ++k) cbto[k] = rwcl[rnto[k]];
  }

  // 18. Time.
  if (vmi->Trace_Inv >= 1) Doc(vmi, "Time in LUFactor:%10.3f Seconds", Clock_Read(vmi) - tStart);
}

void Turnoff_Degeneracy(VMI *vmi) {
  VIM *vim = vmi->Vim;
  vim->Degenerate = false;
  vim->NumDegIter = 0;
  vim->Deg_Active = false;
  vim->Deg_Count = 0;
  vim->Deg_Levels = 1;
  const bool trace = vmi->Trace_Inv + vmi->Trace_Inv2 + vmi->Trace_Upd >= 2;
  if (vim->NewBasis) {
    if (trace)
      Doc(vmi, "Turnoff_Degeneracy with NewBasis=T. Tol_Piv_Deg kept at%13.5E", vim->Tol_Piv_Deg);
  } else {
    vim->Tol_Piv_Deg = 0.0;
    if (trace) Doc(vmi, "Turnoff_Degeneracy with NewBasis=F. Tol_Piv_Deg set to zero.");
  }
}

void DefNan(VMI *vmi) {
  VIM *vim = vmi->Vim;
  vmi->Nan_Events += 1;
  if (vmi->Nan_Events == 1) Vdnmsg(vmi, 2160, 0, 0, 0.0, 0.0, true, true);
  if (vmi->Nan_Events >= 6 && !vmi->Nan_Given_Up) {
    Vdnmsg(vmi, 2161, 0, 0, 0.0, 0.0, true, true);
    vmi->Nan_Given_Up = true;
  }
  vmi->Rtpiva = std::min(10.0 * vmi->Rtpiva, std::sqrt(1.0e-7 * vmi->Rtpiva));
  vmi->Rvpivr = std::min(2.0 * vmi->Rvpivr, std::sqrt(0.9 * vmi->Rvpivr));
  vim->Tol_Piv_Rel = std::min(2.0 * vim->Tol_Piv_Rel, std::sqrt(0.9 * vim->Tol_Piv_Rel));
  vmi->Tol_Scale_Min = std::max(0.01 * vmi->Tol_Scale_Min, std::sqrt(1.0e-10 * vmi->Tol_Scale_Min));
  if (vmi->Trace_Inv >= 1) {
    Doc(vmi, "Encountered NaN. Absolute pivot tolerance increased to%13.5E", vmi->Rtpiva);
    Doc(vmi, "         Minimum Relative pivot tolerance increased to%13.5E", vmi->Rvpivr);
    Doc(vmi, "         Current Relative pivot tolerance increased to%13.5E", vim->Tol_Piv_Rel);
    Doc(vmi, "                     Minimum scale factor decreased to%13.5E", vmi->Tol_Scale_Min);
    Doc(vmi, "Will attempt to scale and invert again with the new tolerance.");
  }
  vim->Tol_Wait = 250;
  vim->InvertMode = 1;
}

}  // namespace vlu
