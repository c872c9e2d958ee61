// Makes inputs of the fuzzers out of real traffic: the lead's core and the receive library talk to
// each other, and both sides of what they say become sequences of steps.
//
//   make_corpus DIRECTORY      writes DIRECTORY/{codec,control,data,lead}/seed-NAME
//
// What a node's sequence holds is exactly what happened here: the library did it step by step.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "ctrl_support.h"
#include "lead_session.h"
#include "live_node.h"

namespace {

using namespace fuzz;
using namespace pkgdist;
using lead::Channel;
using lead::kMillisecond;
using lead::kSecond;
using test::Bytes;

constexpr uint64_t kPass = 250 * kMillisecond;

struct NodeStep {
  Do what;
  Bytes payload;
};

struct Recording {
  std::vector<NodeStep> node;
  Bytes lead{0};                // options, steps
  std::vector<Bytes> messages;  // inputs of the codec's fuzzer
};

// Payload of a step out of a datagram.
Bytes payload_of(View datagram) {
  const test::Parts parts = test::parts_of(datagram);
  Bytes payload;
  append_number(payload, parts.header.size(), 1);
  append(payload, parts.header);
  append(payload, parts.body);
  return payload;
}

// --- The library as a node of the cluster ---

class RecordedNode {
 public:
  using Storage = test::Disk;  // unused: the files are the library's
  using Send = std::function<void(Channel, uint32_t, Bytes)>;

  RecordedNode(Recording& recording, Send send, uint64_t now)
      : recording_(recording), send_(std::move(send)), last_pass_(now) {}

  void on_control(std::span<const uint8_t> bytes, uint64_t, bool unicast) {
    act(unicast ? Do::kControlUnicast : Do::kControl, payload_of(bytes));
  }
  void on_data(std::span<const uint8_t> bytes, uint64_t) { act(Do::kData, payload_of(bytes)); }
  void run(uint64_t now) {
    if (now < next_deadline()) return;
    last_pass_ = now;
    Bytes milliseconds;
    append_number(milliseconds, kPass / kMillisecond, 2);
    act(Do::kTime, milliseconds);
    act(Do::kDeliver, {});
  }
  uint64_t next_deadline() const { return last_pass_ + kPass; }

  // What its owner does.
  void act(Do what, const Bytes& payload) {
    recording_.node.push_back({what, payload});
    LiveNode::the().step(what, payload);
    for (const support::Sent& sent : LiveNode::the().answers())
      send_(sent.port == 7104 ? Channel::kData : Channel::kControl, sent.address, sent.bytes);
  }

