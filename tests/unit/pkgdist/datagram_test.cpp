// Building and sending datagrams, and the sockets they leave from.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "pkgdist_datagram.h"
#include "pkgdist_socket.h"
#include "recv_support.h"

using namespace pkgdist;
using namespace support;

namespace {

using Header = pkgdist_ctrl_msg_hdr;
using Body = pkgdist_ctrl_msg;

class DatagramTest : public RecvTest {
 protected:
  static Header header() {
    Header result{};
    qidl::set<&Header::msg_id>(result, 4);
    return result;
  }
  // 8 bytes of header, 8 + data of body.
  static Body body(const Bytes& data) {
    Body result{};
    result.data = data.data();
    result.data_size = data.size();
    qidl::mark<&Body::data>(result);
    return result;
  }
};

TEST_F(DatagramTest, the_header_length_is_big_endian) {
  const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04};
  EXPECT_EQ(header_length(bytes), 0x01020304u);
}

TEST_F(DatagramTest, is_the_header_length_the_header_and_the_body) {
  const Bytes data = {0xAA, 0xBB};
  Datagram datagram(64);
  datagram.put_header(header());
  datagram.put_body(body(data));
  ASSERT_EQ(datagram.encode_error(), 0);
  ASSERT_TRUE(datagram.fits());
  EXPECT_EQ(datagram.send_to_lead(5, 7102), static_cast<ssize_t>(datagram.total()));
  const std::vector<Sent> sent = wire::take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].bytes, (Bytes{0, 0, 0, 8,    0, 0, 0, 1, 0,    0,   0, 4,  //
                                  0, 0, 0, 0x20, 0, 0, 0, 2, 0xAA, 0xBB}));
}

TEST_F(DatagramTest, goes_to_the_current_lead_at_the_given_port) {
  G_lead_uc_addr = 0x0A0B0C0D;
  Datagram datagram(64);
  datagram.put_header(header());
  datagram.send_to_lead(9, 4660);
  const std::vector<Sent> sent = wire::take();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].socket, 9);
  EXPECT_EQ(sent[0].address, 0x0A0B0C0Du);
  EXPECT_EQ(sent[0].port, 4660);
}

TEST_F(DatagramTest, fits_its_buffer_to_the_last_byte) {
  const Bytes data(8);
  for (const size_t capacity : {28u, 27u, 20u, 13u, 12u, 11u}) {
    Datagram datagram(capacity);
    datagram.put_header(header());
    datagram.put_body(body(data));
    EXPECT_EQ(datagram.encode_error(), 0);
    EXPECT_EQ(datagram.total(), 28u);
    EXPECT_EQ(datagram.capacity(), capacity);
    EXPECT_EQ(datagram.fits(), capacity == 28) << capacity;
  }
}

TEST_F(DatagramTest, a_message_that_the_codec_refuses_is_an_error_and_ends_the_building) {
  Header refused = header();
  refused.presence |= 0x80000000;
  Datagram datagram(64);
  datagram.put_header(refused);
  EXPECT_EQ(datagram.encode_error(), QIDL_ERR_MASK);
  datagram.put_body(body(Bytes(2)));
  EXPECT_EQ(datagram.encode_error(), QIDL_ERR_MASK);
  EXPECT_EQ(datagram.total(), 0u);
}

TEST_F(DatagramTest, without_memory_it_is_false) {
  faults::fail(Call::kCalloc, 1, ENOMEM);
  const Datagram datagram(64);
  EXPECT_FALSE(datagram);
}

TEST_F(DatagramTest, only_the_whole_of_it_counts_as_sent) {
  Datagram datagram(64);
  datagram.put_header(header());
  EXPECT_TRUE(datagram.sent_whole(12));
  EXPECT_FALSE(datagram.sent_whole(11));
  EXPECT_FALSE(datagram.sent_whole(0));
  EXPECT_FALSE(datagram.sent_whole(-1));
}

// --- Sockets ---

class SocketTest : public RecvTest {};

template <class Value>
Value option_of(int socket, int level, int option) {
  Value value{};
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(socket, level, option, &value, &size), 0);
  return value;
}

TEST_F(SocketTest, is_udp_and_closed_on_exec) {
  int socket = udp_socket();
  ASSERT_GE(socket, 0);
  EXPECT_EQ(option_of<int>(socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(option_of<int>(socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_UDP);
  EXPECT_EQ(option_of<int>(socket, SOL_SOCKET, SO_DOMAIN), AF_INET);
  EXPECT_NE(fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
  close_socket(socket);
}

TEST_F(SocketTest, a_failed_creation_keeps_the_error_number) {
  faults::fail(Call::kSocket, 1, ENFILE);
  EXPECT_EQ(udp_socket(), -1);
  EXPECT_EQ(errno, ENFILE);
}

TEST_F(SocketTest, a_descriptor_beyond_a_descriptor_set_is_refused_and_closed) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < FD_SETSIZE + 8) GTEST_SKIP() << "too few descriptors allowed";
  const rlimit raised{std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 8), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<int> occupied;
  do {
    occupied.push_back(dup(STDERR_FILENO));
    ASSERT_GE(occupied.back(), 0);
  } while (occupied.back() < FD_SETSIZE - 1);

  EXPECT_EQ(selectable_udp_socket(), -1);
  EXPECT_EQ(errno, EMFILE);
  const int next = dup(STDERR_FILENO);
  EXPECT_EQ(next, FD_SETSIZE) << "the refused socket was closed";
  close(next);
  // The last descriptor of a set is a good one.
  close(occupied.back());
  occupied.pop_back();
  int last = selectable_udp_socket();
  EXPECT_EQ(last, FD_SETSIZE - 1);
  close_socket(last);

  for (const int descriptor : occupied) close(descriptor);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(SocketTest, closing_marks_it_and_may_be_repeated) {
  int socket = udp_socket();
  const int descriptor = socket;
  close_socket(socket);
  EXPECT_EQ(socket, -1);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  close_socket(socket);
  EXPECT_EQ(socket, -1);
}

TEST_F(SocketTest, binds_to_an_address_in_host_byte_order) {
  int socket = udp_socket();
  ASSERT_EQ(bind_socket(socket, INADDR_LOOPBACK, 0), 0);
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &size), 0);
  EXPECT_EQ(ntohl(bound.sin_addr.s_addr), 0x7F000001u);
  const uint16_t port = ntohs(bound.sin_port);
  close_socket(socket);
  socket = udp_socket();
  ASSERT_EQ(bind_socket(socket, INADDR_LOOPBACK, port), 0);
  ASSERT_EQ(getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &size), 0);
  EXPECT_EQ(ntohs(bound.sin_port), port);
  close_socket(socket);
}

TEST_F(SocketTest, calls_that_fail_say_so) {
  int socket = udp_socket();
  EXPECT_EQ(set_socket_option(socket, SO_REUSEPORT, 1), 0);
  EXPECT_EQ(set_socket_option(-1, SO_REUSEPORT, 1), -1);
  EXPECT_EQ(bind_socket(-1, INADDR_LOOPBACK, 0), -1);
  EXPECT_EQ(join_group(socket, 0x01020304, INADDR_LOOPBACK), -1) << "not a group";
  close_socket(socket);
}

}  // namespace
