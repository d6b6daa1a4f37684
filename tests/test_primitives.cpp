// Guarded vector primitives: effects, empty cases and the guard texts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/vectors.h"
#include "runtime_env.h"

using namespace vlu;

namespace {

using Lines = std::vector<std::string>;

// The lines of a run of guard failures: text lines, then the report line
// (the long text follows the first report only).
Lines Guard_Lines(const std::vector<std::pair<Lines, int>> &errors) {
  Lines all;
  bool first = true;
  for (const auto &e : errors) {
    for (const std::string &s : e.first) all.push_back(s);
    for (const std::string &s : rt::Fatal_Report(e.second, first)) all.push_back(s);
    first = false;
  }
  return all;
}

TEST(Primitives, ClearAndDefineSections) {
  rt::Env e;
  RVec v;
  Set_Name(v, "IIN%Mmat");
  Allocate_RVec(e.v, v, 10, 3);
  ASSERT_EQ(v.Offset, 16);
  Define_Rvec(e.v, v, 2.5, 3);  // all 42, the gaps included
  for (int32_t i = 1; i <= 42; ++i) EXPECT_EQ(v.Val[i], 2.5) << i;
  Clear_Rvec(e.v, v);  // first section only
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(v.Val[i], 0.0);
  for (int32_t i = 11; i <= 42; ++i) EXPECT_EQ(v.Val[i], 2.5);
  Clear_Rvec(e.v, v, 2);  // two sections: 16 + 10
  for (int32_t i = 1; i <= 26; ++i) EXPECT_EQ(v.Val[i], 0.0);
  for (int32_t i = 27; i <= 42; ++i) EXPECT_EQ(v.Val[i], 2.5);
  Define_Rvec(e.v, v, -1.0);
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(v.Val[i], -1.0);
  EXPECT_EQ(v.Val[11], 0.0);

  IVec w;
  Set_Name(w, "IIN%Rlin");
  Allocate_Ivec(e.v, w, 40, 2);
  for (int32_t i = 1; i <= w.Extent; ++i) w.Val[i] = i;
  Clear_IVec(e.v, w, 2);
  for (int32_t i = 1; i <= w.Extent; ++i) EXPECT_EQ(w.Val[i], 0);

  // Zero length: never cleared past section 1, also with k.
  RVec z;
  Allocate_RVec(e.v, z, 0, 2);
  z.Val[1] = 7.0;  // slack in section 2 territory: must stay
  Clear_Rvec(e.v, z, 2);
  Define_Rvec(e.v, z, 1.0, 2);
  EXPECT_EQ(z.Val[1], 7.0);
  EXPECT_TRUE(e.cap.calls.empty());
  Deallocate_RVec(e.v, v);
  Deallocate_IVec(e.v, w);
  Deallocate_RVec(e.v, z);
  EXPECT_TRUE(e.Balanced());
}

TEST(Primitives, PlainFillsIdentityAndCopies) {
  rt::Env e;
  IntVec a, b, z1, z2;
  LogVec l, m;
  LIntVec big;
  Allocate_Int(e.v, a, "A", 30);
  Allocate_Int(e.v, b, "B", 30);
  Allocate_Int(e.v, z1, "Z1", 0);
  Allocate_Int(e.v, z2, "Z2", 0);
  Allocate_Log(e.v, l, "L", 5);
  Allocate_Log(e.v, m, "M", 5);
  Allocate_LInt(e.v, big, "BIG", 3);
  Ident_Int(e.v, a);
  for (int32_t i = 1; i <= 30; ++i) EXPECT_EQ(a[i], i);
  CP_Int(e.v, a, b);
  for (int32_t i = 1; i <= 30; ++i) EXPECT_EQ(b[i], i);
  Inc_Int(b.V, 30);
  EXPECT_EQ(b[30], 31);
  Dec_Int(b.V, 2);
  EXPECT_EQ(b[1], 1);
  EXPECT_EQ(b[3], 4);
  ClearS_Int(e.v, b, 5);
  EXPECT_EQ(b[5], 0);
  EXPECT_EQ(b[6], 7);
  Define_Int(e.v, a, -4);
  EXPECT_EQ(a[1], -4);
  EXPECT_EQ(a[30], -4);
  Clear_Int(e.v, a);
  EXPECT_EQ(a[17], 0);
  Define_Int(e.v, big, int64_t(1) << 40);
  EXPECT_EQ(big[3], int64_t(1) << 40);
  Clear_LInt(e.v, big);
  EXPECT_EQ(big[2], 0);
  Define_Log(e.v, l, LTrue);
  CP_Log(e.v, l, m);
  EXPECT_TRUE(IsTrue(m[5]));
  // Zero-length vectors are no failure.
  Clear_Int(e.v, z1);
  CP_Int(e.v, z1, z2);
  Ident_Int(e.v, z1);
  ClearP_Int(e.v, z1, 3, 1);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(e.v->Exception, 0);

  EXPECT_EQ(Find_Int(a.V, 1, 30, 0), 1);
  Ident_Int(e.v, a);
  EXPECT_EQ(Find_Int(a.V, 5, 30, 9), 9);
  EXPECT_EQ(Find_Int(a.V, 10, 30, 9), 0);
  EXPECT_EQ(Find_Int(a.V, 9, 8, 9), 0);
  EXPECT_EQ(Int_Lookup(a.V, 1, 30, 30), 30);

  for (IntVec *p : {&a, &b, &z1, &z2}) Deallocate_Int(e.v, *p, "X");
  Deallocate_Log(e.v, l, "L");
  Deallocate_Log(e.v, m, "M");
  Deallocate_LInt(e.v, big, "BIG");
  EXPECT_TRUE(e.Balanced());
}

TEST(Primitives, ClearPartRanges) {
  rt::Env e;
  IntVec a;
  Allocate_Int(e.v, a, "A", 10);
  Define_Int(e.v, a, 1);
  ClearP_Int(e.v, a, 5, 4);  // the empty range: silent
  ClearP_Int(e.v, a, 3, 6);
  for (int32_t i = 1; i <= 10; ++i) EXPECT_EQ(a[i], (i >= 3 && i <= 6) ? 0 : 1) << i;
  EXPECT_TRUE(e.cap.calls.empty());
  ClearP_Int(e.v, a, 5, 3);
  ClearP_Int(e.v, a, 9, 11);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.Lines(),
            Guard_Lines({{{" ** Fatal Error ** ClearP_Int: Length and part info are inconsistent.",
                           "    Size(vec)=        10 Ifr=         5 and Ito=         3"},
                          18253},
                         {{" ** Fatal Error ** ClearP_Int: Length and part info are inconsistent.",
                           "    Size(vec)=        10 Ifr=         9 and Ito=        11"},
                          18253}}));
  EXPECT_EQ(a[9], 1);

