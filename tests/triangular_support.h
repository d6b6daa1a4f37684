// Shared by the solve, update and walk tests: random triangular systems in
// the layout of the factor call, a structural test for bases without a
// bump, a fresh library session per test and one simplex-like basis change.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tools/case_io.h"
#include "vardenlu.h"

namespace tri {

enum class Shape { Lower, Upper };

// n matrix columns, triangular in a fixed pivot order: the column at position
// k has its diagonal in row prow[k] and its other entries in rows of later
// (Lower) or earlier (Upper) positions.  With `permute` rows and columns are
// shuffled.  A share `slacks` of the positions starts with the slack of its
// pivot row basic instead of its column; trading the two keeps the basis
// triangular.  Every column is diagonally dominant, so any size stays well
// conditioned.
struct System {
  vlu_case::Case c;
  std::vector<int> prow, colOfPos;  // position -> row, position -> matrix column
};

inline System Make_System(int n, Shape shape, uint64_t seed, bool permute = true,
                          double slacks = 0.0) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> uni(0.0, 1.0);
  System s;
  for (std::vector<int> *p : {&s.prow, &s.colOfPos}) {
    p->resize(n + 1);
    std::iota(p->begin(), p->end(), 0);
    if (permute) std::shuffle(p->begin() + 1, p->end(), gen);
  }
  std::vector<std::tuple<int, int, double>> ents;  // (column, row, value)
  for (int k = 1; k <= n; ++k) {
    const double d = (uni(gen) < 0.5 ? -1.0 : 1.0) * (1.0 + uni(gen));
    ents.emplace_back(s.colOfPos[k], s.prow[k], d);
    const int lo = shape == Shape::Lower ? k + 1 : 1, span = shape == Shape::Lower ? n - k : k - 1;
    std::vector<int> pos;
    for (int t = static_cast<int>(6.0 * uni(gen)); t > 0 && span > 0; --t)
      pos.push_back(lo + std::min(span - 1, static_cast<int>(uni(gen) * span)));
    std::sort(pos.begin(), pos.end());
    pos.erase(std::unique(pos.begin(), pos.end()), pos.end());
    for (int p : pos)
      ents.emplace_back(s.colOfPos[k], s.prow[p], d * (uni(gen) - 0.5) / pos.size());
  }
  std::sort(ents.begin(), ents.end());
  vlu_case::Case &c = s.c;
  c.name = "synthetic";
  c.n = n;
  c.nz = static_cast<int>(ents.size());
  c.colStart.assign(n + 1, 0);
  c.colStart[0] = 1;
  for (const auto &[j, i, v] : ents) {
    c.colIdx.push_back(j);
    c.rowIdx.push_back(i);
    c.val.push_back(v);
    ++c.colStart[j];
  }
  std::partial_sum(c.colStart.begin(), c.colStart.end(), c.colStart.begin());
  c.basis.assign(2 * n + 1, 0);
  for (int k = 1; k <= n; ++k) c.basis[uni(gen) < slacks ? n + s.prow[k] : s.colOfPos[k] - 1] = 2;
  return s;
}

inline int Factor(const vlu_case::Case &c, const std::vector<int> &stat) {
  int n = c.n, nz = c.nz;
  return vlu_factor(&n, &nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(), c.val.data(),
                    c.rPtr(), stat.data());
}

