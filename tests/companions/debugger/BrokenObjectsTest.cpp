// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "GdbRun.h"

#include "Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string cNoText = "<no text: its length would be 4702111234474983745>";

/** The environment in which the debuggee finds the libraries without their debug information. */
class WithoutSymbols {
public:
    WithoutSymbols() {
        strip(VORNTEST_VORNNET_FILE, "libvornnet.so.1");
        strip(VORNTEST_VORNSUPT_FILE, "libvornsupt.so.1");
    }

    Lines environment() const { return {"LD_LIBRARY_PATH=" + m_directory.path()}; }

private:
    void strip(const std::string& library, const std::string& name) const {
        ChildProcess strip =
            ChildProcess::spawn({"strip", "-g", "-o", m_directory.path() + "/" + name, library});
        EXPECT_EQ(strip.wait(), 0) << strip.readAllErrors();
    }

    TemporaryDirectory m_directory;
};

std::string withoutSymbols(const std::string& name) {
    return "<" + name + " at ADDRESS: no debug symbols of the library>";
}

} // namespace

TEST_F(GdbPrinters, Text_ThatWasOverwritten_IsSaidToBeNone) {
    EXPECT_THAT(show("texts", {"sBroken", "broken", "sLost"}),
                ElementsAre(cNoText, cNoText, "<cannot read memory at 0x0>"));
}

TEST_F(GdbPrinters, Object_ThatWasOverwritten_IsSaidToBeNone) {
    const std::string rest = " at ADDRESS: no object: its first word is 0x4141414141414141>";
    EXPECT_THAT(show("overwritten", {"*socket", "*server", "*callbacks", "*exception", "*sink"}),
                ElementsAre("<VornNet::VornSocketConnection" + rest, "<VornNet::VornPipeServer" + rest,
                            "<VornNet::VornCallbackContainer" + rest, "<VornSupport::VornException" + rest,
                            "<VornNet::VornLibraryCallbackSink" + rest));
}

TEST_F(GdbPrinters, ObjectWithAPointerToItsState_ThatWasOverwritten_SaysWhatCannotBeRead) {
    EXPECT_THAT(
        show("overwritten", {"*dispatcher", "*steady", "*publisher", "*subscriber", "*zeroPublisher"}),
        ElementsAre(StartsWith("<VornNet::VornDispatcher at ADDRESS: "),
                    StartsWith("<VornNet::VornSteadySink at ADDRESS: "),
                    StartsWith("<VornNet::VornPublisher at ADDRESS: "),
                    StartsWith("<VornNet::VornSubscriber at ADDRESS: "),
                    "<VornNet::VornPublisher at ADDRESS: there is no state: destroyed, or left to a "
                    "child process>"));
}

TEST_F(GdbPrinters, ObjectWithoutVirtualFunctions_ThatWasOverwritten_SaysWhatCannotBeRead) {
    EXPECT_THAT(
        show("overwritten", {"*pointer", "*identifier"}),
        ElementsAre("smart pointer to <VornNet::VornConnection at 0x4141414141414141: cannot read memory at "
                    "0x4141414141414141>",
                    cNoText + ", handle 4702111234474983745"));
}

TEST_F(GdbPrinters, Object_WhereThereIsNothingButZeros_IsSaidToBeNone) {
    const std::string rest = " at ADDRESS: no object: its first word is 0x0>";
    EXPECT_THAT(show("overwritten", {"*zeroSocket", "*zeroCallbacks", "*zeroPointer"}),
                ElementsAre("<VornNet::VornSocketConnection" + rest, "<VornNet::VornCallbackContainer" + rest,
                            "empty smart pointer"));
}

TEST_F(GdbPrinters, Object_WhoseFirstWordLeadsIntoData_IsSaidToBeNone) {
    EXPECT_EQ(showOne("overwritten", "*freed"),
              "<VornNet::VornSocketConnection at ADDRESS: no object: its first word is ADDRESS>");
}

TEST_F(GdbPrinters, Object_WhoseDestructorHasRun_IsSaidToBeDestroyed) {
    EXPECT_THAT(showOne("overwritten", "*destroyed"),
                testing::MatchesRegex("<VornNet::VornPipeConnection at ADDRESS: destroyed: only its "
                                      "(VornNet::VornConnection|VornSupport::VornObjectBase) is left>"));
}

TEST_F(GdbPrinters, NullPointer_IsTheDebuggersOwnError) {
    Lines arguments = executing({"break stopHere", "run overwritten", "up", "output *pNull"});
    arguments.insert(arguments.end(), {"--args", VORNTEST_DEBUGGEE});
    EXPECT_EQ(runGdb(arguments).errors, "Cannot access memory at address 0x0\n");
}

