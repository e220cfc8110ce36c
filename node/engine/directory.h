// The names a node answers to: its local LUs, the partner LUs it knows, its
// modes.  Built once from the configuration, filled with the defaults a node
// with no configuration still needs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config/node_config.h"

namespace snanode::engine {

struct ResolvedPartner {
  std::string lu_name;         // NETID.LUNAME
  std::string host;            // empty: this node
  std::string local_lu_alias;  // the local LU that takes attaches for it
};

class Directory {
 public:
  explicit Directory(const config::NodeConfig &config);

  const config::LocalLu &default_local_lu() const;
  const config::LocalLu *local_lu(const std::string &alias) const;  // case-insensitive
  // A partner named by alias or by network-qualified name.
  std::optional<ResolvedPartner> partner(const std::string &name) const;
  const config::Mode *mode(const std::string &name) const;  // blank: #INTER

 private:
  std::vector<config::LocalLu> local_lus_;
  std::vector<config::PartnerLu> partner_lus_;
  std::vector<config::Mode> modes_;
};

}  // namespace snanode::engine
