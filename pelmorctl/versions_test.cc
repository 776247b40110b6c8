#include "pelmorctl/versions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace pelmorctl {
namespace {

using testing::HasSubstr;
using testing::Not;

class VersionsTest : public testing::Test {
 protected:
  ~VersionsTest() override { std::filesystem::remove(path_); }

  const std::string& Put(const std::string& bytes) {
    std::ofstream(path_) << bytes;
    return path_;
  }

  std::string path_ = testing::TempDir() + "ap-pelmor." + std::to_string(getpid());
};

TEST_F(VersionsTest, TheIdentityIsFoundInTheFileOfADaemon) {
  using std::string_literals::operator""s;
  const auto identity =
      ReadIdentity(Put("\177ELF\0\0 @(#) @(#)ap-pelmor 1.2.3 https://id.test/token\0rest\0"s));
  ASSERT_TRUE(identity);
  EXPECT_EQ(*identity, "1.2.3, token endpoint https://id.test/token");
}

TEST_F(VersionsTest, AFileWithoutAnIdentityIsReported) {
  for (const char* const bytes : {"", "\177ELF", "@(#)ap-pelmor ", "@(#)ap-pelmor 1.2.3"})
    EXPECT_EQ(ReadIdentity(Put(bytes)).reason(), "it does not state its version") << bytes;
  EXPECT_EQ(ReadIdentity(path_ + "/absent").reason(), "it can't be read: Not a directory");
}

TEST_F(VersionsTest, ADaemonThatIsNotTheInstalledFileIsReported) {
  const std::string difference = "The running daemon is another file than the installed one";
  const std::string other = DescribeVersions(Put("an upgrade"), getpid());
  EXPECT_THAT(other, HasSubstr("installed ap-pelmor  " + path_ + ": it does not state its"));
  EXPECT_THAT(other, HasSubstr("process " + std::to_string(getpid())));
  EXPECT_THAT(other, HasSubstr(difference));
  EXPECT_THAT(DescribeVersions("/proc/self/exe", getpid()), Not(HasSubstr(difference)));
  EXPECT_THAT(DescribeVersions(path_ + ".absent", getpid()), Not(HasSubstr(difference)));
  EXPECT_THAT(DescribeVersions(path_, {}), HasSubstr("running ap-pelmor    none is on the bus\n"));
}

}  // namespace
}  // namespace pelmorctl
