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
//   general: n-1 as Pick(MaxN_Gen) (unused by the generated form); flags; with flags bit 6 the options
//     byte (and with its bit 3 a heap limit: U16, Pick(7)); with flags bit 7
//     the generated form below, otherwise per column a count Pick(n+1) and
//     per entry a row Pick(n) (repeats skipped) and a value; column t; per
//     row a byte (bit 0: its slack is basic); Fisher-Yates draws that order
//     the candidate columns, of which the first n - slacks are basic.
//   generated (larger bumps from few bytes): n-1 as Pick(MaxN_Big); a
//     pattern byte, a density byte, a value byte, a slack byte, a 4-byte
//     seed of a generator that draws everything else; then a count (U8 % 16)
//     of edits, each a column Pick(n), a row Pick(n) and a value, which
//     replace or add single entries.
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

// Settings of a general system's options byte: bits 0-1 the checks of the
// factorization (1 L times U, 2 the battery every 7 pivots, 3 the battery
// at every pivot with the structure check), bit 2 the smallest stores, bit
// 3 a heap limit, bit 4 the checks of the two copies of U at every update,
// bits 5-6 the trace level of the factorization and the update.
struct Options {
  int checks = 0;
  bool minSpace = false;
  bool heap = false;
  int64_t heapLimit = 0;  // bytes, for the factor target
  bool debugUpd = false;
  int trace = 0;
};

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
  Options opt;

  int nz() const { return static_cast<int>(val.size()); }
  const double *rPtr() const { return hasR ? r.data() : nullptr; }
};

constexpr uint32_t MaxN_Tri = 256;
constexpr uint32_t MaxN_Gen = 48;
constexpr uint32_t MaxN_Big = 400;


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

