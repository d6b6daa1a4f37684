// The consistency battery itself: on bumps part way through a real
// elimination, each kind of damage is found by the test that owns it, with
// its message; the tests run in their order and report as the options say;
// the schedule, the skip after a singularity, and the scratch vectors.
// (That a sound state passes every test the integration shows after every
// pivot of every case.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/bump_support.h"

namespace vlu {
extern int64_t Test_LUeqB_Budget;
}

namespace {

struct Battery : bmp::BumpTest {
  bool checkScratch = true;  // Run() expects HelpI and Work1 clear afterwards

  void TearDown() override {
    vlu::Test_LUeqB_Budget = -1;
    BumpTest::TearDown();
  }
  // A random bump of 60 after `steps` pivots of the elimination.
  void Begin(int steps) {
    ASSERT_NO_FATAL_FAILURE(Start(bmp::Random_Bump(60, 2, 2, 1)));
    for (int k = 0; k < steps; ++k) ASSERT_NO_FATAL_FAILURE(Pivot());
    env->Test_Full = 1;
    env->Test_LU = 1;
    s.Test_Next = s.Piv_Indx;
  }
  // The battery as the elimination runs it, with the options as they stand.
  int Run() {
    vlu::Reuse_Int(env, iin->Indr, "IIN%Indr", vim->HelpI, "VIM%HelpI");
    vlu::Inversion_Tests(s);
    vlu::Reuse_Int(env, vim->HelpI, "VIM%HelpI", iin->Indr, "IIN%Indr");
    vlu::Msg_Flush(env);
    for (int32_t i = 1; i <= s.NumRow && checkScratch; ++i)
      EXPECT_EQ(iin->Indr.V[i], 0) << "HelpI(" << i << ") left";
    for (int32_t i = 1; i <= s.NumRow; ++i)
      EXPECT_EQ(vim->Work1.Val[i], 0.0) << "Work1(" << i << ") left";
    return env->Exception;
  }
  bool Said(const std::string &text) const { return msgs.Has(text); }
  // The first active column with at least `len` compressed elements and no
  // tail (with an exact maximum above Rtpiva, if `exactMax`); 0 if none.
  int32_t Col_With(int32_t len, bool exactMax = false) const {
    for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
      const int32_t j = vim->Cnto.V[k];
      if (luf->Clen.V[j] >= len && iin->Mcex.V[j] == 0 &&
          (!exactMax || (vlu::IsTrue(iin->Clok.V[j]) && iin->Clmx.Val[j] > env->Rtpiva)))
        return j;
    }
    return 0;
  }
  // The first active column of an M-list below the top lists for which
  // `ok` holds; 0 if none.
  int32_t M_Col(const std::function<bool(int32_t mact, int32_t t)> &ok) const {
    for (int32_t k = s.Piv_Indx; k <= s.NumRow; ++k) {
      const int32_t j = vim->Cnto.V[k], m = iin->Mact.V[j];
      if (m > 0 && m < iin->MarkBad - 1 && ok(m, luf->Clen.V[j] - 1)) return j;
    }
    return 0;
  }
  // The head of the first C-list of columns with two members or more.
  int32_t C_Head() const {
    for (int32_t c = 1; c <= s.NumRow; ++c)
      if (iin->Stcc.V[c] != 0 && iin->Nxtc.V[iin->Stcc.V[c]] != 0) return iin->Stcc.V[c];
    return 0;
  }
};

// One kind of damage: what to break (false when the state offers nothing
// to break), the test that must fire, a piece of its message.
struct Damage {
  const char *what;
  int testFull;
  std::function<bool(Battery &)> apply;
  const char *test;
  const char *message;
};

