#include "Lumora/UI/PopoverView.h"

#include <QCoreApplication>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

#include <set>

#include "Lumora/App/DisplayController.h"
#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/Style.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

QFrame* divider(QWidget* parent)
{
    auto* line = new QFrame(parent);
    line->setObjectName(QStringLiteral("divider"));
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Plain);
    line->setFixedHeight(1);
    QPalette palette = line->palette();
    QColor color = palette.color(QPalette::WindowText);
    color.setAlphaF(0.15F);
    palette.setColor(QPalette::WindowText, color);
    line->setPalette(palette);
    return line;
}

}  // namespace

PopoverView::PopoverView(DisplayController& controller, QWidget* parent) : QWidget(parent), controller_(controller)
{
    setObjectName(QStringLiteral("popoverView"));
    setFixedWidth(panelWidth);

    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(16, 16, 16, 16);
    stack->setSpacing(14);

    auto* title = new QLabel(QStringLiteral("Lumora"), this);
    title->setObjectName(QStringLiteral("title"));
    title->setFont(Style::headline(*this));
    stack->addWidget(title);

    empty_ = new QLabel(QStringLiteral("No external DDC displays found."), this);
    empty_->setObjectName(QStringLiteral("emptyNote"));
    empty_->setFont(Style::subheadline(*this));
    QPalette notePalette = empty_->palette();
    notePalette.setColor(QPalette::WindowText, Style::secondary(*this));
    empty_->setPalette(notePalette);
    stack->addWidget(empty_);

    rowsBox_ = new QWidget(this);
    rowsBox_->setObjectName(QStringLiteral("rows"));
    rows_ = new QVBoxLayout(rowsBox_);
    rows_->setContentsMargins(0, 0, 0, 0);
    rows_->setSpacing(14);
    stack->addWidget(rowsBox_);

    stack->addWidget(divider(this));
    settings_ = new QVBoxLayout;
    settings_->setContentsMargins(0, 0, 0, 0);
    settings_->setSpacing(0);
    stack->addLayout(settings_);
    stack->addWidget(divider(this));

    auto* footer = new QHBoxLayout;
    auto* refresh = new QToolButton(this);
    refresh->setObjectName(QStringLiteral("refreshButton"));
    refresh->setAutoRaise(true);
    refresh->setFocusPolicy(Qt::NoFocus);
    refresh->setProperty("symbol", QStringLiteral("arrow.clockwise"));
    refresh->setIcon(Symbols::icon(QStringLiteral("arrow.clockwise"), palette().color(QPalette::ButtonText)));
    refresh->setIconSize(QSize(Style::symbolSize, Style::symbolSize));
    refresh->setToolTip(QStringLiteral("Refresh displays"));
    auto* quit = new QPushButton(QStringLiteral("Quit"), this);
    quit->setObjectName(QStringLiteral("quitButton"));
    quit->setDefault(true);
    quit->setToolTip(QStringLiteral("Quit Lumora"));
    footer->addWidget(refresh, 0, Qt::AlignVCenter);
    footer->addStretch(1);
    footer->addWidget(quit, 0, Qt::AlignVCenter);
    stack->addLayout(footer);

    connect(refresh, &QToolButton::clicked, this, [this] { controller_.refresh(); });
    connect(quit, &QPushButton::clicked, this, [] { QCoreApplication::quit(); });
    connect(&controller_, &DisplayController::displaysChanged, this, [this] { showDisplays(); });

    showDisplays();
}

void PopoverView::setSettingsSection(QWidget* section)
{
    while (QLayoutItem* item = settings_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    if (section != nullptr) {
        section->setParent(this);
        settings_->addWidget(section);
    }
}

void PopoverView::setTranslucentBackground(bool translucent)
{
    translucent_ = translucent;
    update();
}

QSize PopoverView::sizeHint() const
{
    return {panelWidth, QWidget::sizeHint().height()};
}

void PopoverView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor fill = palette().color(QPalette::Window);
    if (translucent_) {
        fill.setAlphaF(0.94F);
    }
    QColor edge = palette().color(QPalette::WindowText);
    edge.setAlphaF(0.18F);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), cornerRadius, cornerRadius);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillPath(shape, fill);
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter.setPen(QPen(edge, 1.0));
    painter.drawPath(shape);
}

void PopoverView::showDisplays()
{
    const auto& displays = controller_.displays();

    // Rows of displays that are gone leave; rows of displays that stay are kept and updated in place.
    std::set<std::uint32_t> listed;
    for (const auto& display : displays) {
        listed.insert(display.id);
    }
    for (auto it = rowById_.begin(); it != rowById_.end();) {
        if (listed.count(it->first) == 0) {
            rows_->removeWidget(it->second);
            it->second->hide();
            it->second->deleteLater();
            it = rowById_.erase(it);
        } else {
            ++it;
        }
    }

    // The published order is the shown order; a number listed twice shows once, at its first place.
    std::set<std::uint32_t> placed;
    int position = 0;
    for (const auto& display : displays) {
        if (!placed.insert(display.id).second) {
            continue;
        }
        DisplayRow*& row = rowById_[display.id];
        if (row == nullptr) {
            row = new DisplayRow(display, controller_, rowsBox_);
        } else if (row->display() != display) {
            row->update(display);
        }
        if (rows_->indexOf(row) != position) {
            rows_->removeWidget(row);
            rows_->insertWidget(position, row);
        }
        row->show();
        ++position;
    }

    empty_->setVisible(displays.empty());
    rowsBox_->setVisible(!displays.empty());
}

}  // namespace Lumora
