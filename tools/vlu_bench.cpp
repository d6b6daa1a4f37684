// vlu-bench: runs the library over basis test cases and reports timings,
// factor sizes, residuals and the replay of each case's walk.
//
//   vlu-bench [--json] [--reps N] [--solves N] [--replays N] [--timeout S]
//             [--update-limit N] PATH
//
// PATH is one case folder (it holds matrix.mtx) or a folder of case folders.
// Every case runs in a child process: a hard stop of the library ends only
// that child, and the case is reported as one that cannot be handled yet.
//
// Exit status 0 when every case ends as its info.txt expects (a regular basis
// factorizes with small residuals and replays its walk within the check
// tolerance; a singular one gives pairs inside the allowed sets whose repair
// factorizes), 1 otherwise, 2 on a usage error.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "interface/state.h"
#include "runtime/records.h"
#include "tools/case_io.h"
#include "vardenlu.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  bool json = false;
  int reps = 7;         // timed factorizations after one warm-up
  int solves = 50;      // timed solves, the fastest counts
  int replays = 3;      // walk replays, the median counts
  int timeout = 900;    // seconds per case
  int updateLimit = -2; // updates between refactorizations; -2: the library's default
  std::string path;
};

double Ms_Since(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// ---------------------------------------------------------------------------
// Result of one case: an ordered list of fields, numbers or strings.  The
// child sends it to the parent as "n key value" / "s key value" lines.

struct Field {
  std::string key;
  bool isNum = false;
  double num = 0.0;
  std::string str;
};

struct Result {
  std::vector<Field> fields;
  // Streams each field to this descriptor as soon as it is set (the child
  // side), so that a case that dies halfway still reports what it measured.
  int sink = -1;

  void Set(const Field &f) {
    bool found = false;
    for (Field &g : fields)
      if (g.key == f.key) {
        g = f;
        found = true;
      }
    if (!found) fields.push_back(f);
    if (sink >= 0) Send(f);
  }
  void Num(const std::string &k, double v) { Set({k, true, v, ""}); }
  void Str(const std::string &k, const std::string &v) { Set({k, false, 0.0, v}); }
  const Field *Get(const std::string &k) const {
    for (const Field &f : fields)
      if (f.key == k) return &f;
    return nullptr;
  }
  void Send(const Field &f) const {
    std::string v = f.isNum ? Fmt_G17(f.num) : f.str;
    for (char &ch : v)
      if (ch == '\n' || ch == '\t') ch = ' ';
    const std::string line = (f.isNum ? "n\t" : "s\t") + f.key + "\t" + v + "\n";
    size_t off = 0;
    while (off < line.size()) {
      ssize_t w = ::write(sink, line.data() + off, line.size() - off);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) break;
      off += static_cast<size_t>(w);
    }
  }
  static std::string Fmt_G17(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
  }
  // Reads what the child sent; a later value of a key replaces an earlier.
  void Decode(const std::string &text) {
    size_t pos = 0;
    while (pos < text.size()) {
      size_t nl = text.find('\n', pos);
      if (nl == std::string::npos) break;  // a line cut short by a dying child
      std::string line = text.substr(pos, nl - pos);
      pos = nl + 1;
      size_t t1 = line.find('\t');
      if (t1 == std::string::npos) continue;
      size_t t2 = line.find('\t', t1 + 1);
      if (t2 == std::string::npos) continue;
      std::string kind = line.substr(0, t1), key = line.substr(t1 + 1, t2 - t1 - 1),
                  value = line.substr(t2 + 1);
      if (kind == "n")
        Num(key, std::strtod(value.c_str(), nullptr));
      else
        Str(key, value);
    }
  }
};

std::string Json_Escape(const std::string &s) {
  std::string out;
  for (char ch : s) {
    switch (ch) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      default:
        if (static_cast<unsigned char>(ch) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", ch);
          out += buf;
        } else {
          out += ch;
        }
    }
  }
  return out;
}

