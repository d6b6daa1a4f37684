// The solve routines on factors built by hand: L columns, row etas and the
// column copy of U are written straight into an environment, so that every
// form of the forward solve can be forced and compared.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <set>
#include <vector>

#include "runtime/records.h"
#include "runtime/vectors.h"
#include "solve/solve.h"
#include "triangular_support.h"

namespace {

using vlu::LUF;
using vlu::VIM;
using vlu::VMI;

// One environment of size n with room for hand-made factors.
struct HandEnv {
  VMI *env = nullptr;
  int n = 0;
  tri::Lines lines;
  std::mt19937_64 gen;

  // L columns and row etas as the test wrote them (for the reference).
  struct LCol {
    int piv = 0;
    std::vector<std::pair<int, double>> ents;  // (row, multiplier)
  };
  struct Eta {
    int target = 0;
    std::vector<std::pair<int, double>> ents;  // (source row, factor)
  };
  std::vector<LCol> lcols;
  std::vector<Eta> etas;

  explicit HandEnv(int size, uint64_t seed = 7) : n(size), gen(seed) {
    int st = 0;
    vlu::Allocate_Space(&env, &st);
    EXPECT_EQ(st, 0);
    env->Msg_Routine = reinterpret_cast<void (*)()>(&tri::Keep_Lines);
    env->Msg_Style = 0;
    env->Msg_Usrmem = &lines;
    env->Max_Updates = 2147483647;
    env->Vim->NumRow = n;
    env->Vim->NumCol = n + 1;
    env->Vim->NumNz = n;
    vlu::Allocate_Inversion(env);
    EXPECT_TRUE(env->EnoughSpace);
  }
  ~HandEnv() {
    int st = 0;
    vlu::VMI_Deallocate(&env, &st);
  }
  LUF *luf() { return env->Luf; }
  VIM *vim() { return env->Vim; }

  static void Ensure(VMI *e, vlu::RVec &v, int32_t need) {
    if (vlu::Size(v) < need) vlu::Increase_RVec(e, v, need - vlu::Size(v));
  }
  static void Ensure(VMI *e, vlu::IntVec &v, const char *name, int32_t need) {
    if (vlu::Size(v) < need) vlu::Increase_Int(e, v, name, need - vlu::Size(v));
  }

  double Uni(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(gen); }

  // Random permutations and an upper triangular U (by pivot positions) with
  // about `perCol` off-diagonal entries a column.
  void Build_U(double perCol) {
    VIM *v = vim();
    std::vector<int> rows(static_cast<size_t>(n)), places(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) rows[static_cast<size_t>(i)] = places[static_cast<size_t>(i)] = i + 1;
    std::shuffle(rows.begin(), rows.end(), gen);
    std::shuffle(places.begin(), places.end(), gen);
    for (int k = 1; k <= n; ++k) {
      v->Rnto[k] = rows[static_cast<size_t>(k - 1)];
      v->Rotn[v->Rnto[k]] = k;
      v->Cnto[k] = places[static_cast<size_t>(k - 1)];
      v->Cotn[v->Cnto[k]] = k;
    }
    std::vector<std::vector<std::pair<int, double>>> cols(static_cast<size_t>(n) + 1);
    int64_t total = 0;
    for (int k = 1; k <= n; ++k) {
      auto &col = cols[static_cast<size_t>(k)];
      double d = Uni(1.0, 2.0) * (Uni(0, 1) < 0.5 ? -1.0 : 1.0);
      col.push_back({v->Rnto[k], d});
      std::set<int> used;
      const int want = k > 1 ? static_cast<int>(Uni(0.0, 2.0 * perCol)) : 0;
      for (int t = 0; t < want; ++t) {
        int pos = 1 + static_cast<int>(Uni(0.0, k - 1));
        if (pos >= k) pos = k - 1;
        if (!used.insert(pos).second) continue;
        col.push_back({v->Rnto[pos], Uni(-0.4, 0.4)});
      }
      total += static_cast<int64_t>(col.size());
    }
    LUF *f = luf();
    Ensure(env, f->Ucmat, static_cast<int32_t>(total));
    Ensure(env, f->Ir, "LUF%Ir", static_cast<int32_t>(total));
    int32_t q = 1;
    for (int k = 1; k <= n; ++k) {
      const int c = v->Cnto[k];
      f->Cstr[c] = q;
      f->Clen[c] = static_cast<int32_t>(cols[static_cast<size_t>(k)].size());
      for (auto &e : cols[static_cast<size_t>(k)]) {
        f->Ir[q] = e.first;
        f->Ucmat[q] = e.second;
        ++q;
      }
    }
    f->U_numele = static_cast<int32_t>(total);
  }

