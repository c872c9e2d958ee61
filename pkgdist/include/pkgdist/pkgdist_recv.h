/* pkgdist receive library: what a process calls to take part in package distribution.
 *
 * One node, the lead, multicasts files and control messages. Every other node runs a process that
 * loads this library and calls it to receive what the lead pushes, to ask the lead for files, and
 * to exchange reliable messages with it.
 *
 * Order of calls
 *   1. instcomm_pkgdist_ctrl_recv_init            once, first
 *   2. instcomm_pkgdist_ctrl_recv_set_nodeid      before traffic is expected
 *   3. the attach and register calls              for the results you want
 *   4. instcomm_pkgdist_data_set_gate             if it is to decide what the lead may write
 *      instcomm_pkgdist_data_set_resume           if receptions may go on with partial files
 *   5. instcomm_pkgdist_data_recv_init            once
 *   6. instcomm_pkgdist_set_recv_repository       once per storage location
 *   7. instcomm_pkgdist_get_file and the rest     at any time after
 * Nothing is torn down: the library lives until the process ends. G_ctrl_rto and G_data_rto may be
 * set before the first of them.
 *
 * Threads and callbacks
 *   The functions may be called from any thread. The library has threads of its own and never calls
 *   you from them: every result is queued, and the callback runs in levm_run() or levm_run_once()
 * of the event loop that you gave with the request, on the thread that runs that loop. No lock of
 * the library is held meanwhile, so a callback may call any function here, also one that detaches
 * the handler it was called for. Strings, lists and message bytes handed to a callback belong to
 * the library and are gone when it returns: copy what you keep. A call that returns an error never
 *   calls back, with the one exception named at instcomm_pkgdist_get_file. Between callbacks of
 *   different kinds no order is promised.
 *   A callback that cannot be queued is lost: when there is no memory for it, or the platform's
 *   channel refuses it. The error trace says so, nothing repeats it, and the context of a request
 * or message whose one callback was lost stays until the process ends. Who has to notice gives its
 *   requests a time limit of its own.
 *   A loop must outlive what it was given to: detach its handlers and wait for the outcomes of its
 *   requests before you destroy it. What is still to come for a destroyed loop is never delivered.
 *
 * Values
 *   Addresses are IPv4 and ports 16-bit numbers, both in host byte order (192.0.2.1 is 0xC0000201).
 *   Every function returns a PkgdistStatus, 0 for success, unless it says otherwise; the values are
 *   in pkgdist/status.h, and pkgdist_status_str() puts them in words.
 *
 * Trust
 *   The protocol has no authentication: any host that can send to the groups can act as the lead.
 *   Names from the network are confined to the storage locations. What may be written there, a gate
 *   of the process can decide (instcomm_pkgdist_data_set_gate).
 */
#ifndef PKGDIST_PKGDIST_RECV_H
#define PKGDIST_PKGDIST_RECV_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "pkgdist/defaults.h"
#include "pkgdist/status.h"
#include "platform/levm.h"
#include "platform/nodeid.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Final status of a message sent to the lead: 0 when the lead acknowledged it. */
typedef void (*pkgdist_ctrl_status_cb)(uint64_t status, void* ctx);

/* A complete control message from the lead: `size` bytes. Each message comes as soon as it is
 * complete: one that had to be asked for again comes behind later ones. It can come twice: when the
 * network doubles a datagram of it or delivers one behind its own repetition, and when the lead
 * sends it again as a new one, because the acknowledgement or the lead's process was lost. Who must
 * not act twice numbers what it sends. */
typedef void (*pkgdist_ctrl_msg_cb)(const void* bytes, uint64_t size, void* ctx);

/* The lead at address `lead`, process `pid`. `failover`: it took over from another lead. */
typedef void (*pkgdist_ctrl_lead_change_cb)(uint32_t lead, uint32_t pid, bool failover, void* ctx);

/* The outcome of one file: `status` 0 when it stands complete under its final name (or already
 * did). `type` is the file's type, PKGDIST_FILE_TYPE_SYMLINK once it turned out to be a link. */
typedef void (*pkgdist_data_file_cb)(uint64_t status, const char* path, uint32_t type,
                                     uint32_t location, uint32_t xact_id, void* ctx);

/* The lead began to push `count` files under one transaction identifier of its own. A list that the
 * lead splits is reported in several calls. */