std::string Json_Line(const Result &r) {
  std::string out = "{";
  bool first = true;
  for (const Field &f : r.fields) {
    if (!first) out += ", ";
    first = false;
    out += "\"" + Json_Escape(f.key) + "\": ";
    if (f.isNum) {
      if (std::isfinite(f.num)) {
        char buf[64];
        if (f.num == std::floor(f.num) && std::fabs(f.num) < 1e15)
          std::snprintf(buf, sizeof buf, "%.0f", f.num);
        else
          std::snprintf(buf, sizeof buf, "%.6g", f.num);
        out += buf;
      } else {
        out += "null";
      }
    } else {
      out += "\"" + Json_Escape(f.str) + "\"";
    }
  }
  return out + "}";
}

// ---------------------------------------------------------------------------
// The work of one case, run in the child.

FILE *g_progress = nullptr;  // the parent's error stream, for progress lines

// Largest relative residual ||B x - b|| / (||B|| ||x|| + ||b||) (infinity
// norms) that counts as a correct solve.
constexpr double Residual_Limit = 1e-12;

int Quiet_Callback(int, int, int, char **, void *) { return 0; }

// Status array and sol buffers shared by the steps of a case.
struct Runner {
  const vlu_case::Case &c;
  const Options &opt;
  int n;
  std::vector<double> sol, ones, rhs;

  Runner(const vlu_case::Case &cs, const Options &o)
      : c(cs), opt(o), n(cs.n),
        sol(2 * static_cast<size_t>(cs.n) + 1), ones(static_cast<size_t>(cs.n), 1.0),
        rhs(static_cast<size_t>(cs.n), 0.0) {}

  int Factor(const std::vector<int> &stat) {
    const int nz = c.nz;
    return vlu_factor(&n, &nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(),
                      c.val.data(), c.rPtr(), stat.data());
  }
};

void Report_Singular(const vlu_case::Case &c, Result &res) {
  const int ns = vlu_getnumsing();
  res.Num("num_sing", ns);
  std::string pairs;
  std::vector<int> cols, rows;
  for (int k = 1; k <= ns; ++k) {
    int row = 0, col = 0;
    vlu_getsingpair(&k, &row, &col);
    rows.push_back(row);
    cols.push_back(col);
    if (!pairs.empty()) pairs += " ";
    pairs += "(" + std::to_string(row) + "," + std::to_string(col) + ")";
  }
  res.Str("pairs", pairs);
  const std::string expected = c.InfoStr("expected");
  if (expected != "singular") {
    res.Str("status", "singular (UNEXPECTED)");
    return;
  }
  // The repair must lie within the sets the case allows.
  auto in_set = [](const std::string &list, int v) {
    for (const std::string &f : vlu_case::detail::Fields(list))
      if (std::atoi(f.c_str()) == v) return true;
    return false;
  };
  bool fits = ns == static_cast<int>(c.InfoNum("dropped_columns", -1));
  const std::string colsOk = c.InfoStr("columns_that_may_be_dropped");
  const std::string rowsOk = c.InfoStr("rows_whose_slack_may_enter");
  for (int k = 0; k < ns; ++k) {
    if (!colsOk.empty() && !in_set(colsOk, cols[static_cast<size_t>(k)])) fits = false;
    if (!rowsOk.empty() && !in_set(rowsOk, rows[static_cast<size_t>(k)])) fits = false;
  }
  if (!fits) {
    res.Str("status", "singular (repair outside the allowed sets)");
    return;
  }
  // Accept the repair as a caller would: each column leaves, the slack of its
  // row enters; the new basis must factorize.
  std::vector<int> stat = c.basis;
  for (int k = 0; k < ns; ++k) {
    stat[static_cast<size_t>(cols[static_cast<size_t>(k)] - 1)] = 0;
    stat[static_cast<size_t>(c.n + rows[static_cast<size_t>(k)])] = 2;
  }
  const int n = c.n, nz = c.nz;
  const int rc = vlu_factor(&n, &nz, c.colStart.data(), c.rowIdx.data(), c.colIdx.data(),
                            c.val.data(), c.rPtr(), stat.data());
  res.Num("repair_result", rc);
  res.Str("status", rc == 0 ? "singular (expected)" : "singular (the repaired basis does not factorize)");
}