TEST_F(GdbPrinters, Connection_WhoseFieldsWereOverwritten_SaysWhatCannotBeRead) {
    const std::string rest = " at ADDRESS: cannot read memory at 0x4141414141414141>";
    EXPECT_THAT(show("spoiled", {"*socket", "*pipe"}),
                ElementsAre("<VornNet::VornSocketConnection" + rest, "<VornNet::VornPipeConnection" + rest));
}

TEST_F(GdbPrinters, BufferConnection_WhoseFieldsWereOverwritten_ShowsThemAsTheyAre) {
    EXPECT_EQ(showOne("spoiled", "*buffer"),
              "buffer connection from " + cNoText +
                  ", 1094795585 bytes written, 0 waiting, capacity 1094795585, " + "service " + cNoText +
                  ", raw, local access, 1094795585 references");
}

TEST_F(GdbPrinters, Server_WhoseFieldsWereOverwritten_SaysWhatCannotBeRead) {
    const std::string rest = " at ADDRESS: cannot read memory at 0x4141414141414141>";
    EXPECT_THAT(show("spoiled", {"*server", "*pipeServer"}),
                ElementsAre("<VornNet::VornServerSocket" + rest, "<VornNet::VornPipeServer" + rest));
}

TEST_F(GdbPrinters, Registry_WhoseFieldsWereOverwritten_SaysWhatCannotBeRead) {
    EXPECT_EQ(
        showOne("spoiled", "*callbacks"),
        "callback registry: 4702111234474983745 callbacks, next id 1094795585, "
        "<VornSupport::VornCriticalSectionObject at ADDRESS: cannot read memory at 0x4141414141414141> = "
        "{[...] = <cannot read memory at 0x4141414141414151>}");
}

TEST_F(GdbPrinters, Registry_WhoseTreeLeadsBackToItself_IsNotWalkedForEver) {
    EXPECT_EQ(showOne("spoiled", "circleBase"),
              "callback registry: 2 callbacks, next id 0, lock free, of class (anonymous "
              "namespace)::CallbackContainerProbe = {[...] = <the tree of entries leads back to ADDRESS>}");
}

TEST_F(GdbPrinters, OtherObjects_WhoseFieldsWereOverwritten_SayWhatCannotBeRead) {
    EXPECT_THAT(
        show("spoiled", {"(VornNet::VornNotificationCallback&)*callback", "*exception", "*event",
                         "(VornSupport::VornThread&)*thread", "*certificate"}),
        ElementsAre("<(anonymous namespace)::AlarmCallback at ADDRESS: Cannot access memory at address "
                    "0x41414141414141b1>",
                    "VornException 1094795585: " + cNoText,
                    "<VornSupport::VornEvent at ADDRESS: Cannot access memory at address 0x41414141414141b1>",
                    AllOf(HasSubstr("IdleThread at ADDRESS: Cannot access memory at address 0x41414141414")),
                    "certificate " + cNoText + ", key " + cNoText));
}

TEST_F(GdbPrinters, ConnectionWhoseCellHoldsNoDescriptor_SaysSo) {
    EXPECT_EQ(showOne("spoiled", "badCellBase"),
              "<(anonymous namespace)::SocketProbe at ADDRESS: the cell at "
              "ADDRESS holds 0xdeadbeef, which is no descriptor>");
}

TEST_F(GdbPrinters, BufferConnectionWithImpossiblePositions_SaysSo) {
    EXPECT_EQ(
        showOne("spoiled", "senselessBase"),
        "<(anonymous namespace)::BufferProbe at ADDRESS: positions 9 and 4 in 8192 bytes make no sense>");
}

TEST_F(GdbPrinters, TcpConnectionWhoseServerIsGone_SaysWhatCannotBeRead) {
    EXPECT_EQ(
        showOne("spoiled", "orphan"),
        "<VornNet::VornSocketConnection at ADDRESS: Cannot access memory at address 0x414141414141414d>");
}

TEST_F(GdbPrinters, LibraryWithoutDebugSymbols_ShowsClassesOnly) {
    const WithoutSymbols libraries;
    EXPECT_THAT(show("pointers", {"spNothing", "spOnce", "spCallback", "spTicket", "*spTwice"},
                     libraries.environment()),
                ElementsAre("empty smart pointer",
                            "smart pointer to " + withoutSymbols("VornNet::VornPipeConnection"),
                            "smart pointer to " + withoutSymbols("(anonymous namespace)::AlarmCallback"),
                            "smart pointer to " + withoutSymbols("(anonymous namespace)::Ticket"),
                            withoutSymbols("VornNet::VornSocketConnection")));
}

TEST_F(GdbPrinters, LibraryWithoutDebugSymbols_StillShowsTexts) {
    const WithoutSymbols libraries;
    EXPECT_THAT(show("texts", {"sPlain", "wide"}, libraries.environment()),
                ElementsAre("\"pipe:quorax1f3a\"", R"("café \xff")"));
}
