// The forward solve on factors written by hand into an environment, so that
// each form of L_Solve can be forced and the forms compared, and the repair
// path for huge or NaN solutions reached.
#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>

#include "runtime/records.h"
#include "runtime/vectors.h"
#include "solve/solve.h"
#include "support/lu_check.h"

namespace {

using vlu::LUF;
using vlu::VMI;

// An L column (row = its pivot row, entries (row, multiplier)) or a row eta
// (row = its target row, entries (source row, factor)).  An empty one
// changes no value but counts in the choice of form.
struct Group {
  int row = 0;
  std::vector<std::pair<int, double>> ents;
};

// An environment of n rows with a diagonal U (pivots in [1, 2), identity
// permutations) and the L columns and row etas the test puts in.
struct Hand {
  VMI *env = nullptr;
  int n;
  std::mt19937_64 gen;
  luc::Messages lines;
  std::vector<Group> cols, etas;

  Hand(int size, uint64_t seed) : n(size), gen(seed) {
    int st = 0;
    vlu::Allocate_Space(&env, &st);
    EXPECT_EQ(st, 0);
    env->Msg_Routine = reinterpret_cast<void (*)()>(&luc::Capture_Lines);
    env->Msg_Style = 0;
    env->Msg_Usrmem = &lines;
    vlu::VIM *v = env->Vim;
    v->NumRow = n;
    v->NumCol = n + 1;
    v->NumNz = n;
    vlu::Allocate_Inversion(env);
    EXPECT_TRUE(env->EnoughSpace);
    LUF *f = env->Luf;
    for (int k = 1; k <= n; ++k) {
      v->Rnto[k] = v->Rotn[k] = v->Cnto[k] = v->Cotn[k] = f->Cstr[k] = f->Ir[k] = k;
      f->Clen[k] = 1;
      f->Ucmat[k] = Uni(1.0, 2.0);
    }
    f->U_numele = n;
    Store();
  }
  ~Hand() {
    int st = 0;
    vlu::VMI_Deallocate(&env, &st);
  }

  double Uni(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(gen); }
  void Grow(vlu::IntVec &v, const char *name, int need) {
    if (vlu::Size(v) < need) vlu::Increase_Int(env, v, name, need - vlu::Size(v));
  }

  // `len` entries in random rows other than `row`, values in [-0.5, 0.5).
  Group Random(int row, int len) {
    std::vector<int> rows(n);
    std::iota(rows.begin(), rows.end(), 1);
    std::shuffle(rows.begin(), rows.end(), gen);
    Group g{row, {}};
    for (int r : rows)
      if (r != row && static_cast<int>(g.ents.size()) < len) g.ents.push_back({r, Uni(-0.5, 0.5)});
    return g;
  }
  std::vector<double> Random_Vector() {
    std::vector<double> b(n);
    for (double &x : b) x = Uni(-1.0, 1.0);
    return b;
  }

  // Random orders of rows and columns and an upper triangular U in them:
  // the column at position k holds its pivot (in [1, 2)) first, then each
  // row at a position before k with probability `density`.
  void Random_U(double density) {
    vlu::VIM *v = env->Vim;
    LUF *f = env->Luf;
    std::vector<int> rows(n), cols(n);
    std::iota(rows.begin(), rows.end(), 1);
    std::iota(cols.begin(), cols.end(), 1);
    std::shuffle(rows.begin(), rows.end(), gen);
    std::shuffle(cols.begin(), cols.end(), gen);
    for (int k = 1; k <= n; ++k) {
      v->Rnto[k] = rows[k - 1];
      v->Cnto[k] = cols[k - 1];
      v->Rotn[rows[k - 1]] = v->Cotn[cols[k - 1]] = k;
    }
    std::vector<std::vector<std::pair<int, double>>> col(n + 1);
    int total = 0;
    for (int k = 1; k <= n; ++k) {
      auto &e = col[v->Cnto[k]];
      e.push_back({v->Rnto[k], Uni(1.0, 2.0)});
      for (int t = 1; t < k; ++t)
        if (Uni(0.0, 1.0) < density) e.push_back({v->Rnto[t], Uni(-1.0, 1.0)});
      total += static_cast<int>(e.size());
    }
    if (vlu::Size(f->Ucmat) < total) vlu::Increase_RVec(env, f->Ucmat, total - vlu::Size(f->Ucmat));
    Grow(f->Ir, "LUF%Ir", total);
    int q = 1;
    for (int c = 1; c <= n; ++c) {
      f->Cstr[c] = q;
      f->Clen[c] = static_cast<int>(col[c].size());
      for (const auto &e : col[c]) {
        f->Ir[q] = e.first;
        f->Ucmat[q++] = e.second;
      }
    }
    f->U_numele = total;
  }

