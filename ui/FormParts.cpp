// SPDX-License-Identifier: GPL-3.0-or-later
#include "FormParts.h"

#include <QLabel>
#include <QLayout>
#include <QPainter>
#include <QVBoxLayout>

namespace bonkwell::form {

QLabel* label(const QString& text, style::TextStyle textStyle, QWidget* parent,
              const QString& objectName) {
    auto* l = new QLabel(text, parent);
    style::setTextStyle(l, textStyle);
    if (!objectName.isEmpty()) {
        l->setObjectName(objectName);
    }
    return l;
}

QLabel* note(const QString& text, style::TextStyle textStyle, QWidget* parent,
             const QString& objectName) {
    QLabel* l = label(text, textStyle, parent, objectName);
    l->setWordWrap(true);
    style::setSecondary(l);
    return l;
}

QVBoxLayout* section(const QString& title, QVBoxLayout* into, QWidget* parent) {
    QLabel* header = label(title, style::TextStyle::caption, parent);
    QFont f = header->font();
    f.setWeight(QFont::DemiBold);
    header->setFont(f);
    style::setSecondary(header);
    header->setContentsMargins(4, 0, 0, 0);
    into->addWidget(header);
    auto* card = new Card(parent);
    into->addWidget(card);
    return card->rows();
}

Card::Card(QWidget* parent) : QFrame(parent), rows_(new QVBoxLayout(this)) {
    rows_->setContentsMargins(12, 8, 12, 8);
    rows_->setSpacing(8);
}

void Card::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    QColor edge = palette().color(QPalette::WindowText);
    edge.setAlphaF(0.13f);
    p.setPen(QPen(edge, 1));
    p.setBrush(palette().color(QPalette::Base));
    p.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 8, 8);
}

QWidget* page(QWidget* content, QWidget* parent) {
    content->setParent(parent);
    if (content->layout() != nullptr) {
        content->layout()->setContentsMargins(12, 10, 12, 10);
    }
    return content;
}

}  // namespace bonkwell::form
