// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A one-line label that shortens its text with an ellipsis to the width it is given, instead of growing.

#include <QLabel>

namespace Lumora {

class ElidedLabel : public QLabel {
    Q_OBJECT
public:
    explicit ElidedLabel(const QString& text, QWidget* parent = nullptr);

    QString fullText() const { return full_; }
    void setFullText(const QString& text);

    QSize minimumSizeHint() const override;
    QSize sizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void elide();

    QString full_;
};

}  // namespace Lumora
