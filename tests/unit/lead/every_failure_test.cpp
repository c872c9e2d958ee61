// Every system call of the lead's shell fails once in turn: its sockets, its store of files.
//
// At start-up the failure is told, with the step that failed, and nothing stays open. While it runs
// a push completes all the same, or reports the file that it could not read.
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <system_error>

#include "faults.h"
#include "model_node.h"
#include "pkgdist/status.h"
#include "pkgdist_lead/directory_store.h"
#include "pkgdist_lead/udp_transport.h"

namespace {

// Directories are read inside the C++ library: these two stand before the C library's.
unsigned directory_calls = 0;
unsigned failing_directory_call = 0;

bool directory_call_fails() {
  if (++directory_calls != failing_directory_call) return false;
  errno = EIO;
  return true;
}

}  // namespace

extern "C" DIR* fdopendir(int fd) {
  static const auto next = reinterpret_cast<DIR* (*)(int)>(dlsym(RTLD_NEXT, "fdopendir"));
  return directory_call_fails() ? nullptr : next(fd);
}
extern "C" dirent* readdir(DIR* directory) {
  static const auto next = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
  return directory_call_fails() ? nullptr : next(directory);
}

namespace pkgdist::lead {
namespace {

using support::Call;
namespace faults = support::faults;
namespace fs = std::filesystem;

constexpr uint32_t kLead = 0x7F000001;
constexpr unsigned kMostCalls = 500;

size_t open_descriptors() {
  const fs::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all))) - 1;
}

std::string reason(int error) {
  return std::generic_category().message(error);
}

class LeadFailures : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "lead-failures-XXXXXX").string();
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    root_ = name;
    store_.set_root(1, root_.string());
  }
  void TearDown() override {
    faults::clear();
    fs::remove_all(root_);
  }

  // Runs `scenario` with the n-th call of a kind failing, for n = 1, 2, ... until it makes no more.
  // How many failures there were.
  unsigned sweep(Call call, int error, const std::function<void(unsigned nth)>& scenario) {
    unsigned nth = 1;
    for (; nth < kMostCalls; ++nth) {
      const testing::ScopedTrace trace(
          __FILE__, __LINE__, std::string(support::name_of(call)) + " " + std::to_string(nth));
      const size_t before = open_descriptors();
      faults::clear();
      faults::fail(call, nth, error);
      scenario(nth);
      const bool reached = faults::calls(call) >= nth;
      faults::clear();
      EXPECT_EQ(open_descriptors(), before) << "a descriptor is left over";
      if (!reached) break;
    }
    injected_ += nth - 1;
    RecordProperty("injected_failures", static_cast<int>(injected_));
    return nth - 1;
  }

  void write(const std::string& name, const std::string& text) {
    fs::create_directories((root_ / name).parent_path());
    std::ofstream(root_ / name) << text;
  }
  static uint16_t port(int number) {
    return static_cast<uint16_t>(20'000 + (getpid() * 8 + number) % 20'000);
  }
  static UdpSettings settings() {
    return {.address = kLead,
            .ctrl_group = 0xEFFF4D05,
            .ctrl_port = port(0),
            .data_group = 0xEFFF4D06,
            .data_port = port(1),
            .lead_port = port(2),
            .node_port = port(3),
            .req_port = port(4)};
  }

  fs::path root_;
  DirectoryStore store_;
  unsigned injected_ = 0;
};

// --- Start-up ---