  // L columns: `count` columns at the first pivot positions, each with
  // `len` multipliers in rows of later positions.
  void Build_L(int count, int len) {
    lcols.clear();
    VIM *v = vim();
    for (int k = 1; k <= count; ++k) {
      LCol col;
      col.piv = v->Rnto[k];
      std::set<int> used;
      for (int t = 0; t < len && k < n; ++t) {
        int pos = k + 1 + static_cast<int>(Uni(0.0, n - k));
        if (pos > n) pos = n;
        if (!used.insert(pos).second) continue;
        col.ents.push_back({v->Rnto[pos], Uni(-0.5, 0.5)});
      }
      lcols.push_back(col);
    }
  }

  // Row etas: groups of the given lengths, each with a target row and
  // source rows different from it.
  void Build_Etas(const std::vector<int> &lengths) {
    etas.clear();
    for (int len : lengths) {
      Eta e;
      e.target = 1 + static_cast<int>(Uni(0.0, n));
      if (e.target > n) e.target = n;
      std::set<int> used{e.target};
      while (static_cast<int>(e.ents.size()) < len) {
        int r = 1 + static_cast<int>(Uni(0.0, n));
        if (r > n) r = n;
        if (!used.insert(r).second) continue;
        e.ents.push_back({r, Uni(-0.5, 0.5)});
      }
      etas.push_back(e);
    }
  }

  // Writes lcols and etas into the L-file, with `emptyCols` empty L columns
  // after the real ones and `emptyEtas` empty etas: those in `emptyEtaAfter`
  // (index of the eta they follow, -1 before the first) and the rest at the
  // end.  Empty columns and etas change nothing in the result but move the
  // counts that choose the form.
  void Store(int emptyCols, int emptyEtas, std::vector<int> emptyEtaAfter = {}) {
    LUF *f = luf();
    int32_t m = 0;
    for (auto &c : lcols) m += static_cast<int32_t>(c.ents.size());
    int32_t e = 0;
    for (auto &g : etas) e += static_cast<int32_t>(g.ents.size());
    Ensure(env, f->Lmat, m + e + 1);
    Ensure(env, f->Lrow, "LUF%Lrow", m + e + 1);
    Ensure(env, f->Lpiv, "LUF%Lpiv", m + e + 1);
    const int32_t nGroups = static_cast<int32_t>(etas.size()) + emptyEtas;
    Ensure(env, f->Lstr, "LUF%Lstr", nGroups + 1);
    ASSERT_LE(static_cast<int>(lcols.size()) + emptyCols, n);

    int32_t p = 1, k = 0;
    for (auto &c : lcols) {
      f->Lsor[++k] = p;
      for (auto &en : c.ents) {
        f->Lmat[p] = en.second;
        f->Lrow[p] = en.first;
        f->Lpiv[p] = c.piv;
        ++p;
      }
    }
    for (int t = 0; t < emptyCols; ++t) f->Lsor[++k] = p;
    f->Lsor[k + 1] = p;
    f->L_Cols = k;

    int32_t g = 0;
    auto emptyEta = [&]() { f->Lstr[++g] = p; };
    int placedEmpty = 0;
    for (int after : emptyEtaAfter)
      if (after == -1) { emptyEta(); ++placedEmpty; }
    for (size_t i = 0; i < etas.size(); ++i) {
      f->Lstr[++g] = p;
      for (auto &en : etas[i].ents) {
        f->Lmat[p] = en.second;
        f->Lrow[p] = etas[i].target;
        f->Lpiv[p] = en.first;
        ++p;
      }
      for (int after : emptyEtaAfter)
        if (after == static_cast<int>(i)) { emptyEta(); ++placedEmpty; }
    }
    for (int t = placedEmpty; t < emptyEtas; ++t) emptyEta();
    f->Lstr[g + 1] = p;
    f->L_Groups = g;
    f->LFileUsed = p - 1;
  }

