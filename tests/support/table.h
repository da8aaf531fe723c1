// Tables of cases: a row is a struct whose first member `name` tells it from the others.
#pragma once

#include <QTest>

namespace korvane::test {

/// Makes a case of each row.
template <typename Rows> void addRows(const Rows& rows)
{
    QTest::addColumn<int>("row");
    int index = 0;
    for (const auto& row : rows)
        QTest::newRow(row.name) << index++;
}

/// The row whose turn it is.
template <typename Rows> const auto& currentRow(const Rows& rows)
{
    QFETCH(const int, row);
    return *(std::begin(rows) + row);
}

} // namespace korvane::test
