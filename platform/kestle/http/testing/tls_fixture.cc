#include "kestle/http/testing/tls_fixture.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/scoped_fd.h"

namespace kestle::http {

namespace {

namespace fs = std::filesystem;

std::string MakeFolder() {
  std::string pattern = (fs::temp_directory_path() / "tls.XXXXXX").string();
  return mkdtemp(pattern.data());
}

// Runs a shell command and returns its output; fails the test if the command fails.
std::string Run(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  char chunk[4096];
  while (const size_t count = fread(chunk, 1, sizeof(chunk), pipe)) output.append(chunk, count);
  EXPECT_EQ(pclose(pipe), 0) << command << "\n" << output;
  return output;
}

// Two CAs, certificates from the first, and a system-wide OpenSSL configuration that allows old
// TLS, in a folder that is removed at the end of the test program.
class Certificates {
 public:
  static const Certificates& Get() {
    static const Certificates certificates;
    return certificates;
  }
  ~Certificates() { fs::remove_all(folder_); }

  [[nodiscard]] std::string Path(const std::string& file) const { return folder_ + "/" + file; }

 private:
  Certificates() {
    MakeCa("ca");
    MakeCa("spare");
    WriteCaConfiguration();
    Issue("good", "IP:127.0.0.1,DNS:localhost", "-days 2");
    Issue("other", "IP:127.0.0.2,DNS:other.example", "-days 2");
    Issue("expired", "IP:127.0.0.1", "-startdate 20240101000000Z -enddate 20240102000000Z");
    Issue("staple", "IP:127.0.0.1 -addext tlsfeature=status_request", "-days 2");
    OpenSsl("req -x509 -days 2 " + NewKey("self") +
            " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1");
    std::ofstream(Path("lax.cnf")) << "openssl_conf = conf\n[conf]\nssl_conf = ssl\n"
                                      "[ssl]\nsystem_default = lax\n"
                                      "[lax]\nMinProtocol = TLSv1\n"
                                      "CipherString = DEFAULT@SECLEVEL=0\n";
  }
  [[nodiscard]] std::string NewKey(const std::string& name) const {
    return "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + Path(name + ".key") +
           " -out " + Path(name + ".pem");
  }
  void MakeCa(const std::string& name) const {
    OpenSsl("req -x509 -days 2 " + NewKey(name) + " -subj '/CN=Test CA " + name +
            "' -addext basicConstraints=critical,CA:TRUE");
  }
  void Issue(const std::string& name, const std::string& names, const std::string& validity) const {
    OpenSsl("req " + NewKey(name) + " -subj /CN=server -addext subjectAltName=" + names);
    OpenSsl("ca -batch -notext -config " + Path("ca.cnf") + " -in " + Path(name + ".pem") +
            " -out " + Path(name + ".pem") + " " + validity);
  }
  // In some versions of OpenSSL only the command `ca` issues expired certificates.
  void WriteCaConfiguration() const {
    std::ofstream(Path("ca.db")).flush();
    std::ofstream(Path("ca.cnf"))
        << "[ca]\ndefault_ca = test\n"
        << "[test]\ncertificate = " << Path("ca.pem") << "\nprivate_key = " << Path("ca.key")
        << "\ndatabase = " << Path("ca.db") << "\nnew_certs_dir = " << folder_
        << "\ndefault_md = sha256\npolicy = names\nunique_subject = no\nrand_serial = yes\n"
        << "copy_extensions = copy\n[names]\ncommonName = supplied\n";
  }
  static void OpenSsl(const std::string& arguments) { Run("openssl " + arguments + " 2>&1"); }

  const std::string folder_ = MakeFolder();
};

}  // namespace

std::string CertificatePath(const std::string& file) { return Certificates::Get().Path(file); }

TlsFront::TlsFront(const ScriptedServer& server, const std::string& certificate,
                   const std::string& option) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const base::ScopedFd read_end(ends[0]);
  {
    const base::ScopedFd write_end(ends[1]);
    Start(write_end.get(), std::to_string(server.port()), certificate, option);
  }
  FILE* const output = fdopen(dup(read_end.get()), "r");
  EXPECT_EQ(fscanf(output, "%d", &port_), 1) << "the TLS front did not start";
  fclose(output);
}

TlsFront::~TlsFront() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void TlsFront::Start(int output, const std::string& port, const std::string& certificate,
                     const std::string& option) {
  const std::string pem = CertificatePath(certificate + ".pem");
  const std::string key = CertificatePath(certificate + ".key");
  pid_ = fork();
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(output, STDOUT_FILENO);
  // Hides Python's warnings about old versions of TLS.
  execlp("python3", "python3", "-Wignore", TLS_FRONT, port.c_str(), pem.c_str(), key.c_str(),
         option.c_str(), nullptr);
  _exit(127);
}

SystemCas::SystemCas(Layout layout) : layout_(layout), folder_(MakeFolder()) {
  Run(SetCommand({"ca", "spare"}, folder_));
}

SystemCas::~SystemCas() { fs::remove_all(folder_); }

std::string SystemCas::Probe(const std::vector<std::string>& steps) const {
  // The lax OpenSSL configuration ensures that the transport is what rejects.
  std::string command = "OPENSSL_CONF=" + CertificatePath("lax.cnf") +
                        " bwrap --dev-bind / / --bind " + folder_ + " /etc/ssl/certs " POST_PROBE;
  for (const std::string& step : steps) command.append(" '").append(step) += '\'';
  return Run(command);
}

std::string SystemCas::SetTo(const std::vector<std::string>& names) const {
  return "!" + SetCommand(names, "/etc/ssl/certs");
}

std::string SystemCas::SetCommand(const std::vector<std::string>& names,
                                  const std::string& folder) const {
  std::string files;
  for (const std::string& name : names) files += " " + CertificatePath(name + ".pem");
  // In one step, which changes both the folder and the bundle.
  std::string command = "cat" + files + " >" + folder + "/new && mv " + folder + "/new " + folder +
                        "/ca-certificates.crt";
  if (layout_ == Layout::kFolder)
    command +=
        " && cd " + folder + " && rm -f *.pem && cp" + files + " . && openssl rehash . 2>/dev/null";
  return command;
}

}  // namespace kestle::http
