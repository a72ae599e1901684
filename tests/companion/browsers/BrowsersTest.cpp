#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include "companion/browsers/BrowserPolicy.h"
#include "companion/browsers/BrowserProfiles.h"
#include "companion/browsers/InstalledBrowsers.h"
#include "companion/client/ExtensionBundle.h"
#include "support/TemporaryFolder.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;
using Outcome = PolicyChange::Outcome;

class Browsers : public ::testing::Test {
 protected:
  Browsers() { fs::create_directories(root + "/etc/opt"); }

  std::string write(const std::string& path, const std::string& text) {
    return folder_.write(path.substr(1), text).string();
  }
  std::string read(const std::string& path) { return folder_.read(path.substr(1)); }
  std::set<fs::path> tree() {
    std::set<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(root)) paths.insert(entry.path());
    return paths;
  }
  static Outcome outcomeOf(const std::vector<PolicyChange>& changes, const std::string& browser) {
    return std::find_if(changes.begin(), changes.end(), [&](auto& c) { return c.place->browser == browser; })->outcome;
  }
  static const PolicyPlace& placeOf(const std::string& browser) {
    auto places = policy_places();
    return *std::find_if(places.begin(), places.end(), [&](auto& place) { return place.browser == browser; });
  }

  const TemporaryFolder folder_;
  const std::string root = folder_.path().string();
};

TEST_F(Browsers, RemovesAllThatItInstalled) {
  write("/etc/chromium/master_preferences", "{}");
  fs::create_directories(root + "/var/lib/flatpak");
  const std::set<fs::path> before = tree();
  for (Outcome outcome : {Outcome::Done, Outcome::Nothing}) {
    for (const PolicyChange& change : install_policies(root)) {
      EXPECT_EQ(change.outcome, outcome) << change.place->browser << ": " << change.reason;
      const PolicyInForce policy = policy_in_force(*change.place, root);
      EXPECT_FALSE(policy.isForeign) << change.place->browser;
      for (HidingFeature feature : kHidingFeatures) {
        EXPECT_EQ(policy.features[feature].isOn == false, has_policy(change.place->family, feature));
      }
    }
  }
  remove_policies(root);
  EXPECT_EQ(tree(), before);
}

TEST_F(Browsers, InstallsPoliciesThatAllUsersCanReadUnderAnyUmask) {
  const mode_t mask = umask(077);
  install_policies(root);
  umask(mask);
  for (const auto& entry : fs::recursive_directory_iterator(root + "/etc/opt/chrome")) {
    struct stat status;
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, entry.is_directory() ? 0755U : 0644U) << entry.path();
  }
}

TEST_F(Browsers, LeavesFilesOfOthersUnchanged) {
  const std::string theirs = R"({"policies": {"DisableTelemetry": true}})";
  write("/etc/firefox/policies/policies.json", theirs);
  write("/etc/brave/policies/managed/orvane-se.json", policy_text(BrowserFamily::Chromium) + " ");
  write("/etc/opt/edge/policies/managed/theirs", "{}");
  fs::create_directories(root + "/etc/chromium/policies/managed");
  fs::create_symlink("/nowhere", root + "/etc/chromium/policies/managed/orvane-se.json");
  write("/etc/opt/chrome", "no folder");
  const auto installed = install_policies(root), removed = remove_policies(root);
  for (const char* browser : {"Firefox", "Brave", "Chromium"}) {
    EXPECT_EQ(outcomeOf(installed, browser), Outcome::Foreign) << browser;
    EXPECT_EQ(outcomeOf(removed, browser), Outcome::Foreign) << browser;
    EXPECT_TRUE(policy_in_force(placeOf(browser), root).isForeign) << browser;
  }
  EXPECT_EQ(outcomeOf(installed, "Google Chrome"), Outcome::Failed);
  EXPECT_EQ(outcomeOf(installed, "Firefox (Flatpak)"), Outcome::Nothing);
  EXPECT_FALSE(fs::exists(root + "/var")) << "folders of Flatpak, which is not installed";
  EXPECT_EQ(outcomeOf(installed, "Microsoft Edge"), Outcome::Done) << "the places after a failure";
  EXPECT_EQ(read("/etc/firefox/policies/policies.json"), theirs);
  EXPECT_TRUE(fs::is_symlink(root + "/etc/chromium/policies/managed/orvane-se.json"));
  EXPECT_EQ(read("/etc/opt/edge/policies/managed/theirs"), "{}");
  EXPECT_FALSE(fs::exists(root + "/etc/opt/edge/policies/managed/orvane-se.json"));
}

