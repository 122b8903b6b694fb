/* An update plugin for the tests: it counts what Lumora asks of it. Built in variants: complete, without the
 * check entry point, and one whose controller cannot be made. */
#include <stddef.h>

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

LumoraUpdaterController* lumora_updater_controller_create(int startingUpdater, void* updaterDelegate,
                                                          void* userDriverDelegate)
{
    ++creates;
    lastStarting = startingUpdater;
    if (updaterDelegate != NULL || userDriverDelegate != NULL) {
        ++delegatesGiven;
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
