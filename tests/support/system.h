// Files, shell lines and mounts for the suites that look at a real system, with what they include.
#pragma once

#include "support/child_process.h"
#include "support/table.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace korvane::test {

constexpr uid_t nobody = 65534; ///< As whom the kernel shows users without a mapping, too.

/// Writes a file, and makes its directories.
inline void writeFile(const QString& path, const QByteArray& content,
                      QIODevice::OpenMode mode = QFile::WriteOnly)
{
    QFile file(path);
    QDir().mkpath(path.left(path.lastIndexOf(u'/')));
    QVERIFY2(file.open(mode) && file.write(content) == content.size(), qPrintable(path));
}

/// What a file holds; nothing where it cannot be read.
inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

/// What a shell prints for `script`, in which the first argument is $0.
inline QString shell(const QByteArray& script, const QStringList& arguments = {})
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QStringLiteral("sh"),
                  QStringList{QStringLiteral("-c"), QString::fromUtf8(script)} + arguments);
    process.waitForFinished(60'000);
    return QString::fromUtf8(process.readAllStandardOutput());
}

/// The lines of a text, but for the empty ones.
inline QStringList linesOf(const QString& text)
{
    return text.split(u'\n', Qt::SkipEmptyParts);
}

/// Lets this process, or thread, mount what no other sees; false where that is refused.
inline bool makeMountsOwn(int more = 0)
{
    return ::unshare(CLONE_NEWNS | more) == 0 &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// The address of the local socket `path`.
inline sockaddr_un localAddress(const QByteArray& path)
{
    sockaddr_un address{AF_UNIX, {}};
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    return address;
}

/// Takes part of this process's limit of open files while it lives.
class FewDescriptors
{
public:
    explicit FewDescriptors(int limit)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit few{static_cast<rlim_t>(limit), m_before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    Q_DISABLE_COPY_MOVE(FewDescriptors)

private:
    rlimit m_before = {};
};

} // namespace korvane::test
