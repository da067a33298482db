#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/Text.hpp"

namespace lm {

namespace {

std::string percentEncoded(std::string_view path) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string encoded;
    for (unsigned char byte : path) {
        bool plain = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
                     byte == '-' || byte == '.' || byte == '_' || byte == '~' || byte == '/';
        if (plain) {
            encoded += static_cast<char>(byte);
        } else {
            encoded += '%';
            encoded += hex[byte >> 4];
            encoded += hex[byte & 0xF];
        }
    }
    return encoded;
}

}  // namespace

FileLocation FileLocation::appending(const std::string& component, bool directory) const {
    return {path == "/" ? "/" + component : path + "/" + component, directory};
}

std::string FileLocation::url() const {
    return "file://" + percentEncoded(path) + (isDirectory && path != "/" ? "/" : "");
}

std::string LanternmoorLauncher::workspaceURL() const { return "http://127.0.0.1:" + std::to_string(port) + "/"; }

std::optional<FileLocation> LanternmoorLauncher::resourcesFolder() const {
    auto folder = platform_.folders.resourcesFolder();
    if (!folder) return std::nullopt;
    return FileLocation{platform::withoutTrailingSlashes(*folder), true};
}

std::optional<FileLocation> LanternmoorLauncher::appRoot() const {
    auto resources = resourcesFolder();
    if (!resources) return std::nullopt;
    return resources->appending("app", true);
}

std::optional<FileLocation> LanternmoorLauncher::applicationSupportFolder() const {
    auto folders = platform_.folders.applicationSupportFolders();
    if (folders.empty()) return std::nullopt;
    return FileLocation{platform::withoutTrailingSlashes(folders.front()), true};
}

std::optional<FileLocation> LanternmoorLauncher::dataFolderURL() const {
    auto folder = applicationSupportFolder();
    if (!folder) return std::nullopt;
    return folder->appending("Lanternmoor Pro", true);
}

std::optional<FileLocation> LanternmoorLauncher::logURL() const {
    auto folder = dataFolderURL();
    if (!folder) return std::nullopt;
    return folder->appending("server.log");
}

std::string LanternmoorLauncher::homeFolderPath() const { return platform::withoutTrailingSlashes(platform_.folders.homeFolder()); }

std::string LanternmoorLauncher::logPath() const {
    auto log = logURL();
    return log ? log->path : std::string();
}

}  // namespace lm
