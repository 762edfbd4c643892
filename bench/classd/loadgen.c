/* Load for the classifier daemon's benchmark: sends COUNT small UDP
 * datagrams to 127.0.0.1:PORT from FLOWS sockets in turn (each a flow of
 * its own; default 1), at most WINDOW of them not yet received, and
 * receives them on the same port; prints the packets per second from the
 * first send to the last receipt.
 *
 *   classd_load COUNT WINDOW PORT [FLOWS]
 *
 * Exit status 1 when datagrams stop arriving for a second (lost in the
 * queue). */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#define BURST 32
#define PAYLOAD 16
#define MAX_FLOWS 64

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static int send_burst(int fd, int count) {
  static char payload[PAYLOAD];
  struct mmsghdr messages[BURST];
  struct iovec iov = {payload, sizeof payload};
  int i;
  memset(messages, 0, sizeof messages);
  for (i = 0; i < count; ++i) {
    messages[i].msg_hdr.msg_iov = &iov;
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  return sendmmsg(fd, messages, (unsigned)count, 0);
}

static int receive_burst(int fd) {
  static char buffers[BURST][64];
  struct mmsghdr messages[BURST];
  struct iovec iov[BURST];
  int i;
  memset(messages, 0, sizeof messages);
  for (i = 0; i < BURST; ++i) {
    iov[i].iov_base = buffers[i];
    iov[i].iov_len = sizeof buffers[i];
    messages[i].msg_hdr.msg_iov = &iov[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  i = recvmmsg(fd, messages, BURST, MSG_DONTWAIT, NULL);
  return i < 0 ? 0 : i;
}

int main(int argc, char **argv) {
  struct sockaddr_in to;
  long count, window, sent = 0, received = 0;
  int receiver, senders[MAX_FLOWS], flows = 1, turn = 0, i, buffer = 8 << 20;
  double start, seconds;
  if (argc != 4 && argc != 5) {
    fprintf(stderr, "usage: classd_load COUNT WINDOW PORT [FLOWS]\n");
    return 2;
  }
  if (argc == 5) flows = atoi(argv[4]);
  if (flows < 1 || flows > MAX_FLOWS) {
    fprintf(stderr, "classd_load: FLOWS: 1..%d\n", MAX_FLOWS);
    return 2;
  }
  count = atol(argv[1]);
  window = atol(argv[2]);
  memset(&to, 0, sizeof to);
  to.sin_family = AF_INET;
  to.sin_port = htons((unsigned short)atoi(argv[3]));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  receiver = socket(AF_INET, SOCK_DGRAM, 0);
  setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  if (bind(receiver, (struct sockaddr *)&to, sizeof to) != 0) {
    perror("classd_load");
    return 2;
  }
  for (i = 0; i < flows; ++i) {
    senders[i] = socket(AF_INET, SOCK_DGRAM, 0);
    if (connect(senders[i], (struct sockaddr *)&to, sizeof to) != 0) {
      perror("classd_load");
      return 2;
    }
  }
  start = now();
  while (received < count) {
    struct pollfd fd = {receiver, POLLIN, 0};
    while (sent < count && sent - received < window) {
      long burst = count - sent < BURST ? count - sent : BURST;
      if (burst > window - (sent - received)) burst = window - (sent - received);
      int n = send_burst(senders[turn], (int)burst);
      turn = (turn + 1) % flows;
      if (n <= 0) break;
      sent += n;
    }
    if (poll(&fd, 1, 1000) <= 0) {
      fprintf(stderr, "classd_load: %ld of %ld datagrams arrived, then none for a second\n", received, count);
      return 1;
    }
    received += receive_burst(receiver);
  }
  seconds = now() - start;
  printf("%ld packets in %.3f s: %.0f packets/s\n", count, seconds, (double)count / seconds);
  for (i = 0; i < flows; ++i) close(senders[i]);
  close(receiver);
  return 0;
}
