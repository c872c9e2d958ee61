// A lead that does what a test says: real sockets on loopback, one message at a time.
//
// The library under test runs in the same process with its real threads as the node 127.0.0.2; this
// lead is 127.0.0.1. Ports are derived from the process id, so that tests run side by side. Waits
// are bounded and end the test when nothing comes.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pkgdist/pkgdist_recv.h"
#include "pkgdist_codec.h"

namespace support {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t kScriptedLead = 0x7F000001;
inline constexpr uint32_t kNodeUnderTest = 0x7F000002;
inline constexpr std::chrono::seconds kPatience{10};

struct ControlArrival {
  pkgdist_ctrl_msg_hdr header{};
  Bytes body;
};
struct DataArrival {
  pkgdist_data_msg_hdr header{};
  Bytes body;
};

class ScriptedLead {
 public:
  // Several leads of one test differ in their address.
  explicit ScriptedLead(uint32_t address = kScriptedLead);
  ~ScriptedLead();
  ScriptedLead(const ScriptedLead&) = delete;
  ScriptedLead& operator=(const ScriptedLead&) = delete;

  // Starts the library as a node of this lead, with location 1 in `directory`.
  void start_node(const std::string& directory);

  // --- Control channel ---
  uint32_t pid = 100;
  void ping(uint32_t sequence);
  // Sends segment `segment` of a message, on the multicast or the unicast stream.
  void message(uint32_t sequence, uint32_t msg_class, const Bytes& whole, uint32_t segment_size,
               uint32_t segment, bool unicast = false, bool retransmission = false);
  void acknowledge(uint32_t sequence);
  void ask_again(uint32_t sequence);
  // A file list as message `sequence`.
  void file_list(uint32_t sequence, uint32_t xact_id, std::vector<std::string> names,
                 uint32_t location = 1, uint32_t operation = PKGDIST_FILE_SEND_LIST,
                 bool retransmission = false);
  // The next control datagram of this kind; others are dropped.
  ControlArrival expect_control(uint32_t msg_id);

  // --- Data channel ---
  void file_info(uint32_t file_id, const std::string& name, uint32_t size, uint32_t segment_size,
                 uint32_t mtime = 1'000'000'000, bool symlink = false, uint64_t status = 0,
                 uint32_t location = 1);
  void segment(uint32_t file_id, uint32_t number, const Bytes& data, bool repair = false);
  void miss_done(uint32_t file_id, const std::string& name);
  DataArrival expect_data(uint32_t msg_id);
  // The status of the next request done.
  uint64_t expect_done(uint32_t file_id);

  // For a lead that serves whatever comes: waits until a datagram is there, then takes the next one
  // of a channel; nothing when none is waiting.
  void wait(std::chrono::milliseconds longest) const;
  std::optional<ControlArrival> take_control() const;
  std::optional<DataArrival> take_data() const;

  // Bytes as they are, to one of the node's sockets.
  void raw_control(const Bytes& datagram, bool unicast);
  void raw_data(const Bytes& datagram);

 private:
  uint32_t address_;
  int control_;  // bound to the lead's control port
  int data_;     // bound to the request port
  uint16_t base_port_;
};

// An event loop that a test turns by hand.
class Loop {
 public:
  Loop() : loop_(levm_create()) {}
  ~Loop() { levm_destroy(loop_); }
  levm_handle_t get() const { return loop_; }
  // Runs callbacks until `done`; false when patience is over.
  [[nodiscard]] bool run_until(const std::function<bool()>& done) const;

 private:
  levm_handle_t loop_;
};

// A directory that goes with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  const std::string& path() const { return path_; }  // ends with '/'
 private:
  std::string path_;
};

}  // namespace support
