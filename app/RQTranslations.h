#pragma once

#include <QString>

class QCoreApplication;

// Translations of the user interface, by the system's locale.
namespace RQTranslations {

// share/evenloud/translations under the prefix the program runs from.
QString directory();
// Qt's own strings and ours for the locale; English needs no file, and a
// missing one leaves the English text.
void install(QCoreApplication &app);

} // namespace RQTranslations
