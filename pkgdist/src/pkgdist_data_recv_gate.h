// The gate: what the process lets the lead write and delete.
#pragma once

#include <cstdint>
#include <optional>

#include "pkgdist/pkgdist_recv.h"

namespace pkgdist {

// What the process set; null: everything is accepted. Set before the threads that ask exist.
extern pkgdist_data_gate_cb gate;

// The status with which the gate ends a file; nothing when it accepts, or when there is no gate.
// Receive lock held.
std::optional<PkgdistStatus> gate_refusal(uint32_t operation, uint32_t location, const char* name,
                                          uint32_t size, uint32_t mode, uint32_t kind);

}  // namespace pkgdist
