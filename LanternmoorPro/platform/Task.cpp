#include "LanternmoorPro/platform/Task.hpp"

namespace lm::platform {
namespace {

// The root of a spawned task: it owns its own frame and frees it when the task is done.
struct Detached {
    struct promise_type {
        Detached get_return_object() noexcept {
            return Detached{std::coroutine_handle<promise_type>::from_promise(*this)};
        }
        std::suspend_always initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() noexcept {}
        void unhandled_exception() noexcept { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

Detached runDetached(Task<void> task) { co_await std::move(task); }

}  // namespace

void spawn(MainThread& mainThread, Task<void> task) {
    auto root = runDetached(std::move(task));
    mainThread.post([handle = root.handle] { handle.resume(); });
}

}  // namespace lm::platform
