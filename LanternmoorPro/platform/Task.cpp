#include "LanternmoorPro/platform/Task.hpp"

#include <memory>
#include <utility>

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

// Owns a root that has not started yet: a main thread that ends without running the start
// frees the task instead of leaking it.
class PendingStart {
public:
    explicit PendingStart(std::coroutine_handle<> handle) : handle_(handle) {}
    PendingStart(PendingStart&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
    PendingStart(const PendingStart&) = delete;
    PendingStart& operator=(const PendingStart&) = delete;
    PendingStart& operator=(PendingStart&&) = delete;
    ~PendingStart() {
        if (handle_) handle_.destroy();
    }
    void operator()() { std::exchange(handle_, {}).resume(); }

private:
    std::coroutine_handle<> handle_;
};

}  // namespace

void spawn(MainThread& mainThread, Task<void> task) {
    auto root = runDetached(std::move(task));
    // std::function needs a copyable target, so the owner travels in a shared_ptr.
    mainThread.post([start = std::make_shared<PendingStart>(root.handle)] { (*start)(); });
}

}  // namespace lm::platform
