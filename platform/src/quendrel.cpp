// Bounded string copies: always terminated, never past the end, and the result tells what was cut.
#include "platform/quendrel.h"

#include <algorithm>
#include <cstring>

size_t quendrel_sstrncpy(char* to, const char* from, size_t size) {
  const size_t length = std::strlen(from);
  if (size == 0) return length;
  const size_t kept = std::min(length, size - 1);
  std::memcpy(to, from, kept);
  to[kept] = '\0';
  return length;
}

size_t quendrel_sstrncat(char* to, const char* from, size_t size) {
  const size_t used = strnlen(to, size);
  // A buffer without a terminator has no end to append at: size - used is 0 and nothing is written.
  return used + quendrel_sstrncpy(to + used, from, size - used);
}
