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

// ---------------------------------------------------------------------------
// The vector slots of each record, one list per record: X(record, kind,
// member) once per slot, in the order of the record.  The list declares the
// members (VLU_VEC_MEMBER) and generates the slot listing ForEachVec below
// (VLU_VEC_VISIT), so that the two cannot disagree.  Plain vectors (IntVec,
// LIntVec, LogVec) carry no name of their own: the name "REC%member" comes
// from the listing.  Lengths are those Allocate_Inversion or LUFactor give
// them; n is NumRow.
#define VLU_VEC_MEMBER(Rec, Kind, Member) Kind Member;
#define VLU_VEC_VISIT(Rec, Kind, Member) f(#Rec "%" #Member, r.Member);

// BND: bending line search of the model layer; never allocated here.
#define VLU_BND_VECTORS(X)                                                                   \
  X(BND, IntVec, Cric) /* plain slot of the model layer */                                   \
  X(BND, IntVec, Crir) /* plain slot of the model layer */                                   \
  X(BND, RVec, Step)   /* record slot of the model layer */

#define VLU_VIM_VECTORS(X)                                                                   \
  X(VIM, IntVec, Stcl)       /* column starts of the matrix store, n+2: column j is         \
                                Stcl(j)..Stcl(j+1)-1, t is column n+1; vlu_factor */        \
  X(VIM, IntVec, Rnum)       /* row of each store entry, 1..n, nz+n; vlu_factor */          \
  X(VIM, IntVec, Cnum)       /* column of each store entry, nz+n; vlu_factor, not read */   \
  X(VIM, IntVec, Basc)       /* status of every model column, 2n+1, NBasic or IBasic;       \
                                vlu_factor, repairs of LUFactor, RecordBasisChange */       \
  X(VIM, IntVec, Rwcl)       /* model column pivoting on row i, n; LUFactor, update */      \
  X(VIM, IntVec, Rgfr)       /* slot of the model layer, n+1; allocated, not read */        \
  X(VIM, IntVec, HelpI)      /* work vector, 2n+1; lent as IIN%Indr in the bump,           \
                                write positions in ExtractBasis and CreateColumnU, list of  \
                                the nonzeros of a solve */                                  \
  X(VIM, IntVec, HelpZ)      /* zero vector of marks, n+1, zero between uses; singular      \
                                columns after LUFactor, scratch of the argument checks */   \
  X(VIM, IntVec, Cnto)       /* column (place in Cbto) of pivot k, n; LUFactor */           \
  X(VIM, IntVec, Cotn)       /* pivot of column place c, inverse of Cnto, n; LUFactor */    \
  X(VIM, IntVec, Rnto)       /* row of pivot k, n; LUFactor */                              \
  X(VIM, IntVec, Rotn)       /* pivot of row i, inverse of Rnto, n; LUFactor */             \
  X(VIM, IntVec, Cbto)       /* model column at basis place k, n; LUFactor (slacks first,   \
                                pivot order once published), update */                      \
  X(VIM, RVec, Jace)         /* value of each store entry, nz+n, t at nz+1..nz+n;           \
                                vlu_factor, vlu_update when t enters */                     \
  X(VIM, RVec, WorkZ)        /* zero vector of values, n+1, zero between uses; lent as      \
                                IIN%Clmin in the bump */                                    \
  X(VIM, RVec, AUrmat)       /* values of the column file (from 1) and of the U-file        \
                                (U_elefirst..RowUSpace); ExtractBasis, Factor_Bump, update */ \
  X(VIM, RVec, Work1)        /* right-hand side and solution of vlu_solve, n */             \
  X(VIM, RVec, UpdtWeight)   /* weights of the model layer, n; allocated, not read */       \
  X(VIM, RVec, X1Row)        /* row of the model layer, 2n+1; allocated, not read */       \
  X(VIM, IntVec, DegCol)     /* degenerate columns, minus for the lower bound; the          \
                                degeneracy list, grown on demand; never active here */      \
  X(VIM, IntVec, DegStack)   /* last entry of DegCol per degeneracy level */                \
  X(VIM, RVec, DegBnd)       /* bound shift of each DegCol entry */                         \
  X(VIM, RVec, XSol)         /* column values of the model layer; never allocated here */   \
  X(VIM, RVec, Xmin)         /* lower bounds of the model layer; never allocated here */    \
  X(VIM, RVec, Xmax)         /* upper bounds of the model layer; never allocated here */    \
  X(VIM, RVec, ColAcc)       /* bound accuracies of the model layer; never allocated here */ \
  X(VIM, IntVec, Clrw)       /* row whose pivot column is model column j, the inverse of    \
                                Rwcl, 2n+1; filled by the first update after a             \
                                factorization and checked against Rwcl before every use */

