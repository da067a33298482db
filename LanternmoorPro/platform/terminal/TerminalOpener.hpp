// The terminal surface, for machines without a display: standard input and output in place of
// a tray and dialogs. Qt's event loop and POSIX only; nothing of the core but its interfaces.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "LanternmoorPro/platform/Files.hpp"
#include "LanternmoorPro/platform/Processes.hpp"
#include "LanternmoorPro/platform/UserInterface.hpp"
#include "LanternmoorPro/platform/terminal/TerminalStreams.hpp"

namespace lm::platform::terminal {

// Prints "→ <url>" so the user can open it by hand. With a browser setting (the user's
// $BROWSER) it also starts the first of its commands that can be started, as the user's own
// program: nobody waits for it or stops it. Opening fails only when none can be started.
class TerminalOpener final : public Opener {
public:
    // An empty setting counts as none.
    TerminalOpener(TerminalOutput& output, Processes& processes, const FileSystem& files, std::optional<std::string> browser);
    bool open(const std::string& url) override;

private:
    TerminalOutput& output_;
    Processes& processes_;
    const FileSystem& files_;
    std::optional<std::string> browser_;
};

// The commands a $BROWSER setting names for `url`, by the convention other programs follow: a
// colon-separated list of commands, each split into words at blanks, in which "%s" stands for
// the URL and "%%" for "%"; a command without "%s" gets the URL as its last word. An entry that
// is the path of an executable file as it stands (blanks and all) is that program, given the URL.
std::vector<std::vector<std::string>> browserCommands(std::string_view setting, const std::string& url,
                                                      const std::function<bool(const std::string&)>& isExecutableFile);

}  // namespace lm::platform::terminal
