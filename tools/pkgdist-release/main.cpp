// pkgdist-release: makes and checks the manifests of releases. Signing is minisign's.
#include <fmt/core.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "refusal.h"

int main(int argc, char** argv) {
  using namespace pkgdist;
  CLI::App app("Makes, checks and compares releases.", "pkgdist-release");
  release_program::ReleaseOptions options;
  release_program::add_release_options(app, options);
  return cli::run_cli(app, argc, argv, [&] {
    try {
      switch (options.command) {
        case release_program::Command::kMake:
          return release_program::make_command(options);
        case release_program::Command::kCheck:
          return release_program::check_command(options);
        case release_program::Command::kShow:
          return release_program::show_command(options);
        case release_program::Command::kDiff:
          return release_program::diff_command(options);
      }
      return cli::kExitUsage;
    } catch (const release::Refused& refused) {
      throw cli::NotDone(
          fmt::format("refused ({}): {}", release::reason_name(refused.reason()), refused.what()));
    }
  });
}
