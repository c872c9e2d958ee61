#include "flush_messages.h"

#include <fmt/core.h>

#include <array>
#include <charconv>
#include <string_view>

namespace pkgdist::cli {

namespace {

constexpr std::string_view kQuestion = "pkgdist-flush 1";
constexpr std::string_view kProgress = "pkgdist-flushing 1";
constexpr std::string_view kAnswer = "pkgdist-flushed 1";

// The numbers behind `start`, each after one space, up to one end of line.
template <size_t count>
std::optional<std::array<uint32_t, count>> numbers(std::span<const uint8_t> bytes,
                                                   std::string_view start) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (!text.starts_with(start) || !text.ends_with('\n')) return std::nullopt;
  const char* at = text.data() + start.size();
  const char* const end = text.data() + text.size() - 1;
  std::array<uint32_t, count> found{};
  for (uint32_t& number : found) {
    if (at == end || *at++ != ' ') return std::nullopt;
    const auto [next, error] = std::from_chars(at, end, number);
    if (error != std::errc()) return std::nullopt;
    at = next;
  }
  return at == end ? std::optional(found) : std::nullopt;
}

std::string text_of(std::string_view start, const FlushQuestion& question) {
  return fmt::format("{} {} {}\n", start, question.number, question.location);
}

std::optional<FlushQuestion> question_in(std::span<const uint8_t> bytes, std::string_view start) {
  const auto found = numbers<2>(bytes, start);
  if (!found) return std::nullopt;
  return FlushQuestion{(*found)[0], (*found)[1]};
}

}  // namespace

std::string flush_question_text(const FlushQuestion& question) {
  return text_of(kQuestion, question);
}

std::string flush_progress_text(const FlushQuestion& question) {
  return text_of(kProgress, question);
}

std::string flush_answer_text(const FlushAnswer& answer) {
  return fmt::format("{} {} {} {}\n", kAnswer, answer.question.number, answer.question.location,
                     answer.error);
}

std::optional<FlushQuestion> parse_flush_question(std::span<const uint8_t> bytes) {
  return question_in(bytes, kQuestion);
}

std::optional<FlushQuestion> parse_flush_progress(std::span<const uint8_t> bytes) {
  return question_in(bytes, kProgress);
}

std::optional<FlushAnswer> parse_flush_answer(std::span<const uint8_t> bytes) {
  const auto found = numbers<3>(bytes, kAnswer);
  if (!found) return std::nullopt;
  return FlushAnswer{{(*found)[0], (*found)[1]}, static_cast<int>((*found)[2])};
}

}  // namespace pkgdist::cli
