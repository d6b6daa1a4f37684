// In-place update of the factors after a basis change.
//
//   B = L U.  L: the L-file (L columns, then the row etas of earlier
//   updates).  U twice: by rows (LUF%Ic, VIM%AUrmat, LUF%Rstr, LUF%Rlen) and
//   by columns (LUF%Ir, LUF%Ucmat, LUF%Cstr, LUF%Clen), pivot first in both;
//   position p holds row VIM%Rnto(p) and U column VIM%Cnto(p), and the model
//   column VIM%Cbto(p) = VIM%Rwcl(Rnto(p)) stands there.
//   Work vectors, clear between updates: VIM%WorkZ (values by row or
//   column), VIM%HelpZ (marks), VIM%HelpI (lists); IIN%Cpnx and IIN%Cppr are
//   borrowed as lists, IIN%Rppr holds the map from a row to its L column
//   from the first update after a factorization to the next factorization.
//
// The entering column goes through L (the spike) and replaces the leaving
// column in both copies of U.  The range from the leaving position to the
// spike's last element is trimmed by two graph sweeps, the spike moves to
// its end (upper Hessenberg), singletons are peeled off, and the rest is
// eliminated with row etas.  Every pivot is tested against Pivmin and every
// element against Uumax, both fixed at the start; a failed test ends the
// update with nothing rolled back, and the caller refactorizes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "runtime/clock.h"
#include "runtime/dumps.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "solve/solve.h"
#include "update/update.h"
#include "update/update_inner.h"

namespace vlu {

namespace {

constexpr int Err_Leaving_Not_Found = 6201;
constexpr int Err_Old_Column = 6202;
constexpr int Err_Work_Not_Zero = 6203;

// Step 4: the old column leaves both copies of U.  In row Irowcr the last
// element takes the slot of the pivot.  False on an internal error.
bool Remove_Old_Column(VMI *vmi, const Upd_State &st) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t icolcr = st.Icolcr;
  int32_t *ir = luf->Ir.V, *ic = luf->Ic.V;
  int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V;
  double *aur = vim->AUrmat.Val;
  const int32_t jstr = luf->Cstr.V[icolcr], jend = jstr + luf->Clen.V[icolcr] - 1;
  luf->U_numele -= luf->Clen.V[icolcr];
  for (int32_t i = jstr; i <= jend; ++i) {
    const int32_t irow = ir[i];
    ir[i] = 0;
    rlen[irow] -= 1;
    const int32_t last = rstr[irow] + rlen[irow];
    if (ic[last] != icolcr) {
      const int32_t j = Int_Lookup(ic, rstr[irow], last - 1, icolcr);
      if (j == 0) {
        Doc(vmi, "Jstr=%d Jend=%d", jstr, jend);
        Doc(vmi, "Istr=%d Iend=%d Len=%d", rstr[irow], last, rlen[irow] + 1);
        Doc(vmi, "I   =%d Irow=%d", i, irow);
        PP_Int(vmi, luf->Ic, "LUF%Ic", rstr[irow] - 1, rlen[irow] + 1);
        Internal_Error(vmi, Err_Old_Column, true);
        return false;
      }
      ic[j] = ic[last];
      aur[j] = aur[last];
    }
    ic[last] = 0;
  }
  return true;
}

// Step 5 (debug): the work vectors must be clear.
bool Work_Vectors_Clear(VMI *vmi) {
  VIM *vim = vmi->Vim;
  const double *workz = vim->WorkZ.Val;
  const int32_t *helpz = vim->HelpZ.V;
  bool clear = true;
  for (int32_t i = 1; i <= vim->NumRow; ++i) {
    if (workz[i] == 0.0 && helpz[i] == 0) continue;
    Doc(vmi, "1: VIM%%WorkZ%%vec(%d) =%13.5E HelpZ=%d", i, workz[i], helpz[i]);
    clear = false;
  }
  if (!clear) Internal_Error(vmi, Err_Work_Not_Zero, true);
  return clear;
}

// Step 8: the spike as U column Icolcr, dropping what is too small.  Also
// clears the marks of the list.  Returns the number of elements stored.
int32_t Store_Spike(VMI *vmi, Upd_State &st, int32_t len) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t icolcr = st.Icolcr;
  const double tolZero = vmi->Tol_Zero;
  const int32_t *helpi = vim->HelpI.V;
  int32_t *helpz = vim->HelpZ.V;
  double *workz = vim->WorkZ.Val;
  int32_t written = 0;
  if (len > luf->Clen.V[icolcr]) {
    // Longer than the old column: it goes to the low end of the file.
    if (luf->ColFileUsed <= len) {
      bool error = false;
      Update_CompressColumn(vmi, len, error);
      if (error) {
        st.Fail_Memory = true;
        for (int32_t k = 1; k <= len; ++k) helpz[helpi[k]] = 0;
        return 0;
      }
    }
    int32_t *ir = luf->Ir.V;
    double *ucmat = luf->Ucmat.Val;
    int32_t pos = luf->ColFileUsed;
    for (int32_t k = 1; k <= len; ++k) {
      const int32_t r = helpi[k];
      helpz[r] = 0;
      const double v = workz[r];
      if (std::fabs(v) <= tolZero) {
        workz[r] = 0.0;
        continue;
      }
      --pos;
      ir[pos] = r;
      ucmat[pos] = v;
      ++written;
    }
    if (written > 0) {
      luf->Cstr.V[icolcr] = pos;
      luf->ColFileUsed = pos;
    }
  } else {
    // In the old slots; those left behind stay free.
    int32_t *ir = luf->Ir.V;
    double *ucmat = luf->Ucmat.Val;
    const int32_t s = luf->Cstr.V[icolcr];
    for (int32_t k = 1; k <= len; ++k) {
      const int32_t r = helpi[k];
      helpz[r] = 0;
      const double v = workz[r];
      if (std::fabs(v) <= tolZero) {
        workz[r] = 0.0;
        continue;
      }
      ir[s + written] = r;
      ucmat[s + written] = v;
      ++written;
    }
  }
  luf->Clen.V[icolcr] = written;
  luf->U_numele += written;
  return written;
}

