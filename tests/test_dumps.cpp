// Vector listings, record listings and the range check.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

#include "runtime/dumps.h"
#include "runtime/messages.h"
#include "runtime/vectors.h"
#include "runtime_env.h"

using namespace vlu;

namespace {

using Lines = std::vector<std::string>;

Lines Flushed(rt::Env &e) {
  Msg_Flush(e.v);
  return e.cap.Lines();
}

TEST(Dumps, EmptyZeroAndValues) {
  rt::Env e;
  IntVec a;
  Allocate_Int(e.v, a, "A", 12);
  for (int32_t i = 1; i <= 12; ++i) a[i] = 0;
  PS_Int(e.v, a, "Rlen", 0);
  PS_Int(e.v, a, "Rlen", 12);
  for (int32_t i = 1; i <= 12; ++i) a[i] = i * 100;
  PS_Int(e.v, a, "Rlen", 12);
  PP_Int(e.v, a, "Part", 9, 2);
  EXPECT_EQ(Flushed(e), (Lines{"Rlen : Empty.", "Rlen : Zero.", "Rlen",
                               "       1:        100        200        300        400        500        600        700"
                               "        800        900       1000",
                               "      11:       1100       1200", "Part", "      10:       1000       1100"}));
  EXPECT_EQ(e.v->Exception, 0);
  Deallocate_Int(e.v, a, "A");
}

TEST(Dumps, RealsAndLogicals) {
  rt::Env e;
  RVec r;
  Set_Name(r, "LUF%Lmat");
  Allocate_RVec(e.v, r, 3);
  r.Val[1] = 1.5;
  r.Val[2] = 0.0;
  r.Val[3] = -2.0;
  PV_RVec(e.v, r, "Lmat");
  LogVec l;
  Allocate_Log(e.v, l, "L", 3);
  l[1] = LTrue;
  l[2] = LFalse;
  l[3] = 3;  // lowest bit set: true
  PV_Log(e.v, l, "Clok");
  EXPECT_EQ(Flushed(e), (Lines{"Lmat", "       1:   1.5000000E+00   0.0000000E+00  -2.0000000E+00", "Clok",
                               "       1:  T  F  T"}));
  Deallocate_RVec(e.v, r);
  Deallocate_Log(e.v, l, "L");
}

TEST(Dumps, Guards) {
  rt::Env e;
  IntVec a, none;
  Allocate_Int(e.v, a, "A", 4);
  PS_Int(e.v, none, "Nothing", 1);
  PS_Int(e.v, a, "Four", 5);
  PP_Int(e.v, a, "Four", -1, 1);
  PP_Int(e.v, a, "Four", 2, 3);
  Lines want{" ** Systems Error **  Undefined vector in PS_Int: Nothing"};
  for (const std::string &s : rt::Fatal_Report(1506, true)) want.push_back(s);
  want.push_back(" ** Systems Error **  Illegal vector length in PS_Int for vector Four");
  want.push_back("Actual length=         4 and print length=         5");
  want.push_back(rt::Fatal_Report(1415, false)[0]);
  want.push_back(" ** Systems Error **  Negative Base pointer in PP_Int: Four");
  want.push_back(" Ibase=        -1");
  want.push_back(rt::Fatal_Report(1425, false)[0]);
  want.push_back(" ** Systems Error **  Illegal vector length in PP_Int for vector Four");
  want.push_back("Allocated length=         4 Ibase=         2 and print length=         3");
  want.push_back(rt::Fatal_Report(1427, false)[0]);
  EXPECT_EQ(Flushed(e), want);
  Deallocate_Int(e.v, a, "A");
}

TEST(Dumps, IndexedListings) {
  rt::Env e;
  IntVec v, ind, none;
  Allocate_Int(e.v, v, "V", 5);
  Allocate_Int(e.v, ind, "I", 2);
  for (int32_t i = 1; i <= 5; ++i) v[i] = 10 * i;
  ind[1] = 4;
  ind[2] = 2;
  PS_Int_Ind(e.v, v, ind, "Picked", 2);
  PS_Int_Ind(e.v, v, none, "Picked", 2);
  PS_Int_Ind(e.v, none, ind, "Picked", 2);
  RVec vals;
  Allocate_RVec(e.v, vals, 4);
  for (int32_t i = 1; i <= 4; ++i) vals.Val[i] = i;
  PV_RVecList(e.v, vals, ind, "List");
  PV_RvecIndexed(e.v, vals, ind, 1, 2, "Sparse");
  PV_RvecIndexed(e.v, vals, ind, 2, 2, "Sparse");
  Lines want{"Picked", "       1: (         4,        40) (         2,        20)",
             " ** Fatal Error ** PS_Int_Ind: Indirect Vector is not associated."};
  for (const std::string &s : rt::Fatal_Report(1821, true)) want.push_back(s);
  want.push_back(" ** Fatal Error ** PS_Int_Ind: Vector is not associated.");
  want.push_back(rt::Fatal_Report(1821, false)[0]);
  want.push_back("List");
  want.push_back("       1: (        4,  4.0000000E+00) (        2,  2.0000000E+00)");
  want.push_back("Sparse");
  want.push_back("       1: (        4,  1.0000000E+00) (        2,  2.0000000E+00)");
  want.push_back(" ** Systems Error **  Start of Vector Sparse plus its length passes the end.");
  want.push_back("Start=         2 Length=         2 Real size=         4 Integer size=         2");
  want.push_back(rt::Fatal_Report(1443, false)[0]);
  EXPECT_EQ(Flushed(e), want);
  Deallocate_Int(e.v, v, "V");
  Deallocate_Int(e.v, ind, "I");
  Deallocate_RVec(e.v, vals);
  EXPECT_TRUE(e.Balanced());
}

TEST(Dumps, RangeCheck) {
  rt::Env e;
  IntVec a, z, none;
  Allocate_Int(e.v, a, "A", 6);
  Allocate_Int(e.v, z, "Z", 0);
  const int32_t vals[] = {3, 1, 9, 0, 12, -5};
  for (int32_t i = 1; i <= 6; ++i) a[i] = vals[i - 1];
  EXPECT_TRUE(Check_Int_Range(e.v, a, "Rnto", -5, 12));
  EXPECT_TRUE(Check_Int_Range(e.v, z, "Empty", 1, 2));
  EXPECT_FALSE(Check_Int_Range(e.v, a, "Rnto", 1, 9));
  EXPECT_EQ(Flushed(e), (Lines{"Empty : Empty.", "Vector Rnto should have values between         1 and         9",
                               "Underflow has been found at         4 Value=         0",
                               "Overflow has been found at         5 Value=        12"}));
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_FALSE(Check_Int_Range(e.v, none, "None", 1, 2));
  EXPECT_EQ(e.v->Exception, 99);
  Deallocate_Int(e.v, a, "A");
  Deallocate_Int(e.v, z, "Z");
}

TEST(Dumps, RecordListings) {
  rt::Env e;
  LUF luf;
  Set_Name(luf.Lmat, "LUF%Lmat");
  Set_Name(luf.Ucmat, "LUF%Ucmat");
  e.v->Luf = &luf;
  VMI_Dump_LUF(e.v);
  EXPECT_EQ(Flushed(e), (Lines{"Vectors in VARDEN_LUFactor", "NAME            Address  Length in elements  Type"}));

  e.cap.Clear();
  Allocate_Int(e.v, luf.Lsor, "LUF%Lsor", 0);
  Allocate_Int(e.v, luf.Ic, "LUF%Ic", 25);
  Allocate_RVec(e.v, luf.Lmat, 10);
  VMI_Dump_LUF(e.v);
  const Lines lines = Flushed(e);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], "Vectors in VARDEN_LUFactor");
  EXPECT_EQ(lines[1], "NAME            Address  Length in elements  Type");
  const std::regex slot("(.{14})( *[0-9]+)( *[0-9]+)       (.*)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[2], m, slot)) << lines[2];
  EXPECT_EQ(m[1].str(), "LUF%Ic        ");
  EXPECT_EQ(m[3].str(), "             25");
  EXPECT_EQ(m[4].str(), "Integer");
  EXPECT_GE(m[2].str().size(), 11u);  // at least 11 wide; wider addresses are not cut
  EXPECT_EQ(lines[3], "LUF%Lsor          **NoAddress**        0       Integer");
  ASSERT_TRUE(std::regex_match(lines[4], m, slot)) << lines[4];
  EXPECT_EQ(m[1].str(), "LUF%Lmat      ");
  EXPECT_EQ(m[3].str(), "             10");
  EXPECT_EQ(m[4].str(), "Real");
  EXPECT_EQ(std::stoll(m[2].str()), static_cast<long long>(reinterpret_cast<uintptr_t>(luf.Lmat.Val + 1)));

  // At the content level the element lists follow.
  e.cap.Clear();
  e.v->Trace_Memory = 3;
  for (int32_t i = 1; i <= 25; ++i) luf.Ic[i] = 0;
  for (int32_t i = 1; i <= 10; ++i) luf.Lmat.Val[i] = 0.0;
  VMI_Dump_LUF(e.v);
  const Lines content = Flushed(e);
  ASSERT_EQ(content.size(), 9u);
  EXPECT_EQ(content[5], "Content of the Vectors:");
  EXPECT_EQ(content[6], "LUF%Ic : Zero.");
  EXPECT_EQ(content[7], "LUF%Lsor : Empty.");
  EXPECT_EQ(content[8], "LUF%Lmat : Zero.");
  e.v->Trace_Memory = 0;

  Deallocate_Int(e.v, luf.Lsor, "LUF%Lsor");
  Deallocate_Int(e.v, luf.Ic, "LUF%Ic");
  Deallocate_RVec(e.v, luf.Lmat);
  e.v->Luf = nullptr;
  EXPECT_TRUE(e.Balanced());
}

