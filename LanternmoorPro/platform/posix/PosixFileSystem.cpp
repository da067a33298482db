#include "LanternmoorPro/platform/posix/PosixFileSystem.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>


namespace lm::platform::posix {

Failure PosixFileHandle::write(std::string_view bytes) { return writeAll(descriptor_.get(), bytes, path_); }

Failure PosixFileHandle::close() {
    if (!descriptor_) return std::nullopt;
    // Linux releases the descriptor even when close reports EINTR, so it is never retried.
    if (::close(descriptor_.release()) != 0 && errno != EINTR) return Error::fromSyscall("close", errno, path_);
    return std::nullopt;
}

bool PosixFileSystem::fileExists(const std::string& path) const {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool PosixFileSystem::isExecutableFile(const std::string& path) const {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    return ::access(path.c_str(), X_OK) == 0;
}

Failure PosixFileSystem::createDirectories(const std::string& path, unsigned mode) {
    if (path.empty()) return Error::fromSyscall("mkdir", ENOENT, path);
    for (auto end = path.find('/', 1);; end = path.find('/', end + 1)) {
        auto prefix = path.substr(0, end);
        // A doubled or trailing slash names the folder just handled.
        if (prefix.back() != '/') {
            if (auto failure = createDirectory(prefix, mode)) return failure;
        }
        if (end == std::string::npos) return std::nullopt;
    }
}

Failure PosixFileSystem::createDirectory(const std::string& path, unsigned mode) {
    if (::mkdir(path.c_str(), mode) == 0) {
        // mkdir applies the umask; only chmod gives the folder exactly `mode`.
        if (::chmod(path.c_str(), mode) != 0) return Error::fromSyscall("chmod", errno, path);
        return std::nullopt;
    }
    auto error = errno;
    struct stat info {};
    if (error == EEXIST && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return std::nullopt;
    return Error::fromSyscall("mkdir", error, path);
}

Failure PosixFileSystem::setMode(const std::string& path, unsigned mode) {
    if (::chmod(path.c_str(), mode) != 0) return Error::fromSyscall("chmod", errno, path);
    return std::nullopt;
}

Failure PosixFileSystem::createFile(const std::string& path, unsigned mode) {
    Descriptor file(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode));
    if (!file && errno == EEXIST) return std::nullopt;
    if (!file) return Error::fromSyscall("open", errno, path);
    // open applies the umask; only fchmod gives the file exactly `mode`.
    if (::fchmod(file.get(), mode) != 0) return Error::fromSyscall("fchmod", errno, path);
    return std::nullopt;
}

Result<std::shared_ptr<FileHandle>> PosixFileSystem::openForWriting(const std::string& path) {
    // Appending: another launcher writing to the same log never lands on our bytes, nor we on its.
    Descriptor descriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    if (!descriptor) return Error::fromSyscall("open", errno, path);
    return std::shared_ptr<FileHandle>(std::make_shared<PosixFileHandle>(std::move(descriptor), path));
}

}  // namespace lm::platform::posix
