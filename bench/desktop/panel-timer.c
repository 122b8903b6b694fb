// SPDX-License-Identifier: GPL-3.0-or-later
/* panel-timer: how long the tray application takes from a mouse press to its panel on screen.
 *
 *   panel-timer WIDTH TIMEOUT_MS
 *
 * Prints "ready" once it listens, then waits for the next mouse-button press anywhere (XInput 2 raw events on
 * the root window, which grab nothing), the mapping of a new top-level window WIDTH pixels wide, and the first
 * paint of that window (a pixel near its top-left corner on screen turning from the desktop's black). Prints
 * "map MS paint MS", both measured from the press, and exits 0; exits 1 on a timeout or an X error. Times are
 * taken on this client's monotonic clock as the events arrive, so they include the server's delivery to us. */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

static double now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

static int painted(xcb_connection_t* c, xcb_window_t root, int x, int y)
{
    xcb_get_image_reply_t* image =
        xcb_get_image_reply(c, xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, root, x, y, 1, 1, 0xFFFFFFFFu), NULL);
    if (image == NULL) {
        return 0;
    }
    const uint8_t* data = xcb_get_image_data(image);
    const int length = xcb_get_image_data_length(image);
    int lit = 0;
    for (int i = 0; i < length && i < 3; ++i) {
        lit |= data[i] > 0x40;
    }
    free(image);
    return lit;
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: panel-timer WIDTH TIMEOUT_MS\n");
        return 2;
    }
    const int width = atoi(argv[1]);
    const double timeout = atof(argv[2]);

    int screen_number = 0;
    xcb_connection_t* c = xcb_connect(NULL, &screen_number);
    if (xcb_connection_has_error(c)) {
        fprintf(stderr, "panel-timer: no X server\n");
        return 1;
    }
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screen_number; ++i) {
        xcb_screen_next(&it);
    }
    const xcb_window_t root = it.data->root;
    const xcb_query_extension_reply_t* xi = xcb_get_extension_data(c, &xcb_input_id);
    if (xi == NULL || !xi->present) {
        fprintf(stderr, "panel-timer: no XInput\n");
        return 1;
    }
    free(xcb_input_xi_query_version_reply(c, xcb_input_xi_query_version(c, 2, 2), NULL));
    struct {
        xcb_input_event_mask_t head;
        uint32_t mask;
    } selection = {{XCB_INPUT_DEVICE_ALL_MASTER, 1}, XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS};
    xcb_input_xi_select_events(c, root, 1, &selection.head);
    const uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, root, XCB_CW_EVENT_MASK, &events);
    xcb_flush(c);
    printf("ready\n");
    fflush(stdout);

    const double start = now_ms();
    double pressed = -1, mapped = -1;
    int px = 0, py = 0;
    struct pollfd fd = {xcb_get_file_descriptor(c), POLLIN, 0};
    while (now_ms() - start < timeout) {
        if (mapped >= 0) {
            if (painted(c, root, px, py)) {
                printf("map %.1f paint %.1f\n", mapped - pressed, now_ms() - pressed);
                return 0;
            }
        } else {
            poll(&fd, 1, 5);
        }
        xcb_generic_event_t* event;
        while ((event = xcb_poll_for_event(c)) != NULL) {
            const double t = now_ms();
            const int type = event->response_type & 0x7F;
            if (type == XCB_GE_GENERIC && pressed < 0) {
                xcb_ge_generic_event_t* ge = (xcb_ge_generic_event_t*)event;
                if (ge->extension == xi->major_opcode && ge->event_type == XCB_INPUT_RAW_BUTTON_PRESS) {
                    pressed = t;
                }
            } else if (type == XCB_MAP_NOTIFY && pressed >= 0 && mapped < 0) {
                xcb_map_notify_event_t* map = (xcb_map_notify_event_t*)event;
                xcb_get_geometry_reply_t* g = xcb_get_geometry_reply(c, xcb_get_geometry(c, map->window), NULL);
                if (g != NULL && g->width == width) {
                    mapped = t;
                    px = g->x + 24;
                    py = g->y + 24;
                }
                free(g);
            }
            free(event);
        }
        if (xcb_connection_has_error(c)) {
            return 1;
        }
    }
    fprintf(stderr, "panel-timer: timed out\n");
    return 1;
}
