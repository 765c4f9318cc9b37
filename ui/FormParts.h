// SPDX-License-Identifier: GPL-3.0-or-later
// Building blocks of the Settings tabs: labels in a text style, section headers and the
// rounded "cards" that group rows.
#pragma once

#include "Style.h"

#include <QFrame>
#include <QString>

class QLabel;
class QVBoxLayout;

namespace bonkwell::form {

QLabel* label(const QString& text, style::TextStyle textStyle, QWidget* parent,
              const QString& objectName = {});
// A caption-sized, dimmed, word-wrapped paragraph.
QLabel* note(const QString& text, style::TextStyle textStyle, QWidget* parent,
             const QString& objectName = {});

// A titled group: the header above a rounded box. Rows go into the returned layout.
QVBoxLayout* section(const QString& title, QVBoxLayout* into, QWidget* parent);

// A rounded box on the base colour, with its own vertical layout.
class Card : public QFrame {
  public:
    explicit Card(QWidget* parent = nullptr);
    QVBoxLayout* rows() const { return rows_; }

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    QVBoxLayout* rows_;
};

// The tab's page: the platform's padding around a column.
QWidget* page(QWidget* content, QWidget* parent);

}  // namespace bonkwell::form
