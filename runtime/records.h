// The environment: one top-level record VMI and the records below it.
// VIM holds the matrix, permutations and work vectors; LUF the factors, which
// outlive a factorization; IIN the working data of one factorization.  VUM,
// VPI, VDP, BND and the anonymous record exist and are empty in this library.
#pragma once
#include <cstdint>
#include "runtime/vectors.h"

namespace vlu {

constexpr int32_t NBasic = 0;
constexpr int32_t IBasic = 2;
constexpr int MsgWidth = 133;
constexpr int MsgLines = 30;

// Message routines.  C style: counts by value, a table of NUL-terminated
// lines.  Length-carrying style: counts by address, the line lengths, the
// user pointer, the block and the line width.
using MsgRoutineC = int (*)(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);
using MsgRoutineL = int (*)(int *smsg, int *dmsg, int *nmsg, int *lengths, void *usrmem,
                            char *block, int width);
// Row-and-column error routine of the caller (C convention).
using ErrMsgRoutine = int (*)(int row, int col, int pos, const char *text, void *usrmem);
// Source of the 32-bit tick counter: count, ticks per second, largest count.
using TickSource = void (*)(int32_t *now, int32_t *rate, int32_t *max);

struct VUM { int32_t Unused = 0; };
struct VPI { int32_t Unused = 0; };
struct VDP { int32_t Unused = 0; };
struct AnonRec { int32_t Unused = 0; };
struct BND {
  IntVec Cric, Crir;     // plain slots of the model layer, never allocated here
  RVec Step;             // record slot of the model layer
};

struct VIM {
  // Sizes, set by the factor call.
  int32_t NumRow = 0, NumCol = 0, NumNz = 0, NumVar = 0;

  // Matrix store, permutations and work vectors.
  IntVec Stcl, Rnum, Cnum, Basc, Rwcl, Rgfr, HelpI, HelpZ;
  IntVec Cnto, Cotn, Rnto, Rotn, Cbto;
  RVec Jace, WorkZ, AUrmat, Work1, UpdtWeight, X1Row;
  // Degeneracy bookkeeping and column values of the model layer (never
  // allocated by this library; the status bookkeeping reads them when the
  // degeneracy list is active).
  IntVec DegCol, DegStack;
  RVec DegBnd, XSol, Xmin, Xmax, ColAcc;

  // Tolerance control of the factorization.
  double Tol_Piv_Rel = 0.0;
  double Ufac_Scale = 1.0;
  double Max_UFac = 1.0;
  double Min_Pivot = 1.0;
  bool Large_Ufac = false;
  int32_t Tol_Wait = 0;
  int32_t InvertMode = 0;
  bool NewBasis = false;
  int32_t Num_Sing = 0;
  int32_t Num_Sing_Tria = 0;
  bool AttemptCNS = true;
  bool In_OneDim = false;
  bool Keep_Tol = false;
  bool Tol_Only_Large = false;
  int32_t Updates_Done = 0;

  // Degeneracy state.
  bool Degenerate = false;
  int32_t NumDegIter = 0;
  bool Deg_Active = false;
  int32_t Deg_Count = 0;
  int32_t Deg_Levels = 1;
  double Tol_Piv_Deg = 0.0;

  // Results of the last solve.
  int32_t Num_UpNz = 0;
  double Max_UpCol = 0.0;

  // Solve timing (only when VMI::Timing is on).
  int32_t Calls_L_Solve = 0, Calls_Vdsuxy = 0, Calls_L_Solve_Sparse = 0;
  double Time_L_Solve = 0.0, Time_Vdsuxy = 0.0, Time_L_Solve_Sparse = 0.0;
  double Time_Ftran_L = 0.0, Time_Ftran_U = 0.0;

  // In-place update: what one update leaves for the next.
  // IndxCr: position (1..NumRow) of the last leaving column, a cache that
  // spares the search of VIM%Rwcl when the same position leaves again; 0
  // when there is none.  Written by Update_Inverse, checked against Cbto
  // before use, so a stale value costs only the search.
  int32_t IndxCr = 0;
  // UL_Cleaned: the small elements of U and L have been removed since the
  // records were set up.  False after Allocate_Space (that is, after every
  // vlu_factor); set by the first Update_Inverse; a refactorization inside
  // vlu_update leaves it set.
  bool UL_Cleaned = false;

  // Clrw(j): the row whose pivot column is model column j, the inverse of
  // VIM%Rwcl (length NumCol + NumRow).  A map that spares the update the
  // search of Rwcl for its leaving column: allocated and filled by the first
  // update that needs it after a factorization, kept by the updates after
  // that; every entry is checked against Rwcl before use, so stale entries
  // after a refactorization cost only a search and a refill.
  IntVec Clrw;

