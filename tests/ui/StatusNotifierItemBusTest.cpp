// SPDX-License-Identifier: GPL-3.0-or-later
// Our StatusNotifierItem on a real (private) session bus, seen from a tray host's watcher:
// what the host is told when the item registers, what it reads from the item at that moment,
// and how the item leaves and comes back.
#include "StatusNotifierItem.h"
#include "TrayIconArt.h"

#include <QAction>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingReply>
#include <QMenu>
#include <QProcess>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

using namespace bonkwell;

namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");

// A session bus of the test's own (dbus-daemon), so that no desktop's watcher answers and
// nothing of the machine's session is touched. Started once per test process.
QString privateSessionBus() {
    static QProcess* daemon = nullptr;
    static QString address;
    if (daemon == nullptr) {
        daemon = new QProcess();
        daemon->start(QStringLiteral("dbus-daemon"),
                      {QStringLiteral("--session"), QStringLiteral("--nofork"),
                       QStringLiteral("--print-address=1")});
        if (!daemon->waitForStarted(5000)) {
            return {};
        }
        for (int i = 0; i < 50 && !daemon->canReadLine(); ++i) {
            daemon->waitForReadyRead(100);
        }
        address = QString::fromUtf8(daemon->readLine()).trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
        // Ends with the application, not left behind.
        qAddPostRoutine([] {
            daemon->kill();
            daemon->waitForFinished(2000);
            delete daemon;
        });
    }
    return address;
}

struct Registration {
    QString service;  // what the item passed
    QString sender;   // the connection it came from
    // What a host reads from the item as soon as it hears of it.
    QDBusPendingCall properties{QDBusPendingCall::fromCompletedCall(QDBusMessage())};
};

// The part of a watcher that items talk to.
class FakeWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)

  public:
    explicit FakeWatcher(QDBusConnection bus) : bus_(bus) {}
    bool hostRegistered() const { return true; }
    QList<Registration> registrations;

  public slots:
    void RegisterStatusNotifierItem(const QString& service, const QDBusMessage& message) {
        Registration r;
        r.service = service;
        r.sender = message.service();
        const QString path = service.startsWith(QLatin1Char('/')) ? service : QStringLiteral("/");
        const QString name = service.startsWith(QLatin1Char('/')) ? r.sender : service;
        QDBusMessage getAll = QDBusMessage::createMethodCall(
            name, path, QStringLiteral("org.freedesktop.DBus.Properties"),
            QStringLiteral("GetAll"));
        getAll << QStringLiteral("org.kde.StatusNotifierItem");
        r.properties = bus_.asyncCall(getAll);
        registrations.append(r);
    }

  private:
    QDBusConnection bus_;
};

class StatusNotifierItemBusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(privateSessionBus().isEmpty())
            << "dbus-daemon did not start (install the dbus-daemon package)";
        bus = QDBusConnection::sessionBus();
        ASSERT_TRUE(bus.isConnected()) << bus.lastError().message().toStdString();
        watcher = std::make_unique<FakeWatcher>(bus);
        startWatcher();
        menu.addAction(QStringLiteral("Open Bonkwell"));
        menu.addAction(QStringLiteral("Quit Bonkwell"));
        item.setContextMenu(&menu);
        item.setIcon(trayicon::makeIcon(trayicon::Variant::dark));
        item.setToolTip(QStringLiteral("Bonkwell"));
    }

    void TearDown() override {
        item.hide();
        bus.unregisterObject(QStringLiteral("/StatusNotifierWatcher"));
        bus.unregisterService(kWatcher);
    }

    void startWatcher() {
        ASSERT_TRUE(bus.registerObject(
            QStringLiteral("/StatusNotifierWatcher"), watcher.get(),
            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties));
        ASSERT_TRUE(bus.registerService(kWatcher));
    }

    bool waitForRegistrations(int count) {
        return QTest::qWaitFor([&] { return watcher->registrations.size() >= count; }, 5000);
    }

    QVariantMap propertiesReadAt(int n) {
        QDBusPendingCall call = watcher->registrations.at(n).properties;
        EXPECT_TRUE(QTest::qWaitFor([&] { return call.isFinished(); }, 5000));
        QDBusPendingReply<QVariantMap> reply = call;
        EXPECT_FALSE(reply.isError()) << reply.error().message().toStdString();
        return reply.value();
    }

    bool onBus(const QString& name) { return bus.interface()->isServiceRegistered(name).value(); }

    QDBusConnection bus{QStringLiteral("none")};
    std::unique_ptr<FakeWatcher> watcher;
    QMenu menu;
    StatusNotifierItem item;
};

}  // namespace

