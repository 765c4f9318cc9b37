// SPDX-License-Identifier: GPL-3.0-or-later
// The floor under the app's idle cost while listening: the least any program can do to follow
// a polled IIO accelerometer at 100 Hz (sleep to the next tick, read the three raw values).
// Runs until killed; the app benchmark measures its CPU time next to the app's.
//   poll_floor DEVICE_DIR [HZ=100]
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: poll_floor DEVICE_DIR [HZ]\n");
        return 2;
    }
    const long hz = argc > 2 ? atol(argv[2]) : 100;
    const char* axes[3] = {"in_accel_x_raw", "in_accel_y_raw", "in_accel_z_raw"};
    int fds[3];
    for (int i = 0; i < 3; i++) {
        char path[4096];
        snprintf(path, sizeof path, "%s/%s", argv[1], axes[i]);
        fds[i] = open(path, O_RDONLY | O_CLOEXEC);
        if (fds[i] < 0) {
            perror(path);
            return 1;
        }
    }
    struct timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    long sum = 0;
    for (;;) {
        for (int i = 0; i < 3; i++) {
            char text[32];
            const ssize_t n = pread(fds[i], text, sizeof text - 1, 0);
            if (n > 0) {
                text[n] = '\0';
                sum += strtol(text, NULL, 10);
            }
        }
        next.tv_nsec += 1000000000L / hz;
        if (next.tv_nsec >= 1000000000L) {
            next.tv_nsec -= 1000000000L;
            next.tv_sec += 1;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, NULL);
        if (sum == 42) {
            puts("");  // keeps the reads from being optimised away
        }
    }
}
