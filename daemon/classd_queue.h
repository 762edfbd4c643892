/* The kernel's packet queue as the classifier daemon uses it: binding,
 * receiving packets with their metadata, answering in batches. */
#ifndef CLASSD_QUEUE_H
#define CLASSD_QUEUE_H

#include <stddef.h>
#include <stdint.h>

#include <nikerkiog.h>

/* Outcomes of classd_queue_open. */
enum classd_queue_status {
  CLASSD_QUEUE_OK = 0,
  CLASSD_QUEUE_NO_PRIVILEGE, /* the process lacks CAP_NET_ADMIN */
  CLASSD_QUEUE_BUSY,         /* another process holds the queue */
  CLASSD_QUEUE_FAILED        /* any other failure; the text says which */
};

/* How the queue is set up. */
struct classd_queue_config {
  uint16_t number;    /* queue number, as in the firewall rule's --queue-num */
  uint32_t maxlen;    /* packets the kernel holds for us at most; 0 keeps the kernel's default */
  int fail_open;      /* packets pass instead of being dropped when the queue is full */
  size_t socket_buffer; /* receive buffer of the socket in bytes; 0 keeps the default (8 MiB) */
};

/* Counters the queue keeps while serving. */
struct classd_queue_counters {
  uint64_t packets;      /* packets answered */
  uint64_t overruns;     /* times the socket buffer overflowed (packet messages lost to us) */
  uint64_t missed;       /* packets whose messages were lost that way: the kernel dropped them,
                            or passed them unchanged when failing open */
  uint64_t malformed;    /* packet messages without packet data; accepted unchanged */
  uint64_t send_errors;  /* verdict batches the kernel did not take */
  uint64_t verdict_messages; /* verdict messages sent: one per run of equal verdicts */
};

/* What the daemon makes of one packet: whether to set the mark, and to what. */
struct classd_verdict {
  int set_mark;
  uint32_t mark;
};

/* Called once per packet with its descriptor (interfaces, link-layer
 * header when the kernel gives one, IP packet) and its current mark;
 * fills `verdict`.  `ctx` is the caller's. */
typedef void (*classd_decide_fn)(void *ctx, const nuv_clfy_packet *packet, uint32_t mark,
                                 struct classd_verdict *verdict);

struct classd_queue;

/* Binds queue `config->number` in packet copy mode, and answers any packet
 * arriving before the binding is confirmed through `decide`.  Returns a
 * classd_queue_status; on success *queue is the bound queue (close with
 * classd_queue_close), otherwise `why` (of `size` bytes) says what failed. */
int classd_queue_open(const struct classd_queue_config *config, classd_decide_fn decide, void *ctx,
                      struct classd_queue **queue, char *why, size_t size);

/* The descriptor to poll for readability. */
int classd_queue_fd(const struct classd_queue *queue);

/* Receives the packets waiting (at most `limit`) without blocking, decides
 * each in arrival order and answers them all, runs of equal verdicts in one
 * batch message.  Returns the number of packets answered, or -1 when the
 * socket failed (errno set). */
int classd_queue_serve(struct classd_queue *queue, int limit);

/* The queue's counters. */
const struct classd_queue_counters *classd_queue_counters(const struct classd_queue *queue);

/* Unbinds the queue, closes the socket and frees it.  Null is ignored. */
void classd_queue_close(struct classd_queue *queue);

/* The kernel's drop counters for queue `number` of this network
 * namespace: packets dropped because the queue was full, and packets whose
 * message could not be delivered to us.  Returns 0, or -1 when the kernel
 * does not list the queue. */
int classd_queue_kernel_drops(uint16_t number, uint64_t *queue_dropped, uint64_t *user_dropped);

/* Whether the process holds CAP_NET_ADMIN: 1 or 0 (1 when it cannot tell). */
int classd_has_net_admin(void);

#endif
