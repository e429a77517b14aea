// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "Await.h"
#include "TsharkRun.h"

#include <VornProxyDependent.h>
#include <VornUDPServerSocket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VornTest;
using namespace VornNet;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** A service's proxy whose notifications say more. */
class EventProxy : public VornProxyDependent {
public:
    using VornProxyDependent::VornProxyDependent;

    void addContent(VornConnection& connection, const VornSupport::VornNotification& notification) override {
        VornProxyDependent::addContent(connection, notification);
        connection.transfer("disk full");
        connection.transfer(static_cast<short>(-2));
        connection.transfer(true);
    }
};

/** Sends a notification from a service to a sink, both of the library. */
template <typename Proxy>
void notifySink(const char* type, int id) {
    callSink(type, [id](const std::string& address) {
        Proxy(address, 7).remoteNotify(VornSupport::VornNotification(id));
    });
}

const Lines cTwoPasses = {"-2"};

} // namespace

TEST_F(VornnetDissector, NotificationOverTcp_ShowsHandleAndId) {
    notifySink<VornProxyDependent>("socket", 12);
    capture().awaitEnds(2);
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7", "Content: long 12"));
    EXPECT_THAT(fields({"vornnet.handle"}), ElementsAre("7"));
    EXPECT_THAT(fields({"vornnet.long"}), ElementsAre("12"));
    EXPECT_THAT(remarks(), IsEmpty());
}

TEST_F(VornnetDissector, NotificationOverUdp_IsOneDatagram) {
    notifySink<VornProxyDependent>("udp", 12);
    EXPECT_EQ(shown().at(0), "Notification: handle 7, long 12");
    EXPECT_THAT(fields({"vornnet.handle", "vornnet.long"}), ElementsAre("7	12"));
}

TEST_F(VornnetDissector, ClosingAUdpServer_ShowsItsWordToItself) {
    VornUDPServerSocket server(5023, "127.0.0.1", 100);
    WatchedThread waiting([&server] { server.waitForClient(false); });
    ASSERT_TRUE(awaitBlockedInIo(waiting.tid()));
    server.close();
    EXPECT_TRUE(waiting.join());
    EXPECT_THAT(shown(), ElementsAre("Server closed: wake-up"));
    // Nobody is at the port any more, and the kernel sends back what came to it.
    EXPECT_THAT(fields({"vornnet.wakeup"}, {"-Y", "not icmp"}), ElementsAre("00 01"));
}

TEST_F(VornnetDissector, ContentOfTheServicesOwn_IsShownByTheTypesOfThePreference) {
    notifySink<EventProxy>("udp", 12);
    EXPECT_THAT(shown(preferring({"content:long,string, short bool"})),
                Contains("Notification: handle 7, long 12, string \"disk full\", short -2, bool true"));
}

TEST_F(VornnetDissector, ContentBehindTheKnownTypes_IsShownAsBytes) {
    notifySink<EventProxy>("udp", 12);
    EXPECT_THAT(shown(), Contains("Notification: handle 7, long 12, 17 bytes"));
    EXPECT_THAT(remarks(), Contains("Note: more than the types of the preferences"));
}

TEST_F(VornnetDissector, ContentWithoutTypes_IsShownAsBytes) {
    sendDatagrams({notificationBytes(7, 12)});
    EXPECT_THAT(shown(preferring({"content:"})), ElementsAre("Notification: handle 7, 8 bytes"));
    EXPECT_THAT(fields({"vornnet.data"}, preferring({"content:"})), ElementsAre("00 00 00 0c 00 00 00 00"));
    EXPECT_THAT(remarks(preferring({"content:"})), IsEmpty());
}

TEST_F(VornnetDissector, TypeThatIsNone_IsNamed) {
    sendDatagrams({notificationBytes(7, 12)});
    EXPECT_THAT(shown(preferring({"content:long,double"})), ElementsAre("Notification: handle 7, 8 bytes"));
    EXPECT_THAT(remarks(preferring({"content:long,double"})),
                ElementsAre("Note: \"double\" in the preferences is no type"));
}

TEST_F(VornnetDissector, SeveralNotificationsOverTcp_AreTheirOwnStreams) {
    for (const int id : {1, 2, 3})
        notifySink<VornProxyDependent>("socket", id);
    capture().awaitEnds(6);
    EXPECT_THAT(shownBothWays(),
                ElementsAre("Notification: handle 7", "Content: long 1", "Notification: handle 7",
                            "Content: long 2", "Notification: handle 7", "Content: long 3"));
}