// A fingerprint of the factors in pivot order (permutations, each U row with
// the bits of its values, each L column), independent of where they stand in
// their vectors: two builds that must give the same factors give the same
// fingerprint.
std::string Factor_Digest(const vlu::VMI *env) {
  const vlu::VIM *vim = env->Vim;
  const vlu::LUF *luf = env->Luf;
  uint64_t h = 1469598103934665603ULL;
  auto mix = [&h](uint64_t v) {
    for (int b = 0; b < 8; ++b) {
      h ^= (v >> (8 * b)) & 0xff;
      h *= 1099511628211ULL;
    }
  };
  auto bits = [](double v) {
    uint64_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
  };
  for (int32_t k = 1; k <= vim->NumRow; ++k) {
    const int32_t r = vim->Rnto.V[k];
    mix(static_cast<uint64_t>(r));
    mix(static_cast<uint64_t>(vim->Cnto.V[k]));
    for (int32_t p = luf->Rstr.V[r]; p < luf->Rstr.V[r] + luf->Rlen.V[r]; ++p) {
      mix(static_cast<uint64_t>(luf->Ic.V[p]));
      mix(bits(vim->AUrmat.Val[p]));
    }
  }
  for (int32_t c = 1; c <= luf->L_Cols + 1; ++c) mix(static_cast<uint64_t>(luf->Lsor.V[c]));
  for (int32_t p = 1; p <= luf->LFileUsed; ++p) {
    mix(static_cast<uint64_t>(luf->Lrow.V[p]) << 32 | static_cast<uint32_t>(luf->Lpiv.V[p]));
    mix(bits(luf->Lmat.Val[p]));
  }
  char buf[20];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
  return buf;
}

// Nonzeros of the factors: L without its unit diagonal, U with its diagonal.
// Block steps store a few exact zeros; they are not counted.
void Count_Factors(const vlu::LUF *luf, const vlu::VIM *vim, Result &res) {
  long nnzL = 0, nnzU = 0;
  const double *lmat = luf->Lmat.Val;
  for (int32_t p = 1; p <= luf->LFileUsed; ++p)
    if (lmat[p] != 0.0) ++nnzL;
  const double *aur = vim->AUrmat.Val;
  const int32_t *ic = luf->Ic.V;
  for (int32_t p = luf->U_elefirst; p <= luf->RowUSpace; ++p)
    if (ic[p] != 0 && aur[p] != 0.0) ++nnzU;
  res.Num("nnz_L", static_cast<double>(nnzL));
  res.Num("nnz_U", static_cast<double>(nnzU));
  res.Num("nnz_LU", static_cast<double>(nnzL + nnzU));
  res.Num("stored_LU", static_cast<double>(luf->LFileUsed + luf->U_numele));
}