  // Writes cols and etas into the L-file.
  void Store() {
    LUF *f = env->Luf;
    int p = 1, total = 1;
    for (const auto *gs : {&cols, &etas})
      for (const Group &g : *gs) total += static_cast<int>(g.ents.size());
    if (vlu::Size(f->Lmat) < total) vlu::Increase_RVec(env, f->Lmat, total - vlu::Size(f->Lmat));
    Grow(f->Lrow, "LUF%Lrow", total);
    Grow(f->Lpiv, "LUF%Lpiv", total);
    auto write = [&](const std::vector<Group> &gs, vlu::IntVec &start, const char *name, bool col) {
      Grow(start, name, static_cast<int>(gs.size()) + 2);
      for (size_t k = 0; k < gs.size(); ++k) {
        start[k + 1] = p;
        for (const auto &e : gs[k].ents) {
          f->Lmat[p] = e.second;
          f->Lrow[p] = col ? e.first : gs[k].row;
          f->Lpiv[p++] = col ? gs[k].row : e.first;
        }
      }
      start[gs.size() + 1] = p;
      return static_cast<int>(gs.size());
    };
    f->L_Cols = write(cols, f->Lsor, "LUF%Lsor", true);
    f->L_Groups = write(etas, f->Lstr, "LUF%Lstr", false);
    f->LFileUsed = p - 1;
  }
  // The counts that choose the forms of L_Solve.
  int Col_Elements() const { return env->Luf->Lsor[env->Luf->L_Cols + 1] - 1; }
  bool Column_Form() const { return 2 * env->Luf->L_Cols < Col_Elements() + 1; }
  bool Dot_Form() const { return 5 * env->Luf->L_Groups < env->Luf->LFileUsed - Col_Elements(); }

