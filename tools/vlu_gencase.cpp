// vlu-gencase: writes a large LP-like basis case in the folder format that
// vlu-bench reads (matrix.mtx, basis.txt, info.txt, optionally walk.txt).
//
//   vlu-gencase [--kind staircase|mcf] [--n N] [--seed S] [--dense F]
//               [--tail K] [--walk K] OUTDIR
//
// The basis is regular by construction.  Every basic structural column is
// given one "matched" row, different for every column, and its entry there is
// larger in magnitude than the sum of its other entries; the basic slacks
// take the remaining rows.  A matrix whose columns are diagonally dominant
// under such a matching is nonsingular, so no generated basis is singular,
// while the off-matching entries tie rows and columns into bumps as LP bases
// do.
//
// staircase: blocks of 5 to 60 rows along the diagonal; a column has its
//   matched row and two to four further rows in its own block, and with
//   probability one half a linking row in the next block.  A share of the
//   blocks (--dense, default 0.02) is a small dense block (8 to 40 rows,
//   density about 0.6).  About 15% of the rows keep their slack.  --tail K
//   (default 0) ends the staircase with K coupling rows: the last K columns
//   are dense in them (density about 0.6) and reach back into a random
//   earlier row, and one in 20 of the other columns has an entry in a random
//   coupling row; the elimination meets them last, filled in, as one dense
//   block.
// mcf: a multicommodity-flow basis.  K commodities share a network of V
//   nodes; each commodity has a spanning tree of arcs (a column with entries
//   at its two end nodes, matched to the node further from the root) and the
//   slack of its root; one coupling row per shared arc (capacity), whose
//   slack is basic unless the arc is saturated, when a non-tree arc column of
//   one commodity is basic in its place, matched to the coupling row.  The
//   saturated arcs close cycles across commodities and make the bump.
//
// --walk K adds a walk of K basis changes made with the library itself
// (entering column drawn at random among the nonbasic ones, leaving column at
// the largest |alpha| of B alpha = a_q), with check values at every 25 steps.
// The check values then come from this library, so they test only that a
// replay is consistent with a fresh factorization.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "vardenlu.h"

namespace {

struct Entry {
  int row;
  double val;
};

struct Gen {
  int n = 0;                                // rows, and structural columns
  std::vector<std::vector<Entry>> cols;     // structural columns 1..n (0-based here)
  std::vector<int> stat;                    // status of the 2n+1 columns
  std::mt19937_64 rng;
  explicit Gen(uint64_t seed) : rng(seed) {}

  double Uniform(double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng); }
  int Int(int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng); }
  bool Chance(double p) { return Uniform(0.0, 1.0) < p; }

  // A column with its matched row made dominant: off entries in [-1, 1],
  // the matched entry larger than their sum by a random factor.
  std::vector<Entry> Column(int matched, const std::vector<int> &others) {
    std::vector<Entry> col;
    double sum = 0.0;
    for (int r : others) {
      if (r == matched) continue;
      bool dup = false;
      for (const Entry &e : col)
        if (e.row == r) dup = true;
      if (dup) continue;
      double v = Uniform(-1.0, 1.0);
      if (std::fabs(v) < 1e-3) v = 0.5;
      col.push_back({r, v});
      sum += std::fabs(v);
    }
    const double d = (1.0 + sum) * Uniform(1.05, 2.0) * (Chance(0.5) ? 1.0 : -1.0);
    col.push_back({matched, d});
    std::sort(col.begin(), col.end(), [](const Entry &a, const Entry &b) { return a.row < b.row; });
    return col;
  }
};

