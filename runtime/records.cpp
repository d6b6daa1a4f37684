// Building, sizing and tearing down the environment records.
#include "runtime/records.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <type_traits>

#include "runtime/clock.h"
#include "runtime/dumps.h"
#include "runtime/messages.h"
#include "runtime/primitives.h"
#include "runtime/vectors.h"

namespace vlu {

int64_t Test_Heap_Limit = 0;

namespace {

// Names of the record vectors, given once when the record is created; plain
// vectors have no name slot.
struct Name_Slot {
  template <typename T>
  void operator()(const char *name, RecVec<T> &x) const { Set_Name(x, name); }
  template <typename T, PlainKind K>
  void operator()(const char *, PlainVec<T, K> &) const {}
};

void Blank_Block(VMI *v) {
  std::memset(v->Msg_Line, ' ', MsgWidth);
  v->Msg_Line[MsgWidth] = '\0';
  for (int i = 0; i <= MsgLines; ++i) {
    std::memset(v->Msg_Block[i], ' ', MsgWidth);
    v->Msg_Block[i][MsgWidth] = '\0';
  }
}

void VMI_Defaults(VMI *v) {
  v->Eps = std::ldexp(1.0, -52);
  v->Eps08 = std::pow(v->Eps, static_cast<double>(0.8f));
  v->Eps_Sqrt = std::sqrt(v->Eps);
  v->Rtpiva = 1.0e-10;
  v->Rvpivr = 0.05;
  v->Tol_Zero = 1.0e-20;
  v->Tol_Scale_Min = 1.0;
  v->Space_Factor = 2.0;
  v->U_Ratio_Floor = std::ldexp(1.0, 52);
  v->Time_Limit = 10000.0;
  v->MemoryArea = 1;
  v->MemoryMode = 1;
  v->EnoughSpace = true;
  v->Exception = 0;
  v->Exit_Code = 26;
  v->Threads = 1;
  v->Threads_Used = 1;
  v->NumThread = 1;
  v->Thread_Damp = 1.0;
  Blank_Block(v);
}

void Record_Defaults(VMI *v) {
  VIM *vim = v->Vim;
  vim->Tol_Piv_Rel = v->Rvpivr;
  vim->Ufac_Scale = 1.0;
  vim->Tol_Wait = 0;
  vim->InvertMode = 0;
  vim->NewBasis = false;
  vim->AttemptCNS = true;
  vim->Updates_Done = 0;
  vim->Deg_Levels = 1;
  IIN *iin = v->Iin;
  iin->MarkBad = 101;
  iin->MarkOver = 100;
  iin->MarkMax = 99;
}

template <typename R>
bool New_Record(R *&slot) {
  slot = new (std::nothrow) R();
  return slot != nullptr;
}

}  // namespace

void Allocate_Space(VMI **env, int *status) {
  *status = 0;
  VMI *v = new (std::nothrow) VMI();
  if (v == nullptr) {
    *status = 1;
    return;
  }
  *env = v;
  VMI_Defaults(v);

  if (!New_Record(v->Anon)) { *status = 2; return; }
  if (!New_Record(v->Vum)) { *status = 3; return; }
  if (!New_Record(v->Vim)) { *status = 4; return; }
  ForEachVec(*v->Vim, Name_Slot{});
  if (!New_Record(v->Vpi)) { *status = 5; return; }
  if (!New_Record(v->Luf)) { *status = 6; return; }
  ForEachVec(*v->Luf, Name_Slot{});
  if (!New_Record(v->Iin)) { *status = 7; return; }
  ForEachVec(*v->Iin, Name_Slot{});
  if (!New_Record(v->Vdp)) { *status = 8; return; }
  if (!New_Record(v->Bnd)) { *status = 9; return; }
  ForEachVec(*v->Bnd, Name_Slot{});
  Record_Defaults(v);
}

int32_t Auto_Max_Updates(int32_t numRow) {
  float t = std::pow(static_cast<float>(numRow), 0.333f);
  int32_t ti = static_cast<int32_t>(t);
  int32_t a = 10 * ti;
  return a > 100 ? a : 100;
}

int32_t L0_Length(int32_t numRow, int32_t numNz, int32_t numCol) {
  int32_t e = numNz - numCol;
  if (e < 1) e = 1;
  if (numRow < 32000) {
    int32_t sq = Wrap_Mul(numRow + 1, numRow + 1);
    double cap = 0.6 * static_cast<double>(sq);
    double m = static_cast<double>(e) < cap ? static_cast<double>(e) : cap;
    return static_cast<int32_t>(m);
  }
  return e;
}

int32_t Lstr_Length(int32_t numRow, int32_t maxUpdates) {
  int32_t a = Wrap_Mul(2, numRow);
  int32_t b = Wrap_Mul(5, maxUpdates);
  return a < b ? a : b;
}

void Allocate_Inversion(VMI *v) {
  VIM *vim = v->Vim;
  LUF *luf = v->Luf;
  IIN *iin = v->Iin;

  // Thread set-up: more than one thread only when asked for.
  // The system is asked once: the query reads a file on some platforms.
  static const int32_t maxThreads =
      std::max<int32_t>(1, static_cast<int32_t>(std::thread::hardware_concurrency()));
  if (v->Threads > 1) {
    std::printf("Using Threads= %d and MaxThreads= %d\n", v->Threads, maxThreads);
    if (v->Threads > maxThreads) v->Threads = maxThreads;
    std::printf("Using Threads= %d and MaxThreads= %d\n", v->Threads, maxThreads);
    bool ok = true;
    int32_t **vecs[5] = {&v->Th_Start, &v->Th_End, &v->Th_Model[0], &v->Th_Model[1],
                         &v->Th_Model[2]};
    for (auto p : vecs) {
      *p = static_cast<int32_t *>(std::calloc(static_cast<size_t>(maxThreads) + 1,
                                              sizeof(int32_t)));
      if (*p == nullptr) ok = false;
    }
    if (!ok) {
      std::printf("\n** Fatal Error ** Basic thread data structures could not be allocated\n\n");
      return;
    }
    v->Th_Size = maxThreads;
    v->Th_Start[1] = 1;
  }
  v->Threads_Used = v->Threads;
  v->Thread_Damp = std::pow(static_cast<double>(v->Threads), -0.333);

  v->MaxHeap_Bytes = Test_Heap_Limit > 0 ? Test_Heap_Limit : INT64_MAX;
  vim->NumVar = vim->NumRow + vim->NumCol;

  const int32_t nr = vim->NumRow, nc = vim->NumCol, nnz = vim->NumNz, nv = vim->NumVar;
  if (v->Max_Updates == -1) v->Max_Updates = Auto_Max_Updates(nr);

  Allocate_Int(v, vim->Stcl, "VIM%Stcl", nc + 1);
  Allocate_RVec(v, vim->Jace, nnz);
  Allocate_Int(v, vim->Rnum, "VIM%Rnum", nnz);
  Allocate_Int(v, vim->Cnum, "VIM%Cnum", nnz);
  Allocate_Int(v, vim->Basc, "VIM%Basc", nv);
  Allocate_Int(v, vim->Rwcl, "VIM%Rwcl", nr);
  Allocate_Int(v, vim->Rgfr, "VIM%Rgfr", nc);
  {
    int32_t h = Wrap_Mul(nr, v->Threads_Used);
    Allocate_Int(v, vim->HelpI, "VIM%HelpI", h > nv ? h : nv);
  }
  Allocate_Int(v, vim->HelpZ, "VIM%HelpZ", nr + 1);
  Allocate_Int(v, vim->Cnto, "VIM%Cnto", nr);
  Allocate_Int(v, vim->Cotn, "VIM%Cotn", nr);
  Allocate_Int(v, vim->Rnto, "VIM%Rnto", nr);
  Allocate_Int(v, vim->Rotn, "VIM%Rotn", nr);
  Allocate_Int(v, vim->Cbto, "VIM%Cbto", nr);
  Allocate_RVec(v, vim->WorkZ, nr + 1);
  Allocate_Int(v, iin->MarkCol, "IIN%MarkCol", nv);
  Allocate_Int(v, iin->Cpnx, "IIN%Cpnx", nr);
  Allocate_Int(v, iin->Cppr, "IIN%Cppr", nr);
  Allocate_Int(v, iin->Rpnx, "IIN%Rpnx", nr);
  Allocate_Int(v, iin->Rppr, "IIN%Rppr", nr);
  Allocate_RVec(v, iin->Clmx, nr);
  Allocate_Log(v, iin->Clok, "IIN%Clok", nr);
  Allocate_Int(v, iin->Mact, "IIN%Mact", nr);
  Allocate_Int(v, iin->Mlow, "IIN%Mlow", nr);
  Allocate_Int(v, iin->Mcex, "IIN%Mcex", nr);
  Allocate_Int(v, iin->Mrow, "IIN%Mrow", nr);
  Allocate_Int(v, iin->Mrex, "IIN%Mrex", nr);
  Allocate_Int(v, iin->Indc, "IIN%Indc", nr);
  Allocate_Int(v, iin->Indx, "IIN%Indx", nr);
  Allocate_Int(v, iin->Stcc, "IIN%Stcc", nr);
  Allocate_Int(v, iin->Stcr, "IIN%Stcr", nr);
  Allocate_Int(v, iin->Nxtc, "IIN%Nxtc", nr);
  Allocate_Int(v, iin->Prvc, "IIN%Prvc", nr);
  Allocate_Int(v, iin->Nxtr, "IIN%Nxtr", nr);
  Allocate_Int(v, iin->Prvr, "IIN%Prvr", nr);
  Allocate_RVec(v, vim->AUrmat, nnz);
  Allocate_Int(v, luf->Ic, "LUF%Ic", nnz + nr);
  luf->RowUSpace = std::min(Size(vim->AUrmat), Size(luf->Ic));
  Allocate_RVec(v, luf->Ucmat, nr);
  Allocate_Int(v, luf->Ir, "LUF%Ir", nnz + nr);
  luf->ColUSpace = std::min(Size(luf->Ir), Size(luf->Ucmat));
  Allocate_Int(v, iin->C2rp, "IIN%C2rp", nr);
  Allocate_Int(v, iin->R2cp, "IIN%R2cp", nr);
  luf->ColASpace = std::min(std::min(Size(iin->R2cp), Size(iin->C2rp)), Size(luf->Ir));
  Allocate_Int(v, luf->Rstr, "LUF%Rstr", nr);
  Allocate_Int(v, luf->Rlen, "LUF%Rlen", nr);
  Allocate_Int(v, luf->Cstr, "LUF%Cstr", nr);
  Allocate_Int(v, luf->Clen, "LUF%Clen", nr);
  {
    int32_t l0 = L0_Length(nr, nnz, nc);
    Allocate_RVec(v, luf->Lmat, l0);
    Allocate_Int(v, luf->Lrow, "LUF%Lrow", l0);
    Allocate_Int(v, luf->Lpiv, "LUF%Lpiv", l0);
  }
  Allocate_Int(v, luf->Lsor, "LUF%Lsor", nr + 1);
  Allocate_Int(v, luf->Lstr, "LUF%Lstr", Lstr_Length(nr, v->Max_Updates));
  Allocate_RVec(v, vim->Work1, nr);
  Allocate_RVec(v, vim->UpdtWeight, nr);
  Allocate_RVec(v, vim->X1Row, nv);

  if (v->EnoughSpace) {
    Clear_Int(v, vim->HelpZ);
    Clear_Rvec(v, vim->WorkZ);
    Vdclcki(v);
    // Scalars of the run: no factors yet.
    luf->U_elefirst = luf->RowUSpace + 1;
    luf->U_colfirst = luf->ColUSpace + 1;
    luf->U_numele = luf->U_numini = 0;
    luf->LFileUsed = luf->LFileIni = 0;
    luf->L_Cols = luf->L_Groups = 0;
    luf->RowFileUsed = luf->ColFileUsed = 0;
    luf->D_Size = 0;
    vim->Updates_Done = 0;
  } else {
    std::printf("\n** Fatal Error ** Not enough space inversion data structures\n\n");
  }
}

// Releases every vector slot of a record.
struct Release_Slot {
  VMI *v;
  void operator()(const char *name, IntVec &x) const { Deallocate_Int(v, x, name); }
  void operator()(const char *name, LIntVec &x) const { Deallocate_LInt(v, x, name); }
  void operator()(const char *name, LogVec &x) const { Deallocate_Log(v, x, name); }
  void operator()(const char *, RVec &x) const { Deallocate_RVec(v, x); }
  void operator()(const char *, IVec &x) const { Deallocate_IVec(v, x); }
};

// Releases the vectors of one record, then the record; a null record is
// left alone.
template <typename R>
void Release_Record(VMI *v, R *&record) {
  if (record == nullptr) return;
  ForEachVec(*record, Release_Slot{v});
  delete record;
  record = nullptr;
}

void LUF_Deallocate(VMI *v, int *) { Release_Record(v, v->Luf); }
void IIN_Deallocate(VMI *v, int *) { Release_Record(v, v->Iin); }
void VIM_Deallocate(VMI *v, int *) { Release_Record(v, v->Vim); }

void VUM_Deallocate(VMI *v, int *) {
  delete v->Vum;
  v->Vum = nullptr;
}
void VPI_Deallocate(VMI *v, int *) {
  delete v->Vpi;
  v->Vpi = nullptr;
}
void VDP_Deallocate(VMI *v, int *) {
  delete v->Vdp;
  v->Vdp = nullptr;
}

namespace {

// With every vector released the statistics must be back at zero; a vector
// allocated outside the records shows here.
void Prove_Balance(VMI *v) {
  if (v->NumVec_Int != 0 || v->NumVec_Real != 0 || v->NumVec_Log != 0 || v->NumEle_Int != 0 ||
      v->NumEle_Real != 0 || v->NumEle_Log != 0 || v->Mem_Current != 0) {
    Doc(v, "** Fatal Error ** Memory statistics not in balance after executing VMI_Deallocate:");
    MemStat(v);
    VMI_Dump_All(v);
    Internal_Error(v, 9999, true);
  }
}

void Free_Thread_Data(VMI *v) {
  std::free(v->Th_Start);
  std::free(v->Th_End);
  for (auto &p : v->Th_Model) std::free(p);
}

// The records as Allocate_Space builds them, with the names of their record
// vectors, made once: a renewal copies them.
template <typename R>
const R &Prototype() {
  static const R proto = [] {
    R r;
    ForEachVec(r, Name_Slot{});
    return r;
  }();
  return proto;
}

const VMI &VMI_Prototype() {
  static const VMI *proto = [] {
    VMI *v = new VMI();  // value-initialised as by Allocate_Space; kept for the process
    VMI_Defaults(v);
    return v;
  }();
  return *proto;
}

// The record with its defaults and names, each slot keeping its spare.
template <typename R>
void Renew_Record(R &r) {
  struct Kept { void *p; int64_t bytes; };
  Kept kept[64];
  int k = 0;
  ForEachVec(r, [&](const char *, auto &x) { kept[k++] = Kept{x.Spare, x.SpareBytes}; });
  r = Prototype<R>();
  k = 0;
  ForEachVec(r, [&](const char *, auto &x) {
    using Elem = std::remove_pointer_t<decltype(x.Spare)>;
    x.Spare = static_cast<Elem *>(kept[k].p);
    x.SpareBytes = kept[k].bytes;
    ++k;
  });
}

}  // namespace

void VMI_Deallocate(VMI **env, int *status) {
  VMI *v = *env;
  if (v == nullptr) return;
  *status = 0;
  VUM_Deallocate(v, status);
  delete v->Anon;
  v->Anon = nullptr;
  VPI_Deallocate(v, status);
  Release_Record(v, v->Bnd);
  LUF_Deallocate(v, status);
  IIN_Deallocate(v, status);
  VDP_Deallocate(v, status);
  VIM_Deallocate(v, status);

  if (v->Trace_Memory > 0) {
    Doc(v, "After  Executing VIM_Deallocate:");
    MemStat(v);
    VMI_Dump_All(v);
  }
  Prove_Balance(v);
  // Pending lines are dropped with the environment.
  Free_Thread_Data(v);
  delete v;
  *env = nullptr;
}

void Renew_Space(VMI *v) {
  Park_Vectors(v);
  Prove_Balance(v);
  Free_Thread_Data(v);

  Renew_Record(*v->Vim);
  Renew_Record(*v->Luf);
  Renew_Record(*v->Iin);
  Renew_Record(*v->Bnd);
  *v->Anon = AnonRec();
  *v->Vum = VUM();
  *v->Vpi = VPI();
  *v->Vdp = VDP();

  // VMI anew, pending lines dropped; the records stay.
  AnonRec *anon = v->Anon;
  VUM *vum = v->Vum;
  VIM *vim = v->Vim;
  VPI *vpi = v->Vpi;
  LUF *luf = v->Luf;
  IIN *iin = v->Iin;
  VDP *vdp = v->Vdp;
  BND *bnd = v->Bnd;
  *v = VMI_Prototype();
  v->Anon = anon;
  v->Vum = vum;
  v->Vim = vim;
  v->Vpi = vpi;
  v->Luf = luf;
  v->Iin = iin;
  v->Vdp = vdp;
  v->Bnd = bnd;
  Record_Defaults(v);
}

}  // namespace vlu
