// The entry in the desktop's autostart directory.
#include "platform/session.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QString entryPath()
{
    return u"%1/autostart/%2.desktop"_s.arg(
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation),
        QCoreApplication::applicationName());
}

/// `path` as a word of an entry's command: quoted, and once more as a value of the entry.
QByteArray quoted(QString path)
{
    for (const QChar special : u"\\\"`$"_s)
        path.replace(special, u'\\' + special);
    path.replace(u'\\', u"\\\\"_s);
    path.replace(u'%', u"%%"_s);
    return '"' + QFile::encodeName(path) + '"';
}

} // namespace

bool platform::startsWithSession()
{
    return QFileInfo::exists(entryPath());
}

OpResult platform::setStartsWithSession(bool starts)
{
    const QString path = entryPath();
    if (!starts) {
        QFile entry(path);
        return !entry.exists() || entry.remove() ? OpResult{true, {}}
                                                 : OpResult{false, entry.errorString()};
    }
    QDir().mkpath(QFileInfo(path).path());
    QSaveFile entry(path);
    const QString program = QCoreApplication::applicationFilePath();
    if (program.contains(u'\n'))
        return {false, u"程序的路径含有换行符。"_s};
    const QByteArray text =
        "[Desktop Entry]\nType=Application\nName=" + QCoreApplication::applicationName().toUtf8() +
        "\nExec=" + quoted(program) + " --background\n";
    if (!entry.open(QFile::WriteOnly) || entry.write(text) != text.size() || !entry.commit())
        return {false, u"%1: %2"_s.arg(path, entry.errorString())};
    return {true, {}};
}

} // namespace korvane
