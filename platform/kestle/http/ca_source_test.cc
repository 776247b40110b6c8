#include "kestle/http/ca_source.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

#include "base/testing/fake_clock.h"
#include "base/testing/scoped_root.h"

namespace kestle::http {
namespace {

// In the form of a certificate: the text is compared, not read.
std::string Certificate(const std::string& text) {
  return "-----BEGIN CERTIFICATE-----\n" + text + "\n-----END CERTIFICATE-----\n";
}

class CaSourceTest : public testing::Test {
 protected:
  CaSourceTest() {
    SetBundle(Certificate("one") + Certificate("two"));
    root_.Put("/ca/one.pem", Certificate("one"));
    root_.Put("/ca/two.pem", Certificate("two"));
    Link("one.pem", "0011aaff.0");
    Link("two.pem", "98765432.0");
  }
  void SetBundle(const std::string& text) { root_.Put("/ca/bundle.crt", text); }
  void Link(const std::string& target, const std::string& name) {
    EXPECT_EQ(symlink(target.c_str(), root_.Real("/ca/" + name).c_str()), 0);
  }
  [[nodiscard]] CaSource Source() const {
    return {root_.Real("/ca/bundle.crt"), root_.Real("/ca"), true};
  }
  [[nodiscard]] bool UsesFolder() const { return Source().UsesFolder(); }

  const base::ScopedRoot root_;
};

TEST_F(CaSourceTest, UsesAFolderWithTheCertificatesOfTheBundle) { EXPECT_TRUE(UsesFolder()); }

TEST_F(CaSourceTest, OrderRepetitionAndTextAroundCertificatesDoNotMatter) {
  SetBundle("# Two\r\n" + Certificate("two") + "\nOne:\n" + Certificate("one") +
            Certificate("two") + "end");
  EXPECT_TRUE(UsesFolder());
}

TEST_F(CaSourceTest, AFileMayLackTheEndOfItsLastLine) {
  root_.Put("/ca/one.pem", "-----BEGIN CERTIFICATE-----\r\none\r\n-----END CERTIFICATE-----");
  EXPECT_TRUE(UsesFolder());
}

TEST_F(CaSourceTest, SeveralCertificatesMayHaveTheSameHash) {
  SetBundle(Certificate("one") + Certificate("two") + Certificate("three"));
  root_.Put("/ca/three.pem", Certificate("three"));
  Link("three.pem", "98765432.1");
  EXPECT_TRUE(UsesFolder());
}

TEST_F(CaSourceTest, OtherNamesAreIgnored) {
  root_.Put("/ca/three.pem", Certificate("three"));
  for (const char* name : {"98765432.r0", "98765432.", "98765432.0x", "9876543.0", "987654321.0",
                           "9876543A.0", "98765432-0"})
    Link("three.pem", name);
  EXPECT_TRUE(UsesFolder());
}

TEST_F(CaSourceTest, WithoutLinksTheBundleIsUsed) {
  root_.Remove("/ca/0011aaff.0");
  root_.Remove("/ca/98765432.0");
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, WithoutAFolderTheBundleIsUsed) {
  EXPECT_FALSE(CaSource(root_.Real("/ca/bundle.crt"), "", true).UsesFolder());
  EXPECT_FALSE(CaSource(root_.Real("/ca/bundle.crt"), root_.Real("/none"), true).UsesFolder());
}

TEST_F(CaSourceTest, IfTheWholeFolderWouldBeReadTheBundleIsUsed) {
  CaSource source(root_.Real("/ca/bundle.crt"), root_.Real("/ca"), false);
  EXPECT_FALSE(source.UsesFolder());
}

TEST_F(CaSourceTest, ChangesOfAFolderAreNoticedWithoutABundle) {
  CaSource source("", root_.Real("/ca"), false);
  EXPECT_FALSE(source.UsesFolder());
  Link("one.pem", "00000000.0");
  EXPECT_TRUE(source.IsOutdated());
}

TEST_F(CaSourceTest, WithoutABundleTheFolderIsNotUsed) {
  EXPECT_FALSE(CaSource("", root_.Real("/ca"), true).UsesFolder());
  SetBundle("");
  EXPECT_FALSE(UsesFolder());
  root_.Remove("/ca/bundle.crt");
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, ACertificateOfTheBundleWithoutALinkRulesOutTheFolder) {
  root_.Remove("/ca/98765432.0");
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, ALinkedCertificateThatIsNotInTheBundleRulesOutTheFolder) {
  SetBundle(Certificate("one"));
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, EqualNumbersOfDifferentCertificatesRuleOutTheFolder) {
  SetBundle(Certificate("one") + Certificate("three"));
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, ALinkThatLeadsNowhereRulesOutTheFolder) {
  Link("none.pem", "00000000.0");
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, ALinkToSeveralCertificatesRulesOutTheFolder) {
  Link("bundle.crt", "00000000.0");
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, ALinkToAPipeRulesOutTheFolderWithoutBlocking) {
  EXPECT_EQ(mkfifo(root_.Real("/ca/pipe").c_str(), S_IRWXU), 0);
  Link("pipe", "00000000.0");
  EXPECT_FALSE(UsesFolder());
}

TEST_F(CaSourceTest, ARejectedFolderIsNotUsed) {
  CaSource source = Source();
  EXPECT_TRUE(source.UsesFolder());
  source.RejectFolder();
  EXPECT_FALSE(source.UsesFolder());
  EXPECT_FALSE(source.IsOutdated());
}

TEST_F(CaSourceTest, IsOutdatedAfterAnyChange) {
  const auto edit_bundle = [this] { SetBundle(Certificate("one")); };
  const auto add_link = [this] { Link("one.pem", "00000000.0"); };
  const auto remove_bundle = [this] { root_.Remove("/ca/bundle.crt"); };
  const auto remove_folder = [this] { root_.Remove("/ca"); };
  const auto create_folder = [this] { root_.MakeFolder("/ca"); };
  const auto replace_bundle = [this] {
    root_.Put("/ca/new", Certificate("two"));
    EXPECT_EQ(rename(root_.Real("/ca/new").c_str(), root_.Real("/ca/bundle.crt").c_str()), 0);
  };
  const std::function<void()> changes[] = {edit_bundle,   add_link,      remove_bundle,
                                           remove_folder, create_folder, replace_bundle};
  for (const auto& change : changes) {
    CaSource source = Source();
    EXPECT_FALSE(source.IsOutdated()) << "before it has read anything";
    (void)source.UsesFolder();
    EXPECT_FALSE(source.IsOutdated());
    change();
    EXPECT_TRUE(source.IsOutdated());
  }
}

TEST_F(CaSourceTest, IsOutdatedAfterAnHour) {
  base::FakeClock clock(base::Time::FromTimeT(1));
  CaSource source = Source();
  EXPECT_TRUE(source.UsesFolder());
  clock.Advance(base::TimeDelta::FromMinutes(59));
  EXPECT_FALSE(source.IsOutdated());
  clock.Advance(base::TimeDelta::FromMinutes(1));
  EXPECT_TRUE(source.IsOutdated());
}

}  // namespace
}  // namespace kestle::http
