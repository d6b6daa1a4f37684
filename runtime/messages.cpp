// The message channel: formatting into the work line, the block of lines,
// sending the block to the environment's message routine, the catalogue of
// numbered messages and the internal-error report.
#include "runtime/messages.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vlu {

namespace {

// Fills one line of the block with blanks and puts the terminator in its
// spare slot.
void Blank_Line(char *line) {
  std::memset(line, ' ', MsgWidth);
  line[MsgWidth] = '\0';
}

// Copies text (at most MsgWidth characters, stops at NUL) into a block line,
// blank padded.
void Put_Line(char *line, const char *text) {
  int i = 0;
  if (text != nullptr)
    for (; i < MsgWidth && text[i] != '\0'; ++i) line[i] = text[i];
  for (; i < MsgWidth; ++i) line[i] = ' ';
  line[MsgWidth] = '\0';
}

// Length of a line without its trailing blanks (a NUL ends it as well).
int Trimmed_Length(const char *line) {
  int n = 0;
  for (int i = 0; i < MsgWidth && line[i] != '\0'; ++i)
    if (line[i] != ' ') n = i + 1;
  return n;
}

// Drops whatever the block holds.
void Drop_Block(VMI *vmi) {
  int top = std::max(vmi->SMsg, std::max(vmi->DMsg, vmi->NMsg));
  top = std::min(top, MsgLines);
  for (int i = 1; i <= top; ++i) Blank_Line(vmi->Msg_Block[i]);
  vmi->SMsg = vmi->DMsg = vmi->NMsg = 0;
}

// Appends the work line to the block as line `pos` (1-based), blank padded.
void Append_Work_Line(VMI *vmi, int pos) {
  if (pos >= 1 && pos <= MsgLines) Put_Line(vmi->Msg_Block[pos], vmi->Msg_Line);
}

void Append_Empty(VMI *vmi, int pos) {
  if (pos >= 1 && pos <= MsgLines) Blank_Line(vmi->Msg_Block[pos]);
}

void Append_Text(VMI *vmi, int pos, const char *text) {
  if (pos >= 1 && pos <= MsgLines) Put_Line(vmi->Msg_Block[pos], text);
}

// Writes the work line with the empty lines that `kind` asks for, starting
// at *count + 1; *count grows by the lines written.  False for an illegal kind.
bool Append_By_Kind(VMI *vmi, int kind, int32_t *count, const char *who) {
  switch (kind) {
    case 1:
      Append_Work_Line(vmi, ++*count);
      return true;
    case 2:
      Append_Empty(vmi, ++*count);
      Append_Work_Line(vmi, ++*count);
      return true;
    case 3:
      Append_Work_Line(vmi, ++*count);
      Append_Empty(vmi, ++*count);
      return true;
    case 4:
      Append_Empty(vmi, ++*count);
      Append_Work_Line(vmi, ++*count);
      Append_Empty(vmi, ++*count);
      return true;
    default:
      std::printf("Type Parameter is illegal in %s =%d\n", who, kind);
      std::fflush(stdout);
      return false;
  }
}

// Sends the block: the one place that calls the message routine.
void Send_Block(VMI *vmi) {
  if (vmi->SMsg == 0 && vmi->DMsg == 0) return;
  if (vmi->Msg_Dead || vmi->Exception >= 100 || vmi->Msg_Routine == nullptr) {
    // A dead channel (or none at all): the lines are dropped.
    Drop_Block(vmi);
    return;
  }
  const int sd = std::min(std::max(vmi->SMsg, vmi->DMsg), MsgLines);
  const int all = std::min(std::max(sd, vmi->NMsg), MsgLines);
  int lengths[MsgLines];
  for (int i = 1; i <= all; ++i) lengths[i - 1] = std::max(Trimmed_Length(vmi->Msg_Block[i]), 1);

  int rc = 0;
  if (vmi->Msg_Style == 0) {
    char *table[MsgLines];
    for (int i = 1; i <= all; ++i) {
      vmi->Msg_Block[i][lengths[i - 1]] = '\0';
      table[i - 1] = vmi->Msg_Block[i];
    }
    MsgRoutineC routine = reinterpret_cast<MsgRoutineC>(vmi->Msg_Routine);
    rc = routine(vmi->SMsg, vmi->DMsg, vmi->NMsg, table, vmi->Msg_Usrmem);
    if (vmi->Msg_Flush_Each) routine(0, 0, 0, table, vmi->Msg_Usrmem);
  } else {
    // The length-carrying form reads the lines at a stride of the line
    // width, so it gets a packed copy of the block.
    char packed[MsgLines * MsgWidth];
    for (int i = 1; i <= all; ++i) std::memcpy(packed + (i - 1) * MsgWidth, vmi->Msg_Block[i], MsgWidth);
    MsgRoutineL routine = reinterpret_cast<MsgRoutineL>(vmi->Msg_Routine);
    int width = MsgWidth;
    rc = routine(&vmi->SMsg, &vmi->DMsg, &vmi->NMsg, lengths, vmi->Msg_Usrmem, packed, width);
    if (vmi->Msg_Flush_Each) {
      int z1 = 0, z2 = 0, z3 = 0;
      routine(&z1, &z2, &z3, lengths, vmi->Msg_Usrmem, packed, width);
    }
  }
  for (int i = 1; i <= all; ++i) Blank_Line(vmi->Msg_Block[i]);
  vmi->SMsg = vmi->DMsg = vmi->NMsg = 0;

  if (rc != 0) {
    if (vmi->Msg_Print_Error == 1) {
      std::printf("\n ** Fatal error ** Message routine returned Error=%d\n\n", rc);
      std::fflush(stdout);
    }
    if (vmi->Msg_Error == 0) vmi->Msg_Error = rc;
    vmi->Msg_Dead = true;
    Raise_Exception(vmi, 100);
  }
}

// The catalogue: writes the lines of message `number` from *count + 1 on.
// False when the number has no entry.
bool Catalogue(VMI *vmi, int number, int i1, int32_t *count) {
  char buf[MsgWidth + 1];
  auto empty = [&]() { Append_Empty(vmi, ++*count); };
  auto text = [&](const char *t) { Append_Text(vmi, ++*count, t); };
  switch (number) {
    case 2145:
      empty();
      text(" ** Error in TraceCNS: Pivot too small.");
      empty();
      return true;
    case 2160:
      empty();
      text(" ** Overflow or Nan (Not A Number) has been encountered indicating");
      text("    numerical difficulties. Trying to repair by increasing the");
      text("    absolute and relative pivot tolerances (Rtpiva and Rvpivr)");
      text("    and allowing small values to be scaled up by decreasing");
      text("    the minimum scale factor, Tol_Scale_Min.");
      empty();
      return true;
    case 2161:
      empty();
      text(" ** Overflow or Nan (Not A Number) continues to be encountered");
      text("    after multiple attempt to repair by changed tolerances.");
      text("    VARDEN will give up.");
      empty();
      return true;
    case 3022:
      empty();
      text(" ** Fatal Error **  Insufficient memory to continue the optimization.");
      empty();
      return true;
    case 3023:
      empty();
      text(" ** Fatal Error **  Insufficient memory to read basic model.");
      empty();
      return true;
    case 3024:
      empty();
      text(" ** Fatal Error **  Insufficient memory for basic optimization vectors.");
      empty();
      return true;
    case 3030:
      empty();
      text(" ** Fatal Error **  Insufficient memory to preprocess model.");
      empty();
      return true;
    case 4012: {
      char num[32];
      std::snprintf(buf, sizeof buf, " ** Fatal Error ** ErrMsg routine returned Error=%s", Fmt_Int(i1, num));
      empty();
      text(buf);
      empty();
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

void Msg_Set(VMI *vmi, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(vmi->Msg_Line, sizeof vmi->Msg_Line, fmt, ap);
  va_end(ap);
}

void Doc(VMI *vmi, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(vmi->Msg_Line, sizeof vmi->Msg_Line, fmt, ap);
  va_end(ap);
  Vd2doc(vmi, 1);
}

void Msg_Flush(VMI *vmi) { Send_Block(vmi); }

void Vd2doc(VMI *vmi, int kind) {
  // Keep collecting only while the block holds nothing but document lines
  // and has room for the largest kind.
  if (vmi->SMsg >= 1 || (vmi->NMsg >= 1 && vmi->DMsg != 0) || (vmi->NMsg == 0 && vmi->DMsg >= 19))
    Send_Block(vmi);
  Append_By_Kind(vmi, kind, &vmi->DMsg, "Vd2doc");
  if (vmi->DMsg >= 18 || vmi->Msg_Flush_Each) Send_Block(vmi);
}

void Vd2both(VMI *vmi, int kind) {
  const bool keep = vmi->SMsg < 19 && vmi->DMsg < 19 &&
                    ((vmi->NMsg == 0 && vmi->SMsg == vmi->DMsg) || (vmi->SMsg == 0 && vmi->DMsg == 0));
  if (!keep) Send_Block(vmi);
  Append_By_Kind(vmi, kind, &vmi->SMsg, "Vd2both");
  vmi->DMsg = vmi->SMsg;
  Send_Block(vmi);
}

void Vdnmsg(VMI *vmi, int number, int i1, int i2, double r1, double r2, bool toScreen, bool sendNow) {
  (void)i2;
  (void)r1;
  (void)r2;
  const bool keep = vmi->NMsg == vmi->DMsg && vmi->SMsg <= vmi->NMsg && vmi->DMsg <= 18 &&
                    (vmi->NMsg == vmi->SMsg || !toScreen);
  if (!keep) {
    const int32_t before = vmi->Exception;
    Send_Block(vmi);
    if (vmi->Exception > before) return;
  }
  int32_t count = vmi->NMsg;
  if (Catalogue(vmi, number, i1, &count)) {
    vmi->NMsg = count;
    vmi->DMsg = count;
    if (toScreen) vmi->SMsg = count;
    if (sendNow) Send_Block(vmi);
    return;
  }
  char num[32], buf[MsgWidth + 1];
  std::snprintf(buf, sizeof buf, " ** Unknown message number %s in Vdnmsg.", Fmt_Int(number, num));
  Append_Empty(vmi, ++count);
  Append_Text(vmi, ++count, buf);
  Append_Empty(vmi, ++count);
  vmi->NMsg = count;
  vmi->DMsg = count;
  Internal_Error(vmi, 14, true);
}

void Internal_Error(VMI *vmi, int number, bool fatal) {
  const bool isFatal = fatal || vmi->Errors_Fatal;
  if (vmi->Exception < 100 && !vmi->Msg_Dead) {
    Send_Block(vmi);
    int32_t n = 0;
    char buf[MsgWidth + 1];
    if (isFatal) {
      vmi->Msg_Flush_Each = true;
      std::snprintf(buf, sizeof buf, " **** Fatal System Error Number%6d", number);
      Append_Text(vmi, ++n, buf);
    } else {
      std::snprintf(buf, sizeof buf, " **** Non-Fatal Internal Error Number%6d", number);
      Append_Text(vmi, ++n, buf);
      Append_Text(vmi, ++n, "      The solution process will recover and continue correctly.");
    }
    if (!vmi->Internal_Seen) {
      vmi->Internal_Seen = true;
      Append_Empty(vmi, ++n);
      Append_Text(vmi, ++n, "      Please check that you have the latest version of VARDEN and");
      Append_Text(vmi, ++n, "      upgrade your system -- the problem may already be fixed.");
      Append_Text(vmi, ++n, "      If your system is up to date, please send a copy of your");
      Append_Text(vmi, ++n, "      model, with its input and output files, to the library's maintainers.");
      Append_Empty(vmi, ++n);
    }
    vmi->SMsg = vmi->DMsg = vmi->NMsg = n;
    Send_Block(vmi);  // drops the lines if the channel died meanwhile
  }
  if (isFatal) {
    vmi->Fatal_Code = 200;
    Raise_Exception(vmi, 99);
  }
}

void Row_Col_Error(VMI *vmi, int row, int col, int pos, const char *text) {
  Send_Block(vmi);
  if (vmi->ErrMsg == nullptr) return;  // no routine registered: the path stays closed
  char t[81];
  int n = 0;
  if (text != nullptr)
    for (; n < 80 && text[n] != '\0'; ++n) t[n] = text[n];
  while (n > 0 && t[n - 1] == ' ') --n;
  t[n] = '\0';
  // The library's index base is 0, so the position goes out unchanged.
  const int rc = vmi->ErrMsg(row, col, pos, t, vmi->Msg_Usrmem);
  if (rc != 0) {
    vmi->Msg_Error = rc;
    Vdnmsg(vmi, 4012, rc, 0, 0.0, 0.0, false, false);
    Raise_Exception(vmi, 98);
  }
}

const char *Fmt_Int(int32_t value, char *out) {
  std::snprintf(out, 13, "%d", value);
  return out;
}

const char *Fmt_RealG(double value, int code, char *out) {
  const int width = (code / 10) * 2;
  const int decimals = code % 10;
  std::snprintf(out, 64, "%*.*G", width, decimals, value);
  return out;
}

const char *Fmt_RealF(double value, int code, char *out) {
  const int width = (code / 10) * 2;
  const int decimals = code % 10;
  std::snprintf(out, 64, "%*.*f", width, decimals, value);
  return out;
}

}  // namespace vlu
