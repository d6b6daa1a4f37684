// Shared by the fuzz targets and the seed maker: a reader of the fuzzer's
// bytes with its mirror image, a writer; the drawing of values and of whole
// systems (matrix, column t, basis) from the bytes; and the checks of what
// the library returns.
//
// Byte layout of a system (all integers little-endian; Pick(m) is one byte
// for m <= 256, two for m <= 65536, else four, taken modulo m):
//   triangular: n-1 as Pick(MaxN_Tri); flags; Fisher-Yates draws of the row
//     order prow and the column order pcol (draw i = n-1 .. 1: Pick(i+1));
//     then per position k = 1..n a byte (bit 0: the slack of row prow[k] is
//     basic instead of column pcol[k]; bit 1: the diagonal is made tiny;
//     bits 2..7: the number of further entries), the diagonal value, and per
//     further entry a position Pick(span) and a value; then, with column t,
//     its n values, and, with shuffled rows, one draw per column entry.
//     Column pcol[k] has its diagonal in row prow[k] and its other entries
//     in rows of later positions (lower) or earlier ones (upper), so every
//     basis that keeps one column or slack per position has no bump.
//   general: n-1 as Pick(MaxN_Gen); flags; per column a count Pick(n+1) and
//     per entry a row Pick(n) (repeats skipped) and a value; column t; per
//     row a byte (bit 0: its slack is basic); Fisher-Yates draws that order
//     the candidate columns, of which the first n - slacks are basic.
// A value is a tag byte and its payload: tag % 8 = 0: the 8 bytes of a
// double; 1..5: (1 + U16 / 65536) times a power of ten that the style
// bounds, sign from bit 3; 6: a value at a tolerance or a special magnitude;
// 7: in the wild style infinities and NaN, otherwise as 1..5.
#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace fz {

// Ends the run with a report that libFuzzer records as a crash.
[[noreturn]] inline void Fail(const char *what) {
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}
inline void Require(bool ok, const char *what) {
  if (!ok) Fail(what);
}

struct Bytes {
  const uint8_t *p = nullptr;
  size_t n = 0, at = 0;
  Bytes(const uint8_t *data, size_t size) : p(data), n(size) {}
  bool Left() const { return at < n; }
  uint8_t U8() { return at < n ? p[at++] : 0; }
  uint16_t U16() { return static_cast<uint16_t>(U8() | U8() << 8); }
  uint32_t U32() { return U16() | static_cast<uint32_t>(U16()) << 16; }
  uint64_t U64() { return U32() | static_cast<uint64_t>(U32()) << 32; }
  // 0 .. m-1; 0 for m <= 1.
  uint32_t Pick(uint32_t m) {
    if (m <= 1) return 0;
    if (m <= 256) return U8() % m;
    if (m <= 65536) return U16() % m;
    return U32() % m;
  }
};

// The mirror of Bytes: writes what a read returns.
struct Writer {
  std::vector<uint8_t> out;
  void U8(uint32_t v) { out.push_back(static_cast<uint8_t>(v)); }
  void U16(uint32_t v) { U8(v & 0xff), U8(v >> 8 & 0xff); }
  void U32(uint32_t v) { U16(v & 0xffff), U16(v >> 16); }
  void U64(uint64_t v) { U32(static_cast<uint32_t>(v)), U32(static_cast<uint32_t>(v >> 32)); }
  void Pick(uint32_t v, uint32_t m) {
    if (m <= 1) return;
    if (m <= 256) return U8(v);
    if (m <= 65536) return U16(v);
    U32(v);
  }
  void Raw(double d) {
    uint64_t bits;
    std::memcpy(&bits, &d, 8);
    U8(0);
    U64(bits);
  }
};

enum Style { Nice = 0, Scaled = 1, Wild = 2 };

