// Writes a catalogue the way qtrace_layout.h describes it.
#ifndef PLATFORM_SRC_TRACE_CATALOGUE_H
#define PLATFORM_SRC_TRACE_CATALOGUE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/qtrace_catalogue.h"
#include "platform/qtrace_layout.h"
#include "platform/quendrel.h"

namespace platform {

class TraceCatalogue {
 public:
  TraceCatalogue(const qtrace_point* points, uint32_t count) noexcept
      : points_(points), count_(count) {}

  bool is_complete() const noexcept {
    for (uint32_t i = 0; i < count_; ++i) {
      const qtrace_point& p = points_[i];
      if (!p.file || !p.function || !p.format || !p.signature) return false;
    }
    return true;
  }

  uint64_t size() const noexcept {
    uint64_t total = sizeof(qtrace_layout_catalogue);
    for (uint32_t i = 0; i < count_; ++i) total += size_of(points_[i]);
    return total;
  }

  // Into size() bytes of zeros.
  void write(void* where, const char* id) const noexcept {
    qtrace_layout_catalogue header{};
    quendrel_sstrncpy(header.id, id, sizeof header.id);
    header.points = count_;
    auto* at = static_cast<std::byte*>(where);
    std::memcpy(at, &header, sizeof header);
    at += sizeof header;
    for (uint32_t i = 0; i < count_; ++i) {
      write_point(at, points_[i]);
      at += size_of(points_[i]);
    }
  }

 private:
  static uint32_t size_of(const qtrace_point& point) noexcept {
    const size_t size = sizeof(qtrace_layout_point) + text_size(point.file) +
                        text_size(point.function) + text_size(point.format) +
                        text_size(point.signature);
    return static_cast<uint32_t>((size + 3) / 4 * 4);
  }

  static size_t text_size(const char* text) noexcept { return std::strlen(text) + 1; }

  static void write_point(std::byte* at, const qtrace_point& point) noexcept {
    const qtrace_layout_point fixed{size_of(point), point.line, point.first, point.second};
    std::memcpy(at, &fixed, sizeof fixed);
    at += sizeof fixed;
    for (const char* text : {point.file, point.function, point.format, point.signature}) {
      std::memcpy(at, text, text_size(text));
      at += text_size(text);
    }
  }

  const qtrace_point* points_;
  uint32_t count_;
};

}  // namespace platform

#endif
