#include "pelmorctl/config_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ap/common/configuration.h"
#include "pelmorctl/report.h"

namespace pelmorctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using varelnos::ap::kClientSecretKey;
using varelnos::ap::kUrlKey;

constexpr char kSecret[] = "hunter2";
const std::string kId = "PELMOR_CLIENT_ID=id\n";
const std::string kSecretLine = std::string("PELMOR_CLIENT_SECRET=") + kSecret + "\n";
const std::string kScope = "PELMOR_SCOPE=scope\n";
const std::string kUrl = "PELMOR_URL=https://pelmor.example.com/v1\n";
const std::string kInterval = "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=600\n";
const std::string kRest = kId + kSecretLine + kScope;
const std::string kGood = kRest + kUrl + kInterval;

ConfigFile File(const std::string& path, const std::string& text) {
  return {.path = path, .text = text};
}

ConfigFile Missing(const std::string& path) {
  return {.path = path, .exists = false, .text = ReadFailure{{"there is no such file"}}};
}

ConfigFile Unreadable(const std::string& path) {
  return {.path = path, .text = ReadFailure{{"it can't be read: Is a directory"}}};
}

// "E main:3 message" for each fault.
std::vector<std::string> FaultsOf(const ConfigFile& main, const ConfigFile& overrides) {
  std::vector<std::string> faults;
  const ConfigReport report = CheckConfig(main, overrides);
  for (const Fault& fault : report.faults)
    faults.push_back((fault.severity == Severity::kError ? "E " : "W ") + fault.Place() + " " +
                     fault.message);
  EXPECT_THAT(FormatConfigReport(report), Not(HasSubstr(kSecret)));
  return faults;
}

std::vector<std::string> FaultsOf(const std::string& main) {
  return FaultsOf(File("main", main), Missing("over"));
}

TEST(ConfigCheck, AGoodConfigurationHasNoFaults) { EXPECT_THAT(FaultsOf(kGood), IsEmpty()); }

TEST(ConfigCheck, EachFaultOfTheMainFileHasItsLine) {
  const struct {
    std::string text;
    const char* fault;
  } kCases[] = {
      {kSecretLine + kScope + kUrl + kInterval, "E main PELMOR_CLIENT_ID is missing"},
      {kId + kScope + kUrl + kInterval, "E main PELMOR_CLIENT_SECRET is missing"},
      {kRest + kUrl, "E main PELMOR_UPLOAD_INTERVAL_IN_SECONDS is missing"},
      {"# comment\n\nhunter2\n" + kGood,
       "E main:3 neither KEY=VALUE nor a comment nor blank: the daemon rejects the file"},
      {kGood + "=hunter2",
       "E main:6 neither KEY=VALUE nor a comment nor blank: the daemon rejects the file"},
      {kGood + "\r\n",
       "E main:6 neither KEY=VALUE nor a comment nor blank: the daemon rejects the file"},
      {kGood + "PELMOR_SCOPE=again\n",
       "W main:6 PELMOR_SCOPE is also set in line 3; this later line wins"},
      {kGood + "PELMOR_UPLOAD_INTERVAL=5\n",
       "W main:6 PELMOR_UPLOAD_INTERVAL is not one of the daemon's keys and has no effect"},
      {kGood + "PELMOR_CLIENT_SECRET_hunter2==\n",
       "W main:6 the key of this line is not one of the daemon's keys and has no effect"},
      {kGood + "hunter2==\n",
       "W main:6 the key of this line is not one of the daemon's keys and has no effect"},
  };
  for (const auto& test : kCases) EXPECT_THAT(FaultsOf(test.text), ElementsAre(test.fault));
}

TEST(ConfigCheck, AUrlWithoutAHostIsWarnedOf) {
  for (const char* const url : {"", "/", "//", "https:", "https://"}) {
    const std::string text =
        std::string(kRest).append("PELMOR_URL=").append(url).append("\n").append(kInterval);
    EXPECT_THAT(FaultsOf(text),
                ElementsAre(testing::AllOf(
                    testing::StartsWith("W main:4 PELMOR_URL: refusing to send to a bad URL ("),
                    testing::EndsWith("; nothing will be uploaded"))))
        << url;
  }
}

TEST(ConfigCheck, EachFaultOfAValueHasItsLine) {
  const struct {
    std::string text;
    const char* fault;
  } kCases[] = {
      {"=https://x/ \n", "W main:4 PELMOR_URL: the trailing blanks are part of the value"},
      {"= https://x/\n",
       "W main:4 PELMOR_URL: the blanks after the equals sign are part of the value"},
      {"=http://x/\n",
       "W main:4 PELMOR_URL: refusing to send to http://x in clear: use https; nothing will be "
       "uploaded"},
      {"=https://x/?a=b\n",
       "W main:4 PELMOR_URL: paths are appended to the URL, after its query or fragment"},
  };
  for (const auto& test : kCases) {
    std::string text = kRest;
    text.append("PELMOR_URL").append(test.text).append(kInterval);
    EXPECT_THAT(FaultsOf(text), testing::Contains(test.fault));
  }
}

