// SPDX-License-Identifier: GPL-3.0-or-later
// Every device setting a source changes (sysfs attributes such as buffer/enable, the trigger or
// the sampling frequency), with a descriptor opened for writing while we still may, and the
// value it held before. restore() writes the originals back, newest first, so that it also
// works after privileges are gone and from a copy of the list made by fork().
#pragma once

#include <string>
#include <vector>

namespace bonkwell::accel {

class SettingChanges {
  public:
    SettingChanges() = default;
    SettingChanges(const SettingChanges&) = delete;
    SettingChanges& operator=(const SettingChanges&) = delete;
    // Puts everything back and closes the descriptors.
    ~SettingChanges();

    // Sets the attribute `path` to `value` unless it already holds it, and remembers the
    // original. False (with the reason) when it cannot be read or written.
    bool set(const std::string& path, const std::string& value, std::string& error);

    // Writes the original values back, newest change first (so buffer/enable goes back to 0
    // before anything else). Does nothing when there is nothing left to put back; a later
    // set() makes it due again.
    void restore();

    // How many settings were changed (each is put back by restore()).
    std::size_t size() const { return changes_.size(); }

  private:
    struct Change {
        int fd;
        std::string original;
    };
    std::vector<Change> changes_;
    bool restored_ = true;
};

}  // namespace bonkwell::accel
