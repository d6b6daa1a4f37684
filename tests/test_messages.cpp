// The message channel: batching of document lines, the two calling styles,
// the catalogue, internal errors and a failing message routine.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime_env.h"

using namespace vlu;

namespace {

using Lines = std::vector<std::string>;

TEST(Messages, DocumentLinesAreBatchedUpToEighteen) {
  rt::Env e;
  for (int i = 1; i <= 17; ++i) Doc(e.v, "line %d", i);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(e.v->DMsg, 17);
  Doc(e.v, "line %d", 18);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  const rt::Call &c = e.cap.calls[0];
  EXPECT_EQ(c.smsg, 0);
  EXPECT_EQ(c.dmsg, 18);
  EXPECT_EQ(c.nmsg, 0);
  EXPECT_EQ(c.lines[0], "line 1");
  EXPECT_EQ(c.lines[17], "line 18");
  EXPECT_EQ(e.v->DMsg, 0);
}

TEST(Messages, KindFourAtSeventeenGoesToTwenty) {
  rt::Env e;
  for (int i = 1; i <= 17; ++i) Doc(e.v, "x");
  Msg_Set(e.v, "middle");
  Vd2doc(e.v, 4);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.cap.calls[0].dmsg, 20);
  EXPECT_EQ(e.cap.calls[0].lines[17], " ");
  EXPECT_EQ(e.cap.calls[0].lines[18], "middle");
  EXPECT_EQ(e.cap.calls[0].lines[19], " ");

  // Kinds 2 and 3 put the empty line before and after.
  e.cap.Clear();
  Msg_Set(e.v, "two");
  Vd2doc(e.v, 2);
  Msg_Set(e.v, "three");
  Vd2doc(e.v, 3);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.Lines(), (Lines{" ", "two", "three", " "}));
}

TEST(Messages, EmptyLineIsASingleBlankAndTrailingBlanksGo) {
  rt::Env e;
  Doc(e.v, "%s", "");
  Doc(e.v, "   keep leading   ");
  Msg_Flush(e.v);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{" ", "   keep leading"}));
  // The block is blank again after the send: a shorter line shows no rest.
  Doc(e.v, "ab");
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.calls[1].lines, (Lines{"ab"}));
}

TEST(Messages, WorkLineIsCutAt133) {
  rt::Env e;
  const std::string longText(200, 'q');
  Doc(e.v, "%s", longText.c_str());
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.Lines(), (Lines{std::string(133, 'q')}));
}

TEST(Messages, Vd2bothSendsAtOnceForScreenAndDocument) {
  rt::Env e;
  Doc(e.v, "pending");
  Msg_Set(e.v, "both");
  Vd2both(e.v, 1);
  ASSERT_EQ(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.cap.calls[0].dmsg, 1);
  EXPECT_EQ(e.cap.calls[0].smsg, 0);
  EXPECT_EQ(e.cap.calls[1].smsg, 1);
  EXPECT_EQ(e.cap.calls[1].dmsg, 1);
  EXPECT_EQ(e.cap.calls[1].lines, (Lines{"both"}));
  Msg_Set(e.v, "four");
  Vd2both(e.v, 4);
  EXPECT_EQ(e.cap.calls[2].smsg, 3);
  EXPECT_EQ(e.cap.calls[2].lines, (Lines{" ", "four", " "}));
}

TEST(Messages, IllegalKindAppendsNothing) {
  rt::Env e;
  testing::internal::CaptureStdout();
  Msg_Set(e.v, "lost");
  Vd2doc(e.v, 7);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("Type Parameter is illegal in Vd2doc =7"), std::string::npos) << out;
  EXPECT_EQ(e.v->DMsg, 0);
}

