#pragma once

#include <memory>

#include "LanternmoorPro/platform/MainThread.hpp"

namespace lm::platform {

// The termination contract every application object keeps, written once: ask the delegate,
// end at once or wait for the late reply, call the last-call hook, then end the loop.
// A termination is never cancelled here; ending twice is impossible.
class ApplicationBase : public Application {
public:
    void setDelegate(std::weak_ptr<ApplicationDelegate> delegate) override { delegate_ = std::move(delegate); }

    void terminate() override {
        if (ended_) return;
        auto delegate = delegate_.lock();
        auto reply = delegate ? delegate->applicationShouldTerminate() : TerminateReply::now;
        if (reply == TerminateReply::now) end();
        if (reply == TerminateReply::later) awaitingReply_ = true;
    }

    void replyToApplicationShouldTerminate(bool shouldTerminate) override {
        if (ended_ || !awaitingReply_) return;
        awaitingReply_ = false;
        if (shouldTerminate) end();
    }

    bool hasEnded() const { return ended_; }
    bool isAwaitingReply() const { return awaitingReply_; }

protected:
    // Leaves the event loop; run() then returns 0.
    virtual void endEventLoop() = 0;

    void finishLaunching() {
        if (auto delegate = delegate_.lock()) delegate->applicationDidFinishLaunching();
    }

private:
    void end() {
        ended_ = true;
        if (auto delegate = delegate_.lock()) delegate->applicationWillTerminate();
        endEventLoop();
    }

    std::weak_ptr<ApplicationDelegate> delegate_;
    bool awaitingReply_ = false;
    bool ended_ = false;
};

}  // namespace lm::platform
