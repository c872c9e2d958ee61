#include "line_connection.h"

#include <fmt/core.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <nlohmann/json.hpp>

#include "stop_signals.h"

namespace pkgdist::cli {

namespace {

constexpr double kSendPatienceSeconds = 15;

}  // namespace

bool LineConnection::wait(short events, double seconds) const {
  if (!outlasts_stop_) return wait_unless_stopped(fd_.get(), events, seconds);
  pollfd ready{fd_.get(), events, 0};
  return ::poll(&ready, 1, seconds < 0 ? -1 : static_cast<int>(seconds * 1000)) > 0;
}

void LineConnection::send(const nlohmann::ordered_json& line) {
  const std::string text = line.dump() + '\n';
  for (size_t sent = 0; sent < text.size();) {
    if (!wait(POLLOUT, kSendPatienceSeconds))
      throw std::runtime_error(
          stop_signal() != 0 ? stop_text() : fmt::format("the {} does not take the request", who_));
    const ssize_t some =
        ::send(fd_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (some < 0 && errno != EINTR && errno != EAGAIN)
      throw std::runtime_error(fmt::format("the {} does not take the request", who_));
    if (some > 0) sent += static_cast<size_t>(some);
  }
}

std::optional<nlohmann::ordered_json> LineConnection::take_line() {
  const size_t end = buffer_.find('\n', searched_);
  if (end == std::string::npos) {
    searched_ = buffer_.size();
    return std::nullopt;
  }
  auto line = nlohmann::ordered_json::parse(
      buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(end), nullptr, false);
  buffer_.erase(0, end + 1);
  searched_ = 0;
  if (!line.is_object())
    throw std::runtime_error(fmt::format("the {}'s answer makes no sense", who_));
  return line;
}

std::optional<nlohmann::ordered_json> LineConnection::next(double seconds) {
  for (;;) {
    if (auto line = take_line()) return line;
    if (!wait(POLLIN, seconds)) return std::nullopt;
    std::array<char, 64 * 1024> some;
    const ssize_t got = ::recv(fd_.get(), some.data(), some.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got == 0) throw std::runtime_error(fmt::format("the {} has ended", who_));
    if (got < 0) throw std::runtime_error(fmt::format("recv: {}", std::strerror(errno)));
    buffer_.append(some.data(), static_cast<size_t>(got));
  }
}

nlohmann::ordered_json LineConnection::answer(double patience_seconds) {
  auto line = next(patience_seconds);
  if (!line && stop_signal() == 0)
    throw std::runtime_error(
        fmt::format("the {} has not answered for {} s", who_, patience_seconds));
  if (!line)
    throw std::runtime_error(fmt::format("{}: the {} goes on with the request", stop_text(), who_));
  return std::move(*line);
}

}  // namespace pkgdist::cli