 private:
  Recording& recording_;
  Send send_;
  uint64_t last_pass_;
};

using RecordedCluster = test::Cluster<RecordedNode>;

// --- Recording ---

constexpr uint32_t kStranger = 0x0A000009;

// The same datagram, spoken by a stranger: strangers take no node's part.
template <class Header>
Bytes spoken_by_stranger(View datagram) {
  const test::Parts parts = test::parts_of(datagram);
  const test::Message<Header> header(parts.header);
  FUZZ_CHECK(header.ok());
  Header changed = *header;
  changed.node_ip = kStranger;
  Bytes bytes = test::framed(changed);
  append(bytes, parts.body);
  return bytes;
}

void add_lead_step(Bytes& input, Channel channel, View datagram) {
  const bool data = channel == Channel::kData;
  Bytes payload;
  append_number(payload, kStranger & 0xFF, 1);
  append(payload, payload_of(data ? spoken_by_stranger<pkgdist_data_msg_hdr>(datagram)
                                  : spoken_by_stranger<pkgdist_ctrl_msg_hdr>(datagram)));
  append_step(input, static_cast<uint8_t>(data ? LeadDo::kData : LeadDo::kControl), payload);
}

uint8_t body_kind(Channel channel, View header_bytes) {
  if (channel != Channel::kData) return 1;
  const test::Message<pkgdist_data_msg_hdr> header(header_bytes);
  FUZZ_CHECK(header.ok());
  switch (header->msg_id) {
    case PKGDIST_DATA_MSG_FILE_REQ:
      return 3;
    case PKGDIST_DATA_MSG_REQ_SINGLE:
      return 4;
    case PKGDIST_DATA_MSG_REQ_DONE:
      return 5;
    case PKGDIST_DATA_MSG_FILE_INFO:
      return 6;
    case PKGDIST_DATA_MSG_SEGMENT:
      return 7;
    default:
      return 8;
  }
}

void add_messages(std::vector<Bytes>& inputs, Channel channel, View datagram) {
  const test::Parts parts = test::parts_of(datagram);
  const auto add = [&](uint8_t kind, View bytes) {
    Bytes input{kind, 0};
    append(input, bytes);
    inputs.push_back(input);
  };
  add(channel == Channel::kData ? 2 : 0, parts.header);
  if (parts.body.empty()) return;
  add(body_kind(channel, parts.header), parts.body);
  if (channel == Channel::kData) return;
  const test::Message<pkgdist_ctrl_msg> body(parts.body);
  if (body.ok() && body->msg_class == PKGDIST_CTRL_CLASS_FILE_SEND)
    add(9, {body->data, body->data + body->data_size});
}

class Scene {
 public:
  Scene()
      : cluster(
            [this](const RecordedCluster::Place& place, test::Disk&, RecordedCluster::Send send) {
              return std::make_unique<RecordedNode>(recording, std::move(send), place.now);
            }) {
    LiveNode::the().begin(kNoLeadYet);
    fill_store(cluster.store);
    cluster.on_sent = [this](Channel channel, uint32_t, View bytes) {
      add_messages(recording.messages, channel, bytes);
    };
    cluster.on_node_sent = [this](size_t, Channel channel, const Bytes& bytes) {
      add_messages(recording.messages, channel, bytes);
      pass_lead_time();
      add_lead_step(recording.lead, channel, bytes);
    };
    lead::Settings settings = lead_settings(0);
    cluster.add_lead(settings);
    cluster.add_host();
    last_ = cluster.now();
  }
  ~Scene() { LiveNode::the().finish(); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  RecordedNode& node() { return cluster.node(0); }
  void pass_lead_time() {
    const uint64_t passed = (cluster.now() - last_) / kMillisecond;
    if (passed == 0) return;
    last_ = cluster.now();
    Bytes milliseconds;
    append_number(milliseconds, passed, 2);
    append_step(recording.lead, static_cast<uint8_t>(LeadDo::kTime), milliseconds);
  }
  void push_and_wait(uint32_t location = 1) {
    lead::PushRequest request = cluster.push_all();
    request.location = location;
    for (auto& file : request.files) FUZZ_CHECK(!file.name.empty());
    FUZZ_CHECK(cluster.run_push(std::move(request), 20 * kSecond));
  }
  void attach_all() {
    for (uint8_t which = 0; which < 8; ++which) node().act(Do::kAttach, {which});
  }

  Recording recording;
  RecordedCluster cluster;

 private:
  uint64_t last_ = 0;
};

// --- What happens ---

void push(Scene& scene) {
  scene.attach_all();
  scene.push_and_wait();
}

template <int Seed>
void lossy_push(Scene& scene) {
  scene.cluster.set_loss(0.3, 0.2, Seed);
  scene.attach_all();
  scene.push_and_wait();
}

void push_into_memory(Scene& scene) {
  scene.cluster.store = test::MemoryStore();
  scene.cluster.store.add("object", test::pattern(150, 4), 0644, 1'600'000'000, 2);
  scene.push_and_wait(2);
}

void get_files(Scene& scene) {
  scene.cluster.run_for(1100 * kMillisecond);
  const auto get = [&](const char* name, uint8_t xact) {
    Bytes payload{1, 1, 1, 0, xact, 0};
    payload.insert(payload.end(), name, name + std::strlen(name));
    scene.node().act(Do::kGetFile, payload);
  };
  get("d/f1", 1);
  get("none", 2);
  scene.cluster.run_for(3 * kSecond);
  get("f0", 3);
  scene.node().act(Do::kCancel, {0, 3});
  scene.cluster.run_for(kSecond);
}

void messages_to_the_node(Scene& scene) {
  scene.attach_all();
  scene.cluster.run_for(1100 * kMillisecond);
  auto& lead = scene.cluster.lead();
  lead.send_message(2, Bytes(40, 'a'), lead::Audience::everyone(), scene.cluster.now());
  lead.send_message(5, Bytes(1500, 'b'), lead::Audience::everyone(), scene.cluster.now());
  lead.send_message(3, Bytes(30, 'c'), lead::Audience::one(LiveNode::kAddress),
                    scene.cluster.now());
  lead.send_message(4, Bytes(30, 'd'), lead::Audience::only({LiveNode::kAddress}),
                    scene.cluster.now());
  scene.cluster.run_for(2 * kSecond);
}

template <int Seed>
void lossy_messages(Scene& scene) {
  scene.cluster.set_loss(0.4, 0.3, Seed);
  messages_to_the_node(scene);
}

void messages_of_the_node(Scene& scene) {
  scene.cluster.run_for(1100 * kMillisecond);
  scene.node().act(Do::kSendMessage, {2, 0, 100, 0});
  scene.cluster.run_for(kSecond);
  scene.cluster.set_loss(0, 0.5, 7);
  scene.node().act(Do::kSendMessage, {4, 5, 120, 0});
  scene.cluster.run_for(kSecond);
}

void cancel_and_delete(Scene& scene) {
  scene.attach_all();
  scene.push_and_wait();
  auto& lead = scene.cluster.lead();
  lead.delete_files(1, {"f0", "link"}, lead::Audience::everyone(), scene.cluster.now());
  scene.cluster.run_for(kSecond);
  scene.cluster.lead().start_push(scene.cluster.push_all(), scene.cluster.now());
  scene.cluster.run_for(3 * kMillisecond);
  lead.cancel_transaction(lead.push_transaction(), lead::Audience::everyone(), scene.cluster.now());
  scene.cluster.run_for(kSecond);
}

void lead_restarts(Scene& scene) {
  scene.attach_all();
  scene.cluster.lead().start_push(scene.cluster.push_all(), scene.cluster.now());
  scene.cluster.run_for(3 * kMillisecond);
  lead::Settings settings = lead_settings(0);
  settings.pid += 1;
  settings.seed = 100;
  scene.cluster.restart_lead(settings);
  scene.cluster.run_for(1500 * kMillisecond);
}

void another_lead_takes_over(Scene& scene) {
  scene.attach_all();
  scene.cluster.run_for(1100 * kMillisecond);
  scene.cluster.stop_lead();
  lead::Settings settings = lead_settings(0);
  settings.address = 0x0A000005;
  settings.pid = 99;
  settings.standby = true;
  scene.cluster.add_lead(settings);
  scene.cluster.run_for(9500 * kMillisecond);
}

void nobody_answers(Scene& scene) {
  scene.cluster.run_for(1100 * kMillisecond);
  scene.cluster.stop_lead();
  scene.node().act(Do::kGetFile, {1, 1, 1, 0, 9, 0, 'x'});
  scene.node().act(Do::kSendMessage, {3, 0, 10, 0});
  scene.cluster.run_for(6 * kSecond);
}

// Lists, announcements and segments that a working lead does not send.
void hostile_names(Scene& scene) {
  uint32_t id = 100;
  for (const char* name : {"../f0", "/etc/f0", "a/../../f0", "d//f3", "f0.tmp"}) {
    for (const uint32_t location : {1u, 4u, 7u}) {
      scene.node().act(Do::kFileList, support::encoded_file_send(
                                          {.operation = 1, .names = {name}, .location = location}));
      scene.node().act(
          Do::kData,
          payload_of(support::data_datagram(
              PKGDIST_DATA_MSG_FILE_INFO,
              support::encoded_info(
                  {.id = ++id, .name = name, .size = 3, .mtime = 1, .location = location}),
              0)));
      scene.node().act(Do::kData, payload_of(support::data_datagram(
                                      PKGDIST_DATA_MSG_SEGMENT,
                                      support::encoded_segment(id, 0, {97, 98, 99}), 0)));
    }
  }
}

// Segments that are too long, too short and of no file, before and between good ones.
void bad_lengths(Scene& scene) {
  const auto send = [&](uint32_t id, uint32_t segment, size_t length) {
    scene.node().act(Do::kData, payload_of(support::data_datagram(
                                    PKGDIST_DATA_MSG_SEGMENT,
                                    support::encoded_segment(id, segment, Bytes(length, 's')), 0)));
  };
  uint32_t id = 200;
  for (const uint32_t location : {1u, 2u}) {
    scene.node().act(Do::kFileList, support::encoded_file_send(
                                        {.operation = 1, .names = {"f1"}, .location = location}));
    scene.node().act(
        Do::kData,
        payload_of(support::data_datagram(
            PKGDIST_DATA_MSG_FILE_INFO,
            support::encoded_info({.id = ++id, .name = "f1", .location = location}), 0)));
    for (const size_t length : {3u, 5u, 0u, 4u}) send(id, 0, length);
    for (const size_t length : {3u, 1u, 2u}) send(id, 2, length);
    send(id, 3, 4);
    for (const size_t length : {0u, 8u, 4u}) send(id, 1, length);
  }
}

// A sequence so far ahead that the database of messages is full before the gap is noted.
void wide_gap(Scene& scene) {
  const auto say = [&](uint32_t sequence) {
    scene.node().act(Do::kControl,
                     payload_of(support::ping(sequence, {}, {.address = LiveNode::kLead})));
  };
  say(1);
  say(70'000);
}

// --- Files ---

void write_input(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

Bytes node_input(uint8_t options, const Recording& recording, std::span<const Do> actions) {
  Bytes input{options};
  for (const NodeStep& step : recording.node) {
    const auto found = std::find(actions.begin(), actions.end(), step.what);
    if (found != actions.end())
      append_step(input, static_cast<uint8_t>(found - actions.begin()), step.payload);
  }
  return input;
}

void write_scene(const std::filesystem::path& root, const char* name, void (*play)(Scene&),
                 std::set<Bytes>& messages) {
  Recording recording;
  {
    Scene scene;
    play(scene);
    recording = scene.recording;
  }
  const std::string file = std::string("seed-") + name;
  const uint8_t options = play == wide_gap ? kMuchMemory : uint8_t{kNoLeadYet};
  write_input(root / "control" / file, node_input(options, recording, kControlActions));
  write_input(root / "data" / file, node_input(options, recording, kDataActions));
  write_input(root / "lead" / file, recording.lead);
  messages.insert(recording.messages.begin(), recording.messages.end());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus DIRECTORY\n");
    return 2;
  }
  const std::filesystem::path root = argv[1];
  for (const char* target : {"codec", "control", "data", "lead"})
    std::filesystem::create_directories(root / target);
  std::set<Bytes> messages;
  const std::pair<const char*, void (*)(Scene&)> scenes[] = {
      {"push", push},
      {"lossy-push-1", lossy_push<1>},
      {"lossy-push-2", lossy_push<2>},
      {"lossy-push-3", lossy_push<3>},
      {"memory", push_into_memory},
      {"get", get_files},
      {"messages-to-node", messages_to_the_node},
      {"lossy-messages-1", lossy_messages<1>},
      {"lossy-messages-2", lossy_messages<2>},
      {"messages-of-node", messages_of_the_node},
      {"cancel-delete", cancel_and_delete},
      {"lead-restarts", lead_restarts},
      {"takeover", another_lead_takes_over},
      {"nobody", nobody_answers},
      {"names", hostile_names},
      {"bad-lengths", bad_lengths},
      {"wide-gap", wide_gap},
  };
  for (const auto& [name, play] : scenes) write_scene(root, name, play, messages);
  // A standby with nobody around it, whose loop has nothing to do.
  Bytes standby{kListensFirst | kStandsBy};
  for (const uint8_t node : {uint8_t{0}, uint8_t{1}})
    append_step(standby, static_cast<uint8_t>(LeadDo::kNode), Bytes{node, 0});
  write_input(root / "lead" / "seed-standby", standby);
  size_t number = 0;
  for (const Bytes& message : messages)
    write_input(root / "codec" / ("seed-" + std::to_string(++number)), message);
  std::printf("%zu scenes, %zu messages\n", std::size(scenes), messages.size());
  return 0;
}
