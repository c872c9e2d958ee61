/* Data channel: file announcements, segments and repair requests.
 *
 * A datagram is a 4-byte big-endian length of the encoded header, the encoded pkgdist_data_msg_hdr
 * and the encoded body that fills the rest; the header's message id names the body. Presence bits
 * and addresses are as on the control channel (wire_ctrl.h).
 */
#ifndef PKGDIST_WIRE_DATA_H
#define PKGDIST_WIRE_DATA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum pkgdist_data_msg_id {
  PKGDIST_DATA_MSG_FILE_REQ = 1,   /* node to lead: pkgdist_data_send_req */
  PKGDIST_DATA_MSG_REQ_SINGLE = 2, /* node to lead: struct pkgdist_data_send_req_single */
  PKGDIST_DATA_MSG_REQ_DONE = 3,   /* node to lead: pkgdist_data_send_req_done */
  PKGDIST_DATA_MSG_FILE_INFO = 4,  /* lead to nodes: pkgdist_data_send_file_info */
  PKGDIST_DATA_MSG_SEGMENT = 5,    /* lead to nodes: pkgdist_data_send_segment */
  PKGDIST_DATA_MSG_MISS_DONE = 6   /* lead to nodes: pkgdist_data_send_miss_done */
} pkgdist_data_msg_id;

/* Bytes of the largest data datagram that a node takes. */
#define PKGDIST_DATA_PKT_MAX 1472u

/* Limits of what travels in requests and file lists. */
#define PKGDIST_FILE_TYPE_FIRST 1u
#define PKGDIST_FILE_TYPE_LAST 11u
#define PKGDIST_FILE_TYPE_ALWAYS 6u  /* transferred even when the present file looks the same */
#define PKGDIST_FILE_TYPE_SYMLINK 8u /* what a receive entry becomes once announced as a link */
#define PKGDIST_LOCATION_FIRST 1u
#define PKGDIST_LOCATION_LAST 6u
#define PKGDIST_PRIORITY_FIRST 1u /* most urgent */
#define PKGDIST_PRIORITY_LAST 4u
/* Bytes of a symbolic link's target that a node keeps. */
#define PKGDIST_SYMLINK_TARGET_MAX 255u

typedef struct pkgdist_data_msg_hdr {
  uint32_t presence;
  uint32_t msg_id;  /* pkgdist_data_msg_id */
  uint32_t node_ip; /* the sender; nodes take data from 0 or from the lead */
} pkgdist_data_msg_hdr;

typedef struct pkgdist_data_send_req {
  uint32_t presence;
  uint32_t type;
  uint32_t location;
  uint32_t priority;
  char* name; /* relative to the storage location */
} pkgdist_data_send_req;

/* No typedef: the sender of this message is a function of the same name. */
struct pkgdist_data_send_req_single {
  uint32_t presence;
  uint32_t file_id;
  uint32_t segment; /* first segment asked for */
  uint32_t num;     /* how many from there on */
};

typedef struct pkgdist_data_send_req_done {
  uint32_t presence;
  uint32_t file_id;
  uint64_t status; /* 0: received */
  char* name;
  uint32_t location;
} pkgdist_data_send_req_done;

typedef struct pkgdist_data_send_file_info {
  uint32_t presence;
  uint32_t file_id; /* of this transfer; never 0 */
  char* name;
  uint32_t size;         /* bytes */
  uint32_t segment_size; /* bytes of every segment but the last */
  uint64_t status;       /* non-zero: the lead cannot send the file */
  uint32_t mode;         /* permission bits */
  uint32_t mtime;        /* seconds since the epoch */
  uint32_t* node_list;   /* for whom; empty means everybody */
  uint32_t node_list_count;
  uint8_t symlink; /* 1: a symbolic link, its target travels as the one segment */
  uint32_t location;
} pkgdist_data_send_file_info;

typedef struct pkgdist_data_send_segment {
  uint32_t presence;
  uint32_t file_id;
  uint32_t segment;    /* index from 0; the data belongs at segment * segment_size */
  uint8_t repair;      /* 1: sent in answer to a request */
  const uint8_t* data; /* decoded as a view into the datagram */
  uint64_t data_size;
} pkgdist_data_send_segment;

typedef struct pkgdist_data_send_miss_done {
  uint32_t presence;
  uint32_t file_id;
  char* name;
  uint32_t* node_list; /* who is asked; empty means everybody */
  uint32_t node_list_count;
  uint32_t location;
} pkgdist_data_send_miss_done;

/* Operations of pkgdist_file_send_ctrl. */
#define PKGDIST_FILE_SEND_LIST 1u
#define PKGDIST_FILE_SEND_CANCEL 2u
#define PKGDIST_FILE_SEND_DELETE 3u

/* Payload of a control message of class PKGDIST_CTRL_CLASS_FILE_SEND. */
typedef struct pkgdist_file_send_ctrl {
  uint32_t presence;
  uint32_t operation; /* PKGDIST_FILE_SEND_... */
  uint32_t xact_id;
  uint32_t type;
  uint32_t location;
  uint32_t priority;
  char** names;
  uint32_t names_count;
} pkgdist_file_send_ctrl;

#ifdef __cplusplus
}
#endif

#endif