// True when the basis has no bump: peeling off rows with one basic entry,
// together with that entry's column, then takes the whole basis apart.
inline bool Is_Triangular(const vlu_case::Case &c, const std::vector<int> &stat) {
  const int n = c.n;
  std::vector<std::vector<int>> rowCols(n + 1);
  std::vector<int> count(n + 1, 0), queue;
  std::vector<char> gone(2 * n + 2, 0);
  for (int j = 1; j <= 2 * n + 1; ++j)
    if (stat[j - 1] == 2)
      vlu_case::For_Column(c, j, [&](int i, double v) {
        if (v != 0.0) rowCols[i].push_back(j), ++count[i];
      });
  for (int i = 1; i <= n; ++i)
    if (count[i] == 1) queue.push_back(i);
  int peeled = 0;
  for (size_t h = 0; h < queue.size(); ++h) {
    if (count[queue[h]] != 1) continue;
    int j = 0;
    for (int cand : rowCols[queue[h]])
      if (!gone[cand]) j = cand;
    gone[j] = 1;
    ++peeled;
    vlu_case::For_Column(c, j, [&](int r, double v) {
      if (v != 0.0 && --count[r] == 1) queue.push_back(r);
    });
  }
  return peeled == n;
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
  if (auto *k = static_cast<Lines *>(usrmem))
    for (int i = 0; i < std::max(smsg, std::max(dmsg, nmsg)); ++i) k->all.emplace_back(lines[i]);
  return 0;
}

// A fresh library session for every test; Restart() begins another.
class Session : public ::testing::Test {
 protected:
  Lines lines;
  void SetUp() override { Restart(); }
  void TearDown() override {
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
  }
  void Restart() {
    vlu_destroy();
    vlu_regmsgcb(&lines, Keep_Lines);
    ASSERT_EQ(vlu_create(), 0);
  }
};

// Solves B x = b through the interface; returns the relative residual and,
// on request, the whole solution vector.
inline double Solve_Residual(const vlu_case::Case &c, const std::vector<int> &stat,
                             const std::vector<double> &b, std::vector<double> *out = nullptr) {
  std::vector<double> sol(2 * c.n + 1, 0.0);
  EXPECT_EQ(vlu_solve(sol.data(), b.data()), 0);
  const double res = vlu_case::Rel_Residual(c, stat, sol.data(), b.data());
  if (out) *out = sol;
  return res;
}

// The change at position k that keeps a System triangular: its matrix
// column and the slack of its pivot row trade places.
inline void Swap_At(const System &s, const std::vector<int> &stat, int k, int &q, int &l) {
  const int col = s.colOfPos[k], slack = s.c.n + 1 + s.prow[k];
  q = stat[col - 1] == 2 ? slack : col;
  l = q == slack ? col : slack;
}

// One basis change as a simplex method makes it: the solve with the entering
// column q, in which the leaving column l must take part, then the status
// change and the update.  Returns the update's result.
inline int Change(const vlu_case::Case &c, std::vector<int> &stat, int q, int l, int force = 0) {
  std::vector<double> a(c.n, 0.0), sol(2 * c.n + 1);
  vlu_case::For_Column(c, q, [&](int i, double v) { a[i - 1] = v; });
  vlu_solve(sol.data(), a.data());
  EXPECT_NE(sol[l - 1], 0.0) << "leaving column " << l << " is not part of entering " << q;
  stat[q - 1] = 2;
  stat[l - 1] = 0;
  return vlu_update(stat.data(), &q, &l, &force);
}

// True when this build factorizes a basis with a bump.  Probed once in a
// child process, since a library without that part ends the process.
inline bool Bump_Supported() {
  static int known = -1;
  if (known < 0) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
      const int devnull = ::open("/dev/null", O_WRONLY);
      ::dup2(devnull, 1);
      ::dup2(devnull, 2);
      vlu_destroy();
      vlu_create();
      // [1 1; 1 -1]: no singleton anywhere.
      int n = 2, nz = 4, colStart[3] = {1, 3, 5}, stat[5] = {2, 2, 0, 0, 0};
      int rowIdx[4] = {1, 2, 1, 2}, colIdx[4] = {1, 1, 2, 2};
      double val[4] = {1.0, 1.0, 1.0, -1.0};
      ::_exit(vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, nullptr, stat) == 0 ? 0 : 1);
    }
    int ws = 0;
    known = pid > 0 && ::waitpid(pid, &ws, 0) == pid && WIFEXITED(ws) && WEXITSTATUS(ws) == 0;
  }
  return known == 1;
}

}  // namespace tri
