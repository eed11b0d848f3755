// The host manifest reader (pkgsim and the package-information stand-in read every package through it)
// on any file: it must answer true with a package id and only named applications, or false with a
// one-line reason and the output untouched.
#include "fuzz_support.h"
#include "hostkit/manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = wup_fuzz::Device().rwPackages + "/com.korvane.tv.pepper.fuzz.xml";
  hostkit::WriteFile(path, std::string(reinterpret_cast<const char*>(data), size));

  hostkit::Manifest manifest;
  manifest.package = "untouched";
  std::string error;
  if (hostkit::ReadManifest(path, manifest, error)) {
    if (manifest.package.empty()) wup_fuzz::Fail("a manifest without a package id was accepted");
    for (const hostkit::ManifestApp& app : manifest.apps) {
      if (app.appid.empty()) wup_fuzz::Fail("an application without an appid was kept");
    }
  } else if (manifest.package != "untouched" || error.empty() ||
             error.find_first_of("\r\n") != std::string::npos) {
    wup_fuzz::Fail("refused without a one-line reason, or with the output changed: " + error);
  }
  return 0;
}
