// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop's colour-scheme preference read from a portal on a private session bus: a small
// fake portal (fake_portal.py) answers as current portals do (ReadOne), as older ones do
// (Read only), or with nonsense, and announces changes with SettingChanged.
#include "Log.h"
#include "PortalColorScheme.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

namespace bonkwell {
namespace {

const QString kPortal = QStringLiteral("org.freedesktop.portal.Desktop");

class PortalColorSchemeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setLogSinkForTesting([this](const QString& line) { log.append(line); });
        // A bus of our own that starts no services: the machine's real portal, if installed,
        // would otherwise be started on demand and answer instead of the fake one.
        ASSERT_TRUE(dir_.isValid());
        QFile config(dir_.filePath(QStringLiteral("bus.conf")));
        ASSERT_TRUE(config.open(QIODevice::WriteOnly));
        config.write(QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
                                    "Configuration 1.0//EN\" "
                                    "\"http://www.freedesktop.org/standards/dbus/1.0/"
                                    "busconfig.dtd\">\n<busconfig><type>session</type>"
                                    "<listen>unix:dir=%1</listen><policy context=\"default\">"
                                    "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                    "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
                                    "</busconfig>\n")
                         .arg(dir_.path())
                         .toUtf8());
        config.close();
        bus_.setProgram(QStringLiteral("dbus-daemon"));
        bus_.setArguments({QStringLiteral("--config-file=") + config.fileName(),
                           QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
        bus_.start();
        ASSERT_TRUE(bus_.waitForStarted(5000))
            << "cannot start dbus-daemon (package dbus, scripts/install-deps): "
            << bus_.errorString().toStdString();
        ASSERT_TRUE(QTest::qWaitFor([&] { return bus_.canReadLine(); }, 10000))
            << "dbus-daemon printed no address";
        address_ = QString::fromUtf8(bus_.readLine()).trimmed();
        connection = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(address_, QStringLiteral("portal-test")));
        ASSERT_TRUE(connection->isConnected()) << address_.toStdString();
    }

    void TearDown() override {
        source.reset();
        if (portal_.state() != QProcess::NotRunning) {
            portal_.kill();
            portal_.waitForFinished(5000);
        }
        connection.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("portal-test"));
        bus_.kill();
        bus_.waitForFinished(5000);
        setLogSinkForTesting({});
    }

    // Starts the fake portal of `kind` answering `value`; returns once it owns its name.
    void startPortal(const QString& kind, int value) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address_);
        portal_.setProcessEnvironment(env);
        portal_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        portal_.start(QStringLiteral("/usr/bin/python3"),
                      {QStringLiteral(BONKWELL_FAKE_PORTAL), QStringLiteral("--kind"), kind,
                       QStringLiteral("--value"), QString::number(value)});
        ASSERT_TRUE(portal_.waitForStarted(5000)) << portal_.errorString().toStdString();
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                return connection->interface()->isServiceRegistered(kPortal).value() ||
                       portal_.state() == QProcess::NotRunning;
            },
            15000));
        ASSERT_EQ(portal_.state(), QProcess::Running)
            << "the fake portal ended (python3-dbus and python3-gi, scripts/install-deps)";
    }

    void makeSource() {
        source = std::make_unique<PortalColorScheme>(*connection);
        QObject::connect(source.get(), &ColorSchemeSource::changed,
                         [this](ColorScheme scheme) { changes.append(scheme); });
    }

    void settle() {
        ASSERT_TRUE(QTest::qWaitFor([&] { return source->settled(); }, 15000));
    }

    // What the user does in the desktop's settings: the portal announces the new value.
    void desktopSets(uint value) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            kPortal, QStringLiteral("/org/freedesktop/portal/desktop"),
            QStringLiteral("com.bonkwell.test.FakePortal"), QStringLiteral("SetColorScheme"));
        call << value;
        QDBusPendingCall pending = connection->asyncCall(call);
        ASSERT_TRUE(QTest::qWaitFor([&] { return pending.isFinished(); }, 10000));
        ASSERT_FALSE(pending.isError()) << pending.error().message().toStdString();
    }

    QStringList log;
    QList<ColorScheme> changes;
    std::unique_ptr<QDBusConnection> connection;
    std::unique_ptr<PortalColorScheme> source;

  private:
    QTemporaryDir dir_;
    QProcess bus_;
    QProcess portal_;
    QString address_;
};

}  // namespace

TEST_F(PortalColorSchemeTest, ReadsTheDarkPreferenceWithReadOne) {
    startPortal(QStringLiteral("current"), 1);
    makeSource();
    // Asked without waiting: nothing is known when the constructor returns.
    EXPECT_FALSE(source->settled());
    EXPECT_EQ(source->current(), ColorScheme::noPreference);
    settle();
    EXPECT_EQ(source->current(), ColorScheme::preferDark);
    EXPECT_EQ(changes, QList<ColorScheme>{ColorScheme::preferDark});
    EXPECT_TRUE(log.isEmpty()) << log.join('\n').toStdString();
}

