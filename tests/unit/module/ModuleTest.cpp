// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
/*
 * The programs of the other tests are linked with the library and so never unload it. This one is not: it has
 * the support library alone, and its children load the plug-in, which brings the library with it.
 */

#include "ForkedChild.h"
#include "LeakCheckedTest.h"
#include "Posix.h"
#include "Process.h"
#include "SharedObject.h"
#include "plugins/ModuleInstances.h"
#include "plugins/RegistryPlugin.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <VornLogging.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using VornSupport::VornLogging;
using VornSupport::VornString;

namespace {

using testing::ElementsAre;

class ModuleTest : public LeakCheckedTest {};

/** A module's life, see liveAsModule(). */
struct Life {
    bool autoInit;
    int start;
    int more;
    std::vector<std::string> events;
};

const std::string pluginFile = VORNTEST_REGISTRY_PLUGIN_FILE;
const std::string neighbourFile = VORNTEST_NEIGHBOUR_FILE;

/** Every record from now on becomes a line of standard output: its level and its text. */
void printRecords() {
    VornLogging::setRecordHandler([](int recordLevel, const VornString& text) {
        std::cout << recordLevel << ' ' << text << std::endl;
    });
    VornLogging::getInstance().setLogLevel(9);
}

void printReleased() {
    std::cout << "proxy released" << std::endl;
}

/** Which of the shared objects in question are mapped. */
void printMapped() {
    const std::string maps = readTextFile("/proc/self/maps");
    const auto isMapped = [&](const char* name) { return maps.find(name) != std::string::npos; };
    std::cout << "mapped:" << (isMapped("libvornnet.so") ? " library" : "")
              << (isMapped("libvornnet_test_registry_plugin") ? " plug-in" : "") << std::endl;
}

void registerProxies(const SharedObject& plugin, int count) {
    for (long handle = 0; handle < count; ++handle)
        plugin.function<decltype(registerProxy)>("registerProxy")("pipe:quorax1f3a", handle, &printReleased);
    std::cout << "registered " << plugin.function<decltype(registrySize)>("registrySize")() << std::endl;
}

std::vector<std::string> linesOf(ChildProcess child) {
    std::vector<std::string> result;
    std::istringstream output(child.readAllOutput());
    for (std::string line; std::getline(output, line);)
        result.push_back(line);
    EXPECT_EQ(child.wait(), 0) << child.readAllErrors();
    return result;
}

} // namespace

KIT_ROLE(loadAndUnload) {
    printRecords();
    for (int round = 0; round < 2; ++round) {
        const SharedObject plugin(pluginFile);
        printMapped();
        std::cout << "found " << plugin.function<decltype(registrySize)>("registrySize")() << std::endl;
        registerProxies(plugin, 2);
    }
    printMapped();
    return 0;
}

KIT_ROLE(unloadWithoutRegistry) {
    printRecords();
    { const SharedObject plugin(pluginFile); }
    printMapped();
    return 0;
}

KIT_ROLE(forkAfterUnloading) {
    { const SharedObject plugin(pluginFile); }
    printMapped();
    const int status = inChild([] { return 0; }); // before there is output that the child could print too
    std::cout << "child: " << status << std::endl;
    return 0;
}

KIT_ROLE(exitWithAFunctionThatUsesTheRegistryAfterwards) {
    printRecords();
    static const SharedObject* plugin = nullptr;
    // What is registered before the library is loaded runs when its module has been destroyed.
    std::atexit([] {
        std::cout << "found " << plugin->function<decltype(registrySize)>("registrySize")() << std::endl;
        registerProxies(*plugin, 2);
    });
    plugin = new SharedObject(pluginFile);
    registerProxies(*plugin, 1);
    return 0;
}

KIT_ROLE(exitWhileLoadedToStandardError) {
    VornLogging::getInstance().setLogLevel(9);
    static const SharedObject* plugin = new SharedObject(pluginFile);
    registerProxies(*plugin, 1);
    return 0;
}

KIT_ROLE(neighbourFirst) {
    printRecords();
    const SharedObject neighbour(neighbourFile, RTLD_NOW | RTLD_GLOBAL);
    {
        const SharedObject plugin(pluginFile, RTLD_NOW | RTLD_GLOBAL);
        registerProxies(plugin, 1);
    }
    printMapped();
    return 0;
}

KIT_ROLE(neighbourSecond) {
    printRecords();
    const SharedObject plugin(pluginFile, RTLD_NOW | RTLD_GLOBAL);
    {
        const SharedObject neighbour(neighbourFile, RTLD_NOW | RTLD_GLOBAL);
        registerProxies(plugin, 1);
    }
    std::cout << "neighbour gone" << std::endl;
    return 0;
}

