// Real children of this test process: started with posix_spawn, watched through their pidfd,
// reaped exactly once and reported exactly once, whatever happens to the process object.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"
#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "integration/ChildProcessSupport.hpp"

namespace lm::testing {
namespace {

using platform::ChildProcess;
using platform::ProcessConfiguration;
using platform::Stream;

class ChildProcesses : public ::testing::Test {
protected:
    ProcessConfiguration script(const std::string& body) {
        ProcessConfiguration configuration;
        configuration.executable = writeScript(folder / ("script-" + std::to_string(++scripts_)), body);
        configuration.standardOutput = Stream::pipe();
        return configuration;
    }

    std::shared_ptr<ChildProcess> started(ProcessConfiguration configuration,
                                          const std::shared_ptr<Reports>& to = nullptr) {
        auto child = processes.create(std::move(configuration));
        child->setTerminationHandler(Reports::handlerFor(to ? to : reports));
        auto failure = child->start();
        EXPECT_FALSE(failure.has_value()) << (failure ? failure->description : "");
        return child;
    }

    // A second report would come right behind the first, from the same thread.
    void expectReportedOnceAndReaped(const ChildProcess& child, const std::shared_ptr<Reports>& to) {
        ASSERT_TRUE(to->waitFor(1));
        EXPECT_FALSE(to->waitFor(2, 100ms));
        EXPECT_EQ(to->identifiers(), std::vector{child.processIdentifier()});
        EXPECT_FALSE(child.isRunning());
        EXPECT_FALSE(isZombieChild(child.processIdentifier()));
    }

    static void waitForOutput(const ChildProcess& child, const std::string& output) {
        ASSERT_TRUE(eventually([&] { return child.capturedOutput() == output; })) << child.capturedOutput();
    }

