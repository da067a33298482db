#include <chrono>
#include <functional>
#include <string>

#include "LanternmoorPro/Launcher.hpp"

namespace lm {
namespace {

using namespace std::chrono_literals;
using Health = LanternmoorLauncher::Health;
using platform::HttpResult;

// Whatever the other end does, a probe ends within about 1.2 s so callers can poll it in a
// loop; a peer that has gone quiet is given up on sooner.
constexpr auto idleLimit = 800ms;
constexpr auto exchangeLimit = 1200ms;
constexpr std::size_t bodyLimit = 4096;

// The tests run in a fixed order; once an HTTP answer came back, every failed test means
// someone else is answering on the port.
Health judge(const HttpResult& result, const platform::Json& json, const std::string& appID) {
    if (result.kind == HttpResult::Kind::transportError) return Health::noResponse;
    if (result.kind == HttpResult::Kind::notHttp) return Health::foreign;
    if (result.status != 200) return Health::foreign;
    if (result.body.size() > bodyLimit) return Health::foreign;
    auto identifier = json.stringMemberOfObject(result.body, "appId");
    if (!identifier) return Health::foreign;
    return *identifier == appID ? Health::ours : Health::foreign;
}

}  // namespace

Task<LanternmoorLauncher::HealthAnswer> LanternmoorLauncher::probeHealthAnswer() {
    // Named, not temporaries inside the co_await: GCC 12 destroys those twice.
    std::function<void(std::function<void(HttpResult)>)> exchange =
        [&http = platform_.http, request = platform::HttpRequest{workspaceURL() + "api/health", idleLimit,
                                                                  exchangeLimit, bodyLimit}](auto done) {
            http.get(request, std::move(done));
        };
    auto reply = platform::completionOf<HttpResult>(platform_.mainThread, std::move(exchange));
    auto result = co_await reply;
    auto health = judge(result, platform_.json, appID);
    if (health != Health::ours) co_return HealthAnswer{health, std::nullopt};
    // The shipped service names its process; an answer that does not is judged on the rest.
    co_return HealthAnswer{health, platform_.json.integerMemberOfObject(result.body, "pid")};
}

Task<LanternmoorLauncher::Health> LanternmoorLauncher::probeHealth() {
    auto answer = co_await probeHealthAnswer();
    co_return answer.health;
}

}  // namespace lm