TEST_F(ModuleTest,
       WhenUnloaded_ReleasesTheProxiesBetweenItsTwoRecordsAndIsUnmapped_NextLoadFindsAnEmptyRegistry) {
    const char entering[] = "9 vnet::Module::detach: entering";
    const char exiting[] = "9 vnet::Module::detach: exiting";
    EXPECT_THAT(linesOf(ChildProcess::spawnRole("loadAndUnload")),
                ElementsAre("mapped: library plug-in", "found 0", "registered 2", entering, "proxy released",
                            "proxy released", exiting, "mapped: library plug-in", "found 0", "registered 2",
                            entering, "proxy released", "proxy released", exiting, "mapped:"));
}

TEST_F(ModuleTest, WhenUnloadedWithoutARegistry_WritesBothRecordsAndIsUnmapped) {
    EXPECT_THAT(
        linesOf(ChildProcess::spawnRole("unloadWithoutRegistry")),
        ElementsAre("9 vnet::Module::detach: entering", "9 vnet::Module::detach: exiting", "mapped:"));
}

TEST_F(ModuleTest, WhenTheProcessExitsWithoutAHandler_WritesBothRecordsToStandardError) {
    ChildProcess child = ChildProcess::spawnRole("exitWhileLoadedToStandardError");
    EXPECT_EQ(child.readAllOutput(), "registered 1\nproxy released\n");
    const std::string errors = child.readAllErrors();
    EXPECT_THAT(errors, testing::MatchesRegex("[^\n]* 9 [^\n]* vnet::Module::detach: entering\n"
                                              "[^\n]* 9 [^\n]* vnet::Module::detach: exiting\n"));
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(ModuleTest, AfterDetachingAtExit_TheNextRegistryIsFreshAndEmpty) {
    EXPECT_THAT(linesOf(ChildProcess::spawnRole("exitWithAFunctionThatUsesTheRegistryAfterwards")),
                ElementsAre("registered 1", "9 vnet::Module::detach: entering", "proxy released",
                            "9 vnet::Module::detach: exiting", "found 0", "registered 2"));
}

TEST_F(ModuleTest, AttachesWhenItsCounterLeavesZeroAndDetachesWhenItIsZeroAgain) {
    static std::vector<std::string> events;
    const std::vector<std::string> attach = {"VNETInitWinsock", "VNETInitSSL"};
    const std::vector<std::string> detach = {"9 vnet::Module::detach: entering", "deleteInstance",
                                             "VNETFinitSSL", "VNETFinitWinsock",
                                             "9 vnet::Module::detach: exiting"};
    const auto joined = [](std::vector<std::string> result, const std::vector<std::string>& more) {
        result.insert(result.end(), more.begin(), more.end());
        return result;
    };
    const std::vector<Life> lives = {
        {true, 0, 0, joined(joined(joined(attach, {"count 1"}), detach), {"count 0"})},
        {true, 0, 1, joined(attach, {"count 1", "count 1"})},
        {true, 1, 0, {"count 2", "count 1"}},
        {true, 1, -1, joined(joined({"count 2"}, detach), {"count 0"})},
        {true, 0, -1, joined(attach, {"count 1", "count 0"})},
        {true, 0, -2, joined(attach, {"count 1", "count -1"})},
        {false, 0, 0, {"count 0", "count 0"}},
        {false, 0, 1, {"count 0", "count 1"}},
        {false, 1, 0, {"count 1", "count 1"}},
    };
    const SharedObject plugin(VORNTEST_MODULE_INSTANCES_FILE);
    const auto live = plugin.function<decltype(liveAsModule)>("liveAsModule");
    VornLogging::setRecordHandler(
        [](int level, const VornString& text) { events.push_back(std::to_string(level) + " " + text); });
    VornLogging::getInstance().setLogLevel(9);
    for (const Life& life : lives) {
        events.clear();
        live(life.autoInit, life.start, life.more, [](const char* event) { events.emplace_back(event); });
        EXPECT_EQ(events, life.events) << life.autoInit << ' ' << life.start << ' ' << life.more;
    }
    VornLogging::getInstance().setLogLevel(VornLogging::cOff);
    VornLogging::setRecordHandler({});
}

TEST_F(ModuleTest, ANeighbourLibraryWithAClassModule_KeepsItsHooksWhenLoadedFirst) {
    EXPECT_THAT(linesOf(ChildProcess::spawnRole("neighbourFirst")),
                ElementsAre("neighbour attached", "registered 1", "9 vnet::Module::detach: entering",
                            "proxy released", "9 vnet::Module::detach: exiting",
                            "mapped:", "neighbour detached"));
}

TEST_F(ModuleTest, ANeighbourLibraryWithAClassModule_KeepsItsHooksWhenLoadedSecond) {
    EXPECT_THAT(linesOf(ChildProcess::spawnRole("neighbourSecond")),
                ElementsAre("neighbour attached", "registered 1", "neighbour detached", "neighbour gone",
                            "9 vnet::Module::detach: entering", "proxy released",
                            "9 vnet::Module::detach: exiting"));
}

TEST_F(ModuleTest, AfterTheLibraryIsUnloaded_TheProcessForks) {
    EXPECT_THAT(linesOf(ChildProcess::spawnRole("forkAfterUnloading")), ElementsAre("mapped:", "child: 0"));
}