TEST_F(Battery, EachKindOfDamageIsFoundByItsTest) {
  const Damage damages[] = {
      {"row permutation", 1,
       [](Battery &b) { return std::swap(b.vim->Rotn.V[1], b.vim->Rotn.V[2]), true; },
       "Test_Permutations", "Inconsistent row permutation in row"},
      {"column overlaps the next", 1,
       [](Battery &b) {
         const int32_t j = b.iin->CPfrst;
         return (b.luf->Clen.V[j] = b.luf->Cstr.V[b.iin->Cpnx.V[j]]), true;
       },
       "Test_Extra", "is negative."},
      {"column off its cache line", 1,
       [](Battery &b) {
         for (int32_t j = b.iin->CPfrst; j != 0; j = b.iin->Cpnx.V[j])
           if (vlu::Col_Extra(b.s, j) >= 1) return (b.luf->Cstr.V[j] += 1), true;
         return false;
       },
       "Test_Row_Col_Structure", "Cstr not on a cache line."},
      {"cross pointer C2rp", 1,
       [](Battery &b) {
         const int32_t j = b.Col_With(2), q = j != 0 ? b.luf->Cstr.V[j] : 0;
         return j != 0 && (std::swap(b.iin->C2rp.V[q], b.iin->C2rp.V[q + 1]), true);
       },
       "Test_Row_Col_Structure", "does not exist in the row structure."},
      {"cross pointer R2cp", 1,
       [](Battery &b) {
         const int32_t j = b.Col_With(2), q = j != 0 ? b.luf->Cstr.V[j] : 0;
         return j != 0 && (b.iin->R2cp.V[b.iin->C2rp.V[q]] = q + 1);
       },
       "Test_Row_Col_Structure", "Cross pointers are inconsistent"},
      {"shorter Clen", 1,
       [](Battery &b) {
         const int32_t j = b.Col_With(3);
         return j != 0 && (b.luf->Clen.V[j] -= 1);
       },
       "Test_Row_Col_Structure", "but no cross pointers."},
      {"U row of another length", 1,
       [](Battery &b) { return (b.luf->Rlen.V[b.vim->Rnto.V[b.s.Piv_Indx - 1]] += 1), true; },
       "Test_Order_in_Structure", "Test_Order_in_Structure(B)"},
      {"negative tail", 0,
       [](Battery &b) { return (b.iin->Mrex.V[b.vim->Rnto.V[b.s.NumRow]] = -1), true; },
       "Test_Length_Counts", "Test_Length_Counts: Error in row count in row"},
      {"row chain skips a row", 1,
       [](Battery &b) {
         const int32_t second = b.iin->Rpnx.V[b.iin->RPfrst];
         return (b.iin->Rpnx.V[b.iin->RPfrst] = b.iin->Rpnx.V[second]), true;
       },
       "Test_Length_Lists", "Test_Length_Lists: Error in Rpnx in row="},
      {"tail in a short C-list", 1,
       [](Battery &b) {
         for (int32_t c = 2; c < std::min(b.s.Len_Crit, b.s.Length_Lim); ++c)
           for (int32_t j = b.iin->Stcc.V[c]; j != 0; j = b.iin->Nxtc.V[j])
             if (vlu::Col_Extra(b.s, j) >= 1) {  // a tail of one removed slot
               b.luf->Ir.V[b.luf->Cstr.V[j] + b.luf->Clen.V[j]] = 0;
               return (b.iin->Mcex.V[j] = 1), true;
             }
         return false;
       },
       "Test_Mrex_Mcex", "in C-list"},
      {"a tail in semi-dense mode", 1,
       [](Battery &b) {
         const int32_t j = b.Col_With(1);
         b.s.Semi_Dense = true;
         return j != 0 && (b.iin->Mcex.V[j] = 1);
       },
       "Test_Extra", "Test_Extra with Semi_Dense: IIN%Mcex("},
      {"column maximum", 1,
       [](Battery &b) {
         const int32_t j = b.Col_With(1, true);
         return j != 0 && (b.iin->Clmx.Val[j] *= 2.0) > 0.0;
       },
       "Test_Clmx", "**Error in Clmx. NumVTria+1="},
      {"list link", 1,
       [](Battery &b) {  // the rest of a C-list cut off
         const int32_t j = b.C_Head();
         return j != 0 && ((b.iin->Nxtc.V[j] = 0), true);
       },
       "Test_Markowitz_Lists", "was not in list"},
      {"list back link", 1,
       [](Battery &b) {  // the second member of a C-list points back past the first
         const int32_t j = b.C_Head();
         return j != 0 && ((b.iin->Prvc.V[b.iin->Nxtc.V[j]] = -b.luf->Clen.V[j]), true);
       },
       "Test_Markowitz_Lists", "but the link before it is"},
      {"scanned-row count", 1, [](Battery &b) { return (b.s.COUNT_MARK_ROW += 1), true; },
       "Test_Markowitz_Lists", "COUNT_MARK_ROW="},
      {"HelpI not clear", 1,
       [](Battery &b) {
         return b.checkScratch = false, (b.iin->Indr.V[b.vim->Rnto.V[1]] = 7), true;
       },
       "Test_Markowitz_Lists", "Error in HelpI before calling Test_Markowitz_Lists."},
      {"lower bound no multiple", 1,
       [](Battery &b) {
         const int32_t j = b.M_Col([](int32_t, int32_t t) { return t > 1; });
         return j != 0 && ((b.iin->Mlow.V[j] += 1), true);
       },
       "Test_Markowitz_Counts", "which is not a multiple of clen-1="},
      {"lower bound above the count", 1,
       [](Battery &b) {
         const int32_t over = b.iin->MarkBad - 1;
         const int32_t j = b.M_Col([&](int32_t m, int32_t t) { return m + t < over; });
         return j != 0 && ((b.iin->Mlow.V[j] = b.iin->Mact.V[j] + b.luf->Clen.V[j] - 1), true);
       },
       "Test_Markowitz_Counts", "above Mact="},
      {"column chain back link", 1,
       [](Battery &b) { return (b.iin->Cppr.V[b.iin->CPlast] = b.iin->CPfrst), true; },
       "Test_Position", "Test_Position_CA"},
      {"L multiplier", 1,
       [](Battery &b) { return (b.luf->Lmat.Val[b.luf->LFileUsed] *= 1.5), true; }, "Test_LUeqB",
       "Test_LUeqB: Column"},
      {"U value", 1,
       [](Battery &b) { return (b.vim->AUrmat.Val[b.luf->U_elefirst] += 1e-6), true; },
       "Test_LUeqB", "Test_LUeqB: Column"},
      {"lost active element", 1,
       [](Battery &b) {
         const int32_t j = b.Col_With(2);
         if (j == 0) return false;
         b.iin->Clok.V[j] = vlu::LFalse;  // its maximum may go
         return (b.vim->AUrmat.Val[b.luf->Cstr.V[j]] = 0.0), true;
       },
       "Test_LUeqB", "Test_LUeqB: Column"},
  };
  // The product of Test_LUeqB runs element by element, or after a screen.
  for (int64_t budget : {int64_t(-1), int64_t(0)}) {
    for (const Damage &d : damages) {
      if (budget == 0 && std::string(d.test) != "Test_LUeqB") continue;
      SCOPED_TRACE(::testing::Message() << d.what << " budget " << budget);
      vlu::Test_LUeqB_Budget = budget;
      checkScratch = true;
      ASSERT_NO_FATAL_FAILURE(Begin(20));
      env->Test_Full = d.testFull;
      ASSERT_EQ(Run(), 0) << msgs.All();
      msgs.lines.clear();
      s.Test_Next = s.Piv_Indx;
      ASSERT_TRUE(d.apply(*this)) << "nothing to damage";
      EXPECT_EQ(Run(), 99);
      const int report = msgs.Find(": syserr=99 Time_Used=");
      ASSERT_GE(report, 0) << msgs.All();
      EXPECT_EQ(msgs.lines[size_t(report)].find(d.test), 0u) << msgs.All();
      EXPECT_TRUE(Said(d.message)) << msgs.All();
      EXPECT_TRUE(Said("**** Fatal System Error Number")) << msgs.All();
      EXPECT_TRUE(Said("After testing at Piv_Indx=")) << msgs.All();
    }
  }
}

