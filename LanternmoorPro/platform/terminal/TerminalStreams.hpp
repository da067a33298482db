// The terminal surface, for machines without a display: standard input and output in place of
// a tray and dialogs. Qt's event loop and POSIX only; nothing of the core but its interfaces.
#pragma once

#include <QEventLoop>
#include <QSocketNotifier>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace lm::platform::terminal {

// Whole lines, written at once with no buffer in between, so whoever reads the other end of
// a pipe sees each item as soon as it happens. A reader that went away costs the lines that
// followed, nothing else.
class TerminalOutput {
public:
    explicit TerminalOutput(int descriptor) : descriptor_(descriptor) {}
    // Text with line breaks becomes several lines.
    void writeLine(std::string_view text);

private:
    int descriptor_;
};

// Lines from a descriptor, read only when the event loop says some are there, so the main
// thread never blocks on them. Lines go to whoever waits for an answer; when nobody does,
// to the line handler. At end of input the reader stops for good. A line is kept to its first
// lineLimit bytes and the rest of it is dropped, so neither memory nor work grows with it.
class TerminalInput {
public:
    static constexpr std::size_t lineLimit = 4096;

    // The descriptor stays the caller's.
    explicit TerminalInput(int descriptor);
    ~TerminalInput();
    TerminalInput(const TerminalInput&) = delete;
    TerminalInput& operator=(const TerminalInput&) = delete;

    void setLineHandler(std::function<void(const std::string&)> handler);
    // Serves the event loop until a line comes; none at end of input, or when the event loop
    // ended meanwhile.
    std::optional<std::string> awaitLine();

private:
    void onReadable();
    void readAvailable();
    void accept(std::string_view bytes);
    void offerLines();
    std::optional<std::string> takeLine();
    void updateNotifier();

    int descriptor_;
    std::string buffer_;
    std::size_t unfinished_ = 0;  // bytes of the last line in the buffer, which has no end yet
    bool closed_ = false;
    std::unique_ptr<QSocketNotifier> notifier_;
    std::function<void(const std::string&)> lineHandler_;
    QEventLoop* waiting_ = nullptr;
};

}  // namespace lm::platform::terminal
