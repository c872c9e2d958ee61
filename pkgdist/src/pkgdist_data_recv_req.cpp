// File requests: asking the lead for a file, and withdrawing that.
//
// A request is an entry of the file receive database with a transaction. When the file is on its
// way already, only the transaction is added. A request message is sent once; when it is lost, the
// time-out pass asks again.
#include "pkgdist_data_recv_req.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "pkgdist_ctrl_recv.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_datagram.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;
using Header = pkgdist_data_msg_hdr;
using Body = pkgdist_data_send_req;

namespace {

constexpr char kRequest[] = "instcomm_pkgdist_get_file";
constexpr size_t kPacketBytes = 296;

// The checks of a request, in their order; logs what is wrong.
bool arguments_are_valid(const char* function, const char* path, uint32_t type, uint32_t location,
                         uint32_t priority, uint32_t xact_id) {
  if (path == nullptr) {
    PKGDIST_ERR_IN(function, "file path passed is NULL");
    return false;
  }
  if (type < PKGDIST_FILE_TYPE_FIRST || type > PKGDIST_FILE_TYPE_LAST) {
    PKGDIST_ERR_IN(function, "file type '%d' passed is invalid", type);
    return false;
  }
  if (!is_location(location)) {
    PKGDIST_ERR_IN(function, "file storage location '%d' passed is invalid", location);
    return false;
  }
  if (priority < PKGDIST_PRIORITY_FIRST || priority > PKGDIST_PRIORITY_LAST) {
    PKGDIST_ERR_IN(function, "file prio '%d' passed is invalid", priority);
    return false;
  }
  if (xact_id == 0) {
    PKGDIST_ERR_IN(function, "xact id '%d' is invalid", xact_id);
    return false;
  }
  return true;
}

// A receive identifier for the request, and a context when somebody wants to hear the outcome.
PkgdistStatus allocate_recv_id(levm_handle_t levm, pkgdist_data_file_cb callback, void* ctx,
                               uint32_t& recv_id) {
  recv_id = 0;
  if (callback != nullptr)
    return pkgdist_data_recv_alloc_ctx(levm, callback, nullptr, nullptr, ctx, recv_id);
  const MutexLock lock(G_data_recv_ctx_db.mutex, Caller::here(kRequest));
  recv_id = G_data_recv_ctx_db.allocate_id();
  return 0;
}

// Enters the file, or the transaction of a file that is on its way. `added`: a new file.
PkgdistStatus enter(const char* path, uint32_t type, uint32_t location, uint32_t priority,
                    uint32_t recv_id, uint32_t xact_id, bool& added) {
  const FileRecvDbGuard lock(Caller::here(kRequest));
  Entry* entry = file_recv_find(path, location);
  added = entry == nullptr;
  return added ? pkgdist_file_recv_add_file(path, type, location, priority, recv_id, xact_id)
               : pkgdist_file_recv_add_xact(*entry, type, priority, recv_id, xact_id);
}

Entry* find_by_xact(uint32_t xact_id) {
  return G_file_recv_db.find([=](const Entry& entry) {
    for (int32_t i = 0; i < entry.xact_count; ++i)
      if (entry.xacts[i].xact_id == xact_id) return true;
    return false;
  });
}

// Takes the transaction from the first file that waits under it and reports it cancelled. Receive
// lock held.
Entry* take_xact(const char* function, uint32_t xact_id) {
  Entry* entry = find_by_xact(xact_id);
  if (entry == nullptr) {
    PKGDIST_ERR_IN(function, "file cancel not found for xact id %d", xact_id);
    return nullptr;
  }
  PKGDIST_INFO("DATA File Get Cancel - Xact Id %d Name %s\n", xact_id, entry->path);
  cancel_xacts(
      *entry, [=](const pkgdist_file_xact& xact) { return xact.xact_id == xact_id; },
      [](const pkgdist_file_xact&) {});
  return entry;
}

// Ends a file that nobody waits for any more.
PkgdistStatus end_cancelled(FileRecvDbGuard& lock, Entry* entry) {
  file_recv_take(entry);
  lock.unlock();
  return pkgdist_file_recv_file_done(PKGDIST_STATUS_CANCELLED, entry);
}

}  // namespace

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_get_file(
    const char* path, uint32_t type, uint32_t location, uint32_t priority, uint32_t xact_id,
    levm_handle_t levm, pkgdist_data_file_cb callback, void* ctx) {
  if (!arguments_are_valid(static_cast<const char*>(__func__), path, type, location, priority,
                           xact_id))
    return PKGDIST_ERR_INVALID;
  if (callback != nullptr && levm == nullptr) {
    PKGDIST_ERR("levm cannot be NULL to specify cb_func");
    return PKGDIST_ERR_INVALID;
  }
  if (!is_confined(path)) {
    PKGDIST_ERR("file path '%s' passed leaves the storage location", path);
    return PKGDIST_ERR_INVALID;
  }
  if (!has_room(location, path)) {
    PKGDIST_ERR("file path '%s' passed is too long for storage location %d", path, location);
    return PKGDIST_ERR_INVALID;
  }
  PKGDIST_INFO("DATA File Get - Path '%s' Type %d Loc %d Prio %d Xact Id %d\n", path, type,
               location, priority, xact_id);
  uint32_t recv_id = 0;
  PkgdistStatus status = allocate_recv_id(levm, callback, ctx, recv_id);
  if (status != 0) return status;
  bool added = false;
  status = enter(path, type, location, priority, recv_id, xact_id, added);
  if (status != 0) {
    (void)pkgdist_data_recv_free_ctx(recv_id);
    return status;
  }
  return added ? pkgdist_data_send_file_req(path, type, location, priority) : 0;
}

