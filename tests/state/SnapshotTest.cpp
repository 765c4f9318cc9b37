// SPDX-License-Identifier: GPL-3.0-or-later
// The stored settings: their exact form on disk, and loading them back.
#include "AppState.h"

#include "ManualClock.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

using namespace bonkwell;
using namespace bonkwell::test;

namespace {

const Date kNewYear{725760000.0};  // 2024-01-01 00:00:00 UTC

const QStringList kMembers{"listeningEnabled", "sensitivity",   "cooldown",         "volume",
                           "volumeScaling",    "mode",          "selectedPackName", "todayCount",
                           "totalCount",       "lastCountDate", "launchAtLogin"};

// A valid stored document with every member; `drop` leaves one out, `replace` swaps one
// member's JSON text.
QByteArray document(const QString& drop = {}, const QString& replaceKey = {},
                    const QByteArray& replaceValue = {}) {
    const QList<QPair<QString, QByteArray>> members{{"listeningEnabled", "false"},
                                                    {"sensitivity", "0.3"},
                                                    {"cooldown", "1.5"},
                                                    {"volume", "0.25"},
                                                    {"volumeScaling", "false"},
                                                    {"mode", "\"escalation\""},
                                                    {"selectedPackName", "\"Halo\""},
                                                    {"todayCount", "12"},
                                                    {"totalCount", "345"},
                                                    {"lastCountDate", "725760000.5"},
                                                    {"launchAtLogin", "true"}};
    QByteArray out = "{";
    for (const auto& [key, value] : members) {
        if (key == drop) {
            continue;
        }
        if (out.size() > 1) {
            out += ',';
        }
        out += '"' + key.toUtf8() + "\":" + (key == replaceKey ? replaceValue : value);
    }
    return out + '}';
}

bool sameBits(double a, double b) {
    return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}

class PersistenceTest : public ::testing::Test {
  protected:
    QString folder() const { return dir.path() + "/Bonkwell"; }
    QString file() const { return folder() + "/BonkwellState.v1"; }
    void store(const QByteArray& bytes) {
        ASSERT_TRUE(QDir().mkpath(folder()));
        QFile f(file());
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(bytes);
    }
    QByteArray stored() const {
        QFile f(file());
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    void expectDefaults(const AppState& s) {
        EXPECT_EQ(s.snapshot(), AppState(nullptr, &clock).snapshot());
    }

    QTemporaryDir dir;
    ManualClock clock{kNewYear};
    PreferencesStore prefs{dir.path() + "/Bonkwell"};
};

}  // namespace

TEST_F(PersistenceTest, SaveWritesElevenCompactMembers) {
    AppState state(&prefs, &clock);
    state.save();
    const QByteArray bytes = stored();
    EXPECT_FALSE(bytes.contains(' '));
    EXPECT_FALSE(bytes.contains('\n'));
    for (const QString& key : kMembers) {
        EXPECT_TRUE(bytes.contains('"' + key.toUtf8() + "\":")) << key.toStdString();
    }
    EXPECT_EQ(bytes.count(':'), 11);
}

TEST_F(PersistenceTest, NewYear2024IsStoredAs725760000) {
    clock.setNow(Date::fromUnixSeconds(1704067200.0));
    AppState state(&prefs, &clock);
    state.save();
    EXPECT_TRUE(stored().contains("\"lastCountDate\":725760000,")) << stored().toStdString();
}

TEST_F(PersistenceTest, StoredBytesReadWithAnIndependentJsonParser) {
    AppState state(&prefs, &clock);
    state.listeningEnabled.set(false);
    state.sensitivity.set(0.1);
    state.mode.set(PlayMode::escalation);
    state.selectedPackName.set("Qu\"ote\\ & ünï \x01");
    state.todayCount.set(9007199254740993);  // beyond a double's exact integers
    state.totalCount.set(std::numeric_limits<std::int64_t>::max());
    state.launchAtLogin.set(true);
    state.save();

    QProcess python;
    python.start("/usr/bin/python3", {"-c", R"PY(
import json, sys
d = json.loads(open(sys.argv[1], 'rb').read())
expected = {
    "listeningEnabled": False, "sensitivity": 0.1, "cooldown": 0.75, "volume": 1.0,
    "volumeScaling": True, "mode": "escalation", "selectedPackName": "Qu\"ote\\ & \u00fcn\u00ef \x01",
    "todayCount": 9007199254740993, "totalCount": 9223372036854775807,
    "lastCountDate": 725760000, "launchAtLogin": True,
}
assert sorted(d) == sorted(expected), sorted(d)
for k, v in expected.items():
    if isinstance(v, float):  # a whole double may be written without a fraction
        assert type(d[k]) in (int, float) and float(d[k]) == v, (k, d[k], v)
    else:
        assert d[k] == v and type(d[k]) == type(v), (k, d[k], v)
print("ok")
)PY",
                                      file()});
    ASSERT_TRUE(python.waitForFinished(30000));
    EXPECT_EQ(python.exitCode(), 0) << python.readAllStandardError().toStdString();
    EXPECT_EQ(python.readAllStandardOutput().trimmed(), "ok");
}