// Chromium reads every file in its policy folder; of several that set a policy, it uses the one whose name sorts last.
// A preference in Firefox's policy file must be locked, because users can change one that is not.
TEST_F(Browsers, ReadsPoliciesOfOthersAsBrowsersDo) {
  install_policies(root);
  write("/etc/chromium/policies/managed/zz", R"({"EncryptedClientHelloEnabled": true})");
  write("/etc/chromium/policies/managed/aa.json", "{ half");
  const PolicyInForce chromium = policy_in_force(placeOf("Chromium"), root);
  EXPECT_EQ(chromium.features[HidingFeature::EncryptedHello].isOn, true);
  EXPECT_EQ(chromium.features[HidingFeature::EncryptedHello].file, root + "/etc/chromium/policies/managed/zz");
  EXPECT_EQ(chromium.unreadable.size(), 1U);
  const std::pair<const char*, std::optional<bool>> cases[] = {{R"({"Value": false, "Status": "default"})", {}},
                                                               {R"({"Value": false, "Status": "locked"})", false},
                                                               {"false", false},
                                                               {"7", {}},
                                                               {"[]", {}}};
  for (const auto& [preference, isOn] : cases) {
    write(
        "/etc/firefox/policies/policies.json",
        R"({"policies": {"DisableEncryptedClientHello": true, "Preferences": {"network.http.http2.coalesce-hostnames": )" +
            std::string(preference) + "}}}");
    const PolicyInForce firefox = policy_in_force(placeOf("Firefox"), root);
    EXPECT_EQ(firefox.features[HidingFeature::SharedConnections].isOn, isOn) << preference;
    EXPECT_EQ(firefox.features[HidingFeature::EncryptedHello].isOn, false);
  }
}

TEST_F(Browsers, IdentifiesInstalledBrowsersAsTheExtensionDoes) {
  auto program = [&](const std::string& path, const std::string& text) {
    fs::permissions(write(path, text), fs::perms::owner_all);
    return root + path;
  };
  auto entry = [&](const std::string& path, const std::string& name, const std::string& rest) {
    write(path, "[Desktop Entry]\nType=Application\nName=" + name + "\n" + rest + "\n");
  };
  const std::string web = "\nCategories=Network;WebBrowser;";
  program("/bin/python3.11", "");
  program("/bin/chromium", "#!/bin/sh\n");
  program("/bin/qute", "#!/usr/bin/env python3.11\n");
  entry("/apps/chromium.desktop", "Chromium", "Exec=chromium %U" + web);
  entry("/apps/script.desktop", "Script", "Exec=qute" + web);
  entry("/apps/flat.desktop", "Flat", "Exec=flatpak run x\nX-Flatpak=org.mozilla.firefox" + web);
  entry("/apps/other.desktop", "Ungoogled",
        "Exec=flatpak run x\nX-Flatpak=io.github.ungoogled_software.ungoogled_chromium" + web);
  entry("/apps/snap.desktop", "Snap", "Exec=env A=b /snap/bin/chromium %U" + web);
  entry("/apps/gone.desktop", "Gone", "Exec=/nowhere/browser" + web);
  entry("/apps/editor.desktop", "Editor", "Exec=chromium\nCategories=WebBrowserless;");
  entry("/own/unpacked.desktop", "Unpacked", "Exec=\"" + program("/home/firefox-bin", "ELF") + "\"" + web);
  ApplicationFolders folders;
  folders.entries = {root + "/apps"};
  folders.programs = {root + "/bin"};
  std::string found;
  for (const InstalledBrowser& browser : installed_browsers(folders, {root + "/own"})) {
    found += browser.name + "=" + browser.identifier + (browser.place ? " " + browser.place->browser : "") + "\n";
  }
  EXPECT_EQ(found,
            "Chromium=chromium Chromium\n"
            "Flat=org.mozilla.firefox Firefox (Flatpak)\n"
            "Gone=\n"
            "Script=python3.11\n"
            "Ungoogled=io.github.ungoogled_software.ungoogled_chromium\n"
            "Unpacked=firefox-bin Firefox\n");
}

