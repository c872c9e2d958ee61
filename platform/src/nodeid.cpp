// Node identities: three numbers in memory of their own, and their text.
#include "platform/nodeid.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <new>

int nodeid_create(uint32_t first, uint32_t second, uint32_t third, nodeid_handle_t* out) {
  if (out == nullptr) return EINVAL;
  auto* made = new (std::nothrow) nodeid{first, second, third};
  if (made == nullptr) return ENOMEM;
  *out = made;
  return 0;
}

void nodeid_destroy(nodeid_handle_t nodeid) {
  delete nodeid;
}

int nodeid_to_str_external(nodeid_handle_t nodeid, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return EINVAL;
  buffer[0] = '\0';
  if (nodeid == nullptr) return EINVAL;
  const int length = std::snprintf(buffer, size, "%" PRIu32 "/%" PRIu32 "/%" PRIu32, nodeid->first,
                                   nodeid->second, nodeid->third);
  if (length < 0) return EINVAL;
  return static_cast<size_t>(length) < size ? 0 : ENOSPC;
}
