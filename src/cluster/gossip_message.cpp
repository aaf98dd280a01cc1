#include "cluster/gossip_message.h"

#include <chrono>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::readField;

json GossipMessage::toJson() const {
  return json::parse(toText());
}

std::string GossipMessage::toText() const {
  const auto since_epoch = timestamp.time_since_epoch();
  std::string text = platform::dumpJson(
      {{"id", id},
       {"type", static_cast<std::int32_t>(type)},
       {"sender_id", sender_id},
       {"sender_address", sender_address},
       {"sender_port", sender_port},
       {"clock", clock},
       {"timestamp_ms",
        std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count()}});
  text.back() = ',';
  text += "\"payload\":";
  text += payload_text.empty() ? platform::dumpJson(payload) : payload_text;
  text += '}';
  return text;
}

GossipMessage GossipMessage::fromJson(json object) {
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
  const auto payload = object.find("payload");
  if (payload != object.end()) message.payload = std::move(*payload);
  return message;
}

}  // namespace tavrel::cluster
