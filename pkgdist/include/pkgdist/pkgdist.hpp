// The receive library in C++20: event loop, attachments and requests as objects and std::function,
// statuses that print themselves. Header-only, over pkgdist/pkgdist_recv.h, which says what each
// call does; this page says what the C++ side adds.
//
//   pkgdist::EventLoop loop;
//   pkgdist::FileHandler files;
//   pkgdist::Status status = pkgdist::start_control({.group = ..., .address = ..., ...});
//   if (status.ok()) status = files.attach(loop, [](const pkgdist::FileOutcome& file) { ... });
//   ...
//   loop.run();
//
// Threads
//   A loop and its handlers are used by one thread: attach, detach and destroy handlers on the
//   thread that runs the loop, or while none does. get_file(), send_message(), cancel() and
//   EventLoop::stop() may be called from any thread. Every function may be called in a callback; a
//   callback may also destroy the handler object that it belongs to.
//
// Lifetime
//   What is called back keeps what it needs alive: the loop of a handler or of a request is
//   destroyed with the last of EventLoop, attached handlers and requests under way. A destroyed
//   EventLoop runs no more callbacks, so what is still to come for it never comes. The library has
//   no detach for pushed files (FileHandler, TransactionStartHandler, TransactionDoneHandler): such
//   a handler calls nobody once it is destroyed, but the loop it was attached with stays until the
//   process ends.
//
// Exceptions
//   Functions report failures by Status. The loop alone throws: std::system_error when the system
//   fails it, and what a callback threw. A callback's exception never passes through the library:
//   it is kept until the callbacks of that round have run, ends EventLoop::run(), and is thrown by
//   run() or run_once(). Of several in one round the first is thrown and the others are dropped.
//   The loop may be run again. Who runs handle() with levm_run() gets the exception from the next
//   run_once().
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist/wire_data.h"

namespace pkgdist {

// A PkgdistStatus that knows its text. Must be looked at where a function returns it.
class [[nodiscard]] Status {
 public:
  constexpr Status() = default;
  constexpr Status(PkgdistStatus value) : value_(value) {}  // NOLINT: meant to be implicit

  constexpr bool ok() const { return value_ == 0; }
  constexpr PkgdistStatus value() const { return value_; }
  std::string text() const { return pkgdist_status_str(value_); }

  friend constexpr bool operator==(Status, Status) = default;
  friend std::ostream& operator<<(std::ostream& out, Status status) {
    return out << pkgdist_status_str(status.value_);
  }

 private:
  PkgdistStatus value_ = 0;
};

// The outcome of one file. `path` is valid during the callback.
struct FileOutcome {
  Status status;
  std::string_view path;
  uint32_t type = 0;
  uint32_t location = 0;
  uint32_t transaction = 0;
};

// The start of a pushed transaction. `paths` are valid during the callback.
struct TransactionStart {
  Status status;
  std::span<const char* const> paths;
  uint32_t type = 0;
  uint32_t location = 0;
  uint32_t transaction = 0;
};

struct Lead {
  uint32_t address = 0;
  uint32_t pid = 0;
  bool failover = false;  // it took over from another lead
};

namespace detail {

// What an event loop consists of, shared by all that may be called back on it.
class Core {
 public:
  Core() : loop_(levm_create()) {
    if (loop_ == nullptr) throw std::system_error(errno, std::generic_category(), "event loop");
  }
  ~Core() { levm_destroy(loop_); }
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  levm_handle_t loop() const { return loop_; }

  // Calls `callback`; what it throws is kept for rethrow().
  template <class Callback, class... Arguments>
  void call(const Callback& callback, const Arguments&... arguments) noexcept {
    try {
      callback(arguments...);
    } catch (...) {
      if (!thrown_) thrown_ = std::current_exception();
      if (running_) levm_stop(loop_);
    }
  }

  void run() {
    running_ = true;
    const int result = levm_run(loop_);
    running_ = false;
    (void)checked(result);
  }
  int run_once(int timeout_ms) { return checked(levm_run_once(loop_, timeout_ms)); }

 private:
  int checked(int result) {
    const int error = errno;
    if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
    if (result < 0) throw std::system_error(error, std::generic_category(), "event loop");
    return result;
  }

