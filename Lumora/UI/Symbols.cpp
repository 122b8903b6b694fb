// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/Symbols.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPalette>
#include <QPixmap>
#include <QStringList>

#include <array>

static void initSymbolResources()
{
    // Resources compiled into a static library are registered by hand, once.
    static const bool done = [] {
        Q_INIT_RESOURCE(lumora_symbols);
        return true;
    }();
    (void)done;
}

namespace Lumora::Symbols {
namespace {

struct Symbol {
    const char* name;
    const char* group;                       // symbols shown side by side come from one source
    std::array<const char*, 3> themeNames;   // freedesktop / desktop-theme candidates, first found wins
};

// Theme icons are used for a group only when the theme has every symbol of that group, so that a sun.min from
// the bundle never sits next to a sun.max from the theme.
constexpr std::array<Symbol, 6> symbols{{
    {"sun.max", "sun", {"brightness-high", "display-brightness-high-symbolic", nullptr}},
    {"sun.min", "sun", {"brightness-low", "display-brightness-low-symbolic", nullptr}},
    {"power", "power", {"system-shutdown-symbolic", "system-shutdown", nullptr}},
    {"powersleep", "power", {"system-suspend-symbolic", "system-suspend", nullptr}},
    {"arrow.clockwise", "refresh", {"view-refresh-symbolic", "view-refresh", nullptr}},
    {"exclamationmark.triangle.fill", "warning", {"dialog-warning-symbolic", "dialog-warning", nullptr}},
}};

const Symbol* find(const QString& name)
{
    for (const auto& symbol : symbols) {
        if (name == QLatin1String(symbol.name)) {
            return &symbol;
        }
    }
    return nullptr;
}

QString themeName(const Symbol& symbol)
{
    for (const char* candidate : symbol.themeNames) {
        if (candidate != nullptr && QIcon::hasThemeIcon(QLatin1String(candidate))) {
            return QLatin1String(candidate);
        }
    }
    return {};
}

bool groupInTheme(const Symbol& symbol)
{
    for (const auto& other : symbols) {
        if (qstrcmp(other.group, symbol.group) == 0 && themeName(other).isEmpty()) {
            return false;
        }
    }
    return true;
}

// The drawing in one colour: every pixel keeps its coverage and takes the tint, as the desktops draw symbolic
// icons in the text colour of their surroundings.
QIcon tinted(const QIcon& drawing, const QColor& tint)
{
    const qreal ratio = qGuiApp != nullptr ? qGuiApp->devicePixelRatio() : 1.0;
    QIcon result;
    for (int side : {16, 20, 22, 24, 32, 48, 64}) {
        const QSize pixels(qRound(side * ratio), qRound(side * ratio));
        QPixmap pixmap = drawing.pixmap(pixels);
        if (pixmap.isNull()) {
            return drawing;
        }
        QPainter painter(&pixmap);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(pixmap.rect(), tint);
        painter.end();
        pixmap.setDevicePixelRatio(ratio);
        result.addPixmap(pixmap);
    }
    return result;
}

}  // namespace

QIcon icon(const QString& name, const QColor& tint)
{
    const Symbol* symbol = find(name);
    if (symbol == nullptr) {
        return {};
    }
    if (groupInTheme(*symbol)) {
        // A symbolic theme icon is a shape meant to be drawn in the colour of its surroundings; a full-colour
        // one is shown as the theme drew it.
        const QString name = themeName(*symbol);
        const QIcon themed = QIcon::fromTheme(name);
        return name.endsWith(QLatin1String("-symbolic")) ? tinted(themed, tint) : themed;
    }
    initSymbolResources();
    return tinted(QIcon(QStringLiteral(":/symbols/%1.svg").arg(name)), tint);
}

QIcon trayIcon(const QPalette& palette)
{
    // Amber reads on the light and the dark panels of common desktops; a deeper one on a light desktop, a
    // brighter one on a dark desktop.
    // Always Lumora's own sun in that amber, never the icon theme's: a theme's brightness icon is a grey glyph
    // (Breeze's), which would lose the colour that tells Lumora's icon apart in a tray.
    const bool dark = palette.color(QPalette::Window).lightnessF() < 0.5;
    initSymbolResources();
    return tinted(QIcon(QStringLiteral(":/symbols/sun.max.svg")), dark ? QColor(0xFF, 0xC1, 0x2E) : QColor(0xE0, 0x98, 0x00));
}

}  // namespace Lumora::Symbols