  rt::Env f;
  RVec r;
  Set_Name(r, "LUF%Ucmat");
  IVec iv;
  Set_Name(iv, "IIN%Clin");
  Allocate_RVec(f.v, r, 8);
  Allocate_Ivec(f.v, iv, 8);
  Define_Rvec(f.v, r, 3.0);
  ClearP_Rvec(f.v, r, 8, 8);
  EXPECT_EQ(r.Val[7], 3.0);
  EXPECT_EQ(r.Val[8], 0.0);
  ClearP_Rvec(f.v, r, 9, 8);  // empty
  ClearP_Rvec(f.v, r, 0, 8);
  ClearP_IVec(f.v, iv, 2, 9);
  EXPECT_EQ(f.cap.Lines(),
            Guard_Lines({{{" ** Fatal Error ** ClearP_Rvec:  Length and part info are inconsistent.",
                           "    Vec%Length=         8 Ifr=         0 and Ito=         8"},
                          18251},
                         {{" ** Fatal Error ** ClearP_IVec:  Length and part info are inconsistent.",
                           "    Vec%Length=         8 Ifr=         2 and Ito=         9"},
                          18252}}));
  Deallocate_Int(e.v, a, "A");
  Deallocate_RVec(f.v, r);
  Deallocate_IVec(f.v, iv);
}

