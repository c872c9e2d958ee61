// A receive library that lives through one input: datagrams of leads, time, calls of its owner,
// failing system calls. Threads are not started: their work is done in place, on a clock that this
// class owns. Storage is a directory in memory.
//
// What must hold after every step and at the end is checked here; see finish().
#pragma once

#include <map>
#include <set>
#include <string>

#include "data_support.h"
#include "mutator.h"
#include "steps.h"

namespace fuzz {

// What a step of a node's input does, and its payload.
enum class Do : uint8_t {
  kControl,         // length of the header (1), header, body: a control datagram from the group
  kControlUnicast,  // the same, to the node's own port
  kControlRaw,      // the bytes of a datagram; the first byte says from where
  kData,            // as kControl, on the data channel
  kDataRaw,         // the bytes of a data datagram
  kFileList,        // the body of a control message of class 1, as delivered
  kBurst,           // times (1), data channel or not (1), then as kControl: numbers count up
  kTime,            // milliseconds (2), then both time-out passes
  kDeliver,         // the owner's event loop runs
  kAttach,          // which handler (3 bits), whether to detach (bit 3), also again (bit 4)
  kGetFile,         // type, location, priority (1 each), transaction (2), callback (1), name
  kCancel,          // transaction (2)
  kSendMessage,     // class (1), size (2), callback (1)
  kPutFile,         // index of a name (1), size (1), modification time (4): it is there already
  kFault,           // call, its number, error number (1 each): fails in the next step
  kNodeClass,       // card class (1)
};

// What the kinds of steps mean in the inputs of the two sides: by their number, counted round.
inline constexpr Do kControlActions[] = {
    Do::kControl, Do::kControlUnicast, Do::kControlRaw, Do::kBurst,  Do::kTime,      Do::kDeliver,
    Do::kAttach,  Do::kSendMessage,    Do::kGetFile,    Do::kCancel, Do::kNodeClass, Do::kFault};
inline constexpr Do kDataActions[] = {Do::kData,   Do::kFileList, Do::kBurst,  Do::kDataRaw,
                                      Do::kTime,   Do::kDeliver,  Do::kAttach, Do::kGetFile,
                                      Do::kCancel, Do::kPutFile,  Do::kFault,  Do::kControl};

// First byte of a node's input.
enum Options : uint8_t {
  kNoLeadYet = 1,
  kSameProcessContinues = 2,  // the lead that comes at the end is the one that was followed last
  kSameLeadRestarts = 4,      // the same, as a new process
};
// Instead of them: enough memory to reach the limits of databases, which takes its time.
inline constexpr uint8_t kMuchMemory = 0xA7;

class LiveNode {
 public:
  static constexpr uint32_t kAddress = 0x0A000002;  // 10.0.0.2
  static constexpr uint32_t kLead = 0x0A000001;
  static constexpr uint32_t kLeadPid = 4711;

  // A process has one library.
  static LiveNode& the();

  void begin(uint8_t options);
  void step(Do what, View payload);
  void finish();

  // What the last step made it send.
  const std::vector<support::Sent>& answers() const { return answers_; }

 private:
  LiveNode();

  // Steps
  void control(View framed, bool unicast);
  void data(support::Bytes datagram);
  void burst(Input in);
  void attach(uint8_t what);
  void get_file(Input in);
  void cancel(uint32_t xact);
  void send_message(Input in);
  void put_file(Input in);
  void arm_fault(Input in);
  void pass_time(uint64_t nanoseconds);
  void deliver();

  // Properties
  void check_sent();
  void check_databases() const;
  void check_path(support::Call call, const char* path);
  void check_contents() const;
  bool calls_were_refused() const;

  // The end
  void wait_for_the_end_of_everything();
  void expect_good_message_and_file();
  void detach_everything();
  void clean_storage();

  static void on_message(const void* bytes, uint64_t size, void* node);
  static void on_status(uint64_t status, void* node);
  static void on_lead_change(uint32_t lead, uint32_t pid, bool failover, void* node);
  static void on_file(uint64_t status, const char* path, uint32_t type, uint32_t location,
                      uint32_t xact, void* node);
  static void on_requested_file(uint64_t status, const char* path, uint32_t type, uint32_t location,
                                uint32_t xact, void* node);
  static void on_start(uint64_t status, const char* const* paths, uint32_t count, uint32_t type,
                       uint32_t location, uint32_t xact, void* node);
  static void on_done(uint64_t status, uint32_t xact, void* node);

  std::string directory_;      // ends with '/'
  std::string memory_prefix_;  // of object names

  // Of the present input.
  uint8_t options_ = 0;
  levm_handle_t loop_ = nullptr;
  size_t open_descriptors_ = 0;  // before it
  uint32_t lead_before_ = 0;     // of the step
  bool fault_armed_ = false;
  bool faulty_ = false;  // a fault was armed
  bool reattached_ = false;
  bool linked_ = false;  // a symbolic link was made
  bool storage_used_ = false;
  std::set<uint8_t> attached_;
  std::set<std::string> objects_;         // shared-memory objects that were opened
  std::map<std::string, Bytes> present_;  // files that the owner put
  std::vector<support::Bytes> data_datagrams_;
  size_t expected_outcomes_ = 0, outcomes_ = 0;  // of requested files
  size_t expected_statuses_ = 0, statuses_ = 0;  // of messages to the lead
  Bytes last_message_;
  std::vector<support::Sent> answers_;
};

// What a step's payload consists of, and what lies before the datagram in it.
Layout layout_of(Do what);
size_t datagram_offset(Do what);

// Makes failures of GoogleTest's expectations, which the test support uses, end the process.
void abort_on_failed_expectations();

// Runs a whole input of which step kinds mean `actions`.
void run_node_input(View input, std::span<const Do> actions);

}  // namespace fuzz
