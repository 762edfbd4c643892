/* Everything libnikerkiog offers, in one include. */
#ifndef NIKERKIOG_H
#define NIKERKIOG_H

#include "nuvcksum.h"
#include "nuvaddr.h"
#include "nuvproto.h"
#include "nuvpkt.h"
#include "nuvdhcp.h"
#include "nuvdhcpcfg.h"
#include "nuvrules.h"
#include "nuvclfy.h"
#include "nuvclfy_kernel.h"

#endif
