// Taking apart the texts that the kernel and the system's programs write.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <charconv>

namespace korvane::linux_platform {

/// Parses `text`, digits of `base` and nothing else but a sign where the type has one. False, with
/// `number` untouched, when it is anything else or does not fit.
template <typename Number> bool parseNumber(QByteArrayView text, Number& number, int base = 10)
{
    Number parsed = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), parsed, base);
    if (error != std::errc() || end != text.end() || text.isEmpty())
        return false;
    number = parsed;
    return true;
}

/// Takes everything up to the first `separator` off `rest`, and the separator with it; the whole
/// rest when there is none.
inline QByteArrayView takeUntil(QByteArrayView& rest, char separator)
{
    const qsizetype end = rest.indexOf(separator);
    const QByteArrayView taken = end < 0 ? rest : rest.first(end);
    rest = end < 0 ? QByteArrayView() : rest.sliced(end + 1);
    return taken;
}

/// Takes the next word off `rest`, which blanks and tabs separate; empty at the end.
inline QByteArrayView takeWord(QByteArrayView& rest)
{
    const auto isBlank = [&rest](qsizetype at) { return rest[at] == ' ' || rest[at] == '\t'; };
    qsizetype begin = 0;
    while (begin < rest.size() && isBlank(begin))
        ++begin;
    qsizetype end = begin;
    while (end < rest.size() && !isBlank(end))
        ++end;
    const QByteArrayView word = rest.sliced(begin, end - begin);
    rest = rest.sliced(end);
    return word;
}

/// Text from the system, which may be any bytes, as a string; what is not UTF-8 becomes U+FFFD.
inline QString textFromSystem(QByteArrayView bytes)
{
    // The framework leaves out a byte order mark at the beginning; here it is a character of a name.
    const QString text = QString::fromUtf8(bytes);
    return bytes.startsWith("\xef\xbb\xbf") ? QChar(QChar::ByteOrderMark) + text : text;
}

} // namespace korvane::linux_platform
