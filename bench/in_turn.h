// Times two ways to do the same in turn, and prints what each took.
#pragma once

#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

namespace korvane::bench {

/// One of two things to compare. `run` gives the milliseconds that it took; negative when it failed.
struct Way
{
    std::string name;
    std::function<double()> run;
};

/// Milliseconds of `work`, which says whether it succeeded; negative when not.
template <typename Work> double milliseconds(Work&& work)
{
    QElapsedTimer timer;
    timer.start();
    const bool isDone = work();
    return isDone ? static_cast<double>(timer.nsecsElapsed()) / 1e6 : -1;
}

inline double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Runs both `rounds` times, each first in every other round, after a round that warms and is not counted.
/// Prints "OURS x ms beside PEER y ms, ratio z" of the medians; false, with a word on standard error,
/// once one fails.
inline bool compareInTurn(int rounds, const Way& ours, const Way& peer)
{
    const std::array<const Way*, 2> ways{&ours, &peer};
    std::array<std::vector<double>, 2> times;
    for (int round = -1; round < rounds; ++round) {
        for (std::size_t turn = 0; turn < 2; ++turn) {
            const std::size_t side = (static_cast<std::size_t>(round + 1) + turn) % 2;
            const double time = ways.at(side)->run();
            if (time < 0) {
                std::cerr << ways.at(side)->name << " failed" << std::endl;
                return false;
            }
            if (round >= 0)
                times.at(side).push_back(time);
        }
    }
    const double own = median(times[0]);
    const double other = median(times[1]);
    std::cout << ours.name << ' ' << own << " ms beside " << peer.name << ' ' << other
              << " ms, ratio " << own / other << std::endl;
    return true;
}

} // namespace korvane::bench
