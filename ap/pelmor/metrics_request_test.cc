#include "ap/pelmor/metrics_request.h"

#include <gtest/gtest.h>

#include <string>

#include "ap/pelmor/wire_time.h"
#include "base/json.h"

namespace varelnos::ap {
namespace {

constexpr base::Time At(int64_t seconds) { return base::Time::FromTimeT(seconds); }

std::string Built(const PointsByName& points, base::Time start_time = At(1700000000)) {
  std::string text;
  base::JSONWriter::Write(BuildMetricsRequest(points, start_time), &text);
  return text;
}

TEST(BuildMetricsRequest, GivesEachNameItsPointsAndEachPointItsOwnLabels) {
  const MetricPoint first{"ap/radio/utilization", {{"band", "5g"}}, 0.25, At(1700000300)};
  const MetricPoint second{"ap/clients", {}, int32_t{12}, At(1700000310)};
  const MetricPoint third{"ap/radio/utilization", {{"band", "2g"}}, 0.5, At(1700000320)};
  EXPECT_EQ(Built({{"ap/radio/utilization", {&first, &third}}, {"ap/clients", {&second}}}),
            R"({"metricPoints":[)"
            R"({"metricName":"ap/clients","points":[)"
            R"({"endTime":{"seconds":1700000310},"int64Value":"12","labels":{},)"
            R"("startTime":{"seconds":1700000000}}]},)"
            R"({"metricName":"ap/radio/utilization","points":[)"
            R"({"doubleValue":0.25,"endTime":{"seconds":1700000300},"labels":{"band":"5g"},)"
            R"("startTime":{"seconds":1700000000}},)"
            R"({"doubleValue":0.5,"endTime":{"seconds":1700000320},"labels":{"band":"2g"},)"
            R"("startTime":{"seconds":1700000000}}]}]})");
}

TEST(BuildMetricsRequest, SendsALabelKeyWithDotsUnchanged) {
  const MetricPoint point{"m", {{"radio.0", "a.b"}, {"", "empty"}}, true, At(1)};
  EXPECT_EQ(Built({{"m", {&point}}}, At(1)),
            R"({"metricPoints":[{"metricName":"m","points":[)"
            R"({"boolValue":true,"endTime":{"seconds":1},"labels":{"":"empty","radio.0":"a.b"},)"
            R"("startTime":{"seconds":1}}]}]})");
}

TEST(BuildMetricsRequest, WritesTheMembersOfAPointInByteOrderWithAnyValue) {
  constexpr char kBefore[] = R"({"metricPoints":[{"metricName":"m","points":[{)";
  constexpr char kEnd[] = R"("endTime":{"seconds":2})";
  constexpr char kOthers[] = R"("labels":{},"startTime":{"seconds":1})";
  const struct {
    kestle::Any value;
    std::string members;
  } kCases[] = {{true, std::string(R"("boolValue":true,)") + kEnd + "," + kOthers},
                {0.5, std::string(R"("doubleValue":0.5,)") + kEnd + "," + kOthers},
                {int64_t{-7}, std::string(kEnd) + R"(,"int64Value":"-7",)" + kOthers},
                {std::string("up"), std::string(kEnd) + "," + kOthers + R"(,"stringValue":"up")"},
                {static_cast<const char*>("up"),
                 std::string(kEnd) + "," + kOthers + R"(,"stringValue":"up")"}};
  for (const auto& test : kCases) {
    const MetricPoint point{"m", {}, test.value, At(2)};
    EXPECT_EQ(Built({{"m", {&point}}}, At(1)), kBefore + test.members + "}]}]}");
  }
}

TEST(BuildMetricsRequest, SendsAMetricNameWithDotsUnchanged) {
  const MetricPoint point{"a.b", {}, true, At(1)};
  EXPECT_NE(Built({{"a.b", {&point}}}).find(R"("metricName":"a.b")"), std::string::npos);
}

TEST(BuildMetricsRequest, TruncatesTimesToSeconds) {
  const MetricPoint point{"m", {}, true, base::Time::FromInternalValue(1'999'999)};
  const std::string body = Built({{"m", {&point}}}, base::Time::FromInternalValue(999'999));
  EXPECT_NE(body.find(R"("endTime":{"seconds":1})"), std::string::npos);
  EXPECT_NE(body.find(R"("startTime":{"seconds":0})"), std::string::npos);
}

TEST(BuildMetricsRequest, SendsAnEndBeforeTheStartUnchanged) {
  const MetricPoint point{"m", {}, true, At(1600000000)};
  const std::string body = Built({{"m", {&point}}});
  EXPECT_NE(body.find(R"("endTime":{"seconds":1600000000})"), std::string::npos);
  EXPECT_NE(body.find(R"("startTime":{"seconds":1700000000})"), std::string::npos);
}

TEST(WireSeconds, StaysWithin32SignedBits) {
  EXPECT_EQ(WireSeconds(At(INT32_MAX)), INT32_MAX);
  EXPECT_EQ(WireSeconds(At(int64_t{INT32_MAX} + 1)), INT32_MAX);
  EXPECT_EQ(WireSeconds(At(int64_t{INT32_MIN} - 1)), INT32_MIN);
}

}  // namespace
}  // namespace varelnos::ap
