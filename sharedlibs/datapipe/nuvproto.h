/* IP protocol numbers and names, TCP flag texts. */
#ifndef NUVPROTO_H
#define NUVPROTO_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

NIKERKIOG_END_DECLS

#endif
