/*
 * vardenlu: sparse LU basis factorization for pivoting solvers.
 *
 * The caller owns an n x n sparse matrix held by columns, a special column t
 * (coefficients r, possibly unknown at first) and n implicit slack columns.
 * Columns are numbered 1..n (matrix), n+1 (t), n+1+i (slack of row i).
 * Status values: 0 nonbasic, 2 basic; exactly n of the 2n+1 columns are basic.
 *
 * Every scalar argument is passed by address.  All indices are 1-based.
 * The library keeps one environment in process-wide state and is not
 * reentrant: call it from one thread at a time.
 *
 * Call protocol:
 *   vlu_regmsgcb (optional, any time)
 *   vlu_create
 *   vlu_setupdatelimit (optional; takes effect at the next vlu_factor)
 *   vlu_factor
 *   any mix of vlu_solve, vlu_update and the queries
 *   vlu_destroy
 */
#ifndef VARDENLU_H
#define VARDENLU_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VLU_BUILDING)
#define VLU_API __attribute__((visibility("default")))
#else
#define VLU_API
#endif

/* Message callback.  Receives a block of lines: lines 1..smsg are meant for
 * the screen, 1..dmsg for the log, 1..nmsg for the status output.  lines[i]
 * (0-based table) points to a NUL-terminated line of at least one character.
 * The pointers are valid only during the call.  A non-zero result silences
 * the library's message channel for the rest of the environment. */
typedef int (*vlu_msgcb_t)(int smsg, int dmsg, int nmsg, char **lines, void *usrmem);

/* Result codes of vlu_factor and vlu_update. */
#define VLU_OK 0
#define VLU_REFACTORED 1
#define VLU_UPDATED 2
#define VLU_SINGULAR 3
#define VLU_NO_MEMORY 4

/* Lifecycle. vlu_create returns 0, or 1 when an environment already exists. */
VLU_API int vlu_create(void);
VLU_API void vlu_destroy(void);

/* Factorize the basis marked in basisStat (2n+1 entries).
 * colStart: n+1 entries, 1-based start of each column, colStart[0] = 1,
 * never falling, colStart[n] = nz+1.  rowIdx, colIdx, val: nz entries, rows
 * within 1..n, no row twice in a column (in any order within a column).
 * r: n coefficients of column t, or NULL.  n >= 0, nz >= 0, nz + 2n at most
 * 2147482623.  A matrix that breaks these rules ends the process with a
 * line naming the first fault.
 * Returns 0 (regular), 3 (singular: see vlu_getnumsing/vlu_getsingpair),
 * 4 (not enough memory). */
VLU_API int vlu_factor(const int *n, const int *nz, const int *colStart,
                       const int *rowIdx, const int *colIdx, const double *val,
                       const double *r, const int *basisStat);

/* Solve B x = rhs (n entries).  sol receives 2n+1 entries: the value of each
 * basic column, and DBL_MAX for every nonbasic column.  Returns 0.
 * vlu_solve and vlu_update need factors: called before vlu_factor, or after
 * a result 3 or 4, they end the process with a line saying so. */
VLU_API int vlu_solve(double *sol, const double *rhs);

/* Column *entering replaces column *leaving; basisStat already shows the new
 * basis.  *forceFactor != 0 skips the in-place update.  Returns 1
 * (refactorized), 2 (updated in place) or 3 (singular after refactorization). */
VLU_API int vlu_update(const int *basisStat, const int *entering,
                       const int *leaving, const int *forceFactor);

/* Queries and limits. */
VLU_API int vlu_getnumsing(void);
VLU_API int vlu_getsingpair(const int *k, int *row, int *col);
VLU_API int vlu_getstats(int *nFactor, int *nUpdate, int *nRefactor);
/* Limit on in-place updates between factorizations, from the next
 * vlu_factor on: -1 (the library chooses), or 0 to 2147483647 (the default;
 * 0: every update refactorizes).  Values below -1 count as 0, and values
 * from 429496730 to 858993459 as 429496729 (no factorization takes that
 * many updates).  Returns the limit in force. */
VLU_API int vlu_setupdatelimit(const int *limit);

/* Messages. */
VLU_API vlu_msgcb_t vlu_regmsgcb(void *usrmem, vlu_msgcb_t msgcb);
VLU_API vlu_msgcb_t vlu_getmsgcb(void);
VLU_API int vlu_msghack(const int *k);
VLU_API int aa(const int *j);

#ifdef __cplusplus
}
#endif

#endif /* VARDENLU_H */
