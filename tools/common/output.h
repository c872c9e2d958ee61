// Standard output and standard error of the programs.
//
// Text goes into a queue that a thread of its own writes out: a reader that stops reading, a
// stopped terminal or a slow disk never keeps the program from its work.
//
// Rule: while more waits than its kind may let wait, a text is left out, and counted. Results are
// never left out. A stream that fails (full disk, reader gone) takes nothing more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace pkgdist::cli {

class Output {
 public:
  enum class Kind {
    kProgress,  // the next one replaces it
    kEvent,     // tells what happens; what comes of it is told at the end
    kResult,
  };
  // Bytes that may wait when another text of this kind comes.
  static constexpr size_t kMaxWaitingForProgress = size_t{4} << 20;
  static constexpr size_t kMaxWaitingForEvents = size_t{64} << 20;

  struct LeftOut {
    uint64_t progress = 0;
    uint64_t events = 0;
  };

  // The descriptor stays open. `on_error` hears, on the writing thread, why the stream has failed
  // (an errno); it may be null.
  explicit Output(int fd, std::function<void(int)> on_error = nullptr);
  // Does not wait; what is not written yet may or may not be.
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  // Everything here may be called from any thread, and only wait_written() waits.

  // The text as it is. False when it is left out.
  bool write(std::string text, Kind kind);
  // The printable text, and a line end.
  bool line(std::string_view text, Kind kind);

  // True when everything is written. False when the stream fails, or when `enough`, asked again and
  // again, says so first.
  bool wait_written(const std::function<bool()>& enough);

  size_t waiting() const;  // bytes
  int error() const;       // why the stream has failed, 0: it has not
  LeftOut left_out() const;

 private:
  struct State;
  static void write_out(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;  // with the thread
};

// Those of the process. Never destroyed.
Output& standard_output();
Output& standard_error();

// The name that messages begin with. Once, at the start.
void set_program_name(const std::string& name);

// "NAME: text" on standard error.
void complain(std::string_view text);

// Waits until everything is written that the program has said. Ends with `status`, or with
// `failure` when the output could not be written, which is then said on standard error. After a
// stop signal it waits for readers no longer than kReaderSeconds.
int finish_output(int status, int failure);
inline constexpr double kReaderSeconds = 1.0;

}  // namespace pkgdist::cli
