// Files and folders on the real system: the run log with its owner-only modes whatever the umask,
// kept whole by every writer; the per-user folders; the standard descriptors a process starts with.
#include <pwd.h>
#include <sys/stat.h>

#include "LanternmoorPro/platform/posix/PosixEnvironment.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"
#include "integration/Support.hpp"

namespace lm::testing {

unsigned modeOf(const std::string& path) { return static_cast<unsigned>(std::filesystem::status(path).permissions()); }

TEST(RunLog, IsOwnerOnlyStampedInUtcAndAppendedToByEveryWriterWhateverTheUmask) {
    TemporaryFolder folder;
    RealWorld world;
    auto launcher = world.launcher();
    const FileLocation data{folder / "share/Lanternmoor Pro", true};
    const auto log = data.path + "/server.log";
    for (mode_t mask : {0000, 0077, 0277}) {
        std::filesystem::remove_all(folder / "share");
        const auto previousMask = ::umask(mask);
        const auto before = std::chrono::system_clock::now();
        auto first = launcher->prepareLog(data), second = launcher->prepareLog(data);  // two launchers at the same moment
        const auto stamp = readFile(log).substr(0, logStamp(before).size());
        ::umask(previousMask);
        ASSERT_TRUE(first && second);
        EXPECT_EQ((std::vector{modeOf(folder / "share"), modeOf(data.path), modeOf(log)}), (std::vector{0700u, 0700u, 0600u})) << mask;
        ASSERT_FALSE(first.value()->write("one\n") || second.value()->write("two\n") || first.value()->write("three\n"));
        EXPECT_TRUE(stamp >= logStamp(before) && stamp <= logStamp(std::chrono::system_clock::now())) << stamp;
        EXPECT_EQ(readFile(log), stamp + stamp + "one\ntwo\nthree\n");
    }
    // A later start keeps every earlier byte, and narrows the modes someone widened meanwhile.
    writeFile(log, "an earlier run, ended mid-line", 0644);
    ::chmod(data.path.c_str(), 0755);
    ASSERT_TRUE(launcher->prepareLog(data));
    EXPECT_TRUE(readFile(log).starts_with("an earlier run, ended mid-line\n["));
    EXPECT_EQ((std::vector{modeOf(data.path), modeOf(log)}), (std::vector{0700u, 0600u}));
}

TEST(PosixFolders, FollowTheXdgRulesThenHomeThenThePasswordDatabase) {
    const std::string passwordHome = ::getpwuid(::getuid())->pw_dir;
    for (const auto& [home, dataHome, expectedHome, expectedData] :
         std::vector<std::tuple<std::optional<std::string>, std::optional<std::string>, std::string, std::string>>{
             {"/home/ada/", "/data/ada/", "/home/ada", "/data/ada"}, {"/home/ada", "relative/data", "/home/ada", "/home/ada/.local/share"},
             {"/home/ada", "", "/home/ada", "/home/ada/.local/share"}, {"", std::nullopt, passwordHome, passwordHome + "/.local/share"}}) {
        fake::Fake environment;
        environment.set("HOME", home);
        environment.set("XDG_DATA_HOME", dataHome);
        platform::posix::PosixFolders folders(environment, "/opt/lm/bin/");
        EXPECT_EQ(std::tuple(folders.homeFolder(), folders.applicationSupportFolders(), folders.resourcesFolder()),
                  std::tuple(expectedHome, Strings{expectedData}, std::optional<std::string>("/opt/lm/share/lanternmoor-pro")));
    }
}

// A program started with its standard descriptors closed has /dev/null on each of them.
TEST(StandardDescriptorsDeathTest, ThatWereClosedAreTheNullDevice) {
    EXPECT_EXIT({
        for (int descriptor : {0, 1, 2}) ::close(descriptor);
        platform::posix::ensureStandardDescriptors();
        for (int descriptor : {0, 1, 2})
            if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)) != "/dev/null") ::_exit(1);
        ::_exit(0);
    }, ::testing::ExitedWithCode(0), "");
}

}  // namespace lm::testing
