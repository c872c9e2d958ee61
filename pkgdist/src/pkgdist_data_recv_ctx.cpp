// Data client contexts: what a file event goes through from the library's threads to the caller.
//
// The arrangement is the control side's (pkgdist_ctrl_recv_ctx.cpp), with one handler for all kinds
// of events. A context of a single request serves one callback and goes with it.
#include "pkgdist_data_recv_ctx.h"

#include <cstring>

#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

extern "C" {
PKGDIST_EXPORT pkgdist::ModuleDb<DataClientContext> G_data_recv_ctx_db;
PKGDIST_EXPORT pkgdist::ModuleDb<DataCallbackChannel> G_data_recv_qitc_db;
}

namespace pkgdist {

namespace {

constexpr char kInvoke[] = "pkgdist_data_file_invoke_cb";

// One event on its way to the caller; owns its paths.
struct FileEntry {
  PkgdistStatus status;
  uint32_t recv_id;
  uint32_t xact_id;
  char** paths;
  uint32_t count;
  uint32_t type;
  uint32_t location;
  uint64_t put_time;
};

struct FileEntryFreer {
  void operator()(FileEntry* entry) const {
    for (uint32_t i = 0; entry->paths != nullptr && i < entry->count; ++i)
      std::free(entry->paths[i]);
    std::free(entry->paths);
    std::free(entry);
  }
};
using OwnedEntry = std::unique_ptr<FileEntry, FileEntryFreer>;

// A context of one request, as opposed to those of the lead's transactions.
bool serves_one_request(uint32_t recv_id) {
  return recv_id > kXactDoneRecvId;
}

const char* first_path(const FileEntry& entry) {
  return entry.count != 0 && entry.paths != nullptr ? entry.paths[0] : "";
}

bool copy_paths(FileEntry& entry, const char* const* paths, uint32_t count) {
  if (count == 0) return true;
  entry.paths = static_cast<char**>(std::calloc(count, sizeof(char*)));
  if (entry.paths == nullptr) {
    PKGDIST_ERR_IN(kInvoke, "malloc() %zu bytes for DATA_FILE_LIST_QITC failed",
                   count * sizeof(char*));
    return false;
  }
  entry.count = count;
  for (uint32_t i = 0; i < count; ++i) {
    entry.paths[i] = strdup(paths[i]);
    if (entry.paths[i] != nullptr) continue;
    PKGDIST_ERR_IN(kInvoke, "stddup() for DATA_FILE_PATH_QITC failed");
    return false;
  }
  return true;
}

void log_invoke(const FileEntry& entry) {
  switch (entry.recv_id) {
    case kXactStartRecvId:
      PKGDIST_INFO("DATA Send File Start Invoke CB - Xact Id %d Num Files %d Status %lx\n",
                   entry.xact_id, entry.count, entry.status);
      return;
    case kXactDoneRecvId:
      PKGDIST_INFO("DATA Send File Done Invoke CB - Xact Id %d Status %lx\n", entry.xact_id,
                   entry.status);
      return;
    default:
      PKGDIST_INFO("DATA Send File Xfer Invoke CB - Xact Id %d File %s Loc %d Status %lx\n",
                   entry.xact_id, first_path(entry), entry.location, entry.status);
  }
}

void deliver_start(const FileEntry& entry, const DataClientContext& client) {
  if (client.handlers.start == nullptr) return;
  PKGDIST_INFO("DATA Send File Start Callback - Xact Id %d Num Files %d Status %lx\n",
               entry.xact_id, entry.count, entry.status);
  count(DrsCounter::kFileStartCb);
  client.handlers.start(entry.status, entry.paths, entry.count, entry.type, entry.location,
                        entry.xact_id, client.ctx);
}

void deliver_done(const FileEntry& entry, const DataClientContext& client) {
  if (client.handlers.done == nullptr) return;
  PKGDIST_INFO("DATA Send File Done Callback - Xact Id %d Status %lx\n", entry.xact_id,
               entry.status);
  count(DrsCounter::kFileDoneCb);
  client.handlers.done(entry.status, entry.xact_id, client.ctx);
}

void deliver_file(const FileEntry& entry, const DataClientContext& client) {
  if (client.handlers.file == nullptr) return;
  PKGDIST_INFO("DATA Send File Xfer Callback - Xact Id %d File %s Loc %d Status %lx\n",
               entry.xact_id, first_path(entry), entry.location, entry.status);
  count(DrsCounter::kFileXferCb);
  client.handlers.file(entry.status, first_path(entry), entry.type, entry.location, entry.xact_id,
                       client.ctx);
}

void deliver(const FileEntry& entry, const DataClientContext& client) {
  record_since(DrsHistogram::kFileQitcTime, entry.put_time);
  if (entry.recv_id == kXactStartRecvId)
    deliver_start(entry, client);
  else if (entry.recv_id == kXactDoneRecvId)
    deliver_done(entry, client);
  else
    deliver_file(entry, client);
}

}  // namespace

qitc_handler_t DataSide::channel_handler(uint32_t /*recv_id*/) {
  return pkgdist_data_file_qitc_handler;
}

void DataSide::drop_entry(uint32_t /*channel_id*/, void* entry) {
  FileEntryFreer{}(static_cast<FileEntry*>(entry));
}

void DataSide::log_channel_nomem(const char* function, size_t bytes) {
  PKGDIST_ERR_IN(function, "malloc() %zu bytes for DATA_RECV_QITC_CL failed", bytes);
}
void DataSide::log_channel_create_failed(const char* function, int error) {
  PKGDIST_ERR_IN(function, "data recv qitc create failed: %d(%s)", error, std::strerror(error));
}
void DataSide::log_channel_attach_failed(const char* function, int error) {
  PKGDIST_ERR_IN(function, "data recv qitc attach failed: %d(%s)", error, std::strerror(error));
}
void DataSide::log_channel_attached(const char* function, uint32_t recv_id,
                                    const CallbackChannel& channel) {
  PKGDIST_INFO("%s: levm attach passed for recv id %d, qitc id %d to cfd %d\n", function, recv_id,
               channel.channel_id, channel_descriptor(channel));
}
void DataSide::log_context_nomem(const char* function, size_t bytes) {
  PKGDIST_ERR_IN(function, "malloc() %zu bytes for DATA_RECV_CTX_CL failed", bytes);
}

}  // namespace pkgdist