// Step 9: the spike into the row copy.  Spike_Last becomes the position of
// its last element, `ratio` the largest ratio of a spike element to the
// pivot of its row (row Irowcr, which has lost its pivot, left out).
void Spike_Into_Rows(VMI *vmi, Upd_State &st, double &ratio) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t icolcr = st.Icolcr;
  const int32_t *rotn = vim->Rotn.V;
  double *workz = vim->WorkZ.Val;
  int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V;
  const int32_t qs = luf->Cstr.V[icolcr], qe = qs + luf->Clen.V[icolcr];
  st.Spike_Last = 0;
  ratio = 0.0;
  for (int32_t q = qs; q < qe; ++q) {
    const int32_t irow = luf->Ir.V[q];
    int32_t *ic = luf->Ic.V;
    double *aur = vim->AUrmat.Val;
    st.Spike_Last = std::max(st.Spike_Last, rotn[irow]);
    if (irow != st.Irowcr) ratio = std::max(ratio, std::fabs(workz[irow] / aur[rstr[irow]]));
    int32_t slot = rstr[irow] + rlen[irow];
    if (!(slot <= luf->RowUSpace && ic[slot] == 0)) {
      // No free slot behind the row: it moves to the low end.
      int32_t start = luf->RowFileUsed - rlen[irow] - 1;
      if (start < 1) {
        Update_CompressRow(vmi, rlen[irow] + 1);
        ic = luf->Ic.V;
        aur = vim->AUrmat.Val;
        start = luf->RowFileUsed - rlen[irow] - 1;
        if (start < 1) {
          if (st.Trace >= 1) Doc(vmi, "Insufficient memory to move row up front.");
          st.Fail_Memory = true;
          return;
        }
      }
      const int32_t from = rstr[irow];
      for (int32_t k = 0; k < rlen[irow]; ++k) {
        ic[start + k] = ic[from + k];
        aur[start + k] = aur[from + k];
        ic[from + k] = 0;
      }
      rstr[irow] = start;
      luf->RowFileUsed = start;
      slot = start + rlen[irow];
    }
    ic[slot] = icolcr;
    aur[slot] = workz[irow];
    rlen[irow] += 1;
    workz[irow] = 0.0;
  }
}

// Step 3: the row of the leaving column.  The map VIM%Clrw answers when it
// agrees with Rwcl; otherwise Rwcl is searched and the map filled again,
// which happens once after each factorization.  0 when the column is not in
// the basis order.
int32_t Leaving_Row(VMI *vmi, int32_t leaving) {
  VIM *vim = vmi->Vim;
  const int32_t n = vim->NumRow;
  const int32_t *rwcl = vim->Rwcl.V;
  if (vim->Clrw.Allocated()) {
    const int32_t r = vim->Clrw.V[leaving];
    if (r >= 1 && r <= n && rwcl[r] == leaving) return r;
  }
  const int32_t r = Int_Lookup(rwcl, 1, n, leaving);
  if (r == 0) return 0;
  if (!vim->Clrw.Allocated()) {
    // A map that cannot be had is not an error: the search stays.
    const int32_t mode = vmi->MemoryMode;
    vmi->MemoryMode = 2;
    Allocate_Int(vmi, vim->Clrw, "VIM%Clrw", vim->NumCol + n);
    vmi->MemoryMode = mode;
    vmi->EnoughSpace = true;
    if (!vim->Clrw.Allocated()) return r;
  }
  int32_t *clrw = vim->Clrw.V;
  for (int32_t i = 1; i <= n; ++i) clrw[rwcl[i]] = i;
  return r;
}

