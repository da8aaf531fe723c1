// The least program that shows a window and listens on a local socket: the peer of the desk.
#include <QApplication>
#include <QLabel>
#include <QLocalServer>

int main(int argc, char* argv[])
{
    const QApplication application(argc, argv);
    QLabel window(QStringLiteral("korvane"));
    window.show();
    QLocalServer server;
    const bool isListening = server.listen(QStringLiteral("korvane-least-window"));
    return isListening ? QApplication::exec() : 1;
}
