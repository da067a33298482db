// The run log on real files: owner-only modes whatever the umask, a stamp in UTC whatever the
// time zone, earlier runs kept byte for byte, and no handle left behind by a failure.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "fake/FakePlatform.hpp"
#include "integration/ChildProcessSupport.hpp"

namespace lm::testing {
namespace {

struct FilesPlatform {
    platform::qt::QtMainThread mainThread;
    platform::posix::PosixFileSystem files;
    fake::FakeProcesses processes;
    fake::FakeEnvironment environment;
    fake::FakeApplication application;
    fake::FakeHttp http;
    fake::FakeJson json;
    fake::FakeNetwork network;
    fake::FakeOpener opener;
    fake::FakeAlerts alerts;
    fake::FakeStatusBar statusBar;
    fake::FakeFolders folders;
    platform::Platform platform{mainThread, application, processes, files,   http,        json,
                                network,    opener,      alerts,    statusBar, environment, folders};
};

const std::regex stampLine(R"(\n\[(\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)Z\] Lanternmoor Pro launcher started\n)");

// Seconds since the epoch that a stamp names, read as UTC.
std::optional<std::time_t> stampedTime(const std::string& stamp) {
    std::smatch fields;
    if (!std::regex_match(stamp, fields, stampLine)) return std::nullopt;
    std::tm parts{};
    parts.tm_year = std::stoi(fields[1]) - 1900;
    parts.tm_mon = std::stoi(fields[2]) - 1;
    parts.tm_mday = std::stoi(fields[3]);
    parts.tm_hour = std::stoi(fields[4]);
    parts.tm_min = std::stoi(fields[5]);
    parts.tm_sec = std::stoi(fields[6]);
    return ::timegm(&parts);
}

class RunLog : public ::testing::Test {
protected:
    // Writes one start's stamp and closes the log again, as a whole launcher run would.
    platform::Failure start(const std::string& dataFolder) {
        auto prepared = launcher->prepareLog(FileLocation{dataFolder, true});
        if (!prepared) return prepared.error();
        return prepared.value()->close();
    }

