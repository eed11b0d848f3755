// Packages on the sandbox device, as the package manager would leave them: a manifest in the writable or
// read-only manifest directory, and the package's directories under the matching applications directory.
#ifndef WUP_TESTS_UNIT_SAMPLE_PACKAGES_H_
#define WUP_TESTS_UNIT_SAMPLE_PACKAGES_H_

#include <string>
#include <utility>
#include <vector>

#include "sandbox.h"

namespace wup_test {

using Metadata = std::vector<std::pair<std::string, std::string>>;

struct SampleApp {
  std::string appid;
  Metadata metadata;
};

inline std::string XmlEscaped(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

// Writes `packagesDir`/`package`.xml in the tizen-manifest.xml format.
inline void WriteManifest(const std::string& packagesDir, const std::string& package,
                          const std::string& version, const std::vector<SampleApp>& apps) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<manifest xmlns=\"http://tizen.org/ns/packages\" package=\"" +
      XmlEscaped(package) + "\" version=\"" + XmlEscaped(version) + "\" api-version=\"6.0\">\n";
  for (const SampleApp& app : apps) {
    xml += "  <ui-application appid=\"" + XmlEscaped(app.appid) + "\" exec=\"plugin\" type=\"capp\">\n";
    for (const auto& [key, value] : app.metadata) {
      xml += "    <metadata key=\"" + XmlEscaped(key) + "\" value=\"" + XmlEscaped(value) + "\"/>\n";
    }
    xml += "  </ui-application>\n";
  }
  xml += "</manifest>\n";
  WriteFile(packagesDir + "/" + package + ".xml", xml);
}

// A plug-in package whose one application has the package's id, as plug-in packages are built.
inline void InstallWritable(const std::string& package, const std::string& version,
                            const Metadata& metadata) {
  WriteManifest(Device().rwPackages, package, version, {{package, metadata}});
}

inline void InstallReadOnly(const std::string& package, const std::string& version,
                            const Metadata& metadata) {
  WriteManifest(Device().roPackages, package, version, {{package, metadata}});
}

}  // namespace wup_test

#endif  // WUP_TESTS_UNIT_SAMPLE_PACKAGES_H_
