/* An update plugin for the tests: it counts what Lumora asks of it. Built in variants: complete, without the
 * check entry point, and one whose controller cannot be made. */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include "Lumora/Updater/LumoraUpdatePlugin.h"

struct LumoraUpdaterController {
    int started;
};

static struct LumoraUpdaterController controller;
static int creates;
static int lastStarting = -1;
static int delegatesGiven;
static int checks;
static int sendersGiven;

/* The end-to-end test reads what the running application asked of the plugin from this file, a line a call. */
static void note(const char* line)
{
    const char* path = getenv("LUMORA_TEST_UPDATE_LOG");
    FILE* log = path != NULL ? fopen(path, "a") : NULL;
    if (log != NULL) {
        fprintf(log, "%s\n", line);
        fclose(log);
    }
}

LumoraUpdaterController* lumora_updater_controller_create(int startingUpdater, void* updaterDelegate,
                                                          void* userDriverDelegate)
{
    ++creates;
    lastStarting = startingUpdater;
    if (updaterDelegate != NULL || userDriverDelegate != NULL) {
        ++delegatesGiven;
    }
    {
        /* "create <startingUpdater> <number of delegates given>" */
        char line[64];
        snprintf(line, sizeof line, "create %d %d", startingUpdater,
                 (updaterDelegate != NULL) + (userDriverDelegate != NULL));
        note(line);
    }
#ifdef TEST_PLUGIN_CREATE_FAILS
    return NULL;
#else
    controller.started = startingUpdater;
    return &controller;
#endif
}

#ifndef TEST_PLUGIN_WITHOUT_CHECK
void lumora_updater_controller_check_for_updates(LumoraUpdaterController* given, void* sender)
{
    if (given == &controller) {
        ++checks;
    }
    if (sender != NULL) {
        ++sendersGiven;
    }
    note(sender != NULL ? "check 1" : "check 0"); /* "check <1 when a sender was given>" */
}
#endif

/* For the tests only. */
void test_plugin_counts(int* outCreates, int* outLastStarting, int* outDelegates, int* outChecks, int* outSenders)
{
    *outCreates = creates;
    *outLastStarting = lastStarting;
    *outDelegates = delegatesGiven;
    *outChecks = checks;
    *outSenders = sendersGiven;
}
