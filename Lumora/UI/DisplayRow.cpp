// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/DisplayRow.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

#include "Lumora/App/DisplayController.h"
#include "Lumora/UI/BrightnessSlider.h"
#include "Lumora/UI/ElidedLabel.h"
#include "Lumora/UI/Style.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

static_assert(DisplayRow::sliderSteps == BrightnessSlider::steps);

int sliderPosition(double brightness)
{
    const double clamped = std::clamp(brightness, 0.0, 1.0);
    return static_cast<int>(std::lround(clamped * DisplayRow::sliderSteps));
}

QLabel* symbolLabel(QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setFixedSize(Style::symbolSize, Style::symbolSize);
    return label;
}

}  // namespace

DisplayRow::DisplayRow(const DisplaySnapshot& display, DisplayController& controller, QWidget* parent)
    : QWidget(parent), display_(display), controller_(controller)
{
    setObjectName(QStringLiteral("displayRow"));

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(6);

    auto* firstLine = new QHBoxLayout;
    name_ = new ElidedLabel(QString::fromStdString(display_.name), this);
    name_->setObjectName(QStringLiteral("displayName"));
    name_->setFont(Style::subheadline(*this));
    firstLine->addWidget(name_, 1);
    firstLine->addStretch(0);
    power_ = new QToolButton(this);
    power_->setObjectName(QStringLiteral("powerButton"));
    power_->setAutoRaise(true);
    power_->setFocusPolicy(Qt::StrongFocus);
    power_->setIconSize(QSize(Style::symbolSize, Style::symbolSize));
    firstLine->addWidget(power_, 0, Qt::AlignVCenter);
    column->addLayout(firstLine);

    auto* secondLine = new QHBoxLayout;
    secondLine->setSpacing(8);
    dimmer_ = symbolLabel(this);
    dimmer_->setObjectName(QStringLiteral("dimmerSymbol"));
    dimmer_->setProperty("symbol", QStringLiteral("sun.min"));
    dimmer_->setToolTip(tr("Dimmer"));
    slider_ = new BrightnessSlider(this);
    slider_->setToolTip(tr("Brightness"));
    brighter_ = symbolLabel(this);
    brighter_->setObjectName(QStringLiteral("brighterSymbol"));
    brighter_->setProperty("symbol", QStringLiteral("sun.max"));
    brighter_->setToolTip(tr("Brighter"));
    secondLine->addWidget(dimmer_, 0, Qt::AlignVCenter);
    secondLine->addWidget(slider_, 1, Qt::AlignVCenter);
    secondLine->addWidget(brighter_, 0, Qt::AlignVCenter);
    column->addLayout(secondLine);
    setTabOrder(power_, slider_);

    // Every value the slider takes, while dragged, clicked or keyed, is a brightness request; positions set
    // from the model are not (they are set with the signals blocked).
    connect(slider_, &QSlider::valueChanged, this, [this](int value) {
        controller_.setBrightness(display_.id, static_cast<double>(value) / sliderSteps);
    });
    // What the model published during the drag shows once the handle is let go.
    connect(slider_, &QSlider::sliderReleased, this, [this] { showBrightness(); });
    connect(power_, &QToolButton::clicked, this, [this] { controller_.togglePower(display_.id); });

    showSymbols();
    showPower();
    showBrightness();
    showNames();
}

void DisplayRow::update(const DisplaySnapshot& display)
{
    const bool powerChanged = display.isOn != display_.isOn || display.canPowerOff != display_.canPowerOff;
    const bool renamed = display.name != display_.name;
    display_ = display;
    static_cast<ElidedLabel*>(name_)->setFullText(QString::fromStdString(display_.name));
    if (powerChanged) {
        showPower();
    }
    if (powerChanged || renamed) {
        showNames();
    }
    showBrightness();
}

QList<QWidget*> DisplayRow::focusChain() const
{
    QList<QWidget*> chain;
    if (display_.canPowerOff) {
        chain.append(power_);
    }
    chain.append(slider_);
    return chain;
}

void DisplayRow::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::StyleChange) {
        showSymbols();
        showPower();
    }
}

void DisplayRow::showPower()
{
    power_->setVisible(display_.canPowerOff);
    const QString symbol = display_.isOn ? QStringLiteral("power") : QStringLiteral("powersleep");
    power_->setProperty("symbol", symbol);
    power_->setIcon(Symbols::icon(symbol, palette().color(QPalette::ButtonText)));
    power_->setToolTip(display_.isOn ? tr("Turn display off (DDC standby)") : tr("Turn display on"));
}

void DisplayRow::showBrightness()
{
    // A drag in progress is the user's: the notifications it causes (and any refresh meanwhile) wait for the
    // release.
    if (slider_->isSliderDown()) {
        return;
    }
    const QSignalBlocker quiet(slider_);
    slider_->setValue(sliderPosition(display_.brightness));
}

void DisplayRow::showSymbols()
{
    const QColor tint = Style::secondary(*this);
    const QSize size(Style::symbolSize, Style::symbolSize);
    dimmer_->setPixmap(Symbols::icon(QStringLiteral("sun.min"), tint).pixmap(size, devicePixelRatioF()));
    brighter_->setPixmap(Symbols::icon(QStringLiteral("sun.max"), tint).pixmap(size, devicePixelRatioF()));
}

// What a screen reader says for each control: the display it acts on, and what it does.
void DisplayRow::showNames()
{
    const QString name = QString::fromStdString(display_.name);
    name_->setAccessibleName(name);
    slider_->setAccessibleName(tr("Brightness of %1").arg(name));
    slider_->setAccessibleDescription(tr("Brightness"));
    power_->setAccessibleName(display_.isOn ? tr("Turn %1 off").arg(name) : tr("Turn %1 on").arg(name));
    power_->setAccessibleDescription(power_->toolTip());
    dimmer_->setAccessibleName(tr("Dimmer"));
    brighter_->setAccessibleName(tr("Brighter"));
}

}  // namespace Lumora
