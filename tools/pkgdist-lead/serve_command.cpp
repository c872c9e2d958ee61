#include <fmt/core.h>

#include "commands.h"
#include "reporter.h"
#include "session.h"

namespace pkgdist::lead_program {

int serve_command(const LeadOptions& options) {
  if (options.common.locations.empty()) {
    fmt::print(stderr, "pkgdist-lead: --location N=DIR is missing\n");
    return cli::kExitUsage;
  }
  Reporter reporter(options.common.json, options.common.verbosity);
  Session session(options, reporter);
  reporter.json().print("serving", {{"address", cli::format_address(options.common.interface)}});
  reporter.say(fmt::format("serving on {}", cli::format_address(options.common.interface)));
  session.run([](lead::Time) { return false; }, lead::kSecond);
  reporter.json().print("stopped", {});
  reporter.say("stopped");
  return cli::kExitOk;
}

}  // namespace pkgdist::lead_program
