/*
 * vardenlu: sparse LU basis factorization for pivoting solvers.
 *
 * The system.  The caller owns an n x n sparse matrix A held by columns, a
 * special column t with coefficients r (known at once, or learned later from
 * a right-hand side) and n implicit slack columns.  Columns are numbered
 *   1 .. n        the columns of A,
 *   n+1           the column t,
 *   n+1+i         the slack of row i (the unit vector e_i), i = 1 .. n,
 * 2n+1 columns in all.  A status array has one entry per column, entry j-1
 * for column j: 0 nonbasic, 2 basic.  Exactly n columns are basic; they form
 * the basis B.
 *
 * Conventions.  Every scalar argument is passed by address.  All indices,
 * also those held in arrays, are 1-based.  Arrays are read or written
 * exactly as far as their stated length.  The library keeps one environment
 * in process-wide state and is not reentrant: call it from one thread at a
 * time.
 *
 * Call protocol:
 *   vlu_regmsgcb        optional, any time
 *   vlu_create
 *   vlu_setupdatelimit  optional; takes effect at the next vlu_factor
 *   vlu_factor
 *   any mix of vlu_solve, vlu_update and the queries; vlu_factor again at
 *   any time (it starts from nothing)
 *   vlu_destroy
 * vlu_solve and vlu_update need factors: the last vlu_factor returned 0 and
 * no vlu_update since returned 3.  They do not check this; called without
 * factors they read through a null pointer.
 *
 * Stops.  A call that breaks the protocol in a way the library can see
 * (a bad status value, a status array that differs from the library's copy,
 * a column number out of range, not exactly n basic columns) does not
 * return: the library writes one line of text to standard error and ends
 * the process with exit status 1 (EXIT_FAILURE), without cleanup.  The texts
 * are given below, function by function.  The stop "VMI%Exception is not
 * zero" follows a fatal internal error, which first reports its number and
 * cause through the message callback.  Other text before a stop goes to
 * standard output.
 */
#ifndef VARDENLU_H
#define VARDENLU_H

/* Version of this header, the same as the version of the library built with
 * it.  VARDENLU_VERSION is one number for #if tests: 10000 major + 100 minor
 * + patch. */
#define VARDENLU_VERSION_MAJOR 0
#define VARDENLU_VERSION_MINOR 1
#define VARDENLU_VERSION_PATCH 0
#define VARDENLU_VERSION \
  (VARDENLU_VERSION_MAJOR * 10000 + VARDENLU_VERSION_MINOR * 100 + VARDENLU_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VLU_BUILDING)
#define VLU_API __attribute__((visibility("default")))
#else
#define VLU_API
#endif

/* Result codes of vlu_factor and vlu_update. */
#define VLU_OK 0         /* vlu_factor: basis regular and factorized */
#define VLU_REFACTORED 1 /* vlu_update: factors rebuilt by a new factorization */
#define VLU_UPDATED 2    /* vlu_update: factors updated in place */
#define VLU_SINGULAR 3   /* vlu_factor, vlu_update: basis singular, no factors */
#define VLU_NO_MEMORY 4  /* vlu_factor: the environment could not be allocated */

/* Message callback, registered with vlu_regmsgcb.
 *
 * Arguments: the library sends its messages in blocks of lines.  lines[0 ..
 *   m-1], m = the largest of smsg, dmsg and nmsg, point to NUL-terminated
 *   lines of at least one character (an empty line is sent as one blank).
 *   Lines 1..smsg are meant for the screen, 1..dmsg for a log, 1..nmsg for a
 *   status output.  usrmem is the pointer given to vlu_regmsgcb.  The lines
 *   and the table are valid only during the call.  After a fatal internal
 *   error every block is followed by a call with all three counts 0, a
 *   request to flush whatever the callback buffers; it carries no lines.
 * Result: return 0.  A non-zero result silences the message channel: no
 *   later message reaches the callback until the next vlu_factor.  The call
 *   during which it happened gives up and stops with "VMI%Exception is not
 *   zero"; later calls are not affected.
 * Messages appear when something goes wrong (internal errors and their
 *   causes); a regular factorization, solve or update sends none. */
