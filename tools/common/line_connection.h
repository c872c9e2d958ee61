// The client's side of a control socket: sends lines of JSON to a program that runs, and reads its
// answers.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "control_socket.h"

namespace pkgdist::cli {

class LineConnection {
 public:
  // `who`: "lead" or "node", for messages.
  LineConnection(Fd fd, std::string who) : fd_(std::move(fd)), who_(std::move(who)) {}

  // Everything here throws std::runtime_error when the other program has ended, makes no sense or
  // takes nothing.
  void send(const nlohmann::ordered_json& line);
  // The next line. Nothing when none comes within this time (negative: without limit), or a stop
  // signal comes first.
  std::optional<nlohmann::ordered_json> next(double seconds);
  // The same for an answer that has to come: throws instead. A refusal is thrown, too.
  nlohmann::ordered_json answer(double patience_seconds);

  // From now on a stop signal does not keep the program from going on here.
  void outlast_stop() { outlasts_stop_ = true; }

 private:
  std::optional<nlohmann::ordered_json> take_line();
  bool wait(short events, double seconds) const;

  Fd fd_;
  std::string who_;
  std::string buffer_;
  bool outlasts_stop_ = false;
  size_t searched_ = 0;  // of buffer_, without a line end
};

}  // namespace pkgdist::cli
