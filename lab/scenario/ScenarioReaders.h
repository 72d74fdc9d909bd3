// ScenarioReaders: what the readers of a scenario file's sections share.
#pragma once

#include <string>

#include "lab/scenario/FieldReader.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// What a name in a scenario can stand for.
enum class NameOf { router, path, flow, controller };

/// Whether a reference has to be there, and whether "all" will do.
enum class Need {
  one,
  oneOrAll,
  optional,  ///< Missing means all.
};

/// Reads a name that the scenario must have, which is checked when everything has been read. "all"
/// gives the empty name.
void readReference(MapReader& map, const std::string& key, NameOf kind, Need need,
                   std::string& value);
void checkReference(const Field& field, NameOf kind, const std::string& name);

/// A path, and one of its ends; an end without a path chooses the paths that it is an end of.
void readPathAndEnd(MapReader& map, Need pathNeed, std::string& path, const std::string& endKey,
                    std::string& end);

const Names<EncryptionAlgo>& encryptionNames();
const Names<IntegrityAlgo>& integrityNames();
const Names<IpsecDhGroup>& groupNames();
const Names<std::optional<Ike::ConnectionState>>& connectionNames();

/// Limits of SAs: "none" stands for 0.
void readSaLimits(MapReader& map, std::optional<uint32_t>& lifetime,
                  std::optional<uint32_t>& packetLimit, std::optional<uint64_t>& byteLimit);
/// The members of a link that are there.
void readLink(MapReader& map, ChangeLink& link);

void readTimeline(const Field& field, std::vector<TimelineEntry>& timeline);
void readExpectations(const Field& field, std::vector<Expectation>& expectations);

}  // namespace tessel::lab