TEST(Primitives, IndirectClearSparseAndWholePaths) {
  rt::Env e;
  LogVec l;
  IntVec ind;
  Allocate_Log(e.v, l, "IIN%Clok", 100);
  Allocate_Int(e.v, ind, "IIN%Indx", 21);
  for (int32_t j = 1; j <= 21; ++j) ind[j] = 2 * j;
  // The positions outside the list are set too, so the two paths differ.
  Define_Log(e.v, l, LTrue);
  Clear_Log_Ind(e.v, l, ind, 20);  // 20 = 100 / 5: sparse
  for (int32_t i = 1; i <= 100; ++i) EXPECT_EQ(IsTrue(l[i]), !(i % 2 == 0 && i <= 40)) << i;
  Define_Log(e.v, l, LTrue);
  Clear_Log_Ind(e.v, l, ind, 21);  // above: the whole vector
  for (int32_t i = 1; i <= 100; ++i) EXPECT_FALSE(IsTrue(l[i])) << i;
  Define_Log(e.v, l, LTrue);
  Clear_Log_Ind(e.v, l, ind, 0);
  Clear_Log_Ind(e.v, l, ind, -3);
  EXPECT_TRUE(IsTrue(l[2]));

  RVec r;
  Set_Name(r, "VIM%WorkZ");
  Allocate_RVec(e.v, r, 50);
  Define_Rvec(e.v, r, 1.0);
  Clear_Rvec_Ind(e.v, r, ind, 10);
  for (int32_t i = 1; i <= 50; ++i) EXPECT_EQ(r.Val[i], (i % 2 == 0 && i <= 20) ? 0.0 : 1.0) << i;
  Clear_Rvec_Ind(e.v, r, ind, 11);
  for (int32_t i = 1; i <= 50; ++i) EXPECT_EQ(r.Val[i], 0.0) << i;
  EXPECT_TRUE(e.cap.calls.empty());

  IntVec none;
  RVec rnone;
  Set_Name(rnone, "VIM%Work1");
  Clear_Rvec_Ind(e.v, r, none, 1);
  Clear_Rvec_Ind(e.v, rnone, ind, 1);
  Clear_Log_Ind(e.v, l, none, 1);
  EXPECT_EQ(e.cap.Lines(),
            Guard_Lines({{{" ** Fatal Error ** Clear_Rvec_Ind: Indirect Vector is not associated."}, 1821},
                         {{" ** Fatal Error ** Clear_Rvec_Ind: Vector VIM%Work1 is not associated."}, 1821},
                         {{" ** Fatal Error ** Clear_Log_Ind: Indirect Vector is not associated."}, 1827}}));
  Deallocate_Log(e.v, l, "IIN%Clok");
  Deallocate_Int(e.v, ind, "IIN%Indx");
  Deallocate_RVec(e.v, r);
  EXPECT_TRUE(e.Balanced());
}

