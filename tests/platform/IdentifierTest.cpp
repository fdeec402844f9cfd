#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/linux/application/Identifier.h"

namespace tandor::test {
namespace {

TEST(IdentifierTest, FlatpakApplicationsAreKnownByTheirScope) {
  const std::string manager = "/user.slice/user-1000.slice/user@1000.service";
  const std::string listed = "org.example.Listed";
  const struct {
    std::string cgroup;
    std::string identifier;  // empty for none
  } cases[] = {
      {manager + "/app.slice/app-flatpak-org.example.Listed-1234.scope", listed},
      {manager + "/app.slice/app-gnome.slice/app-flatpak-org.example.Listed-1.scope/sub", listed},
      {manager + "/flatpak-org.example.Listed-1234.scope", listed},
      {manager + R"(/app.slice/app-flatpak-org.example.Well\x2dlisted-1.scope)",
       "org.example.Well-listed"},
      {manager + "/app.slice/app-flatpak-org.example.Well-listed-1.scope",
       "org.example.Well-listed"},
      // Scopes of others, and places where a user's systemd makes none.
      {manager + "/app.slice/app-org.example.Listed-1234.scope", ""},
      {manager + "/app.slice/app-flatpak-org.example.Listed.scope", ""},
      {manager + "/app.slice/app-flatpak-org.example.Listed-1234.service", ""},
      {manager + "/app.slice/other/app-flatpak-org.example.Listed-1234.scope", ""},
      {"/user.slice/user-1000.slice/session-2.scope", ""},
      {"/user.slice/user-1000.slice/app-flatpak-org.example.Listed-1234.scope", ""},
      {"/user.slice/user-1000.slice/user@1001.service/flatpak-org.example.Listed-1.scope", ""},
      {"/machine.slice/box.scope" + manager + "/flatpak-org.example.Listed-1.scope", ""},
      {"/../.." + manager + "/flatpak-org.example.Listed-1.scope", ""},
      {manager, ""},
      {"/", ""},
      {"", ""},
      // Names that are no Flatpak application's.
      {manager + "/flatpak-com.tandor.host.app-1.scope", ""},
      {manager + "/flatpak-com.tandor.host.tool-1.scope", ""},
      {manager + "/flatpak-snap.firefox-1.scope", ""},
      {manager + "/flatpak-Tandor_root-1.scope", ""},
      {manager + "/flatpak-org.example.two\nlines-1.scope", ""},
      {manager + R"(/flatpak-org.example.\x2fusr-1.scope)", ""},
      {manager + "/flatpak-org..Listed-1.scope", ""},
      {manager + "/flatpak--1.scope", ""},
      {manager + "/flatpak-a.b." + std::string(251, 'c') + "-1.scope",
       "a.b." + std::string(251, 'c')},
      {manager + "/flatpak-a.b." + std::string(252, 'c') + "-1.scope", ""},
  };
  for (const auto& [cgroup, identifier] : cases)
    EXPECT_EQ(flatpakOfCgroup(cgroup).value_or(""), identifier) << cgroup;
}

}  // namespace
}  // namespace tandor::test
