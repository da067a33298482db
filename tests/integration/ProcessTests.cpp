// Real children, watched through a pidfd and through the portable watch: reaped and reported
// exactly once, stopped group and all, given exactly what they were configured with.
#include <sys/wait.h>

#include "LanternmoorPro/platform/posix/PosixProcesses.hpp"
#include "integration/Support.hpp"

namespace lm::platform::posix {
void PrintTo(ExitWatch watch, std::ostream* out) { *out << (watch == ExitWatch::automatic ? "pidfd" : "portable"); }
}  // namespace lm::platform::posix

namespace lm::testing {

using platform::Stream;
using platform::posix::ExitWatch;

class ChildProcesses : public ::testing::TestWithParam<ExitWatch> {
protected:
    platform::ProcessConfiguration script(const std::string& body) {
        platform::ProcessConfiguration configuration;
        configuration.executable = writeFile(folder / std::to_string(++scripts), "#!/bin/sh\n" + body, 0755);
        configuration.standardOutput = Stream::pipe();
        return configuration;
    }
    std::shared_ptr<platform::ChildProcess> started(platform::ProcessConfiguration configuration) {
        auto child = processes->create(std::move(configuration));
        child->setTerminationHandler([this](std::int32_t id) { mainThread.post([this, id] { reported.push_back(id); }); });
        EXPECT_FALSE(child->start());
        return child;
    }
    // Reaped while the main thread is held up (by a modal alert, say), then reported exactly once
    // (a second report would come right behind the first).
    void expectReportedOnce(std::int32_t identifier) {
        for (auto until = Clock::now() + 5s; !isGone(identifier) && Clock::now() < until;) std::this_thread::sleep_for(1ms);
        EXPECT_TRUE(isGone(identifier)) << "not reaped without the main thread";
        EXPECT_TRUE(serveEventsUntil([&] { return !reported.empty(); }));
        serveEventsUntil([] { return false; }, 50ms);
        EXPECT_EQ(std::exchange(reported, {}), std::vector{identifier});
    }
    std::string outputOf(platform::ProcessConfiguration configuration) {
        auto child = started(std::move(configuration));
        expectReportedOnce(child->processIdentifier());
        return child->capturedOutput();
    }

