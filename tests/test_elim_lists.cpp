// The count and Markowitz lists on lengths set by hand: the head rule and
// the bounds of the search, the faults the head removals report, and
// Increase_Stmc's prime and its moves of the top lists.  (Whether the lists
// stay consistent through an elimination is the battery's to see; the
// corrections of the counts are pinned by the recorded factors.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/vectors.h"
#include "support/bump_support.h"

namespace {

using Members = std::vector<int>;

struct Lists : bmp::BumpTest {
  static constexpr int n = 12;
  int *clen = nullptr, *rlen = nullptr;

  // Twelve rows and columns, every list empty, lengths 0, lists of 23.
  void SetUp() override {
    BumpTest::SetUp();
    markBad = 23;
    ASSERT_NO_FATAL_FAILURE(Start(luc::All_Slack(n), false));
    ASSERT_EQ(iin->MarkBad, 23);
    ASSERT_GE(vlu::Size(iin->Stmc), 23);
    for (vlu::IntVec *v : {&luf->Clen, &luf->Rlen}) vlu::Zero_Int(v->V, n);
    vlu::Define_Log(env, iin->Clok, vlu::LTrue);
    clen = luf->Clen.V;
    rlen = luf->Rlen.V;
    s.Piv_Indx = 1;
    s.Rowlft = n;
    s.MIN_CC_List = s.MIN_RC_List = n;
  }
  // Members of a list from its head; a broken back link or a first member
  // without the key `headPrv` fails.
  Members Cols(int head, int headPrv) { return Walk(head, headPrv, iin->Nxtc.V, iin->Prvc.V); }
  Members Rows(int head, int headPrv) { return Walk(head, headPrv, iin->Nxtr.V, iin->Prvr.V); }
  Members Walk(int head, int headPrv, const int *nxt, const int *prv) {
    Members m;
    for (int x = head, before = 0; x != 0 && int(m.size()) <= n; before = x, x = nxt[x]) {
      EXPECT_EQ(prv[x], before == 0 ? headPrv : before) << "back link of " << x;
      m.push_back(x);
    }
    return m;
  }
  std::string Flushed() {
    vlu::Msg_Flush(env);
    return msgs.All();
  }
  // Expects the fatal error with `text` that the last call raised, and clears it.
  void Expect_Fault(const std::string &text) {
    EXPECT_EQ(env->Exception, 99);
    EXPECT_NE(Flushed().find(text), std::string::npos) << Flushed();
    env->Exception = 0;
    msgs.lines.clear();
  }
};

TEST_F(Lists, NewMembersEnterAtTheHeadAndLowerTheBoundsOfTheSearch) {
  for (int j : {3, 5, 7}) clen[j] = 2;
  for (int j : {3, 5, 7}) vlu::Store_col_in_c_list(s, j, 2);
  EXPECT_EQ(Cols(iin->Stcc.V[2], -2), (Members{7, 5, 3}));
  EXPECT_EQ(s.MIN_CC_List, 2);
  EXPECT_FALSE(s.Search_Restart);  // lowered outside a search
  vlu::Store_col_in_c_list(s, 4, 0);
  vlu::Store_col_in_c_list(s, 11, 0);
  EXPECT_EQ(Cols(s.Ptr_Zero_Cols, 0), (Members{11, 4}));
  for (int i : {6, 8, 10}) rlen[i] = 3;
  for (int i : {6, 8, 10}) vlu::Store_Row_in_M_List(s, i);
  EXPECT_EQ(Rows(s.Ptr_M_Rows, -1), (Members{10, 8, 6}));
  EXPECT_EQ(s.COUNT_MARK_ROW, 3);
  rlen[1] = 1;
  vlu::Store_Row_in_C_List(s, 1, 1);
  // Inside a search a store below a bound asks for a restart.
  s.In_Select_Pivot = true;
  clen[9] = 1;
  vlu::Store_col_in_c_list(s, 9, 1);
  EXPECT_EQ(s.MIN_CC_List, 1);
  EXPECT_TRUE(s.Search_Restart);
  s.Search_Restart = false;
  rlen[2] = 1;
  vlu::Store_Row_in_C_List(s, 2, 1);
  EXPECT_FALSE(s.Search_Restart);  // R-list 1 is not below MIN_RC_List = 1
  EXPECT_EQ(Rows(iin->Stcr.V[1], -1), (Members{2, 1}));

  // Removals: inside, at the head, the fast head form, a column in no list.
  vlu::Remove_col_from_list(s, 5);
  EXPECT_EQ(Cols(iin->Stcc.V[2], -2), (Members{7, 3}));
  EXPECT_EQ(iin->Nxtc.V[5] + iin->Prvc.V[5], 0);
  vlu::Remove_col_from_list(s, 7);
  vlu::Remove_col_from_C_head(s, 3, 2);
  EXPECT_EQ(iin->Stcc.V[2], 0);
  vlu::Remove_col_from_list(s, 11);
  vlu::Remove_col_from_list(s, 6);
  EXPECT_EQ(Cols(s.Ptr_Zero_Cols, 0), (Members{4}));
  // Both heads have Prvr = -1: Mrow tells the scanned list from R-list 1.
  vlu::Remove_Row_from_List(s, 2);
  vlu::Remove_Row_from_List(s, 10);
  EXPECT_EQ(Rows(iin->Stcr.V[1], -1), (Members{1}));
  EXPECT_EQ(Rows(s.Ptr_M_Rows, -1), (Members{8, 6}));
  EXPECT_EQ(iin->Mrow.V[10], 0);
  EXPECT_EQ(s.COUNT_MARK_ROW, 2);
  EXPECT_EQ(env->Exception, 0) << Flushed();
}

TEST_F(Lists, WrongRemovalsAreReported) {
  clen[3] = clen[4] = rlen[5] = 2;
  clen[6] = rlen[7] = 3;
  vlu::Store_col_in_c_list(s, 3, 2);
  vlu::Store_col_in_c_list(s, 4, 2);
  vlu::Store_Row_in_C_List(s, 5, 2);
  vlu::Store_col_in_M_list(s, 6, 4);
  vlu::Store_Row_in_M_List(s, 7);
  vlu::Remove_col_from_C_head(s, 4, 0);
  Expect_Fault("Remove_Col_from_C_Head(4,0). Count = 0 is wrong");
  vlu::Remove_col_from_C_head(s, 3, 2);
  Expect_Fault("Remove_Col_from_C_Head(3,2). Stcc=4");
  iin->Prvc.V[4] = -3;
  vlu::Remove_col_from_C_head(s, 4, 2);
  Expect_Fault("Remove_Col_from_C_Head(4,2). Prvc=-3");
  vlu::Remove_Row_from_C_Head(s, 5, 3);
  Expect_Fault("Remove_Row_from_C_Head(5,3). Stcr=0");
  vlu::Remove_col_from_M_head(s, 6, 6);
  Expect_Fault("but, Mact=4");
  iin->Prvr.V[7] = -3;  // a scanned row heads its list with Prvr = -1
  vlu::Remove_Row_from_List(s, 7);
  Expect_Fault("Remove_Row_From_List: Irow=7 Mrow=1 and Prev=-3");
}

TEST_F(Lists, IncreaseStmcRaisesToAPrimeAndMovesTheTopLists) {
  int *mact = iin->Mact.V, *mlow = iin->Mlow.V;
  for (int j = 1; j <= 6; ++j) clen[j] = 4;
  clen[4] = 1;
  vlu::Store_col_in_M_list(s, 1, vlu::Mark_Infinite);
  vlu::Store_col_in_M_list(s, 2, vlu::Mark_Infinite);
  mlow[3] = 9;
  mlow[4] = 0;
  mlow[5] = 30;
  for (int j : {3, 4, 5}) vlu::Store_col_in_M_list(s, j, 60);  // overflow
  vlu::Store_col_in_M_list(s, 6, 6);
  // 3/2 of 23 is 34, odd 35 = 5 * 7, so 37.
  vlu::Increase_Stmc(s);
  ASSERT_EQ(env->Exception, 0) << Flushed();
  EXPECT_EQ(iin->MarkBad, 37);
  EXPECT_EQ(iin->MarkOver, 36);
  EXPECT_EQ(iin->MarkMax, 35);
  EXPECT_GE(vlu::Size(iin->Stmc), 37);
  EXPECT_EQ(Cols(iin->Stmc.V[37], -37), (Members{2, 1}));
  EXPECT_EQ(mact[1], 37);
  for (int m : {22, 23, 36}) EXPECT_EQ(iin->Stmc.V[m], 0) << m;
  // The overflow list dealt out by the bounds; length 1 to its C-list.
  EXPECT_EQ(Cols(iin->Stmc.V[9], -9), (Members{3}));
  EXPECT_EQ(Cols(iin->Stmc.V[30], -30), (Members{5}));
  EXPECT_EQ(Cols(iin->Stcc.V[1], -1), (Members{4}));
  EXPECT_EQ(Cols(iin->Stmc.V[6], -6), (Members{6}));
  EXPECT_EQ(s.Count_Mark_Col, 5);
  // MarkHigh above 3/2 of the size: 120 -> 121 = 11 * 11 -> 123 -> 125 -> 127.
  s.MarkHigh = 120;
  vlu::Increase_Stmc(s);
  EXPECT_EQ(iin->MarkBad, 127);
  EXPECT_EQ(Cols(iin->Stmc.V[127], -127), (Members{2, 1}));
  // An even 3/2 gets its low bit: 190 -> 191, a prime.
  vlu::Increase_Stmc(s);
  EXPECT_EQ(iin->MarkBad, 191);
  // No memory: the message, the stop flag, nothing moved.
  env->MaxHeap_Bytes = env->Mem_Current;
  vlu::Increase_Stmc(s);
  EXPECT_TRUE(vlu::Stopped(s));
  EXPECT_EQ(iin->MarkBad, 191);
  EXPECT_EQ(Cols(iin->Stmc.V[191], -191), (Members{2, 1}));
  EXPECT_NE(Flushed().find("Failure attempting to increase Stmc by"), std::string::npos);
}

}  // namespace
