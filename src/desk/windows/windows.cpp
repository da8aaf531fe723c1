// The desk's application object and its windows together.
#include "desk/windows.h"

#include "desk/desk.h"
#include "desk/windows/question_dialog.h"

#include <QApplication>

namespace korvane::desk {

std::unique_ptr<QCoreApplication> makeWindowApplication(int& argc, char** argv)
{
    return std::make_unique<QApplication>(argc, argv);
}

int runWindows(Desk& desk)
{
    QuestionDialog dialog(desk);
    QApplication::setQuitOnLastWindowClosed(false);
    const int exitCode = QCoreApplication::exec();
    desk.quit();
    return exitCode;
}

} // namespace korvane::desk
