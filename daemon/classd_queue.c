/* The kernel's packet queue as the classifier daemon uses it. */
#define _GNU_SOURCE
#include "classd_queue.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <libnetfilter_queue/libnetfilter_queue.h>

/* Bytes of each packet copied to us: all of it. */
#define CLASSD_COPY_RANGE 0xffff
/* Receive buffer: one packet message of the largest copy range. */
#define CLASSD_RECV_SIZE (CLASSD_COPY_RANGE + 4096)
/* Socket buffer asked for, so that bursts wait in the kernel. */
#define CLASSD_SOCKET_BUFFER (8 * 1024 * 1024)
/* Most packets answered by one classd_queue_serve call. */
#define CLASSD_MAX_BATCH 256
/* Room for one verdict message (header, verdict, mark). */
#define CLASSD_VERDICT_ROOM 64
/* Bit of CAP_NET_ADMIN in the capability sets. */
#define CLASSD_CAP_NET_ADMIN 12
/* How long the binding may take to be confirmed. */
#define CLASSD_CONFIG_TIMEOUT_MS 5000

struct pending {
  uint32_t id;
  int follows; /* its id is the one after the previous packet received */
  struct classd_verdict verdict;
};

struct classd_queue {
  struct mnl_socket *socket;
  uint32_t last_id; /* id of the last packet received; a newly bound queue numbers from 1 */
  uint32_t portid;
  uint16_t number;
  uint32_t config_seq;
  int config_done;
  int config_error;
  classd_decide_fn decide;
  void *ctx;
  struct classd_queue_counters counters;
  size_t pending_count;
  struct pending pending[CLASSD_MAX_BATCH];
  char send_buffer[CLASSD_MAX_BATCH * CLASSD_VERDICT_ROOM];
  char recv_buffer[CLASSD_RECV_SIZE];
};

static uint32_t attr_u32(const struct nlattr *attr) { return attr ? ntohl(mnl_attr_get_u32(attr)) : 0; }

/* The interfaces of the packet: the receiving side when it has one (bridge
 * port and bridge when bridged), else the sending side. */
static void describe_interfaces(struct nlattr **attr, nuv_clfy_packet *packet) {
  int in = attr[NFQA_IFINDEX_INDEV] != NULL;
  const struct nlattr *dev = attr[in ? NFQA_IFINDEX_INDEV : NFQA_IFINDEX_OUTDEV];
  const struct nlattr *port = attr[in ? NFQA_IFINDEX_PHYSINDEV : NFQA_IFINDEX_PHYSOUTDEV];
  if (port) {
    packet->dev_ifindex = attr_u32(port);
    packet->brdev_ifindex = attr_u32(dev);
  } else {
    packet->dev_ifindex = attr_u32(dev);
  }
}

/* The link layer: the Ethernet header when the kernel gives the whole
 * layer-2 header, or the source address alone (destination read as zero);
 * none for locally generated packets.  The outer VLAN tag. */
static void describe_link(struct nlattr **attr, uint8_t *scratch, nuv_clfy_packet *packet) {
  if (attr[NFQA_L2HDR] && mnl_attr_get_payload_len(attr[NFQA_L2HDR]) >= 12) {
    packet->eth_header = mnl_attr_get_payload(attr[NFQA_L2HDR]);
  } else if (attr[NFQA_HWADDR]) {
    const struct nfqnl_msg_packet_hw *hw = mnl_attr_get_payload(attr[NFQA_HWADDR]);
    if (ntohs(hw->hw_addrlen) == 6) {
      memset(scratch, 0, 6);
      memcpy(scratch + 6, hw->hw_addr, 6);
      packet->eth_header = scratch;
    }
  }
  if (attr[NFQA_VLAN]) {
    struct nlattr *vlan[NFQA_VLAN_MAX + 1];
    memset(vlan, 0, sizeof vlan);
    if (mnl_attr_parse_nested(attr[NFQA_VLAN], NULL, NULL) >= 0) {
      const struct nlattr *nested;
      mnl_attr_for_each_nested(nested, attr[NFQA_VLAN]) {
        if (mnl_attr_get_type(nested) <= NFQA_VLAN_MAX) vlan[mnl_attr_get_type(nested)] = (struct nlattr *)nested;
      }
    }
    if (vlan[NFQA_VLAN_TCI] && mnl_attr_get_payload_len(vlan[NFQA_VLAN_TCI]) >= 2) {
      uint16_t tci = ntohs(mnl_attr_get_u16(vlan[NFQA_VLAN_TCI]));
      packet->vlan_tci = (uint16_t)((tci & 0xEFFFu) | NUV_CLFY_VLAN_TAG_PRESENT);
    }
  }
}

