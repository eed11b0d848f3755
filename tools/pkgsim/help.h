// The help texts of pkgsim: one general text and one per command (the command table in main.cpp names
// each command's text).
#ifndef PKGSIM_HELP_H_
#define PKGSIM_HELP_H_

namespace pkgsim {

extern const char kGeneralHelp[];
extern const char kInitHelp[];
extern const char kCheckHelp[];
extern const char kInstallHelp[];
extern const char kUninstallHelp[];
extern const char kShowHelp[];
extern const char kForegroundHelp[];
extern const char kDemoHelp[];

}  // namespace pkgsim

#endif  // PKGSIM_HELP_H_
