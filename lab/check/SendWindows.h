// SendWindows: when a router may send what its peer cannot receive. docs/invariants.md says why.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "lab/check/MeshView.h"

namespace tessel::lab {

class Lab;

/// One window per path. It stands open from the beginning, and opens again whenever an end of the
/// path loses all of its SAs (its router goes down, its path is destroyed). It closes when both
/// ends send on an SA that the other one has installed with the same key: that one alone does is
/// not enough, since it may be an SA that the receiver is about to prune. An SA rekey that an end
/// was in when the other one lost its SAs has to be over as well: the other one has forgotten it.
///
/// It opens as well when the machine marks a path for a rebuild, since the DH rekey that does so
/// can move it on before it is rebuilt, and then closes when the path has come to rest too;
/// likewise when a DH rekey begins while the path still has SAs of the router's last one.
///
/// It also opens while an end cannot go by what its data path sees: the test knob says that every
/// path is active, or an SA was refused or is not reported.
///
/// Of its own opens the window of a path that a DH rekey left behind: its router published a key
/// for which the path has no in-SA, and the path was one that a rekey does not wait for. It excuses
/// what is sent on SAs of that key alone, and closes when the receiver has an in-SA of that key and
/// of what its peer sends on. And what is sent on an in-SA that is still being installed is excused
/// where the receiver has installed, and so sends on, the out-SA of the same generations.
class SendWindows {
 public:
  SendWindows(const Lab& lab, const MeshView& mesh);

  /// An end lost all of its SAs.
  void handleAllGone(EndId id);
  /// An SA was installed.
  void handleInstalled(EndId id);
  /// An SA was taken out, and others are left.
  void handleRemoved(EndId id);
  /// The machine marked the path to be rebuilt.
  void handleMarkedForRebuild(EndId id);
  /// The machine marked the path for a DH rekey of its own. An SA rekey that came in between can
  /// have hidden that the last one is not over; it would have been marked to be rebuilt else.
  void handleDhRekeyMarked(EndId id);
  /// The machine of a router began a DH rekey.
  void handleRekeyInitiated(const Router& router);
  void handleRekeyInSaInstalled(const Router& router);
  /// A router published its key number `generation`.
  void handlePublished(const Router& router, uint64_t generation);
  /// To be called now and then: a window's time does not run while the path has what it needs to
  /// come back taken from it.
  void look();

  /// Whether a window excuses a packet from `from` that the other end cannot receive; empty when it
  /// does, else why none does.
  std::string whyNot(EndId from, const SaReport& sa);
  /// No window of a path is open.
  bool closed(size_t path) const;

 private:
  /// At the end that published. A path can miss several rekeys: what is sent on any of their keys
  /// is excused until the end has an in-SA of the newest.
  struct LeftBehind {
    uint64_t first = 0;
    uint64_t newest = 0;
    Duration since;
  };
  struct Window {
    bool open = true;
    std::array<bool, 2> inSaRekey{};  ///< The end was, when the other one lost its SAs.
    std::array<bool, 2> marked{};     ///< The end is to be rebuilt, and has not come to rest since.
    Duration since{};                 ///< When it opened, or something was last missing.
    /// What the agent stored of the path when the end lost its SAs and the window opened.
    std::array<Ptr<Ike::PathConnState>, 2> emptied{};
    std::array<std::optional<LeftBehind>, 2> leftBehind;
    /// The path was not usable when the last DH rekey of the end's router began: what that makes
    /// once it is, is for the peer's newest key alone.
    std::array<bool, 2> wasUnusable{};
    /// The path when the last DH rekey of the end's router had all the in-SAs that it waited for.
    std::array<Ptr<Ike::PathConnState>, 2> waitedFor{};
  };

  void openIfBlind(EndId id);
  bool isBlind(EndId id) const;
  /// An end that lost its SAs and still has the path was not destroyed: a rekey or a prune took out
  /// too much, and nothing excuses that.
  void closeIfEmptied(size_t path);
  void closeIfMatching(size_t path);
  bool isInSaRekey(EndId id) const;
  /// How long a window may stay open while nothing is missing.
  Duration bound(size_t path) const;
  bool isOverdue(size_t path, Duration& since);
  bool isImpeded(size_t path) const;
  bool isImpeded(EndId id) const;
  bool couldTakePart(EndId id) const;
  bool isInDhRekey(EndId id) const;
  bool hasInSa(EndId id, uint64_t generation) const;
  bool isBeingInstalled(EndId id, uint32_t spi) const;
  std::optional<DhKeyPair> pairOf(EndId id, const SecurityAssociationKey& key) const;

  const Lab& lab_;
  const MeshView& mesh_;
  std::vector<Window> windows_;
  std::vector<Duration> rekeyInitiated_;  // By router.
};

}  // namespace tessel::lab
