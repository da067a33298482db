#include "LanternmoorPro/platform/Task.hpp"

namespace lm::platform {

// The frame at the root of one spawned task: it awaits the task and, once that finished, takes
// itself off the scope's list and frees itself.
struct TaskScope::Root {
    struct promise_type : detail::PromiseBase {
        std::list<std::coroutine_handle<>>* roots = nullptr;
        std::list<std::coroutine_handle<>>::iterator place;

        Root get_return_object() noexcept { return Root{std::coroutine_handle<promise_type>::from_promise(*this)}; }
        std::suspend_never final_suspend() noexcept {
            roots->erase(place);
            return {};
        }
        void return_void() noexcept {}
    };
    std::coroutine_handle<promise_type> handle;
};

TaskScope::Root TaskScope::run(Task<void> task) { co_await std::move(task); }

TaskScope::~TaskScope() {
    // Destroying a root destroys the task it awaits and everything that task awaits in turn.
    while (!roots_.empty()) {
        auto root = roots_.front();
        roots_.pop_front();
        root.destroy();
    }
}

void TaskScope::spawn(MainThread& mainThread, Task<void> task) {
    auto root = run(std::move(task));
    root.handle.promise().roots = &roots_;
    root.handle.promise().place = roots_.insert(roots_.end(), root.handle);
    mainThread.post(detail::resumption(root.handle));
}

}  // namespace lm::platform