TEST(ConfigCheck, AnUnfinishedCredentialIsWarnedOf) {
  const std::string empty = ": empty; the identity provider will probably reject the device";
  const std::string placeholder =
      ": still the package's default; the identity provider will probably reject the device";
  EXPECT_THAT(
      FaultsOf("PELMOR_CLIENT_ID=\nPELMOR_CLIENT_SECRET=\nPELMOR_SCOPE=\n" + kUrl + kInterval),
      ElementsAre("W main:1 PELMOR_CLIENT_ID" + empty, "W main:2 PELMOR_CLIENT_SECRET" + empty,
                  "W main:3 PELMOR_SCOPE" + empty));
  EXPECT_THAT(FaultsOf("PELMOR_CLIENT_ID=replace-with-client-id\n"
                       "PELMOR_CLIENT_SECRET=replace-with-client-secret\n" +
                       kScope + kUrl + kInterval),
              ElementsAre("W main:1 PELMOR_CLIENT_ID" + placeholder,
                          "W main:2 PELMOR_CLIENT_SECRET" + placeholder));
}

TEST(ConfigCheck, AUrlInTheDomainOfExamplesIsWarnedOf) {
  const auto faults_of_url = [](const std::string& url) {
    return FaultsOf(kRest + "PELMOR_URL=" + url + "\n" + kInterval);
  };
  for (const char* const url : {"https://pelmor.example", "https://a.pelmor.example:8443/v1"})
    EXPECT_THAT(faults_of_url(url),
                ElementsAre("W main:4 PELMOR_URL: .example is a reserved domain without servers; "
                            "nothing will be uploaded"));
  for (const char* const url :
       {"https://pelmor.example.com/v1.example", "https://notexample/", "http://[::1]:80/.example"})
    EXPECT_THAT(faults_of_url(url), IsEmpty()) << url;
}

TEST(ConfigCheck, AUrlThatCannotBeParsedIsWarnedOfAndNotShown) {
  const ConfigReport report = CheckConfig(
      File("main", kRest + "PELMOR_URL=https://user:hunter2@x/\n" + kInterval), Missing("over"));
  ASSERT_EQ(report.faults.size(), 1U);
  EXPECT_EQ(report.faults[0].severity, Severity::kWarning);
  EXPECT_THAT(report.faults[0].message, HasSubstr("bad URL"));
  EXPECT_THAT(FormatConfigReport(report), HasSubstr("main:4: PELMOR_URL=(not shown)\n"));
  EXPECT_THAT(FormatConfigReport(report), Not(HasSubstr("hunter2")));
}

TEST(ConfigCheck, TheIntervalIsAWholeNumberOfSecondsAboveZero) {
  const std::string whole =
      "E main:5 PELMOR_UPLOAD_INTERVAL_IN_SECONDS: not a whole number of seconds from -2147483648 "
      "to 2147483647";
  const std::string pause =
      "W main:5 PELMOR_UPLOAD_INTERVAL_IN_SECONDS: with zero or less, the daemon uploads without "
      "a pause; give the seconds between uploads";
  const struct {
    const char* value;
    std::string fault;
  } kCases[] = {
      {"abc", whole},
      {"", whole},
      {"1.5", whole},
      {"+5", whole},
      {"2147483648", whole},
      {"60 ", whole + ": the trailing blanks are part of the value"},
      {"60\r", whole + ": the line ends with CR LF, and the CR becomes part of the value"},
      {"\"60\"", whole + ": the quotes are part of the value"},
      {"0", pause},
      {"-5", pause},
      {"1801",
       "W main:5 PELMOR_UPLOAD_INTERVAL_IN_SECONDS: points older than 1800 seconds are dropped, "
       "so a longer interval loses some"},
  };
  for (const auto& test : kCases)
    EXPECT_THAT(FaultsOf(kRest + kUrl + "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=" + test.value),
                ElementsAre(test.fault));
  for (const char* const good : {"1", "060", "1800"})
    EXPECT_THAT(FaultsOf(kRest + kUrl + "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=" + good), IsEmpty());
}

TEST(ConfigCheck, CrLfIsReportedForEachLine) {
  std::string text = kGood;
  for (size_t end = 0; (end = text.find('\n', end)) != std::string::npos; end += 2)
    text.replace(end, 1, "\r\n");
  const std::vector<std::string> faults = FaultsOf(text);
  ASSERT_GE(faults.size(), 5U);
  for (const std::string& fault : faults)
    EXPECT_THAT(fault, testing::AnyOf(HasSubstr("CR LF"), HasSubstr("bad URL"))) << fault;
}

