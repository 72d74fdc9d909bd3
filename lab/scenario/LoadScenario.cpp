#include "lab/scenario/LoadScenario.h"

#include <algorithm>
#include <array>
#include <tuple>

#include "lab/ReadFile.h"
#include "lab/scenario/ScenarioReaders.h"

namespace tessel::lab {
namespace {

constexpr Duration longestRun = Duration(366.0 * 86400);

/// A name of something of the scenario: refused when it cannot be told from other text or is taken.
template <class Plan>
void readNewName(MapReader& map, const std::string& what, const std::vector<Plan>& earlier,
                 std::string& name) {
  const std::optional<Field> field = map.require("name");
  if (!field || !field->read(name)) {
    return;
  }
  constexpr const char* allowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  if (name.empty() || name.find_first_not_of(allowed) != std::string::npos) {
    field->refuse("a name consists of letters, digits, '-', '_' and '.'");
  } else if (name == "all" || name == "none") {
    field->refuse("this name has a meaning of its own");
  } else if (std::ranges::find(earlier, name, &Plan::name) != earlier.end()) {
    field->refuse("another " + what + " has this name");
  }
}

void readSuites(const Field& list, std::vector<CryptoSuitePlan>& suites) {
  suites.clear();
  for (const Field& item : list.items()) {
    MapReader map(item);
    CryptoSuitePlan suite;
    readNewName(map, "suite", suites, suite.name);
    suite.preference = static_cast<uint32_t>(10 * (suites.size() + 1));
    if (const auto field = map.find("preference")) {
      field->readCount(suite.preference, 0U);
      if (std::ranges::find(suites, suite.preference, &CryptoSuitePlan::preference) !=
          suites.end()) {
        field->refuse("another suite has this preference");
      }
    }
    if (const auto field = map.require("encryption")) {
      field->readModelName(suite.encryption, "an encryption algorithm", encryptionNames());
    }
    if (const auto field = map.find("integrity")) {
      field->readModelName(suite.integrity, "an integrity algorithm", integrityNames());
    }
    suites.push_back(suite);
  }
}

void readSa(const Field& field, SaSettings& sa) {
  MapReader map(field);
  if (const auto suites = map.find("suites")) {
    readSuites(*suites, sa.suites);
  }
  if (const auto encryption = map.find("encryption")) {
    encryption->readModelName(sa.encryption, "an encryption algorithm", encryptionNames());
  }
  if (const auto integrity = map.find("integrity")) {
    integrity->readModelName(sa.integrity, "an integrity algorithm", integrityNames());
  }
  std::optional<uint32_t> lifetime;
  std::optional<uint32_t> packetLimit;
  std::optional<uint64_t> byteLimit;
  readSaLimits(map, lifetime, packetLimit, byteLimit);
  sa.lifetime = lifetime.value_or(sa.lifetime);
  sa.packetLimit = packetLimit.value_or(sa.packetLimit);
  sa.byteLimit = byteLimit.value_or(sa.byteLimit);
}

void readSourcePorts(const Field& field, Ike::EncapSrcPortRange& range) {
  if (field.isText("none")) {
    range = {};
    return;
  }
  std::string text;
  if (!field.read(text)) {
    return;
  }
  const size_t dash = text.find('-');
  const Parsed<uint64_t> first = parseCount(text.substr(0, dash));
  const Parsed<uint64_t> last =
      dash == std::string::npos ? first : parseCount(text.substr(dash + 1));
  if (!first.value || !last.value || *first.value < 1 || *last.value > 65535 ||
      *first.value > *last.value) {
    field.refuse("not a range of ports: \"49152-65535\" or none");
    return;
  }
  range = {static_cast<uint16_t>(*first.value), static_cast<uint16_t>(*last.value)};
}

/// Everything of a profile but its name, over what `profile` has already.
void readProfile(MapReader& map, ProfileSettings& profile) {
  if (const auto mode = map.find("mode")) {
    static const Names<std::string> modes = {{"tunnel", "tunnel"}, {"transport", "transport"}};
    mode->readName(profile.mode, "a mode", modes);
  }
  map.get("flow-encap", profile.flowEncap);
  if (const auto ports = map.find("source-ports")) {
    readSourcePorts(*ports, profile.sourcePorts);
  }
  if (const auto sa = map.find("sa")) {
    readSa(*sa, profile.sa);
  }
}

void readOtherProfiles(const Field& list, RouterSettings& settings) {
  settings.otherProfiles.clear();
  for (const Field& item : list.items()) {
    MapReader map(item);
    ProfileSettings profile = settings.profile;
    readNewName(map, "profile", settings.otherProfiles, profile.name);
    readProfile(map, profile);
    settings.otherProfiles.push_back(profile);
  }
}

/// Suites are known by name in a router's configuration, whatever profile lists them.
void checkProfiles(const Field& field, const RouterSettings& settings) {
  std::vector<CryptoSuitePlan> suites = settings.profile.sa.suites;
  for (const ProfileSettings& profile : settings.otherProfiles) {
    if (profile.name == settings.profile.name) {
      field.refuse("profile \"" + profile.name + "\" is configured twice");
    }
    if (profile.sa.suites == settings.profile.sa.suites) {
      continue;
    }
    for (const CryptoSuitePlan& suite : profile.sa.suites) {
      const auto same = std::ranges::find(suites, suite.name, &CryptoSuitePlan::name);
      if (same == suites.end()) {
        suites.push_back(suite);
      } else if (same->encryption != suite.encryption || same->integrity != suite.integrity) {
        field.refuse("suite \"" + suite.name + "\" has other algorithms in another profile");
      }
    }
  }
}

/// The settings of a router over those of the defaults, or the defaults over the built-in ones.
void readSettings(MapReader& map, RouterSettings& settings) {
  map.get("profile", settings.profile.name);
  readProfile(map, settings.profile);
  if (const auto others = map.find("other-profiles")) {
    readOtherProfiles(*others, settings);
  }
  for (const char* key : {"other-profiles", "profile", "sa"}) {
    // Once, where a profile was touched: not again at each router that inherits it.
    if (map.has(key)) {
      checkProfiles(*map.find(key), settings);
      break;
    }
  }
  if (const auto group = map.find("group")) {
    group->readModelName(settings.group, "a DH group", groupNames());
  }
  if (const auto lifetime = map.find("dh-key-lifetime")) {
    lifetime->readSeconds(settings.dhKeyLifetime, 1);
  }
  if (const auto hold = map.find("hold-time"); hold && hold->isText("none")) {
    settings.holdTime = 0;
  } else if (hold) {
    hold->readSeconds(settings.holdTime, 1);
  }
  map.get("controller-delay", settings.controllerDelay);
  map.get("install-delay", settings.installDelay);
  if (const auto expiry = map.find("sanity-expiry")) {
    // The machine looks at a path once a minute and wants three looks before it gives up.
    expiry->readDuration(settings.sanityExpiry, seconds(180), longestRun);
  }
  map.get("dh-rekey-delay", settings.dhRekeyDelay);
  if (const auto records = map.find("max-event-record")) {
    records->readCount(settings.maxEventRecord, 0U, 1'000'000U);
  }
  if (const auto logs = map.find("max-gone-sa-logs")) {
    logs->readCount(settings.maxGoneSaLogs, 0U, 1'000'000U);
  }
  if (const auto yield = map.find("yield-after"); yield && yield->isText("never")) {
    settings.yieldAfter.reset();
  } else if (yield) {
    uint64_t calls = 1;
    yield->readCount(calls, 1, std::numeric_limits<uint64_t>::max());
    settings.yieldAfter = calls;
  }
}

void readRouters(const Field& list, const RouterSettings& defaults,
                 std::vector<RouterPlan>& routers) {
  for (const Field& item : list.items()) {
    MapReader map(item);
    RouterPlan router{.settings = defaults};
    readNewName(map, "router", routers, router.name);
    if (const auto id = map.require("router-id"); id && id->read(router.routerId)) {
      if (router.routerId.isUnspecified()) {
        id->refuse("not a valid router id");
      } else if (std::ranges::find(routers, router.routerId, &RouterPlan::routerId) !=
                 routers.end()) {
        id->refuse("another router has this router id");
      }
    }
    map.get("present", router.present);
    readSettings(map, router.settings);
    routers.push_back(router);
  }
  if (routers.empty() && list.node().kind == YamlNode::Kind::sequence) {
    list.refuse("at least one router is needed");
  }
}

// Addresses and ports as they are seen on the wire.

struct WireEnd {
  IpGenAddr address;
  uint16_t port = 0;
  friend auto operator<=>(const WireEnd&, const WireEnd&) = default;
};

WireEnd wireEnd(const PathEndPlan& end) {
  return {end.publicAddress.isUnspecified() ? end.address : end.publicAddress, end.port};
}

std::array<WireEnd, 2> wireEnds(const PathPlan& path) {
  std::array<WireEnd, 2> ends = {wireEnd(path.ends[0]), wireEnd(path.ends[1])};
  std::ranges::sort(ends);
  return ends;
}

/// The router that has the address already, on an earlier path or as its router id.
std::string ownerOf(const IpGenAddr& address, const Scenario& scenario, size_t endOfPaths) {
  for (const RouterPlan& router : scenario.routers) {
    if (router.routerId == address) {
      return router.name;
    }
  }
  for (size_t i = 0; i < endOfPaths; ++i) {
    for (const PathEndPlan& end : scenario.paths[i].ends) {
      if (end.address == address || end.publicAddress == address) {
        return end.router;
      }
    }
  }
  return {};
}

void checkAddress(const Field& field, const IpGenAddr& address, const std::string& router,
                  size_t pathIndex) {
  field.state().checks.push_back([=](const Scenario& scenario) {
    const std::string owner = ownerOf(address, scenario, pathIndex);
    if (!address.isUnspecified() && !owner.empty() && owner != router) {
      field.refuse("router \"" + owner + "\" has this address");
    }
  });
}

void readPathEnd(const Field& field, size_t pathIndex, PathEndPlan& end) {
  MapReader map(field);
  readReference(map, "router", NameOf::router, Need::one, end.router);
  if (const auto address = map.require("address"); address && address->read(end.address)) {
    if (end.address.isUnspecified()) {
      address->refuse("not a valid underlay address");
    }
    checkAddress(*address, end.address, end.router, pathIndex);
  }
  if (const auto address = map.find("public-address");
      address && address->read(end.publicAddress)) {
    if (end.publicAddress.isUnspecified() || end.publicAddress == end.address) {
      address->refuse("not a public address of its own; leave it out when there is none");
    }
    checkAddress(*address, end.publicAddress, end.router, pathIndex);
  }
  if (const auto port = map.find("port")) {
    port->readCount(end.port, uint16_t{1});
  }
}

void checkPath(const Field& field, size_t index) {
  field.state().checks.push_back([=](const Scenario& scenario) {
    const PathPlan& path = scenario.paths[index];
    const auto& [a, b] = path.ends;
    if (a.router == b.router && !a.router.empty()) {
      field.refuse("both ends are at router \"" + a.router + "\"");
      return;
    }
    if (a.address.isUnspecified() || b.address.isUnspecified()) {
      return;  // Told already.
    }
    if (wireEnd(a).address.family() != wireEnd(b).address.family() ||
        a.address.family() != b.address.family()) {
      field.refuse("the ends mix IPv4 and IPv6");
      return;
    }
    if (a.address == b.address || wireEnd(a).address == wireEnd(b).address) {
      field.refuse("both ends have the same address");
      return;
    }
    for (size_t i = 0; i < index; ++i) {
      if (wireEnds(scenario.paths[i]) == wireEnds(path)) {
        field.refuse("cannot be told from path \"" + scenario.paths[i].name +
                     "\": same addresses and ports; give one end of it another port");
        return;
      }
    }
  });
}

void readPaths(const Field& list, std::vector<PathPlan>& paths) {
  for (const Field& item : list.items()) {
    MapReader map(item);
    PathPlan path;
    readNewName(map, "path", paths, path.name);
    if (const auto ends = map.require("ends")) {
      const std::vector<Field> both = ends->items();
      if (ends->node().kind == YamlNode::Kind::sequence && both.size() != 2) {
        ends->refuse("a path has two ends");
      } else if (both.size() == 2) {
        readPathEnd(both[0], paths.size(), path.ends[0]);
        readPathEnd(both[1], paths.size(), path.ends[1]);
        checkPath(item, paths.size());
      }
    }
    if (const auto link = map.find("link")) {
      MapReader members(*link);
      ChangeLink change;
      readLink(members, change);
      path.link = changedLink(path.link, change);
    }
    map.get("present", path.present);
    map.get("up", path.condition.up);
    map.get("allowed", path.condition.allowed);
    map.get("enabled", path.condition.enabled);
    if (const auto connection = map.find("connection")) {
      connection->readName(path.condition.connection, "a connection status", connectionNames());
    }
    paths.push_back(path);
  }
}

void readControllers(const Field& list, std::vector<ControllerPlan>& controllers) {
  controllers.clear();
  for (const Field& item : list.items()) {
    MapReader map(item);
    ControllerPlan controller;
    readNewName(map, "controller", controllers, controller.name);
    map.get("delay", controller.delay);
    controllers.push_back(controller);
  }
  if (controllers.empty() && list.node().kind == YamlNode::Kind::sequence) {
    list.refuse("at least one controller is needed");
  }
}

// Traffic.

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

void readFlowRate(MapReader& map, FlowPlan& flow) {
  const auto rate = map.find("rate");
  const auto interval = map.find("interval");
  if (rate && interval) {
    rate->refuse("a flow has a rate or an interval, not both");
  } else if (rate) {
    std::string text;
    if (rate->read(text)) {
      const Parsed<double> perSecond = parseRate(text);
      if (perSecond.value) {
        flow.interval = Duration(1 / *perSecond.value);
      } else {
        rate->refuse(perSecond.problem);
      }
    }
  } else if (interval) {
    interval->readDuration(flow.interval, seconds(1e-6), longestRun);
  }
}

void readTraffic(const Field& list, const Scenario& scenario, std::vector<FlowPlan>& traffic) {
  for (const Field& item : list.items()) {
    MapReader map(item);
    FlowPlan flow;
    readNewName(map, "flow", traffic, flow.name);
    flow.paths = readFlowPaths(map, scenario);
    readReference(map, "from", NameOf::router, Need::optional, flow.from);
    for (const std::string& name : flow.paths) {
      const PathPlan* path = scenario.path(name);
      if (path != nullptr && !flow.from.empty() && scenario.router(flow.from) != nullptr &&
          path->ends[0].router != flow.from && path->ends[1].router != flow.from) {
        map.find("from")->refuse("not an end of path \"" + name + "\"");
      }
    }
    readFlowRate(map, flow);
    if (const auto size = map.find("size")) {
      uint64_t bytes = flow.size;
      size->readSize(bytes, 28, 9000);  // From an empty IPv4 UDP packet to a jumbo frame.
      flow.size = static_cast<uint32_t>(bytes);
    }
    if (const auto start = map.find("start"); start && start->isText("never")) {
      flow.start = Duration::never();
    } else if (start) {
      start->read(flow.start);
    }
    if (const auto stop = map.find("stop");
        stop && stop->read(flow.stop) && flow.stop <= flow.start && !flow.start.isNever()) {
      stop->refuse("not after the start");
    }
    traffic.push_back(flow);
  }
}

void readProbes(const Field& field, ProbePlan& probes) {
  if (field.isText("off")) {
    probes.on = false;
    return;
  }
  MapReader map(field);
  if (const auto interval = map.find("interval")) {
    interval->readDuration(probes.interval, seconds(0.001), longestRun);
  }
}

void readToggles(const Field& field, std::map<std::string, bool>& toggles) {
  MapReader map(field);
  for (const char* name : {"PfConnectionLoss", "TrellisSnapshot"}) {
    bool state = false;
    if (map.get(name, state)) {
      toggles[name] = state;
    }
  }
}

void readWhole(const Field& root, Scenario& scenario) {
  MapReader map(root);
  map.get("name", scenario.name);
  map.get("description", scenario.description);
  if (const auto seed = map.find("seed")) {
    seed->readCount(scenario.seed, 0, std::numeric_limits<uint64_t>::max());
  }
  if (const auto duration = map.find("duration")) {
    duration->readDuration(scenario.duration, seconds(0.001), longestRun);
  }
  RouterSettings defaults;
  if (const auto field = map.find("defaults")) {
    MapReader members(*field);
    readSettings(members, defaults);
  }
  if (const auto routers = map.require("routers")) {
    readRouters(*routers, defaults, scenario.routers);
  }
  if (const auto paths = map.find("paths")) {
    readPaths(*paths, scenario.paths);
  }
  if (const auto controllers = map.find("controllers")) {
    readControllers(*controllers, scenario.controllers);
  }
  if (const auto distribution = map.find("distribution")) {
    static const Names<Distribution> names = {{"everyone", Distribution::everyone},
                                              {"neighbours", Distribution::neighbours}};
    distribution->readName(scenario.distribution, "a distribution", names);
  }
  if (const auto traffic = map.find("traffic")) {
    readTraffic(*traffic, scenario, scenario.traffic);
  }
  if (const auto probes = map.find("probes")) {
    readProbes(*probes, scenario.probes);
  }
  if (const auto toggles = map.find("toggles")) {
    readToggles(*toggles, scenario.toggles);
  }
  if (const auto timeline = map.find("timeline")) {
    readTimeline(*timeline, scenario.timeline);
  }
  if (const auto expectations = map.find("expectations")) {
    readExpectations(*expectations, scenario.expectations);
  }
}

void sortErrors(std::vector<ScenarioError>& errors) {
  std::ranges::stable_sort(
      errors, {}, [](const ScenarioError& error) { return std::tuple(error.line, error.column); });
}

}  // namespace

std::string stringValue(const ScenarioError& error) {
  std::string text = std::to_string(error.line) + ":" + std::to_string(error.column) + ": ";
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
  readWhole(Field(state, tree.root, ""), loaded.scenario);
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
    return {.errors = {{.value = file.string(), .problem = "cannot be read"}}};
  }
  LoadedScenario loaded = readScenario(*text);
  if (loaded.scenario.name.empty()) {
    loaded.scenario.name = file.stem().string();
  }
  return loaded;
}

}  // namespace tessel::lab
