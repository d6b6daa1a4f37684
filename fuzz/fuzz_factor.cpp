// Fuzz target: one factorization of a system drawn from the input, then a
// solve, or, for a singular basis, the check of the pairs and the
// factorization of the basis they repair.
//
// Built twice: fuzz_factor_tri draws bases without a bump (triangular under
// permutations drawn from the input), fuzz_factor_general (with
// VLU_FUZZ_GENERAL) any basis, with the checks, store sizes, heap limit
// and traces of its options.  Data: the System of fuzz_system.h; the
// library's process-wide state, created and destroyed for every input.
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_hooks.h"
#include "fuzz/fuzz_system.h"
#include "interface/state.h"
#include "vardenlu.h"

namespace {

int Quiet(int smsg, int dmsg, int nmsg, char **lines, void *) {
  fz::Check_Lines(smsg, dmsg, nmsg, lines);
  return 0;
}

int Factor(const fz::System &s, const std::vector<int> &stat) {
  int n = s.n, nz = s.nz();
  return vlu_factor(&n, &nz, s.colStart.data(), s.rowIdx.data(), s.colIdx.data(), s.val.data(),
                    s.rPtr(), stat.data());
}

void Solve_And_Check(fz::Bytes &b, const fz::System &s, const std::vector<int> &stat) {
  std::vector<double> rhs(static_cast<size_t>(s.n)), sol(2 * static_cast<size_t>(s.n) + 1);
  for (double &v : rhs) v = fz::Value(b, s.style);
  vlu_solve(sol.data(), rhs.data());
  fz::Check_Solution(s, stat, rhs, sol);
}

// The pairs of a singular result: rows distinct with nonbasic slacks,
// columns distinct and basic; accepting them gives a basis with as many
// basic columns, which must factorize (the library factorized it inside).
void Check_Pairs_And_Repair(const fz::System &s, std::vector<int> stat) {
  const int n = s.n, ns = vlu_getnumsing();
  fz::Require(ns >= 1 && ns <= n, "singular count out of range");
  std::vector<char> rowSeen(static_cast<size_t>(n) + 1, 0), colSeen(2 * static_cast<size_t>(n) + 2, 0);
  for (int k = 1; k <= ns; ++k) {
    int row = 0, col = 0;
    fz::Require(vlu_getsingpair(&k, &row, &col) == col, "pair result is not its column");
    fz::Require(row >= 1 && row <= n && col >= 1 && col <= n + 1, "pair out of range");
    fz::Require(!rowSeen[static_cast<size_t>(row)] && !colSeen[static_cast<size_t>(col)], "pair repeated");
    rowSeen[static_cast<size_t>(row)] = colSeen[static_cast<size_t>(col)] = 1;
    fz::Require(stat[static_cast<size_t>(col - 1)] == 2, "paired column not basic");
    fz::Require(stat[static_cast<size_t>(n + row)] == 0, "paired slack already basic");
  }
  for (int k = 1; k <= ns; ++k) {
    int row = 0, col = 0;
    vlu_getsingpair(&k, &row, &col);
    stat[static_cast<size_t>(col - 1)] = 0;
    stat[static_cast<size_t>(n + row)] = 2;
  }
  const int rc = Factor(s, stat);
  if (rc == 4 && s.opt.heap) return;
  fz::Require(rc == 0 || rc == 3, "repaired basis: unexpected result");
  if (rc == 0 && s.style == fz::Nice) {
    std::vector<double> rhs(static_cast<size_t>(n), 1.0), sol(2 * static_cast<size_t>(n) + 1);
    vlu_solve(sol.data(), rhs.data());
    fz::Check_Solution(s, stat, rhs, sol);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fz::Bytes b(data, size);
  fz::System s;
#if defined(VLU_FUZZ_GENERAL)
  fz::Draw_General(b, s);
#else
  fz::Draw_Triangular(b, s);
#endif
  vlu_destroy();
  vlu_regmsgcb(nullptr, Quiet);
  vlu_create();
  fz::Apply_Hooks(s.opt);
  vlu::Test_Heap_Limit = s.opt.heapLimit;
  const int rc = Factor(s, s.stat);
  if (rc == 4 && s.opt.heap) {
    // Out of memory under the limit: everything went back.
    fz::Require(vlu::Iface().env == nullptr, "result 4 with records left");
  } else if (rc == 0) {
    fz::Require(vlu_getnumsing() == 0, "regular basis with singular count");
    Solve_And_Check(b, s, s.stat);
    // The same basis again: a repeated factor call starts from nothing.
    const int again = Factor(s, s.stat);
    fz::Require(again == 0 || (again == 4 && s.opt.heap), "second factorization differs");
    if (again == 0) Solve_And_Check(b, s, s.stat);
  } else {
    fz::Require(rc == 3, "vlu_factor: unexpected result");
    Check_Pairs_And_Repair(s, s.stat);
  }
  vlu_destroy();
  fz::Clear_Hooks();
  return 0;
}
