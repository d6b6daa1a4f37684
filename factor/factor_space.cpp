// Growth of the stores of the factorization: the U-file with the value
// array (Ic, AUrmat), the active column structure (Ir, C2rp, R2cp) and the
// L-file (Lmat, Lrow, Lpiv).  Each routine takes the wanted size, grows to at
// least twice the present one, and leaves the outcome in VMI%EnoughSpace.
#include <algorithm>
#include <cstdint>

#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/test_hooks.h"
#include "runtime/vectors.h"

namespace vlu {

namespace {

constexpr int64_t Max_Len = 2147483647;

int32_t Clamp_Len(int64_t t) { return static_cast<int32_t>(std::min<int64_t>(t, Max_Len)); }

// The size a store grows to: twice its size, or the demand if that is more.
// Tests that ask for the smallest stores make every growth small, so that the
// elimination has to compress and grow many times.
int64_t Grown(int64_t size, int64_t demand) {
  if (Test_Options.Min_Space) return std::max<int64_t>(size + size / 16 + 64, demand);
  return std::max<int64_t>(2 * size, demand);
}

// Grows a vector to exactly t elements when it is not longer than t.
void Grow_To(VMI *vmi, RVec &v, int32_t t, bool keep) {
  if (Size(v) <= t) Increase_RVec(vmi, v, t - Size(v), keep);
}
void Grow_To(VMI *vmi, IntVec &v, const char *name, int32_t t, bool keep) {
  if (Size(v) <= t) Increase_Int(vmi, v, name, t - Size(v), keep);
}

bool Trace_Space(const VMI *vmi) { return vmi->Trace_Inv >= 2; }

}  // namespace

void Increase_Uspace(VMI *vmi, int32_t demand, bool keep) {
  VIM *vim = vmi->Vim;
  LUF *luf = vmi->Luf;
  const int32_t sizeA = Size(vim->AUrmat), sizeI = Size(luf->Ic);
  if (Trace_Space(vmi)) {
    Doc(vmi, "Increasing Aurmat and Ic.");
    Doc(vmi, "Original length of Aurmat=%d and Ic=%d", sizeA, sizeI);
  }
  int64_t t = Grown(std::min(sizeA, sizeI), demand);
  t = ((t + 7) / 8) * 8;
  if (t > Max_Len) t = (Max_Len / 8) * 8;
  const int32_t target = static_cast<int32_t>(t);
  Grow_To(vmi, vim->AUrmat, target, keep);
  Grow_To(vmi, luf->Ic, "LUF%Ic", target, keep);
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Failure when attempting to increase Amat and Ic.");
    return;
  }
  const int32_t oldSpace = luf->RowUSpace;
  luf->RowUSpace = std::min(Size(vim->AUrmat), Size(luf->Ic));
  if (Trace_Space(vmi))
    Doc(vmi, "Adjusted length of Aurmat=%d and Ic=%d RowUSpace=%d", Size(vim->AUrmat),
        Size(luf->Ic), luf->RowUSpace);
  const int32_t d = luf->RowUSpace - oldSpace;
  if (d <= 0) return;
  if (!keep) {
    // Nothing stands in the stores: the empty U-file starts at the new top.
    luf->U_elefirst = luf->RowUSpace + 1;
    return;
  }
  // Move the U-file up by the growth, from the top down, with the starts of
  // the rows that stand in it.
  const int32_t first = luf->U_elefirst;
  int32_t *ic = luf->Ic.V;
  double *aur = vim->AUrmat.Val;
  for (int32_t p = oldSpace; p >= first; --p) {
    ic[p + d] = ic[p];
    aur[p + d] = aur[p];
  }
  int32_t *rstr = luf->Rstr.V;
  for (int32_t i = 1; i <= vim->NumRow; ++i)
    if (rstr[i] >= first && rstr[i] <= oldSpace) rstr[i] += d;
  luf->U_elefirst = first + d;
}

void Increase_ASpace(VMI *vmi, int32_t demand, bool keep) {
  LUF *luf = vmi->Luf;
  IIN *iin = vmi->Iin;
  const int32_t sIr = Size(luf->Ir), sC = Size(iin->C2rp), sR = Size(iin->R2cp);
  if (Trace_Space(vmi)) {
    Doc(vmi, "Increasing Inversion Column structure Ir, C2rp, and R2cp.");
    Doc(vmi, "Original length of Ir=%d C2rp=%d and R2cp=%d", sIr, sC, sR);
  }
  const int32_t target = Clamp_Len(
      Grown(std::min(sIr, std::min(sC, sR)), demand));
  Grow_To(vmi, luf->Ir, "LUF%Ir", target, keep);
  Grow_To(vmi, iin->C2rp, "IIN%C2rp", target, keep);
  Grow_To(vmi, iin->R2cp, "IIN%R2cp", target, keep);
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Failure when attempting to increase Ir, C2rp, and R2cp");
    return;
  }
  luf->ColASpace = std::min(Size(luf->Ir), std::min(Size(iin->C2rp), Size(iin->R2cp)));
  luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
  if (Trace_Space(vmi))
    Doc(vmi, "Adjusted length of Ir=%d C2rp=%d and R2cp=%d ColASpace=%d", Size(luf->Ir),
        Size(iin->C2rp), Size(iin->R2cp), luf->ColASpace);
}

void Increase_L(VMI *vmi, int32_t demand, bool keep) {
  LUF *luf = vmi->Luf;
  if (Trace_Space(vmi)) {
    Doc(vmi, "Increasing structure for L-factor Lmat, Lrow, and Lpiv to at least %d", demand);
    Doc(vmi, "Original length Lmat=%d", Size(luf->Lmat));
  }
  const int32_t target =
      Clamp_Len(Grown(Size(luf->Lmat), demand));
  if (Size(luf->Lmat) < target) Increase_RVec(vmi, luf->Lmat, target - Size(luf->Lmat), keep);
  if (Size(luf->Lrow) < target)
    Increase_Int(vmi, luf->Lrow, "LUF%Lrow", target - Size(luf->Lrow), keep);
  if (Size(luf->Lpiv) < target)
    Increase_Int(vmi, luf->Lpiv, "LUF%Lpiv", target - Size(luf->Lpiv), keep);
  if (!vmi->EnoughSpace) {
    Doc(vmi, "Failure when attempting to increase Lmat, Lrow, and Lpiv");
    return;
  }
  if (Trace_Space(vmi)) Doc(vmi, "Adjusted length of Lmat, Lrow, and Lpiv=%d", Size(luf->Lmat));
}

}  // namespace vlu