  std::vector<double> Run(void (*fn)(VMI *, vlu::RVec &), const std::vector<double> &b) {
    double *w = env->Vim->Work1.Val;
    std::copy(b.begin(), b.end(), w + 1);
    fn(env, env->Vim->Work1);
    return std::vector<double>(w + 1, w + 1 + n);
  }
  // L times y, from the test's own copies: undoes the etas and then the
  // columns, last first, so that L (L^-1 b) gives back b.
  std::vector<double> Times_L(std::vector<double> y) const {
    for (size_t g = etas.size(); g-- > 0;)
      for (const auto &e : etas[g].ents) y[etas[g].row - 1] += e.second * y[e.first - 1];
    for (size_t k = cols.size(); k-- > 0;)
      for (const auto &e : cols[k].ents) y[e.first - 1] += e.second * y[cols[k].row - 1];
    return y;
  }
};

double Max_Rel_Diff(const std::vector<double> &a, const std::vector<double> &b) {
  double d = 0.0, s = 0.0;
  for (size_t i = 0; i < a.size(); ++i) {
    d = std::max(d, std::fabs(a[i] - b[i]));
    s = std::max(s, std::fabs(b[i]));
  }
  return d / s;
}

TEST(SolveForms, ColumnAndElementFormOfLAgree) {
  Hand h(60, 11);
  for (int k = 1; k <= 10; ++k) h.cols.push_back(h.Random(k, 8));
  h.Store();
  ASSERT_TRUE(h.Column_Form());
  std::vector<double> b = h.Random_Vector();
  b[h.cols[0].row - 1] = 0.0;  // the column form skips this column
  const std::vector<double> byCol = h.Run(vlu::L_Solve, b);
  EXPECT_LT(Max_Rel_Diff(h.Times_L(byCol), b), 1e-14);
  // Empty columns change no value but move the choice to the element form.
  while (h.Column_Form()) {
    h.cols.emplace_back();
    h.Store();
  }
  EXPECT_EQ(h.Run(vlu::L_Solve, b), byCol);
}

TEST(SolveForms, DotAndElementFormOfEtasAgree) {
  Hand h(80, 23);
  for (int k = 1; k <= 6; ++k) h.cols.push_back(h.Random(k, 4));
  // Etas shorter than a block of eight, exactly one block, blocks with a
  // remainder, and an empty one between the others.
  for (int len : {3, 8, 19, 0, 17, 1, 24}) h.etas.push_back(h.Random(1 + h.gen() % 80, len));
  h.Store();
  ASSERT_TRUE(h.Dot_Form());
  const std::vector<double> b = h.Random_Vector(), byDot = h.Run(vlu::L_Solve, b);
  EXPECT_LT(Max_Rel_Diff(h.Times_L(byDot), b), 1e-14);
  while (h.Dot_Form()) {
    h.etas.emplace_back();
    h.Store();
  }
  EXPECT_LT(Max_Rel_Diff(h.Run(vlu::L_Solve, b), byDot), 1e-14);
}

TEST(SolveForms, DotFormAddsEightPartialSums) {
  // One eta of seventeen factors over rows holding 1.  The dot form puts
  // element j of each block of eight into partial sum j, adds the eight
  // sums, then the seventeenth element: 1e16 and -1e16 cancel in sum 1, so
  // the result is -(7 * 2 + 0.5).  Element by element the ones are lost
  // against 1e16.
  Hand h(20, 5);
  Group e{20, {}};
  for (int t = 1; t <= 17; ++t)
    e.ents.push_back({t, t == 1 ? 1e16 : t == 9 ? -1e16 : t == 17 ? 0.5 : 1.0});
  h.etas = {e};
  h.Store();
  ASSERT_TRUE(h.Dot_Form());
  std::vector<double> b(20, 1.0);
  b[19] = 0.0;
  EXPECT_EQ(h.Run(vlu::L_Solve, b)[19], -14.5);
  h.etas.resize(4);
  h.Store();
  ASSERT_FALSE(h.Dot_Form());
  EXPECT_NE(h.Run(vlu::L_Solve, b)[19], -14.5);
}

// The sparse form of L: the same values as the dense form, each nonzero
// listed once, and a row that an eta leaves at zero not listed.
TEST(SolveForms, SparseFormAgreesAndListsEachNonzeroOnce) {
  Hand h(40, 31);
  for (int k = 1; k <= 8; ++k) h.cols.push_back(h.Random(k, 5));
  for (int g = 0; g < 4; ++g) h.etas.push_back(h.Random(20 + g, 6));
  // An eta whose sources no column and no eta reaches: its row stays zero.
  std::vector<int> reached(41, 0);
  for (const Group &g : h.cols)
    for (const auto &e : g.ents) reached[e.first] = 1;
  for (const Group &g : h.etas) reached[g.row] = 1;
  for (int r : {1, 5, 12}) reached[r] = 1;
  std::vector<int> quiet;
  for (int r = 24; r <= 40; ++r)
    if (!reached[r]) quiet.push_back(r);
  ASSERT_GE(quiet.size(), 3u);
  const int zeroRow = quiet[0];
  h.etas.push_back({zeroRow, {{quiet[1], 0.5}, {quiet[2], -0.25}}});
  h.Store();
  std::vector<double> b(40, 0.0);
  b[0] = 1.0, b[4] = -2.0, b[11] = 0.5;  // rows 1, 5, 12
  const std::vector<double> dense = h.Run(vlu::L_Solve, b);
  vlu::IntVec list, marks;
  vlu::Allocate_Int(h.env, list, "List", 2 * 40);
  vlu::Allocate_Int(h.env, marks, "Marks", 40);
  for (int i = 1; i <= 40; ++i) marks[i] = 0;
  int len = 0;
  for (int r : {1, 5, 12}) list[++len] = r, marks[r] = 1;
  double *w = h.env->Vim->Work1.Val;
  std::copy(b.begin(), b.end(), w + 1);
  len = vlu::L_Solve_Sparse(h.env, h.env->Vim->Work1, list, marks, len);
  std::vector<int> seen(41, 0);
  for (int k = 1; k <= len; ++k) {
    ASSERT_TRUE(list[k] >= 1 && list[k] <= 40);
    EXPECT_EQ(++seen[list[k]], 1) << "row " << list[k] << " listed twice";
  }
  for (int i = 1; i <= 40; ++i) {
    EXPECT_NEAR(w[i], dense[i - 1], 1e-15) << i;
    if (w[i] != 0.0) {
      EXPECT_EQ(seen[i], 1) << "nonzero row " << i << " not listed";
    }
    EXPECT_EQ(marks[i], seen[i]) << i;
  }
  EXPECT_EQ(seen[zeroRow], 0);
  vlu::Deallocate_Int(h.env, list, "List");
  vlu::Deallocate_Int(h.env, marks, "Marks");
}

TEST(SolveForms, ListOfNonzerosAndLargestMagnitudeNaNsIncluded) {
  // Identity order and a diagonal U: the rows come out from the last to the
  // first, zeros (negative ones too) are skipped and stored as +0.
  Hand h(12, 3);
  std::vector<double> b(12, 0.0);
  b[1] = 3.0;
  b[4] = -0.0;
  b[7] = -8.0;
  b[10] = 0.5;
  const std::vector<double> x = h.Run(vlu::Vdsuxy, b);
  const vlu::VIM *v = h.env->Vim;
  ASSERT_EQ(v->Num_UpNz, 3);
  EXPECT_EQ(v->HelpI[1], 11);
  EXPECT_EQ(v->HelpI[2], 8);
  EXPECT_EQ(v->HelpI[3], 2);
  EXPECT_FALSE(std::signbit(x[4]));
  double most = 0.0;
  for (double t : x) most = std::max(most, std::fabs(t));
  EXPECT_EQ(v->Max_UpCol, most);
  EXPECT_EQ(most, 8.0 / h.env->Luf->Ucmat[8]);

  // Two NaNs with their own payloads and a sign: the row met last (the first
  // row, since the order runs backwards) gives Max_UpCol, its sign cleared.
  auto nan_with = [](uint64_t payload, bool negative) {
    uint64_t bits = 0x7FF8000000000000ULL | payload | (negative ? 1ULL << 63 : 0);
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
  };
  b.assign(12, 1.0);
  b[0] = nan_with(0x1234, true);
  b[6] = nan_with(0x5678, false);
  h.Run(vlu::Vdsuxy, b);
  uint64_t got;
  std::memcpy(&got, &v->Max_UpCol, sizeof got);
  EXPECT_EQ(got, 0x7FF8000000001234ULL);
}

// The listed solve against the full one on the same vector: every value,
// bit for bit, the list of nonzeros and its count, the largest magnitude,
// and clear marks afterwards.
void Expect_Listed_As_Full(Hand &h, const std::vector<double> &b) {
  vlu::VIM *v = h.env->Vim;
  const std::vector<double> full = h.Run(vlu::Solve_Ftran, b);
  const int nz = v->Num_UpNz;
  const std::vector<int> order(&v->HelpI[1], &v->HelpI[1] + nz);
  const double most = v->Max_UpCol;

  double *w = v->Work1.Val;
  std::copy(b.begin(), b.end(), w + 1);
  int len = 0;
  for (int i = 1; i <= h.n; ++i)
    if (!(b[i - 1] == 0.0 && !std::signbit(b[i - 1]))) {
      v->HelpI[++len] = i;
      v->HelpZ[i] = 1;
    }
  vlu::Solve_Ftran_Listed(h.env, v->Work1, len);
  EXPECT_EQ(std::memcmp(w + 1, full.data(), sizeof(double) * h.n), 0);
  ASSERT_EQ(v->Num_UpNz, nz);
  EXPECT_EQ(std::vector<int>(&v->HelpI[1], &v->HelpI[1] + nz), order);
  EXPECT_EQ(std::memcmp(&v->Max_UpCol, &most, sizeof most), 0);
  int marked = 0;
  for (int i = 1; i <= h.n; ++i) marked += v->HelpZ[i] != 0;
  EXPECT_EQ(marked, 0);
}

TEST(SolveForms, ListedSolveMatchesTheFullSolve) {
  // Right-hand sides of one to a few entries (one a -0, one a NaN), over a
  // sparse U, in every pair of forms of L_Solve; and a denser U, where the
  // rows reached pass the limit and the solve finishes in the full form.
  for (double density : {0.004, 0.005, 0.05}) {
    for (int forms = 0; forms < 4; ++forms) {
      SCOPED_TRACE(::testing::Message() << "density " << density << " forms " << forms);
      Hand h(400, 31 + forms);
      h.Random_U(density);
      for (int k = 1; k <= 80; ++k) h.cols.push_back(h.Random(k * 4, 4));
      for (int len : {9, 3, 12, 0, 17}) h.etas.push_back(h.Random(1 + h.gen() % 400, len));
      h.Store();
      while ((forms & 1) == 0 ? h.Column_Form() : false) {
        h.cols.emplace_back();
        h.Store();
      }
      while ((forms & 2) == 0 ? h.Dot_Form() : false) {
        h.etas.emplace_back();
        h.Store();
      }
      ASSERT_EQ(h.Column_Form(), (forms & 1) != 0);
      ASSERT_EQ(h.Dot_Form(), (forms & 2) != 0);
      // After an update the listed solve finds the L columns through the
      // map that the update made; before it, it sweeps them.
      const bool mapped = density > 0.01;
      h.env->Vim->Updates_Done = mapped ? 1 : 0;
      h.env->Max_Updates = 100;
      if (mapped) {
        ASSERT_TRUE(vlu::Build_L_Column_Map(h.env, h.env->Iin->Rppr.V));
      }
      for (int t = 0; t < 12; ++t) {
        std::vector<double> b(400, 0.0);
        for (int e = 0; e <= t % 4; ++e) b[h.gen() % 400] = h.Uni(-1.0, 1.0);
        if (t == 5) b[h.cols[2].row - 1] = -0.0;
        if (t == 7) b[h.gen() % 400] = std::numeric_limits<double>::quiet_NaN();
        if (t == 9) b[h.etas[1].ents[0].first - 1] = 2.0;  // an eta source
        Expect_Listed_As_Full(h, b);
      }
    }
  }
}

TEST(SolveForms, SparseTransformationThroughTheColumnMapAsThroughTheSweep) {
  // The transformation of a spike visits the L columns that its list
  // reaches, found through the map from pivot rows to columns, or sweeps
  // every column: the values (bit for bit), the list in its order and the
  // marks come out the same.  Empty columns stay out of the map; a row that
  // pivots two columns makes the map refuse.
  for (int seed = 0; seed < 6; ++seed) {
    SCOPED_TRACE(seed);
    Hand h(300, 70 + seed);
    std::vector<int> rows(300);
    std::iota(rows.begin(), rows.end(), 1);
    std::shuffle(rows.begin(), rows.end(), h.gen);
    for (int k = 0; k < 120; ++k) h.cols.push_back(h.Random(rows[size_t(k)], k % 9 == 4 ? 0 : 1 + k % 5));
    for (int len : {5, 9, 2}) h.etas.push_back(h.Random(rows[size_t(200 + len)], len));
    h.Store();
    vlu::VIM *v = h.env->Vim;
    std::vector<int32_t> lcol(302, 0);
    ASSERT_TRUE(vlu::Build_L_Column_Map(h.env, lcol.data()));
    int mapped = 0;
    for (int r = 1; r <= 300; ++r) mapped += lcol[size_t(r)] > 0;
    EXPECT_EQ(mapped, 120 - 13);  // the 13 empty columns have no entry

    for (int t = 0; t < 10; ++t) {
      std::vector<int> start{rows[size_t(t)]};  // the pivot rows of the first columns too
      for (int e = 0; e < t % 3; ++e) start.push_back(rows[size_t(h.gen() % 130)]);
      auto run = [&](const int32_t *map) {
        for (int i = 1; i <= 300; ++i) v->WorkZ[i] = 0.0, v->HelpZ[i] = 0;
        int len = 0;
        for (int r : start)
          if (v->HelpZ[r] == 0) v->WorkZ[r] = 1.0 + r, v->HelpZ[r] = 1, v->HelpI[++len] = r;
        len = vlu::L_Solve_Sparse(h.env, v->WorkZ, v->HelpI, v->HelpZ, len, map);
        std::vector<double> w(&v->WorkZ[1], &v->WorkZ[1] + 300);
        std::vector<int> list(&v->HelpI[1], &v->HelpI[1] + len), marks(&v->HelpZ[1], &v->HelpZ[1] + 300);
        return std::make_tuple(w, list, marks);
      };
      const auto swept = run(nullptr), mapped_run = run(lcol.data());
      EXPECT_EQ(std::memcmp(std::get<0>(swept).data(), std::get<0>(mapped_run).data(), 300 * sizeof(double)), 0);
      EXPECT_EQ(std::get<1>(swept), std::get<1>(mapped_run));
      EXPECT_EQ(std::get<2>(swept), std::get<2>(mapped_run));
    }
    for (int i = 1; i <= 300; ++i) v->WorkZ[i] = 0.0, v->HelpZ[i] = 0;
  }
  Hand h(20, 3);
  h.cols = {h.Random(5, 3), h.Random(5, 2)};
  h.Store();
  std::vector<int32_t> lcol(22, 0);
  EXPECT_FALSE(vlu::Build_L_Column_Map(h.env, lcol.data()));
  EXPECT_EQ(lcol[1], -1);
}

TEST(SolveForms, HugeOrNaNSolutionReachesDefNan) {
  // Unit pivots in the rows used: 1e100 exactly is at the limit and repaired,
  // the number below it not; two bad values make one repair in the solve.
  for (double bad : {1e99, std::nextafter(1e100, 0.0), 1e100, 1e101,
                     std::numeric_limits<double>::quiet_NaN()}) {
    SCOPED_TRACE(bad);
    Hand h(10, 8);
    h.env->Trace_Inv = 1;
    h.env->Luf->Ucmat[1] = h.env->Luf->Ucmat[6] = 1.0;
    const double rtpiva = h.env->Rtpiva;
    const bool repair = !(bad < 1e100);
    std::vector<double> b(10, 0.0);
    b[0] = b[5] = bad;
    h.Run(vlu::Solve_Ftran, b);
    if (!std::isnan(bad)) {
      EXPECT_EQ(h.env->Vim->Max_UpCol, bad);
    }
    EXPECT_EQ(std::isnan(h.env->Vim->Max_UpCol), std::isnan(bad));
    EXPECT_EQ(h.env->Nan_Events, repair ? 1 : 0);
    EXPECT_EQ(h.lines.Has("DefNan called from Vdsuxy. Max_UpCol="), repair);
    const double raised = std::min(10.0 * rtpiva, std::sqrt(1e-7 * rtpiva));
    EXPECT_DOUBLE_EQ(h.env->Rtpiva, repair ? raised : rtpiva);
    EXPECT_EQ(h.env->Vim->Tol_Wait, repair ? 250 : 0);
    EXPECT_EQ(h.env->Vim->InvertMode, repair ? 1 : 0);
  }
}

}  // namespace