// Fills structural columns and the basis; nonbasic structural columns are
// random sparse columns (they may enter in a walk).
void Staircase(Gen &g, double denseShare, int tail) {
  const int n = g.n;
  const int last = n - tail;  // the blocks end here; the coupling rows follow
  g.cols.assign(static_cast<size_t>(n), {});
  std::vector<char> basic(static_cast<size_t>(n), 0);
  int start = 1;
  while (start <= last) {
    const bool dense = g.Chance(denseShare);
    int size = dense ? g.Int(8, 40) : g.Int(5, 60);
    size = std::min(size, last - start + 1);
    const int end = start + size - 1;
    const int nextEnd = std::min(last, end + 60);
    for (int r = start; r <= end; ++r) {
      // Column r is matched to row r of its block.
      std::vector<int> others;
      if (dense) {
        for (int q = start; q <= end; ++q)
          if (g.Chance(0.6)) others.push_back(q);
      } else {
        const int m = g.Int(2, 4);
        for (int k = 0; k < m; ++k) others.push_back(g.Int(start, end));
      }
      if (end < last && g.Chance(0.5)) others.push_back(g.Int(end + 1, nextEnd));
      if (tail > 0 && g.Chance(0.05)) others.push_back(g.Int(last + 1, n));
      g.cols[static_cast<size_t>(r - 1)] = g.Column(r, others);
      basic[static_cast<size_t>(r - 1)] = !g.Chance(0.15);
    }
    start = end + 1;
  }
  for (int r = last + 1; r <= n; ++r) {
    std::vector<int> others;
    for (int q = last + 1; q <= n; ++q)
      if (g.Chance(0.6)) others.push_back(q);
    if (last > 0) others.push_back(g.Int(1, last));
    g.cols[static_cast<size_t>(r - 1)] = g.Column(r, others);
    basic[static_cast<size_t>(r - 1)] = 1;
  }
  g.stat.assign(2 * static_cast<size_t>(n) + 1, 0);
  for (int j = 1; j <= n; ++j) {
    if (basic[static_cast<size_t>(j - 1)])
      g.stat[static_cast<size_t>(j - 1)] = 2;
    else
      g.stat[static_cast<size_t>(n + j)] = 2;  // the slack of row j
  }
}

void Mcf(Gen &g) {
  const int n = g.n;
  // Sizes: K commodities on V nodes with A shared arcs, K V + A = n.
  int K = std::max(2, static_cast<int>(std::cbrt(static_cast<double>(n)) / 2));
  int V = std::max(4, (n * 4 / 5) / K);
  while (K * V > n - 1) --V;
  const int A = n - K * V;  // coupling rows
  g.cols.assign(static_cast<size_t>(n), {});
  g.stat.assign(2 * static_cast<size_t>(n) + 1, 0);
  auto nodeRow = [&](int k, int v) { return k * V + v + 1; };  // k 0-based, v 0-based
  auto couplingRow = [&](int a) { return K * V + a + 1; };     // a 0-based
  // Shared network: the arcs of the coupling rows join random node pairs.
  std::vector<std::pair<int, int>> arcs(static_cast<size_t>(A));
  for (auto &a : arcs) {
    a.first = g.Int(0, V - 1);
    a.second = g.Int(0, V - 1);
    if (a.first == a.second) a.second = (a.first + 1) % V;
  }
  int col = 0;  // structural columns used so far (0-based)
  for (int k = 0; k < K; ++k) {
    // A random spanning tree: node v > 0 hangs below a node before it in a
    // random order; the tree arc is matched to the child node.
    std::vector<int> order(static_cast<size_t>(V));
    for (int v = 0; v < V; ++v) order[static_cast<size_t>(v)] = v;
    std::shuffle(order.begin(), order.end(), g.rng);
    const int root = order[0];
    g.stat[static_cast<size_t>(n + nodeRow(k, root))] = 2;
    for (int i = 1; i < V; ++i) {
      const int child = order[static_cast<size_t>(i)];
      const int parent = order[static_cast<size_t>(g.Int(std::max(0, i - 8), i - 1))];
      std::vector<int> others = {nodeRow(k, parent)};
      if (A > 0 && g.Chance(0.3)) others.push_back(couplingRow(g.Int(0, A - 1)));
      g.cols[static_cast<size_t>(col)] = g.Column(nodeRow(k, child), others);
      g.stat[static_cast<size_t>(col)] = 2;
      ++col;
    }
  }
  // Coupling rows: saturated arcs carry a non-tree flow column of one
  // commodity in place of their slack.
  for (int a = 0; a < A; ++a) {
    if (col < n && g.Chance(0.35)) {
      const int k = g.Int(0, K - 1);
      std::vector<int> others = {nodeRow(k, arcs[static_cast<size_t>(a)].first),
                                 nodeRow(k, arcs[static_cast<size_t>(a)].second)};
      if (g.Chance(0.3)) others.push_back(couplingRow(g.Int(0, A - 1)));
      g.cols[static_cast<size_t>(col)] = g.Column(couplingRow(a), others);
      g.stat[static_cast<size_t>(col)] = 2;
      ++col;
    } else {
      g.stat[static_cast<size_t>(n + couplingRow(a))] = 2;
    }
  }
  // Root slacks and coupling slacks fill the rest of the basis; the
  // structural columns left over are nonbasic arc columns.
  while (col < n) {
    const int k = g.Int(0, K - 1);
    const int u = g.Int(0, V - 1), v = (u + g.Int(1, V - 1)) % V;
    std::vector<int> others = {nodeRow(k, v)};
    if (A > 0) others.push_back(couplingRow(g.Int(0, A - 1)));
    g.cols[static_cast<size_t>(col)] = g.Column(nodeRow(k, u), others);
    ++col;
  }
}

