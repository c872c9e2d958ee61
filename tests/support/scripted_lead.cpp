#include "scripted_lead.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace support {

namespace {

using Clock = std::chrono::steady_clock;

// How often a condition is looked at that no callback announces.
constexpr std::chrono::milliseconds kLookInterval{10};

constexpr uint32_t kControlGroup = 0xEFFF4705;  // 239.255.71.5
constexpr uint32_t kDataGroup = 0xEFFF4706;     // 239.255.71.6
// Below 32768, where the system takes ports for sockets that ask for none.
constexpr int kFirstPort = 20'000;
constexpr int kPortSets = 2'500;
enum Port : uint16_t { kControl, kData, kLead, kNode, kRequest, kPorts };

sockaddr_in endpoint(uint32_t address, uint32_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(static_cast<uint16_t>(port));
  return result;
}

int bound_socket(uint32_t address, uint32_t port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in local = endpoint(address, port);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0)
      << std::strerror(errno);
  const in_addr interface = {htonl(address)};
  EXPECT_EQ(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface), 0);
  return fd;
}

void send_to(int fd, uint32_t address, uint32_t port, const Bytes& bytes) {
  const sockaddr_in to = endpoint(address, port);
  EXPECT_EQ(
      sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
      static_cast<ssize_t>(bytes.size()));
}

template <class Message>
Bytes encoded(const Message& message) {
  Bytes bytes(static_cast<size_t>(pkgdist::encode(message, nullptr, 0)));
  pkgdist::encode(message, bytes.data(), bytes.size());
  return bytes;
}

Bytes framed(const Bytes& header, const Bytes& body) {
  Bytes datagram = {0, 0, 0, static_cast<uint8_t>(header.size())};
  datagram.insert(datagram.end(), header.begin(), header.end());
  datagram.insert(datagram.end(), body.begin(), body.end());
  return datagram;
}

// A datagram in its parts; nothing when it is none of ours.
template <class Arrival>
std::optional<Arrival> parsed(const Bytes& datagram) {
  if (datagram.size() < 4) return std::nullopt;
  const uint32_t header_bytes = datagram[3];
  Arrival arrival;
  if (datagram.size() < 4 + header_bytes ||
      pkgdist::decode(datagram.data() + 4, header_bytes, arrival.header) != 0)
    return std::nullopt;
  arrival.body.assign(datagram.begin() + 4 + header_bytes, datagram.end());
  return arrival;
}

// The next datagram that is waiting, if any.
Bytes take_datagram(int fd) {
  Bytes datagram(2048);
  const ssize_t length = recv(fd, datagram.data(), datagram.size(), MSG_DONTWAIT);
  datagram.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
  return datagram;
}

template <class Arrival>
std::optional<Arrival> take(int fd) {
  for (Bytes datagram = take_datagram(fd); !datagram.empty(); datagram = take_datagram(fd))
    if (auto arrival = parsed<Arrival>(datagram)) return arrival;
  return std::nullopt;
}

// The next datagram whose header `accept` takes.
template <class Arrival>
Arrival expect(int fd, const std::function<bool(const Arrival&)>& accept) {
  const auto end = Clock::now() + kPatience;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd waiting = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) break;
    const std::optional<Arrival> arrival = parsed<Arrival>(take_datagram(fd));
    if (arrival && accept(*arrival)) return *arrival;
  }
  throw std::runtime_error("the node did not send what was expected");
}

}  // namespace

ScriptedLead::ScriptedLead(uint32_t address)
    : address_(address),
      base_port_(static_cast<uint16_t>(kFirstPort + getpid() % kPortSets * kPorts)) {
  control_ = bound_socket(address, base_port_ + uint32_t{kLead});
  data_ = bound_socket(address, base_port_ + uint32_t{kRequest});
}

ScriptedLead::~ScriptedLead() {
  close(control_);
  close(data_);
}

