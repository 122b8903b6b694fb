// SPDX-License-Identifier: GPL-3.0-or-later
// wl-input WIDTH HEIGHT: a pointer (and on KWin a keyboard) for a headless Wayland compositor without input
// devices, through wlroots' virtual pointer (sway) or KWin's fake input; WIDTH and HEIGHT: the output layout's size.
// Reads commands, one a line, each answered "ok" once the compositor handled it: "move X Y", "click B" (1 left,
// 2 middle, 3 right), "key CODE" (an evdev code; KWin only). The protocols' requests are declared by hand: Debian
// ships neither description.
#include <linux/input-event-codes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wayland-client.h>

static const struct wl_interface wlr_pointer_interface;
static const struct wl_interface* wlr_manager_types[] = {&wl_seat_interface, &wlr_pointer_interface};
static const struct wl_message wlr_manager_requests[] = {{"create_virtual_pointer", "?on", wlr_manager_types}};
static const struct wl_interface wlr_manager_interface = {
    "zwlr_virtual_pointer_manager_v1", 1, 1, wlr_manager_requests, 0, NULL};
static const struct wl_interface* no_types[8] = {NULL};
enum { WLR_MOTION_ABSOLUTE = 1, WLR_BUTTON = 2, WLR_FRAME = 4 };
static const struct wl_message wlr_pointer_requests[] = {{"motion", "uff", no_types},
    {"motion_absolute", "uuuuu", no_types}, {"button", "uuu", no_types}, {"axis", "uuf", no_types},
    {"frame", "", no_types}};
static const struct wl_interface wlr_pointer_interface = {"zwlr_virtual_pointer_v1", 1, 5, wlr_pointer_requests, 0, NULL};
// KWin's requests by opcode; only the first, the button, the absolute motion and the key are sent.
enum { KDE_AUTHENTICATE = 0, KDE_BUTTON = 2, KDE_MOTION_ABSOLUTE = 9, KDE_KEY = 10 };
static const struct wl_message kde_requests[] = {{"authenticate", "ss", no_types}, {"pointer_motion", "ff", no_types},
    {"button", "uu", no_types}, {"axis", "uf", no_types}, {"touch_down", "uff", no_types},
    {"touch_motion", "uff", no_types}, {"touch_up", "u", no_types}, {"touch_cancel", "", no_types},
    {"touch_frame", "", no_types}, {"pointer_motion_absolute", "2ff", no_types}, {"keyboard_key", "4uu", no_types}};
static const struct wl_interface kde_interface = {"org_kde_kwin_fake_input", 4, 11, kde_requests, 0, NULL};

struct state { struct wl_seat* seat; struct wl_proxy* wlr; struct wl_proxy* kde; };
static void global(void* data, struct wl_registry* registry, uint32_t name, const char* interface, uint32_t version)
{
    struct state* s = data;
    if (strcmp(interface, "wl_seat") == 0 && !s->seat)
        s->seat = wl_registry_bind(registry, name, &wl_seat_interface, 1);
    else if (strcmp(interface, wlr_manager_interface.name) == 0)
        s->wlr = wl_registry_bind(registry, name, &wlr_manager_interface, 1);
    else if (strcmp(interface, kde_interface.name) == 0 && version >= 4)
        s->kde = wl_registry_bind(registry, name, &kde_interface, 4);
}
static void global_remove(void* data, struct wl_registry* r, uint32_t name) { (void)data, (void)r, (void)name; }
static const struct wl_registry_listener registry_listener = {global, global_remove};

static uint32_t now_ms(void)
{
    struct timespec t;
    return clock_gettime(CLOCK_MONOTONIC, &t) == 0 ? (uint32_t)(t.tv_sec * 1000 + t.tv_nsec / 1000000) : 0;
}

int main(int argc, char** argv)
{
    struct wl_display* display = argc == 3 ? wl_display_connect(NULL) : NULL;
    struct state s = {0};
    if (display) {
        wl_registry_add_listener(wl_display_get_registry(display), &registry_listener, &s);
        wl_display_roundtrip(display);
    }
    if (!s.wlr && !s.kde) {
        fprintf(stderr, "usage: wl-input WIDTH HEIGHT, in a Wayland session with virtual pointers or fake input\n");
        return 2;
    }
    const uint32_t width = (uint32_t)atoi(argv[1]), height = (uint32_t)atoi(argv[2]);
    struct wl_proxy* pointer = s.wlr ? wl_proxy_marshal_constructor(s.wlr, 0, &wlr_pointer_interface, s.seat, NULL) : NULL;
    if (!pointer)
        wl_proxy_marshal(s.kde, KDE_AUTHENTICATE, "lumora tests", "clicks and types as a person would");
    wl_display_roundtrip(display);
    setvbuf(stdout, NULL, _IOLBF, 0);

    char line[128], verb[16];
    int x, y;
    while (fgets(line, sizeof line, stdin)) {
        const int n = sscanf(line, "%15s %d %d", verb, &x, &y);
        const int button = n < 2 ? -1 : x == 1 ? BTN_LEFT : x == 2 ? BTN_MIDDLE : x == 3 ? BTN_RIGHT : -1;
        if (n == 3 && strcmp(verb, "move") == 0 && pointer) {
            wl_proxy_marshal(pointer, WLR_MOTION_ABSOLUTE, now_ms(), (uint32_t)x, (uint32_t)y, width, height);
            wl_proxy_marshal(pointer, WLR_FRAME);
        } else if (n == 3 && strcmp(verb, "move") == 0) {
            wl_proxy_marshal(s.kde, KDE_MOTION_ABSOLUTE, wl_fixed_from_int(x), wl_fixed_from_int(y));
        } else if (n == 2 && button >= 0 && strcmp(verb, "click") == 0) {
            for (int state = 1; state >= 0; --state, wl_display_roundtrip(display)) {
                if (pointer) {
                    wl_proxy_marshal(pointer, WLR_BUTTON, now_ms(), (uint32_t)button, (uint32_t)state);
                    wl_proxy_marshal(pointer, WLR_FRAME);
                } else {
                    wl_proxy_marshal(s.kde, KDE_BUTTON, (uint32_t)button, (uint32_t)state);
                }
            }
        } else if (n == 2 && strcmp(verb, "key") == 0 && s.kde) {
            for (int state = 1; state >= 0; --state, wl_display_roundtrip(display))
                wl_proxy_marshal(s.kde, KDE_KEY, (uint32_t)x, (uint32_t)state);
        } else {
            printf("error: %s", line);
            continue;
        }
        if (wl_display_roundtrip(display) < 0)
            return fprintf(stderr, "wl-input: the compositor went away\n"), 1;
        printf("ok\n");
    }
    return 0;
}