#define VLU_LUF_VECTORS(X)                                                                   \
  X(LUF, IntVec, Ic)         /* row file (from 1) and U-file column places (U_elefirst..    \
                                RowUSpace), nz+2n; ExtractBasis, Factor_Bump, update */     \
  X(LUF, IntVec, Ir)         /* column file rows (from 1), later the column copy of U       \
                                (U_colfirst..ColUSpace), nz+2n; CreateColumnU, update */    \
  X(LUF, IntVec, Rstr)       /* first position of row i in the row file or U-file, n */     \
  X(LUF, IntVec, Rlen)       /* compressed length of row i, n */                            \
  X(LUF, IntVec, Cstr)       /* first position of column place c in the column file or      \
                                the column copy, n */                                       \
  X(LUF, IntVec, Clen)       /* compressed length of column place c, n */                   \
  X(LUF, IntVec, Lrow)       /* target row of each L element, grows; LUFactor, update */    \
  X(LUF, IntVec, Lpiv)       /* pivot (source) row of each L element, grows */              \
  X(LUF, IntVec, Lsor)       /* start of L column k, n+1; Lsor(L_Cols+1) ends the           \
                                factorization's part of L */                                \
  X(LUF, IntVec, Lstr)       /* start of row eta group g of the updates, min(2n, 5 limit),  \
                                grows; update only */                                       \
  X(LUF, RVec, Ucmat)        /* values of the column copy of U, parallel to Ir above        \
                                U_colfirst; CreateColumnU, update */                        \
  X(LUF, RVec, Lmat)         /* multiplier of each L element, grows with Lrow, Lpiv */

