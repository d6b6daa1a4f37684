// The count and Markowitz lists, the pivot's place in the permutations and
// the physical chains, on a state built by hand: every store and removal is
// checked by walking the list it touched and its back links.
#include <gtest/gtest.h>

#include <vector>

#include "elimination/bump.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/records.h"
#include "runtime/vectors.h"
#include "support/lu_check.h"

namespace {

using Members = std::vector<int>;

struct Lists : luc::EnvTest {
  static constexpr int n = 12;
  vlu::Bump_State s;
  vlu::IIN *iin = nullptr;
  int *clen = nullptr, *rlen = nullptr;

  void SetUp() override {
    EnvTest::SetUp();
    Load(luc::All_Slack(n));
    iin = env->Iin;
    iin->MarkBad = 23;
    iin->MarkOver = 22;
    iin->MarkMax = 21;
    vlu::Allocate_Int(env, iin->Stmc, "IIN%Stmc", iin->MarkBad);
    for (vlu::IntVec *v : {&iin->Nxtc, &iin->Prvc, &iin->Nxtr, &iin->Prvr, &iin->Stcc, &iin->Stcr,
                           &iin->Stmc, &iin->Mact, &iin->Mlow, &iin->Mrow, &iin->Mcex, &iin->Mrex,
                           &iin->Rpnx, &iin->Rppr, &iin->Cpnx, &iin->Cppr, &env->Luf->Clen,
                           &env->Luf->Rlen})
      vlu::Clear_Int(env, *v);
    vlu::Define_Log(env, iin->Clok, vlu::LTrue);
    vlu::Ident_Int(env, env->Vim->Rnto);
    vlu::Ident_Int(env, env->Vim->Rotn);
    vlu::Ident_Int(env, env->Vim->Cnto);
    vlu::Ident_Int(env, env->Vim->Cotn);
    clen = env->Luf->Clen.V;
    rlen = env->Luf->Rlen.V;
    s.vmi = env;
    s.vim = env->Vim;
    s.luf = env->Luf;
    s.iin = iin;
    s.NumRow = n;
    s.Piv_Indx = 1;
    s.Rowlft = n;
    s.MIN_CC_List = s.MIN_RC_List = n;
    s.Min_M_InList = iin->MarkBad;
  }
  // Members of a column (row) list from its head; fails on a broken back
  // link or a first member without the key `headPrv`.
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
  // Clears a fatal error that a test provoked on purpose.
  void Recover() {
    env->Exception = 0;
    msgs.lines.clear();
  }
};

TEST_F(Lists, ColumnCountListsTakeNewMembersAtTheHead) {
  for (int j : {3, 5, 7}) clen[j] = 2;
  for (int j : {3, 5, 7}) vlu::Store_col_in_c_list(s, j, 2);
  EXPECT_EQ(Cols(iin->Stcc.V[2], -2), (Members{7, 5, 3}));
  EXPECT_EQ(s.MIN_CC_List, 2);
  EXPECT_FALSE(s.Search_Restart);  // lowered outside a search
  clen[9] = 1;
  s.In_Select_Pivot = true;
  vlu::Store_col_in_c_list(s, 9, 1);
  EXPECT_EQ(s.MIN_CC_List, 1);
  EXPECT_TRUE(s.Search_Restart);
  s.In_Select_Pivot = false;
  vlu::Store_col_in_c_list(s, 4, 0);
  vlu::Store_col_in_c_list(s, 11, 0);
  EXPECT_EQ(Cols(s.Ptr_Zero_Cols, 0), (Members{11, 4}));

  vlu::Remove_col_from_list(s, 5);  // inside
  EXPECT_EQ(Cols(iin->Stcc.V[2], -2), (Members{7, 3}));
  EXPECT_EQ(iin->Nxtc.V[5], 0);
  EXPECT_EQ(iin->Prvc.V[5], 0);
  vlu::Remove_col_from_list(s, 7);  // head
  EXPECT_EQ(Cols(iin->Stcc.V[2], -2), (Members{3}));
  vlu::Remove_col_from_C_head(s, 3, 2);
  EXPECT_EQ(iin->Stcc.V[2], 0);
  vlu::Remove_col_from_list(s, 11);  // head of the zero list
  EXPECT_EQ(Cols(s.Ptr_Zero_Cols, 0), (Members{4}));
  // A column that stands in no list leaves every head alone.
  vlu::Remove_col_from_list(s, 6);
  EXPECT_EQ(Cols(s.Ptr_Zero_Cols, 0), (Members{4}));
  EXPECT_EQ(env->Exception, 0) << Flushed();
}

TEST_F(Lists, RowListsAndTheScannedRowList) {
  for (int i : {1, 2}) rlen[i] = 1;
  for (int i : {6, 8, 10}) rlen[i] = 3;
  vlu::Store_Row_in_C_List(s, 1, 1);
  vlu::Store_Row_in_C_List(s, 2, 1);
  EXPECT_EQ(s.MIN_RC_List, 1);
  vlu::Store_Row_in_C_List(s, 12, 0);
  for (int i : {6, 8, 10}) vlu::Store_Row_in_M_List(s, i);
  EXPECT_EQ(Rows(s.Ptr_M_Rows, -1), (Members{10, 8, 6}));
  EXPECT_EQ(s.COUNT_MARK_ROW, 3);
  EXPECT_EQ(iin->Mrow.V[8], 1);
  // Both heads below have Prvr = -1: Mrow tells the scanned list from R-list 1.
  vlu::Remove_Row_from_List(s, 2);
  EXPECT_EQ(Rows(iin->Stcr.V[1], -1), (Members{1}));
  EXPECT_EQ(Rows(s.Ptr_M_Rows, -1), (Members{10, 8, 6}));
  vlu::Remove_Row_from_List(s, 10);
  EXPECT_EQ(Rows(s.Ptr_M_Rows, -1), (Members{8, 6}));
  EXPECT_EQ(iin->Mrow.V[10], 0);
  EXPECT_EQ(s.COUNT_MARK_ROW, 2);
  vlu::Remove_Row_from_List(s, 6);  // the last one
  EXPECT_EQ(Rows(s.Ptr_M_Rows, -1), (Members{8}));
  EXPECT_EQ(s.COUNT_MARK_ROW, 1);
  vlu::Remove_Row_from_C_Head(s, 1, 1);
  EXPECT_EQ(iin->Stcr.V[1], 0);
  vlu::Remove_Row_from_List(s, 12);
  EXPECT_EQ(s.Ptr_Zero_Rows, 0);
  EXPECT_EQ(env->Exception, 0) << Flushed();
}

TEST_F(Lists, MarkowitzListsCorrectTheirCounts) {
  const int bad = iin->MarkBad;  // 23
  for (int j = 1; j <= 8; ++j) clen[j] = 4;  // counts are multiples of 3
  vlu::Store_col_in_M_list(s, 1, 6);
  EXPECT_EQ(iin->Mact.V[1], 6);
  EXPECT_EQ(s.Min_M_InList, 6);
  EXPECT_FALSE(s.Search_Restart);
  vlu::Store_col_in_M_list(s, 2, vlu::Mark_Infinite);  // the top list
  vlu::Store_col_in_M_list(s, 3, bad);                 // kept, though not a multiple
  vlu::Store_col_in_M_list(s, 4, bad - 1);             // overflow
  vlu::Store_col_in_M_list(s, 5, 100);                 // overflow
  vlu::Store_col_in_M_list(s, 6, 0);                   // nothing at all
  EXPECT_EQ(Cols(iin->Stmc.V[bad], -bad), (Members{3, 2}));
  EXPECT_EQ(Cols(iin->Stmc.V[bad - 1], -(bad - 1)), (Members{5, 4}));
  EXPECT_EQ(iin->Mact.V[2], bad);
  EXPECT_EQ(iin->Mact.V[5], bad - 1);
  EXPECT_EQ(iin->Mact.V[6], 0);
  EXPECT_EQ(s.Count_Mark_Col, 5);
  EXPECT_EQ(s.St.Revisions, 5);
  s.In_Select_Pivot = true;
  vlu::Store_col_in_M_list(s, 7, 3);
  EXPECT_EQ(s.Min_M_InList, 3);
  EXPECT_TRUE(s.Search_Restart);
  EXPECT_EQ(env->Exception, 0) << Flushed();

  // Removal from inside, from the head, and from the head by the fast form.
  vlu::Store_col_in_M_list(s, 8, 6);
  EXPECT_EQ(Cols(iin->Stmc.V[6], -6), (Members{8, 1}));
  vlu::Remove_col_from_list(s, 1);
  EXPECT_EQ(Cols(iin->Stmc.V[6], -6), (Members{8}));
  EXPECT_EQ(iin->Mact.V[1], 0);
  vlu::Remove_col_from_list(s, 3);
  EXPECT_EQ(Cols(iin->Stmc.V[bad], -bad), (Members{2}));
  vlu::Remove_col_from_M_head(s, 8, 6);
  EXPECT_EQ(iin->Stmc.V[6], 0);
  EXPECT_EQ(iin->Mact.V[8], 0);
  EXPECT_EQ(s.Count_Mark_Col, 4);
  EXPECT_EQ(env->Exception, 0) << Flushed();

  // A count that is no multiple of Clen - 1 is a fault.
  vlu::Store_col_in_M_list(s, 8, 7);
  EXPECT_EQ(env->Exception, 99);
  EXPECT_NE(Flushed().find("**** Illegal M-Clen pair in column       8: Mbst=         7 Clen=       4"),
            std::string::npos)
      << Flushed();
}

TEST_F(Lists, HeadRemovalsReportWrongCalls) {
  clen[3] = clen[4] = 2;
  vlu::Store_col_in_c_list(s, 3, 2);
  vlu::Store_col_in_c_list(s, 4, 2);
  const struct {
    int col, cnt;
    const char *text;
  } faults[] = {{4, 0, "Remove_Col_from_C_Head(4,0). Count = 0 is wrong"},
                {3, 2, "Remove_Col_from_C_Head(3,2). Stcc=4"}};
  for (const auto &f : faults) {
    vlu::Remove_col_from_C_head(s, f.col, f.cnt);
    EXPECT_EQ(env->Exception, 99);
    EXPECT_NE(Flushed().find(f.text), std::string::npos) << Flushed();
    Recover();
  }
  iin->Prvc.V[4] = -3;  // the head with a wrong key
  vlu::Remove_col_from_C_head(s, 4, 2);
  EXPECT_NE(Flushed().find("Remove_Col_from_C_Head(4,2). Prvc=-3"), std::string::npos) << Flushed();
  Recover();
  iin->Prvc.V[4] = -2;
  rlen[5] = 2;
  vlu::Store_Row_in_C_List(s, 5, 2);
  vlu::Remove_Row_from_C_Head(s, 5, 3);
  EXPECT_NE(Flushed().find("Remove_Row_from_C_Head(5,3). Stcr=0"), std::string::npos) << Flushed();
  Recover();
  clen[6] = 3;
  vlu::Store_col_in_M_list(s, 6, 4);
  vlu::Remove_col_from_M_head(s, 6, 6);
  EXPECT_NE(Flushed().find("Error in Remove_Col_From_M_Head. Icol=6"), std::string::npos);
  EXPECT_NE(Flushed().find("but, Mact=4"), std::string::npos);
  Recover();
  // A scanned row must head its list with Prvr = -1.
  rlen[7] = 3;
  vlu::Store_Row_in_M_List(s, 7);
  iin->Prvr.V[7] = -3;
  vlu::Remove_Row_from_List(s, 7);
  EXPECT_NE(Flushed().find("Remove_Row_From_List: Irow=7 Mrow=1 and Prev=-3"), std::string::npos)
      << Flushed();
}

TEST_F(Lists, ClearClokMovesAColumnToItsLowerBound) {
  int *mact = iin->Mact.V, *mlow = iin->Mlow.V;
  const vlu::Logical *clok = iin->Clok.V;
  // A C-list member only loses its flag.
  clen[1] = 3;
  mlow[1] = 4;
  vlu::Store_col_in_c_list(s, 1, 3);
  vlu::CLEAR_Clok(s, 1, 2);
  EXPECT_FALSE(vlu::IsTrue(clok[1]));
  EXPECT_EQ(Cols(iin->Stcc.V[3], -3), (Members{1}));
  // Exact count equal to the bound: it stays.
  clen[2] = 4;
  mlow[2] = 6;
  vlu::Store_col_in_M_list(s, 2, 6);
  vlu::CLEAR_Clok(s, 2, 4);
  EXPECT_EQ(Cols(iin->Stmc.V[6], -6), (Members{2}));
  // A count above the bound: to the bound's list, with the multiple test on
  // the coming length (8 is a multiple of 5 - 1, not of 4 - 1).
  clen[3] = 4;
  mlow[3] = 8;
  vlu::Store_col_in_M_list(s, 3, 12);
  vlu::CLEAR_Clok(s, 3, 5);
  EXPECT_EQ(env->Exception, 0) << Flushed();
  EXPECT_EQ(iin->Stmc.V[12], 0);
  EXPECT_EQ(Cols(iin->Stmc.V[8], -8), (Members{3}));
  EXPECT_EQ(mact[3], 8);
  EXPECT_EQ(clen[3], 4);  // the length is the caller's
  // No bound, or a coming length below 2: a C-list.
  clen[4] = 4;
  vlu::Store_col_in_M_list(s, 4, 9);
  vlu::CLEAR_Clok(s, 4, 3);
  EXPECT_EQ(Cols(iin->Stcc.V[3], -3), (Members{4, 1}));
  EXPECT_EQ(mact[4], 0);
  clen[5] = 4;
  mlow[5] = 3;
  vlu::Store_col_in_M_list(s, 5, 9);
  vlu::CLEAR_Clok(s, 5, 0);
  EXPECT_EQ(Cols(s.Ptr_Zero_Cols, 0), (Members{5}));
  // The top lists: a bound at the overflow stays, a lower one moves.
  clen[6] = clen[7] = 4;
  mlow[6] = iin->MarkBad - 1;
  mlow[7] = 3;
  vlu::Store_col_in_M_list(s, 6, vlu::Mark_Infinite);
  vlu::Store_col_in_M_list(s, 7, vlu::Mark_Infinite);
  vlu::CLEAR_Clok(s, 6, 4);
  vlu::CLEAR_Clok(s, 7, 4);
  EXPECT_EQ(Cols(iin->Stmc.V[iin->MarkBad], -iin->MarkBad), (Members{6}));
  EXPECT_EQ(Cols(iin->Stmc.V[3], -3), (Members{7}));
  EXPECT_EQ(s.Count_Mark_Col, 4);  // 2, 3, 6, 7
  // Semi-dense mode: only the flag.
  s.Semi_Dense = true;
  vlu::Define_Log(env, iin->Clok, vlu::LTrue);
  vlu::CLEAR_Clok(s, 3, 2);
  EXPECT_FALSE(vlu::IsTrue(clok[3]));
  EXPECT_EQ(Cols(iin->Stmc.V[8], -8), (Members{3}));
  s.Semi_Dense = false;
  EXPECT_EQ(env->Exception, 0) << Flushed();
  // A count below its bound stops.
  mlow[2] = 9;
  vlu::CLEAR_Clok(s, 2, 4);
  EXPECT_EQ(env->Exception, 99);
  EXPECT_NE(Flushed().find("Mact is less than Mlow. STOP."), std::string::npos);
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
  ASSERT_EQ(s.Count_Mark_Col, 6);
  // 3/2 of 23 is 34, odd 35 = 5 * 7, so 37.
  vlu::Increase_Stmc(s);
  ASSERT_EQ(env->Exception, 0) << Flushed();
  EXPECT_EQ(iin->MarkBad, 37);
  EXPECT_EQ(iin->MarkOver, 36);
  EXPECT_EQ(iin->MarkMax, 35);
  EXPECT_GE(vlu::Size(iin->Stmc), 37);
  EXPECT_EQ(Cols(iin->Stmc.V[37], -37), (Members{2, 1}));
  EXPECT_EQ(mact[1], 37);
  EXPECT_EQ(mact[2], 37);
  EXPECT_EQ(iin->Stmc.V[23], 0);
  EXPECT_EQ(iin->Stmc.V[22], 0);
  EXPECT_EQ(iin->Stmc.V[36], 0);
  EXPECT_EQ(Cols(iin->Stmc.V[9], -9), (Members{3}));
  EXPECT_EQ(Cols(iin->Stmc.V[30], -30), (Members{5}));
  EXPECT_EQ(Cols(iin->Stcc.V[1], -1), (Members{4}));  // length 1: its C-list
  EXPECT_EQ(mact[4], 0);
  EXPECT_EQ(Cols(iin->Stmc.V[6], -6), (Members{6}));  // untouched
  EXPECT_EQ(s.Count_Mark_Col, 5);
  // MarkHigh above 3/2 of the size: 120 -> 121 = 11 * 11 -> 123 -> 125 -> 127.
  s.MarkHigh = 120;
  vlu::Increase_Stmc(s);
  EXPECT_EQ(iin->MarkBad, 127);
  EXPECT_EQ(Cols(iin->Stmc.V[127], -127), (Members{2, 1}));
  EXPECT_EQ(iin->Stmc.V[37], 0);
  // No memory: the message, the stop flag, nothing moved.
  env->MaxHeap_Bytes = env->Mem_Current;
  s.MarkHigh = 0;
  vlu::Increase_Stmc(s);
  EXPECT_FALSE(env->EnoughSpace);
  EXPECT_TRUE(vlu::Stopped(s));
  EXPECT_EQ(iin->MarkBad, 127);
  EXPECT_EQ(Cols(iin->Stmc.V[127], -127), (Members{2, 1}));
  EXPECT_NE(Flushed().find("Failure attempting to increase Stmc by"), std::string::npos);
}

TEST_F(Lists, PivotPositionsKeepThePermutationsInverse) {
  const int *rnto = env->Vim->Rnto.V, *rotn = env->Vim->Rotn.V;
  const int *cnto = env->Vim->Cnto.V, *cotn = env->Vim->Cotn.V;
  const struct {
    int indx, row, col;
  } pivots[] = {{3, 7, 5}, {4, 3, 4}, {5, 12, 1}, {6, 6, 12}};
  for (const auto &p : pivots) {
    s.Piv_Indx = p.indx;
    s.Piv_Row = p.row;
    s.Piv_Col = p.col;
    vlu::Set_Pivot_Position(s);
    EXPECT_EQ(rnto[p.indx], p.row);
    EXPECT_EQ(cnto[p.indx], p.col);
    for (int k = 1; k <= n; ++k) {
      ASSERT_EQ(rotn[rnto[k]], k);
      ASSERT_EQ(cotn[cnto[k]], k);
    }
  }
  // The displaced ones took the pivots' old places: row 3 (displaced to 7 by
  // the first pivot) was pivoted at 4, so row 4 went to 7; the pivot already
  // in place (row 6 at 6, column 4 at 4) moved nothing.
  EXPECT_EQ(rnto[7], 4);
  EXPECT_EQ(rnto[12], 5);
  EXPECT_EQ(rnto[6], 6);
  EXPECT_EQ(cnto[4], 4);
  EXPECT_EQ(cnto[1], 3);
  EXPECT_EQ(cnto[12], 6);
}

TEST_F(Lists, ChainsUnlinkAndLinkAtTheEnd) {
  vlu::IIN *c = iin;
  auto chain = [&](int first, const int *nx, const int *pr) { return Walk(first, 0, nx, pr); };
  for (int i : {4, 2, 9, 7}) vlu::Link_Row_Last(s, i);
  EXPECT_EQ(chain(c->RPfrst, c->Rpnx.V, c->Rppr.V), (Members{4, 2, 9, 7}));
  EXPECT_EQ(c->RPlast, 7);
  vlu::Unlink_Row(s, 2);  // inside
  vlu::Unlink_Row(s, 4);  // first
  vlu::Unlink_Row(s, 7);  // last
  EXPECT_EQ(chain(c->RPfrst, c->Rpnx.V, c->Rppr.V), (Members{9}));
  EXPECT_EQ(c->RPlast, 9);
  EXPECT_EQ(c->Rpnx.V[2], 0);
  EXPECT_EQ(c->Rppr.V[2], 0);
  vlu::Link_Row_Last(s, 4);  // a moved row goes to the end
  EXPECT_EQ(chain(c->RPfrst, c->Rpnx.V, c->Rppr.V), (Members{9, 4}));
  vlu::Unlink_Row(s, 9);
  vlu::Unlink_Row(s, 4);
  EXPECT_EQ(c->RPfrst, 0);
  EXPECT_EQ(c->RPlast, 0);

  for (int j : {1, 12, 5}) vlu::Link_Col_Last(s, j);
  vlu::Unlink_Col(s, 12);
  EXPECT_EQ(chain(c->CPfrst, c->Cpnx.V, c->Cppr.V), (Members{1, 5}));
  vlu::Unlink_Col(s, 5);
  vlu::Link_Col_Last(s, 12);
  EXPECT_EQ(chain(c->CPfrst, c->Cpnx.V, c->Cppr.V), (Members{1, 12}));
  EXPECT_EQ(c->CPlast, 12);
}

}  // namespace
