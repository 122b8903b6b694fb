// SPDX-License-Identifier: GPL-3.0-or-later
/*
 * Lumora's optional update plugin: the entry points a packager implements to give Lumora a
 * "Check for Updates…" command.
 *
 * Build a shared library that exports the two C functions below and install it as
 *     <libdir>/lumora/liblumora-update.so
 * (the application's private library directory, e.g. /usr/lib/x86_64-linux-gnu/lumora/ for a package, or
 * <prefix>/lib/lumora/ next to a bin/lumora installed under <prefix>). Lumora loads it once, at start, with
 * dlopen(RTLD_NOW) and looks the entry points up by name; it never unloads it. When the file is missing, cannot
 * be loaded, lacks an entry point, or the controller cannot be created, the menu item stays disabled and
 * nothing is reported.
 *
 * Both functions are called on the application's main thread (the Qt GUI thread). Where the plugin looks for
 * updates, how it verifies them and what it shows to the user are the plugin's own business.
 */
#ifndef LUMORA_UPDATE_PLUGIN_H
#define LUMORA_UPDATE_PLUGIN_H

#ifdef __cplusplus
extern "C" {
#endif

/* The plugin's file name inside the private library directory. */
#define LUMORA_UPDATE_PLUGIN_FILE "liblumora-update.so"

/* The updater controller: the plugin's own object, opaque to Lumora. */
typedef struct LumoraUpdaterController LumoraUpdaterController;

/*
 * Creates the standard updater controller. Called exactly once, when the application starts and before its tray
 * item is shown. Lumora passes startingUpdater = 1 (start the updater at once, including any scheduled checks)
 * and NULL for both delegates, which are reserved. Returns NULL when no controller can be made; the updater is
 * then unavailable for the rest of the run. The controller lives until the process ends.
 */
LumoraUpdaterController* lumora_updater_controller_create(int startingUpdater, void* updaterDelegate,
                                                          void* userDriverDelegate);

/*
 * The user chose "Check for Updates…": start a user-initiated check now. `sender` is reserved and NULL. Returns at
 * once; whatever the check shows is the plugin's.
 */
void lumora_updater_controller_check_for_updates(LumoraUpdaterController* controller, void* sender);

/* The names Lumora looks up. */
#define LUMORA_UPDATER_CONTROLLER_CREATE "lumora_updater_controller_create"
#define LUMORA_UPDATER_CONTROLLER_CHECK_FOR_UPDATES "lumora_updater_controller_check_for_updates"

typedef LumoraUpdaterController* (*LumoraUpdaterControllerCreateFn)(int, void*, void*);
typedef void (*LumoraUpdaterControllerCheckForUpdatesFn)(LumoraUpdaterController*, void*);

#ifdef __cplusplus
}
#endif

#endif /* LUMORA_UPDATE_PLUGIN_H */
