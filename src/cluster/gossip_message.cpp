#include "cluster/gossip_message.h"

#include <chrono>

#include "platform/json_fields.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::readField;

json GossipMessage::toJson() const {
  const auto since_epoch = timestamp.time_since_epoch();
  return {
      {"id", id},
      {"type", static_cast<std::int32_t>(type)},
      {"sender_id", sender_id},
      {"sender_address", sender_address},
      {"sender_port", sender_port},
      {"clock", clock},
      {"payload", payload},
      {"timestamp_ms", std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count()}};
}

GossipMessage GossipMessage::fromJson(const json& object) {
  GossipMessage message;
  readField(object, "id", message.id);
  message.type =
      static_cast<GossipMessageType>(platform::jsonNumberOr<std::int32_t>(object, "type", 0));
  readField(object, "sender_id", message.sender_id);
  readField(object, "sender_address", message.sender_address);
  readField(object, "sender_port", message.sender_port);
  if (const json* clock = platform::jsonMember(object, "clock")) {
    for (const auto& [node, counter] : clock->get_ref<const json::object_t&>()) {
      message.clock[node] = platform::jsonNumber<std::uint64_t>(counter);
    }
  }
  readField(object, "payload", message.payload);
  return message;
}

}  // namespace tavrel::cluster