/* The Ethernet type of the packet: the kernel's, or the IP version's when
 * the kernel gives none. */
static uint16_t packet_type(const struct nfqnl_msg_packet_hdr *header, const uint8_t *ip, uint32_t length) {
  static const uint8_t ipv4[2] = {0x08, 0x00}, ipv6[2] = {0x86, 0xdd};
  uint16_t type = header->hw_protocol;
  if (type == 0 && length > 0) {
    if (ip[0] >> 4 == 4) memcpy(&type, ipv4, 2);
    if (ip[0] >> 4 == 6) memcpy(&type, ipv6, 2);
  }
  return type;
}

/* The kernel numbers a queue's packets one after another; a gap in the
 * ids means messages for those packets never reached us (socket buffer
 * full).  The kernel did not queue them: they were dropped, or passed
 * unchanged when failing open. */
static uint32_t missed_before(const struct classd_queue *queue, uint32_t id) { return id - queue->last_id - 1u; }

static void add_pending(struct classd_queue *queue, uint32_t id, const struct classd_verdict *verdict) {
  struct pending *entry = &queue->pending[queue->pending_count++];
  uint32_t missed = missed_before(queue, id);
  entry->id = id;
  entry->verdict = *verdict;
  /* Only a packet that directly follows the one before may join its batch:
   * a batch verdict answers every queued id up to its own, so it must never
   * reach over an id we have not seen. */
  entry->follows = missed == 0;
  if (missed) {
    queue->counters.overruns++;
    queue->counters.missed += missed;
  }
  queue->last_id = id;
}

static void handle_packet(struct classd_queue *queue, const struct nlmsghdr *message) {
  struct nlattr *attr[NFQA_MAX + 1];
  const struct nfqnl_msg_packet_hdr *header;
  struct classd_verdict verdict = {0, 0};
  nuv_clfy_packet packet;
  uint8_t scratch[12];
  memset(attr, 0, sizeof attr);
  if (nfq_nlmsg_parse(message, attr) < 0 || !attr[NFQA_PACKET_HDR]) {
    queue->counters.malformed++;
    return;
  }
  header = mnl_attr_get_payload(attr[NFQA_PACKET_HDR]);
  memset(&packet, 0, sizeof packet);
  if (attr[NFQA_PAYLOAD]) {
    packet.ip_header = mnl_attr_get_payload(attr[NFQA_PAYLOAD]);
    packet.ip_len = mnl_attr_get_payload_len(attr[NFQA_PAYLOAD]);
  } else {
    queue->counters.malformed++;
  }
  describe_interfaces(attr, &packet);
  describe_link(attr, scratch, &packet);
  packet.eth_proto = packet_type(header, packet.ip_header, packet.ip_len);
  if (packet.ip_header) queue->decide(queue->ctx, &packet, attr_u32(attr[NFQA_MARK]), &verdict);
  add_pending(queue, ntohl(header->packet_id), &verdict);
}

static int is_packet_message(const struct nlmsghdr *message) {
  return NFNL_SUBSYS_ID(message->nlmsg_type) == NFNL_SUBSYS_QUEUE &&
         NFNL_MSG_TYPE(message->nlmsg_type) == NFQNL_MSG_PACKET;
}

static void flush_verdicts(struct classd_queue *queue);

/* Handles the messages of one datagram: packets, and the confirmation of
 * the binding. */
static void handle_datagram(struct classd_queue *queue, const void *data, int length) {
  const struct nlmsghdr *message = data;
  for (; mnl_nlmsg_ok(message, length); message = mnl_nlmsg_next(message, &length)) {
    if (message->nlmsg_type == NLMSG_ERROR && message->nlmsg_seq == queue->config_seq) {
      const struct nlmsgerr *error = mnl_nlmsg_get_payload(message);
      queue->config_done = 1;
      queue->config_error = -error->error;
    } else if (is_packet_message(message)) {
      if (queue->pending_count == CLASSD_MAX_BATCH) flush_verdicts(queue);
      handle_packet(queue, message);
    }
  }
}

static int same_verdict(const struct classd_verdict *a, const struct classd_verdict *b) {
  return a->set_mark == b->set_mark && (!a->set_mark || a->mark == b->mark);
}

/* Appends the verdict message for the run ending with `last`: one packet
 * alone, or every packet up to `last` in one batch (the run's packets have
 * consecutive ids, and the packets before it are answered). */
