#include "pelmorctl/versions.h"

#include <sys/stat.h>

#include "ap/common/oauth2_manager.h"
#include "base/printable.h"
#include "pelmorctl/files.h"
#include "pelmorctl/usage.h"

namespace pelmorctl {

namespace {

// Precedes the identity in the file of a daemon (ap/pelmor/main.cc).
constexpr char kMark[] = "@(#)ap-pelmor ";
constexpr char kEndpoint[] = ", token endpoint ";
constexpr size_t kMaxProgramBytes = size_t{64} * 1024 * 1024;

std::string Line(const char* label, const std::string& text) {
  constexpr size_t kLabelWidth = 21;
  std::string line = label;
  line.resize(kLabelWidth, ' ');
  return line + base::Printable(text) + "\n";
}

std::string Describe(const std::string& path, const std::string& place) {
  const base::Result<std::string> identity = ReadIdentity(path);
  return identity ? *identity + " (" + place + ")" : place + ": " + identity.reason();
}

// False also if either can't be found.
bool AreDifferentFiles(const std::string& one, const std::string& other) {
  struct stat first {};
  struct stat second {};
  return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
         (first.st_dev != second.st_dev || first.st_ino != second.st_ino);
}

}  // namespace

base::Result<std::string> ReadIdentity(const std::string& path) {
  const FileText program = ReadInput(path, kMaxProgramBytes);
  if (!program) return base::Failure{program.reason()};
  const size_t mark = program->find(kMark);
  if (mark == std::string::npos) return base::Failure{"it does not state its version"};
  const size_t start = mark + sizeof(kMark) - 1;
  const std::string identity = program->substr(start, program->find('\0', start) - start);
  const size_t blank = identity.find(' ');
  if (blank == std::string::npos) return base::Failure{"it does not state its version"};
  return identity.substr(0, blank) + kEndpoint + identity.substr(blank + 1);
}

std::string DescribeVersions(const std::string& installed, std::optional<pid_t> running) {
  std::string text = Line("pelmorctl", Version() + kEndpoint + varelnos::ap::kTokenEndpointUrl) +
                     Line("installed ap-pelmor", Describe(installed, installed));
  if (!running) return text + Line("running ap-pelmor", "none is on the bus");
  const std::string process = std::to_string(*running);
  const std::string program = "/proc/" + process + "/exe";
  text += Line("running ap-pelmor", Describe(program, "process " + process));
  if (AreDifferentFiles(program, installed))
    text += "The running daemon is another file than the installed one: restart it to run that\n";
  return text;
}

}  // namespace pelmorctl
