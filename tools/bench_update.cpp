// Times the in-place update on long walks over banded bases of growing size,
// so that the cost per update can be compared across sizes for the same
// spike lengths.
//
// A basis is lower triangular in a hidden order, each column with up to three
// elements in the next `width` positions, rows and columns shuffled, a share
// of the positions (--slacks, default one half) starting with the slack of
// their row.  Without slacks the factorization numbers the positions along
// the band, and the range from a leaving position to the spike's last
// element stays within the band; with slacks the numbering scatters, and the
// range grows with n.  Two walks:
//   swap  a column and the slack of its pivot row trade places; every basis
//         stays triangular, spikes have at most 4 elements;
//   free  simplex-like changes (random entering column, the largest |alpha|
//         leaves), which leave the triangular bases and make the row
//         elimination work; a change that the update cannot take starts the
//         walk over from its start basis (untimed).
// Timed: Update_Inverse alone (with the limit test), and for the swap walk
// also the whole vlu_update call, whose status check over 2n+1 columns
// costs in proportion to n.
//
// Usage: bench_update [--changes K] [--free K] [--width W] [--slacks S] [n ...]
//        (defaults: 20000 swap changes, 3000 free changes, width 8, slack
//         share 0.5, n = 1000 10000 100000)
// Columns: updates timed, mean, median and 90th percentile of the time of
// Update_Inverse in microseconds, mean spike length, mean range from the
// leaving position to the spike's last element, mean range left to the row
// elimination, refactorizations and restarts, and the mean time of a whole
// vlu_update call.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "factor/factor.h"
#include "interface/state.h"
#include "runtime/records.h"
#include "tools/case_io.h"
#include "update/update.h"
#include "vardenlu.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Banded {
  vlu_case::Case c;
  std::vector<int> prow, colOfPos;  // hidden position -> row, -> matrix column
};

Banded Make_Banded(int n, int width, double slacks, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  Banded b;
  b.prow.resize(size_t(n) + 1);
  b.colOfPos.resize(size_t(n) + 1);
  std::iota(b.prow.begin(), b.prow.end(), 0);
  std::iota(b.colOfPos.begin(), b.colOfPos.end(), 0);
  std::shuffle(b.prow.begin() + 1, b.prow.end(), gen);
  std::shuffle(b.colOfPos.begin() + 1, b.colOfPos.end(), gen);
  std::vector<std::vector<std::pair<int, double>>> cols(size_t(n) + 1);
  for (int k = 1; k <= n; ++k) {
    auto &col = cols[size_t(b.colOfPos[size_t(k)])];
    col.emplace_back(b.prow[size_t(k)], (uni(gen) < 0.5 ? -1.0 : 1.0) * (1.0 + uni(gen)));
    std::vector<int> offs;
    for (int e = 0; e < 3 && k < n; ++e) {
      const int d = 1 + static_cast<int>(uni(gen) * std::min(width, n - k));
      if (std::find(offs.begin(), offs.end(), d) == offs.end()) offs.push_back(d);
    }
    for (int d : offs) col.emplace_back(b.prow[size_t(k + d)], uni(gen) - 0.5);
    std::sort(col.begin(), col.end());
  }
  vlu_case::Case &c = b.c;
  c.name = "banded";
  c.n = n;
  c.colStart.push_back(1);
  for (int j = 1; j <= n; ++j) {
    for (const auto &e : cols[size_t(j)]) {
      c.rowIdx.push_back(e.first);
      c.colIdx.push_back(j);
      c.val.push_back(e.second);
    }
    c.colStart.push_back(static_cast<int>(c.val.size()) + 1);
  }
  c.nz = static_cast<int>(c.val.size());
  c.basis.assign(size_t(2 * n + 1), 0);
  for (int k = 1; k <= n; ++k)
    c.basis[size_t(uni(gen) < slacks ? n + b.prow[size_t(k)] : b.colOfPos[size_t(k)] - 1)] = 2;
  return b;
}

