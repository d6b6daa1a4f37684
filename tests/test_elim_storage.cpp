// Storage of the active matrix during the elimination, on bumps that
// ExtractBasis loaded: room for fill, stores, removals, moves to the top,
// compactions, tail compression and the space of the stores.  After every
// operation a checker walks both files and both chains and compares the
// active matrix, element by element, with what it must be.
//
// Moves to the top and tail compression use the chain and list routines of
// the elimination; where those are not in the build the tests that need
// them are skipped (they run once the routines are linked in).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <tuple>
#include <vector>

#include "elimination/bump.h"
#include "factor/factor.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "interface/state.h"
#include "support/lu_check.h"

namespace {

using vlu::Bump_State;
using vlu::IIN;
using vlu::LUF;
using vlu::VIM;

// One active element: row, column, value, and whether it is counted
// (compressed part) or in a tail.
using Elem = std::tuple<int32_t, int32_t, double, bool>;
using Elems = std::vector<Elem>;

// A square basis of structural columns: a diagonal and `lo`..`hi` further
// elements per column, from a fixed generator (portable, so every platform
// builds the same bump).
luc::Problem Random_Basis(int n, uint64_t seed, int lo, int hi) {
  uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
  auto next = [&]() {
    x = x * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(x >> 33);
  };
  luc::Cols cols(static_cast<size_t>(n));
  for (int j = 1; j <= n; ++j) {
    auto &c = cols[size_t(j - 1)];
    c.emplace_back(j, 2.0 + (next() % 1000) / 500.0);
    const int k = lo + int(next() % uint32_t(hi - lo + 1));
    while (int(c.size()) < k + 1) {
      const int r = 1 + int(next() % uint32_t(n));
      if (std::none_of(c.begin(), c.end(), [&](const auto &e) { return e.first == r; }))
        c.emplace_back(r, ((next() % 2000) / 1000.0 - 1.0) * 0.9 + 0.05);
    }
  }
  return luc::From_Columns(n, cols, true);
}

int32_t Tail_Of_Row(const Bump_State &s, int32_t i) { return vlu::Row_Tail(s, i); }
int32_t Tail_Of_Col(const Bump_State &s, int32_t j) { return vlu::Col_Tail(s, j); }

// The full check of the active matrix: both chains hold exactly the active
// rows and columns, in rising position order, each within its room and the
// last within the file; columns on cache lines; every entry of both files
// reaches its partner through the cross pointers, in the same part
// (compressed or tail); no empty slot inside a stretch.  On success the
// elements are returned sorted.
::testing::AssertionResult Check_Active(const Bump_State &s, Elems *out = nullptr) {
  const LUF *luf = s.luf;
  const IIN *iin = s.iin;
  const VIM *vim = s.vim;
  const int32_t n = s.NumRow;
  const int32_t limit = std::min(luf->ColASpace + 1, luf->U_elefirst);
  const int32_t *rstr = luf->Rstr.V, *rlen = luf->Rlen.V, *cstr = luf->Cstr.V, *clen = luf->Clen.V;
  const int32_t *ic = luf->Ic.V, *ir = luf->Ir.V, *r2cp = iin->R2cp.V, *c2rp = iin->C2rp.V;
  int32_t active = 0;
  for (int32_t k = s.Piv_Indx; k <= n; ++k) ++active;

  std::vector<char> seen(size_t(n) + 1, 0);
  int32_t count = 0, prev = 0;
  for (int32_t i = iin->RPfrst; i != 0; prev = i, i = iin->Rpnx.V[i]) {
    if (i < 1 || i > n || seen[size_t(i)] || vim->Rotn.V[i] < s.Piv_Indx)
      return ::testing::AssertionFailure() << "row chain reaches row " << i;
    seen[size_t(i)] = 1;
    ++count;
    if (iin->Rppr.V[i] != prev) return ::testing::AssertionFailure() << "Rppr of row " << i;
    const int32_t next = iin->Rpnx.V[i];
    const int32_t end = rstr[i] + rlen[i] + Tail_Of_Row(s, i);  // one past
    if (rstr[i] < 1 || end > (next ? rstr[next] : limit))
      return ::testing::AssertionFailure() << "row " << i << " runs into the next (end " << end << ")";
    if (vlu::Row_Extra(s, i) != (next ? rstr[next] : limit) - end)
      return ::testing::AssertionFailure() << "Row_Extra of row " << i;
    if (next == 0 && end - 1 > luf->RowFileUsed)
      return ::testing::AssertionFailure() << "last row ends beyond RowFileUsed";
  }
  if (count != active || iin->RPlast != prev)
    return ::testing::AssertionFailure() << "row chain holds " << count << " of " << active;

  std::fill(seen.begin(), seen.end(), 0);
  count = 0;
  prev = 0;
  Elems el;
  int64_t inCols = 0, inRows = 0;
  for (int32_t j = iin->CPfrst; j != 0; prev = j, j = iin->Cpnx.V[j]) {
    if (j < 1 || j > n || seen[size_t(j)] || vim->Cotn.V[j] < s.Piv_Indx)
      return ::testing::AssertionFailure() << "column chain reaches column " << j;
    seen[size_t(j)] = 1;
    ++count;
    if (iin->Cppr.V[j] != prev) return ::testing::AssertionFailure() << "Cppr of column " << j;
    const int32_t next = iin->Cpnx.V[j];
    const int32_t end = cstr[j] + clen[j] + Tail_Of_Col(s, j);
    if ((cstr[j] - 1) % 8 != 0 || cstr[j] < 1 || end > (next ? cstr[next] : limit))
      return ::testing::AssertionFailure() << "column " << j << " misplaced: Cstr=" << cstr[j];
    if (vlu::Col_Extra(s, j) != (next ? cstr[next] : limit) - end)
      return ::testing::AssertionFailure() << "Col_Extra of column " << j;
    if (next == 0 && end - 1 > luf->ColFileUsed)
      return ::testing::AssertionFailure() << "last column ends beyond ColFileUsed";
    for (int32_t q = cstr[j]; q < end; ++q) {
      const bool compr = q < cstr[j] + clen[j];
      const int32_t i = ir[q];
      if (i < 1 || i > n || vim->Rotn.V[i] < s.Piv_Indx)
        return ::testing::AssertionFailure() << "column " << j << " holds row " << i << " at " << q;
      const int32_t p = c2rp[q];
      const int32_t rc = rstr[i] + rlen[i], re = rc + Tail_Of_Row(s, i);
      if (p < rstr[i] || p >= re || (p < rc) != compr || ic[p] != j || r2cp[p] != q)
        return ::testing::AssertionFailure()
               << "cross pointers of (" << i << "," << j << ") at " << q << " broken";
      el.emplace_back(i, j, vim->AUrmat.Val[q], compr);
      ++inCols;
    }
  }
  if (count != active || iin->CPlast != prev)
    return ::testing::AssertionFailure() << "column chain holds " << count << " of " << active;
  for (int32_t i = iin->RPfrst; i != 0; i = iin->Rpnx.V[i]) {
    const int32_t end = rstr[i] + rlen[i] + Tail_Of_Row(s, i);
    for (int32_t p = rstr[i]; p < end; ++p) {
      const int32_t j = ic[p], q = r2cp[p];
      if (j < 1 || j > n || q < cstr[j] || q >= cstr[j] + clen[j] + Tail_Of_Col(s, j) ||
          c2rp[q] != p)
        return ::testing::AssertionFailure() << "row " << i << " at " << p << " holds " << j;
      ++inRows;
    }
  }
  if (inRows != inCols)
    return ::testing::AssertionFailure() << inRows << " entries in rows, " << inCols << " in columns";
  std::sort(el.begin(), el.end());
  if (out != nullptr) *out = el;
  return ::testing::AssertionSuccess();
}

Elems Plus(Elems e, std::initializer_list<Elem> add) {
  e.insert(e.end(), add);
  std::sort(e.begin(), e.end());
  return e;
}
Elems Minus(Elems e, int32_t row, int32_t col) {
  e.erase(std::remove_if(e.begin(), e.end(),
                         [&](const Elem &x) { return std::get<0>(x) == row && std::get<1>(x) == col; }),
          e.end());
  return e;
}
// The same elements without the compressed/tail distinction.
std::vector<std::tuple<int32_t, int32_t, double>> Values(const Elems &e) {
  std::vector<std::tuple<int32_t, int32_t, double>> v;
  for (const Elem &x : e) v.emplace_back(std::get<0>(x), std::get<1>(x), std::get<2>(x));
  std::sort(v.begin(), v.end());
  return v;
}

// Are the chain and list routines of the elimination linked in?  Asked on
// an environment of its own, so that a placeholder's error does not touch
// the test's environment.
bool Chains_And_Lists_Present() {
  static int known = -1;
  if (known >= 0) return known == 1;
  vlu::VMI *e = nullptr;
  int status = 0;
  vlu::Allocate_Space(&e, &status);
  e->Msg_Routine = reinterpret_cast<void (*)()>(&vlu::c_std_message);
  e->MaxHeap_Bytes = INT64_MAX;
  vlu::IIN *iin = e->Iin;
  vlu::Allocate_Int(e, iin->Rpnx, "IIN%Rpnx", 2);
  vlu::Allocate_Int(e, iin->Rppr, "IIN%Rppr", 2);
  Bump_State s;
  s.vmi = e;
  s.vim = e->Vim;
  s.luf = e->Luf;
  s.iin = iin;
  iin->RPfrst = iin->RPlast = 1;
  iin->Rpnx.V[1] = iin->Rppr.V[1] = 0;
  vlu::Msg_Flush(e);
  vlu::Unlink_Row(s, 1);
  known = (e->Exception == 0 && iin->RPfrst == 0) ? 1 : 0;
  vlu::VMI_Deallocate(&e, &status);
  return known == 1;
}

#define NEEDS_LISTS()                                                                  \
  if (!Chains_And_Lists_Present())                                                     \
    GTEST_SKIP() << "the chain and list routines of the elimination are not linked in"

struct Storage : luc::EnvTest {
  Bump_State s;
  bool borrowed = false;