TEST_F(PersistenceTest, RoundTripKeepsEveryMemberExactly) {
    const double doubles[] = {0.05,
                              0.1 + 0.2,
                              5e-324,
                              std::numeric_limits<double>::max(),
                              -std::numeric_limits<double>::min(),
                              1e21,
                              123456789.123456789,
                              std::nextafter(1.0, 2.0)};
    for (double d : doubles) {
        AppState state(&prefs, &clock);
        state.listeningEnabled.set(false);
        state.sensitivity.set(d);
        state.cooldown.set(-d);
        state.volume.set(d / 3);
        state.volumeScaling.set(false);
        state.mode.set(PlayMode::escalation);
        state.selectedPackName.set("Custom");
        state.todayCount.set(std::numeric_limits<std::int64_t>::min());
        state.totalCount.set(std::numeric_limits<std::int64_t>::max());
        state.lastCountDate.set(Date{d});
        state.launchAtLogin.set(true);
        state.save();

        AppState loaded(&prefs, &clock);
        loaded.load();
        EXPECT_EQ(loaded.snapshot(), state.snapshot());
        EXPECT_TRUE(sameBits(loaded.sensitivity.get(), d)) << d;
        EXPECT_TRUE(sameBits(loaded.cooldown.get(), -d)) << d;
        EXPECT_TRUE(sameBits(loaded.volume.get(), d / 3)) << d;
        EXPECT_TRUE(sameBits(loaded.lastCountDate.get().sinceReference, d)) << d;
        EXPECT_EQ(loaded.mode.get(), PlayMode::escalation);
    }
}

TEST_F(PersistenceTest, NegativeZeroReadsBackAsZero) {
    AppState::Snapshot s;
    s.volume = -0.0;
    const QByteArray bytes = s.encode().value();
    EXPECT_TRUE(bytes.contains("\"volume\":-0.0,"));
    EXPECT_EQ(AppState::Snapshot::decode(bytes).value().volume, 0.0);
}

TEST_F(PersistenceTest, RandomDoublesRoundTripBitForBit) {
    QRandomGenerator rng(20261121);
    for (int i = 0; i < 2000; ++i) {
        double d = 0;
        do {
            d = std::bit_cast<double>(rng.generate64());
        } while (!std::isfinite(d));
        AppState::Snapshot s;
        s.sensitivity = d;
        const auto decoded = AppState::Snapshot::decode(s.encode().value());
        ASSERT_TRUE(decoded.has_value());
        ASSERT_TRUE(sameBits(decoded->sensitivity, d)) << d;
    }
}

TEST_F(PersistenceTest, LoadAssignsEveryStoredValue) {
    store(document());
    AppState state(&prefs, &clock);
    state.load();
    EXPECT_FALSE(state.listeningEnabled.get());
    EXPECT_EQ(state.sensitivity.get(), 0.3);
    EXPECT_EQ(state.cooldown.get(), 1.5);
    EXPECT_EQ(state.volume.get(), 0.25);
    EXPECT_FALSE(state.volumeScaling.get());
    EXPECT_EQ(state.mode.get(), PlayMode::escalation);
    EXPECT_EQ(state.selectedPackName.get(), "Halo");
    EXPECT_EQ(state.todayCount.get(), 12);
    EXPECT_EQ(state.totalCount.get(), 345);
    EXPECT_EQ(state.lastCountDate.get(), Date{725760000.5});
    EXPECT_TRUE(state.launchAtLogin.get());
}

TEST_F(PersistenceTest, LoadMakesNoSave) {
    store(document());
    AppState state(&prefs, &clock);
    state.load();
    EXPECT_EQ(stored(), document());
}

TEST_F(PersistenceTest, LackingAnyOneMemberLoadsNothing) {
    for (const QString& key : kMembers) {
        store(document(key));
        AppState state(&prefs, &clock);
        state.load();
        expectDefaults(state);
        EXPECT_EQ(stored(), document(key)) << "the stored bytes are left alone";
    }
}

TEST_F(PersistenceTest, AMemberOfTheWrongTypeLoadsNothing) {
    const QList<QPair<QString, QByteArray>> wrong{{"listeningEnabled", "1"},
                                                  {"sensitivity", "\"0.3\""},
                                                  {"cooldown", "null"},
                                                  {"volume", "true"},
                                                  {"volumeScaling", "\"no\""},
                                                  {"mode", "1"},
                                                  {"selectedPackName", "[]"},
                                                  {"todayCount", "1.5"},
                                                  {"totalCount", "1e400"},
                                                  {"todayCount", "9223372036854775808"},
                                                  {"lastCountDate", "\"2024-01-01\""},
                                                  {"launchAtLogin", "{}"}};
    for (const auto& [key, value] : wrong) {
        store(document({}, key, value));
        AppState state(&prefs, &clock);
        state.load();
        expectDefaults(state);
    }
}

