#include "plugin.h"

namespace pkgsim {

MetadataItems ItemsWithPrefix(const hostkit::ManifestApp& app, const std::string& name) {
  MetadataItems items;
  for (const auto& item : app.metadata) {
    if (item.first.compare(0, name.size(), name) == 0) items.push_back(item);
  }
  return items;
}

}  // namespace pkgsim
