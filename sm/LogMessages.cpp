#include "sm/LogMessages.h"

namespace tessel::Ipsec {

const AgentLogMessage TESSEL_HOLDTIMER_EXPIRED{
    {.identifier = "TESSEL_HOLDTIMER_EXPIRED",
     .text = "Force DH rekey; may bring down DPS paths if rekey doesnt succeed",
     .explanation = "Ipsec agent will start a DH rekey now and it might result in all the DPS "
                    "paths to go down (if rekey fails).",
     .severity = 5}};

const AgentLogMessage TESSEL_DH_REKEY_PAUSED{
    {.identifier = "TESSEL_DH_REKEY_PAUSED",
     .text = "Connectivity to the PF is lost; starting the hold timer",
     .explanation = "Ipsec agent will start the hold timer and pause DH rekey until the "
                    "connection with the PF is restored or hold time expires.",
     .severity = 5}};

const AgentLogMessage TESSEL_DH_REKEY_RESUMED{
    {.identifier = "TESSEL_DH_REKEY_RESUMED",
     .text = "Connectivity to the PF is restored",
     .explanation = "Ipsec agent will stop the hold timer and resume DH rekey.",
     .severity = 5}};

const AgentLogMessage IPSEC_INVALID_DN_AS_REMOTE_ID{
    {.identifier = "IPSEC_INVALID_DN_AS_REMOTE_ID",
     .text = "Distinguished Name: %s configured for IKE Policy %s is invalid",
     .explanation = "Distinguished Name expects a Comma separated list ofRelative Distinguished "
                    "Names (RDNs), Example: C=XX,O='Organization Name',CN=commonName",
     .recommendedAction = "Update Distinguished Name configured as part of remote-id to adhere to "
                          "X.500 format",
     .severity = 4}};

}  // namespace tessel::Ipsec
