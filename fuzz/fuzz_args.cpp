// Fuzz target: the argument checks of vlu_factor against a plain reference.
//
// Input: n (0..64), nz (0..300), then the column starts and the row numbers,
// each drawn near a valid value with occasional faults: starts that jump
// back or ahead, rows 0, n + 1, far out, repeated, in any order.  The checks
// of the library (interface/factor_args.cpp: fused into the copy, with a
// shortcut for rows in ascending order) must give the same verdict and the
// same first fault as the reference, which tests every rule the simple way,
// and a matrix they accept must be copied unchanged.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/fuzz_system.h"
#include "interface/factor_args.h"
#include "runtime/records.h"

namespace {

// The first fault, in the order the library reports them, or "".
std::string Reference(int n, int nz, const std::vector<int> &cs, const std::vector<int> &ri) {
  char m[200];
  if (cs[0] != 1) return std::snprintf(m, sizeof m, "vlu_factor: colStart[0] = %d, expected 1", cs[0]), m;
  for (int j = 1; j <= n; ++j)
    if (cs[static_cast<size_t>(j)] < cs[static_cast<size_t>(j - 1)])
      return std::snprintf(m, sizeof m, "vlu_factor: colStart[%d] = %d is below colStart[%d] = %d", j,
                           cs[static_cast<size_t>(j)], j - 1, cs[static_cast<size_t>(j - 1)]),
             m;
  if (cs[static_cast<size_t>(n)] != nz + 1)
    return std::snprintf(m, sizeof m, "vlu_factor: colStart[%d] = %d, expected nz + 1 = %d", n,
                         cs[static_cast<size_t>(n)], nz + 1),
           m;
  for (int p = 1; p <= nz; ++p) {
    const int x = ri[static_cast<size_t>(p - 1)];
    if (x < 1 || x > n) {
      int col = 0;
      for (int j = 1; j <= n; ++j)
        if (cs[static_cast<size_t>(j - 1)] <= p) col = j;
      return std::snprintf(m, sizeof m, "vlu_factor: rowIdx[%d] = %d in column %d is outside 1..n = %d",
                           p - 1, x, col, n),
             m;
    }
  }
  for (int j = 1; j <= n; ++j)
    for (int p = cs[static_cast<size_t>(j - 1)]; p < cs[static_cast<size_t>(j)]; ++p)
      for (int q = cs[static_cast<size_t>(j - 1)]; q < p; ++q)
        if (ri[static_cast<size_t>(q - 1)] == ri[static_cast<size_t>(p - 1)])
          return std::snprintf(m, sizeof m,
                               "vlu_factor: row %d appears twice in column %d (rowIdx[%d] and rowIdx[%d])",
                               ri[static_cast<size_t>(p - 1)], j, q - 1, p - 1),
                 m;
  return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fz::Bytes b(data, size);
  const int n = static_cast<int>(b.Pick(65));
  const int nz = static_cast<int>(b.Pick(301));
  std::vector<int> cs(static_cast<size_t>(n) + 1), ri(static_cast<size_t>(nz));
  // Starts: an even spread, then faults.
  for (int j = 0; j <= n; ++j) cs[static_cast<size_t>(j)] = 1 + (n == 0 ? nz : static_cast<int>(int64_t(nz) * j / n));
  for (int t = b.U8() % 4; t > 0; --t) {
    const int j = static_cast<int>(b.Pick(static_cast<uint32_t>(n + 1)));
    const int8_t d = static_cast<int8_t>(b.U8());
    cs[static_cast<size_t>(j)] += d;
  }
  // Rows: ascending or not, then faults.
  const uint8_t mode = b.U8();
  for (int p = 0; p < nz; ++p) ri[static_cast<size_t>(p)] = 1 + static_cast<int>(b.Pick(static_cast<uint32_t>(std::max(n, 1))));
  if (mode & 1) {  // sort within each column's stretch, dropping repeats where possible
    for (int j = 1; j <= n; ++j) {
      const int from = std::max(1, cs[static_cast<size_t>(j - 1)]), to = std::min(nz + 1, cs[static_cast<size_t>(j)]);
      if (from < to) std::sort(ri.begin() + from - 1, ri.begin() + to - 1);
    }
  }
  for (int t = (mode >> 1) % 4; t > 0 && nz > 0; --t) {
    const int p = static_cast<int>(b.Pick(static_cast<uint32_t>(nz)));
    static const int bad[4] = {0, -1, INT_MIN, 1000000};
    const uint8_t how = b.U8();
    ri[static_cast<size_t>(p)] = (how & 3) == 3 ? n + 1 : bad[how & 3];
  }

  vlu::Factor_Args a;
  a.n = n;
  a.nz = nz;
  std::vector<int> colIdx(static_cast<size_t>(nz), 1), stat(2 * static_cast<size_t>(n) + 1, 0);
  std::vector<double> val(static_cast<size_t>(nz), 1.0);
  a.colStart = cs.data();
  a.rowIdx = ri.data();
  a.colIdx = colIdx.data();
  a.val = val.data();
  a.basisStat = stat.data();
  char msg[vlu::Arg_Msg_Len];
  fz::Require(vlu::Check_Factor_Sizes(a, msg), "sizes refused");

  vlu::VMI *v = nullptr;
  int status = 0;
  vlu::Allocate_Space(&v, &status);
  v->Vim->NumRow = n;
  v->Vim->NumCol = n + 1;
  v->Vim->NumNz = nz + n;
  v->Max_Updates = 100;
  vlu::Allocate_Inversion(v);
  const bool ok = vlu::Load_Factor_Matrix(v, a, msg);
  const std::string want = Reference(n, nz, cs, ri);
  if (ok != want.empty() || (!ok && want != msg)) {
    std::fprintf(stderr, "library: %s\nreference: %s\n", ok ? "(accepted)" : msg, want.c_str());
    fz::Fail("argument checks disagree with the reference");
  }
  for (int i = 1; i <= n + 1; ++i) fz::Require(v->Vim->HelpZ[i] == 0, "scratch left dirty");
  if (ok) {
    for (int j = 1; j <= n + 1; ++j) fz::Require(v->Vim->Stcl[j] == cs[static_cast<size_t>(j - 1)], "start copied");
    for (int p = 1; p <= nz; ++p) fz::Require(v->Vim->Rnum[p] == ri[static_cast<size_t>(p - 1)], "row copied");
  }
  vlu::VMI_Deallocate(&v, &status);
  return 0;
}