int Factor(const vlu_case::Case &c, const std::vector<int> &stat) {
  int n = c.n, nz = c.nz;
  return vlu_factor(&n, &nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(), c.val.data(),
                    nullptr, stat.data());
}

int Quiet(int, int, int, char **, void *) { return 0; }

struct Timing {
  std::vector<double> us;  // per in-place update
  int refactors = 0, restarts = 0;
  double spike = 0.0, range = 0.0, bump = 0.0;  // sums over the updates of all sessions

  // Adds the statistics of the session that is about to end.
  void Add_Stats(const vlu::VIM *v) {
    spike += static_cast<double>(v->Upd_Spike_Sum);
    range += static_cast<double>(v->Upd_Range_Sum);
    bump += static_cast<double>(v->Upd_Bump_Sum);
  }
};

// The road of vlu_update after its status check, with Update_Inverse timed
// alone.  Returns 2 (updated), 1 (refactorized) or 0 (the update failed or
// was not allowed, and `refactor` was false: the caller starts over).
int Timed_Change(std::vector<int> &stat, int q, int l, bool refactor, Timing &t) {
  vlu::IfaceState &s = vlu::Iface();
  stat[size_t(q - 1)] = 2;
  stat[size_t(l - 1)] = 0;
  s.curStat[q] = 2;
  s.curStat[l] = 0;
  vlu::RecordBasisChange(s.env, q, l);
  const Clock::time_point t0 = Clock::now();
  const bool ok = vlu::Update_Possible(s.env) && vlu::Update_Inverse(s.env, q, l);
  const double us = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
  if (ok) {
    s.nUpdate += 1;
    t.us.push_back(us);
    return 2;
  }
  if (!refactor) return 0;
  s.vim->Updates_Done = 0;
  vlu::LUFactor(s.env);
  vlu::CreateColumnU(s.env);
  if (s.env->Exception != 0 || s.vim->Num_Sing != 0) {
    std::fprintf(stderr, "bench_update: refactorization failed\n");
    std::exit(1);
  }
  ++t.refactors;
  return 1;
}

// Column q and the slack of the hidden pivot row of position k trade places.
void Swap_Pair(const Banded &b, const std::vector<int> &stat, int k, int &q, int &l) {
  const int col = b.colOfPos[size_t(k)], slack = b.c.n + 1 + b.prow[size_t(k)];
  q = stat[size_t(col - 1)] == 2 ? slack : col;
  l = q == slack ? col : slack;
}

void Report(const char *walk, int n, Timing &t, double interfaceUs) {
  std::vector<double> &v = t.us;
  std::sort(v.begin(), v.end());
  const double count = static_cast<double>(v.size());
  const double mean = count > 0 ? std::accumulate(v.begin(), v.end(), 0.0) / count : 0.0;
  auto pct = [&](double p) { return v.empty() ? 0.0 : v[std::min(v.size() - 1, size_t(p * count))]; };
  std::printf("%-5s %8d %8zu %9.3f %9.3f %9.3f %8.2f %9.2f %8.2f %6d %6d", walk, n, v.size(), mean,
              pct(0.5), pct(0.9), t.spike / std::max(count, 1.0), t.range / std::max(count, 1.0),
              t.bump / std::max(count, 1.0), t.refactors, t.restarts);
  if (interfaceUs > 0.0)
    std::printf(" %12.3f", interfaceUs);
  else
    std::printf(" %12s", "-");
  std::printf("\n");
  std::fflush(stdout);
}