bool Write_Case(const Gen &g, const std::string &dir, const std::string &options, std::string &err) {
  ::mkdir(dir.c_str(), 0755);
  const int n = g.n;
  size_t nz = 0;
  for (const auto &c : g.cols) nz += c.size();
  FILE *f = std::fopen((dir + "/matrix.mtx").c_str(), "w");
  if (!f) {
    err = "cannot write " + dir + "/matrix.mtx";
    return false;
  }
  std::fprintf(f, "%%%%MatrixMarket matrix coordinate real general\n%% generated by vlu-gencase\n");
  std::fprintf(f, "%d %d %zu\n", n, n, nz);
  for (int j = 1; j <= n; ++j)
    for (const Entry &e : g.cols[static_cast<size_t>(j - 1)]) std::fprintf(f, "%d %d %.17g\n", e.row, j, e.val);
  std::fclose(f);
  f = std::fopen((dir + "/basis.txt").c_str(), "w");
  if (!f) {
    err = "cannot write basis.txt";
    return false;
  }
  int structurals = 0, slacks = 0;
  long nnzB = 0;
  for (size_t j = 0; j < g.stat.size(); ++j) {
    std::fprintf(f, "%d\n", g.stat[j]);
    if (g.stat[j] != 2) continue;
    if (static_cast<int>(j) < n) {
      ++structurals;
      nnzB += static_cast<long>(g.cols[j].size());
    } else if (static_cast<int>(j) > n) {
      ++slacks;
      ++nnzB;
    }
  }
  std::fclose(f);
  f = std::fopen((dir + "/info.txt").c_str(), "w");
  if (!f) {
    err = "cannot write info.txt";
    return false;
  }
  std::fprintf(f, "source: generated by vlu-gencase %s\n", options.c_str());
  std::fprintf(f, "n: %d\nnz: %zu\nnnz_B: %ld\nbasic_structurals: %d\nbasic_slacks: %d\n", n, nz,
               nnzB, structurals, slacks);
  std::fprintf(f, "t_basic: no\nexpected: regular\n");
  std::fclose(f);
  return true;
}

