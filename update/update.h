// Basis changes: status bookkeeping, the limit test and the in-place update.
#pragma once
#include <cstdint>
#include "runtime/records.h"
#include "solve/spike_cache.h"

namespace vlu {

// Records that `incoming` enters and `leaving` leaves (VIM%Basc).
void RecordBasisChange(VMI *vmi, int32_t incoming, int32_t leaving);
// True when an in-place update may be tried.
bool Update_Possible(VMI *vmi);
void TestDegenerate(VMI *vmi, RVec &x, int32_t column, bool lookup, bool exactBound);
// Replaces the column of `leaving` by that of `entering` in the factors.
// Returns false when the update failed; the caller then refactorizes.
// `cache`, when valid, holds the L stage of the solve made since the last
// change of the factors; it stands for the spike when the entering column
// is the right-hand side of that solve.
bool Update_Inverse(VMI *vmi, int32_t entering, int32_t leaving,
                    const Spike_Cache *cache = nullptr);
// Calls of Update_Inverse since the process started (wraps): what the
// exported interface keeps beside the factors tells by it whether an
// update ran since it was made.
uint32_t Update_Inverse_Calls();

// Storage of U and L between updates.
// Removes the elements of magnitude Tol_Zero or less from both copies of U
// (never a pivot), and the multipliers of magnitude max(Tol_Zero, eps) or
// less from the L columns of the factorization.
void RemoveZerosfromU(VMI *vmi);
void RemoveZerosfromL(VMI *vmi);
// Compress the column (row) copy of U toward ColUSpace (RowUSpace) and
// double the vectors when too little stays free.  `error` is set when no
// more than `required` slots are free at the low end afterwards.
void Update_CompressColumn(VMI *vmi, int32_t required, bool &error);
void Update_CompressRow(VMI *vmi, int32_t required);
// Growth of the L-file and of the column copy of U; the outcome is in
// VMI%EnoughSpace.
void Increase_Lmat(VMI *vmi, int32_t required);
void Increase_Ucmat(VMI *vmi, int32_t required, bool copy);

// Debug checks (run by Update_Inverse at VMI%Debug_Upd >= 1; also used by
// the tests).  Each writes what it finds, reports an internal error on a
// finding and returns false.
// The two copies of U: starts, lengths, ends, sums of lengths, index ranges
// and every element present in both with the same value.
bool Check_U_Copies(VMI *vmi);
// VIM%Rnto, Rotn, Cnto and Cotn in range and inverse to each other.
bool Check_Permutations(VMI *vmi);

}  // namespace vlu
