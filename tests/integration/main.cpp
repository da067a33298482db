// The integration tests run inside one real Qt application (offscreen unless a display is
// asked for), as the program does.
#include <QApplication>
#include <gtest/gtest.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    // The tests' own input holds a line, which a child given no input must never read.
    int typed[2];
    if (::pipe(typed) != 0 || ::write(typed[1], "typed\n", 6) != 6 || ::dup2(typed[0], STDIN_FILENO) != STDIN_FILENO) return 1;
    QApplication application(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
