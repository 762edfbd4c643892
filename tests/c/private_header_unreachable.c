/* Must NOT compile against the public library target: private headers of the
 * sources are not on its include path.  The test building this file expects
 * the build to fail; public_header_reachable.c, the same file without the
 * private header, must build, so the failure can only come from the include. */
#include <nikerkiog.h>
#include "nuvclfy_priv.h"

int main(void) { return 0; }