#define VLU_IIN_VECTORS(X)                                                                   \
  X(IIN, IntVec, MarkCol)    /* marks on model columns, 2n+1, cleared per use */            \
  X(IIN, IntVec, Cpnx)       /* next column place in physical order of the column file */   \
  X(IIN, IntVec, Cppr)       /* previous column place in the column file; the update keeps  \
                                model columns of a renumbered range here */                 \
  X(IIN, IntVec, Rpnx)       /* next row in physical order of the row file */               \
  X(IIN, IntVec, Rppr)       /* previous row in physical order of the row file */           \
  X(IIN, IntVec, Mact)       /* best Markowitz count of a column, 0 while in a C-list */    \
  X(IIN, IntVec, Mlow)       /* lower bound of the Markowitz count of a column */           \
  X(IIN, IntVec, Mcex)       /* uncompressed tail length of a column */                     \
  X(IIN, IntVec, Mrow)       /* 1 while a row stands in the scanned-row list, else 0 */     \
  X(IIN, IntVec, Mrex)       /* uncompressed tail length of a row */                        \
  X(IIN, IntVec, Indc)       /* place of a column in the block step, 0 outside it */        \
  X(IIN, IntVec, Indx)       /* scatter vector by row or column, zero between uses */       \
  X(IIN, IntVec, Stcc)       /* head of the column C-list of count c, n */                  \
  X(IIN, IntVec, Stcr)       /* head of the row C-list of count c, n */                     \
  X(IIN, IntVec, Nxtc)       /* next column in its count or Markowitz list, 0 at the end */ \
  X(IIN, IntVec, Prvc)       /* previous column, minus the list's count at the head */      \
  X(IIN, IntVec, Nxtr)       /* next row in its list, 0 at the end */                       \
  X(IIN, IntVec, Prvr)       /* previous row, minus the list's count at the head */         \
  X(IIN, IntVec, C2rp)       /* row-file position of the element at column-file position    \
                                q, ColASpace */                                             \
  X(IIN, IntVec, R2cp)       /* column-file position of the element at row-file position p, \
                                ColASpace */                                                \
  X(IIN, IntVec, Lisr)       /* rows of the pivot column in block order, BlockSize */       \
  X(IIN, IntVec, Rlol)       /* old lengths of the block rows, BlockSize */                 \
  X(IIN, IntVec, Lisc)       /* columns of the pivot row in block order, BlockSize */       \
  X(IIN, IntVec, Clol)       /* old lengths of the block columns, BlockSize */              \
  X(IIN, IntVec, Stmc)       /* head of the Markowitz list of count m, MarkBad */           \
  X(IIN, IntVec, Indr)       /* place of a row in the block step; the memory of VIM%HelpI,  \
                                borrowed for the bump */                                    \
  X(IIN, RVec, Clmx)         /* largest magnitude of a column (exact while Clok) */         \
  X(IIN, RVec, Mmat)         /* dense work matrix of a step, by rows, n */                  \
  X(IIN, RVec, Clmin)        /* smallest pivot magnitude of a column; the memory of         \
                                VIM%WorkZ, borrowed for the bump */                         \
  X(IIN, LogVec, Clok)       /* Clmx and Mact of a column are exact */                      \
  X(IIN, LogVec, Lngr)       /* a block row was found long, BlockSize */                    \
  X(IIN, LogVec, Lngc)       /* a block column was found long, BlockSize */                 \
  X(IIN, IVec, Rlin)         /* elements of each block row inside the block, one section    \
                                per thread, BlockSize */                                    \
  X(IIN, IVec, Clin)         /* elements of each block column inside the block, BlockSize */

struct VUM { int32_t Unused = 0; };      // the user's model: empty in this library
struct VPI { int32_t Unused = 0; };      // preprocessor data: empty in this library
struct VDP { int32_t Unused = 0; };      // defined variables: empty in this library
struct AnonRec { int32_t Unused = 0; };  // scratch of the model layer: empty
struct BND {
  VLU_BND_VECTORS(VLU_VEC_MEMBER)
};

// The matrix in internal form, the permutations, work vectors and the state
// that lasts from one factorization to the next.  Created by Allocate_Space,
// sized by Allocate_Inversion.
struct VIM {
  VLU_VIM_VECTORS(VLU_VEC_MEMBER)

  // Sizes, set by vlu_factor before Allocate_Inversion.
  int32_t NumRow = 0;             // n, rows of the basis, >= 0
  int32_t NumCol = 0;             // n+1: the matrix columns and column t
  int32_t NumNz = 0;              // nz+n: store entries, column t included
  int32_t NumVar = 0;             // 2n+1: all model columns with the slacks (Allocate_Inversion)

  // Tolerance control of the factorization (LUFactor, Factor_Bump).
  double Tol_Piv_Rel = 0.0;       // current relative pivot tolerance, Rvpivr..0.9; learned
  double Ufac_Scale = 1.0;        // reference size of the elements for the Max_UFac tests
  double Max_UFac = 1.0;          // largest U-factor of the last factorization, >= 1
  double Min_Pivot = 1.0;         // smallest pivot magnitude of the last factorization
  bool Large_Ufac = false;        // a pivot was small against the largest U element (Factor_Bump)
  int32_t Tol_Wait = 0;           // factorizations before the tolerance may fall; 25 after a
                                  // rise, 250 after a NaN repair
  int32_t InvertMode = 0;         // why the inversion was asked for, 0 or 1..15; DefNan sets 1
  bool NewBasis = false;          // the factorization changed the basis (LUFactor)
  int32_t Num_Sing = 0;           // columns the last factorization replaced by slacks, >= 0
  int32_t Num_Sing_Tria = 0;      // the part of Num_Sing found by ExtractBasis
  bool AttemptCNS = true;         // cleared by LUFactor when a singularity appears
  bool In_OneDim = false;         // singular columns end the factorization; false here
  bool Keep_Tol = false;          // the tolerance rules are off; false here
  bool Tol_Only_Large = false;    // only Large_Ufac raises the tolerance; false here
  int32_t Updates_Done = 0;       // updates since the last factorization, 0..Max_Updates;
                                  // Update_Inverse, vlu_update, LUFactor (schedule)

