// Real children: reaped and reported exactly once, whatever happens to the process object.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>

#include "integration/ChildProcessSupport.hpp"

namespace lm::testing {
namespace {

using platform::ChildProcess;
using platform::ProcessConfiguration;
using platform::Stream;

class ChildProcesses : public ::testing::Test {
protected:
    ProcessConfiguration program(std::string executable, std::vector<std::string> arguments = {}) {
        ProcessConfiguration configuration;
        configuration.executable = std::move(executable);
        configuration.arguments = std::move(arguments);
        configuration.standardOutput = Stream::pipe();
        return configuration;
    }
    ProcessConfiguration script(const std::string& body) {
        return program(writeFile(folder / ("script-" + std::to_string(++scripts)), "#!/bin/sh\n" + body, 0755));
    }

    std::shared_ptr<ChildProcess> started(ProcessConfiguration configuration, bool start = true) {
        reports = std::make_shared<Reports>();
        auto child = processes->create(std::move(configuration));
        child->setTerminationHandler(Reports::handlerFor(reports));
        EXPECT_FALSE(start && child->start());
        return child;
    }

    // A second report would come right behind the first, from the same thread.
    void expectReportedOnceAndReaped(std::int32_t identifier) {
        ASSERT_TRUE(reports->waitFor(1));
        EXPECT_FALSE(reports->waitFor(2, 100ms));
        EXPECT_EQ(reports->identifiers, std::vector{identifier});
        EXPECT_TRUE(isGone(identifier));
    }

    std::string outputOf(ProcessConfiguration configuration) {
        auto child = started(std::move(configuration));
        expectReportedOnceAndReaped(child->processIdentifier());
        return child->capturedOutput();
    }