TEST_F(VornnetDissector, NotificationInSegmentsOfOneByte_IsPutTogether) {
    talkSlowly({notificationBytes(7, 12)});
    EXPECT_EQ(capture().segments(), 16);
    EXPECT_THAT(shownBothWays(), ElementsAre("Notification: handle 7", "Content: long 12"));
    EXPECT_THAT(remarks(cTwoPasses), IsEmpty());
}

TEST_F(VornnetDissector, NotificationWithoutContent_ShowsTheHandle) {
    talk({longBytes(7)});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7"));
    EXPECT_THAT(remarks(), IsEmpty());
}

TEST_F(VornnetDissector, StreamThatEndsWithinTheContent_SaysWhatIsThere) {
    talk({longBytes(7) + bytes("00 00 00")});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7", "Content: 3 bytes"));
    EXPECT_THAT(remarks(), ElementsAre("Note: 3 bytes of a long, 5 to come", "Warning: 3 bytes of a long"));
    EXPECT_THAT(remarks(cTwoPasses), Contains("Warning: 3 bytes of a long"));
}

TEST_F(VornnetDissector, StreamThatEndsWithinTheHandle_SaysWhatIsThereWhenNotificationsAreChosen) {
    talk({bytes("00 00")});
    EXPECT_THAT(shown(), IsEmpty());
    const Lines options = preferring({"streams:Notifications"});
    EXPECT_THAT(shown(options), ElementsAre("Notification: 2 bytes"));
    EXPECT_THAT(remarks(options), Contains("Warning: 2 bytes of a long"));
}

TEST_F(VornnetDissector, StreamWithoutReassembly_SaysWhatIsThere) {
    talk({longBytes(7) + bytes("00 00 00"), "", bytes("0c 00 00 00 00")});
    const Lines options = {"-o", "tcp.desegment_tcp_streams:false"};
    EXPECT_THAT(shown(options), ElementsAre("Notification: handle 7, 3 bytes", "Data: 5 bytes"));
    EXPECT_THAT(remarks(options), ElementsAre("Warning: 3 bytes of a long"));
}

TEST_F(VornnetDissector, DatagramThatEndsWithinAValue_SaysWhatIsThere) {
    sendDatagrams({longBytes(7) + bytes("00 00 00"), bytes("00 00 00")});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7, 3 bytes", "Notification: 3 bytes"));
    EXPECT_THAT(remarks(), ElementsAre("Warning: 3 bytes of a long", "Warning: 3 bytes of a long"));
}

TEST_F(VornnetDissector, PacketThatWasNotCapturedWhole_SaysSo) {
    capture().cutPackets(54); // after the Ethernet, IP and UDP headers 12 of the 16 bytes
    sendDatagrams({notificationBytes(7, 12)});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7, 4 bytes"));
    EXPECT_THAT(remarks(), ElementsAre("Warning: Not captured whole"));
}

TEST_F(VornnetDissector, SegmentThatWasNotCapturedWhole_SaysSo) {
    capture().cutPackets(78); // the TCP header has 32 bytes: 12 of the 16 bytes
    talk({notificationBytes(7, 12)});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7, 4 bytes"));
    EXPECT_THAT(remarks(), ElementsAre("Warning: Not captured whole"));
}

TEST_F(VornnetDissector, TextWithANegativeLength_IsAnError) {
    sendDatagrams({longBytes(7) + bytes("ff ff ff fe 61 62")});
    const Lines options = preferring({"content:string"});
    EXPECT_THAT(shown(options), ElementsAre("Notification: handle 7, 6 bytes"));
    EXPECT_THAT(remarks(options), ElementsAre("Error: a length of -2, which the receiver refuses"));
}

TEST_F(VornnetDissector, TextWithAHostileLength_IsAnErrorAndNotWaitedFor) {
    talk({longBytes(7) + bytes("7f ff ff ff 61 62"), "", "more"});
    const Lines options = preferring({"content:string,int"});
    EXPECT_THAT(shown(options), ElementsAre("Notification: handle 7, 6 bytes", "Data: 4 bytes"));
    EXPECT_THAT(remarks(options),
                ElementsAre("Error: a length of 2147483647, more than the 1048576 that are believed"));
}

TEST_F(VornnetDissector, LongestTextThatIsBelieved_IsAPreference) {
    sendDatagrams({longBytes(7) + stringBytes("text")});
    EXPECT_THAT(shown(preferring({"content:string", "longest:4"})),
                ElementsAre("Notification: handle 7, string \"text\""));
    EXPECT_THAT(remarks(preferring({"content:string", "longest:3"})),
                ElementsAre("Error: a length of 4, more than the 3 that are believed"));
}