typedef int (*vlu_msgcb_t)(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);

/* vlu_create: opens the environment.
 *
 * Arguments: none.
 * Result: 0 (VLU_OK), the environment is created: counters nFactor, nUpdate,
 *   nRefactor and the number of singular pairs are 0 and the update limit
 *   is 2147483647 (no limit).  1 when an environment already exists: three
 *   lines, the middle one "** Fatal Error ** vlu_create called but
 *   environment already exists", go to standard output and nothing changes.
 *   The message callback is not touched.
 * Stops: none. */
VLU_API int vlu_create(void);

/* vlu_destroy: frees the environment with all factors and data.
 *
 * Arguments: none.  Result: none.
 * Any time, also twice in a row or without vlu_create.  The message callback
 * and the counters of vlu_getstats stay as they are; the update limit stays
 * set until the next vlu_create.
 * Stops: none. */
VLU_API void vlu_destroy(void);

/* vlu_factor: takes the matrix and a basis, and factorizes the basis.
 *
 * Arguments (all read only; the library keeps its own copy, the caller may
 * reuse its arrays at once):
 *   n          number of rows and of matrix columns; 0 <= n.
 *   nz         number of matrix entries; 0 <= nz, and nz + 2n at most
 *              2147482623 (memory is the practical limit).
 *   colStart   n+1 entries: colStart[j-1] is the 1-based position of the
 *              first entry of column j in the three arrays below;
 *              colStart[0] = 1, non-decreasing, colStart[n] = nz + 1.
 *   rowIdx     nz entries: row of each entry, 1..n; no row twice in one
 *              column (any order within a column).
 *   colIdx     nz entries: column of each entry, 1..n, the column whose
 *              range in colStart holds the entry.
 *   val        nz entries: value of each entry, finite.  A (row, column)
 *              pair appears at most once.  Entries of magnitude below 1e-20
 *              are left out of the basis.
 *   r          n coefficients of column t, finite; or NULL while they are
 *              not known (column t is then zero for the factorization, and
 *              learns its coefficients from a solve, see vlu_update).
 *   basisStat  2n+1 entries, each 0 or 2, exactly n of them 2; entry n
 *              (column t) may be 2 only when r is not NULL.
 * Result:
 *   0 (VLU_OK)        the basis is regular and factorized: vlu_solve and
 *                     vlu_update may follow.  nFactor is counted.
 *   3 (VLU_SINGULAR)  the basis is singular: vlu_getnumsing tells how many
 *                     (row, column) pairs, vlu_getsingpair gives them.  Pair
 *                     (i, j): column j cannot stay in the basis, the slack of
 *                     row i would take its place.  basisStat is not changed
 *                     and there are no factors: do not call vlu_solve or
 *                     vlu_update.  To accept the pairs, set basisStat[j-1] to
 *                     0 and basisStat[n+i] to 2 for each and call vlu_factor
 *                     again.
 *   4 (VLU_NO_MEMORY) memory ran out: for the environment, while the
 *                     factors grew, or for the column copy of U; a message
 *                     went to standard output.  No factors or data are
 *                     kept; vlu_factor may be called again.
 * Any earlier factors and data are freed first; the counters, the message
 * callback and the update limit survive.
 * Stops:
 *   "vlu_factor: ..."                            an argument breaks the rules
 *       above (n or nz negative, a null array, sizes too large, colStart not
 *       running from 1 to nz + 1, a row outside 1..n or repeated in a
 *       column); the line names the first fault, e.g. "vlu_factor: row 1
 *       appears twice in column 1 (rowIdx[0] and rowIdx[2])"
 *   "t basic but r unknown"                      basisStat[n] is 2, r NULL
 *   "BOGUS BasisStat value found: expected NBasic or IBasic"
 *                                                a status other than 0 or 2
 *   "VMI%Exception is not zero"                  the basis does not have
 *       exactly n basic columns (the callback receives the list of basic
 *       columns first), the callback returned non-zero during this call, or
 *       another fatal internal error
 *   "singCnt <> VIM%Num_Sing", "MISMATCH IN SINGULAR COUNTS",
 *   "VARDEN says Num_Sing is 0 but basis changed",
 *   "dropped slack after factorization should not happen",
 *   "non-slack column added to basis by factorization: should not happen",
 *   "COUNT MISMATCH" (after a line on standard output),
 *   "MISSING SINGULAR ROW"
 *       internal inconsistencies between the repaired and the given basis;
 *       they do not occur with valid arguments. */
