/* map-log: every top-level window mapped or unmapped on the X display, as it happens.
 *
 *   map-log
 *
 * Prints "ready" once it listens (substructure notifications on the root window, which grab nothing), then one
 * line per event, "map 0xID" or "unmap 0xID", flushed at once. Synthetic events (the notice a client sends the
 * window manager when it withdraws a window) are left out: each line is the server's own. Runs until it is ended or the display goes. The
 * desktop tests use it to see that a window appeared or went exactly once, with no flicker in between. */
#include <stdio.h>
#include <stdlib.h>

#include <xcb/xcb.h>

int main(void)
{
    int screen_number = 0;
    xcb_connection_t* c = xcb_connect(NULL, &screen_number);
    if (xcb_connection_has_error(c)) {
        fprintf(stderr, "map-log: no X server\n");
        return 1;
    }
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screen_number; ++i) {
        xcb_screen_next(&it);
    }
    const uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_void_cookie_t cookie = xcb_change_window_attributes_checked(c, it.data->root, XCB_CW_EVENT_MASK, &events);
    xcb_generic_error_t* error = xcb_request_check(c, cookie);
    if (error != NULL) {
        fprintf(stderr, "map-log: cannot listen on the root window\n");
        free(error);
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    xcb_generic_event_t* event;
    while ((event = xcb_wait_for_event(c)) != NULL) {
        const int type = event->response_type & 0x7F;
        const int synthetic = event->response_type & 0x80;
        if (synthetic) {
            /* not the server's */
        } else if (type == XCB_MAP_NOTIFY) {
            printf("map 0x%x\n", ((xcb_map_notify_event_t*)event)->window);
        } else if (type == XCB_UNMAP_NOTIFY) {
            printf("unmap 0x%x\n", ((xcb_unmap_notify_event_t*)event)->window);
        }
        fflush(stdout);
        free(event);
    }
    return 0;
}