TEST(Primitives, NotAllocatedGuards) {
  rt::Env e;
  RVec r, r2;
  Set_Name(r, "LUF%Lmat");
  Set_Name(r2, "LUF%Ucmat");
  IVec iv;
  Set_Name(iv, "IIN%Rlin");
  IntVec a, b;
  LogVec l, m;
  LIntVec li;
  Clear_Rvec(e.v, r);
  Clear_IVec(e.v, iv);
  Clear_Int(e.v, a);
  Clear_LInt(e.v, li);
  ClearS_Rvec(e.v, r, 1);
  ClearS_Int(e.v, a, 1);
  ClearP_Rvec(e.v, r, 1, 1);
  ClearP_Int(e.v, a, 1, 1);
  Define_Rvec(e.v, r, 1.0);
  Define_Int(e.v, a, 1);
  Define_Log(e.v, l, LTrue);
  Ident_Int(e.v, a);
  CP_Rvec(e.v, r, r2);
  CP_Int(e.v, a, b);
  CP_Log(e.v, l, m);
  CPS_Rvec(e.v, r, r2, 1);
  EXPECT_EQ(e.cap.Lines(),
            Guard_Lines({{{" ** Fatal Error ** Clear_Rvec: Vector LUF%Lmat is not associated."}, 1821},
                         {{" ** Fatal Error ** Clear_IVec: Vector IIN%Rlin is not associated."}, 1821},
                         {{" ** Fatal Error ** Clear_Int: Vector is not associated."}, 1822},
                         {{" ** Fatal Error ** Clear_LInt: Vector is not associated."}, 1822},
                         {{" ** Fatal Error ** ClearS_Rvec: Vector LUF%Lmat is not associated."}, 1834},
                         {{" ** Fatal Error ** ClearS_Int: Vector is not associated."}, 1837},
                         {{" ** Fatal Error ** ClearP_Rvec: Vector LUF%Lmat is not associated."}, 1821},
                         {{" ** Fatal Error ** ClearP_Int: Vector is not associated."}, 1824},
                         {{" ** Fatal Error ** Define_Rvec: Vector LUF%Lmat is not associated."}, 1831},
                         {{" ** Fatal Error ** Define_Int: Vector is not associated."}, 1822},
                         {{" ** Fatal Error ** Define_Log: Vector is not associated."}, 1822},
                         {{" ** Fatal Error ** Ident_Int: Vector is not associated."}, 1823},
                         {{" ** Fatal Error ** CP_Rvec: First vector LUF%Lmat is not associated."}, 1801},
                         {{" ** Fatal Error ** CP_Int: First vector is not associated."}, 1811},
                         {{" ** Fatal Error ** CP_Log: First vector is not associated."}, 1811},
                         {{" ** Fatal Error ** CPS_Rvec: First vector LUF%Lmat is not associated."}, 1861}}));
  EXPECT_EQ(e.v->Exception, 99);

  rt::Env f;
  Allocate_RVec(f.v, r, 3);
  Allocate_Int(f.v, a, "A", 3);
  Allocate_Log(f.v, l, "L", 3);
  CP_Rvec(f.v, r, r2);
  CP_Int(f.v, a, b);
  CP_Log(f.v, l, m);
  CPS_Rvec(f.v, r, r2, 1);
  EXPECT_EQ(f.cap.Lines(),
            Guard_Lines({{{" ** Fatal Error ** CP_Rvec: Second vector LUF%Ucmat is not associated."}, 1802},
                         {{" ** Fatal Error ** CP_Int: Second vector is not associated."}, 1812},
                         {{" ** Fatal Error ** CP_Log: Second vector is not associated."}, 1812},
                         {{" ** Fatal Error ** CPS_Rvec: Second vector LUF%Ucmat is not associated."}, 1862}}));
  Deallocate_RVec(f.v, r);
  Deallocate_Int(f.v, a, "A");
  Deallocate_Log(f.v, l, "L");
  EXPECT_TRUE(f.Balanced());
}

