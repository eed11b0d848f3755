#include "plugin.h"

namespace pkgsim {

MetadataItems ItemsOfNamespace(const hostkit::ManifestApp& app) {
  MetadataItems items;
  for (const auto& item : app.metadata) {
    if (item.first.compare(0, kNamespace.size(), kNamespace) == 0) items.push_back(item);
  }
  return items;
}

}  // namespace pkgsim