  // Degeneracy state of the model layer (Turnoff_Degeneracy, TestDegenerate).
  bool Degenerate = false;        // the basis is degenerate
  int32_t NumDegIter = 0;         // degenerate iterations in a row
  bool Deg_Active = false;        // the degeneracy list is kept; false here
  int32_t Deg_Count = 0;          // entries of VIM%DegCol
  int32_t Deg_Levels = 1;         // levels of VIM%DegStack in use, >= 1
  double Tol_Piv_Deg = 0.0;       // pivot tolerance of the degeneracy handling

  // Results of the last solve (Vdsuxy).
  int32_t Num_UpNz = 0;           // nonzeros of the solution, listed in VIM%HelpI
  double Max_UpCol = 0.0;         // largest magnitude of the solution (NaN once one is seen)

  // Solve timing, kept only when VMI::Timing is on (solve routines).
  int32_t Calls_L_Solve = 0;      // calls of L_Solve
  int32_t Calls_Vdsuxy = 0;       // calls of Vdsuxy
  int32_t Calls_L_Solve_Sparse = 0;  // calls of L_Solve_Sparse
  double Time_L_Solve = 0.0;      // seconds in L_Solve
  double Time_Vdsuxy = 0.0;       // seconds in Vdsuxy
  double Time_L_Solve_Sparse = 0.0;  // seconds in L_Solve_Sparse
  double Time_Ftran_L = 0.0;      // seconds in the L part of Solve_Ftran (with Timing_Detail)
  double Time_Ftran_U = 0.0;      // seconds in the U part of Solve_Ftran (with Timing_Detail)

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

// The factors; they outlive one factorization and are changed by updates.
struct LUF {
  VLU_LUF_VECTORS(VLU_VEC_MEMBER)

  int32_t Num_Slack = 0;          // basic slacks, the first places of VIM%Cbto (LU_Setup_Pass)
  int32_t Num_Post = 0;           // pivots of the slacks and the post-triangular part (ExtractBasis)
  int32_t Num_Pre = 0;            // pivots of the pre-triangular part (ExtractBasis)
  int32_t NumVTria = 0;           // pivots of the triangular phases; the bump starts behind
  int32_t RowUSpace = 0;          // top of the U-file: min(size AUrmat, size Ic)
  int32_t ColASpace = 0;          // top of the column file: min(size Ir, C2rp, R2cp)
  int32_t ColUSpace = 0;          // top of the column copy of U: min(size Ir, size Ucmat)
  int32_t LFileUsed = 0;          // last used position of Lmat, Lrow, Lpiv
  int32_t LFileIni = 0;           // LFileUsed at the end of the last factorization
  int32_t L_Cols = 0;             // L columns of the factorization
  int32_t L_Groups = 0;           // row eta groups the updates added; 0 after a factorization
  int32_t U_elefirst = 1;         // first position of the U-file, RowUSpace+1 when empty
  int32_t U_numele = 0;           // elements of U (row copy)
  int32_t U_numini = 0;           // U_numele at the end of the last factorization
  int32_t U_colfirst = 1;         // first position of the column copy of U (CreateColumnU)
  int32_t RowFileUsed = 0;        // last position of the row file; after LUFactor and in the
                                  // updates the first used slot of the U-file
  int32_t ColFileUsed = 0;        // last position of the column file; after CreateColumnU and
                                  // in the updates the first used slot of the column copy
  int32_t D_Size = 0;             // edge of the dense final block, 0 when there is none
  bool ColCopy = false;           // the column copy of U exists: solves and updates may run;
                                  // cleared by LU_Setup_Pass, set by CreateColumnU
};

// Working data of one factorization (ExtractBasis, Factor_Bump).
struct IIN {
  VLU_IIN_VECTORS(VLU_VEC_MEMBER)

