// KeyRecord: a router's key record as bytes, for an agent that carries it between key directories.
//
// Numbers are in network byte order, lengths in bytes:
//
//     version (1), 1                length of the router id (1), 4 or 16
//     router id                     rekey counter (8)
//     DH group (4)                  encryption (1)          integrity (1)
//     length of the DH key (2)      length of the nonce (2)
//     DH key                        nonce
//
// Nothing in it is secret, and nothing proves where it comes from: authenticating it is left to
// what carries it.
#pragma once

#include <optional>

#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/Controller.h"

namespace tessel {

/// The bytes of a record, such as `Controller::publishedRecord` gives. The lengths are those of key
/// and nonce themselves; `dhKeyLen`, `nonceLen` and the two marks do not travel.
/// Throws std::invalid_argument, which names the field, for a router id without an address family
/// and for a key or nonce of more than 65535 bytes.
TESSEL_API Bytes keyRecordBytes(const Controller::PeerKeyInfo& record);

/// Reads what `keyRecordBytes` made, with the marks of a received record set; nothing for bytes
/// that are anything else, be it one byte less or more. What the fields say is not looked at: the
/// engine judges that.
TESSEL_API std::optional<Controller::PeerKeyInfo> readKeyRecord(BytesView bytes);

}  // namespace tessel
