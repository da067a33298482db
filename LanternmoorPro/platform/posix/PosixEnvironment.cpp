#include "LanternmoorPro/platform/posix/PosixEnvironment.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "LanternmoorPro/platform/Text.hpp"

extern char** environ;

namespace lm::platform::posix {
namespace {

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
    if (programFolder_.empty()) return std::nullopt;
#if defined(__APPLE__)
    const auto relative = std::filesystem::path("..") / "Resources";
#else
    const auto relative = std::filesystem::path("..") / "share" / "lanternmoor-pro";
#endif
    return withoutTrailingSlashes((std::filesystem::path(programFolder_) / relative).lexically_normal().string());
}

std::vector<std::string> PosixFolders::applicationSupportFolders() const {
#if defined(__APPLE__)
    return {homeFolder() + "/Library/Application Support"};
#else
    // A relative XDG_DATA_HOME is invalid by the XDG rules and is ignored, as they ask.
    auto dataHome = environment_.variable("XDG_DATA_HOME");
    if (dataHome && dataHome->starts_with('/')) return {withoutTrailingSlashes(*dataHome)};
    auto home = homeFolder();
    return {(home == "/" ? std::string() : home) + "/.local/share"};
#endif
}

std::string PosixFolders::homeFolder() const {
    auto home = environment_.variable("HOME");
    if (home && !home->empty()) return withoutTrailingSlashes(*home);
    return withoutTrailingSlashes(passwordDatabaseHome());
}

}  // namespace lm::platform::posix