PkgdistStatus pkgdist_data_send_file_req(const char* path, uint32_t type, uint32_t location,
                                         uint32_t priority) {
  Owned<Header> header;
  qidl::set<&Header::msg_id>(*header, PKGDIST_DATA_MSG_FILE_REQ);
  qidl::set<&Header::node_ip>(*header, load(G_my_node_ip));
  Owned<Body> body;
  qidl::set<&Body::type>(*body, type);
  qidl::set<&Body::location>(*body, location);
  qidl::set<&Body::priority>(*body, priority);
  qidl::set<&Body::name>(*body, strdup(path));
  if (body->name == nullptr) {
    PKGDIST_ERR("stddup() for DATA_SEND_FILE_REQ_NAME failed");
    return PKGDIST_ERR_NOMEM;
  }
  Datagram datagram(kPacketBytes);
  if (!datagram) {
    PKGDIST_ERR("malloc() %zu bytes for DATA_SEND_FILE_REQ failed", kPacketBytes);
    return PKGDIST_ERR_NOMEM;
  }
  datagram.put_header(*header);
  datagram.put_body(*body);
  if (datagram.encode_error() != 0) {
    PKGDIST_ERR("data file req encode failed: %zd", datagram.encode_error());
    return PKGDIST_ERR_ENCODE;
  }
  if (!datagram.fits()) {
    PKGDIST_ERR("data file req encode size '%zd' exceeds alloc size '%zd'", datagram.total(),
                datagram.capacity());
    return PKGDIST_ERR_ENCODE;
  }
  const LeadNodeText lead = lead_node_text();
  PKGDIST_INFO("DATA Send File Req - File %s Type %d Loc %d Prio %d Node %d.%d.%d.%d (%s)\n", path,
               type, location, priority, PKGDIST_OCTETS(load(G_lead_uc_addr)),
               static_cast<const char*>(lead.text));
  const Stopwatch time(DrtHistogram::kUcSendTime);
  const ssize_t sent = datagram.send_to_lead(load(G_data_req_socket), load(G_data_req_uc_port));
  if (!datagram.sent_whole(sent)) {
    PKGDIST_ERR("data req uc sendto of %zd bytes failed, rc=%zd, errno=%d(%s)", datagram.total(),
                sent, errno, std::strerror(errno));
    return PKGDIST_ERR_SEND;
  }
  time.finish();
  count(DrtCounter::kUcSendReqSent);
  return 0;
}

void pkgdist::report_cancelled(const Entry& entry, const pkgdist_file_xact& xact) {
  const char* const paths[] = {entry.path};
  (void)pkgdist_data_file_invoke_cb(PKGDIST_STATUS_CANCELLED, xact.kind, xact.xact_id, paths, 1,
                                    entry.type, entry.location);
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_get_file_cancel(uint32_t xact_id) {
  if (xact_id == 0) {
    PKGDIST_ERR("xact id '%d' is invalid", xact_id);
    return PKGDIST_ERR_INVALID;
  }
  FileRecvDbGuard lock;
  Entry* entry = take_xact(static_cast<const char*>(__func__), xact_id);
  if (entry == nullptr) return PKGDIST_ERR_NOT_FOUND;
  if (entry->xact_count != 0) {
    // The database stays locked: whoever needs it next waits for ever. Callers depend on this as it
    // is; the exported header warns them.
    lock.leave_locked();
    return 0;
  }
  return end_cancelled(lock, entry);
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_get_file_withdraw(uint32_t xact_id) {
  if (xact_id == 0) {
    PKGDIST_ERR("xact id '%d' is invalid", xact_id);
    return PKGDIST_ERR_INVALID;
  }
  FileRecvDbGuard lock;
  Entry* entry = take_xact(static_cast<const char*>(__func__), xact_id);
  if (entry == nullptr) return PKGDIST_ERR_NOT_FOUND;
  return entry->xact_count == 0 ? end_cancelled(lock, entry) : 0;
}
