// Data client contexts and the delivery of file events to the callers' event loops.
//
// Receive identifiers: 1 transaction start, 2 file transfer and 3 transaction done of what the lead
// pushes; 10 and above one context per file that a caller asked for.
#pragma once

#include <cstdint>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist_clients.h"

struct DataHandlers {
  pkgdist_data_file_cb file;
  pkgdist_data_xact_start_cb start;
  pkgdist_data_xact_done_cb done;
};
using DataClientContext = pkgdist::ClientContext<DataHandlers>;
using DataCallbackChannel = pkgdist::CallbackChannel;

extern "C" {
extern pkgdist::ModuleDb<DataClientContext> G_data_recv_ctx_db;
extern pkgdist::ModuleDb<DataCallbackChannel> G_data_recv_qitc_db;
}

namespace pkgdist {

// Contexts of the lead's transactions.
inline constexpr uint32_t kXactStartRecvId = 1;
inline constexpr uint32_t kFileRecvId = 2;
inline constexpr uint32_t kXactDoneRecvId = 3;

struct DataSide {
  using Handlers = DataHandlers;
  static constexpr uint32_t kChannelEntries = 384;
  static ModuleDb<DataClientContext>& contexts() { return G_data_recv_ctx_db; }
  static ModuleDb<DataCallbackChannel>& channels() { return G_data_recv_qitc_db; }
  static qitc_handler_t channel_handler(uint32_t recv_id);
  static void drop_entry(uint32_t channel_id, void* entry);
  static void log_channel_nomem(const char* function, size_t bytes);
  static void log_channel_create_failed(const char* function, int error);
  static void log_channel_attach_failed(const char* function, int error);
  static void log_channel_attached(const char* function, uint32_t recv_id,
                                   const CallbackChannel& channel);
  static void log_context_nomem(const char* function, size_t bytes);
};
using DataClients = Clients<DataSide>;

}  // namespace pkgdist

// Enters a client context; `recv_id` 0 asks for a fresh identifier and receives it.
PkgdistStatus pkgdist_data_recv_alloc_ctx(levm_handle_t levm, pkgdist_data_file_cb file,
                                          pkgdist_data_xact_start_cb start,
                                          pkgdist_data_xact_done_cb done, void* ctx,
                                          uint32_t& recv_id);

// Forgets a context; an unknown identifier is no error. Returns 0.
PkgdistStatus pkgdist_data_recv_free_ctx(uint32_t recv_id);

// Queues a file event for the client of `recv_id`. The paths are copied. Any thread, no lock of the
// contexts held.
PkgdistStatus pkgdist_data_file_invoke_cb(PkgdistStatus status, uint32_t recv_id, uint32_t xact_id,
                                          const char* const* paths, uint32_t count, uint32_t type,
                                          uint32_t location);

// Channel handler; run by the caller's event loop.
extern "C" void pkgdist_data_file_qitc_handler(qitc_handle_t qitc);
