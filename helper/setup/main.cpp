// SPDX-License-Identifier: GPL-3.0-or-later
// bonkwell-helper-setup <folder>
//
// Run as root through pkexec by the app's "Install detection engine" action. Puts a
// root-owned, set-user-ID copy of thuzz-detector into the calling user's helper folder
// <folder> (…/Bonkwell/Helpers), made from the root-owned copy installed beside this program.
// On failure it prints one line saying why on standard error and exits non-zero.
#include "SetupSteps.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    // Descriptors 0-2 must be open so that nothing we open lands on them.
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) < 0) {
            return bonkwell::setup::kFailed;
        }
    }
    if (const auto failure = bonkwell::setup::run(argc, argv)) {
        std::fprintf(stderr, "%s\n", bonkwell::setup::oneLine(failure->reason).c_str());
        return failure->code;
    }
    return bonkwell::setup::kOk;
}
