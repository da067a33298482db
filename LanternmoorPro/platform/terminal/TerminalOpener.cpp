#include "LanternmoorPro/platform/terminal/TerminalOpener.hpp"

#include <algorithm>

namespace lm::platform::terminal {
namespace {

std::vector<std::string> words(std::string_view command) {
    std::vector<std::string> found;
    constexpr std::string_view blanks = " \t";
    for (auto start = command.find_first_not_of(blanks); start != std::string_view::npos;
         start = command.find_first_not_of(blanks, start)) {
        const auto end = std::min(command.find_first_of(blanks, start), command.size());
        found.emplace_back(command.substr(start, end - start));
        start = end;
    }
    return found;
}

// Whether the word named the URL.
bool substitute(std::string& word, const std::string& url) {
    std::string result;
    bool named = false;
    for (std::size_t at = 0; at < word.size(); ++at) {
        if (word[at] == '%' && at + 1 < word.size() && (word[at + 1] == 's' || word[at + 1] == '%')) {
            named = named || word[at + 1] == 's';
            result += word[at + 1] == 's' ? url : "%";
            ++at;
        } else {
            result += word[at];
        }
    }
    word = std::move(result);
    return named;
}

}  // namespace

std::vector<std::vector<std::string>> browserCommands(std::string_view setting, const std::string& url,
                                                      const std::function<bool(const std::string&)>& isExecutableFile) {
    std::vector<std::vector<std::string>> commands;
    for (std::size_t start = 0; start <= setting.size();) {
        const auto end = std::min(setting.find(':', start), setting.size());
        const std::string entry(setting.substr(start, end - start));
        start = end + 1;
        // Only a path: a bare name is a command to look up on PATH, as a shell would.
        if (entry.find('/') != std::string::npos && isExecutableFile(entry)) {
            commands.push_back({entry, url});
            continue;
        }
        auto command = words(entry);
        if (command.empty()) continue;
        bool named = false;
        for (auto& word : command) named = substitute(word, url) || named;
        if (!named) command.push_back(url);
        commands.push_back(std::move(command));
    }
    return commands;
}

TerminalOpener::TerminalOpener(TerminalOutput& output, Processes& processes, const FileSystem& files,
                               std::optional<std::string> browser)
    : output_(output), processes_(processes), files_(files), browser_(std::move(browser)) {
    if (browser_ && browser_->empty()) browser_.reset();
}

bool TerminalOpener::open(const std::string& url) {
    output_.writeLine("→ " + url);
    if (!browser_) return true;
    const auto isExecutableFile = [this](const std::string& path) { return files_.isExecutableFile(path); };
    for (auto& command : browserCommands(*browser_, url, isExecutableFile)) {
        ProcessConfiguration configuration;
        configuration.executable = command.front();
        configuration.searchPath = true;
        configuration.arguments.assign(command.begin() + 1, command.end());
        configuration.standardInput = Stream::nullDevice();
        configuration.outlivesLauncher = true;
        // Dropped once started: the spawner still reaps it when it ends.
        if (!processes_.create(std::move(configuration))->start()) return true;
    }
    return false;
}

}  // namespace lm::platform::terminal
