// SPDX-License-Identifier: MIT
// A host that uses the about box only: with --as-needed it records libgui_helpers alone,
// so the support libraries must be found through libgui_helpers itself.
#include <gui_helpers/aboutbox.h>

#include <QApplication>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    AboutBox about;
    about.addComponent(QStringLiteral("zlib"), QStringLiteral("1.2.13"));
    return about.findTabByName(QStringLiteral("Other Components")) < 0 ? 1 : 0;
}