TEST(Messages, CatalogueEntries) {
  rt::Env e;
  Vdnmsg(e.v, 2160, 0, 0, 0.0, 0.0, true, true);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.cap.calls[0].smsg, 7);
  EXPECT_EQ(e.cap.calls[0].dmsg, 7);
  EXPECT_EQ(e.cap.calls[0].nmsg, 7);
  EXPECT_EQ(e.cap.calls[0].lines,
            (Lines{" ", " ** Overflow or Nan (Not A Number) has been encountered indicating",
                   "    numerical difficulties. Trying to repair by increasing the",
                   "    absolute and relative pivot tolerances (Rtpiva and Rvpivr)",
                   "    and allowing small values to be scaled up by decreasing",
                   "    the minimum scale factor, Tol_Scale_Min.", " "}));
  e.cap.Clear();
  Vdnmsg(e.v, 2161, 0, 0, 0.0, 0.0, true, true);
  Vdnmsg(e.v, 2145, 0, 0, 0.0, 0.0, true, true);
  Vdnmsg(e.v, 3022, 0, 0, 0.0, 0.0, true, true);
  Vdnmsg(e.v, 3023, 0, 0, 0.0, 0.0, true, true);
  Vdnmsg(e.v, 3024, 0, 0, 0.0, 0.0, true, true);
  Vdnmsg(e.v, 3030, 0, 0, 0.0, 0.0, true, true);
  EXPECT_EQ(e.cap.Lines(),
            (Lines{" ", " ** Overflow or Nan (Not A Number) continues to be encountered",
                   "    after multiple attempt to repair by changed tolerances.", "    VARDEN will give up.", " ",
                   " ", " ** Error in TraceCNS: Pivot too small.", " ",
                   " ", " ** Fatal Error **  Insufficient memory to continue the optimization.", " ",
                   " ", " ** Fatal Error **  Insufficient memory to read basic model.", " ",
                   " ", " ** Fatal Error **  Insufficient memory for basic optimization vectors.", " ",
                   " ", " ** Fatal Error **  Insufficient memory to preprocess model.", " "}));
  EXPECT_EQ(e.v->Exception, 0);
}

TEST(Messages, CatalogueWaitsWhenNotSentNow) {
  rt::Env e;
  Vdnmsg(e.v, 4012, -37, 0, 0.0, 0.0, false, false);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(e.v->NMsg, 3);
  EXPECT_EQ(e.v->DMsg, 3);
  EXPECT_EQ(e.v->SMsg, 0);
  // A second one that stays off the screen joins the block.
  Vdnmsg(e.v, 3023, 0, 0, 0.0, 0.0, false, false);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(e.v->NMsg, 6);
  // One for the screen cannot join a block without screen lines.
  Vdnmsg(e.v, 2145, 0, 0, 0.0, 0.0, true, false);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.cap.calls[0].lines,
            (Lines{" ", " ** Fatal Error ** ErrMsg routine returned Error=-37", " ", " ",
                   " ** Fatal Error **  Insufficient memory to read basic model.", " "}));
  EXPECT_EQ(e.v->SMsg, 3);
  // A document line after a catalogue message sends the block first.
  Doc(e.v, "after");
  ASSERT_EQ(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.cap.calls[1].smsg, 3);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.calls[2].lines, (Lines{"after"}));
}

TEST(Messages, UnknownNumberSendsThreeLinesThenFatalFourteen) {
  rt::Env e;
  Vdnmsg(e.v, 1234, 0, 0, 0.0, 0.0, true, true);
  const std::vector<rt::Call> sends = e.cap.Sends();
  ASSERT_EQ(sends.size(), 2u);
  EXPECT_EQ(sends[0].dmsg, 3);
  EXPECT_EQ(sends[0].nmsg, 3);
  EXPECT_EQ(sends[0].smsg, 0);
  EXPECT_EQ(sends[0].lines, (Lines{" ", " ** Unknown message number 1234 in Vdnmsg.", " "}));
  EXPECT_EQ(sends[1].lines, rt::Fatal_Report(14, true));
  EXPECT_EQ(sends[1].smsg, 7);
  EXPECT_EQ(e.v->Exception, 99);
  EXPECT_EQ(e.v->Fatal_Code, 200);
  EXPECT_TRUE(e.v->Msg_Flush_Each);
}

TEST(Messages, InternalErrorLongTextOnlyOnce) {
  rt::Env e;
  Doc(e.v, "pending line");
  Internal_Error(e.v, 777, false);
  std::vector<rt::Call> sends = e.cap.Sends();
  ASSERT_EQ(sends.size(), 2u);
  EXPECT_EQ(sends[0].lines, (Lines{"pending line"}));
  Lines want{" **** Non-Fatal Internal Error Number   777",
             "      The solution process will recover and continue correctly."};
  for (const std::string &s : rt::Long_Text()) want.push_back(s);
  EXPECT_EQ(sends[1].lines, want);
  EXPECT_EQ(sends[1].smsg, 8);
  EXPECT_EQ(sends[1].dmsg, 8);
  EXPECT_EQ(sends[1].nmsg, 8);
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_EQ(e.v->Fatal_Code, 0);
  EXPECT_FALSE(e.v->Msg_Flush_Each);
  EXPECT_TRUE(e.v->Internal_Seen);

  e.cap.Clear();
  Internal_Error(e.v, 123456, false);
  Internal_Error(e.v, 42, true);
  sends = e.cap.Sends();
  ASSERT_EQ(sends.size(), 2u);
  EXPECT_EQ(sends[0].lines, (Lines{" **** Non-Fatal Internal Error Number123456",
                                   "      The solution process will recover and continue correctly."}));
  EXPECT_EQ(sends[1].lines, (Lines{" **** Fatal System Error Number    42"}));
  EXPECT_EQ(e.v->Exception, 99);
  EXPECT_EQ(e.v->Fatal_Code, 200);
}

