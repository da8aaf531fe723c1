// Looking up the system's language, and its texts among the program's resources.
#include "desk/translation.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

#include <memory>

namespace korvane::desk {

using namespace Qt::StringLiterals;

void chooseLanguage(QCoreApplication& application)
{
    const bool isEnglish = QLocale::system().uiLanguages().value(0).startsWith(u"en");
    const auto install = [&application](const QString& name, const QString& directory) {
        auto translator = std::make_unique<QTranslator>(&application);
        if (translator->load(name, directory))
            QCoreApplication::installTranslator(translator.release());
    };
    if (isEnglish)
        install(u"korvane-desk_en"_s, u":/translations"_s);
    else // The framework's own texts are English, where its translation is not installed.
        install(u"qtbase_zh_CN"_s, QLibraryInfo::path(QLibraryInfo::TranslationsPath));
}

} // namespace korvane::desk
