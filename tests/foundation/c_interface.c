/* The interface as a C program sees it: the headers compile as C99 and the shared object links and
 * works. Exits non-zero on the first thing that does not hold. */
#include <stdio.h>
#include <string.h>

#include "tvx/testing.h"
#include "tvx/tvx.h"

static int check(int ok, const char *what) {
  if (!ok) fprintf(stderr, "c_interface: %s\n", what);
  return ok ? 0 : 1;
}

int main(void) {
  int failures = 0;
  err_stack stack;
  char *text = NULL;
  INT32 blocks = number_of_allocations();
  HANDLE h;

  err_where_is(&stack);
  h = handle_allocate(1, 100, MEM_IMAGE);
  failures += check(h != NULL, "handle_allocate");
  failures += check(number_of_allocations() == blocks + 1, "one more block");
  failures += check(handle_lock(h, "main") != NULL, "handle_lock");
  handle_unlock(h, "main");
  handle_free(h, "main");
  failures += check(number_of_allocations() == blocks, "block freed");

  err_terminal(stack, ERR_NO_DATA, 0, "main", "nothing given");
  err_print_last(stack, ERR_MODE_BRIEF, &text);
  failures += check(strcmp(text,
                           "nothing given: No reasonable data was supplied. "
                           "Sorry, there are no suggested causes.\n") == 0,
                    "brief error text");
  err_reset_all(stack);
  /* Nothing here may log: the caller reads the start-up line that loading the library left. */
  return failures;
}
