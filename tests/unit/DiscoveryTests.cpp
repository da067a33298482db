#include "LauncherFixture.hpp"

namespace lm::test {
namespace {

TEST(VersionGate, ReadsTheVersionTextAsNodePrintsItAndJudgesIt) {
    struct Row {
        std::string output;
        std::vector<std::int64_t> numbers;
        bool passes;
    };
    const std::vector<Row> rows{
        {"v22.13.0\n", {22, 13, 0}, true},
        {"v22.12.1", {22, 12, 1}, false},
        {"v23.0.0", {23, 0, 0}, true},
        {"v18.20.4", {18, 20, 4}, false},
        {"v100.0.0", {100, 0, 0}, true},
        {"22.13.0", {22, 13, 0}, true},
        {"v22.13.0-rc.1", {22, 13, 1}, true},
        {"v22", {22}, false},
        {"", {}, false},
        {"node v22.13.0", {13, 0}, false},
        {"  \r\n v22..13.\t", {22, 13}, true},
        {"vv2v2.1v3", {22, 13}, true},       // every lowercase v goes, not only a leading one
        {"V22.13.0", {13, 0}, false},        // an uppercase V stays and spoils the first piece
        {"+22.+13", {22, 13}, true},
        {"22.-13", {22, -13}, false},
        {"22.+-13", {22}, false},
        {"99999999999999999999.1.2", {1, 2}, false},  // does not fit: dropped
        {"\xff" "22.13.0", {}, false},                // not UTF-8: empty text
    };
    for (auto& row : rows) {
        EXPECT_EQ(versionNumbers(row.output), row.numbers) << row.output;
        EXPECT_EQ(versionPasses(versionNumbers(row.output)), row.passes) << row.output;
    }
}

using NodeSearch = LauncherTest;

Strings probedCandidates(const fake::FakeProcesses& processes) {
    Strings probed;
    for (auto& child : processes.created) probed.push_back(child->configuration.executable);
    return probed;
}

TEST_F(NodeSearch, TriesTheFixedCandidatesThenTheSearchPathOnceEach) {
    struct Row {
        std::optional<std::string> path;
        Strings probed;
    };
    const std::vector<Row> rows{
        {std::nullopt,
         {"/opt/homebrew/bin/node", "/usr/local/bin/node", "/usr/bin/node", "/bin/node", "/usr/sbin/node", "/sbin/node"}},
        {"", {"/opt/homebrew/bin/node", "/usr/local/bin/node"}},
        {"/opt/homebrew/bin:/usr/bin", {"/opt/homebrew/bin/node", "/usr/local/bin/node", "/usr/bin/node"}},
        {"::/usr/local/bin/:rel/dir:/a b:", {"/opt/homebrew/bin/node", "/usr/local/bin/node", "/usr/local/bin//node",
                                             "rel/dir/node", "/a b/node"}},
    };
    for (auto& row : rows) {
        Harness run;
        run.fake.files.nodes.clear();
        run.fake.processes.scripts.clear();  // every candidate fails to start
        for (auto& candidate : row.probed) run.fake.files.addExecutable(candidate);
        run.setPath(row.path);
        EXPECT_EQ(run.await(run.launcher->findNode()), std::nullopt);
        EXPECT_EQ(probedCandidates(run.fake.processes), row.probed) << row.path.value_or("(unset)");
        for (auto& child : run.fake.processes.created)
            EXPECT_EQ(child->configuration.arguments, Strings{"--version"});
    }
}

TEST_F(NodeSearch, TheFirstCandidateThatPassesWinsAsBuilt) {
    fake.files.nodes.clear();
    fake.environment.set("PATH", "/usr/local/bin/:/usr/bin");
    for (auto [path, output, status] : std::vector<std::tuple<std::string, std::string, int>>{
             {"/opt/homebrew/bin/node", "v22.12.1\n", 0},
             {"/usr/local/bin/node", "v22.13.0\n", 1},   // right version, failed
             {"/usr/local/bin//node", "v23.1.0\n", 0},
             {"/usr/bin/node", "v24.0.0\n", 0}}) {
        fake.files.addExecutable(path);
        fake.processes.scripts[path] = {.output = output, .exitStatus = status};
    }
    EXPECT_EQ(await(launcher->findNode()), "/usr/local/bin//node");
    EXPECT_EQ(fake.processes.created.size(), 3u);
}

TEST_F(NodeSearch, ACandidateThatIsNoExecutableFileStartsNoProcess) {
    fake.files.nodes.clear();
    fake.files.addFile("/usr/bin/node", "", 0644);
    EXPECT_FALSE(await(launcher->supportedNode("/usr/bin/node")));
    EXPECT_TRUE(fake.processes.created.empty());
}

TEST_F(NodeSearch, ACandidateThatCannotStartOrNeverEndsIsRejected) {
    fake.processes.scripts["/usr/bin/node --version"].startError = platform::Error{};
    EXPECT_FALSE(await(launcher->supportedNode("/usr/bin/node")));

    fake.processes.scripts["/usr/bin/node --version"] = {.output = "v22.13.0\n", .exitAfter = std::nullopt};
    auto start = fake.mainThread.now();
    EXPECT_FALSE(await(launcher->supportedNode("/usr/bin/node")));
    EXPECT_EQ(fake.mainThread.now() - start, 5s);
    EXPECT_EQ(fake.processes.running(), 0);
    EXPECT_TRUE(journalHas("SIGKILL " + std::to_string(fake.processes.created.back()->processIdentifier())));
}

TEST_F(NodeSearch, OutputLongerThanAnyVersionIsRejected) {
    fake.processes.scripts["/usr/bin/node --version"].output =
        "v22.13.0" + std::string(platform::ChildProcess::capturedOutputLimit, ' ') + "!";
    EXPECT_FALSE(await(launcher->supportedNode("/usr/bin/node")));
}

using CodexSearch = LauncherTest;

TEST_F(CodexSearch, TakesTheFirstExecutableCandidateInItsFixedOrderThenTheSearchPath) {
    struct Row {
        Strings present;
        std::optional<std::string> path;
        std::optional<std::string> found;
    };
    const std::string chatgpt = "/Applications/ChatGPT.app/Contents/Resources/codex-cli/CodexCLI.app/Contents/MacOS/codex";
    const std::string desktop = "/Applications/Codex.app/Contents/Resources/codex";
    const std::vector<Row> rows{
        {{desktop, chatgpt, "/usr/local/bin/codex"}, "/usr/bin", chatgpt},
        {{desktop, "/opt/homebrew/bin/codex"}, "/usr/bin", desktop},
        {{"/usr/bin/codex"}, std::nullopt, "/usr/bin/codex"},
        {{"/home/ada/.local/bin/codex", "/usr/bin/codex"}, "/usr/bin", "/home/ada/.local/bin/codex"},
        {{"/opt/tools//codex"}, "/opt/tools/", "/opt/tools//codex"},
        {{}, "/usr/bin", std::nullopt},
    };
    for (auto& row : rows) {
        Harness run;
        run.fake.files.nodes.clear();
        for (auto& file : row.present) run.fake.files.addExecutable(file);
        run.setPath(row.path);
        EXPECT_EQ(run.launcher->findCodex(), row.found);
    }
}

TEST_F(CodexSearch, SkipsAFileWithoutExecutePermission) {
    fake.files.nodes.clear();
    fake.files.addFile("/usr/local/bin/codex", "", 0644);
    fake.files.addExecutable("/usr/bin/codex");
    EXPECT_EQ(launcher->findCodex(), "/usr/bin/codex");
}

}  // namespace
}  // namespace lm::test
