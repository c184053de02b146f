// SPDX-License-Identifier: MIT
// Compiles against the umbrella header and calls into each installed library.
#include <gui_helpers/gui_helpers.h>

#include <QApplication>
#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (createTimeStamp(QTime(23, 59, 59, 999)) != 86399999)
        return 1;
    if (VxVersion::fromString("1.2.3").minor() != 2)
        return 2;
    if (std::string(journalLevelText(JLL_WRITE)) != "[WRITE] ")
        return 3;
    std::printf("consumer OK\n");
    return 0;
}
