// The coroutine runtime: standard C++ only. Everything here runs on the main thread; the only
// cross-thread step is a platform callback that stores its result and posts the resumption.
#pragma once

#include <chrono>
#include <coroutine>
#include <exception>
#include <functional>
#include <optional>
#include <utility>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform {

template <typename T>
class Task;

namespace detail {

struct PromiseBase {
    std::coroutine_handle<> continuation = std::noop_coroutine();

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
            bool await_ready() noexcept { return false; }
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

// Starts `task` on the main thread later and keeps it alive until it finishes; nobody awaits
// or cancels it. Whatever the task needs must live in its own frame (its parameters).
void spawn(MainThread& mainThread, Task<void> task);

// Suspends the calling task for `duration` without blocking the main thread.
inline auto sleepFor(MainThread& mainThread, std::chrono::nanoseconds duration) {
    struct Awaiter {
        MainThread& mainThread;
        std::chrono::nanoseconds duration;
        bool await_ready() noexcept { return false; }
        void await_suspend(std::coroutine_handle<> task) {
            mainThread.postAfter(duration, [task] { task.resume(); });
        }
        void await_resume() noexcept {}
    };
    return Awaiter{mainThread, duration};
}

// Awaits a callback-style platform operation: `start` receives the completion callback, which
// must be called exactly once, from any thread. The task resumes on the main thread.
// Keep the awaiter in a named local and await that: GCC 12 destroys temporaries of a co_await
// operand twice (a lambda with captures is enough to corrupt the heap).
template <typename T>
auto completionOf(MainThread& mainThread, std::function<void(std::function<void(T)>)> start) {
    struct Awaiter {
        MainThread& mainThread;
        std::function<void(std::function<void(T)>)> start;
        std::optional<T> result;

        bool await_ready() noexcept { return false; }
        void await_suspend(std::coroutine_handle<> task) {
            // The awaiter lives in the suspended frame, so it outlives the callback; the
            // result is written before the post that publishes it to the main thread.
            start([this, task](T value) {
                result.emplace(std::move(value));
                mainThread.post([task] { task.resume(); });
            });
        }
        T await_resume() { return std::move(*result); }
    };
    return Awaiter{mainThread, std::move(start), std::nullopt};
}

}  // namespace lm::platform