  // Loads the problem, runs ExtractBasis and sets up the state of the
  // elimination as Factor_Bump does before its first pivot (lists only on
  // request: they need the list routines).
  void Bump(const luc::Problem &p, bool lists = false, double spaceFactor = 2.0) {
    Give_Back();
    Load(p);
    env->Space_Factor = spaceFactor;
    int32_t elemnt = 0;
    ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
    vlu::ExtractBasis(env);
    ASSERT_EQ(env->Exception, 0) << msgs.All();
    ASSERT_TRUE(luc::Check_Factors(env, true));
    VIM *vim = env->Vim;
    LUF *luf = env->Luf;
    IIN *iin = env->Iin;
    vlu::Reuse_RVec(env, vim->WorkZ, iin->Clmin);
    vlu::Reuse_Int(env, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
    borrowed = true;

    s = Bump_State();
    s.vmi = env;
    s.vim = vim;
    s.luf = luf;
    s.iin = iin;
    const int32_t n = vim->NumRow;
    s.NumRow = n;
    s.NumVTria = luf->NumVTria;
    s.Bump_Size = n - luf->NumVTria;
    s.Piv_Indx = luf->NumVTria + 1;
    s.Rowlft = n - s.Piv_Indx + 1;
    s.L_Base = luf->LFileUsed;
    s.U_Count0 = luf->RowUSpace - luf->U_elefirst;
    s.Min_M_InList = iin->MarkBad;
    s.MIN_CC_List = s.MIN_RC_List = n;
    s.Clok_Frac = 1.0 - std::pow(env->Eps, 0.8);
    s.Tol_Small = std::max(env->Tol_Zero, std::ldexp(1.0, -52));
    iin->RowFill = 0;
    for (vlu::IntVec *v : {&iin->Mrow, &iin->Indr, &iin->Mrex, &iin->Mact, &iin->Mlow, &iin->Indc,
                           &iin->Mcex, &iin->Indx, &iin->Stcc, &iin->Stcr, &iin->Stmc})
      vlu::Zero_Int(v->V, vlu::Size(*v));
    iin->Nele = 0;
    for (int32_t k = s.Piv_Indx; k <= n; ++k) {
      const int32_t j = vim->Cnto.V[k];
      double mx = 0.0;
      for (int32_t q = luf->Cstr.V[j]; q < luf->Cstr.V[j] + luf->Clen.V[j]; ++q)
        mx = std::max(mx, std::fabs(vim->AUrmat.Val[q]));
      iin->Clmx.Val[j] = mx;
      iin->Clmin.Val[j] = std::max(1e-20, std::ldexp(mx, -52));
      iin->Clok.V[j] = vlu::LTrue;
      iin->Nele += luf->Rlen.V[vim->Rnto.V[k]];
    }
    if (lists) {
      for (int32_t k = s.Piv_Indx; k <= n; ++k) {
        const int32_t j = vim->Cnto.V[k];
        vlu::Store_col_in_c_list(s, j, luf->Clen.V[j]);
      }
      for (int32_t k = s.Piv_Indx; k <= n; ++k) {
        const int32_t i = vim->Rnto.V[k];
        vlu::Store_Row_in_C_List(s, i, luf->Rlen.V[i]);
      }
      ASSERT_EQ(env->Exception, 0) << msgs.All();
    }
    ASSERT_GE(s.Bump_Size, 20) << "the bump is too small for these tests";
    ASSERT_TRUE(Check_Active(s));
  }

  void Give_Back() {
    if (!borrowed) return;
    vlu::Reuse_RVec(env, env->Iin->Clmin, env->Vim->WorkZ);
    vlu::Reuse_Int(env, env->Iin->Indr, "IIN%Indr", env->Vim->HelpI, "VIM%HelpI");
    borrowed = false;
  }
  void TearDown() override {
    Give_Back();
    luc::EnvTest::TearDown();
  }

  // Active rows (columns) in chain order.
  std::vector<int32_t> Rows() const {
    std::vector<int32_t> v;
    for (int32_t i = s.iin->RPfrst; i != 0; i = s.iin->Rpnx.V[i]) v.push_back(i);
    return v;
  }
  std::vector<int32_t> Cols() const {
    std::vector<int32_t> v;
    for (int32_t j = s.iin->CPfrst; j != 0; j = s.iin->Cpnx.V[j]) v.push_back(j);
    return v;
  }
  int32_t Rlen(int32_t i) const { return s.luf->Rlen.V[i]; }
  int32_t Clen(int32_t j) const { return s.luf->Clen.V[j]; }
  bool Has(int32_t i, int32_t j) { return vlu::Find_Element(s, i, j) != 0; }
  static bool In(const std::vector<int32_t> &v, int32_t x) {
    return std::find(v.begin(), v.end(), x) != v.end();
  }
  // A column (not last, not in `except`) without an element in row i, with
  // room for `room` more.
  int32_t Free_Col(int32_t i, std::vector<int32_t> except = {}, int32_t room = 2) {
    for (int32_t j : Cols())
      if (j != s.iin->CPlast && !Has(i, j) && !In(except, j) && vlu::Col_Extra(s, j) >= room)
        return j;
    return 0;
  }
  // A row (not last, not in `except`) without a tail, with at least `len`
  // elements and room for as many more.
  int32_t Row_With(int32_t len, std::vector<int32_t> except = {}) {
    for (int32_t i : Rows())
      if (i != s.iin->RPlast && Rlen(i) >= len && s.iin->Mrex.V[i] == 0 && !In(except, i) &&
          vlu::Row_Extra(s, i) >= len)
        return i;
    return 0;
  }
  // A row (not last, not in `except`) without an element in column j, with
  // room for `room` more.
  int32_t Free_Row(int32_t j, std::vector<int32_t> except = {}, int32_t room = 1) {
    for (int32_t i : Rows())
      if (i != s.iin->RPlast && !Has(i, j) && !In(except, i) && vlu::Row_Extra(s, i) >= room)
        return i;
    return 0;
  }
  // Takes the element (i, j) out of both files as a pivot step would.
  void Drop(int32_t i, int32_t j) {
    const int32_t q = vlu::Find_Element(s, i, j);
    ASSERT_NE(q, 0);
    const int32_t p = s.iin->C2rp.V[q];
    vlu::Remove_Element_From_Row(s, i, p);
    vlu::Remove_Element_From_Col(s, j, q);
  }
  // Reserves room with the Make_*_Space contract, then stores.
  void Store(int32_t i, int32_t j, double v, bool compr) {
    vlu::Make_Row_Space(s, i, 1);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    s.luf->Rlen.V[i] -= 1;
    vlu::Make_Col_Space(s, j, 1);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    s.luf->Clen.V[j] -= 1;
    vlu::Store_ele_in_both(s, i, j, v, compr);
  }
};

luc::Problem Basis60() { return Random_Basis(60, 7, 2, 5); }

// ---------------------------------------------------------------------------

TEST_F(Storage, FindElementAndTheRoomOfTheLastRowAndColumn) {
  Bump(Basis60());
  Elems all;
  ASSERT_TRUE(Check_Active(s, &all));
  for (const Elem &e : all) {
    const int32_t q = vlu::Find_Element(s, std::get<0>(e), std::get<1>(e));
    ASSERT_GT(q, 0);
    EXPECT_EQ(s.luf->Ir.V[q], std::get<0>(e));
    EXPECT_EQ(s.vim->AUrmat.Val[q], std::get<2>(e));
  }
  const int32_t i = Row_With(2), j = Free_Col(i);
  ASSERT_NE(j, 0);
  EXPECT_EQ(vlu::Find_Element(s, i, j), 0);
  // The last row and column reach up to min(ColASpace + 1, U_elefirst).
  LUF *luf = s.luf;
  const int32_t lr = s.iin->RPlast, lc = s.iin->CPlast;
  const int32_t top = std::min(luf->ColASpace + 1, luf->U_elefirst);
  EXPECT_EQ(vlu::Row_Extra(s, lr), top - luf->Rstr.V[lr] - Rlen(lr));
  EXPECT_EQ(vlu::Col_Extra(s, lc), top - luf->Cstr.V[lc] - Clen(lc));
  luf->ColASpace = luf->U_elefirst - 100;
  EXPECT_EQ(vlu::Col_Extra(s, lc), luf->ColASpace + 1 - luf->Cstr.V[lc] - Clen(lc));
}

TEST_F(Storage, StoresGoToTheCompressedPartsOrTheTailsOfBothFiles) {
  Bump(Basis60());
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  const int32_t r = Row_With(3), c1 = Free_Col(r), c2 = Free_Col(r, {c1}), c3 = Free_Col(r, {c1, c2});
  ASSERT_TRUE(r && c1 && c2 && c3);

  // The reservation contract: the slots behind the row are cleared and
  // counted, the caller gives them back.
  const int32_t len = Rlen(r), end = s.luf->Rstr.V[r] + len;
  s.luf->Ic.V[end] = 77;
  vlu::Make_Row_Space(s, r, 3);
  EXPECT_EQ(Rlen(r), len + 3);
  EXPECT_EQ(s.luf->Ic.V[end], 0);
  s.luf->Rlen.V[r] = len;

  Store(r, c1, 1.5, false);
  Store(r, c2, -2.5, false);
  EXPECT_EQ(s.iin->Mrex.V[r], 2);
  EXPECT_EQ(s.iin->Mcex.V[c1], 1);
  EXPECT_FALSE(vlu::IsTrue(s.iin->Clok.V[c1]));
  // A counted element in a row with a tail: the first tail element moves to
  // the end of the tail.
  const int32_t firstTail = s.luf->Rstr.V[r] + len;
  EXPECT_EQ(s.luf->Ic.V[firstTail], c1);
  Store(r, c3, 3.5, true);
  EXPECT_EQ(Rlen(r), len + 1);
  EXPECT_EQ(s.luf->Ic.V[firstTail], c3);
  EXPECT_EQ(s.luf->Ic.V[firstTail + 2], c1);
  EXPECT_TRUE(vlu::IsTrue(s.iin->Clok.V[c3]));
  // The same on the column side: column c1 has a tail.
  const int32_t r2 = Free_Row(c1, {r});
  ASSERT_NE(r2, 0);
  const int32_t q1 = s.luf->Cstr.V[c1] + Clen(c1);
  Store(r2, c1, 4.5, true);
  EXPECT_EQ(s.luf->Ir.V[q1], r2);
  EXPECT_EQ(s.luf->Ir.V[q1 + 1], r);

  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, Plus(before, {Elem(r, c1, 1.5, false), Elem(r, c2, -2.5, false),
                                 Elem(r, c3, 3.5, true), Elem(r2, c1, 4.5, true)}));
  EXPECT_EQ(s.iin->RowFill, 4);
  // Find_Element reaches tails from either side.
  EXPECT_EQ(s.luf->Ir.V[vlu::Find_Element(s, r, c2)], r);
  EXPECT_EQ(s.luf->Ir.V[vlu::Find_Element(s, r, c1)], r);
}

TEST_F(Storage, RemovalsRefillTheHoleAndKeepTheTailPacked) {
  Bump(Basis60());
  const int32_t r = Row_With(3), c1 = Free_Col(r), c2 = Free_Col(r, {c1});
  ASSERT_TRUE(r && c1 && c2);
  Store(r, c1, 1.0, false);
  Store(r, c2, 2.0, false);
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  // The first compressed element of r leaves: the last compressed one moves
  // into its place and the last tail element into the slot so freed.
  const int32_t p = s.luf->Rstr.V[r], j = s.luf->Ic.V[p], len = Rlen(r);
  const int32_t lastCompr = s.luf->Ic.V[p + len - 1];
  Drop(r, j);
  EXPECT_EQ(s.luf->Ic.V[p], lastCompr);
  EXPECT_EQ(s.luf->Ic.V[p + len - 1], c2);
  EXPECT_EQ(s.luf->Ic.V[p + len + 1], 0);
  EXPECT_EQ(s.iin->Mrex.V[r], 2);
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, Minus(before, r, j));
  // A column with a tail loses a counted element.
  const int32_t r2 = Free_Row(c1, {r});
  ASSERT_NE(r2, 0);
  Store(r2, c1, 5.0, true);
  ASSERT_TRUE(Check_Active(s, &before));
  const int32_t q0 = s.luf->Cstr.V[c1];
  Drop(r2, c1);
  EXPECT_EQ(s.luf->Ir.V[q0 + Clen(c1) + 1], 0);
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, Minus(before, r2, c1));
}

