// Tables of cases, each a name and whatever else the test takes apart.
#pragma once

#include <QTest>

#include <tuple>
#include <vector>

namespace korvane::test {

template <typename... Columns> using Cases = std::vector<std::tuple<const char*, Columns...>>;

template <typename... Columns> void addRows(const Cases<Columns...>& cases)
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < static_cast<int>(cases.size()); ++row)
        QTest::newRow(std::get<0>(cases.at(static_cast<std::size_t>(row)))) << row;
}

/// The case whose turn it is.
template <typename... Columns> const auto& currentRow(const Cases<Columns...>& cases)
{
    QFETCH(const int, row);
    return cases.at(static_cast<std::size_t>(row));
}

} // namespace korvane::test
