// The yardstick of the throughput benchmark: a sender that multicasts bytes as fast as it is told
// to and a receiver that does nothing but select(), recvfrom() and write(). No protocol, no repair:
// what is lost is lost.
#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kPayloadBytes = 1400;  // as a data segment of the lead
constexpr size_t kBatch = 32;           // datagrams between two looks at the clock
constexpr int kReceiveBufferBytes = 3 * 1024 * 1024;

struct Options {
  std::string interface;
  std::string group = "239.255.71.9";
  uint16_t port = 7199;
  uint64_t bytes = 0;
  double megabits = 1000;
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
  const sockaddr_in group = group_of(options);
  const std::vector<char> payload(kPayloadBytes, 'x');
  const double bytes_per_second = options.megabits * 1e6 / 8;
  const auto start = Clock::now();
  uint64_t sent = 0;
  while (sent < options.bytes) {
    for (size_t i = 0; i < kBatch; ++i, sent += kPayloadBytes)
      (void)sendto(socket, payload.data(), payload.size(), 0,
                   reinterpret_cast<const sockaddr*>(&group), sizeof group);
    const double due = static_cast<double>(sent) / bytes_per_second;
    if (const double early = due - seconds_since(start); early > 0)
      std::this_thread::sleep_for(std::chrono::duration<double>(early));
  }
  fmt::print("{{\"sent\": {}, \"seconds\": {:.4f}}}\n", sent, seconds_since(start));
}

// Receives until nothing has come for a second.
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
  std::vector<char> buffer(2048);
  uint64_t received = 0;
  Clock::time_point first, last;
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval wait = {received == 0 ? 30 : 1, 0};
    if (select(socket + 1, &readable, nullptr, nullptr, &wait) <= 0) break;
    const ssize_t length = recvfrom(socket, buffer.data(), buffer.size(), 0, nullptr, nullptr);
    if (length <= 0) break;
    last = Clock::now();
    if (received == 0) first = last;
    check(static_cast<int>(write(file, buffer.data(), static_cast<size_t>(length))), "write");
    received += static_cast<uint64_t>(length);
  }
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
