// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestEvents.h"

#include <cstdio>
#include <cstdlib>

namespace bonkwell {

bool testEventsEnabled() {
    static const bool enabled = std::getenv("BONKWELL_TEST_EVENTS") != nullptr;
    return enabled;
}

void testEvent(const QString& what) {
    if (!testEventsEnabled()) {
        return;
    }
    std::fprintf(stderr, "bonkwell-event: %s\n", what.toUtf8().constData());
    std::fflush(stderr);
}

}  // namespace bonkwell
