/* Control channel: what travels between the lead and the nodes beside the files.
 *
 * A datagram is a 4-byte big-endian length of the encoded header, the encoded pkgdist_ctrl_msg_hdr
 * and, for PKGDIST_CTRL_MSG_CTRL only, the encoded pkgdist_ctrl_msg that fills the rest. Every
 * field is optional on the wire: bit n of `presence` says whether the n-th field (counted from 0,
 * in the order declared here) travels. Addresses are IPv4 in host byte order.
 */
#ifndef PKGDIST_WIRE_CTRL_H
#define PKGDIST_WIRE_CTRL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Message kinds: pkgdist_ctrl_msg_hdr.msg_id. */
#define PKGDIST_CTRL_MSG_PING 1u       /* lead to all nodes, multicast */
#define PKGDIST_CTRL_MSG_PING_REPLY 2u /* node to lead, unicast */
#define PKGDIST_CTRL_MSG_CTRL 3u       /* a segment of a message, either direction */
#define PKGDIST_CTRL_MSG_ACK 4u        /* unicast, answers PKGDIST_CTRL_MSG_CTRL */
#define PKGDIST_CTRL_MSG_NACK 5u       /* unicast, asks for a message or one segment again */

/* Bytes of the largest control datagram. */
#define PKGDIST_CTRL_PKT_MAX 1472u
/* Bytes of every segment but the last of a message that a node sends to the lead. */
#define PKGDIST_CTRL_SEGMENT_SIZE 1390u

/* Message class that carries file lists: its payload is a pkgdist_file_send_ctrl. */
#define PKGDIST_CTRL_CLASS_FILE_SEND 1u
/* Classes that a caller may attach a handler for. */
#define PKGDIST_CTRL_CLASS_FIRST 2u
#define PKGDIST_CTRL_CLASS_LAST 5u
/* Card class whose messages are addressed by pkgdist_ctrl_msg.node_list. */
#define PKGDIST_CARD_CLASS_NODE_LIST 4u

typedef struct pkgdist_ctrl_msg_hdr {
  uint32_t presence;
  uint32_t msg_id;       /* PKGDIST_CTRL_MSG_... */
  uint32_t node_ip;      /* the sending node */
  uint32_t pid;          /* the sending process */
  uint32_t sequence;     /* ping: last multicast sequence sent; ping reply: acknowledgement point;
                            control: of this message; ACK and NACK: of the message answered */
  uint32_t card_class;   /* lead: for which cards; node: its own class */
  uint32_t segment;      /* index from 0; in a NACK the one segment asked for */
  int32_t unicast;       /* 1 on an ACK or NACK of the unicast stream */
  uint64_t status;       /* of a ping, echoed in the reply */
  uint32_t node_id;      /* packed identity of the sender: first<<16 | second<<8 | third */
  uint32_t ack_sequence; /* multicast ACK and NACK: every sequence up to it is finished */
} pkgdist_ctrl_msg_hdr;

typedef struct pkgdist_ctrl_msg {
  uint32_t presence;
  uint32_t msg_class;
  uint32_t* node_list; /* for card class 4: the nodes addressed */
  uint32_t node_list_count;
  uint32_t total_size;   /* bytes of the whole message */
  uint32_t segment_size; /* bytes of every segment but the last */
  uint32_t rxmt;         /* 1: this datagram is a retransmission */
  const uint8_t* data;   /* bytes of this segment; decoded as a view into the datagram */
  uint64_t data_size;
} pkgdist_ctrl_msg;

#ifdef __cplusplus
}
#endif

#endif
