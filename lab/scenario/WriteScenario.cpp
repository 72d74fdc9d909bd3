#include "lab/scenario/WriteScenario.h"

#include "lab/scenario/ScenarioForms.h"
#include "lab/scenario/YamlText.h"

namespace tessel::lab {

std::string scenarioText(const Scenario& scenario) {
  Scenario described = scenario;
  YamlNode file;
  Form form(file);
  describeScenario(form, described);
  return yamlText(file);
}

std::string actionText(const Action& action) {
  return flowText(actionNode(action));
}

}  // namespace tessel::lab
