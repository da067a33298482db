// The coroutine runtime: standard C++ only. Everything here runs on the main thread; the only
// cross-thread step is a platform callback that stores its result and posts the resumption.
#pragma once

#include <chrono>
#include <coroutine>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <utility>

#include "LanternmoorPro/platform/MainThread.hpp"

namespace lm::platform {

template <typename T>
class Task;

namespace detail {

// Whether a frame still exists. Whoever resumes a task later (a timer, a platform callback)
// looks here first, so a frame destroyed meanwhile is never touched. Main thread only.
struct FrameLife {
    bool alive = true;
};

struct PromiseBase {
    std::coroutine_handle<> continuation = std::noop_coroutine();
    std::shared_ptr<FrameLife> life = std::make_shared<FrameLife>();

    PromiseBase() = default;
    PromiseBase(const PromiseBase&) = delete;
    PromiseBase& operator=(const PromiseBase&) = delete;
    ~PromiseBase() { life->alive = false; }

    std::suspend_always initial_suspend() noexcept { return {}; }

    struct FinalAwaiter {
        bool await_ready() noexcept { return false; }
        template <typename Promise>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> finished) noexcept {
            return finished.promise().continuation;
        }
        void await_resume() noexcept {}
    };
    FinalAwaiter final_suspend() noexcept { return {}; }

    // The launcher reports failures as values; an exception escaping a task is a bug.
    void unhandled_exception() noexcept { std::terminate(); }
};

template <typename T>
struct Promise : PromiseBase {
    std::optional<T> value;
    Task<T> get_return_object() noexcept;
    template <typename U>
    void return_value(U&& result) { value.emplace(std::forward<U>(result)); }
    T take() { return std::move(*value); }
};

template <>
struct Promise<void> : PromiseBase {
    Task<void> get_return_object() noexcept;
    void return_void() noexcept {}
    void take() noexcept {}
};

// Resumes the suspended task on the main thread, unless its frame is gone by then.
template <typename P>
auto resumption(std::coroutine_handle<P> task) {
    return [life = task.promise().life, task] {
        if (life->alive) task.resume();
    };
}

}  // namespace detail

// A lazy task: the body starts only when the task is awaited (or spawned), and the frame is
// owned by the Task object until it finishes. Completion resumes the awaiting coroutine
// directly (symmetric transfer), so deep await chains never grow the stack.
template <typename T = void>
class [[nodiscard]] Task {
public:
    using promise_type = detail::Promise<T>;
    using Handle = std::coroutine_handle<promise_type>;

    explicit Task(Handle handle) noexcept : handle_(handle) {}
    Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, {});
        }
        return *this;
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() { reset(); }

    auto operator co_await() && noexcept {
        struct Awaiter {
            Handle handle;
            // A task that was moved from has no body to run; saying so beats a null dereference.
            bool await_ready() noexcept {
                if (handle) return false;
                std::fputs("lanternmoor: a task was awaited after it had been moved from\n", stderr);
                std::abort();
            }
            std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting) noexcept {
                handle.promise().continuation = awaiting;
                return handle;
            }
            T await_resume() { return handle.promise().take(); }
        };
        return Awaiter{handle_};
    }

private:
    void reset() noexcept {
        if (handle_) handle_.destroy();
        handle_ = {};
    }
    Handle handle_;
};

namespace detail {
template <typename T>
Task<T> Promise<T>::get_return_object() noexcept {
    return Task<T>{std::coroutine_handle<Promise<T>>::from_promise(*this)};
}
inline Task<void> Promise<void>::get_return_object() noexcept {
    return Task<void>{std::coroutine_handle<Promise<void>>::from_promise(*this)};
}
}  // namespace detail

// Owns the tasks started through it; nobody awaits or cancels them. Each starts on the main
// thread later and frees itself when it finishes; one still suspended when the scope goes is
// destroyed with it, frame and all, and whatever would have resumed it finds it gone.
class TaskScope {
public:
    TaskScope() = default;
    TaskScope(const TaskScope&) = delete;
    TaskScope& operator=(const TaskScope&) = delete;
    ~TaskScope();

    void spawn(MainThread& mainThread, Task<void> task);
    std::size_t unfinished() const { return roots_.size(); }

private:
    struct Root;
    static Root run(Task<void> task);
    std::list<std::coroutine_handle<>> roots_;
};

namespace detail {

struct SleepAwaiter {
    MainThread& mainThread;
    std::chrono::nanoseconds duration;
    bool await_ready() noexcept { return false; }
    template <typename P>
    void await_suspend(std::coroutine_handle<P> task) {
        mainThread.postAfter(duration, resumption(task));
    }
    void await_resume() noexcept {}
};

template <typename T>
struct CompletionAwaiter {
    MainThread& mainThread;
    std::function<void(std::function<void(T)>)> start;
    // Shared with the callback, which may come after the frame is gone.
    std::shared_ptr<std::optional<T>> result = std::make_shared<std::optional<T>>();

    bool await_ready() noexcept { return false; }
    template <typename P>
    void await_suspend(std::coroutine_handle<P> task) {
        // The result is written before the post that publishes it to the main thread.
        start([&mainThread = mainThread, result = result, resume = resumption(task)](T value) {
            result->emplace(std::move(value));
            mainThread.post(resume);
        });
    }
    T await_resume() { return std::move(**result); }
};

}  // namespace detail

// Suspends the calling task for `duration` without blocking the main thread.
inline detail::SleepAwaiter sleepFor(MainThread& mainThread, std::chrono::nanoseconds duration) {
    return {mainThread, duration};
}

// Awaits a callback-style platform operation: `start` receives the completion callback, which
// must be called exactly once, from any thread. The task resumes on the main thread.
// Keep the awaiter in a named local and await that: GCC 12 destroys temporaries of a co_await
// operand twice (a lambda with captures is enough to corrupt the heap).
template <typename T>
detail::CompletionAwaiter<T> completionOf(MainThread& mainThread, std::function<void(std::function<void(T)>)> start) {
    return {mainThread, std::move(start)};
}

}  // namespace lm::platform
