#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "cluster/gossip_state.h"
#include "platform/clock.h"

namespace tavrel::cluster {

/// What a gossip message is. Travels as its number; numbers outside are accepted and do nothing.
enum class GossipMessageType : std::int32_t {
  PING = 0,
  ACK = 1,
  JOIN = 2,
  LEAVE = 3,
  SYNC = 4,
  SYNC_RESPONSE = 5,
  DELTA = 6,
  NODE_UPDATE = 7,
  NODE_REMOVE = 8,
  HEARTBEAT = 10,
};

/// What controllers say to each other; requests and answers have the same form. A plain value.
struct GossipMessage {
  std::string id;  ///< unique; the receiver handles it once
  GossipMessageType type = GossipMessageType::PING;
  std::string sender_id;
  std::string sender_address;
  std::int32_t sender_port = 0;
  ClockEntries clock;  ///< of the sender
  nlohmann::json payload;
  std::string payload_text;        ///< of what is sent: JSON in place of `payload`, unless empty
  platform::SteadyTime timestamp;  ///< JSON: milliseconds, of use on the sender's host only

  nlohmann::json toJson() const;
  std::string toText() const;  ///< the same as text
  /// Members of a wrong type throw nlohmann's exception.
  static GossipMessage fromJson(nlohmann::json object);
};

}  // namespace tavrel::cluster
