// Real platform pieces on POSIX: they include nothing of the core but its platform interfaces.
#pragma once

#include <string>

#include "LanternmoorPro/platform/Platform.hpp"

namespace lm::platform::posix {

// A file open for writing. Its descriptor is what a child process gets as an output stream,
// so both streams given the same handle share one file position and land in write order.
class PosixFileHandle final : public FileHandle {
public:
    PosixFileHandle(int descriptor, std::string path);
    ~PosixFileHandle() override;
    PosixFileHandle(const PosixFileHandle&) = delete;
    PosixFileHandle& operator=(const PosixFileHandle&) = delete;

    Failure write(std::string_view bytes) override;
    // Closes once; later calls do nothing and report nothing.
    Failure close() override;

    // -1 once closed.
    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
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