TEST(Primitives, SizeGuards) {
  rt::Env e;
  RVec r, s;
  Set_Name(r, "VIM%Work1");
  Set_Name(s, "VIM%X1Row");
  IntVec a, b;
  LogVec l, m;
  Allocate_RVec(e.v, r, 5);
  Allocate_RVec(e.v, s, 6);
  Allocate_Int(e.v, a, "A", 4);
  Allocate_Int(e.v, b, "B", 5);
  Allocate_Log(e.v, l, "L", 1);
  Allocate_Log(e.v, m, "M", 2);
  for (int32_t i = 1; i <= 5; ++i) r.Val[i] = i;
  CPS_Rvec(e.v, r, s, 5);
  for (int32_t i = 1; i <= 5; ++i) EXPECT_EQ(s.Val[i], i);
  EXPECT_TRUE(e.cap.calls.empty());

  CP_Rvec(e.v, r, s);
  CP_Int(e.v, a, b);
  CP_Log(e.v, l, m);
  CPS_Rvec(e.v, r, s, 6);
  ClearS_Int(e.v, a, 5);
  Define_Rvec(e.v, r, 4.0);
  ClearS_Rvec(e.v, r, 6);  // reported, then the whole vector is cleared
  EXPECT_EQ(r.Val[5], 0.0);
  EXPECT_EQ(e.cap.Lines(),
            Guard_Lines({{{" ** Fatal Error ** CP_Rvec: the two vectors VIM%Work1 and VIM%X1Row do not have the "
                           "same size."},
                          1803},
                         {{" ** Fatal Error ** CP_Int: Two vectors do not have the same size.",
                           " Size(VecF)=         4 and Size(VecT)=         5"},
                          1813},
                         {{" ** Fatal Error ** CP_Log: Two vectors do not have the same size.",
                           " Size(VecF)=         1 and Size(VecT)=         2"},
                          1813},
                         {{" ** Fatal Error ** CPS_Rvec: Length info inconsistent with lengths of vectors.",
                           "    VIM%Work1%Length=         5 and VIM%X1Row%Length=         6 and argument "
                           "Length=         6"},
                          1854},
                         {{" ** Fatal Error ** ClearS_Int: Length and size info are inconsistent.",
                           "    Size(vec)=         4 Length=         5"},
                          1836},
                         {{" ** Fatal Error ** ClearS_Rvec: Length and size info are inconsistent.",
                           "    Size(vec)=         5 Length=         6"},
                          1835}}));
  // ClearS_Rvec may reach past Length up to the end of the view.
  RVec t;
  Allocate_RVec(e.v, t, 3, 2);
  Define_Rvec(e.v, t, 1.0, 2);
  const size_t before = e.cap.calls.size();
  ClearS_Rvec(e.v, t, t.Extent);
  for (int32_t i = 1; i <= t.Extent; ++i) EXPECT_EQ(t.Val[i], 0.0);
  EXPECT_EQ(e.cap.calls.size(), before);
  Deallocate_RVec(e.v, r);
  Deallocate_RVec(e.v, s);
  Deallocate_RVec(e.v, t);
  Deallocate_Int(e.v, a, "A");
  Deallocate_Int(e.v, b, "B");
  Deallocate_Log(e.v, l, "L");
  Deallocate_Log(e.v, m, "M");
  EXPECT_TRUE(e.Balanced());
}

TEST(Primitives, InnerFormsAndBytes) {
  std::vector<double> d(40, 3.0);
  Zero_Real(d.data(), 30);  // d[1..30]
  EXPECT_EQ(d[0], 3.0);
  EXPECT_EQ(d[30], 0.0);
  EXPECT_EQ(d[31], 3.0);
  std::vector<double> t(40, -1.0);
  Copy_Real(d.data(), t.data(), 39);
  EXPECT_EQ(t[0], -1.0);
  EXPECT_EQ(t[39], 3.0);
  std::vector<int32_t> iv(10, 5), jv(10, 0);
  Zero_Int(iv.data(), 3);
  Copy_Int(iv.data(), jv.data(), 9);
  EXPECT_EQ(jv[3], 0);
  EXPECT_EQ(jv[4], 5);
  Inc_Int(iv.data(), 9);
  EXPECT_EQ(iv[9], 6);
  iv[1] = 2147483647;
  Inc_Int(iv.data(), 1);  // wraps, no overflow trap
  EXPECT_EQ(iv[1], -2147483647 - 1);

  uint8_t b[4];
  Put_Int4(b, 0x01020304);
  EXPECT_EQ(b[0], 4);
  EXPECT_EQ(b[3], 1);
  EXPECT_EQ(Get_Int4(b), 0x01020304);
  Put_Int4(b, -2);
  EXPECT_EQ(b[0], 0xfe);
  EXPECT_EQ(b[3], 0xff);
  EXPECT_EQ(Get_Int4(b), -2);
}

}  // namespace
