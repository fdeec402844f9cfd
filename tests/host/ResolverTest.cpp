#include <gtest/gtest.h>

#include "host/ApplicationResolver.h"
#include "host/Suggestions.h"
#include "host/Support.h"

namespace tandor::host::test {
namespace {

/// A machine's applications in a temporary tree.
class ResolverTest : public testing::Test {
 protected:
  ResolverTest() {
    program("usr/bin/curl");
    program("usr/sbin/mtr");
    program("opt/browser/browser");
    program("usr/bin/python3.11");
    root_.link("usr/bin/python3", "python3.11");
    root_.link("usr/bin/browse", "../../opt/browser/browser");
    root_.write("usr/bin/sh",
                "\x7f"
                "ELF",
                true);
    root_.write("usr/bin/wrapper", "#!" + (root_ / "usr/bin/sh") + "\nexec browser", true);
    root_.write("usr/bin/tool", "#!/usr/bin/env -S LANG=C python3 -u\n", true);
    root_.write("usr/bin/tool-of-tool", "#! " + (root_ / "usr/bin/tool") + "\n", true);
    root_.write("usr/bin/orphan", "#!/usr/bin/env perl5\n", true);
    root_.write("usr/bin/loop", "#!" + (root_ / "usr/bin/loop") + "\n", true);
    root_.write("usr/bin/readme", "no program");
    program("flatpak/app/org.example.Player/current/files/player");
    root_.write("flatpak/exports/bin/org.example.Player", "#!/bin/sh\n", true);
    program("snap/chat/12/bin/chat");
    root_.write("snap/bin/chat", "launcher", true);
    root_.link("snap/bin/chat.daemon", "/proc/self/exe");
    entry("browser", "Name=Browser\nName[de]=Netzbetrachter\nExec=env A=b \"" +
                         (root_ / "opt/browser/browser") + "\" --new %u");
    entry("player", "Name=Player\nExec=/usr/bin/flatpak run --branch=stable org.example.Player");
    entry("kde/chat", "Name=Plauderei\nX-SnapInstanceName=chat\nExec=env BAMF=1 /snap/bin/chat");
    entry("one", "Name=Editor\nExec=curl");
    entry("two", "Name=editor\nExec=mtr");
    entry("same", "Name=browser\nExec=browse");
    entry("gone", "Name=Gone\nExec=vanished %f");
    entry("hidden", "Name=Hidden\nHidden=true\nExec=curl");
    entry("action", "Name=Action\nExec=curl\n[Desktop Action other]\nName=Other\nExec=mtr");
  }

  void program(std::string_view name) const {
    root_.write(name,
                "\x7f"
                "ELF",
                true);
  }
  void entry(std::string_view id, const std::string& text) const {
    root_.write("usr/share/applications/" + std::string(id) + ".desktop",
                "# an entry\n[Desktop Entry]\nType=Application\n" + text + "\n");
  }

  [[nodiscard]] std::expected<ResolvedApplication, Failure> resolve(std::string_view name) const {
    return ApplicationResolver({.workingFolder = root_.path() / "usr",
                                .commands = {root_ / "usr/bin", root_ / "usr/sbin"},
                                .desktopFiles = {root_ / "usr/share/applications"},
                                .flatpaks = {root_ / "flatpak/app"},
                                .snaps = {root_ / "snap"}})
        .resolve(name);
  }

