#include "lab/report/PathStateText.h"

namespace tessel::lab {

const char* meaningOf(DynamicPathState state) {
  using enum DynamicPathState;
  switch (state) {
    case none:
      return "The path is listed and nothing has been made for it yet.";
    case established:
      return "The path has its SAs; it counts as active once a sanity check, one a minute, has "
             "seen packets on both of them.";
    case idle:
      return "The path has its SAs, and the last sanity check saw no new packets on both of them.";
    case active:
      return "The path has its SAs, and packets flow both ways.";
    case dhInitiatorMarked:
      return "This router replaces its DH key; the path waits for the installation of the in-SA "
             "under the new key.";
    case dhInitiatorInSaInstalled:
      return "The in-SA under this router's new key is installed; the path waits for the peer to "
             "hear of the key from the controllers and to send under it. The old SAs go on.";
    case dhInitiatorOutSaInstalling:
      return "The peer sends under the new key; the path waits for the installation of its own "
             "out-SA.";
    case dhInitiatorOutSaInstalled:
    case dhResponderOutSaInstalled:
    case saInitiatorOutSaInstalled:
    case saResponderOutSaInstalled:
      return "The new SAs are in use; the path waits for a sanity check that sees packets on both "
             "of them, and then gives up the old ones.";
    case dhInitiatorComplete:
    case dhResponderComplete:
    case saInitiatorComplete:
    case saResponderComplete:
      return "The rekey is done and the new SAs carry packets; what it replaced is being pruned.";
    case dhResponderMarked:
      return "The peer has a new DH key; the path waits for the installation of the in-SA under "
             "it.";
    case dhResponderInSaInstalled:
      return "The in-SA under the peer's new key is installed; the path waits for the "
             "installation of the out-SA.";
    case dhResponderMarkedAgain:
      return "The peer's new DH key came while this router's own DH rekey ran; SAs of the newest "
             "keys are being made.";
    case dhInitiatorMarkedAgain:
      return "This router's DH rekey started while that of the peer ran; SAs of the newest keys "
             "are being made.";
    case dhOldOutSaInstalled:
      return "Both routers rekey; the out-SA of keys that are not the newest is installed, a step "
             "on the way to the newest.";
    case dhLatestOutSaInstalling:
      return "Both routers rekey; the out-SA of the newest keys is being installed.";
    case saInitiatorNonceSent:
      return "This router has started an SA rekey: packets of the old out-SA carry its nonce until "
             "the peer answers with its own.";
    case saInitiatorTieWon:
      return "Both routers started an SA rekey at once; this one goes on as the initiator and "
             "waits for the peer's answer.";
    case saInitiatorAnswered:
      return "The peer has answered the nonce; the path waits for the installation of the new "
             "in-SA.";
    case saInitiatorInSaInstalled:
      return "The new in-SA is installed; the path waits for the installation of the new out-SA.";
    case saResponderNonceAccepted:
      return "The peer has started an SA rekey; the path waits for the installation of the new "
             "in-SA before it answers.";
    case saResponderInSaInstalled:
      return "The new in-SA is installed and the answer under way; the path waits for the peer's "
             "first packet on it.";
    case saResponderOutSaInstalling:
      return "The peer sends on the new SA; the path waits for the installation of its own new "
             "out-SA.";
    case saBothInitiated:
      return "Both routers started an SA rekey at once; the tie is about to be broken.";
    case saResponderUnused:
    case unused:
      return "A state that no path is ever in.";
    case rebuild:
      return "The path's SAs cannot follow the rekey, or its keys could not be derived; the next "
             "sanity check, within a minute, builds the path anew.";
  }
  return "";
}

bool isIntermediate(DynamicPathState state) {
  using enum DynamicPathState;
  return state != none && state != established && state != idle && state != active;
}

}  // namespace tessel::lab