  int32_t Max_Mmat = 0;           // largest block edge so far; first the block size
  int32_t BlockSize = 0;          // length of the block vectors (Lisr .. Clin)
  int32_t BlockSize0 = 0;         // first value of BlockSize
  int32_t MarkBad = 101;          // a prime >= 2 max(n, 1); the size of IIN%Stmc (LUFactor)
  int32_t MarkOver = 100;         // MarkBad - 1
  int32_t MarkMax = 99;           // MarkBad - 2: highest count with a Markowitz list of its own
  int32_t RowFill = 0;            // fill of the elimination so far (Factor_Bump)
  int32_t CPfrst = 0;             // first column place in the physical chain, 0 for none
  int32_t CPlast = 0;             // last column place in the physical chain
  int32_t RPfrst = 0;             // first row in the physical chain, 0 for none
  int32_t RPlast = 0;             // last row in the physical chain
  int32_t Zeros_Removed = 0;      // entries of basic columns below Tol_Zero (ExtractBasis)
  int32_t L_Elements = 0;         // L elements of the pre-triangular part (ExtractBasis)
  int32_t Nele = 0;               // elements of the bump (LUFactor)
  float Nele_Per_Col = 0.0f;      // Nele per bump column (LUFactor)
};

// The top-level environment: tolerances, limits, memory statistics, the
// message channel, clock and threads, and the records.  Built by
// Allocate_Space, which writes the defaults; vlu_factor then sets the message
// routine, the thread count and Max_Updates.
struct VMI {
  // Arithmetic and tolerances (defaults of Allocate_Space; DefNan raises them).
  double Eps = 0.0;               // machine epsilon, 2^-52
  double Eps08 = 0.0;             // Eps to the single-precision power 0.8
  double Eps_Sqrt = 0.0;          // square root of Eps
  double Rtpiva = 0.0;            // absolute pivot tolerance, 1e-10
  double Rvpivr = 0.0;            // floor of the relative pivot tolerance, 0.05
  double Tol_Zero = 0.0;          // entries below this magnitude do not exist, 1e-20
  double Tol_Scale_Min = 0.0;     // minimum scale factor, 1.0
  double Space_Factor = 0.0;      // room per element for active rows and columns, 2.0
  double U_Ratio_Floor = 0.0;     // largest ratio of a U element to its pivot that an update
                                  // accepts at the least: 1/Eps = 2^52 (Allocate_Space)
  double Time_Limit = 0.0;        // seconds, 10000 (Clock_Over)
  int32_t Max_Updates = 0;        // limit on updates between factorizations; from
                                  // vlu_setupdatelimit, -1 made definite by Allocate_Inversion

  // Memory statistics and modes (managed vectors).
  int32_t NumVec_Int = 0;         // IntVec, LIntVec and IVec vectors allocated now
  int32_t NumVec_Real = 0;        // RVec vectors allocated now
  int32_t NumVec_Log = 0;         // LogVec vectors allocated now
  int64_t NumEle_Int = 0;         // their elements (record vectors: allocated size)
  int64_t NumEle_Real = 0;        // elements of the RVec vectors
  int64_t NumEle_Log = 0;         // elements of the LogVec vectors
  int64_t Mem_Current = 0;        // bytes allocated now
  int64_t Mem_Max = 0;            // highest Mem_Current, both blocks of an enlargement counted
  int64_t Mem_Total = 0;          // bytes ever allocated
  int64_t MaxHeap = 0;            // the limit in MBytes, for the message only
  int64_t MaxHeap_Bytes = 0;      // the limit in bytes; unlimited from Allocate_Inversion
  int32_t MemoryMode = 1;         // 1 Needed (failure is fatal), 2 Explore (failure is quiet)
  int32_t MemoryArea = 1;         // 1 Input, 2 PreProc, 3 Setup, 4 Optimize: selects the message
  bool EnoughSpace = true;        // false from the first failed allocation on
  int32_t Exception = 0;          // highest serious condition: 0, 96 memory, 98 row-and-column
                                  // routine, 99 fatal internal error, 100 message routine failed;
                                  // raised with max only (vlu_update sets earlier ones aside)
  bool Clear_On_Alloc = false;    // debug: zero every new vector
  bool Define_On_Alloc = false;   // debug: fill every new vector with the undefined pattern
  int32_t Trace_Memory = 0;       // trace level of the managed vectors, 0..3
  bool Debug_Parallel = false;    // trace enlargements of vectors with thread sections

