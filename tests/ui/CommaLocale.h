// SPDX-License-Identifier: GPL-3.0-or-later
// Runs a whole test program under German number formatting (decimal comma), in the C
// library and in Qt, so that a number shown with the locale's separator reads "0,25", not
// "0.25". The locale is generated for this run with localedef (package "locales") into a
// private folder, so nothing system-wide changes. If it cannot be had, the tests fail.
#pragma once

#include <QDir>
#include <QLocale>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace bonkwell::test {

inline constexpr const char* kCommaLocale = "de_DE.UTF-8";

// Switches the process to de_DE.UTF-8 (LC_ALL) and Qt's default locale to German. Returns
// false with the reason when the locale cannot be generated or does not use a comma.
inline bool switchToCommaLocale(QString* error) {
    static std::unique_ptr<QTemporaryDir> generated;
    if (std::setlocale(LC_ALL, kCommaLocale) == nullptr) {
        generated = std::make_unique<QTemporaryDir>(QDir::tempPath() +
                                                    QStringLiteral("/bonkwell-locale.XXXXXX"));
        QProcess localedef;
        localedef.setProcessChannelMode(QProcess::MergedChannels);
        localedef.start(QStringLiteral("localedef"),
                        {QStringLiteral("-i"), QStringLiteral("de_DE"), QStringLiteral("-f"),
                         QStringLiteral("UTF-8"),
                         generated->path() + QLatin1Char('/') + QLatin1String(kCommaLocale)});
        if (!localedef.waitForFinished(120000) || localedef.exitStatus() != QProcess::NormalExit) {
            *error = QStringLiteral(
                         "cannot run localedef (%1); install the \"locales\" package "
                         "with scripts/install-deps")
                         .arg(localedef.errorString());
            return false;
        }
        const QString output = QString::fromLocal8Bit(localedef.readAll()).trimmed();
        ::setenv("LOCPATH", qPrintable(generated->path()), 1);
        if (std::setlocale(LC_ALL, kCommaLocale) == nullptr) {
            *error = QStringLiteral(
                         "localedef could not make %1 (exit %2: %3); install the "
                         "\"locales\" package with scripts/install-deps")
                         .arg(QLatin1String(kCommaLocale))
                         .arg(localedef.exitCode())
                         .arg(output);
            return false;
        }
    }
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    // The proof that the switch took: without it these tests could not fail.
    char probe[16];
    std::snprintf(probe, sizeof probe, "%.2f", 0.25);
    if (QLatin1String(probe) != QLatin1String("0,25") ||
        QLocale().toString(0.25, 'f', 2) != QStringLiteral("0,25")) {
        *error = QStringLiteral("%1 is active but prints 0.25 as \"%2\" (Qt: \"%3\")")
                     .arg(QLatin1String(kCommaLocale), QLatin1String(probe),
                          QLocale().toString(0.25, 'f', 2));
        return false;
    }
    return true;
}

// Register before RUN_ALL_TESTS: every test of the program then runs under the locale.
class CommaLocaleEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        QString error;
        if (!switchToCommaLocale(&error)) {
            // A fatal failure here makes every test of the program fail.
            FAIL() << "no comma-decimal locale for this run: " << error.toStdString();
        }
    }
    void TearDown() override {
        std::setlocale(LC_ALL, "C");
        QLocale::setDefault(QLocale::c());
    }
};

}  // namespace bonkwell::test