  levm_handle_t loop_;
  bool running_ = false;  // in levm_run(), which an exception ends
  std::exception_ptr thrown_;
};

// Keeps something until the process ends. Any thread.
template <class Value>
void keep(const Value& value) {
  static auto& lock = *new std::mutex;
  static auto& kept = *new std::vector<Value>;
  const std::scoped_lock guard(lock);
  if (std::find(kept.begin(), kept.end(), value) == kept.end()) kept.push_back(value);
}

// What the library is given as the argument of a callback.
template <class Callback>
struct Client : std::enable_shared_from_this<Client<Callback>> {
  Client(std::shared_ptr<Core> loop_core, Callback function)
      : core(std::move(loop_core)), callback(std::move(function)) {}

  // The callback may detach its handler: what is running stays until it returns.
  template <class... Arguments>
  static void call(void* ctx, const Arguments&... arguments) noexcept {
    const auto self = static_cast<Client*>(ctx)->shared_from_this();
    self->core->call(self->callback, arguments...);
  }

  std::shared_ptr<Core> core;
  Callback callback;
};

// What one callback needs; it goes with that callback.
template <class Callback>
struct Once {
  template <class... Arguments>
  static void call(void* ctx, const Arguments&... arguments) noexcept {
    const std::unique_ptr<Once> self(static_cast<Once*>(ctx));
    self->core->call(self->callback, arguments...);
  }

  std::shared_ptr<Core> core;
  Callback callback;
};

// The library keeps one handler for each of these.
enum class Slot : size_t { kLeadChange = 1, kMessages = 2, kFiles = 6, kStarts, kDones, kCount };

// The client that holds each slot: a handler that was replaced must not detach its successor.
inline std::array<std::atomic<const void*>, static_cast<size_t>(Slot::kCount)> holders{};

}  // namespace detail

// An event loop on the thread that runs it; platform/levm.h has the details.
class EventLoop {
 public:
  EventLoop() : core_(std::make_shared<detail::Core>()) {}

  // Runs callbacks until stop().
  void run() const {
    const auto core = core_;  // a callback may destroy this object
    core->run();
  }

  // Waits up to `timeout` (negative: without limit) for something to do, and does it. Returns the
  // number of channels that had something; 0 on time-out and after a stop.
  int run_once(std::chrono::milliseconds timeout) const {
    const auto core = core_;
    return core->run_once(static_cast<int>(timeout.count()));
  }

  // Any thread, and signal handlers.
  void stop() const noexcept { levm_stop(core_->loop()); }

  // Readable when run_once(0) has something to do: for embedding in another loop.
  int fd() const { return levm_fd(core_->loop()); }
  levm_handle_t handle() const { return core_->loop(); }

  const std::shared_ptr<detail::Core>& core() const { return core_; }  // for the handlers below

 private:
  std::shared_ptr<detail::Core> core_;
};

namespace detail {

// What the handlers below have in common: they hold a slot of the library from attach() until
// detach() or destruction, or until another handler takes the slot over.
template <class Callback>
class Handler {
 public:
  Handler() = default;
  ~Handler() { detach(); }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

  // What was queued and not delivered is dropped.
  void detach() {
    const std::shared_ptr<Client> client = std::exchange(client_, nullptr);
    if (client == nullptr) return;
    const void* expected = client.get();
    if (holder().compare_exchange_strong(expected, nullptr)) forget_(client->core->loop(), slot_);
  }

  // Another handler may have taken the slot over.
  bool attached() const { return client_ != nullptr && holder() == client_.get(); }

 protected:
  using Client = detail::Client<Callback>;
  using Forget = void (*)(levm_handle_t, size_t);

  // `attach(client)` enters the client in the library, `forget` takes it out.
  template <class Attach>
  Status enter(const EventLoop& loop, size_t slot, Callback callback, Forget forget,
               Attach attach) {
    detach();
    slot_ = slot;
    forget_ = forget;
    holder() = nullptr;  // whoever it was is replaced, also when this fails
    auto client = std::make_shared<Client>(loop.core(), std::move(callback));
    const Status status = attach(*client);
    if (!status.ok()) return status;
    holder() = client.get();
    client_ = std::move(client);
    return status;
  }

 private:
  std::atomic<const void*>& holder() const { return holders[slot_]; }

