// The language in which the desk speaks to the person.
#pragma once

class QCoreApplication;

namespace korvane::desk {

/// Has the desk speak English where that is the first of the system's languages; Chinese otherwise, which
/// is what its texts are written in. What the AI is told stays Chinese. Called once, with the new
/// application object.
void chooseLanguage(QCoreApplication& application);

} // namespace korvane::desk