TEST_F(Storage, CompactionsPackEachRowAndColumnWithItsReserve) {
  Bump(Basis60());
  // The first row that can take one more gets a tail element, so that its
  // reserve reaches past the start of the next row (which cannot move up);
  // rows behind it lose elements, so that the rows behind those move down.
  const int32_t r = Row_With(2), c = Free_Col(r);
  ASSERT_TRUE(r && c);
  Store(r, c, 0.25, false);
  std::vector<int32_t> done = {r};
  for (int k = 0; k < 6; ++k) {
    const int32_t i = Row_With(3, done);
    ASSERT_NE(i, 0);
    done.push_back(i);
    Drop(i, s.luf->Ic.V[s.luf->Rstr.V[i]]);
    Drop(i, s.luf->Ic.V[s.luf->Rstr.V[i] + 1]);
  }
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  const double sf = env->Space_Factor;
  auto reserve = [&](int32_t len) { return int32_t(std::max(len + 1.0, sf * len)); };

  const std::vector<int32_t> rows = Rows();
  std::vector<int32_t> old(size_t(s.NumRow) + 1);
  for (int32_t i : rows) old[size_t(i)] = s.luf->Rstr.V[i];
  vlu::Compres_Rows(s);
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, before);
  EXPECT_EQ(Rows(), rows);
  // Each row starts right after the reserve of the one before, unless that
  // would move it up: then it stays.
  int32_t used = 0;
  for (int32_t i : rows) {
    EXPECT_EQ(s.luf->Rstr.V[i], std::min(used + 1, old[size_t(i)])) << "row " << i;
    used = s.luf->Rstr.V[i] - 1 + reserve(Rlen(i) + s.iin->Mrex.V[i]);
  }
  EXPECT_EQ(s.luf->RowFileUsed, used);
  EXPECT_EQ(s.St.Compres_Rows, 1);
  EXPECT_GT(s.St.Moved_Elements, 0);

  const std::vector<int32_t> cols = Cols();
  for (int32_t j : cols) old[size_t(j)] = s.luf->Cstr.V[j];
  vlu::Compres_Cols(s);
  ASSERT_TRUE(Check_Active(s, &after));  // also: every column on a cache line
  EXPECT_EQ(after, before);
  used = 0;
  for (int32_t j : cols) {
    EXPECT_EQ(s.luf->Cstr.V[j], std::min(used + 1, old[size_t(j)])) << "column " << j;
    used = (s.luf->Cstr.V[j] - 1 + reserve(Clen(j) + s.iin->Mcex.V[j]) + 7) / 8 * 8;
  }
  EXPECT_EQ(s.luf->ColFileUsed, used);
  // A second compaction finds nothing to move.
  const int64_t moved = s.St.Moved_Elements;
  vlu::Compres_Rows(s);
  vlu::Compres_Cols(s);
  EXPECT_EQ(s.St.Moved_Elements, moved);
}