  // Statistics of the in-place updates since the records were set up; read
  // by the tests and the tools, never by the numerical code.  Written by the
  // update routines.
  int32_t Upd_Compress_Row = 0, Upd_Compress_Col = 0;  // compressions of the two U files
  int32_t Upd_Grow_Row = 0, Upd_Grow_Col = 0;          // successful doublings of the two files
  int32_t Upd_Grow_L = 0, Upd_Grow_Lstr = 0;           // growths of the L-file and of LUF%Lstr
  int32_t Upd_Fail_Memory = 0, Upd_Fail_U_Large = 0, Upd_Fail_Pivot = 0;  // failure ends by kind
  int32_t Upd_Bump_Max = 0;                            // largest range the row elimination saw
  int32_t Upd_Swaps = 0;                               // row swaps of the elimination, a priori ones included
  // Sums over the updates that reached step 10: spike lengths, ranges from
  // the leaving position to the spike's last element, and ranges left for
  // the row elimination (0 where it did not run).
  int32_t Upd_Count = 0;
  int64_t Upd_Spike_Sum = 0, Upd_Range_Sum = 0, Upd_Bump_Sum = 0;
  // Update timing (only when VMI::Timing is on): calls of Update_Inverse and
  // their time in seconds.
  int32_t Calls_Update = 0;
  double Time_Update = 0.0;
};

struct LUF {
  IntVec Ic, Ir, Rstr, Rlen, Cstr, Clen, Lrow, Lpiv, Lsor, Lstr;
  RVec Ucmat, Lmat;

  int32_t Num_Slack = 0, Num_Post = 0, Num_Pre = 0, NumVTria = 0;
  int32_t RowUSpace = 0, ColASpace = 0, ColUSpace = 0;
  int32_t LFileUsed = 0, LFileIni = 0, L_Cols = 0, L_Groups = 0;
  int32_t U_elefirst = 1, U_numele = 0, U_numini = 0, U_colfirst = 1;
  int32_t RowFileUsed = 0, ColFileUsed = 0;
  int32_t D_Size = 0;
  bool ColCopy = false;  // the column copy of U exists
};

struct IIN {
  IntVec MarkCol, Cpnx, Cppr, Rpnx, Rppr;
  IntVec Mact, Mlow, Mcex, Mrow, Mrex;
  IntVec Indc, Indx, Stcc, Stcr, Nxtc, Prvc, Nxtr, Prvr;
  IntVec C2rp, R2cp;
  IntVec Lisr, Rlol, Lisc, Clol, Stmc;
  IntVec Indr;     // borrowed from VIM%HelpI during the bump
  RVec Clmx, Mmat;
  RVec Clmin;      // borrowed from VIM%WorkZ during the bump
  LogVec Clok, Lngr, Lngc;
  IVec Rlin, Clin;

  int32_t Max_Mmat = 0;
  int32_t BlockSize = 0, BlockSize0 = 0;
  int32_t MarkBad = 101, MarkOver = 100, MarkMax = 99;
  int32_t RowFill = 0;
  int32_t CPfrst = 0, CPlast = 0, RPfrst = 0, RPlast = 0;
  // Counts of ExtractBasis, printed by LUFactor.
  int32_t Zeros_Removed = 0, L_Elements = 0;
  int32_t Nele = 0;          // elements of the bump
  float Nele_Per_Col = 0.0f;
};

struct VMI {
  // Arithmetic and tolerances.
  double Eps = 0.0, Eps08 = 0.0, Eps_Sqrt = 0.0;
  double Rtpiva = 0.0, Rvpivr = 0.0, Tol_Zero = 0.0, Tol_Scale_Min = 0.0;
  double Space_Factor = 0.0;
  // Largest ratio of a U element to its pivot that an update accepts at the
  // least: the inverse of the machine epsilon, 2^52.  Set by Allocate_Space.
  double U_Ratio_Floor = 0.0;
  double Time_Limit = 0.0;
  int32_t Max_Updates = 0;

  // Memory statistics and modes.
  int32_t NumVec_Int = 0, NumVec_Real = 0, NumVec_Log = 0;
  int64_t NumEle_Int = 0, NumEle_Real = 0, NumEle_Log = 0;
  int64_t Mem_Current = 0, Mem_Max = 0, Mem_Total = 0;
  int64_t MaxHeap = 0, MaxHeap_Bytes = 0;
  int32_t MemoryMode = 1;   // 1 Needed, 2 Explore
  int32_t MemoryArea = 1;   // 1 Input, 2 PreProc, 3 Setup, 4 Optimize
  bool EnoughSpace = true;
  int32_t Exception = 0;
  bool Clear_On_Alloc = false, Define_On_Alloc = false;
  int32_t Trace_Memory = 0;
  bool Debug_Parallel = false;

