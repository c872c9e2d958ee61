// The lead's file lists, cancels and deletes.
//
// A list enters its files under the lead's transaction; the lead sends them unasked. Names from the
// network are confined to their storage location: a name with a ".." component, one that is too
// long for its location, or a location that does not exist, is logged and left out, the rest of the
// list goes on.
#include "pkgdist_data_recv_send_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "pkgdist_codec.h"
#include "pkgdist_confine.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_data_recv_gate.h"
#include "pkgdist_data_recv_req.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;
using Entry = pkgdist_file_recv_entry;
using Message = pkgdist_file_send_ctrl;

namespace {

constexpr char kReporter[] = "pkgdist_data_send_file_msg_hdlr";

const char* first_name(const Message& message) {
  return message.names_count != 0 ? message.names[0] : "";
}

bool is_acceptable(const char* name, uint32_t location) {
  if (!is_location(location)) {
    PKGDIST_ERR_IN(kReporter, "file '%s' storage location '%d' is invalid", name, location);
    return false;
  }
  // Never set, or set to nothing: the lead's name would be a path of this whole host.
  if (load(G_data_recv_repository[location - 1][0]) == '\0') {
    PKGDIST_ERR_IN(kReporter, "file '%s' storage location '%d' has no path", name, location);
    return false;
  }
  if (!is_confined(name)) {
    PKGDIST_ERR_IN(kReporter, "file '%s' leaves the storage location %d", name, location);
    return false;
  }
  if (!has_room(location, name)) {
    PKGDIST_ERR_IN(kReporter, "file '%s' is too long for storage location %d", name, location);
    return false;
  }
  return true;
}

// Enters one listed file. Errors of single files are not reported: the lead learns them when it
// asks. True when the gate refused it: it is entered all the same, so that its end is that of any
// other file, and is ended when the whole list is entered.
bool receive_file(const char* name, const Message& message) {
  if (!is_acceptable(name, message.location)) return false;
  if (Entry* entry = file_recv_find(name, message.location); entry != nullptr) {
    PKGDIST_INFO("DATA Recv File Add Xact - File %s Xact Id %d\n", name, message.xact_id);
    (void)pkgdist_file_recv_add_xact(*entry, message.type, message.priority, kFileRecvId,
                                     message.xact_id);
    return entry->refused != 0;
  }
  PKGDIST_INFO("DATA Recv File Add - File %s Xact Id %d\n", name, message.xact_id);
  (void)pkgdist_file_recv_add_file(name, message.type, message.location, message.priority,
                                   kFileRecvId, message.xact_id);
  const auto refusal =
      gate_refusal(PKGDIST_GATE_LISTED, message.location, name, 0, 0, message.type);
  if (!refusal) return false;
  Entry* entry = file_recv_find(name, message.location);
  if (entry == nullptr) return false;  // no memory: the lead learns it when it asks
  entry->refused = 1;
  entry->refusal = *refusal;
  return true;
}

// Ends a file that is out of wishes, with the lock released meanwhile.
void end_unlocked(FileRecvDbGuard& lock, Entry* entry, PkgdistStatus status) {
  file_recv_take(entry);
  lock.unlock();
  (void)pkgdist_file_recv_file_done(status, entry);
  lock.lock();
}

// Behind the start of the transaction, whose outcomes these are.
void end_refused(const Message& message) {
  FileRecvDbGuard lock(Caller::here(kReporter));
  for (uint32_t i = 0; i < message.names_count; ++i) {
    Entry* entry = file_recv_find(message.names[i], message.location);
    if (entry != nullptr && entry->refused != 0) end_unlocked(lock, entry, entry->refusal);
  }
}

void receive_list(const Message& message) {
  PKGDIST_INFO("DATA Recv File List - Xact Id %d Name %s Num %d Type %d Loc %d Prio %d\n",
               message.xact_id, first_name(message), message.names_count, message.type,
               message.location, message.priority);
  count(DrtCounter::kMcSendFile);
  bool any_refused = false;
  {
    const FileRecvDbGuard lock(Caller::here(kReporter));
    for (uint32_t i = 0; i < message.names_count; ++i)
      any_refused |= receive_file(message.names[i], message);
  }
  (void)pkgdist_data_file_invoke_cb(0, kXactStartRecvId, message.xact_id, message.names,
                                    message.names_count, message.type, message.location);
  if (any_refused) end_refused(message);
}

// Drops the transaction from one file; the last pushed one ends the transaction.
void cancel_in(Entry& entry, uint32_t xact_id) {
  cancel_xacts(
      entry,
      [&](const pkgdist_file_xact& xact) {
        if (xact.xact_id != xact_id) return false;
        PKGDIST_INFO("DATA File Send Cancel - Xact Id %d Name %s\n", xact_id, entry.path);
        return true;
      },
      [=](const pkgdist_file_xact& xact) {
        if (xact.kind != kFileRecvId || file_recv_holds_xact(xact_id)) return;
        (void)pkgdist_data_file_invoke_cb(PKGDIST_STATUS_CANCELLED, kXactDoneRecvId, xact_id,
                                          nullptr, 0, 0, 0);
      });
}

void cancel(const Message& message) {
  count(DrtCounter::kMcSendCancel);
  FileRecvDbGuard lock(Caller::here(kReporter));
  for (Entry* at = G_file_recv_db.head; at != nullptr;) {
    const uint64_t place = at->serial;
    cancel_in(*at, message.xact_id);
    if (at->xact_count != 0) {
      at = at->next;
      continue;
    }
    end_unlocked(lock, at, PKGDIST_STATUS_CANCELLED);
    at = file_recv_after(place);  // the records around it may have gone meanwhile
  }
}

void delete_stored(const char* name, uint32_t location) {
  const FilePath path(location, name);
  PKGDIST_INFO("DATA Recv File Deleted - Path %s\n", path.c_str());
  const Stopwatch time(DrsHistogram::kFileUnlinkTime);
  const int result = Beneath(path)(unlink);
  const int error = errno;
  time.finish();
  if (result != 0 && error != ENOENT)
    PKGDIST_ERR_IN(kReporter, "failed to unlink file %s, rc=%d, errno=%d(%s)", path.c_str(), result,
                   error, std::strerror(error));
}

// Whether the gate lets nobody delete the file. It hears of names that could be files only.
bool is_kept(const char* name, uint32_t location) {
  return is_location(location) && is_confined(name) &&
         gate_refusal(PKGDIST_GATE_DELETE, location, name, 0, 0, 0).has_value();
}

void delete_list(const Message& message) {
  PKGDIST_INFO("DATA Recv Delete File List - Xact Id %d Name %s Num %d Loc %d\n", message.xact_id,
               first_name(message), message.names_count, message.location);
  count(DrtCounter::kMcSendDelete);
  FileRecvDbGuard lock(Caller::here(kReporter));
  for (uint32_t i = 0; i < message.names_count; ++i) {
    const char* name = message.names[i];
    if (is_kept(name, message.location)) continue;
    if (Entry* entry = file_recv_find(name, message.location); entry != nullptr) {
      PKGDIST_INFO("DATA Recv File Xfer In Progress Deleted - File %s\n", name);
      end_unlocked(lock, entry, PKGDIST_STATUS_DELETED);
    }
    if (is_acceptable(name, message.location)) delete_stored(name, message.location);
  }
}

}  // namespace

void pkgdist_data_send_file_msg_hdlr(const uint8_t* data, uint64_t size, uint32_t /*unused*/) {
  Owned<Message> message;
  if (int error = decode(data, size, *message); error < 0) {
    PKGDIST_ERR("data file send ctrl msg decode failed: %d", error);
    count(DrtCounter::kMcBadPktRecv);
    return;
  }
  switch (message->operation) {
    case PKGDIST_FILE_SEND_LIST:
      receive_list(*message);
      return;
    case PKGDIST_FILE_SEND_CANCEL:
      cancel(*message);
      return;
    case PKGDIST_FILE_SEND_DELETE:
      delete_list(*message);
      return;
    default:
      return;
  }
}
