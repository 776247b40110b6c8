#include "kestle/key_value_store.h"

#include <gtest/gtest.h>

#include "base/testing/scoped_root.h"

namespace kestle {
namespace {

constexpr char kFile[] = "/etc/test.conf";

class KeyValueStoreTest : public testing::Test {
 protected:
  bool Load(const std::string& text) {
    root_.Put(kFile, text);
    return store_.Load(base::FilePath(kFile));
  }
  std::string Get(const std::string& key) {
    std::string value = "(absent)";
    (void)store_.GetString(key, &value);  // Unchanged if absent.
    return value;
  }

  base::ScopedRoot root_;
  KeyValueStore store_;
};

TEST_F(KeyValueStoreTest, ReadsTheValueAsItStandsAfterTheFirstEqualsSign) {
  const struct {
    const char* line;
    const char* value;
  } kCases[] = {
      {"KEY=value", "value"},
      {"KEY=", ""},
      {"KEY= spaced out ", " spaced out "},
      {" \tKEY \t=value", "value"},
      {"KEY=a=b", "a=b"},
      {"KEY=\"quoted\"", "\"quoted\""},
      {"KEY=#1", "#1"},
      {"KEY=value\r", "value\r"},
  };
  for (const auto& test : kCases) {
    EXPECT_TRUE(Load(test.line)) << test.line;
    EXPECT_EQ(Get("KEY"), test.value) << test.line;
  }
}

TEST_F(KeyValueStoreTest, BlankLinesAndCommentsSayNothing) {
  EXPECT_TRUE(Load("\n  \t\n# KEY=comment\n   # another, without the sign\nKEY=value\n\n"));
  EXPECT_EQ(Get("KEY"), "value");
  EXPECT_EQ(Get("# KEY"), "(absent)");
}

TEST(KeyValueLines, AreNumberedFromOneAndSkippedLinesCount) {
  const std::vector<KeyValueLine> lines = ReadKeyValueLines("A=1\n\n# B=2\nno pair\nC=3");
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].number, 1);
  EXPECT_EQ(lines[1].number, 4);
  EXPECT_FALSE(lines[1].is_pair);
  EXPECT_EQ(lines[2].number, 5);
  EXPECT_EQ(lines[2].key + lines[2].value, "C3");
}

TEST_F(KeyValueStoreTest, AnEmptyFileIsFine) { EXPECT_TRUE(Load("")); }

TEST_F(KeyValueStoreTest, ALineThatIsNoPairFailsAndLeavesTheStoreUnchanged) {
  ASSERT_TRUE(Load("KEY=before"));
  for (const char* const text : {"KEY=after\nno pair here\n", "KEY=after\n=value\n", "KEY\n"}) {
    EXPECT_FALSE(Load(text)) << text;
    EXPECT_EQ(Get("KEY"), "before") << text;
  }
}

TEST_F(KeyValueStoreTest, AMissingFileFailsAndLeavesTheStoreUnchanged) {
  ASSERT_TRUE(Load("KEY=before"));
  EXPECT_FALSE(store_.Load(base::FilePath("/etc/absent.conf")));
  EXPECT_EQ(Get("KEY"), "before");
}

TEST_F(KeyValueStoreTest, ALaterValueOfAKeyWins) {
  EXPECT_TRUE(Load("KEY=first\nKEY=second\n"));
  EXPECT_EQ(Get("KEY"), "second");
}

TEST_F(KeyValueStoreTest, ASecondFileIsMergedKeyByKey) {
  ASSERT_TRUE(Load("A=1\nB=2\n"));
  ASSERT_TRUE(Load("B=3\n"));
  EXPECT_EQ(Get("A"), "1");
  EXPECT_EQ(Get("B"), "3");
}

}  // namespace
}  // namespace kestle
