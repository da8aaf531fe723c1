// Sentences for the system's errors.
#include "platform/windows/sys/text.h"

#include "platform/windows/sys/handle.h"

namespace korvane::windows_platform {

using namespace Qt::StringLiterals;

namespace {

/// Empty where the system has no sentence in that language.
QString sentence(DWORD code, DWORD language)
{
    constexpr DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                            FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
    wchar_t* text = nullptr;
    const DWORD length = FormatMessageW(flags, nullptr, code, language,
                                        reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    const UniqueLocal<wchar_t> owner(text);
    return length == 0 ? QString() : fromWide({text, length}).trimmed();
}

} // namespace

QString errorText(DWORD code)
{
    constexpr DWORD chinese = MAKELANGID(LANG_CHINESE, SUBLANG_CHINESE_SIMPLIFIED);
    constexpr DWORD largestDecimal = 0xffff; // Beyond are an HRESULT's bits.
    constexpr int hexadecimal = 16;
    QString text;
    for (const DWORD language : {chinese, DWORD{0}}) {
        text = sentence(code, language);
        if (!text.isEmpty())
            break;
    }
    const QString number = code <= largestDecimal ? QString::number(code)
                                                  : u"0x"_s + QString::number(code, hexadecimal);
    return text.isEmpty() ? u"错误 %1"_s.arg(number) : u"%1(错误 %2)"_s.arg(text, number);
}

} // namespace korvane::windows_platform
