// A factor call after another renews the environment in place: the vectors
// are released into spares kept with their slots and allocated again from
// them.  What the caller and the statistics see must be what a release and a
// fresh build give: the same factors bit for bit, the same vector sizes, the
// same memory statistics, and no block kept beyond the call or far larger
// than its vector.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "interface/state.h"
#include "runtime/block_cache.h"
#include "runtime/records.h"
#include "runtime/test_hooks.h"
#include "runtime/vectors.h"
#include "runtime_env.h"
#include "tools/case_io.h"
#include "support/lu_check.h"
#include "vardenlu.h"

namespace {

vlu_case::Case Load(const char *name) {
  vlu_case::Case c;
  std::string err;
  EXPECT_TRUE(vlu_case::Read_Case(std::string(VLU_TEST_DATA) + "/" + name, c, err)) << err;
  return c;
}

// Every slot of the records: its name, whether it is allocated, its size,
// and whether it holds a spare.
struct Slot_List {
  std::vector<std::string> slots;
  int spares = 0;
  int64_t capBytes = 0;  // blocks of the allocated vectors
  int oversize = 0;      // blocks more than twice their counted size (and a line)
  template <typename V> void Note(const char *name, const V &x, int64_t counted) {
    slots.push_back(std::string(name) + (x.Allocated() ? " " + std::to_string(vlu::Size(x)) : " -"));
    if (x.Spare != nullptr) ++spares;
    if (!x.Allocated()) return;
    capBytes += std::max<int64_t>(x.Cap, 8);
    if (x.Cap > 2 * counted + 64) ++oversize;
  }
  template <typename T, vlu::PlainKind K> void operator()(const char *name, vlu::PlainVec<T, K> &x) {
    Note(name, x, int64_t(x.Size) * int64_t(sizeof(T)));
  }
  template <typename T> void operator()(const char *name, vlu::RecVec<T> &x) {
    Note(name, x, int64_t(x.BaseSize) * int64_t(sizeof(T)));
    slots.back() += std::string(" ") + x.Name;  // the name the record gave it
  }
  void All(vlu::VMI *v) {
    vlu::ForEachVec(*v->Vim, *this);
    vlu::ForEachVec(*v->Luf, *this);
    vlu::ForEachVec(*v->Iin, *this);
    vlu::ForEachVec(*v->Bnd, *this);
  }
};

// What a factorization leaves: statistics, sizes, scalars and the factors.
struct Snapshot {
  std::vector<int64_t> stats;
  std::vector<std::string> slots;
  std::vector<double> scalars;
  std::vector<int32_t> ints;   // permutations, U-file and L-file structure, column copy
  std::vector<double> reals;   // their values
  bool operator==(const Snapshot &o) const {
    return stats == o.stats && slots == o.slots && scalars == o.scalars && ints == o.ints &&
           reals.size() == o.reals.size() &&
           std::memcmp(reals.data(), o.reals.data(), reals.size() * sizeof(double)) == 0;
  }
};

Snapshot Take(vlu::VMI *v) {
  Snapshot s;
  s.stats = {v->NumVec_Int, v->NumVec_Real, v->NumVec_Log, v->NumEle_Int, v->NumEle_Real,
             v->NumEle_Log, v->Mem_Current, v->Mem_Max,    v->Mem_Total};
  Slot_List l;
  l.All(v);
  s.slots = l.slots;
  const vlu::VIM *vim = v->Vim;
  const vlu::LUF *luf = v->Luf;
  s.scalars = {vim->Tol_Piv_Rel, vim->Max_UFac, vim->Min_Pivot, double(vim->Num_Sing),
               double(luf->NumVTria), double(luf->U_elefirst), double(luf->RowUSpace),
               double(luf->ColUSpace), double(luf->ColASpace), double(luf->U_colfirst),
               double(luf->LFileUsed), double(luf->L_Cols), double(v->Iin->MarkBad),
               double(v->Iin->BlockSize)};
  const int32_t n = vim->NumRow;
  for (int32_t k = 1; k <= n; ++k) {
    s.ints.push_back(vim->Rnto.V[k]);
    s.ints.push_back(vim->Cnto.V[k]);
    s.ints.push_back(vim->Rwcl.V[k]);
  }
  for (int32_t p = luf->U_elefirst; p <= luf->RowUSpace; ++p) {
    s.ints.push_back(luf->Ic.V[p]);
    s.reals.push_back(vim->AUrmat.Val[p]);
  }
  for (int32_t p = 1; p <= luf->LFileUsed; ++p) {
    s.ints.push_back(luf->Lrow.V[p]);
    s.ints.push_back(luf->Lpiv.V[p]);
    s.reals.push_back(luf->Lmat.Val[p]);
  }
  if (luf->ColCopy)
    for (int32_t p = luf->U_colfirst; p <= luf->ColUSpace; ++p) {
      s.ints.push_back(luf->Ir.V[p]);
      s.reals.push_back(luf->Ucmat.Val[p]);
    }
  return s;
}

class Renewal : public ::testing::Test {
 protected:
  void SetUp() override {
    vlu_destroy();
    vlu_regmsgcb(&lines, luc::Capture_Lines);
    ASSERT_EQ(vlu_create(), 0);
  }
  void TearDown() override {
    vlu::Test_Options = vlu::Test_Hooks();
    vlu::Test_Alloc_Fail_At = 0;
    vlu_destroy();
    vlu_regmsgcb(nullptr, nullptr);
  }
  static vlu::VMI *Env() { return vlu::Iface().env; }
  // The snapshot of `c` factorized in a new session.
  Snapshot Fresh(const vlu_case::Case &c, int expect) {
    vlu_destroy();
    EXPECT_EQ(vlu_create(), 0);
    EXPECT_EQ(luc::Factor(c, c.basis), expect);
    return Take(Env());
  }
  // Nothing is held outside the vectors once the call is over.
  void Expect_Settled() {
    Slot_List l;
    l.All(Env());
    EXPECT_EQ(l.spares, 0);
    EXPECT_EQ(l.oversize, 0);
    if (vlu::Block_Cache_Enabled()) {
      EXPECT_EQ(int64_t(vlu::Block_Live_Bytes()), l.capBytes);
      EXPECT_LE(vlu::Block_Cache_Bytes(), vlu::Block_Live_Bytes());
    }
  }
  luc::Messages lines;
};

// After bases of other sizes, of the same size and singular ones, the
// renewed environment holds what a fresh one holds, to the bit and to the
// byte of the statistics.
TEST_F(Renewal, RenewedEnvironmentIsTheFreshOne) {
  const vlu_case::Case ship = Load("ship04l"), shell = Load("shell"), gfrd = Load("gfrd-pnc"),
                       beacon = Load("beaconfd"), sing = Load("special-structurally-singular");
  const Snapshot shipFresh = Fresh(ship, 0), shellFresh = Fresh(shell, 0),
                 gfrdFresh = Fresh(gfrd, 0), beaconFresh = Fresh(beacon, 0);

  struct Step { const vlu_case::Case *c; int expect; const Snapshot *fresh; };
  const Step steps[] = {{&beacon, 0, &beaconFresh}, {&ship, 0, &shipFresh}, {&ship, 0, &shipFresh},
                        {&gfrd, 0, &gfrdFresh},     {&shell, 0, &shellFresh}, {&sing, 3, nullptr},
                        {&gfrd, 0, &gfrdFresh},     {&beacon, 0, &beaconFresh}};
  vlu_destroy();
  ASSERT_EQ(vlu_create(), 0);
  int k = 0;
  for (const Step &s : steps) {
    SCOPED_TRACE("step " + std::to_string(k++) + " " + s.c->name);
    ASSERT_EQ(luc::Factor(*s.c, s.c->basis), s.expect);
    if (s.fresh != nullptr) {
      EXPECT_TRUE(Take(Env()) == *s.fresh);
    }
    Expect_Settled();
  }
}

// A same-size call takes the blocks back: the matrix store stays where it
// was, and the records themselves are the same.
TEST_F(Renewal, SameSizeKeepsTheBlocks) {
  const vlu_case::Case ship = Load("ship04l");
  ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
  const vlu::VMI *env = Env();
  const vlu::VIM *vim = env->Vim;
  const double *jace = Env()->Vim->Jace.Val;
  const int32_t *rnum = Env()->Vim->Rnum.V;
  const int32_t *ic = Env()->Luf->Ic.V;
  ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
  EXPECT_EQ(Env(), env);
  EXPECT_EQ(Env()->Vim, vim);
  EXPECT_EQ(Env()->Vim->Jace.Val, jace);
  EXPECT_EQ(Env()->Vim->Rnum.V, rnum);
  EXPECT_EQ(Env()->Luf->Ic.V, ic);  // grown by the set-up, in place the second time
  Expect_Settled();
}

// From a large environment to a small one: the small vectors take the large
// blocks at first but end the call in blocks of their own size, and the
// cache keeps no more than the small environment uses.
TEST_F(Renewal, LargeToSmallEndsInSmallBlocks) {
  luc::Triangular big = luc::Make_Triangular(3000, luc::Shape::Upper, 3, true, 0.3);
  luc::Triangular small = luc::Make_Triangular(40, luc::Shape::Lower, 4, true, 0.3);
  ASSERT_EQ(luc::Factor(big.c, big.c.basis), 0);
  ASSERT_EQ(luc::Factor(small.c, small.c.basis), 0);
  Expect_Settled();
  EXPECT_LT(vlu::Block_Live_Bytes(), 60000u);
  std::vector<double> b(40, 1.0);
  EXPECT_LT(luc::Solve_Residual(small.c, small.c.basis, b), 1e-14);
  // and back: the large one again, as fresh
  ASSERT_EQ(luc::Factor(big.c, big.c.basis), 0);
  Expect_Settled();
  std::vector<double> bb(3000, 1.0);
  EXPECT_LT(luc::Solve_Residual(big.c, big.c.basis, bb), 1e-14);
}

// A renewal whose set-up runs out of memory returns 4 and leaves nothing,
// spares included, behind.
TEST_F(Renewal, FailedSetUpLeavesNothing) {
  const vlu_case::Case ship = Load("ship04l");
  ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
  // Count the requests of a whole call, then fail each in turn.
  const int64_t before = vlu::Test_Alloc_Count;
  ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
  const int64_t perCall = vlu::Test_Alloc_Count - before;
  ASSERT_GT(perCall, 40);
  for (int64_t at = 1; at <= perCall; at += 7) {
    SCOPED_TRACE(at);
    ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
    vlu::Test_Alloc_Fail_At = vlu::Test_Alloc_Count + at;
    testing::internal::CaptureStdout();
    const int rc = luc::Factor(ship, ship.basis);
    testing::internal::GetCapturedStdout();
    vlu::Test_Alloc_Fail_At = 0;
    ASSERT_EQ(rc, 4);
    EXPECT_EQ(Env(), nullptr);
    EXPECT_EQ(vlu::Block_Live_Bytes(), 0u);
  }
}

// With the allocation trace on, the release of the old environment is
// traced vector by vector, as a release without renewal does.
TEST_F(Renewal, AllocationTraceSeesTheRelease) {
  const vlu_case::Case ship = Load("ship04l");
  vlu::Test_Options.Trace_Memory = 1;
  ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
  lines.lines.clear();
  ASSERT_EQ(luc::Factor(ship, ship.basis), 0);
  EXPECT_TRUE(lines.Has("Deallocate_RVec: Vector VIM%Jace Associated=T Length="));
  EXPECT_TRUE(lines.Has("Allocate_RVec: Vector VIM%Jace has been allocated with"));
  vlu::Test_Options.Trace_Memory = 0;
}

// Spares and growth in place, one vector at a time: the statistics are those
// of the same calls without spares.
TEST(Spares, TakenBackGrownInPlaceAndCountedAsNew) {
  rt::Env plain, spare;
  vlu::IntVec a, b;
  vlu::RVec r, s;
  // The spare environment: blocks of 100 and 60 elements parked.
  vlu::Allocate_Int(spare.v, b, "VIM%Rnum", 100);
  vlu::Allocate_RVec(spare.v, s, 60);
  int32_t *blockB = b.V;
  double *blockS = s.Base;
  vlu::Park_Vector(spare.v, b);
  vlu::Park_Vector(spare.v, s);
  EXPECT_FALSE(b.Allocated());
  EXPECT_FALSE(s.Allocated());
  EXPECT_EQ(spare.v->Mem_Current, 0);
  EXPECT_EQ(spare.v->NumVec_Int + spare.v->NumVec_Real, 0);
  const int64_t total0 = spare.v->Mem_Total, max0 = spare.v->Mem_Max;
  spare.v->Mem_Total = spare.v->Mem_Max = 0;  // as a new environment

  // Smaller requests take the spares; growth within them stays in place and
  // keeps the contents.
  for (rt::Env *e : {&plain, &spare}) {
    vlu::IntVec &x = e == &plain ? a : b;
    vlu::RVec &y = e == &plain ? r : s;
    vlu::Allocate_Int(e->v, x, "VIM%Rnum", 30);
    vlu::Allocate_RVec(e->v, y, 20);
    for (int i = 1; i <= 30; ++i) x[i] = i;
    for (int i = 1; i <= 20; ++i) y[i] = 0.5 * i;
    vlu::Increase_Int(e->v, x, "VIM%Rnum", 60);
    vlu::Increase_RVec(e->v, y, 30);
  }
  EXPECT_EQ(b.V, blockB);
  EXPECT_EQ(s.Base, blockS);
  for (int i = 1; i <= 30; ++i) EXPECT_EQ(b[i], i);
  for (int i = 1; i <= 20; ++i) EXPECT_EQ(s[i], 0.5 * i);
  EXPECT_EQ(b.Size, 90);
  EXPECT_EQ(s.Length, 50);
  EXPECT_EQ(s.BaseSize, r.BaseSize);
  EXPECT_EQ(s.Extent, r.Extent);
  EXPECT_EQ(spare.v->Mem_Current, plain.v->Mem_Current);
  EXPECT_EQ(spare.v->Mem_Max, plain.v->Mem_Max);
  EXPECT_EQ(spare.v->Mem_Total, plain.v->Mem_Total);
  EXPECT_EQ(spare.v->NumEle_Int, plain.v->NumEle_Int);
  EXPECT_EQ(spare.v->NumEle_Real, plain.v->NumEle_Real);

  // Past the block it moves, as any growth does.
  vlu::Increase_Int(spare.v, b, "VIM%Rnum", 20);
  EXPECT_NE(b.V, blockB);
  EXPECT_EQ(b[30], 30);
  EXPECT_EQ(b.Cap, 110 * 4);

  // Settling leaves fitting blocks alone and moves one far too large.
  vlu::Settle_Vector(s);
  EXPECT_EQ(s.Base, blockS);
  vlu::IntVec c;
  vlu::Allocate_Int(spare.v, c, "VIM%Cnum", 1000);
  vlu::Park_Vector(spare.v, c);
  vlu::Allocate_Int(spare.v, c, "VIM%Cnum", 10);
  EXPECT_EQ(c.Cap, 4000);
  for (int i = 1; i <= 10; ++i) c[i] = 7 * i;
  vlu::Settle_Vector(c);
  EXPECT_EQ(c.Cap, 40);
  for (int i = 1; i <= 10; ++i) EXPECT_EQ(c[i], 7 * i);

  for (rt::Env *e : {&plain, &spare}) {
    vlu::IntVec &x = e == &plain ? a : b;
    vlu::RVec &y = e == &plain ? r : s;
    vlu::Deallocate_Int(e->v, x, "VIM%Rnum");
    vlu::Deallocate_RVec(e->v, y);
  }
  vlu::Deallocate_Int(spare.v, c, "VIM%Cnum");
  EXPECT_TRUE(plain.Balanced());
  EXPECT_TRUE(spare.Balanced());
  EXPECT_GT(total0, 0);
  EXPECT_GT(max0, 0);
}

// A spare that is not taken goes back with the release of its slot.
TEST(Spares, ReleaseGivesTheSpareBack) {
  rt::Env e;
  vlu::IntVec a;
  const size_t live = vlu::Block_Live_Bytes();
  vlu::Allocate_Int(e.v, a, "VIM%Rnum", 50);
  vlu::Park_Vector(e.v, a);
  EXPECT_EQ(vlu::Block_Live_Bytes(), live + 200);
  vlu::Deallocate_Int(e.v, a, "VIM%Rnum");
  EXPECT_EQ(a.Spare, nullptr);
  EXPECT_EQ(vlu::Block_Live_Bytes(), live);
  EXPECT_TRUE(e.Balanced());
}

}  // namespace