TEST(ConfigCheck, AMainFileThatCannotBeReadIsTheOnlyFault) {
  EXPECT_THAT(FaultsOf(Missing("main"), Missing("over")),
              ElementsAre("E main there is no such file"));
  EXPECT_THAT(FaultsOf(Unreadable("main"), File("over", kUrl)),
              ElementsAre("E main it can't be read: Is a directory"));
}

TEST(ConfigCheck, AnOverrideReplacesKeyByKey) {
  EXPECT_THAT(FaultsOf(File("main", kRest + kUrl), File("over", kInterval)), IsEmpty());
  EXPECT_THAT(FaultsOf(File("main", kRest + kUrl + "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=x\n"),
                       File("over", kInterval)),
              IsEmpty());
  const ConfigReport report =
      CheckConfig(File("main", kGood), File("over", "PELMOR_URL=https://other.example\n"));
  EXPECT_EQ(report.Find(kUrlKey)->value, "https://other.example");
  EXPECT_EQ(report.Find(kUrlKey)->file, "over");
  EXPECT_EQ(report.Find(kUrlKey)->line, 1);
}

TEST(ConfigCheck, AFaultOfAnOverridingValueIsReportedInTheOverrideFile) {
  EXPECT_THAT(
      FaultsOf(File("main", kGood), File("over", "\nPELMOR_UPLOAD_INTERVAL_IN_SECONDS=soon\n")),
      ElementsAre("E over:2 PELMOR_UPLOAD_INTERVAL_IN_SECONDS: not a whole number of seconds "
                  "from -2147483648 to 2147483647"));
}

TEST(ConfigCheck, AnOverrideFileThatCannotBeLoadedIsIgnored) {
  EXPECT_THAT(FaultsOf(File("main", kGood), Unreadable("over")),
              ElementsAre("W over it can't be read: Is a directory; the daemon ignores it"));
  EXPECT_THAT(
      FaultsOf(File("main", kGood),
               File("over", "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=soon\nhunter2\n")),
      ElementsAre("W over:2 neither KEY=VALUE nor a comment nor blank: the daemon ignores the "
                  "whole file"));
}

TEST(ConfigCheck, OnlyAnOverrideFileThatTheDaemonIgnoresIsListedAsIgnored) {
  const ConfigFile main = File("main", kGood);
  EXPECT_EQ(CheckConfig(main, Missing("over")).ignored_file, "");
  EXPECT_EQ(CheckConfig(main, File("over", kUrl)).ignored_file, "");
  EXPECT_EQ(CheckConfig(main, Unreadable("over")).ignored_file, "over");
  EXPECT_EQ(CheckConfig(main, File("over", "hunter2\n")).ignored_file, "over");
  ConfigFile unknown = Unreadable("over");
  unknown.forbidden_to_us_alone = true;
  EXPECT_EQ(CheckConfig(main, unknown).ignored_file, "");
  EXPECT_THAT(FaultsOf(main, unknown), ElementsAre("W over it can't be read: Is a directory"));
}

TEST(ConfigCheck, OtherReadersOfTheSecretAreWarnedOf) {
  ConfigFile main = File("main", kGood);
  ConfigFile overrides = File("over", kInterval);
  main.exposure = overrides.exposure = "readable";
  EXPECT_THAT(FaultsOf(main, overrides), ElementsAre("W main readable"));
  overrides.text = kSecretLine;
  EXPECT_THAT(FaultsOf(main, overrides), ElementsAre("W main readable", "W over readable"));
  overrides.text = kSecretLine + "no pair\n";
  EXPECT_THAT(FaultsOf(main, overrides), testing::Contains("W over readable"));
  overrides.text = std::string("PELMOR_CLIENT_SECRET=\n");
  EXPECT_THAT(FaultsOf(main, overrides), Not(testing::Contains("W over readable")));
}

TEST(ConfigCheck, TheReportShowsEachKeyButNotTheSecret) {
  const ConfigReport report = CheckConfig(File("main", kGood), Missing("over"));
  EXPECT_EQ(FormatConfigReport(report),
            "main:1: PELMOR_CLIENT_ID=id\n"
            "main:2: PELMOR_CLIENT_SECRET=(not shown)\n"
            "main:3: PELMOR_SCOPE=scope\n"
            "main:4: PELMOR_URL=https://pelmor.example.com/v1\n"
            "main:5: PELMOR_UPLOAD_INTERVAL_IN_SECONDS=600\n"
            "The daemon starts with this configuration (errors: 0, warnings: 0)\n");
  EXPECT_EQ(report.Find(kClientSecretKey)->value, "");
}

}  // namespace
}  // namespace pelmorctl