void ScriptedLead::start_node(const std::string& directory) {
  const auto port = [this](Port which) { return static_cast<uint16_t>(base_port_ + which); };
  ASSERT_EQ(instcomm_pkgdist_ctrl_recv_init(kControlGroup, port(kControl), port(kLead), port(kNode),
                                            3, kNodeUnderTest, 0),
            0u);
  ASSERT_EQ(instcomm_pkgdist_data_recv_init(kDataGroup, port(kData), port(kRequest)), 0u);
  ASSERT_EQ(instcomm_pkgdist_set_recv_repository(directory.c_str(), 1, false), 0u);
}

void ScriptedLead::wait(std::chrono::milliseconds longest) const {
  pollfd waiting[] = {{control_, POLLIN, 0}, {data_, POLLIN, 0}};
  (void)poll(waiting, std::size(waiting), static_cast<int>(longest.count()));
}

std::optional<ControlArrival> ScriptedLead::take_control() const {
  return take<ControlArrival>(control_);
}

std::optional<DataArrival> ScriptedLead::take_data() const {
  return take<DataArrival>(data_);
}

void ScriptedLead::raw_control(const Bytes& datagram, bool unicast) {
  if (unicast)
    send_to(control_, kNodeUnderTest, base_port_ + uint32_t{kNode}, datagram);
  else
    send_to(control_, kControlGroup, base_port_ + uint32_t{kControl}, datagram);
}

void ScriptedLead::raw_data(const Bytes& datagram) {
  send_to(data_, kDataGroup, base_port_ + uint32_t{kData}, datagram);
}

namespace {

pkgdist_ctrl_msg_hdr control_header(uint32_t msg_id, uint32_t from, uint32_t pid,
                                    uint32_t sequence) {
  using Header = pkgdist_ctrl_msg_hdr;
  Header header{};
  qidl::set<&Header::msg_id>(header, msg_id);
  qidl::set<&Header::node_ip>(header, from);
  qidl::set<&Header::pid>(header, pid);
  qidl::set<&Header::sequence>(header, sequence);
  return header;
}

Bytes data_header(uint32_t msg_id, uint32_t from) {
  using Header = pkgdist_data_msg_hdr;
  Header header{};
  qidl::set<&Header::msg_id>(header, msg_id);
  qidl::set<&Header::node_ip>(header, from);
  return encoded(header);
}

}  // namespace

void ScriptedLead::ping(uint32_t sequence) {
  raw_control(framed(encoded(control_header(PKGDIST_CTRL_MSG_PING, address_, pid, sequence)), {}),
              false);
}

void ScriptedLead::message(uint32_t sequence, uint32_t msg_class, const Bytes& whole,
                           uint32_t segment_size, uint32_t segment, bool unicast,
                           bool retransmission) {
  using Header = pkgdist_ctrl_msg_hdr;
  using Body = pkgdist_ctrl_msg;
  Header header = control_header(PKGDIST_CTRL_MSG_CTRL, address_, pid, sequence);
  qidl::set<&Header::segment>(header, segment);
  qidl::set<&Header::card_class>(header, 0);
  Body body{};
  qidl::set<&Body::msg_class>(body, msg_class);
  qidl::set<&Body::total_size>(body, whole.size());
  qidl::set<&Body::segment_size>(body, segment_size);
  if (retransmission) qidl::set<&Body::rxmt>(body, 1);
  const size_t offset = size_t{segment} * segment_size;
  body.data = whole.data() + offset;
  body.data_size = std::min<size_t>(segment_size, whole.size() - offset);
  qidl::mark<&Body::data>(body);
  raw_control(framed(encoded(header), encoded(body)), unicast);
}

void ScriptedLead::acknowledge(uint32_t sequence) {
  raw_control(framed(encoded(control_header(PKGDIST_CTRL_MSG_ACK, address_, pid, sequence)), {}),
              true);
}

void ScriptedLead::ask_again(uint32_t sequence) {
  raw_control(framed(encoded(control_header(PKGDIST_CTRL_MSG_NACK, address_, pid, sequence)), {}),
              true);
}