// The generator of the generated form (splitmix64).
struct Rng {
  uint64_t x;
  uint64_t Next() {
    uint64_t z = (x += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  uint32_t Below(uint32_t m) { return m <= 1 ? 0 : static_cast<uint32_t>(Next() % m); }
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }
  bool Chance(uint32_t in256) { return (Next() & 255) < in256; }
};

// A value by law (value byte bits 0-2): 0 uniform in +-[0.1, 10]; 1 small
// integers (exact cancellation); 2 +-1 only; 3 log-uniform over the
// style's range; 4 mostly 1 with some tiny; 5 1 + multiples of 1e-15 (ties
// and near ties); 6 the Value() of bytes from the generator (specials,
// infinities and NaN in the wild style); 7 any of these.
inline double Law_Value(Rng &g, int law, int style) {
  if (law == 7) law = static_cast<int>(g.Below(7));
  const double sign = (g.Next() & 1) ? -1.0 : 1.0;
  switch (law) {
    case 0: return sign * (0.1 + 9.9 * g.Unit());
    case 1: return sign * static_cast<double>(1 + g.Below(3));
    case 2: return sign;
    case 3: {
      const double range = style == Nice ? 2.0 : style == Scaled ? 30.0 : 150.0;
      return sign * std::pow(10.0, range * (2.0 * g.Unit() - 1.0));
    }
    case 4: return g.Chance(24) ? sign * 1e-14 * (1.0 + g.Unit()) : 1.0;
    case 5: return sign * (1.0 + 1e-15 * static_cast<double>(g.Below(4)));
    default: {
      uint8_t raw[9];
      for (uint8_t &c : raw) c = static_cast<uint8_t>(g.Next());
      Bytes rb(raw, sizeof raw);
      return Value(rb, style);
    }
  }
}

// The generated form (see the layout above), called after the flags.
inline void Draw_Generated(Bytes &b, System &s, bool shuffle) {
  s.n = 1 + static_cast<int>(b.Pick(MaxN_Big));
  const int n = s.n;
  const uint8_t kind = b.U8(), dens = b.U8(), law = b.U8(), slackByte = b.U8();
  Rng g{b.U32()};
  const int vlaw = law & 7;
  std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(n));
  std::vector<int> used(static_cast<size_t>(n) + 1, 0);
  auto add = [&](int j, int row) {  // 1-based column and row; repeats skipped
    if (used[static_cast<size_t>(row)] == j) return;
    used[static_cast<size_t>(row)] = j;
    cols[static_cast<size_t>(j - 1)].push_back({row, Law_Value(g, vlaw, s.style)});
  };
  const int avg = 1 + dens % 16;
  for (int j = 1; j <= n; ++j) {
    switch (kind & 7) {
      case 0:  // random, about avg entries a column
        for (int e = static_cast<int>(g.Below(2 * static_cast<uint32_t>(avg))) + 1; e > 0; --e)
          add(j, 1 + static_cast<int>(g.Below(static_cast<uint32_t>(n))));
        break;
      case 1: {  // banded
        const int bw = 1 + dens % 12;
        for (int i = std::max(1, j - bw); i <= std::min(n, j + bw); ++i)
          if (i == j || g.Chance(160)) add(j, i);
        break;
      }
      case 2: {  // a few dense rows and columns over a sparse rest
        const int wide = std::min(n, 1 + dens % 5);
        if (j <= wide)
          for (int i = 1; i <= n; ++i) add(j, i);
        for (int i = 1; i <= wide; ++i) add(j, i);
        add(j, j);
        add(j, 1 + static_cast<int>(g.Below(static_cast<uint32_t>(n))));
        break;
      }
      case 3: {  // a dense core in a sparse rest
        const int core = std::min(n, 8 + dens);
        if (j <= core) {
          for (int i = 1; i <= core; ++i)
            if (g.Chance(232)) add(j, i);
        } else {
          add(j, j);
        }
        for (int e = static_cast<int>(g.Below(3)); e > 0; --e)
          add(j, 1 + static_cast<int>(g.Below(static_cast<uint32_t>(n))));
        break;
      }
      case 4:  // lower triangle with some entries above: a small bump
        add(j, j);
        for (int e = static_cast<int>(g.Below(static_cast<uint32_t>(avg))); e > 0; --e)
          add(j, j + static_cast<int>(g.Below(static_cast<uint32_t>(n - j + 1))));
        if (g.Chance(dens)) add(j, 1 + static_cast<int>(g.Below(static_cast<uint32_t>(j))));
        break;
      case 5: {  // diagonal blocks of 2 to 12
        const int size = 2 + dens % 11, first = (j - 1) / size * size + 1;
        for (int i = first; i < first + size && i <= n; ++i)
          if (i == j || g.Chance(200)) add(j, i);
        break;
      }
      case 6:  // random with a density of dens / 256
        for (int i = 1; i <= n; ++i)
          if (i == j || g.Chance(dens)) add(j, i);
        break;
      default:  // two to four entries, near the diagonal or anywhere
        add(j, j);
        for (int e = 1 + static_cast<int>(g.Below(3)); e > 0; --e)
          add(j, g.Chance(128) ? 1 + (j + static_cast<int>(g.Below(5))) % n
                               : 1 + static_cast<int>(g.Below(static_cast<uint32_t>(n))));
        break;
    }
  }
  // Tiny entries, column and row scales, columns that depend on others.
  if (law & 8)
    for (auto &c : cols)
      for (auto &e : c)
        if (g.Chance(16)) e.second *= 1e-14;
  if (law & 16)
    for (auto &c : cols) {
      const double f = std::pow(10.0, static_cast<double>(g.Below(41)) - 20.0);
      for (auto &e : c) e.second *= f;
    }
  if (law & 32) {
    std::vector<double> f(static_cast<size_t>(n) + 1);
    for (double &v : f) v = std::pow(10.0, static_cast<double>(g.Below(41)) - 20.0);
    for (auto &c : cols)
      for (auto &e : c) e.second *= f[static_cast<size_t>(e.first)];
  }
  for (int d = (law >> 6) * (1 + n / 16); d > 0 && n >= 3; --d) {
    // Column a becomes x b + y c, perhaps with a small change.
    const int a = static_cast<int>(g.Below(static_cast<uint32_t>(n)));
    const int bc = static_cast<int>(g.Below(static_cast<uint32_t>(n)));
    const int cc = static_cast<int>(g.Below(static_cast<uint32_t>(n)));
    if (a == bc || a == cc) continue;
    std::vector<double> dense(static_cast<size_t>(n) + 1, 0.0);
    const double x = Law_Value(g, 1, s.style), y = g.Chance(128) ? Law_Value(g, 1, s.style) : 0.0;
    for (const auto &e : cols[static_cast<size_t>(bc)]) dense[static_cast<size_t>(e.first)] += x * e.second;
    for (const auto &e : cols[static_cast<size_t>(cc)]) dense[static_cast<size_t>(e.first)] += y * e.second;
    const double eps = g.Chance(128) ? 0.0 : std::pow(10.0, -6.0 - static_cast<double>(g.Below(12)));
    auto &c = cols[static_cast<size_t>(a)];
    c.clear();
    for (int i = 1; i <= n; ++i) {
      double v = dense[static_cast<size_t>(i)];
      if (v != 0.0 && eps != 0.0) v *= 1.0 + eps * (2.0 * g.Unit() - 1.0);
      if (v != 0.0) c.push_back({i, v});
    }
  }
  // Rows and columns in an order of the generator.
  if (!(kind & 8)) {
    std::vector<int> rp(static_cast<size_t>(n) + 1), cp(static_cast<size_t>(n));
    for (int i = 0; i <= n; ++i) rp[static_cast<size_t>(i)] = i;
    for (int i = n; i >= 2; --i) std::swap(rp[static_cast<size_t>(i)], rp[1 + g.Below(static_cast<uint32_t>(i))]);
    for (auto &c : cols)
      for (auto &e : c) e.first = rp[static_cast<size_t>(e.first)];
    for (int j = n - 1; j >= 1; --j) std::swap(cols[static_cast<size_t>(j)], cols[g.Below(static_cast<uint32_t>(j + 1))]);
  }
  // The edits of the input.
  for (int e = b.U8() % 16; e > 0; --e) {
    const int j = static_cast<int>(b.Pick(static_cast<uint32_t>(n)));
    const int row = 1 + static_cast<int>(b.Pick(static_cast<uint32_t>(n)));
    const double v = Value(b, s.style);
    auto &c = cols[static_cast<size_t>(j)];
    auto it = std::find_if(c.begin(), c.end(), [row](const std::pair<int, double> &p) { return p.first == row; });
    if (it != c.end())
      it->second = v;
    else
      c.push_back({row, v});
  }
  if (s.hasR) {
    s.r.assign(static_cast<size_t>(n), 0.0);
    const uint32_t fill = g.Below(257);
    for (double &v : s.r)
      if (g.Chance(fill)) v = Law_Value(g, vlaw, s.style);
  }
  s.stat.assign(2 * static_cast<size_t>(n) + 1, 0);
  int slacks = 0;
  for (int i = 1; i <= n; ++i)
    if (g.Chance(slackByte)) s.stat[static_cast<size_t>(n + i)] = 2, ++slacks;
  const int cand = s.hasR ? n + 1 : n;
  std::vector<int> order(static_cast<size_t>(cand));
  for (int k = 0; k < cand; ++k) order[static_cast<size_t>(k)] = k + 1;
  for (int k = cand - 1; k >= 1; --k) std::swap(order[static_cast<size_t>(k)], order[g.Below(static_cast<uint32_t>(k + 1))]);
  for (int k = 0; k < n - slacks; ++k) s.stat[static_cast<size_t>(order[static_cast<size_t>(k)] - 1)] = 2;
  Assemble(s, cols, shuffle ? &b : nullptr);
}

