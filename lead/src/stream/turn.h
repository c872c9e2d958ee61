// Where the stream stands in a file. It goes round: a node that joins in the middle is served by
// going on past the end until it has had one whole turn, since a node takes a file from any segment
// on and expects the first one after the last.
#pragma once

#include <algorithm>
#include <cstdint>

namespace pkgdist::lead {

class Turn {
 public:
  explicit Turn(uint32_t segments) : segments_(segments), stop_(segments) {}

  bool active() const { return cursor_ < stop_; }
  uint32_t segment() const { return static_cast<uint32_t>(cursor_ % segments_); }
  void advance() { ++cursor_; }

  // Nothing of it is sent: nodes have said what they lack.
  void skip() { cursor_ = stop_; }

  // One whole turn from here on, or from the first segment when the stream had ended.
  void extend() {
    if (!active()) cursor_ = 0;
    stop_ = cursor_ + segments_;
  }

  // The segment that the stream ended on; a node that joined in the middle ends on another than the
  // file's last.
  uint32_t last() const { return static_cast<uint32_t>((stop_ - 1) % segments_); }

  // Whether a run of segments has the one that the stream ends on.
  bool has_last(uint32_t first, uint32_t num) const {
    return (last() + segments_ - first) % segments_ < num;
  }

  // Segments sent since the turn began, more than the file has when it was extended.
  uint64_t done() const { return cursor_; }

  // Segments that the stream still comes to.
  uint64_t ahead() const { return active() ? stop_ - cursor_ : 0; }

  // Calls part(first, num) for what of first .. first+num-1 (going round at the end of the file, at
  // most once) the stream does not come to any more; num must not exceed the number of segments.
  // `on_the_way`: the latest of these are left out.
  template <class Part>
  void behind(uint32_t first, uint32_t num, uint64_t on_the_way, Part&& part) const {
    const uint64_t sent = segments_ - ahead();
    const uint64_t gone = sent - std::min(sent, on_the_way);
    const uint64_t gone_from = active() ? stop_ % segments_ : 0;
    for_linear(first, num, [&](uint64_t a, uint64_t b) {
      for_linear(gone_from, gone, [&](uint64_t c, uint64_t d) {
        const uint64_t from = std::max(a, c);
        const uint64_t to = std::min(b, d);
        if (from < to) part(static_cast<uint32_t>(from), static_cast<uint32_t>(to - from));
      });
    });
  }

 private:
  // Cuts a run that goes round into one or two that do not.
  template <class Run>
  void for_linear(uint64_t first, uint64_t num, Run&& run) const {
    const uint64_t head = std::min<uint64_t>(num, segments_ - first);
    run(first, first + head);
    if (head < num) run(0, num - head);
  }

  uint64_t segments_;
  uint64_t cursor_ = 0;  // counts on over the end of the file
  uint64_t stop_;
};

}  // namespace pkgdist::lead
