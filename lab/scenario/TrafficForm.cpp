// The traffic of a scenario file.
#include <algorithm>

#include "lab/scenario/ScenarioForms.h"

namespace tessel::lab {
namespace {

/// The paths between two routers. The list must name two of the scenario's.
std::vector<std::string> readBetween(const Field& field, const Scenario& scenario) {
  std::vector<std::string> found;
  const std::vector<Field> both = field.items();
  if (both.size() != 2) {
    field.refuse("expected two routers");
    return found;
  }
  std::string a;
  std::string b;
  if (!both[0].read(a) || !both[1].read(b)) {
    return found;
  }
  checkReference(both[0], NameOf::router, a);
  checkReference(both[1], NameOf::router, b);
  for (const PathPlan& path : scenario.paths) {
    if ((path.ends[0].router == a && path.ends[1].router == b) ||
        (path.ends[0].router == b && path.ends[1].router == a)) {
      found.push_back(path.name);
    }
  }
  if (found.empty() && scenario.router(a) != nullptr && scenario.router(b) != nullptr) {
    field.refuse("no path joins these routers");
  }
  return found;
}

std::vector<std::string> readFlowPaths(MapReader& map, const Scenario& scenario) {
  const auto one = map.find("path");
  const auto several = map.find("paths");
  const auto between = map.find("between");
  if (one.has_value() + several.has_value() + between.has_value() != 1) {
    map.field().refuse("a flow has one of path, paths and between");
    return {};
  }
  if (between) {
    return readBetween(*between, scenario);
  }
  std::vector<std::string> paths;
  if (several && several->isText("all")) {
    std::ranges::transform(scenario.paths, std::back_inserter(paths), &PathPlan::name);
    return paths;
  }
  for (const Field& item : several ? several->items() : std::vector<Field>{*one}) {
    std::string path;
    if (item.read(path)) {
      checkReference(item, NameOf::path, path);
      paths.push_back(path);
    }
  }
  return paths;
}

void describeFlowPaths(Form& form, const Scenario& scenario, std::vector<std::string>& paths) {
  if (form.source() != nullptr) {
    paths = readFlowPaths(*form.source(), scenario);
  } else if (paths.size() == 1) {
    form.addText("path", paths.front());
  } else {
    YamlNode list{.kind = YamlNode::Kind::sequence};
    for (const std::string& path : paths) {
      list.items.push_back({.text = path});
    }
    form.add("paths", std::move(list));
  }
}

void checkSender(MapReader& map, const Scenario& scenario, const FlowPlan& flow) {
  for (const std::string& name : flow.paths) {
    const PathPlan* path = scenario.path(name);
    if (path != nullptr && !flow.from.empty() && scenario.router(flow.from) != nullptr &&
        path->ends[0].router != flow.from && path->ends[1].router != flow.from) {
      map.find("from")->refuse("not an end of path \"" + name + "\"");
    }
  }
}

/// A flow's interval in the other way to say it; false when the file has none.
bool readRate(MapReader& map, Duration& interval) {
  const auto rate = map.find("rate");
  std::string text;
  if (!rate) {
    return false;
  }
  if (map.find("interval")) {
    rate->refuse("a flow has a rate or an interval, not both");
  } else if (rate->read(text)) {
    const Parsed<double> perSecond = parseRate(text);
    if (perSecond.value) {
      interval = Duration(1 / *perSecond.value);
    } else {
      rate->refuse(perSecond.problem);
    }
  }
  return true;
}

void describeFlow(Form& form, const Scenario& scenario, FlowPlan& flow) {
  const FlowPlan usual;
  newName(form, "flow", scenario.traffic, flow.name);
  describeFlowPaths(form, scenario, flow.paths);
  reference(form, "from", NameOf::router, Need::optional, flow.from);
  MapReader* const map = form.source();
  if (map != nullptr) {
    checkSender(*map, scenario, flow);
  }
  if (map == nullptr || !readRate(*map, flow.interval)) {
    form.defaulted("interval", flow.interval, usual.interval,
                   TimeKind{.least = seconds(1e-6), .most = kLongestRun});
  }
  // From an empty IPv4 UDP packet to a jumbo frame.
  form.defaulted("size", flow.size, usual.size, SizeKind<uint32_t>{.least = 28, .most = 9000});
  form.defaulted("start", flow.start, usual.start, OrWord{"never", Duration::never(), TimeKind()});
  form.defaulted("stop", flow.stop, usual.stop, TimeKind());
  if (map != nullptr && !flow.stop.isNever() && flow.stop <= flow.start && !flow.start.isNever()) {
    map->find("stop")->refuse("not after the start");
  }
}

}  // namespace

void describeTraffic(Form& form, Scenario& scenario) {
  form.list("traffic", scenario.traffic, {}, {},
            [&](Form& item, FlowPlan& flow) { describeFlow(item, scenario, flow); });
}

}  // namespace tessel::lab
