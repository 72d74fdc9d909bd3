// The paths of a scenario file: their ends and what lies between.
#include <algorithm>
#include <array>

#include "lab/scenario/ScenarioForms.h"

namespace tessel::lab {
namespace {

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

void checkPathEnd(MapReader& map, size_t pathIndex, const PathEndPlan& end) {
  const auto isAddress = [](const std::optional<Field>& field) {
    return field && IpGenAddr::parse(field->node().text);
  };
  if (const auto address = map.find("address"); isAddress(address)) {
    if (end.address.isUnspecified()) {
      address->refuse("not a valid underlay address");
    }
    checkAddress(*address, end.address, end.router, pathIndex);
  }
  if (const auto address = map.find("public-address"); isAddress(address)) {
    if (end.publicAddress.isUnspecified() || end.publicAddress == end.address) {
      address->refuse("not a public address of its own; leave it out when there is none");
    }
    checkAddress(*address, end.publicAddress, end.router, pathIndex);
  }
}

void describePathEnd(Form& form, size_t pathIndex, PathEndPlan& end) {
  reference(form, "router", NameOf::router, Need::one, end.router);
  form.required("address", end.address, AddressKind());
  form.defaulted("public-address", end.publicAddress, IpGenAddr(), AddressKind());
  if (form.source() != nullptr) {
    checkPathEnd(*form.source(), pathIndex, end);
  }
  form.defaulted("port", end.port, PathEndPlan().port, CountKind<uint16_t>{.least = 1});
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

void describeEnds(Form& form, size_t pathIndex, PathEndPlan (&ends)[2]) {
  if (form.target() != nullptr) {
    YamlNode list{.kind = YamlNode::Kind::sequence};
    for (PathEndPlan& end : ends) {
      Form item(list.items.emplace_back());
      describePathEnd(item, pathIndex, end);
    }
    form.add("ends", std::move(list));
    return;
  }
  const auto field = form.source()->require("ends");
  if (!field) {
    return;
  }
  const std::vector<Field> both = field->items();
  if (both.size() != 2) {
    if (field->node().kind == YamlNode::Kind::sequence) {
      field->refuse("a path has two ends");
    }
    return;
  }
  for (const size_t i : {0U, 1U}) {
    MapReader map(both[i]);
    Form item(map);
    describePathEnd(item, pathIndex, ends[i]);
  }
  checkPath(form.source()->field(), pathIndex);
}

}  // namespace

void describePaths(Form& form, std::vector<PathPlan>& paths) {
  form.list("paths", paths, {}, PathPlan(), [&](Form& item, PathPlan& path) {
    newName(item, "path", paths, path.name);
    describeEnds(item, paths.size(), path.ends);
    item.part("link", [&](Form& link) {
      ChangeLink change = linkChange(LinkSettings(), path.link);
      describeLink(link, change);
      path.link = changedLink(path.link, change);
    });
    const PathCondition usual;
    item.defaulted("present", path.present, true, SwitchKind());
    item.defaulted("up", path.condition.up, usual.up, SwitchKind());
    item.defaulted("allowed", path.condition.allowed, usual.allowed, SwitchKind());
    item.defaulted("enabled", path.condition.enabled, usual.enabled, SwitchKind());
    item.defaulted("connection", path.condition.connection, usual.connection, connectionKind());
  });
}

}  // namespace tessel::lab
