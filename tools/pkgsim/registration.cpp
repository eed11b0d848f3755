#include "registration.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include "plugin.h"

namespace fs = std::filesystem;

namespace pkgsim {
namespace {

const char kForm[] = "type=\"...\";name=\"...\";path=\"...\" with an optional ;vitalness=\"true|false\"";

// The fields of one line, or false when the installer's parser refuses it.
bool ParseLine(const std::string& line, std::map<std::string, std::string>& fields) {
  std::size_t from = 0;
  for (int count = 1; from <= line.size(); ++count) {
    const std::size_t end = std::min(line.find(';', from), line.size());
    const std::string field = line.substr(from, end - from);
    const std::size_t equals = field.find('=');
    if (count > 4 || equals == std::string::npos || field.size() < equals + 3 || field[equals + 1] != '"' ||
        field.back() != '"') {
      return false;
    }
    const std::string key = field.substr(0, equals);
    const std::string value = field.substr(equals + 2, field.size() - equals - 3);
    if (value.find('"') != std::string::npos || !fields.emplace(key, value).second) return false;
    from = end + 1;
  }
  static const char* const kTypes[] = {"tag", "metadata", "category"};
  const auto vital = fields.find("vitalness");
  return fields.count("type") != 0 && fields.count("name") != 0 && fields.count("path") != 0 &&
         fields.size() == 3u + (vital != fields.end()) &&
         std::find(std::begin(kTypes), std::end(kTypes), fields["type"]) != std::end(kTypes) &&
         (vital == fields.end() || vital->second == "true" || vital->second == "false");
}

// Reads the registration lines of one file; false (with `rejected` set) at the first malformed one.
bool ReadFile(const fs::path& file, std::vector<Registration>& entries, std::string& rejected) {
  std::ifstream in(file);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty()) continue;
    std::map<std::string, std::string> fields;
    if (!ParseLine(line, fields)) {
      rejected = "the installer cannot read its plug-in registrations: " + file.filename().string() +
                 " line " + std::to_string(number) + " is not " + kForm + "; every installation fails";
      return false;
    }
    Registration entry;
    entry.file = file.filename().string();
    entry.line = line;
    entry.type = fields["type"];
    entry.name = fields["name"];
    entry.path = fields["path"];
    entries.push_back(std::move(entry));
  }
  return true;
}

std::vector<fs::path> RegistrationFiles(const std::string& dir) {
  std::vector<fs::path> files;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// A path of the device, inside the sandbox.
std::string OnDevice(const Device& device, const std::string& path) {
  return device.Root() + (path.empty() || path[0] != '/' ? "/" : "") + path;
}

// The path that this plug-in's own registration (the build's) names on the device.
std::string OwnPath() {
  std::vector<Registration> own;
  std::string rejected;
  ReadFile(PKGSIM_REGISTRATION_FILE, own, rejected);
  return own.empty() ? "" : own.front().path;
}

// Why the installer does not take a metadata plug-in with this name; "" when it does.
std::string TagProblem(const std::string& name) {
  if (name.empty()) return "its name is empty, so it has no tag";
  if (name.back() == '/') return "its name ends in '/', so its tag (the text after the last '/') is empty";
  return "";
}

void Load(Registration& entry, const Device& device, const std::string& plugin, const std::string& own) {
  entry.skipped = TagProblem(entry.name);
  if (!entry.skipped.empty()) return;
  entry.overridden = !plugin.empty() && (own.empty() || entry.path == own);
  entry.library = entry.overridden ? plugin : OnDevice(device, entry.path);
  try {
    entry.policy = PluginStep(entry.library).PolicyName();
  } catch (const std::runtime_error& error) {
    // The user's own --plugin must load; a registration that leads nowhere is what the installer skips.
    if (entry.overridden) throw;
    entry.skipped = "its library " + entry.path + " does not load (" + error.what() + ")";
  }
}

}  // namespace

std::string Registration::Loading() const {
  const std::string build =
      policy.empty() ? "unknown build (no WUP_POLICY_NAME)" : "the " + policy + " build";
  return (overridden ? library + " (--plugin) in place of " : "") + path + ", " + build;
}

std::string Registration::Verdict() const {
  if (!IsMetadata()) return "a " + type + " plug-in, not called for metadata";
  if (!skipped.empty()) return "the installer skips this plug-in: " + skipped;
  return (overridden ? "pkgsim loads " : "the installer loads ") + Loading() +
         ", for the keys starting with " + name;
}

void Registrations::RequireReadable() const {
  if (!rejected.empty()) throw std::runtime_error(rejected);
}

std::string Registrations::WhyNoneLoaded() const {
  for (const Registration& entry : entries) {
    if (entry.IsMetadata()) return entry.Verdict();
  }
  return "no metadata plug-in is registered";
}

Registrations LoadRegistrations(const Device& device, const std::string& plugin) {
  Registrations registrations;
  for (const fs::path& file : RegistrationFiles(device.RegistrationDir())) {
    if (ReadFile(file, registrations.entries, registrations.rejected)) continue;
    registrations.entries.clear();
    return registrations;
  }
  const std::string own = OwnPath();
  for (Registration& entry : registrations.entries) {
    if (entry.IsMetadata()) Load(entry, device, plugin, own);
  }
  return registrations;
}

void RegisterPlugin(const Device& device, const std::string& library) {
  const fs::path source = PKGSIM_REGISTRATION_FILE;
  std::vector<Registration> own;
  std::string rejected;
  if (!fs::is_regular_file(source) || !ReadFile(source, own, rejected) || own.empty()) {
    throw std::runtime_error("no usable registration at " + source.string() + " (build pkgsim again)");
  }
  std::error_code error;
  fs::copy_file(source, device.RegistrationDir() + "/" + source.filename().string(), error);
  for (const Registration& entry : own) {
    const fs::path link = OnDevice(device, entry.path);
    if (!error) fs::create_directories(link.parent_path(), error);
    if (!error) fs::create_symlink(library, link, error);
  }
  if (error) throw std::runtime_error("cannot register the plug-in on the device: " + error.message());
}

void PrintRegistrations(const Device& device, const Registrations& registrations, std::ostream& out) {
  const std::string dir = fs::path(device.RegistrationDir()).lexically_relative(device.Root()).string();
  out << "plug-in registrations in " << dir << "/, as the installer reads them:\n";
  for (const Registration& entry : registrations.entries) {
    out << "  " << entry.file << ": " << entry.line << "\n    " << entry.Verdict() << "\n";
  }
  if (!registrations.rejected.empty()) {
    out << "  " << registrations.rejected << "\n";
  } else if (registrations.entries.empty()) {
    out << "  none: the installer calls no metadata plug-in\n";
  }
}

}  // namespace pkgsim
