// Fuzz target: a factorization followed by a sequence of calls drawn from
// the input -- solves, basis changes (updated in place or refactorized, or
// forced), column t entering from the last right-hand side, new update
// limits and refactorizations, a message callback that asks for silence,
// vlu_msghack and the queries -- with every solve checked.
//
// fuzz_sequence_tri keeps every basis without a bump: a change trades the
// matrix column of a position for the slack of its row, and t enters only at
// the position where a full column keeps the shape.  fuzz_sequence_general
// (VLU_FUZZ_GENERAL) changes any basic column for any nonbasic one, and
// applies the options of its system: the checks of the factorization and of
// every update, the smallest stores, traces, and a heap limit that an
// in-place update meets (the limit is lifted when the update ends, so that
// the refactorization after a failure has the room it needs: a
// refactorization short of memory stops the process).
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_hooks.h"
#include "fuzz/fuzz_system.h"
#include "interface/state.h"
#include "update/update.h"
#include "vardenlu.h"

namespace {

// Once asked to, the callback answers non-zero to a block sent during a
// solve (a NaN repair message): the channel falls silent for the rest of the
// environment, and later calls must not mind.  A refusal inside a
// factorization or an update would cut that call short, and stop it.
struct Channel {
  bool refuse = false;  // answer non-zero from now on
  bool inSolve = false;
  bool limited = false;  // a heap limit stands until the update ends
};
int Callback(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  auto *c = static_cast<Channel *>(usrmem);
  const int count = fz::Check_Lines(smsg, dmsg, nmsg, lines);
  if (c->limited)
    for (int k = 0; k < count; ++k)
      if (std::strstr(lines[k], "End of Update_Inverse") != nullptr) {
        vlu::Iface().env->MaxHeap_Bytes = INT64_MAX;
        c->limited = false;
      }
  return c->refuse && c->inSolve ? 1 : 0;
}

struct Run {
  Channel channel;
  fz::System s;
  std::vector<int> stat;      // the caller's status array
  bool factored = false;      // factors usable: solves and updates allowed
  bool rKnown = false;        // column t's values are fixed
  std::vector<double> lastRhs;
  bool solvedSince = false;   // a solve came after the factorization (t may enter)

