// What a value from outside looks like in the dialog.
#pragma once

#include <QString>

namespace korvane::consent {

/// A value from outside (the name of a process, a file, a service, a command), made fit for a line
/// of a request's detail. Whatever is not seen there, or breaks or reorders the line, becomes
/// U+FFFD, a code point each: control, format, private-use and surrogate characters, those that are
/// ignored where there is no glyph for them, and white space other than U+0020. So does each
/// further blank of a run, by which one value could look like several. All other text stays as it
/// is, unassigned code points too.
QString shownText(const QString& value);

/// The same for a whole line of a request in a text document: it may be indented, as those of a list
/// are, by up to four blanks; noncharacters and object replacements become U+FFFD too.
QString shownLine(const QString& line);

/// As shownText, for a request's summary, which quotes values with 「 and 」: these become U+FFFD too, and
/// a value of more than 300 code points loses its middle to "…".
QString quotedText(const QString& value);

} // namespace korvane::consent
