// SPDX-License-Identifier: GPL-3.0-or-later
// The steps of bonkwell-helper-setup, apart from main() so that each reads on its own.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace bonkwell::setup {

// Exit codes. 126 and 127 are pkexec's own (dismissed, not authorised), so never used here.
enum ExitCode : int {
    kOk = 0,
    kUsage = 2,
    kNotRoot = 3,
    kUntrustedSource = 4,
    kRefusedFolder = 5,
    kNoSuidMount = 6,
    kFailed = 7,
};

struct Failure {
    int code;
    std::string reason;  // one line, no newline
};

// The file name of the helper, both beside this program and in the user's folder.
inline constexpr char kHelperName[] = "thuzz-detector";

// Who asked for the installation: pkexec's PKEXEC_UID when running as root through it,
// otherwise the real user id.
std::optional<uid_t> callerUid(std::string* error);

// Opens the trusted copy of the helper: the file beside this program, owned by root and not
// writable by group or others, in a folder that only root can change.
std::optional<int> openTrustedHelper(Failure* failure);

// Opens the caller's helper folder, an absolute path inside the caller's home folder (from the
// password database) ending in "Bonkwell/Helpers", reached
// without following any symbolic link; checks every folder on the way, and refuses a file
// system mounted nosuid.
std::optional<int> openInstallFolder(const std::string& path, uid_t caller, Failure* failure);

// Makes the new root-owned 4755 "thuzz-detector" in `folderFd` from `sourceFd` and puts it
// in place of whatever was there.
std::optional<Failure> installInto(int folderFd, const std::string& folderPath, int sourceFd);

// Everything above, for the command line `bonkwell-helper-setup <folder>`.
std::optional<Failure> run(int argc, char** argv);

// `text` with control characters replaced, so that a reason stays on one line.
std::string oneLine(const std::string& text);

}  // namespace bonkwell::setup
