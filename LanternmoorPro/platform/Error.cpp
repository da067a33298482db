#include "LanternmoorPro/platform/Error.hpp"

#include <cerrno>
#include <cstring>
#include <system_error>

namespace lm::platform {
namespace {

// The reasons a user can act on, in the user's language; anything rarer keeps the C
// library's wording so that it can still be looked up.
std::string reason(int errnum) {
    switch (static_cast<std::errc>(errnum)) {
    case std::errc::permission_denied:
    case std::errc::operation_not_permitted: return "没有访问权限";
    case std::errc::read_only_file_system: return "所在磁盘是只读的";
    case std::errc::no_space_on_device: return "磁盘空间不足";
    case std::errc::file_exists: return "已有同名的项目";
    case std::errc::not_a_directory: return "路径中有一项不是文件夹";
    case std::errc::is_a_directory: return "这是一个文件夹";
    case std::errc::no_such_file_or_directory: return "文件或文件夹不存在";
    case std::errc::filename_too_long: return "路径太长";
    case std::errc::too_many_files_open:
    case std::errc::too_many_files_open_in_system: return "打开的文件太多";
    case std::errc::executable_format_error: return "不是可执行的程序";
    default: return std::strerror(errnum);
    }
}

std::string action(const std::string& call) {
    if (call == "mkdir") return "无法创建文件夹";
    if (call == "chmod" || call == "fchmod") return "无法设置权限：";
    if (call == "open") return "无法打开文件";
    if (call == "write") return "无法写入文件";
    if (call == "close") return "无法关闭文件";
    if (call == "posix_spawn" || call == "pipe" || call == "pthread_create") return "无法启动程序";
    return "操作失败：";
}

}  // namespace

Error Error::fromSyscall(std::string call, int errnum, const std::string& subject) {
    auto description = action(call) + "“" + subject + "”：" + reason(errnum) + "。";
    return Error{"POSIX", errnum, std::move(description), std::move(call), errnum};
}

}  // namespace lm::platform
