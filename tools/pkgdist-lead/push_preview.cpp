#include "push_preview.h"

#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "counted.h"
#include "output.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kMaxLeftOutLines = 50;

// The shortest time for so many bytes, in words; empty when the nodes set the pace.
std::string least_time(uint64_t bytes, const LeadOptions& options) {
  constexpr double kBitsInByte = 8;
  const uint64_t rate = options.rate_bits != 0 ? options.rate_bits : options.max_rate_bits;
  if (rate == 0) return "";
  const double bits = static_cast<double>(bytes) * kBitsInByte;
  return fmt::format("; at {} at least {}", format_bits(static_cast<double>(rate)),
                     format_duration(bits / static_cast<double>(rate)));
}

}  // namespace

void tell_left_out(const lead::FileTree& tree, const char* prefix) {
  size_t lines = 0;
  for (const auto& [name, reason] : tree.left_out)
    if (lines++ < kMaxLeftOutLines) cli::complain(fmt::format("{}{}: {}", prefix, name, reason));
  if (lines > kMaxLeftOutLines)
    cli::complain(fmt::format("{}and {} more like these", prefix, lines - kMaxLeftOutLines));
}

void left_out_events(const lead::FileTree& tree, const Reporter& reporter) {
  for (const auto& [name, reason] : tree.left_out)
    reporter.json().print("left-out", {{"name", name}, {"text", reason}},
                          cli::Output::Kind::kResult);
}

int preview(const LeadOptions& options, const lead::FileTree& tree, Reporter& reporter) {
  left_out_events(tree, reporter);
  uint64_t bytes = 0;
  for (const lead::PushFile& file : tree.files) {
    bytes += file.size;
    reporter.json().print("would-push", {{"name", file.name}, {"bytes", file.size}}, kResult);
    if (options.common.verbosity > 0)
      reporter.say(
          fmt::format("{:>10}  {}", format_bytes(static_cast<double>(file.size)), file.name),
          kResult);
  }
  reporter.json().print("dry-run", {{"files", tree.files.size()}, {"bytes", bytes}}, kResult);
  reporter.say(fmt::format("would push {}, {}{}", cli::counted(tree.files.size(), "file"),
                           format_bytes(static_cast<double>(bytes)), least_time(bytes, options)),
               kResult);
  return tree.left_out.empty() ? cli::kExitOk : cli::kExitFailure;
}

}  // namespace pkgdist::lead_program
