// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <string>

#include "LanternmoorPro/platform/Files.hpp"
#include "LanternmoorPro/platform/posix/System.hpp"

namespace lm::platform::posix {

// A file open for appending.
class PosixFileHandle final : public FileHandle {
public:
    PosixFileHandle(Descriptor descriptor, std::string path)
        : descriptor_(std::move(descriptor)), path_(std::move(path)) {}

    Failure write(std::string_view bytes) override;
    // Closes once; later calls do nothing and report nothing.
    Failure close() override;

private:
    Descriptor descriptor_;
    std::string path_;
};

class PosixFileSystem final : public FileSystem {
public:
    bool fileExists(const std::string& path) const override;
    bool isExecutableFile(const std::string& path) const override;
    Failure createDirectories(const std::string& path, unsigned mode) override;
    Failure setMode(const std::string& path, unsigned mode) override;
    Failure createFile(const std::string& path, unsigned mode) override;
    Result<std::shared_ptr<FileHandle>> openForWriting(const std::string& path) override;

private:
    static Failure createDirectory(const std::string& path, unsigned mode);
};

}  // namespace lm::platform::posix