    TemporaryFolder folder;
    std::string dataFolder = folder / "share/Lanternmoor Pro";
    std::string log = dataFolder + "/server.log";
    FilesPlatform world;
    std::shared_ptr<LanternmoorLauncher> launcher = std::make_shared<LanternmoorLauncher>(world.platform);
};

TEST_F(RunLog, aFirstStartCreatesOwnerOnlyFolderAndLogWhateverTheUmask) {
    for (mode_t mask : {0000, 0077, 0022, 0277}) {
        SCOPED_TRACE(mask);
        std::filesystem::remove_all(folder / "share");
        auto previous = ::umask(mask);
        auto failure = start(dataFolder);
        ::umask(previous);

        ASSERT_FALSE(failure.has_value()) << failure->description;
        EXPECT_EQ(modeOf(folder / "share"), 0700u);
        EXPECT_EQ(modeOf(dataFolder), 0700u);
        EXPECT_EQ(modeOf(log), 0600u);
        EXPECT_TRUE(std::regex_match(readFile(log), stampLine)) << readFile(log);
    }
}

TEST_F(RunLog, theStampIsTheCurrentTimeInUtcWhateverTheTimeZone) {
    const char* previous = std::getenv("TZ");
    std::optional<std::string> saved = previous ? std::optional<std::string>(previous) : std::nullopt;
    ::setenv("TZ", "Asia/Shanghai", 1);
    ::tzset();
    auto before = std::time(nullptr);
    auto failure = start(dataFolder);
    auto after = std::time(nullptr);
    if (saved) {
        ::setenv("TZ", saved->c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();

    ASSERT_FALSE(failure.has_value()) << failure->description;
    auto stamped = stampedTime(readFile(log));
    ASSERT_TRUE(stamped.has_value()) << readFile(log);
    EXPECT_GE(*stamped, before);
    EXPECT_LE(*stamped, after);
}

TEST_F(RunLog, aLaterStartAppendsAndKeepsEveryEarlierByte) {
    ASSERT_FALSE(start(dataFolder).has_value());
    // The earlier run's service ended in the middle of a line; the new stamp closes it.
    auto earlier = readFile(log) + "service output \xE4\xB8\xAD without a line break";
    writeFile(log, earlier, 0600);

    ASSERT_FALSE(start(dataFolder).has_value());

    auto content = readFile(log);
    ASSERT_EQ(content.substr(0, earlier.size()), earlier);
    EXPECT_TRUE(std::regex_match(content.substr(earlier.size()), stampLine)) << content;
}

TEST_F(RunLog, widenedModesOfAnExistingFolderAndLogAreNarrowedAgain) {
    std::filesystem::create_directories(dataFolder);
    ::chmod(dataFolder.c_str(), 0755);
    writeFile(log, "kept\n", 0644);

    ASSERT_FALSE(start(dataFolder).has_value());

    EXPECT_EQ(modeOf(dataFolder), 0700u);
    EXPECT_EQ(modeOf(log), 0600u);
    EXPECT_EQ(readFile(log).substr(0, 5), "kept\n");
}

TEST_F(RunLog, aFolderThatCannotBeMadeEndsWithTheSystemsReasonAndNoLog) {
    struct Case {
        std::string what;
        std::string dataFolder;
        std::function<void()> arrange;
        std::string call;
    };
    auto inPlace = folder / "file/Lanternmoor Pro";
    auto underFile = folder / "parent-file/child/Lanternmoor Pro";
    auto readOnly = folder / "locked/Lanternmoor Pro";
    std::vector<Case> cases{
        {"a plain file named like the data folder", inPlace, [&] { writeFile(inPlace, "not a folder"); }, "mkdir"},
        {"a plain file where a parent folder should be", underFile,
         [&] { writeFile(folder / "parent-file/child", "not a folder"); }, "mkdir"},
    };
    // The superuser writes into read-only folders anyway, so the plain-file cases above are
    // what stands in for an unwritable place when the tests run as root.
    if (::geteuid() != 0) {
        cases.push_back({"a parent folder without write permission", readOnly,
                         [&] {
                             std::filesystem::create_directories(folder / "locked");
                             ::chmod((folder / "locked").c_str(), 0500);
                         },
                         "mkdir"});
    }
    for (const auto& [what, place, arrange, call] : cases) {
        SCOPED_TRACE(what);
        arrange();
        auto prepared = launcher->prepareLog(FileLocation{place, true});
        ASSERT_FALSE(prepared.hasValue());
        EXPECT_EQ(prepared.error().call, call);
        // The description names the place that is in the way.
        EXPECT_NE(prepared.error().description.find(folder.path()), std::string::npos)
            << prepared.error().description;
        EXPECT_FALSE(std::filesystem::exists(place + "/server.log"));
    }
    EXPECT_EQ(readFile(inPlace), "not a folder");
}

TEST_F(RunLog, aLogThatCannotBeCreatedEndsWithTheLaunchersOwnError) {
    std::filesystem::create_directories(dataFolder);
    // Nothing exists at the log's path, yet nothing can be created there either.
    std::filesystem::create_symlink(folder / "missing/target", log);

    auto prepared = launcher->prepareLog(FileLocation{dataFolder, true});

    ASSERT_FALSE(prepared.hasValue());
    EXPECT_EQ(prepared.error(), (Error{"Lanternmoor", 1, "无法创建本机运行日志。", "createFile"}));
}

TEST(PosixFiles, whatTheyCreateGetsExactlyTheModeAskedForWhateverTheUmask) {
    for (mode_t mask : {0000, 0022, 0077, 0277}) {
        SCOPED_TRACE(mask);
        TemporaryFolder folder;
        auto parentMode = modeOf(folder.path());
        platform::posix::PosixFileSystem files;
        auto previous = ::umask(mask);
        auto failure = files.createDirectories(folder / "a/b//c/", 0750);
        auto created = files.createFile(folder / "a/file", 0640);
        ::umask(previous);

        ASSERT_FALSE(failure.has_value()) << failure->description;
        ASSERT_TRUE(created);
        for (const auto* path : {"a", "a/b", "a/b/c"}) EXPECT_EQ(modeOf(folder / path), 0750u) << path;
        EXPECT_EQ(modeOf(folder / "a/file"), 0640u);
        // A folder that was there already keeps its mode.
        EXPECT_EQ(modeOf(folder.path()), parentMode);
        EXPECT_FALSE(files.createFile(folder / "a/file", 0640));
    }
}

}  // namespace
}  // namespace lm::testing