TEST(Dumps, EveryRecordHasItsTitle) {
  rt::Env e;
  VIM vim;
  IIN iin;
  VUM vum;
  VPI vpi;
  VDP vdp;
  BND bnd;
  e.v->Vim = &vim;
  e.v->Iin = &iin;
  e.v->Vum = &vum;
  e.v->Vpi = &vpi;
  e.v->Vdp = &vdp;
  e.v->Bnd = &bnd;
  VMI_Dump_All(e.v);
  const Lines lines = Flushed(e);
  const char *titles[] = {"User_Model", "Internal_Model", "Preproc_Info", "LUFactor", "Internal_Inversion",
                          "DefPost_Data", "Bending_Info"};
  ASSERT_EQ(lines.size(), 14u);
  for (int k = 0; k < 7; ++k) {
    EXPECT_EQ(lines[size_t(2 * k)], std::string("Vectors in VARDEN_") + titles[k]);
    EXPECT_EQ(lines[size_t(2 * k + 1)], "NAME            Address  Length in elements  Type");
  }
  e.v->Vim = nullptr;
  e.v->Iin = nullptr;
  e.v->Vum = nullptr;
  e.v->Vpi = nullptr;
  e.v->Vdp = nullptr;
  e.v->Bnd = nullptr;
}

TEST(Dumps, SlotListsNameEachVectorOnce) {
  std::set<const void *> seen;
  std::set<std::string> names;
  int n = 0;
  auto count = [&](const char *name, auto &v) {
    ++n;
    seen.insert(&v);
    names.insert(name);
  };
  VIM vim;
  LUF luf;
  IIN iin;
  BND bnd;
  VUM vum;
  ForEachVec(vim, count);
  EXPECT_EQ(n, 26);
  ForEachVec(luf, count);
  EXPECT_EQ(n, 26 + 12);
  ForEachVec(iin, count);
  EXPECT_EQ(n, 26 + 12 + 34);
  ForEachVec(bnd, count);
  ForEachVec(vum, count);
  EXPECT_EQ(n, 26 + 12 + 34 + 3);
  EXPECT_EQ(seen.size(), size_t(n));
  EXPECT_EQ(names.size(), size_t(n));
  EXPECT_EQ(names.count("LUF%Lmat"), 1u);
  EXPECT_EQ(names.count("IIN%Indr"), 1u);
}

}  // namespace
