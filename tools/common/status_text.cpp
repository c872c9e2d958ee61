#include "status_text.h"

#include <fmt/core.h>

#include <cerrno>
#include <cstring>

#include "pkgdist/status.h"

namespace pkgdist::cli {

namespace {

constexpr uint64_t kErrnoMask = 0x7FF;

struct Text {
  uint64_t status;
  const char* text;
};

constexpr Text kTexts[] = {
    {0, "received"},
    {PKGDIST_ERR_SYSTEM, "a system call failed"},
    {PKGDIST_ERR_NOMEM, "out of memory"},
    {PKGDIST_ERR_INVALID, "an argument was rejected"},
    {PKGDIST_ERR_SEND, "a datagram could not be sent"},
    {PKGDIST_ERR_NOT_FOUND, "not found"},
    {PKGDIST_ERR_ENCODE, "a message could not be encoded"},
    {PKGDIST_ERR_TIMEOUT, "not acknowledged"},
    {PKGDIST_ERR_DECODE, "a message could not be decoded"},
    {PKGDIST_ERR_WRITE, "short write"},
    {PKGDIST_STATUS_CANCELLED, "cancelled"},
    {PKGDIST_STATUS_DELETED, "deleted"},
    {PKGDIST_STATUS_UNKNOWN_FILE, "not wanted by the node"},
    {PKGDIST_STATUS_IN_PROGRESS, "in progress"},
    {PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT), "given up after the node's retries"},
};

}  // namespace

std::string status_text(uint64_t status) {
  for (const Text& known : kTexts)
    if (known.status == status) return known.text;
  const uint64_t error = status & kErrnoMask;
  if (status == PKGDIST_STATUS_FROM_ERRNO(error)) return std::strerror(static_cast<int>(error));
  return fmt::format("status {:#018x}", status);
}

}  // namespace pkgdist::cli