// Step 7 from the cache of the last solve: when the entering column, as
// step 6 listed it in VIM%HelpI with its values in VIM%WorkZ, is the listed
// right-hand side of that solve (same rows in the same order, same bits),
// the list and the values after the L columns, and maybe after the row
// etas too, stand in the cache.  They are put in place (marks 1 in
// VIM%HelpZ) and `len` becomes the length of the list; the result tells
// how far: 0 nothing, 1 after the columns, 2 the whole spike.  A cache that
// is not valid is not passed.
int32_t Spike_From_Cache(VMI *vmi, const Spike_Cache *cache, int32_t &len) {
  if (cache == nullptr || cache->inLen != len) return 0;
  VIM *vim = vmi->Vim;
  double *workz = vim->WorkZ.Val;
  int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V;
  for (int32_t k = 1; k <= len; ++k) {
    const int32_t r = helpi[k];
    if (r != cache->inRows[k] || std::memcmp(&workz[r], &cache->inVals[k], sizeof(double)) != 0)
      return 0;
  }
  const bool whole = cache->finLen >= 0;
  const int32_t *rows = whole ? cache->finRows : cache->outRows;
  const double *vals = whole ? cache->finVals : cache->outVals;
  const int32_t n = whole ? cache->finLen : cache->outLen;
  for (int32_t k = 1; k <= n; ++k) {
    const int32_t r = rows[k];
    workz[r] = vals[k];
    helpz[r] = 1;
    helpi[k] = r;
  }
  len = n;
  return whole || cache->finLen == -1 ? 2 : 1;
}

// Step 11.8: positions, published order and model columns over the range
// that the trims left, from Rnto and Cnto.
void Renumber(VMI *vmi, int32_t first, int32_t last) {
  VIM *vim = vmi->Vim;
  const int32_t *rnto = vim->Rnto.V, *cnto = vim->Cnto.V, *model = vmi->Iin->Cppr.V;
  int32_t *rotn = vim->Rotn.V, *cotn = vim->Cotn.V, *cbto = vim->Cbto.V, *rwcl = vim->Rwcl.V;
  for (int32_t p = first; p <= last; ++p) {
    const int32_t r = rnto[p], c = cnto[p];
    rotn[r] = p;
    cotn[c] = p;
    cbto[p] = model[c];
    rwcl[r] = model[c];
  }
  if (vim->Clrw.Allocated()) {
    int32_t *clrw = vim->Clrw.V;
    for (int32_t p = first; p <= last; ++p) clrw[cbto[p]] = rnto[p];
  }
}

}  // namespace

namespace {
uint32_t Inverse_Calls = 0;  // Update_Inverse_Calls()
}  // namespace

uint32_t Update_Inverse_Calls() { return Inverse_Calls; }

