#include "LanternmoorPro/Launcher.hpp"

namespace lm {

// Neither command reports anything: a page or folder that cannot be opened shows nothing.

void LanternmoorLauncher::openGuide() {
    auto resources = resourcesFolder();
    if (!resources) return;
    (void)platform_.opener.open(resources->appending("安装与使用.html").url());
}

void LanternmoorLauncher::openData() {
    auto folder = dataFolderURL();
    if (!folder) return;
    (void)platform_.opener.open(folder->url());
}

}  // namespace lm