// What the transport says of a failed step: the channel, then the step.
TEST_F(LeadFailures, a_socket_that_cannot_be_made_or_bound_is_named) {
  const auto starts = [&](const std::vector<std::string>& steps) {
    return [&, steps](unsigned nth) {
      try {
        const UdpTransport transport(settings());
        EXPECT_GT(nth, steps.size()) << "started all the same";
      } catch (const std::system_error& error) {
        ASSERT_LE(nth, steps.size()) << error.what();
        EXPECT_EQ(std::string(error.what()), steps[nth - 1] + ": " + reason(EIO));
        EXPECT_EQ(error.code().value(), EIO);
      }
    };
  };
  const std::vector<std::string> sockets = {"control channel: socket", "data channel: socket",
                                            "request port: socket", "control group: socket"};
  EXPECT_EQ(sweep(Call::kSocket, EIO, starts(sockets)), sockets.size());
  const auto bound = [](const char* channel, int number) {
    return std::string(channel) + ": cannot use port " + std::to_string(number) +
           " of the interface";
  };
  const std::vector<std::string> binds = {bound("control channel", port(2)),
                                          bound("request port", port(4)), bound("data channel", 0)};
  // The fourth is the control group's, which a program of another user may have.
  unsigned last = 0;
  EXPECT_EQ(sweep(Call::kBind, EIO,
                  [&](unsigned nth) {
                    last = nth;
                    if (nth <= binds.size()) return starts(binds)(nth);
                    const UdpTransport transport(settings());
                    EXPECT_EQ(transport.hears_group(), nth > binds.size() + 1);
                  }),
            binds.size() + 1);
}

TEST_F(LeadFailures, an_option_that_cannot_be_set_is_named_or_done_without) {
  const std::vector<std::string> multicast = {
      "setsockopt IP_MULTICAST_IF", "setsockopt IP_MULTICAST_LOOP", "setsockopt IP_MULTICAST_TTL"};
  unsigned refused = 0;
  unsigned without_group = 0;
  const unsigned calls = sweep(Call::kSetsockopt, EIO, [&](unsigned nth) {
    try {
      const UdpTransport transport(settings());
      without_group += transport.hears_group() ? 0 : 1;
      EXPECT_GT(nth, 6u);
    } catch (const std::system_error& error) {
      ++refused;
      ASSERT_LE(nth, 6u) << error.what();
      const std::string channel = nth <= 3 ? "control channel: " : "data channel: ";
      EXPECT_EQ(std::string(error.what()), channel + multicast[(nth - 1) % 3] + ": " + reason(EIO));
    }
  });
  EXPECT_EQ(refused, 6u);
  EXPECT_EQ(without_group, 3u);  // reuse, which groups, membership
  EXPECT_GE(calls, 12u);         // buffers smaller than wanted do as well
}

// --- While it runs ---

// A modelled node behind real sockets. What it does itself never fails.
class SocketNode {
 public:
  explicit SocketNode(const UdpSettings& lead)
      : lead_(lead),
        group_(bound(lead.ctrl_group, lead.ctrl_port, lead.ctrl_group)),
        data_(bound(lead.data_group, lead.data_port, lead.data_group)),
        own_(bound(kNode, lead.node_port, 0)),
        node_({.address = kNode, .pid = 1}, disk_,
              [this](test::ModelNode::To to, test::Bytes bytes) { send(to, bytes); }) {}
  ~SocketNode() {
    const faults::Paused paused;
    for (const int socket : {group_, data_, own_}) ::close(socket);
  }
  SocketNode(const SocketNode&) = delete;
  SocketNode& operator=(const SocketNode&) = delete;

  void turn(Time now) {
    const faults::Paused paused;
    take(group_, [&](const auto& bytes) { node_.on_control(bytes, now); });
    take(own_, [&](const auto& bytes) { node_.on_control(bytes, now, true); });
    take(data_, [&](const auto& bytes) { node_.on_data(bytes, now); });
    node_.run(now);
  }
  Time next_deadline() const { return node_.next_deadline(); }
  const test::Disk& disk() const { return disk_; }

 private:
  static constexpr uint32_t kNode = 0x7F000002;

