#include "data_support.h"

#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_data_recv_send_file.h"
#include "pkgdist_socket.h"

namespace support {
namespace {

using namespace pkgdist;

char* text_of(const std::string& text) {
  return const_cast<char*>(text.c_str());  // the codec only reads it
}

uint8_t content_byte(uint32_t at) {
  return static_cast<uint8_t>(at * 7 + at / 251);
}

}  // namespace

Bytes encoded_info(const Info& info) {
  using Message = pkgdist_data_send_file_info;
  Message message{};
  qidl::set<&Message::file_id>(message, info.id);
  qidl::set<&Message::name>(message, text_of(info.name));
  qidl::set<&Message::size>(message, info.size);
  qidl::set<&Message::segment_size>(message, info.segment_size);
  qidl::set<&Message::status>(message, info.status);
  qidl::set<&Message::mode>(message, info.mode);
  qidl::set<&Message::mtime>(message, info.mtime);
  std::vector<uint32_t> nodes = info.nodes;
  qidl::set<&Message::node_list>(message, nodes.data());
  message.node_list_count = static_cast<uint32_t>(nodes.size());
  qidl::set<&Message::symlink>(message, static_cast<uint8_t>(info.symlink));
  qidl::set<&Message::location>(message, info.location);
  return encoded(message);
}

Bytes encoded_segment(uint32_t file_id, uint32_t segment, const Bytes& data, bool repair) {
  using Message = pkgdist_data_send_segment;
  Message message{};
  qidl::set<&Message::file_id>(message, file_id);
  qidl::set<&Message::segment>(message, segment);
  if (repair) qidl::set<&Message::repair>(message, uint8_t{1});
  qidl::set<&Message::data>(message, data.data());
  message.data_size = data.size();
  return encoded(message);
}

Bytes encoded_miss_done(uint32_t file_id, const std::string& name,
                        const std::vector<uint32_t>& nodes, uint32_t location) {
  using Message = pkgdist_data_send_miss_done;
  Message message{};
  std::vector<uint32_t> copy = nodes;
  qidl::set<&Message::file_id>(message, file_id);
  qidl::set<&Message::name>(message, text_of(name));
  qidl::set<&Message::node_list>(message, copy.data());
  message.node_list_count = static_cast<uint32_t>(copy.size());
  qidl::set<&Message::location>(message, location);
  return encoded(message);
}

Bytes encoded_file_send(const FileSend& message) {
  using Message = pkgdist_file_send_ctrl;
  std::vector<char*> names;
  for (const std::string& name : message.names) names.push_back(text_of(name));
  Message wire{};
  qidl::set<&Message::operation>(wire, message.operation);
  qidl::set<&Message::xact_id>(wire, message.xact_id);
  qidl::set<&Message::type>(wire, message.type);
  qidl::set<&Message::location>(wire, message.location);
  qidl::set<&Message::priority>(wire, message.priority);
  qidl::set<&Message::names>(wire, names.data());
  wire.names_count = static_cast<uint32_t>(names.size());
  return encoded(wire);
}

Bytes data_datagram(uint32_t msg_id, const Bytes& body, uint32_t node) {
  using Header = pkgdist_data_msg_hdr;
  Header header{};
  qidl::set<&Header::msg_id>(header, msg_id);
  qidl::set<&Header::node_ip>(header, node);
  return framed(encoded(header), body);
}

Traffic take_traffic() {
  Traffic traffic;
  for (const Sent& sent : wire::take()) {
    const pkgdist_data_msg_hdr header = data_header(sent.bytes);
    EXPECT_EQ(header.node_ip, kMyAddress);
    EXPECT_EQ(sent.address, kLeadAddress);
    EXPECT_EQ(sent.port, 7104);
    if (header.msg_id == PKGDIST_DATA_MSG_FILE_REQ) {
      const Decoded<pkgdist_data_send_req> body(sent.bytes);
      EXPECT_EQ(body->presence, 0xFu);
      traffic.requests.push_back({body->type, body->location, body->priority, body->name});
    } else if (header.msg_id == PKGDIST_DATA_MSG_REQ_SINGLE) {
      const Decoded<struct pkgdist_data_send_req_single> body(sent.bytes);
      EXPECT_EQ(body->presence, 0x7u);
      traffic.singles.push_back({body->file_id, body->segment, body->num});
    } else {
      EXPECT_EQ(header.msg_id, static_cast<uint32_t>(PKGDIST_DATA_MSG_REQ_DONE));
      const Decoded<pkgdist_data_send_req_done> body(sent.bytes);
      EXPECT_EQ(body->presence, 0xFu);
      traffic.reports.push_back({body->file_id, body->status, body->name, body->location});
    }
  }
  return traffic;
}

Client::Client() : loop_(levm_create()) {}
Client::~Client() {
  levm_destroy(loop_);
}

void Client::attach_all() {
  EXPECT_EQ(instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop_, start_cb, this), 0u);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(loop_, file_cb, this), 0u);
  EXPECT_EQ(instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop_, done_cb, this), 0u);
}

