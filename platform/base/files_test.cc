#include "base/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/scoped_fd.h"
#include "base/testing/scoped_root.h"

namespace base {
namespace {

constexpr char kFile[] = "/folder/file";

class Files : public testing::Test {
 protected:
  Files() { root_.MakeFolder("/folder"); }
  int Write(const std::string& data) { return WriteFile(kFile, data.data(), data.size()); }

  ScopedRoot root_;
};

TEST_F(Files, AWrittenFileHasExactlyTheBytes) {
  const std::string data("a\0b\n", 4);
  EXPECT_EQ(Write(data), 4);
  EXPECT_EQ(root_.Get(kFile), data);
}

TEST_F(Files, WritingReplacesTheWholeFile) {
  root_.Put(kFile, "a long old content");
  EXPECT_EQ(Write("new"), 3);
  EXPECT_EQ(root_.Get(kFile), "new");
}

TEST_F(Files, WritingNothingMakesAnEmptyFile) {
  EXPECT_EQ(Write(""), 0);
  EXPECT_EQ(root_.Get(kFile), "");
}

TEST_F(Files, OnlyTheOwnerCanAccessAWrittenFile) {
  root_.Put(kFile, "old");
  ASSERT_EQ(chmod(root_.Real(kFile).c_str(), 0644), 0);
  Write("secret");
  struct stat status {};
  ASSERT_EQ(stat(root_.Real(kFile).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(Files, OnlyTheOwnerCanAccessAFileWhileItIsWritten) {
  const ScopedFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(watch.get(), root_.Real("/folder").c_str(), IN_ALL_EVENTS), 0);
  const mode_t mask = umask(0);
  Write("secret");
  umask(mask);
  alignas(inotify_event) char events[4096];
  const ssize_t count = read(watch.get(), events, sizeof(events));
  std::vector<std::string> happened;
  for (ssize_t at = 0; at < count;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(events + at);
    happened.emplace_back(event->len > 0 ? event->name : "");
    // If the mode is never changed, the file was created with its final mode.
    EXPECT_EQ(event->mask & IN_ATTRIB, 0u) << happened.back();
    at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
  }
  EXPECT_THAT(happened, testing::Contains("file.new"));
  EXPECT_THAT(happened, testing::Contains("file"));
  struct stat status {};
  ASSERT_EQ(stat(root_.Real(kFile).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(Files, WritingReplacesALinkAndNotItsTarget) {
  root_.Put("/folder/other", "untouched");
  ASSERT_EQ(symlink(root_.Real("/folder/other").c_str(), root_.Real(kFile).c_str()), 0);
  EXPECT_EQ(Write("new"), 3);
  EXPECT_EQ(root_.Get("/folder/other"), "untouched");
}

TEST_F(Files, WritingReplacesATemporaryFileLeftByACrash) {
  root_.Put("/folder/file.new", "half a fi");
  EXPECT_EQ(Write("new"), 3);
  EXPECT_EQ(root_.Get(kFile), "new");
  EXPECT_FALSE(root_.Has("/folder/file.new"));
}

TEST_F(Files, WritingIntoAMissingFolderFails) { EXPECT_EQ(WriteFile("/nowhere/file", "x", 1), -1); }

TEST_F(Files, AFailedWriteLeavesTheOldContentAndNothingElse) {
  root_.Put(kFile, "old");
  root_.MakeFolder("/folder/file.new/in the way");
  EXPECT_EQ(Write("new"), -1);
  EXPECT_EQ(root_.Get(kFile), "old");
}

TEST_F(Files, WritingOverAFolderFails) {
  root_.MakeFolder(kFile);
  EXPECT_EQ(Write("new"), -1);
  EXPECT_FALSE(root_.Has("/folder/file.new"));
}

TEST_F(Files, ReadingAMissingFileFailsAndLeavesTheOutputUnchanged) {
  std::string contents = "as it was";
  EXPECT_FALSE(ReadFileToString(kFile, &contents));
  EXPECT_EQ(contents, "as it was");
}

TEST_F(Files, ReadingAFolderFails) {
  std::string contents;
  EXPECT_FALSE(ReadFileToString("/folder", &contents));
}

TEST_F(Files, ReadingAPipeFailsWithoutWaitingForAWriter) {
  ASSERT_EQ(mkfifo(root_.Real(kFile).c_str(), 0600), 0);
  std::string contents = "as it was";
  EXPECT_FALSE(ReadFileToString(kFile, &contents));
  EXPECT_EQ(contents, "as it was");
}

TEST_F(Files, ReadingADeviceFails) {
  std::string contents;
  g_root_for_testing.clear();
  EXPECT_FALSE(ReadFileToString("/dev/zero", &contents));
}

TEST_F(Files, ReadsAFileOfTheLargestSizeAndNoLargerOne) {
  std::string contents;
  root_.Put(kFile, std::string(kMaxFileBytes, 'x'));
  EXPECT_TRUE(ReadFileToString(kFile, &contents));
  EXPECT_EQ(contents.size(), kMaxFileBytes);
  root_.Put(kFile, std::string(kMaxFileBytes + 1, 'x'));
  EXPECT_FALSE(ReadFileToString(kFile, &contents));
  EXPECT_EQ(contents.size(), kMaxFileBytes);
}

TEST_F(Files, ReadsALargeFileCompletely) {
  const std::string large(100'000, 'x');
  root_.Put(kFile, large);
  std::string contents;
  EXPECT_TRUE(ReadFileToString(kFile, &contents));
  EXPECT_EQ(contents, large);
}

TEST_F(Files, DeletingRemovesTheFile) {
  root_.Put(kFile, "x");
  EXPECT_TRUE(PathExists(kFile));
  EXPECT_TRUE(DeleteFile(kFile, false));
  EXPECT_FALSE(PathExists(kFile));
}

TEST_F(Files, DeletingAMissingFileSucceeds) { EXPECT_TRUE(DeleteFile(kFile, false)); }

TEST_F(Files, DeletingAFolderFails) { EXPECT_FALSE(DeleteFile("/folder", false)); }

}  // namespace
}  // namespace base