TEST_F(Battery, TestsRunInOrderAndReportAsTheOptionsSay) {
  ASSERT_NO_FATAL_FAILURE(Begin(3));
  // Not due yet: nothing at all.
  s.Test_Next = s.Piv_Indx + 1;
  s.Test_Step = 4;
  EXPECT_EQ(Run(), 0);
  EXPECT_FALSE(Said("Starting Inversion_Tests"));
  // Due: it runs quietly and sets the next index.
  s.Test_Next = s.Piv_Indx;
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(Said("Starting Inversion_Tests"));
  EXPECT_FALSE(Said("Test_Permutations: syserr="));
  EXPECT_FALSE(Said("After testing at"));
  EXPECT_EQ(s.Test_Next, s.Piv_Indx + 4);
  // With the trace every call runs, and every test reports, in this order.
  msgs.lines.clear();
  env->Test_Trace = 1;
  EXPECT_EQ(Run(), 0);
  char line[128];
  std::snprintf(line, sizeof line,
                "Starting Inversion_Tests: Piv_Indx=%d Semi_dense=F DO_Squeeze=T", s.Piv_Indx);
  int last = msgs.Find(line);
  EXPECT_GE(last, 0) << msgs.All();
  for (const char *t :
       {"Test_Permutations: syserr=0", "Test_Extra - Mrex/Mcex and Row/Col_Extra: syserr=0",
        "Test_Row_Col_Structure - Structure: syserr=0",
        "Test_Order_in_Structure - Structure/Permutations: syserr=0",
        "Test_Length_Counts - Counts: syserr=0",
        "Test_Length_Lists - Start, Length and Next: syserr=0",
        "Test_Mrex_Mcex - Are Mrex and Mcex zero length short: syserr=0",
        "Test_Clmx - Column Max: syserr=0", "Test_Markowitz_Lists - Markowitz sort lists: syserr=0",
        "Test_Markowitz_Counts - Markowitz values: syserr=0", "Test_Position: syserr=0",
        "End of Test_LUeqB for Piv_Indx=", "Test_LUeqB: syserr=0"}) {
    const int at = msgs.Find(t);
    EXPECT_GT(at, last) << t << "\n" << msgs.All();
    last = std::max(last, at);
  }
  std::snprintf(line, sizeof line, "After testing at Piv_Indx=%d Rows processed=%d Syserr=0",
                s.Piv_Indx, s.Piv_Indx - 1 - s.NumVTria);
  EXPECT_TRUE(Said(line)) << msgs.All();
  // In semi-dense mode Test_Mrex_Mcex does not run; stale Mrex is not read.
  msgs.lines.clear();
  vlu::Switch_to_Semi_Dense(s, s.Piv_Indx);
  iin->Mrex.V[vim->Rnto.V[s.NumRow]] = 5;
  EXPECT_EQ(Run(), 0) << msgs.All();
  EXPECT_TRUE(Said("Semi_dense=T"));
  EXPECT_FALSE(Said("Test_Mrex_Mcex"));
}

