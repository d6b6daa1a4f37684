// The exported lifecycle, factor, query and message functions, and the
// process-wide state behind them.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "factor/factor.h"
#include "interface/factor_args.h"
#include "interface/state.h"
#include "runtime/block_cache.h"
#include "runtime/messages.h"
#include "runtime/records.h"
#include "runtime/test_hooks.h"
#include "vardenlu.h"

namespace vlu {

IfaceState &Iface() {
  static IfaceState state;
  return state;
}

void Hard_Stop(const char *text) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", text);
  std::fflush(stderr);
  std::exit(EXIT_FAILURE);
}

int c_std_message(int smsg, int dmsg, int nmsg, char **lines, void * /*usrmem*/) {
  IfaceState &s = Iface();
  if (s.msgcbPtr != nullptr) return s.msgcbPtr(smsg, dmsg, nmsg, lines, s.usrmem);
  std::printf("--------------------------------------------------------------\n");
  std::printf("HERE IN c_std_message with NULL msgcbPtr  smsg: %d  dmsg: %d  nmsg: %d\n", smsg,
              dmsg, nmsg);
  std::printf("--------------------------------------------------------------\n");
  return 0;
}

namespace {

template <typename T>
void Free_Array(T *&p) {
  delete[] p;
  p = nullptr;
}

// What the solves kept about the factors of the call before (the solution
// base, the stages of the last listed solve, the lists of nonzeros of Work1
// and rSave) describes factors that a new factorization replaces; their
// keys could match the new factors by chance, so they are dropped outright.
void Forget_Solve_Caches(IfaceState &s) {
  s.solBaseReady = false;
  s.spike.valid = false;
  s.workCount = s.saveCount = -1;
}

void Free_Arrays(IfaceState &s) {
  Free_Array(s.singRow);
  Free_Array(s.singCol);
  Free_Array(s.mark);
  Free_Array(s.curStat);
  Free_Array(s.rSave);
  Free_Array(s.solBase);
  Free_Array(s.spike.inRows);
  Free_Array(s.spike.inVals);
  Free_Array(s.spike.outRows);
  Free_Array(s.spike.outVals);
  Free_Array(s.spike.finRows);
  Free_Array(s.spike.finVals);
  Free_Array(s.workRows);
  Free_Array(s.saveRows);
  Forget_Solve_Caches(s);
}

// Frees the interface arrays and the environment records.
void Release_All(IfaceState &s) {
  Free_Arrays(s);
  int status = 0;
  VMI_Deallocate(&s.env, &status);
  s.env = nullptr;
  s.vim = nullptr;
  s.dataReady = false;
}

// The limit on updates as it takes effect.  LUF%Lstr is sized from
// 5 * limit in 32 bits, which is negative for a limit below -1 and for one
// from 429496730 to 858993459 (larger ones wrap to a positive size and stay
// as they are).  A negative count of updates allows none, as 0 does; a limit
// in the gap allows more updates than any factorization can take, as its
// lower end 429496729 does.  -1 (automatic) passes unchanged.
int32_t Valid_Update_Limit(int32_t limit) {
  if (limit < -1) return 0;
  if (limit >= 429496730 && limit <= 858993459) return 429496729;
  return limit;
}

// The cache of vector blocks ends every factor call bounded by what the new
// environment uses, whichever way the call returns; the blocks of a renewed
// environment that no vector took back, or that are far too large for the
// vector that took them, go first.
struct Trim_On_Return {
  IfaceState &s;
  ~Trim_On_Return() {
    if (s.env != nullptr) Settle_Blocks(s.env);
    Block_Cache_Trim();
  }
};

// Compares the basis that the factorization repaired (VIM%Basc) with the one
// the caller asked for (curStat) and turns the difference into singular
// pairs: first the dropped columns whose number equals the row of an added
// slack, then the rest, each with the lowest free row.  Returns the number of
// added slacks.
int32_t Reconcile(IfaceState &s) {
  const int32_t n = s.numRows;
  const int32_t *basc = s.vim->Basc.V;
  int32_t *cur = s.curStat;
  // Mostly the factorization kept the basis: nothing to pair.
  if (std::memcmp(cur + 1, basc + 1, (2 * static_cast<size_t>(n) + 1) * sizeof(int32_t)) == 0)
    return 0;
  uint8_t *mark = s.mark;
  std::memset(mark, 0, static_cast<size_t>(n) + 2);
  constexpr uint8_t Dropped = 6, Added = 7;

  int32_t singCnt = 0, numDropped = 0, numMatch = 0, todo = 0;
  for (int32_t j = 1; j <= 2 * n + 1; ++j) {
    if (cur[j] == IBasic && basc[j] != IBasic) {
      if (j > n + 1) Hard_Stop("dropped slack after factorization should not happen");
      ++numDropped;
      mark[j] = Dropped;
    } else if (cur[j] != IBasic && basc[j] != NBasic) {
      int32_t i = j - n - 1;
      if (i < 1) Hard_Stop("non-slack column added to basis by factorization: should not happen");
      ++singCnt;
      if (mark[i] == Dropped) {
        ++numMatch;
        s.singRow[numMatch] = i;
        s.singCol[numMatch] = i;
        mark[i] = 0;
      } else {
        mark[i] = Added;
        ++todo;
      }
    }
  }
  if (singCnt != numDropped) {
    std::printf("----- add/drop mismatch: col drop=%d  row add=%d\n", numDropped, singCnt);
    Hard_Stop("COUNT MISMATCH");
  }
  if (todo + numMatch != singCnt) {
    std::printf("----- rdelta mismatch: nMatch=%d  todo=%d  rdelta=%d\n", numMatch, todo,
                singCnt);
    Hard_Stop("COUNT MISMATCH");
  }
  int32_t k = numMatch;
  int32_t row = 1;
  for (int32_t j = 1; j <= n + 1 && todo >= 1; ++j) {
    if (mark[j] != Dropped) continue;
    while (mark[row] != Added) {
      ++row;
      if (row > n) Hard_Stop("MISSING SINGULAR ROW");
    }
    ++k;
    s.singRow[k] = row;
    s.singCol[k] = j;
    ++row;
    --todo;
  }
  return singCnt;
}

}  // namespace
}  // namespace vlu

