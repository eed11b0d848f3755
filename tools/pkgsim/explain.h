// Plain words for what the plug-in decided in one call, drawn from its log lines of that call (its only
// voice) and from what pkgsim knows besides: the package, the items it handed over, and the device's
// records before and after. Nothing here decides anything in the plug-in's place: a sentence is written
// only for a decision the log shows.
#ifndef PKGSIM_EXPLAIN_H_
#define PKGSIM_EXPLAIN_H_

#include <ostream>
#include <string>
#include <vector>

#include "hostkit/manifest.h"
#include "log.h"
#include "plugin.h"
#include "snapshot.h"

namespace pkgsim {

struct Note {
  enum Kind {
    kInfo,
    kRefusal,  // why the plug-in stored (or removed) nothing
    kWarning,  // something the platform engineer should look at
  };
  Kind kind;
  std::string text;
};

// One call of the plug-in, as pkgsim made and watched it.
struct Call {
  Operation operation;
  hostkit::Manifest manifest;  // the package the call was about
  std::string appid;
  MetadataItems items;
  Log log;  // the plug-in's entries of this call
  Snapshot before;
  Snapshot after;
  std::string policy;  // the build of the plug-in that was called (WUP_POLICY_NAME), "" when unknown
};

std::vector<Note> Explain(const Call& call);
void PrintNotes(const std::vector<Note>& notes, std::ostream& out);

// What the plug-in's checks of its database found, in log order: each time it opened the database
// (passed, restored from the backup, created empty, or, in the hardened build, left alone while another
// process held it), each recovery inside a statement, and copies that did not go as planned.
struct DatabaseEvent {
  enum Kind {
    kPassed,
    kRestored,
    kCreated,
    kRecoveredStatement,
    kTruncatedCopy,
    kBusyGaveUp,          // the open check: neither file restored nor created
    kBusyNothingWritten,  // a write: nothing written, nothing restored
    kCopyIncomplete,      // the destination left as it was
  };
  Kind kind;
  std::string reason;    // why the database was found bad, when the log says
  std::string from, to;  // the files of a copy not completed
};
std::vector<DatabaseEvent> DatabaseEvents(const Log& log);

}  // namespace pkgsim

#endif  // PKGSIM_EXPLAIN_H_
