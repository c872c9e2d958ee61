// Events as JSON, one object per line on standard output, each with the name of the event and the
// time. Lines are complete when print() returns, so that a reader of a pipe can follow.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace pkgdist::cli {

class JsonEvents {
 public:
  explicit JsonEvents(bool enabled) : enabled_(enabled) {}
  bool enabled() const { return enabled_; }

  // Nothing when not enabled. "event" and "time" (seconds since the epoch) are added to the fields.
  void print(const std::string& event, const nlohmann::ordered_json& fields) const;

 private:
  bool enabled_;
};

}  // namespace pkgdist::cli
