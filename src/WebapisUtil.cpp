#include "WebapisUtil.h"

#include <sys/stat.h>

#include <cstdint>

// The platform reports sizes in 32 bits: a file too large for that is treated as unreadable.
int GetFileSize(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0 || st.st_size > INT32_MAX) return -1;
  return static_cast<int>(st.st_size);
}
