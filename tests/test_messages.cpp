// The message channel: batching of document lines, the two calling styles,
// the catalogue, internal errors and a failing message routine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime_env.h"

using namespace vlu;
using rt::Lines;

namespace {

TEST(Messages, DocumentLinesAreBatched) {
  {
    rt::Env e;  // the block goes out when its 18th document line arrives
    for (int i = 1; i <= 17; ++i) Doc(e.v, "line %d", i);
    EXPECT_TRUE(e.cap.calls.empty());
    Doc(e.v, "line 18");
    ASSERT_EQ(e.cap.calls.size(), 1u);
    EXPECT_EQ(e.cap.calls[0].dmsg, 18);
    EXPECT_EQ(e.cap.calls[0].lines.back(), "line 18");
  }
  rt::Env e;
  for (int i = 1; i <= 17; ++i) Doc(e.v, "line %d", i);
  EXPECT_TRUE(e.cap.calls.empty());
  Msg_Set(e.v, "middle");
  Vd2doc(e.v, 4);  // at 17 lines: three more make 20, then the block goes
  ASSERT_EQ(e.cap.calls.size(), 1u);
  const rt::Call &c = e.cap.calls[0];
  EXPECT_EQ(c.dmsg, 20);
  EXPECT_EQ(c.smsg, 0);
  EXPECT_EQ(c.lines[0], "line 1");
  EXPECT_EQ(Lines(c.lines.begin() + 16, c.lines.end()), (Lines{"line 17", " ", "middle", " "}));
  EXPECT_EQ(e.v->DMsg, 0);

  // Vd2both sends what is pending, then its own line for screen and
  // document at once.
  e.cap.calls.clear();
  Doc(e.v, "pending");
  Msg_Set(e.v, "both");
  Vd2both(e.v, 1);
  ASSERT_EQ(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{"pending"}));
  EXPECT_EQ(e.cap.calls[1].smsg, 1);
  EXPECT_EQ(e.cap.calls[1].dmsg, 1);
  EXPECT_EQ(e.cap.calls[1].lines, (Lines{"both"}));
}

// Vd2both keeps what is pending only while it has room: with 19 lines
// waiting for screen and document it sends them first, then its own line.
TEST(Messages, Vd2bothSendsAFullBlockFirst) {
  for (int pending : {18, 19}) {
    rt::Env e;
    for (int i = 1; i <= pending; ++i) std::snprintf(e.v->Msg_Block[i], vlu::MsgWidth + 1, "old %d", i);
    e.v->SMsg = e.v->DMsg = pending;
    Msg_Set(e.v, "new");
    Vd2both(e.v, 1);
    if (pending == 18) {
      ASSERT_EQ(e.cap.calls.size(), 1u);
      EXPECT_EQ(e.cap.calls[0].lines.size(), 19u);
    } else {
      ASSERT_EQ(e.cap.calls.size(), 2u);
      EXPECT_EQ(e.cap.calls[0].smsg, 19);
      EXPECT_EQ(e.cap.calls[1].lines, (Lines{"new"}));
    }
  }
}

// The length-carrying style: an empty line is one blank of length 1,
// trailing blanks go, lines are cut at 133.
int L_Routine(int *smsg, int *dmsg, int *nmsg, int *lengths, void *usrmem, char *block, int width) {
  rt::Capture *cap = static_cast<rt::Capture *>(usrmem);
  cap->calls.push_back(rt::Call{*smsg, *dmsg, *nmsg, {}});
  for (int i = 0; i < std::max(*smsg, *dmsg); ++i)
    cap->calls.back().lines.emplace_back(block + i * width, size_t(lengths[i]));  // as long as said
  return 0;
}

TEST(Messages, LengthCarryingStyle) {
  rt::Env e;
  e.v->Msg_Style = 1;
  e.v->Msg_Routine = reinterpret_cast<void (*)()>(&L_Routine);
  Doc(e.v, "   keep leading   ");
  Doc(e.v, "%s", "");
  Doc(e.v, "%s", std::string(200, 'z').c_str());
  Msg_Flush(e.v);
  Doc(e.v, "ab");  // the block is blank again: no rest of older lines
  Internal_Error(e.v, 2, true);  // sends "ab", the report, then a flush call
  ASSERT_EQ(e.cap.calls.size(), 4u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{"   keep leading", " ", std::string(133, 'z')}));
  EXPECT_EQ(e.cap.calls[1].lines, (Lines{"ab"}));
  EXPECT_EQ(e.cap.calls[3].smsg + e.cap.calls[3].dmsg + e.cap.calls[3].nmsg, 0);
}

TEST(Messages, UnknownNumberIsFatalAndThenEachLineIsFlushed) {
  rt::Env e;
  Vdnmsg(e.v, 1234, 0, 0, 0.0, 0.0, true, true);
  // Three document lines, then the fatal report 14 and a flush call.
  ASSERT_EQ(e.cap.calls.size(), 3u);
  EXPECT_EQ(e.cap.calls[0].dmsg, 3);
  EXPECT_EQ(e.cap.calls[0].smsg, 0);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{" ", " ** Unknown message number 1234 in Vdnmsg.", " "}));
  EXPECT_EQ(e.cap.calls[1].lines, rt::Failure({}, 14, true));
  EXPECT_EQ(e.cap.calls[2].smsg + e.cap.calls[2].dmsg + e.cap.calls[2].nmsg, 0);
  EXPECT_EQ(e.v->Exception, 99);
  EXPECT_EQ(e.v->Fatal_Code, 200);
  EXPECT_TRUE(e.v->Msg_Flush_Each);
  // From now on every document line goes out at once, with a flush call
  // whose result is not looked at.
  e.cap.calls.clear();
  e.cap.results = {0, 9};
  Doc(e.v, "one");
  ASSERT_EQ(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{"one"}));
  EXPECT_EQ(e.cap.calls[1].dmsg, 0);
  EXPECT_EQ(e.v->Msg_Error, 0);
}

