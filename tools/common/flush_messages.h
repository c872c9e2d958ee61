// The question of `push --durable` and its answer: messages between pkgdist-lead and pkgdist-node.
//
// When a push has ended, the lead sends the nodes a reliable message of class 5:
//   "pkgdist-flush 1 NUMBER LOCATION\n"
// A node writes the file system of the location to its disk (syncfs) and sends the lead a message
// of class 5, with the error number or 0:
//   "pkgdist-flushed 1 NUMBER LOCATION ERROR\n"
// The lead asks again, with the same number, a node that has said nothing for a few seconds. One
// that still writes says so:
//   "pkgdist-flushing 1 NUMBER LOCATION\n"
// NUMBER is the lead's choice, all are decimal. A program that does not know the question takes it
// for a message like any other.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace pkgdist::cli {

inline constexpr uint32_t kFlushClass = 5;

struct FlushQuestion {
  uint32_t number = 0;
  uint32_t location = 0;
  bool operator==(const FlushQuestion&) const = default;
};
struct FlushAnswer {
  FlushQuestion question;
  int error = 0;
};

std::string flush_question_text(const FlushQuestion& question);
std::string flush_progress_text(const FlushQuestion& question);
std::string flush_answer_text(const FlushAnswer& answer);
// Nothing when the bytes are another message.
std::optional<FlushQuestion> parse_flush_question(std::span<const uint8_t> bytes);
std::optional<FlushQuestion> parse_flush_progress(std::span<const uint8_t> bytes);
std::optional<FlushAnswer> parse_flush_answer(std::span<const uint8_t> bytes);

}  // namespace pkgdist::cli