typedef void (*pkgdist_data_xact_start_cb)(uint64_t status, const char* const* paths,
                                           uint32_t count, uint32_t type, uint32_t location,
                                           uint32_t xact_id, void* ctx);

/* No file of the lead's transaction is left to receive. `status` is that of its last file. */
typedef void (*pkgdist_data_xact_done_cb)(uint64_t status, uint32_t xact_id, void* ctx);

/* --- Time-outs ------------------------------------------------------------------------------ */

/* Two tables that a process may set before the start-up of their side: the control side's before
 * instcomm_pkgdist_ctrl_recv_init, the data side's before instcomm_pkgdist_data_recv_init. The
 * values take effect together and unchecked; after start-up the library's threads read them without
 * a lock. On a simulated platform each start-up multiplies the first five fields of its side's
 * table by ten.
 *
 * "Retries" are the repetitions so far for one message or file: each makes the next time-out longer
 * by one interval. An announcement or a segment of the file sets its count to 0. */

struct pkgdist_ctrl_timeouts {
  uint64_t rx_select_timeout;    /* microseconds that the receive thread waits for a datagram
                                    before it looks for late messages; 125000 */
  uint64_t scan_interval;        /* nanoseconds: the least time between two such looks; 0.25 s */
  uint64_t lead_ack_timeout;     /* nanoseconds until a message that the lead has not acknowledged
                                    is sent again, times (retries + 1); 0.5 s */
  uint64_t segment_timeout;      /* nanoseconds without a part of an incomplete message until the
                                    missing parts are asked for, times (retries + 1); 0.25 s */
  uint64_t lead_silence_timeout; /* nanoseconds that a lead may be silent before a node follows
                                    another one; 7.5 s */
  uint32_t max_retries;          /* after which a message is given up; 5 */
  uint32_t rx_socket_buffer;     /* bytes, SO_RCVBUF of both receive sockets; 524288 */
};

struct pkgdist_data_timeouts {
  uint64_t receive_wait;      /* microseconds that the receive thread waits for a datagram before it
                                 looks whether it is to end; 5000000 */
  uint64_t timer_period;      /* nanoseconds: the least time between two looks at the time-outs
                                 below, and so their resolution; 0.5 s. Each look takes time that
                                 grows with the number of files being received */
  uint64_t file_info_timeout; /* nanoseconds until a file that was requested and not announced is
                                 requested again, times (retries + 1); 1 s */
  uint64_t segment_timeout;   /* nanoseconds until segments that were asked for and have not come
                                 are asked for again, and since the announcement until the end of a
                                 file (fewer than 200 segments) is asked for, times (retries + 1);
                                 2 s */
  uint64_t not_done_timeout;  /* nanoseconds of silence of the whole stream until an incomplete file
                                 is requested again, times (retries + 1); 2 s */
  uint64_t stat_age;          /* nanoseconds for which the outcome of a file is kept for the lead's
                                 questions; 30 s */
  uint32_t max_retries;       /* after which a file is given up with the status of ETIMEDOUT; 5 */
  uint32_t receive_buffer;    /* bytes, SO_RCVBUF of the data socket; 3145728 */
};

extern struct pkgdist_ctrl_timeouts G_ctrl_rto;
extern struct pkgdist_data_timeouts G_data_rto;

/* Permission bits that received files may have, beside the umask of the process; 07777. May be set
 * before start-up: without 07000 a lead cannot make set-user-ID and set-group-ID programs. */
extern uint32_t G_data_recv_mode_mask;

/* --- Control side --------------------------------------------------------------------------- */

/* Starts the control side: opens traces and statistics, the sockets and the receive thread.
 * pkgdist/defaults.h has the values to pass unless the lead was given others.
 *
 *   mc_addr, mc_port     multicast group and port of the lead's control messages
 *   lead_port            the lead's own unicast control port: where this node sends to
 *   recv_port            this node's unicast control port: where the lead sends to it
 *   card_class           class of this node's card, compared with the class of each message
 *   node_ip              this node's own address; also selects the multicast interface
 *   trace_configuration  handed to the trace library; 0
 *
 * Blocks up to 100 seconds while the group cannot be joined on the interface (at boot it may have
 * no address yet). Returns 0 or PKGDIST_ERR_SYSTEM; what was already opened then stays open. May be
 * called again: the sockets are made anew, a running thread goes on with them. */