TEST(Messages, InternalErrorLongTextOnlyTheFirstTime) {
  rt::Env e;
  Doc(e.v, "pending line");  // goes out first, on its own
  Internal_Error(e.v, 777, false);
  ASSERT_GE(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{"pending line"}));
  Lines want{" **** Non-Fatal Internal Error Number   777",
             "      The solution process will recover and continue correctly."};
  want.insert(want.end(), rt::kLongText.begin(), rt::kLongText.end());
  EXPECT_EQ(e.cap.calls[1].lines, want);
  EXPECT_EQ(e.cap.calls[1].smsg, 8);
  EXPECT_EQ(e.v->Exception, 0);
  EXPECT_FALSE(e.v->Msg_Flush_Each);

  e.cap.calls.clear();
  Internal_Error(e.v, 123456, false);
  Internal_Error(e.v, 42, true);
  ASSERT_GE(e.cap.calls.size(), 2u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{" **** Non-Fatal Internal Error Number123456",
                                         "      The solution process will recover and continue correctly."}));
  EXPECT_EQ(e.cap.calls[1].lines, (Lines{rt::Fatal_Line(42)}));
  EXPECT_EQ(e.v->Exception, 99);

  rt::Env f;  // with Errors_Fatal every error is fatal
  f.v->Errors_Fatal = true;
  Internal_Error(f.v, 5, false);
  EXPECT_EQ(f.v->Exception, 99);
  EXPECT_EQ(f.Flushed(), rt::Failure({}, 5, true));
}

TEST(Messages, FailingOrMissingRoutineKillsTheChannel) {
  rt::Env e;
  e.cap.results = {3};
  Doc(e.v, "first");
  Msg_Flush(e.v);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.v->Exception, 100);
  EXPECT_EQ(e.v->Msg_Error, 3);
  // Lines are still formatted, the block never overflows, nothing is sent.
  for (int i = 0; i < 100; ++i) {
    Msg_Set(e.v, "dead %d", i);
    Vd2doc(e.v, 4);
    EXPECT_LE(e.v->DMsg, 21);
  }
  Vdnmsg(e.v, 99999, 0, 0, 0.0, 0.0, true, true);
  Internal_Error(e.v, 8, true);
  Msg_Set(e.v, "both");
  Vd2both(e.v, 1);
  Msg_Flush(e.v);
  EXPECT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.v->Exception, 100);
  EXPECT_EQ(e.v->Msg_Error, 3);

  rt::Env f;  // no routine at all: the lines are dropped
  f.v->Msg_Routine = nullptr;
  for (int i = 0; i < 50; ++i) Doc(f.v, "dropped %d", i);
  Vdnmsg(f.v, 3023, 0, 0, 0.0, 0.0, true, true);
  Internal_Error(f.v, 9, false);
  EXPECT_EQ(f.v->SMsg + f.v->DMsg + f.v->NMsg, 0);
  EXPECT_EQ(f.v->Exception, 0);
}

std::string g_rc;  // what the ErrMsg routine was given
int g_rc_result = 0;
int ErrMsg_Routine(int row, int col, int pos, const char *text, void *) {
  g_rc = std::to_string(row) + "," + std::to_string(col) + "," + std::to_string(pos) + ":" + text;
  return g_rc_result;
}

TEST(Messages, RowColErrorAndCatalogueMessagesThatWait) {
  rt::Env e;
  e.v->ErrMsg = &ErrMsg_Routine;
  g_rc_result = 0;
  Row_Col_Error(e.v, 3, 4, 5, "Pivot is small      ");
  EXPECT_EQ(g_rc, "3,4,5:Pivot is small");
  EXPECT_EQ(e.v->Exception, 0);
  // A failing routine: message 4012 waits in the block (not sent now, not
  // for the screen); another one off the screen joins it, one for the
  // screen cannot join a block without screen lines.
  g_rc_result = 6;
  Row_Col_Error(e.v, 1, 1, 1, "again");
  EXPECT_EQ(e.v->Msg_Error, 6);
  EXPECT_EQ(e.v->Exception, 98);
  Vdnmsg(e.v, 3023, 0, 0, 0.0, 0.0, false, false);
  EXPECT_TRUE(e.cap.calls.empty());
  EXPECT_EQ(e.v->NMsg, 6);
  Vdnmsg(e.v, 2145, 0, 0, 0.0, 0.0, true, false);
  ASSERT_EQ(e.cap.calls.size(), 1u);
  EXPECT_EQ(e.cap.calls[0].lines, (Lines{" ", " ** Fatal Error ** ErrMsg routine returned Error=6", " ", " ",
                                         " ** Fatal Error **  Insufficient memory to read basic model.", " "}));
}

}  // namespace
