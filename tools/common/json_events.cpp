#include "json_events.h"

#include <chrono>
#include <cstdio>

namespace pkgdist::cli {

void JsonEvents::print(const std::string& event, const nlohmann::ordered_json& fields) const {
  if (!enabled_) return;
  const std::chrono::duration<double> time = std::chrono::system_clock::now().time_since_epoch();
  nlohmann::ordered_json line;
  line["event"] = event;
  line["time"] = time.count();
  if (!fields.is_null()) line.update(fields);
  // Names of files may be any bytes: what is not UTF-8 is replaced, never an exception.
  const std::string text =
      line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

}  // namespace pkgdist::cli