  static int bound(uint32_t address, uint16_t port, uint32_t group) {
    const faults::Paused paused;
    const int made = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const int on = 1;
    EXPECT_EQ(::setsockopt(made, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
    const sockaddr_in name = endpoint(address, port);
    EXPECT_EQ(::bind(made, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(kLead);
    EXPECT_TRUE(group == 0 || ::setsockopt(made, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                                           sizeof membership) == 0);
    return made;
  }
  static sockaddr_in endpoint(uint32_t address, uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(address);
    return name;
  }
  void send(test::ModelNode::To to, const test::Bytes& bytes) const {
    const uint16_t port = to == test::ModelNode::To::kControl ? lead_.lead_port : lead_.req_port;
    const sockaddr_in name = endpoint(kLead, port);
    EXPECT_EQ(::sendto(own_, bytes.data(), bytes.size(), 0,
                       reinterpret_cast<const sockaddr*>(&name), sizeof name),
              static_cast<ssize_t>(bytes.size()));
  }
  template <class Handler>
  static void take(int socket, Handler&& handler) {
    uint8_t buffer[2'048];
    for (;;) {
      const ssize_t got = ::recv(socket, buffer, sizeof buffer, 0);
      if (got <= 0) return;
      handler(std::span<const uint8_t>(buffer, static_cast<size_t>(got)));
    }
  }

  const UdpSettings lead_;
  test::Disk disk_;
  int group_, data_, own_;
  test::ModelNode node_;
};

class RunningLeadFailures : public LeadFailures {
 protected:
  void SetUp() override {
    LeadFailures::SetUp();
    write("first", std::string(3'000, 'a'));
    write("directory/second", "b");
    fs::create_symlink("first", root_ / "link");
    request_.files = {{"directory/second", 1}, {"first", 3'000}, {"link", 5}};
  }

  struct Outcome {
    bool finished = false;
    Time finished_at = 0;
    uint64_t send_errors = 0;
    std::map<uint32_t, uint64_t> failed;  // index of the file -> status
    test::Disk disk;
  };

  // A push to one node over the loopback interface, where datagrams take no time; the clock is the
  // test's.
  Outcome push() {
    Events events;
    UdpTransport transport(settings());
    Settings lead_settings;
    lead_settings.address = kLead;
    lead_settings.pid = 4'711;
    lead_settings.seed = 1;
    Lead lead(lead_settings, transport, store_, events);
    SocketNode node(settings());
    Time now = kSecond;
    const Time end = 60 * kSecond;
    EXPECT_EQ(lead.start_push(request_, now), nullptr);
    while (lead.push_running() && now < end) {
      transport.receive(lead, now);
      lead.run(now);
      transport.flush();
      node.turn(now);
      now = std::max(now + kMillisecond / 10,
                     std::min(lead.next_deadline(now), node.next_deadline()));
    }
    const PushReport report = lead.push_report();
    Outcome outcome{
        !lead.push_running(), report.finished_at, transport.send_errors(), {}, node.disk()};
    if (report.nodes.size() == 1) outcome.failed = report.nodes[0].failed;
    return outcome;
  }

  // Every file is on the node, or reported as failed with the error.
  void expect_all_but_failed(const Outcome& outcome, int error) {
    EXPECT_TRUE(outcome.finished);
    for (uint32_t i = 0; i < request_.files.size(); ++i) {
      const std::string& name = request_.files[i].name;
      const auto stored = outcome.disk.find(test::disk_key(1, name));
      const auto failed = outcome.failed.find(i);
      ASSERT_NE(stored != outcome.disk.end(), failed != outcome.failed.end()) << name;
      if (failed != outcome.failed.end())
        EXPECT_EQ(failed->second, PKGDIST_STATUS_FROM_ERRNO(static_cast<uint64_t>(error))) << name;
      else
        EXPECT_EQ(stored->second.content.size(), request_.files[i].size) << name;
    }
  }

  PushRequest request_;
};

TEST_F(RunningLeadFailures, a_datagram_that_cannot_be_sent_is_counted_or_sent_again) {
  uint64_t counted = 0;
  const Time usual = push().finished_at;
  for (const int error : {EIO, EINTR, EAGAIN}) {
    const unsigned calls = sweep(Call::kSendmmsg, error, [&](unsigned) {
      const Outcome outcome = push();
      expect_all_but_failed(outcome, 0);
      EXPECT_TRUE(outcome.failed.empty());
      if (error != EIO) {  // sent again at once: nothing is missing that a repair would cost time
        EXPECT_EQ(outcome.send_errors, 0u);
        EXPECT_EQ(outcome.finished_at, usual);
      }
      counted += outcome.send_errors;
    });
    EXPECT_GE(calls, 5u);
  }
  EXPECT_GT(counted, 0u);
  // The send buffer is full, and stays so.
  EXPECT_GE(sweep(Call::kSendmmsg, EAGAIN,
                  [&](unsigned nth) {
                    faults::fail(Call::kPoll, 1, EIO);
                    const Outcome outcome = push();
                    expect_all_but_failed(outcome, 0);
                    EXPECT_EQ(outcome.send_errors > 0, faults::calls(Call::kSendmmsg) >= nth);
                  }),
            5u);
}

TEST_F(RunningLeadFailures, a_receive_that_fails_is_made_again) {
  EXPECT_GT(sweep(Call::kRecvmmsg, EIO,
                  [&](unsigned) {
                    const Outcome outcome = push();
                    expect_all_but_failed(outcome, 0);
                    EXPECT_TRUE(outcome.failed.empty());
                  }),
            5u);
}

TEST_F(RunningLeadFailures, a_file_that_cannot_be_read_is_reported_and_the_others_arrive) {
  for (const Call call : {Call::kOpen, Call::kOpenat2, Call::kFstat, Call::kPread}) {
    size_t failures = 0;
    const unsigned calls = sweep(call, EACCES, [&](unsigned) {
      const Outcome outcome = push();
      expect_all_but_failed(outcome, EACCES);
      EXPECT_LE(outcome.failed.size(), 1u);
      failures += outcome.failed.size();
    });
    EXPECT_GE(calls, 1u) << support::name_of(call);
    EXPECT_GE(failures, 1u) << support::name_of(call);
  }
  // A descriptor is gone however its closing ends.
  EXPECT_GE(sweep(Call::kClose, EIO,
                  [&](unsigned) {
                    const Outcome outcome = push();
                    expect_all_but_failed(outcome, 0);
                    EXPECT_TRUE(outcome.failed.empty());
                  }),
            2u);
}

TEST_F(RunningLeadFailures, a_wait_that_fails_ends_early) {
  EXPECT_EQ(sweep(Call::kPpoll, EINTR,
                  [&](unsigned) {
                    UdpTransport transport(settings());
                    EXPECT_FALSE(transport.wait(monotonic_now() + kMillisecond, -1));
                  }),
            1u);
}

// --- Collecting ---

TEST_F(RunningLeadFailures, what_of_a_tree_cannot_be_read_is_named_before_the_push) {
  unsigned directories = 0;
  // Of three files and two directories.
  EXPECT_EQ(sweep(Call::kLstat, EIO,
                  [&](unsigned) {
                    const FileTree tree = collect_files(root_.string(), {"."});
                    EXPECT_TRUE(tree.problems.empty());
                    if (tree.left_out.empty()) return;  // none failed
                    ASSERT_EQ(tree.left_out.size(), 1u);
                    EXPECT_NE(tree.left_out[0].reason.find(reason(EIO)), std::string::npos);
                    EXPECT_TRUE(!tree.all_read || tree.files.size() == 2);
                    if (!tree.all_read) ++directories;
                  }),
            5u);
  EXPECT_EQ(directories, 2u);
  unsigned failures = 0;
  for (unsigned nth = 1; nth < kMostCalls; ++nth) {
    const size_t before = open_descriptors();
    directory_calls = 0;
    failing_directory_call = nth;
    const FileTree tree = collect_files(root_.string(), {"."});
    failing_directory_call = 0;
    const bool reached = directory_calls >= nth;
    EXPECT_EQ(open_descriptors(), before) << "a descriptor is left over";
    if (!reached) break;
    ++failures;
    ASSERT_EQ(tree.left_out.size(), 1u) << "call " << nth;
    EXPECT_NE(tree.left_out[0].reason.find(reason(EIO)), std::string::npos);
  }
  EXPECT_GT(failures, 4u);
}

}  // namespace
}  // namespace pkgdist::lead