VLU_API int vlu_factor(const int *n, const int *nz, const int *colStart,
                       const int *rowIdx, const int *colIdx, const double *val,
                       const double *r, const int *basisStat);

/* vlu_solve: solves B x = rhs with the current factors.
 *
 * Arguments:
 *   sol  out, 2n+1 entries: sol[j-1] is the value of column j in x for every
 *        basic column j, and DBL_MAX (1.7976931348623157e308) for every
 *        nonbasic column, which tells the two apart.
 *   rhs  in, n entries: rhs[i-1] is the right-hand side of row i.  Not
 *        changed.  While the coefficients of column t are unknown, the
 *        library keeps a copy: should column t enter the basis, this last
 *        right-hand side becomes its coefficients.
 * Result: 0 always.
 * Needs factors (see the protocol above).  The factors do not change.
 * Stops:
 *   "vlu_solve called without factors: call vlu_factor first"
 *                       before any vlu_factor, or after a result 4
 *   "vlu_solve called on a singular basis: call vlu_factor first"
 *                       after a result 3
 *   "Basis Bogus AAA"   the factors name a nonbasic column: internal
 *                       inconsistency. */
VLU_API int vlu_solve(double *sol, const double *rhs);

/* vlu_update: follows a basis change, one column entering and one leaving.
 *
 * Arguments:
 *   basisStat    2n+1 entries, the caller's status array already showing
 *                the new basis: equal to the status after the last
 *                vlu_factor or vlu_update except that column *entering is
 *                now 2 and column *leaving now 0.  Read only.
 *   entering     the column that enters, 1..2n+1, nonbasic before.  Column
 *                t (n+1) may enter only while its coefficients are unknown
 *                (vlu_factor had r NULL and t has not entered since); it
 *                then takes the right-hand side of the last vlu_solve as its
 *                coefficients, so a solve must come first.
 *   leaving      the column that leaves, 1..2n+1, basic before.
 *   forceFactor  0: update the factors in place where the limits allow;
 *                any other value: factorize the new basis from scratch.
 * Result:
 *   1 (VLU_REFACTORED) the factors were rebuilt (forced, the update limit
 *                      reached, the factors grown too much, or the update
 *                      failed); nRefactor is counted.
 *   2 (VLU_UPDATED)    the factors were updated in place; nUpdate counted.
 *   3 (VLU_SINGULAR)   the new basis is singular; vlu_getnumsing gives the
 *                      number of pairs, but not the pairs themselves: call
 *                      vlu_factor with the new basis to get them (it
 *                      starts from the default tolerances and may also
 *                      find the basis regular).  No factors: do not call
 *                      vlu_solve or vlu_update.
 * Needs factors (see the protocol above).  The library's copy of the status
 * follows the change in every case.
 * Stops, tested in this order:
 *   "vlu_update called without factors: call vlu_factor first",
 *   "vlu_update called on a singular basis: call vlu_factor first"
 *                                 as for vlu_solve
 *   "update: entering column Q is outside 1..2n+1 = M", and the same for
 *   the leaving column            a column number out of range
 *   "update AAA: entering column is already basic"
 *   "update BBB: bogus basisStat"      basisStat[entering-1] is not 2
 *   "update CCC: leaving column is already nonbasic"
 *   "update DDD: bogus basisStat"      basisStat[leaving-1] is not 0
 *   "update ZZZ: bogus basisStat"      another entry differs from the
 *                                      library's copy
 *   "update CCC: r entering basis but already in"
 *                                      column t enters, coefficients known
 *   "VMI%Exception is not zero"        a fatal internal error of this
 *                                      call, or the callback returned
 *                                      non-zero during it; the refactori-
 *                                      zation inside vlu_update ran out of
 *                                      memory. */
