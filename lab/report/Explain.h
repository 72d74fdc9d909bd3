// Explain: what went wrong in a run, or stands unfinished at its end, and why: each thing with the
// sentences that the terminal, the JSON report and the HTML report show.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lab/report/History.h"
#include "lab/run/Lab.h"

namespace tessel::lab {

/// Something that an operator would ask about.
struct Finding {
  enum class Kind : uint8_t { peerDown, pathMissing, installation, drops, pathState };
  /// What happened at one of the two routers before it.
  struct Before {
    Duration at{};
    std::string router{};  ///< Empty: the lab.
    std::string text{};
  };

  Kind kind = Kind::drops;
  std::string router{};
  std::string path{};  ///< Empty: of no path.
  std::string peer{};
  Duration from{};
  std::optional<Duration> to{};  ///< Absent: it stands at the end of the run.
  std::optional<uint32_t> spi{};
  std::string reason{};  ///< Drop reason, down reason, path state.
  bool sending = false;  ///< Drops: by the sender. Installation: of an out-SA.
  uint64_t count = 0;    ///< Drops: packets.

  std::string title{};        ///< "hub-5: peer spoke-9 is down, dh-group-mismatch"
  std::string explanation{};  ///< Sentences.
  std::vector<Before> before{};
};

/// "peer-down", "path-missing", "installation", "drops", "path-state".
const char* findingKindName(Finding::Kind kind);

/// Looks back at a run that has ended.
class Explain {
 public:
  /// Both outlive this.
  Explain(const History& history, const Lab& lab) : history_(history), lab_(lab) {}

  /// Everything that there is to explain, worst first:
  /// - peers that were taken down, and wanted paths that are not there at the end
  /// - SAs that the data path did not install
  /// - drops, grouped by router, path, SA and reason
  /// - paths that are not active at the end, or were in the midst of a rekey for longer than 3 min
  std::vector<Finding> findings() const;

  /// Sentences for one change of a path's state, given by its position in the history.
  std::string ofPathState(size_t position) const;

 private:
  // What is found.
  void addPeersDown(std::vector<Finding>& out) const;
  void addPathsMissing(std::vector<Finding>& out) const;
  void addInstallations(std::vector<Finding>& out) const;
  void addDrops(std::vector<Finding>& out) const;
  void addPathStates(std::vector<Finding>& out) const;
  void addBefore(Finding& finding) const;

  // Sentences.
  std::string ofPeerDown(const Finding& finding) const;
  std::string ofMissingPath(const Finding& finding) const;
  std::string ofInstallation(const Finding& finding, const SaLife& life) const;
  std::string ofDrops(const Finding& finding) const;
  std::string ofUnknownSa(const Finding& finding) const;
  std::string ofNoOutSa(const Finding& finding) const;
  std::string ofBadIcv(const Finding& finding) const;
  std::string ofNetwork(const Finding& finding) const;
  std::string ofForeignSpi(const Finding& finding) const;

  // What was the case.
  const SaLife* life(const std::string& router, const std::string& path, uint32_t spi, bool inbound,
                     Duration time) const;
  /// "west sends on its out-SA 0x..., installed at 1.000 s, of keys 0/0".
  std::string senderText(const Finding& finding) const;
  /// ", when it pruned the path after a rekey": what a router did on a path at that time.
  std::string causeAt(const std::string& router, const std::string& path, Duration time) const;
  std::optional<DynamicPathState> stateAt(const std::string& router, const std::string& path,
                                          Duration time) const;
  std::optional<KeyFacts> publishedAt(const std::string& router, Duration time) const;
  /// The last record of the peer that the router had received by then, and when.
  std::optional<std::pair<Duration, std::optional<KeyFacts>>> receivedAt(const std::string& router,
                                                                         const std::string& peer,
                                                                         Duration time) const;
  const LabEvent* lastPathGone(const std::string& router, const std::string& path,
                               Duration time) const;
  /// Whether the router has taken the peer down and not up again by then.
  std::optional<PeerDownReason> downAt(const std::string& router, const std::string& peer,
                                       Duration time) const;
  /// "; west has been without its controllers since 2.000 s", or nothing.
  std::string outageText(const std::string& router, Duration time) const;
  std::string absenceText(const std::string& router, const std::string& path,
                          const std::string& peer, Duration time) const;

  const History& history_;
  const Lab& lab_;
};

}  // namespace tessel::lab
