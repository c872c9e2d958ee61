#include "release_options.h"

#include <CLI/CLI.hpp>

#include "signatures.h"

namespace pkgdist::release_program {

namespace {

constexpr unsigned kMostThreads = 256;

constexpr const char* kFooter = R"help(
A release is a directory with a manifest in DIR/.pkgdist/. The manifest is signed with minisign, which keeps
the secret key; nothing here needs it.

Examples
  pkgdist-release make tree --name base --version 7 --floor 5
  minisign -Sm tree/.pkgdist/manifest -t "$(head -n 1 tree/.pkgdist/manifest)"
  pkgdist-release check tree --keys /etc/pkgdist/release-keys.d
  pkgdist-release diff tree-6 tree-7

Exit status: 0 done; 1 not done, or not all of it: a release is refused or differs from its tree; 2 an
argument is wrong; 3 nothing could be started: a file cannot be read or written.
)help";

void add_threads(CLI::App& command, ReleaseOptions& options) {
  command.add_option("--threads", options.threads, "threads that read and hash files")
      ->type_name("N [processors]")
      ->check(CLI::Range(1u, kMostThreads));
}

void add_json(CLI::App& command, ReleaseOptions& options) {
  command.add_flag("--json", options.json, "print one JSON object");
}

void add_make(CLI::App& app, ReleaseOptions& options) {
  CLI::App* make = app.add_subcommand("make", "write the manifest of a directory");
  make->add_option("DIR", options.path, "the directory")->required();
  make->add_option("--name", options.name, "name of the release; nodes take one name only")
      ->required();
  make->add_option("--version", options.version, "above that of every earlier release")
      ->required()
      ->type_name("N")
      ->check(CLI::Range(uint64_t{1}, UINT64_MAX));
  make->add_option("--floor", options.floor,
                   "nodes that have confirmed this release refuse versions below N")
      ->required()
      ->type_name("N");
  make->add_option("--expires", options.expires,
                   "programs warn from two weeks before; nodes may refuse it then")
      ->type_name("2027-11-21T00:00:00Z");
  make->add_flag("--allow-setuid", options.allow_setuid,
                 "files may have set-user-ID and set-group-ID bits");
  make->add_option("--cache", options.cache,
                   "remember hashes in FILE: unchanged files are not read again")
      ->type_name("FILE");
  add_threads(*make, options);
  make->callback([&options] { options.command = Command::kMake; });
}

void add_check(CLI::App& app, ReleaseOptions& options) {
  CLI::App* check = app.add_subcommand("check", "compare a directory with its manifest");
  check->add_option("DIR", options.path, "the directory")->required();
  CLI::Option* keys = check->add_option(
      "--keys", options.keys,
      "check the signature, too, with this minisign key, or all *.pub of a directory");
  keys->type_name("FILE|DIR");
  check->add_option("--threshold", options.threshold, "so many of these keys must have signed")
      ->type_name("N [1]")
      ->check(CLI::Range(size_t{1}, release::kMaxSignatures))
      ->needs(keys);
  check->add_flag("--allow-setuid", options.allow_setuid,
                  "files may have set-user-ID and set-group-ID bits");
  add_threads(*check, options);
  check->callback([&options] { options.command = Command::kCheck; });
}

}  // namespace

void add_release_options(CLI::App& app, ReleaseOptions& options) {
  app.set_version_flag("--version", cli::version());
  app.footer(kFooter);
  app.require_subcommand(1);
  add_make(app, options);
  add_check(app, options);
  CLI::App* show = app.add_subcommand("show", "print what a manifest says");
  show->add_option("RELEASE", options.path, "a directory with a manifest, or a manifest")
      ->required();
  show->add_flag("--entries", options.entries, "print its entries, too");
  add_json(*show, options);
  show->callback([&options] { options.command = Command::kShow; });
  CLI::App* diff = app.add_subcommand("diff", "print what an update changes and what it sends");
  diff->add_option("OLD", options.path, "a directory with a manifest, or a manifest")->required();
  diff->add_option("NEW", options.other, "the same")->required();
  add_json(*diff, options);
  diff->callback([&options] { options.command = Command::kDiff; });
}

}  // namespace pkgdist::release_program
