// A lead on a thread of its own that serves whatever comes: it answers requests for files and
// repairs, acknowledges messages, repeats its own until they are acknowledged, and pings.
//
// What it says it also loses now and then, by count, so that every run exercises repair. Content is
// made from names, so the receiving end can tell whether a file is right.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "scripted_lead.h"

namespace support {

class ServingLead {
 public:
  explicit ServingLead(uint32_t address = kScriptedLead);
  ~ServingLead();
  ServingLead(const ServingLead&) = delete;
  ServingLead& operator=(const ServingLead&) = delete;

  static Bytes content_of(const std::string& name);
  // Requests for files whose name begins so are not answered.
  static constexpr const char* kNever = "never";

  // Before start(): to start the node with.
  ScriptedLead& socket() { return socket_; }
  void start();
  void stop();

  // --- From any thread; done by the lead's thread at its next turn. ---
  // Pings and sends its messages only while it leads. Each time it begins to lead it is a new
  // process, whose messages begin with new sequences. Returns when that is done: of two leads only
  // one speaks at a time, so that no message falls between their sequences.
  void lead(bool on);
  void message(uint32_t msg_class, const Bytes& bytes);
  void push(uint32_t xact_id, const std::vector<std::string>& names);
  void cancel_push(uint32_t xact_id);

  unsigned requests() const { return requests_; }          // for files, so far
  unsigned acknowledged() const { return acknowledged_; }  // messages of its own

  // After stop(): messages of the node by their sequence.
  const std::map<uint32_t, Bytes>& received() const { return received_; }

 private:
  struct Outgoing {
    uint32_t sequence;
    std::function<void(uint32_t sequence, bool again)> send;
    std::vector<std::string> files;  // sent once the message is acknowledged
  };
  using Order = std::function<void()>;

  void run();
  void order(Order order);
  void carry_out_orders();
  void enter(Outgoing outgoing);
  void send_list(uint32_t operation, uint32_t xact_id, const std::vector<std::string>& names);
  void begin_process();
  void remind();
  void on_control(const ControlArrival& arrival);
  void on_acknowledged(const std::function<bool(uint32_t sequence)>& is_meant);
  void on_data(const DataArrival& arrival);
  void send_file(const std::string& name);
  void send_segments(const std::string& name, uint32_t first, uint32_t count);
  bool lost();

  ScriptedLead socket_;
  const uint32_t first_id_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> requests_{0};
  std::atomic<unsigned> acknowledged_{0};
  std::mutex guard_;
  std::vector<Order> orders_;

  // Of the lead's thread.
  bool leads_ = false;
  uint32_t sequence_ = 0;
  uint32_t said_ = 0;
  std::vector<Outgoing> outgoing_;
  std::map<std::string, uint32_t> ids_;
  std::map<uint32_t, std::string> names_;
  std::map<uint32_t, Bytes> received_;
};

}  // namespace support
