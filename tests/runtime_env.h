// A hand-built environment for the runtime tests, with a message routine
// that records every call it receives.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/records.h"

namespace rt {

struct Call {
  int smsg, dmsg, nmsg;
  std::vector<std::string> lines;  // the max(smsg, dmsg, nmsg) lines
};

struct Capture {
  std::vector<Call> calls;
  std::vector<int> results;  // result of call k (0-based); 0 beyond
  int Next() const {
    const size_t k = calls.size() - 1;
    return k < results.size() ? results[k] : 0;
  }
  // Lines of all real sends (flush calls carry none), in order.
  std::vector<std::string> Lines() const {
    std::vector<std::string> all;
    for (const Call &c : calls)
      for (int i = 0; i < std::max(c.smsg, c.dmsg); ++i) all.push_back(c.lines[size_t(i)]);
    return all;
  }
  // Real sends only (calls with a non-zero count).
  std::vector<Call> Sends() const {
    std::vector<Call> s;
    for (const Call &c : calls)
      if (c.smsg != 0 || c.dmsg != 0 || c.nmsg != 0) s.push_back(c);
    return s;
  }
  void Clear() { calls.clear(); }
};

inline int Capture_Routine(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  Capture *cap = static_cast<Capture *>(usrmem);
  Call c{smsg, dmsg, nmsg, {}};
  const int m = std::max(smsg, std::max(dmsg, nmsg));
  for (int i = 0; i < m; ++i) c.lines.emplace_back(lines[i]);
  cap->calls.push_back(c);
  return cap->Next();
}

// VMI built by hand: no limit on the heap, the capturing routine in C style.
struct Env {
  vlu::VMI *v;
  Capture cap;
  Env() {
    v = new vlu::VMI();
    v->MaxHeap_Bytes = INT64_MAX;
    v->Msg_Routine = reinterpret_cast<void (*)()>(&Capture_Routine);
    v->Msg_Style = 0;
    v->Msg_Usrmem = &cap;
    std::memset(v->Msg_Line, ' ', vlu::MsgWidth);
    v->Msg_Line[vlu::MsgWidth] = '\0';
    for (int i = 0; i <= vlu::MsgLines; ++i) {
      std::memset(v->Msg_Block[i], ' ', vlu::MsgWidth);
      v->Msg_Block[i][vlu::MsgWidth] = '\0';
    }
  }
  ~Env() { delete v; }
  Env(const Env &) = delete;
  Env &operator=(const Env &) = delete;

  bool Balanced() const {
    return v->NumVec_Int == 0 && v->NumVec_Real == 0 && v->NumVec_Log == 0 && v->NumEle_Int == 0 &&
           v->NumEle_Real == 0 && v->NumEle_Log == 0 && v->Mem_Current == 0;
  }
};

// The lines of the long internal-error text, after the number line(s).
inline std::vector<std::string> Long_Text() {
  return {" ",
          "      Please check that you have the latest version of VARDEN and",
          "      upgrade your system -- the problem may already be fixed.",
          "      If your system is up to date, please send a copy of your",
          "      model, with its input and output files, to the library's maintainers.",
          " "};
}

inline std::vector<std::string> Fatal_Report(int number, bool first) {
  char buf[64];
  std::snprintf(buf, sizeof buf, " **** Fatal System Error Number%6d", number);
  std::vector<std::string> r{buf};
  if (first)
    for (const std::string &s : Long_Text()) r.push_back(s);
  return r;
}

}  // namespace rt
