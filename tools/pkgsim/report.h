// How pkgsim prints plug-in records and what an operation changed: rows added, replaced and removed, the
// result file, the applications terminated.
#ifndef PKGSIM_REPORT_H_
#define PKGSIM_REPORT_H_

#include <ostream>
#include <string>
#include <vector>

#include "snapshot.h"

namespace pkgsim {

// "xwalk", "pepper", "b2b pepper" for the plug-in kinds (by their number, as text).
std::string KindName(const std::string& type);
// "writable area only (isUpdate 1)" and the like, for an install location code (as text).
std::string LocationName(const std::string& location);

// "a, b, c".
std::string JoinNames(const std::vector<std::string>& names);
std::vector<std::string> NamesOf(const PluginRows& rows);

// What happened between two snapshots of a device, as a "changes:" block.
void ReportChanges(const Device& device, const Snapshot& before, const Snapshot& after, std::ostream& out);

// The plug-in records as a table, followed by the details of each record.
void PrintRecords(const Snapshot& snapshot, std::ostream& out);

}  // namespace pkgsim

#endif  // PKGSIM_REPORT_H_