TEST_F(Storage, AnEmptyRowKeepsItsPlaceAndAReserveOfOne) {
  Bump(Basis60());
  // Empty a row that is not the first; give its successor a gap to close.
  const std::vector<int32_t> rows = Rows();
  size_t k = 1;
  while (k + 2 < rows.size() && (Rlen(rows[k - 1]) < 2 || Rlen(rows[k]) < 1)) ++k;
  ASSERT_LT(k + 2, rows.size());
  const int32_t i = rows[k], next = rows[k + 1];
  while (Rlen(i) > 0) Drop(i, s.luf->Ic.V[s.luf->Rstr.V[i]]);
  Drop(rows[k - 1], s.luf->Ic.V[s.luf->Rstr.V[rows[k - 1]]]);
  vlu::Compres_Rows(s);
  ASSERT_TRUE(Check_Active(s));
  EXPECT_EQ(Rows(), rows);
  EXPECT_EQ(s.luf->Rstr.V[next], s.luf->Rstr.V[i] + 1);
  EXPECT_EQ(vlu::Row_Extra(s, i), 1);
}

TEST_F(Storage, SemiDenseModeReadsNoRowTails) {
  Bump(Basis60());
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  const int32_t r = Row_With(1), c = Free_Col(r);
  ASSERT_TRUE(r && c);
  s.Semi_Dense = true;
  for (int32_t i : Rows()) s.iin->Mrex.V[i] = 3;  // stale, never read
  const int32_t extra = vlu::Row_Extra(s, r);
  EXPECT_EQ(extra, s.luf->Rstr.V[s.iin->Rpnx.V[r]] - s.luf->Rstr.V[r] - Rlen(r));
  EXPECT_FALSE(vlu::Long_row(s, r));
  Store(r, c, 7.0, true);
  EXPECT_EQ(vlu::Row_Extra(s, r), extra - 1);
  vlu::Compres_Rows(s);
  vlu::Compres_Cols(s);
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, Plus(before, {Elem(r, c, 7.0, true)}));
}

