// SPDX-License-Identifier: GPL-3.0-or-later
// Test program: saves snapshots into the store folder given as its argument, as fast as it
// can, until it is killed. Each snapshot is self-consistent (todayCount == totalCount and
// volume == count / 1000) so a reader can tell a torn write from a whole one.
#include "AppState.h"
#include "PreferencesStore.h"

#include <QCoreApplication>

#include <cstdlib>

#include <cstdio>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: snapshot_writer <folder> <first-count>\n");
        return 2;
    }
    bonkwell::PreferencesStore store(QString::fromLocal8Bit(argv[1]));
    bonkwell::AppState state(&store);
    long long count = std::atoll(argv[2]);
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    for (;;) {
        ++count;
        state.todayCount.set(count);
        state.totalCount.set(count);
        state.volume.set(static_cast<double>(count) / 1000.0);
        state.selectedPackName.set(QString(static_cast<int>(count % 200), QLatin1Char('x')));
        state.save();
    }
}