TEST_F(StatusNotifierItemBusTest, TheHostCanReadTheWholeItemTheMomentItHearsOfIt) {
    ASSERT_TRUE(item.show());
    ASSERT_TRUE(waitForRegistrations(1));
    const Registration& r = watcher->registrations.at(0);
    // By object path, from the item's own connection: the host takes the sender's name.
    EXPECT_EQ(r.service, "/StatusNotifierItem");
    EXPECT_EQ(r.sender, item.busName());
    EXPECT_TRUE(r.sender.startsWith(QLatin1Char(':')));
    // Read while the registration was being handled: nothing a host needs is missing.
    const QVariantMap p = propertiesReadAt(0);
    EXPECT_EQ(p.value("Id").toString(), "com.bonkwell.Bonkwell");
    EXPECT_EQ(p.value("Title").toString(), "Bonkwell");
    EXPECT_EQ(p.value("Status").toString(), "Active");
    EXPECT_EQ(p.value("Category").toString(), "ApplicationStatus");
    EXPECT_EQ(p.value("Menu").value<QDBusObjectPath>().path(), "/MenuBar");
    EXPECT_EQ(p.value("IconName").toString(), trayicon::symbolicName());
    for (const char* name : {"IconPixmap", "ToolTip", "IconThemePath", "ItemIsMenu",
                             "OverlayIconName", "AttentionIconName", "WindowId"}) {
        EXPECT_TRUE(p.contains(QString::fromLatin1(name))) << name;
    }
}

TEST_F(StatusNotifierItemBusTest, TheItemOwnsNoNameAHostWouldWatchComeAndGo) {
    ASSERT_TRUE(item.show());
    ASSERT_TRUE(waitForRegistrations(1));
    const QString unique = watcher->registrations.at(0).sender;
    const QStringList names = bus.interface()->registeredServiceNames().value();
    for (const QString& name : names) {
        if (!name.startsWith(QLatin1Char(':')) && name != kWatcher &&
            name != QLatin1String("org.freedesktop.DBus")) {
            EXPECT_NE(bus.interface()->serviceOwner(name).value(), unique) << name.toStdString();
        }
    }
}

TEST_F(StatusNotifierItemBusTest, HidingTakesTheItemOffTheBusAndShowingBringsItBack) {
    ASSERT_TRUE(item.show());
    ASSERT_TRUE(waitForRegistrations(1));
    const QString first = watcher->registrations.at(0).sender;
    ASSERT_TRUE(onBus(first));
    item.hide();
    // Hosts drop an item when its name leaves the bus.
    EXPECT_TRUE(QTest::qWaitFor([&] { return !onBus(first); }, 5000));
    EXPECT_TRUE(item.busName().isEmpty());
    ASSERT_TRUE(item.show());
    ASSERT_TRUE(waitForRegistrations(2));
    EXPECT_EQ(watcher->registrations.at(1).service, "/StatusNotifierItem");
    EXPECT_NE(watcher->registrations.at(1).sender, first);
    EXPECT_EQ(propertiesReadAt(1).value("Id").toString(), "com.bonkwell.Bonkwell");
}

TEST_F(StatusNotifierItemBusTest, AWatcherThatComesBackHearsOfTheItemAgain) {
    ASSERT_TRUE(item.show());
    ASSERT_TRUE(waitForRegistrations(1));
    // The panel restarts (or its extension is turned off and on).
    ASSERT_TRUE(bus.unregisterService(kWatcher));
    QTest::qWait(100);
    ASSERT_TRUE(bus.registerService(kWatcher));
    ASSERT_TRUE(waitForRegistrations(2));
    EXPECT_EQ(watcher->registrations.at(1).service, "/StatusNotifierItem");
    EXPECT_EQ(watcher->registrations.at(1).sender, watcher->registrations.at(0).sender);
    EXPECT_EQ(propertiesReadAt(1).value("Menu").value<QDBusObjectPath>().path(), "/MenuBar");
}

#include "StatusNotifierItemBusTest.moc"