VLU_API int vlu_update(const int *basisStat, const int *entering,
                       const int *leaving, const int *forceFactor);

/* vlu_getnumsing: number of singular pairs.
 *
 * Arguments: none.
 * Result: the number of pairs found by the last vlu_factor or vlu_update
 *   (0 when the basis was regular, and after vlu_create).
 * Stops: none. */
VLU_API int vlu_getnumsing(void);

/* vlu_getsingpair: singular pair k of the last vlu_factor.
 *
 * Arguments:
 *   k    in, any value; pairs are numbered 1..vlu_getnumsing().
 *   row  out: the row i whose slack takes the column's place.
 *   col  out: the column j that leaves.
 * Result: the column j; 0 when k is outside 1..vlu_getnumsing(), and then
 *   *row and *col are 0 as well.  The pairs come first with row = column
 *   (ascending), then the others, columns ascending.  Meaningful after
 *   vlu_factor only: after vlu_update returned 3 the values are not pairs
 *   of the new basis.
 * Stops: none. */
VLU_API int vlu_getsingpair(const int *k, int *row, int *col);

/* vlu_getstats: counters since vlu_create.
 *
 * Arguments (out): nFactor, the vlu_factor calls that returned 0; nUpdate,
 *   the vlu_update calls that returned 2; nRefactor, the vlu_update calls
 *   that returned 1.  All 0 before the first factorization.
 * Result: nFactor.
 * Stops: none. */
VLU_API int vlu_getstats(int *nFactor, int *nUpdate, int *nRefactor);

/* vlu_setupdatelimit: the number of in-place updates allowed after a
 * factorization before vlu_update factorizes anew.
 *
 * Arguments:
 *   limit  in: -1, or 0 to 2147483647.  0 makes every vlu_update
 *          refactorize; -1 lets the library choose: max(100, 10 *
 *          trunc(n^0.333)); 2147483647, the value after vlu_create, sets
 *          no limit.  Values below -1 count as 0, and values from
 *          429496730 to 858993459 as 429496729 (the library sizes a store
 *          by five times the limit in 32-bit arithmetic; no factorization
 *          takes that many updates).
 * Result: the limit in force.
 * Takes effect at the next vlu_factor; the current factors keep theirs.
 * Stops: none. */
VLU_API int vlu_setupdatelimit(const int *limit);

/* vlu_regmsgcb: registers the message callback.
 *
 * Arguments: usrmem, passed to every call of the callback; msgcb, the
 *   callback, or NULL: then each block of messages shows up as three lines
 *   on standard output with the counts only, not the text.
 * Result: the callback registered before.
 * Any time, also before vlu_create; the callback survives vlu_destroy.
 * Stops: none. */
VLU_API vlu_msgcb_t vlu_regmsgcb(void *usrmem, vlu_msgcb_t msgcb);

/* vlu_getmsgcb: the registered message callback, or NULL.
 * Arguments: none.  Stops: none. */
VLU_API vlu_msgcb_t vlu_getmsgcb(void);

/* vlu_msghack: shows the error path of the library to a caller.
 *
 * Arguments: k, any value.
 * Result: 0, not meaningful.
 * Sends "** Sample error emitted in vlu_msghack: k =" with the value,
 * followed by the report of a fatal internal error, through the message
 * callback.  Needs the environment of a vlu_factor; without one it does
 * nothing.  The environment then counts as failed: vlu_solve still works,
 * the next vlu_update stops with "VMI%Exception is not zero", and a new
 * vlu_factor starts clean.
 * Stops: none here. */
VLU_API int vlu_msghack(const int *k);

/* aa: checks the connection to the library.
 *
 * Arguments: j, any value.
 * Result: 0, not meaningful.
 * Writes "j = " and the value, 5 wide, as one line to standard output.
 * Stops: none. */
VLU_API int aa(const int *j);

#ifdef __cplusplus
}
#endif

#endif /* VARDENLU_H */