  size_t slot_ = 0;
  Forget forget_ = nullptr;
  std::shared_ptr<Client> client_;
};

}  // namespace detail

// Messages of the lead of one class, 2 to 5. A class has one handler: attaching another replaces
// it.
class MessageHandler : public detail::Handler<std::function<void(std::span<const std::byte>)>> {
 public:
  using Callback = std::function<void(std::span<const std::byte>)>;

  Status attach(const EventLoop& loop, uint32_t message_class, Callback callback) {
    if (!callback || message_class < 2 || message_class > 5) return PKGDIST_ERR_INVALID;
    const auto forget = [](levm_handle_t handle, size_t slot) {
      (void)instcomm_pkgdist_ctrl_mc_hdlr_attach(handle, static_cast<uint32_t>(slot), nullptr,
                                                 nullptr);
    };
    // The library wants a class detached before it is attached to another loop.
    forget(loop.handle(), message_class);
    return enter(loop, message_class, std::move(callback), forget, [&](Client& client) {
      return instcomm_pkgdist_ctrl_mc_hdlr_attach(
          client.core->loop(), message_class,
          [](const void* bytes, uint64_t size, void* ctx) {
            Client::call(ctx, std::span(static_cast<const std::byte*>(bytes), size));
          },
          &client);
    });
  }
};

// The lead that is heard, and its changes; one handler for the process.
class LeadChangeHandler : public detail::Handler<std::function<void(const Lead&)>> {
 public:
  using Callback = std::function<void(const Lead&)>;

  Status attach(const EventLoop& loop, Callback callback) {
    if (!callback) return PKGDIST_ERR_INVALID;
    const auto forget = [](levm_handle_t handle, size_t) {
      (void)instcomm_pkgdist_ctrl_register_lead_change(handle, nullptr, nullptr);
    };
    forget(loop.handle(), 0);
    return enter(loop, static_cast<size_t>(detail::Slot::kLeadChange), std::move(callback), forget,
                 [](Client& client) {
                   return instcomm_pkgdist_ctrl_register_lead_change(
                       client.core->loop(),
                       [](uint32_t lead, uint32_t pid, bool failover, void* ctx) {
                         Client::call(ctx, Lead{lead, pid, failover});
                       },
                       &client);
                 });
  }
};

// The outcome of each file that the lead pushes; one handler for the process: attaching another
// replaces it. The callback runs on the loop of the process's first attach.
class FileHandler : public detail::Handler<std::function<void(const FileOutcome&)>> {
 public:
  using Callback = std::function<void(const FileOutcome&)>;