TEST_F(Storage, LongRowsAndColumns) {
  // Column 1 and row 1 are full, the rest is a band; with a space factor of
  // 1.5 row 1 has 15 free slots behind it and column 1 has 18.
  luc::Cols c(30);
  for (int j = 1; j <= 30; ++j) {
    c[size_t(j - 1)].emplace_back(j, 4.0);
    if (j > 1) c[size_t(j - 1)].emplace_back(1, 1.0), c[0].emplace_back(j, 1.0);
    if (j > 2) c[size_t(j - 1)].emplace_back(j - 1, 0.5);
  }
  Bump(luc::From_Columns(30, c, true), false, 1.5);
  const int32_t full = 1;  // row 1 and place 1 (column 1)
  ASSERT_EQ(Rlen(full), 30);
  ASSERT_EQ(Clen(full), 30);
  ASSERT_EQ(vlu::Row_Extra(s, full), 15);
  ASSERT_EQ(vlu::Col_Extra(s, full), 18);
  s.Len_Piv_Row = s.Len_Piv_Col = 3;
  s.MarkBest = 4;
  EXPECT_TRUE(vlu::Long_row(s, full));
  EXPECT_TRUE(vlu::Long_col(s, full));
  // Not clearly longer than the pivot's: 30 <= 1.2 * 25 (single precision).
  s.Len_Piv_Row = s.Len_Piv_Col = 25;
  EXPECT_FALSE(vlu::Long_row(s, full));
  EXPECT_FALSE(vlu::Long_col(s, full));
  s.Len_Piv_Row = s.Len_Piv_Col = 24;
  EXPECT_TRUE(vlu::Long_row(s, full));
  // Not above Length_Lim.
  s.Length_Lim = 30;
  EXPECT_FALSE(vlu::Long_row(s, full));
  s.Length_Lim = 8;
  // A column whose bound may beat the pivot's count stays short.
  s.iin->Mlow.V[full] = 29;  // (rlow - 1)(Clen - 1) with rlow = 2
  s.MarkBest = 30;           // 29 * 28 < 29 * 30
  EXPECT_FALSE(vlu::Long_col(s, full));
  s.MarkBest = 28;
  EXPECT_TRUE(vlu::Long_col(s, full));
  // Without more room at hand than min(Len_Piv - 1, Extra_Crit) it is not
  // long; with a tail it is, except in semi-dense mode.
  s.Extra_Crit = 18;
  EXPECT_FALSE(vlu::Long_col(s, full));
  EXPECT_FALSE(vlu::Long_row(s, full));
  s.Extra_Crit = 17;
  EXPECT_TRUE(vlu::Long_col(s, full));
  EXPECT_FALSE(vlu::Long_row(s, full));
  s.Extra_Crit = 14;
  EXPECT_TRUE(vlu::Long_row(s, full));
  s.Extra_Crit = 18;
  s.iin->Mcex.V[full] = 1;
  s.iin->Mrex.V[full] = 1;
  EXPECT_TRUE(vlu::Long_col(s, full));
  EXPECT_TRUE(vlu::Long_row(s, full));
  s.Semi_Dense = true;
  EXPECT_FALSE(vlu::Long_col(s, full));
  EXPECT_FALSE(vlu::Long_row(s, full));
}

TEST_F(Storage, TheLastColumnAndRowGrowTheStoresWhenTheFileIsFull) {
  Bump(Basis60());
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  LUF *luf = s.luf;
  const int32_t lc = s.iin->CPlast, lr = s.iin->RPlast;
  // Pretend the column space ends right behind the last column: the
  // compaction cannot help, the active column structure must grow.
  const int32_t sizeIr = vlu::Size(luf->Ir);
  luf->ColASpace = luf->Cstr.V[lc] + Clen(lc) - 1;
  ASSERT_EQ(vlu::Col_Extra(s, lc), 0);
  const int32_t len = Clen(lc);
  vlu::Make_Col_Space(s, lc, 5);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_GE(vlu::Size(luf->Ir), 2 * sizeIr);
  EXPECT_EQ(luf->ColASpace, std::min({vlu::Size(luf->Ir), vlu::Size(s.iin->C2rp),
                                      vlu::Size(s.iin->R2cp)}));
  EXPECT_EQ(Clen(lc), len + 5);
  for (int32_t q = luf->Cstr.V[lc] + len; q < luf->Cstr.V[lc] + len + 5; ++q)
    EXPECT_EQ(luf->Ir.V[q], 0);
  EXPECT_EQ(luf->ColFileUsed, luf->Cstr.V[lc] - 1 + 2 * (len + 5));
  luf->Clen.V[lc] = len;
  EXPECT_EQ(s.St.Compres_Cols, 1);

  // The same for the last row.
  luf->ColASpace = luf->Rstr.V[lr] + Rlen(lr) - 1;
  const int32_t rl = Rlen(lr);
  vlu::Make_Row_Space(s, lr, 4);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(Rlen(lr), rl + 4);
  EXPECT_EQ(luf->RowFileUsed, luf->Rstr.V[lr] - 1 + 2 * (rl + 4));
  luf->Rlen.V[lr] = rl;
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, before);
}

TEST_F(Storage, MakeSpaceCompactsTheFileWhenItsEndIsFull) {
  Bump(Basis60());
  LUF *luf = s.luf;
  // A column c whose room is filled by a tail, behind a column of five or
  // more that is then emptied: a compaction brings c down by a cache line,
  // which is the room it needs.
  const std::vector<int32_t> cols = Cols();
  int32_t pred = 0, c = 0;
  for (size_t k = 0; k + 2 < cols.size() && c == 0; ++k)
    if (Clen(cols[k]) >= 5 && Clen(cols[k + 1]) >= 1) pred = cols[k], c = cols[k + 1];
  ASSERT_NE(c, 0);
  std::vector<int32_t> used;
  while (vlu::Col_Extra(s, c) > 0) {
    const int32_t r = Free_Row(c, used);
    ASSERT_NE(r, 0);
    used.push_back(r);
    vlu::Store_ele_in_both(s, r, c, 0.5 + int(used.size()), false);
  }
  while (Clen(pred) > 0) Drop(luf->Ir.V[luf->Cstr.V[pred]], pred);
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  luf->ColASpace = luf->ColFileUsed + 4;  // no room at the end of the file
  const int32_t len = Clen(c), start = luf->Cstr.V[c];
  vlu::Make_Col_Space(s, c, 1);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(s.St.Compres_Cols, 1);
  EXPECT_EQ(luf->Cstr.V[c], start - 8);
  EXPECT_EQ(Clen(c), len + 1);
  luf->Clen.V[c] = len;
  EXPECT_EQ(Cols(), cols);  // no move was needed
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, before);
}

