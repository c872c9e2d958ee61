// message, cancel, delete: hands a request to the lead that runs on this host, shows what became of
// it, and exits by that.
#include <fmt/core.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <CLI/Error.hpp>
#include <cstring>
#include <stdexcept>

#include "commands.h"
#include "control_path.h"
#include "control_protocol.h"
#include "json_events.h"
#include "poller.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

// Beyond the wait for the nodes: the lead may have to listen for others first, and lists wait for
// those before them.
constexpr double kPatienceSeconds = 15;

Request make_request(const LeadOptions& options) {
  Request request;
  request.timeout_seconds = options.answer_seconds;
  if (!options.nodes.empty())
    request.audience = lead::Audience::only(options.nodes);
  else if (options.card_class != 0)
    request.audience = lead::Audience::of_class(options.card_class);
  if (options.command == Command::kCancel) {
    request.kind = lead::MessageKind::kCancel;
    request.transaction = options.transaction;
  } else if (options.command == Command::kDelete) {
    request.kind = lead::MessageKind::kDelete;
    request.location = options.location;
    request.names = options.paths;
  } else {
    const std::string text = cli::message_bytes(options.message);
    if (text.empty()) throw CLI::ValidationError("an empty message cannot be sent");
    if (text.size() > lead::kMaxMessageSize)
      throw CLI::ValidationError(
          fmt::format("the message is longer than {} bytes", lead::kMaxMessageSize));
    request.msg_class = options.message_class;
    request.bytes.assign(text.begin(), text.end());
  }
  return request;
}

// The lead's end of the connection must be of the same user, or of root: the path may be in a
// directory where everybody can make a socket.
Fd connect_to(const std::string& path) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    const bool absent = errno == ENOENT || errno == ECONNREFUSED;
    throw std::runtime_error(fmt::format(
        "no lead takes commands at {}: {}", path,
        absent ? "none is running with this interface and port" : std::strerror(errno)));
  }
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
      (peer.uid != ::geteuid() && peer.uid != 0))
    throw std::runtime_error(fmt::format("the socket {} belongs to another user", path));
  return fd;
}

void send_all(const Fd& fd, const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    if (!cli::wait_unless_stopped(fd.get(), POLLOUT, kPatienceSeconds))
      throw std::runtime_error(cli::stop_signal() != 0 ? cli::stop_text()
                                                       : "the lead does not take the request");
    const ssize_t some =
        ::send(fd.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (some < 0 && errno != EINTR && errno != EAGAIN)
      throw std::runtime_error("the lead does not take the request");
    if (some > 0) sent += static_cast<size_t>(some);
  }
}

class Answers {
 public:
  // Waits so long for each answer.
  Answers(const Fd& fd, double patience_seconds) : fd_(fd), patience_(patience_seconds) {}

  Json next() {
    size_t end = 0;
    while ((end = buffer_.find('\n')) == std::string::npos) {
      if (!cli::wait_unless_stopped(fd_.get(), POLLIN, patience_)) give_up();
      std::array<char, 4096> some;
      const ssize_t got = ::recv(fd_.get(), some.data(), some.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got == 0) throw std::runtime_error("the lead has ended");
      if (got < 0) throw std::runtime_error(fmt::format("recv: {}", std::strerror(errno)));
      buffer_.append(some.data(), static_cast<size_t>(got));
    }
    const std::string line = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    Json answer = Json::parse(line, nullptr, false);
    if (!answer.is_object()) throw std::runtime_error("the lead's answer makes no sense");
    return answer;
  }

 private:
  [[noreturn]] void give_up() const {
    if (cli::stop_signal() == 0)
      throw std::runtime_error(fmt::format("the lead has not answered for {} s", patience_));
    throw std::runtime_error(cli::stop_text() + ": the lead goes on with the request");
  }

  const Fd& fd_;
  double patience_;
  std::string buffer_;
};

void print(const std::string& line) {
  cli::standard_output().line(line, cli::Output::Kind::kResult);
}

// The table of those who did not acknowledge, under its head.
class Table {
 public:
  void line(const Json& outcome) {
    if (outcome.value("acknowledged", false)) return;
    if (!std::exchange(begun_, true)) print(fmt::format("{:<16}  {}", "not acknowledged", "why"));
    print(fmt::format("{:<16}  {}", outcome.value("node", ""), outcome.value("reason", "")));
  }

 private:
  bool begun_ = false;
};

int finish(const Json& end) {
  const bool complete = end.value("complete", false);
  const auto acknowledged = end.value("acknowledged", uint64_t{0});
  const auto missing = end.value("missing", uint64_t{0});
  if (acknowledged + missing == 0)
    print("the lead knows no node that this is for");
  else
    print(fmt::format("{} of {} nodes acknowledged", acknowledged, acknowledged + missing));
  return complete ? cli::kExitOk : cli::kExitFailure;
}

int show_answers(Answers& answers, const cli::JsonEvents& json) {
  Table table;
  for (;;) {
    Json answer = answers.next();
    const std::string event = answer.value("event", "");
    answer.erase("event");
    json.print(event, answer, cli::Output::Kind::kResult);
    if (event == "error") throw std::runtime_error(answer.value("text", "refused"));
    if (event == "outcome" && !json.enabled()) table.line(answer);
    if (event != "done") continue;
    if (!json.enabled()) return finish(answer);
    return answer.value("complete", false) ? cli::kExitOk : cli::kExitFailure;
  }
}

}  // namespace

int request_command(const LeadOptions& options) {
  const Request request = make_request(options);
  const Fd fd = connect_to(control_path(options));
  send_all(fd, encode_request(request));
  Answers answers(fd, options.answer_seconds + kPatienceSeconds);
  return show_answers(answers, cli::JsonEvents(options.common.json));
}

}  // namespace pkgdist::lead_program
