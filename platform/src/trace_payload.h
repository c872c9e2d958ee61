// Packs the arguments of a trace record into its payload (see qtrace_layout.h).
//
// Rule: integers go first when space is short. Every argument is promised the space of its smallest
// form; what is left over is for the text of strings, first come, first served. So one long path
// never costs the error number behind it.
#ifndef PLATFORM_SRC_TRACE_PAYLOAD_H
#define PLATFORM_SRC_TRACE_PAYLOAD_H

#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "platform/qtrace_layout.h"

namespace platform {

class TracePayload {
 public:
  TracePayload(qtrace_layout_record& record, const char* signature) noexcept : record_(record) {
    size_t promised = 0;
    for (const char* type = signature; *type != '\0'; ++type) promised += smallest(*type);
    spare_ = promised < kSize ? kSize - promised : 0;
  }

  // Takes the arguments in order; one that has no space, or a letter that does not exist, ends the
  // record.
  void put_all(const char* signature, va_list* arguments) noexcept {
    for (const char* type = signature; *type != '\0'; ++type) {
      if (smallest(*type) == 0 || record_.payload_size + smallest(*type) > kSize) {
        record_.flags |= QTRACE_LAYOUT_ARGUMENTS_CUT;
        return;
      }
      put(type, 1);
      // The caller has started the list, which the analyzer cannot see from here.
      // NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
      if (*type == 's') put_string(va_arg(*arguments, const char*));
      if (*type == 'd') put_value(va_arg(*arguments, uint32_t));
      if (*type == 'D') put_value(va_arg(*arguments, uint64_t));
      // NOLINTEND(clang-analyzer-valist.Uninitialized)
    }
  }

 private:
  static constexpr size_t kSize = QTRACE_LAYOUT_PAYLOAD_SIZE;

  // Bytes of an argument, of a string without its text; 0 for an unknown letter.
  static size_t smallest(char type) noexcept {
    if (type == 's') return 1 + sizeof(uint16_t);
    if (type == 'd') return 1 + sizeof(uint32_t);
    if (type == 'D') return 1 + sizeof(uint64_t);
    return 0;
  }

  void put(const void* bytes, size_t size) noexcept {
    std::memcpy(record_.payload + record_.payload_size, bytes, size);
    record_.payload_size = static_cast<uint16_t>(record_.payload_size + size);
  }

  template <typename Value>
  void put_value(Value value) noexcept {
    put(&value, sizeof value);
  }

  void put_string(const char* text) noexcept {
    if (text == nullptr) text = "(null)";
    size_t length = strnlen(text, spare_ + 1);
    if (length > spare_) {
      length = spare_;
      record_.flags |= QTRACE_LAYOUT_STRING_CUT;
    }
    spare_ -= length;
    put_value(static_cast<uint16_t>(length));
    put(text, length);
  }

  qtrace_layout_record& record_;
  size_t spare_ = 0;  // bytes that strings may still use for their text
};

}  // namespace platform

#endif