  // Message channel.
  char Msg_Line[MsgWidth + 1];
  char Msg_Block[MsgLines + 1][MsgWidth + 1];  // lines 1..30
  int32_t SMsg = 0, DMsg = 0, NMsg = 0;
  void (*Msg_Routine)() = nullptr;             // MsgRoutineC or MsgRoutineL
  int32_t Msg_Style = 0;                       // 0 C style
  void *Msg_Usrmem = nullptr;
  bool Msg_Flush_Each = false;
  int32_t Msg_Error = 0;
  int32_t Msg_Print_Error = 0;
  bool Internal_Seen = false;
  bool Errors_Fatal = false;
  int32_t Fatal_Code = 0;
  int32_t Exit_Code = 26;
  ErrMsgRoutine ErrMsg = nullptr;

  // Clock.
  double Clock_Start = 0.0, Clock_Acc = 0.0;
  int32_t Count_Old = 0, Count_Acc = 0;
  bool Clock_Off = false, Trace_Clock = false;
  TickSource Clock_Source = nullptr;   // null: the system counter

  // Threads.
  int32_t Threads = 1, Threads_Used = 1, NumThread = 1;
  double Thread_Damp = 1.0;
  bool Trace_Threads = false;
  int32_t *Th_Start = nullptr, *Th_End = nullptr;   // 1-based when present
  int32_t *Th_Model[3] = {nullptr, nullptr, nullptr};
  int32_t Th_Size = 0;

  // Trace levels (factorization, its second level, update) and options.
  int32_t Trace_Inv = 0, Trace_Inv2 = 0, Trace_Upd = 0;
  // Debug level of the in-place update: 0 off (the default; no exported
  // function raises it); 1 or more checks the two copies of U against each
  // other and the four permutations against each other at the entry and the
  // end of every update, and the work vectors for zeros at its start.  Any
  // finding is an internal error.  Set only by tests.
  int32_t Debug_Upd = 0;
  bool Lssqrs = false, TraceCNS = false;
  int32_t Test_Full = 0, Test_Trace = 0, Test_LU = 0, Test_Every = 0, Test_Start = 0;
  bool Timing = false, Timing_Detail = false;

  // NaN repair.
  int32_t Nan_Events = 0;
  bool Nan_Given_Up = false;