  // Message channel (messages.cpp).
  char Msg_Line[MsgWidth + 1];    // work line that producers format into
  char Msg_Block[MsgLines + 1][MsgWidth + 1];  // lines 1..30 waiting to be sent, blank padded
  int32_t SMsg = 0;               // lines 1..SMsg of the block are for the screen, 0..30
  int32_t DMsg = 0;               // lines 1..DMsg are for the document
  int32_t NMsg = 0;               // lines 1..NMsg are for the status output
  void (*Msg_Routine)() = nullptr;  // the message routine, MsgRoutineC or MsgRoutineL (vlu_factor)
  int32_t Msg_Style = 0;          // 0 C style, otherwise length-carrying (vlu_factor)
  void *Msg_Usrmem = nullptr;     // passed to the message routine unchanged
  bool Msg_Flush_Each = false;    // every send is followed by a flush call; set by the first
                                  // fatal internal error
  int32_t Msg_Error = 0;          // first non-zero result of the message routine
  bool Msg_Dead = false;          // the message routine returned non-zero: nothing more is sent
  int32_t Msg_Print_Error = 0;    // 1: a non-zero result is also printed on standard output
  bool Internal_Seen = false;     // the long report of an internal error was given
  bool Errors_Fatal = false;      // every internal error is fatal
  int32_t Fatal_Code = 0;         // 200 after a fatal internal error
  int32_t Exit_Code = 26;         // why a run ended: 26, 7 memory in Optimize, 14 small pivot
  ErrMsgRoutine ErrMsg = nullptr;  // the caller's row-and-column error routine; never set here

  // Clock (clock.cpp).
  double Clock_Start = 0.0;       // seconds of the counter at Vdclcki
  double Clock_Acc = 0.0;         // seconds added for wraps of the counter
  int32_t Count_Old = 0;          // counter at the last reading
  int32_t Count_Acc = 0;          // step back that still counts as a glitch, >= 10 ticks
  bool Clock_Off = false;         // Clock_Read returns 0
  bool Trace_Clock = false;       // trace the readings
  TickSource Clock_Source = nullptr;  // the tick counter; null: the system counter

  // Threads (Allocate_Inversion; vlu_factor asks for 1).
  int32_t Threads = 1;            // threads asked for, >= 1
  int32_t Threads_Used = 1;       // threads in use, <= the system's count
  int32_t NumThread = 1;          // sections of the per-thread vectors
  double Thread_Damp = 1.0;       // Threads_Used^-0.333, damps the work estimates
  bool Trace_Threads = false;     // trace the work balance
  int32_t *Th_Start = nullptr;    // first index of each thread's stretch, 1-based; threads > 1
  int32_t *Th_End = nullptr;      // last index of each thread's stretch
  int32_t *Th_Model[3] = {nullptr, nullptr, nullptr};  // stretches of the model layer
  int32_t Th_Size = 0;            // elements of the thread vectors

