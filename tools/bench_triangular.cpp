// Times vlu_factor on permuted lower-triangular bases of growing size, so
// that the cost per row can be compared across sizes.  A basis without a
// bump is taken entirely by the triangular phases and the column copy, which
// should cost a constant per element.
//
// Usage: bench_triangular [reps] [n ...]   (default: 3 reps, n = 1e4 1e5 1e6)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include "vardenlu.h"

namespace {

struct Basis {
  int n = 0;
  std::vector<int> colStart, rowIdx, colIdx, stat;
  std::vector<double> val;
};

// Column at hidden position k: its diagonal in row prow[k] and up to
// `extra` elements in rows of later positions; rows and columns shuffled.
Basis Make_Lower(int n, int extra, uint64_t seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  std::vector<int> prow(static_cast<size_t>(n) + 1), posOfCol(static_cast<size_t>(n) + 1);
  std::vector<int> perm(static_cast<size_t>(n));
  std::iota(perm.begin(), perm.end(), 1);
  std::shuffle(perm.begin(), perm.end(), gen);
  for (int k = 1; k <= n; ++k) prow[size_t(k)] = perm[size_t(k - 1)];
  std::shuffle(perm.begin(), perm.end(), gen);
  for (int k = 1; k <= n; ++k) posOfCol[size_t(perm[size_t(k - 1)])] = k;

  Basis b;
  b.n = n;
  b.colStart.reserve(size_t(n) + 1);
  b.rowIdx.reserve(size_t(n) * size_t(extra + 1));
  b.val.reserve(b.rowIdx.capacity());
  b.colIdx.reserve(b.rowIdx.capacity());
  int used[16];
  for (int j = 1; j <= n; ++j) {
    b.colStart.push_back(static_cast<int>(b.val.size()) + 1);
    const int k = posOfCol[size_t(j)];
    b.rowIdx.push_back(prow[size_t(k)]);
    b.colIdx.push_back(j);
    b.val.push_back(1.0 + uni(gen));
    const int span = n - k;
    int m = 0;
    for (int e = 0; e < extra && span > 0; ++e) {
      const int kk = k + 1 + static_cast<int>(uni(gen) * span) % span;
      if (std::find(used, used + m, kk) != used + m) continue;
      used[m++] = kk;
      b.rowIdx.push_back(prow[size_t(kk)]);
      b.colIdx.push_back(j);
      b.val.push_back(uni(gen) - 0.5);
    }
  }
  b.colStart.push_back(static_cast<int>(b.val.size()) + 1);
  b.stat.assign(size_t(2 * n + 1), 0);
  for (int j = 1; j <= n; ++j) b.stat[size_t(j - 1)] = 2;
  return b;
}

int Quiet(int, int, int, char **, void *) { return 0; }

}  // namespace

int main(int argc, char **argv) {
  int reps = 3;
  std::vector<int> sizes = {10000, 100000, 1000000};
  if (argc > 1) reps = std::max(1, std::atoi(argv[1]));
  if (argc > 2) {
    sizes.clear();
    for (int a = 2; a < argc; ++a) sizes.push_back(std::atoi(argv[a]));
  }
  vlu_regmsgcb(nullptr, Quiet);
  std::printf("%10s %10s %12s %12s %14s %10s\n", "n", "nz", "cold ms", "warm ms",
              "warm ns/row", "result");
  for (int n : sizes) {
    Basis b = Make_Lower(n, 3, 12345u + static_cast<uint64_t>(n));
    int nz = static_cast<int>(b.val.size());
    // The first factorization of an environment meets fresh memory; the
    // following ones (a solver refactorizing) reuse it.
    double cold = 0.0, warm = 1e300;
    int rc = -1;
    vlu_create();
    for (int r = 0; r <= reps; ++r) {
      const auto t0 = std::chrono::steady_clock::now();
      rc = vlu_factor(&b.n, &nz, b.colStart.data(), b.rowIdx.data(), b.colIdx.data(),
                      b.val.data(), nullptr, b.stat.data());
      const auto t1 = std::chrono::steady_clock::now();
      const double ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
      if (r == 0)
        cold = ms;
      else
        warm = std::min(warm, ms);
    }
    vlu_destroy();
    std::printf("%10d %10d %12.3f %12.3f %14.1f %10d\n", n, nz, cold, warm, 1.0e6 * warm / n, rc);
  }
  return 0;
}