inline double Value(Bytes &b, int style) {
  const uint8_t tag = b.U8();
  const double sign = (tag & 8) ? -1.0 : 1.0;
  switch (tag & 7) {
    case 0: {
      const uint64_t bits = b.U64();
      double d;
      std::memcpy(&d, &bits, 8);
      if (style != Wild && !std::isfinite(d)) d = sign;
      return d;
    }
    case 6: {
      static const double special[8] = {0.0, 1e-20, 1.0000001e-20, 1e-10, 1e-13, 4.9e-324, 1e15, 1.0};
      return sign * special[(tag >> 4) & 7];
    }
    case 7:
      if (style == Wild) {
        static const double wild[4] = {HUGE_VAL, NAN, DBL_MAX, 1e-300};
        return sign * wild[(tag >> 4) & 3];
      }
      [[fallthrough]];
    default: {
      const double m = 1.0 + b.U16() / 65536.0;
      int e;
      if (style == Nice)
        e = (tag >> 4) % 5 - 2;
      else
        e = static_cast<int8_t>(b.U8()) % 61;  // -60 .. 60
      return sign * m * std::pow(10.0, e);
    }
  }
}

// A system in the layout of the factor call, and what was drawn for it.
struct System {
  int n = 0;
  std::vector<int> colStart, rowIdx, colIdx, stat;
  std::vector<double> val, r;
  bool hasR = false;
  int style = Nice;
  // Triangular systems: position -> row, position -> matrix column, shape.
  bool triangular = false, lower = true;
  std::vector<int> prow, pcol;

  int nz() const { return static_cast<int>(val.size()); }
  const double *rPtr() const { return hasR ? r.data() : nullptr; }
};

constexpr uint32_t MaxN_Tri = 256;
constexpr uint32_t MaxN_Gen = 48;

// Column lists -> the layout of the factor call; with `shuffle` the entries
// of each column are put in an order drawn from the bytes.
inline void Assemble(System &s, std::vector<std::vector<std::pair<int, double>>> &cols, Bytes *shuffle) {
  s.colStart.assign(1, 1);
  s.rowIdx.clear();
  s.colIdx.clear();
  s.val.clear();
  for (int j = 1; j <= s.n; ++j) {
    auto &c = cols[static_cast<size_t>(j - 1)];
    if (shuffle != nullptr)
      for (size_t i = c.size(); i > 1; --i) std::swap(c[i - 1], c[shuffle->Pick(static_cast<uint32_t>(i))]);
    else
      std::sort(c.begin(), c.end());
    for (const auto &e : c) {
      s.rowIdx.push_back(e.first);
      s.colIdx.push_back(j);
      s.val.push_back(e.second);
    }
    s.colStart.push_back(static_cast<int>(s.val.size()) + 1);
  }
}

inline std::vector<int> Draw_Order(Bytes &b, int n) {
  std::vector<int> a(static_cast<size_t>(n) + 1);
  for (int i = 0; i <= n; ++i) a[static_cast<size_t>(i)] = i;
  for (int i = n; i >= 2; --i) std::swap(a[static_cast<size_t>(i)], a[1 + b.Pick(static_cast<uint32_t>(i))]);
  return a;
}
// Writes the draws that make Draw_Order return `order` (1-based, order[0] unused).
inline void Write_Order(Writer &w, const std::vector<int> &order) {
  const int n = static_cast<int>(order.size()) - 1;
  std::vector<int> a(order.size()), where(order.size());
  for (int i = 0; i <= n; ++i) a[static_cast<size_t>(i)] = where[static_cast<size_t>(i)] = i;
  for (int i = n; i >= 2; --i) {
    const int want = order[static_cast<size_t>(i)];
    const int j = where[static_cast<size_t>(want)];
    w.Pick(static_cast<uint32_t>(j - 1), static_cast<uint32_t>(i));
    std::swap(a[static_cast<size_t>(i)], a[static_cast<size_t>(j)]);
    where[static_cast<size_t>(a[static_cast<size_t>(i)])] = i;
    where[static_cast<size_t>(a[static_cast<size_t>(j)])] = j;
  }
}

