// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The panel's text styles and colours, derived from the desktop's font and palette.

#include <QColor>
#include <QFont>

class QWidget;

namespace Lumora::Style {

QFont headline(const QWidget& widget);     // the title: the body size, bold
QFont subheadline(const QWidget& widget);  // names and notes: a little smaller than the body
QColor secondary(const QWidget& widget);   // de-emphasised foreground

constexpr int symbolSize = 16;  // the sun and power symbols, in points

}  // namespace Lumora::Style
