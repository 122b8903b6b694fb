// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/BrightnessSlider.h"

#include <QAccessible>
#include <QAccessibleValueInterface>
#include <QAccessibleWidget>
#include <QLocale>
#include <QProxyStyle>

#include <cmath>

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

// What assistive technology sees: a slider whose value is the brightness in percent (0 ... 100, steps of 1),
// read out as "50 %" in the user's locale.
class AccessibleBrightnessSlider : public QAccessibleWidget, public QAccessibleValueInterface {
public:
    explicit AccessibleBrightnessSlider(BrightnessSlider* slider) : QAccessibleWidget(slider, QAccessible::Slider) {}

    void* interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::ValueInterface) {
            return static_cast<QAccessibleValueInterface*>(this);
        }
        return QAccessibleWidget::interface_cast(type);
    }

    QString text(QAccessible::Text kind) const override
    {
        if (kind == QAccessible::Value) {
            return QLocale().toString(slider()->percent()) + QStringLiteral(" %");
        }
        return QAccessibleWidget::text(kind);
    }

    QVariant currentValue() const override { return slider()->percent(); }
    void setCurrentValue(const QVariant& value) override
    {
        slider()->setValue(static_cast<int>(std::lround(value.toDouble() * BrightnessSlider::steps / 100.0)));
    }
    QVariant maximumValue() const override { return 100; }
    QVariant minimumValue() const override { return 0; }
    QVariant minimumStepSize() const override { return 1; }

private:
    BrightnessSlider* slider() const { return static_cast<BrightnessSlider*>(widget()); }
};

QAccessibleInterface* accessibleFactory(const QString& className, QObject* object)
{
    if (className == QLatin1String(BrightnessSlider::staticMetaObject.className()) && object != nullptr &&
        object->isWidgetType()) {
        return new AccessibleBrightnessSlider(static_cast<BrightnessSlider*>(object));
    }
    return nullptr;
}

}  // namespace

BrightnessSlider::BrightnessSlider(QWidget* parent) : QSlider(Qt::Horizontal, parent)
{
    static const bool registered = [] {
        QAccessible::installFactory(accessibleFactory);
        return true;
    }();
    (void)registered;

    setObjectName(QStringLiteral("brightnessSlider"));
    setRange(0, steps);
    setSingleStep(steps / 100);
    setPageStep(steps / 16);
    setFocusPolicy(Qt::StrongFocus);
    auto* style = new JumpingSliderStyle;
    style->setParent(this);
    setStyle(style);
}

int BrightnessSlider::percent() const
{
    return static_cast<int>(std::lround(value() * 100.0 / steps));
}

}  // namespace Lumora