// A walk made with the library: see the head of the file.
bool Write_Walk(const Gen &g, const std::string &dir, int steps, uint64_t seed, std::string &err) {
  const int n = g.n;
  std::vector<int> colStart(static_cast<size_t>(n) + 1), rowIdx, colIdx;
  std::vector<double> val;
  colStart[0] = 1;
  for (int j = 1; j <= n; ++j) {
    for (const Entry &e : g.cols[static_cast<size_t>(j - 1)]) {
      rowIdx.push_back(e.row);
      colIdx.push_back(j);
      val.push_back(e.val);
    }
    colStart[static_cast<size_t>(j)] = static_cast<int>(val.size()) + 1;
  }
  const int nz = static_cast<int>(val.size());
  std::vector<int> stat = g.stat;
  if (vlu_create() != 0 ||
      vlu_factor(&n, &nz, colStart.data(), rowIdx.data(), colIdx.data(), val.data(), nullptr,
                 stat.data()) != 0) {
    err = "the generated basis did not factorize";
    vlu_destroy();
    return false;
  }
  FILE *f = std::fopen((dir + "/walk.txt").c_str(), "w");
  if (!f) {
    err = "cannot write walk.txt";
    vlu_destroy();
    return false;
  }
  std::mt19937_64 rng(seed ^ 0x9e3779b97f4a7c15ULL);
  std::vector<double> sol(2 * static_cast<size_t>(n) + 1), rhs(static_cast<size_t>(n), 0.0),
      ones(static_cast<size_t>(n), 1.0);
  auto check = [&](int s) {
    vlu_solve(sol.data(), ones.data());
    double sum = 0.0;
    for (size_t j = 0; j < stat.size(); ++j)
      if (stat[j] == 2) sum += sol[j] * sol[j];
    std::fprintf(f, "check %d %.17g\n", s, std::sqrt(sum));
  };
  check(0);
  const int zero = 0;
  int done = 0;
  for (int s = 1; s <= steps; ++s) {
    std::vector<int> cand;
    for (int j = 1; j <= 2 * n + 1; ++j)
      if (j != n + 1 && stat[static_cast<size_t>(j - 1)] == 0) cand.push_back(j);
    int q = 0, l = 0;
    while (!cand.empty() && q == 0) {
      const size_t k = std::uniform_int_distribution<size_t>(0, cand.size() - 1)(rng);
      const int c = cand[k];
      cand.erase(cand.begin() + static_cast<long>(k));
      std::fill(rhs.begin(), rhs.end(), 0.0);
      if (c > n + 1)
        rhs[static_cast<size_t>(c - n - 2)] = 1.0;
      else
        for (const Entry &e : g.cols[static_cast<size_t>(c - 1)]) rhs[static_cast<size_t>(e.row - 1)] = e.val;
      vlu_solve(sol.data(), rhs.data());
      double best = 0.0;
      int arg = 0;
      for (int j = 1; j <= 2 * n + 1; ++j) {
        if (stat[static_cast<size_t>(j - 1)] != 2) continue;
        const double a = std::fabs(sol[static_cast<size_t>(j - 1)]);
        if (a > best) {
          best = a;
          arg = j;
        }
      }
      if (best >= 1e-9) {
        q = c;
        l = arg;
      }
    }
    if (q == 0) break;
    stat[static_cast<size_t>(q - 1)] = 2;
    stat[static_cast<size_t>(l - 1)] = 0;
    const int rc = vlu_update(stat.data(), &q, &l, &zero);
    if (rc != 1 && rc != 2) {
      err = "vlu_update returned " + std::to_string(rc) + " at step " + std::to_string(s);
      break;
    }
    std::fprintf(f, "%d %d\n", q, l);
    done = s;
    if (s % 25 == 0) check(s);
  }
  if (done % 25 != 0) check(done);
  std::fclose(f);
  vlu_destroy();
  FILE *info = std::fopen((dir + "/info.txt").c_str(), "a");
  if (info) {
    std::fprintf(info, "walk_steps: %d\nwalk_seed: %llu\n", done, static_cast<unsigned long long>(seed));
    std::fclose(info);
  }
  return err.empty();
}

void Usage() {
  std::fprintf(stderr,
               "usage: vlu-gencase [--kind staircase|mcf] [--n N] [--seed S] [--dense F] "
               "[--tail K] [--walk K] OUTDIR\n");
}

}  // namespace

int main(int argc, char **argv) {
  std::string kind = "staircase", out;
  long n = 10000;
  unsigned long long seed = 1;
  double dense = 0.02;
  int walk = 0;
  long tail = 0;
  for (int a = 1; a < argc; ++a) {
    const std::string arg = argv[a];
    auto next = [&]() -> const char * {
      if (a + 1 >= argc) {
        Usage();
        std::exit(2);
      }
      return argv[++a];
    };
    if (arg == "--kind") kind = next();
    else if (arg == "--n") n = std::strtol(next(), nullptr, 10);
    else if (arg == "--seed") seed = std::strtoull(next(), nullptr, 10);
    else if (arg == "--dense") dense = std::strtod(next(), nullptr);
    else if (arg == "--tail") tail = std::strtol(next(), nullptr, 10);
    else if (arg == "--walk") walk = static_cast<int>(std::strtol(next(), nullptr, 10));
    else if (arg == "-h" || arg == "--help") {
      Usage();
      return 0;
    } else if (out.empty() && !arg.empty() && arg[0] != '-') out = arg;
    else {
      Usage();
      return 2;
    }
  }
  if (out.empty() || n < 10 || n > 100000000 || (kind != "staircase" && kind != "mcf") ||
      tail < 0 || tail > n) {
    Usage();
    return 2;
  }
  Gen g(seed);
  g.n = static_cast<int>(n);
  if (kind == "staircase")
    Staircase(g, dense, static_cast<int>(tail));
  else
    Mcf(g);
  std::string err;
  char options[160];
  if (kind == "staircase")
    std::snprintf(options, sizeof options, "--kind staircase --n %ld --seed %llu --dense %g --tail %ld", n,
                  seed, dense, tail);
  else
    std::snprintf(options, sizeof options, "--kind mcf --n %ld --seed %llu", n, seed);
  if (!Write_Case(g, out, options, err) || (walk > 0 && !Write_Walk(g, out, walk, seed, err))) {
    std::fprintf(stderr, "vlu-gencase: %s\n", err.c_str());
    return 1;
  }
  return 0;
}
