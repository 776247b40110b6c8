#include "base/careful_open.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/files.h"
#include "base/testing/scoped_root.h"

namespace base {
namespace {

constexpr uid_t kAnotherUser = 12345;

class CarefulOpen : public testing::Test {
 protected:
  CarefulOpen() {
    root_.MakeFolder("/open");
    root_.MakeFolder("/closed");
    EXPECT_EQ(chmod(root_.Real("/open").c_str(), 01777), 0);
  }

  void Link(const std::string& target, const std::string& path) {
    EXPECT_EQ(symlink(target.c_str(), root_.Real(path).c_str()), 0);
  }
  // The contents, or "(unread)".
  static std::string Read(const std::string& path) {
    std::string contents;
    return ReadFileToString(path, &contents) ? contents : "(unread)";
  }
  static int Write(const std::string& path) { return WriteFile(path, "new", 3); }

  ScopedRoot root_;
};

TEST_F(CarefulOpen, FollowsLinksInFoldersThatOnlyTheirOwnersWrite) {
  root_.Put("/closed/target", "data");
  root_.Put("/closed/folder/file", "more");
  Link("target", "/closed/relative");
  Link("/closed/target", "/closed/absolute");
  Link("folder", "/closed/linked");
  Link("../closed//./folder/", "/closed/winding");
  EXPECT_EQ(Read("/closed/relative"), "data");
  EXPECT_EQ(Read("/closed/absolute"), "data");
  EXPECT_EQ(Read("/closed/linked/file"), "more");
  EXPECT_EQ(Read("/closed/winding/file"), "more");
  EXPECT_EQ(Write("/closed/linked/file"), 3);
  EXPECT_EQ(root_.Get("/closed/folder/file"), "new");
}

TEST_F(CarefulOpen, DoesNotFollowLinksInAWorldWritableFolder) {
  root_.Put("/closed/target", "data");
  Link("../closed/target", "/open/file");
  Link("../closed", "/open/folder");
  EXPECT_EQ(Read("/open/file"), "(unread)");
  EXPECT_EQ(Read("/open/folder/target"), "(unread)");
}

TEST_F(CarefulOpen, DoesNotFollowLinksFurtherBelowAWorldWritableFolder) {
  root_.Put("/closed/target", "data");
  root_.MakeFolder("/open/folder");
  Link("../../closed/target", "/open/folder/file");
  EXPECT_EQ(Read("/open/folder/file"), "(unread)");
}

TEST_F(CarefulOpen, DoesNotWriteThroughALinkInAWorldWritableFolder) {
  root_.Put("/closed/file", "old");
  Link("../closed", "/open/folder");
  EXPECT_EQ(Write("/open/folder/file"), -1);
  EXPECT_EQ(root_.Get("/closed/file"), "old");
  EXPECT_FALSE(root_.Has("/closed/file.new"));
}

TEST_F(CarefulOpen, FollowsALinkToAWorldWritableFolder) {
  root_.Put("/open/file", "data");
  Link("../open", "/closed/temporary");
  EXPECT_EQ(Read("/closed/temporary/file"), "data");
  EXPECT_EQ(Write("/closed/temporary/file"), 3);
  EXPECT_EQ(root_.Get("/open/file"), "new");
}

TEST_F(CarefulOpen, FailsForALinkToItself) {
  Link("file", "/closed/file");
  EXPECT_EQ(Read("/closed/file"), "(unread)");
}

TEST_F(CarefulOpen, FollowsALinkToTheRoot) {
  Link("/", "/closed/link");
  EXPECT_EQ(Read("/closed/link"), "(unread)");
  EXPECT_TRUE(OpenCarefully(root_.Real(""), "/closed/link", O_RDONLY | O_DIRECTORY).is_valid());
}

TEST_F(CarefulOpen, ResolvesARelativePathFromTheWorkingFolder) {
  const ScopedFd folder = OpenCarefully("", ".", O_RDONLY | O_DIRECTORY);
  struct stat found {};
  struct stat wanted {};
  ASSERT_EQ(fstat(folder.get(), &found), 0);
  ASSERT_EQ(stat(".", &wanted), 0);
  EXPECT_EQ(found.st_ino, wanted.st_ino);
}

TEST_F(CarefulOpen, DoesNotReadAnotherUsersFileInAWorldWritableFolder) {
  for (const char* const path : {"/closed/file", "/open/file"}) {
    root_.Put(path, "data");
    if (chown(root_.Real(path).c_str(), kAnotherUser, kAnotherUser) != 0)
      GTEST_SKIP() << "only root can give a file away";
  }
  EXPECT_EQ(Read("/closed/file"), "data");
  EXPECT_EQ(Read("/open/file"), "(unread)");
}

}  // namespace
}  // namespace base
