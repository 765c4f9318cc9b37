// SPDX-License-Identifier: GPL-3.0-or-later
// What a setuid-root helper does with its privileges: open the device first, then give
// root up for good.
#pragma once

#include <string>

namespace bonkwell::thuzz {

// Makes sure descriptors 0, 1 and 2 are open (on /dev/null if need be) and closes all others,
// so that nothing inherited from the caller leaks into a privileged process.
void sanitizeDescriptors();

// Drops to the real user and group for good: no supplementary groups, real, effective and
// saved ids all equal to the caller's; checks that root cannot be regained; sets no_new_privs.
// False with a reason when any step fails (the caller must then exit).
bool dropPrivileges(std::string& error);

}  // namespace bonkwell::thuzz
