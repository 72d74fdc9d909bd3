// KeyRecord: a router's key record as a datagram, numbers in network byte order:
//
//     router id (4)  rekey counter (8)  DH group (4)  encryption (1)  integrity (1)
//     length of the DH key (2)  DH key  nonce
#pragma once

#include <optional>

#include "host/model/Bytes.h"
#include "host/model/Controller.h"

tessel::Bytes encode(const tessel::Controller::PeerKeyInfo& record);
/// Nothing for a datagram that is no record.
std::optional<tessel::Controller::PeerKeyInfo> decode(tessel::BytesView datagram);
