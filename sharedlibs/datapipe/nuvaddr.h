/* IPv4, IPv6 and MAC addresses and IPv4 masks: conversion between binary and text. */
#ifndef NUVADDR_H
#define NUVADDR_H

#include <stddef.h>
#include <stdint.h>
#include "nikerkiog_export.h"


NIKERKIOG_BEGIN_DECLS

NIKERKIOG_END_DECLS

#endif
