// SPDX-License-Identifier: GPL-3.0-or-later
//
// Gives a headless wlroots compositor a pointer: creates one virtual pointer on the default
// seat and keeps it while running, so that "swaymsg seat - cursor set X Y" and
// "cursor press|release button1" reach the windows under the cursor. Prints "ready" once the
// compositor has the device; ends when the compositor goes away or on SIGTERM.
//
// The two interfaces of the virtual pointer protocol are described here by hand (only their
// requests, in protocol order); the requests used are the manager's create_virtual_pointer and
// the pointer's destroy.
#include <wayland-client.h>

#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

extern "C" {
extern const wl_interface pointerInterface;

const wl_interface* createTypes[] = {&wl_seat_interface, &pointerInterface};
const wl_interface* noTypes[] = {nullptr, nullptr, nullptr, nullptr, nullptr};

const wl_message managerRequests[] = {
    {"create_virtual_pointer", "?on", createTypes},
    {"destroy", "", noTypes},
};
const wl_interface managerInterface = {
    "zwlr_virtual_pointer_manager_v1", 1, 2, managerRequests, 0, nullptr};

const wl_message pointerRequests[] = {
    {"motion", "uff", noTypes},   {"motion_absolute", "uuuuu", noTypes},
    {"button", "uuu", noTypes},   {"axis", "uuf", noTypes},
    {"frame", "", noTypes},       {"axis_source", "u", noTypes},
    {"axis_stop", "uu", noTypes}, {"axis_discrete", "uufi", noTypes},
    {"destroy", "", noTypes},
};
const wl_interface pointerInterface = {"zwlr_virtual_pointer_v1", 1, 9,
                                       pointerRequests,           0, nullptr};
}

constexpr uint32_t kCreateVirtualPointer = 0;
constexpr uint32_t kPointerDestroy = 8;

wl_proxy* manager = nullptr;
volatile std::sig_atomic_t stopping = 0;

void global(void*, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
    if (std::strcmp(interface, managerInterface.name) == 0) {
        manager = static_cast<wl_proxy*>(wl_registry_bind(registry, name, &managerInterface, 1));
    }
}

void globalRemove(void*, wl_registry*, uint32_t) {}

const wl_registry_listener registryListener = {global, globalRemove};

}  // namespace

int main() {
    std::signal(SIGTERM, [](int) { stopping = 1; });
    std::signal(SIGINT, [](int) { stopping = 1; });
    wl_display* display = wl_display_connect(nullptr);
    if (display == nullptr) {
        std::fprintf(stderr, "virtual_pointer: cannot connect to the Wayland display\n");
        return 1;
    }
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &registryListener, nullptr);
    wl_display_roundtrip(display);
    if (manager == nullptr) {
        std::fprintf(stderr, "virtual_pointer: the compositor offers no %s\n",
                     managerInterface.name);
        return 1;
    }
    wl_proxy* pointer = wl_proxy_marshal_constructor(manager, kCreateVirtualPointer,
                                                     &pointerInterface, nullptr, nullptr);
    if (pointer == nullptr || wl_display_roundtrip(display) < 0) {
        std::fprintf(stderr, "virtual_pointer: the compositor refused the pointer\n");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    while (stopping == 0 && wl_display_dispatch(display) >= 0) {
    }
    wl_proxy_marshal(pointer, kPointerDestroy);
    wl_proxy_destroy(pointer);
    wl_display_flush(display);
    wl_display_disconnect(display);
    return 0;
}