    TemporaryFolder folder;
    int scripts = 0;
    platform::qt::QtMainThread mainThread;  // the reports come here, as the launcher's do
    std::vector<std::int32_t> reported;
    std::unique_ptr<platform::posix::PosixProcesses> processes = std::make_unique<platform::posix::PosixProcesses>(GetParam());
};

TEST_P(ChildProcesses, EndAndAreReportedOnceHoweverTheyEnd) {
    const pid_t theirs = ::fork();  // someone else's child, ended and not reaped: no watch may take it
    if (theirs == 0) ::_exit(0);
    enum Stop { none, terminate, kill, drop };
    for (const auto& [body, stop, status] : std::vector<std::tuple<std::string, Stop, int>>{
             {"exit 3", none, 3},
             {"sleep 5 2>/dev/null & echo $!; exit 7", none, 7},  // a grandchild holding the output must not hold the report back
             {"echo $$; exec sleep 60", terminate, 128 + SIGTERM},
             {"trap '' TERM; sleep 60 & echo $!; wait", kill, 128 + SIGKILL},  // the forced stop reaches what it started
             {"exec sleep 0.2", drop, 0}}) {
        SCOPED_TRACE(body);
        auto child = started(script(body));
        const auto identifier = child->processIdentifier();
        ASSERT_TRUE(stop == none || stop == drop || serveEventsUntil([&] { return !child->capturedOutput().empty(); }));
        EXPECT_TRUE(stop == none || stop == drop || ::getpgid(identifier) == identifier) << "a process group of its own";
        const auto grandchild = std::atoi(child->capturedOutput().c_str());
        if (stop == kill) {
            EXPECT_TRUE(child->includes(grandchild) && !child->includes(::getpid()));
            child->terminate();
            EXPECT_FALSE(serveEventsUntil([&] { return !reported.empty(); }, 300ms));
            child->kill();
        }
        if (stop == terminate) child->terminate();
        if (stop == drop) child.reset();
        expectReportedOnce(identifier);
        EXPECT_TRUE(stop != kill || serveEventsUntil([&] { return hasEnded(grandchild); }));
        if (!child) continue;
        EXPECT_EQ(std::tuple(child->isRunning(), child->terminationStatus()), std::tuple(false, status));
        // Once reaped, nothing is signalled and nothing reported again, and its group, whose number
        // may be someone else's by now, is no longer taken for its own.
        const auto survivor = stop == none ? std::atoi(child->capturedOutput().c_str()) : 0;
        child->kill();
        if (survivor == 0) continue;
        EXPECT_FALSE(child->includes(survivor));
        EXPECT_FALSE(serveEventsUntil([&] { return hasEnded(survivor); }, 200ms)) << "a reaped child's group was signalled";
        ::kill(survivor, SIGKILL);
    }
    EXPECT_EQ(::waitpid(theirs, nullptr, 0), theirs) << "someone else's child was reaped";
}

TEST_P(ChildProcesses, AreStoppedWhenTheSpawnerGoesUnlessTheyOutliveTheLauncher) {
    auto users = script("exec sleep 60");
    users.outlivesLauncher = true;
    const auto ours = started(script("exec sleep 60"))->processIdentifier(), theirs = started(users)->processIdentifier();
    EXPECT_EQ(::getsid(theirs), theirs) << "a session of its own";
    processes.reset();
    EXPECT_TRUE(serveEventsUntil([&] { return isGone(ours); }));
    EXPECT_FALSE(isGone(theirs));
    ::kill(theirs, SIGKILL);
    EXPECT_TRUE(serveEventsUntil([&] { return isGone(theirs); }) && reported.empty()) << "nobody is left to report to";
}

TEST_P(ChildProcesses, GetExactlyWhatTheyWereGiven) {
    // Fifty megabytes fill the pipe unless it is read while the child runs; one byte over the limit is kept.
    EXPECT_EQ(outputOf(script("yes 0123456789 | head -c 52428800")).size(), platform::ChildProcess::capturedOutputLimit + 1);

    // Both streams share one file, appended to, in the order written; a missing one is made owner-only.
    writeFile(folder / "log", "kept\n");
    for (const auto& log : {folder / "log", folder / "new log"}) {
        auto shared = script("echo one; echo two >&2; echo three");
        shared.standardOutput = Stream::appendingTo(log);
        shared.standardError = Stream::sameAsOutput();
        EXPECT_EQ(outputOf(shared), "");
    }
    EXPECT_EQ(std::tuple(readFile(folder / "log"), readFile(folder / "new log"), std::filesystem::status(folder / "new log").permissions()),
              std::tuple("kept\none\ntwo\nthree\n", "one\ntwo\nthree\n", std::filesystem::perms::owner_read | std::filesystem::perms::owner_write));

    ::setenv("LM_INHERITED_MARK", "ours", 1);
    auto previousHangUp = ::signal(SIGHUP, SIG_IGN);
    std::filesystem::create_directory(folder / "app folder");
    auto configuration = script("pwd -P; echo $LM_INHERITED_MARK; read line || echo end; sed -n 's/^Sig\\(Blk\\|Ign\\):\\s*//p' /proc/self/status");
    configuration.workingDirectory = folder / "app folder";
    configuration.standardInput = Stream::nullDevice();
    // Nothing blocked or ignored, but glibc's own two signals below SIGRTMIN.
    EXPECT_EQ(outputOf(configuration), std::filesystem::canonical(folder.path).string() + "/app folder\nours\nend\n0000000000000000\n0000000180000000\n");
    ::signal(SIGHUP, previousHangUp);
    auto given = script("");
    given.executable = "/usr/bin/env";
    given.environment = platform::EnvironmentVariables{{"ZETA", "last first"}, {"ALPHA", "1"}, {"EMPTY", ""}};
    EXPECT_EQ(outputOf(given), "ZETA=last first\nALPHA=1\nEMPTY=\n");
}

TEST_P(ChildProcesses, ThatCannotStartFailNamingTheProgramAndAreNeverReported) {
    for (const auto& [executable, workingDirectory, output, error] : std::vector<std::tuple<std::string, std::string, Stream, int>>{
             {folder / "missing", "/", Stream::pipe(), ENOENT}, {writeFile(folder / "plain", ""), "/", Stream::pipe(), EACCES},
             {"/bin/true", folder / "nowhere", Stream::pipe(), ENOENT}, {"/bin/true", "/", Stream::appendingTo(folder.path), EISDIR}}) {
        platform::ProcessConfiguration configuration{executable, false, {}, workingDirectory, {}, {}, output};
        auto failure = processes->create(configuration)->start();
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->cause, error);
        EXPECT_NE(failure->description.find(executable), std::string::npos) << failure->description;
    }
    EXPECT_TRUE(reported.empty());
}

INSTANTIATE_TEST_SUITE_P(Watch, ChildProcesses, ::testing::Values(ExitWatch::automatic, ExitWatch::portable),
                         [](const auto& info) { return ::testing::PrintToString(info.param); });

}  // namespace lm::testing