  Status attach(const EventLoop& loop, Callback callback) {
    if (!callback) return PKGDIST_ERR_INVALID;
    detail::keep(loop.core());
    return enter(
        loop, static_cast<size_t>(detail::Slot::kFiles), std::move(callback),
        [](levm_handle_t handle, size_t) {
          (void)instcomm_pkgdist_data_file_hdlr_attach(handle, nullptr, nullptr);
        },
        [](Client& client) {
          return instcomm_pkgdist_data_file_hdlr_attach(
              client.core->loop(),
              [](uint64_t status, const char* path, uint32_t type, uint32_t location,
                 uint32_t transaction, void* ctx) {
                Client::call(ctx, FileOutcome{status, path, type, location, transaction});
              },
              &client);
        });
  }
};

// The start of each pushed transaction; otherwise as FileHandler.
class TransactionStartHandler
    : public detail::Handler<std::function<void(const TransactionStart&)>> {
 public:
  using Callback = std::function<void(const TransactionStart&)>;

  Status attach(const EventLoop& loop, Callback callback) {
    if (!callback) return PKGDIST_ERR_INVALID;
    detail::keep(loop.core());
    return enter(
        loop, static_cast<size_t>(detail::Slot::kStarts), std::move(callback),
        [](levm_handle_t handle, size_t) {
          (void)instcomm_pkgdist_data_file_xact_start_hdlr_attach(handle, nullptr, nullptr);
        },
        [](Client& client) {
          return instcomm_pkgdist_data_file_xact_start_hdlr_attach(
              client.core->loop(),
              [](uint64_t status, const char* const* paths, uint32_t count, uint32_t type,
                 uint32_t location, uint32_t transaction, void* ctx) {
                Client::call(ctx,
                             TransactionStart{status, {paths, count}, type, location, transaction});
              },
              &client);
        });
  }
};

// The end of each pushed transaction, with the status of its last file; otherwise as FileHandler.
class TransactionDoneHandler
    : public detail::Handler<std::function<void(Status status, uint32_t transaction)>> {
 public:
  using Callback = std::function<void(Status status, uint32_t transaction)>;

  Status attach(const EventLoop& loop, Callback callback) {
    if (!callback) return PKGDIST_ERR_INVALID;
    detail::keep(loop.core());
    return enter(
        loop, static_cast<size_t>(detail::Slot::kDones), std::move(callback),
        [](levm_handle_t handle, size_t) {
          (void)instcomm_pkgdist_data_file_xact_done_hdlr_attach(handle, nullptr, nullptr);
        },
        [](Client& client) {
          return instcomm_pkgdist_data_file_xact_done_hdlr_attach(
              client.core->loop(),
              [](uint64_t status, uint32_t transaction, void* ctx) {
                Client::call(ctx, Status(status), transaction);
              },
              &client);
        });
  }
};

// --- Start-up. Addresses and ports are in host byte order. ---

struct ControlSettings {
  // Multicast group and port of the lead's control messages.
  uint32_t group = PKGDIST_DEFAULT_CONTROL_GROUP;
  uint16_t group_port = PKGDIST_DEFAULT_CONTROL_PORT;
  uint16_t lead_port = PKGDIST_DEFAULT_LEAD_PORT;    // where the lead listens
  uint16_t node_port = PKGDIST_DEFAULT_NODE_PORT;    // where this node listens
  uint32_t card_class = PKGDIST_DEFAULT_CARD_CLASS;  // compared with the class of each message
  uint32_t address = 0;  // this node's own; selects the multicast interface; has no default
  uint64_t trace_configuration = 0;
};

struct DataSettings {
  // Multicast group and port of the lead's data stream.
  uint32_t group = PKGDIST_DEFAULT_DATA_GROUP;
  uint16_t group_port = PKGDIST_DEFAULT_DATA_PORT;
  uint16_t request_port = PKGDIST_DEFAULT_REQUEST_PORT;  // where the lead takes requests
};

inline Status start_control(const ControlSettings& settings) {
  return instcomm_pkgdist_ctrl_recv_init(settings.group, settings.group_port, settings.lead_port,
                                         settings.node_port, settings.card_class, settings.address,
                                         settings.trace_configuration);
}

// What the lead wants to write or delete here; pkgdist_data_gate_cb has the details.
struct GateQuestion {
  uint32_t operation = 0;  // PKGDIST_GATE_...
  uint32_t location = 0;
  const char* name = nullptr;
  uint32_t size = 0;
  uint32_t mode = 0;
  uint32_t kind = 0;
};
// Returns PKGDIST_GATE_ACCEPT, PKGDIST_GATE_PRESENT or an errno. Runs on threads of the library
// with a lock held: it must not throw, call the library or wait.
using Gate = std::function<int(const GateQuestion&)>;

// Before start_data(). The gate stays until the process ends.
inline Status set_gate(Gate gate) {
  if (!gate) return PKGDIST_ERR_INVALID;
  auto held = std::make_shared<const Gate>(std::move(gate));
  const Status status = instcomm_pkgdist_data_set_gate(
      [](uint32_t operation, uint32_t location, const char* name, uint32_t size, uint32_t mode,
         uint32_t kind, void* ctx) {
        return (*static_cast<const Gate*>(ctx))({operation, location, name, size, mode, kind});
      },
      const_cast<Gate*>(held.get()));
  if (status.ok()) detail::keep(held);
  return status;
}

// A part of a partial file that is good.
struct GoodPart {
  uint64_t first = 0;
  uint64_t size = 0;
};
// Which parts of the partial file of `name` are good; pkgdist_data_resume_cb has the details. Runs
// on a thread of the library with a lock held: it must not throw, call the library or wait.
using Resume =
    std::function<std::vector<GoodPart>(uint32_t location, const char* name, uint32_t size)>;

// Before start_data(). It stays until the process ends.
inline Status set_resume(Resume resume) {
  if (!resume) return PKGDIST_ERR_INVALID;
  auto held = std::make_shared<const Resume>(std::move(resume));
  const Status status = instcomm_pkgdist_data_set_resume(
      [](uint32_t location, const char* name, uint32_t size, pkgdist_data_good_part_cb good,
         void* parts, void* ctx) {
        for (const GoodPart& part : (*static_cast<const Resume*>(ctx))(location, name, size))
          good(part.first, part.size, parts);
      },
      const_cast<Resume*>(held.get()));
  if (status.ok()) detail::keep(held);
  return status;
}

inline Status start_data(const DataSettings& settings) {
  return instcomm_pkgdist_data_recv_init(settings.group, settings.group_port,
                                         settings.request_port);
}

// The identity stays in memory until the process ends, as the library wants it.
inline Status set_node_identity(uint32_t first, uint32_t second, uint32_t third) {
  nodeid_handle_t identity = nullptr;
  if (nodeid_create(first, second, third, &identity) != 0) return PKGDIST_ERR_NOMEM;
  detail::keep(identity);
  return instcomm_pkgdist_ctrl_recv_set_nodeid(identity);
}

inline Status set_location(uint32_t location, const std::string& path, bool memory = false) {
  return instcomm_pkgdist_set_recv_repository(path.c_str(), location, memory);
}

// --- Requests ---

struct FileRequest {
  std::string path;
  uint32_t type = 1;
  uint32_t location = 1;
  uint32_t priority = 2;
};

using FileCallback = std::function<void(const FileOutcome&)>;
using StatusCallback = std::function<void(Status)>;

inline uint32_t next_transaction() {
  return instcomm_pkgdist_get_receive_xact_id();
}

// Asks for a file; `callback` is called once, unless the request was refused: PKGDIST_ERR_INVALID,
// PKGDIST_ERR_SYSTEM, and perhaps PKGDIST_ERR_NOMEM. With PKGDIST_ERR_SEND and PKGDIST_ERR_ENCODE
// the file stays requested and the callback comes.
inline Status get_file(const EventLoop& loop, const FileRequest& request, FileCallback callback,
                       uint32_t transaction = next_transaction()) {
  using Once = detail::Once<FileCallback>;
  if (!callback) return PKGDIST_ERR_INVALID;
  std::unique_ptr<Once> once(new Once{loop.core(), std::move(callback)});
  const Status status = instcomm_pkgdist_get_file(
      request.path.c_str(), request.type, request.location, request.priority, transaction,
      loop.handle(),
      [](uint64_t outcome, const char* path, uint32_t type, uint32_t location, uint32_t id,
         void* ctx) {
        Once::call(ctx, FileOutcome{outcome, path, type, location, id});
      },
      once.get());
  // Without memory nobody can tell whether the callback comes: what it needs stays.
  if (status != PKGDIST_ERR_INVALID && status != PKGDIST_ERR_SYSTEM) (void)once.release();
  return status;
}

// Withdraws a request; its callback gets PKGDIST_STATUS_CANCELLED. Others who want the same file,
// requests of this process or a push of the lead, still get it.
inline Status cancel(uint32_t transaction) {
  return instcomm_pkgdist_get_file_withdraw(transaction);
}

// Sends the lead a message of class 1 to 5; `callback` gets its final status, unless the message
// was refused.
inline Status send_message(const EventLoop& loop, std::span<const std::byte> bytes,
                           uint32_t message_class, StatusCallback callback) {
  using Once = detail::Once<StatusCallback>;
  if (!callback) return PKGDIST_ERR_INVALID;
  std::unique_ptr<Once> once(new Once{loop.core(), std::move(callback)});
  const Status status = instcomm_pkgdist_ctrl_send_lead_msg(
      bytes.data(), bytes.size(), message_class, loop.handle(),
      [](uint64_t outcome, void* ctx) { Once::call(ctx, Status(outcome)); }, once.get());
  if (status.ok()) (void)once.release();
  return status;
}

// The same for who does not ask what became of it.
inline Status send_message(std::span<const std::byte> bytes, uint32_t message_class) {
  return instcomm_pkgdist_ctrl_send_lead_msg(bytes.data(), bytes.size(), message_class, nullptr,
                                             nullptr, nullptr);
}

}  // namespace pkgdist
