// Where the launcher's three folders come from on Linux: the running executable's place, the
// XDG rules for per-user data, and the home folder.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "LanternmoorPro/platform/posix/PosixEnvironment.hpp"
#include "fake/FakePlatform.hpp"

namespace lm::testing {
namespace {

TEST(PosixFolders, resourcesLieBesideTheExecutableAndPerUserDataFollowsXdgThenHomeThenThePasswordDatabase) {
    EXPECT_EQ(platform::posix::PosixFolders(fake::FakeEnvironment(), "/usr/bin/").resourcesFolder(),
              "/usr/share/lanternmoor-pro");

    const std::string passwordHome = ::getpwuid(::getuid())->pw_dir;
    using Row = std::tuple<std::optional<std::string>, std::optional<std::string>, std::string, std::string>;
    for (const auto& [home, dataHome, expectedHome, expectedData] : std::vector<Row>{
             {"/home/ada", std::nullopt, "/home/ada", "/home/ada/.local/share"},
             {"/home/ada/", "/data/ada/", "/home/ada", "/data/ada"},
             {"/home/ada", "relative/data", "/home/ada", "/home/ada/.local/share"},
             {"/home/ada", "", "/home/ada", "/home/ada/.local/share"},
             {"/", std::nullopt, "/", "/.local/share"},
             {"", std::nullopt, passwordHome, passwordHome + "/.local/share"},
             {std::nullopt, std::nullopt, passwordHome, passwordHome + "/.local/share"}}) {
        SCOPED_TRACE(home.value_or("(unset)") + " " + dataHome.value_or("(unset)"));
        fake::FakeEnvironment environment;
        if (home) environment.set("HOME", *home);
        if (dataHome) environment.set("XDG_DATA_HOME", *dataHome);
        platform::posix::PosixFolders folders(environment, "");
        EXPECT_EQ(folders.homeFolder(), expectedHome);
        EXPECT_EQ(folders.applicationSupportFolders(), std::vector{expectedData});
    }
}

TEST(PosixEnvironment, tellsAnEmptyVariableFromAMissingOne) {
    ::setenv("LM_EMPTY_MARK", "", 1);
    ::unsetenv("LM_MISSING_MARK");
    platform::posix::PosixEnvironment environment;
    auto all = environment.all();
    EXPECT_EQ(environment.variable("LM_EMPTY_MARK"), std::string());
    EXPECT_EQ(environment.variable("LM_MISSING_MARK"), std::nullopt);
    EXPECT_NE(std::find(all.begin(), all.end(), std::pair<std::string, std::string>{"LM_EMPTY_MARK", ""}), all.end());
    ::unsetenv("LM_EMPTY_MARK");
}

}  // namespace
}  // namespace lm::testing