TEST_F(Storage, FailedGrowthRaisesTheStopFlagAndReservesNothing) {
  Bump(Basis60());
  LUF *luf = s.luf;
  const int32_t lc = s.iin->CPlast;
  luf->ColASpace = luf->Cstr.V[lc] + Clen(lc) - 1;
  env->MaxHeap_Bytes = env->Mem_Current + 64;
  const int32_t len = Clen(lc);
  vlu::Make_Col_Space(s, lc, 5);
  EXPECT_TRUE(vlu::Stopped(s));
  EXPECT_FALSE(env->EnoughSpace);
  EXPECT_EQ(Clen(lc), len);
  vlu::Msg_Flush(env);
  EXPECT_TRUE(msgs.Has("Failure when attempting to increase Ir, C2rp, and R2cp")) << msgs.All();
}

// ---------------------------------------------------------------------------
// The dense work block and the block lists.

TEST_F(Storage, ShapesOfTheWorkBlock) {
  Bump(Basis60());
  IIN *iin = s.iin;
  auto sized = [&](int32_t size) {
    vlu::Deallocate_RVec(env, iin->Mmat);
    vlu::Allocate_RVec(env, iin->Mmat, size);
  };
  struct Case {
    int32_t size, rows, cols;
  };
  // sqrt + 0.5 cut in single precision; from 25 on a multiple of 8.
  for (const Case c : {Case{24, 5, 4}, Case{60, 8, 7}, Case{700, 24, 29}, Case{1000, 32, 31},
                       Case{1056, 32, 33}}) {
    sized(c.size);
    vlu::Define_Mmat_Rows(s);
    EXPECT_EQ(s.Mmat_Rows, c.rows) << c.size;
    EXPECT_EQ(s.Mmat_Cols, c.cols) << c.size;
  }
  sized(1247);
  vlu::Define_Mmat_Rows(s);
  ASSERT_EQ(s.Mmat_Rows, 32);
  ASSERT_EQ(s.Mmat_Cols, 38);
  s.Rowlft = 60;
  int32_t mr = 0, mc = 0;
  // A pivot that fits twice into the standing shape keeps it.
  s.Len_Piv_Col = 10;
  s.Len_Piv_Row = 12;
  vlu::Assign_Mmat(s, mr, mc);
  EXPECT_EQ(mr, 32);
  EXPECT_EQ(mc, 38);
  // (26 + e)(40 + e) = 1247 gives e = 3: 29 rounds to 32, which leaves 38
  // columns for a row of 40; 24 is too few rows: back to 29 x 43.
  s.Len_Piv_Col = 26;
  s.Len_Piv_Row = 40;
  vlu::Assign_Mmat(s, mr, mc);
  EXPECT_EQ(mr, 29);
  EXPECT_EQ(mc, 43);
  // (30 + e)(10 + e) = 1247: e = sqrt(1247 + 100) - 20 = 16.7, 46 -> 48.
  s.Len_Piv_Col = 30;
  s.Len_Piv_Row = 10;
  vlu::Assign_Mmat(s, mr, mc);
  EXPECT_EQ(mr, 48);
  EXPECT_EQ(mc, 25);
  EXPECT_GE(iin->Max_Mmat, 48);
  // Rows are capped by the rows left, then rounded to the nearest multiple
  // of 8.
  s.Rowlft = 35;
  vlu::Assign_Mmat(s, mr, mc);
  EXPECT_EQ(mr, 32);
  EXPECT_EQ(mc, 38);
  EXPECT_EQ(env->Exception, 0) << msgs.All();
}

TEST_F(Storage, BlockListsGrowWithTheirThreadSections) {
  Load(Basis60());
  env->Threads = 3;  // Rlin gets one section per thread
  int32_t elemnt = 0;
  ASSERT_TRUE(vlu::LU_Setup_Pass(env, &elemnt));
  s = Bump_State();
  s.vmi = env;
  s.vim = env->Vim;
  s.luf = env->Luf;
  s.iin = env->Iin;
  s.NumRow = 60;
  IIN *iin = s.iin;
  const int32_t old = iin->BlockSize;
  ASSERT_EQ(iin->Rlin.NumThread, 3);
  for (int32_t k = 1; k <= old; ++k) iin->Lisr.V[k] = k;
  iin->Max_Mmat = old + 1;
  vlu::Increase_Mmat_Lists(s);
  const int32_t want = std::min(2 * old, 60);
  EXPECT_EQ(iin->BlockSize, want);
  for (int32_t v : {vlu::Size(iin->Lisr), vlu::Size(iin->Rlol), vlu::Size(iin->Lngr),
                    vlu::Size(iin->Lisc), vlu::Size(iin->Clol), vlu::Size(iin->Lngc),
                    iin->Rlin.Length, iin->Clin.Length})
    EXPECT_EQ(v, want);
  EXPECT_EQ(iin->Rlin.NumThread, 3);
  for (int32_t p = want + 1; p <= iin->Rlin.Extent; ++p) ASSERT_EQ(iin->Rlin.Val[p], 0) << p;
  for (int32_t k = 1; k <= old; ++k) ASSERT_EQ(iin->Lisr.V[k], k);
  // Never beyond NumRow.
  iin->Max_Mmat = 1000;
  vlu::Increase_Mmat_Lists(s);
  EXPECT_EQ(iin->BlockSize, 60);
  EXPECT_FALSE(vlu::Stopped(s));
}

// ---------------------------------------------------------------------------
// LU_Space.

