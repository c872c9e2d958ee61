#include "durability.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <system_error>

#include "cli_common.h"

namespace pkgdist::lead_program {

bool Durability::send(lead::Lead& lead, std::vector<uint32_t> nodes, lead::Time now) {
  const std::string text = flush_question_text(question_);
  return lead.send_message(cli::kFlushClass, {text.begin(), text.end()},
                           lead::Audience::only(std::move(nodes)), now, silence_) != 0;
}

void Durability::ask(lead::Lead& lead, const lead::PushReport& report, lead::Time now) {
  std::vector<uint32_t> asked;
  for (const lead::PushNodeReport& node : report.nodes) {
    nodes_[node.address] = kNoAnswer;
    if (node.heard && !node.silent) asked.push_back(node.address);
  }
  if (!asked.empty() && send(lead, asked, now)) watch_.begin(asked, now);
}

bool Durability::run(lead::Lead& lead, lead::Time now) {
  (void)watch_.take_silent(now);
  if (std::vector<uint32_t> due = watch_.take_due(now); !due.empty())
    (void)send(lead, std::move(due), now);
  return !watch_.waits();
}

bool Durability::on_message(uint32_t node, uint32_t msg_class, std::span<const uint8_t> bytes,
                            lead::Time now) {
  if (msg_class != cli::kFlushClass) return false;
  if (cli::parse_flush_progress(bytes) == question_) {
    watch_.heard(node, now);
    return true;
  }
  const auto answer = cli::parse_flush_answer(bytes);
  if (!answer || answer->question != question_) return false;
  if (!watch_.waits_for(node)) return true;
  nodes_[node] = answer->error;
  watch_.answered(node);
  return true;
}

bool report_durability(Reporter& reporter, const Durability::Outcomes& outcomes) {
  for (const auto& [node, error] : outcomes) {
    const std::string address = cli::format_address(node);
    const std::string reason = error == 0           ? ""
                               : error == ETIMEDOUT ? "no answer in time"
                                                    : std::generic_category().message(error);
    reporter.json().print("durable", {{"node", address}, {"durable", error == 0}, {"text", reason}},
                          cli::Output::Kind::kResult);
    if (error != 0)
      reporter.say(fmt::format("{:<16}not durable: {}", address, reason),
                   cli::Output::Kind::kResult);
  }
  const auto durable = static_cast<size_t>(std::count_if(
      outcomes.begin(), outcomes.end(), [](const auto& node) { return node.second == 0; }));
  reporter.say(fmt::format("durable on {} of {} nodes", durable, outcomes.size()),
               cli::Output::Kind::kResult);
  return durable == outcomes.size();
}

}  // namespace pkgdist::lead_program
