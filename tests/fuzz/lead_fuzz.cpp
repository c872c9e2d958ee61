// The core of a lead with two modelled nodes, amid datagrams of anybody.
//
// Input: options, then steps. A push runs from the beginning; strangers' datagrams come in between
// its events. The push and whatever the owner asks for must come to an end; where nobody speaks in
// the name of a node or of another lead, the push must also succeed.
#include <array>
#include <set>

#include "lead_session.h"
#include "mutator.h"
#include "steps.h"

#if defined(__SANITIZE_ADDRESS__)
#define FUZZ_COUNTS_MEMORY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FUZZ_COUNTS_MEMORY 1
#endif
#endif
#ifdef FUZZ_COUNTS_MEMORY
// Of the sanitizer; not every compiler brings its header.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

using namespace fuzz;
using namespace pkgdist;
using lead::Channel;
using lead::kMillisecond;
using lead::kSecond;
using test::LeadCluster;

constexpr size_t kMaxSteps = 48;
constexpr size_t kMaxBurst = 64;
constexpr uint32_t kNetwork = 0x0A000000;  // 10.0.0.0: addresses of one byte
// Datagrams to one address for every one that came, at most: three rounds of 64 requests for the
// segments of a message, and its acknowledgements.
constexpr uint64_t kMaxAnswers = 200;

class Session {
 public:
  explicit Session(uint8_t options);
  void step(LeadDo what, View payload);
  void finish();

 private:
  void datagram(Channel channel, uint8_t from, View bytes);
  void framed_datagram(Channel channel, Input in);
  void burst(Input in);
  void push(uint8_t priority, uint8_t audience);
  void node(Input in);
  lead::Audience audience(uint8_t choice) const;
  void note_speaker(Channel channel, uint32_t from, View bytes);
  void on_sent(Channel channel, uint32_t destination, size_t length);
  bool ends_within(uint64_t limit);
  void check_memory() const;

  const bool multi_homed_;
  LeadCluster cluster_;
  bool nodes_are_spoofed_ = false;        // or another lead speaks, or the owner interferes
  std::set<uint32_t> speakers_;           // addresses that a datagram came from or named
  std::map<uint32_t, uint64_t> answers_;  // datagrams to addresses that are no node's
  std::vector<lead::MessageId> messages_;
  uint64_t heard_ = 0;  // strangers' datagrams
  uint64_t heard_bytes_ = 0;
  size_t memory_before_ = 0;
};

size_t memory_in_use() {
#ifdef FUZZ_COUNTS_MEMORY
  return __sanitizer_get_current_allocated_bytes();
#else
  return 0;
#endif
}

Session::Session(uint8_t options)
    : multi_homed_(lead_settings(options).multi_homed), cluster_(lead_settings(options)) {
  fill_store(cluster_.store);
  cluster_.add_hosts(2);
  cluster_.on_sent = [this](Channel channel, uint32_t to, View bytes) {
    on_sent(channel, to, bytes.size());
  };
  push(2, options & kEverybodyWhoIsHeard);
  cluster_.run_for(2 * kMillisecond);
  memory_before_ = memory_in_use();
}

// --- Steps ---

void Session::step(LeadDo what, View payload) {
  Input in(payload);
  switch (what) {
    case LeadDo::kControl:
      framed_datagram(Channel::kControl, in);
      break;
    case LeadDo::kData:
      framed_datagram(Channel::kData, in);
      break;
    case LeadDo::kOverheard:
      framed_datagram(Channel::kOverheard, in);
      break;
    case LeadDo::kControlRaw:
    case LeadDo::kDataRaw: {
      const uint8_t from = in.u8();
      datagram(what == LeadDo::kDataRaw ? Channel::kData : Channel::kControl, from, in.rest());
      break;
    }
    case LeadDo::kTime:
      cluster_.run_for(in.u16() % 4096 * kMillisecond);
      break;
    case LeadDo::kBurst:
      burst(in);
      break;
    case LeadDo::kSendMessage: {
      const uint8_t msg_class = in.u8();
      const lead::Audience to = audience(in.u8());
      messages_.push_back(
          cluster_.lead().send_message(msg_class, Bytes(in.u16() % 4000, 'm'), to, cluster_.now()));
      break;
    }
    case LeadDo::kCancel:
      nodes_are_spoofed_ = true;
      messages_.push_back(cluster_.lead().cancel_transaction(cluster_.lead().push_transaction(),
                                                             audience(in.u8()), cluster_.now()));
      break;
    case LeadDo::kDelete: {
      nodes_are_spoofed_ = true;
      const uint8_t location = in.u8();
      const lead::Audience to = audience(in.u8());
      messages_.push_back(cluster_.lead().delete_files(location, {in.text()}, to, cluster_.now()));
      break;
    }
    case LeadDo::kPush: {
      const uint8_t priority = in.u8();
      push(priority, in.u8());
      break;
    }
    case LeadDo::kStopPush:
      nodes_are_spoofed_ = true;
      cluster_.lead().stop_push(cluster_.now());
      break;
    case LeadDo::kBreakFile: {
      nodes_are_spoofed_ = true;
      const char* const names[] = {"f0", "d/f1", "link"};
      const char* const name = names[in.u8() % std::size(names)];
      if (const uint8_t how = in.u8(); how % 2 == 0)
        cluster_.store.break_open(name, how);
      else
        cluster_.store.break_read(name, how);
      break;
    }
    case LeadDo::kNode:
      node(in);
      break;
  }
}

