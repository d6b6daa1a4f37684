// A hand-built environment for the runtime tests, with a message routine
// that records every call it receives.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/messages.h"
#include "runtime/records.h"

namespace rt {

using Lines = std::vector<std::string>;

struct Call {
  int smsg, dmsg, nmsg;
  Lines lines;  // the largest of the three counts; none in a flush call
};

struct Capture {
  std::vector<Call> calls;
  std::vector<int> results;  // what call k (0-based) returns; 0 beyond
  Lines All() const {
    Lines all;
    for (const Call &c : calls) all.insert(all.end(), c.lines.begin(), c.lines.end());
    return all;
  }
};

inline int Capture_Routine(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  Capture *cap = static_cast<Capture *>(usrmem);
  cap->calls.push_back(Call{smsg, dmsg, nmsg, {}});
  for (int i = 0; i < std::max(smsg, std::max(dmsg, nmsg)); ++i) cap->calls.back().lines.emplace_back(lines[i]);
  const size_t k = cap->calls.size() - 1;
  return k < cap->results.size() ? cap->results[k] : 0;
}

// VMI built by hand: no limit on the heap, the capturing routine in C style.
struct Env {
  vlu::VMI *v = new vlu::VMI();
  Capture cap;
  Env() {
    v->MaxHeap_Bytes = INT64_MAX;
    v->Msg_Routine = reinterpret_cast<void (*)()>(&Capture_Routine);
    v->Msg_Usrmem = &cap;
    std::memset(v->Msg_Line, ' ', sizeof v->Msg_Line);
    std::memset(v->Msg_Block, ' ', sizeof v->Msg_Block);
    v->Msg_Line[vlu::MsgWidth] = '\0';
    for (auto &line : v->Msg_Block) line[vlu::MsgWidth] = '\0';
  }
  ~Env() { delete v; }
  Env(const Env &) = delete;
  Env &operator=(const Env &) = delete;
  Lines Flushed() {  // sends what is pending, then all lines so far
    vlu::Msg_Flush(v);
    return cap.All();
  }
  bool Balanced() const {
    return v->NumVec_Int == 0 && v->NumVec_Real == 0 && v->NumVec_Log == 0 && v->NumEle_Int == 0 &&
           v->NumEle_Real == 0 && v->NumEle_Log == 0 && v->Mem_Current == 0;
  }
};

// The long text that follows the first internal-error report.
inline const Lines kLongText{" ",
                             "      Please check that you have the latest version of VARDEN and",
                             "      upgrade your system -- the problem may already be fixed.",
                             "      If your system is up to date, please send a copy of your",
                             "      model, with its input and output files, to the library's maintainers.",
                             " "};

inline std::string Fatal_Line(int number) {
  char buf[64];
  std::snprintf(buf, sizeof buf, " **** Fatal System Error Number%6d", number);
  return buf;
}

// Text lines of a failure followed by its fatal report (long text if first).
inline Lines Failure(Lines text, int number, bool first) {
  text.push_back(Fatal_Line(number));
  if (first) text.insert(text.end(), kLongText.begin(), kLongText.end());
  return text;
}

}  // namespace rt
