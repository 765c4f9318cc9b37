// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <functional>

namespace bonkwell {

// Writes one line to the system log (ident "bonkwell", which the journal receives) and to
// stderr, each once. When stderr already is the journal (JOURNAL_STREAM names fd 2), the
// stderr copy is skipped so the journal does not show the line twice.
// The caller writes the whole line, prefix included ("Bonkwell: …", "thuzz-detector: …").
// Safe to call from any thread.
void logLine(const QString& line);

// Logs "Bonkwell: fatal: <why>" and stops the process. For programming faults only.
[[noreturn]] void fatal(const QString& why);

// Test seam: while a sink is installed every line goes to it instead of syslog and stderr.
// Pass an empty function to restore normal logging.
void setLogSinkForTesting(std::function<void(const QString&)> sink);

// True when fd 2 is the stream named by JOURNAL_STREAM ("<dev>:<inode>").
bool stderrIsJournal();

}  // namespace bonkwell
