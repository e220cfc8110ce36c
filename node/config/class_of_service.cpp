#include "config/class_of_service.h"

#include <array>

namespace snanode::config {
namespace {

using enum TransmissionPriority;

// Interactive classes at high priority, batch ones at low, the service modes'
// (CNOS, CP-CP sessions) at network priority; #CONNECT, the class of a mode
// that names none, in between.  The SC classes ask for secure links, which
// every link of this node counts as, so they travel like their plain twins.
constexpr std::array kClasses = {
    ClassOfService{"#CONNECT", kMedium},  ClassOfService{"#INTER", kHigh},
    ClassOfService{"#INTERSC", kHigh},    ClassOfService{"#BATCH", kLow},
    ClassOfService{"#BATCHSC", kLow},     ClassOfService{"CPSVCMG", kNetwork},
    ClassOfService{"SNASVCMG", kNetwork},
};

}  // namespace

std::optional<ClassOfService> find_class_of_service(std::string_view name) {
  for (const ClassOfService &cos : kClasses) {
    if (cos.name == name) return cos;
  }
  return std::nullopt;
}

std::string_view class_of_service_names() {
  return "#CONNECT, #INTER, #INTERSC, #BATCH, #BATCHSC, CPSVCMG, SNASVCMG";
}

ClassOfService default_class_of_service(std::string_view mode_name) {
  return find_class_of_service(mode_name).value_or(kClasses[0]);
}

ClassOfService class_of_service(const Mode &mode) {
  if (auto named = find_class_of_service(mode.cos)) return *named;
  return default_class_of_service(mode.name);
}

std::string_view priority_name(TransmissionPriority priority) {
  switch (priority) {
    case kLow:
      return "low";
    case kMedium:
      return "medium";
    case kHigh:
      return "high";
    case kNetwork:
      break;
  }
  return "network";
}

}  // namespace snanode::config
