// The message channel: a block of 30 fixed-width lines in VMI, filled by the
// producers below and handed to the environment's message routine a block
// at a time.
#pragma once
#include <cstdint>
#include <cstdarg>
#include "runtime/records.h"

namespace vlu {

// Raises VMI::Exception to at least `value` (it is never lowered).
inline void Raise_Exception(VMI *vmi, int32_t value) {
  if (vmi->Exception < value) vmi->Exception = value;
}

// Formats into VMI::Msg_Line (cut at 133 characters).
void Msg_Set(VMI *vmi, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// Msg_Set followed by Vd2doc(kind 1): the common way to send one trace line.
void Doc(VMI *vmi, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Appends Msg_Line for the document. kind 1: the line; 2: empty line first;
// 3: empty line after; 4: empty lines around it.
void Vd2doc(VMI *vmi, int kind);
// Appends Msg_Line for screen and document and sends at once.
void Vd2both(VMI *vmi, int kind);
// Sends the block if it holds anything.
void Msg_Flush(VMI *vmi);
// Appends the catalogue text of message `number`.
void Vdnmsg(VMI *vmi, int number, int i1, int i2, double r1, double r2, bool toScreen,
            bool sendNow);
// Reports an internal error; a fatal one raises Exception to 99.
void Internal_Error(VMI *vmi, int number, bool fatal);
// Sends a message tied to a matrix position to the caller's ErrMsg routine.
void Row_Col_Error(VMI *vmi, int row, int col, int pos, const char *text);

// Number formatting of the catalogue: an integer left-justified (I12, leading
// blanks cut), and a real in a G or F format whose width and decimals come
// from a two-digit code (tens: width / 2, units: decimals).  `out` must hold
// 13 characters for Fmt_Int and 64 for the real forms.
const char *Fmt_Int(int32_t value, char *out);
const char *Fmt_RealG(double value, int code, char *out);
const char *Fmt_RealF(double value, int code, char *out);

}  // namespace vlu