static size_t put_verdict(struct classd_queue *queue, size_t offset, const struct pending *last, int batch) {
  struct nlmsghdr *message =
      nfq_nlmsg_put(queue->send_buffer + offset, batch ? NFQNL_MSG_VERDICT_BATCH : NFQNL_MSG_VERDICT, queue->number);
  nfq_nlmsg_verdict_put(message, (int)last->id, NF_ACCEPT);
  if (last->verdict.set_mark) nfq_nlmsg_verdict_put_mark(message, last->verdict.mark);
  return offset + message->nlmsg_len;
}

/* Sends the verdicts of the packets in hand: each run of equal verdicts as
 * one message (a batch verdict covers every packet up to its id, and the
 * packets before the run are answered by the messages before it), all
 * messages in one datagram. */
static void flush_verdicts(struct classd_queue *queue) {
  size_t i, start = 0, offset = 0;
  if (queue->pending_count == 0) return;
  for (i = 1; i <= queue->pending_count; ++i) {
    if (i < queue->pending_count && queue->pending[i].follows &&
        same_verdict(&queue->pending[i].verdict, &queue->pending[start].verdict))
      continue;
    offset = put_verdict(queue, offset, &queue->pending[i - 1], i - start > 1);
    queue->counters.verdict_messages++;
    start = i;
  }
  if (mnl_socket_sendto(queue->socket, queue->send_buffer, offset) < 0) queue->counters.send_errors++;
  queue->counters.packets += queue->pending_count;
  queue->pending_count = 0;
}

int classd_queue_serve(struct classd_queue *queue, int limit) {
  int fd = mnl_socket_get_fd(queue->socket), served;
  if (limit > CLASSD_MAX_BATCH) limit = CLASSD_MAX_BATCH;
  while (queue->pending_count < (size_t)limit) {
    ssize_t length = recv(fd, queue->recv_buffer, sizeof queue->recv_buffer, MSG_DONTWAIT);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && errno == ENOBUFS) { /* only where NETLINK_NO_ENOBUFS is not known */
      queue->counters.overruns++;
      continue;
    }
    if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (length <= 0) {
      int saved = length < 0 ? errno : EPIPE;
      flush_verdicts(queue);
      errno = saved;
      return -1;
    }
    handle_datagram(queue, queue->recv_buffer, (int)length);
  }
  served = (int)queue->pending_count;
  flush_verdicts(queue);
  return served;
}

/* The configuration message: bind, copy whole packets, queue length,
 * fail-open flag; acknowledged. */
static size_t put_config(struct classd_queue *queue, const struct classd_queue_config *config) {
  struct nlmsghdr *message = nfq_nlmsg_put(queue->send_buffer, NFQNL_MSG_CONFIG, config->number);
  uint32_t flags = config->fail_open ? NFQA_CFG_F_FAIL_OPEN : 0;
  message->nlmsg_flags |= NLM_F_ACK;
  message->nlmsg_seq = queue->config_seq = (uint32_t)time(NULL) | 1u;
  nfq_nlmsg_cfg_put_cmd(message, AF_INET, NFQNL_CFG_CMD_BIND);
  nfq_nlmsg_cfg_put_params(message, NFQNL_COPY_PACKET, CLASSD_COPY_RANGE);
  if (config->maxlen) nfq_nlmsg_cfg_put_qmaxlen(message, config->maxlen);
  mnl_attr_put_u32(message, NFQA_CFG_FLAGS, htonl(flags));
  mnl_attr_put_u32(message, NFQA_CFG_MASK, htonl(NFQA_CFG_F_FAIL_OPEN));
  return message->nlmsg_len;
}

/* Waits for the kernel's answer to the configuration message, answering
 * packets that arrive meanwhile. */
static int await_config(struct classd_queue *queue) {
  int fd = mnl_socket_get_fd(queue->socket);
  struct timeval timeout = {CLASSD_CONFIG_TIMEOUT_MS / 1000, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  while (!queue->config_done) {
    ssize_t length = recv(fd, queue->recv_buffer, sizeof queue->recv_buffer, 0);
    if (length < 0 && (errno == EINTR || errno == ENOBUFS)) continue;
    if (length <= 0) return length < 0 ? errno : EPIPE;
    handle_datagram(queue, queue->recv_buffer, (int)length);
    flush_verdicts(queue);
  }
  timeout.tv_sec = 0;
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return queue->config_error;
}

/* Overruns are seen in the packet ids, so the socket need not report them
 * as errors; an error would only interrupt receiving. */
static void ignore_overrun_errors(int fd) {
  int on = 1;
  setsockopt(fd, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof on);
}

static int open_socket(struct classd_queue *queue, size_t socket_buffer, char *why, size_t size) {
  int buffer = socket_buffer ? (int)socket_buffer : CLASSD_SOCKET_BUFFER, fd;
  queue->socket = mnl_socket_open(NETLINK_NETFILTER);
  if (!queue->socket || mnl_socket_bind(queue->socket, 0, MNL_SOCKET_AUTOPID) < 0) {
    snprintf(why, size, "cannot open a netfilter socket: %s", strerror(errno));
    return -1;
  }
  queue->portid = mnl_socket_get_portid(queue->socket);
  fd = mnl_socket_get_fd(queue->socket);
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer) < 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  ignore_overrun_errors(fd);
  return 0;
}

