// Platform interfaces: standard C++ only. The launcher reaches the world through these and
// nothing else; the real implementations live in posix/, qt/ and terminal/, the fake in tests/.
#pragma once

#include "LanternmoorPro/platform/Files.hpp"
#include "LanternmoorPro/platform/MainThread.hpp"
#include "LanternmoorPro/platform/Network.hpp"
#include "LanternmoorPro/platform/Processes.hpp"
#include "LanternmoorPro/platform/UserInterface.hpp"

namespace lm::platform {

// Everything the launcher may use of the world; the program's entry or a test fills it.
struct Platform {
    MainThread& mainThread;
    Application& application;
    Processes& processes;
    FileSystem& files;
    Http& http;
    Json& json;
    Network& network;
    Opener& opener;
    Alerts& alerts;
    StatusBar& statusBar;
    Environment& environment;
    Folders& folders;
};

}  // namespace lm::platform