void Run_Case(const vlu_case::Case &c, const Options &opt, Result &res) {
  res.Str("case", c.name);
  res.Num("n", c.n);
  res.Num("nnz_B", static_cast<double>(vlu_case::Nnz_B(c, c.basis)));

  vlu_regmsgcb(nullptr, Quiet_Callback);
  vlu_create();
  if (opt.updateLimit != -2) {
    int limit = opt.updateLimit;
    vlu_setupdatelimit(&limit);
  }
  Runner run(c, opt);

  // Warm-up factorization; it also tells whether the basis is regular.
  const int rc = run.Factor(c.basis);
  if (rc == 4) {
    res.Str("status", "not enough memory");
    return;
  }
  if (rc == 3) {
    Report_Singular(c, res);
    vlu_destroy();
    return;
  }
  if (rc != 0) {
    res.Str("status", "unexpected result " + std::to_string(rc) + " of vlu_factor");
    return;
  }

  // Factor time: median of the timed repetitions.
  std::vector<double> ft;
  for (int k = 0; k < opt.reps; ++k) {
    Clock::time_point t0 = Clock::now();
    run.Factor(c.basis);
    ft.push_back(Ms_Since(t0));
  }
  std::sort(ft.begin(), ft.end());
  const double factorMs = ft.empty() ? 0.0 : ft[ft.size() / 2];
  Count_Factors(vlu::Iface().env->Luf, vlu::Iface().vim, res);
  // The library's own count of its peak memory in this factorization (the
  // vectors of one environment; the matrix copy included).
  res.Num("mem_max_mb", static_cast<double>(vlu::Iface().env->Mem_Max) / (1024.0 * 1024.0));
  res.Str("digest", Factor_Digest(vlu::Iface().env));

  // Solve time: fastest of many solves with b = ones.
  double solveUs = 1e300;
  for (int k = 0; k < opt.solves; ++k) {
    Clock::time_point t0 = Clock::now();
    vlu_solve(run.sol.data(), run.ones.data());
    solveUs = std::min(solveUs, Ms_Since(t0) * 1000.0);
  }
  const double resStart = vlu_case::Rel_Residual(c, c.basis, run.sol.data(), run.ones.data());
  std::vector<double> brand(static_cast<size_t>(c.n));
  std::mt19937_64 gen(12345);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  for (double &v : brand) v = dist(gen);
  vlu_solve(run.sol.data(), brand.data());
  const double resRand = vlu_case::Rel_Residual(c, c.basis, run.sol.data(), brand.data());

  res.Num("factor_ms", factorMs);
  res.Num("solve_us", solveUs);
  res.Num("res_start", resStart);
  res.Num("res_rand", resRand);

  if (c.InfoStr("expected") == "singular") {
    res.Str("status", "regular (expected singular)");
    vlu_destroy();
    return;
  }
  if (!(resStart <= Residual_Limit) || !(resRand <= Residual_Limit)) {
    res.Str("status", "residual above 1e-12");
    vlu_destroy();
    return;
  }
  if (!c.hasWalk) {
    res.Str("status", "ok");
    vlu_destroy();
    return;
  }

  // Walk replays: per step, the solve with the entering column as right-hand
  // side and the update.  Check values are computed in the first replay,
  // outside the timed part.
  const double cond = c.InfoNum("walk_condition_1_max", 1.0);
  const double tol = std::max(1e-10, 1e-14 * cond);
  const int K = static_cast<int>(c.steps.size());
  std::vector<double> walkMs;
  double worstCheck = 0.0;
  int checksDone = 0;
  int refactors = 0, updates = 0;
  // Failure ends of the in-place updates in the first replay, by kind
  // (memory, U-factor too large, pivot too small); each led to a
  // refactorization.
  int failMemory = 0, failULarge = 0, failPivot = 0;
  double resEnd = 0.0;
  std::string walkFail;
  const int zero = 0;
  std::vector<int> stat;

  for (int rep = 0; rep < std::max(1, opt.replays); ++rep) {
    stat = c.basis;
    if (run.Factor(stat) != 0) {
      walkFail = "start basis not regular on replay";
      break;
    }
    int f0 = 0, u0 = 0, r0 = 0;
    vlu_getstats(&f0, &u0, &r0);
    size_t nextCheck = 0;
    double elapsed = 0.0;
    Clock::time_point lastProgress = Clock::now(), walkStart = Clock::now();
    for (int s = 0; s <= K; ++s) {
      if (rep == 0) {
        while (nextCheck < c.checks.size() && c.checks[nextCheck].step == s) {
          vlu_solve(run.sol.data(), run.ones.data());
          const double norm = vlu_case::Basic_Norm2(c, stat, run.sol.data());
          const double ref = c.checks[nextCheck].norm;
          const double dev = std::fabs(norm - ref) / std::max(std::fabs(ref), 1e-300);
          worstCheck = std::max(worstCheck, dev);
          if (!(dev == dev)) worstCheck = dev;
          ++checksDone;
          ++nextCheck;
          res.Num("check", worstCheck);  // so far; kept if the walk dies later
          res.Num("checks", checksDone);
        }
      }
      if (s == K) break;
      const int q = c.steps[static_cast<size_t>(s)].q;
      const int l = c.steps[static_cast<size_t>(s)].l;
      if (rep == 0) res.Num("walk_at", s + 1);  // where a hard stop would hit
      vlu_case::For_Column(c, q, [&](int i, double v) { run.rhs[static_cast<size_t>(i - 1)] = v; });
      stat[static_cast<size_t>(q - 1)] = 2;
      stat[static_cast<size_t>(l - 1)] = 0;

      Clock::time_point t0 = Clock::now();
      vlu_solve(run.sol.data(), run.rhs.data());
      const int urc = vlu_update(stat.data(), &q, &l, &zero);
      elapsed += Ms_Since(t0);

      vlu_case::For_Column(c, q, [&](int i, double) { run.rhs[static_cast<size_t>(i - 1)] = 0.0; });
      if (urc == 3) {
        walkFail = "singular after walk step " + std::to_string(s + 1);
        break;
      }
      if (urc != 1 && urc != 2) {
        walkFail = "unexpected result " + std::to_string(urc) + " of vlu_update";
        break;
      }
      if (g_progress && std::chrono::duration<double>(Clock::now() - lastProgress).count() > 2.0) {
        std::fprintf(g_progress, "vlu-bench: %s: walk step %d/%d (replay %d, %.1f s)\n",
                     c.name.c_str(), s + 1, K, rep + 1,
                     std::chrono::duration<double>(Clock::now() - walkStart).count());
        std::fflush(g_progress);
        lastProgress = Clock::now();
      }
    }
    if (!walkFail.empty()) break;
    int f1 = 0, u1 = 0, r1 = 0;
    vlu_getstats(&f1, &u1, &r1);
    walkMs.push_back(elapsed);
    if (rep == 0) {
      refactors = r1 - r0;
      updates = u1 - u0;
      const vlu::VIM *vim = vlu::Iface().env->Vim;
      failMemory = vim->Upd_Fail_Memory;
      failULarge = vim->Upd_Fail_U_Large;
      failPivot = vim->Upd_Fail_Pivot;
      vlu_solve(run.sol.data(), run.ones.data());
      resEnd = vlu_case::Rel_Residual(c, stat, run.sol.data(), run.ones.data());
      res.Str("digest_end", Factor_Digest(vlu::Iface().env));
    }
    // Long walks are replayed once only.
    if (elapsed > 2000.0) break;
  }

  res.Num("walk_steps", K);
  res.Num("walk_at", K);
  if (!walkFail.empty()) {
    res.Str("status", "walk failed: " + walkFail);
    vlu_destroy();
    return;
  }
  std::sort(walkMs.begin(), walkMs.end());
  res.Num("walk_ms", walkMs[walkMs.size() / 2]);
  res.Num("refactors", refactors);
  res.Num("updates", updates);
  res.Num("fail_memory", failMemory);
  res.Num("fail_ufactor", failULarge);
  res.Num("fail_pivot", failPivot);
  res.Num("checks", checksDone);
  res.Num("check", worstCheck);
  res.Num("check_tol", tol);
  res.Num("res_end", resEnd);
  if (!(worstCheck <= tol))
    res.Str("status", "check deviation above tolerance");
  else if (!(resEnd <= Residual_Limit))
    res.Str("status", "residual after the walk above 1e-12");
  else
    res.Str("status", "ok");
  vlu_destroy();
}

