// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A one-pixel horizontal rule in a faint shade of the text colour, drawn from the palette at every paint so that
// it follows a switch between light and dark.

#include <QWidget>

namespace Lumora {

class Divider : public QWidget {
    Q_OBJECT
public:
    explicit Divider(QWidget* parent = nullptr);

    // The rule's colour under the widget's current palette.
    QColor color() const;

protected:
    void paintEvent(QPaintEvent* event) override;
};

}  // namespace Lumora