TEST(Messages, ErrorsFatalMakesEveryErrorFatal) {
  rt::Env e;
  e.v->Errors_Fatal = true;
  Internal_Error(e.v, 5, false);
  EXPECT_EQ(e.v->Exception, 99);
  EXPECT_EQ(e.cap.Sends()[0].lines, rt::Fatal_Report(5, true));
}

TEST(Messages, FlushEachAfterAFatalError) {
  rt::Env e;
  Doc(e.v, "before");
  EXPECT_TRUE(e.cap.calls.empty());
  Internal_Error(e.v, 3302, true);
  // pending line, then the report followed by its flush call
  ASSERT_EQ(e.cap.calls.size(), 3u);
  EXPECT_EQ(e.cap.calls[0].dmsg, 1);
  EXPECT_EQ(e.cap.calls[1].smsg, 7);
  EXPECT_EQ(e.cap.calls[2].smsg, 0);
  EXPECT_EQ(e.cap.calls[2].dmsg, 0);
  EXPECT_EQ(e.cap.calls[2].nmsg, 0);
  // From now on every document line goes out at once, with a flush call.
  e.cap.Clear();
  Doc(e.v, "one");
  Doc(e.v, "two");
  ASSERT_EQ(e.cap.calls.size(), 4u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{"one"}));
  EXPECT_EQ(e.cap.calls[1].dmsg, 0);
  EXPECT_EQ(e.cap.calls[2].lines, (Lines{"two"}));
  EXPECT_EQ(e.cap.calls[3].dmsg, 0);
}

TEST(Messages, FailingRoutineKillsTheChannel) {
  rt::Env e;
  e.cap.results = {3};
  Doc(e.v, "first");
  Msg_Flush(e.v);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.v->Exception, 100);
  EXPECT_EQ(e.v->Msg_Error, 3);
  EXPECT_EQ(e.v->SMsg + e.v->DMsg + e.v->NMsg, 0);
  // Lines are still formatted, the block never overflows, nothing is sent.
  for (int i = 0; i < 100; ++i) {
    Msg_Set(e.v, "dead %d", i);
    Vd2doc(e.v, 4);
    EXPECT_LE(e.v->DMsg, 21);
  }
  Vdnmsg(e.v, 2160, 0, 0, 0.0, 0.0, true, true);
  Vdnmsg(e.v, 99999, 0, 0, 0.0, 0.0, true, true);
  Internal_Error(e.v, 8, true);
  Msg_Set(e.v, "both");
  Vd2both(e.v, 1);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.v->Exception, 100);
  EXPECT_EQ(e.v->Msg_Error, 3);
  EXPECT_EQ(e.v->Fatal_Code, 200);  // the fatal mark is still set
}

TEST(Messages, OnlyTheFirstFailureIsKeptAndPrinted) {
  rt::Env e;
  e.v->Msg_Print_Error = 1;
  e.cap.results = {0, 0};
  Internal_Error(e.v, 1, true);  // report (result 0), flush call (ignored)
  e.cap.results = {0, 0, 11};
  testing::internal::CaptureStdout();
  Doc(e.v, "x");  // with flush-each: sends now, call index 2 returns 11
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "\n ** Fatal error ** Message routine returned Error=11\n\n");
  EXPECT_EQ(e.v->Msg_Error, 11);
  EXPECT_EQ(e.v->Exception, 100);
}

