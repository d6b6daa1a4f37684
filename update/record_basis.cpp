// Status bookkeeping of a basis change, the test whether an in-place update
// may be tried, and the list of degenerate columns.
#include <cmath>
#include <cstdint>

#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "update/update.h"

namespace vlu {

namespace {

// Internal error numbers of the status bookkeeping, one per check.
constexpr int Err_Entering_Range = 6101;
constexpr int Err_Leaving_Range = 6102;
constexpr int Err_Leaving_Status = 6103;
constexpr int Err_Entering_Status = 6104;

// Makes room for one more entry in the degeneracy list.
bool Deg_Room(VMI *vmi, VIM *vim) {
  const int32_t need = vim->Deg_Count + 1;
  if (Size(vim->DegCol) < need) {
    int32_t grow = Size(vim->DegCol) > 16 ? Size(vim->DegCol) : 16;
    if (!vim->DegCol.Allocated())
      Allocate_Int(vmi, vim->DegCol, "VIM%DegCol", grow);
    else
      Increase_Int(vmi, vim->DegCol, "VIM%DegCol", grow);
  }
  if (Size(vim->DegBnd) < need) {
    int32_t grow = Size(vim->DegBnd) > 16 ? Size(vim->DegBnd) : 16;
    if (!vim->DegBnd.Allocated())
      Allocate_RVec(vmi, vim->DegBnd, grow);
    else
      Increase_RVec(vmi, vim->DegBnd, grow);
  }
  return vmi->EnoughSpace && Size(vim->DegCol) >= need && Size(vim->DegBnd) >= need;
}

}  // namespace

void RecordBasisChange(VMI *vmi, int32_t incoming, int32_t leaving) {
  VIM *vim = vmi->Vim;
  const int32_t numVar = vim->NumCol + vim->NumRow;
  int32_t *basc = vim->Basc.V;

  // Both ranges come before both status checks, and the leaving column is
  // looked at before the entering one.
  if (incoming < 1 || incoming > numVar) {
    Doc(vmi, "** Error in RecordBasisChange. Entering column %d is out of range.", incoming);
    Internal_Error(vmi, Err_Entering_Range, true);
    return;
  }
  if (leaving < 1 || leaving > numVar) {
    Doc(vmi, "** Error in RecordBasisChange. Leaving column %d is out of range.", leaving);
    Internal_Error(vmi, Err_Leaving_Range, true);
    return;
  }
  if (basc[leaving] != IBasic) {
    Doc(vmi, "** Error in RecordBasisChange. Leaving column %d has Basc=%d", leaving,
        basc[leaving]);
    Internal_Error(vmi, Err_Leaving_Status, true);
    return;
  }
  if (basc[incoming] == IBasic) {
    Doc(vmi, "** Error in RecordBasisChange. Entering column %d has Basc=%d", incoming,
        basc[incoming]);
    Internal_Error(vmi, Err_Entering_Status, true);
    return;
  }
  basc[incoming] = IBasic;
  basc[leaving] = NBasic;

  if (vim->Deg_Active) {
    if (vmi->Trace_Inv >= 1 || vmi->Trace_Upd >= 1)
      Doc(vmi, "TestDegenerate called from RecordBasisChange with Incoming=%d", incoming);
    TestDegenerate(vmi, vim->XSol, incoming, true, true);
  }
}

bool Update_Possible(VMI *vmi) {
  const VIM *vim = vmi->Vim;
  const LUF *luf = vmi->Luf;
  // All sums in 32-bit arithmetic, as the limits were always computed.
  const bool lRoom = Wrap_Add(vim->NumRow, luf->LFileUsed) <= Size(luf->Lmat);
  const bool uRoom = Wrap_Add(vim->NumRow, luf->U_numele) <= Size(vim->AUrmat);
  const bool growth = Wrap_Add(luf->LFileUsed, luf->U_numele) <=
                      Wrap_Mul(2, Wrap_Add(luf->LFileIni, luf->U_numini));
  const bool count = vim->Updates_Done < vmi->Max_Updates;
  return lRoom && uRoom && growth && count;
}

void TestDegenerate(VMI *vmi, RVec &x, int32_t column, bool lookup, bool exactBound) {
  (void)exactBound;
  VIM *vim = vmi->Vim;
  // The column values and bounds belong to the model layer; without them
  // there is nothing to decide.
  if (!x.Allocated() || !vim->Xmin.Allocated() || !vim->Xmax.Allocated() ||
      !vim->ColAcc.Allocated())
    return;
  if (column < 1 || column > Size(x) || column > Size(vim->Xmin) ||
      column > Size(vim->Xmax) || column > Size(vim->ColAcc))
    return;
  const bool trace = vmi->Trace_Upd >= 1 || vmi->Trace_Inv >= 1;
  const double xj = x.Val[column];
  const double acc = vim->ColAcc.Val[column];
  const bool atLower = xj <= vim->Xmin.Val[column] + acc;
  const bool atUpper = vim->Xmax.Val[column] - acc <= xj;

  int32_t found = 0;
  if (lookup && vim->DegCol.Allocated()) {
    const int32_t *deg = vim->DegCol.V;
    for (int32_t i = 1; i <= vim->Deg_Count; ++i) {
      if (std::abs(deg[i]) == column) {
        found = i;
        break;
      }
    }
  }

  if (found > 0) {
    int32_t *deg = vim->DegCol.V;
    double *bnd = vim->DegBnd.Val;
    if (atLower || atUpper) {
      if (trace)
        Doc(vmi, "TestDegenerate: Column %d is already in DegCol with DegBnd=%g", column,
            bnd[found]);
      return;
    }
    // Remove the entry: close the gap level by level, moving the last entry
    // of each later level into it, then the very last entry.
    int32_t i = found;
    for (int32_t k = 2; k <= vim->Deg_Levels; ++k) {
      const int32_t s = vim->DegStack.V[k];
      if (s > i) {
        deg[i] = deg[s];
        bnd[i] = bnd[s];
        i = s;
        vim->DegStack.V[k] = s - 1;
      }
    }
    deg[i] = deg[vim->Deg_Count];
    bnd[i] = bnd[vim->Deg_Count];
    vim->Deg_Count -= 1;
    if (trace) Doc(vmi, "TestDegenerate: Column %d removed from DegCol.", column);
    return;
  }

  const bool trace2 = vmi->Trace_Upd >= 2 || vmi->Trace_Inv >= 2;
  if (atLower && Deg_Room(vmi, vim)) {
    vim->Deg_Count += 1;
    vim->DegCol.V[vim->Deg_Count] = -column;
    vim->DegBnd.Val[vim->Deg_Count] = 0.0;
    if (trace2)
      Doc(vmi, "AddDegenerate: Column %d with min=%d becomes degen no %d bound=%g", column, -1,
          vim->Deg_Count, 0.0);
  }
  if (atUpper && Deg_Room(vmi, vim)) {
    vim->Deg_Count += 1;
    vim->DegCol.V[vim->Deg_Count] = column;
    vim->DegBnd.Val[vim->Deg_Count] = 0.0;
    if (trace2)
      Doc(vmi, "AddDegenerate: Column %d with min=%d becomes degen no %d bound=%g", column, 0,
          vim->Deg_Count, 0.0);
  }
}

}  // namespace vlu
