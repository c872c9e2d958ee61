// Control client contexts and the delivery of results to the callers' event loops.
//
// Receive identifiers: 1 the lead-change client, 2 to 5 the client of that message class, 10 and
// above one context per message sent to the lead, for its final status.
#pragma once

#include <cstdint>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist_clients.h"

// Exactly one is set, according to the kind of context.
struct ControlHandlers {
  pkgdist_ctrl_msg_cb message;
  pkgdist_ctrl_status_cb status;
  pkgdist_ctrl_lead_change_cb lead_change;
};
using ControlClientContext = pkgdist::ClientContext<ControlHandlers>;
using ControlCallbackChannel = pkgdist::CallbackChannel;

extern "C" {
extern pkgdist::ModuleDb<ControlClientContext> G_ctrl_recv_ctx_db;
extern pkgdist::ModuleDb<ControlCallbackChannel> G_ctrl_recv_qitc_db;
}

namespace pkgdist {

inline constexpr uint32_t kLeadChangeRecvId = 1;

// A lead change on its way to the caller. Allocated by the producer, freed by the handler.
struct LeadChangeEntry {
  uint32_t lead;
  uint32_t pid;
  uint8_t failover;
  uint64_t put_time;
};

struct ControlSide;
using ControlClients = Clients<ControlSide>;

struct ControlSide {
  using Handlers = ControlHandlers;
  static constexpr uint32_t kChannelEntries = 576;
  static ModuleDb<ControlClientContext>& contexts() { return G_ctrl_recv_ctx_db; }
  static ModuleDb<ControlCallbackChannel>& channels() { return G_ctrl_recv_qitc_db; }
  static qitc_handler_t channel_handler(uint32_t recv_id);
  static void drop_entry(uint32_t channel_id, void* entry);
  static void log_channel_nomem(const char* function, size_t bytes);
  static void log_channel_create_failed(const char* function, int error);
  static void log_channel_attach_failed(const char* function, int error);
  static void log_channel_attached(const char* function, uint32_t recv_id,
                                   const CallbackChannel& channel);
  static void log_context_nomem(const char* function, size_t bytes);
};

}  // namespace pkgdist

// Enters a client context; `recv_id` 0 asks for a fresh identifier and receives it.
PkgdistStatus pkgdist_ctrl_recv_alloc_ctx(levm_handle_t levm, pkgdist_ctrl_msg_cb message,
                                          pkgdist_ctrl_status_cb status,
                                          pkgdist_ctrl_lead_change_cb lead_change, void* ctx,
                                          uint32_t& recv_id);

// Forgets a context. True when its channel was destroyed because its last user went.
bool pkgdist_ctrl_recv_free_ctx(uint32_t recv_id);

// Queues a complete message for the client of its class. Takes over `bytes` (from malloc) whatever
// it returns. CTRL_RX.
PkgdistStatus pkgdist_ctrl_recv_msg_invoke_cb(uint32_t msg_class, uint8_t* bytes, uint64_t size,
                                              uint32_t sequence);

// Queues the final status of a message sent to the lead. CTRL_RX.
PkgdistStatus pkgdist_ctrl_recv_status_invoke_cb(uint32_t recv_id, PkgdistStatus status,
                                                 uint32_t sequence);

// Channel handlers; run by the caller's event loop.
extern "C" {
void pkgdist_ctrl_recv_msg_qitc_handler(qitc_handle_t qitc);
void pkgdist_ctrl_recv_status_qitc_handler(qitc_handle_t qitc);
void pkgdist_ctrl_lead_chg_qitc_handler(qitc_handle_t qitc);
}