static int bind_status(int error, const struct classd_queue_config *config, char *why, size_t size) {
  if (error == 0) return CLASSD_QUEUE_OK;
  if (error == EPERM && !classd_has_net_admin()) {
    snprintf(why, size, "binding queue %u needs root or CAP_NET_ADMIN", config->number);
    return CLASSD_QUEUE_NO_PRIVILEGE;
  }
  if (error == EPERM || error == EBUSY) {
    snprintf(why, size, "queue %u is bound by another process", config->number);
    return CLASSD_QUEUE_BUSY;
  }
  snprintf(why, size, "cannot bind queue %u: %s", config->number, strerror(error));
  return CLASSD_QUEUE_FAILED;
}

int classd_queue_open(const struct classd_queue_config *config, classd_decide_fn decide, void *ctx,
                      struct classd_queue **result, char *why, size_t size) {
  struct classd_queue *queue;
  int status;
  if (!classd_has_net_admin()) {
    snprintf(why, size, "binding queue %u needs root or CAP_NET_ADMIN", config->number);
    return CLASSD_QUEUE_NO_PRIVILEGE;
  }
  queue = calloc(1, sizeof *queue);
  if (!queue) {
    snprintf(why, size, "out of memory");
    return CLASSD_QUEUE_FAILED;
  }
  queue->number = config->number;
  queue->decide = decide;
  queue->ctx = ctx;
  if (open_socket(queue, config->socket_buffer, why, size) != 0) {
    classd_queue_close(queue);
    return CLASSD_QUEUE_FAILED;
  }
  if (mnl_socket_sendto(queue->socket, queue->send_buffer, put_config(queue, config)) < 0) {
    snprintf(why, size, "cannot configure queue %u: %s", config->number, strerror(errno));
    classd_queue_close(queue);
    return CLASSD_QUEUE_FAILED;
  }
  status = bind_status(await_config(queue), config, why, size);
  if (status != CLASSD_QUEUE_OK) {
    mnl_socket_close(queue->socket);
    free(queue);
    return status;
  }
  *result = queue;
  return CLASSD_QUEUE_OK;
}

int classd_queue_fd(const struct classd_queue *queue) { return mnl_socket_get_fd(queue->socket); }

const struct classd_queue_counters *classd_queue_counters(const struct classd_queue *queue) {
  return &queue->counters;
}

void classd_queue_close(struct classd_queue *queue) {
  if (!queue) return;
  if (queue->socket) {
    struct nlmsghdr *message = nfq_nlmsg_put(queue->send_buffer, NFQNL_MSG_CONFIG, queue->number);
    nfq_nlmsg_cfg_put_cmd(message, AF_INET, NFQNL_CFG_CMD_UNBIND);
    mnl_socket_sendto(queue->socket, message, message->nlmsg_len);
    mnl_socket_close(queue->socket);
  }
  free(queue);
}

int classd_queue_kernel_drops(uint16_t number, uint64_t *queue_dropped, uint64_t *user_dropped) {
  FILE *file = fopen("/proc/net/netfilter/nfnetlink_queue", "r");
  unsigned long long fields[7];
  int found = -1;
  if (!file) return -1;
  while (found < 0 && fscanf(file, "%llu %llu %llu %llu %llu %llu %llu %*u %*d", &fields[0], &fields[1], &fields[2],
                             &fields[3], &fields[4], &fields[5], &fields[6]) == 7) {
    if (fields[0] == number) {
      *queue_dropped = fields[5];
      *user_dropped = fields[6];
      found = 0;
    }
  }
  fclose(file);
  return found;
}

int classd_has_net_admin(void) {
  FILE *file = fopen("/proc/self/status", "r");
  char line[256];
  int result = 1;
  if (!file) return 1;
  while (fgets(line, sizeof line, file)) {
    unsigned long long caps;
    if (sscanf(line, "CapEff: %llx", &caps) == 1) {
      result = (int)((caps >> CLASSD_CAP_NET_ADMIN) & 1u);
      break;
    }
  }
  fclose(file);
  return result;
}
