// Text rules that the launcher and its platform pieces share: standard C++ only, each written once.
#pragma once

#include <string>
#include <string_view>

namespace lm::platform {

// Without the ASCII blanks around it: space, tab and the line breaks a terminal, an HTTP peer
// or a program's output may leave.
inline std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\n\r\v\f";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// A path as text names a folder without a trailing slash; the root keeps its one slash.
inline std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace lm::platform