// ---------------------------------------------------------------------------
// The parent: one child per case.

std::string Read_All_Fd(int fd) {
  std::string out;
  char buf[4096];
  for (;;) {
    ssize_t got = ::read(fd, buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    out.append(buf, static_cast<size_t>(got));
  }
  return out;
}

std::string Last_Line(const std::string &text) {
  std::string last;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    std::string line = text.substr(pos, nl - pos);
    pos = nl + 1;
    if (!vlu_case::detail::Blank(line)) last = line;
  }
  while (!last.empty() && (last.back() == ' ' || last.back() == '\r')) last.pop_back();
  size_t b = 0;
  while (b < last.size() && last[b] == ' ') ++b;
  return last.substr(b);
}

Result Run_In_Child(const std::string &dir, const Options &opt) {
  Result res;
  const std::string name = vlu_case::detail::Base_Name(dir);
  int pfd[2];
  if (::pipe(pfd) != 0) {
    res.Str("case", name);
    res.Str("status", std::string("cannot start: pipe: ") + std::strerror(errno));
    return res;
  }
  FILE *errCap = std::tmpfile();
  FILE *outCap = std::tmpfile();
  std::fflush(stdout);
  std::fflush(stderr);
  pid_t pid = ::fork();
  if (pid < 0) {
    res.Str("case", name);
    res.Str("status", std::string("cannot start: fork: ") + std::strerror(errno));
    ::close(pfd[0]);
    ::close(pfd[1]);
    if (errCap) std::fclose(errCap);
    if (outCap) std::fclose(outCap);
    return res;
  }
  if (pid == 0) {
    ::close(pfd[0]);
    int progFd = ::dup(2);
    g_progress = progFd >= 0 ? ::fdopen(progFd, "w") : nullptr;
    if (errCap) ::dup2(fileno(errCap), 2);
    if (outCap) ::dup2(fileno(outCap), 1);
    if (opt.timeout > 0) ::alarm(static_cast<unsigned>(opt.timeout));
    vlu_case::Case c;
    std::string err;
    Result r;
    r.sink = pfd[1];
    if (!vlu_case::Read_Case(dir, c, err)) {
      r.Str("case", name);
      r.Str("status", "error: " + err);
    } else {
      Run_Case(c, opt, r);
    }
    ::close(pfd[1]);
    std::fflush(nullptr);
    ::_exit(0);
  }
  ::close(pfd[1]);
  const std::string text = Read_All_Fd(pfd[0]);
  ::close(pfd[0]);
  int wstatus = 0;
  while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  auto captured = [](FILE *f) {
    std::string s;
    if (!f) return s;
    std::fflush(f);
    std::rewind(f);
    char buf[4096];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, got);
    std::fclose(f);
    return s;
  };
  const std::string errText = captured(errCap);
  const std::string outText = captured(outCap);

  res.Decode(text);
  const bool clean = WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0;
  if (clean && res.Get("status")) return res;
  std::string reason = Last_Line(errText);
  if (reason.empty()) reason = Last_Line(outText);
  if (WIFSIGNALED(wstatus)) {
    const int sig = WTERMSIG(wstatus);
    std::string what = sig == SIGALRM ? "timed out after " + std::to_string(opt.timeout) + " s"
                                      : std::string("killed by signal ") + std::to_string(sig) +
                                            " (" + strsignal(sig) + ")";
    reason = reason.empty() ? what : what + "; last output: " + reason;
  } else if (reason.empty()) {
    reason = "exit status " + std::to_string(WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1);
  }
  if (!res.Get("case")) res.Str("case", name);
  std::string where;
  if (const Field *at = res.Get("walk_at"))
    where = " (in walk step " + std::to_string(static_cast<long>(at->num)) + ")";
  else if (res.Get("solve_us"))
    where = " (after the solves)";
  else if (res.Get("n"))
    where = " (in the factorization)";
  res.Str("status", "cannot be handled yet" + where + ": " + reason);
  return res;
}