bool Update_Inverse(VMI *vmi, int32_t incoming, int32_t leaving, const Spike_Cache *cache) {
  Inverse_Calls += 1;
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const bool timing = vmi->Timing;
  const double tStart = timing ? Clock_Read(vmi) : 0.0;
  const int32_t n = vim->NumRow;
  const bool debug = vmi->Debug_Upd > 0;

  Upd_State st;
  st.Trace = std::max(vmi->Trace_Upd, vmi->Trace_Inv);
  bool error = false;
  // Counted whether the update then succeeds or not.
  vim->Updates_Done += 1;
  // The map from a row to its L column, for the transformation of the spike
  // here and for the solves: the L columns stay as they are until the next
  // factorization, which leaves Updates_Done at 0 (or at Max_Updates, and
  // then no update follows it), so this is the first update after it.  It
  // lives in IIN%Rppr, which only the factorization uses otherwise, and is
  // made again when the clean-up below takes elements out of L.
  if (vim->Updates_Done == 1) Build_L_Column_Map(vmi, vmi->Iin->Rppr.V);

  // The whole update is one pass through these steps; `break` leaves for
  // the end with `error` or a failure flag set.
  do {
    if (debug && !(Check_U_Copies(vmi) && Check_Permutations(vmi))) {
      error = true;
      break;
    }

    // 1. Small elements leave U and L once per factor call.
    if (!vim->UL_Cleaned) {
      cache = nullptr;  // L changes here
      RemoveZerosfromU(vmi);
      if (vmi->Exception != 0) {
        error = true;
        break;
      }
      RemoveZerosfromL(vmi);
      Build_L_Column_Map(vmi, vmi->Iin->Rppr.V);
      Zero_Real(vim->WorkZ.Val, n + 1);
      vim->UL_Cleaned = true;
      if (debug && !Check_U_Copies(vmi)) {
        error = true;
        break;
      }
    }

    // 2. The tolerances of this update.
    st.Pivmin = std::max(vmi->Rtpiva, std::sqrt(vim->Min_Pivot * vmi->Rtpiva));
    st.Uumax = std::max(2.0 * vim->Max_UFac, vmi->U_Ratio_Floor);
    st.Tol_L = std::max(vmi->Tol_Zero, vmi->Eps);

    // 3. The leaving position.
    int32_t *rwcl = vim->Rwcl.V, *cbto = vim->Cbto.V;
    int32_t indx = vim->IndxCr;
    if (indx >= 1 && indx <= n && cbto[indx] == leaving) {
      st.Irowcr = vim->Rnto.V[indx];
    } else {
      st.Irowcr = Leaving_Row(vmi, leaving);
      if (st.Irowcr == 0) {
        Doc(vmi, "Update_Inverse: leaving column %d is not in the basis order.", leaving);
        Internal_Error(vmi, Err_Leaving_Not_Found, true);
        error = true;
        break;
      }
      indx = vim->Rotn.V[st.Irowcr];
      vim->IndxCr = indx;
    }
    st.Icolcr = vim->Cnto.V[indx];
    rwcl = vim->Rwcl.V;
    cbto = vim->Cbto.V;
    rwcl[st.Irowcr] = incoming;
    cbto[indx] = incoming;
    if (vim->Clrw.Allocated()) vim->Clrw.V[incoming] = st.Irowcr;
    if (st.Trace >= 1) {
      Doc(vmi, "Entering Update_Inverse. Irowcr=%d and icolcr=%d LFileUsed=%d", st.Irowcr,
          st.Icolcr, luf->LFileUsed);
      Doc(vmi, "IndxCr=%d Pivmin=%13.5E Uumax=%13.5E", indx, st.Pivmin, st.Uumax);
    }

    // 4. The old column out of both copies.
    if (!Remove_Old_Column(vmi, st)) {
      error = true;
      break;
    }

    // 5.
    if (debug && !Work_Vectors_Clear(vmi)) {
      error = true;
      break;
    }

    // 6. The entering column, scattered, with the list of its rows.
    int32_t len = 0;
    {
      double *workz = vim->WorkZ.Val;
      int32_t *helpz = vim->HelpZ.V, *helpi = vim->HelpI.V;
      if (incoming > vim->NumCol) {
        const int32_t r = incoming - vim->NumCol;
        workz[r] = 1.0;
        helpz[r] = 1;
        helpi[1] = r;
        len = 1;
      } else {
        const int32_t *stcl = vim->Stcl.V, *rnum = vim->Rnum.V;
        const double *jace = vim->Jace.Val;
        const double tolZero = vmi->Tol_Zero;
        for (int32_t p = stcl[incoming]; p < stcl[incoming + 1]; ++p) {
          if (!(std::fabs(jace[p]) > tolZero)) continue;
          const int32_t r = rnum[p];
          workz[r] = jace[p];
          helpz[r] = 1;
          helpi[++len] = r;
        }
      }
    }

    // 7. Through L and the row etas: the spike.  The L columns may have
    // been applied to the same column by the last solve.
    {
      const int32_t from = Spike_From_Cache(vmi, cache, len);
      if (from != 2) {
        const int32_t *lcol = vmi->Iin->Rppr.V;
        len = L_Solve_Sparse(vmi, vim->WorkZ, vim->HelpI, vim->HelpZ, len,
                             lcol[1] >= 0 ? lcol : nullptr, from == 1);
      }
    }
    if (st.Trace >= 1) Doc(vmi, "Updating the incoming column, Length=%d", len);
    if (st.Trace >= 2) {
      Doc(vmi, "The structure of the updated spike in compressed form:");
      PS_Int(vmi, vim->HelpI, "VIM%HelpI", len);
    }

    // 8. The spike as column Icolcr.
    const int32_t stored = Store_Spike(vmi, st, len);
    if (st.Fail_Memory) break;

    // 9. The spike into the rows.
    double ratio = 0.0;
    Spike_Into_Rows(vmi, st, ratio);
    if (st.Fail_Memory) break;
    if (st.Trace >= 1)
      Doc(vmi, "Spike from%d to%d with%d nonzeros out of%d", indx, st.Spike_Last, stored,
          std::max(st.Spike_Last - indx + 1, 0));

    vim->Upd_Count += 1;
    vim->Upd_Spike_Sum += stored;
    vim->Upd_Range_Sum += std::max(st.Spike_Last - indx + 1, 0);

    // 10. First tests.
    if (ratio > st.Uumax) {
      if (st.Trace >= 1) Doc(vmi, "Position 1: Umax=%13.5E and Pivot=%13.5E", ratio, 1.0);
      st.Fail_U_Large = true;
      break;
    }
    if (st.Spike_Last < indx) {
      st.Fail_Pivot = true;  // nothing from the leaving position down
      break;
    }
    if (st.Spike_Last == indx) {
      st.Spike_First = indx;
      Diagonal_Spike(vmi, st);
      if (vmi->Exception != 0) error = true;
      break;
    }

    // 11. The range from the leaving position to the spike's end.
    st.Spike_First = indx;
    Trim_Singular_Cols(vmi, st);
    Trim_Singular_Rows(vmi, st);
    const int32_t renFirst = st.Spike_First, renLast = st.Spike_Last;
    {
      int32_t *model = vmi->Iin->Cppr.V, *cnto = vim->Cnto.V;
      const int32_t *cbtoR = vim->Cbto.V;
      for (int32_t p = renFirst; p <= renLast; ++p) model[cnto[p]] = cbtoR[p];
      // The spike to the end: the range becomes upper Hessenberg.
      for (int32_t p = renFirst; p < renLast; ++p) cnto[p] = cnto[p + 1];
      cnto[renLast] = st.Icolcr;
    }
    Hess_Single_Col(vmi, st);
    if (vmi->Exception != 0) {
      error = true;
      break;
    }
    if (st.Failed()) break;
    {
      int32_t *helpz = vim->HelpZ.V;
      const int32_t *rnto = vim->Rnto.V, *cnto = vim->Cnto.V;
      for (int32_t p = st.Spike_First; p <= st.Spike_Last; ++p) helpz[rnto[p]] = 0;
      for (int32_t p = st.Spike_First; p <= st.Spike_Last; ++p) helpz[cnto[p]] = 1;
    }
    Hess_Single_Row(vmi, st);
    if (vmi->Exception != 0) {
      error = true;
      break;
    }
    if (st.Failed()) break;
    if (st.Trace >= 1)
      Doc(vmi, "Number of rows/columns in bump =%d", st.Spike_Last - st.Spike_First + 1);
    if (st.Spike_First <= st.Spike_Last) {
      Row_Elimination(vmi, st);
      if (vmi->Exception != 0) {
        error = true;
        break;
      }
      if (st.Failed()) break;
    }
    Renumber(vmi, renFirst, renLast);
  } while (false);

  // 12. The end, after success and after failure alike.
  if (st.Failed()) {
    error = true;
    const char *what = st.Fail_Memory    ? "Insufficient memory."
                       : st.Fail_U_Large ? "U-factor too large."
                                         : "Pivot too small.";
    if (st.Fail_Memory)
      vim->Upd_Fail_Memory += 1;
    else if (st.Fail_U_Large)
      vim->Upd_Fail_U_Large += 1;
    else
      vim->Upd_Fail_Pivot += 1;
    if (st.Trace >= 1) Doc(vmi, "Failure in Update_Inverse. %s", what);
  }
  if (!error && debug && !(Check_U_Copies(vmi) && Check_Permutations(vmi))) error = true;
  if (error) {
    Zero_Real(vim->WorkZ.Val, n + 1);
    Zero_Int(vim->HelpZ.V, n + 1);
  }
  if (st.Trace >= 1) {
    const float growth =
        (static_cast<float>(luf->U_numele) + static_cast<float>(luf->LFileUsed)) /
            (static_cast<float>(luf->U_numini) + static_cast<float>(luf->LFileIni)) -
        1.0f;
    Doc(vmi, "End of Update_Inverse. LFileUsed=%d and U_numele=%d  and %% Growth=%8.2f",
        luf->LFileUsed, luf->U_numele, static_cast<double>(growth * 100.0f));
  }
  if (timing) {
    vim->Calls_Update += 1;
    vim->Time_Update += Clock_Read(vmi) - tStart;
  }
  return !error;
}

}  // namespace vlu
