// Seed maker of the fuzz corpora: turns case folders into inputs of the
// targets, in the byte layouts of fuzz_system.h.
//
//   make_seeds OUT CASE_DIR...
//
// Writes OUT/case_reader/<case> (the case's files joined by 0x01, walk cut
// to 60 lines), OUT/tri/<case> for bases without a bump of at most 256 rows
// (positions found by peeling rows with one basic entry; a slack position
// takes a nonbasic matrix column with only a diagonal of 1), and
// OUT/general/<case> for cases of at most 48 rows, and OUT/general/generated-*
// in the generated form (larger bumps drawn from a few bytes).  Each system is followed
// by a few right-hand sides and steps, which the factor targets read as
// right-hand sides and the sequence targets as calls.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/fuzz_system.h"
#include "tools/case_io.h"

namespace {

void Put(const std::string &path, const std::vector<uint8_t> &bytes) {
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

// Right-hand sides and calls behind a system: solves, changes, a limit.
void Tail(fz::Writer &w, int n) {
  const uint8_t ops[] = {0, 2, 0, 18, 1, 3, 0, 6, 0, 4, 0, 5, 0, 9, 0};
  for (uint8_t op : ops) {
    w.U8(op);
    w.Pick(static_cast<uint32_t>(op) % static_cast<uint32_t>(n), static_cast<uint32_t>(n));
    for (int i = 0; i < n; ++i) {
      w.U8(1 | (i % 3) << 4);  // a Nice value
      w.U16(static_cast<uint32_t>(i * 7919 % 65536));
    }
  }
}

bool Triangular_Seed(const vlu_case::Case &c, fz::Writer &w) {
  const int n = c.n;
  if (n < 1 || n > static_cast<int>(fz::MaxN_Tri) || c.basis[static_cast<size_t>(n)] == 2) return false;
  // Peel rows with one basic entry: the row order, and per position the
  // basic column (matrix column or slack).
  std::vector<std::vector<int>> rowCols(static_cast<size_t>(n) + 1);
  std::vector<int> count(static_cast<size_t>(n) + 1, 0), queue;
  std::vector<char> gone(2 * static_cast<size_t>(n) + 2, 0);
  for (int j = 1; j <= 2 * n + 1; ++j)
    if (c.basis[static_cast<size_t>(j - 1)] == 2)
      vlu_case::For_Column(c, j, [&](int i, double) { rowCols[static_cast<size_t>(i)].push_back(j), ++count[static_cast<size_t>(i)]; });
  for (int i = 1; i <= n; ++i)
    if (count[static_cast<size_t>(i)] == 1) queue.push_back(i);
  std::vector<int> prow(1, 0), basicAt(1, 0), posOfRow(static_cast<size_t>(n) + 1, 0);
  for (size_t h = 0; h < queue.size(); ++h) {
    const int i = queue[h];
    if (count[static_cast<size_t>(i)] != 1) continue;
    int j = 0;
    for (int cand : rowCols[static_cast<size_t>(i)])
      if (!gone[static_cast<size_t>(cand)]) j = cand;
    gone[static_cast<size_t>(j)] = 1;
    prow.push_back(i);
    basicAt.push_back(j);
    posOfRow[static_cast<size_t>(i)] = static_cast<int>(prow.size()) - 1;
    vlu_case::For_Column(c, j, [&](int r, double) {
      if (--count[static_cast<size_t>(r)] == 1) queue.push_back(r);
    });
  }
  if (static_cast<int>(prow.size()) - 1 != n) return false;  // a bump
  // Matrix columns per position: the basic one, or a nonbasic one.
  std::vector<int> pcol(static_cast<size_t>(n) + 1, 0), spare;
  for (int j = 1; j <= n; ++j)
    if (c.basis[static_cast<size_t>(j - 1)] != 2) spare.push_back(j);
  for (int k = 1; k <= n; ++k) {
    if (basicAt[static_cast<size_t>(k)] <= n) {
      pcol[static_cast<size_t>(k)] = basicAt[static_cast<size_t>(k)];
    } else {
      pcol[static_cast<size_t>(k)] = spare.back();
      spare.pop_back();
    }
  }
  w.Pick(static_cast<uint32_t>(n - 1), fz::MaxN_Tri);
  w.U8(0);  // lower shape, rows in order, no t, Nice values
  fz::Write_Order(w, prow);
  fz::Write_Order(w, pcol);
  for (int k = 1; k <= n; ++k) {
    const int j = pcol[static_cast<size_t>(k)];
    const bool slack = basicAt[static_cast<size_t>(k)] > n;
    double diag = 1.0;
    std::vector<std::pair<int, double>> rest;
    if (!slack)
      vlu_case::For_Column(c, j, [&](int i, double v) {
        if (i == prow[static_cast<size_t>(k)])
          diag = v;
        else if (rest.size() < 63)
          rest.push_back({posOfRow[static_cast<size_t>(i)], v});
      });
    w.U8((slack ? 1u : 0u) | static_cast<uint32_t>(rest.size()) << 2);
    w.Raw(diag);
    for (const auto &e : rest) {
      w.Pick(static_cast<uint32_t>(e.first - (k + 1)), static_cast<uint32_t>(n - k));
      w.Raw(e.second);
    }
  }
  Tail(w, n);
  return true;
}

bool General_Seed(const vlu_case::Case &c, fz::Writer &w) {
  const int n = c.n;
  if (n < 1 || n > static_cast<int>(fz::MaxN_Gen)) return false;
  w.Pick(static_cast<uint32_t>(n - 1), fz::MaxN_Gen);
  w.U8(c.hasR ? 4 : 0);
  for (int j = 1; j <= n; ++j) {
    const int from = c.colStart[static_cast<size_t>(j - 1)], to = c.colStart[static_cast<size_t>(j)];
    w.Pick(static_cast<uint32_t>(to - from), static_cast<uint32_t>(n + 1));
    for (int p = from; p < to; ++p) {
      w.Pick(static_cast<uint32_t>(c.rowIdx[static_cast<size_t>(p - 1)] - 1), static_cast<uint32_t>(n));
      w.Raw(c.val[static_cast<size_t>(p - 1)]);
    }
  }
  if (c.hasR)
    for (double v : c.r) w.Raw(v);
  for (int i = 1; i <= n; ++i) w.U8(c.basis[static_cast<size_t>(n + i)] == 2 ? 1 : 0);
  const int cand = c.hasR ? n + 1 : n;
  std::vector<int> order(1, 0);
  for (int j = 1; j <= cand; ++j)
    if (c.basis[static_cast<size_t>(j - 1)] == 2) order.push_back(j);
  for (int j = 1; j <= cand; ++j)
    if (c.basis[static_cast<size_t>(j - 1)] != 2) order.push_back(j);
  fz::Write_Order(w, order);
  Tail(w, n);
  return true;
}

// Seeds of the generated form: each pattern at a few sizes and densities,
// with t known in some, and a few with options (checks, small stores,
// traces, a heap limit).
void Generated_Seeds(const std::string &out, int &made) {
  static const int sizes[4] = {60, 150, 300, 400};
  for (int kind = 0; kind < 8; ++kind)
    for (int v = 0; v < 3; ++v) {
      const int n = sizes[(kind + v) % 4];
      fz::Writer w;
      w.Pick(0, fz::MaxN_Gen);
      const uint32_t opts = v == 2 ? static_cast<uint32_t>(kind) << 5 | (kind & 3) | (kind & 4) | 8 : 0;
      w.U8(0x80 | (opts != 0 ? 0x40 : 0) | (v == 1 ? 4 : 0) | static_cast<uint32_t>(v % 3) << 4);
      if (opts != 0) {
        w.U8(opts);
        w.U16(static_cast<uint32_t>(4000 + 3000 * kind));
        w.U8(static_cast<uint32_t>(kind));
      }
      w.Pick(static_cast<uint32_t>(n - 1), fz::MaxN_Big);
      w.U8(static_cast<uint32_t>(kind));
      w.U8(static_cast<uint32_t>(6 + 40 * v));
      w.U8(static_cast<uint32_t>(kind * 37 + v));
      w.U8(static_cast<uint32_t>(16 * v + 8));
      w.U32(static_cast<uint32_t>(kind * 1000 + v));
      w.U8(0);  // no edits
      Tail(w, n);
      Put(out + "/general/generated-" + std::to_string(kind) + "-" + std::to_string(v), w.out);
      ++made;
    }
}

std::vector<uint8_t> Reader_Seed(const vlu_case::Case_Texts &t) {
  std::string s = t.matrix;
  s += '\x01';
  s += t.basis;
  s += '\x01';
  if (t.hasR) s += t.r;
  s += '\x01';
  if (t.hasWalk) {
    size_t pos = 0;
    for (int lines = 0; lines < 60 && pos != std::string::npos; ++lines) pos = t.walk.find('\n', pos + 1);
    s += t.walk.substr(0, pos == std::string::npos ? t.walk.size() : pos + 1);
  }
  s += '\x01';
  if (t.hasInfo) s += t.info;
  return std::vector<uint8_t>(s.begin(), s.end());
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: make_seeds OUT CASE_DIR...\n");
    return 2;
  }
  const std::string out = argv[1];
  for (const char *sub : {"", "/case_reader", "/tri", "/general"}) ::mkdir((out + sub).c_str(), 0755);
  int made[3] = {0, 0, 0};
  for (int a = 2; a < argc; ++a) {
    const std::string dir = argv[a];
    vlu_case::Case c;
    vlu_case::Case_Texts t;
    std::string err;
    if (!vlu_case::Read_Case_Texts(dir, t, err) || !vlu_case::Read_Case(dir, c, err)) {
      std::fprintf(stderr, "%s: %s\n", dir.c_str(), err.c_str());
      continue;
    }
    if (c.n <= 60) Put(out + "/case_reader/" + c.name, Reader_Seed(t)), ++made[0];
    fz::Writer tw, gw;
    if (Triangular_Seed(c, tw)) Put(out + "/tri/" + c.name, tw.out), ++made[1];
    if (General_Seed(c, gw)) Put(out + "/general/" + c.name, gw.out), ++made[2];
  }
  Generated_Seeds(out, made[2]);
  std::printf("seeds: %d case_reader, %d tri, %d general\n", made[0], made[1], made[2]);
  return 0;
}