void Swap_Walk(const Banded &b, int changes) {
  const int n = b.c.n;
  Timing t;
  double interfaceUs = 0.0;
  for (int pass = 0; pass < 2; ++pass) {
    vlu_destroy();
    vlu_create();
    int limit = 10000;
    vlu_setupdatelimit(&limit);
    std::vector<int> stat = b.c.basis;
    if (Factor(b.c, stat) != 0) {
      std::fprintf(stderr, "bench_update: start basis not regular\n");
      std::exit(1);
    }
    std::mt19937_64 gen(42);
    double total = 0.0;
    int timed = 0;
    for (int s = 0; s < changes; ++s) {
      int q, l;
      Swap_Pair(b, stat, 1 + static_cast<int>(gen() % static_cast<uint64_t>(n)), q, l);
      if (pass == 0) {
        Timed_Change(stat, q, l, true, t);
      } else {
        stat[size_t(q - 1)] = 2;
        stat[size_t(l - 1)] = 0;
        const int zero = 0;
        const Clock::time_point t0 = Clock::now();
        const int rc = vlu_update(stat.data(), &q, &l, &zero);
        const double us = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
        if (rc == 2) total += us, ++timed;
      }
    }
    if (pass == 0) t.Add_Stats(vlu::Iface().vim);
    if (pass == 1) interfaceUs = timed > 0 ? total / timed : 0.0;
  }
  Report("swap", n, t, interfaceUs);
}

void Free_Walk(const Banded &b, int changes) {
  const int n = b.c.n;
  Timing t;
  vlu_destroy();
  vlu_create();
  int limit = 10000;
  vlu_setupdatelimit(&limit);
  std::vector<int> stat = b.c.basis;
  Factor(b.c, stat);
  std::mt19937_64 gen(7);
  std::vector<double> a(size_t(n), 0.0), sol(size_t(2 * n + 1));
  int done = 0;
  while (done < changes) {
    // A random entering column whose alpha is not negligible.
    int q = 0, l = 0;
    for (int tries = 0; tries < 50 && l == 0; ++tries) {
      q = 1 + static_cast<int>(gen() % static_cast<uint64_t>(2 * n + 1));
      if (q == n + 1 || stat[size_t(q - 1)] == 2) continue;
      vlu_case::For_Column(b.c, q, [&](int i, double v) { a[size_t(i - 1)] = v; });
      vlu_solve(sol.data(), a.data());
      vlu_case::For_Column(b.c, q, [&](int i, double) { a[size_t(i - 1)] = 0.0; });
      double best = 1e-9;
      for (int j = 1; j <= 2 * n + 1; ++j)
        if (stat[size_t(j - 1)] == 2 && std::fabs(sol[size_t(j - 1)]) > best)
          best = std::fabs(sol[size_t(j - 1)]), l = j;
    }
    if (l == 0) break;
    if (Timed_Change(stat, q, l, false, t) == 0) {
      t.Add_Stats(vlu::Iface().vim);
      stat = b.c.basis;
      Factor(b.c, stat);
      vlu_setupdatelimit(&limit);
      ++t.restarts;
      continue;
    }
    ++done;
  }
  t.Add_Stats(vlu::Iface().vim);
  Report("free", n, t, 0.0);
}

}  // namespace

int main(int argc, char **argv) {
  int changes = 20000, freeChanges = 3000, width = 8;
  double slacks = 0.5;
  std::vector<int> sizes;
  for (int a = 1; a < argc; ++a) {
    const std::string arg = argv[a];
    auto next = [&]() {
      if (a + 1 >= argc) {
        std::fprintf(stderr, "bench_update: %s needs a value\n", arg.c_str());
        std::exit(2);
      }
      return std::atoi(argv[++a]);
    };
    if (arg == "--changes")
      changes = next();
    else if (arg == "--free")
      freeChanges = next();
    else if (arg == "--width")
      width = next();
    else if (arg == "--slacks")
      slacks = (++a < argc) ? std::atof(argv[a]) : 0.5;
    else
      sizes.push_back(std::atoi(arg.c_str()));
  }
  if (sizes.empty()) sizes = {1000, 10000, 100000};
  vlu_regmsgcb(nullptr, Quiet);
  std::printf("walk         n  updates   mean us    p50 us    p90 us    spike     range     bump  refac restrt  vlu_update us\n");
  for (int n : sizes) {
    const Banded b = Make_Banded(n, width, slacks, 1234 + static_cast<uint64_t>(n));
    Swap_Walk(b, changes);
    if (freeChanges > 0) Free_Walk(b, freeChanges);
  }
  vlu_destroy();
  return 0;
}
