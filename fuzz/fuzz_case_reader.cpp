// Fuzz target: the case reader of vlu-bench and the tests (tools/case_io.h).
//
// Input: the texts of matrix.mtx, basis.txt, r.txt, walk.txt and info.txt,
// separated by a byte 0x01; a missing or empty section is an absent file
// (matrix.mtx and basis.txt are then empty).  A case the reader accepts must
// be well formed as the benchmark relies on it -- column starts rising from
// 1 to nz + 1, rows in range and not repeated, exactly n basic columns, r of
// n values where t is basic, a walk that only ever swaps a nonbasic column
// in for a basic one -- and the argument checks of vlu_factor must accept
// its matrix too.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_system.h"
#include "interface/factor_args.h"
#include "runtime/records.h"
#include "tools/case_io.h"

namespace {

void Check_Case(const vlu_case::Case &c) {
  using fz::Require;
  const int n = c.n, nz = c.nz;
  Require(n >= 0 && nz >= 0, "negative sizes");
  Require(c.colStart.size() == static_cast<size_t>(n) + 1, "colStart length");
  Require(c.rowIdx.size() == static_cast<size_t>(nz) && c.colIdx.size() == static_cast<size_t>(nz) &&
              c.val.size() == static_cast<size_t>(nz),
          "entry arrays length");
  Require(c.colStart[0] == 1 && c.colStart[static_cast<size_t>(n)] == nz + 1, "colStart ends");
  std::set<std::pair<int, int>> seen;
  for (int j = 1; j <= n; ++j) {
    Require(c.colStart[static_cast<size_t>(j)] >= c.colStart[static_cast<size_t>(j - 1)], "colStart falls");
    for (int p = c.colStart[static_cast<size_t>(j - 1)]; p < c.colStart[static_cast<size_t>(j)]; ++p) {
      const int i = c.rowIdx[static_cast<size_t>(p - 1)];
      Require(i >= 1 && i <= n, "row out of range");
      Require(c.colIdx[static_cast<size_t>(p - 1)] == j, "column number disagrees with colStart");
      Require(seen.insert({j, i}).second, "entry repeated");
    }
  }
  Require(c.basis.size() == 2 * static_cast<size_t>(n) + 1, "basis length");
  int basic = 0;
  for (int v : c.basis) {
    Require(v == 0 || v == 2, "status value");
    basic += v == 2;
  }
  Require(basic == n, "basic count");
  Require(!c.hasR || c.r.size() == static_cast<size_t>(n), "r length");
  Require(c.hasR || c.basis[static_cast<size_t>(n)] != 2, "t basic without r");
  std::vector<int> stat = c.basis;
  for (const vlu_case::WalkStep &s : c.steps) {
    Require(s.q >= 1 && s.q <= 2 * n + 1 && s.l >= 1 && s.l <= 2 * n + 1, "walk column out of range");
    Require(stat[static_cast<size_t>(s.q - 1)] == 0 && stat[static_cast<size_t>(s.l - 1)] == 2, "walk step");
    stat[static_cast<size_t>(s.q - 1)] = 2;
    stat[static_cast<size_t>(s.l - 1)] = 0;
  }
  int last = -1;
  for (const vlu_case::WalkCheck &k : c.checks) {
    Require(k.step >= 0 && k.step <= static_cast<int>(c.steps.size()) && k.step >= last, "check step");
    last = k.step;
  }

  // The library's argument pass agrees (small cases: it needs a store).
  if (n > 5000 || nz > 100000) return;
  vlu::Factor_Args a;
  a.n = n;
  a.nz = nz;
  a.colStart = c.colStart.data();
  a.rowIdx = c.rowIdx.data();
  a.colIdx = c.colIdx.data();
  a.val = c.val.data();
  a.r = c.rPtr();
  a.basisStat = c.basis.data();
  char msg[vlu::Arg_Msg_Len];
  Require(vlu::Check_Factor_Sizes(a, msg), "argument sizes refused");
  vlu::VMI *v = nullptr;
  int status = 0;
  vlu::Allocate_Space(&v, &status);
  Require(status == 0, "records");
  v->Vim->NumRow = n;
  v->Vim->NumCol = n + 1;
  v->Vim->NumNz = nz + n;
  v->Max_Updates = 100;
  vlu::Allocate_Inversion(v);
  Require(v->EnoughSpace, "store");
  if (!vlu::Load_Factor_Matrix(v, a, msg)) {
    std::fprintf(stderr, "%s\n", msg);
    fz::Fail("the argument pass refused a case the reader accepted");
  }
  vlu::VMI_Deallocate(&v, &status);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string parts[5];
  bool present[5] = {false, false, false, false, false};
  size_t k = 0;
  for (size_t i = 0; i < size && k < 5; ++i) {
    if (data[i] == 0x01) {
      ++k;
      continue;
    }
    parts[k].push_back(static_cast<char>(data[i]));
    present[k] = true;
  }
  vlu_case::Case_Texts t;
  t.matrix = parts[0];
  t.basis = parts[1];
  t.r = parts[2];
  t.hasR = present[2];
  t.walk = parts[3];
  t.hasWalk = present[3];
  t.info = parts[4];
  t.hasInfo = present[4];
  vlu_case::Case c;
  std::string err;
  if (vlu_case::Parse_Case(t, c, err)) {
    Check_Case(c);
  } else {
    fz::Require(!err.empty(), "refused without a message");
  }
  return 0;
}
