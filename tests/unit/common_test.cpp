// The shared helpers: the process-wide instances, the log line, the file-size helper, the record.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "PluginCommon.h"
#include "log_capture.h"
#include "sandbox.h"

namespace {

struct Counted {
  static inline std::atomic<int> constructed{0};
  Counted() {
    ++constructed;
    usleep(20000);  // widen the window in which a second thread could construct another
  }
};

struct FailsOnce {
  static inline int attempts = 0;
  FailsOnce() {
    if (++attempts == 1) throw std::runtime_error("first construction fails");
  }
};

bool MutexIsFree(pthread_mutex_t* mutex) {
  if (pthread_mutex_trylock(mutex) != 0) return false;
  pthread_mutex_unlock(mutex);
  return true;
}

TEST(Singleton, ConstructsOneInstanceOnceEvenWhenRequestedConcurrently) {
  std::vector<Counted*> seen(4, nullptr);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = CSingleton<Counted>::GetInstance(); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1, Counted::constructed);
  for (Counted* instance : seen) EXPECT_EQ(CSingleton<Counted>::m_pObj, instance);
  EXPECT_EQ(seen[0], CSingleton<Counted>::GetInstance());
  EXPECT_EQ(1, Counted::constructed);
}

TEST(Singleton, FailedConstructionLeavesNoInstanceAndTheMutexFree) {
  EXPECT_THROW(CSingleton<FailsOnce>::GetInstance(), std::runtime_error);
  EXPECT_EQ(nullptr, CSingleton<FailsOnce>::m_pObj);
  EXPECT_TRUE(MutexIsFree(&CSingleton<FailsOnce>::m_tSingletonLock));

  FailsOnce* instance = CSingleton<FailsOnce>::GetInstance();
  ASSERT_NE(nullptr, instance);
  EXPECT_EQ(2, FailsOnce::attempts);

  CSingleton<FailsOnce>::DestroyInstance();
  EXPECT_EQ(nullptr, CSingleton<FailsOnce>::m_pObj);
  CSingleton<FailsOnce>::GetInstance();
  EXPECT_EQ(3, FailsOnce::attempts);
}

TEST(Logging, EveryLineGoesToTheMainBufferAtInfoWithFileFunctionAndLine) {
  wup_test::ClearLog();
  const int line = __LINE__ + 1;
  PLUGIN_LOG("pkgid(%s) count(%d)", "com.korvane.tv.pepper.x", 3);
  ASSERT_EQ(1u, wup_test::LogEntries().size());
  const wup_test::LogEntry& entry = wup_test::LogEntries()[0];
  EXPECT_EQ(0, entry.logId);
  EXPECT_EQ(4, entry.priority);
  EXPECT_EQ("KelvoManager", entry.tag);
  EXPECT_EQ("common_test.cpp: TestBody(" + std::to_string(line) + ") > pkgid(com.korvane.tv.pepper.x) count(3)",
            entry.text);
}

TEST(GetFileSize, SizeOfTheFileBehindThePathOrMinusOne) {
  const std::string dir = wup_test::MakeTempDir("wup-size");
  wup_test::WriteFile(dir + "/empty", "");
  wup_test::WriteFile(dir + "/five", "12345");
  ASSERT_EQ(0, symlink((dir + "/five").c_str(), (dir + "/link").c_str()));
  ASSERT_EQ(0, symlink((dir + "/gone").c_str(), (dir + "/dangling").c_str()));

  EXPECT_EQ(-1, GetFileSize((dir + "/missing").c_str()));
  EXPECT_EQ(0, GetFileSize((dir + "/empty").c_str()));
  EXPECT_EQ(5, GetFileSize((dir + "/five").c_str()));
  EXPECT_EQ(5, GetFileSize((dir + "/link").c_str()));
  EXPECT_EQ(-1, GetFileSize((dir + "/dangling").c_str()));
  wup_test::RemoveTree(dir);
}

TEST(PluginRecord, NewRecordIsAnEmptyPepperRecordInstalledReadOnly) {
  const _PluginData record;
  EXPECT_EQ(PEPPER_PLUGIN, record.pluginType);
  EXPECT_EQ(0, record.hasForceMetaData);
  EXPECT_EQ(INSTALLED_ONLY_RO, record.isUpdate);
  EXPECT_TRUE(record.name.empty() && record.version.empty() && record.path.empty() && record.pkgid.empty() &&
              record.entryPoints.empty() && record.appWhiteList.empty() && record.systemPath.empty());
}

}  // namespace