void ScriptedLead::file_list(uint32_t sequence, uint32_t xact_id, std::vector<std::string> names,
                             uint32_t location, uint32_t operation, bool retransmission) {
  using List = pkgdist_file_send_ctrl;
  List list{};
  qidl::set<&List::operation>(list, operation);
  qidl::set<&List::xact_id>(list, xact_id);
  qidl::set<&List::type>(list, 1);
  qidl::set<&List::location>(list, location);
  qidl::set<&List::priority>(list, 1);
  std::vector<char*> pointers;
  for (std::string& name : names) pointers.push_back(name.data());
  list.names = pointers.data();
  list.names_count = static_cast<uint32_t>(pointers.size());
  qidl::mark<&List::names>(list);
  message(sequence, PKGDIST_CTRL_CLASS_FILE_SEND, encoded(list), 1300, 0, false, retransmission);
}

ControlArrival ScriptedLead::expect_control(uint32_t msg_id) {
  return expect<ControlArrival>(
      control_, [=](const ControlArrival& arrival) { return arrival.header.msg_id == msg_id; });
}

void ScriptedLead::file_info(uint32_t file_id, const std::string& name, uint32_t size,
                             uint32_t segment_size, uint32_t mtime, bool symlink, uint64_t status,
                             uint32_t location) {
  using Info = pkgdist_data_send_file_info;
  std::string text = name;
  Info info{};
  qidl::set<&Info::file_id>(info, file_id);
  qidl::set<&Info::name>(info, text.data());
  qidl::set<&Info::size>(info, size);
  qidl::set<&Info::segment_size>(info, segment_size);
  qidl::set<&Info::status>(info, status);
  qidl::set<&Info::mode>(info, 0640);
  qidl::set<&Info::mtime>(info, mtime);
  qidl::set<&Info::symlink>(info, symlink ? 1 : 0);
  qidl::set<&Info::location>(info, location);
  raw_data(framed(data_header(PKGDIST_DATA_MSG_FILE_INFO, address_), encoded(info)));
}

void ScriptedLead::segment(uint32_t file_id, uint32_t number, const Bytes& data, bool repair) {
  using Segment = pkgdist_data_send_segment;
  Segment segment{};
  qidl::set<&Segment::file_id>(segment, file_id);
  qidl::set<&Segment::segment>(segment, number);
  if (repair) qidl::set<&Segment::repair>(segment, 1);
  segment.data = data.data();
  segment.data_size = data.size();
  qidl::mark<&Segment::data>(segment);
  raw_data(framed(data_header(PKGDIST_DATA_MSG_SEGMENT, address_), encoded(segment)));
}

void ScriptedLead::miss_done(uint32_t file_id, const std::string& name) {
  using Miss = pkgdist_data_send_miss_done;
  std::string text = name;
  Miss miss{};
  qidl::set<&Miss::file_id>(miss, file_id);
  qidl::set<&Miss::name>(miss, text.data());
  qidl::set<&Miss::location>(miss, 1);
  raw_data(framed(data_header(PKGDIST_DATA_MSG_MISS_DONE, address_), encoded(miss)));
}

DataArrival ScriptedLead::expect_data(uint32_t msg_id) {
  return expect<DataArrival>(
      data_, [=](const DataArrival& arrival) { return arrival.header.msg_id == msg_id; });
}

uint64_t ScriptedLead::expect_done(uint32_t file_id) {
  for (;;) {
    const DataArrival arrival = expect_data(PKGDIST_DATA_MSG_REQ_DONE);
    pkgdist::Owned<pkgdist_data_send_req_done> done;
    if (pkgdist::decode(arrival.body.data(), arrival.body.size(), *done) != 0) continue;
    if (done->file_id == file_id) return done->status;
  }
}

bool Loop::run_until(const std::function<bool()>& done) const {
  const auto end = Clock::now() + kPatience;
  while (!done()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    levm_run_once(loop_, static_cast<int>(std::min(left, kLookInterval).count()));
  }
  return true;
}

TemporaryDirectory::TemporaryDirectory() {
  char pattern[] = "/tmp/pkgdist-loopback-XXXXXX";
  EXPECT_NE(mkdtemp(pattern), nullptr);
  path_ = std::string(pattern) + "/";
}

TemporaryDirectory::~TemporaryDirectory() {
  std::filesystem::remove_all(path_);
}

}  // namespace support
