// SPDX-License-Identifier: GPL-3.0-or-later
// Our StatusNotifierItem and its exported menu, called as a tray host calls them.
#include "StatusNotifierItem.h"
#include "TrayIconArt.h"

#include <QAction>
#include <QMenu>
#include <QTest>

#include <gtest/gtest.h>

#include <optional>

using namespace bonkwell;

namespace {

class StatusNotifierItemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QObject::connect(&menu, &QMenu::aboutToShow, &menu, [this] {
            ++rebuilt;
            menu.clear();
            for (const char* text : {"Open Bonkwell", "", "Settings\u2026", "Calibration\u2026", "",
                                     "Quit Bonkwell"}) {
                if (*text == '\0') {
                    menu.addSeparator();
                } else {
                    QAction* a = menu.addAction(QString::fromUtf8(text));
                    QObject::connect(a, &QAction::triggered, a,
                                     [this, a] { triggered.append(a->text()); });
                }
            }
        });
        emit menu.aboutToShow();
        item.setContextMenu(&menu);
        item.setActivationHandler(
            [this](QSystemTrayIcon::ActivationReason reason, std::optional<QPoint> at) {
                reasons.append(reason);
                points.append(at);
            });
        itemAdaptor = item.findChild<StatusNotifierItemAdaptor*>();
        menuAdaptor = item.findChild<DBusMenuAdaptor*>();
        ASSERT_NE(itemAdaptor, nullptr);
        ASSERT_NE(menuAdaptor, nullptr);
    }

    QMenu menu;
    int rebuilt = 0;
    QStringList triggered;
    QList<QSystemTrayIcon::ActivationReason> reasons;
    QList<std::optional<QPoint>> points;
    StatusNotifierItem item;
    StatusNotifierItemAdaptor* itemAdaptor = nullptr;
    DBusMenuAdaptor* menuAdaptor = nullptr;
};

}  // namespace

TEST_F(StatusNotifierItemTest, TheLayoutListsTheSixEntries) {
    dbustray::MenuLayout layout;
    menuAdaptor->GetLayout(0, -1, {}, layout);
    EXPECT_EQ(layout.id, 0);
    EXPECT_EQ(layout.properties.value("children-display").toString(), "submenu");
    ASSERT_EQ(layout.children.size(), 6);
    EXPECT_EQ(layout.children[0].properties.value("label").toString(), "Open Bonkwell");
    EXPECT_EQ(layout.children[1].properties.value("type").toString(), "separator");
    EXPECT_EQ(layout.children[2].properties.value("label").toString(),
              QString::fromUtf8("Settings\u2026"));
    EXPECT_EQ(layout.children[3].properties.value("label").toString(),
              QString::fromUtf8("Calibration\u2026"));
    EXPECT_EQ(layout.children[4].properties.value("type").toString(), "separator");
    EXPECT_EQ(layout.children[5].properties.value("label").toString(), "Quit Bonkwell");
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(layout.children[i].id, i + 1);
    }
}

TEST_F(StatusNotifierItemTest, AClickedEventTriggersTheEntryAfterTheReply) {
    menuAdaptor->Event(3, QStringLiteral("clicked"), QDBusVariant(0), 0);
    EXPECT_TRUE(triggered.isEmpty());  // not while the host waits for the reply
    ASSERT_TRUE(QTest::qWaitFor([&] { return !triggered.isEmpty(); }, 2000));
    EXPECT_EQ(triggered, QStringList{QString::fromUtf8("Settings\u2026")});
    // Unknown ids and other events do nothing.
    menuAdaptor->Event(42, QStringLiteral("clicked"), QDBusVariant(0), 0);
    menuAdaptor->Event(1, QStringLiteral("hovered"), QDBusVariant(0), 0);
    QTest::qWait(50);
    EXPECT_EQ(triggered.size(), 1);
}

TEST_F(StatusNotifierItemTest, OpeningTheMenuLetsTheAppRebuildIt) {
    const int before = rebuilt;
    EXPECT_FALSE(menuAdaptor->AboutToShow(0));
    EXPECT_EQ(rebuilt, before + 1);
    dbustray::MenuLayout layout;
    menuAdaptor->GetLayout(0, -1, {}, layout);
    EXPECT_EQ(layout.children.size(), 6);
}