TEST(Messages, FlushCallResultIsNotLookedAt) {
  rt::Env e;
  e.v->Msg_Flush_Each = true;
  e.cap.results = {0, 9};
  Doc(e.v, "y");
  EXPECT_EQ(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_EQ(e.v->Msg_Error, 0);
}

TEST(Messages, NoRoutineDropsTheLines) {
  rt::Env e;
  e.v->Msg_Routine = nullptr;
  for (int i = 0; i < 50; ++i) Doc(e.v, "dropped %d", i);
  Vdnmsg(e.v, 3023, 0, 0, 0.0, 0.0, true, true);
  Internal_Error(e.v, 9, false);
  Msg_Flush(e.v);
  EXPECT_EQ(e.v->SMsg + e.v->DMsg + e.v->NMsg, 0);
  EXPECT_EQ(e.v->Exception, 0);
}

// The length-carrying style.
struct LCapture {
  std::vector<Lines> sends;
  std::vector<std::vector<int>> lengths;
  int flushes = 0;
};
int L_Routine(int *smsg, int *dmsg, int *nmsg, int *lengths, void *usrmem, char *block, int width) {
  LCapture *c = static_cast<LCapture *>(usrmem);
  if (*smsg == 0 && *dmsg == 0 && *nmsg == 0) {
    ++c->flushes;
    return 0;
  }
  const int m = std::max(*smsg, *dmsg);
  Lines l;
  std::vector<int> len;
  for (int i = 0; i < m; ++i) {
    l.emplace_back(block + i * width, size_t(lengths[i]));
    len.push_back(lengths[i]);
  }
  c->sends.push_back(l);
  c->lengths.push_back(len);
  return 0;
}

TEST(Messages, LengthCarryingStyle) {
  rt::Env e;
  LCapture c;
  e.v->Msg_Style = 1;
  e.v->Msg_Routine = reinterpret_cast<void (*)()>(&L_Routine);
  e.v->Msg_Usrmem = &c;
  Doc(e.v, "alpha");
  Doc(e.v, "%s", "");
  Doc(e.v, "%s", std::string(133, 'z').c_str());
  Msg_Flush(e.v);
  ASSERT_EQ(c.sends.size(), 1u);
  EXPECT_EQ(c.sends[0], (Lines{"alpha", " ", std::string(133, 'z')}));
  EXPECT_EQ(c.lengths[0], (std::vector<int>{5, 1, 133}));
  Internal_Error(e.v, 2, true);
  EXPECT_EQ(c.flushes, 1);
}

// Row-and-column errors.
struct RCCapture {
  int row = 0, col = 0, pos = 0, result = 0;
  std::string text;
};
int ErrMsg_Routine(int row, int col, int pos, const char *text, void *usrmem) {
  RCCapture *c = static_cast<RCCapture *>(usrmem);
  c->row = row;
  c->col = col;
  c->pos = pos;
  c->text = text;
  return c->result;
}

TEST(Messages, RowColErrorReportsAFailingRoutine) {
  rt::Env e;
  RCCapture rc;
  e.v->Msg_Usrmem = &rc;
  e.v->Msg_Routine = nullptr;  // the block is only looked at, not sent
  e.v->ErrMsg = &ErrMsg_Routine;
  Row_Col_Error(e.v, 3, 4, 5, "Pivot is small      ");
  EXPECT_EQ(rc.row, 3);
  EXPECT_EQ(rc.col, 4);
  EXPECT_EQ(rc.pos, 5);
  EXPECT_EQ(rc.text, "Pivot is small");
  EXPECT_EQ(e.v->Exception, 0);

  rc.result = 6;
  Row_Col_Error(e.v, 1, 1, 1, "again");
  EXPECT_EQ(e.v->Msg_Error, 6);
  EXPECT_EQ(e.v->Exception, 98);
  // Message 4012 waits in the block (not for the screen, not sent yet).
  EXPECT_EQ(e.v->NMsg, 3);
  EXPECT_EQ(e.v->DMsg, 3);
  EXPECT_EQ(e.v->SMsg, 0);
  std::string l2(e.v->Msg_Block[2], vlu::MsgWidth);
  l2.erase(l2.find_last_not_of(' ') + 1);
  EXPECT_EQ(l2, " ** Fatal Error ** ErrMsg routine returned Error=6");
}

TEST(Messages, NumberFormatting) {
  char buf[64];
  EXPECT_STREQ(Fmt_Int(42, buf), "42");
  EXPECT_STREQ(Fmt_Int(-2147483647 - 1, buf), "-2147483648");
  EXPECT_STREQ(Fmt_RealF(3.14159, 52, buf), "      3.14");
  EXPECT_EQ(std::string(Fmt_RealG(1.0e-7, 63, buf)), std::string(7, ' ') + "1E-07");
}

}  // namespace
