// Statistics read from outside: what the platform wrote comes back, what is broken is refused.
#include "stat_object.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "platform/fts.h"
#include "platform/ship.h"
#include "platform/ship_layout.h"
#include "trace_files.h"
#include "udp_sockets.h"

using namespace pkgdist;
using namespace pkgdist::stat;

namespace {

ship_entry entry(const char* label, uint64_t word = 0) {
  ship_entry made{};
  std::snprintf(made.name, sizeof made.name, "%-15s", label);
  made.word = word;
  return made;
}

// One table of each kind, made once in this process.
struct Tables {
  void* counters = nullptr;
  void* server = nullptr;
  void* histograms = nullptr;
  void* watermarks = nullptr;

  Tables() {
    const uint32_t parameter = 2;
    std::array<ship_entry, 2> two = {entry("FIRST ONE"), entry("SECOND")};
    ship_entry high = entry("QUEUE", 1);
    EXPECT_EQ(0, ship_register("APP", "Counters", "unit", SHIP_KIND_TRANSPORT_COUNTERS, &parameter,
                               two.data(), 2, &counters));
    EXPECT_EQ(0, ship_register("APP", "Server", "unit", SHIP_KIND_SERVER_COUNTERS, &parameter,
                               two.data(), 2, &server));
    EXPECT_EQ(0, ship_register("APP", "Histograms", "unit", SHIP_KIND_HISTOGRAMS, &parameter,
                               two.data(), 2, &histograms));
    EXPECT_EQ(0, ship_register("APP", "Watermarks", "unit", SHIP_KIND_WATERMARKS, &parameter, &high,
                               1, &watermarks));
    set(counters, 20, 7);
    set(server, 0, 8);
    for (uint32_t i = 0; i < kBuckets; ++i) set(histograms, 32 + 4 * i, i + 1);
    set(watermarks, 0, 3);
    set(watermarks, 4, 44);
    const uint64_t stamp = fts_get_stamp_fast();
    std::memcpy(static_cast<char*>(watermarks) + 16, &stamp, sizeof stamp);
  }

  static void set(void* block, uint32_t offset, uint32_t value) {
    std::memcpy(static_cast<char*>(block) + offset, &value, sizeof value);
  }
};

class StatObject : public testing::Test {
 protected:
  StatObject() { static const Tables tables; }

  static tools::FoundObject own() {
    return {getpid(), "/dev/shm" SHIP_LAYOUT_OBJECT_PREFIX + std::to_string(getpid())};
  }

  // The reason for which an object of these bytes is refused; empty when it is not.
  std::string refusal(const std::string& bytes) const {
    write_bytes(directory_ / "object", bytes);
    return refusal_of_file();
  }

  std::string refusal_of_file() const {
    try {
      const tools::ObjectFile file(directory_ / "object");
      (void)read_statistics(file, 0);
      return "";
    } catch (const tools::BadObject& bad) {
      return bad.what();
    }
  }

  template <class Value>
  static std::string with(std::string bytes, size_t offset, Value value) {
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    return bytes;
  }

  TempDir directory_;
};

TEST_F(StatObject, gives_what_the_process_has_counted) {
  const Statistics statistics = read_statistics_of(own());
  EXPECT_EQ(getpid(), statistics.pid);
  EXPECT_EQ("unit", statistics.process);
  EXPECT_TRUE(statistics.running);
  ASSERT_EQ(4u, statistics.tables.size());
  const Table &counters = statistics.tables[0], &server = statistics.tables[1];
  const Table &histograms = statistics.tables[2], &watermarks = statistics.tables[3];
  EXPECT_EQ("APP", counters.application);
  EXPECT_EQ("Counters", counters.name);
  EXPECT_EQ("FIRST ONE", counters.entries.at(0).label) << "without the blanks behind it";
  EXPECT_EQ(0u, counters.entries[0].count);
  EXPECT_TRUE(counters.entries[0].unused());
  EXPECT_EQ(7u, counters.entries.at(1).count);
  EXPECT_EQ(8u, server.entries.at(0).count);
  EXPECT_EQ((std::array<uint32_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}), histograms.entries.at(1).buckets);
  EXPECT_EQ(36u, histograms.entries[1].total());
  EXPECT_FALSE(histograms.entries[1].unused());
  EXPECT_EQ(3u, watermarks.entries.at(0).current);
  EXPECT_EQ(44u, watermarks.entries[0].mark);
  constexpr uint64_t kMinuteNs = 60'000'000'000;
  EXPECT_GE(watermarks.entries[0].mark_realtime_ns, statistics.created_ns - kMinuteNs);
  EXPECT_LE(watermarks.entries[0].mark_realtime_ns, statistics.created_ns + kMinuteNs);
}

TEST_F(StatObject, an_object_that_names_another_process_is_refused) {
  const std::string path = directory_ / "pkgdist-stat.1";
  write_bytes(path, bytes_of(own().path));
  EXPECT_THROW(read_statistics_of({1, path}), tools::BadObject);
}

