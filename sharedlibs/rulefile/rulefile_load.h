/* Reading a rule file into memory for the classifier's line reader
 * (nuv_clfy_next_line): the one place where the tool and the daemon open
 * rule files, so both refuse the same files in the same words. */
#ifndef RULEFILE_LOAD_H
#define RULEFILE_LOAD_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Largest rule file read, in bytes; larger files are refused. */
#define RULEFILE_MAX_SIZE (16u * 1024u * 1024u)

/* Reads the whole file at `path` into a new buffer (from malloc, owned by
 * the caller, NUL-terminated one byte past *size).  Directories, devices,
 * pipes and other files that are not regular files are refused, as are
 * files beyond RULEFILE_MAX_SIZE.  Returns 0, or -1 with `why` (of
 * `why_size` bytes) holding the reason ("is a directory", "is not a
 * regular file", or the system's text for the error) and *data null. */
int rulefile_load(const char *path, char **data, size_t *size, char *why, size_t why_size);

#ifdef __cplusplus
}
#endif

#endif
