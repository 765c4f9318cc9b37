// SPDX-License-Identifier: GPL-3.0-or-later
#include "Log.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace bonkwell {
namespace {

std::mutex& logMutex() {
    static std::mutex m;
    return m;
}

std::function<void(const QString&)>& testSink() {
    static std::function<void(const QString&)> sink;
    return sink;
}

bool& syslogOpened() {
    static bool opened = false;
    return opened;
}

}  // namespace

bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    unsigned long long dev = 0;
    unsigned long long ino = 0;
    if (std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2) {
        return false;
    }
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) != 0) {
        return false;
    }
    return static_cast<unsigned long long>(st.st_dev) == dev &&
           static_cast<unsigned long long>(st.st_ino) == ino;
}

void logLine(const QString& line) {
    const QByteArray utf8 = line.toUtf8();
    std::lock_guard lock(logMutex());
    if (testSink()) {
        testSink()(line);
        return;
    }
    if (!syslogOpened()) {
        openlog("bonkwell", LOG_PID, LOG_USER);
        syslogOpened() = true;
    }
    syslog(LOG_NOTICE, "%s", utf8.constData());
    if (!stderrIsJournal()) {
        std::fprintf(stderr, "%s\n", utf8.constData());
        std::fflush(stderr);
    }
}

void fatal(const QString& why) {
    logLine(QStringLiteral("Bonkwell: fatal: ") + why);
    std::abort();
}

void setLogSinkForTesting(std::function<void(const QString&)> sink) {
    std::lock_guard lock(logMutex());
    testSink() = std::move(sink);
}

}  // namespace bonkwell
