// Platform interfaces and the coroutine runtime: standard C++ only, nothing of the launcher but what it hands in.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace lm::platform {

// The one error type: every failure that can reach the user carries a domain, a code
// and a description that can be shown as it is. Returned, never thrown.
struct [[nodiscard]] Error {
    std::string domain;
    int code = 0;
    std::string description;
    // The call that failed ("mkdir", "posix_spawn", ...) and the errno it gave: for people
    // reading a bug report, never shown to the user.
    std::string call;
    int cause = 0;

    // The platform's own error for a failed system call on `subject` (a path, a program).
    static Error fromSyscall(std::string call, int errnum, const std::string& subject);

    friend bool operator==(const Error&, const Error&) = default;
};

// A value or the error that prevented it.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Result(Error error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

    bool hasValue() const { return state_.index() == 0; }
    explicit operator bool() const { return hasValue(); }
    T& value() { return std::get<0>(state_); }
    const T& value() const { return std::get<0>(state_); }
    const Error& error() const { return std::get<1>(state_); }
    T release() { return std::move(std::get<0>(state_)); }

private:
    std::variant<T, Error> state_;
};

// The outcome of an operation without a value: true when it failed, and then the error.
class [[nodiscard]] Failure {
public:
    Failure() = default;
    Failure(std::nullopt_t) {}                           // NOLINT(google-explicit-constructor)
    Failure(Error error) : error_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

    explicit operator bool() const { return error_.has_value(); }
    const Error& operator*() const { return *error_; }
    const Error* operator->() const { return &*error_; }

private:
    std::optional<Error> error_;
};

}  // namespace lm::platform
