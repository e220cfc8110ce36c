// The classes of service a mode's sessions can travel at, and the
// transmission priority each stands for: the priority picks the RTP
// connection the sessions share with the partner node, the UDP port their
// datagrams go to and the IP precedence of that port.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "config/node_config.h"

namespace snanode::config {

// In the order the network header numbers them (its TPF field).
enum class TransmissionPriority : uint8_t { kLow = 0, kMedium = 1, kHigh = 2, kNetwork = 3 };

struct ClassOfService {
  std::string_view name;
  TransmissionPriority priority;
};

// One of the well-known classes by name (#CONNECT, #INTER, #INTERSC, #BATCH,
// #BATCHSC, CPSVCMG, SNASVCMG); nullopt for any other name.
std::optional<ClassOfService> find_class_of_service(std::string_view name);

// The names find_class_of_service() knows, comma-separated, for messages.
std::string_view class_of_service_names();

// A mode named like a class travels at that class; any other mode at
// #CONNECT.
ClassOfService default_class_of_service(std::string_view mode_name);

// The class a mode's `cos` key names, else its default.
ClassOfService class_of_service(const Mode &mode);

// "low", "medium", "high", "network".
std::string_view priority_name(TransmissionPriority priority);

}  // namespace snanode::config
