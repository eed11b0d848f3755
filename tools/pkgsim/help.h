// The help texts of pkgsim: one general text and one per command.
#ifndef PKGSIM_HELP_H_
#define PKGSIM_HELP_H_

#include <string>

namespace pkgsim {

// The help on `command`, or the general help when there is no such command.
const char* HelpFor(const std::string& command);

}  // namespace pkgsim

#endif  // PKGSIM_HELP_H_
