#include "content_work.h"

#include <algorithm>
#include <stdexcept>

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

}  // namespace

cli::NodeAnswer compare_contents(const std::string& directory, const cli::NodeQuestion& question,
                                 const std::vector<release::PublicKey>& keys,
                                 const ReceiveAgain& receive_again) {
  cli::NodeAnswer answer{.number = question.number};
  try {
    check_signature(question, keys);
    std::vector<release::Entry> said = release::parse_push_manifest(question.manifest);
    const auto before = names_of(release::content_differences(said, directory, go_on));
    if (!before.empty()) {
      const auto troubles = receive_again(question.location, before);
      std::erase_if(said, [&](const release::Entry& entry) {
        return !std::binary_search(before.begin(), before.end(), entry.path);
      });
      const auto left = release::content_differences(said, directory, go_on);
      for (const auto& [name, text] : left) {
        const auto trouble = troubles.find(name);
        answer.problems.push_back({name, trouble == troubles.end()
                                             ? text
                                             : text + "; receiving it again: " + trouble->second});
      }
      const auto wrong = names_of(left);
      for (const std::string& name : before)
        if (!std::binary_search(wrong.begin(), wrong.end(), name))
          answer.names.push_back({name, cli::kStateReceivedAgain});
    }
    answer.states.emplace_back(cli::kStateDone);
  } catch (const std::runtime_error& error) {
    answer.states.emplace_back(error.what());
  }
  return answer;
}

}  // namespace pkgdist::node_program