  std::vector<double> Apply(void (*fn)(VMI *, vlu::RVec &), const std::vector<double> &b) {
    vlu::RVec &w = vim()->Work1;
    for (int i = 1; i <= n; ++i) w[i] = b[static_cast<size_t>(i - 1)];
    fn(env, w);
    std::vector<double> out(static_cast<size_t>(n));
    for (int i = 1; i <= n; ++i) out[static_cast<size_t>(i - 1)] = w[i];
    return out;
  }

  // b' = L R^-1 U x, from the result W of a full solve (x of place
  // Cnto(k) is W(Rnto(k))), computed from the test's own copies of L and
  // the etas and from the stored U.
  std::vector<double> Multiply_Back(const std::vector<double> &W) {
    VIM *v = vim();
    LUF *f = luf();
    std::vector<double> y(static_cast<size_t>(n) + 1, 0.0);
    for (int k = 1; k <= n; ++k) {
      const int c = v->Cnto[k];
      const double x = W[static_cast<size_t>(v->Rnto[k] - 1)];
      for (int q = f->Cstr[c]; q < f->Cstr[c] + f->Clen[c]; ++q)
        y[static_cast<size_t>(f->Ir[q])] += f->Ucmat[q] * x;
    }
    for (size_t g = etas.size(); g-- > 0;) {
      double s = 0.0;
      for (auto &en : etas[g].ents) s += en.second * y[static_cast<size_t>(en.first)];
      y[static_cast<size_t>(etas[g].target)] += s;
    }
    for (size_t k = lcols.size(); k-- > 0;) {
      const double x = y[static_cast<size_t>(lcols[k].piv)];
      for (auto &en : lcols[k].ents) y[static_cast<size_t>(en.first)] += en.second * x;
    }
    return std::vector<double>(y.begin() + 1, y.end());
  }

