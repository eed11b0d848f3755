#include "hostkit/fail_list.h"

#include <cstdlib>

namespace hostkit {

bool Listed(const char* variable, std::string_view name) {
  const char* value = std::getenv(variable);
  if (value == nullptr) return false;
  const std::string_view list = value, blanks = " \t";
  for (size_t start = 0; start <= list.size();) {
    size_t end = list.find(',', start);
    if (end == std::string_view::npos) end = list.size();
    std::string_view entry = list.substr(start, end - start);
    const size_t first = entry.find_first_not_of(blanks);
    entry = first == std::string_view::npos ? std::string_view() : entry.substr(first);
    entry = entry.substr(0, entry.find_last_not_of(blanks) + 1);
    if (entry == name) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace hostkit
