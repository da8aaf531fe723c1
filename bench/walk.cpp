// Times the platform's walk beside the framework's iterator, on the same tree and in turn.
// Usage: korvane-walk DIRECTORY [ROUNDS]; prints the files seen, the medians in milliseconds and their ratio.
#include "platform/file_walk.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QStringList>

#include <algorithm>
#include <array>
#include <functional>
#include <iostream>
#include <utility>
#include <vector>

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

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const QString root = arguments.value(1);
    const int rounds = std::max(1, arguments.size() > 2 ? arguments[2].toInt() : 7);
    const std::array<std::function<Seen(const QString&)>, 2> walks{walkByPlatform, walkByFramework};
    std::array<std::vector<double>, 2> times;
    std::array<Seen, 2> seen;
    for (int round = -1; round < rounds; ++round) { // the first warms
        for (std::size_t turn = 0; turn < 2; ++turn) {
            const std::size_t side = (static_cast<std::size_t>(round + 1) + turn) % 2;
            QElapsedTimer timer;
            timer.start();
            seen.at(side) = walks.at(side)(root);
            if (round >= 0)
                times.at(side).push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        }
    }
    const double own = median(times[0]);
    const double framework = median(times[1]);
    std::cout << "files " << seen[0].first << " beside " << seen[1].first << ", bytes "
              << seen[0].second << " beside " << seen[1].second << "; walk " << own
              << " ms beside QDirIterator " << framework << " ms, ratio " << own / framework
              << std::endl;
    return seen[0].first > 0 ? 0 : 1;
}
