#include <algorithm>
#include <charconv>
#include <set>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/Text.hpp"

namespace lm {

using namespace std::chrono_literals;

namespace {

// A candidate that has not answered `--version` by then is no Node.js we can use; a real
// one answers in well under a second even on a loaded machine.
constexpr auto versionProbeLimit = 5s;

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        auto byte = static_cast<unsigned char>(text[i]);
        std::size_t length = byte < 0x80 ? 1 : (byte >> 5) == 0x6 ? 2 : (byte >> 4) == 0xE ? 3 : (byte >> 3) == 0x1E ? 4 : 0;
        if (length == 0 || i + length > text.size()) return false;
        std::uint32_t codePoint = length == 1 ? byte : byte & (0x7F >> length);
        for (std::size_t k = 1; k < length; ++k) {
            auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        static constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (codePoint < smallest[length] || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

std::optional<std::int64_t> decimal(std::string_view piece) {
    // One sign at most: "+" is allowed as well as "-", but not both.
    if (!piece.empty() && piece.front() == '+') {
        piece.remove_prefix(1);
        if (!piece.empty() && piece.front() == '-') return std::nullopt;
    }
    std::int64_t value = 0;
    auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
    if (piece.empty() || error != std::errc() || end != piece.data() + piece.size()) return std::nullopt;
    return value;
}

}  // namespace

std::vector<std::string> searchPathEntries(std::string_view searchPath) {
    std::vector<std::string> entries;
    std::size_t start = 0;
    while (start <= searchPath.size()) {
        auto colon = std::min(searchPath.find(':', start), searchPath.size());
        if (colon > start) entries.emplace_back(searchPath.substr(start, colon - start));
        start = colon + 1;
    }
    return entries;
}

std::vector<std::int64_t> versionNumbers(std::string_view output) {
    std::string text(isValidUtf8(output) ? platform::trimmed(output) : std::string_view());
    std::erase(text, 'v');
    std::vector<std::int64_t> numbers;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto dot = std::min(text.find('.', start), text.size());
        if (auto number = decimal(std::string_view(text).substr(start, dot - start))) numbers.push_back(*number);
        start = dot + 1;
    }
    return numbers;
}

bool versionPasses(const std::vector<std::int64_t>& numbers) {
    if (numbers.size() < 2) return false;
    return numbers[0] >= 23 || (numbers[0] == 22 && numbers[1] > 12);
}

Task<std::optional<std::string>> LanternmoorLauncher::findNode() {
    std::vector<std::string> candidates{"/opt/homebrew/bin/node", "/usr/local/bin/node"};
    for (auto& entry : searchPathEntries(searchPath())) candidates.push_back(entry + "/node");
    // Compared as plain text: "/usr/local/bin//node" is tried again on purpose.
    std::set<std::string> tried;
    for (auto& candidate : candidates) {
        if (!tried.insert(candidate).second) continue;
        const bool supported = co_await supportedNode(candidate);
        if (supported) co_return candidate;
    }
    co_return std::nullopt;
}

Task<bool> LanternmoorLauncher::supportedNode(std::string candidate) {
    if (!platform_.files.isExecutableFile(candidate)) co_return false;

    platform::ProcessConfiguration configuration;
    configuration.executable = candidate;
    configuration.arguments = {"--version"};
    configuration.standardOutput = platform::Stream::pipe();
    configuration.standardError = platform::Stream::nullDevice();
    auto process = platform_.processes.create(std::move(configuration));
    auto& mainThread = platform_.mainThread;

    // Exactly one of the two paths resumes us: the failed start, or the end of the process,
    // which the time limit forces when the candidate never ends by itself.
    std::optional<platform::MainThread::TimerId> limit;
    auto probe = platform::completionOf<bool>(mainThread, [&](std::function<void(bool)> done) {
        process->setTerminationHandler([done](std::int32_t) { done(true); });
        if (auto failure = process->start()) {
            process->setTerminationHandler({});
            return done(false);
        }
        limit = mainThread.postAfter(versionProbeLimit, [weak = std::weak_ptr(process)] {
            if (auto hung = weak.lock(); hung && hung->isRunning()) hung->kill();
        });
    });
    const bool ended = co_await probe;
    if (limit) mainThread.cancel(*limit);
    if (!ended || process->terminationStatus() != 0) co_return false;
    auto output = process->capturedOutput();
    if (output.size() > platform::ChildProcess::capturedOutputLimit) co_return false;
    co_return versionPasses(versionNumbers(output));
}

}  // namespace lm