TEST_F(Battery, ScratchSingularitiesAndFailures) {
  ASSERT_NO_FATAL_FAILURE(Begin(3));
  // A solve's result in Work1 does not disturb the product, which leaves it
  // clear; the work vectors go back.
  for (int32_t i = 1; i <= s.NumRow; ++i) vim->Work1.Val[i] = 1.0 + i;
  const int64_t vecs = env->NumVec_Int + env->NumVec_Real, mem = env->Mem_Current;
  EXPECT_EQ(Run(), 0) << msgs.All();
  EXPECT_EQ(env->NumVec_Int + env->NumVec_Real, vecs);
  EXPECT_EQ(env->Mem_Current, mem);
  // A recorded singularity skips the product.
  msgs.lines.clear();
  vim->Num_Sing = 1;
  luf->Lmat.Val[1] += 1.0;  // would fail it
  s.Test_Next = s.Piv_Indx;
  EXPECT_EQ(Run(), 0);
  EXPECT_TRUE(Said("Test_LUeqB skipped due to singularities."));
  EXPECT_FALSE(Said("End of Test_LUeqB"));
  // A failing product gives its vectors back too.
  vim->Num_Sing = 0;
  s.Test_Next = s.Piv_Indx;
  EXPECT_EQ(Run(), 99);
  EXPECT_EQ(env->NumVec_Int + env->NumVec_Real, vecs);
  // After a failure nothing more runs.
  msgs.lines.clear();
  s.Test_Next = s.Piv_Indx;
  EXPECT_EQ(Run(), 99);
  EXPECT_FALSE(Said("Starting Inversion_Tests"));
}

}  // namespace
