// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
// The one door to the system calls the other POSIX pieces share: each is wrapped once, here.
#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "LanternmoorPro/platform/Error.hpp"

namespace lm::platform::posix {

// Owns one descriptor and closes it once.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::exchange(other.descriptor_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ >= 0; }
    void reset();
    // Hands the descriptor over, unclosed; this one holds none then.
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_ = -1;
};

// Calls `call` again for as long as a signal interrupts it. Every system call that can be
// interrupted goes through here, but close: Linux releases the descriptor even then.
template <typename Call>
auto retryingInterrupted(Call call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

// Writes all of `bytes`, however many writes that takes. `subject` names the file in the error.
Failure writeAll(int descriptor, std::string_view bytes, const std::string& subject);

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;
};

// Both ends close on exec; the reading end, or both, may be made non-blocking.
enum class NonBlocking { none, readEnd, bothEnds };
Result<Pipe> makePipe(NonBlocking nonBlocking);

// A TCP socket that closes on exec and never blocks.
Result<Descriptor> makeStreamSocket();

// A process started with some of its standard descriptors closed would hand their numbers to
// the first files it opens, and reads or writes meant for a terminal would reach those.
void ensureStandardDescriptors();

}  // namespace lm::platform::posix
