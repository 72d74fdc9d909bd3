// The routers of a scenario file, with their profiles and the settings of their SAs.
#include <algorithm>

#include "lab/scenario/ScenarioForms.h"

namespace tessel::lab {
namespace {

/// "49152-65535", or one port.
struct PortRangeKind {
  bool read(const Field& field, Ike::EncapSrcPortRange& range) const {
    std::string text;
    if (!field.read(text)) {
      return false;
    }
    const size_t dash = text.find('-');
    const Parsed<uint64_t> first = parseCount(text.substr(0, dash));
    const Parsed<uint64_t> last =
        dash == std::string::npos ? first : parseCount(text.substr(dash + 1));
    if (!first.value || !last.value || *first.value < 1 || *last.value > 65535 ||
        *first.value > *last.value) {
      return field.refuse("not a range of ports: \"49152-65535\" or none");
    }
    range = {static_cast<uint16_t>(*first.value), static_cast<uint16_t>(*last.value)};
    return true;
  }
  std::string text(const Ike::EncapSrcPortRange& range) const {
    return std::to_string(range.first) + "-" + std::to_string(range.last);
  }
};

void describeSuites(Form& form, std::vector<CryptoSuitePlan>& suites,
                    const std::vector<CryptoSuitePlan>& unsaid) {
  size_t place = 0;
  form.list("suites", suites, unsaid, {}, [&](Form& item, CryptoSuitePlan& suite) {
    newName(item, "suite", suites, suite.name);
    const auto usual = static_cast<uint32_t>(10 * ++place);
    MapReader* const map = item.source();
    if (map != nullptr) {
      suite.preference = usual;
    }
    item.defaulted("preference", suite.preference, usual, CountKind<uint32_t>());
    if (map != nullptr && map->has("preference") &&
        std::ranges::find(suites, suite.preference, &CryptoSuitePlan::preference) != suites.end()) {
      map->find("preference")->refuse("another suite has this preference");
    }
    item.required("encryption", suite.encryption, encryptionKind());
    item.defaulted("integrity", suite.integrity, CryptoSuitePlan().integrity, integrityKind());
  });
}

void describeSa(Form& form, SaSettings& sa, const SaSettings& unsaid) {
  describeSuites(form, sa.suites, unsaid.suites);
  form.defaulted("encryption", sa.encryption, unsaid.encryption, encryptionKind());
  form.defaulted("integrity", sa.integrity, unsaid.integrity, integrityKind());
  form.defaulted("lifetime", sa.lifetime, unsaid.lifetime, lifetimeKind());
  form.defaulted("packet-limit", sa.packetLimit, unsaid.packetLimit, packetLimitKind());
  form.defaulted("byte-limit", sa.byteLimit, unsaid.byteLimit, byteLimitKind());
}

/// Everything of a profile but its name.
void describeProfile(Form& form, ProfileSettings& profile, const ProfileSettings& unsaid) {
  static const Names<std::string> modes = {{"tunnel", "tunnel"}, {"transport", "transport"}};
  form.defaulted("mode", profile.mode, unsaid.mode, NameKind{"a mode", modes});
  form.defaulted("flow-encap", profile.flowEncap, unsaid.flowEncap, SwitchKind());
  form.defaulted("source-ports", profile.sourcePorts, unsaid.sourcePorts,
                 OrWord{"none", Ike::EncapSrcPortRange(), PortRangeKind()});
  form.part("sa", [&](Form& sa) { describeSa(sa, profile.sa, unsaid.sa); });
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

}  // namespace

void describeSettings(Form& form, RouterSettings& settings, const RouterSettings& unsaid) {
  form.defaulted("profile", settings.profile.name, unsaid.profile.name, TextKind());
  describeProfile(form, settings.profile, unsaid.profile);
  form.list("other-profiles", settings.otherProfiles, unsaid.otherProfiles, settings.profile,
            [&](Form& item, ProfileSettings& profile) {
              newName(item, "profile", settings.otherProfiles, profile.name);
              describeProfile(item, profile, settings.profile);
            });
  if (MapReader* const map = form.source()) {
    for (const char* key : {"other-profiles", "profile", "sa"}) {
      if (map->has(key)) {
        // Once, where a profile was touched: not again at each router that inherits it.
        checkProfiles(*map->find(key), settings);
        break;
      }
    }
  }
  form.defaulted("group", settings.group, unsaid.group, groupKind());
  form.defaulted("dh-key-lifetime", settings.dhKeyLifetime, unsaid.dhKeyLifetime, SecondsKind());
  form.defaulted("hold-time", settings.holdTime, unsaid.holdTime,
                 OrWord{"none", uint32_t{0}, SecondsKind()});
  form.defaulted("controller-delay", settings.controllerDelay, unsaid.controllerDelay, TimeKind());
  form.defaulted("install-delay", settings.installDelay, unsaid.installDelay, TimeKind());
  // The machine looks at a path once a minute and wants three looks before it gives up.
  form.defaulted("sanity-expiry", settings.sanityExpiry, unsaid.sanityExpiry,
                 TimeKind{.least = seconds(180), .most = kLongestRun});
  form.defaulted("dh-rekey-delay", settings.dhRekeyDelay, unsaid.dhRekeyDelay, TimeKind());
  const CountKind<uint32_t> capacity = {.most = 1'000'000};
  form.defaulted("max-event-record", settings.maxEventRecord, unsaid.maxEventRecord, capacity);
  form.defaulted("max-gone-sa-logs", settings.maxGoneSaLogs, unsaid.maxGoneSaLogs, capacity);
  form.defaulted("yield-after", settings.yieldAfter, unsaid.yieldAfter,
                 OrNothing{"never", CountKind<uint64_t>{.least = 1}});
}

void describeRouters(Form& form, std::vector<RouterPlan>& routers) {
  RouterSettings common;
  if (form.target() != nullptr && routers.size() > 1) {
    common = routers.front().settings;
  }
  form.part("defaults", [&](Form& part) { describeSettings(part, common, RouterSettings()); });

  MapReader* const file = form.source();
  if (file != nullptr) {
    file->require("routers");
  }
  form.list("routers", routers, {}, {.settings = common}, [&](Form& item, RouterPlan& router) {
    newName(item, "router", routers, router.name);
    item.required("router-id", router.routerId, AddressKind());
    if (MapReader* const map = item.source(); map != nullptr && map->has("router-id")) {
      const Field id = *map->find("router-id");
      if (!IpGenAddr::parse(id.node().text)) {
        // Told already.
      } else if (router.routerId.isUnspecified()) {
        id.refuse("not a valid router id");
      } else if (std::ranges::find(routers, router.routerId, &RouterPlan::routerId) !=
                 routers.end()) {
        id.refuse("another router has this router id");
      }
    }
    item.defaulted("present", router.present, true, SwitchKind());
    describeSettings(item, router.settings, common);
  });
  if (file != nullptr && file->has("routers")) {
    refuseEmptyList(*file->find("routers"), "at least one router is needed");
  }
}

}  // namespace tessel::lab
