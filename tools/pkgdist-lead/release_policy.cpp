#include "release_policy.h"

#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <charconv>

namespace pkgdist::lead_program {

namespace {

constexpr unsigned kWhole = 100;

// 0: no share.
unsigned percent_of(const std::string& text) {
  unsigned percent = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, percent);
  const bool whole = rest == end || std::string_view(rest, static_cast<size_t>(end - rest)) == "%";
  return error == std::errc() && whole && percent <= kWhole ? percent : 0;
}

}  // namespace

bool ActivationPolicy::allows(size_t ready, size_t total) const {
  if (ready == 0) return false;
  switch (kind) {
    case Kind::kAll:
      return ready == total;
    case Kind::kReady:
      return true;
    case Kind::kShare:
      return ready * kWhole >= total * percent;
    case Kind::kNever:
      return false;
  }
  return false;
}

ActivationPolicy parse_policy(const std::string& text) {
  using Kind = ActivationPolicy::Kind;
  if (text == "all") return {Kind::kAll};
  if (text == "those") return {Kind::kReady};
  if (text == "no") return {Kind::kNever};
  if (const unsigned percent = percent_of(text); percent != 0) return {Kind::kShare, percent};
  throw CLI::ValidationError(fmt::format("not all, those, no or a share like 90%: '{}'", text));
}

std::string policy_text(const ActivationPolicy& policy) {
  switch (policy.kind) {
    case ActivationPolicy::Kind::kAll:
      return "all";
    case ActivationPolicy::Kind::kReady:
      return "those";
    case ActivationPolicy::Kind::kShare:
      return fmt::format("{}%", policy.percent);
    case ActivationPolicy::Kind::kNever:
      return "no";
  }
  return "";
}

}  // namespace pkgdist::lead_program
