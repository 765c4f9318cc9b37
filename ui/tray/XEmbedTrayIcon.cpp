// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayIcon.h"

#include <QMenu>
#include <QObject>

namespace bonkwell {
namespace {

class XEmbedTrayIcon final : public TrayIcon {
  public:
    XEmbedTrayIcon() {
        QObject::connect(&icon_, &QSystemTrayIcon::activated, &icon_,
                         [this](QSystemTrayIcon::ActivationReason reason) { activated(reason); });
    }
    void setIcon(const QIcon& icon) override { icon_.setIcon(icon); }
    void setToolTip(const QString& text) override { icon_.setToolTip(text); }
    void setContextMenu(QMenu* menu) override { icon_.setContextMenu(menu); }
    bool show() override {
        icon_.show();
        return true;
    }
    void hide() override { icon_.hide(); }
    QRect geometry() const override { return icon_.geometry(); }

  private:
    QSystemTrayIcon icon_;
};

}  // namespace

std::unique_ptr<TrayIcon> makeXEmbedTrayIcon() {
    return std::make_unique<XEmbedTrayIcon>();
}

}  // namespace bonkwell
