// Every text the user can see, in one place, exactly as it must appear.
#pragma once

#include <string>
#include <string_view>

namespace lm::texts {

// The status item and its presentations.
inline constexpr std::string_view statusTitle = "LM";
inline constexpr std::string_view accessibilityLabel = "Lanternmoor Pro";
inline constexpr std::string_view startingToolTip = "Lanternmoor Pro · 正在启动";
inline constexpr std::string_view runningToolTip = "Lanternmoor Pro · 正在本机运行";
inline constexpr std::string_view stoppedToolTip = "Lanternmoor Pro · 服务已停止";

// The menu.
inline constexpr std::string_view menuHeader = "Lanternmoor Pro · 本机工作区";
inline constexpr std::string_view menuOpenWorkspace = "打开研究工作区";
inline constexpr std::string_view menuGuide = "安装与使用说明";
inline constexpr std::string_view menuData = "打开数据文件夹";
inline constexpr std::string_view menuQuit = "退出 Lanternmoor";

// Alert buttons.
inline constexpr std::string_view buttonViewGuide = "查看安装说明";
inline constexpr std::string_view buttonQuit = "退出";
inline constexpr std::string_view buttonOK = "好";

// The alerts, in the order of their catalogue. Three of them name the Mac's own places; on
// other systems they name what the user finds there instead.
inline constexpr std::string_view nodeMissingTitle = "请先安装 Node.js";
inline constexpr std::string_view nodeMissingMessage =
    "Lanternmoor 需要 Node.js 22.13 或更新版本。应用不会自动安装软件。打开安装说明，按其中的官方链接安装后，再重新打开 Lanternmoor。";
inline constexpr std::string_view codexMissingTitle = "请先安装并登录 Codex";
#if defined(__APPLE__)
inline constexpr std::string_view codexMissingMessage =
    "Lanternmoor 需要这台 Mac 上的 Codex。请按安装说明获取官方 Codex，并选择使用你自己的 ChatGPT 账户登录。无需创建或填写 API 密钥。";
#else
inline constexpr std::string_view codexMissingMessage =
    "Lanternmoor 需要这台电脑上的 Codex。请按安装说明获取官方 Codex，并选择使用你自己的 ChatGPT 账户登录。无需创建或填写 API 密钥。";
#endif
inline constexpr std::string_view filesIncompleteTitle = "应用文件不完整";
#if defined(__APPLE__)
inline constexpr std::string_view filesIncompleteMessage =
    "没有找到随应用附带的工作区服务。请重新复制完整的 Lanternmoor Pro.app，再打开。";
#else
inline constexpr std::string_view filesIncompleteMessage =
    "没有找到随应用附带的工作区服务。请重新安装完整的 Lanternmoor Pro，再打开。";
#endif
inline constexpr std::string_view startFailedTitle = "无法启动 Lanternmoor Pro";
// Follows the error's own description; `supportFolder` is the per-user application-support folder.
inline std::string startFailedAdvice([[maybe_unused]] std::string_view supportFolder) {
#if defined(__APPLE__)
    return "\n请确认你的“资源库 / Application Support”文件夹可以写入，然后重新打开。";
#else
    return "\n请确认文件夹“" + std::string(supportFolder) + "”可以写入，然后重新打开。";
#endif
}
inline constexpr std::string_view timedOutTitle = "工作区启动超时";
// The run log's path follows.
inline constexpr std::string_view timedOutMessage = "本机服务未能及时就绪。请重新打开应用；如仍失败，可查看运行日志：\n";
inline constexpr std::string_view notStartedTitle = "工作区没有启动成功";
inline constexpr std::string_view notStartedMessage = "本机服务已停止。请重新打开应用；如仍失败，可查看运行日志：\n";
inline constexpr std::string_view occupiedTitle = "本机地址已被其他程序占用";
// "127.0.0.1:" and the port come first; the text starts with its one blank.
inline constexpr std::string_view occupiedHost = "127.0.0.1:";
inline constexpr std::string_view occupiedMessage =
    " 当前没有返回 Lanternmoor 的服务标识。请先关闭占用该地址的程序，再重新打开 Lanternmoor Pro。应用没有关闭或替换其他程序。";
inline constexpr std::string_view stoppedTitle = "研究工作区已停止";
inline constexpr std::string_view stoppedMessage = "本机服务意外退出。请重新打开 Lanternmoor Pro。\n运行日志：\n";
inline constexpr std::string_view browserTitle = "没有打开浏览器";
inline constexpr std::string_view browserMessageLead = "工作区地址：";
inline constexpr std::string_view browserMessageAdvice = "\n请检查默认浏览器设置，再重新打开应用。";
inline constexpr std::string_view unavailableTitle = "工作区暂时不可用";
inline constexpr std::string_view unavailableMessage = "本机服务没有响应。请退出 Lanternmoor 后重新打开应用。";

// The launcher's own error.
inline constexpr std::string_view errorDomain = "Lanternmoor";
inline constexpr std::string_view logNotCreated = "无法创建本机运行日志。";
// No per-user data folder at all: the platform always has one, so this is a last resort.
inline constexpr std::string_view noDataFolder = "找不到存放应用数据的文件夹。";

}  // namespace lm::texts
