#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "LanternmoorPro/Launcher.hpp"

namespace lm {
namespace {

using namespace std::chrono;

TEST(LogStamp, NamesTheSecondInUtcCutNotRounded) {
    struct Row {
        system_clock::time_point time;
        std::string timestamp;
    };
    const std::vector<Row> rows{
        {sys_days{1970y / January / 1}, "1970-01-01T00:00:00Z"},
        {sys_days{2026y / November / 16} + 20h + 41min + 17s + 999ms, "2026-11-16T20:41:17Z"},
        {sys_days{2024y / February / 29} + 23h + 59min + 59s, "2024-02-29T23:59:59Z"},
        {sys_days{2100y / March / 1} + 1h + 2min + 3s, "2100-03-01T01:02:03Z"},
        // Before the epoch the second still starts at its beginning, not at zero.
        {sys_days{1970y / January / 1} - 500ms, "1969-12-31T23:59:59Z"},
    };
    for (const auto& [time, timestamp] : rows) {
        EXPECT_EQ(logStamp(time), "\n[" + timestamp + "] Lanternmoor Pro launcher started\n");
    }
}

}  // namespace
}  // namespace lm
