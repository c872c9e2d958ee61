// What the receive path of a node costs per datagram, without a lead.
//
// First stage by stage, on one thread: a number of datagrams is put into a socket on the loopback
// interface, and then receiving and queueing, taking from the queue, and processing with the write
// are timed one after the other. Then as it runs: the library's own two threads receive a multicast
// stream on the loopback interface at a fixed rate, each datagram with a call of its own, and their
// processor time is read from the kernel. What the kernel or the queue dropped is not sent again.
//
// Processor time and no wall time; on a busy machine still a noisy number: compare runs that took
// turns. The file is written to a directory in memory and removed.
#include <arpa/inet.h>
#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "pkgdist_codec.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_rx_batch.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_lock.h"
#include "pkgdist_socket.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kSegmentBytes = 1390;
constexpr uint32_t kLead = 0x7F000001;  // 127.0.0.1
constexpr uint32_t kNode = 0x7F000002;
constexpr uint32_t kGroup = 0xEFFF4D09;  // 239.255.77.9

// Every measurement has a file of its own.
struct File {
  uint32_t id;
  uint32_t segments;
  std::string name() const { return "file" + std::to_string(id); }
};

struct Options {
  std::vector<size_t> turns{1, 4, 32};  // datagrams that are ready together
  std::vector<double> megabits{200, 500, 1000};
  uint32_t megabytes = 128;
  std::string directory = "/dev/shm";
  uint16_t port = 7198;
};

uint64_t nanoseconds(clockid_t id) {
  timespec now{};
  clock_gettime(id, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// --- Datagrams of a lead ---

template <class Message>
Bytes encoded(const Message& message) {
  Bytes bytes(static_cast<size_t>(pkgdist::encode(message, nullptr, 0)));
  (void)pkgdist::encode(message, bytes.data(), bytes.size());
  return bytes;
}

template <class Body>
Bytes datagram(uint32_t kind, const Body& body) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, kind);
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, kLead);
  const Bytes head = encoded(header);
  const Bytes rest = encoded(body);
  Bytes whole = {0, 0, 0, static_cast<uint8_t>(head.size())};
  whole.insert(whole.end(), head.begin(), head.end());
  whole.insert(whole.end(), rest.begin(), rest.end());
  return whole;
}

Bytes announcement(const File& file) {
  using Info = pkgdist_data_send_file_info;
  Info info{};
  std::string name = file.name();
  qidl::set<&Info::file_id>(info, file.id);
  qidl::set<&Info::name>(info, name.data());
  qidl::set<&Info::size>(info, file.segments * kSegmentBytes);
  qidl::set<&Info::segment_size>(info, kSegmentBytes);
  qidl::set<&Info::mode>(info, 0644u);
  return datagram(PKGDIST_DATA_MSG_FILE_INFO, info);
}

Bytes segment(const File& file, uint32_t number) {
  using Segment = pkgdist_data_send_segment;
  static const Bytes content(kSegmentBytes, 'x');
  Segment message{};
  qidl::set<&Segment::file_id>(message, file.id);
  qidl::set<&Segment::segment>(message, number);
  qidl::set<&Segment::data>(message, content.data());
  message.data_size = content.size();
  return datagram(PKGDIST_DATA_MSG_SEGMENT, message);
}