  // Trace levels and test options: 0 unless a test sets them (Apply_Test_Hooks).
  int32_t Trace_Inv = 0;          // factorization: 1 decisions, 2 statistics, 3 each pivot
  int32_t Trace_Inv2 = 0;         // second trace level of the factorization
  int32_t Trace_Upd = 0;          // trace level of the update
  int32_t Debug_Upd = 0;          // update checks: 1 or more compares the two copies of U and
                                  // the four permutations at the entry and end of every update
                                  // and the work vectors at its start; set only by tests
  bool Lssqrs = false;            // singular columns end the factorization; false here
  bool TraceCNS = false;          // trace small pivots through Row_Col_Error; false here
  int32_t Test_Full = 0;          // structure cross check in the consistency battery
  int32_t Test_Trace = 0;         // battery at every pivot, with reports
  int32_t Test_LU = 0;            // L times U against the basis
  int32_t Test_Every = 0;         // battery every so many pivots, 0 off
  int32_t Test_Start = 0;         // first pivot index of the battery
  bool Timing = false;            // keep the solve timings of VIM
  bool Timing_Detail = false;     // and split Solve_Ftran into its parts

  // NaN repair (DefNan).
  int32_t Nan_Events = 0;         // NaN or overflow events seen
  bool Nan_Given_Up = false;      // message 2161 was sent

  // Records; null when not built (Allocate_Space, the deallocation routines).
  AnonRec *Anon = nullptr;        // scratch of the model layer
  VUM *Vum = nullptr;             // the user's model
  VIM *Vim = nullptr;             // the internal model
  VPI *Vpi = nullptr;             // preprocessor data
  LUF *Luf = nullptr;             // the factors
  IIN *Iin = nullptr;             // working data of one factorization
  VDP *Vdp = nullptr;             // defined variables
  BND *Bnd = nullptr;             // bending line search
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
// Tears the environment down to its records and gives them their defaults
// again, as VMI_Deallocate followed by Allocate_Space would, without trace
// lines: every vector is released with its accounting and the balance is
// proven, but each vector's block stays with its slot as a spare
// (Park_Vector) that the next allocation of the same size takes back.
void Renew_Space(VMI *vmi);
// The end of a factor call: gives back the spares that no allocation took and
// moves vectors out of blocks far larger than they count (Settle_Vector).
void Settle_Blocks(VMI *vmi);
// Park_Vector for every slot of the records (the first step of Renew_Space).
void Park_Vectors(VMI *vmi);

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
// the record's "REC%Member" names; for record vectors they equal Name.
// Used by the record listings of the dump routines, the naming of record
// vectors and the releases.  Generated from the lists above.
namespace vlu {

template <typename F> void ForEachVec(VUM &, F &&) {}
template <typename F> void ForEachVec(VPI &, F &&) {}
template <typename F> void ForEachVec(VDP &, F &&) {}
template <typename F> void ForEachVec(AnonRec &, F &&) {}
template <typename F> void ForEachVec(BND &r, F &&f) { VLU_BND_VECTORS(VLU_VEC_VISIT) }
template <typename F> void ForEachVec(VIM &r, F &&f) { VLU_VIM_VECTORS(VLU_VEC_VISIT) }
template <typename F> void ForEachVec(LUF &r, F &&f) { VLU_LUF_VECTORS(VLU_VEC_VISIT) }
template <typename F> void ForEachVec(IIN &r, F &&f) { VLU_IIN_VECTORS(VLU_VEC_VISIT) }

// The same slot of two records of one type side by side: f(slotOfA, slotOfB).
#define VLU_VEC_VISIT_PAIR(Rec, Kind, Member) f(a.Member, b.Member);
template <typename F> void ForEachVecPair(BND &a, BND &b, F &&f) { VLU_BND_VECTORS(VLU_VEC_VISIT_PAIR) }
template <typename F> void ForEachVecPair(VIM &a, VIM &b, F &&f) { VLU_VIM_VECTORS(VLU_VEC_VISIT_PAIR) }
template <typename F> void ForEachVecPair(LUF &a, LUF &b, F &&f) { VLU_LUF_VECTORS(VLU_VEC_VISIT_PAIR) }
template <typename F> void ForEachVecPair(IIN &a, IIN &b, F &&f) { VLU_IIN_VECTORS(VLU_VEC_VISIT_PAIR) }

}  // namespace vlu
