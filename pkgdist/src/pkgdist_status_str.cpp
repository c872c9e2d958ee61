// Texts of status values, the only place that has them: the library exports them, the programs are
// built with this file too.
//
// The library's own statuses have texts of their own, those of a failed file operation have the
// system's. A text that has to be composed stands in a buffer of the calling thread.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "pkgdist/status.h"
#include "pkgdist_export.h"

namespace {

constexpr uint64_t kErrnoMask = 0x7FF;
constexpr size_t kTextBytes = 128;

struct Text {
  PkgdistStatus status;
  const char* text;
};

constexpr Text kTexts[] = {
    {0, "success"},
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

// strerror_r() comes in two makes: one returns the text, the other fills the buffer.
[[maybe_unused]] const char* system_text(const char* text, const char* /*buffer*/) {
  return text;
}
[[maybe_unused]] const char* system_text(int error, const char* buffer) {
  return error == 0 ? buffer : nullptr;
}

bool is_system_error(PkgdistStatus status) {
  const uint64_t error = status & kErrnoMask;
  return error != 0 && status == PKGDIST_STATUS_FROM_ERRNO(error);
}

}  // namespace

extern "C" PKGDIST_EXPORT const char* pkgdist_status_str(PkgdistStatus status) {
  for (const Text& known : kTexts)
    if (known.status == status) return known.text;
  static thread_local char buffer[kTextBytes];
  if (is_system_error(status)) {
    const int saved = errno;
    const char* text = system_text(
        strerror_r(static_cast<int>(status & kErrnoMask), buffer, sizeof buffer), buffer);
    errno = saved;
    if (text != nullptr) return text;
  }
  (void)std::snprintf(buffer, sizeof buffer, "status 0x%016" PRIx64, status);
  return buffer;
}
