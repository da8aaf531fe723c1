// Times the platform's walk beside the framework's iterator, on the same tree and in turn.
// Usage: korvane-walk DIRECTORY [ROUNDS]; prints the medians in milliseconds, their ratio, and the files seen.
#include "in_turn.h"
#include "platform/file_walk.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QStringList>

#include <utility>

namespace {

/// What a walk saw: both are to see the same.
using Seen = std::pair<qint64, qint64>; // files and bytes

Seen walkByPlatform(const QString& root)
{
    Seen seen;
    korvane::platform::walkFiles(root, [&seen](const korvane::platform::WalkedEntry& file) {
        ++seen.first;
        seen.second += file.size();
        return true;
    });
    return seen;
}

Seen walkByFramework(const QString& root)
{
    Seen seen;
    QDirIterator files(root, QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        files.next();
        ++seen.first;
        seen.second += files.fileInfo().size();
    }
    return seen;
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const QString root = arguments.value(1);
    const int rounds = std::max(1, arguments.size() > 2 ? arguments[2].toInt() : 7);
    Seen own;
    Seen framework;
    const auto walk = [&root](Seen& seen, auto by) {
        return korvane::bench::milliseconds([&] { return (seen = by(root)).first > 0; });
    };
    std::cout.precision(4);
    const bool isDone = korvane::bench::compareInTurn(
        rounds, {"walk", [&] { return walk(own, walkByPlatform); }},
        {"QDirIterator", [&] { return walk(framework, walkByFramework); }});
    std::cout << "files " << own.first << " beside " << framework.first << ", bytes " << own.second
              << " beside " << framework.second << std::endl;
    return isDone && own == framework ? 0 : 1;
}
