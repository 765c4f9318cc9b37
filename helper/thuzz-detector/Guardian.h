// SPDX-License-Identifier: GPL-3.0-or-later
// The device settings outlive the reader only as long as it takes to put them back.
//
// Before the helper gives up root it forks a guardian: a small process that keeps root (so the
// user who started the helper cannot signal it), holds a copy of the source's changed settings
// with their descriptors opened for writing, and waits. The moment the reading process is gone,
// however it ended (a stop request, SIGKILL, a crash), the guardian writes the original values
// back and exits. The reader stays the process the app launched and talks to.
#pragma once

#include "AccelDevice.h"

#include <sys/types.h>

#include <string>

namespace bonkwell::thuzz {

class Guardian {
  public:
    Guardian() = default;
    Guardian(const Guardian&) = delete;
    Guardian& operator=(const Guardian&) = delete;
    // Lets the guardian restore the device and waits for it, so that a helper started right
    // after this one finds the device as it was.
    ~Guardian();

    // Forks the guardian for `source`. Call while still privileged and before reading anything.
    // False (with the reason) when it cannot; the reader must then restore the source itself.
    bool start(accel::SampleSource& source, std::string& error);

    // The guardian's process id, or -1 when none runs.
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int lifeline_ = -1;  // the write end; the guardian sees end of file once we are gone
};

}  // namespace bonkwell::thuzz
