#include <chrono>
#include <algorithm>
#include <string>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/ui/Texts.hpp"

namespace lm {
namespace {

constexpr unsigned folderMode = 0700;
constexpr unsigned logMode = 0600;

std::string padded(long long number, int width) {
    auto text = std::to_string(number);
    return std::string(static_cast<std::size_t>(std::max(0, width - static_cast<int>(text.size()))), '0') + text;
}

// ISO 8601 in UTC to the second, worked out from the clock alone: neither the time zone nor
// the C library's notion of local time can change it.
std::string utcTimestamp(std::chrono::system_clock::time_point now) {
    using namespace std::chrono;
    auto seconds = floor<std::chrono::seconds>(now);
    auto day = floor<days>(seconds);
    year_month_day date{day};
    hh_mm_ss time{seconds - day};
    return padded(static_cast<int>(date.year()), 4) + "-" + padded(static_cast<unsigned>(date.month()), 2) + "-" +
           padded(static_cast<unsigned>(date.day()), 2) + "T" + padded(time.hours().count(), 2) + ":" +
           padded(time.minutes().count(), 2) + ":" + padded(time.seconds().count(), 2) + "Z";
}

}  // namespace

// The stamp starts with a line break so that it always begins a line, whatever the previous
// run's output ended with.
std::string logStamp(std::chrono::system_clock::time_point now) {
    return "\n[" + utcTimestamp(now) + "] Lanternmoor Pro launcher started\n";
}

platform::Result<std::shared_ptr<platform::FileHandle>> LanternmoorLauncher::prepareLog(const FileLocation& folder) {
    auto& files = platform_.files;
    if (auto failure = files.createDirectories(folder.path, folderMode)) return *failure;
    // Also for a folder that already existed: its mode may have been widened since.
    if (auto failure = files.setMode(folder.path, folderMode)) return *failure;
    auto log = folder.appending("server.log").path;
    // Another launcher may create it at the same moment; one that exists already is as good.
    if (auto failure = files.createFile(log, logMode)) {
        return Error{std::string(texts::errorDomain), 1, std::string(texts::logNotCreated), failure->call, failure->cause};
    }
    if (auto failure = files.setMode(log, logMode)) return *failure;
    auto opened = files.openForWriting(log);
    if (!opened) return opened.error();
    auto handle = opened.release();
    // A failed write must not leave the log open: the caller gets no handle to close.
    if (auto failure = handle->write(logStamp(platform_.mainThread.now()))) {
        (void)handle->close();
        return *failure;
    }
    return handle;
}

}  // namespace lm
