// The result file is replaced whole through its staging file; every refusal or failure leaves the
// previous result where the web runtime finds it, and says why in the log.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "WebapisUtil.h"
#include "log_capture.h"
#include "sandbox.h"

namespace {

using wup_test::LogHas;

class ResultFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    wup_test::Device().Reset();
    wup_test::ClearLog();
  }

  WebapisUtil util_;
  PluginDataMap empty_;
};

TEST_F(ResultFileTest, SaveCreatesTheDirectoryAndRenamesTheStagingFile) {
  wup_test::MakeDirs(strMANAGER_DIR);
  const mode_t previousMask = umask(0);
  EXPECT_FALSE(util_.CheckUpgradeResultExist());
  const bool saved = util_.SavePluginUpgradeResult(empty_);
  umask(previousMask);

  ASSERT_TRUE(saved);
  EXPECT_TRUE(util_.CheckUpgradeResultExist());
  EXPECT_EQ(wup_test::ReadFile(strRESULT_FILE), "null");
  EXPECT_FALSE(wup_test::PathExists(strRESULT_FILE_BAK));
  struct stat st;
  ASSERT_EQ(stat(strRESULT_DIR.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0775u);
  EXPECT_EQ(wup_test::LogMessages(),
            (std::vector<std::string>{"create [" + strRESULT_DIR + "] success",
                                      "[" + strRESULT_FILE_BAK + "] NOT exist",
                                      "write json to local path [" + strRESULT_FILE_BAK + "] success!"}));
}

TEST_F(ResultFileTest, AMissingParentDirectoryStopsTheWrite) {
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_EQ(wup_test::LogMessages(), std::vector<std::string>{"Dest Path [" + strRESULT_DIR +
                                                              "] failed to create! return:[-1], errno:[2, No "
                                                              "such file or directory, ]"});
  EXPECT_FALSE(wup_test::PathExists(strRESULT_DIR));
  EXPECT_FALSE(util_.CheckUpgradeResultExist());
}

TEST_F(ResultFileTest, ARefusedOrFailedSaveKeepsThePreviousResultAndNothingWaits) {
  const std::string& staging = strRESULT_FILE_BAK;
  wup_test::MakeDirs(strRESULT_DIR);
  wup_test::WriteFile(strRESULT_FILE, "previous");
  const std::string victim = wup_test::Device().root + "/victim";
  wup_test::WriteFile(victim, "keep");
  ASSERT_EQ(symlink(victim.c_str(), staging.c_str()), 0);
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_TRUE(LogHas("path [" + staging + "] is a symbol link! there's security risk!"));
  EXPECT_EQ(wup_test::ReadFile(victim), "keep");

  ASSERT_EQ(unlink(staging.c_str()), 0);
  ASSERT_EQ(mkdir(staging.c_str(), 0755), 0);
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_TRUE(LogHas("[" + staging + "] is not a symbol link"));
  EXPECT_TRUE(LogHas("open [" + staging + "] fail!"));

  // Nothing written, or less than the whole text (a full disk, here a file-size limit of two bytes):
  // the staging file is never published.
  ASSERT_EQ(rmdir(staging.c_str()), 0);
  EXPECT_FALSE(util_.m_WriteUpgradeWebapiToLocal(staging, ""));
  EXPECT_TRUE(LogHas("write json to local path[" + staging + "] fail!"));
  wup_test::ClearLog();
  struct rlimit previous;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
  const struct rlimit tiny = {2, previous.rlim_max};
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tiny), 0);
  const bool saved = util_.SavePluginUpgradeResult(empty_);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &previous), 0);
  EXPECT_FALSE(saved);
  EXPECT_TRUE(LogHas("write json to local path[" + staging + "] fail!"));
  EXPECT_EQ(wup_test::ReadFile(strRESULT_FILE), "previous");

  // A FIFO there, which a plain open would wait on for a reader, is replaced by the staging file.
  ASSERT_EQ(unlink(staging.c_str()), 0);
  ASSERT_EQ(mkfifo(staging.c_str(), 0644), 0);
  {
    const wup_test::Watchdog watchdog;
    EXPECT_TRUE(util_.SavePluginUpgradeResult(empty_));
  }
  EXPECT_EQ(wup_test::ReadFile(strRESULT_FILE), "null");

  // A result path that cannot be replaced: the staged text stays beside it.
  ASSERT_EQ(unlink(strRESULT_FILE.c_str()), 0);
  wup_test::MakeDirs(strRESULT_FILE + "/occupied");
  EXPECT_FALSE(util_.SavePluginUpgradeResult(empty_));
  EXPECT_TRUE(LogHas("rename[" + staging + "] to[" + strRESULT_FILE + "] fail!errno [21,Is a directory,]"));
  EXPECT_EQ(wup_test::ReadFile(staging), "null");
  EXPECT_TRUE(wup_test::PathExists(strRESULT_FILE + "/occupied"));
}

}  // namespace
