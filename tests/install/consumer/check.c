/* The checking layer, in a host written in C. */
#include <stdio.h>

#include "qj7mem00/memchk.h"

int main(void) {
  MEMFunctionVector unbound = {0};
  MEMCheck *check = NULL;
  if (MEMCheckAttach(&unbound, NULL, &check) != MEMCHK_NOT_BOUND || check != NULL) return 1;
  puts("the layer wants a bound vector");
  return 0;
}
