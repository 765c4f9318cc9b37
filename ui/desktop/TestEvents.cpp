// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestEvents.h"

#include <cstdio>
#include <cstdlib>

namespace bonkwell {

void testEvent(const QString& what) {
    static const bool enabled = std::getenv("BONKWELL_TEST_EVENTS") != nullptr;
    if (!enabled) {
        return;
    }
    std::fprintf(stderr, "bonkwell-event: %s\n", what.toUtf8().constData());
    std::fflush(stderr);
}

}  // namespace bonkwell
