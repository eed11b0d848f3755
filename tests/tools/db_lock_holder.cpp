// Holds a database file under SQLite's exclusive lock from another process, as a second user of the
// version database would. Usage: db_lock_holder <database> [milliseconds]. Prints "locked" once the lock
// is held (or "error <code>" and ends), then holds it for that long, or until the process is killed.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) return 2;
  sqlite3* db = nullptr;
  sqlite3_open_v2(argv[1], &db, SQLITE_OPEN_READWRITE, nullptr);
  sqlite3_busy_timeout(db, 10000);  // the tested process may be reading just then
  const int ret = sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
  std::printf(ret == SQLITE_OK ? "locked\n" : "error %d\n", ret);
  std::fflush(stdout);
  if (ret == SQLITE_OK && argc == 3) {
    usleep(static_cast<useconds_t>(std::atoi(argv[2])) * 1000);
    sqlite3_close(db);  // rolls the empty transaction back
    return 0;
  }
  while (ret == SQLITE_OK) pause();
  sqlite3_close(db);
  return 1;
}
