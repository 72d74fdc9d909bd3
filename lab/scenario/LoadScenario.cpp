#include "lab/scenario/LoadScenario.h"

#include <algorithm>
#include <tuple>

#include "lab/ReadFile.h"
#include "lab/scenario/ScenarioForms.h"

namespace tessel::lab {
namespace {

void sortErrors(std::vector<ScenarioError>& errors) {
  std::ranges::stable_sort(
      errors, {}, [](const ScenarioError& error) { return std::tuple(error.line, error.column); });
}

}  // namespace

std::string stringValue(const ScenarioError& error) {
  std::string text;
  if (error.line > 0) {
    text = std::to_string(error.line) + ":" + std::to_string(error.column) + ": ";
  }
  if (!error.field.empty()) {
    text += error.field + ": ";
  }
  if (!error.value.empty()) {
    text += "\"" + error.value + "\": ";
  }
  return text + error.problem;
}

LoadedScenario readScenario(std::string_view text) {
  LoadedScenario loaded;
  const YamlTree tree = parseYaml(text);
  if (tree.error) {
    loaded.errors.push_back(
        {.line = tree.error->line, .column = tree.error->column, .problem = tree.error->problem});
    return loaded;
  }
  ReadingState state;
  {
    MapReader map(Field(state, tree.root, ""));
    Form form(map);
    describeScenario(form, loaded.scenario);
  }
  for (const auto& check : state.checks) {
    check(loaded.scenario);
  }
  loaded.errors = std::move(state.errors);
  sortErrors(loaded.errors);
  return loaded;
}

LoadedScenario loadScenario(const std::filesystem::path& file) {
  const std::optional<std::string> text = readFile(file);
  if (!text) {
    return {.errors = {{.problem = "cannot be read"}}};
  }
  LoadedScenario loaded = readScenario(*text);
  if (loaded.scenario.name.empty()) {
    loaded.scenario.name = file.stem().string();
  }
  return loaded;
}

}  // namespace tessel::lab
