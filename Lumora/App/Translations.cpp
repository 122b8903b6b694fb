// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/Translations.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

static void initTranslationResources()
{
    // Resources compiled into a static library are registered by hand, once.
    static const bool done = [] {
        Q_INIT_RESOURCE(lumora_translations);
        return true;
    }();
    (void)done;
}

namespace Lumora::Translations {
namespace {

QTranslator& lumora()
{
    static QTranslator* translator = [] {
        initTranslationResources();
        auto* loaded = new QTranslator;
        // An English locale finds no catalogue and keeps the originals.
        (void)loaded->load(QLocale::system(), QStringLiteral("lumora"), QStringLiteral("_"), QStringLiteral(":/i18n"));
        return loaded;
    }();
    return *translator;
}

}  // namespace

void install(QCoreApplication& application)
{
    QTranslator& own = lumora();
    if (own.isEmpty()) {
        return;  // the originals: Qt's texts stay English too, so that one window does not mix two languages
    }
    auto* qt = new QTranslator(&application);
    if (qt->load(QLocale::system(), QStringLiteral("qtbase"), QStringLiteral("_"),
                 QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
        QCoreApplication::installTranslator(qt);
    }
    QCoreApplication::installTranslator(&own);
}

QString text(const char* context, const char* source)
{
    const QString translated = lumora().translate(context, source);
    return translated.isEmpty() ? QString::fromUtf8(source) : translated;
}

}  // namespace Lumora::Translations
