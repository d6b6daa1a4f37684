// Helpers of the solve, update and walk tests: random permuted triangular
// systems in the layout of the factor call, an independent solve by row
// singletons, and a structural test for bases without a bump.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tools/case_io.h"
#include "vardenlu.h"

namespace tri {

enum class Shape { Lower, Upper };

// A system whose n matrix columns are triangular with respect to a fixed
// pivot order: the column at position k has its diagonal in row prow[k] and
// further entries only in rows of later positions (Lower) or of earlier
// positions (Upper).  With `permute` the rows and the columns are shuffled;
// without, prow and colOfPos are the identity and the matrix is plainly
// lower or upper triangular.  Replacing the column at position k by the
// slack of row prow[k] keeps the basis triangular.
struct System {
  vlu_case::Case c;
  std::vector<int> prow;      // 1-based positions -> rows
  std::vector<int> colOfPos;  // 1-based positions -> matrix column
  std::vector<int> posOfCol;  // 1-based matrix column -> position
};

inline System Make_System(int n, Shape shape, uint64_t seed, bool permute = true,
                          double perColumn = 3.0, double slackShare = 0.0) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  System s;
  s.c.name = "synthetic";
  s.c.n = n;
  s.prow.resize(static_cast<size_t>(n) + 1);
  s.colOfPos.resize(static_cast<size_t>(n) + 1);
  s.posOfCol.resize(static_cast<size_t>(n) + 1);
  std::vector<int> perm(static_cast<size_t>(n));
  std::iota(perm.begin(), perm.end(), 1);
  if (permute) std::shuffle(perm.begin(), perm.end(), gen);
  for (int k = 1; k <= n; ++k) s.prow[static_cast<size_t>(k)] = perm[static_cast<size_t>(k - 1)];
  std::iota(perm.begin(), perm.end(), 1);
  if (permute) std::shuffle(perm.begin(), perm.end(), gen);
  for (int k = 1; k <= n; ++k) {
    s.colOfPos[static_cast<size_t>(k)] = perm[static_cast<size_t>(k - 1)];
    s.posOfCol[static_cast<size_t>(perm[static_cast<size_t>(k - 1)])] = k;
  }

  // Column entries by matrix column, as (row, value).  Values keep every
  // column diagonally dominant so that the systems stay well conditioned
  // at any size.
  std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(n) + 1);
  for (int k = 1; k <= n; ++k) {
    const int j = s.colOfPos[static_cast<size_t>(k)];
    auto &col = cols[static_cast<size_t>(j)];
    double d = 1.0 + uni(gen);
    if (uni(gen) < 0.5) d = -d;
    col.push_back({s.prow[static_cast<size_t>(k)], d});
    // Range of positions the off-diagonal entries may come from.
    const int lo = shape == Shape::Lower ? k + 1 : 1;
    const int hi = shape == Shape::Lower ? n : k - 1;
    if (hi < lo) continue;
    const int span = hi - lo + 1;
    int cnt = static_cast<int>(std::floor(perColumn * uni(gen) * 2.0));
    cnt = std::min(cnt, span);
    std::vector<int> used;
    for (int t = 0; t < cnt; ++t) {
      int pos = lo + static_cast<int>(uni(gen) * span);
      if (pos > hi) pos = hi;
      if (std::find(used.begin(), used.end(), pos) != used.end()) continue;
      used.push_back(pos);
    }
    const double budget = std::fabs(d) * 0.5 / std::max<size_t>(used.size(), 1);
    for (int pos : used) {
      double v = budget * (0.05 + 0.95 * uni(gen));
      if (uni(gen) < 0.5) v = -v;
      col.push_back({s.prow[static_cast<size_t>(pos)], v});
    }
  }

  // Store by columns, rows ascending.
  vlu_case::Case &c = s.c;
  c.colStart.assign(static_cast<size_t>(n) + 1, 1);
  int pos = 1;
  for (int j = 1; j <= n; ++j) {
    auto &col = cols[static_cast<size_t>(j)];
    std::sort(col.begin(), col.end());
    c.colStart[static_cast<size_t>(j - 1)] = pos;
    for (auto &e : col) {
      c.rowIdx.push_back(e.first);
      c.colIdx.push_back(j);
      c.val.push_back(e.second);
      ++pos;
    }
  }
  c.colStart[static_cast<size_t>(n)] = pos;
  c.nz = pos - 1;

  // Basis: the matrix columns, with a share of the positions held by the
  // slack of their pivot row instead.
  c.basis.assign(2 * static_cast<size_t>(n) + 1, 0);
  for (int k = 1; k <= n; ++k) {
    if (uni(gen) < slackShare)
      c.basis[static_cast<size_t>(n + s.prow[static_cast<size_t>(k)])] = 2;  // column n+1+row
    else
      c.basis[static_cast<size_t>(s.colOfPos[static_cast<size_t>(k)] - 1)] = 2;
  }
  return s;
}

inline int Factor(const vlu_case::Case &c, const std::vector<int> &stat) {
  int n = c.n, nz = c.nz;
  return vlu_factor(&n, &nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(), c.val.data(),
                    c.rPtr(), stat.data());
}

