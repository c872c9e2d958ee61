// What unit tests of the receive library stand on: a clock that they own, a wire that they can
// read, a log that they can search, counters that they can look at, and calls that fail on demand.
//
// The library's objects are linked straight into the test program. The clock and the
// trace are replaced by symbol interposition, system calls by the linker's --wrap (faults.h).
// Everything here is reset by the fixture before each test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "faults.h"
#include "pkgdist_codec.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_ctrl_recv_lead_msg.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_stats.h"

namespace support {

using Bytes = std::vector<uint8_t>;

// --- Time: fts_get_stamp_fast() returns this clock. ---
inline constexpr uint64_t kMillisecond = 1'000'000;
inline constexpr uint64_t kSecond = 1'000'000'000;
namespace clock {
uint64_t now();
void set(uint64_t nanoseconds);
void advance(uint64_t nanoseconds);
void follow_real_time();  // for real threads: from here on the process's monotonic clock
}  // namespace clock

// --- The codec. ---
// As long as there is one, decoding leaves values in optional fields that did not travel, as a
// codec may that does not clear them.
class CodecResidue {
 public:
  CodecResidue();
  ~CodecResidue();
  CodecResidue(const CodecResidue&) = delete;
  CodecResidue& operator=(const CodecResidue&) = delete;
};

// --- The platform's registries: what the library asked them for. ---
// Both are replaced: value blocks are the ones that value() and samples() read, trace handles are
// 1, 2 ... in the order of their opening. Identities made by nodeid_create() live until the next
// reset.
struct Registration {
  std::string application;
  std::string table;
  std::string process;
  uint32_t kind;
  uint32_t parameter;
  std::vector<std::string> labels;
  std::vector<uint64_t> words;
};
struct TraceOpen {
  std::string name;
  uint32_t records;
  uint32_t points;
  std::string path;
  std::string catalogue_id;
  int reserved;
};
struct TraceEnable {
  uint64_t handle;
  uint64_t configuration;
};
namespace registry {
std::vector<Registration>& registrations();
std::vector<TraceOpen>& opened_traces();
std::vector<TraceEnable>& enabled_traces();
}  // namespace registry

// --- The wire: what the library sent to the lead. ---
struct Sent {
  int socket;
  uint32_t address;  // host byte order
  uint16_t port;
  Bytes bytes;
};
namespace wire {
std::vector<Sent>& sent();
std::vector<Sent> take();  // returns and clears
// sendto() reports success without a socket while true (the default of the fixture).
void capture(bool on);
}  // namespace wire

// Decoded views of captured datagrams; each fails the test when it does not decode.
pkgdist_ctrl_msg_hdr ctrl_header(const Bytes& datagram);
pkgdist_data_msg_hdr data_header(const Bytes& datagram);
template <class Body>
struct Decoded {
  Body body{};
  explicit Decoded(const Bytes& datagram) {
    const faults::Paused paused;
    const uint32_t at = 4 + pkgdist::header_length(datagram.data());
    EXPECT_EQ(pkgdist::decode(datagram.data() + at, datagram.size() - at, body), 0);
  }
  ~Decoded() { pkgdist::release(body); }
  Decoded(const Decoded&) = delete;
  Decoded& operator=(const Decoded&) = delete;
  const Body* operator->() const { return &body; }
};

// Datagrams for the library, framed.
template <class Message>
Bytes encoded(const Message& message) {
  const faults::Paused paused;
  const ssize_t size = pkgdist::encode(message, nullptr, 0);
  EXPECT_GE(size, 0);
  Bytes bytes(static_cast<size_t>(size));
  EXPECT_EQ(pkgdist::encode(message, bytes.data(), bytes.size()), size);
  return bytes;
}
Bytes framed(const Bytes& header, const Bytes& body = {});

// --- The log: every record as text, as it would be printed. ---
struct Record {
  bool error;  // error trace or library trace
  uint32_t point;
  std::string text;
  std::string signature;
  uint64_t handle;  // of the trace it went to
};
namespace logs {
std::vector<Record>& records();
bool contains(const std::string& text);   // a whole text, with its newline
unsigned count(const std::string& part);  // records that contain `part`
void keep(bool on);                       // false: texts are made and forgotten
}  // namespace logs

// --- Counters ---
uint32_t value(CrtCounter counter);
uint32_t value(CrsCounter counter);
uint32_t value(DrtCounter counter);
uint32_t value(DrsCounter counter);
// All samples of a histogram.
uint32_t samples(CrtHistogram histogram);
uint32_t samples(CrsHistogram histogram);
uint32_t samples(DrtHistogram histogram);
uint32_t samples(DrsHistogram histogram);

// Addresses used throughout.
inline constexpr uint32_t kMyAddress = 0x7F000002;
inline constexpr uint32_t kLeadAddress = 0x7F000001;
inline constexpr uint32_t kOtherAddress = 0x7F000009;

// A library at rest: value blocks registered, databases empty, a known lead (kLeadAddress, pid
// 100), this node kMyAddress, clock some time after one hour, the wire captured, the data threads
// marked as running so that adding a file starts none. Location 1 is a fresh directory, location 2
// a memory prefix.
class RecvTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  const std::string& directory() const { return directory_; }  // ends with '/'
  const std::string& memory_prefix() const { return memory_prefix_; }

 private:
  std::string directory_;
  std::string memory_prefix_;
};

// Empties every database and resets every global to its initial value.
void reset_library();

// The mutexes of the library, and the installer's that it takes.
std::vector<pthread_mutex_t*> library_mutexes();

// Whether no mutex of the library is held. The fixture demands it at the end of each test. Takes
// back every fault.
bool all_locks_are_free();

}  // namespace support