void Client::deliver() {
  while (levm_run_once(loop_, 0) > 0) {
  }
}

void Client::file_cb(uint64_t status, const char* path, uint32_t type, uint32_t location,
                     uint32_t xact_id, void* ctx) {
  auto& client = *static_cast<Client*>(ctx);
  const FileEvent event{status, path, type, location, xact_id};
  client.files.push_back(event);
  if (client.on_file) client.on_file(event);
}

void Client::start_cb(uint64_t status, const char* const* paths, uint32_t count, uint32_t type,
                      uint32_t location, uint32_t xact_id, void* ctx) {
  static_cast<Client*>(ctx)->starts.push_back(
      {status, std::vector<std::string>(paths, paths + count), type, location, xact_id});
}

void Client::done_cb(uint64_t status, uint32_t xact_id, void* ctx) {
  static_cast<Client*>(ctx)->dones.push_back({status, xact_id});
}

void drop_data_channels() {
  while (DataCallbackChannel* channel = G_data_recv_qitc_db.head) {
    G_data_recv_qitc_db.remove(channel);
    void* entry = nullptr;
    while (qitc_get(channel->qitc, &entry) == 0) DataSide::drop_entry(channel->channel_id, entry);
    qitc_handle_destroy(channel->qitc);
    std::free(channel);
  }
}

void DataTest::TearDown() {
  RecvTest::TearDown();
  while (queue_link_t* link = queue_dequeue(&G_pkgdist_file_recv_q)) {
    struct Queued {
      queue_link_t link;
      uint8_t* data;
    };
    std::free(reinterpret_cast<Queued*>(link)->data);
    std::free(link);
  }
  drop_data_channels();
  close_socket(G_data_rx_socket);
  close_socket(G_data_req_socket);
}

PkgdistStatus DataTest::want(const std::string& name, uint32_t xact_id, uint32_t type,
                             uint32_t location, uint32_t kind, uint32_t priority) {
  const FileRecvDbGuard lock;
  return pkgdist_file_recv_add_file(name.c_str(), type, location, priority, kind, xact_id);
}

PkgdistStatus DataTest::want_also(const std::string& name, uint32_t xact_id, uint32_t type,
                                  uint32_t kind, uint32_t priority) {
  const FileRecvDbGuard lock;
  return pkgdist_file_recv_add_xact(*file_recv_find(name.c_str(), 0), type, priority, kind,
                                    xact_id);
}

pkgdist_file_recv_entry* DataTest::find(const std::string& name, uint32_t location) {
  const FileRecvDbGuard lock;
  return file_recv_find(name.c_str(), location);
}

void DataTest::announce(const Info& info, uint32_t node) {
  announced_[info.id] = info;
  const Bytes datagram = data_datagram(PKGDIST_DATA_MSG_FILE_INFO, encoded_info(info), node);
  pkgdist_data_rx_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()));
}

void DataTest::give(uint32_t segment, bool repair, uint32_t id) {
  const Info& info = announced_.at(id);
  const uint64_t from = std::min<uint64_t>(uint64_t{segment} * info.segment_size, info.size);
  const uint64_t to = std::min<uint64_t>(from + info.segment_size, info.size);
  Bytes data;
  for (uint64_t i = from; i < to; ++i) data.push_back(content_byte(static_cast<uint32_t>(i)));
  const Bytes datagram =
      data_datagram(PKGDIST_DATA_MSG_SEGMENT, encoded_segment(id, segment, data, repair));
  pkgdist_data_rx_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()));
}

void DataTest::give_all(uint32_t id) {
  const Info& info = announced_.at(id);
  const uint32_t segments = (info.size + info.segment_size - 1) / info.segment_size;
  for (uint32_t segment = 0; segment < std::max(segments, 1u); ++segment) give(segment, false, id);
}

void DataTest::file_send(const FileSend& message) {
  const Bytes bytes = encoded_file_send(message);
  pkgdist_data_send_file_msg_hdlr(bytes.data(), bytes.size(), 0);
}

pkgdist_file_recv_entry* DataTest::begin(uint32_t segments, const std::string& name,
                                         uint32_t location) {
  EXPECT_EQ(want(name, 5, 1, location), 0u);
  announce({.name = name, .size = segments * 4, .segment_size = 4, .location = location});
  return find(name, location);
}

Bytes DataTest::content(uint32_t size) {
  Bytes bytes(size);
  for (uint32_t i = 0; i < size; ++i) bytes[i] = content_byte(i);
  return bytes;
}

bool DataTest::exists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

bool DataTest::is_mapped(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find(path) != std::string::npos) return true;
  return false;
}

Bytes DataTest::bytes_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

void DataTest::put_file(const std::string& name, const std::string& text, uint32_t mtime) {
  std::ofstream(path(name), std::ios::binary) << text;
  const utimbuf times = {static_cast<time_t>(mtime), static_cast<time_t>(mtime)};
  if (mtime == 0) return;
  EXPECT_EQ(utime(path(name).c_str(), &times), 0);
}

}  // namespace support
