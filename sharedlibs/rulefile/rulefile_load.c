/* Reading a rule file into memory; see rulefile_load.h. */
#define _POSIX_C_SOURCE 200809L
#include "rulefile_load.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int refuse(char *why, size_t why_size, const char *reason) {
  snprintf(why, why_size, "%s", reason);
  return -1;
}

/* Reads `size` bytes of `fd` into `data`; 0, or -1 with errno set.  A file
 * that shrank while being read ends early. */
static int read_all(int fd, char *data, size_t *size) {
  size_t done = 0;
  while (done < *size) {
    ssize_t n = read(fd, data + done, *size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += (size_t)n;
  }
  *size = done;
  return 0;
}

int rulefile_load(const char *path, char **data, size_t *size, char *why, size_t why_size) {
  struct stat info;
  char *buffer;
  size_t length;
  int fd, failed;
  *data = NULL;
  *size = 0;
  /* Opening without blocking, so that a FIFO is refused instead of waited on. */
  fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return refuse(why, why_size, strerror(errno));
  if (fstat(fd, &info) != 0) {
    failed = errno;
    close(fd);
    return refuse(why, why_size, strerror(failed));
  }
  if (!S_ISREG(info.st_mode)) {
    close(fd);
    return refuse(why, why_size, S_ISDIR(info.st_mode) ? "is a directory" : "is not a regular file");
  }
  if ((unsigned long long)info.st_size > RULEFILE_MAX_SIZE) {
    close(fd);
    return refuse(why, why_size, "is larger than 16 MiB, too large for a rule file");
  }
  length = (size_t)info.st_size;
  buffer = malloc(length + 1);
  if (!buffer) {
    close(fd);
    return refuse(why, why_size, strerror(ENOMEM));
  }
  if (read_all(fd, buffer, &length) != 0) {
    failed = errno;
    free(buffer);
    close(fd);
    return refuse(why, why_size, strerror(failed));
  }
  close(fd);
  buffer[length] = '\0';
  *data = buffer;
  *size = length;
  return 0;
}
