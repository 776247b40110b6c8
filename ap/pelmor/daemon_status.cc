#include "ap/pelmor/daemon_status.h"

namespace varelnos::ap {

namespace {

// By `DropReason`.
constexpr const char* kReasonKeys[kDropReasonCount] = {
    "no_token", "no_network_time", "too_old", "over_limit", "rejected", "pushed_out"};

std::string Item(const char* key, uint64_t value) {
  return std::string(" ") + key + "=" + std::to_string(value);
}

std::string Item(const char* key, const char* word) { return std::string(" ") + key + "=" + word; }

// Empty for a null time.
std::string Item(const char* key, base::Time time) {
  return time.is_null() ? "" : std::string(" ") + key + "=" + std::to_string(time.ToTimeT());
}

const char* YesOrNo(bool yes) { return yes ? "yes" : "no"; }

const char* Word(Registration registration) {
  if (registration == Registration::kUnknown) return "unknown";
  return YesOrNo(registration == Registration::kRegistered);
}

// In quotes, with "?" for quotes, backslashes and characters that are not printable ASCII.
std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text.substr(0, kMaxStatusErrorBytes))
    quoted += c >= ' ' && c <= '~' && c != '"' && c != '\\' ? c : '?';
  return quoted + "\"";
}

std::string Section(const char* name, const RecordCounts& counts) {
  std::string section = name;
  section += Item("recorded", counts.recorded) + Item("accepted", counts.accepted) +
             Item("pending", counts.pending) + Item("in_flight", counts.in_flight);
  for (size_t reason = 0; reason < kDropReasonCount; ++reason)
    section += Item(kReasonKeys[reason], counts.dropped[reason]);
  return section + Item("dropped_at", counts.dropped_at);
}

// With a leading separator; empty before the first response.
std::string Section(const char* name, const LastResponse& response) {
  if (response.time.is_null()) return "";
  std::string section = std::string("; ") + name + Item("time", response.time);
  if (response.status != 0) section += Item("status", static_cast<uint64_t>(response.status));
  if (!response.error.empty()) section += Item("error", Quoted(response.error).c_str());
  return section;
}

}  // namespace

std::string FormatStatus(const DaemonStatus& status) {
  std::string line =
      Section("points", status.upload.points) + "; " + Section("logs", status.upload.logs);
  line += "; gates" + Item("refresh_token", YesOrNo(status.refresh_token)) +
          Item("access_token", YesOrNo(status.access_token)) +
          Item("network_time", YesOrNo(status.network_time)) +
          Item("registered", Word(status.upload.registration));
  line += "; ticks" + Item("count", status.tick_count) + Item("time", status.last_tick);
  return line + Section("metrics", status.upload.metrics) + Section("log", status.upload.log) +
         Section("token", status.token);
}

}  // namespace varelnos::ap
