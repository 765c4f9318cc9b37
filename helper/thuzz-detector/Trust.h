// SPDX-License-Identifier: GPL-3.0-or-later
// Whose a per-user copy of the helper is. The setup program installs it set-user-ID root into
// a folder of the user's own; its privileges serve that user alone, so that another account
// that runs it (or finds it renamed into some other folder) gets no device opened and no
// setting changed.
#pragma once

#include <string>

namespace bonkwell::thuzz {

// The exit status of a copy that is not the helper the package (or the build tree) ships.
inline constexpr int kOutOfDateStatus = 4;
// The exit status of a copy that refused to serve its caller.
inline constexpr int kNotTheOwnersStatus = 5;
// What an out-of-date copy says (one line) before it exits.
inline constexpr const char* kOutOfDateLine =
    "the detection engine is out of date and must be reinstalled from Settings "
    "(General, Reinstall)";

// True when this process may use its privileges for the caller: it was not started
// set-user-ID, or the folder the running program lives in belongs to the real user.
// False with the reason otherwise.
bool servesItsOwner(std::string& why);

// True when this process was not started set-user-ID, or the running program is byte for
// byte one of the trusted helpers: the packaged one or the build tree's, each a root-owned
// regular file nobody else may change. A renamed, stale or orphaned copy is none of them.
bool isTrustedCopy();

}  // namespace bonkwell::thuzz
