// Reading basis test cases from disk, and the dense arithmetic that checks
// a solve against them.  Header only: the benchmark driver and the unit
// tests both include it.
//
// A case folder holds
//   matrix.mtx  Matrix Market "coordinate real general", n x n, nz entries
//   basis.txt   2n+1 status values (0 or 2), one a line
//   r.txt       optional: n coefficients of column t
//   walk.txt    optional: "q l" basis changes and "check s NORM" lines
//   info.txt    "key: value" lines
// Columns are numbered 1..n (matrix), n+1 (t), n+1+i (slack of row i).
#pragma once

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace vlu_case {

struct WalkStep {
  int q = 0;  // entering column
  int l = 0;  // leaving column
};

struct WalkCheck {
  int step = 0;       // number of basis changes applied before the check
  double norm = 0.0;  // 2-norm of x with B x = ones
};

struct Case {
  std::string name;  // folder name
  std::string dir;
  int n = 0, nz = 0;
  // The matrix by columns, in the layout of the factor call (1-based values
  // in 0-based arrays): colStart has n+1 entries, colStart[n] = nz+1.
  std::vector<int> colStart, rowIdx, colIdx;
  std::vector<double> val;
  bool hasR = false;
  std::vector<double> r;      // n entries when hasR
  std::vector<int> basis;     // 2n+1 entries
  bool hasWalk = false;
  std::vector<WalkStep> steps;
  std::vector<WalkCheck> checks;
  std::map<std::string, std::string> info;

  const double *rPtr() const { return hasR ? r.data() : nullptr; }
  // A number from info.txt, or `dflt` when the key is absent or not numeric.
  double InfoNum(const std::string &key, double dflt) const {
    auto it = info.find(key);
    if (it == info.end()) return dflt;
    char *end = nullptr;
    double v = std::strtod(it->second.c_str(), &end);
    if (end == it->second.c_str()) return dflt;
    return v;
  }
  std::string InfoStr(const std::string &key, const std::string &dflt = "") const {
    auto it = info.find(key);
    return it == info.end() ? dflt : it->second;
  }
};

namespace detail {

inline bool Read_File(const std::string &path, std::string &out) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  out.clear();
  char buf[65536];
  size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, got);
  std::fclose(f);
  return true;
}

inline bool File_Exists(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Splits text into lines, dropping a trailing carriage return.
inline std::vector<std::string> Lines(const std::string &text) {
  std::vector<std::string> out;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    std::string line = text.substr(pos, nl - pos);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(line);
    pos = nl + 1;
  }
  return out;
}

inline bool Blank(const std::string &s) {
  for (char ch : s)
    if (ch != ' ' && ch != '\t') return false;
  return true;
}

// Whitespace-separated fields of one line.
inline std::vector<std::string> Fields(const std::string &s) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    size_t j = i;
    while (j < s.size() && s[j] != ' ' && s[j] != '\t') ++j;
    if (j > i) out.push_back(s.substr(i, j - i));
    i = j;
  }
  return out;
}

inline bool To_Int(const std::string &s, long &v) {
  if (s.empty()) return false;
  char *end = nullptr;
  errno = 0;
  v = std::strtol(s.c_str(), &end, 10);
  return errno == 0 && end && *end == '\0';
}

inline bool To_Double(const std::string &s, double &v) {
  if (s.empty()) return false;
  char *end = nullptr;
  v = std::strtod(s.c_str(), &end);
  return end && *end == '\0';
}

inline std::string Where(const std::string &file, size_t lineNo) {
  return file + " line " + std::to_string(lineNo);
}

inline std::string Base_Name(const std::string &dir) {
  std::string d = dir;
  while (d.size() > 1 && d.back() == '/') d.pop_back();
  size_t slash = d.rfind('/');
  return slash == std::string::npos ? d : d.substr(slash + 1);
}

}  // namespace detail

// True when `dir` looks like a case folder (it has a matrix.mtx).
inline bool Is_Case_Dir(const std::string &dir) {
  return detail::File_Exists(dir + "/matrix.mtx");
}

// The files of a case folder as text; absent optional files have their
// flag false.
struct Case_Texts {
  std::string matrix, basis, r, walk, info;
  bool hasR = false, hasWalk = false, hasInfo = false;
};

