// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

namespace bonkwell {

// Machine-readable lines for the desktop tests ("panel shown at x,y w×h", "menu shown",
// "window shown <title>"). Written to stderr as "bonkwell-event: …" only when the
// environment variable BONKWELL_TEST_EVENTS is set; otherwise nothing.
void testEvent(const QString& what);
bool testEventsEnabled();

}  // namespace bonkwell
