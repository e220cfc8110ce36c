// Side information from the node's configuration file, through the node's
// real NOF service (no scripted answers).
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "side_info_test_support.h"

using namespace side_info_test;

namespace {

class FromConfiguration : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = std::filesystem::temp_directory_path() /
            ("snanode-sideinfo-" + std::to_string(::getpid()) + ".toml");
    std::ofstream(file_) << R"(
[[partner_lu]]
alias = "HQ"
lu_name = "NETB.HQLU"
[[side_info]]
sym_dest_name = "PAYROLL"
partner_lu = "NETB.HQLU"
mode = "#BATCH"
tp_name = "PAYTP"
security = "program"
user_id = "CLERK"
password = "SECRET"
[[side_info]]
sym_dest_name = "SVC"
partner_lu = "HQ"
mode = "#INTER"
tp_name_type = "service"
tp_name = "06F1F0F2"
security = "none"
)";
    // Read once per process: each test case runs in a process of its own.
    ::setenv("SNANODE_CONFIG", file_.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove(file_); }

  static CM_RETURN_CODE extract(const char *name, SIDE_INFO &out) {
    CM_INT32 number = 0, length = sizeof out;
    CM_RETURN_CODE rc = -1;
    std::string key = padded(name, 8);
    xcmesi(&number, reinterpret_cast<unsigned char *>(key.data()), &out, &length, &rc);
    return rc;
  }

  std::filesystem::path file_;
};

TEST_F(FromConfiguration, ExtractAndInitializeSeeTheConfiguredEntries) {
  SIDE_INFO out;
  std::memset(&out, 'Q', sizeof out);
  ASSERT_EQ(extract("PAYROLL", out), CM_OK);
  EXPECT_EQ(text_of(out.partner_LU_name, 17), "NETB.HQLU        ");
  EXPECT_EQ(text_of(out.mode_name, 8), "#BATCH  ");
  EXPECT_EQ(text_of(out.TP_name, 64), padded("PAYTP", 64));
  EXPECT_EQ(out.conversation_security_type, CM_SECURITY_PROGRAM);
  EXPECT_EQ(text_of(out.security_user_ID, 8), "CLERK   ");
  EXPECT_EQ(text_of(out.security_password, 8), std::string(8, '\0'));

  std::memset(&out, 'Q', sizeof out);
  ASSERT_EQ(extract("SVC", out), CM_OK);
  EXPECT_EQ(out.TP_name_type, CM_SNA_SERVICE_TP);
  EXPECT_EQ(text_of(out.TP_name, 64), padded("\x06"
                                             "102",
                                             64));  // X'06F1F0F2'
  EXPECT_EQ(text_of(out.partner_LU_name, 17), "HQ               ");

  EXPECT_EQ(extract("NOSUCH", out), CM_PROGRAM_PARAMETER_CHECK);

  unsigned char id[8];
  CM_RETURN_CODE rc = -1;
  std::string name = padded("PAYROLL", 8);
  cminit(id, reinterpret_cast<unsigned char *>(name.data()), &rc);
  EXPECT_EQ(rc, CM_OK);
  name = padded("nosuch", 8);
  cminit(id, reinterpret_cast<unsigned char *>(name.data()), &rc);
  EXPECT_EQ(rc, CM_PROGRAM_PARAMETER_CHECK);
}

}  // namespace