// ---------------------------------------------------------------------------
// Output.

std::string Fmt(const Result &r, const char *key, const char *fmt) {
  const Field *f = r.Get(key);
  if (!f || !f->isNum) return "-";
  char buf[64];
  std::snprintf(buf, sizeof buf, fmt, f->num);
  return buf;
}

void Print_Header() {
  std::printf("%-32s %7s %7s %10s %7s %7s %8s %9s %10s %5s %5s %7s %9s %9s %9s  %s\n", "case", "n",
              "nnz(B)", "factor ms", "nnz(L)", "nnz(U)", "nnz(L+U)", "solve us", "walk ms", "ref",
              "upd", "fails", "check", "res start", "res end", "status");
}

void Print_Row(const Result &r) {
  const Field *name = r.Get("case");
  const Field *status = r.Get("status");
  // Failure ends of the updates: memory/U-factor/pivot.
  std::string fails = "-";
  if (r.Get("fail_memory"))
    fails = Fmt(r, "fail_memory", "%.0f") + "/" + Fmt(r, "fail_ufactor", "%.0f") + "/" +
            Fmt(r, "fail_pivot", "%.0f");
  std::printf("%-32s %7s %7s %10s %7s %7s %8s %9s %10s %5s %5s %7s %9s %9s %9s  %s\n",
              name ? name->str.c_str() : "?", Fmt(r, "n", "%.0f").c_str(),
              Fmt(r, "nnz_B", "%.0f").c_str(), Fmt(r, "factor_ms", "%.4g").c_str(),
              Fmt(r, "nnz_L", "%.0f").c_str(), Fmt(r, "nnz_U", "%.0f").c_str(),
              Fmt(r, "nnz_LU", "%.0f").c_str(), Fmt(r, "solve_us", "%.3g").c_str(),
              Fmt(r, "walk_ms", "%.4g").c_str(), Fmt(r, "refactors", "%.0f").c_str(),
              Fmt(r, "updates", "%.0f").c_str(), fails.c_str(), Fmt(r, "check", "%.1e").c_str(),
              Fmt(r, "res_start", "%.1e").c_str(), Fmt(r, "res_end", "%.1e").c_str(),
              status ? status->str.c_str() : "?");
  std::fflush(stdout);
}

