// The least program that shows a window and listens on a local socket: the peer of the desk.
#include <QApplication>
#include <QLabel>
#include <QLocalServer>

using namespace Qt::StringLiterals;

int main(int argc, char* argv[])
{
    const QApplication application(argc, argv);
    QLabel window(u"korvane"_s);
    window.show();
    QLocalServer server;
    const bool isListening = server.listen(u"korvane-least-window"_s);
    return isListening ? QApplication::exec() : 1;
}
