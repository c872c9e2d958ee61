#include "control_server.h"

#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <stdexcept>

#include "cli_common.h"
#include "control_path.h"
#include "pkgdist_lead/udp_transport.h"
#include "printable.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMaxConnections = 16;
// A client has its request ready when it connects.
constexpr lead::Time kRequestTimeout = 10 * lead::kSecond;
// And reads what it is told.
constexpr lead::Time kReaderTimeout = 10 * lead::kSecond;
constexpr mode_t kOwnerOnly = 0177;  // as umask

sockaddr_un endpoint(const std::string& path) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  return name;
}

int bind_to(int fd, const sockaddr_un& name) {
  const mode_t before = ::umask(kOwnerOnly);
  const int result = ::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name);
  ::umask(before);
  return result;
}

// A socket on which nobody listens is left over from a lead that was killed.
bool is_stale(const std::string& path, const sockaddr_un& name) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return false;
  const Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 &&
         errno == ECONNREFUSED;
}

Fd listen_on(const std::string& path) {
  const sockaddr_un name = endpoint(path);
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  int result = bind_to(fd.get(), name);
  if (result != 0 && errno == EADDRINUSE) {
    if (!is_stale(path, name))
      throw std::runtime_error(fmt::format("control socket {}: in use by another lead", path));
    (void)::unlink(path.c_str());
    result = bind_to(fd.get(), name);
  }
  if (result != 0 || ::listen(fd.get(), kMaxConnections) != 0)
    throw std::runtime_error(fmt::format("control socket {}: {}", path, std::strerror(errno)));
  return fd;
}

ino_t inode_of(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

}  // namespace

ControlServer::ControlServer(const std::string& path, Poller& poller, lead::Lead& lead,
                             Reporter& reporter)
    : path_(path),
      poller_(poller),
      lead_(lead),
      reporter_(reporter),
      listener_(listen_on(path)),
      inode_(inode_of(path)) {
  poller_.add(listener_.get(), EPOLLIN, [this] { accept(); });
}

ControlServer::~ControlServer() {
  for (const Connection& connection : connections_) poller_.remove(connection.fd.get());
  poller_.remove(listener_.get());
  if (inode_of(path_) == inode_) (void)::unlink(path_.c_str());
}

void ControlServer::accept() {
  Fd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd || connections_.size() >= kMaxConnections) return;  // closed at once
  Connection& connection = connections_.emplace_back();
  connection.fd = std::move(fd);
  connection.since = connection.taken = lead::monotonic_now();
  poller_.add(connection.fd.get(), EPOLLIN, [this, &connection] { on_ready(connection); });
}

void ControlServer::on_ready(Connection& connection) {
  receive(connection);
  flush(connection);
}

void ControlServer::receive(Connection& connection) {
  std::array<char, 64 * 1024> buffer;
  const ssize_t got = ::recv(connection.fd.get(), buffer.data(), buffer.size(), 0);
  if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) connection.broken = true;
  // One request for each connection: what follows it is ignored.
  if (got <= 0 || !connection.line.empty() || connection.id != 0 || connection.complete) return;
  connection.in.append(buffer.data(), static_cast<size_t>(got));
  const size_t end = connection.in.find('\n');
  if (end != std::string::npos)
    connection.line = connection.in.substr(0, end);
  else if (connection.in.size() > kMaxRequestLine)
    refuse(connection, "the request is too long");
  if (end != std::string::npos || connection.complete) connection.in = {};
}

