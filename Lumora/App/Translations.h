// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Lumora's texts in the user's language: the catalogue compiled into the program (German besides the English
// originals), chosen from the system locale's languages in order of preference (LANGUAGE, then LC_ALL, LC_MESSAGES
// and LANG), together with Qt's own texts for the standard dialogs and menus when they are installed.

#include <QString>

class QCoreApplication;

namespace Lumora::Translations {

// Installs the catalogues for the system's languages in the application. Call once, before any window is built.
void install(QCoreApplication& application);

// A text of `context` in the user's language, also before any application object exists (messages at start).
QString text(const char* context, const char* source);

}  // namespace Lumora::Translations
