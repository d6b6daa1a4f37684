/* Factorizes, solves and updates a small basis and checks every solution
 * against the matrix itself: the residual of B x = b is recomputed from the
 * caller's own copy of the columns.  It also walks through the recovery from
 * a singular basis.  Exit status 0 when every check holds.
 *
 * The 4 x 4 matrix is triangular once its rows are put in the order
 * 2, 4, 1, 3 (the pivot rows of columns 1..4), and every basis below keeps
 * that property, so that the factorization never needs a general
 * elimination step:
 *
 *          col1  col2  col3   col4
 *   row 1 [  1     .     5      .  ]
 *   row 2 [  4     .     .      .  ]
 *   row 3 [ -1     2     1      2  ]
 *   row 4 [  .     3   1e-14    .  ]
 *
 * The entry 1e-14 is too small to be a pivot: a basis in which column 3 must
 * pivot on row 4 is singular for the library.
 *
 * Column numbers: 1..4 the matrix, 5 the column t (unused here), 6..9 the
 * slacks of rows 1..4. */
#include <float.h>
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "vardenlu.h"

#define N 4
#define NZ 9
#define NCOL (2 * N + 1)

static const int colStart[N + 1] = {1, 4, 6, 9, 10};
static const int rowIdx[NZ] = {1, 2, 3, 3, 4, 1, 3, 4, 3};
static const int colIdx[NZ] = {1, 1, 1, 2, 2, 3, 3, 3, 4};
static const double val[NZ] = {1.0, 4.0, -1.0, 2.0, 3.0, 5.0, 1.0, 1e-14, 2.0};

static int failures = 0;

static void check(int ok, const char *what) {
  printf("%s %s\n", ok ? "ok  " : "FAIL", what);
  if (!ok) ++failures;
}

/* Messages of the library go to standard output, one line each. */
static int print_lines(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  int count = dmsg > smsg ? dmsg : smsg;
  (void)nmsg;
  (void)usrmem;
  for (int i = 0; i < count; ++i) printf("  | %s\n", lines[i]);
  return 0;
}

/* Solves B x = rhs and checks it: exactly the basic columns of stat carry a
 * value, every other entry is DBL_MAX, and the largest entry of
 * rhs - B x is tiny against the size of rhs. */
static void solve_and_check(const int *stat, const double *rhs, const char *what) {
  double sol[NCOL], res[N];
  int basicCount = 0, marksOk = 1;
  vlu_solve(sol, rhs);
  memcpy(res, rhs, sizeof res);
  for (int j = 1; j <= NCOL; ++j) {
    const double x = sol[j - 1];
    if (stat[j - 1] != 2) {
      if (x != DBL_MAX) marksOk = 0;
      continue;
    }
    ++basicCount;
    if (x == DBL_MAX) {
      marksOk = 0;
    } else if (j <= N) {
      for (int p = colStart[j - 1]; p < colStart[j]; ++p) res[rowIdx[p - 1] - 1] -= val[p - 1] * x;
    } else if (j > N + 1) {
      res[j - N - 2] -= x; /* slack of row j-n-1 */
    }
  }
  double worst = 0.0, scale = 0.0;
  for (int i = 0; i < N; ++i) {
    if (fabs(res[i]) > worst) worst = fabs(res[i]);
    if (fabs(rhs[i]) > scale) scale = fabs(rhs[i]);
  }
  char line[160];
  snprintf(line, sizeof line, "%s: %d basic values, residual %.1e", what, basicCount, worst);
  check(marksOk && basicCount == N && worst <= 1e-13 * (1.0 + scale), line);
}

/* Column `entering` takes the place of column `leaving` in stat, and the
 * library follows.  Returns the result of vlu_update. */
static int change(int *stat, int entering, int leaving, int force) {
  stat[entering - 1] = 2;
  stat[leaving - 1] = 0;
  return vlu_update(stat, &entering, &leaving, &force);
}

int main(void) {
  const double rhs[N] = {3.0, -1.0, 2.5, 0.5};
  int n = N, nz = NZ;
  int stat[NCOL] = {2, 2, 2, 2, 0, 0, 0, 0, 0}; /* the four matrix columns */
  int rc;

  printf("vardenlu %d.%d.%d\n", VARDENLU_VERSION_MAJOR, VARDENLU_VERSION_MINOR,
         VARDENLU_VERSION_PATCH);
  vlu_regmsgcb(NULL, print_lines);
  check(vlu_create() == VLU_OK, "vlu_create");

  rc = vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, NULL, stat);
  check(rc == VLU_OK, "vlu_factor of the matrix columns");
  if (rc != VLU_OK) return 1;
  solve_and_check(stat, rhs, "solve with columns 1..4");

  /* The slack of row 4 (column 9) replaces column 2, whose pivot row is 4. */
  rc = change(stat, 9, 2, 0);
  check(rc == VLU_REFACTORED || rc == VLU_UPDATED, "slack of row 4 replaces column 2");
  solve_and_check(stat, rhs, "solve after the first change");

  /* And back again. */
  rc = change(stat, 2, 9, 0);
  check(rc == VLU_REFACTORED || rc == VLU_UPDATED, "column 2 replaces the slack of row 4");
  solve_and_check(stat, rhs, "solve after the second change");

  /* The slack of row 1 replaces column 3; the caller asks for a new
   * factorization instead of an update. */
  rc = change(stat, 6, 3, 1);
  check(rc == VLU_REFACTORED, "forced refactorization");
  solve_and_check(stat, rhs, "solve after the forced refactorization");

  int nFactor, nUpdate, nRefactor;
  vlu_getstats(&nFactor, &nUpdate, &nRefactor);
  check(nFactor == 1 && nUpdate + nRefactor == 3 && nRefactor >= 1, "counters");

  /* A singular basis: columns 1, 3, 4 and the slack of row 1.  Only column 3
   * reaches row 4, with the entry 1e-14.  The library gives the pair
   * (row 4, column 3): column 3 cannot stay, the slack of row 4 can. */
  int singular[NCOL] = {2, 0, 2, 2, 0, 2, 0, 0, 0};
  memcpy(stat, singular, sizeof stat);
  rc = vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, NULL, stat);
  check(rc == VLU_SINGULAR && vlu_getnumsing() == 1, "singular basis found, one pair");
  check(memcmp(stat, singular, sizeof stat) == 0, "the caller's status array is unchanged");
  /* Accept every pair: the column leaves, the slack of the row comes in. */
  for (int k = 1; k <= vlu_getnumsing(); ++k) {
    int row, col;
    vlu_getsingpair(&k, &row, &col);
    printf("     pair %d: row %d, column %d\n", k, row, col);
    check(row == 4 && col == 3, "the pair is (row 4, column 3)");
    stat[col - 1] = 0;
    stat[N + row] = 2;
  }
  rc = vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, NULL, stat);
  check(rc == VLU_OK, "repaired basis factorizes");
  if (rc == VLU_OK) solve_and_check(stat, rhs, "solve with the repaired basis");

  vlu_destroy();
  printf("%s\n", failures == 0 ? "all checks passed" : "some checks FAILED");
  return failures == 0 ? 0 : 1;
}
