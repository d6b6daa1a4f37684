// Guarded vector primitives: effects, empty cases and the guards.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "runtime/primitives.h"
#include "runtime/vectors.h"
#include "runtime_env.h"

using namespace vlu;
using rt::Lines;

namespace {

TEST(Primitives, SectionsOfThreadVectors) {
  rt::Env e;
  RVec v;
  Allocate_RVec(e.v, v, 10, 3);
  ASSERT_EQ(v.Offset, 16);
  Define_Rvec(e.v, v, 2.5, 3);  // all 42, the gaps included
  for (int32_t i = 1; i <= 42; ++i) EXPECT_EQ(v.Val[i], 2.5) << i;
  Clear_Rvec(e.v, v);  // k not given: the first section only
  EXPECT_TRUE(v.Val[10] == 0.0 && v.Val[11] == 2.5);
  Clear_Rvec(e.v, v, 2);  // two sections: 16 + 10
  for (int32_t i = 1; i <= 42; ++i) EXPECT_EQ(v.Val[i], i <= 26 ? 0.0 : 2.5) << i;
  Define_Rvec(e.v, v, -1.0);
  EXPECT_TRUE(v.Val[10] == -1.0 && v.Val[11] == 0.0);

  RVec z;  // zero length: never touched past section 1, also with k
  Allocate_RVec(e.v, z, 0, 2);
  z.Val[1] = 7.0;
  Clear_Rvec(e.v, z, 2);
  Define_Rvec(e.v, z, 1.0, 2);
  EXPECT_EQ(z.Val[1], 7.0);

  RVec t;  // ClearS_Rvec may reach past Length up to the end of the view
  Allocate_RVec(e.v, t, 3, 2);
  Define_Rvec(e.v, t, 1.0, 2);
  ClearS_Rvec(e.v, t, t.Extent);
  for (int32_t i = 1; i <= t.Extent; ++i) EXPECT_EQ(t.Val[i], 0.0);
  EXPECT_TRUE(e.cap.calls.empty());
  Deallocate_RVec(e.v, v);
  Deallocate_RVec(e.v, z);
  Deallocate_RVec(e.v, t);
  EXPECT_TRUE(e.Balanced());
}

TEST(Primitives, PlainVectorsAndInnerForms) {
  rt::Env e;
  IntVec a, b, z1, z2;
  Allocate_Int(e.v, a, "A", 30);
  Allocate_Int(e.v, b, "B", 30);
  Allocate_Int(e.v, z1, "Z1", 0);
  Allocate_Int(e.v, z2, "Z2", 0);
  Ident_Int(e.v, a);
  CP_Int(e.v, a, b);
  ClearS_Int(e.v, b, 2);
  ClearP_Int(e.v, b, 9, 8);  // an empty range: silent
  ClearP_Int(e.v, b, 5, 6);
  for (int32_t i = 1; i <= 30; ++i) EXPECT_EQ(b[i], (i <= 2 || i == 5 || i == 6) ? 0 : i) << i;
  EXPECT_EQ(Find_Int(a.V, 5, 30, 9), 9);
  EXPECT_EQ(Find_Int(a.V, 10, 30, 9), 0);
  Clear_Int(e.v, z1);  // zero-length vectors are no failure
  CP_Int(e.v, z1, z2);
  EXPECT_TRUE(e.cap.calls.empty());
  for (IntVec *p : {&a, &b, &z1, &z2}) Deallocate_Int(e.v, *p, "X");
  EXPECT_TRUE(e.Balanced());

  int32_t iv[3] = {0, 2147483647, 5};
  Inc_Int(iv, 2);  // wraps, no overflow trap
  EXPECT_EQ(iv[1], -2147483647 - 1);
  EXPECT_EQ(iv[2], 6);
  uint8_t bytes[4];
  Put_Int4(bytes, -2);  // little endian, two's complement
  EXPECT_TRUE(bytes[0] == 0xfe && bytes[3] == 0xff);
  EXPECT_EQ(Get_Int4(bytes), -2);
}

TEST(Primitives, IndirectClearSparseOrWhole) {
  rt::Env e;
  LogVec l;
  IntVec ind;
  Allocate_Log(e.v, l, "IIN%Clok", 100);
  Allocate_Int(e.v, ind, "IIN%Indx", 21);
  for (int32_t j = 1; j <= 21; ++j) ind[j] = 2 * j;
  // Positions off the list are set too, so the two paths differ.
  Define_Log(e.v, l, LTrue);
  Clear_Log_Ind(e.v, l, ind, 20);  // 20 = 100 / 5: through the list
  for (int32_t i = 1; i <= 100; ++i) EXPECT_EQ(IsTrue(l[i]), !(i % 2 == 0 && i <= 40)) << i;
  Define_Log(e.v, l, LTrue);
  Clear_Log_Ind(e.v, l, ind, 21);  // above: the whole vector
  for (int32_t i = 1; i <= 100; ++i) EXPECT_FALSE(IsTrue(l[i])) << i;
  Define_Log(e.v, l, LTrue);
  Clear_Log_Ind(e.v, l, ind, 0);
  EXPECT_TRUE(IsTrue(l[2]));
  EXPECT_TRUE(e.cap.calls.empty());
  Deallocate_Log(e.v, l, "IIN%Clok");
  Deallocate_Int(e.v, ind, "IIN%Indx");
  EXPECT_TRUE(e.Balanced());
}

// One guard of each kind: the failure is reported under its number and the
// vectors are left alone.
TEST(Primitives, GuardFailuresCarryTheirNumbers) {
  struct Case {
    std::function<void(VMI *, RVec &, RVec &, IntVec &)> act;
    Lines text;
    int number;
  };
  const Case cases[] = {
      {[](VMI *m, RVec &, RVec &, IntVec &) { RVec none; Set_Name(none, "LUF%Lmat"); Clear_Rvec(m, none); },
       {" ** Fatal Error ** Clear_Rvec: Vector LUF%Lmat is not associated."}, 1821},
      {[](VMI *m, RVec &r, RVec &s, IntVec &) { CP_Rvec(m, r, s); },
       {" ** Fatal Error ** CP_Rvec: the two vectors VIM%Work1 and VIM%X1Row do not have the same size."}, 1803},
      {[](VMI *m, RVec &r, RVec &s, IntVec &) { CPS_Rvec(m, r, s, 6); },
       {" ** Fatal Error ** CPS_Rvec: Length info inconsistent with lengths of vectors.",
        "    VIM%Work1%Length=         5 and VIM%X1Row%Length=         6 and argument Length=         6"},
       1854},
      {[](VMI *m, RVec &, RVec &, IntVec &a) { ClearS_Int(m, a, 5); },
       {" ** Fatal Error ** ClearS_Int: Length and size info are inconsistent.",
        "    Size(vec)=         4 Length=         5"},
       1836},
      {[](VMI *m, RVec &, RVec &, IntVec &a) { ClearP_Int(m, a, 5, 3); },  // reversed, not empty
       {" ** Fatal Error ** ClearP_Int: Length and part info are inconsistent.",
        "    Size(vec)=         4 Ifr=         5 and Ito=         3"},
       18253},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text[0]);
    rt::Env e;
    RVec r, s;
    Set_Name(r, "VIM%Work1");
    Set_Name(s, "VIM%X1Row");
    IntVec a;
    Allocate_RVec(e.v, r, 5);
    Allocate_RVec(e.v, s, 6);
    Allocate_Int(e.v, a, "A", 4);
    Define_Rvec(e.v, s, 4.0);
    Define_Int(e.v, a, 5);
    c.act(e.v, r, s, a);
    EXPECT_EQ(e.Flushed(), rt::Failure(c.text, c.number, true));
    EXPECT_EQ(e.v->Exception, 99);
    EXPECT_TRUE(s.Val[1] == 4.0 && a[4] == 5);  // nothing written
    Deallocate_RVec(e.v, r);
    Deallocate_RVec(e.v, s);
    Deallocate_Int(e.v, a, "A");
  }
}

}  // namespace

TEST(Primitives, IntLookupFindsTheFirstMatchInsideItsBounds) {
  // Stretches of every length up to 40 and every start offset within a
  // block of four: two copies of the value, the first one is reported; a
  // copy just outside the bounds is not seen.
  std::vector<int32_t> v(64, 0);
  for (int32_t first = 1; first <= 4; ++first)
    for (int32_t last = first - 1; last <= first + 40; ++last) {
      std::fill(v.begin(), v.end(), 7);
      v[size_t(first - 1)] = 3;
      v[size_t(last + 1)] = 3;
      EXPECT_EQ(vlu::Int_Lookup(v.data(), first, last, 3), 0) << first << " " << last;
      for (int32_t at = first; at <= last; ++at) {
        v[size_t(at)] = 3;
        if (at + 2 <= last) v[size_t(at + 2)] = 3;
        EXPECT_EQ(vlu::Int_Lookup(v.data(), first, last, 3), at) << first << " " << last;
        v[size_t(at)] = 7;
        if (at + 2 <= last) v[size_t(at + 2)] = 7;
      }
    }
}
