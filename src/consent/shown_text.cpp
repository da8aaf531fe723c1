// Judging the characters of a value for the dialog, one code point after the other.
#include "consent/shown_text.h"

#include <algorithm>
#include <array>
#include <string>

namespace korvane::consent {

namespace {

constexpr char32_t replacement = U'\ufffd';

/// What a summary shows of a value: its beginning, "…" and its end.
constexpr std::size_t maxQuoted = 300;
constexpr std::size_t keptAtStart = maxQuoted / 2;

struct Range
{
    char32_t first;
    char32_t last;
};

/// The default-ignorable code points that no category tells, in ascending order; and one range of
/// format characters that older Unicode tables have not got yet.
constexpr std::array invisible{
    Range{0x034f, 0x034f},   // grapheme joiner
    Range{0x115f, 0x1160},   // Hangul fillers
    Range{0x17b4, 0x17b5},   // Khmer inherent vowels
    Range{0x180b, 0x180f},   // Mongolian variation selectors
    Range{0x2060, 0x206f},   // joiners, isolates, shaping
    Range{0x3164, 0x3164},   // Hangul filler
    Range{0xfe00, 0xfe0f},   // variation selectors
    Range{0xffa0, 0xffa0},   // halfwidth Hangul filler
    Range{0xfff0, 0xfffb},   // interlinear marks
    Range{0x13430, 0x1343f}, // joiners of hieroglyphs
    Range{0xe0000, 0xe0fff}, // tags, further variation selectors
};

bool isInvisible(char32_t code)
{
    const auto* const range =
        std::find_if(invisible.begin(), invisible.end(),
                     [code](const Range& candidate) { return code <= candidate.last; });
    return range != invisible.end() && code >= range->first;
}

bool isHarmful(char32_t code)
{
    switch (QChar::category(code)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Other_PrivateUse:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    case QChar::Separator_Space:
        return code != U' ';
    default:
        return isInvisible(code);
    }
}

std::u32string shownCodes(const QString& value)
{
    std::u32string codes = value.toStdU32String(); // Half a pair is U+FFFD already.
    bool isAfterBlank = false;
    for (char32_t& code : codes) {
        const bool isBlank = code == U' ';
        if (isHarmful(code) || (isBlank && isAfterBlank))
            code = replacement;
        isAfterBlank = isBlank;
    }
    return codes;
}

} // namespace

QString shownText(const QString& value)
{
    return QString::fromStdU32String(shownCodes(value));
}

QString shownLine(const QString& line)
{
    constexpr qsizetype maxIndent = 4;
    qsizetype indent = 0;
    while (indent < std::min(maxIndent, line.size()) && line.at(indent) == u' ')
        ++indent;
    std::u32string codes = shownCodes(line.sliced(indent));
    constexpr char32_t objectReplacement = 0xfffc;
    // Text documents use some of them for line breaks and pictures.
    std::replace_if(
        codes.begin(), codes.end(),
        [](char32_t code) { return code == objectReplacement || QChar::isNonCharacter(code); },
        replacement);
    return line.first(indent) + QString::fromStdU32String(codes);
}

QString quotedText(const QString& value)
{
    std::u32string codes = shownCodes(value);
    std::replace(codes.begin(), codes.end(), U'「', replacement);
    std::replace(codes.begin(), codes.end(), U'」', replacement);
    if (codes.size() > maxQuoted)
        codes.replace(keptAtStart, codes.size() - maxQuoted + 1, 1, U'…');
    return QString::fromStdU32String(codes);
}

} // namespace korvane::consent