// Flags byte: bit 0 rows shuffled, bit 2 column t known, bits 4-5 style,
// bit 6 an options byte follows, bit 7 the generated form.
inline void Draw_General(Bytes &b, System &s) {
  s.triangular = false;
  s.n = 1 + static_cast<int>(b.Pick(MaxN_Gen));
  const uint8_t flags = b.U8();
  const bool shuffle = flags & 1;
  s.hasR = flags & 4;
  s.style = (flags >> 4) & 3;
  if (s.style == 3) s.style = Nice;
  if (flags & 64) {
    const uint8_t o = b.U8();
    // The checks hold only for finite arithmetic: not in the wild style
    // (unless FUZZ_WILD_CHECKS is set), whose infinities and NaNs make L
    // times U differ from the basis and leave infinite column maxima.
    s.opt.checks = s.style == Wild && !std::getenv("FUZZ_WILD_CHECKS") ? 0 : o & 3;
    s.opt.minSpace = o & 4;
    s.opt.heap = o & 8;
    s.opt.debugUpd = o & 16;
    s.opt.trace = (o >> 5) & 3;
    if (s.opt.heap) {
      const uint32_t base = b.U16();
      s.opt.heapLimit = static_cast<int64_t>(1 + base) << b.Pick(7);
    }
  }
  if (flags & 128) return Draw_Generated(b, s, shuffle);
  const int n = s.n;
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