TEST_F(StatObject, a_truncated_object_is_refused_at_every_length) {
  const std::string whole = bytes_of(own().path);
  EXPECT_EQ("", refusal(whole));
  for (size_t length = 0; length < whole.size(); length += length < 128 ? 1 : 4001)
    EXPECT_NE(std::string::npos, refusal(whole.substr(0, length)).find("truncated")) << length;
}

TEST_F(StatObject, foreign_files_are_refused_with_a_reason) {
  const std::string whole = bytes_of(own().path);
  const auto says = [&](const std::string& bytes, const char* words) {
    EXPECT_NE(std::string::npos, refusal(bytes).find(words)) << refusal(bytes);
  };
  says(std::string(300'000, '\0'), "not ready");
  says(std::string(300'000, 'x'), "not a statistics object");
  says(with(whole, offsetof(ship_layout_header, version), 9), "version 9");
  says(with(whole, offsetof(ship_layout_header, table_count), 0xFFFFFFFF), "directory");
  says(with(whole, offsetof(ship_layout_header, table_stride), 8), "directory");
  says(with(whole, offsetof(ship_layout_header, table_offset), UINT64_MAX - 3), "corrupt");
  const size_t table = sizeof(ship_layout_header);
  says(with(whole, table + offsetof(ship_layout_table, kind), 77), "no known kind");
  says(with(whole, table + offsetof(ship_layout_table, value_stride), 4), "no known kind");
  says(with(whole, table + offsetof(ship_layout_table, count), 0xFFFFFFFF), "too many entries");
  says(with(whole, table + offsetof(ship_layout_table, entries_offset), UINT64_MAX - 40),
       "corrupt");
  says(with(whole, table + offsetof(ship_layout_table, values_offset), whole.size() - 3),
       "corrupt");
}

TEST_F(StatObject, no_changed_byte_brings_the_reader_down) {
  const std::string whole = bytes_of(own().path);
  write_bytes(directory_ / "object", whole);
  const int fd = open((directory_ / "object").c_str(), O_RDWR | O_CLOEXEC);
  size_t refused = 0, taken = 0;
  const size_t described = sizeof(ship_layout_header) + 4 * sizeof(ship_layout_table);
  for (size_t at = 0; at < described; ++at) {
    for (const int value : {0x00, 0xFF}) {
      const ChangedByte changed(fd, at, value);
      ++(refusal_of_file().empty() ? taken : refused);
    }
  }
  close(fd);
  EXPECT_GT(refused, 100u);
  EXPECT_GT(taken, 100u) << "names may be anything";
}

TEST(UdpSockets, a_table_of_the_kernel_is_read) {
  const std::string table =
      "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
      "inode ref pointer drops\n"
      " 2406: 014747EF:1BBC 00000000:0000 07 00000000:00000A00 00:00000000 00000000     0        0 "
      "5001 2 0000000000000000 17\n"
      " 2407: 0100007F:1BBD 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 "
      "5002 2 0000000000000000 18\n"
      "broken line\n";
  const auto sockets = parse_udp_table(table, {5001, 6000});
  ASSERT_EQ(1u, sockets.size());
  EXPECT_EQ("239.71.71.1:7100", sockets[0].local);
  EXPECT_EQ(2560u, sockets[0].queued_bytes);
  EXPECT_EQ(17u, sockets[0].drops);
  EXPECT_EQ(5001u, sockets[0].inode);
}

TEST(UdpSockets, tell_what_the_kernel_dropped) {
  const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(0, bind(receiver, reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, getsockname(receiver, reinterpret_cast<sockaddr*>(&address), &size));
  const int smallest = 1;
  setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
  constexpr uint64_t kSent = 50;
  char datagram[1000] = {};
  for (uint64_t i = 0; i < kSent; ++i)
    ASSERT_EQ(1000, sendto(sender, datagram, sizeof datagram, 0,
                           reinterpret_cast<sockaddr*>(&address), size));
  const auto own = [&] {
    const auto all = udp_sockets(getpid());
    for (const UdpSocket& socket : all.value())
      if (socket.local == "127.0.0.1:" + std::to_string(ntohs(address.sin_port))) return socket;
    ADD_FAILURE() << "the socket is not there";
    return UdpSocket{};
  };
  EXPECT_GT(own().queued_bytes, 0u);
  uint64_t received = 0;
  while (recv(receiver, datagram, sizeof datagram, 0) > 0) ++received;
  EXPECT_EQ(kSent - received, own().drops);
  EXPECT_GT(own().drops, 0u);
  close(receiver);
  close(sender);
}

TEST(UdpSockets, a_process_that_is_gone_has_none) {
  EXPECT_FALSE(udp_sockets(0x7FFFFFFF));
}

}  // namespace
