// Platform interfaces: standard C++ only. Files, folders, and the three folders the launcher
// works in.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "LanternmoorPro/platform/Error.hpp"

namespace lm::platform {

// A file open for appending.
class FileHandle {
public:
    virtual ~FileHandle() = default;
    virtual Failure write(std::string_view bytes) = 0;
    virtual Failure close() = 0;
};

class FileSystem {
public:
    virtual ~FileSystem() = default;
    virtual bool fileExists(const std::string& path) const = 0;
    // Something exists at the path and the current user may execute it (and it is no folder).
    virtual bool isExecutableFile(const std::string& path) const = 0;
    // Creates the folder and any missing parents with `mode`; an existing folder is fine.
    virtual Failure createDirectories(const std::string& path, unsigned mode) = 0;
    virtual Failure setMode(const std::string& path, unsigned mode) = 0;
    // Creates an empty file with `mode`; one that exists already is fine and stays as it is.
    virtual Failure createFile(const std::string& path, unsigned mode) = 0;
    // Opens an existing file for appending, never truncated: every write lands at its end,
    // whoever else writes to it.
    virtual Result<std::shared_ptr<FileHandle>> openForWriting(const std::string& path) = 0;
};

// Absolute paths without a trailing slash.
class Folders {
public:
    virtual ~Folders() = default;
    virtual std::optional<std::string> resourcesFolder() const = 0;
    virtual std::vector<std::string> applicationSupportFolders() const = 0;
    virtual std::string homeFolder() const = 0;
};

}  // namespace lm::platform