TEST_F(Storage, SpaceForASparsePivotCompactsAndGrowsTheStores) {
  Bump(Basis60());
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  // The U-file before: rows of the triangular phases, by element.
  auto uFile = [&]() {
    std::vector<std::tuple<int32_t, int32_t, double>> u;
    for (int32_t k = 1; k <= s.NumVTria; ++k) {
      const int32_t i = s.vim->Rnto.V[k];
      for (int32_t p = luf->Rstr.V[i]; p < luf->Rstr.V[i] + Rlen(i); ++p)
        u.emplace_back(i, luf->Ic.V[p], s.vim->AUrmat.Val[p]);
    }
    return u;
  };
  const auto u0 = uFile();
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  // A pivot of 20 x 20 with a count that predicts more fill than the files
  // hold: both files are compacted, then the stores grow.
  s.Len_Piv_Row = s.Len_Piv_Col = 20;
  s.MarkBest = 20000;
  const int32_t lUsed = luf->LFileUsed, lSize = vlu::Size(luf->Lmat);
  luf->LFileUsed = lSize - 10;  // so that this pivot's L column needs more
  const int32_t uSpace = luf->RowUSpace, aSpace = luf->ColASpace, first = luf->U_elefirst;
  vlu::LU_Space(s);
  luf->LFileUsed = lUsed;
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_FALSE(s.Dense_Now);
  EXPECT_EQ(s.St.Compres_Rows, 1);
  EXPECT_EQ(s.St.Compres_Cols, 1);
  EXPECT_GE(vlu::Size(luf->Lmat), 2 * lSize);
  EXPECT_GT(luf->ColASpace, aSpace);
  EXPECT_GT(luf->RowUSpace, uSpace);
  EXPECT_EQ(luf->U_elefirst - first, luf->RowUSpace - uSpace);  // the U-file moved up
  EXPECT_EQ(uFile(), u0);
  // Both files have the predicted fill at their ends now.
  const double fill = 2.0 * 20000 * 5 + s.Rowlft;
  const double top = std::min<double>(luf->U_elefirst - 20 * 5, luf->ColASpace - 1);
  EXPECT_GT(top, luf->RowFileUsed + fill);
  EXPECT_GT(top, luf->ColFileUsed + fill);
  // The work block: min(20 + 5 + 7, Rowlft) squared, and its shape.
  const int32_t side = std::min(32, s.Rowlft);
  EXPECT_GE(vlu::Size(iin->Mmat), side * side);
  EXPECT_GE(vlu::Size(luf->Ucmat), vlu::Size(iin->Mmat));
  EXPECT_EQ(s.Mmat_Cols, vlu::Size(iin->Mmat) / s.Mmat_Rows);
  EXPECT_GE(iin->Max_Mmat, std::min(26, s.Rowlft));
  EXPECT_GE(iin->BlockSize, std::min(iin->Max_Mmat, s.NumRow));
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, before);
}

TEST_F(Storage, SpaceForTheDenseRest) {
  Bump(Basis60());
  LUF *luf = s.luf;
  IIN *iin = s.iin;
  s.Dense = true;
  s.Semi_Dense = true;  // the switch has been made
  s.Len_Piv_Row = s.Len_Piv_Col = 4;
  luf->RowFileUsed = luf->U_elefirst - 5;  // the U triangle does not fit below U
  const int32_t n = s.Rowlft;
  vlu::LU_Space(s);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_TRUE(s.Dense_Now);
  EXPECT_EQ(s.MarkHigh, n * n);
  EXPECT_GT(luf->U_elefirst - n * (n + 1) / 2, luf->RowFileUsed);
  EXPECT_GE(vlu::Size(luf->Lmat), luf->LFileUsed + vlu::Elements_Left(s) + n * n);
  const int32_t ld = (n + 7) / 8 * 8;
  EXPECT_GE(vlu::Size(iin->Mmat), ld * n);
  EXPECT_GE(iin->Max_Mmat, ld);
}

// ---------------------------------------------------------------------------
// Paths that use the chain and list routines.

TEST_F(Storage, AColumnOrRowWithoutRoomMovesToTheTop) {
  NEEDS_LISTS();
  Bump(Basis60());
  LUF *luf = s.luf;
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  const std::vector<int32_t> cols = Cols();
  const int32_t c = cols[2];
  const int32_t need = vlu::Col_Extra(s, c) + 3, len = Clen(c);
  const int32_t oldUsed = luf->ColFileUsed;
  vlu::Make_Col_Space(s, c, need);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(s.iin->CPlast, c);
  EXPECT_EQ(luf->Cstr.V[c], (oldUsed + 7) / 8 * 8 + 1);
  EXPECT_EQ(Clen(c), len + need);
  EXPECT_EQ(luf->ColFileUsed, luf->Cstr.V[c] - 1 + 2 * (len + need));
  luf->Clen.V[c] = len;
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, before);

  const std::vector<int32_t> rows = Rows();
  const int32_t r = rows[1];
  const int32_t rneed = vlu::Row_Extra(s, r) + 2, rl = Rlen(r), oldRow = luf->RowFileUsed;
  vlu::Make_Row_Space(s, r, rneed);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(s.iin->RPlast, r);
  EXPECT_EQ(luf->Rstr.V[r], oldRow + 1);
  luf->Rlen.V[r] = rl;
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, before);
}

TEST_F(Storage, TheLastColumnOrRowMakesWayWhenItIsShorter) {
  NEEDS_LISTS();
  for (int rows = 0; rows < 2; ++rows) {
    SCOPED_TRACE(rows ? "rows" : "columns");
    Bump(Basis60());
    LUF *luf = s.luf;
    IIN *iin = s.iin;
    const int32_t last = rows ? iin->RPlast : iin->CPlast;
    const int32_t x = rows ? iin->Rppr.V[last] : iin->Cppr.V[last];
    auto len = [&](int32_t k) { return rows ? Rlen(k) : Clen(k); };
    auto start = [&](int32_t k) { return rows ? luf->Rstr.V[k] : luf->Cstr.V[k]; };
    ASSERT_GE(len(x), 1);
    while (len(last) >= len(x))
      rows ? Drop(last, luf->Ic.V[start(last)]) : Drop(luf->Ir.V[start(last)], last);
    Elems before, after;
    ASSERT_TRUE(Check_Active(s, &before));
    const int32_t at = start(x), lastAt = start(last);
    const int32_t need = (rows ? vlu::Row_Extra(s, x) : vlu::Col_Extra(s, x)) + 20;
    rows ? vlu::Make_Row_Space(s, x, need) : vlu::Make_Col_Space(s, x, need);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    EXPECT_EQ(start(x), at);  // x stays, the last one moved up
    EXPECT_GT(start(last), lastAt);
    EXPECT_EQ(rows ? iin->RPlast : iin->CPlast, last);
    (rows ? luf->Rlen.V[x] : luf->Clen.V[x]) -= need;
    ASSERT_TRUE(Check_Active(s, &after));
    EXPECT_EQ(after, before);
    EXPECT_GE(rows ? vlu::Row_Extra(s, x) : vlu::Col_Extra(s, x), need);

    // When the last one is not shorter, x itself goes to the top.
    Bump(Basis60());
    luf = s.luf;
    iin = s.iin;
    const int32_t last2 = rows ? iin->RPlast : iin->CPlast;
    const int32_t y = rows ? iin->Rppr.V[last2] : iin->Cppr.V[last2];
    ASSERT_GE(len(last2), 1);
    while (len(y) > len(last2))
      rows ? Drop(y, luf->Ic.V[start(y)]) : Drop(luf->Ir.V[start(y)], y);
    ASSERT_TRUE(Check_Active(s, &before));
    const int32_t more = (rows ? vlu::Row_Extra(s, y) : vlu::Col_Extra(s, y)) + 1;
    rows ? vlu::Make_Row_Space(s, y, more) : vlu::Make_Col_Space(s, y, more);
    ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
    EXPECT_EQ(rows ? iin->RPlast : iin->CPlast, y);
    EXPECT_GT(start(y), start(last2));
    (rows ? luf->Rlen.V[y] : luf->Clen.V[y]) -= more;
    ASSERT_TRUE(Check_Active(s, &after));
    EXPECT_EQ(after, before);
  }
}

