#!/bin/sh
# SPDX-License-Identifier: GPL-3.0-or-later
# A stand-in for pkexec: records its arguments (one per line) in $FAKE_PKEXEC_LOG and ends the
# way $FAKE_PKEXEC_MODE says: cancel (126, the dialog was dismissed), deny (127), fail (the
# program's own failure with a reason on stderr) or ok (0, without doing anything).
printf '%s\n' "$@" > "${FAKE_PKEXEC_LOG:?}"
case "${FAKE_PKEXEC_MODE:?}" in
    cancel) echo "Error executing command as another user: Request dismissed" >&2; exit 126 ;;
    deny) echo "Error executing command as another user: Not authorized" >&2; exit 127 ;;
    fail) echo "refusing the folder: a reason" >&2; exit 5 ;;
    ok) exit 0 ;;
esac
exit 1