// Solves B x = b for a basis without a bump by row singletons, with no use
// of the library.  x has 2n+1 entries (basic ones set, others 0).  Returns
// false when the basis is not triangular.
inline bool Independent_Solve(const vlu_case::Case &c, const std::vector<int> &stat,
                              const std::vector<double> &b, std::vector<double> &x) {
  const int n = c.n;
  const int total = 2 * n + 1;
  std::vector<std::vector<std::pair<int, double>>> rows(static_cast<size_t>(n) + 1);
  std::vector<int> rowCount(static_cast<size_t>(n) + 1, 0);
  std::vector<char> alive(static_cast<size_t>(total) + 1, 0);
  for (int j = 1; j <= total; ++j) {
    if (stat[static_cast<size_t>(j - 1)] != 2) continue;
    alive[static_cast<size_t>(j)] = 1;
    vlu_case::For_Column(c, j, [&](int i, double v) {
      if (v == 0.0) return;
      rows[static_cast<size_t>(i)].push_back({j, v});
      rowCount[static_cast<size_t>(i)]++;
    });
  }
  std::vector<double> rhs(b.begin(), b.end());
  x.assign(static_cast<size_t>(total), 0.0);
  std::vector<int> queue;
  for (int i = 1; i <= n; ++i)
    if (rowCount[static_cast<size_t>(i)] == 1) queue.push_back(i);
  int solved = 0;
  size_t head = 0;
  while (head < queue.size()) {
    const int i = queue[head++];
    if (rowCount[static_cast<size_t>(i)] != 1) continue;
    int j = 0;
    double a = 0.0;
    for (auto &e : rows[static_cast<size_t>(i)])
      if (alive[static_cast<size_t>(e.first)]) {
        j = e.first;
        a = e.second;
        break;
      }
    const double xj = rhs[static_cast<size_t>(i - 1)] / a;
    x[static_cast<size_t>(j - 1)] = xj;
    alive[static_cast<size_t>(j)] = 0;
    ++solved;
    vlu_case::For_Column(c, j, [&](int r, double v) {
      if (v == 0.0) return;
      rhs[static_cast<size_t>(r - 1)] -= v * xj;
      if (--rowCount[static_cast<size_t>(r)] == 1) queue.push_back(r);
    });
  }
  return solved == n;
}

// True when the basis has no bump, that is when it is a permutation of a
// triangular matrix: exactly then row singletons solve it completely.
inline bool Is_Triangular(const vlu_case::Case &c, const std::vector<int> &stat) {
  std::vector<double> b(static_cast<size_t>(c.n), 1.0), x;
  return Independent_Solve(c, stat, b, x);
}

// The largest relative deviation of the library's solution from x.
inline double Max_Rel_Dev(const vlu_case::Case &c, const std::vector<int> &stat,
                          const double *sol, const std::vector<double> &x) {
  double xInf = 0.0, dev = 0.0;
  for (int j = 1; j <= 2 * c.n + 1; ++j)
    if (stat[static_cast<size_t>(j - 1)] == 2) xInf = std::max(xInf, std::fabs(x[static_cast<size_t>(j - 1)]));
  for (int j = 1; j <= 2 * c.n + 1; ++j)
    if (stat[static_cast<size_t>(j - 1)] == 2)
      dev = std::max(dev, std::fabs(sol[j - 1] - x[static_cast<size_t>(j - 1)]));
  return xInf > 0.0 ? dev / xInf : dev;
}

// Message callback that keeps every line it is given.
struct Lines {
  std::vector<std::string> all;
  bool Has(const std::string &needle) const {
    for (const auto &l : all)
      if (l.find(needle) != std::string::npos) return true;
    return false;
  }
};
inline int Keep_Lines(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  auto *k = static_cast<Lines *>(usrmem);
  const int m = std::max(smsg, std::max(dmsg, nmsg));
  if (k)
    for (int i = 0; i < m; ++i) k->all.emplace_back(lines[i]);
  return 0;
}

// True when this build factorizes a basis with a bump.  Probed once in a
// child process, since a library without that part ends the process.
inline bool Bump_Supported() {
  static int known = -1;
  if (known >= 0) return known == 1;
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int devnull = ::open("/dev/null", O_WRONLY);
    if (devnull >= 0) {
      ::dup2(devnull, 1);
      ::dup2(devnull, 2);
    }
    vlu_destroy();
    vlu_regmsgcb(nullptr, Keep_Lines);
    vlu_create();
    // [1 1; 1 -1]: no singleton anywhere.
    int n = 2, nz = 4;
    int colStart[3] = {1, 3, 5}, rowIdx[4] = {1, 2, 1, 2}, colIdx[4] = {1, 1, 2, 2};
    double val[4] = {1.0, 1.0, 1.0, -1.0};
    int stat[5] = {2, 2, 0, 0, 0};
    const int rc = vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, nullptr, stat);
    ::_exit(rc == 0 ? 0 : 1);
  }
  int ws = 0;
  if (pid > 0) ::waitpid(pid, &ws, 0);
  known = (pid > 0 && WIFEXITED(ws) && WEXITSTATUS(ws) == 0) ? 1 : 0;
  return known == 1;
}

}  // namespace tri
