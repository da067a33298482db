#include "fake/FakePlatform.hpp"

#include <algorithm>
#include <regex>

namespace lm::fake {

namespace {
void note(Journal* journal, std::string entry) {
    if (journal) journal->push_back(std::move(entry));
}
}  // namespace

// ---- main thread ---------------------------------------------------------------------------

void FakeMainThread::post(std::function<void()> task) { ready_.push_back(std::move(task)); }

void FakeMainThread::postAfter(std::chrono::nanoseconds delay, std::function<void()> task) {
    auto due = now_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(delay);
    timers_.push_back({due, sequence_++, std::move(task)});
}

bool FakeMainThread::runOne() {
    if (ready_.empty()) return false;
    auto task = std::move(ready_.front());
    ready_.pop_front();
    running_ = true;
    task();
    running_ = false;
    return true;
}

void FakeMainThread::runReady() {
    while (runOne()) {
    }
}

void FakeMainThread::runUntil(std::chrono::system_clock::time_point end) {
    for (;;) {
        runReady();
        auto next = std::min_element(timers_.begin(), timers_.end(), [](const Timer& a, const Timer& b) {
            return a.due != b.due ? a.due < b.due : a.sequence < b.sequence;
        });
        if (next == timers_.end() || next->due > end) return;
        now_ = std::max(now_, next->due);
        ready_.push_back(std::move(next->task));
        timers_.erase(next);
    }
}

void FakeMainThread::runUntilIdle(std::chrono::nanoseconds limit) {
    runUntil(now_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(limit));
}

void FakeMainThread::runFor(std::chrono::nanoseconds duration) {
    auto end = now_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(duration);
    runUntil(end);
    now_ = end;
}

// ---- application ---------------------------------------------------------------------------

int FakeApplication::run() {
    note(journal_, "launched");
    finishLaunching();
    return 0;
}

void FakeApplication::terminate() {
    ++terminateRequests;
    note(journal_, "terminate");
    ApplicationBase::terminate();
}

void FakeApplication::replyToApplicationShouldTerminate(bool shouldTerminate) {
    note(journal_, shouldTerminate ? "reply yes" : "reply no");
    ApplicationBase::replyToApplicationShouldTerminate(shouldTerminate);
}

void FakeApplication::endEventLoop() { note(journal_, "ended"); }

// ---- processes -----------------------------------------------------------------------------

FakeChildProcess::FakeChildProcess(FakeProcesses& owner, platform::ProcessConfiguration configuration,
                                   ScriptedProcess script, std::int32_t pid)
    : configuration(std::move(configuration)), owner_(owner), script_(std::move(script)), pid_(pid) {}

Failure FakeChildProcess::start() {
    if (script_.startError) return script_.startError;
    started_ = true;
    running_ = true;
    note(owner_.journal_, "start " + configuration.executable);
    if (script_.exitAfter) endAfter(*script_.exitAfter, script_.exitStatus);
    return std::nullopt;
}

void FakeChildProcess::endAfter(std::chrono::nanoseconds delay, int status) {
    if (!owner_.mainThread_) return;
    owner_.mainThread_->postAfter(delay, [self = weak_from_this(), status] {
        if (auto child = self.lock()) child->exit(status);
    });
}

void FakeChildProcess::exit(int status) {
    if (!running_) return;
    running_ = false;
    ended_ = true;
    status_ = status;
    if (handler_) handler_(pid_);
}

void FakeChildProcess::terminate() {
    if (!running_) return;
    note(owner_.journal_, "SIGTERM " + std::to_string(pid_));
    if (!script_.ignoresTerminate) endAfter(script_.terminateDelay, 128 + 15);
}

void FakeChildProcess::kill() {
    if (!running_) return;
    note(owner_.journal_, "SIGKILL " + std::to_string(pid_));
    exit(128 + 9);
}

std::shared_ptr<platform::ChildProcess> FakeProcesses::create(platform::ProcessConfiguration configuration) {
    // A script for the program with its first argument wins over one for the program alone,
    // so one node can answer "--version" and also run the service.
    auto found = configuration.arguments.empty()
                     ? scripts.end()
                     : scripts.find(configuration.executable + " " + configuration.arguments.front());
    if (found == scripts.end()) found = scripts.find(configuration.executable);
    ScriptedProcess script;
    if (found != scripts.end())
        script = found->second;
    else
        script.startError = Error{"POSIX", 2, "没有这个程序。", "posix_spawn"};
    auto child = std::make_shared<FakeChildProcess>(*this, std::move(configuration), script, nextPid_++);
    created.push_back(child);
    return child;
}

int FakeProcesses::running() const {
    return static_cast<int>(std::count_if(created.begin(), created.end(), [](auto& c) { return c->isRunning(); }));
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
    Failure seekToEnd() override {
        if (auto failure = files_.failures.find("seek"); failure != files_.failures.end()) return failure->second;
        position_ = files_.nodes[path_].content.size();
        return std::nullopt;
    }
    Failure write(std::string_view bytes) override {
        if (auto failure = files_.failures.find("write"); failure != files_.failures.end()) return failure->second;
        auto& content = files_.nodes[path_].content;
        content.replace(position_, std::min(bytes.size(), content.size() - position_), bytes);
        position_ += bytes.size();
        return std::nullopt;
    }
    Failure close() override {
        if (!open_) return std::nullopt;
        open_ = false;
        --files_.openHandles;
        if (auto failure = files_.failures.find("close"); failure != files_.failures.end()) return failure->second;
        return std::nullopt;
    }
    bool isOpen() const { return open_; }

private:
    FakeFileSystem& files_;
    std::string path_;
    std::size_t position_ = 0;
    bool open_ = true;
};

std::string parentOf(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

}  // namespace

bool FakeFileSystem::isExecutableFile(const std::string& path) const {
    auto node = nodes.find(path);
    return node != nodes.end() && !node->second.isDirectory && (node->second.mode & 0111) != 0;
}

Failure FakeFileSystem::createDirectories(const std::string& path, unsigned mode) {
    if (auto failure = failures.find("createDirectories"); failure != failures.end()) return failure->second;
    for (auto folder = path; !folder.empty(); folder = parentOf(folder)) {
        auto node = nodes.find(folder);
        if (node != nodes.end() && !node->second.isDirectory)
            return Error{"POSIX", 17, "已有同名的项目。", "mkdir"};
    }
    for (auto folder = path; !folder.empty(); folder = parentOf(folder))
        if (!nodes.contains(folder)) nodes[folder] = FakeNode{true, mode, {}};
    return std::nullopt;
}

Failure FakeFileSystem::setMode(const std::string& path, unsigned mode) {
    if (auto failure = failures.find("setMode"); failure != failures.end()) return failure->second;
    auto node = nodes.find(path);
    if (node == nodes.end()) return Error{"POSIX", 2, "文件或文件夹不存在。", "chmod"};
    node->second.mode = mode;
    return std::nullopt;
}

bool FakeFileSystem::createFile(const std::string& path, unsigned mode) {
    if (failures.contains("createFile") || nodes.contains(path)) return false;
    nodes[path] = FakeNode{false, mode, {}};
    return true;
}

platform::Result<std::shared_ptr<platform::FileHandle>> FakeFileSystem::openForWriting(const std::string& path) {
    if (auto failure = failures.find("open"); failure != failures.end()) return failure->second;
    if (!nodes.contains(path)) return Error{"POSIX", 2, "文件或文件夹不存在。", "open"};
    return std::shared_ptr<platform::FileHandle>(std::make_shared<FakeFileHandle>(*this, path));
}

void FakeFileSystem::addFile(const std::string& path, std::string content, unsigned mode) {
    if (auto parent = parentOf(path); !parent.empty()) (void)createDirectories(parent, 0755);
    nodes[path] = FakeNode{false, mode, std::move(content)};
}

// ---- network -------------------------------------------------------------------------------

void FakeHttp::get(const platform::HttpRequest& request, std::function<void(platform::HttpResult)> done) {
    requests.push_back(request);
    std::optional<Answer> answer;
    if (!answers.empty()) {
        answer = answers.front();
        answers.pop_front();
    } else {
        answer = fallback;
    }
    if (!answer) {
        held.push_back(std::move(done));
        return;
    }
    if (mainThread_ && answer->delay > 0ns) {
        mainThread_->postAfter(answer->delay, [done = std::move(done), result = answer->result] { done(result); });
        return;
    }
    done(answer->result);
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

bool FakeNetwork::loopbackAcceptsConnections(std::uint16_t port) {
    checks.push_back(port);
    return accepting;
}

// ---- the user's surface --------------------------------------------------------------------

bool FakeOpener::open(const std::string& url) {
    opened.push_back(url);
    note(journal_, "open " + url);
    return succeeds;
}

int FakeAlerts::runModal(const platform::Alert& alert) {
    shown.push_back(alert);
    note(journal_, "alert " + alert.title);
    if (whileShown) {
        auto during = std::move(whileShown);
        during();
    }
    int index = 0;
    if (!answers.empty()) {
        index = answers.front();
        answers.pop_front();
    }
    note(journal_, "answered " + std::to_string(index + 1));
    return firstButton + index;
}

void FakeMenuItem::click() {
    if (!enabled || !entry.action) return;
    if (auto receiver = target.lock()) receiver->perform(*entry.action);
}

std::shared_ptr<platform::MenuItem> FakeMenu::makeItem(std::string title, std::optional<platform::MenuAction> action,
                                                       std::string keyEquivalent) {
    return std::make_shared<FakeMenuItem>(FakeMenuEntry{false, std::move(title), action, std::move(keyEquivalent)});
}

void FakeMenu::addItem(std::shared_ptr<platform::MenuItem> item) {
    items.push_back(std::dynamic_pointer_cast<FakeMenuItem>(item));
}

void FakeMenu::addSeparator() { items.push_back(std::make_shared<FakeMenuItem>(FakeMenuEntry{true, {}, {}, {}})); }

std::shared_ptr<platform::StatusItem> FakeStatusBar::statusItem(double length) {
    items.push_back(std::make_shared<FakeStatusItem>(length, itemsHaveButtons));
    return items.back();
}

// ---- environment ---------------------------------------------------------------------------

std::optional<std::string> FakeEnvironment::variable(const std::string& name) const {
    for (auto& [key, value] : variables)
        if (key == name) return value;
    return std::nullopt;
}

void FakeEnvironment::set(const std::string& name, const std::string& value) {
    for (auto& [key, current] : variables)
        if (key == name) {
            current = value;
            return;
        }
    variables.emplace_back(name, value);
}

void FakeEnvironment::unset(const std::string& name) {
    std::erase_if(variables, [&](auto& entry) { return entry.first == name; });
}

}  // namespace lm::fake
