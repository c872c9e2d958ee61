#include "line_server.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <nlohmann/json.hpp>

#include "cli_common.h"
#include "printable.h"

namespace pkgdist::cli {

namespace {

using std::chrono::seconds;

constexpr size_t kMaxClients = 64;
// A client has its request ready when it connects.
constexpr auto kRequestPatience = seconds(10);
// And reads what it is told.
constexpr auto kReaderPatience = seconds(10);

ino_t inode_of(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

}  // namespace

// --- One connection ---

void LineClient::say(const Json& line, Output::Kind kind) {
  if (gone_ || finished_) return;
  const size_t waiting = out_.size() - sent_;
  if (kind == Output::Kind::kProgress && waiting > kMaxWaitingForProgress) {
    ++left_out_.progress;
    return;
  }
  if (kind == Output::Kind::kEvent && waiting > kMaxWaitingForEvents) {
    ++left_out_.events;
    return;
  }
  out_ += json_line(line) + '\n';
}

void LineClient::refuse(const std::string& why) {
  say({{"event", "error"}, {"text", why}});
  finish();
}

void LineClient::finish() {
  finished_ = begun_ = true;
}

void LineClient::finish(const Json& last) {
  if (left_out_.progress + left_out_.events != 0)
    say({{"event", "left-out"}, {"progress", left_out_.progress}, {"events", left_out_.events}});
  say(last);
  finish();
}

void LineClient::begin(bool patient) {
  begun_ = true;
  patient_ = patient;
}

// --- All of them ---

LineServer::LineServer(const std::string& path, Poller& poller, size_t max_line, OnLine on_line,
                       OnTrouble on_trouble)
    : path_(path),
      poller_(poller),
      max_line_(max_line),
      on_line_(std::move(on_line)),
      on_trouble_(std::move(on_trouble)),
      listener_(listen_on(path)),
      inode_(inode_of(path)) {
  poller_.add(listener_.get(), EPOLLIN, [this] { accept(); });
}

LineServer::~LineServer() {
  for (const Client& client : clients_) {
    poller_.remove(client->fd_.get());
    client->gone_ = true;
  }
  poller_.remove(listener_.get());
  if (inode_of(path_) == inode_) (void)::unlink(path_.c_str());
}

void LineServer::accept() {
  Fd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd || clients_.size() >= kMaxClients) return;  // closed at once
  const Client client = clients_.emplace_back(std::make_shared<LineClient>());
  client->fd_ = std::move(fd);
  poller_.add(client->fd_.get(), EPOLLIN, [this, one = client.get()] {
    receive(*one);
    flush(*one);
  });
}

void LineServer::receive(LineClient& client) {
  std::array<char, 64 * 1024> buffer;
  const ssize_t got = ::recv(client.fd_.get(), buffer.data(), buffer.size(), 0);
  if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) client.gone_ = true;
  if (got <= 0 || client.finished_) return;
  client.heard_ = LineClient::Clock::now();
  client.in_.append(buffer.data(), static_cast<size_t>(got));
  if (client.in_.size() > max_line_ && client.in_.find('\n') > max_line_) {
    client.in_ = {};
    client.refuse("the request is too long");
  }
}

void LineServer::flush(LineClient& client) {
  while (client.sent_ < client.out_.size() && !client.gone_) {
    const ssize_t sent = ::send(client.fd_.get(), client.out_.data() + client.sent_,
                                client.out_.size() - client.sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) client.gone_ = true;
    if (sent <= 0) break;
    client.sent_ += static_cast<size_t>(sent);
    client.taken_ = LineClient::Clock::now();
  }
  const bool empty = client.sent_ == client.out_.size();
  if (empty || client.sent_ > client.out_.size() / 2) {
    client.out_.erase(0, client.sent_);
    client.sent_ = 0;
  }
  if (!client.gone_)
    poller_.modify(client.fd_.get(), empty ? EPOLLIN : static_cast<uint32_t>(EPOLLIN | EPOLLOUT));
}

void LineServer::hand_on(const Client& client) {
  size_t done = 0;
  for (size_t end = 0; !client->finished_; done = end + 1) {
    end = client->in_.find('\n', done);
    if (end == std::string::npos) break;
    const std::string line = client->in_.substr(done, end - done);
    try {
      if (!on_line_(client, line)) break;
    } catch (const std::exception& error) {
      client->refuse(error.what());
    }
  }
  client->in_.erase(0, client->finished_ ? std::string::npos : done);
}

// False when the connection is at its end.
bool LineServer::keep(LineClient& client) {
  const auto now = LineClient::Clock::now();
  const bool has_line = client.in_.find('\n') != std::string::npos;
  if (client.out_.empty()) client.taken_ = now;
  if (!client.begun_ && !has_line && now - client.heard_ >= kRequestPatience) return false;
  if (!client.patient_ && now - client.taken_ >= kReaderPatience) {
    on_trouble_("a program does not read the answer to its request: it is left");
    return false;
  }
  return !client.gone_ && !(client.finished_ && client.out_.empty());
}

void LineServer::run() {
  for (const Client& client : clients_)
    if (!client->gone_) hand_on(client);
}

void LineServer::flush() {
  for (auto at = clients_.begin(); at != clients_.end();) {
    const Client client = *at;
    if (!client->out_.empty()) flush(*client);
    if (keep(*client)) {
      ++at;
      continue;
    }
    poller_.remove(client->fd_.get());
    client->gone_ = true;
    at = clients_.erase(at);
  }
}

}  // namespace pkgdist::cli
