#include "pelmorctl/arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "pelmorctl/usage.h"

namespace pelmorctl {
namespace {

using testing::ElementsAre;
using testing::Pair;
using Words = std::vector<std::string>;

// Precondition: a correct command line.
template <typename Expected>
Expected Parse(const Words& words) {
  const auto task = ParseArguments(words);
  if (task && std::holds_alternative<Expected>(*task)) return std::get<Expected>(*task);
  ADD_FAILURE() << (task ? "another task" : task.reason());
  return {};
}

TEST(Arguments, AMetricTakesANameAValueAndLabels) {
  for (const Words& words :
       {Words{"metric", "ap/x", "5", "-l", "band=5g", "--label", "site=a=b"},
        Words{"metric", "-lband=5g", "ap/x", "--label=site=a=b", "5"},
        Words{"metric", "--label", "band=5g", "-l", "site=a=b", "--", "ap/x", "5"}}) {
    const auto task = Parse<RecordMetric>(words);
    EXPECT_EQ(task.name, "ap/x");
    EXPECT_THAT(task.labels, ElementsAre(Pair("band", "5g"), Pair("site", "a=b")));
    ASSERT_NE(task.value.TryGet<int64_t>(), nullptr);
    EXPECT_EQ(*task.value.TryGet<int64_t>(), 5);
  }
}

TEST(Arguments, ANegativeNumberIsNotAnOption) {
  EXPECT_EQ(*Parse<RecordMetric>({"metric", "ap/x", "-5"}).value.TryGet<int64_t>(), -5);
  EXPECT_EQ(*Parse<RecordMetric>({"metric", "ap/x", "-.5"}).value.TryGet<double>(), -.5);
}

TEST(Arguments, MetricsCanBeReadFromALine) {
  const auto record =
      ParseMetricLine("  ap/x\t'two words' -l note=\"a \\\"b\\\"\" --label k=c\\ d\r");
  ASSERT_TRUE(record && *record);
  EXPECT_EQ((*record)->name, "ap/x");
  EXPECT_EQ(*(*record)->value.TryGet<std::string>(), "two words");
  EXPECT_THAT((*record)->labels, ElementsAre(Pair("k", "c d"), Pair("note", "a \"b\"")));
  const auto typed = ParseMetricLine("--type string ap/x 5");
  ASSERT_TRUE(typed && *typed);
  EXPECT_EQ(*(*typed)->value.TryGet<std::string>(), "5");
  const auto text = ParseMetricLine("ap/x ''");
  ASSERT_TRUE(text && *text) << "an empty word is a word";
  Parse<StreamMetrics>({"metric", "--stream"});
}

TEST(Arguments, ALineWithoutWordsIsNoRecord) {
  for (const char* const line : {"", " \t\r"}) {
    const auto record = ParseMetricLine(line);
    ASSERT_TRUE(record) << record.reason();
    EXPECT_FALSE(*record);
  }
}

TEST(Arguments, AMistakeInALineIsReported) {
  const struct {
    const char* line;
    const char* reason;
  } kCases[] = {
      {"ap/x", "give a NAME and a VALUE"},
      {"ap/x 5 -l band", "'band' is not a label: give KEY=VALUE"},
      {"ap/x 'open", "it ends within a quote or after a backslash"},
      {"ap/x \"open", "it ends within a quote or after a backslash"},
      {"ap/x 5\\", "it ends within a quote or after a backslash"},
      {"ap/x 5 --stream", "no option '--stream'"},
      {"ap/x 5 --help", "no option '--help'"},
  };
  for (const auto& test : kCases) {
    const auto record = ParseMetricLine(test.line);
    ASSERT_FALSE(record) << test.line;
    EXPECT_EQ(record.reason(), test.reason);
  }
}

TEST(Arguments, TheTypeOfAMetricCanBeSet) {
  for (const Words& words : {Words{"metric", "ap/x", "5", "--type", "string"},
                             Words{"metric", "--type=string", "ap/x", "5"}}) {
    const auto task = Parse<RecordMetric>(words);
    ASSERT_NE(task.value.TryGet<std::string>(), nullptr);
    EXPECT_EQ(*task.value.TryGet<std::string>(), "5");
  }
}

TEST(Arguments, DataIsReadFromAFileOrStandardInput) {
  const auto structured = Parse<RecordData>({"structured", "type.example/a", "file"});
  EXPECT_EQ(structured.kind, DataKind::kStructured);
  EXPECT_EQ(structured.type_url, "type.example/a");
  EXPECT_EQ(structured.file, "file");
  const auto offline = Parse<RecordData>({"offline", "type.example/a"});
  EXPECT_EQ(offline.kind, DataKind::kOffline);
  EXPECT_EQ(offline.file, "-");
  EXPECT_EQ(Parse<RecordData>({"offline", "type.example/a", "-"}).file, "-");
}

TEST(Arguments, CheckConfigDefaultsToTheDaemonsFiles) {
  const auto usual = Parse<CheckConfiguration>({"check-config"});
  EXPECT_EQ(usual.file, "/etc/ap/pelmor.conf");
  EXPECT_EQ(usual.override_file, "/var/lib/ap/pelmor.override");
  const auto named = Parse<CheckConfiguration>({"check-config", "--config", "a", "--override=b"});
  EXPECT_EQ(named.file, "a");
  EXPECT_EQ(named.override_file, "b");
}

TEST(Arguments, WarningsCountAsFailuresIfAsked) {
  EXPECT_FALSE(Parse<CheckConfiguration>({"check-config"}).strict);
  EXPECT_TRUE(Parse<CheckConfiguration>({"check-config", "--strict"}).strict);
  EXPECT_FALSE(Parse<RunDoctor>({"doctor"}).strict);
  EXPECT_TRUE(Parse<RunDoctor>({"doctor", "--strict", "--json"}).strict);
}

TEST(Arguments, TheDoctorPrintsTextOrJson) {
  EXPECT_FALSE(Parse<RunDoctor>({"doctor"}).json);
  EXPECT_TRUE(Parse<RunDoctor>({"doctor", "--json"}).json);
}

TEST(Arguments, TheInstalledDaemonIsTheOneOfTheInstallation) {
  EXPECT_TRUE(Parse<ShowVersions>({"version"}).daemon_file.ends_with("/sbin/ap-pelmor"));
  EXPECT_EQ(Parse<ShowVersions>({"version", "--daemon", "a"}).daemon_file, "a");
}

TEST(Arguments, HelpAndVersionArePrinted) {
  EXPECT_EQ(Parse<ShowText>({"--help"}).text, ProgramUsage());
  EXPECT_EQ(Parse<ShowText>({"-h"}).text, ProgramUsage());
  EXPECT_EQ(Parse<ShowText>({"--version"}).text, VersionText());
  for (const char* const command : {"metric", "structured", "offline", "check-config", "doctor"}) {
    const std::string usage = Parse<ShowText>({command, "--help"}).text;
    EXPECT_TRUE(usage.starts_with(std::string("Usage: pelmorctl ") + command)) << usage;
    EXPECT_NE(ProgramUsage().find(std::string("  ") + command), std::string::npos) << command;
  }
}

TEST(Arguments, AMistakeIsReportedWithTheHelpToRead) {
  const struct {
    Words words;
    const char* reason;
  } kCases[] = {
      {{}, "no command; see 'pelmorctl --help'"},
      {{"metrics"}, "no command 'metrics'; see 'pelmorctl --help'"},
      {{"--verbose"}, "no command '--verbose'; see 'pelmorctl --help'"},
      {{"metric", "a"}, "metric: give a NAME and a VALUE; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "2"}, "metric: give a NAME and a VALUE; see 'pelmorctl metric --help'"},
      {{"metric", "", "1"}, "metric: the name is empty; see 'pelmorctl metric --help'"},
      {{"metric", "\xff", "1"},
       "metric: the name is not UTF-8 text that D-Bus can carry; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "--type", "float"},
       "metric: no type 'float'; the types are int64, double, bool and string; see 'pelmorctl "
       "metric --help'"},
      {{"metric", "a", "x", "--type", "bool"},
       "metric: 'x' is not a bool: give true or false; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "-l"}, "metric: '-l' needs a value; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "-l", "band"},
       "metric: 'band' is not a label: give KEY=VALUE; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "-l", "=5g"},
       "metric: '=5g' is not a label: give KEY=VALUE; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "-l", "b=1", "-l", "b=2"},
       "metric: the label 'b' is given twice; see 'pelmorctl metric --help'"},
      {{"metric", "--stream", "a"},
       "metric: --stream takes no other arguments; see 'pelmorctl metric --help'"},
      {{"metric", "--stream", "-l", "a=b"},
       "metric: --stream takes no other arguments; see 'pelmorctl metric --help'"},
      {{"metric", "a", "1", "-x"}, "metric: no option '-x'; see 'pelmorctl metric --help'"},
      {{"structured"},
       "structured: give a TYPE_URL, and at most one FILE; see 'pelmorctl structured --help'"},
      {{"offline", "a", "b", "c"},
       "offline: give a TYPE_URL, and at most one FILE; see 'pelmorctl offline --help'"},
      {{"check-config", "x"},
       "check-config: unexpected argument 'x'; see 'pelmorctl check-config --help'"},
      {{"doctor", "--json=yes"}, "doctor: no option '--json=yes'; see 'pelmorctl doctor --help'"},
      {{"doctor", "--config", "x"}, "doctor: no option '--config'; see 'pelmorctl doctor --help'"},
  };
  for (const auto& test : kCases) {
    const auto task = ParseArguments(test.words);
    ASSERT_FALSE(task) << test.reason;
    EXPECT_EQ(task.reason(), test.reason);
  }
}

}  // namespace
}  // namespace pelmorctl
