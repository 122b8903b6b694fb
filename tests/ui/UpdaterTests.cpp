// The updater with the test plugin, complete or not, in the directory it looks in, and without one.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "Lumora/Updater/Updater.h"

TEST(Updater, OneStartedControllerAndEachCheckForwardedOnlyWithACompletePlugin)
{
    struct Case {
        const char* variant;
        bool available;
        const char* calls;  // what the plugin saw: the construction, then two checks
    };
    const Case cases[] = {{"none", false, ""},
                          {"without-check", false, ""},
                          {"create-fails", false, "create 1 0\n"},
                          {"complete", true, "create 1 0\ncheck 0\ncheck 0\n"}};
    const auto log = std::filesystem::temp_directory_path() / ("lumora-ui-update-" + std::to_string(::getpid()));
    ::setenv("LUMORA_TEST_UPDATE_LOG", log.c_str(), 1);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.variant);
        std::filesystem::remove(log);
        Lumora::Updater updater(std::string(TEST_PLUGIN_ROOT "/") + c.variant);
        EXPECT_EQ(updater.isAvailable(), c.available);
        updater.checkForUpdates();
        updater.checkForUpdates();
        std::ostringstream calls;
        calls << std::ifstream(log).rdbuf();
        EXPECT_EQ(calls.str(), c.calls);
    }
    std::filesystem::remove(log);
    ::unsetenv("LUMORA_TEST_UPDATE_LOG");
}
