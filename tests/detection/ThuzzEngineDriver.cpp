// SPDX-License-Identifier: GPL-3.0-or-later
// thuzz_engine_driver bundled|state|install
// Runs one installation operation of ThuzzEngine and prints what it saw, one item per line:
//   bundled: <path>|none      state: <name>      status: <text>      result: true|false
// Newlines and backslashes in texts are written as \n and \\.
#include "ThuzzEngine.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

void print(const char* key, const QString& text) {
    QString escaped = text;
    escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    escaped.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    std::printf("%s: %s\n", key, escaped.toUtf8().constData());
    std::fflush(stdout);
}

const char* stateName(bonkwell::InstallState state) {
    switch (state) {
        case bonkwell::InstallState::bundleMissing:
            return "bundleMissing";
        case bonkwell::InstallState::notInstalled:
            return "notInstalled";
        case bonkwell::InstallState::notSetuid:
            return "notSetuid";
        case bonkwell::InstallState::installed:
            return "installed";
    }
    return "?";
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QString command = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    bonkwell::ThuzzEngine engine;
    engine.setOnStatus([](const QString& status) { print("status", status); });
    if (command == QLatin1String("bundled")) {
        print("bundled", engine.bundledHelperURL().value_or(QStringLiteral("none")));
    } else if (command == QLatin1String("state")) {
        print("state", QString::fromLatin1(stateName(engine.installState())));
    } else if (command == QLatin1String("install")) {
        const bool ok = engine.installHelper();
        print("result", ok ? QStringLiteral("true") : QStringLiteral("false"));
    } else {
        std::fprintf(stderr, "usage: thuzz_engine_driver bundled|state|install\n");
        return 2;
    }
    return 0;
}
