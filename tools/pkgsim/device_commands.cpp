// Setting a device up: init (the layout, the sample's files, the plug-in registered), foreground, and
// finding the device the other commands work on.
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "commands.h"
#include "registration.h"

namespace fs = std::filesystem;

namespace pkgsim {

Device RequireDevice(const Options& options) {
  Device device(Absolute(options.device));
  if (!device.Exists()) {
    throw std::runtime_error("no device at " + device.Root() + " (create one: pkgsim init " + device.Root() +
                             ")");
  }
  return device;
}

int Init(const Options& options) {
  ExpectArgs(options, 0, 1);
  const Device device(Absolute(options.args.empty() ? options.device : options.args[0]));
  std::error_code error;
  if (fs::exists(device.Root()) && !fs::is_directory(device.Root())) {
    throw std::runtime_error(device.Root() + " is a file, not a directory");
  }
  if (fs::exists(device.Root()) && !fs::is_empty(device.Root(), error)) {
    throw std::runtime_error(device.Root() + " exists and is not empty");
  }
  const std::string sample = options.examples + "/device";
  if (options.sample && !fs::is_directory(sample)) throw std::runtime_error("no sample device at " + sample);
  device.Create();
  if (options.sample) {
    fs::copy(sample, device.Root(), fs::copy_options::recursive | fs::copy_options::overwrite_existing,
             error);
    if (error) throw std::runtime_error("cannot copy the sample device: " + error.message());
  }
  // As the plug-in's package does on a TV: its registration, and the library where it points.
  RegisterPlugin(device, options.plugin.empty() ? PKGSIM_DEFAULT_PLUGIN : options.plugin);
  std::cout << "device created at " << device.Root() << (options.sample ? " (from the sample device)" : "")
            << "\n";
  device.Export();
  PrintRegistrations(device, LoadRegistrations(device, ""), std::cout);
  return 0;
}

int Foreground(const Options& options) {
  ExpectArgs(options, options.none ? 0 : 1, options.none ? 0 : 1);
  const Device device = RequireDevice(options);
  const std::string appid = options.none ? "" : options.args[0];
  if (!options.none && (appid.empty() || appid.find('\n') != std::string::npos)) {
    throw std::runtime_error("not an application id: [" + appid + "]");
  }
  device.SetForeground(appid);
  std::cout << "foreground: " << (appid.empty() ? "none" : appid) << "\n";
  return 0;
}

}  // namespace pkgsim