void send_all(int socket, const Bytes& bytes) {
  if (send(socket, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    throw std::system_error(errno, std::generic_category(), "send");
}

int connected(uint32_t address, uint16_t port) {
  const int result = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  in_addr interface {};
  interface.s_addr = htonl(kNode);
  setsockopt(result, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(address);
  to.sin_port = htons(port);
  if (connect(result, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    throw std::system_error(errno, std::generic_category(), "connect");
  return result;
}

// --- The node ---

void want(const File& file) {
  const pkgdist::FileRecvDbGuard lock;
  if (pkgdist_file_recv_add_file(file.name().c_str(), 1, 1, 1, 2, 5) != 0)
    throw std::runtime_error("the file cannot be received");
}

bool is_waiting_for(const File& file) {
  const pkgdist::FileRecvDbGuard lock;
  return pkgdist::file_recv_find(file.id) != nullptr;
}

uint32_t datagrams_received() {
  return *pkgdist::counter_word(pkgdist_drt_ship_counter_hdl,
                                static_cast<uint32_t>(DrtCounter::kMcRxRecv));
}

// --- Stage by stage ---

struct Stages {
  uint64_t receive = 0;
  uint64_t take = 0;
  uint64_t process = 0;
};

uint64_t thread_time() {
  return nanoseconds(CLOCK_THREAD_CPUTIME_ID);
}

// What one reading of that clock costs.
uint64_t clock_cost() {
  constexpr int kTrials = 10'000;
  const uint64_t start = thread_time();
  for (int i = 0; i < kTrials; ++i) (void)thread_time();
  return (thread_time() - start) / kTrials;
}

// One turn of both threads, on this one.
void turn(int socket, Stages& stages) {
  static pkgdist::ReceiveBatch batch;
  static pkgdist::TakenEntries taken;
  static const uint64_t cost = clock_cost();
  const uint64_t start = thread_time();
  (void)batch.receive_first(socket);
  (void)batch.receive_ready(socket);
  batch.queue();
  const uint64_t queued = thread_time();
  {
    const pkgdist::MutexLock lock(G_pkgdist_file_recv_mutex);
    taken.take();
  }
  const uint64_t took = thread_time();
  {
    pkgdist::SegmentRun run;
    for (const pkgdist::OwnedQueueEntry& entry : taken.entries())
      pkgdist::process_datagram(entry->data, static_cast<ssize_t>(entry->length), run);
  }
  taken.free();
  const pkgdist::MutexLock lock(G_pkgdist_file_recv_mutex);
  taken.done();
  const uint64_t end = thread_time();
  const auto without_clock = [](uint64_t time) { return time > cost ? time - cost : 0; };
  stages.receive += without_clock(queued - start);
  stages.take += without_clock(took - queued);
  stages.process += without_clock(end - took);
}

void measure_stages(size_t together, const File& file) {
  want(file);
  const Bytes info = announcement(file);
  pkgdist_data_rx_process_msg(info.data(), static_cast<ssize_t>(info.size()));
  const int socket = pkgdist::udp_socket();
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (pkgdist::bind_socket(socket, kNode, 0) != 0 ||
      getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    throw std::system_error(errno, std::generic_category(), "bind");
  const int sender = connected(kNode, ntohs(address.sin_port));
  Stages stages;
  for (uint32_t sent = 0; sent < file.segments;) {
    for (size_t i = 0; i < together && sent < file.segments; ++i)
      send_all(sender, segment(file, sent++));
    turn(socket, stages);
  }
  close(sender);
  close(socket);
  const auto each = [&](uint64_t total) { return static_cast<double>(total) / file.segments; };
  fmt::print("{:>14} {:>18.0f} {:>10.0f} {:>18.0f} {:>8.0f}{}\n", together, each(stages.receive),
             each(stages.take), each(stages.process),
             each(stages.receive + stages.take + stages.process),
             is_waiting_for(file) ? "  INCOMPLETE" : "");
}

// --- As it runs ---

// Nanoseconds that a thread of this process has run, by its name.
uint64_t time_of_thread(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string found;
    uint64_t time = 0;
    std::ifstream(task.path() / "comm") >> found;
    std::ifstream(task.path() / "schedstat") >> time;
    if (found == name) return time;
  }
  return 0;
}

// The lead: a process of its own, so that its time is not ours.
void stream(uint16_t port, const File& file, double megabits) {
  const int socket = connected(kGroup, port);
  send_all(socket, announcement(file));
  const double nanoseconds_each = 8e3 * (kSegmentBytes + 70) / megabits;
  const auto start = Clock::now();
  for (uint32_t number = 0; number < file.segments; ++number) {
    const auto due =
        start + std::chrono::nanoseconds(static_cast<int64_t>(nanoseconds_each * number));
    while (Clock::now() < due) std::this_thread::yield();
    send_all(socket, segment(file, number));
  }
}

void measure_threads(const Options& options, const File& file, double megabits) {
  want(file);  // starts the threads
  const uint32_t before = datagrams_received();
  const uint64_t rx_before = time_of_thread("DATA_RX"), file_before = time_of_thread("DATA_FILE");
  const pid_t lead = fork();
  if (lead == 0) {
    stream(options.port, file, megabits);
    _exit(0);
  }
  int status = 0;
  waitpid(lead, &status, 0);
  for (int waited = 0; waited < 100 && is_waiting_for(file); ++waited)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const uint32_t received = datagrams_received() - before;
  const uint64_t rx_time = time_of_thread("DATA_RX") - rx_before;
  const uint64_t file_time = time_of_thread("DATA_FILE") - file_before;
  const auto each = [&](uint64_t total) {
    return static_cast<double>(total) / std::max(received, 1u);
  };
  const double gib = static_cast<double>(received) * kSegmentBytes / (1u << 30);
  fmt::print("{:>14.0f} {:>10} {:>8} {:>12.0f} {:>12.0f} {:>14.2f}\n", megabits, received,
             file.segments + 1 - received, each(rx_time), each(file_time),
             static_cast<double>(rx_time + file_time) / 1e9 / gib);
  std::fflush(stdout);
}

Options parse(int argc, char** argv) {
  Options options;
  CLI::App app("What the receive path costs per datagram, without a lead.");
  app.add_option("--turns", options.turns, "datagrams that are ready together, by stage")
      ->capture_default_str()
      ->check(CLI::Range(1, 32));
  app.add_option("--rates", options.megabits, "of the stream, Mbit/s on the wire")
      ->capture_default_str();
  app.add_option("--megabytes", options.megabytes, "size of the file")
      ->capture_default_str()
      ->check(CLI::Range(1, 2000));
  app.add_option("--directory", options.directory, "where the file is written")
      ->capture_default_str();
  app.add_option("--port", options.port, "of the data group")->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error));
  }
  return options;
}

void run(const Options& options, const std::string& directory) {
  G_my_node_ip = kNode;
  G_lead_uc_addr = kLead;
  // Nobody answers a request: what was dropped stays away, and the file stays where it is.
  G_data_rto.segment_timeout = G_data_rto.not_done_timeout = 3'600'000'000'000;
  if (instcomm_pkgdist_data_recv_init(kGroup, options.port, 7104) != 0)
    throw std::runtime_error("the data side cannot be started");
  (void)instcomm_pkgdist_set_recv_repository((directory + "/").c_str(), 1, false);
  const auto segments =
      static_cast<uint32_t>(uint64_t{options.megabytes} * 1'000'000 / kSegmentBytes);

  uint32_t id = 0;

  G_data_rx_thread_running = G_data_recv_file_thread_running = true;  // both are this thread
  if (pkgdist_file_recv_init() != 0) throw std::runtime_error("the queue cannot be made");
  fmt::print("{:>14} {:>18} {:>10} {:>18} {:>8}   ns a datagram\n", "ready together",
             "receive and queue", "take", "process and write", "all");
  for (const size_t together : options.turns) measure_stages(together, {++id, segments});
  G_data_rx_thread_running = G_data_recv_file_thread_running = false;

  fmt::print("\n{:>14} {:>10} {:>8} {:>12} {:>12} {:>14}\n", "Mbit/s", "received", "lost",
             "DATA_RX, ns", "DATA_FILE, ns", "CPU s/GiB");
  for (const double megabits : options.megabits)
    measure_threads(options, {++id, segments}, megabits);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::string directory = options.directory + "/receive-path-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    fmt::print(stderr, "{}: {}\n", directory, std::strerror(errno));
    return 1;
  }
  int result = 0;
  try {
    run(options, directory);
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    result = 1;
  }
  std::filesystem::remove_all(directory);
  return result;
}
