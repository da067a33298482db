#include "LauncherFixture.hpp"

namespace lm::test {
namespace {

using platform::sleepFor;

struct Runtime : testing::Test {
    fake::FakeMainThread mainThread;
    platform::TaskScope scope;
    void spawn(fake::FakeMainThread& thread, Task<> task) { scope.spawn(thread, std::move(task)); }
};

TEST_F(Runtime, ResumesEveryAwaitedStepOnTheMainThread) {
    std::function<void(int)> pending;
    std::vector<bool> onMainThread;
    auto task = [](fake::FakeMainThread& thread, std::function<void(int)>& held, std::vector<bool>& seen) -> Task<> {
        co_await sleepFor(thread, 10ms);
        seen.push_back(thread.isOnMainThread());
        // Completed inside the start call itself.
        auto immediate = platform::completionOf<int>(thread, [](auto done) { done(1); });
        co_await immediate;
        seen.push_back(thread.isOnMainThread());
        // Completed later from outside the main thread's loop, as a platform thread would.
        auto later = platform::completionOf<int>(thread, [&held](auto done) { held = std::move(done); });
        co_await later;
        seen.push_back(thread.isOnMainThread());
    };
    spawn(mainThread, task(mainThread, pending, onMainThread));
    mainThread.runUntilIdle();
    ASSERT_TRUE(pending);
    pending(2);
    EXPECT_EQ(onMainThread.size(), 2u);  // not resumed inside the callback
    mainThread.runUntilIdle();
    EXPECT_EQ(onMainThread, (std::vector<bool>{true, true, true}));
}

TEST_F(Runtime, ASpawnedTaskStartsLaterAndOutlivesItsSpawner) {
    Strings seen;
    {
        auto task = [](fake::FakeMainThread& thread, std::string text, Strings& out) -> Task<> {
            co_await sleepFor(thread, 1s);
            out.push_back(text);
        };
        std::string local = "from a scope that is gone";
        spawn(mainThread, task(mainThread, local, seen));
        EXPECT_TRUE(seen.empty());  // nothing runs inside spawn
    }
    mainThread.runUntilIdle();
    EXPECT_EQ(seen, Strings{"from a scope that is gone"});
}

Task<long> depth(long n) {
    if (n == 0) co_return 0;
    auto below = co_await depth(n - 1);
    co_return below + 1;
}

TEST_F(Runtime, PassesValuesUpAChainOfAwaits) {
    long result = 0;
    auto outer = [](long& out) -> Task<> { out = co_await depth(1000); };
    spawn(mainThread, outer(result));
    mainThread.runUntilIdle();
    EXPECT_EQ(result, 1000);
}

TEST_F(LauncherTest, TwoProbesOutstandingAtOnceEachGetTheirOwnAnswer) {
    fake.http.answers = {{FakeHttp::ours(), 900ms}, {HttpResult::reply(500, ""), 100ms}};
    std::vector<std::pair<int, Health>> results;
    auto run = [](Task<Health> probe, int id, std::vector<std::pair<int, Health>>& out) -> Task<> {
        auto health = co_await std::move(probe);
        out.emplace_back(id, health);
    };
    scope.spawn(fake.mainThread, run(launcher->probeHealth(), 1, results));
    scope.spawn(fake.mainThread, run(launcher->probeHealth(), 2, results));
    fake.mainThread.runUntilIdle();
    EXPECT_EQ(results, (std::vector<std::pair<int, Health>>{{2, Health::foreign}, {1, Health::ours}}));
}

}  // namespace
}  // namespace lm::test