// Flags byte: bit 0 upper shape, bit 1 rows shuffled within columns, bit 2
// column t known, bit 3 t basic, bits 4-5 the style (3 counts as Nice).
inline void Draw_Triangular(Bytes &b, System &s) {
  s.triangular = true;
  s.n = 1 + static_cast<int>(b.Pick(MaxN_Tri));
  const int n = s.n;
  const uint8_t flags = b.U8();
  s.lower = !(flags & 1);
  const bool shuffle = flags & 2;
  s.hasR = flags & 4;
  const bool tBasic = s.hasR && (flags & 8);
  s.style = (flags >> 4) & 3;
  if (s.style == 3) s.style = Nice;
  s.prow = Draw_Order(b, n);
  s.pcol = Draw_Order(b, n);
  std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(n));
  s.stat.assign(2 * static_cast<size_t>(n) + 1, 0);
  std::vector<int> used(static_cast<size_t>(n) + 1, 0);
  for (int k = 1; k <= n; ++k) {
    const uint8_t head = b.U8();
    const int j = s.pcol[static_cast<size_t>(k)], i = s.prow[static_cast<size_t>(k)];
    double d = Value(b, s.style);
    if (head & 2) d *= 1e-12;
    // The diagonal must exist for the basis to keep its shape.
    if (std::fabs(d) < 1e-19) d = 1.0;
    auto &c = cols[static_cast<size_t>(j - 1)];
    c.push_back({i, d});
    used[static_cast<size_t>(i)] = j;
    const int span = s.lower ? n - k : k - 1;
    for (int e = head >> 2; e > 0; --e) {
      const int pos = (s.lower ? k + 1 : 1) + static_cast<int>(b.Pick(static_cast<uint32_t>(span)));
      const double v = Value(b, s.style);
      if (span <= 0) continue;
      const int row = s.prow[static_cast<size_t>(pos)];
      if (used[static_cast<size_t>(row)] == j) continue;
      used[static_cast<size_t>(row)] = j;
      c.push_back({row, v});
    }
    s.stat[(head & 1) ? static_cast<size_t>(n + i) : static_cast<size_t>(j - 1)] = 2;
  }
  if (s.hasR) {
    s.r.resize(static_cast<size_t>(n));
    for (double &v : s.r) v = Value(b, s.style);
    if (tBasic) {
      // t takes the first position of a lower shape or the last of an upper
      // one, where a full column keeps the shape.
      const int k = s.lower ? 1 : n;
      const int i = s.prow[static_cast<size_t>(k)];
      double &d = s.r[static_cast<size_t>(i - 1)];
      if (std::fabs(d) < 1e-19) d = 1.0;
      s.stat[static_cast<size_t>(s.pcol[static_cast<size_t>(k)] - 1)] = 0;
      s.stat[static_cast<size_t>(n + i)] = 0;
      s.stat[static_cast<size_t>(n)] = 2;
    }
  }
  Assemble(s, cols, shuffle ? &b : nullptr);
}

// Flags byte: bit 0 rows shuffled, bit 2 column t known, bits 4-5 style.
inline void Draw_General(Bytes &b, System &s) {
  s.triangular = false;
  s.n = 1 + static_cast<int>(b.Pick(MaxN_Gen));
  const int n = s.n;
  const uint8_t flags = b.U8();
  const bool shuffle = flags & 1;
  s.hasR = flags & 4;
  s.style = (flags >> 4) & 3;
  if (s.style == 3) s.style = Nice;
  std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(n));
  std::vector<int> used(static_cast<size_t>(n) + 1, 0);
  for (int j = 1; j <= n; ++j) {
    for (int e = static_cast<int>(b.Pick(static_cast<uint32_t>(n + 1))); e > 0; --e) {
      const int row = 1 + static_cast<int>(b.Pick(static_cast<uint32_t>(n)));
      const double v = Value(b, s.style);
      if (used[static_cast<size_t>(row)] == j) continue;
      used[static_cast<size_t>(row)] = j;
      cols[static_cast<size_t>(j - 1)].push_back({row, v});
    }
  }
  if (s.hasR) {
    s.r.resize(static_cast<size_t>(n));
    for (double &v : s.r) v = Value(b, s.style);
  }
  s.stat.assign(2 * static_cast<size_t>(n) + 1, 0);
  int slacks = 0;
  for (int i = 1; i <= n; ++i)
    if (b.U8() & 1) s.stat[static_cast<size_t>(n + i)] = 2, ++slacks;
  const int cand = s.hasR ? n + 1 : n;
  std::vector<int> order = Draw_Order(b, cand);
  for (int k = 1; k <= n - slacks; ++k) s.stat[static_cast<size_t>(order[static_cast<size_t>(k)] - 1)] = 2;
  Assemble(s, cols, shuffle ? &b : nullptr);
}

