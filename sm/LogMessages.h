// The machine's messages for the operator. Every occurrence is logged.
#pragma once

#include "host/facility/AgentLog.h"

namespace tessel::Ipsec {

extern const AgentLogMessage TESSEL_HOLDTIMER_EXPIRED;
extern const AgentLogMessage TESSEL_DH_REKEY_PAUSED;
extern const AgentLogMessage TESSEL_DH_REKEY_RESUMED;
/// Arguments: the distinguished name, the policy name. Logged by the agent's configuration, not by
/// the machine.
extern const AgentLogMessage IPSEC_INVALID_DN_AS_REMOTE_ID;

}  // namespace tessel::Ipsec
