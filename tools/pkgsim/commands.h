// The commands of pkgsim, one function each: the options parsed, the result the exit status. Bad input
// throws std::runtime_error with one line for the user, before the device is touched.
#ifndef PKGSIM_COMMANDS_H_
#define PKGSIM_COMMANDS_H_

#include "device.h"
#include "options.h"

namespace pkgsim {

int Init(const Options& options);
int Foreground(const Options& options);
int Install(const Options& options);
int Uninstall(const Options& options);
int Check(const Options& options);
int Show(const Options& options);
int Demo(const Options& options);

// The device named by the options; throws when there is none.
Device RequireDevice(const Options& options);

}  // namespace pkgsim

#endif  // PKGSIM_COMMANDS_H_