using namespace pkgdist;

namespace {

// Enters the client of one of the lead's transactions; on failure an earlier attachment goes too.
PkgdistStatus attach(levm_handle_t levm, uint32_t recv_id, const DataHandlers& handlers,
                     void* ctx) {
  const PkgdistStatus status =
      pkgdist_data_recv_alloc_ctx(levm, handlers.file, handlers.start, handlers.done, ctx, recv_id);
  if (status != 0) (void)pkgdist_data_recv_free_ctx(recv_id);
  return status;
}

PkgdistStatus refuse_null_levm(const char* function) {
  PKGDIST_ERR_IN(function, "levm passed is NULL");
  return PKGDIST_ERR_INVALID;
}

}  // namespace

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_data_file_hdlr_attach(
    levm_handle_t levm, pkgdist_data_file_cb handler, void* ctx) {
  PKGDIST_INFO("DATA File Hdlr Attach - levm '%p' File_hdlr '%p' Ctx '%p'\n",
               static_cast<void*>(levm), reinterpret_cast<void*>(handler), ctx);
  if (levm == nullptr) return refuse_null_levm(static_cast<const char*>(__func__));
  return attach(levm, kFileRecvId, {.file = handler, .start = nullptr, .done = nullptr}, ctx);
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_data_file_xact_start_hdlr_attach(
    levm_handle_t levm, pkgdist_data_xact_start_cb handler, void* ctx) {
  PKGDIST_INFO("DATA File Xact Start Hdlr Attach - levm '%p' Xact_start_hdlr '%p' Ctx '%p'\n",
               static_cast<void*>(levm), reinterpret_cast<void*>(handler), ctx);
  if (levm == nullptr) return refuse_null_levm(static_cast<const char*>(__func__));
  return attach(levm, kXactStartRecvId, {.file = nullptr, .start = handler, .done = nullptr}, ctx);
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_data_file_xact_done_hdlr_attach(
    levm_handle_t levm, pkgdist_data_xact_done_cb handler, void* ctx) {
  PKGDIST_INFO("DATA File Xact Done Hdlr Attach - levm '%p' Xact_done_hdlr '%p' Ctx '%p'\n",
               static_cast<void*>(levm), reinterpret_cast<void*>(handler), ctx);
  if (levm == nullptr) return refuse_null_levm(static_cast<const char*>(__func__));
  return attach(levm, kXactDoneRecvId, {.file = nullptr, .start = nullptr, .done = handler}, ctx);
}

PkgdistStatus pkgdist_data_recv_alloc_ctx(levm_handle_t levm, pkgdist_data_file_cb file,
                                          pkgdist_data_xact_start_cb start,
                                          pkgdist_data_xact_done_cb done, void* ctx,
                                          uint32_t& recv_id) {
  return DataClients::allocate(__func__, levm, {file, start, done}, ctx, recv_id);
}

PkgdistStatus pkgdist_data_recv_free_ctx(uint32_t recv_id) {
  (void)DataClients::free(__func__, recv_id);
  return 0;
}

PkgdistStatus pkgdist_data_file_invoke_cb(PkgdistStatus status, uint32_t recv_id, uint32_t xact_id,
                                          const char* const* paths, uint32_t count, uint32_t type,
                                          uint32_t location) {
  DataClientContext client;
  if (!DataClients::lookup(__func__, recv_id, client)) {
    // That nobody attached a handler for the lead's transactions is normal.
    if (serves_one_request(recv_id) || recv_id == 0)
      PKGDIST_ERR("data file recv id '%d' not found", recv_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  int error = DataClients::kNoChannel;
  if (DataClients::channel_exists(__func__, client.channel_id)) {
    OwnedEntry entry(static_cast<FileEntry*>(std::calloc(1, sizeof(FileEntry))));
    if (entry == nullptr) {
      PKGDIST_ERR("malloc() %zu bytes for DATA_FILE_QITC_ENTRY failed", sizeof(FileEntry));
      return PKGDIST_ERR_NOMEM;
    }
    *entry = {status, recv_id, xact_id,  nullptr,
              0,      type,    location, stamp_for(DrsHistogram::kFileQitcTime)};
    if (!copy_paths(*entry, paths, count)) return PKGDIST_ERR_NOMEM;
    log_invoke(*entry);
    error = DataClients::put(__func__, client.channel_id, entry.get());
    if (error == 0) (void)entry.release();
  }
  if (error == DataClients::kNoChannel) {
    PKGDIST_ERR("data file qitc id '%d' not found", client.channel_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  if (error != 0) {
    PKGDIST_ERR("data recv file qitc put failed, rc=%d(%s)", error, std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  return 0;
}

extern "C" void pkgdist_data_file_qitc_handler(qitc_handle_t qitc) {
  for (;;) {
    void* taken = nullptr;
    const int error = DataClients::take(__func__, qitc, &taken);
    if (error == kChannelEmpty) return;
    if (error != 0) {
      PKGDIST_ERR("data recv file qitc_get() failed, rc=%d(%s)", error, std::strerror(error));
      return;
    }
    if (taken == nullptr) {
      PKGDIST_ERR("data file recv qitc_get() returned NULL");
      return;
    }
    const OwnedEntry entry(static_cast<FileEntry*>(taken));
    DataClientContext client;
    if (!DataClients::lookup(__func__, entry->recv_id, client)) {
      PKGDIST_ERR("data file recv client unable to locate id '%d'", entry->recv_id);
      continue;
    }
    deliver(*entry, client);
    if (serves_one_request(entry->recv_id)) (void)pkgdist_data_recv_free_ctx(entry->recv_id);
  }
}
