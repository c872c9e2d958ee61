// What a push is asked to do: when and where it began, of which tree, with which options and which
// version, for whoever looks at its events later.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "lead_options.h"

namespace pkgdist::lead_program {

// The fields of the event "push-requested".
nlohmann::ordered_json push_description(const LeadOptions& options,
                                        const lead::PushRequest& request);

}  // namespace pkgdist::lead_program
