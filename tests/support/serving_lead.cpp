#include "serving_lead.h"

#include <algorithm>
#include <future>

namespace support {

namespace {

constexpr std::chrono::milliseconds kTurn{2};
constexpr std::chrono::milliseconds kReminder{20};
constexpr uint32_t kSegmentBytes = 1000;
constexpr size_t kLargestFile = 3'500;
constexpr uint32_t kLossInterval = 13;  // one of so many datagrams is not sent

uint32_t segments_of(const Bytes& content) {
  return static_cast<uint32_t>((content.size() + kSegmentBytes - 1) / kSegmentBytes);
}

}  // namespace

// The file ids of two leads are apart: a datagram that comes late must not name another's file.
ServingLead::ServingLead(uint32_t address) : socket_(address), first_id_(address << 16 | 1) {}

ServingLead::~ServingLead() {
  stop();
}

Bytes ServingLead::content_of(const std::string& name) {
  const size_t seed = std::hash<std::string>{}(name);
  Bytes bytes(seed % kLargestFile + 1);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 251);
  return bytes;
}

void ServingLead::start() {
  thread_ = std::thread([this] { run(); });
}

void ServingLead::stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void ServingLead::order(Order order) {
  const std::lock_guard lock(guard_);
  orders_.push_back(std::move(order));
}

void ServingLead::carry_out_orders() {
  std::vector<Order> orders;
  {
    const std::lock_guard lock(guard_);
    orders.swap(orders_);
  }
  for (const Order& carry_out : orders) carry_out();
}

void ServingLead::lead(bool on) {
  std::promise<void> done;
  order([this, on, &done] {
    leads_ = on;
    if (on) begin_process();
    done.set_value();
  });
  done.get_future().wait();
}

void ServingLead::message(uint32_t msg_class, const Bytes& bytes) {
  order([this, msg_class, bytes] {
    enter({0,
           [this, msg_class, bytes](uint32_t sequence, bool again) {
             socket_.message(sequence, msg_class, bytes, kSegmentBytes, 0, false, again);
           },
           {}});
  });
}

void ServingLead::push(uint32_t xact_id, const std::vector<std::string>& names) {
  send_list(PKGDIST_FILE_SEND_LIST, xact_id, names);
}

void ServingLead::cancel_push(uint32_t xact_id) {
  send_list(PKGDIST_FILE_SEND_CANCEL, xact_id, {});
}

void ServingLead::send_list(uint32_t operation, uint32_t xact_id,
                            const std::vector<std::string>& names) {
  order([this, operation, xact_id, names] {
    enter({0,
           [this, operation, xact_id, names](uint32_t sequence, bool again) {
             socket_.file_list(sequence, xact_id, names, 1, operation, again);
           },
           names});
  });
}

void ServingLead::enter(Outgoing outgoing) {
  outgoing.sequence = ++sequence_;
  if (leads_ && !lost()) outgoing.send(outgoing.sequence, false);
  outgoing_.push_back(std::move(outgoing));
}

// What is still to be acknowledged goes out under the new process's sequences. What has been
// acknowledged meanwhile must not: it would be another message there.
void ServingLead::begin_process() {
  while (const auto arrival = socket_.take_control()) on_control(*arrival);
  ++socket_.pid;
  sequence_ += 1000;
  socket_.ping(sequence_);
  for (Outgoing& outgoing : outgoing_) {
    outgoing.sequence = ++sequence_;
    outgoing.send(outgoing.sequence, false);
  }
}

void ServingLead::remind() {
  if (!leads_) return;
  socket_.ping(sequence_);
  for (const Outgoing& outgoing : outgoing_) outgoing.send(outgoing.sequence, true);
}

void ServingLead::run() {
  auto reminder = std::chrono::steady_clock::now();
  while (!stop_) {
    carry_out_orders();
    if (const auto now = std::chrono::steady_clock::now(); now >= reminder) {
      remind();
      reminder = now + kReminder;
    }
    socket_.wait(kTurn);
    while (const auto arrival = socket_.take_control()) on_control(*arrival);
    while (const auto arrival = socket_.take_data()) on_data(*arrival);
  }
}

void ServingLead::on_control(const ControlArrival& arrival) {
  const uint32_t sequence = arrival.header.sequence;
  if (arrival.header.msg_id == PKGDIST_CTRL_MSG_CTRL) {
    pkgdist::Owned<pkgdist_ctrl_msg> body;
    ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *body), 0);
    received_[sequence].assign(body->data, body->data + body->data_size);
    if (!lost()) socket_.acknowledge(sequence);
    return;
  }
  // An acknowledgement that was lost is not repeated: the point in the ping replies tells it.
  if (arrival.header.msg_id == PKGDIST_CTRL_MSG_ACK)
    on_acknowledged([=](uint32_t of) { return of == sequence; });
  else if (arrival.header.msg_id == PKGDIST_CTRL_MSG_PING_REPLY)
    on_acknowledged([=](uint32_t of) { return of <= sequence; });
}

void ServingLead::on_acknowledged(const std::function<bool(uint32_t sequence)>& is_meant) {
  const auto meant =
      std::stable_partition(outgoing_.begin(), outgoing_.end(),
                            [&](const Outgoing& outgoing) { return !is_meant(outgoing.sequence); });
  const std::vector<Outgoing> ended(meant, outgoing_.end());
  outgoing_.erase(meant, outgoing_.end());
  acknowledged_ += static_cast<unsigned>(ended.size());
  for (const Outgoing& outgoing : ended)
    for (const std::string& name : outgoing.files) send_file(name);
}

void ServingLead::on_data(const DataArrival& arrival) {
  if (arrival.header.msg_id == PKGDIST_DATA_MSG_FILE_REQ) {
    pkgdist::Owned<pkgdist_data_send_req> request;
    ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *request), 0);
    ++requests_;
    const std::string name = request->name;
    if (name.rfind(kNever, 0) != 0 && !lost()) send_file(name);
  } else if (arrival.header.msg_id == PKGDIST_DATA_MSG_REQ_SINGLE) {
    pkgdist::Owned<struct pkgdist_data_send_req_single> request;
    ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *request), 0);
    if (const auto at = names_.find(request->file_id); at != names_.end())
      send_segments(at->second, request->segment, request->num);
  }
}

void ServingLead::send_file(const std::string& name) {
  auto [at, is_new] = ids_.try_emplace(name, first_id_ + static_cast<uint32_t>(ids_.size()));
  if (is_new) names_.emplace(at->second, name);
  const Bytes content = content_of(name);
  socket_.file_info(at->second, name, static_cast<uint32_t>(content.size()), kSegmentBytes);
  send_segments(name, 0, segments_of(content));
}

void ServingLead::send_segments(const std::string& name, uint32_t first, uint32_t count) {
  const Bytes content = content_of(name);
  const uint32_t total = segments_of(content);
  for (uint32_t i = 0; i < std::min(count, total); ++i) {
    const uint32_t number = (first + i) % total;
    const auto begin = content.begin() + std::ptrdiff_t{number} * kSegmentBytes;
    const auto left = std::min<std::ptrdiff_t>(kSegmentBytes, content.end() - begin);
    if (!lost()) socket_.segment(ids_.at(name), number, Bytes(begin, begin + left));
  }
}

bool ServingLead::lost() {
  return ++said_ % kLossInterval == 0;
}

}  // namespace support
