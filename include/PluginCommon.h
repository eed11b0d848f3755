// Vocabulary shared by every unit of the web-API upgrade plug-in: the plug-in record and its kinds, the
// plug-in map in which lists of records travel, the directory/file/key constants, the process-wide
// instances and the logging macro.
//
// The constants are built once, while the library is loaded, from the platform path service; nothing
// here may be used before the loader has run the library's initialisers.
#ifndef WEBAPI_UPGRADE_PLUGIN_COMMON_H_
#define WEBAPI_UPGRADE_PLUGIN_COMMON_H_

#include <dlog.h>
#include <pthread.h>
#include <tzplatform_config.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <string>

// Prefix of the package metadata keys that concern this plug-in; fixed when the plug-in is built.
#ifndef METADATA_NAMESPACE
#define METADATA_NAMESPACE "http://korvane.com/tv/metadata/"
#endif

// ---------------------------------------------------------------------------------------------------
// Logging. Every line goes to the main buffer at info priority, failures included: field engineers read
// one stream, filtered by tag, and the file/function/line prefix tells them where a line came from.

constexpr const char* PluginLogBaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

#define PLUGIN_LOG_TAG "KelvoManager"

#define PLUGIN_LOG(fmt, ...)                                                                       \
  __dlog_print(LOG_ID_MAIN, DLOG_INFO, PLUGIN_LOG_TAG, "%s: %s(%d) > " fmt, PluginLogBaseName(__FILE__), \
               __func__, __LINE__, ##__VA_ARGS__)

// ---------------------------------------------------------------------------------------------------
// The plug-in record.

// 32 bits wide whatever value is stored: a kind read back from a foreign or damaged database may be any
// integer, and must still be representable.
typedef enum : int32_t {
  XWALK_PLUGIN = 0,
  PEPPER_PLUGIN = 1,
  B2B_PEPPER_PLUGIN = 2,
  UNKNOWN_PLUGIN = 99,
} PLUGIN_TYPE;

// Where the package that provides a plug-in is installed; kept in the record's `isUpdate` field.
enum {
  INSTALLED_ONLY_RO = 0,
  INSTALLED_ONLY_RW = 1,
  INSTALLED_BOTH_RO_RW = 2,
};

// One web-API plug-in. The field order is also the column order of the plug-in table.
struct _PluginData {
  std::string name;
  std::string version;
  std::string path;
  std::string pkgid;
  std::string entryPoints;
  PLUGIN_TYPE pluginType = PEPPER_PLUGIN;
  int32_t hasForceMetaData = 0;
  int32_t isUpdate = 0;  // install location code, despite the name (see the enum above)
  std::string appWhiteList;
  std::string systemPath;
};

// Plug-in name to record, ordered byte-wise. Collectors insert without replacing: the first record of a
// name wins.
typedef std::map<std::string, _PluginData> PluginDataMap;

// ---------------------------------------------------------------------------------------------------
// Constants. TZ_SYS_RO_APP and TZ_SYS_DB have no fallback: without them the device is not a Tizen device,
// and the loader's failure to build these strings is the right outcome.

inline std::string PluginRwAppDirFromPlatform() {
  const char* dir = tzplatform_getenv(TZ_SYS_RW_APP);
  return std::string(dir != nullptr ? dir : "/opt/usr/apps") + "/";
}

inline const std::string strRW_APP_DIR = PluginRwAppDirFromPlatform();
inline const std::string strRO_APP_DIR = std::string(tzplatform_getenv(TZ_SYS_RO_APP)) + "/";
inline const std::string strMANAGER_DIR = strRW_APP_DIR + "appbinarymanager/";
inline const std::string strPEPPER_DIR = strRW_APP_DIR + "pepper/";
inline const std::string strB2B_PEPPER_DIR = strPEPPER_DIR + "b2b/";
inline const std::string strXWALK_EXTENSION_DIR = "/usr/lib/tizen-extensions-crosswalk/";
inline const std::string strRESULT_DIR = strMANAGER_DIR + "webapi_result";
inline const std::string strRESULT_FILE = strRESULT_DIR + "/upgrade_webapi_result.json";
inline const std::string strRESULT_FILE_BAK = strRESULT_DIR + "/upgrade_webapi_result.json_bak";
inline const std::string strVERSION_TABLE = "versionTable";
inline const std::string strPLUGIN_TABLE = "pluginTable";
inline const std::string strDEFAULT_VERSION = "0.0.0";
inline const std::string strPEPPER_PKG_PREFIX = "com.korvane.tv.pepper.";
inline const std::string strXWALK_PKG_PREFIX = "com.korvane.tv.xwalk.";
inline const std::string strSHARED_RES = "/shared/res/";
inline const std::string strMETADATA_TYPE_KEY = METADATA_NAMESPACE "upgradable_webapi_type";
inline const std::string strMETADATA_FORCE_KEY = METADATA_NAMESPACE "forceupdate_webapi";
inline const std::string strMETADATA_APPLIST_KEY = METADATA_NAMESPACE "upgradable_webapi_applist";
inline const std::string strPEPPER_PLUGIN = "pepperplugin";
inline const std::string strXWALK_PLUGIN = "xwalkplugin";
inline const std::string strB2B_PEPPER_PLUGIN = "b2bpepperplugin";

// The database paths exist once, in the database unit, and are exported under these names.
extern const std::string strTZ_SYS_DB;
extern const std::string strVERSION_DB;
extern const std::string strVERSION_DB_BAKUP;
extern const char* VERSION_DB;
extern const char* VERSION_DB_BAKUP;

// Size of a file by stat (following links), or -1 when it cannot be had.
int GetFileSize(const char* path);

// ---------------------------------------------------------------------------------------------------
// Files that the plug-in writes. It runs as root inside the package manager, on paths that a damaged
// device or a hostile package may have turned into links, FIFOs or devices, and on disks that fill up
// or lose power; these helpers live in the WebapisUtil unit beside GetFileSize.

// An open descriptor, closed when it goes out of scope. Close() says whether close() succeeded, for
// writers that must know whether their data reached the file.
class PluginFd {
 public:
  explicit PluginFd(int fd = -1) : fd_(fd) {}
  ~PluginFd() { Close(); }
  PluginFd(const PluginFd&) = delete;
  PluginFd& operator=(const PluginFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  bool Close() {
    const int fd = Release();
    return fd < 0 || close(fd) == 0;
  }

 private:
  int fd_;
};

// Creates or truncates `path` for writing, as fopen "w" does, but never through a symbolic link, never
// waiting for the reader of a FIFO, and only ever a regular file (a FIFO, socket or device at the path
// is replaced by one); -1 otherwise.
int PluginOpenForWriting(const char* path);

// Writes all of `size` bytes, going on after partial writes and interruptions; false on any error.
bool PluginWriteAll(int fd, const char* data, size_t size);

// Opens `path` for reading only when it is a regular file, never waiting on it (a FIFO or a device under a
// file's name would block or never end); -1 otherwise.
int PluginOpenRegularForReading(const char* path);

// Appends what is left to read of `fd` to `text`, going on after interruptions; false when a read fails
// (`text` then holds what was read before).
bool PluginReadAll(int fd, std::string& text);

// Makes the entries of a directory (a rename, a new file) durable; failures are not reported.
void PluginSyncDirectory(const std::string& path);

// ---------------------------------------------------------------------------------------------------
// One lazily created instance per class, never destroyed. The mutex covers only the look-up and the
// construction; a constructor may take another class's mutex, never its own.

class PluginMutexLock {
 public:
  explicit PluginMutexLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~PluginMutexLock() { pthread_mutex_unlock(mutex_); }
  PluginMutexLock(const PluginMutexLock&) = delete;
  PluginMutexLock& operator=(const PluginMutexLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

template <class T>
class CSingleton {
 public:
  // A constructor that throws leaves m_pObj null (the new-expression releases the memory) and the
  // mutex unlocked; the exception passes on.
  static T* GetInstance() {
    PluginMutexLock lock(&m_tSingletonLock);
    if (m_pObj == nullptr) {
      m_pObj = new T();
    }
    return m_pObj;
  }

  // Destroys the instance, if any; a later GetInstance creates a new one.
  static void DestroyInstance() {
    PluginMutexLock lock(&m_tSingletonLock);
    delete m_pObj;
    m_pObj = nullptr;
  }

  static T* m_pObj;
  static pthread_mutex_t m_tSingletonLock;
};

template <class T>
T* CSingleton<T>::m_pObj = nullptr;

template <class T>
pthread_mutex_t CSingleton<T>::m_tSingletonLock = PTHREAD_MUTEX_INITIALIZER;

#endif  // WEBAPI_UPGRADE_PLUGIN_COMMON_H_
