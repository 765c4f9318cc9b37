// SPDX-License-Identifier: GPL-3.0-or-later
#include "Log.h"

#include "TestSupport.h"

#include <QFile>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

using bonkwell::logLine;
using bonkwell::stderrIsJournal;

namespace {

// Sends fd 2 to a temporary file for the life of the object.
class StderrToFile {
  public:
    StderrToFile() {
        EXPECT_TRUE(file_.open());
        std::fflush(stderr);
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(file_.handle(), STDERR_FILENO);
    }
    ~StderrToFile() {
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        ::unsetenv("JOURNAL_STREAM");
    }
    QByteArray contents() {
        std::fflush(stderr);
        QFile f(file_.fileName());
        EXPECT_TRUE(f.open(QIODevice::ReadOnly));
        return f.readAll();
    }
    QByteArray journalStreamValue() const {
        struct stat st {};
        ::fstat(STDERR_FILENO, &st);
        return QByteArray::number(static_cast<qulonglong>(st.st_dev)) + ':' +
               QByteArray::number(static_cast<qulonglong>(st.st_ino));
    }

  private:
    QTemporaryFile file_;
    int saved_ = -1;
};

}  // namespace

TEST(Log, LineGoesToStderrOnceWhenStderrIsNotTheJournal) {
    StderrToFile capture;
    ::unsetenv("JOURNAL_STREAM");
    logLine(QStringLiteral("Bonkwell: hello from the log test"));
    EXPECT_EQ(capture.contents(), QByteArray("Bonkwell: hello from the log test\n"));
}

TEST(Log, NothingOnStderrWhenStderrIsTheJournal) {
    StderrToFile capture;
    ::setenv("JOURNAL_STREAM", capture.journalStreamValue().constData(), 1);
    EXPECT_TRUE(stderrIsJournal());
    logLine(QStringLiteral("Bonkwell: only in the journal"));
    EXPECT_TRUE(capture.contents().isEmpty());
}

TEST(Log, AJournalStreamNamingAnotherFileIsNotStderr) {
    StderrToFile capture;
    ::setenv("JOURNAL_STREAM", "1:2", 1);
    EXPECT_FALSE(stderrIsJournal());
    ::setenv("JOURNAL_STREAM", "garbage", 1);
    EXPECT_FALSE(stderrIsJournal());
    logLine(QStringLiteral("Bonkwell: still on stderr"));
    EXPECT_EQ(capture.contents(), QByteArray("Bonkwell: still on stderr\n"));
}

TEST(Log, TestSinkReceivesLinesVerbatim) {
    bonkwell::test::LogCapture log;
    logLine(QStringLiteral("thuzz-detector: ready"));
    logLine(QStringLiteral("Bonkwell: ünïcödé"));
    EXPECT_EQ(log.lines(), (QStringList{QStringLiteral("thuzz-detector: ready"),
                                        QStringLiteral("Bonkwell: ünïcödé")}));
}

TEST(LogDeathTest, FatalStopsTheProcessWithAClearMessage) {
    EXPECT_DEATH(bonkwell::fatal(QStringLiteral("choosing from an empty pack")),
                 "Bonkwell: fatal: choosing from an empty pack");
}
