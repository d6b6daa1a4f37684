// Listings of vectors and of the vectors of a record through the document
// channel, and a range check of integer vectors.  They run at trace levels
// above 0 and in the failure paths of the consistency tests.
//
// Element lists: "<label> : Empty." when nothing is to be printed,
// "<label> : Zero." when every printed element is zero, otherwise the label
// and the elements, several on a line, each line led by the index of its
// first element.
#pragma once
#include <cstdint>
#include "runtime/records.h"

namespace vlu {

// The first n elements.
void PS_RVec(VMI *vmi, const RVec &v, const char *label, int32_t n);
void PS_IVec(VMI *vmi, const IVec &v, const char *label, int32_t n);
void PS_Int(VMI *vmi, const IntVec &v, const char *label, int32_t n);
void PS_Log(VMI *vmi, const LogVec &v, const char *label, int32_t n);
void PS_Int_Name(VMI *vmi, const IntVec &v, const char *label, int32_t n);

// n elements from base + 1 on.
void PP_RVec(VMI *vmi, const RVec &v, const char *label, int32_t base, int32_t n);
void PP_Int(VMI *vmi, const IntVec &v, const char *label, int32_t base, int32_t n);
void PP_Log(VMI *vmi, const LogVec &v, const char *label, int32_t base, int32_t n);

// All elements.
void PV_RVec(VMI *vmi, const RVec &v, const char *label);
void PV_IVec(VMI *vmi, const IVec &v, const char *label);
void PV_Int(VMI *vmi, const IntVec &v, const char *label);
void PV_Log(VMI *vmi, const LogVec &v, const char *label);
void PV_LInt(VMI *vmi, const LIntVec &v, const char *label);

// v(ind(j)) for j = 1..n, as pairs of index and value.
void PS_Int_Ind(VMI *vmi, const IntVec &v, const IntVec &ind, const char *label, int32_t n);
// Entries start .. start+length-1 of a sparse vector held as values and
// indices, as pairs of index and value.
void PV_RvecIndexed(VMI *vmi, const RVec &values, const IntVec &indices, int32_t start, int32_t length,
                    const char *label);
// values(list(j)) for every entry of the list.
void PV_RVecList(VMI *vmi, const RVec &values, const IntVec &list, const char *label);

// Reports the first element below low and the first above high.  True when
// every element lies in [low, high] (an empty vector included).
bool Check_Int_Range(VMI *vmi, const IntVec &v, const char *label, int32_t low, int32_t high);
bool Check_Int_Range(VMI *vmi, const IVec &v, const char *label, int32_t low, int32_t high);

// The allocated vectors of one record: name, address, length, type.  At
// Trace_Memory 3 and above the element lists follow.
void VMI_Dump_VUM(VMI *vmi);
void VMI_Dump_VIM(VMI *vmi);
void VMI_Dump_LUF(VMI *vmi);
void VMI_Dump_IIN(VMI *vmi);
void VMI_Dump_VPI(VMI *vmi);
void VMI_Dump_BND(VMI *vmi);
void VMI_Dump_VDP(VMI *vmi);
// All of the above in turn.
void VMI_Dump_All(VMI *vmi);

}  // namespace vlu