TEST_F(VornnetDissector, BytesThatALongIgnores_AreShownWhenTheyAreNotZero) {
    sendDatagrams({longBytes(7) + bytes("00 00 00 0c 00 00 00 01")});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7, long 12"));
    EXPECT_THAT(fields({"vornnet.long.unused"}), ElementsAre("00 00 00 01"));
    EXPECT_THAT(remarks(), ElementsAre("Warning: Ignored bytes are not zero"));
}

TEST_F(VornnetDissector, TextThatTheReceiverCuts_SaysSo) {
    sendDatagrams({longBytes(7) + stringBytes(std::string("a\0b", 3))});
    const Lines options = preferring({"content:string"});
    EXPECT_THAT(shown(options), ElementsAre("Notification: handle 7, string \"a\\x00b\""));
    EXPECT_THAT(remarks(options), Contains("Note: The receiver cuts it at its zero byte"));
}

TEST_F(VornnetDissector, TextThatIsNoText_IsEscapedAndCutInTheList) {
    sendDatagrams({longBytes(7) + stringBytes("\xff\n" + std::string(100, 'x'))});
    EXPECT_THAT(shown(preferring({"content:string"})),
                ElementsAre("Notification: handle 7, string \"\\xff\\x0a" + std::string(58, 'x') + "...\""));
}

TEST_F(VornnetDissector, EmptyText_IsShown) {
    sendDatagrams({longBytes(7) + stringBytes("")});
    EXPECT_THAT(shown(preferring({"content:string"})), ElementsAre("Notification: handle 7, string \"\""));
}

TEST_F(VornnetDissector, AnswerOfASink_IsSaidToBeReadByNobody) {
    talk({notificationBytes(7, 12), "what"});
    EXPECT_THAT(shown(), ElementsAre("Notification: handle 7, long 12", "Data: 4 bytes"));
    EXPECT_THAT(remarks(), ElementsAre("Note: a sink does not answer"));
}

TEST_F(VornnetDissector, NotificationAtAnotherPort_IsDecodedOnDemand) {
    talk({notificationBytes(7, 12)}, 7777);
    sendDatagrams({notificationBytes(8, 13)}, 7777);
    EXPECT_THAT(shown(), IsEmpty());
    EXPECT_THAT(shown({"-d", "tcp.port==7777,vornnet", "-d", "udp.port==7777,vornnet"}),
                ElementsAre("Notification: handle 7, long 12", "Notification: handle 8, long 13"));
}

TEST_F(VornnetDissector, Ports_ArePreferences) {
    talk({notificationBytes(7, 12)}, 7777);
    sendDatagrams({notificationBytes(8, 13)}, 7778);
    talk({notificationBytes(9, 14)}, 5023);
    EXPECT_THAT(shown(preferring({"tcp_ports:7777", "udp_ports:7770-7780"})),
                ElementsAre("Notification: handle 7, long 12", "Notification: handle 8, long 13"));
    EXPECT_THAT(shown(preferring({"tcp_ports:", "udp_ports:"})), IsEmpty());
}

TEST_F(VornnetDissector, NotificationAtAnyPort_IsFoundWhenWanted) {
    talk({notificationBytes(7, 12)}, 7777);
    sendDatagrams({notificationBytes(8, 13)}, 7777);
    sendDatagrams({"0123456789abcdef"}, 7779);
    EXPECT_THAT(shown(preferring({"anywhere:true"})),
                ElementsAre("Notification: handle 7, long 12", "Notification: handle 8, long 13"));
}

TEST_F(VornnetDissector, HandleThatLooksLikeNone_IsTakenForOneWhenNotificationsAreChosen) {
    talk({bytes("00 00 00 07 00 00 00 01  00 00 00 0c 00 00 00 00")});
    EXPECT_THAT(shown(), IsEmpty());
    EXPECT_THAT(shown(preferring({"streams:Notifications"})), ElementsAre("Notification: handle 7, long 12"));
}

TEST_F(VornnetDissector, PortsThatAreUsedAgain_BeginANewStream) {
    talk({longBytes(7), "", longBytes(12)});
    capture().repeatLater(100);
    EXPECT_THAT(shownBothWays(), ElementsAre("Notification: handle 7", "Content: long 12",
                                             "Notification: handle 7", "Content: long 12"));
}
