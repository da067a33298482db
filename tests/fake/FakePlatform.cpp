#include "fake/FakePlatform.hpp"

#include <algorithm>
#include <regex>

namespace lm::fake {

// ---- main thread ---------------------------------------------------------------------------

void FakeMainThread::runReady() {
    while (!ready_.empty()) {
        auto task = std::move(ready_.front());
        ready_.pop_front();
        running_ = true;
        task();
        running_ = false;
    }
}

FakeMainThread::TimePoint FakeMainThread::runUntil(TimePoint end) {
    for (runReady(); !timers_.empty() && timers_.begin()->first <= end; runReady()) {
        now_ = std::max(now_, timers_.begin()->first);
        post(std::move(timers_.begin()->second));
        timers_.erase(timers_.begin());
    }
    return end;
}

// ---- processes -----------------------------------------------------------------------------

Failure FakeChildProcess::start() {
    if (script_.startError) return *script_.startError;
    started_ = running_ = true;
    owner_.note("start " + configuration.executable);
    if (script_.exitAfter) exitAfter(*script_.exitAfter, script_.exitStatus);
    return std::nullopt;
}

void FakeChildProcess::exitAfter(std::chrono::nanoseconds delay, int status) {
    if (!owner_.mainThread) return;
    owner_.mainThread->postAfter(delay, [self = weak_from_this(), status] {
        if (auto child = self.lock()) child->exit(status);
    });
}

void FakeChildProcess::exit(int status) {
    if (!running_) return;
    running_ = false;
    status_ = status;
    if (handler_) handler_(pid_);
}

void FakeChildProcess::terminate() {
    if (!running_) return;
    owner_.note("SIGTERM " + std::to_string(pid_));
    if (!script_.ignoresTerminate) exitAfter(0ns, 128 + 15);
}

void FakeChildProcess::kill() {
    if (!running_) return;
    owner_.note("SIGKILL " + std::to_string(pid_));
    exit(128 + 9);
}

std::shared_ptr<platform::ChildProcess> FakeProcesses::create(platform::ProcessConfiguration configuration) {
    // A script for the program with its first argument wins over one for the program alone,
    // so one node can answer "--version" and also run the service.
    const auto& program = configuration.executable;
    auto found = configuration.arguments.empty() ? scripts.end()
                                                 : scripts.find(program + " " + configuration.arguments.front());
    if (found == scripts.end()) found = scripts.find(program);
    auto script = found != scripts.end()
                      ? found->second
                      : ScriptedProcess{.startError = Error{"POSIX", 2, "没有这个程序。", "posix_spawn"}};
    return created.emplace_back(std::make_shared<FakeChildProcess>(*this, std::move(configuration), script, nextPid++));
}

int FakeProcesses::running() const {
    return static_cast<int>(std::ranges::count_if(created, [](auto& child) { return child->isRunning(); }));
}

// ---- files ---------------------------------------------------------------------------------

namespace {

class FakeFileHandle final : public platform::FileHandle {
public:
    FakeFileHandle(FakeFileSystem& files, std::string path) : files_(files), path_(std::move(path)) {
        ++files_.openHandles;
    }
    ~FakeFileHandle() override {
        if (open_) --files_.openHandles;
    }
    Failure write(std::string_view bytes) override {
        if (auto failure = files_.failing("write")) return failure;
        files_.nodes[path_].content += bytes;
        return std::nullopt;
    }
    Failure close() override {
        if (!open_) return std::nullopt;
        open_ = false;
        --files_.openHandles;
        return files_.failing("close");
    }

private:
    FakeFileSystem& files_;
    std::string path_;
    bool open_ = true;
};

std::string parentOf(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

}  // namespace

Failure FakeFileSystem::failing(const std::string& operation) const {
    auto failure = failures.find(operation);
    if (failure == failures.end()) return std::nullopt;
    return failure->second;
}

bool FakeFileSystem::isExecutableFile(const std::string& path) const {
    auto node = nodes.find(path);
    return node != nodes.end() && !node->second.isDirectory && (node->second.mode & 0111) != 0;
}

Failure FakeFileSystem::createDirectories(const std::string& path, unsigned mode) {
    if (auto failure = failing("createDirectories")) return failure;
    for (auto folder = path; !folder.empty(); folder = parentOf(folder))
        if (nodes.contains(folder) && !nodes[folder].isDirectory) return Error{"POSIX", 17, "已有同名的项目。", "mkdir"};
    for (auto folder = path; !folder.empty(); folder = parentOf(folder)) nodes.try_emplace(folder, Node{true, mode, {}});
    return std::nullopt;
}

Failure FakeFileSystem::setMode(const std::string& path, unsigned mode) {
    if (auto failure = failing("setMode")) return failure;
    if (!nodes.contains(path)) return Error{"POSIX", 2, "文件或文件夹不存在。", "chmod"};
    nodes[path].mode = mode;
    return std::nullopt;
}

Failure FakeFileSystem::createFile(const std::string& path, unsigned mode) {
    if (auto failure = failing("createFile")) return failure;
    nodes.try_emplace(path, Node{false, mode, {}});
    return std::nullopt;
}

platform::Result<std::shared_ptr<platform::FileHandle>> FakeFileSystem::openForWriting(const std::string& path) {
    if (auto failure = failing("open")) return *failure;
    if (!nodes.contains(path)) return Error{"POSIX", 2, "文件或文件夹不存在。", "open"};
    return std::shared_ptr<platform::FileHandle>(std::make_shared<FakeFileHandle>(*this, path));
}

void FakeFileSystem::addFile(const std::string& path, std::string content, unsigned mode) {
    if (auto parent = parentOf(path); !parent.empty()) (void)createDirectories(parent, 0755);
    nodes[path] = Node{false, mode, std::move(content)};
}

// ---- network -------------------------------------------------------------------------------

void FakeHttp::get(const platform::HttpRequest& request, std::function<void(platform::HttpResult)> done) {
    requests.push_back(request);
    auto answer = fallback;
    if (!answers.empty()) {
        answer = answers.front();
        answers.pop_front();
    }
    if (!answer)
        held.push_back(std::move(done));
    else if (mainThread_ && answer->delay > 0ns)
        mainThread_->postAfter(answer->delay, [done = std::move(done), result = answer->result] { done(result); });
    else
        done(answer->result);
}

std::optional<std::int64_t> FakeJson::integerMemberOfObject(std::string_view text, std::string_view key) const {
    static const std::regex number(R"xx("([^"]*)"\s*:\s*(-?[0-9]+))xx");
    std::string body(text);
    for (auto it = std::sregex_iterator(body.begin(), body.end(), number); it != std::sregex_iterator(); ++it)
        if ((*it)[1].str() == key) return std::stoll((*it)[2].str());
    return std::nullopt;
}

std::optional<std::string> FakeJson::stringMemberOfObject(std::string_view text, std::string_view key) const {
    static const std::regex object(R"(\s*\{(\s*"[^"]*"\s*:\s*"[^"]*"\s*,?)*\}\s*)");
    static const std::regex member(R"xx("([^"]*)"\s*:\s*"([^"]*)")xx");
    std::string body(text);
    if (!std::regex_match(body, object)) return std::nullopt;
    for (auto it = std::sregex_iterator(body.begin(), body.end(), member); it != std::sregex_iterator(); ++it)
        if ((*it)[1].str() == key) return (*it)[2].str();
    return std::nullopt;
}

// ---- the user's surface --------------------------------------------------------------------

int FakeAlerts::runModal(const platform::Alert& alert) {
    shown.push_back(alert);
    note("alert " + alert.title);
    if (auto during = std::exchange(whileShown, nullptr)) during();
    int index = answers.empty() ? 0 : answers.front();
    if (!answers.empty()) answers.pop_front();
    note("answered " + std::to_string(index + 1));
    return firstButton + index;
}

// ---- environment ---------------------------------------------------------------------------

std::optional<std::string> FakeEnvironment::variable(const std::string& name) const {
    auto found = std::ranges::find(variables, name, &platform::EnvironmentVariables::value_type::first);
    return found == variables.end() ? std::nullopt : std::optional(found->second);
}

void FakeEnvironment::set(const std::string& name, const std::string& value) {
    auto found = std::ranges::find(variables, name, &platform::EnvironmentVariables::value_type::first);
    if (found == variables.end()) variables.emplace_back(name, value);
    else found->second = value;
}

}  // namespace lm::fake
