// A person at a terminal, who types lines.
#pragma once

#include <QByteArray>

#include <functional>
#include <memory>

namespace korvane::platform {

/// The terminal at standard input and output. Main thread only.
class Terminal
{
public:
    virtual ~Terminal() = default;

    /// Writes all of `text`.
    virtual void write(const QByteArray& text) = 0;

    /// Throws away what was typed and not handed over yet, begun lines included.
    virtual void discardInput() = 0;

    /// Characters a line; 80 where that is not known.
    virtual int columns() const = 0;

    /// Called by the event loop for each line that was typed, without its line feed.
    std::function<void(const QByteArray& line)> onLine;

    /// Called once, when nobody can type any more.
    std::function<void()> onEnd;

protected:
    Terminal() = default;
    Terminal(const Terminal&) = default;
    Terminal& operator=(const Terminal&) = default;
    Terminal(Terminal&&) = default;
    Terminal& operator=(Terminal&&) = default;
};

/// None where standard input or output is no terminal. Needs the application object.
/// Linux: isatty, tcflush, TIOCGWINSZ. Windows, as without a back end: none.
std::unique_ptr<Terminal> openTerminal();

} // namespace korvane::platform