  // Records.
  AnonRec *Anon = nullptr;
  VUM *Vum = nullptr;
  VIM *Vim = nullptr;
  VPI *Vpi = nullptr;
  LUF *Luf = nullptr;
  IIN *Iin = nullptr;
  VDP *Vdp = nullptr;
  BND *Bnd = nullptr;
};

// When positive, Allocate_Inversion imposes this heap limit in bytes instead
// of the unlimited default (used by tests to make allocations fail).
extern int64_t Test_Heap_Limit;
// Test hook of the allocation routines: Test_Alloc_Count counts every
// allocation and enlargement that asks for memory; when Test_Alloc_Fail_At is
// positive, the request that brings the count to it fails as if the heap were
// exhausted, and the hook disarms itself (set back to 0).  Never set by the
// library.
extern int64_t Test_Alloc_Count;
extern int64_t Test_Alloc_Fail_At;

// Builds VMI and the records with their defaults.  status 0 is success.
void Allocate_Space(VMI **env, int *status);
// Allocates the vectors of a factorization of the size set in VIM.
void Allocate_Inversion(VMI *vmi);
// Tears the whole environment down and proves the memory balance.
void VMI_Deallocate(VMI **env, int *status);

void LUF_Deallocate(VMI *vmi, int *status);
void IIN_Deallocate(VMI *vmi, int *status);
void VIM_Deallocate(VMI *vmi, int *status);
void VUM_Deallocate(VMI *vmi, int *status);
void VPI_Deallocate(VMI *vmi, int *status);
void VDP_Deallocate(VMI *vmi, int *status);

// Automatic update limit for the value -1.
int32_t Auto_Max_Updates(int32_t numRow);
// Initial length of the L-file.
int32_t L0_Length(int32_t numRow, int32_t numNz, int32_t numCol);
// Length of LUF%Lstr: min(2 n, 5 limit) in 32-bit arithmetic.
int32_t Lstr_Length(int32_t numRow, int32_t maxUpdates);

// 32-bit arithmetic with wrap-around, as the sizing rules prescribe.
inline int32_t Wrap_Mul(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
inline int32_t Wrap_Add(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

}  // namespace vlu

// ---------------------------------------------------------------------------
// The vector slots of each record, in declaration order: f(name, vec) is
// called once per slot, vec being an IntVec&, LIntVec&, LogVec&, RVec& or
// IVec& (write f as a generic lambda or an overloaded functor).  Names are
// the record's "REC%Short" names; for record vectors they equal Name.
// Used by the record listings of the dump routines and free for releases.
namespace vlu {

template <typename F> void ForEachVec(VUM &, F &&) {}
template <typename F> void ForEachVec(VPI &, F &&) {}
template <typename F> void ForEachVec(VDP &, F &&) {}
template <typename F> void ForEachVec(AnonRec &, F &&) {}

template <typename F> void ForEachVec(BND &r, F &&f) {
  f("BND%Cric", r.Cric);
  f("BND%Crir", r.Crir);
  f("BND%Step", r.Step);
}

template <typename F> void ForEachVec(VIM &r, F &&f) {
  f("VIM%Stcl", r.Stcl);
  f("VIM%Rnum", r.Rnum);
  f("VIM%Cnum", r.Cnum);
  f("VIM%Basc", r.Basc);
  f("VIM%Rwcl", r.Rwcl);
  f("VIM%Rgfr", r.Rgfr);
  f("VIM%HelpI", r.HelpI);
  f("VIM%HelpZ", r.HelpZ);
  f("VIM%Cnto", r.Cnto);
  f("VIM%Cotn", r.Cotn);
  f("VIM%Rnto", r.Rnto);
  f("VIM%Rotn", r.Rotn);
  f("VIM%Cbto", r.Cbto);
  f("VIM%Jace", r.Jace);
  f("VIM%WorkZ", r.WorkZ);
  f("VIM%AUrmat", r.AUrmat);
  f("VIM%Work1", r.Work1);
  f("VIM%UpdtWeight", r.UpdtWeight);
  f("VIM%X1Row", r.X1Row);
  f("VIM%DegCol", r.DegCol);
  f("VIM%DegStack", r.DegStack);
  f("VIM%DegBnd", r.DegBnd);
  f("VIM%XSol", r.XSol);
  f("VIM%Xmin", r.Xmin);
  f("VIM%Xmax", r.Xmax);
  f("VIM%ColAcc", r.ColAcc);
  f("VIM%Clrw", r.Clrw);
}

template <typename F> void ForEachVec(LUF &r, F &&f) {
  f("LUF%Ic", r.Ic);
  f("LUF%Ir", r.Ir);
  f("LUF%Rstr", r.Rstr);
  f("LUF%Rlen", r.Rlen);
  f("LUF%Cstr", r.Cstr);
  f("LUF%Clen", r.Clen);
  f("LUF%Lrow", r.Lrow);
  f("LUF%Lpiv", r.Lpiv);
  f("LUF%Lsor", r.Lsor);
  f("LUF%Lstr", r.Lstr);
  f("LUF%Ucmat", r.Ucmat);
  f("LUF%Lmat", r.Lmat);
}

template <typename F> void ForEachVec(IIN &r, F &&f) {
  f("IIN%MarkCol", r.MarkCol);
  f("IIN%Cpnx", r.Cpnx);
  f("IIN%Cppr", r.Cppr);
  f("IIN%Rpnx", r.Rpnx);
  f("IIN%Rppr", r.Rppr);
  f("IIN%Mact", r.Mact);
  f("IIN%Mlow", r.Mlow);
  f("IIN%Mcex", r.Mcex);
  f("IIN%Mrow", r.Mrow);
  f("IIN%Mrex", r.Mrex);
  f("IIN%Indc", r.Indc);
  f("IIN%Indx", r.Indx);
  f("IIN%Stcc", r.Stcc);
  f("IIN%Stcr", r.Stcr);
  f("IIN%Nxtc", r.Nxtc);
  f("IIN%Prvc", r.Prvc);
  f("IIN%Nxtr", r.Nxtr);
  f("IIN%Prvr", r.Prvr);
  f("IIN%C2rp", r.C2rp);
  f("IIN%R2cp", r.R2cp);
  f("IIN%Lisr", r.Lisr);
  f("IIN%Rlol", r.Rlol);
  f("IIN%Lisc", r.Lisc);
  f("IIN%Clol", r.Clol);
  f("IIN%Stmc", r.Stmc);
  f("IIN%Indr", r.Indr);
  f("IIN%Clmx", r.Clmx);
  f("IIN%Mmat", r.Mmat);
  f("IIN%Clmin", r.Clmin);
  f("IIN%Clok", r.Clok);
  f("IIN%Lngr", r.Lngr);
  f("IIN%Lngc", r.Lngc);
  f("IIN%Rlin", r.Rlin);
  f("IIN%Clin", r.Clin);
}

}  // namespace vlu
