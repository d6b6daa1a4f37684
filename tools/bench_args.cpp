// Cost of the argument checks of vlu_factor against the factorization.
//
//   bench_args [--reps N] PATH...
//
// PATH is a case folder or a folder of case folders.  For each case the
// matrix is loaded into a store of its size in two ways, many times each:
// by Load_Factor_Matrix (the copy with the checks riding on it) and by the
// bare copy it replaced; the difference of the fastest runs is the cost of
// the checks.  A second pair does the same with the rows of every column in
// reverse order, where the search for repeated rows runs.  Bases without a
// bump are also factorized (vlu_factor, the median of N after a warm-up), so
// that the cost can be put against the factor time.  Times in microseconds.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <vector>

#include "interface/factor_args.h"
#include "runtime/records.h"
#include "tools/case_io.h"
#include "vardenlu.h"

namespace {

using Clock = std::chrono::steady_clock;

double Us(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::micro>(b - a).count();
}

// The copy of the matrix as vlu_factor made it before the checks.
void Bare_Copy(vlu::VMI *v, const vlu::Factor_Args &a) {
  vlu::VIM *vim = v->Vim;
  const int32_t n = a.n, nz = a.nz;
  int32_t *stcl = vim->Stcl.V, *rnum = vim->Rnum.V, *cnum = vim->Cnum.V;
  double *jace = vim->Jace.Val;
  for (int32_t j = 1; j <= n + 1; ++j) stcl[j] = a.colStart[j - 1];
  stcl[n + 2] = stcl[n + 1] + n;
  for (int32_t p = 1; p <= nz; ++p) rnum[p] = a.rowIdx[p - 1];
  for (int32_t i = 1; i <= n; ++i) rnum[nz + i] = i;
  for (int32_t p = 1; p <= nz; ++p) cnum[p] = a.colIdx[p - 1];
  for (int32_t i = 1; i <= n; ++i) cnum[nz + i] = n + 1;
  for (int32_t p = 1; p <= nz; ++p) jace[p] = a.val[p - 1];
  for (int32_t i = 1; i <= n; ++i) jace[nz + i] = a.r != nullptr ? a.r[i - 1] : 0.0;
}

// Fastest of `reps` runs of f, in microseconds.
template <typename F> double Fastest(int reps, F f) {
  double best = 1e300;
  for (int k = 0; k < reps; ++k) {
    const Clock::time_point t0 = Clock::now();
    f();
    best = std::min(best, Us(t0, Clock::now()));
  }
  return best;
}

// True when peeling rows with one basic entry takes the basis apart.
bool No_Bump(const vlu_case::Case &c) {
  const int n = c.n;
  std::vector<std::vector<int>> rowCols(static_cast<size_t>(n) + 1);
  std::vector<int> count(static_cast<size_t>(n) + 1, 0), queue;
  std::vector<char> gone(2 * static_cast<size_t>(n) + 2, 0);
  for (int j = 1; j <= 2 * n + 1; ++j)
    if (c.basis[static_cast<size_t>(j - 1)] == 2)
      vlu_case::For_Column(c, j, [&](int i, double v) {
        if (v != 0.0) rowCols[static_cast<size_t>(i)].push_back(j), ++count[static_cast<size_t>(i)];
      });
  for (int i = 1; i <= n; ++i)
    if (count[static_cast<size_t>(i)] == 1) queue.push_back(i);
  int peeled = 0;
  for (size_t h = 0; h < queue.size(); ++h) {
    if (count[static_cast<size_t>(queue[h])] != 1) continue;
    int j = 0;
    for (int cand : rowCols[static_cast<size_t>(queue[h])])
      if (!gone[static_cast<size_t>(cand)]) j = cand;
    gone[static_cast<size_t>(j)] = 1;
    ++peeled;
    vlu_case::For_Column(c, j, [&](int r, double v) {
      if (v != 0.0 && --count[static_cast<size_t>(r)] == 1) queue.push_back(r);
    });
  }
  return peeled == n;
}

int Quiet(int, int, int, char **, void *) { return 0; }

void Run(const vlu_case::Case &c, int reps) {
  vlu::Factor_Args a;
  a.n = c.n;
  a.nz = c.nz;
  a.colStart = c.colStart.data();
  a.rowIdx = c.rowIdx.data();
  a.colIdx = c.colIdx.data();
  a.val = c.val.data();
  a.r = c.rPtr();
  a.basisStat = c.basis.data();
  // The rows of every column reversed: no column rises, the stamps run.
  std::vector<int> rev = c.rowIdx;
  for (int j = 1; j <= c.n; ++j)
    std::reverse(rev.begin() + c.colStart[static_cast<size_t>(j - 1)] - 1,
                 rev.begin() + c.colStart[static_cast<size_t>(j)] - 1);
  vlu::Factor_Args b = a;
  b.rowIdx = rev.data();

  vlu::VMI *v = nullptr;
  int status = 0;
  vlu::Allocate_Space(&v, &status);
  v->Vim->NumRow = c.n;
  v->Vim->NumCol = c.n + 1;
  v->Vim->NumNz = c.nz + c.n;
  v->Max_Updates = 100;
  vlu::Allocate_Inversion(v);
  char msg[vlu::Arg_Msg_Len];
  const int inner = std::max(1, 20000 / (c.nz + c.n + 1));  // runs per timing, for resolution
  auto load = [&](const vlu::Factor_Args &x) {
    for (int k = 0; k < inner; ++k)
      if (!vlu::Load_Factor_Matrix(v, x, msg)) std::printf("refused: %s\n", msg);
  };
  auto copy = [&](const vlu::Factor_Args &x) {
    for (int k = 0; k < inner; ++k) Bare_Copy(v, x);
  };
  const double tLoad = Fastest(reps, [&] { load(a); }) / inner;
  const double tCopy = Fastest(reps, [&] { copy(a); }) / inner;
  const double tLoadRev = Fastest(reps, [&] { load(b); }) / inner;
  const double tCopyRev = Fastest(reps, [&] { copy(b); }) / inner;
  vlu::VMI_Deallocate(&v, &status);

  double tFactor = -1.0;
  if (No_Bump(c)) {
    vlu_regmsgcb(nullptr, Quiet);
    vlu_create();
    int n = c.n, nz = c.nz;
    auto factor = [&] {
      return vlu_factor(&n, &nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(), c.val.data(),
                        c.rPtr(), c.basis.data());
    };
    if (factor() != 3) {
      std::vector<double> t;
      for (int k = 0; k < std::max(reps / 10, 5); ++k) {
        const Clock::time_point t0 = Clock::now();
        factor();
        t.push_back(Us(t0, Clock::now()));
      }
      std::sort(t.begin(), t.end());
      tFactor = t[t.size() / 2];
    }
    vlu_destroy();
  }
  const double check = std::max(0.0, tLoad - tCopy), checkRev = std::max(0.0, tLoadRev - tCopyRev);
  const double entries = c.nz + c.n + 1;
  std::printf("%-30s %6d %7d %9.3f %9.3f %8.4f %7.3f", c.name.c_str(), c.n, c.nz, tCopy, tLoad, check,
              1000.0 * check / entries);
  std::printf(" %8.4f %7.3f", checkRev, 1000.0 * checkRev / entries);
  if (tFactor > 0)
    std::printf(" %9.2f %6.2f%% %6.2f%%\n", tFactor, 100.0 * check / tFactor, 100.0 * checkRev / tFactor);
  else
    std::printf(" %9s %7s %7s\n", "-", "-", "-");
}

void Collect(const std::string &path, std::vector<std::string> &dirs) {
  if (vlu_case::Is_Case_Dir(path)) {
    dirs.push_back(path);
    return;
  }
  DIR *d = ::opendir(path.c_str());
  if (d == nullptr) return;
  while (dirent *e = ::readdir(d))
    if (e->d_name[0] != '.' && vlu_case::Is_Case_Dir(path + "/" + e->d_name)) dirs.push_back(path + "/" + e->d_name);
  ::closedir(d);
  std::sort(dirs.begin(), dirs.end());
}

}  // namespace

int main(int argc, char **argv) {
  int reps = 200;
  std::vector<std::string> dirs;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--reps") == 0 && i + 1 < argc)
      reps = std::max(1, std::atoi(argv[++i]));
    else
      Collect(argv[i], dirs);
  }
  if (dirs.empty()) {
    std::fprintf(stderr, "usage: bench_args [--reps N] PATH...\n");
    return 2;
  }
  std::printf("%-30s %6s %7s %9s %9s %8s %7s %8s %7s %9s %7s %7s\n", "case", "n", "nz", "copy us",
              "load us", "check us", "ns/ent", "rev us", "ns/ent", "factor us", "check", "rev");
  for (const std::string &dir : dirs) {
    vlu_case::Case c;
    std::string err;
    if (!vlu_case::Read_Case(dir, c, err)) {
      std::fprintf(stderr, "%s: %s\n", dir.c_str(), err.c_str());
      continue;
    }
    Run(c, reps);
  }
  return 0;
}