TEST_F(Browsers, ReadsTheBrowserListAsTheExtensionDoes) {
  auto list = [&](const std::string& text) {
    write("/b/Contents/Resources/Browsers.plist", text);
    return read_browser_list(root + "/b" + kBrowserListInBundle);
  };
  auto array = [](const std::string& elements) {
    return "<plist version=\"1.0\"><array>" + elements + "</array></plist>";
  };
  const BrowserList good = list(array("<string>firefox</string><string/><integer>7</integer>"));
  EXPECT_EQ(good.fault, "");
  EXPECT_TRUE(good.recognises("org.mozilla.firefox"));
  EXPECT_FALSE(good.recognises("firefox-esr"));
  EXPECT_EQ(list(array("<string>firefox</string>") + std::string(1024, ' ')).fault, "");
  const std::string tooLong = array("<string>firefox</string>" + std::string(1024, ' '));
  for (const std::string& bad :
       {tooLong, array("<string/>"), std::string("firefox\n"), std::string("<plist><dict/></plist>")}) {
    EXPECT_NE(list(bad).fault, "") << bad.substr(0, 80);
  }
  EXPECT_NE(read_browser_list(root + "/none").fault, "");
  std::filesystem::create_symlink("/etc/none.plist", root + "/broken");
  EXPECT_EQ(read_browser_list(root + "/broken").path, "/etc/none.plist") << "the file that is missing";
}

TEST_F(Browsers, KnowTheSettingsOfTheExtension) {
  for (const std::string setting : {"pass", "judge"}) {
    write("/b/Contents/Info.plist",
          "<plist version=\"1.0\"><dict><key>NetworkExtension</key><dict><key>OrvaneHTTP3</key>"
          "<string>" +
              setting + "</string></dict></dict></plist>");
    EXPECT_EQ(extension_setting(root + "/b", "OrvaneHTTP3"), Value::string(setting));
  }
  EXPECT_TRUE(extension_setting(root + "/none", "OrvaneHTTP3").isNil());
}

TEST(BrowserProfiles, ReadSettingsAsBrowsersWriteThem) {
  auto text = [](const BrowserProfile& profile) {
    std::string states;
    for (HidingFeature feature : kHidingFeatures) {
      const std::optional<bool> isOn = profile.features[feature];
      states += !isOn ? "? " : *isOn ? "on " : "off ";
    }
    return states;
  };
  EXPECT_EQ(text(parse_firefox_preferences("// Mozilla\nuser_pref(\"network.dns.echconfig.enabled\", true);\n"
                                           "user_pref(\"network.http.http2.coalesce-hostnames\", true);\n"
                                           "user_pref(\"network.http.http2.coalesce-hostnames\", false);\n")),
            "on off ");
  EXPECT_EQ(text(parse_firefox_preferences("//user_pref(\"network.http.http2.coalesce-hostnames\", false);\n"
                                           "user_pref(\"network.dns.echconfig.enabled\"")),
            "? ? ");
}

}  // namespace
}  // namespace orvane
