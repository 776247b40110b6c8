#include "pelmorctl/status.h"

#include <array>
#include <ctime>

namespace pelmorctl {

namespace {

struct Row {
  const char* key;
  const char* label;
};
constexpr Row kCountRows[] = {{"recorded", "recorded"},
                              {"accepted", "accepted"},
                              {"pending", "pending"},
                              {"in_flight", "in flight"},
                              {"no_token", "dropped: no token"},
                              {"no_network_time", "dropped: no network time"},
                              {"too_old", "dropped: too old"},
                              {"over_limit", "dropped: over the limit"},
                              {"rejected", "dropped: rejected"},
                              {"pushed_out", "dropped: pushed out"}};
constexpr Row kGateRows[] = {{"refresh_token", "refresh token"},
                             {"access_token", "access token"},
                             {"network_time", "network time"},
                             {"registered", "registered"}};
constexpr Row kResponseRows[] = {
    {"metrics", "last metrics"}, {"log", "last log"}, {"token", "last token"}};

constexpr size_t kLabelWidth = 26;
constexpr size_t kCountWidth = 12;

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string Line(const std::string& label, const std::string& value) {
  return Padded(label, kLabelWidth) + value + "\n";
}

std::string Count(const DaemonStatus& status, const std::string& section, const std::string& key) {
  const std::string count = status.Text(section, key);
  return std::string(kCountWidth > count.size() ? kCountWidth - count.size() : 0, ' ') + count;
}

std::string LastResponse(const DaemonStatus& status, const std::string& section) {
  if (!status.Has(section)) return "none yet";
  const std::string code = status.Text(section, "status");
  const std::string error = status.Text(section, "error");
  return (code.empty() ? "no response" : "HTTP " + code) + " at " +
         FormatTime(status.Number(section, "time")) + (error.empty() ? "" : ": " + error);
}

std::string Ticks(const DaemonStatus& status) {
  const std::string last = status.Text("ticks", "time");
  return status.Text("ticks", "count") +
         (last.empty() ? "" : ", the last at " + FormatTime(status.Number("ticks", "time")));
}

// The grammar lets a quoted value contain nothing that JSON escapes.
std::string JsonValue(const std::string& value) {
  if (value == "yes") return "true";
  if (value == "no") return "false";
  const char first = value.front();
  const bool is_json = first == '"' || first == '-' || (first >= '0' && first <= '9');
  return is_json ? value : "\"" + value + "\"";
}

}  // namespace

std::string FormatTime(int64_t seconds_since_epoch) {
  const auto seconds = static_cast<time_t>(seconds_since_epoch);
  tm parts{};
  std::array<char, 64> text{};
  if (!gmtime_r(&seconds, &parts) ||
      strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
    return "an unknown time";
  return text.data();
}

std::string FormatStatusTable(const DaemonStatus& status) {
  std::string text = Padded("", kLabelWidth) + "      points        logs\n";
  for (const Row& row : kCountRows)
    text += Line(row.label, Count(status, "points", row.key) + Count(status, "logs", row.key));
  text += "\n";
  for (const Row& row : kGateRows) text += Line(row.label, status.Text("gates", row.key));
  text += Line("ticks", Ticks(status)) + "\n";
  for (const Row& row : kResponseRows) text += Line(row.label, LastResponse(status, row.key));
  return text;
}

std::string FormatStatusAsJson(const DaemonStatus& status) {
  std::string text;
  for (const StatusSection& section : status.sections()) {
    std::string members;
    for (const auto& [key, value] : section.items)
      members += (members.empty() ? "\"" : ",\"") + key + "\":" + JsonValue(value);
    text += (text.empty() ? "{\"" : ",\"") + section.name + "\":{" + members + "}";
  }
  return text + "}\n";
}

}  // namespace pelmorctl
