#include "given_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace pkgdist::lead_program {

namespace {

void add(const CLI::App& app, const std::vector<std::string>& told, GivenOptions& given) {
  for (const CLI::Option* option : app.get_options()) {
    const std::string name = option->get_name();
    if (option->empty() || !name.starts_with('-') ||
        std::find(told.begin(), told.end(), name) != told.end())
      continue;
    std::string values;
    if (option->get_items_expected_max() != 0)
      for (const std::string& value : option->results())
        values += (values.empty() ? "" : ", ") + value;
    given.emplace_back(name, values);
  }
}

}  // namespace

GivenOptions given_options(const CLI::App& command, const std::vector<std::string>& told) {
  GivenOptions given;
  add(command, told, given);
  if (command.get_parent() != nullptr) add(*command.get_parent(), told, given);
  return given;
}

}  // namespace pkgdist::lead_program
