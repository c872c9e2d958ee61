// Client contexts and callback channels, once for both sides of the library.
//
// A client context says who wants to hear about a receive identifier and through which handlers. A
// callback channel carries the results of contexts to the event loop of their caller; contexts of
// one loop and kind share a channel, which counts them and goes with the last one. What differs
// between the control and the data side (handler types, texts, sizes) is the Side:
//
//   struct Side {
//     using Handlers = ...;                                  // an aggregate of function pointers
//     static ModuleDb<ClientContext<Handlers>>& contexts();
//     static ModuleDb<CallbackChannel>& channels();
//     static constexpr uint32_t kChannelEntries;             // size hint for a new channel
//     static qitc_handler_t channel_handler(uint32_t recv_id);
//     static void drop_entry(uint32_t channel_id, void* entry);
//     static void log_...                                    // the side's own texts
//   };
//
// Locks: one mutex per database, taken one after the other and never together; handlers of callers
// run with neither held. A channel may go while a producer builds an entry for it or a handler
// drains it, so both look it up again under the channel lock before they touch it.
#pragma once

#include <cstdlib>

#include "pkgdist_datagram.h"
#include "pkgdist_db.h"
#include "pkgdist_lock.h"
#include "pkgdist_status.h"
#include "platform/levm.h"

namespace pkgdist {

// Result of qitc_get() on a channel without entries.
inline constexpr int kChannelEmpty = -1;
// Urgency of the library's channels in the caller's event loop.
inline constexpr int kChannelPriority = 2;

template <class HandlerSet>
struct ClientContext {
  ClientContext* next;
  uint32_t recv_id;
  uint32_t channel_id;
  void* ctx;
  HandlerSet handlers;
  ClientContext* previous;
};

struct CallbackChannel {
  CallbackChannel* next;
  uint32_t channel_id;
  levm_handle_t levm;
  qitc_handle_t qitc;
  uint32_t reference_count;
  CallbackChannel* previous;
};

// The channel's descriptor for log texts; -1 without a handle.
int channel_descriptor(const CallbackChannel& channel);

// The texts that both sides have in common. `function` is the reporter.
void log_reference_added(const char* function, uint32_t recv_id, const CallbackChannel& channel);
void log_reference_dropped(const char* function, uint32_t recv_id, const CallbackChannel& channel);
void log_channel_detach_failed(const char* function, int error);

template <class Side>
class Clients {
 public:
  using Handlers = typename Side::Handlers;
  using Context = ClientContext<Handlers>;

  // Enters a client. `recv_id` 0 asks for a fresh identifier, which is written back; an existing
  // context of the identifier gets the new handlers and keeps its channel. `function` is the
  // reporter in the log.
  static PkgdistStatus allocate(const char* function, levm_handle_t levm, const Handlers& handlers,
                                void* ctx, uint32_t& recv_id) {
    uint32_t channel_id = 0;
    if (levm != nullptr) {
      const PkgdistStatus status = take_channel(function, levm, recv_id, channel_id);
      if (status != 0) return status;
    }
    const PkgdistStatus status = put_context(function, handlers, ctx, channel_id, recv_id);
    // Another loop may have a channel of the same identifier: it keeps its references.
    if (status != 0 && levm != nullptr)
      release_channel(function, recv_id, [=](const CallbackChannel& channel) {
        return channel.channel_id == channel_id && channel.levm == levm;
      });
    return status;
  }

  // Forgets a client. True when its channel went with it.
  static bool free(const char* function, uint32_t recv_id) {
    uint32_t channel_id = 0;
    {
      MutexLock lock(Side::contexts().mutex, Caller::here(function));
      Context* context = find_context(recv_id);
      if (context == nullptr) return false;
      channel_id = context->channel_id;
      Side::contexts().remove(context);
      std::free(context);
    }
    return channel_id != 0 &&
           release_channel(function, recv_id, [=](const CallbackChannel& channel) {
             return channel.channel_id == channel_id;
           });
  }

  // Copies the context of `recv_id`: the original may go at any time after.
  static bool lookup(const char* function, uint32_t recv_id, Context& copy) {
    const MutexLock lock(Side::contexts().mutex, Caller::here(function));
    const Context* context = find_context(recv_id);
    if (context == nullptr) return false;
    copy = *context;
    return true;
  }

  static bool channel_exists(const char* function, uint32_t channel_id) {
    const MutexLock lock(Side::channels().mutex, Caller::here(function));
    return find_channel(channel_id) != nullptr;
  }

  // Puts an entry on a channel that was seen to exist. kNoChannel when it has gone since, kOutdated
  // when `still_holds` denies that the entry is true at this moment.
  static constexpr int kNoChannel = -2;
  static constexpr int kOutdated = -3;
  template <class StillHolds>
  static int put(const char* function, uint32_t channel_id, void* entry, StillHolds still_holds) {
    const MutexLock lock(Side::channels().mutex, Caller::here(function));
    const CallbackChannel* channel = find_channel(channel_id);
    if (channel == nullptr) return kNoChannel;
    return still_holds() ? qitc_put(channel->qitc, entry) : kOutdated;
  }
  static int put(const char* function, uint32_t channel_id, void* entry) {
    return put(function, channel_id, entry, [] { return true; });
  }