TEST_F(Storage, RowTailCompressionAddsDuplicatesAndDropsSmallSums) {
  NEEDS_LISTS();
  Bump(Basis60(), true);
  IIN *iin = s.iin;
  const int32_t r = Row_With(5);
  const int32_t cNew = Free_Col(r, {}, 3), cSmall = Free_Col(r, {cNew});
  ASSERT_TRUE(r && cNew && cSmall);
  const int32_t cOld = s.luf->Ic.V[s.luf->Rstr.V[r]];  // counted already
  const double old = s.vim->AUrmat.Val[vlu::Find_Element(s, r, cOld)];
  const int32_t rZ = Free_Row(cNew, {r});
  ASSERT_NE(rZ, 0);
  Store(rZ, cNew, 0.75, false);  // cNew's tail does not start with row r
  const int32_t lenNew = Clen(cNew), lenOld = Clen(cOld), len = Rlen(r);
  Store(r, cNew, 1.25, false);
  Store(r, cOld, 0.5, false);
  Store(r, cSmall, 1e-3, false);
  Store(r, cSmall, -1e-3, false);  // cancels: the sum is small
  Store(r, cNew, 2.0, false);      // a second fill of a new place
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  const int32_t fill = iin->RowFill;
  vlu::Compres_Uncompressed_Row(s, r);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(iin->Mrex.V[r], 0);
  EXPECT_EQ(Rlen(r), len + 1);
  EXPECT_EQ(Clen(cNew), lenNew + 1);
  EXPECT_EQ(Clen(cOld), lenOld);
  EXPECT_EQ(iin->Mcex.V[cNew], 1);  // the element of row rZ
  EXPECT_EQ(iin->Mcex.V[cOld] + iin->Mcex.V[cSmall], 0);
  EXPECT_EQ(iin->RowFill, fill - 3);
  Elems want = Minus(Minus(Minus(before, r, cNew), r, cOld), r, cSmall);
  want = Plus(want, {Elem(r, cNew, 1.25 + 2.0, true), Elem(r, cOld, old + 0.5, true)});
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, want);
  for (int32_t k = 1; k <= s.NumRow; ++k) ASSERT_EQ(iin->Indx.V[k], 0) << k;
  // The lists follow the lengths.
  EXPECT_EQ(iin->Prvr.V[r], -Rlen(r));
  EXPECT_EQ(iin->Stcr.V[Rlen(r)], r);
  EXPECT_EQ(iin->Stcc.V[Clen(cNew)], cNew);
  EXPECT_FALSE(s.Need_Compression);
  EXPECT_EQ(env->Exception, 0) << msgs.All();
}

TEST_F(Storage, ColumnTailCompressionMirrorsTheRowOne) {
  NEEDS_LISTS();
  Bump(Basis60(), true);
  IIN *iin = s.iin;
  // Column c gets a tail of two: a new row, and a second fill of a counted
  // element that cancels it.  The row of that one keeps a tail elsewhere
  // and only this counted element: the small sum is left in place.
  int32_t c = 0;
  for (int32_t j : Cols())
    if (j != s.iin->CPlast && Clen(j) >= 3 && vlu::Col_Extra(s, j) >= 2) c = j;
  ASSERT_NE(c, 0);
  const int32_t rOld = s.luf->Ir.V[s.luf->Cstr.V[c]];
  const int32_t rNew = Free_Row(c, {rOld}, 2);
  ASSERT_NE(rNew, 0);
  ASSERT_GE(vlu::Row_Extra(s, rOld), 2);
  const int32_t cX = Free_Col(rOld, {c});
  ASSERT_NE(cX, 0);
  const double old = s.vim->AUrmat.Val[s.luf->Cstr.V[c]];
  const int32_t cY = Free_Col(rNew, {c});
  ASSERT_NE(cY, 0);
  Store(rNew, cY, -1.0, false);  // rNew's tail does not start with column c
  Store(rNew, c, 3.0, false);
  Store(rOld, c, -old, false);
  Store(rOld, cX, 1.0, false);
  while (Rlen(rOld) > 1) {
    const int32_t p = s.luf->Rstr.V[rOld];
    Drop(rOld, s.luf->Ic.V[p] == c ? s.luf->Ic.V[p + 1] : s.luf->Ic.V[p]);
  }
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  const int32_t len = Clen(c), lenNew = Rlen(rNew), fill = iin->RowFill;
  vlu::Compres_Uncompressed_Col(s, c);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_EQ(iin->Mcex.V[c], 0);
  EXPECT_FALSE(vlu::IsTrue(iin->Clok.V[c]));
  EXPECT_EQ(Clen(c), len + 1);
  EXPECT_EQ(Rlen(rNew), lenNew + 1);
  EXPECT_EQ(Rlen(rOld), 1);
  EXPECT_EQ(iin->Mrex.V[rOld], 1);
  EXPECT_TRUE(s.Need_Compression);
  EXPECT_EQ(iin->RowFill, fill - 1);
  Elems want = Minus(Minus(before, rNew, c), rOld, c);
  want = Plus(want, {Elem(rNew, c, 3.0, true), Elem(rOld, c, 0.0, true)});
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(after, want);
  for (int32_t k = 1; k <= s.NumRow; ++k) ASSERT_EQ(iin->Indx.V[k], 0) << k;
  EXPECT_EQ(iin->Stcr.V[Rlen(rNew)], rNew);
  EXPECT_EQ(iin->Stcc.V[Clen(c)], c);
  EXPECT_EQ(env->Exception, 0) << msgs.All();
}

TEST_F(Storage, ExtraCompressionLeavesNoTailInShortLists) {
  NEEDS_LISTS();
  Bump(Basis60(), true);
  IIN *iin = s.iin;
  std::vector<int32_t> done, cols;
  for (int k = 0; k < 4; ++k) {
    const int32_t r = Row_With(2, done), c = Free_Col(r, cols);
    ASSERT_TRUE(r && c);
    done.push_back(r);
    cols.push_back(c);
    Store(r, c, 1.0 + k, false);
  }
  Elems before, after;
  ASSERT_TRUE(Check_Active(s, &before));
  s.Length_Lim = s.NumRow + 1;
  s.Need_Compression = true;
  vlu::Do_Extra_Compression(s, 1);
  ASSERT_FALSE(vlu::Stopped(s)) << msgs.All();
  EXPECT_FALSE(s.Need_Compression);
  EXPECT_TRUE(s.Do_Restart);
  for (int32_t i : Rows()) EXPECT_EQ(iin->Mrex.V[i], 0) << i;
  for (int32_t j : Cols()) EXPECT_EQ(iin->Mcex.V[j], 0) << j;
  ASSERT_TRUE(Check_Active(s, &after));
  EXPECT_EQ(Values(after), Values(before));
  EXPECT_EQ(s.St.Compres_Tails, 4);
}

}  // namespace