void Session::framed_datagram(Channel channel, Input in) {
  const uint8_t from = in.u8();
  const View header = in.take(in.u8());
  Bytes bytes;
  append_number(bytes, header.size(), 4);
  append(bytes, header);
  append(bytes, in.rest());
  datagram(channel, from, bytes);
}

void Session::datagram(Channel channel, uint8_t from, View content) {
  const Bytes bytes(content.begin(), content.end());
  note_speaker(channel, kNetwork + from, bytes);
  ++heard_;
  heard_bytes_ += bytes.size();
  cluster_.lead().on_datagram(channel, bytes, kNetwork + from, cluster_.now());
  cluster_.run_for(10'000);
}

void Session::burst(Input in) {
  const size_t times = std::min<size_t>(in.u8(), kMaxBurst);
  const Channel channel = in.u8() % 2 != 0 ? Channel::kData : Channel::kControl;
  uint8_t from = in.u8();
  const View header = in.take(in.u8());
  const View body = in.rest();
  const test::Message<pkgdist_ctrl_msg_hdr> control(header);
  const test::Message<pkgdist_data_msg_hdr> data(header);
  if (channel == Channel::kControl ? !control.ok() : !data.ok()) return;
  for (uint32_t i = 0; i < times; ++i, ++from) {
    const auto send = [&](auto of_one) {
      of_one.node_ip += i;
      Bytes bytes = test::framed(of_one);
      append(bytes, body);
      datagram(channel, from, bytes);
    };
    if (channel == Channel::kControl)
      send(*control);
    else
      send(*data);
  }
}

lead::Audience Session::audience(uint8_t choice) const {
  switch (choice % 5) {
    case 0:
      return lead::Audience::everyone();
    case 1:
      return lead::Audience::of_class(choice / 5u);
    case 2:
      return lead::Audience::only({cluster_.default_settings().address + 1});
    case 3:
      return lead::Audience::one(cluster_.default_settings().address + 2);
    default:
      return lead::Audience::only({kNetwork + choice, kNetwork + 2});
  }
}

void Session::push(uint8_t priority, uint8_t audience) {
  lead::PushRequest request = cluster_.push_all();
  request.priority = 1 + priority % 4u;
  request.node_timeout = 2 * kSecond;
  if (audience % 2 == 0)
    for (size_t i = 0; i < cluster_.hosts(); ++i) request.nodes.push_back(cluster_.host(i).address);
  cluster_.lead().start_push(std::move(request), cluster_.now());
}

void Session::node(Input in) {
  const size_t index = in.u8() % cluster_.hosts();
  const uint8_t what = in.u8();
  auto& node = cluster_.host(index).node;
  if (what % 4 == 0 && node) {
    cluster_.stop_node(index);
    nodes_are_spoofed_ = true;  // is given up in the end
  } else if (what % 4 == 1) {
    cluster_.start_node(index);
  } else if (what % 4 == 2 && node) {
    node->get_file(what % 8 < 4 ? "d/f1" : "none", 1, 1, 1, cluster_.now());
  } else if (node) {
    node->send_message(Bytes(in.u16() % 5000 + 1, 'n'), cluster_.now());
  }
}

// --- Properties ---

// Notes who can have been meant by an answer, and whether the datagram speaks for somebody else.
void Session::note_speaker(Channel channel, uint32_t from, View bytes) {
  speakers_.insert(from);
  const test::Parts parts = test::parts_of(bytes);
  uint32_t named = 0;
  if (channel == Channel::kData) {
    const test::Message<pkgdist_data_msg_hdr> header(parts.header);
    if (header.ok()) named = header->node_ip;
  } else {
    const test::Message<pkgdist_ctrl_msg_hdr> header(parts.header);
    if (header.ok()) named = header->node_ip;
  }
  if (!multi_homed_ && from != test::kLeadAddress) named = 0;
  if (named != 0) speakers_.insert(named);
  const uint32_t speaker = named != 0 ? named : from;
  for (size_t i = 0; i < cluster_.hosts(); ++i)
    nodes_are_spoofed_ |= speaker == cluster_.host(i).address;
  nodes_are_spoofed_ |= channel == Channel::kOverheard;
}

// Nobody is sent anything who has not spoken, and not without measure.
void Session::on_sent(Channel, uint32_t destination, size_t length) {
  FUZZ_CHECK(length > 0 && length <= 1472);
  if (destination == lead::kGroup) return;
  for (size_t i = 0; i < cluster_.hosts(); ++i)
    if (destination == cluster_.host(i).address) return;
  FUZZ_CHECK(speakers_.contains(destination));
  FUZZ_CHECK(++answers_[destination] <= kMaxAnswers * heard_ + 1000);
}

bool Session::ends_within(uint64_t limit) {
  return cluster_.run_until([&] { return !cluster_.lead().push_running(); }, limit);
}

// Memory follows what was received, never what a header promises.
void Session::check_memory() const {
  constexpr size_t kFree = 2 << 20;
  FUZZ_CHECK(memory_in_use() <= memory_before_ + kFree + heard_ * 2000 + heard_bytes_ * 16);
}

void Session::finish() {
  check_memory();
  // Listening and standing by, a silent node, and the push itself.
  FUZZ_CHECK(ends_within(120 * kSecond));
  for (const lead::MessageId id : messages_)
    FUZZ_CHECK(id == 0 ||
               cluster_.run_until([&] { return cluster_.lead().message_report(id).finished; },
                                  20 * kSecond));
  check_memory();
  if (nodes_are_spoofed_) {
    // A new process of the lead and of the nodes has nothing to do with what was.
    lead::Settings fresh = lead_settings(0);
    fresh.pid += 1;
    fresh.seed = 1000;
    cluster_.store = test::MemoryStore();
    cluster_.restart_lead(fresh);
    for (size_t i = 0; i < cluster_.hosts(); ++i) cluster_.start_node(i);
    cluster_.run_for(9 * kSecond);
  }
  cluster_.store.add("good", test::pattern(130, 3));
  push(1, 0);
  FUZZ_CHECK(ends_within(30 * kSecond));
  FUZZ_CHECK(cluster_.lead().push_report().complete());
  for (size_t i = 0; i < cluster_.hosts(); ++i)
    FUZZ_CHECK(cluster_.host(i).disk.at("1:good") == cluster_.store.files().at("1:good"));
  FUZZ_CHECK(nodes_are_spoofed_ || cluster_.identical());
  const auto known = cluster_.lead().send_message(
      3, Bytes(200, 'g'),
      lead::Audience::only({cluster_.host(0).address, cluster_.host(1).address}), cluster_.now());
  FUZZ_CHECK(known != 0);
  FUZZ_CHECK(cluster_.run_until([&] { return cluster_.lead().message_report(known).finished; },
                                20 * kSecond));
  FUZZ_CHECK(cluster_.lead().message_report(known).complete());
}

}  // namespace

const size_t fuzz::kPrefixBytes = 1;
fuzz::Layout fuzz::layout_of(uint8_t kind) {
  switch (static_cast<LeadDo>(kind % kLeadKinds)) {
    case LeadDo::kControl:
    case LeadDo::kOverheard:
    case LeadDo::kBurst:
      return Layout::kControl;
    case LeadDo::kData:
      return Layout::kData;
    default:
      return Layout::kBytes;
  }
}
size_t fuzz::datagram_offset(uint8_t kind) {
  return static_cast<LeadDo>(kind % kLeadKinds) == LeadDo::kBurst ? 3 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  Session session(data[0]);
  for (const Step& step : cut_into_steps({data + 1, size - 1}, kMaxSteps))
    session.step(static_cast<LeadDo>(step.kind % kLeadKinds), step.payload);
  session.finish();
  return 0;
}