  // Takes the next entry for a channel handler. A channel that went meanwhile is an empty one.
  static int take(const char* function, qitc_handle_t qitc, void** entry) {
    const MutexLock lock(Side::channels().mutex, Caller::here(function));
    const bool alive = Side::channels().find([&](const CallbackChannel& channel) {
      return channel.qitc == qitc;
    }) != nullptr;
    *entry = nullptr;
    return alive ? qitc_get(qitc, entry) : kChannelEmpty;
  }

 private:
  static Context* find_context(uint32_t recv_id) {
    return Side::contexts().find(
        [&](const Context& context) { return context.recv_id == recv_id; });
  }

  static CallbackChannel* find_channel(uint32_t channel_id) {
    return Side::channels().find(
        [&](const CallbackChannel& channel) { return channel.channel_id == channel_id; });
  }

  // The channel of this loop for the identifier; all fresh identifiers share one.
  static CallbackChannel* find_channel_of(levm_handle_t levm, uint32_t recv_id) {
    return Side::channels().find([&](const CallbackChannel& channel) {
      if (channel.levm != levm) return false;
      return recv_id != 0 ? channel.channel_id == recv_id : channel.channel_id >= kFirstAllocatedId;
    });
  }

  static PkgdistStatus take_channel(const char* function, levm_handle_t levm, uint32_t recv_id,
                                    uint32_t& channel_id) {
    const MutexLock lock(Side::channels().mutex, Caller::here(function));
    if (CallbackChannel* channel = find_channel_of(levm, recv_id); channel != nullptr) {
      ++channel->reference_count;
      channel_id = channel->channel_id;
      log_reference_added(function, recv_id, *channel);
      return 0;
    }
    return create_channel(function, levm, recv_id, channel_id);
  }

  static PkgdistStatus create_channel(const char* function, levm_handle_t levm, uint32_t recv_id,
                                      uint32_t& channel_id) {
    Malloced<CallbackChannel> channel(
        static_cast<CallbackChannel*>(std::calloc(1, sizeof(CallbackChannel))));
    if (channel == nullptr) {
      Side::log_channel_nomem(function, sizeof(CallbackChannel));
      return PKGDIST_ERR_NOMEM;
    }
    channel->channel_id = recv_id != 0 ? recv_id : Side::channels().allocate_id();
    channel->levm = levm;
    if (int error = qitc_handle_create(Side::kChannelEntries, 0, 0, 0, &channel->qitc);
        error != 0) {
      Side::log_channel_create_failed(function, error);
      return PKGDIST_ERR_SYSTEM;
    }
    channel->reference_count = 1;
    if (int error = levm_attach_qitc_handle(levm, channel->qitc, Side::channel_handler(recv_id),
                                            kChannelPriority, 0, 0, 0);
        error != 0) {
      Side::log_channel_attach_failed(function, error);
      qitc_handle_destroy(channel->qitc);
      return PKGDIST_ERR_SYSTEM;
    }
    Side::log_channel_attached(function, recv_id, *channel);
    channel_id = channel->channel_id;
    Side::channels().append(channel.release());
    return 0;
  }

  static PkgdistStatus put_context(const char* function, const Handlers& handlers, void* ctx,
                                   uint32_t channel_id, uint32_t& recv_id) {
    const MutexLock lock(Side::contexts().mutex, Caller::here(function));
    Context* context = recv_id != 0 ? find_context(recv_id) : nullptr;
    if (context == nullptr) {
      context = static_cast<Context*>(std::calloc(1, sizeof(Context)));
      if (context == nullptr) {
        Side::log_context_nomem(function, sizeof(Context));
        return PKGDIST_ERR_NOMEM;
      }
      if (recv_id == 0) recv_id = Side::contexts().allocate_id();
      context->recv_id = recv_id;
      context->channel_id = channel_id;
      Side::contexts().append(context);
    }
    context->ctx = ctx;
    context->handlers = handlers;
    return 0;
  }

  // Gives back one reference; the last one detaches and destroys the channel. True when it went.
  template <class Match>
  static bool release_channel(const char* function, uint32_t recv_id, Match match) {
    const MutexLock lock(Side::channels().mutex, Caller::here(function));
    CallbackChannel* channel = Side::channels().find(match);
    if (channel == nullptr) return false;
    --channel->reference_count;
    log_reference_dropped(function, recv_id, *channel);
    if (channel->reference_count != 0) return false;
    Side::channels().remove(channel);
    if (int error = levm_attach_qitc_handle(channel->levm, channel->qitc, nullptr, kChannelPriority,
                                            0, 0, 0);
        error != 0)
      log_channel_detach_failed(function, error);
    drop_undelivered(*channel);
    qitc_handle_destroy(channel->qitc);
    std::free(channel);
    return true;
  }

  static void drop_undelivered(const CallbackChannel& channel) {
    void* entry = nullptr;
    while (qitc_get(channel.qitc, &entry) == 0)
      if (entry != nullptr) Side::drop_entry(channel.channel_id, entry);
  }
};

}  // namespace pkgdist
