// The metadata plug-ins of a device as its installer finds them: every file under
// usr/share/parser-plugins/ holds lines `type="metadata";name="NAME";path="PATH"` (optionally followed by
// `;vitalness="true"`), one per plug-in. The installer takes the plug-in's tag as the text after the last
// "/" of NAME and skips a metadata plug-in whose tag is empty; it loads PATH and hands the plug-in the
// items of an application whose key starts with NAME. One malformed line makes the installer's list
// parser fail, and with it every installation. pkgsim decides from these lines alone which plug-ins it
// loads and which items each gets; PATH is taken inside the sandbox device's root.
#ifndef PKGSIM_REGISTRATION_H_
#define PKGSIM_REGISTRATION_H_

#include <ostream>
#include <string>
#include <vector>

#include "device.h"

namespace pkgsim {

struct Registration {
  std::string file;  // the registration file's name
  std::string line;  // as written
  std::string type, name, path;
  std::string library;  // what pkgsim loads: PATH inside the device, or the --plugin library
  bool overridden = false;
  std::string skipped;  // why the installer does not load the plug-in; "" when it does
  std::string policy;   // the loaded build's WUP_POLICY_NAME; "" when it has none

  bool IsMetadata() const { return type == "metadata"; }
  bool Loaded() const { return IsMetadata() && skipped.empty(); }
  // The library loaded and which build it is, for a loaded plug-in.
  std::string Loading() const;
  // "the installer skips this plug-in: ..." or what is loaded, of which build, for which keys.
  std::string Verdict() const;
};

struct Registrations {
  std::vector<Registration> entries;  // in the order the installer reads them
  std::string rejected;               // why the installer cannot read them at all; "" when it can

  // Throws std::runtime_error when the installer would fail every installation.
  void RequireReadable() const;
  // Why no metadata plug-in is called: the first skipped one's reason, or that none is registered.
  std::string WhyNoneLoaded() const;
};

// Reads the device's registrations and loads each metadata plug-in once, as the installer does when a
// step starts, to tell whether it loads and which build it is; the device must already be exported.
// `plugin`, when not empty, takes the place of the library of this plug-in's own registration.
Registrations LoadRegistrations(const Device& device, const std::string& plugin);

// Registers the plug-in on a new device as its package does: the build's registration file into
// usr/share/parser-plugins/ and, where it points, a symbolic link to `library`.
void RegisterPlugin(const Device& device, const std::string& library);

// The raw lines and the installer's verdict on each.
void PrintRegistrations(const Device& device, const Registrations& registrations, std::ostream& out);

}  // namespace pkgsim

#endif  // PKGSIM_REGISTRATION_H_
