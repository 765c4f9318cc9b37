// SPDX-License-Identifier: GPL-3.0-or-later
// Throwaway headless test sessions only: opens org.gnome.Shell.Eval and the screenshot
// interface to the desktop tests, which drive the shell's own pointer and keyboard.
/* exported init */

class TestUnsafeMode {
    enable() {
        global.context.unsafe_mode = true;
    }

    disable() {
        global.context.unsafe_mode = false;
    }
}

function init() {
    return new TestUnsafeMode();
}
