// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

class QObject;

namespace bonkwell {

// Machine-readable lines for the desktop tests ("panel shown at x,y w×h", "menu shown",
// "window shown <title>"). Written to stderr as "bonkwell-event: …" only when the
// environment variable BONKWELL_TEST_EVENTS is set; otherwise nothing.
void testEvent(const QString& what);
bool testEventsEnabled();

// With test events on: watches the app's visible windows and reports, each time it changes,
// the text of every named label and button, or the accessible name of a hand-drawn one
// ("text WINDOW/NAME TEXT"), and where every named control is on screen
// ("widget WINDOW/NAME at x,y wxh"), WINDOW being the top-level widget's object name. Lets a
// desktop test read and press what a person would. Does nothing when test events are off or
// BONKWELL_TEST_EVENTS is "lean" (benchmarks: the watch looks ten times a second). The watch
// ends with `owner`.
void watchWindowsForTests(QObject* owner);

}  // namespace bonkwell
