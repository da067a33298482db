#include "LanternmoorPro/platform/posix/PosixEnvironment.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace lm::platform::posix {
namespace {

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string passwordDatabaseHome() {
    const auto* entry = ::getpwuid(::getuid());
    if (entry == nullptr || entry->pw_dir == nullptr || *entry->pw_dir == '\0') return "/";
    return entry->pw_dir;
}

}  // namespace

std::optional<std::string> PosixEnvironment::variable(const std::string& name) const {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

EnvironmentVariables PosixEnvironment::all() const {
    EnvironmentVariables variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        auto equals = text.find('=');
        // An entry without "=" names no variable that getenv could find.
        if (equals == std::string_view::npos) continue;
        variables.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
    return variables;
}

std::optional<std::string> PosixFolders::resourcesFolder() const {
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) return std::nullopt;
    auto folder = (executable.parent_path() / ".." / "share" / "lanternmoor-pro").lexically_normal();
    return withoutTrailingSlash(folder.string());
}

std::vector<std::string> PosixFolders::applicationSupportFolders() const {
    // A relative XDG_DATA_HOME is invalid by the XDG rules and is ignored, as they ask.
    auto dataHome = environment_.variable("XDG_DATA_HOME");
    if (dataHome && dataHome->starts_with('/')) return {withoutTrailingSlash(*dataHome)};
    auto home = homeFolder();
    return {(home == "/" ? std::string() : home) + "/.local/share"};
}

std::string PosixFolders::homeFolder() const {
    auto home = environment_.variable("HOME");
    if (home && !home->empty()) return withoutTrailingSlash(*home);
    return withoutTrailingSlash(passwordDatabaseHome());
}

}  // namespace lm::platform::posix
