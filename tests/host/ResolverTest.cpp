#include <sys/stat.h>

#include <gtest/gtest.h>

#include "host/ApplicationResolver.h"
#include "host/Support.h"

namespace tandor::host::test {
namespace {

/// A machine's applications in a temporary tree.
class ResolverTest : public testing::Test {
 protected:
  ResolverTest() {
    for (const char* name : {"usr/bin/curl", "usr/sbin/mtr", "opt/browser/browser", "usr/bin/sh",
                             "usr/bin/python3.11", "snap/chat/12/bin/chat", "snap/bin/chat",
                             "flatpak/app/org.example.Player/current/files/player"})
      root_.write(name, "\x7f\x45LF", true);
    link("usr/bin/python3", "python3.11");
    link("usr/bin/browse", "../../opt/browser/browser");
    link("snap/bin/chat.daemon", "/proc/self/exe");
    script("usr/bin/wrapper", (root_ / "usr/bin/sh") + "\nexec browser");
    script("usr/bin/tool", "/usr/bin/env -S LANG=C python3 -u");
    script("usr/bin/tool-of-tool", " " + (root_ / "usr/bin/tool"));
    script("usr/bin/orphan", "/usr/bin/env perl5");
    script("usr/bin/loop", root_ / "usr/bin/loop");
    script("flatpak/exports/bin/org.example.Player", "/bin/sh");
    root_.write("usr/bin/readme", "no program");
    entry("browser", "Name=Browser\nName[de]=Netzbetrachter\nExec=env A=b \"" +
                         (root_ / "opt/browser/browser") + "\" --new %u");
    entry("player", "Name=Player\nExec=/usr/bin/flatpak run --branch=stable org.example.Player");
    entry("kde/chat", "Name=Plauderei\nX-SnapInstanceName=chat\nExec=env BAMF=1 /snap/bin/chat");
    entry("one", "Name=Editor\nExec=curl");
    entry("two", "Name=editor\nExec=mtr");
    entry("same", "Name=browser\nExec=browse");
    entry("gone", "Name=Gone\nExec=vanished %f");
    entry("hidden", "Name=Hidden\nHidden=true\nExec=curl");
    const std::string fifo = root_ / "usr/share/applications/endless.desktop";
    EXPECT_EQ(::mkfifo(fifo.c_str(), S_IRUSR | S_IWUSR), 0);
    entry("action", "Name=Action\nExec=curl\n[Desktop Action other]\nName=Other\nExec=mtr");
  }

  void link(std::string_view name, const std::string& target) const {
    std::filesystem::create_symlink(target, root_ / name);
  }
  void script(std::string_view name, const std::string& interpreter) const {
    root_.write(name, "#!" + interpreter + "\n", true);
  }
  void entry(std::string_view id, const std::string& text) const {
    root_.write("usr/share/applications/" + std::string(id) + ".desktop",
                "# an entry\n[Desktop Entry]\nType=Application\n" + text + "\n");
  }

  const TemporaryFolder root_;
  const ApplicationResolver resolver_{{.workingFolder = root_.path() / "usr",
                                       .commands = {root_ / "usr/bin", root_ / "usr/sbin"},
                                       .desktopFiles = {root_ / "usr/share/applications"},
                                       .flatpaks = {root_ / "flatpak/app"},
                                       .snaps = {root_ / "snap"}}};
};

TEST_F(ResolverTest, FindsWhatPeopleNameOrSaysWhatTheyMayHaveMeant) {
  const std::string browser = root_ / "opt/browser/browser";
  const std::string curl = root_ / "usr/bin/curl";
  const std::string python = root_ / "usr/bin/python3.11";
  const std::string player = "org.example.Player";
  const std::string none = "there is no application";
  const std::string everyScript = "every script of it is meant";
  const struct {
    std::string name;
    std::string identifier;  // empty for a failure
    std::string said{};      // in the warning or the failure; empty for no warning
    std::string advice{};
  } cases[] = {
      {"curl", curl},
      {curl, curl},
      {"bin/../bin/curl", curl},
      {"browse", browser},
      {"python3", python},
      {player, player},
      {root_ / "flatpak/exports/bin/org.example.Player", player},
      {"Player", player},
      {"chat", "snap.chat"},
      {root_ / "snap/bin/chat.daemon", "snap.chat"},
      {root_ / "snap/chat/12/bin/chat", "snap.chat"},
      {"Netzbetrachter", browser},
      {"Browser", browser},  // two entries, one program
      {"action", curl},
      {"id:anything at all", "anything at all"},
      {"tool", python, everyScript},
      {"tool-of-tool", python, everyScript},
      {"wrapper", root_ / "usr/bin/sh", "Most such scripts only start another program"},
      {"crul", "", none + " \"crul\"", "did you mean curl"},
      {"org.example.Plaer", "", none, "did you mean org.example.Player?"},
      {"/opt/borwser", "", none + " \"/opt/borwser\"", "Browser"},
      {"qqqqqqqqqq", "", none, "`tandor apps`"},
      {"", "", none + " \"\""},
      {"/snap/none/1/none", "", none},
      {"Hidden", "", none},
      {"Other", "", none},
      {"Editor", "", "several applications are called \"Editor\"", "usr/bin/curl, "},
      {"gone", "", "the program of gone.desktop, vanished, is not installed"},
      {"orphan", "", "the interpreter of the script"},
      {"bin/readme", "", "is not a program"},
  };
  for (const auto& [name, identifier, said, advice] : cases) {
    SCOPED_TRACE(name);
    const auto resolved = resolver_.resolve(name);
    EXPECT_EQ(resolved ? resolved->identifier : "", identifier);
    if (resolved) {
      EXPECT_TRUE(resolved->warning.contains(said)) << resolved->warning;
      EXPECT_EQ(resolved->warning.empty(), said.empty());
      EXPECT_EQ(resolved->name, name.starts_with("id:") ? identifier : name);
      continue;
    }
    EXPECT_TRUE(resolved.error().message.contains(said)) << resolved.error().message;
    EXPECT_TRUE(resolved.error().advice.contains(advice)) << resolved.error().advice;
    EXPECT_FALSE(resolved.error().advice.empty());
    EXPECT_EQ(resolved.error().exitCode, exitWrongUsage);
  }
  EXPECT_TRUE(resolver_.resolve("loop").has_value());  // it ends
}

}  // namespace
}  // namespace tandor::host::test