PkgdistStatus instcomm_pkgdist_ctrl_recv_init(uint32_t mc_addr, uint16_t mc_port,
                                              uint16_t lead_port, uint16_t recv_port,
                                              uint32_t card_class, uint32_t node_ip,
                                              uint64_t trace_configuration);

/* Tells the library this node's identity, which travels in its control messages. The object stays
 * the caller's and must outlive the library's use; NULL is the identity 0. Always returns 0. */
PkgdistStatus instcomm_pkgdist_ctrl_recv_set_nodeid(nodeid_handle_t nodeid);

/* Sends `size` bytes (1 to 4294967295) to the current lead and repeats them until the lead has
 * acknowledged them or the retry limit is reached. The bytes are copied.
 *
 *   msg_class  1 to 5
 *   cb_func    gets the final status on `levm`: 0 when acknowledged, PKGDIST_ERR_TIMEOUT when given
 *              up, or the status of a failed retransmission. May be NULL; then `levm` may be too.
 *
 * Returns 0 when the first transmission left, and the callback will come, unless it is lost as told
 * above; the message itself can arrive and be reported as PKGDIST_ERR_TIMEOUT, when it was the
 * acknowledgements that were lost. Or PKGDIST_ERR_INVALID
 * (no data, size 0 or too large, class, callback without loop), PKGDIST_ERR_NOMEM,
 * PKGDIST_ERR_SYSTEM, PKGDIST_ERR_ENCODE or PKGDIST_ERR_SEND without a callback to come. */
PkgdistStatus instcomm_pkgdist_ctrl_send_lead_msg(const void* data, size_t size, uint32_t msg_class,
                                                  levm_handle_t levm,
                                                  pkgdist_ctrl_status_cb cb_func, void* ctx);

/* Attaches `handler` for the lead's control messages of `msg_class` (2 to 5), or detaches the class
 * when it is NULL. Messages of a class without handler are acknowledged and dropped.
 *
 * Attaching a class again replaces handler and ctx, but the delivery stays with the event loop of
 * the first attach, and each repeat without a detach holds the loop's channel once more: detach
 * first. Detaching a class that is not attached is no error. Messages that were queued and not
 * delivered when the class is detached are dropped.
 *
 * Returns 0, PKGDIST_ERR_INVALID (NULL loop, class), PKGDIST_ERR_NOMEM or PKGDIST_ERR_SYSTEM. */
PkgdistStatus instcomm_pkgdist_ctrl_mc_hdlr_attach(levm_handle_t levm, uint32_t msg_class,
                                                   pkgdist_ctrl_msg_cb handler, void* ctx);

/* Registers the one lead-change callback of the process, or removes it when `cb_func` is NULL.
 *
 * It is called when a first lead is heard, when the lead's process changes, and with `failover`
 * true when another address took over after the old lead's silence. When a lead is known already,
 * the registration itself reports it once, with `failover` false. A lead that comes at that moment
 * is reported behind the old one: the last report is of the lead that leads. A registration
 * replaces an earlier one as an attach does.
 *
 * Returns 0, PKGDIST_ERR_INVALID (NULL loop), PKGDIST_ERR_NOMEM or PKGDIST_ERR_SYSTEM. */
PkgdistStatus instcomm_pkgdist_ctrl_register_lead_change(levm_handle_t levm,
                                                         pkgdist_ctrl_lead_change_cb cb_func,
                                                         void* ctx);

/* --- Data side ------------------------------------------------------------------------------ */

/* Starts the data side: registers its statistics and opens the request socket. The threads that
 * receive files start with the first file and end when none is left.
 *
 *   mc_addr, mc_port  multicast group and port of the lead's data stream
 *   req_port          port of the lead for file requests, repair requests and reports
 *
 * Returns 0 or PKGDIST_ERR_SYSTEM. */
PkgdistStatus instcomm_pkgdist_data_recv_init(uint32_t mc_addr, uint16_t mc_port,
                                              uint16_t req_port);

/* What the gate is asked about. */
#define PKGDIST_GATE_LISTED 1u /* a file of a list that the lead pushes; size and mode unknown */
#define PKGDIST_GATE_INFORMATION 2u /* a transfer begins, of a pushed or a requested file */
#define PKGDIST_GATE_DELETE 3u      /* the lead deletes a file; size, mode and kind are 0 */

/* Answers of the gate, beside an errno. */
#define PKGDIST_GATE_ACCEPT 0
#define PKGDIST_GATE_PRESENT (-1)

