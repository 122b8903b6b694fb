// SPDX-License-Identifier: GPL-3.0-or-later
/* An update plugin for the tests: built complete, without the check entry point, and unable to make its controller.
 * Each call Lumora makes is a line in the file LUMORA_TEST_UPDATE_LOG names: "create <startingUpdater> <delegates
 * given>", "check <senders given>" ("check of another controller ..." for a controller it did not make). */
#include <stdio.h>
#include <stdlib.h>

#include "Lumora/Updater/LumoraUpdatePlugin.h"

struct LumoraUpdaterController {
    int unused;
};
static struct LumoraUpdaterController controller;

static void note(const char* format, int a, int b)
{
    FILE* log = getenv("LUMORA_TEST_UPDATE_LOG") != NULL ? fopen(getenv("LUMORA_TEST_UPDATE_LOG"), "a") : NULL;
    if (log != NULL) {
        fprintf(log, format, a, b);
        fclose(log);
    }
}

LumoraUpdaterController* lumora_updater_controller_create(int startingUpdater, void* updaterDelegate,
                                                          void* userDriverDelegate)
{
    note("create %d %d\n", startingUpdater, (updaterDelegate != NULL) + (userDriverDelegate != NULL));
#ifdef TEST_PLUGIN_CREATE_FAILS
    return NULL;
#else
    return &controller;
#endif
}

#ifndef TEST_PLUGIN_WITHOUT_CHECK
void lumora_updater_controller_check_for_updates(LumoraUpdaterController* given, void* sender)
{
    note(given == &controller ? "check %d\n" : "check of another controller %d\n", sender != NULL, 0);
}
#endif
