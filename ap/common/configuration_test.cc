#include "ap/common/configuration.h"

#include <gtest/gtest.h>

#include "base/testing/log_capture.h"
#include "base/testing/scoped_root.h"

namespace varelnos::ap {
namespace {

class ConfigurationTest : public testing::Test {
 protected:
  // Writes the main file, with every key but `missing` and its own name as the value.
  void WriteAllBut(const std::string& missing) const {
    std::string text = std::string(kUploadIntervalKey) + "=60\n";
    if (missing == kUploadIntervalKey) text.clear();
    for (const std::string key : kConfigurationKeys)
      if (key != missing && key != kUploadIntervalKey)
        text.append(key).append("=").append(key).append("\n");
    root_.Put(kConfigurationFile, text);
  }

  base::ScopedRoot root_;
  base::LogCapture log_;
};

TEST_F(ConfigurationTest, EachKeySetsItsMember) {
  WriteAllBut("");
  const Configuration configuration = LoadConfiguration();
  EXPECT_EQ(configuration.client_id, kClientIdKey);
  EXPECT_EQ(configuration.client_secret, kClientSecretKey);
  EXPECT_EQ(configuration.scope, kScopeKey);
  EXPECT_EQ(configuration.url, kUrlKey);
  EXPECT_EQ(configuration.upload_interval, base::TimeDelta::FromMinutes(1));
}

TEST_F(ConfigurationTest, EachMissingKeyIsFatal) {
  for (const char* const key : kConfigurationKeys) {
    WriteAllBut(key);
    EXPECT_DEATH(LoadConfiguration(), "Failed to read configuration") << key;
  }
}

TEST_F(ConfigurationTest, AnOverrideReplacesItsKeysOnly) {
  WriteAllBut("");
  root_.Put(kOverrideFile, std::string(kUrlKey) + "=other\n");
  EXPECT_EQ(LoadConfiguration().url, "other");
  EXPECT_EQ(LoadConfiguration().scope, kScopeKey);
}

}  // namespace
}  // namespace varelnos::ap
