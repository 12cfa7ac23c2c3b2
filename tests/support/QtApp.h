#pragma once
// The one QApplication of a test binary, rendering without a display.

#include <QApplication>

namespace qvd::test {

inline QApplication& qtApp()
{
    static int argc = 1;
    static char name[] = "qvd_tests";
    static char* argv[] = {name, nullptr};
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    static QApplication app(argc, argv);
    return app;
}

} // namespace qvd::test
