// Valid texts damaged in every place, for parsers that nothing may harm. Each text has memory of
// its own size, so that a sanitizer sees a read beyond it.
#pragma once

#include <QByteArray>
#include <QRandomGenerator>

namespace korvane::test {

/// Calls `use` with all beginnings of `whole` that are shorter, down to `least` bytes.
template <typename Use> void feedTruncated(const QByteArray& whole, Use use, qsizetype least = 0)
{
    for (qsizetype size = least; size < whole.size(); ++size)
        use(QByteArray(whole.constData(), size));
}

/// Calls `use` with `whole`, each byte once changed to each of what often divides texts, and to some
/// at random, the same each time.
template <typename Use> void feedChanged(const QByteArray& whole, Use use)
{
    QRandomGenerator random(1);
    for (qsizetype at = 0; at < whole.size(); ++at) {
        QByteArray bytes("\0\n\t :/-\x1f\x1e\xff", 10);
        for (int i = 0; i < 6; ++i)
            bytes.append(static_cast<char>(random.bounded(256)));
        for (const char byte : std::as_const(bytes)) {
            QByteArray changed(whole.constData(), whole.size());
            changed[at] = byte;
            use(changed);
        }
    }
}

} // namespace korvane::test