TEST_F(PortalColorSchemeTest, FallsBackToReadOnAnOlderPortal) {
    startPortal(QStringLiteral("old"), 2);
    makeSource();
    settle();
    EXPECT_EQ(source->current(), ColorScheme::preferLight);
    EXPECT_TRUE(log.isEmpty()) << log.join('\n').toStdString();
}

TEST_F(PortalColorSchemeTest, FollowsSettingChanged) {
    startPortal(QStringLiteral("current"), 0);
    makeSource();
    settle();
    EXPECT_EQ(source->current(), ColorScheme::noPreference);
    EXPECT_TRUE(changes.isEmpty());

    desktopSets(1);
    ASSERT_TRUE(QTest::qWaitFor([&] { return changes.size() == 1; }, 10000))
        << changes.size() << " " << log.join(QChar(10)).toStdString();
    EXPECT_EQ(source->current(), ColorScheme::preferDark);
    desktopSets(2);
    ASSERT_TRUE(QTest::qWaitFor([&] { return changes.size() == 2; }, 10000));
    EXPECT_EQ(source->current(), ColorScheme::preferLight);
    desktopSets(0);
    ASSERT_TRUE(QTest::qWaitFor([&] { return changes.size() == 3; }, 10000));
    EXPECT_EQ(changes, (QList<ColorScheme>{ColorScheme::preferDark, ColorScheme::preferLight,
                                           ColorScheme::noPreference}));
    // The portal's other settings (sent before each change) are not ours to read.
    EXPECT_TRUE(log.isEmpty()) << log.join('\n').toStdString();
}

TEST_F(PortalColorSchemeTest, AnAnswerOfTheWrongTypeMeansNoPreferenceWithOneLogLine) {
    startPortal(QStringLiteral("garbage"), 1);
    makeSource();
    settle();
    EXPECT_EQ(source->current(), ColorScheme::noPreference);
    EXPECT_TRUE(changes.isEmpty());
    ASSERT_EQ(log.size(), 1) << log.join('\n').toStdString();
    EXPECT_TRUE(log[0].contains(QStringLiteral("unusable colour scheme"))) << log[0].toStdString();
    EXPECT_TRUE(log[0].contains(QStringLiteral("expected an unsigned number, got QString")))
        << log[0].toStdString();

    // Another nonsense announcement: still no preference, and the log is not flooded.
    desktopSets(1);
    QTest::qWait(300);
    EXPECT_EQ(source->current(), ColorScheme::noPreference);
    EXPECT_EQ(log.size(), 1) << log.join('\n').toStdString();
}

TEST_F(PortalColorSchemeTest, AnUnknownValueMeansNoPreference) {
    startPortal(QStringLiteral("current"), 7);
    makeSource();
    settle();
    EXPECT_EQ(source->current(), ColorScheme::noPreference);
    ASSERT_EQ(log.size(), 1) << log.join('\n').toStdString();
    EXPECT_TRUE(log[0].contains(QStringLiteral("unknown value 7"))) << log[0].toStdString();
}

TEST_F(PortalColorSchemeTest, WithoutAPortalThereIsNoPreferenceAndOneLogLine) {
    makeSource();
    EXPECT_FALSE(source->settled());
    settle();
    EXPECT_EQ(source->current(), ColorScheme::noPreference);
    EXPECT_TRUE(changes.isEmpty());
    ASSERT_EQ(log.size(), 1) << log.join('\n').toStdString();
    EXPECT_TRUE(log[0].contains(QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown")))
        << log[0].toStdString();
}

TEST(PortalValue, UnwrapsVariantsAndRejectsOtherTypes) {
    QString error;
    EXPECT_EQ(PortalColorScheme::fromPortalValue(QVariant::fromValue(1u), &error),
              ColorScheme::preferDark);
    const QVariant once = QVariant::fromValue(QDBusVariant(QVariant::fromValue(2u)));
    EXPECT_EQ(PortalColorScheme::fromPortalValue(once, &error), ColorScheme::preferLight);
    const QVariant twice = QVariant::fromValue(QDBusVariant(once));
    EXPECT_EQ(PortalColorScheme::fromPortalValue(twice, &error), ColorScheme::preferLight);
    EXPECT_FALSE(PortalColorScheme::fromPortalValue(QVariant::fromValue(1), &error));
    EXPECT_EQ(error, QStringLiteral("expected an unsigned number, got int"));
    EXPECT_FALSE(PortalColorScheme::fromPortalValue(QVariant(), &error));
    EXPECT_EQ(error, QStringLiteral("expected an unsigned number, got nothing"));
}

}  // namespace bonkwell
