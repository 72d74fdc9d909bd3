// Mutant: ways in which the lab itself can misbehave, to prove that its checks see it.
#pragma once

#include <cstdint>

namespace tessel::lab {

/// What is done wrong from the beginning of a run. No scenario file can ask for it.
enum class Mutant : uint8_t {
  none,
  // Data planes.
  reportsEarly,  ///< An in-SA is reported as installed 10 s before it is.
  dropsOldInSa,  ///< A path's older in-SAs go when a new one is installed.
  swapsNonce,    ///< A nonce word is sent in the wrong byte order.
  restartsIv,    ///< The IVs of every SA are counted from 0.
  wrongKey,      ///< An out-SA is installed with one bit of its key inverted.
  losesPacket,   ///< Every hundredth packet that is sealed gets lost without being counted.
  // Controllers and path layers.
  readsHalves,     ///< A record is taken up while it is being written.
  takesNeighbour,  ///< Removing a path takes an SA of another one out of the agent's table.
  // The tables of agents, every ten seconds.
  keepsGeneration,  ///< Own generation 0 is put back.
  losesEvent,       ///< An event that a path's log counts is not in it.
  losesLimits,      ///< The limits of an SA are taken away.
  keepsLogs,        ///< The logs of SAs that are gone stay.
  putsOffExpiry,    ///< The expiry of paths is restarted.
  changesKey,       ///< A steady in-SA gets another key.
  // What is put out.
  printsKey,  ///< Lines of the log end in the key of an SA.
};

}  // namespace tessel::lab