// Calls f(row, value) for the entries of system column j (1 .. 2n+1).
template <typename F> void For_Column(const System &s, int j, F f) {
  if (j <= s.n) {
    for (int p = s.colStart[static_cast<size_t>(j - 1)]; p < s.colStart[static_cast<size_t>(j)]; ++p)
      f(s.rowIdx[static_cast<size_t>(p - 1)], s.val[static_cast<size_t>(p - 1)]);
  } else if (j == s.n + 1) {
    if (s.hasR)
      for (int i = 1; i <= s.n; ++i) f(i, s.r[static_cast<size_t>(i - 1)]);
  } else {
    f(j - s.n - 1, 1.0);
  }
}

// Every value of the basis and the right-hand side lies within [1e-100,
// 1e100] or is zero: then a correct solve has a small relative residual.
inline bool Tame(const System &s, const std::vector<int> &stat, const std::vector<double> &b) {
  auto ok = [](double v) { return v == 0.0 || (std::fabs(v) >= 1e-100 && std::fabs(v) <= 1e100); };
  for (double v : b)
    if (!ok(v)) return false;
  bool all = true;
  for (int j = 1; j <= 2 * s.n + 1; ++j)
    if (stat[static_cast<size_t>(j - 1)] == 2) For_Column(s, j, [&](int, double v) { all = all && ok(v); });
  return all;
}

// Checks a solution of B x = b: nonbasic entries read DBL_MAX; with tame
// data the relative residual ||Bx - b|| / (||B|| ||x|| + ||b||) is small.
// `exact` marks bases whose factors hold no repaired pivot.
inline void Check_Solution(const System &s, const std::vector<int> &stat, const std::vector<double> &b,
                           const std::vector<double> &sol) {
  const int n = s.n;
  for (int j = 1; j <= 2 * n + 1; ++j)
    if (stat[static_cast<size_t>(j - 1)] != 2) Require(sol[static_cast<size_t>(j - 1)] == DBL_MAX, "nonbasic entry not DBL_MAX");
  if (!Tame(s, stat, b)) return;
  std::vector<long double> bx(static_cast<size_t>(n) + 1, 0.0L);
  std::vector<double> rowAbs(static_cast<size_t>(n) + 1, 0.0);
  double xInf = 0.0;
  for (int j = 1; j <= 2 * n + 1; ++j) {
    if (stat[static_cast<size_t>(j - 1)] != 2) continue;
    const double x = sol[static_cast<size_t>(j - 1)];
    if (!std::isfinite(x)) return;  // overflow of a badly conditioned basis: no verdict
    xInf = std::max(xInf, std::fabs(x));
    For_Column(s, j, [&](int i, double v) {
      bx[static_cast<size_t>(i)] += static_cast<long double>(v) * x;
      rowAbs[static_cast<size_t>(i)] += std::fabs(v);
    });
  }
  double rInf = 0.0, bInf = 0.0, aInf = 0.0;
  for (int i = 1; i <= n; ++i) {
    rInf = std::max(rInf, static_cast<double>(std::fabs(bx[static_cast<size_t>(i)] - b[static_cast<size_t>(i - 1)])));
    bInf = std::max(bInf, std::fabs(b[static_cast<size_t>(i - 1)]));
    aInf = std::max(aInf, rowAbs[static_cast<size_t>(i)]);
  }
  const double denom = aInf * xInf + bInf;
  if (denom == 0.0 || !std::isfinite(denom)) return;
  if (rInf / denom > 1e-9) {
    std::fprintf(stderr, "relative residual %.3e (n = %d)\n", rInf / denom, n);
    Fail("residual of a solve");
  }
}

}  // namespace fz
