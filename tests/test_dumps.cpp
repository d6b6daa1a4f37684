// Vector listings, record listings and the range check.
#include <gtest/gtest.h>

#include <regex>

#include "runtime/dumps.h"
#include "runtime/vectors.h"
#include "runtime_env.h"

using namespace vlu;
using rt::Lines;

namespace {

TEST(Dumps, ElementListsEmptyZeroAndValues) {
  rt::Env e;
  IntVec a;
  Allocate_Int(e.v, a, "A", 12);
  for (int32_t i = 1; i <= 12; ++i) a[i] = 0;
  PS_Int(e.v, a, "Rlen", 0);
  PS_Int(e.v, a, "Rlen", 12);
  for (int32_t i = 1; i <= 12; ++i) a[i] = i * 100;
  PS_Int(e.v, a, "Rlen", 12);
  PP_Int(e.v, a, "Part", 9, 2);
  EXPECT_EQ(e.Flushed(), (Lines{"Rlen : Empty.", "Rlen : Zero.", "Rlen",
                                "       1:        100        200        300        400        500        600        "
                                "700        800        900       1000",
                                "      11:       1100       1200", "Part", "      10:       1000       1100"}));
  EXPECT_EQ(e.v->Exception, 0);
  PS_Int(e.v, a, "Four", 13);  // longer than the vector: refused
  EXPECT_EQ(e.v->Exception, 99);
  Deallocate_Int(e.v, a, "A");
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
  EXPECT_EQ(e.Flushed(), (Lines{"Empty : Empty.", "Vector Rnto should have values between         1 and         9",
                                "Underflow has been found at         4 Value=         0",
                                "Overflow has been found at         5 Value=        12"}));
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_FALSE(Check_Int_Range(e.v, none, "None", 1, 2));
  EXPECT_EQ(e.v->Exception, 99);
  Deallocate_Int(e.v, a, "A");
  Deallocate_Int(e.v, z, "Z");
}

TEST(Dumps, RecordListing) {
  rt::Env e;
  LUF luf;
  Set_Name(luf.Lmat, "LUF%Lmat");
  e.v->Luf = &luf;
  const Lines header{"Vectors in VARDEN_LUFactor", "NAME            Address  Length in elements  Type"};
  VMI_Dump_LUF(e.v);
  EXPECT_EQ(e.Flushed(), header);  // nothing allocated: the headers only

  e.cap.calls.clear();
  Allocate_Int(e.v, luf.Lsor, "LUF%Lsor", 0);
  Allocate_Int(e.v, luf.Ic, "LUF%Ic", 25);
  Allocate_RVec(e.v, luf.Lmat, 10);
  VMI_Dump_LUF(e.v);
  const Lines lines = e.Flushed();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + 2), header);
  // name in 14, address at least 11 wide (never cut), length in 15, type
  const std::regex slot("(.{14})( *[0-9]+)( *[0-9]+)       (.*)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[2], m, slot)) << lines[2];
  EXPECT_EQ(m[1].str(), "LUF%Ic        ");
  EXPECT_GE(m[2].str().size(), 11u);
  EXPECT_EQ(m[3].str(), "             25");
  EXPECT_EQ(m[4].str(), "Integer");
  EXPECT_EQ(lines[3], "LUF%Lsor          **NoAddress**        0       Integer");
  ASSERT_TRUE(std::regex_match(lines[4], m, slot)) << lines[4];
  EXPECT_EQ(m[1].str(), "LUF%Lmat      ");
  EXPECT_EQ(std::stoll(m[2].str()), static_cast<long long>(reinterpret_cast<uintptr_t>(luf.Lmat.Val + 1)));
  EXPECT_EQ(m[4].str(), "Real");

  Deallocate_Int(e.v, luf.Lsor, "LUF%Lsor");
  Deallocate_Int(e.v, luf.Ic, "LUF%Ic");
  Deallocate_RVec(e.v, luf.Lmat);
  e.v->Luf = nullptr;
  EXPECT_TRUE(e.Balanced());
}

}  // namespace
