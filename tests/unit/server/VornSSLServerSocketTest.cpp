// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include <VornSSLServerSocket.h>

#include "Interpose.h"
#include "LeakCheckedTest.h"
#include "LogCapture.h"
#include "Posix.h"
#include "ServerTestSupport.h"

#include <memory>

using namespace VornTest;
using VornNet::VornCertificate;
using VornNet::VornServerSocket;
using VornNet::VornSSLServerSocket;

namespace {

using testing::IsEmpty;

constexpr int port = 5023;

class VornSSLServerSocketTest : public LeakCheckedTest {};

class SslProbe : public Probe<VornSSLServerSocket> {
public:
    SslProbe() : Probe(port, VornCertificate("c.pem", "PEM", "k.pem", "DER"), 7, "127.0.0.1") {}

    using Probe::Probe;
    using VornSSLServerSocket::m_certificate;
    using VornSSLServerSocket::m_pSSLImpl;
};

/** What a derived class makes of it that brings a socket. */
class Listening : public SslProbe {
public:
    void init() override { VornServerSocket::init(); }
};

class Failing : public SslProbe {
protected:
    void init() override { throw VornException("derived", 12); }
};

} // namespace

TEST_F(VornSSLServerSocketTest, WhenConstructed_KeepsItsArguments) {
    const CallTrace trace;
    SslProbe server;
    EXPECT_EQ(server.getPort(), port);
    EXPECT_EQ(server.getBindAddress(), "127.0.0.1");
    EXPECT_EQ(server.m_nBacklog, 7);
    EXPECT_EQ(server.m_pSSLImpl, nullptr);
    EXPECT_EQ(server.m_pSocketImpl, nullptr);
    EXPECT_FALSE(server.m_bInitialized);
    EXPECT_THAT(callsOf(trace), IsEmpty());
}

TEST_F(VornSSLServerSocketTest, WhenConstructed_KeepsACopyOfTheCertificate) {
    auto certificate = std::make_unique<VornCertificate>("c.pem", "PEM", "k.pem", "DER");
    SslProbe server(port, *certificate, 5, "*");
    *certificate = VornCertificate("other", "", "other", "");
    certificate.reset();
    EXPECT_EQ(server.m_certificate.getFile(), "c.pem");
    EXPECT_EQ(server.m_certificate.getKeyFile(), "k.pem");
    EXPECT_EQ(server.m_certificate.getType(), 0);
    EXPECT_EQ(server.m_certificate.getKeyType(), 0);
}

TEST_F(VornSSLServerSocketTest, Init_DoesNothing) {
    SslProbe server;
    const CallTrace trace;
    server.init();
    EXPECT_THAT(callsOf(trace), IsEmpty());
    EXPECT_EQ(server.m_pSocketImpl, nullptr);
    EXPECT_FALSE(server.m_bInitialized);
}

TEST_F(VornSSLServerSocketTest, Wait_EndsAtOnceWithoutClientOrTextAndTouchesNoDescriptor) {
    SslProbe server;
    const LogCapture log(4);
    const CallTrace trace;
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome);
    EXPECT_THAT(callsOf(trace), IsEmpty());
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornSSLServerSocketTest, Wait_WhenADerivedClassListens_LetsTheClientGoAtOnce) {
    Listening server;
    server.init();
    UniqueFd peer = tcpConnect("127.0.0.1", port);
    // The client closes its side first, so that the port is not lost.
    ASSERT_EQ(::shutdown(peer.get(), SHUT_WR), 0);
    expectQuiet(waitFor(server));
    EXPECT_EQ(receiveToEnd(peer.get()), "");
}

TEST_F(VornSSLServerSocketTest, Wait_WhenADerivedClassFails_ReportsTextAndCode) {
    Failing server;
    const ImplOutcome outcome = waitForImpl(server);
    expectNoClient(outcome, "derived", 12);
    EXPECT_EQ(waitFor(server).failure, (Failure{"derived", 12}));
}

TEST_F(VornSSLServerSocketTest, WaitForInit_NeverReturns) {
    SslProbe server;
    const CallTrace trace;
    WatchedThread thread([&] { server.waitForInit(); });
    ASSERT_TRUE(awaitCondition([&] { return trace.calls("usleep") >= 3; }));
    expectQuiet(waitFor(server));
    const int calls = trace.calls("usleep");
    EXPECT_TRUE(awaitCondition([&] { return trace.calls("usleep") >= calls + 3; }));
    EXPECT_FALSE(thread.finished());
    // Only a derived class can let the thread go.
    __atomic_store_n(&server.m_bInitialized, true, __ATOMIC_RELEASE);
    EXPECT_TRUE(thread.join());
}

TEST_F(VornSSLServerSocketTest, Close_WhenThereIsNoSocket_DoesNothing) {
    SslProbe server;
    int state = 0;
    server.m_pSSLImpl = &state;
    const LogCapture log(9);
    const CallTrace trace;
    server.close();
    EXPECT_EQ(server.m_pSSLImpl, &state);
    EXPECT_THAT(callsOf(trace), IsEmpty());
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(VornSSLServerSocketTest, Close_WhenADerivedClassListens_ClearsTheStateAndClosesTheSocket) {
    Listening server;
    server.init();
    int state = 0;
    server.m_pSSLImpl = &state;
    const int listener = socketOf(server);
    server.close();
    EXPECT_EQ(server.m_pSSLImpl, nullptr);
    EXPECT_EQ(server.m_pSocketImpl, nullptr);
    EXPECT_FALSE(isOpen(listener));
}
