// Packages on the sandbox device as the package manager leaves them: a manifest in the writable or
// read-only manifest directory. Sample texts hold no XML markup, so nothing is escaped.
#ifndef WUP_TESTS_SUPPORT_SAMPLE_PACKAGES_H_
#define WUP_TESTS_SUPPORT_SAMPLE_PACKAGES_H_

#include <string>
#include <utility>
#include <vector>

#include "sandbox.h"

namespace wup_test {

using Metadata = std::vector<std::pair<std::string, std::string>>;

// Writes `dir`/`package`.xml with one ui-application per appid, each carrying `metadata`.
inline void WriteManifest(const std::string& dir, const std::string& package, const std::string& version,
                          const std::vector<std::string>& appids, const Metadata& metadata = {}) {
  std::string xml = "<manifest xmlns=\"http://tizen.org/ns/packages\" package=\"" + package +
                    "\" version=\"" + version + "\" api-version=\"6.0\">\n";
  for (const std::string& appid : appids) {
    xml += "  <ui-application appid=\"" + appid + "\" exec=\"plugin\" type=\"capp\">\n";
    for (const auto& [key, value] : metadata)
      xml += "    <metadata key=\"" + key + "\" value=\"" + value + "\"/>\n";
    xml += "  </ui-application>\n";
  }
  WriteFile(dir + "/" + package + ".xml", xml + "</manifest>\n");
}

}  // namespace wup_test

#endif  // WUP_TESTS_SUPPORT_SAMPLE_PACKAGES_H_