void ControlServer::flush(Connection& connection) {
  while (!connection.out.empty() && !connection.broken) {
    const ssize_t sent = ::send(connection.fd.get(), connection.out.data(), connection.out.size(),
                                MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      connection.out.erase(0, static_cast<size_t>(sent));
      connection.taken = lead::monotonic_now();
      continue;
    }
    if (errno != EAGAIN && errno != EINTR) connection.broken = true;
    break;
  }
  poller_.modify(connection.fd.get(), connection.out.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

void ControlServer::say(Connection& connection, const Json& line) {
  connection.out += cli::json_line(line) + '\n';
}

void ControlServer::refuse(Connection& connection, const std::string& text) {
  say(connection, {{"event", "error"}, {"text", text}});
  connection.complete = true;
}

void ControlServer::start(Connection& connection, lead::Time now) {
  if (lead_.role() == lead::Role::kListening) return;  // decided in a moment
  const std::string line = std::exchange(connection.line, {});
  if (lead_.role() == lead::Role::kStandingBy)
    return refuse(
        connection,
        fmt::format("this lead stands by{}",
                    lead_.other_lead() == 0
                        ? std::string()
                        : fmt::format(": {} leads", cli::format_address(lead_.other_lead()))));
  try {
    const Request request = decode_request(line);
    if (request.kind == lead::MessageKind::kMessage)
      connection.id = lead_.send_message(request.msg_class, request.bytes, request.audience, now,
                                         request.timeout());
    else if (request.kind == lead::MessageKind::kCancel)
      connection.id =
          lead_.cancel_transaction(request.transaction, request.audience, now, request.timeout());
    else
      connection.id = lead_.delete_files(request.location, request.names, request.audience, now,
                                         request.timeout());
    if (connection.id == 0) return refuse(connection, "the lead refuses the request");
    const size_t nodes = lead_.message_report(connection.id).nodes.size();
    reporter_.request_taken(connection.id, request, nodes);
    say(connection, {{"event", "sent"}, {"id", connection.id}, {"nodes", nodes}});
  } catch (const std::exception& error) {
    refuse(connection, error.what());
  }
}

void ControlServer::answer(Connection& connection) {
  const lead::MessageReport report = lead_.message_report(connection.id);
  if (!report.finished) return;
  size_t acknowledged = 0;
  for (const lead::MessageNode& node : report.nodes) {
    const bool good = node.delivery == lead::Delivery::kAcknowledged;
    acknowledged += good;
    say(connection, {{"event", "outcome"},
                     {"node", cli::format_address(node.info.address)},
                     {"acknowledged", good},
                     {"text", delivery_text(node.delivery)}});
  }
  say(connection, {{"event", "done"},
                   {"complete", report.complete()},
                   {"acknowledged", acknowledged},
                   {"missing", report.nodes.size() - acknowledged}});
  connection.complete = true;
}

void ControlServer::run(lead::Time now) {
  for (auto at = connections_.begin(); at != connections_.end();) {
    Connection& connection = *at++;
    if (!connection.line.empty()) start(connection, now);
    if (connection.id != 0 && !connection.complete) answer(connection);
    const bool dawdles = connection.id == 0 && connection.line.empty() && !connection.complete &&
                         lead::elapsed(now, connection.since) >= kRequestTimeout;
    if (!connection.out.empty()) flush(connection);
    if (connection.out.empty()) connection.taken = now;
    const bool stuck = lead::elapsed(now, connection.taken) >= kReaderTimeout;
    if (stuck) reporter_.error("a program does not read the answer to its request: it is left");
    if (!connection.broken && !dawdles && !stuck &&
        !(connection.complete && connection.out.empty()))
      continue;
    poller_.remove(connection.fd.get());
    connections_.remove_if([&](const Connection& one) { return &one == &connection; });
  }
}

std::unique_ptr<ControlServer> open_control(const LeadOptions& options, Session& session,
                                            Reporter& reporter) {
  const std::string path = control_path(options);
  try {
    return std::make_unique<ControlServer>(path, session.poller(), session.lead(), reporter);
  } catch (const std::runtime_error& error) {
    if (!options.control_path.empty()) throw;
    reporter.error(fmt::format("warning: takes no commands: {}", error.what()));
    return nullptr;
  }
}

}  // namespace pkgdist::lead_program
