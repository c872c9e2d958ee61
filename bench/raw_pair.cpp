// The yardstick of the throughput benchmark: a sender that multicasts bytes as fast as it is told
// to, one datagram or several (by segmentation offload) to a call, and a receiver that has the
// shape of the library's receive side and nothing else of it: select(), one recvfrom() for each
// datagram, a copy of its own on a queue, and a second thread that seeks and writes. No protocol,
// no repair: what is lost is lost.
#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kPayloadBytes = 1400;  // as a data segment of the lead
constexpr int kReceiveBufferBytes = 3 * 1024 * 1024;

struct Options {
  std::string interface;
  std::string group = "239.255.71.9";
  uint16_t port = 7199;
  uint64_t bytes = 0;
  double megabits = 1000;
  uint16_t batch = 1;  // datagrams to a call
  std::string file;
};

in_addr address_of(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1)
    throw std::runtime_error("not an address: " + text);
  return address;
}

sockaddr_in group_of(const Options& options) {
  sockaddr_in group{};
  group.sin_family = AF_INET;
  group.sin_addr = address_of(options.group);
  group.sin_port = htons(options.port);
  return group;
}

void check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void send_bytes(const Options& options) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  check(socket, "socket");
  const in_addr interface = address_of(options.interface);
  check(setsockopt(socket, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface), "interface");
  const int segment = kPayloadBytes;
  if (options.batch > 1)
    check(setsockopt(socket, IPPROTO_UDP, UDP_SEGMENT, &segment, sizeof segment), "offload");
  const sockaddr_in group = group_of(options);
  const std::vector<char> payload(kPayloadBytes * options.batch, 'x');
  const double bytes_per_second = options.megabits * 1e6 / 8;
  const auto start = Clock::now();
  uint64_t sent = 0;
  for (; sent < options.bytes; sent += payload.size()) {
    (void)sendto(socket, payload.data(), payload.size(), 0,
                 reinterpret_cast<const sockaddr*>(&group), sizeof group);
    const double due = static_cast<double>(sent) / bytes_per_second;
    if (const double early = due - seconds_since(start); early > 1e-4)
      std::this_thread::sleep_for(std::chrono::duration<double>(early));
  }
  fmt::print("{{\"sent\": {}, \"seconds\": {:.4f}}}\n", sent, seconds_since(start));
}

// Datagrams on their way from the socket's thread to the file's.
class Queue {
 public:
  struct Datagram {
    char* data = nullptr;  // malloc'd
    size_t length = 0;
  };

  void put(const char* data, size_t length) {
    char* copy = static_cast<char*>(std::malloc(length));
    if (copy == nullptr) throw std::bad_alloc();
    std::memcpy(copy, data, length);
    const std::lock_guard lock(mutex_);
    datagrams_.push_back({copy, length});
    if (waiting_) arrived_.notify_one();
  }
  void close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    arrived_.notify_one();
  }
  // False when it is closed and empty.
  bool take(Datagram& next) {
    std::unique_lock lock(mutex_);
    waiting_ = true;
    arrived_.wait(lock, [this] { return closed_ || !datagrams_.empty(); });
    waiting_ = false;
    if (datagrams_.empty()) return false;
    next = datagrams_.front();
    datagrams_.pop_front();
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Datagram> datagrams_;
  bool waiting_ = false;
  bool closed_ = false;
};

// Gives the time of the last write.
Clock::time_point write_all(Queue& queue, int file) {
  off_t offset = 0;
  Clock::time_point last;
  for (Queue::Datagram next; queue.take(next);) {
    check(static_cast<int>(lseek(file, offset, SEEK_SET) < 0 ? -1 : 0), "seek");
    check(static_cast<int>(write(file, next.data, next.length)), "write");
    offset += static_cast<off_t>(next.length);
    std::free(next.data);
    last = Clock::now();
  }
  return last;
}

// Waits for a datagram; false when none has come for a second, or for a minute at the start.
bool wait_readable(int socket, bool started) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(socket, &readable);
  timeval wait = {started ? 1 : 60, 0};
  return select(socket + 1, &readable, nullptr, nullptr, &wait) > 0;
}

void receive_bytes(const Options& options) {
  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  check(socket, "socket");
  check(setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof kReceiveBufferBytes),
        "receive buffer");
  const sockaddr_in group = group_of(options);
  check(bind(socket, reinterpret_cast<const sockaddr*>(&group), sizeof group), "bind");
  const ip_mreq membership = {group.sin_addr, address_of(options.interface)};
  check(setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), "join");
  const int file = open(options.file.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  check(file, "open");
  fmt::print("{{\"ready\": true}}\n");
  (void)std::fflush(stdout);

  Queue queue;
  Clock::time_point first, last;
  std::thread writer([&] { last = write_all(queue, file); });
  std::vector<char> buffer(2048);
  uint64_t received = 0;
  while (wait_readable(socket, received != 0)) {
    const ssize_t length = recvfrom(socket, buffer.data(), buffer.size(), 0, nullptr, nullptr);
    if (length <= 0) break;
    if (received == 0) first = Clock::now();
    queue.put(buffer.data(), static_cast<size_t>(length));
    received += static_cast<uint64_t>(length);
  }
  queue.close();
  writer.join();
  fmt::print("{{\"received\": {}, \"seconds\": {:.4f}}}\n", received,
             std::chrono::duration<double>(last - first).count());
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("A multicast sender and receiver without a protocol.", "raw_pair");
  Options options;
  app.add_option("--interface", options.interface)->required();
  app.add_option("--group", options.group);
  app.add_option("--port", options.port);
  app.require_subcommand(1);
  CLI::App* send = app.add_subcommand("send", "send --bytes at --rate");
  send->add_option("--bytes", options.bytes)->required();
  send->add_option("--rate", options.megabits, "Mbit/s");
  send->add_option("--batch", options.batch, "datagrams to a call")->check(CLI::Range(1, 44));
  CLI::App* receive = app.add_subcommand("receive", "receive into --file until the stream ends");
  receive->add_option("--file", options.file)->required();
  app.fallthrough();
  CLI11_PARSE(app, argc, argv);
  try {
    send->parsed() ? send_bytes(options) : receive_bytes(options);
    return 0;
  } catch (const std::exception& error) {
    fmt::print(stderr, "raw_pair: {}\n", error.what());
    return 1;
  }
}