TEST_F(PersistenceTest, CapitalisedModeLoadsAsRandom) {
    store(document({}, "mode", "\"Escalation\""));
    AppState state(&prefs, &clock);
    state.load();
    EXPECT_EQ(state.mode.get(), PlayMode::random);
    EXPECT_EQ(state.selectedPackName.get(), "Halo");  // the rest loads
}

TEST_F(PersistenceTest, OutOfRangeSettingsLoadUnchanged) {
    QByteArray doc = document({}, "sensitivity", "5");
    doc.replace("\"volume\":0.25", "\"volume\":-2");
    store(doc);
    AppState state(&prefs, &clock);
    state.load();
    EXPECT_EQ(state.sensitivity.get(), 5.0);
    EXPECT_EQ(state.volume.get(), -2.0);
}

TEST_F(PersistenceTest, UnknownMembersAndAnyOrderAreAccepted) {
    QByteArray doc = document();
    doc.insert(1, "\"version\":2,\"extra\":{\"nested\":[1,2]},");
    store(doc);
    AppState state(&prefs, &clock);
    state.load();
    EXPECT_EQ(state.totalCount.get(), 345);
}

TEST_F(PersistenceTest, AStringValueCountsAsMissing) {
    ASSERT_TRUE(prefs.setString(AppState::defaultsKey, QString::fromUtf8(document())));
    AppState state(&prefs, &clock);
    state.load();
    expectDefaults(state);
}

TEST_F(PersistenceTest, BadBytesKeepTheDefaultsSilently) {
    LogCapture log;
    QRandomGenerator rng(7);
    QList<QByteArray> inputs{"",
                             "null",
                             "[]",
                             "\"text\"",
                             "{",
                             document().left(40),
                             document() + "garbage",
                             QByteArray(4096, '\0')};
    for (int i = 0; i < 200; ++i) {
        QByteArray random(static_cast<int>(rng.bounded(1, 300)), Qt::Uninitialized);
        for (char& c : random) {
            c = static_cast<char>(rng.generate());
        }
        inputs.append(random);
    }
    for (const QByteArray& bytes : inputs) {
        store(bytes);
        AppState state(&prefs, &clock);
        state.load();
        expectDefaults(state);
    }
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(PersistenceTest, ADirectoryWhereTheFileShouldBeKeepsDefaultsAndLogsOneLine) {
    LogCapture log;
    ASSERT_TRUE(QDir().mkpath(file()));
    AppState state(&prefs, &clock);
    state.load();
    expectDefaults(state);
    state.save();
    state.save();
    state.bumpCounts();
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().first().startsWith("Bonkwell: saving settings to "))
        << log.lines().first().toStdString();
    EXPECT_EQ(state.todayCount.get(), 1);  // the app goes on
}

TEST_F(PersistenceTest, AFailedWriteKeepsThePreviousValue) {
    LogCapture log;
    AppState state(&prefs, &clock);
    state.volume.set(0.5);
    state.save();
    const QByteArray before = stored();
    // Replace the folder's place with a file so that no temporary can be created there.
    PreferencesStore broken(file() + "/not-a-folder");
    AppState other(&broken, &clock);
    other.volume.set(0.9);
    other.save();
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(log.lines().size(), 1);
}

TEST_F(PersistenceTest, NonFiniteSettingsAreNotWrittenAndThePreviousValueStays) {
    AppState state(&prefs, &clock);
    state.save();
    const QByteArray before = stored();
    state.sensitivity.set(std::numeric_limits<double>::quiet_NaN());
    state.save();
    state.volume.set(std::numeric_limits<double>::infinity());
    state.save();
    EXPECT_EQ(stored(), before);
}

TEST_F(PersistenceTest, LoadClearsTemporariesOfAKilledWriter) {
    store(document());
    QFile stray(folder() + "/.BonkwellState.v1.tmp-Ab12Cd");
    ASSERT_TRUE(stray.open(QIODevice::WriteOnly));
    stray.write("{\"listen");
    stray.close();
    AppState state(&prefs, &clock);
    state.load();
    EXPECT_FALSE(QFile::exists(stray.fileName()));
    EXPECT_EQ(state.totalCount.get(), 345);
}

TEST_F(PersistenceTest, StandardStoreLivesInXdgConfigHome) {
    TemporaryXdgHome home;
    AppState state(nullptr, &clock);
    state.totalCount.set(3);
    state.save();
    QFile f(home.configHome() + "/Bonkwell/BonkwellState.v1");
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_TRUE(f.readAll().contains("\"totalCount\":3"));
}