using namespace vlu;

extern "C" {

VLU_API int vlu_create(void) {
  IfaceState &s = Iface();
  if (s.envExists) {
    std::printf("\n** Fatal Error ** vlu_create called but environment already exists\n\n");
    return 1;
  }
  // A vlu_factor without vlu_create left an environment: release it rather
  // than lose it.
  if (s.dataReady) {
    Block_Cache_Rebuild();
    Release_All(s);
    Block_Cache_Trim();
  }
  s.env = nullptr;
  s.vim = nullptr;
  s.numRows = 0;
  s.numNz = 0;
  s.numSing = 0;
  s.updateLimit = 2147483647;
  s.envExists = true;
  s.dataReady = false;
  s.rKnown = false;
  s.nFactor = s.nUpdate = s.nRefactor = 0;
  return 0;
}

VLU_API void vlu_destroy(void) {
  IfaceState &s = Iface();
  if (s.dataReady) {
    Block_Cache_Rebuild();  // every block is kept and then freed at once
    Release_All(s);
  }
  Block_Cache_Drain();
  s.envExists = false;
}

VLU_API int vlu_factor(const int *n_, const int *nz_, const int *colStart, const int *rowIdx,
                       const int *colIdx, const double *val, const double *r,
                       const int *basisStat) {
  IfaceState &s = Iface();
  Factor_Args args;
  args.n = *n_;
  args.nz = *nz_;
  args.colStart = colStart;
  args.rowIdx = rowIdx;
  args.colIdx = colIdx;
  args.val = val;
  args.r = r;
  args.basisStat = basisStat;
  char fault[Arg_Msg_Len];
  if (!Check_Factor_Sizes(args, fault)) Hard_Stop(fault);

  Trim_On_Return trim{s};
  // An environment of an earlier call is renewed in place: its records take
  // their defaults again and its vectors are released, keeping their blocks
  // for the set-up below, which mostly asks for the same sizes.  The result
  // is the environment a release and a new build give.  Only an allocation
  // trace, whose lines the release writes one by one, takes the long way.
  bool renewed = false;
  if (s.dataReady) {
    Block_Cache_Rebuild();
    if (s.env != nullptr && s.env->Trace_Memory == 0) {
      if (args.n != s.numRows) Free_Arrays(s);
      Forget_Solve_Caches(s);
      s.dataReady = false;
      Renew_Space(s.env);
      renewed = true;
    } else {
      Release_All(s);
    }
  }
  s.rKnown = (r != nullptr);

  int status = 0;
  if (!renewed) Allocate_Space(&s.env, &status);
  if (status != 0) {
    std::printf("\n** Fatal Error ** Basic data structures could not be allocated\n\n");
    VMI_Deallocate(&s.env, &status);
    s.env = nullptr;
    return 4;
  }
  VMI *v = s.env;
  s.vim = v->Vim;
  VIM *vim = s.vim;
  v->Msg_Routine = reinterpret_cast<void (*)()>(&c_std_message);
  v->Msg_Style = 0;
  v->Threads = 1;
  v->Max_Updates = s.updateLimit;
  Apply_Test_Hooks(v);

  const int32_t n = args.n, nz = args.nz;
  s.numRows = n;
  s.numNz = nz;
  vim->NumRow = n;
  vim->NumCol = n + 1;
  vim->NumNz = nz + n;
  s.numSing = 0;

  Allocate_Inversion(v);
  if (!v->EnoughSpace) {
    std::printf("after Allocate_Space(), not VMI%%EnoughSpace\n");
    Release_All(s);
    return 4;
  }

  s.dataReady = true;
  if (s.curStat != nullptr) {
    // Kept from the call before, of the same n.
    std::memset(s.singRow, 0, (static_cast<size_t>(n) + 1) * sizeof(int32_t));
    std::memset(s.singCol, 0, (static_cast<size_t>(n) + 1) * sizeof(int32_t));
  } else {
    s.curStat = new (std::nothrow) int32_t[2 * static_cast<size_t>(n) + 2];
    s.rSave = new (std::nothrow) double[static_cast<size_t>(n) + 1];
    // The pairs read zero until a reconciliation writes them.
    s.singRow = new (std::nothrow) int32_t[static_cast<size_t>(n) + 1]();
    s.singCol = new (std::nothrow) int32_t[static_cast<size_t>(n) + 1]();
    s.mark = new (std::nothrow) uint8_t[static_cast<size_t>(n) + 2];
  }
  if (!s.curStat || !s.rSave || !s.singRow || !s.singCol || !s.mark) {
    std::printf("\n** Fatal Error ** Basic data structures could not be allocated\n\n");
    Release_All(s);
    return 4;
  }
  for (int32_t i = 0; i <= n; ++i) s.rSave[i] = 0.0;

  // The matrix, with column t stored as a full column behind it; a
  // malformed matrix stops the call here.
  if (!Load_Factor_Matrix(v, args, fault)) Hard_Stop(fault);

  if (basisStat[n] == IBasic && !s.rKnown) Hard_Stop("t basic but r unknown");
  // Copied in one branch-free pass; a value with a bit set other than bit 1
  // stops the call (the copy is then of no use).
  int32_t *basc = vim->Basc.V;
  int32_t bogus = 0;
  for (int32_t j = 1; j <= 2 * n + 1; ++j) {
    const int32_t x = basisStat[j - 1];
    bogus |= x & ~2;
    basc[j] = x;
  }
  if (bogus != 0) Hard_Stop("BOGUS BasisStat value found: expected NBasic or IBasic");
  std::memcpy(s.curStat + 1, basc + 1, (2 * static_cast<size_t>(n) + 1) * sizeof(int32_t));

  LUFactor(v);
  // Space that the factorization could not get is the caller's out-of-memory
  // result, like space missing for the records themselves: nothing stays
  // allocated.
  if (!v->EnoughSpace) {
    std::printf("after LUFactor(), not VMI%%EnoughSpace\n");
    Release_All(s);
    return 4;
  }
  if (v->Exception != 0) Hard_Stop("VMI%Exception is not zero");

  int32_t singCnt = Reconcile(s);
  if (singCnt != vim->Num_Sing) Hard_Stop("singCnt <> VIM%Num_Sing");
  if (vim->Num_Sing > 0) {
    s.numSing = vim->Num_Sing;
    if (s.numSing != singCnt) Hard_Stop("MISMATCH IN SINGULAR COUNTS");
    return 3;
  }
  if (singCnt != s.numSing) Hard_Stop("VARDEN says Num_Sing is 0 but basis changed");
  CreateColumnU(v);
  // A column copy that could not get its space is no factorization: the
  // caller hears of it as of any other shortage.
  if (!v->EnoughSpace) {
    std::printf("after CreateColumnU(), not VMI%%EnoughSpace\n");
    Release_All(s);
    return 4;
  }
  if (v->Exception != 0) Hard_Stop("VMI%Exception is not zero");
  ++s.nFactor;
  return 0;
}

VLU_API int vlu_getnumsing(void) { return Iface().numSing; }

VLU_API int vlu_getsingpair(const int *k, int *row, int *col) {
  IfaceState &s = Iface();
  if (*k >= 1 && *k <= s.numSing && s.singRow != nullptr) {
    *row = s.singRow[*k];
    *col = s.singCol[*k];
    return *col;
  }
  *row = 0;
  *col = 0;
  return 0;
}

VLU_API int vlu_getstats(int *nFactor, int *nUpdate, int *nRefactor) {
  IfaceState &s = Iface();
  *nFactor = s.nFactor;
  *nUpdate = s.nUpdate;
  *nRefactor = s.nRefactor;
  return s.nFactor;
}

VLU_API int vlu_setupdatelimit(const int *limit) {
  Iface().updateLimit = Valid_Update_Limit(*limit);
  return Iface().updateLimit;
}

VLU_API vlu_msgcb_t vlu_regmsgcb(void *usrmem, vlu_msgcb_t msgcb) {
  IfaceState &s = Iface();
  vlu_msgcb_t old = s.msgcbPtr;
  s.usrmem = usrmem;
  s.msgcbPtr = msgcb;
  return old;
}

VLU_API vlu_msgcb_t vlu_getmsgcb(void) { return Iface().msgcbPtr; }

VLU_API int vlu_msghack(const int *k) {
  VMI *v = Iface().env;
  if (v == nullptr) return 0;
  Msg_Set(v, "** Sample error emitted in vlu_msghack: k =%5d", *k);
  Vd2both(v, 1);
  Internal_Error(v, 1, true);
  return 0;
}

VLU_API int aa(const int *j) {
  std::printf("j = %5d\n", *j);
  return 0;
}

}  // extern "C"
