#include "lab/scenario/EffectiveTimers.h"

#include <algorithm>

#include <fmt/format.h>

namespace tessel::lab {
namespace {

std::optional<EffectiveLimit> limitOf(uint64_t hard, Spread (*spread)(uint64_t)) {
  if (hard == 0) {
    return std::nullopt;
  }
  return EffectiveLimit{.hard = hard, .soft = spread(hard)};
}

ProfileTimers profileTimers(const ProfileSettings& profile, bool applied) {
  ProfileTimers timers{.profile = profile.name,
                       .applied = applied,
                       .encryption = profile.sa.encryption,
                       .integrity = profile.sa.integrity,
                       .seconds = limitOf(profile.sa.lifetime, timedSpread),
                       .packets = limitOf(profile.sa.packetLimit, limitSpread),
                       .bytes = limitOf(profile.sa.byteLimit, limitSpread)};
  const auto preferred =
      std::ranges::min_element(profile.sa.suites, {}, &CryptoSuitePlan::preference);
  if (preferred != profile.sa.suites.end()) {
    timers.suite = preferred->name;
    timers.encryption = preferred->encryption;
    timers.integrity = preferred->integrity;
  }
  return timers;
}

std::string limitText(const std::optional<EffectiveLimit>& limit, const char* unit) {
  if (!limit) {
    return "no limit";
  }
  return fmt::format("soft {} to {} {}, hard {} {}", limit->soft.from, limit->soft.to, unit,
                     limit->hard, unit);
}

}  // namespace

Spread timedSpread(uint64_t lifetime) {
  const uint64_t early = std::min<uint64_t>(lifetime / 5, 900);
  return {.from = lifetime - 2 * early, .to = lifetime - early};
}

Spread limitSpread(uint64_t limit) {
  // In the machine's own steps, so that rounding falls alike: the draw lies in [0, 1), its largest
  // value one step of random()'s range below 1.
  constexpr double largestDraw = 2147483646.0 / 2147483647.0;
  const auto hard = static_cast<double>(limit);
  const uint64_t latest = limit - static_cast<uint64_t>(0.25 * hard);
  return {.from = latest - static_cast<uint64_t>(largestDraw * (0.025 * hard)), .to = latest};
}

std::vector<RouterTimers> effectiveTimers(const Scenario& scenario) {
  std::vector<RouterTimers> all;
  for (const RouterPlan& router : scenario.routers) {
    const RouterSettings& settings = router.settings;
    RouterTimers timers{
        .router = router.name,
        .group = settings.group,
        .dhKey = {.hard = settings.dhKeyLifetime, .soft = timedSpread(settings.dhKeyLifetime)},
        .holdTime = settings.holdTime,
        .sanityExpiry = settings.sanityExpiry,
        .dhRekeyDelay = settings.dhRekeyDelay,
        .installDelay = settings.installDelay};
    timers.profiles.push_back(profileTimers(settings.profile, true));
    for (const ProfileSettings& profile : settings.otherProfiles) {
      timers.profiles.push_back(profileTimers(profile, false));
    }
    all.push_back(std::move(timers));
  }
  return all;
}

std::string stringValue(const RouterTimers& timers) {
  std::string text = fmt::format("{}\n", timers.router);
  const auto line = [&text](const std::string& name, const std::string& value) {
    text += fmt::format("  {:<18} {}\n", name, value);
  };
  line("DH group", stringValue(timers.group));
  line("DH key", fmt::format("lifetime {} s, rekeyed {} to {} s after its generation",
                             timers.dhKey.hard, timers.dhKey.soft.from, timers.dhKey.soft.to));
  line("DH rekey delay", stringValue(timers.dhRekeyDelay) + " after the first peer");
  line("hold time", timers.holdTime == 0 ? "none" : fmt::format("{} s", timers.holdTime));
  line("sanity expiry", stringValue(timers.sanityExpiry));
  line("install delay", stringValue(timers.installDelay));
  for (const ProfileTimers& profile : timers.profiles) {
    text += fmt::format("  profile {}{}\n", profile.profile, profile.applied ? " (applied)" : "");
    line("  algorithms",
         fmt::format("{}, {}{}", stringValue(profile.encryption), stringValue(profile.integrity),
                     profile.suite.empty() ? "" : ", suite " + profile.suite));
    line("  SA time", limitText(profile.seconds, "s"));
    line("  SA packets", limitText(profile.packets, "packets"));
    line("  SA bytes", limitText(profile.bytes, "B"));
  }
  return text;
}

}  // namespace tessel::lab