/* Decides what the lead may write and delete here.
 *
 *   operation  PKGDIST_GATE_...
 *   location   storage location, 1 to 6
 *   name       relative to it, confined to it; the library's, gone when the gate returns
 *   size       bytes, of a link those of its target
 *   mode       permission bits as the lead announced them
 *   kind       the file's type, PKGDIST_FILE_TYPE_SYMLINK (8) for what is announced as a link
 *
 * Returns PKGDIST_GATE_ACCEPT to go on. Anything else ends the file here, before anything is
 * written: PKGDIST_GATE_PRESENT with status 0, as a file that is present already ends, and an errno
 * (1 to 2047) with its status, PKGDIST_STATUS_FROM_ERRNO. The outcome is reported to the lead, to
 * the handlers and to whoever requested the file, as any other. Of a delete nobody is told: what is
 * not accepted stays as it is.
 *
 * Runs on threads of the library (LISTED and DELETE on CTRL_RX, INFORMATION on DATA_FILE) with the
 * lock of its file database held: it may run on two of them one after the other, never at the same
 * time. It must not call the library nor wait for anything that does, and has to be quick, since no
 * datagram is handled meanwhile. */
typedef int (*pkgdist_data_gate_cb)(uint32_t operation, uint32_t location, const char* name,
                                    uint32_t size, uint32_t mode, uint32_t kind, void* ctx);

/* Sets the gate of the process. Without one, everything is accepted. To be called before
 * instcomm_pkgdist_data_recv_init; `gate` and `ctx` are used until the process ends.
 *
 * Returns 0, or PKGDIST_ERR_INVALID: `gate` is NULL, or the data side has been started. */
PkgdistStatus instcomm_pkgdist_data_set_gate(pkgdist_data_gate_cb gate, void* ctx);

/* Tells that `size` bytes of a partial file from byte `first` on are good. */
typedef void (*pkgdist_data_good_part_cb)(uint64_t first, uint64_t size, void* parts);

/* Says which parts of a partial file are good, such as one of a process that was killed.
 *
 *   location, name  of the file, as the gate has them; it stands under "NAME.tmp"
 *   size            bytes that the file is going to have
 *   good, parts     to be called for each part, with `parts` as it is, before this returns
 *
 * Asked when a transfer to a disk location begins, after the gate has accepted it, and something
 * stands under the partial name that this process could have made: a file of its user with one
 * name, without other permissions than the transfer's. The reception then goes on with it: of the
 * segments that lie wholly inside of one part none is wanted any more, and the others are asked for
 * at once. Parts that touch are to be told as one. When no segment is good, the file is made anew,
 * as it is without this callback.
 *
 * Therefore the partial file of a reception that fails stays, such as one that a new lead does not
 * know; only a full disk removes it. The process removes those that it has no use for.
 *
 * What is told is believed: the process must have compared the bytes with what they have to be, and
 * nobody else may write the file. A part may be told for one transfer only, since the next one may
 * have emptied the file.
 *
 * Runs on DATA_FILE under the rules of the gate: with the lock of the file database held, it must
 * not call the library, and must be quick, so whatever takes long is to be known before. */
typedef void (*pkgdist_data_resume_cb)(uint32_t location, const char* name, uint32_t size,
                                       pkgdist_data_good_part_cb good, void* parts, void* ctx);

/* Sets this callback of the process. To be called before instcomm_pkgdist_data_recv_init; `resume`
 * and `ctx` are used until the process ends.
 *
 * Returns 0, or PKGDIST_ERR_INVALID: `resume` is NULL, or the data side has been started. */
PkgdistStatus instcomm_pkgdist_data_set_resume(pkgdist_data_resume_cb resume, void* ctx);

/* Sets storage location `location` (1 to 6): where files that name this location are written.
 *
 *   path    a prefix of up to 127 characters that is put before every file name as it is: end a
 *           directory with '/'. For a memory location the prefix of shared-memory object names,
 *           which begins with '/' and has no other: "/pkg-".
 *   memory  true: files become POSIX shared-memory objects; false: files on disk
 *
 * Set locations before files are asked for; what the lead pushes into a location without a prefix
 * is refused, and so is a name that makes more than 255 characters together with the prefix (251 on
 * disk, where ".tmp" is added while the file is incomplete). A name whose directories lead out of
 * the directory of the prefix, through symbolic links, fails with the status of EXDEV. Returns 0 or
 * PKGDIST_ERR_INVALID (NULL or too long path, location) with nothing changed. */
