#include "app/RQTranslations.h"

#include <QCoreApplication>
#include <QDir>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

namespace RQTranslations {

QString directory()
{
    return QDir::cleanPath(QCoreApplication::applicationDirPath()
                           + QStringLiteral("/../share/evenloud/translations"));
}

void install(QCoreApplication &app)
{
    const QLocale locale;
    auto *qt = new QTranslator(&app);
    if (qt->load(locale, QStringLiteral("qtbase"), QStringLiteral("_"),
                 QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(qt);
    auto *ours = new QTranslator(&app);
    if (ours->load(locale, QStringLiteral("evenloud"), QStringLiteral("_"), directory()))
        QCoreApplication::installTranslator(ours);
}

} // namespace RQTranslations
