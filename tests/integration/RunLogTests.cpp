// The run log on real files: owner-only modes whatever the umask, a stamp in UTC whatever the
// time zone, earlier runs kept byte for byte.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "integration/ChildProcessSupport.hpp"

namespace lm::testing {
namespace {

class RunLog : public ::testing::Test {
protected:
    // One start's stamp, with the log closed again as a whole launcher run would leave it.
    platform::Failure start() {
        auto prepared = world.launcher->prepareLog(FileLocation{dataFolder, true});
        return prepared ? prepared.value()->close() : prepared.error();
    }

    TemporaryFolder folder;
    std::string dataFolder = folder / "share/Lanternmoor Pro";
    std::string log = dataFolder + "/server.log";
    LocalPlatform world;
};

std::string utc(std::time_t time) {
    char text[32];
    std::strftime(text, sizeof text, "%FT%TZ", std::gmtime(&time));
    return text;
}

TEST_F(RunLog, eachStartAppendsAUtcStampKeepsEarlierBytesAndNarrowsModesWhateverTheUmaskAndTimeZone) {
    const char* zone = std::getenv("TZ");
    std::string savedZone = zone ? zone : "";
    ::setenv("TZ", "Asia/Shanghai", 1);
    ::tzset();
    // Folders that were there already keep their mode.
    ::chmod(folder.path.c_str(), 0751);
    for (mode_t mask : {0000, 0077, 0022, 0277}) {
        SCOPED_TRACE(mask);
        std::filesystem::remove_all(folder / "share");
        std::string earlier;
        for (int run = 0; run < 2; ++run) {
            auto before = std::time(nullptr);
            auto previousMask = ::umask(mask);
            auto failure = start();
            ::umask(previousMask);
            auto after = std::time(nullptr);
            ASSERT_FALSE(failure) << failure->description;

            EXPECT_EQ((std::vector{modeOf(folder.path), modeOf(folder / "share"), modeOf(dataFolder), modeOf(log)}),
                      (std::vector{0751u, 0700u, 0700u, 0600u}));
            auto content = readFile(log);
            auto stamp = content.substr(std::min(content.size(), earlier.size() + 2), 20);
            EXPECT_EQ(content, earlier + "\n[" + stamp + "] Lanternmoor Pro launcher started\n");
            EXPECT_GE(stamp, utc(before));
            EXPECT_LE(stamp, utc(after));

            // The earlier run ended mid-line and someone widened the modes since.
            earlier = content + "service output \xE4\xB8\xAD without a line break";
            writeFile(log, earlier, 0644);
            ::chmod(dataFolder.c_str(), 0755);
        }
    }
    zone ? ::setenv("TZ", savedZone.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
}

TEST_F(RunLog, aPlaceThatCannotHoldTheLogEndsWithADescriptionAndNoLog) {
    writeFile(folder / "file", "not a folder");
    writeFile(folder / "parent/child", "not a folder");
    std::filesystem::create_directories(dataFolder);
    // Nothing exists at the log's path, yet nothing can be created there either.
    std::filesystem::create_symlink(folder / "missing/target", log);
    for (auto [place, call, reason] : {std::tuple{folder / "file/Lanternmoor Pro", "mkdir", folder / "file"},
                                       {folder / "parent/child/x/y", "mkdir", folder / "parent/child"},
                                       {dataFolder, "chmod", dataFolder + "/server.log"}}) {
        SCOPED_TRACE(place);
        auto prepared = world.launcher->prepareLog(FileLocation{place, true});
        ASSERT_FALSE(prepared);
        EXPECT_EQ(prepared.error().call, call);
        EXPECT_NE(prepared.error().description.find(reason), std::string::npos) << prepared.error().description;
        EXPECT_FALSE(std::filesystem::exists(place + "/server.log"));
    }
    EXPECT_EQ(readFile(folder / "file"), "not a folder");
}

}  // namespace
}  // namespace lm::testing