    TemporaryFolder folder;
    std::unique_ptr<platform::posix::PosixProcesses> processes = std::make_unique<platform::posix::PosixProcesses>();
    std::shared_ptr<Reports> reports;
    int scripts = 0;
};

TEST_F(ChildProcesses, reportTheEndOnceWhetherTheChildEndsByItselfIsStoppedOrItsObjectDropped) {
    enum Stop { none, terminate, kill, drop, dropSpawner };
    for (const auto& [body, stop, status] : std::vector<std::tuple<std::string, Stop, int>>{
             {"exit 0", none, 0},
             {"exit 3", none, 3},
             {"kill -TERM $$", none, 128 + SIGTERM},
             {"kill -KILL $$", none, 128 + SIGKILL},
             // A grandchild holding the output open must not hold the report back.
             {"sleep 5 & exit 7", none, 7},
             {"echo ready; exec sleep 60", terminate, 128 + SIGTERM},
             {"trap '' TERM; echo ready; exec sleep 60", kill, 128 + SIGKILL},
             {"exec sleep 0.2", drop, 0},
             {"exec sleep 0.2", dropSpawner, 0}}) {
        SCOPED_TRACE(body);
        auto child = started(script(body));
        auto identifier = child->processIdentifier();
        if (stop == terminate || stop == kill) {
            ASSERT_TRUE(eventually([&] { return child->capturedOutput() == "ready\n"; }));
            child->terminate();
        }
        if (stop == kill) {
            EXPECT_FALSE(reports->waitFor(1, 300ms));
            child->kill();
        }
        if (stop >= drop) child.reset();
        if (stop == dropSpawner) {
            // Reaped all the same, but reported to nobody.
            processes = std::make_unique<platform::posix::PosixProcesses>();
            EXPECT_TRUE(eventually([&] { return isGone(identifier); }));
            EXPECT_FALSE(reports->waitFor(1, 100ms));
            continue;
        }
        EXPECT_TRUE(reports->waitFor(1, 2s));
        expectReportedOnceAndReaped(identifier);
        if (!child) continue;
        EXPECT_FALSE(child->isRunning());
        EXPECT_EQ(child->terminationStatus(), status);
        // Once reaped, neither stop reaches anything, nor reports again.
        child->terminate();
        child->kill();
        EXPECT_FALSE(reports->waitFor(2, 50ms));
    }
}

TEST_F(ChildProcesses, outputIsReadWhileTheChildRunsKeptToOneByteOverTheLimitAndCompleteAtTheReport) {
    // Fifty megabytes fill the pipe at once unless it is read while the child runs.
    for (std::size_t size : {std::size_t{60000}, std::size_t{52428800}}) {
        auto child = started(script("yes 0123456789 | head -c " + std::to_string(size)), false);
        auto seen = std::make_shared<std::string>();
        child->setTerminationHandler([seen, raw = child.get(), handler = Reports::handlerFor(reports)](auto id) {
            *seen = raw->capturedOutput();
            handler(id);
        });
        ASSERT_FALSE(child->start());
        expectReportedOnceAndReaped(child->processIdentifier());
        EXPECT_EQ(child->terminationStatus(), 0);
        std::string expected;
        while (expected.size() < std::min(size, ChildProcess::capturedOutputLimit + 1)) expected += "0123456789\n";
        EXPECT_EQ(*seen, expected.substr(0, std::min(size, ChildProcess::capturedOutputLimit + 1)));
    }
}

TEST_F(ChildProcesses, bothOutputStreamsGivenOneFileShareItsPositionInWriteOrder) {
    platform::posix::PosixFileSystem files;
    ASSERT_FALSE(files.createFile(folder / "log", 0600));
    auto log = files.openForWriting(folder / "log").release();
    ASSERT_FALSE(log->write("stamp\n"));
    auto configuration = script("echo one; echo two >&2; echo three; echo four >&2");
    configuration.standardOutput = configuration.standardError = Stream::toFile(log);
    EXPECT_EQ(outputOf(std::move(configuration)), "");
    ASSERT_FALSE(log->write("after\n"));
    ASSERT_FALSE(log->close());
    EXPECT_EQ(readFile(folder / "log"), "stamp\none\ntwo\nthree\nfour\nafter\n");
}

TEST_F(ChildProcesses, theChildGetsExactlyTheDirectoryEnvironmentAndInputGivenAndNoneOfOurSignalSettings) {
    // Our own input holds a line; close-on-exec, so no child holds the writing end.
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(::write(ends[1], "ours\n", 5), 5);
    auto savedInput = ::dup(STDIN_FILENO);
    ::dup2(ends[0], STDIN_FILENO);
    ::setenv("LM_INHERITED_MARK", "ours", 1);
    sigset_t blocked, previousMask;
    ::sigfillset(&blocked);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
    auto previousHangUp = ::signal(SIGHUP, SIG_IGN);

    std::filesystem::create_directory(folder / "app folder");
    auto inFolder = std::filesystem::canonical(folder.path).string() + "/app folder\n";
    for (auto [input, line] : {std::pair{Stream::nullDevice(), "end"}, {Stream::pipe(), "end"},
                               {Stream::inherited(), "ours"}}) {
        auto configuration = script("pwd -P; echo \"$LM_INHERITED_MARK\"; read line && echo \"$line\" || echo end");
        configuration.workingDirectory = folder / "app folder";
        configuration.standardInput = input;
        EXPECT_EQ(outputOf(std::move(configuration)), inFolder + "ours\n" + line + "\n");
    }
    auto given = program("/usr/bin/env");
    given.environment = platform::EnvironmentVariables{{"ZETA", "last first"}, {"ALPHA", "1"}, {"EMPTY", ""}};
    EXPECT_EQ(outputOf(std::move(given)), "ZETA=last first\nALPHA=1\nEMPTY=\n");
    // sed reads its own state: a shell in between would block signals itself while it waits.
    std::istringstream signalMasks(
        outputOf(program("/bin/sed", {"-n", "s/^Sig\\(Blk\\|Ign\\):[[:space:]]*/0x/p", "/proc/self/status"})));

    ::signal(SIGHUP, previousHangUp);
    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    ::unsetenv("LM_INHERITED_MARK");
    ::dup2(savedInput, STDIN_FILENO);
    for (auto descriptor : {savedInput, ends[0], ends[1]}) ::close(descriptor);
    std::uint64_t blockedInChild = 1, ignoredInChild = 1;
    signalMasks >> std::hex >> blockedInChild >> ignoredInChild;
    // The C library leaves its own two signals below SIGRTMIN ignored in every child it spawns.
    auto reserved = ((std::uint64_t{1} << (SIGRTMIN - 1)) - 1) & ~((std::uint64_t{1} << 31) - 1);
    EXPECT_EQ(blockedInChild, 0u);
    EXPECT_EQ(ignoredInChild & ~reserved, 0u) << std::hex << ignoredInChild;
}

TEST_F(ChildProcesses, aProgramThatCannotStartFailsWithADescriptionAndIsNeverReported) {
    auto closed = std::make_shared<platform::posix::PosixFileHandle>(-1, folder / "closed");
    using Case = std::tuple<std::string, std::optional<std::string>, Stream, int>;
    for (const auto& [executable, workingDirectory, output, error] : std::vector<Case>{
             {folder / "missing", std::nullopt, Stream::pipe(), ENOENT},
             {writeFile(folder / "plain", "#!/bin/sh\nexit 0\n"), std::nullopt, Stream::pipe(), EACCES},
             {folder.path, std::nullopt, Stream::pipe(), EACCES},
             {"/bin/true", folder / "nowhere", Stream::pipe(), ENOENT},
             {"/bin/true", std::nullopt, Stream::toFile(closed), EBADF}}) {
        SCOPED_TRACE(error);
        auto configuration = program(executable);
        configuration.workingDirectory = workingDirectory;
        configuration.standardOutput = output;
        auto child = started(std::move(configuration), false);
        auto failure = child->start();
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->code, error);
        EXPECT_EQ(failure->call, "posix_spawn");
        EXPECT_NE(failure->description.find(executable), std::string::npos) << failure->description;
        EXPECT_FALSE(child->isRunning());
        EXPECT_EQ(child->processIdentifier(), 0);
        EXPECT_FALSE(reports->waitFor(1, 50ms));
    }
}

}  // namespace
}  // namespace lm::testing
