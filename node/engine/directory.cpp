#include "engine/directory.h"

#include <algorithm>
#include <cctype>

namespace snanode::engine {
namespace {

bool same_name(const std::string &a, const std::string &b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::toupper(static_cast<unsigned char>(x)) ==
                  std::toupper(static_cast<unsigned char>(y));
         });
}

constexpr const char *kDefaultMode = "#INTER";

}  // namespace

Directory::Directory(const config::NodeConfig &config)
    : local_lus_(config.local_lus), partner_lus_(config.partner_lus), modes_(config.modes) {
  if (local_lus_.empty()) {
    local_lus_.push_back({"LOCAL", config.network_id + ".LOCAL", true});
  }
  if (std::none_of(modes_.begin(), modes_.end(),
                   [](const config::Mode &m) { return same_name(m.name, kDefaultMode); })) {
    modes_.push_back(config::Mode{kDefaultMode});
  }
}

const config::LocalLu &Directory::default_local_lu() const {
  auto it = std::find_if(local_lus_.begin(), local_lus_.end(),
                         [](const config::LocalLu &lu) { return lu.is_default; });
  return it != local_lus_.end() ? *it : local_lus_.front();
}

const config::LocalLu *Directory::local_lu(const std::string &alias) const {
  for (const auto &lu : local_lus_) {
    if (same_name(lu.alias, alias)) return &lu;
  }
  return nullptr;
}

std::optional<ResolvedPartner> Directory::partner(const std::string &name) const {
  if (name.empty()) return std::nullopt;
  // Local LUs are partners too, so TPs of one node can allocate to each other.
  for (const auto &lu : local_lus_) {
    if (same_name(lu.alias, name) || same_name(lu.lu_name, name)) {
      return ResolvedPartner{lu.lu_name, "", lu.alias};
    }
  }
  for (const auto &partner : partner_lus_) {
    if (!same_name(partner.alias, name) && !same_name(partner.lu_name, name)) continue;
    std::string target = default_local_lu().alias;
    for (const auto &lu : local_lus_) {
      if (same_name(lu.lu_name, partner.lu_name)) target = lu.alias;
    }
    return ResolvedPartner{partner.lu_name, partner.host, target};
  }
  return std::nullopt;
}

const config::Mode *Directory::mode(const std::string &name) const {
  const std::string wanted = name.empty() ? kDefaultMode : name;
  for (const auto &mode : modes_) {
    if (same_name(mode.name, wanted)) return &mode;
  }
  return nullptr;
}

}  // namespace snanode::engine