    TemporaryFolder folder;
    platform::posix::PosixProcesses processes;
    std::shared_ptr<Reports> reports = std::make_shared<Reports>();

private:
    int scripts_ = 0;
};

TEST_F(ChildProcesses, reportTheExitStatusOfAChildThatEndsByItself) {
    struct Case {
        std::string body;
        int status;
    };
    const std::vector<Case> cases{
        {"exit 0", 0},
        {"exit 3", 3},
        {"kill -TERM $$", 128 + SIGTERM},
        {"kill -KILL $$", 128 + SIGKILL},
    };
    for (const auto& [body, status] : cases) {
        SCOPED_TRACE(body);
        auto to = std::make_shared<Reports>();
        auto child = started(script(body), to);
        EXPECT_GT(child->processIdentifier(), 0);
        expectReportedOnceAndReaped(*child, to);
        EXPECT_EQ(child->terminationStatus(), status);
    }
}

TEST_F(ChildProcesses, aPoliteStopEndsOnlyAChildThatHonoursItAndAForcedStopEndsAnyOther) {
    auto to = std::make_shared<Reports>();
    auto polite = started(script("echo ready; exec sleep 60"), to);
    auto stubborn = started(script("trap '' TERM; echo ready; exec sleep 60"));
    waitForOutput(*polite, "ready\n");
    waitForOutput(*stubborn, "ready\n");

    polite->terminate();
    stubborn->terminate();
    expectReportedOnceAndReaped(*polite, to);
    EXPECT_EQ(polite->terminationStatus(), 128 + SIGTERM);
    EXPECT_TRUE(stubborn->isRunning());

    stubborn->kill();
    expectReportedOnceAndReaped(*stubborn, reports);
    EXPECT_EQ(stubborn->terminationStatus(), 128 + SIGKILL);

    // Once reaped, neither stop reaches anything, nor reports again.
    stubborn->terminate();
    stubborn->kill();
    EXPECT_FALSE(reports->waitFor(2, 100ms));
    EXPECT_EQ(stubborn->terminationStatus(), 128 + SIGKILL);
}

TEST_F(ChildProcesses, aChildWhoseObjectWasDroppedIsStillReapedAndReported) {
    auto child = started(script("exec sleep 0.2"));
    auto identifier = child->processIdentifier();
    child.reset();

    ASSERT_TRUE(reports->waitFor(1));
    EXPECT_FALSE(reports->waitFor(2, 100ms));
    EXPECT_EQ(reports->identifiers(), std::vector{identifier});
    EXPECT_TRUE(isGone(identifier));
}

TEST_F(ChildProcesses, childrenOutlivingTheirSpawnerAreReapedButReportedToNobody) {
    auto spawner = std::make_unique<platform::posix::PosixProcesses>();
    auto child = spawner->create(script("exec sleep 0.3"));
    child->setTerminationHandler(Reports::handlerFor(reports));
    ASSERT_FALSE(child->start().has_value());
    auto identifier = child->processIdentifier();
    child.reset();
    spawner.reset();

    EXPECT_TRUE(eventually([&] { return isGone(identifier); }));
    EXPECT_TRUE(reports->identifiers().empty());
}

TEST_F(ChildProcesses, standardOutputIsReadWhileTheChildRunsAndKeptUpToOneByteOverTheLimit) {
    // Fifty megabytes would fill the pipe almost at once if nobody read it while the child ran.
    auto child = started(script("yes 0123456789 | head -c 52428800"));
    expectReportedOnceAndReaped(*child, reports);
    EXPECT_EQ(child->terminationStatus(), 0);

    auto output = child->capturedOutput();
    ASSERT_EQ(output.size(), ChildProcess::capturedOutputLimit + 1);
    std::string expected;
    while (expected.size() < output.size()) expected += "0123456789\n";
    EXPECT_EQ(output, expected.substr(0, output.size()));
}

TEST_F(ChildProcesses, theWholeOutputIsThereWhenTheHandlerRuns) {
    auto configuration = script("head -c 60000 /dev/zero | tr '\\0' x");
    auto child = processes.create(std::move(configuration));
    auto seen = std::make_shared<std::size_t>(0);
    child->setTerminationHandler([seen, raw = child.get(), reports = reports](std::int32_t identifier) {
        *seen = raw->capturedOutput().size();
        Reports::handlerFor(reports)(identifier);
    });
    ASSERT_FALSE(child->start().has_value());

    ASSERT_TRUE(reports->waitFor(1));
    EXPECT_EQ(*seen, 60000u);
}

TEST_F(ChildProcesses, theEndIsReportedWhileAGrandchildStillHoldsTheOutputOpen) {
    auto child = started(script("sleep 30 & echo $!"));
    auto reported = reports->waitFor(1, 3s);
    auto grandchild = std::atoi(child->capturedOutput().c_str());
    if (grandchild > 0) ::kill(grandchild, SIGKILL);

    ASSERT_TRUE(reported);
    EXPECT_EQ(child->terminationStatus(), 0);
    EXPECT_GT(grandchild, 0);
}

TEST_F(ChildProcesses, standardInputGivesEndOfFileAtOnceEvenWhenOurOwnHasDataWaiting) {
    // Our own standard input, for the length of the test: a pipe with a line in it.
    std::array<int, 2> ends{};
    // Close-on-exec, so that no child holds the writing end and a reader always meets its end
    // once the test closes it.
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ASSERT_EQ(::write(ends[1], "ours\n", 5), 5);
    auto savedInput = ::dup(STDIN_FILENO);
    ::dup2(ends[0], STDIN_FILENO);

    std::vector<std::string> outputs;
    for (auto input : {Stream::nullDevice(), Stream::pipe(), Stream::inherited()}) {
        auto to = std::make_shared<Reports>();
        auto configuration = script("if read line; then echo \"read: $line\"; else echo end; fi");
        configuration.standardInput = input;
        auto child = started(std::move(configuration), to);
        EXPECT_TRUE(to->waitFor(1, 3s));
        outputs.push_back(child->capturedOutput());
    }

    ::dup2(savedInput, STDIN_FILENO);
    for (auto descriptor : {savedInput, ends[0], ends[1]}) ::close(descriptor);
    // The inherited case shows the line was really there to be read.
    EXPECT_EQ(outputs, (std::vector<std::string>{"end\n", "end\n", "read: ours\n"}));
}

TEST_F(ChildProcesses, bothOutputStreamsGivenOneFileShareItsPositionInWriteOrder) {
    platform::posix::PosixFileSystem files;
    auto path = folder / "server.log";
    ASSERT_TRUE(files.createFile(path, 0600));
    auto opened = files.openForWriting(path);
    ASSERT_TRUE(opened.hasValue());
    auto log = opened.release();
    ASSERT_FALSE(log->write("stamp\n").has_value());

    auto configuration = script("echo one; echo two >&2; echo three; echo four >&2");
    configuration.standardOutput = Stream::toFile(log);
    configuration.standardError = Stream::toFile(log);
    auto child = started(std::move(configuration));
    expectReportedOnceAndReaped(*child, reports);
    ASSERT_FALSE(log->write("after\n").has_value());
    ASSERT_FALSE(log->close().has_value());

    EXPECT_EQ(readFile(path), "stamp\none\ntwo\nthree\nfour\nafter\n");
    EXPECT_EQ(child->capturedOutput(), "");
}

TEST_F(ChildProcesses, theChildGetsExactlyTheEnvironmentGivenOrElseOurOwnWhole) {
    ::setenv("LM_INHERITED_MARK", "from the launcher", 1);
    using Variables = std::optional<platform::EnvironmentVariables>;
    for (auto given : {Variables{{{"ZETA", "last first"}, {"ALPHA", "1"}, {"EMPTY", ""}}}, Variables{}}) {
        auto to = std::make_shared<Reports>();
        ProcessConfiguration configuration;
        configuration.executable = "/usr/bin/env";
        configuration.environment = given;
        configuration.standardOutput = Stream::pipe();
        auto child = started(std::move(configuration), to);
        expectReportedOnceAndReaped(*child, to);
        auto output = child->capturedOutput();
        if (given) {
            EXPECT_EQ(output, "ZETA=last first\nALPHA=1\nEMPTY=\n");
        } else {
            EXPECT_NE(output.find("\nLM_INHERITED_MARK=from the launcher\n"), std::string::npos) << output;
        }
    }
    ::unsetenv("LM_INHERITED_MARK");
}

TEST_F(ChildProcesses, theChildRunsInItsWorkingDirectory) {
    auto workingDirectory = folder / "app folder";
    std::filesystem::create_directory(workingDirectory);
    auto configuration = script("pwd -P");
    configuration.workingDirectory = workingDirectory;
    auto child = started(std::move(configuration));
    expectReportedOnceAndReaped(*child, reports);
    EXPECT_EQ(child->capturedOutput(), std::filesystem::canonical(workingDirectory).string() + "\n");
}

TEST_F(ChildProcesses, aChildStartsWithNoSignalBlockedOrIgnored) {
    sigset_t blocked;
    sigset_t previousMask;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    ::sigaddset(&blocked, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
    auto previousPipe = ::signal(SIGPIPE, SIG_IGN);
    auto previousHangUp = ::signal(SIGHUP, SIG_IGN);

    // sed reads its own state: a shell in between would block signals itself while it waits.
    ProcessConfiguration configuration;
    configuration.executable = "/bin/sed";
    configuration.arguments = {"-n", "s/^Sig\\(Blk\\|Ign\\):[[:space:]]*/0x/p", "/proc/self/status"};
    configuration.standardOutput = Stream::pipe();
    auto child = started(std::move(configuration));

    ::signal(SIGHUP, previousHangUp);
    ::signal(SIGPIPE, previousPipe);
    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    expectReportedOnceAndReaped(*child, reports);
    std::istringstream masks(child->capturedOutput());
    std::uint64_t blockedInChild = 1;
    std::uint64_t ignoredInChild = 1;
    masks >> std::hex >> blockedInChild >> ignoredInChild;
    // The C library keeps the two signals below SIGRTMIN for itself and leaves them ignored
    // in every child it spawns; it sets them up again in the program it runs.
    std::uint64_t reserved = 0;
    for (int number = 32; number < SIGRTMIN; ++number) reserved |= std::uint64_t{1} << (number - 1);
    EXPECT_EQ(blockedInChild, 0u);
    EXPECT_EQ(ignoredInChild & ~reserved, 0u) << std::hex << ignoredInChild;
}

TEST_F(ChildProcesses, aProgramThatCannotStartFailsWithADescriptionAndIsNeverReported) {
    platform::posix::PosixFileSystem files;
    auto closedLog = folder / "closed.log";
    ASSERT_TRUE(files.createFile(closedLog, 0600));
    auto closedHandle = files.openForWriting(closedLog).release();
    ASSERT_FALSE(closedHandle->close().has_value());

    struct Case {
        std::string what;
        std::string executable;
        std::optional<std::string> workingDirectory;
        Stream output;
        int error;
    };
    const std::vector<Case> cases{
        {"a missing program", folder / "missing", std::nullopt, Stream::pipe(), ENOENT},
        {"a file without execute permission", writeScript(folder / "plain", "exit 0", 0644), std::nullopt,
         Stream::pipe(), EACCES},
        {"a folder", folder.path(), std::nullopt, Stream::pipe(), EACCES},
        {"a working directory that does not exist", "/bin/true", folder / "nowhere", Stream::pipe(), ENOENT},
        {"an output file already closed", "/bin/true", std::nullopt, Stream::toFile(closedHandle), EBADF},
    };
    for (const auto& [what, executable, workingDirectory, output, error] : cases) {
        SCOPED_TRACE(what);
        ProcessConfiguration configuration;
        configuration.executable = executable;
        configuration.workingDirectory = workingDirectory;
        configuration.standardOutput = output;
        auto child = processes.create(std::move(configuration));
        child->setTerminationHandler(Reports::handlerFor(reports));

        auto failure = child->start();
        ASSERT_TRUE(failure.has_value());
        EXPECT_EQ(failure->code, error);
        EXPECT_EQ(failure->call, "posix_spawn");
        EXPECT_NE(failure->description.find(executable), std::string::npos) << failure->description;
        EXPECT_FALSE(child->isRunning());
        EXPECT_EQ(child->processIdentifier(), 0);
    }
    EXPECT_FALSE(reports->waitFor(1, 200ms));
}

}  // namespace
}  // namespace lm::testing