TEST_F(StatusNotifierItemTest, ActivateCarriesWhereTheClickWas) {
    itemAdaptor->Activate(640, 12);
    itemAdaptor->Activate(0, 0);  // a host that does not know
    ASSERT_TRUE(QTest::qWaitFor([&] { return reasons.size() == 2; }, 2000));
    EXPECT_EQ(reasons[0], QSystemTrayIcon::Trigger);
    EXPECT_EQ(points[0], std::optional<QPoint>(QPoint(640, 12)));
    EXPECT_EQ(reasons[1], QSystemTrayIcon::Trigger);
    EXPECT_FALSE(points[1].has_value());
}

TEST_F(StatusNotifierItemTest, AHostsActivationTokenIsThereWhileThePanelOpensAndOnlyThen) {
    QStringList seen;
    item.setActivationHandler([&](QSystemTrayIcon::ActivationReason, std::optional<QPoint>) {
        seen.append(qEnvironmentVariable("XDG_ACTIVATION_TOKEN"));
    });
    itemAdaptor->ProvideXdgActivationToken(QStringLiteral("plasma-token-7"));
    itemAdaptor->Activate(10, 10);
    ASSERT_TRUE(QTest::qWaitFor([&] { return seen.size() == 1; }, 2000));
    itemAdaptor->Activate(10, 10);  // a token serves once
    ASSERT_TRUE(QTest::qWaitFor([&] { return seen.size() == 2; }, 2000));
    EXPECT_EQ(seen, QStringList({"plasma-token-7", ""}));
    EXPECT_FALSE(qEnvironmentVariableIsSet("XDG_ACTIVATION_TOKEN"));
}

TEST_F(StatusNotifierItemTest, AMenuEntryClickedWithATokenOpensItsWindowWithIt) {
    QStringList seen;
    QObject::connect(&menu, &QMenu::triggered, &menu,
                     [&](QAction*) { seen.append(qEnvironmentVariable("XDG_ACTIVATION_TOKEN")); });
    itemAdaptor->ProvideXdgActivationToken(QStringLiteral("gnome-shell/token-3"));
    menuAdaptor->Event(3, QStringLiteral("clicked"), QDBusVariant(0), 0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return seen.size() == 1; }, 2000));
    EXPECT_EQ(seen, QStringList{"gnome-shell/token-3"});
    EXPECT_FALSE(qEnvironmentVariableIsSet("XDG_ACTIVATION_TOKEN"));
}

TEST_F(StatusNotifierItemTest, TheIconGoesByItsSymbolicNameWithPixelsForOtherHosts) {
    item.setIcon(trayicon::makeIcon(trayicon::Variant::dark));
    EXPECT_EQ(itemAdaptor->iconName(), "com.bonkwell.Bonkwell-symbolic");
    const dbustray::IconPixmapList pixmaps = itemAdaptor->iconPixmap();
    ASSERT_FALSE(pixmaps.isEmpty());
    for (const dbustray::IconPixmap& p : pixmaps) {
        EXPECT_EQ(p.bytes.size(), p.width * p.height * 4);
    }
    // Network byte order: alpha first. The 22-pixel mark has opaque hand pixels in the
    // variant's colour somewhere.
    const dbustray::IconPixmap& p = pixmaps[1];
    ASSERT_EQ(p.width, 22);
    const QColor glyph = trayicon::glyphColor(trayicon::Variant::dark);
    bool found = false;
    for (qsizetype i = 0; i + 3 < p.bytes.size(); i += 4) {
        const auto a = static_cast<uchar>(p.bytes[i]);
        const auto r = static_cast<uchar>(p.bytes[i + 1]);
        const auto g = static_cast<uchar>(p.bytes[i + 2]);
        const auto b = static_cast<uchar>(p.bytes[i + 3]);
        if (a == 255 && r == glyph.red() && g == glyph.green() && b == glyph.blue()) {
            found = true;
        }
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(itemAdaptor->toolTip().title, QString());
    item.setToolTip(QStringLiteral("Bonkwell"));
    EXPECT_EQ(itemAdaptor->toolTip().title, "Bonkwell");
}
