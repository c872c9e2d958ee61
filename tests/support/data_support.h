// What tests of the data side add to recv_support: datagrams of the lead, what the node answered,
// and a client with an event loop that writes down its callbacks.
#pragma once

#include <functional>
#include <map>

#include "recv_support.h"

namespace support {

// --- Messages of the lead, with the values that most tests do not care about. ---
struct Info {
  uint32_t id = 7;
  std::string name = "file";
  uint32_t size = 10;
  uint32_t segment_size = 4;
  uint64_t status = 0;
  uint32_t mode = 0644;
  uint32_t mtime = 0;
  std::vector<uint32_t> nodes{};
  bool symlink = false;
  uint32_t location = 1;
};
struct FileSend {
  uint32_t operation;
  std::vector<std::string> names;
  uint32_t xact_id = 5;
  uint32_t type = 1;
  uint32_t location = 1;
  uint32_t priority = 1;
};
Bytes encoded_info(const Info& info);
Bytes encoded_segment(uint32_t file_id, uint32_t segment, const Bytes& data, bool repair = false);
Bytes encoded_miss_done(uint32_t file_id, const std::string& name,
                        const std::vector<uint32_t>& nodes = {}, uint32_t location = 1);
Bytes encoded_file_send(const FileSend& message);
Bytes data_datagram(uint32_t msg_id, const Bytes& body, uint32_t node = kLeadAddress);

// --- What the node sent since the last call, by kind. ---
struct FileRequest {
  uint32_t type, location, priority;
  std::string name;
  bool operator==(const FileRequest&) const = default;
};
struct Single {
  uint32_t file_id, segment, num;
  bool operator==(const Single&) const = default;
};
struct Report {
  uint32_t file_id;
  uint64_t status;
  std::string name;
  uint32_t location;
  bool operator==(const Report&) const = default;
};
struct Traffic {
  std::vector<FileRequest> requests;
  std::vector<Single> singles;
  std::vector<Report> reports;
};
Traffic take_traffic();

// --- A client: its event loop and what its callbacks were told, in order. ---
struct FileEvent {
  uint64_t status;
  std::string path;
  uint32_t type, location, xact_id;
  bool operator==(const FileEvent&) const = default;
};
struct StartEvent {
  uint64_t status;
  std::vector<std::string> paths;
  uint32_t type, location, xact_id;
  bool operator==(const StartEvent&) const = default;
};
struct DoneEvent {
  uint64_t status;
  uint32_t xact_id;
  bool operator==(const DoneEvent&) const = default;
};
class Client {
 public:
  Client();
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  levm_handle_t loop() const { return loop_; }
  void attach_all();  // the three handlers of the lead's transactions
  void deliver();     // runs the loop until nothing is waiting

  std::vector<FileEvent> files;
  std::vector<StartEvent> starts;
  std::vector<DoneEvent> dones;
  std::function<void(const FileEvent&)> on_file;  // called after the event is written down

  static void file_cb(uint64_t status, const char* path, uint32_t type, uint32_t location,
                      uint32_t xact_id, void* ctx);
  static void start_cb(uint64_t status, const char* const* paths, uint32_t count, uint32_t type,
                       uint32_t location, uint32_t xact_id, void* ctx);
  static void done_cb(uint64_t status, uint32_t xact_id, void* ctx);

 private:
  levm_handle_t loop_;
};

// Drops channels that are held once more than there are contexts, as attaching again leaves them.
void drop_data_channels();

// A data side at rest with one client, nothing attached yet.
class DataTest : public virtual RecvTest {
 protected:
  void TearDown() override;

  // Enters a file as the lead's list does (kind 2), or for another receive identifier.
  PkgdistStatus want(const std::string& name, uint32_t xact_id = 5, uint32_t type = 1,
                     uint32_t location = 1, uint32_t kind = 2, uint32_t priority = 1);
  PkgdistStatus want_also(const std::string& name, uint32_t xact_id, uint32_t type = 1,
                          uint32_t kind = 2, uint32_t priority = 1);
  pkgdist_file_recv_entry* find(const std::string& name = "file", uint32_t location = 1);

  // The lead's datagrams, through the dispatcher. Segments carry the bytes of content().
  void announce(const Info& info, uint32_t node = kLeadAddress);
  void give(uint32_t segment, bool repair = false, uint32_t id = 7);
  void give_all(uint32_t id = 7);
  void file_send(const FileSend& message);
  // Wanted and announced: `segments` segments of 4 bytes.
  pkgdist_file_recv_entry* begin(uint32_t segments, const std::string& name = "file",
                                 uint32_t location = 1);

  static Bytes content(uint32_t size);
  std::string path(const std::string& name) const { return directory() + name; }
  std::string memory_path(const std::string& name) const {
    return "/dev/shm" + memory_prefix() + name;
  }
  static bool exists(const std::string& path);
  static Bytes bytes_of(const std::string& path);
  static bool is_mapped(const std::string& path);  // into this process, also once it is deleted
  void put_file(const std::string& name, const std::string& text, uint32_t mtime = 0);

  Client client;

 private:
  std::map<uint32_t, Info> announced_;
};

}  // namespace support
