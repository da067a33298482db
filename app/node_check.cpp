// For the scripts that lend or refuse a Node.js (run.sh, show-desktop.sh): the launcher's own
// version gate, so they never disagree with it. Reads what `node --version` printed on standard
// input; exits 0 when that Node.js passes, 1 when it does not.
#include <iostream>
#include <iterator>
#include <string>

#include "LanternmoorPro/Launcher.hpp"

int main() {
    const std::string output{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
    return lm::versionPasses(lm::versionNumbers(output)) ? 0 : 1;
}
