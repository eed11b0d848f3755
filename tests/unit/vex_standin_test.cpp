// The host application service is a contract for the tests and for pkgsim: state files under
// HOST_VEX_DIR and failures forced through HOST_VEX_FAIL, both read at every call.
#include <gtest/gtest.h>
#include <vex_app_service.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "sandbox.h"

namespace {

using wup_test::Device;

class VexStandInTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Device().Reset();
    unsetenv("HOST_VEX_FAIL");
  }
  void TearDown() override {
    unsetenv("HOST_VEX_FAIL");
    setenv("HOST_VEX_DIR", Device().vex.c_str(), 1);
  }

  // The foreground id as the service reports it; "<fail>" or "<null>" when it does not give one.
  static std::string Foreground() {
    char* id = nullptr;
    if (vex_get_current_showing_app(&id) != 0) return "<fail>";
    if (id == nullptr) return "<null>";
    std::string copy(id);
    std::free(id);
    return copy;
  }
};

TEST_F(VexStandInTest, ForegroundComesFromTheSandboxFile) {
  EXPECT_EQ(Foreground(), "");
  wup_test::WriteFile(Device().vex + "/foreground", "Ab12Cd34Ef.Player\n");
  EXPECT_EQ(Foreground(), "Ab12Cd34Ef.Player");
  wup_test::WriteFile(Device().vex + "/foreground", "");
  EXPECT_EQ(Foreground(), "");

  wup_test::WriteFile(Device().vex + "/foreground", "Ab12Cd34Ef.Player");
  unsetenv("HOST_VEX_DIR");
  EXPECT_EQ(Foreground(), "");
}

TEST_F(VexStandInTest, AppInfoCarriesTheIdAtItsOffsetInAZeroedRecord) {
  vex_app_info_t info;
  std::memset(&info, 0x7f, sizeof(info));
  ASSERT_EQ(vex_get_app_info("Gh56Ij78Kl.Viewer", &info), 0);
  EXPECT_STREQ(info.bytes + VEX_APP_INFO_APPID_OFFSET, "Gh56Ij78Kl.Viewer");
  EXPECT_EQ(info.bytes[0], 0);
  EXPECT_EQ(info.bytes[VEX_APP_INFO_SIZE - 1], 0);
}

TEST_F(VexStandInTest, TerminationsAreRecordedInOrderOnlyWithASandbox) {
  EXPECT_EQ(vex_terminate_app("b.app"), 0);
  EXPECT_EQ(vex_terminate_app("a.app"), 0);
  EXPECT_EQ(vex_terminate_app(""), 0);
  EXPECT_EQ(wup_test::ReadFile(Device().vex + "/terminated"), "b.app\na.app\n\n");

  unsetenv("HOST_VEX_DIR");
  EXPECT_EQ(vex_terminate_app("c.app"), 0);
  EXPECT_EQ(wup_test::ReadFile(Device().vex + "/terminated"), "b.app\na.app\n\n");
}

TEST_F(VexStandInTest, ForcedFailuresHitOnlyTheNamedCalls) {
  vex_app_info_t info;
  setenv("HOST_VEX_FAIL", "vex_get_app_info, vex_terminate_app", 1);
  EXPECT_EQ(Foreground(), "");
  EXPECT_EQ(vex_get_app_info("a.app", &info), -1);
  EXPECT_EQ(vex_terminate_app("a.app"), -1);
  EXPECT_FALSE(wup_test::PathExists(Device().vex + "/terminated"));

  setenv("HOST_VEX_FAIL", "vex_get_current_showing_app", 1);
  EXPECT_EQ(Foreground(), "<fail>");
  EXPECT_EQ(vex_get_app_info("a.app", &info), 0);

  setenv("HOST_VEX_FAIL", "null_foreground", 1);
  EXPECT_EQ(Foreground(), "<null>");
}

}  // namespace
