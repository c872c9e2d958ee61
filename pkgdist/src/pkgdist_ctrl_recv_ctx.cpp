// Control client contexts: what a message or a status goes through from CTRL_RX to the caller.
//
// The producer builds an entry and puts it on the context's channel; the event loop runs the
// channel's handler on the caller's thread, which drains the channel and calls the client. Context
// and channel may be gone at either end: the entry is then dropped with a log line.
#include "pkgdist_ctrl_recv_ctx.h"

#include <cstring>

#include "pkgdist/wire_ctrl.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

extern "C" {
PKGDIST_EXPORT pkgdist::ModuleDb<ControlClientContext> G_ctrl_recv_ctx_db;
PKGDIST_EXPORT pkgdist::ModuleDb<ControlCallbackChannel> G_ctrl_recv_qitc_db;
}

namespace pkgdist {

namespace {

// A complete message on its way to the caller; owns its bytes.
struct MessageEntry {
  uint32_t msg_class;
  uint8_t* bytes;
  uint64_t size;
  uint32_t sequence;
  uint64_t put_time;
};

// The final status of a message to the lead on its way to the caller.
struct StatusEntry {
  uint32_t recv_id;
  PkgdistStatus status;
  uint32_t sequence;
  uint64_t put_time;
};

struct MessageEntryFreer {
  void operator()(MessageEntry* entry) const {
    std::free(entry->bytes);
    std::free(entry);
  }
};
using OwnedMessage = std::unique_ptr<MessageEntry, MessageEntryFreer>;

// The client of a message class. Status contexts have identifiers of 10 and above, which a class
// number from the network may equal: only a context with a message handler counts.
bool lookup_message_client(const char* function, uint32_t msg_class, ControlClientContext& client) {
  return ControlClients::lookup(function, msg_class, client) && client.handlers.message != nullptr;
}

void deliver(const MessageEntry& entry, const ControlClientContext& client) {
  record_since(CrsHistogram::kMsgQitcTime, entry.put_time);
  PKGDIST_INFO("CTRL MSG Callback - Sequence %d Msg Class %d Size %zd\n", entry.sequence,
               entry.msg_class, static_cast<size_t>(entry.size));
  count(CrsCounter::kMsgRecvCb);
  client.handlers.message(entry.bytes, entry.size, client.ctx);
}

void deliver(const StatusEntry& entry, const ControlClientContext& client) {
  record_since(CrsHistogram::kStatusQitcTime, entry.put_time);
  if (client.handlers.status == nullptr) return;
  PKGDIST_INFO("CTRL Status Callback - Sequence %d Status %lx\n", entry.sequence, entry.status);
  count(CrsCounter::kUcStatusCb);
  client.handlers.status(entry.status, client.ctx);
}

}  // namespace

qitc_handler_t ControlSide::channel_handler(uint32_t recv_id) {
  switch (recv_id) {
    case 0:
      return pkgdist_ctrl_recv_status_qitc_handler;
    case kLeadChangeRecvId:
      return pkgdist_ctrl_lead_chg_qitc_handler;
    default:
      return pkgdist_ctrl_recv_msg_qitc_handler;
  }
}

void ControlSide::drop_entry(uint32_t channel_id, void* entry) {
  const bool is_message = channel_id != kLeadChangeRecvId && channel_id < kFirstAllocatedId;
  if (is_message)
    MessageEntryFreer{}(static_cast<MessageEntry*>(entry));
  else
    std::free(entry);
}

void ControlSide::log_channel_nomem(const char* function, size_t bytes) {
  PKGDIST_ERR_IN(function, "malloc() %zu bytes for CTRL_RECV_QITC_CL failed", bytes);
}
void ControlSide::log_channel_create_failed(const char* function, int error) {
  PKGDIST_ERR_IN(function, "ctrl recv qitc create failed: %d(%s)", error, std::strerror(error));
}
void ControlSide::log_channel_attach_failed(const char* function, int error) {
  PKGDIST_ERR_IN(function, "ctrl recv qitc attach failed: %d(%s)", error, std::strerror(error));
}
void ControlSide::log_channel_attached(const char* function, uint32_t recv_id,
                                       const CallbackChannel& channel) {
  PKGDIST_INFO("%s: Levm attach passed for recv id %d, qitc id %d to cfd %d\n", function, recv_id,
               channel.channel_id, channel_descriptor(channel));
}
void ControlSide::log_context_nomem(const char* function, size_t bytes) {
  PKGDIST_ERR_IN(function, "malloc() %zu bytes for CTRL_RECV_CTX_CL failed", bytes);
}

}  // namespace pkgdist

using namespace pkgdist;

PkgdistStatus pkgdist_ctrl_recv_alloc_ctx(levm_handle_t levm, pkgdist_ctrl_msg_cb message,
                                          pkgdist_ctrl_status_cb status,
                                          pkgdist_ctrl_lead_change_cb lead_change, void* ctx,
                                          uint32_t& recv_id) {
  return ControlClients::allocate(__func__, levm, {message, status, lead_change}, ctx, recv_id);
}

