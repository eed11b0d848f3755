// The database facade: its update flag and its hold on the shared VersionSqliteDB.
#include <gtest/gtest.h>

#include "DBUtil.h"
#include "VersionSqliteDB.h"
#include "log_capture.h"
#include "sandbox.h"

using namespace wup_test;

namespace {

class DbUtilTest : public ::testing::Test {
 protected:
  void SetUp() override { Device().Reset(); }
  void TearDown() override { CSingleton<DBUtil>::DestroyInstance(); }
  DBUtil& util_ = *CSingleton<DBUtil>::GetInstance();
};

TEST_F(DbUtilTest, FlagFollowsSuccessfulChangesOnly) {
  EXPECT_FALSE(util_.IsUpdate());
  EXPECT_TRUE(util_.RemoveAllPluginDataFromDB());
  EXPECT_FALSE(util_.IsUpdate()) << "emptying the table is not an update";
  _PluginData record;
  record.name = "stored";
  EXPECT_TRUE(util_.InsertPluginDataToDB(record));
  EXPECT_TRUE(util_.IsUpdate());
  util_.SetIsUpdate(false);
  EXPECT_TRUE(util_.RemovePluginDataFromDB("never stored"));
  EXPECT_TRUE(util_.IsUpdate());

  PluginDataMap map{{"leftover", {}}};
  ClearLog();
  EXPECT_TRUE(util_.GetPluginListFromDB(map));
  EXPECT_EQ(LogMessages().front(), "GetPluginListFromDB");
  ASSERT_EQ(map.size(), 1u);
  EXPECT_EQ(map.begin()->first, "stored");

  RemoveTree(Device().db);  // nothing can be stored any more
  EXPECT_FALSE(util_.RemovePluginDataFromDB("stored"));
  EXPECT_TRUE(util_.IsUpdate());
  util_.SetIsUpdate(false);
  EXPECT_FALSE(util_.InsertPluginDataToDB(record));
  EXPECT_FALSE(util_.IsUpdate());
}

TEST_F(DbUtilTest, DestroyingTheFacadeDestroysTheSharedDatabaseObject) {
  util_.SetIsUpdate(true);
  ASSERT_NE(CSingleton<VersionSqliteDB>::m_pObj, nullptr);
  CSingleton<DBUtil>::DestroyInstance();
  EXPECT_EQ(CSingleton<VersionSqliteDB>::m_pObj, nullptr);
  DBUtil* again = CSingleton<DBUtil>::GetInstance();
  EXPECT_NE(CSingleton<VersionSqliteDB>::m_pObj, nullptr);
  EXPECT_FALSE(again->IsUpdate());
}

}  // namespace
