// Datagrams in words, for the record of a run.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "pkgdist_lead/transport.h"

namespace pkgdist::sim {

std::string describe(lead::Channel channel, std::span<const uint8_t> bytes);

}  // namespace pkgdist::sim
