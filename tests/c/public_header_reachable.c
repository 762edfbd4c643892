/* Builds against the public library target: the twin of
 * private_header_unreachable.c without the private include. */
#include <nikerkiog.h>

int main(void) { return 0; }
