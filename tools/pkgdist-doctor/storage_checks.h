// Whether a storage location takes files, has room for them, and keeps their times.
#pragma once

#include "doctor_options.h"
#include "finding.h"

namespace pkgdist::doctor {

void check_locations(const DoctorOptions& options, Findings& findings);

}  // namespace pkgdist::doctor