// Reads the files of a case folder.  On failure returns false with a
// message in err.
inline bool Read_Case_Texts(const std::string &dir, Case_Texts &t, std::string &err) {
  using namespace detail;
  t = Case_Texts();
  if (!Read_File(dir + "/matrix.mtx", t.matrix)) {
    err = "cannot read " + dir + "/matrix.mtx";
    return false;
  }
  if (!Read_File(dir + "/basis.txt", t.basis)) {
    err = "cannot read " + dir + "/basis.txt";
    return false;
  }
  if (File_Exists(dir + "/r.txt")) {
    if (!Read_File(dir + "/r.txt", t.r)) {
      err = "cannot read " + dir + "/r.txt";
      return false;
    }
    t.hasR = true;
  }
  t.hasInfo = Read_File(dir + "/info.txt", t.info);
  if (File_Exists(dir + "/walk.txt")) {
    if (!Read_File(dir + "/walk.txt", t.walk)) {
      err = "cannot read " + dir + "/walk.txt";
      return false;
    }
    t.hasWalk = true;
  }
  return true;
}

// Parses the texts of a case.  On failure returns false with a message in
// err.
inline bool Parse_Case(const Case_Texts &t, Case &c, std::string &err) {
  using namespace detail;
  const std::string mfile = "matrix.mtx";
  {
    std::vector<std::string> lines = Lines(t.matrix);
    size_t li = 0;
    if (lines.empty() || lines[0].compare(0, 14, "%%MatrixMarket") != 0) {
      err = mfile + ": missing %%MatrixMarket header";
      return false;
    }
    std::vector<std::string> h = Fields(lines[0]);
    for (auto &f : h)
      for (auto &ch : f) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (h.size() < 5 || h[1] != "matrix" || h[2] != "coordinate" || h[3] != "real" ||
        h[4] != "general") {
      err = mfile + ": only 'matrix coordinate real general' is supported";
      return false;
    }
    li = 1;
    while (li < lines.size() && (Blank(lines[li]) || lines[li][0] == '%')) ++li;
    if (li >= lines.size()) {
      err = mfile + ": missing size line";
      return false;
    }
    std::vector<std::string> sz = Fields(lines[li]);
    long rows = 0, cols = 0, nnz = 0;
    if (sz.size() != 3 || !To_Int(sz[0], rows) || !To_Int(sz[1], cols) || !To_Int(sz[2], nnz) ||
        rows < 0 || nnz < 0 || rows > 100000000 || nnz > 1000000000) {
      err = Where(mfile, li + 1) + ": bad size line";
      return false;
    }
    if (rows != cols) {
      err = mfile + ": matrix is not square";
      return false;
    }
    // The size line alone decides no allocation: the entries must stand in
    // the lines that follow, and the 2n+1 status values in basis.txt.
    const size_t basisLines = static_cast<size_t>(std::count(t.basis.begin(), t.basis.end(), '\n')) + 1;
    if (basisLines < 2 * static_cast<size_t>(rows) + 1) {
      err = "basis.txt: " + std::to_string(basisLines) + " lines, fewer than 2n+1 = " +
            std::to_string(2 * rows + 1);
      return false;
    }
    c.n = static_cast<int>(rows);
    c.nz = static_cast<int>(nnz);
    ++li;
    std::vector<std::pair<std::pair<int, int>, double>> ent;  // ((col, row), value)
    ent.reserve(std::min(static_cast<size_t>(nnz), lines.size() - li));
    for (; li < lines.size(); ++li) {
      if (Blank(lines[li]) || lines[li][0] == '%') continue;
      std::vector<std::string> f = Fields(lines[li]);
      long i = 0, j = 0;
      double v = 0.0;
      if (f.size() != 3 || !To_Int(f[0], i) || !To_Int(f[1], j) || !To_Double(f[2], v)) {
        err = Where(mfile, li + 1) + ": expected 'row column value'";
        return false;
      }
      if (i < 1 || i > rows || j < 1 || j > cols) {
        err = Where(mfile, li + 1) + ": index out of range";
        return false;
      }
      if (static_cast<long>(ent.size()) >= nnz) {
        err = mfile + ": more entries than the size line says";
        return false;
      }
      ent.push_back({{static_cast<int>(j), static_cast<int>(i)}, v});
    }
    if (static_cast<long>(ent.size()) != nnz) {
      err = mfile + ": " + std::to_string(ent.size()) + " entries, size line says " +
            std::to_string(nnz);
      return false;
    }
    std::stable_sort(ent.begin(), ent.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    for (size_t k = 1; k < ent.size(); ++k)
      if (ent[k].first == ent[k - 1].first) {
        err = mfile + ": duplicate entry (" + std::to_string(ent[k].first.second) + ", " +
              std::to_string(ent[k].first.first) + ")";
        return false;
      }
    c.colStart.assign(static_cast<size_t>(c.n) + 1, 0);
    c.rowIdx.resize(ent.size());
    c.colIdx.resize(ent.size());
    c.val.resize(ent.size());
    std::vector<int> count(static_cast<size_t>(c.n) + 1, 0);
    for (size_t k = 0; k < ent.size(); ++k) {
      c.colIdx[k] = ent[k].first.first;
      c.rowIdx[k] = ent[k].first.second;
      c.val[k] = ent[k].second;
      count[static_cast<size_t>(ent[k].first.first)]++;
    }
    int pos = 1;
    for (int j = 1; j <= c.n; ++j) {
      c.colStart[static_cast<size_t>(j - 1)] = pos;
      pos += count[static_cast<size_t>(j)];
    }
    c.colStart[static_cast<size_t>(c.n)] = pos;
  }

  const size_t n = static_cast<size_t>(c.n);
  const size_t total = 2 * n + 1;

  // basis.txt
  {
    std::vector<std::string> lines = Lines(t.basis);
    size_t basic = 0;
    for (size_t li = 0; li < lines.size(); ++li) {
      if (Blank(lines[li])) continue;
      std::vector<std::string> f = Fields(lines[li]);
      long v = 0;
      if (f.size() != 1 || !To_Int(f[0], v) || (v != 0 && v != 2)) {
        err = Where("basis.txt", li + 1) + ": expected a status 0 or 2";
        return false;
      }
      if (c.basis.size() >= total) {
        err = "basis.txt: more than 2n+1 = " + std::to_string(total) + " values";
        return false;
      }
      c.basis.push_back(static_cast<int>(v));
      if (v == 2) ++basic;
    }
    if (c.basis.size() != total) {
      err = "basis.txt: " + std::to_string(c.basis.size()) + " values, expected 2n+1 = " +
            std::to_string(total);
      return false;
    }
    if (basic != n) {
      err = "basis.txt: " + std::to_string(basic) + " basic columns, expected n = " +
            std::to_string(n);
      return false;
    }
  }

  // r.txt (optional)
  if (t.hasR) {
    std::vector<std::string> lines = Lines(t.r);
    for (size_t li = 0; li < lines.size(); ++li) {
      if (Blank(lines[li])) continue;
      std::vector<std::string> f = Fields(lines[li]);
      double v = 0.0;
      if (f.size() != 1 || !To_Double(f[0], v)) {
        err = Where("r.txt", li + 1) + ": expected one number";
        return false;
      }
      c.r.push_back(v);
    }
    if (c.r.size() != n) {
      err = "r.txt: " + std::to_string(c.r.size()) + " values, expected n = " + std::to_string(n);
      return false;
    }
    c.hasR = true;
  } else if (c.basis[n] == 2) {
    err = "basis.txt: column t is basic but there is no r.txt";
    return false;
  }

  // info.txt (optional for reading; all keys are advisory)
  if (t.hasInfo) {
    for (const std::string &line : Lines(t.info)) {
      size_t colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string key = line.substr(0, colon);
      std::string value = line.substr(colon + 1);
      while (!key.empty() && (key.back() == ' ' || key.back() == '\t')) key.pop_back();
      size_t b = 0;
      while (b < value.size() && (value[b] == ' ' || value[b] == '\t')) ++b;
      value = value.substr(b);
      while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.pop_back();
      if (!key.empty()) c.info[key] = value;
    }
  }

  // walk.txt (optional): checked against a running copy of the status.
  if (t.hasWalk) {
    std::vector<int> stat = c.basis;
    std::vector<std::string> lines = Lines(t.walk);
    for (size_t li = 0; li < lines.size(); ++li) {
      if (Blank(lines[li]) || lines[li][0] == '#') continue;
      std::vector<std::string> f = Fields(lines[li]);
      if (f.size() == 3 && f[0] == "check") {
        long s = 0;
        double v = 0.0;
        if (!To_Int(f[1], s) || !To_Double(f[2], v) || s < 0 ||
            s != static_cast<long>(c.steps.size())) {
          err = Where("walk.txt", li + 1) + ": bad check line";
          return false;
        }
        c.checks.push_back({static_cast<int>(s), v});
        continue;
      }
      long q = 0, l = 0;
      if (f.size() != 2 || !To_Int(f[0], q) || !To_Int(f[1], l)) {
        err = Where("walk.txt", li + 1) + ": expected 'q l' or 'check s NORM'";
        return false;
      }
      if (q < 1 || q > static_cast<long>(total) || l < 1 || l > static_cast<long>(total)) {
        err = Where("walk.txt", li + 1) + ": column out of range";
        return false;
      }
      if (stat[static_cast<size_t>(q - 1)] != 0 || stat[static_cast<size_t>(l - 1)] != 2) {
        err = Where("walk.txt", li + 1) + ": entering column not nonbasic or leaving not basic";
        return false;
      }
      stat[static_cast<size_t>(q - 1)] = 2;
      stat[static_cast<size_t>(l - 1)] = 0;
      c.steps.push_back({static_cast<int>(q), static_cast<int>(l)});
    }
    c.hasWalk = true;
  }
  return true;
}

// Reads a whole case.  On failure returns false with a message in err.
inline bool Read_Case(const std::string &dir, Case &c, std::string &err) {
  Case_Texts t;
  c = Case();
  if (!Read_Case_Texts(dir, t, err)) return false;
  c.dir = dir;
  c.name = detail::Base_Name(dir);
  return Parse_Case(t, c, err);
}

// ---------------------------------------------------------------------------
// Dense helpers over the basis matrix [A t I] restricted to basic columns.

// Calls f(row, value) for each entry of system column j (1..2n+1).
template <typename F>
inline void For_Column(const Case &c, int j, F f) {
  const int n = c.n;
  if (j <= n) {
    for (int p = c.colStart[static_cast<size_t>(j - 1)]; p < c.colStart[static_cast<size_t>(j)]; ++p)
      f(c.rowIdx[static_cast<size_t>(p - 1)], c.val[static_cast<size_t>(p - 1)]);
  } else if (j == n + 1) {
    if (c.hasR)
      for (int i = 1; i <= n; ++i) f(i, c.r[static_cast<size_t>(i - 1)]);
  } else {
    f(j - n - 1, 1.0);
  }
}

// Number of entries of B for a status array (zeros of r counted).
inline long Nnz_B(const Case &c, const std::vector<int> &stat) {
  long count = 0;
  for (int j = 1; j <= 2 * c.n + 1; ++j) {
    if (stat[static_cast<size_t>(j - 1)] != 2) continue;
    if (j <= c.n)
      count += c.colStart[static_cast<size_t>(j)] - c.colStart[static_cast<size_t>(j - 1)];
    else if (j == c.n + 1)
      count += c.n;
    else
      count += 1;
  }
  return count;
}

// Relative residual ||B x - b||_inf / (||B||_inf ||x||_inf + ||b||_inf), with
// x taken from sol (2n+1 entries, basic columns only) and b of n entries.
inline double Rel_Residual(const Case &c, const std::vector<int> &stat, const double *sol,
                           const double *b) {
  const int n = c.n;
  std::vector<double> bx(static_cast<size_t>(n) + 1, 0.0), rowAbs(static_cast<size_t>(n) + 1, 0.0);
  double xInf = 0.0;
  for (int j = 1; j <= 2 * n + 1; ++j) {
    if (stat[static_cast<size_t>(j - 1)] != 2) continue;
    const double x = sol[j - 1];
    xInf = std::max(xInf, std::fabs(x));
    For_Column(c, j, [&](int i, double v) {
      bx[static_cast<size_t>(i)] += v * x;
      rowAbs[static_cast<size_t>(i)] += std::fabs(v);
    });
  }
  double rInf = 0.0, bInf = 0.0, bNorm = 0.0;
  for (int i = 1; i <= n; ++i) {
    rInf = std::max(rInf, std::fabs(bx[static_cast<size_t>(i)] - b[i - 1]));
    bInf = std::max(bInf, std::fabs(b[i - 1]));
    bNorm = std::max(bNorm, rowAbs[static_cast<size_t>(i)]);
  }
  const double denom = bNorm * xInf + bInf;
  if (denom == 0.0) return rInf == 0.0 ? 0.0 : rInf;
  return rInf / denom;
}

// 2-norm of the basic entries of sol.
inline double Basic_Norm2(const Case &c, const std::vector<int> &stat, const double *sol) {
  double s = 0.0;
  for (int j = 1; j <= 2 * c.n + 1; ++j)
    if (stat[static_cast<size_t>(j - 1)] == 2) s += sol[j - 1] * sol[j - 1];
  return std::sqrt(s);
}

}  // namespace vlu_case
