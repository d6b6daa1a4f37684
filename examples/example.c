/* The call protocol on a 3 x 3 example: factor a basis, solve, exchange a
 * column, solve again, and print the counters. */
#include <stdio.h>
#include "vardenlu.h"

static int print_lines(int smsg, int dmsg, int nmsg, char **lines, void *usrmem) {
  int count = dmsg > smsg ? dmsg : smsg;
  (void)nmsg;
  (void)usrmem;
  for (int i = 0; i < count; ++i) printf("  | %s\n", lines[i]);
  return 0;
}

int main(void) {
  /* A = [2 0 0; 1 3 0; 0 1 4] by columns. */
  int n = 3, nz = 5;
  int colStart[] = {1, 3, 5, 6};
  int rowIdx[] = {1, 2, 2, 3, 3};
  int colIdx[] = {1, 1, 2, 2, 3};
  double val[] = {2.0, 1.0, 3.0, 1.0, 4.0};
  /* Columns 1..3 basic; t (column 4) and the slacks (5..7) nonbasic. */
  int stat[] = {2, 2, 2, 0, 0, 0, 0};
  double rhs[] = {1.0, 1.0, 1.0};
  double sol[7];

  vlu_regmsgcb(NULL, print_lines);
  if (vlu_create() != 0) return 1;
  int rc = vlu_factor(&n, &nz, colStart, rowIdx, colIdx, val, NULL, stat);
  printf("vlu_factor: %d\n", rc);
  if (rc != 0) return 1;
  vlu_solve(sol, rhs);
  printf("x = %g %g %g\n", sol[0], sol[1], sol[2]);

  /* The slack of row 2 (column 6) replaces column 2. */
  int entering = 6, leaving = 2, force = 0;
  stat[5] = 2;
  stat[1] = 0;
  rc = vlu_update(stat, &entering, &leaving, &force);
  printf("vlu_update: %d\n", rc);
  vlu_solve(sol, rhs);
  printf("x1 = %g, slack2 = %g, x3 = %g\n", sol[0], sol[5], sol[2]);

  int nf, nu, nr;
  vlu_getstats(&nf, &nu, &nr);
  printf("factorizations %d, in-place updates %d, refactorizations %d\n", nf, nu, nr);
  vlu_destroy();
  return 0;
}
