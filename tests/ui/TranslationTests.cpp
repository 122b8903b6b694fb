// Lumora's texts in the language of the system locale: German with LANGUAGE=de (ahead of LANG), the English
// originals where English comes first.

#include <gtest/gtest.h>

#include <cstdlib>

#include "Lumora/App/Translations.h"

TEST(Translations, GermanFromLanguageAheadOfLang)
{
    // The catalogue is chosen once per process, at the first text asked for: this test is the only one asking.
    ::setenv("LANGUAGE", "de:en", 1);
    ::setenv("LANG", "en_US.UTF-8", 1);
    struct Case {
        const char* context;
        const char* source;
        const char* german;
    };
    const Case cases[] = {
        {"Lumora::PopoverView", "Quit", "Beenden"},
        {"Lumora::PopoverView", "No external DDC displays found.", "Keine externen DDC-Bildschirme gefunden."},
        {"Lumora::DisplayRow", "Turn %1 off", "%1 ausschalten"},
        {"Lumora::AppDelegate", "Check for Updates\u2026", "Nach Aktualisierungen suchen\u2026"},
        {"Lumora::AboutBox", "About Lumora", "\u00dcber Lumora"},
        {"Lumora::PopoverView", "a text Lumora never shows", "a text Lumora never shows"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.source);
        EXPECT_EQ(Lumora::Translations::text(c.context, c.source), QString::fromUtf8(c.german));
    }
    ::unsetenv("LANGUAGE");
}
