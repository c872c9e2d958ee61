// Building status values; their meanings are in pkgdist/status.h.
#pragma once

#include <cerrno>
#include <cstdint>

#include "pkgdist/status.h"

constexpr uint32_t pkgdist_component_id() {
  return 0xCA1;
}

// The component's bits as they stand in the low word of every status.
constexpr uint32_t pkgdist_component_bits() {
  return pkgdist_component_id() << 20;
}

constexpr PkgdistStatus pkgdist_status_error(uint32_t code) {
  return uint64_t{0x40101278} << 32 | pkgdist_component_bits() | code;
}

// The status of a failed file operation.
constexpr PkgdistStatus pkgdist_status_from_errno(int error_number) {
  return PKGDIST_STATUS_FROM_ERRNO(error_number);
}

static_assert(pkgdist_status_error(0xBEA) == PKGDIST_ERR_INVALID);
static_assert(PKGDIST_COMPONENT_ID == pkgdist_component_id());
