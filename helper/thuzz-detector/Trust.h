// SPDX-License-Identifier: GPL-3.0-or-later
// Whose a per-user copy of the helper is. The setup program installs it set-user-ID root into
// a folder of the user's own; its privileges serve that user alone, so that another account
// that runs it (or finds it renamed into some other folder) gets no device opened and no
// setting changed.
#pragma once

#include <string>

namespace bonkwell::thuzz {

// The exit status of a copy that refused to serve its caller.
inline constexpr int kNotTheOwnersStatus = 5;

// True when this process may use its privileges for the caller: it was not started
// set-user-ID, or the folder the running program lives in belongs to the real user.
// False with the reason otherwise.
bool servesItsOwner(std::string& why);

}  // namespace bonkwell::thuzz