bool Is_Dir(const std::string &p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void Usage() {
  std::fprintf(stderr,
               "usage: vlu-bench [--json] [--reps N] [--solves N] [--replays N] [--timeout S] "
               "[--update-limit N] PATH\n"
               "  PATH: a case folder (with matrix.mtx) or a folder of case folders\n");
}

bool Parse_Int(const char *s, int &v) {
  char *end = nullptr;
  long x = std::strtol(s, &end, 10);
  if (!end || *end != '\0' || x < 0 || x > 1000000) return false;
  v = static_cast<int>(x);
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  Options opt;
  for (int a = 1; a < argc; ++a) {
    std::string arg = argv[a];
    auto need = [&](int &dst) {
      if (a + 1 >= argc || !Parse_Int(argv[a + 1], dst)) {
        std::fprintf(stderr, "vlu-bench: %s needs a non-negative number\n", arg.c_str());
        std::exit(2);
      }
      ++a;
    };
    if (arg == "--json") opt.json = true;
    else if (arg == "--reps") need(opt.reps);
    else if (arg == "--solves") need(opt.solves);
    else if (arg == "--replays") need(opt.replays);
    else if (arg == "--timeout") need(opt.timeout);
    else if (arg == "--update-limit") need(opt.updateLimit);
    else if (arg == "-h" || arg == "--help") {
      Usage();
      return 0;
    } else if (!arg.empty() && arg[0] == '-') {
      std::fprintf(stderr, "vlu-bench: unknown option %s\n", arg.c_str());
      Usage();
      return 2;
    } else if (opt.path.empty()) {
      opt.path = arg;
    } else {
      std::fprintf(stderr, "vlu-bench: more than one path given\n");
      return 2;
    }
  }
  if (opt.path.empty()) {
    Usage();
    return 2;
  }
  if (opt.solves < 1) opt.solves = 1;
  if (!Is_Dir(opt.path)) {
    std::fprintf(stderr, "vlu-bench: %s is not a folder\n", opt.path.c_str());
    return 2;
  }

  std::vector<std::string> dirs;
  if (vlu_case::Is_Case_Dir(opt.path)) {
    dirs.push_back(opt.path);
  } else {
    DIR *d = ::opendir(opt.path.c_str());
    if (!d) {
      std::fprintf(stderr, "vlu-bench: cannot open %s: %s\n", opt.path.c_str(),
                   std::strerror(errno));
      return 2;
    }
    while (dirent *e = ::readdir(d)) {
      std::string nm = e->d_name;
      if (nm == "." || nm == "..") continue;
      std::string full = opt.path + "/" + nm;
      if (Is_Dir(full)) dirs.push_back(full);
    }
    ::closedir(d);
    std::sort(dirs.begin(), dirs.end());
    if (dirs.empty()) {
      std::fprintf(stderr, "vlu-bench: %s holds no case folders (no matrix.mtx)\n",
                   opt.path.c_str());
      return 2;
    }
  }

  if (!opt.json) Print_Header();
  int failed = 0;
  for (const std::string &dir : dirs) {
    Result r = Run_In_Child(dir, opt);
    const Field *st = r.Get("status");
    if (!st || (st->str != "ok" && st->str != "singular (expected)")) ++failed;
    if (opt.json)
      std::printf("%s\n", Json_Line(r).c_str());
    else
      Print_Row(r);
    std::fflush(stdout);
  }
  if (!opt.json)
    std::printf("%zu cases, %d not ok\n", dirs.size(), failed);
  // A case that does not end as its info.txt expects (a malformed case among
  // them) makes the run fail.
  return failed > 0 ? 1 : 0;
}