  int Factor() {
    int n = s.n, nz = s.nz();
    const int rc = vlu_factor(&n, &nz, s.colStart.data(), s.rowIdx.data(), s.colIdx.data(),
                              s.val.data(), s.rPtr(), stat.data());
    fz::Require(rc == 0 || rc == 3, "vlu_factor: unexpected result");
    factored = rc == 0;
    rKnown = s.hasR;
    solvedSince = false;
    if (s.opt.debugUpd) vlu::Iface().env->Debug_Upd = 1;
    return rc;
  }
  // Accepts the pairs of a singular factorization and factorizes again.
  void Repair() {
    const int ns = vlu_getnumsing();
    std::vector<int> rows, cols;
    for (int k = 1; k <= ns; ++k) {
      int row = 0, col = 0;
      vlu_getsingpair(&k, &row, &col);
      fz::Require(row >= 1 && row <= s.n && col >= 1 && col <= s.n + 1, "pair out of range");
      rows.push_back(row);
      cols.push_back(col);
    }
    for (size_t k = 0; k < rows.size(); ++k) {
      stat[static_cast<size_t>(cols[k] - 1)] = 0;
      stat[static_cast<size_t>(s.n + rows[k])] = 2;
    }
    Factor();
  }
  void Solve(fz::Bytes &b, int style) {
    std::vector<double> rhs(static_cast<size_t>(s.n)), sol(2 * static_cast<size_t>(s.n) + 1);
    for (double &v : rhs) v = fz::Value(b, style);
    channel.inSolve = true;
    vlu_solve(sol.data(), rhs.data());
    channel.inSolve = false;
    // While t is unknown its values are those of the last solve.
    if (!rKnown) {
      lastRhs = rhs;
      solvedSince = true;
    }
    fz::Check_Solution(s, stat, rhs, sol);
  }
  // Column q enters, l leaves; with `headroom` >= 0 an in-place update may
  // take that many bytes more than the factors hold.
  void Change(int q, int l, int force, int64_t headroom = -1) {
    const int n = s.n;
    if (q == n + 1) {
      s.r = lastRhs;
      s.hasR = true;
    }
    stat[static_cast<size_t>(q - 1)] = 2;
    stat[static_cast<size_t>(l - 1)] = 0;
    vlu::VMI *env = vlu::Iface().env;
    if (headroom >= 0 && force == 0 && !env->Msg_Dead && vlu::Update_Possible(env)) {
      // The trace, sent line by line, tells the callback where the update ends.
      env->Trace_Upd = std::max(env->Trace_Upd, 1);
      env->Msg_Flush_Each = true;
      env->MaxHeap_Bytes = env->Mem_Current + headroom;
      channel.limited = true;
    }
    const bool limited = channel.limited;
    const int rc = vlu_update(stat.data(), &q, &l, &force);
    fz::Require(!channel.limited, "heap limit left standing after an update");
    if (limited) {
      env = vlu::Iface().env;
      env->Msg_Flush_Each = false;
      env->Trace_Upd = s.opt.trace;
    }
    fz::Require(rc == 1 || rc == 2 || rc == 3, "vlu_update: unexpected result");
    if (q == n + 1) rKnown = true;
    factored = rc != 3;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fz::Bytes b(data, size);
  Run run;
  fz::System &s = run.s;
#if defined(VLU_FUZZ_GENERAL)
  fz::Draw_General(b, s);
#else
  fz::Draw_Triangular(b, s);
#endif
  const int n = s.n;
  run.stat = s.stat;
  vlu_destroy();
  vlu_regmsgcb(&run.channel, Callback);
  vlu_create();
  fz::Apply_Hooks(s.opt);
  if (run.Factor() == 3) run.Repair();

  for (int step = 0; step < 64 && b.Left(); ++step) {
    const uint8_t op = b.U8();
    if (!run.factored) {
      // Singular: only a new factorization helps.
      if (run.Factor() == 3) run.Repair();
      continue;
    }
    switch (op % 10) {
      case 0:
      case 1:
        run.Solve(b, s.style);
        break;
      case 2:
      case 3:
      case 4: {  // a basis change, in place if possible
        const int force = (op >> 4) & 1;
#if defined(VLU_FUZZ_GENERAL)
        std::vector<int> in, out;
        for (int j = 1; j <= 2 * n + 1; ++j) {
          if (run.stat[static_cast<size_t>(j - 1)] == 2)
            out.push_back(j);
          else if (j != n + 1)
            in.push_back(j);
        }
        if (in.empty() || out.empty()) break;
        const int q = in[b.Pick(static_cast<uint32_t>(in.size()))];
        const int l = out[b.Pick(static_cast<uint32_t>(out.size()))];
        int64_t headroom = -1;
        if (s.opt.heap) {
          const uint16_t h = b.U16();
          headroom = static_cast<int64_t>(h & 0x3ff) << ((h >> 10) % 16);
        }
        run.Change(q, l, force, headroom);
#else
        const int k = 1 + static_cast<int>(b.Pick(static_cast<uint32_t>(n)));
        const int col = s.pcol[static_cast<size_t>(k)], slack = n + 1 + s.prow[static_cast<size_t>(k)];
        if (run.stat[static_cast<size_t>(col - 1)] == 2)
          run.Change(slack, col, force);
        else if (run.stat[static_cast<size_t>(slack - 1)] == 2)
          run.Change(col, slack, force);
#endif
        break;
      }
      case 5: {  // column t enters from the last right-hand side
        if (run.rKnown || !run.solvedSince || run.stat[static_cast<size_t>(n)] == 2) break;
#if defined(VLU_FUZZ_GENERAL)
        std::vector<int> out;
        for (int j = 1; j <= 2 * n + 1; ++j)
          if (run.stat[static_cast<size_t>(j - 1)] == 2) out.push_back(j);
        run.Change(n + 1, out[b.Pick(static_cast<uint32_t>(out.size()))], 0);
#else
        const int k = s.lower ? 1 : n;
        const int col = s.pcol[static_cast<size_t>(k)], slack = n + 1 + s.prow[static_cast<size_t>(k)];
        const int l = run.stat[static_cast<size_t>(col - 1)] == 2 ? col : slack;
        // Without an element in the pivot row the position would be empty
        // and the basis would need the elimination.
        const double piv = run.lastRhs[static_cast<size_t>(s.prow[static_cast<size_t>(k)] - 1)];
        if (!(std::fabs(piv) >= 1e-19)) break;
        run.Change(n + 1, l, 0);
#endif
        break;
      }
      case 6: {  // a new limit, and a refactorization to bring it in
        static const int limits[8] = {-1, 0, 1, 3, -7, 500000000, 858993460, 2147483647};
        int lim = limits[(op >> 4) & 7];
        vlu_setupdatelimit(&lim);
        if (run.Factor() == 3) run.Repair();
        break;
      }
      case 7:
        run.channel.refuse = true;
        break;
      case 8: {
        int k = 1 + (op >> 4);
        vlu_msghack(&k);
        break;
      }
      case 9: {
        int k = static_cast<int>(b.U8()) - 2, row = -1, col = -1, a, c, d;
        vlu_getsingpair(&k, &row, &col);
        fz::Require(row == 0 && col == 0, "pairs after a regular result");
        fz::Require(vlu_getnumsing() == 0, "singular count after a regular result");
        vlu_getstats(&a, &c, &d);
        break;
      }
    }
  }
  vlu_destroy();
  vlu_regmsgcb(nullptr, nullptr);
  fz::Clear_Hooks();
  return 0;
}
