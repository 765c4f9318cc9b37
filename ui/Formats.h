// SPDX-License-Identifier: GPL-3.0-or-later
// How the panel and windows print their numbers. Pure functions; a value that is not finite
// (or a whole number that does not fit in 64 bits) is a programming fault and stops the
// process through bonkwell::fatal.
#pragma once

#include <QString>

#include <cstdint>

namespace bonkwell::format {

// "%.2fg": 0.25 → "0.25g" (panel sensitivity).
QString sensitivityShort(double g);
// Whole percent, truncated toward zero: 1.255 → "125%", 0.555 → "55%".
QString percent(double factor);
// "%.3f g": 0.15 → "0.150 g" (thresholds).
QString threshold(double g);
// "%.4f g": 1.0 → "1.0000 g" (live magnitude).
QString magnitude(double g);
// Seconds as whole milliseconds, truncated: 0.25 → "250 ms".
QString milliseconds(double seconds);

// Truncates value × factor toward zero; fatal when not finite or outside int64.
std::int64_t truncatedWhole(double value, double factor, const char* what);

// The hint under the panel's sensitivity slider. 0.15 and 0.35 belong to the middle band.
QString sensitivityHint(double g);

// The helper's install folder as shown to the user: `dataHome`/Bonkwell/Helpers/ with the
// home folder written as "~" (e.g. "~/.local/share/Bonkwell/Helpers/").
QString helperFolderForDisplay(const QString& dataHome, const QString& home);
// The same for this user's XDG data home ($XDG_DATA_HOME, else ~/.local/share).
QString helperFolderForDisplay();

}  // namespace bonkwell::format
