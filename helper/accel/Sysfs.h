// SPDX-License-Identifier: GPL-3.0-or-later
// Small helpers for sysfs attribute files: values end in a newline, reads can fail with
// EBUSY, and a file read through a kept descriptor must be re-read from offset 0.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bonkwell::accel {

// Strips trailing newlines and spaces and leading spaces.
std::string trimmed(std::string text);

// Reads a whole (small) attribute. nullopt when it cannot be read; `err` receives errno.
std::optional<std::string> readAttribute(const std::string& path, int* err = nullptr);

// Re-reads an attribute through an open descriptor (pread from offset 0).
std::optional<std::string> readAttributeFd(int fd, int* err = nullptr);

// Writes `value` and a newline to an attribute through an open descriptor; false on error.
bool writeAttributeFd(int fd, const std::string& value);

std::optional<double> parseDouble(const std::string& text);
std::optional<long long> parseInteger(const std::string& text);

// Entries of `dir` whose names are `prefix` followed by one or more digits, sorted by number.
std::vector<std::string> numberedEntries(const std::string& dir, const std::string& prefix);

}  // namespace bonkwell::accel