bool pkgdist_ctrl_recv_free_ctx(uint32_t recv_id) {
  return ControlClients::free(__func__, recv_id);
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_ctrl_mc_hdlr_attach(
    levm_handle_t levm, uint32_t msg_class, pkgdist_ctrl_msg_cb handler, void* ctx) {
  if (levm == nullptr) {
    PKGDIST_ERR("levm passed is NULL");
    return PKGDIST_ERR_INVALID;
  }
  if (msg_class < PKGDIST_CTRL_CLASS_FIRST || msg_class > PKGDIST_CTRL_CLASS_LAST) {
    PKGDIST_ERR("msg class '%d' is invalid", msg_class);
    return PKGDIST_ERR_INVALID;
  }
  PKGDIST_INFO("CTRL MC MSG Hdlr Attach - levm '%p' Msg Class '%d' MC_hdlr '%p' Ctx '%p'\n",
               static_cast<void*>(levm), msg_class, reinterpret_cast<void*>(handler), ctx);
  if (handler != nullptr)
    return pkgdist_ctrl_recv_alloc_ctx(levm, handler, nullptr, nullptr, ctx, msg_class);
  pkgdist_ctrl_recv_free_ctx(msg_class);
  return 0;
}

PkgdistStatus pkgdist_ctrl_recv_msg_invoke_cb(uint32_t msg_class, uint8_t* bytes, uint64_t size,
                                              uint32_t sequence) {
  Malloced<uint8_t> owned(bytes);
  ControlClientContext client;
  if (!lookup_message_client(__func__, msg_class, client)) {
    PKGDIST_ERR("ctrl recv msg ctx msg class '%d' not found", msg_class);
    return PKGDIST_ERR_NOT_FOUND;
  }
  int error = ControlClients::kNoChannel;
  if (ControlClients::channel_exists(__func__, client.channel_id)) {
    OwnedMessage entry(static_cast<MessageEntry*>(std::malloc(sizeof(MessageEntry))));
    if (entry == nullptr) {
      PKGDIST_ERR("malloc() %zu bytes for CTRL_RMSG_QITC_ENTRY failed", sizeof(MessageEntry));
      return PKGDIST_ERR_NOMEM;
    }
    *entry = {msg_class, owned.release(), size, sequence, stamp_for(CrsHistogram::kMsgQitcTime)};
    PKGDIST_INFO("CTRL MSG Invoke CB - Sequence %d Msg Class %d Size %zd\n", sequence, msg_class,
                 static_cast<size_t>(size));
    error = ControlClients::put(__func__, client.channel_id, entry.get());
    if (error == 0) (void)entry.release();
  }
  if (error == ControlClients::kNoChannel) {
    PKGDIST_ERR("ctrl recv msg qitc id '%d' not found", client.channel_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  if (error != 0) {
    PKGDIST_ERR("ctrl_recv msg qitc put failed, rc=%d(%s)", error, std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  return 0;
}

PkgdistStatus pkgdist_ctrl_recv_status_invoke_cb(uint32_t recv_id, PkgdistStatus status,
                                                 uint32_t sequence) {
  ControlClientContext client;
  if (!ControlClients::lookup(__func__, recv_id, client)) {
    PKGDIST_ERR("ctrl recv status ctx id '%d' not found", recv_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  int error = ControlClients::kNoChannel;
  if (ControlClients::channel_exists(__func__, client.channel_id)) {
    Malloced<StatusEntry> entry(static_cast<StatusEntry*>(std::malloc(sizeof(StatusEntry))));
    if (entry == nullptr) {
      PKGDIST_ERR("malloc() %zu bytes for CTRL_RSTATUS_QITC_ENTRY failed", sizeof(StatusEntry));
      return PKGDIST_ERR_NOMEM;
    }
    *entry = {recv_id, status, sequence, stamp_for(CrsHistogram::kStatusQitcTime)};
    PKGDIST_INFO("CTRL Status Invoke CB - Sequence %d Status %lx\n", sequence, status);
    error = ControlClients::put(__func__, client.channel_id, entry.get());
    if (error == 0) (void)entry.release();
  }
  if (error == ControlClients::kNoChannel) {
    PKGDIST_ERR("ctrl recv status qitc id '%d' not found", client.channel_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  if (error != 0) {
    PKGDIST_ERR("ctrl recv status qitc_put() failed, rc=%d(%s)", error, std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  return 0;
}

extern "C" void pkgdist_ctrl_recv_msg_qitc_handler(qitc_handle_t qitc) {
  for (;;) {
    void* taken = nullptr;
    const int error = ControlClients::take(__func__, qitc, &taken);
    if (error == kChannelEmpty) return;
    if (error != 0) {
      PKGDIST_ERR("ctrl recv msg qitc_get() failed, rc=%d(%s)", error, std::strerror(error));
      return;
    }
    if (taken == nullptr) {
      PKGDIST_ERR("ctrl recv msg qitc_get() returned NULL");
      continue;
    }
    const OwnedMessage entry(static_cast<MessageEntry*>(taken));
    ControlClientContext client;
    if (!lookup_message_client(__func__, entry->msg_class, client)) {
      PKGDIST_ERR("ctrl recv ctx client msg class '%d' not found", entry->msg_class);
      continue;
    }
    deliver(*entry, client);
  }
}

extern "C" void pkgdist_ctrl_recv_status_qitc_handler(qitc_handle_t qitc) {
  for (;;) {
    void* taken = nullptr;
    const int error = ControlClients::take(__func__, qitc, &taken);
    if (error == kChannelEmpty) return;
    if (error != 0) {
      PKGDIST_ERR("ctrl recv status qitc_get() failed, rc=%d(%s)", error, std::strerror(error));
      return;
    }
    if (taken == nullptr) {
      PKGDIST_ERR("ctrl recv status qitc_get() returned NULL");
      continue;
    }
    const Malloced<StatusEntry> entry(static_cast<StatusEntry*>(taken));
    ControlClientContext client;
    if (!ControlClients::lookup(__func__, entry->recv_id, client)) {
      PKGDIST_ERR("ctrl recv status ctx client recv id '%d' not found", entry->recv_id);
      continue;
    }
    deliver(*entry, client);
    // A status context serves one message; with the last one the channel itself goes.
    if (pkgdist_ctrl_recv_free_ctx(entry->recv_id)) return;
  }
}