  std::vector<double> Random_Vector() {
    std::vector<double> b(static_cast<size_t>(n));
    for (double &x : b) x = Uni(-1.0, 1.0);
    return b;
  }
};

double Max_Diff(const std::vector<double> &a, const std::vector<double> &b) {
  double d = 0.0, s = 0.0;
  for (size_t i = 0; i < a.size(); ++i) {
    d = std::max(d, std::fabs(a[i] - b[i]));
    s = std::max(s, std::fabs(b[i]));
  }
  return s > 0.0 ? d / s : d;
}

TEST(SolveForms, NoLColumnsAndNoEtasLeaveWUnchanged) {
  HandEnv h(20);
  h.Build_U(2.0);
  h.Store(0, 0);
  std::vector<double> b = h.Random_Vector();
  b[3] = -0.0;
  std::vector<double> w = h.Apply(vlu::L_Solve, b);
  for (size_t i = 0; i < b.size(); ++i) {
    EXPECT_EQ(w[i], b[i]);
    EXPECT_EQ(std::signbit(w[i]), std::signbit(b[i]));
  }
}

TEST(SolveForms, ColumnAndElementFormOfLAgree) {
  HandEnv h(60, 11);
  h.Build_U(2.0);
  h.Build_L(10, 8);  // about 80 multipliers in 10 columns: column form
  h.Store(0, 0);
  const int32_t m = h.luf()->Lsor[h.luf()->L_Cols + 1] - 1;
  ASSERT_LT(2 * h.luf()->L_Cols, m + 1);
  std::vector<double> b = h.Random_Vector();
  // A zero at the pivot row of a column makes the column form skip it.
  b[static_cast<size_t>(h.lcols[2].piv - 1)] = 0.0;
  std::vector<double> colForm = h.Apply(vlu::L_Solve, b);

  // Same factors with empty columns appended: the element form runs.
  h.Store((m + 1) / 2, 0);
  ASSERT_GE(2 * h.luf()->L_Cols, m + 1);
  std::vector<double> elemForm = h.Apply(vlu::L_Solve, b);
  for (size_t i = 0; i < b.size(); ++i) EXPECT_EQ(colForm[i], elemForm[i]) << "row " << i + 1;

  // And the full solve reproduces b through L U.
  std::vector<double> x = h.Apply(vlu::Solve_Ftran, b);
  EXPECT_LT(Max_Diff(h.Multiply_Back(x), b), 1e-14);
}

TEST(SolveForms, DotAndElementFormOfEtasAgree) {
  HandEnv h(80, 23);
  h.Build_U(2.0);
  h.Build_L(6, 4);
  // Lengths around the block of eight: below it, exactly one block, blocks
  // and a remainder.
  h.Build_Etas({3, 8, 19, 17, 1, 24});
  h.Store(0, 0);
  const int32_t m = h.luf()->Lsor[h.luf()->L_Cols + 1] - 1;
  const int32_t e = h.luf()->LFileUsed - m;
  ASSERT_LT(5 * h.luf()->L_Groups, e);
  std::vector<double> b = h.Random_Vector();
  std::vector<double> dot = h.Apply(vlu::L_Solve, b);

  // An empty eta between the others keeps the dot form and the result.
  h.Store(0, 1, {2});
  ASSERT_LT(5 * h.luf()->L_Groups, e);
  std::vector<double> dotWithEmpty = h.Apply(vlu::L_Solve, b);
  for (size_t i = 0; i < b.size(); ++i) EXPECT_EQ(dot[i], dotWithEmpty[i]);

  // Enough empty etas at the end make the element form run.
  const int pad = e / 5 + 1 - static_cast<int>(h.etas.size());
  h.Store(0, pad);
  ASSERT_GE(5 * h.luf()->L_Groups, e);
  std::vector<double> elem = h.Apply(vlu::L_Solve, b);
  EXPECT_LT(Max_Diff(dot, elem), 1e-14);

  // Both forms give a full solve that multiplies back to b.
  std::vector<double> x1 = h.Apply(vlu::Solve_Ftran, b);
  EXPECT_LT(Max_Diff(h.Multiply_Back(x1), b), 1e-14);
  h.Store(0, 0);
  std::vector<double> x2 = h.Apply(vlu::Solve_Ftran, b);
  EXPECT_LT(Max_Diff(h.Multiply_Back(x2), b), 1e-14);
  EXPECT_LT(Max_Diff(x1, x2), 1e-13);
}

TEST(SolveForms, DotFormSumsEightPartialSumsFirst) {
  // One eta of seventeen elements on rows whose values are all 1.  Two
  // blocks of eight go into eight partial sums (position j of each block
  // into sum j), which are combined, and then the seventeenth element is
  // added.  With 1e16 and -1e16 in the same partial sum the small values
  // survive; summed one by one they are lost against 1e16.
  HandEnv h(20, 5);
  h.Build_U(0.0);
  h.Build_L(0, 0);
  HandEnv::Eta e;
  e.target = 20;
  std::vector<double> f(17, 1.0);
  f[0] = 1e16;
  f[8] = -1e16;
  f[16] = 0.5;
  for (int t = 0; t < 17; ++t) e.ents.push_back({t + 1, f[static_cast<size_t>(t)]});
  h.etas = {e};
  h.Store(0, 0);
  ASSERT_LT(5 * h.luf()->L_Groups, h.luf()->LFileUsed);
  std::vector<double> b(20, 1.0);
  b[19] = 0.0;
  std::vector<double> w = h.Apply(vlu::L_Solve, b);
  double part[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  for (int t = 0; t < 16; ++t) part[t % 8] += f[static_cast<size_t>(t)];
  double s = 0.0;
  for (double v : part) s += v;
  s += f[16];
  EXPECT_EQ(w[19], -s);
  EXPECT_EQ(w[19], -14.5);
  // Element by element the result would differ, so the grouping is seen.
  double elem = 0.0;
  for (double v : f) elem -= v;
  EXPECT_NE(elem, -14.5);
}

TEST(SolveForms, SparseFormMatchesDenseAndKeepsTheList) {
  HandEnv h(70, 31);
  h.Build_U(2.0);
  h.Build_L(12, 5);
  h.Build_Etas({4, 11, 9, 2});
  h.Store(0, 0);
  ASSERT_LT(2 * h.luf()->L_Cols, h.luf()->Lsor[h.luf()->L_Cols + 1]);
  ASSERT_LT(5 * h.luf()->L_Groups, h.luf()->LFileUsed - (h.luf()->Lsor[h.luf()->L_Cols + 1] - 1));

  // A sparse right-hand side: the pivot rows of two L columns and one more.
  std::vector<double> b(70, 0.0);
  std::vector<int> start = {h.lcols[0].piv, h.lcols[5].piv, 40};
  for (int r : start) b[static_cast<size_t>(r - 1)] = h.Uni(0.5, 1.0);
  std::vector<double> dense = h.Apply(vlu::L_Solve, b);

  vlu::IntVec list, marks;
  vlu::Allocate_Int(h.env, list, "TEST%List", 70);
  vlu::Allocate_Int(h.env, marks, "TEST%Marks", 70);
  for (int i = 1; i <= 70; ++i) marks[i] = 0;
  int32_t len = 0;
  for (int r : start) {
    list[++len] = r;
    marks[r] = 1;
  }
  vlu::RVec &w = h.vim()->Work1;
  for (int i = 1; i <= 70; ++i) w[i] = b[static_cast<size_t>(i - 1)];
  len = vlu::L_Solve_Sparse(h.env, w, list, marks, len);

  std::set<int> listed;
  for (int t = 1; t <= len; ++t) EXPECT_TRUE(listed.insert(list[t]).second) << "row listed twice";
  for (int i = 1; i <= 70; ++i) {
    EXPECT_EQ(w[i], dense[static_cast<size_t>(i - 1)]) << "row " << i;
    EXPECT_EQ(marks[i] == 1, listed.count(i) == 1) << "row " << i;
    if (w[i] != 0.0) {
      EXPECT_EQ(listed.count(i), 1u) << "nonzero row " << i << " not listed";
    }
  }
  vlu::Deallocate_Int(h.env, list, "TEST%List");
  vlu::Deallocate_Int(h.env, marks, "TEST%Marks");
}

TEST(Vdsuxy, ZeroRightHandSideGivesPlainZeros) {
  HandEnv h(30, 3);
  h.Build_U(3.0);
  std::vector<double> b(30, 0.0);
  b[4] = -0.0;
  b[17] = -0.0;
  h.vim()->Num_UpNz = 99;
  h.vim()->Max_UpCol = 5.0;
  std::vector<double> x = h.Apply(vlu::Vdsuxy, b);
  for (double v : x) {
    EXPECT_EQ(v, 0.0);
    EXPECT_FALSE(std::signbit(v));
  }
  EXPECT_EQ(h.vim()->Num_UpNz, 0);
  EXPECT_EQ(h.vim()->Max_UpCol, 0.0);
}

TEST(Vdsuxy, ListsTheNonzerosAndTheLargestMagnitude) {
  HandEnv h(50, 9);
  h.Build_U(1.0);
  // Right-hand side nonzero only on a few rows at late positions: earlier
  // rows become nonzero only through the columns of U.
  std::vector<double> b(50, 0.0);
  for (int k : {50, 44, 31}) b[static_cast<size_t>(h.vim()->Rnto[k] - 1)] = h.Uni(1.0, 3.0);
  std::vector<double> x = h.Apply(vlu::Vdsuxy, b);
  std::set<int> nz;
  double mx = 0.0;
  for (int i = 1; i <= 50; ++i)
    if (x[static_cast<size_t>(i - 1)] != 0.0) {
      nz.insert(i);
      mx = std::max(mx, std::fabs(x[static_cast<size_t>(i - 1)]));
    }
  ASSERT_EQ(h.vim()->Num_UpNz, static_cast<int32_t>(nz.size()));
  int prevPos = 51;
  for (int t = 1; t <= h.vim()->Num_UpNz; ++t) {
    const int r = h.vim()->HelpI[t];
    EXPECT_EQ(nz.count(r), 1u);
    EXPECT_LT(h.vim()->Rotn[r], prevPos) << "listed in descending pivot order";
    prevPos = h.vim()->Rotn[r];
  }
  EXPECT_EQ(h.vim()->Max_UpCol, mx);
  // The solution solves U x = b.
  std::vector<double> back(50, 0.0);
  for (int k = 1; k <= 50; ++k) {
    const int c = h.vim()->Cnto[k];
    const double xv = x[static_cast<size_t>(h.vim()->Rnto[k] - 1)];
    for (int q = h.luf()->Cstr[c]; q < h.luf()->Cstr[c] + h.luf()->Clen[c]; ++q)
      back[static_cast<size_t>(h.luf()->Ir[q] - 1)] += h.luf()->Ucmat[q] * xv;
  }
  EXPECT_LT(Max_Diff(back, b), 1e-14);
}

TEST(Vdsuxy, NaNRepairsTheTolerancesOncePerSolve) {
  HandEnv h(25, 4);
  h.Build_U(2.0);
  h.Build_L(0, 0);
  h.Store(0, 0);
  h.env->Trace_Inv = 1;
  const double rtpiva = h.env->Rtpiva;
  std::vector<double> b = h.Random_Vector();
  b[0] = std::numeric_limits<double>::quiet_NaN();
  b[1] = std::numeric_limits<double>::quiet_NaN();
  std::vector<double> x = h.Apply(vlu::Solve_Ftran, b);
  EXPECT_TRUE(std::isnan(h.vim()->Max_UpCol));
  EXPECT_TRUE(h.lines.Has("DefNan called from Vdsuxy. Max_UpCol="));
  // One repair: the absolute tolerance rose once, not twice.
  EXPECT_DOUBLE_EQ(h.env->Rtpiva, std::min(10.0 * rtpiva, std::sqrt(1e-7 * rtpiva)));
  EXPECT_EQ(h.vim()->Tol_Wait, 250);
  EXPECT_EQ(h.vim()->InvertMode, 1);
}

TEST(Vdsuxy, HugeValuesTakeTheRepairPathAndSmallerOnesDoNot) {
  HandEnv h(10, 8);
  h.Build_U(0.0);
  const double rtpiva = h.env->Rtpiva;
  std::vector<double> b(10, 0.0);
  // Pivots are between 1 and 2 in magnitude, so 1e99 stays below 1e100.
  b[0] = 1e99;
  h.Apply(vlu::Vdsuxy, b);
  EXPECT_EQ(h.env->Rtpiva, rtpiva);
  EXPECT_FALSE(h.lines.Has("DefNan called from Vdsuxy"));
  b[0] = 1e101;
  h.env->Trace_Inv = 2;
  h.Apply(vlu::Vdsuxy, b);
  EXPECT_GE(h.vim()->Max_UpCol, 1e100);
  EXPECT_GT(h.env->Rtpiva, rtpiva);
  EXPECT_TRUE(h.lines.Has("DefNan called from Vdsuxy. Max_UpCol="));
}

TEST(SolveTiming, CountersRunOnlyWithTheTimingFlag) {
  HandEnv h(15, 2);
  h.Build_U(1.0);
  h.Build_L(3, 2);
  h.Build_Etas({2});
  h.Store(0, 0);
  std::vector<double> b = h.Random_Vector();
  h.Apply(vlu::Solve_Ftran, b);
  EXPECT_EQ(h.vim()->Calls_L_Solve, 0);
  EXPECT_EQ(h.vim()->Calls_Vdsuxy, 0);
  h.env->Timing = true;
  h.Apply(vlu::Solve_Ftran, b);
  h.Apply(vlu::Solve_Ftran, b);
  EXPECT_EQ(h.vim()->Calls_L_Solve, 2);
  EXPECT_EQ(h.vim()->Calls_Vdsuxy, 2);
  EXPECT_GE(h.vim()->Time_L_Solve, 0.0);
  EXPECT_GE(h.vim()->Time_Vdsuxy, 0.0);
  EXPECT_EQ(h.vim()->Time_Ftran_L, 0.0);  // detail timing is off
  h.env->Timing_Detail = true;
  h.Apply(vlu::Solve_Ftran, b);
  EXPECT_EQ(h.vim()->Calls_L_Solve, 3);
  EXPECT_GE(h.vim()->Time_Ftran_L, 0.0);
}

}  // namespace
