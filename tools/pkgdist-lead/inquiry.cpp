#include "inquiry.h"

#include <iterator>
#include <utility>

namespace pkgdist::lead_program {

namespace {

// Far longer than a node takes to say that it is at work.
constexpr lead::Time kSilence = 60 * lead::kSecond;

template <class Entries>
void append(Entries& to, Entries& from) {
  to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

}  // namespace

Inquiry::Inquiry(NodePrograms& programs, std::vector<cli::NodeQuestion> questions,
                 std::vector<lead::NodeInfo> nodes)
    : programs_(programs), questions_(std::move(questions)), nodes_(std::move(nodes)) {
  for (const lead::NodeInfo& node : nodes_) said_[node.address].all = true;
}

void Inquiry::take(std::map<uint32_t, cli::NodeAnswer> answers) {
  std::erase_if(nodes_, [&](const lead::NodeInfo& node) {
    Said& said = said_[node.address];
    const auto found = answers.find(node.address);
    said.all = found != answers.end() && !found->second.states.empty();
    if (!said.all) return true;
    append(said.states, found->second.states);
    append(said.names, found->second.names);
    append(said.problems, found->second.problems);
    return false;
  });
}

void Inquiry::ask_next(lead::Time now) {
  question_ = programs_.ask(std::move(questions_[next_++]), nodes_, now, kSilence);
  if (question_ == 0) take({});  // nobody is there who could be asked
}

bool Inquiry::run(lead::Time now) {
  for (;;) {
    if (question_ != 0) {
      if (!programs_.answered(question_, now)) return false;
      take(programs_.take_answers(std::exchange(question_, 0)));
    }
    if (next_ == questions_.size() || nodes_.empty()) return true;
    ask_next(now);
  }
}

}  // namespace pkgdist::lead_program
