// A node's program: the caller of the library, on a thread of its own with an event loop.
#include "node_process.h"

#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist/statistics.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_ctrl_recv_lead_msg.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "process_system.h"

namespace pkgdist::sim {

namespace {

constexpr uint32_t kFirstMessageClass = 2;
constexpr uint32_t kLastMessageClass = 5;
constexpr size_t kCounterStride = 20;  // bytes, in a value block

class Process final : public NodeProcess {
 public:
  uint64_t start(const ProcessSettings& settings, ProcessObserver& observer) override;
  void deliver(uint32_t address, uint16_t port, std::span<const uint8_t> bytes) override;
  void run(uint64_t now) override;
  uint64_t next_wake() const override { return process_system->threads.next_wake(); }
  uint64_t get_file(const char* path, uint32_t type, uint32_t location, uint32_t priority,
                    uint32_t request, uint32_t& xact) override;
  uint64_t cancel(uint32_t xact) override;
  uint64_t send(std::span<const uint8_t> bytes, uint32_t msg_class, uint32_t message) override;
  void run_callbacks() override;
  uint32_t counter(Table table, uint32_t index) const override;
  Holdings holdings() const override;
  void kill() override;

 private:
  using Call = std::function<uint64_t()>;

  void serve();
  uint64_t start_up();
  uint64_t attach_all();
  uint64_t call(Call call);

  levm_handle_t loop_ = nullptr;
  nodeid node_id_{};
  Call pending_;
  uint64_t result_ = 0;
  std::string directory_, memory_prefix_;
  bool stopping_ = false;
};

ProcessObserver& observer() {
  return process_system->observer;
}

// What a callback was registered for travels in its context.
void* context_of(uint32_t number) {
  return reinterpret_cast<void*>(uintptr_t{number});
}
uint32_t number_of_context(void* ctx) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(ctx));
}

void on_file(uint64_t status, const char* path, uint32_t type, uint32_t location, uint32_t xact,
             void* ctx) {
  observer().file_ended(status, path, type, location, xact, number_of_context(ctx));
}
void on_push_started(uint64_t, const char* const* paths, uint32_t count, uint32_t,
                     uint32_t location, uint32_t xact, void*) {
  observer().push_started({paths, count}, location, xact);
}
void on_push_ended(uint64_t status, uint32_t xact, void*) {
  observer().push_ended(status, xact);
}
void on_message(const void* bytes, uint64_t size, void* ctx) {
  observer().message_received(number_of_context(ctx), {static_cast<const uint8_t*>(bytes), size});
}
void on_message_ended(uint64_t status, void* ctx) {
  observer().message_ended(status, number_of_context(ctx));
}
void on_lead_changed(uint32_t lead, uint32_t pid, bool failover, void*) {
  observer().lead_changed(lead, pid, failover);
}

template <class Database>
uint32_t count_of(const Database& database) {
  return database.count;
}

}  // namespace

uint64_t Process::start(const ProcessSettings& settings, ProcessObserver& observer) {
  directory_ = settings.directory;
  memory_prefix_ = settings.memory_prefix;
  process_system = new System(settings, observer);
  process_system->threads.start([this] { serve(); });
  process_system->threads.run(settings.now);
  return call([this] { return start_up(); });
}

uint64_t Process::start_up() {
  if (process_system->settings.forgets_at_once) G_data_rto.stat_age = 0;
  const ProcessSettings& settings = process_system->settings;
  loop_ = levm_create();
  node_id_ = {settings.node_id[0], settings.node_id[1], settings.node_id[2]};
  uint64_t status = instcomm_pkgdist_ctrl_recv_init(kCtrlGroup, kCtrlPort, kLeadPort, kNodePort,
                                                    settings.card_class, settings.address, 0);
  if (status == 0) status = instcomm_pkgdist_ctrl_recv_set_nodeid(&node_id_);
  if (status == 0) status = attach_all();
  if (status == 0) status = instcomm_pkgdist_data_recv_init(kDataGroup, kDataPort, kRequestPort);
  if (status == 0)
    status = instcomm_pkgdist_set_recv_repository(directory_.c_str(), kDiskLocation, false);
  if (status == 0)
    status = instcomm_pkgdist_set_recv_repository(memory_prefix_.c_str(), kMemoryLocation, true);
  return status;
}

