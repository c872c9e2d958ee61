#include "content_work.h"

#include <fmt/core.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "content.h"
#include "push_manifest.h"
#include "refusal.h"
#include "stop_signals.h"

namespace pkgdist::node_program {

namespace {

using release::NamedProblem;

bool go_on() {
  return cli::stop_signal() == 0;
}

void check_signature(const cli::NodeQuestion& question,
                     const std::vector<release::PublicKey>& keys) {
  if (keys.empty()) return;
  if (question.signature.empty())
    throw release::Refused(release::Reason::kSignature, "nobody has signed what it brings");
  (void)release::verify_signature(question.manifest, question.signature, keys,
                                  release::push_comment(question.location));
}

std::vector<std::string> names_of(const std::vector<NamedProblem>& problems) {
  std::vector<std::string> names;
  for (const NamedProblem& problem : problems) names.push_back(problem.name);
  return names;
}

bool has_name(const std::vector<cli::NamedText>& texts, const std::string& name) {
  return std::any_of(texts.begin(), texts.end(),
                     [&](const cli::NamedText& one) { return one.name == name; });
}

void keep(std::vector<release::Entry>& entries, const std::vector<std::string>& names) {
  std::erase_if(entries, [&](const release::Entry& entry) {
    return !std::binary_search(names.begin(), names.end(), entry.path);
  });
}

// Receives what is wrong until it is right, it does not come, or it has come often enough. What
// stays wrong, and why.
std::vector<cli::NamedText> repair(std::vector<release::Entry> said, std::vector<std::string> wrong,
                                   const std::string& directory, uint32_t location,
                                   const ReceiveAgain& receive_again) {
  std::vector<cli::NamedText> given_up;
  for (unsigned time = 1; !wrong.empty(); ++time) {
    const auto troubles = receive_again(location, wrong);
    keep(said, wrong);
    wrong.clear();
    for (const auto& [name, text] : release::content_differences(said, directory, go_on)) {
      const auto trouble = troubles.find(name);
      if (trouble != troubles.end())
        given_up.push_back({name, text + "; receiving it again: " + trouble->second});
      else if (time == release::kMaxReceptions)
        given_up.push_back({name, fmt::format("{}, received again {} times", text, time)});
      else
        wrong.push_back(name);
    }
  }
  std::sort(given_up.begin(), given_up.end(),
            [](const auto& one, const auto& other) { return one.name < other.name; });
  return given_up;
}

}  // namespace

cli::NodeAnswer compare_contents(const std::string& directory, const cli::NodeQuestion& question,
                                 const std::vector<release::PublicKey>& keys,
                                 const ReceiveAgain& receive_again) {
  cli::NodeAnswer answer{.number = question.number};
  try {
    check_signature(question, keys);
    std::vector<release::Entry> said = release::parse_push_manifest(question.manifest);
    const auto before = names_of(release::content_differences(said, directory, go_on));
    answer.problems = repair(std::move(said), before, directory, question.location, receive_again);
    for (const std::string& name : before)
      if (!has_name(answer.problems, name))
        answer.names.push_back({name, cli::kStateReceivedAgain});
    answer.states.emplace_back(cli::kStateDone);
  } catch (const std::runtime_error& error) {
    answer.states.emplace_back(error.what());
  }
  return answer;
}

}  // namespace pkgdist::node_program
