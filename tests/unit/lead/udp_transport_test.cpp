// How datagrams leave: what the system hands to a receiver that takes whole batches shows it.
#include "pkgdist_lead/udp_transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

namespace pkgdist::lead {
namespace {

constexpr uint32_t kLead = 0x7F000001;  // 127.0.0.1
constexpr uint32_t kDataGroup = 0xEFFF4D08;

uint16_t port(int number) {
  return static_cast<uint16_t>(20'000 + (getpid() * 8 + number) % 20'000);
}

UdpSettings settings() {
  return {.address = kLead,
          .ctrl_group = 0xEFFF4D07,
          .ctrl_port = port(0),
          .data_group = kDataGroup,
          .data_port = port(1),
          .lead_port = port(2),
          .node_port = port(3),
          .req_port = port(4)};
}

// A member of the data group that receives batches as they were sent.
class BatchReceiver {
 public:
  BatchReceiver() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const int on = 1;
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port(1));
    name.sin_addr.s_addr = htonl(kDataGroup);
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(kDataGroup);
    membership.imr_interface.s_addr = htonl(kLead);
    good_ = ::bind(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 &&
            ::setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0 &&
            ::setsockopt(fd_, SOL_UDP, UDP_GRO, &on, sizeof on) == 0;
  }
  ~BatchReceiver() { ::close(fd_); }
  BatchReceiver(const BatchReceiver&) = delete;
  BatchReceiver& operator=(const BatchReceiver&) = delete;

  bool good() const { return good_; }

  // Bytes of each batch that has come.
  std::vector<size_t> batches() {
    std::vector<size_t> result;
    std::array<char, 65'536> bytes{};
    for (;;) {
      const ssize_t got = ::recv(fd_, bytes.data(), bytes.size(), 0);
      if (got < 0) return result;
      result.push_back(static_cast<size_t>(got));
    }
  }

 private:
  const int fd_;
  bool good_ = false;
};

class UdpTransportTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(receiver_.good()); }
  void send(size_t count, size_t length) {
    for (size_t i = 0; i < count; ++i) {
      std::fill_n(transport_.buffer().begin(), length, static_cast<uint8_t>(i));
      transport_.send(Channel::kData, kGroup, length);
    }
  }

  UdpTransport transport_{settings()};
  BatchReceiver receiver_;
};

TEST_F(UdpTransportTest, neighbours_of_one_length_leave_together) {
  send(10, 1000);
  transport_.flush();
  EXPECT_EQ(receiver_.batches(), (std::vector<size_t>{10'000}));
}

TEST_F(UdpTransportTest, only_the_last_of_a_batch_is_shorter) {
  send(3, 1000);
  send(1, 500);
  send(2, 1000);
  transport_.flush();
  EXPECT_EQ(receiver_.batches(), (std::vector<size_t>{3500, 2000}));
}

TEST_F(UdpTransportTest, sends_and_hears_leads_as_before_when_it_was_renewed) {
  for (int i = 0; i < 30; ++i)
    ASSERT_TRUE(transport_.renew());  // more than memberships of a socket
  EXPECT_TRUE(transport_.hears_group());
  send(10, 1000);
  transport_.flush();
  EXPECT_EQ(receiver_.batches(), (std::vector<size_t>{10'000}));
}

// To another network from a loopback address.
TEST_F(UdpTransportTest, what_cannot_leave_is_counted_and_what_follows_leaves) {
  constexpr uint32_t kElsewhere = 0xC0000201;  // 192.0.2.1
  transport_.send(Channel::kControl, kElsewhere, 100);
  transport_.flush();
  EXPECT_EQ(transport_.send_errors(), 1u);
  send(1, 1000);
  transport_.flush();
  EXPECT_EQ(receiver_.batches(), (std::vector<size_t>{1000}));
}

}  // namespace
}  // namespace pkgdist::lead
