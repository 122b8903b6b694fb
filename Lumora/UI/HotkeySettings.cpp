// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/HotkeySettings.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "Lumora/Hotkeys/HotkeyService.h"
#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/UI/Style.h"
#include "Lumora/UI/SwitchButton.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

const QColor orange(0xFF, 0x95, 0x00);

// The caption size: a step below the panel's subheadline.
QFont caption(const QWidget& widget)
{
    QFont font = Style::subheadline(widget);
    if (font.pointSizeF() > 0)
        font.setPointSizeF(font.pointSizeF() * 0.92);
    else if (font.pixelSize() > 0)
        font.setPixelSize(std::max(1, font.pixelSize() * 92 / 100));
    return font;
}

}  // namespace

HotkeySettings::HotkeySettings(HotkeyService& hotkeys, QWidget* parent) : QWidget(parent), hotkeys_(hotkeys)
{
    setObjectName(QStringLiteral("hotkeySettings"));

    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(0, 0, 0, 0);
    stack->setSpacing(8);

    toggle_ = new SwitchButton(tr("Use F1/F2 for external brightness"), this);
    toggle_->setObjectName(QStringLiteral("hotkeySwitch"));
    toggle_->setFont(Style::subheadline(*this));
    toggle_->setToolTip(tr("Remap the F1/F2 brightness keys to the external display you're working on. "
                           "⌥F1 blacks it out, ⌥F2 wakes it to full."));
    stack->addWidget(toggle_);

    permission_ = new QWidget(this);
    permission_->setObjectName(QStringLiteral("hotkeyPermission"));
    auto* permission = new QVBoxLayout(permission_);
    permission->setContentsMargins(0, 0, 0, 0);
    permission->setSpacing(4);

    auto* warning = new QWidget(permission_);
    auto* warningLine = new QHBoxLayout(warning);
    warningLine->setContentsMargins(0, 0, 0, 0);
    warningLine->setSpacing(4);
    const QFont small = caption(*this);
    const int symbolSide = QFontMetrics(small).height();
    warningSymbol_ = new QLabel(warning);
    warningSymbol_->setObjectName(QStringLiteral("hotkeyWarningSymbol"));
    warningSymbol_->setProperty("symbol", QStringLiteral("exclamationmark.triangle.fill"));
    warningSymbol_->setPixmap(Symbols::icon(QStringLiteral("exclamationmark.triangle.fill"), orange)
                                  .pixmap(symbolSide, symbolSide));
    auto* warningText = new QLabel(tr("Needs Accessibility permission"), warning);
    warningText->setObjectName(QStringLiteral("hotkeyWarning"));
    warningText->setFont(small);
    QPalette warningPalette = warningText->palette();
    warningPalette.setColor(QPalette::WindowText, orange);
    warningText->setPalette(warningPalette);
    warningLine->addWidget(warningSymbol_);
    warningLine->addWidget(warningText);
    warningLine->addStretch(1);
    warning->setAccessibleName(warningText->text());
    permission->addWidget(warning);

    auto* open = new QPushButton(tr("Open Accessibility Settings\u2026"), permission_);
    open->setObjectName(QStringLiteral("hotkeyOpenSettings"));
    open->setFlat(true);
    open->setCursor(Qt::PointingHandCursor);
    open->setFont(small);
    open->setAccessibleName(open->text());
    open->setToolTip(tr("Grant Accessibility so Lumora can see the F1/F2 keys"));
    QPalette linkPalette = open->palette();
    linkPalette.setColor(QPalette::ButtonText, linkPalette.color(QPalette::Link));
    open->setPalette(linkPalette);
    open->setStyleSheet(QStringLiteral("QPushButton { border: none; padding: 0px; text-align: left; }"));
    permission->addWidget(open, 0, Qt::AlignLeft);
    stack->addWidget(permission_);

    desktopNote_ = new QLabel(this);
    desktopNote_->setObjectName(QStringLiteral("hotkeyDesktopNote"));
    desktopNote_->setFont(small);
    desktopNote_->setWordWrap(true);
    desktopNote_->setTextInteractionFlags(Qt::TextSelectableByMouse);  // the command, to copy
    stack->addWidget(desktopNote_);

    connect(toggle_, &SwitchButton::toggled, this, [this](bool on) { hotkeys_.setEnabled(on); });
    connect(open, &QPushButton::clicked, this, [this] { hotkeys_.openAccessibilitySettings(); });
    connect(&hotkeys_, &HotkeyService::isEnabledChanged, this, [this] { showState(); });
    connect(&hotkeys_, &HotkeyService::isTrustedChanged, this, [this] { showState(); });
    showState();
}

void HotkeySettings::showState()
{
    {
        const QSignalBlocker quiet(toggle_);
        toggle_->setChecked(hotkeys_.isEnabled());
    }
    toggle_->update();
    permission_->setVisible(hotkeys_.isEnabled() && !hotkeys_.isTrusted());
    const bool needsExtension = hotkeys_.isEnabled() &&
                                DesktopInputs::session().missing() == DesktopInputs::Need::gnomeShellExtension;
    desktopNote_->setText(needsExtension ? tr("GNOME shows Lumora the window you work in only through Lumora's GNOME "
                                              "Shell extension. Turn it on with \"gnome-extensions enable "
                                              "lumora@lumora.org\" (after installing Lumora, log out and in once "
                                              "first); until then the keys act on the first display.")
                                         : QString());
    desktopNote_->setAccessibleName(desktopNote_->text());
    desktopNote_->setVisible(needsExtension);
}

void HotkeySettings::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    showState();  // the desktop's needs may have changed since the section was last shown
}

}  // namespace Lumora