uint64_t Process::attach_all() {
  uint64_t status = instcomm_pkgdist_ctrl_register_lead_change(loop_, on_lead_changed, nullptr);
  for (uint32_t msg_class = kFirstMessageClass; msg_class <= kLastMessageClass; ++msg_class)
    if (status == 0)
      status =
          instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_, msg_class, on_message, context_of(msg_class));
  if (status == 0) status = instcomm_pkgdist_data_file_hdlr_attach(loop_, on_file, nullptr);
  if (status == 0)
    status = instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop_, on_push_started, nullptr);
  if (status == 0)
    status = instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop_, on_push_ended, nullptr);
  return status;
}

// The caller's thread: makes the calls that it is asked for and runs its event loop.
void Process::serve() {
  System& system = *process_system;
  for (;;) {
    if (pending_) {
      result_ = pending_();
      pending_ = nullptr;
    }
    if (system.callbacks_due <= system.threads.now()) {
      system.callbacks_due = kNever;
      while (levm_run_once(loop_, 0) > 0) continue;
    }
    if (!pending_) system.threads.wait(&system.callbacks_due, system.callbacks_due);
  }
}

uint64_t Process::call(Call call) {
  pending_ = std::move(call);
  process_system->threads.wake(&process_system->callbacks_due);
  if (!process_system->threads.run_awake(process_system->threads.now()))
    observer().stuck("threads wait for each other's mutexes");
  return result_;
}

void Process::run(uint64_t now) {
  if (!process_system->threads.run(now)) observer().stuck("threads wait for each other's mutexes");
  const bool stopping = G_data_rx_exit_thread || G_data_recv_file_exit_thread;
  if (stopping && !std::exchange(stopping_, stopping)) observer().stopping();
  stopping_ = stopping;
}

void Process::deliver(uint32_t address, uint16_t port, std::span<const uint8_t> bytes) {
  process_system->sockets.deliver(address, port, bytes,
                                  [](int socket) { process_system->threads.wake_socket(socket); });
}

uint64_t Process::get_file(const char* path, uint32_t type, uint32_t location, uint32_t priority,
                           uint32_t request, uint32_t& xact) {
  return call([=, this, &xact] {
    xact = instcomm_pkgdist_get_receive_xact_id();
    return instcomm_pkgdist_get_file(path, type, location, priority, xact, loop_, on_file,
                                     context_of(request));
  });
}

uint64_t Process::cancel(uint32_t xact) {
  return call([=] { return instcomm_pkgdist_get_file_cancel(xact); });
}

uint64_t Process::send(std::span<const uint8_t> bytes, uint32_t msg_class, uint32_t message) {
  return call([=, this] {
    return instcomm_pkgdist_ctrl_send_lead_msg(bytes.data(), bytes.size(), msg_class, loop_,
                                               on_message_ended, context_of(message));
  });
}

void Process::run_callbacks() {
  (void)call([] {
    process_system->callbacks_due = process_system->threads.now();
    return uint64_t{0};
  });
}

uint32_t Process::counter(Table table, uint32_t index) const {
  const void* const blocks[] = {pkgdist_crt_ship_counter_hdl, pkgdist_crs_ship_counter_hdl,
                                pkgdist_drt_ship_counter_hdl, pkgdist_drs_ship_counter_hdl};
  const void* block = blocks[static_cast<size_t>(table)];
  uint32_t value = 0;
  std::memcpy(&value, static_cast<const uint8_t*>(block) + kCounterStride * index, sizeof value);
  return value;
}

Holdings Process::holdings() const {
  const System& system = *process_system;
  Holdings holdings;
  holdings.files_received = count_of(G_file_recv_db);
  holdings.files_remembered = count_of(G_file_stat_db);
  holdings.messages_received = count_of(G_ctrl_recv_rx_msg_db);
  holdings.messages_sent = count_of(G_ctrl_recv_msg_db);
  holdings.ctrl_clients = count_of(G_ctrl_recv_ctx_db);
  holdings.data_clients = count_of(G_data_recv_ctx_db);
  holdings.ctrl_channels = count_of(G_ctrl_recv_qitc_db);
  holdings.data_channels = count_of(G_data_recv_qitc_db);
  holdings.threads = system.threads.count() - 1;
  holdings.descriptors = system.descriptors.size();
  holdings.mappings = system.mappings.size();
  holdings.blocks = system.blocks.size();
  holdings.identities = system.identities;
  holdings.lead = G_lead_uc_addr;
  return holdings;
}

void Process::kill() {
  System* system = process_system;
  process_system = nullptr;
  delete system;
  delete this;
}

}  // namespace pkgdist::sim

extern "C" pkgdist::sim::NodeProcess* pkgdist_make_node_process();
extern "C" pkgdist::sim::NodeProcess* pkgdist_make_node_process() {
  return new pkgdist::sim::Process;
}