PkgdistStatus instcomm_pkgdist_set_recv_repository(const char* path, uint32_t location,
                                                   bool memory);

/* A new transaction identifier for instcomm_pkgdist_get_file; never 0. */
uint32_t instcomm_pkgdist_get_receive_xact_id(void);

/* Attaches the handler for the outcome of each file that the lead pushes. Attaching again replaces
 * handler and ctx under the rules of instcomm_pkgdist_ctrl_mc_hdlr_attach; a NULL handler stays
 * attached and calls nobody. When attaching fails, an earlier attachment is gone too.
 *
 * Returns 0, PKGDIST_ERR_INVALID (NULL loop), PKGDIST_ERR_NOMEM or PKGDIST_ERR_SYSTEM. */
PkgdistStatus instcomm_pkgdist_data_file_hdlr_attach(levm_handle_t levm,
                                                     pkgdist_data_file_cb handler, void* ctx);

/* The same for the start of each pushed transaction. */
PkgdistStatus instcomm_pkgdist_data_file_xact_start_hdlr_attach(levm_handle_t levm,
                                                                pkgdist_data_xact_start_cb handler,
                                                                void* ctx);

/* The same for the end of each pushed transaction. */
PkgdistStatus instcomm_pkgdist_data_file_xact_done_hdlr_attach(levm_handle_t levm,
                                                               pkgdist_data_xact_done_cb handler,
                                                               void* ctx);

/* Asks the lead for a file.
 *
 *   path      name relative to the storage location; a name with a ".." component, or one that is
 *             too long for the location, is refused
 *   type      1 to 11; PKGDIST_FILE_TYPE_ALWAYS (6) transfers the file even when one of the same
 *             size and modification time is present, any other type then succeeds at once
 *   location  storage location, 1 to 6
 *   priority  1 (most urgent) to 4
 *   xact_id   from instcomm_pkgdist_get_receive_xact_id; names the request in the callback and in a
 *             cancel
 *   callback  gets the outcome once, on `levm`. May be NULL; then `levm` may be too.
 *
 * A file that is being received already is not requested again: the outcome goes to every request.
 * A request that the lead does not answer is repeated, and after the retry limit the outcome is the
 * status of ETIMEDOUT.
 *
 * Returns 0; PKGDIST_ERR_INVALID (an argument), PKGDIST_ERR_NOMEM or PKGDIST_ERR_SYSTEM (a thread
 * or socket), and then no callback comes. PKGDIST_ERR_SEND, PKGDIST_ERR_ENCODE or PKGDIST_ERR_NOMEM
 * can also come from the first transmission of the request: then the file stays requested, is asked
 * for again, and the callback does come. Withdraw the transaction to be sure that nothing is left.
 */
PkgdistStatus instcomm_pkgdist_get_file(const char* path, uint32_t type, uint32_t location,
                                        uint32_t priority, uint32_t xact_id, levm_handle_t levm,
                                        pkgdist_data_file_cb callback, void* ctx);

/* Withdraws a request. Its callback is called with PKGDIST_STATUS_CANCELLED; when nobody else wants
 * the file, its reception ends and the lead is told.
 *
 * Prefer instcomm_pkgdist_get_file_withdraw, which is the same without the hazard.
 *
 * HAZARD: when the file is wanted by further transactions (another instcomm_pkgdist_get_file of the
 * same file, or a push of the lead), this call returns with the library's file database locked for
 * good: no file is received, requested or cancelled in this process any more, and the next call
 * that needs the database blocks. Cancel only files that you asked for under one transaction and
 * that the lead is not pushing.
 *
 * Returns 0, PKGDIST_ERR_INVALID (identifier 0), PKGDIST_ERR_NOT_FOUND (no file waits under this
 * identifier, for example because it has just ended), or the status of telling the lead. */
PkgdistStatus instcomm_pkgdist_get_file_cancel(uint32_t xact_id);

/* Withdraws a request, whoever else wants the file: its callback is called with
 * PKGDIST_STATUS_CANCELLED. When further transactions wait for the file (requests of this process,
 * a push of the lead), its reception goes on for them, and they get its outcome; otherwise it ends
 * and the lead is told. Holds no lock on return.
 *
 * Returns as instcomm_pkgdist_get_file_cancel does. */
PkgdistStatus instcomm_pkgdist_get_file_withdraw(uint32_t xact_id);

#ifdef __cplusplus
}
#endif

#endif
