#include "report.h"

#include <algorithm>

namespace pkgsim {
namespace {

std::string Summary(const PluginRow& row) {
  return row[kName] + " " + row[kVersion] + " (" + KindName(row[kType]) + ", isUpdate " + row[kLocation] +
         ", " + row[kPkgid] + ")";
}

void ReportRows(const Snapshot& before, const Snapshot& after, std::ostream& out) {
  if (!after.dbError.empty()) out << "  database unreadable: " << after.dbError << "\n";
  // A database restored from its backup brings the backup's records back: they are not new.
  const bool fromBackup = !before.backupRows.empty() && after.dbExists && after.dbError.empty();
  const PluginRows& previous = fromBackup ? before.backupRows : before.rows;
  if (fromBackup) {
    out << "  compared with the backup, which held " << previous.size()
        << (previous.size() == 1 ? " record" : " records") << ": the database was "
        << (before.dbExists ? "unreadable" : "missing") << " before\n";
  }
  bool changed = false;
  for (const auto& [name, row] : after.rows) {
    const auto old = previous.find(name);
    if (old == previous.end()) {
      out << "  + " << Summary(row) << "\n";
      changed = true;
    } else if (old->second != row) {
      out << "  ~ " << name << " replaced\n";
      for (std::size_t i = 0; i < kColumnCount; ++i) {
        if (old->second[i] == row[i]) continue;
        out << "      " << kColumnNames[i] << ": [" << old->second[i] << "] -> [" << row[i] << "]\n";
      }
      changed = true;
    }
  }
  for (const auto& [name, row] : previous) {
    if (after.rows.count(name) != 0) continue;
    out << "  - " << Summary(row) << "\n";
    changed = true;
  }
  if (!changed) out << "  plug-in records: no change\n";
}

std::string ResultFileChange(const Snapshot& before, const Snapshot& after) {
  if (!before.resultExists && !after.resultExists) return "absent";
  if (!before.resultExists) return "created";
  if (!after.resultExists) return "removed";
  if (!after.ResultRewrittenSince(before)) return "not rewritten";
  return before.resultText == after.resultText ? "rewritten (same content)" : "rewritten";
}

// Termination order matters to whoever reads it, so runs of the same id are counted, not merged.
std::string Runs(const std::vector<std::string>& items) {
  std::string text;
  for (std::size_t i = 0; i < items.size();) {
    std::size_t run = 1;
    while (i + run < items.size() && items[i + run] == items[i]) ++run;
    text += (text.empty() ? "" : ", ") + (items[i].empty() ? std::string("\"\"") : items[i]);
    if (run > 1) text += " (" + std::to_string(run) + " times)";
    i += run;
  }
  return text;
}

}  // namespace

std::string KindName(const std::string& type) {
  if (type == "0") return "xwalk";
  if (type == "1") return "pepper";
  if (type == "2") return "b2b pepper";
  return "kind " + type;
}

std::string LocationName(const std::string& location) {
  if (location == "0") return "read-only image only (isUpdate 0)";
  if (location == "1") return "writable area only (isUpdate 1)";
  if (location == "2") return "writable area, over a preloaded copy (isUpdate 2)";
  return "isUpdate " + location;
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::vector<std::string> NamesOf(const PluginRows& rows) {
  std::vector<std::string> names;
  for (const auto& entry : rows) names.push_back(entry.first);
  return names;
}

void ReportChanges(const Device& device, const Snapshot& before, const Snapshot& after, std::ostream& out) {
  out << "changes:\n";
  ReportRows(before, after, out);
  out << "  result file: " << ResultFileChange(before, after) << "\n";
  const std::vector<std::string> terminated = LinesFrom(device.TerminatedFile(), before.terminatedSize);
  out << "  terminated: " << (terminated.empty() ? "none" : Runs(terminated)) << "\n";
}

void PrintRecords(const Snapshot& snapshot, std::ostream& out) {
  if (!snapshot.dbError.empty()) out << "database unreadable: " << snapshot.dbError << "\n";
  out << "plug-in records (" << snapshot.rows.size() << "):\n";
  if (snapshot.rows.empty()) return;
  const std::vector<std::string> headings = {"NAME", "VERSION", "KIND", "ISUPDATE", "FORCE", "PKGID"};
  std::vector<std::vector<std::string>> table = {headings};
  for (const auto& [name, row] : snapshot.rows) {
    table.push_back({name, row[kVersion], KindName(row[kType]), row[kLocation], row[kForce], row[kPkgid]});
  }
  std::vector<std::size_t> widths(headings.size(), 0);
  for (const auto& line : table) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  for (const auto& line : table) {
    std::string text = " ";
    for (std::size_t i = 0; i < line.size(); ++i) {
      text += " " + line[i];
      if (i + 1 < line.size()) text += std::string(widths[i] - line[i].size() + 1, ' ');
    }
    out << text << "\n";
  }
  for (const auto& [name, row] : snapshot.rows) {
    out << "  " << name << ":\n"
        << "      path         " << row[kPath] << "\n"
        << "      systemPath   " << row[kSystemPath] << "\n"
        << "      entryPoints  " << row[kEntryPoints] << "\n"
        << "      appWhiteList " << row[kAllowList] << "\n";
  }
}

}  // namespace pkgsim
