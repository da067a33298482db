// The launcher on the real network, JSON and main thread, with fake parts for everything the
// probes never touch, and a way to run one of its tasks to the end inside the Qt event loop.
// Shared by the tests and the benchmarks.
#pragma once

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <memory>
#include <optional>

#include "LanternmoorPro/Launcher.hpp"
#include "LanternmoorPro/platform/posix/PosixNetwork.hpp"
#include "LanternmoorPro/platform/qt/QtHttp.hpp"
#include "LanternmoorPro/platform/qt/QtJson.hpp"
#include "LanternmoorPro/platform/qt/QtMainThread.hpp"
#include "fake/FakePlatform.hpp"

namespace lm::testing {

// Where a task's outcome lands; shared with the task so a caller that gives up early leaves
// nothing dangling behind.
template <typename T>
struct Outcome {
    std::optional<T> value;
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now(), end;
    auto took() const { return std::chrono::duration_cast<std::chrono::microseconds>(end - begin); }
};

template <typename T>
platform::Task<> collect(platform::Task<T> task, std::shared_ptr<Outcome<T>> outcome) {
    outcome->value.emplace(co_await std::move(task));
    outcome->end = std::chrono::steady_clock::now();
}

// Starts the task on the main thread; it runs once the event loop is served.
template <typename T>
std::shared_ptr<Outcome<T>> start(platform::MainThread& mainThread, platform::Task<T> task) {
    static platform::TaskScope scope;
    auto outcome = std::make_shared<Outcome<T>>();
    scope.spawn(mainThread, collect(std::move(task), outcome));
    return outcome;
}

// A real event loop, not bare processEvents, so objects handed to deleteLater really go. The
// polling only delays the return: outcomes time themselves.
template <typename Predicate>
void serveEventsUntil(Predicate done, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (done() || std::chrono::steady_clock::now() >= deadline) loop.quit();
    });
    check.start(1);
    loop.exec();
}

template <typename T>
std::shared_ptr<Outcome<T>> runToEnd(platform::MainThread& mainThread, platform::Task<T> task,
                                     std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    auto outcome = start(mainThread, std::move(task));
    serveEventsUntil([&] { return outcome->value.has_value(); }, limit);
    return outcome;
}

// A real Qt main thread, so the launcher's tasks run in the event loop, and fakes for every part
// a harness does not make real; `assemble` puts the real ones in their places.
struct QtFakes : fake::FakePlatform {
    platform::qt::QtMainThread mainThread;
    platform::Platform assemble(platform::Processes& realProcesses, platform::FileSystem& realFiles,
                                platform::Http& realHttp, platform::Json& realJson, platform::Network& realNetwork) {
        return {mainThread, application, realProcesses, realFiles, realHttp,    realJson,
                realNetwork, opener,     alerts,        statusBar, environment, folders};
    }
};

// Real network and JSON for the probes; the fakes stand for the files and processes they never touch.
struct ProbePlatform : QtFakes {
    platform::qt::QtHttp http;
    platform::qt::QtJson json;
    platform::posix::PosixNetwork network;
    platform::Platform platform = assemble(processes, files, http, json, network);

    std::shared_ptr<LanternmoorLauncher> launcher(std::uint16_t port) {
        return std::make_shared<LanternmoorLauncher>(platform, port);
    }
    std::shared_ptr<Outcome<LanternmoorLauncher::Health>> probe(std::uint16_t port) {
        auto prober = launcher(port);
        return runToEnd(mainThread, prober->probeHealth());
    }
};

}  // namespace lm::testing
