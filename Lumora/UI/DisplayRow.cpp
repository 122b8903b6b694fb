#include "Lumora/UI/DisplayRow.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QProxyStyle>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

#include "Lumora/App/DisplayController.h"
#include "Lumora/UI/ElidedLabel.h"
#include "Lumora/UI/Style.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

// A press anywhere on the groove puts the handle there and starts a drag, as on the desktops' own sliders.
class JumpingSliderStyle : public QProxyStyle {
public:
    using QProxyStyle::QProxyStyle;
    int styleHint(StyleHint hint, const QStyleOption* option, const QWidget* widget,
                  QStyleHintReturn* returnData) const override
    {
        if (hint == QStyle::SH_Slider_AbsoluteSetButtons) {
            return Qt::LeftButton;
        }
        return QProxyStyle::styleHint(hint, option, widget, returnData);
    }
};

int sliderPosition(double brightness)
{
    const double clamped = std::clamp(brightness, 0.0, 1.0);
    return static_cast<int>(std::lround(clamped * DisplayRow::sliderSteps));
}

QLabel* symbolLabel(const QString& tooltip, QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setToolTip(tooltip);
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
    power_->setFocusPolicy(Qt::NoFocus);
    power_->setIconSize(QSize(Style::symbolSize, Style::symbolSize));
    firstLine->addWidget(power_, 0, Qt::AlignVCenter);
    column->addLayout(firstLine);

    auto* secondLine = new QHBoxLayout;
    secondLine->setSpacing(8);
    dimmer_ = symbolLabel(QStringLiteral("Dimmer"), this);
    dimmer_->setObjectName(QStringLiteral("dimmerSymbol"));
    dimmer_->setProperty("symbol", QStringLiteral("sun.min"));
    slider_ = new QSlider(Qt::Horizontal, this);
    slider_->setObjectName(QStringLiteral("brightnessSlider"));
    slider_->setToolTip(QStringLiteral("Brightness"));
    slider_->setRange(0, sliderSteps);
    slider_->setSingleStep(sliderSteps / 100);
    slider_->setPageStep(sliderSteps / 16);
    auto* sliderStyle = new JumpingSliderStyle;
    sliderStyle->setParent(slider_);
    slider_->setStyle(sliderStyle);
    brighter_ = symbolLabel(QStringLiteral("Brighter"), this);
    brighter_->setObjectName(QStringLiteral("brighterSymbol"));
    brighter_->setProperty("symbol", QStringLiteral("sun.max"));
    secondLine->addWidget(dimmer_, 0, Qt::AlignVCenter);
    secondLine->addWidget(slider_, 1, Qt::AlignVCenter);
    secondLine->addWidget(brighter_, 0, Qt::AlignVCenter);
    column->addLayout(secondLine);

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
}

void DisplayRow::update(const DisplaySnapshot& display)
{
    const bool powerChanged = display.isOn != display_.isOn || display.canPowerOff != display_.canPowerOff;
    display_ = display;
    static_cast<ElidedLabel*>(name_)->setFullText(QString::fromStdString(display_.name));
    if (powerChanged) {
        showPower();
    }
    showBrightness();
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
    power_->setToolTip(display_.isOn ? QStringLiteral("Turn display off (DDC standby)")
                                     : QStringLiteral("Turn display on"));
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

}  // namespace Lumora