  const TemporaryFolder root_;
};

TEST_F(ResolverTest, FindsWhatPeopleName) {
  const std::string browser = root_ / "opt/browser/browser";
  const struct {
    std::string name;
    std::string identifier;
  } cases[] = {
      {"curl", root_ / "usr/bin/curl"},
      {"mtr", root_ / "usr/sbin/mtr"},
      {root_ / "usr/bin/curl", root_ / "usr/bin/curl"},
      {"bin/../bin/curl", root_ / "usr/bin/curl"},
      {"browse", browser},
      {"python3", root_ / "usr/bin/python3.11"},
      {"org.example.Player", "org.example.Player"},
      {root_ / "flatpak/exports/bin/org.example.Player", "org.example.Player"},
      {"player.desktop", "org.example.Player"},
      {"Player", "org.example.Player"},
      {"chat", "snap.chat"},
      {"snap.chat", "snap.chat"},
      {root_ / "snap/bin/chat.daemon", "snap.chat"},
      {root_ / "snap/chat/12/bin/chat", "snap.chat"},
      {"kde-chat", "snap.chat"},
      {"plauderei", "snap.chat"},
      {"Netzbetrachter", browser},
      {"Browser", browser},  // two entries, one program
      {"action", root_ / "usr/bin/curl"},
      {"id:anything at all", "anything at all"},
      {"/snap/none/1/none", ""},
  };
  for (const auto& [name, identifier] : cases) {
    const auto resolved = resolve(name);
    EXPECT_EQ(resolved ? resolved->identifier : "", identifier) << name;
    if (!resolved) continue;
    EXPECT_EQ(resolved->warning, "") << name;
    EXPECT_EQ(resolved->name, name.starts_with("id:") ? identifier : name);
  }
}

TEST_F(ResolverTest, ResolvesScriptsToTheirInterpretersWithAWarning) {
  const struct {
    std::string name;
    std::string identifier;
    std::string_view warning;
  } cases[] = {
      {"tool", root_ / "usr/bin/python3.11", "every script of it is meant"},
      {"tool-of-tool", root_ / "usr/bin/python3.11", "every script of it is meant"},
      {"wrapper", root_ / "usr/bin/sh", "Most such scripts only start another program"},
  };
  for (const auto& [name, identifier, warning] : cases) {
    const auto resolved = resolve(name);
    ASSERT_TRUE(resolved.has_value()) << name;
    EXPECT_EQ(resolved->identifier, identifier);
    EXPECT_TRUE(resolved->warning.contains(warning)) << resolved->warning;
  }
  EXPECT_TRUE(resolve("loop").has_value());  // it ends
}

TEST_F(ResolverTest, SaysWhyNothingWasFoundAndWhatMayHaveBeenMeant) {
  const struct {
    std::string name;
    std::string_view message;
    std::string_view advice;
  } cases[] = {
      {"crul", "there is no application \"crul\"", "did you mean curl"},
      {"org.example.Plaer", "there is no application", "did you mean org.example.Player?"},
      {"netzbetrachte", "there is no application", "did you mean Netzbetrachter?"},
      {"/opt/borwser", "there is no application \"/opt/borwser\"", "Browser"},
      {"qqqqqqqqqq", "there is no application", "`tandor apps`"},
      {"", "there is no application \"\"", ""},
      {"..", "there is no application", ""},
      {"Hidden", "there is no application", ""},
      {"Other", "there is no application", ""},
      {"Editor", "several applications are called \"Editor\"", "usr/bin/curl, "},
      {"gone", "the program of gone.desktop, vanished, is not installed", ""},
      {"orphan", "the interpreter of the script", ""},
      {"bin/readme", "is not a program", ""},
      {root_ / "usr", "is not a program", ""},
  };
  for (const auto& [name, message, advice] : cases) {
    const auto resolved = resolve(name);
    ASSERT_FALSE(resolved.has_value()) << name << " is " << resolved->identifier;
    EXPECT_TRUE(resolved.error().message.contains(message)) << resolved.error().message;
    EXPECT_TRUE(resolved.error().advice.contains(advice)) << resolved.error().advice;
    EXPECT_FALSE(resolved.error().advice.empty());
    EXPECT_EQ(resolved.error().exitCode, exitWrongUsage);
  }
}

TEST(SuggestionsTest, PutsTheLikeliestFirst) {
  const std::set<std::string> names = {"firefox", "firefox-esr", "fox", "firewalld", "wget", "get"};
  using List = std::vector<std::string>;
  EXPECT_EQ(suggestions("fierfox", names), List{"firefox"});
  EXPECT_EQ(suggestions("Firefox", names), (List{"firefox", "firefox-esr"}));
  EXPECT_EQ(suggestions("wgte", names), List{"wget"});
  EXPECT_EQ(suggestions("zzz", names), List{});
}

}  // namespace
}  // namespace tandor::host::test
