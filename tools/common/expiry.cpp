#include "expiry.h"

namespace pkgdist::cli {

namespace {

constexpr std::time_t kSoonSeconds = 14 * 24 * 3600;

}  // namespace

std::optional<std::time_t> expiry_time(const std::string& date) {
  std::tm parts{};
  const char* end = ::strptime(date.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return ::timegm(&parts);
}

std::string expiry_warning(const std::string& date, std::time_t now) {
  const std::optional<std::time_t> end = expiry_time(date);
  if (!end || *end > now + kSoonSeconds) return "";
  return (*end <= now ? "expired on " : "expires on ") + date;
}

}  // namespace pkgdist::cli
