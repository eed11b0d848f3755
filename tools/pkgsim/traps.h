// Traps of a plug-in package: things about the package itself (not the plug-in's decision, which the
// plug-in's own run shows) that make it behave other than its author meant, found before it ships.
#ifndef PKGSIM_TRAPS_H_
#define PKGSIM_TRAPS_H_

#include <string>
#include <vector>

#include "device.h"
#include "package.h"
#include "snapshot.h"

namespace pkgsim {

// One line per trap. `device` is the device with the package installed, `installed` its snapshot.
std::vector<std::string> PackageTraps(const Package& package, const Device& device,
                                      const Snapshot& installed);

}  // namespace pkgsim

#endif  // PKGSIM_TRAPS_H_
