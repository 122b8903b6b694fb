// The updater with and without an update plugin in the private library directory.

#include <dlfcn.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "Lumora/Updater/Updater.h"

using Lumora::Updater;

namespace {

struct Counts {
    int creates = 0;
    int lastStarting = 0;
    int delegates = 0;
    int checks = 0;
    int senders = 0;
};

// The plugin Lumora loaded from `directory`, asked for its counters (the already loaded copy: RTLD_NOLOAD).
Counts countsOf(const std::string& directory)
{
    Counts counts;
    const std::string path = directory + "/" LUMORA_UPDATE_PLUGIN_FILE;
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        counts.creates = -1;
        return counts;
    }
    using CountsFn = void (*)(int*, int*, int*, int*, int*);
    auto fn = reinterpret_cast<CountsFn>(dlsym(handle, "test_plugin_counts"));
    if (fn != nullptr) {
        fn(&counts.creates, &counts.lastStarting, &counts.delegates, &counts.checks, &counts.senders);
    }
    dlclose(handle);  // drops only the reference taken here
    return counts;
}

std::string pluginDirectory(const char* variant)
{
    return std::string(TEST_PLUGIN_ROOT) + "/" + variant;
}

}  // namespace

TEST(Updater, WithoutAPluginIsUnavailableAndChecksNothing)
{
    Updater updater(pluginDirectory("none"));
    EXPECT_FALSE(updater.isAvailable());
    updater.checkForUpdates();  // does nothing, reports nothing
    EXPECT_FALSE(updater.isAvailable());
}

TEST(Updater, WithoutAnyDirectoryIsUnavailable)
{
    Updater updater{std::string()};
    EXPECT_FALSE(updater.isAvailable());
    updater.checkForUpdates();
}

TEST(Updater, ThePrivateLibraryDirectoryLiesBesideTheExecutable)
{
    const std::string directory = Updater::privateLibraryDirectory();
    ASSERT_FALSE(directory.empty());
    EXPECT_EQ(directory.front(), '/');
    EXPECT_NE(directory.find("/lumora"), std::string::npos);
    Updater updater;  // this test's own directory holds no plugin
    EXPECT_FALSE(updater.isAvailable());
}

TEST(Updater, WithThePluginCreatesOneStartedControllerAndForwardsEachCheckOnce)
{
    const std::string directory = pluginDirectory("complete");
    Updater updater(directory);
    ASSERT_TRUE(updater.isAvailable());
    Counts counts = countsOf(directory);
    EXPECT_EQ(counts.creates, 1);
    EXPECT_EQ(counts.lastStarting, 1);
    EXPECT_EQ(counts.delegates, 0);
    EXPECT_EQ(counts.checks, 0);

    updater.checkForUpdates();
    counts = countsOf(directory);
    EXPECT_EQ(counts.checks, 1);
    EXPECT_EQ(counts.senders, 0);
    updater.checkForUpdates();
    EXPECT_EQ(countsOf(directory).checks, 2);
    EXPECT_EQ(countsOf(directory).creates, 1);
}

TEST(Updater, APluginWithoutTheCheckEntryPointIsUnavailable)
{
    Updater updater(pluginDirectory("without-check"));
    EXPECT_FALSE(updater.isAvailable());
    updater.checkForUpdates();
}

TEST(Updater, APluginThatMakesNoControllerIsUnavailable)
{
    const std::string directory = pluginDirectory("create-fails");
    Updater updater(directory);
    EXPECT_FALSE(updater.isAvailable());
    EXPECT_EQ(countsOf(directory).creates, 1);
    updater.checkForUpdates();
    EXPECT_EQ(countsOf(directory).checks, 0);
}
