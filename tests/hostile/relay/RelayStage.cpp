// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayStage.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <NatsAdministration.h>
#include <VornDispatcher.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornPipeConnection.h>
#include <VornProxyDependent.h>
#include <VornSteadySink.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornSupport;

namespace VornTest {

namespace {

constexpr int cPort = 4222;                     // of the first server for clients, and the others follow
constexpr int cRoutePort = 6222;                // for the other servers
constexpr std::chrono::seconds cReadyLimit{60}; // of a machine that is overloaded

std::string serverFile(const std::string& sKind, int nServer) {
    return RelayStage::pathOf("engine" + std::to_string(nServer) + sKind);
}

bool answers(int nServer) {
    try {
        tcpConnect("127.0.0.1", cPort + nServer);
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

/** A host has a network of its own when there is a file that says which process is in it. */
void enterNetwork(const std::string& sHost) {
    std::ifstream file(RelayStage::pathOf("network-" + sHost));
    std::string sProcess;
    if (!(file >> sProcess))
        return;
    const UniqueFd network(::open(("/proc/" + sProcess + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC));
    if (::setns(network.get(), CLONE_NEWNET) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot enter the network of " + sHost);
}

/** One end of a cable: what is written is received there, and what is sent there can be read. */
UniqueFd openTap(const std::string& sName) {
    UniqueFd tap(::open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request{};
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    sName.copy(request.ifr_name, IFNAMSIZ - 1);
    if (::ioctl(tap.get(), TUNSETIFF, &request) == -1)
        throw std::system_error(errno, std::generic_category(), "a network interface " + sName);
    return tap;
}

void useHosts(const std::string& sFile) {
    if (std::filesystem::exists(sFile) &&
        ::mount(sFile.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "/etc/hosts");
}

/** Writes each number that it is notified with to a log, one write each, so that a kill tears none. */
class LoggingCallback : public VornNotificationCallback {
public:
    LoggingCallback(int nId, const std::string& sLog)
        : VornNotificationCallback(nId),
          m_log(::open(sLog.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}

    void doCallback(VornSmartPointer<VornConnection>& spConnection) override {
        const std::string sLine = std::to_string(spConnection->receiveLong()) + "\n";
        if (::write(m_log.get(), sLine.data(), sLine.size()) != static_cast<ssize_t>(sLine.size()))
            throw std::runtime_error("the log cannot be written");
    }

private:
    const UniqueFd m_log;
};

/** @param sName of the lease; "-" for none: the sink's own address is published */
template <typename Sink>
int runSink(Sink& sink, const std::string& sName, const std::string& sLog) {
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    const VornSmartPointer<LoggingCallback> spCallback = new LoggingCallback(callbacks.getNewId(), sLog);
    callbacks.add(&*spCallback);
    if (sName == "-")
        std::cout << sink.getCallbackAddress() << " " << spCallback->getId() << std::endl;
    else
        std::cout << RelayStage::leaseFor(sName, sink.getCallbackAddress(), spCallback->getId()) << std::endl;
    std::string sEnd;
    std::getline(std::cin, sEnd);
    return 0;
}

/** Sends again until a sink, or the relay in its place, has confirmed. @return what was sent again */
std::vector<int> sendConfirmed(VornProxyDependent& proxy, int nCount) {
    std::vector<int> again;
    std::mutex mutex;
    bool bDelivered = false;
    VornDispatcher::Options options;
    options.terms.timeLimit = std::chrono::seconds(60);
    options.onResult = [&](const VornDispatcher::Result& result) {
        const std::lock_guard lock(mutex);
        bDelivered = result.outcome == VornDispatcher::Outcome::delivered;
    };
    VornDispatcher dispatcher(options);
    for (int n = 1; n <= nCount; ++n) {
        do {
            dispatcher.post(proxy, VornNotification(n));
            dispatcher.flush(std::chrono::seconds(60));
            if (!bDelivered)
                again.push_back(n);
        } while (!bDelivered);
    }
    return again;
}

void sendPlain(VornProxyDependent& proxy, int nCount, std::chrono::milliseconds pause) {
    for (int n = 1; n <= nCount; ++n) {
        proxy.remoteNotify(VornNotification(n));
        std::this_thread::sleep_for(pause);
    }
}

void runOrThrow(const std::vector<std::string>& arguments) {
    ChildProcess process = ChildProcess::spawn(arguments);
    const std::string sErrors = process.readAllErrors();
    if (process.wait() != 0)
        throw std::runtime_error(arguments[0] + ": " + sErrors);
}

} // namespace

KIT_ROLE(relay_command) {
    RelayStage::enterHost(args.at(0));
    if (const char* szLog = std::getenv("VORNTEST_LOG"); szLog != nullptr)
        ::dup2(::open(szLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    std::vector<char*> arguments;
    for (std::size_t i = 1; i < args.size(); ++i)
        arguments.push_back(const_cast<char*>(args[i].c_str()));
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    return 127;
}

KIT_ROLE(relay_sink) {
    RelayStage::enterHost(args.at(0));
    if (args.at(1) == "-") {
        useHosts(RelayStage::pathOf("hosts-of-sinks"));
        ::setenv("QUORAX_CALLB_CONN_TYPE", "socket", 1);
    }
    if (args.at(3) == "steady") {
        VornSteadySink sink("sink");
        return runSink(sink, args.at(1), args.at(2));
    }
    VornLibraryCallbackSink sink("sink");
    return runSink(sink, args.at(1), args.at(2));
}

KIT_ROLE(relay_network) {
    if (::unshare(CLONE_NEWNET) != 0)
        return 1;
    std::cout << ::getpid() << std::endl;
    std::string sEnd;
    std::getline(std::cin, sEnd);
    return static_cast<int>(args.size());
}

/**
 * A cable to a host's network, on which each frame takes its time. It has to be a process, since not every
 * kernel is built with what delays frames.
 */
KIT_ROLE(relay_cable) {
    struct Frame {
        std::chrono::steady_clock::time_point due;
        int nTo;
        std::string sBytes;
    };

    const std::chrono::milliseconds delay(std::stoi(args.at(1)));
    const UniqueFd ends[] = {openTap("to-" + args.at(0)), (enterNetwork(args.at(0)), openTap("engine"))};
    std::cout << "connects" << std::endl;
    std::deque<Frame> frames; // in the order in which they are due
    for (;;) {
        for (; !frames.empty() && frames.front().due <= std::chrono::steady_clock::now(); frames.pop_front())
            (void)!::write(frames.front().nTo, frames.front().sBytes.data(), frames.front().sBytes.size());
        pollfd readable[] = {
            {ends[0].get(), POLLIN, 0}, {ends[1].get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        ::poll(readable, std::size(readable), frames.empty() ? -1 : 1);
        if (readable[2].revents != 0)
            return 0;
        for (const int nFrom : {0, 1}) {
            char bytes[65536];
            const ssize_t count =
                (readable[nFrom].revents & POLLIN) == 0 ? 0 : ::read(ends[nFrom].get(), bytes, sizeof bytes);
            if (count > 0)
                frames.push_back({std::chrono::steady_clock::now() + delay, ends[1 - nFrom].get(),
                                  std::string(bytes, static_cast<std::size_t>(count))});
        }
    }
}

KIT_ROLE(relay_service) {
    RelayStage::enterHost(args.at(0));
    const VornSmartPointer<VornProxyDependent> spProxy =
        new VornProxyDependent(args.at(2).c_str(), std::stol(args.at(3)));
    const int nCount = std::stoi(args.at(4));
    std::vector<int> again;
    if (args.at(1) == "confirmed")
        again = sendConfirmed(*spProxy, nCount);
    else
        sendPlain(*spProxy, nCount, std::chrono::milliseconds(args.at(1) == "paced" ? 2 : 0));
    std::cout << again.size() << std::endl;
    for (const int n : again)
        std::cout << n << ' ';
    std::cout << std::endl;
    return 0;
}

void PrintTo(const History& history, std::ostream* out) {
    *out << history.nSeen << " seen, " << history.nLost << " lost, " << history.nDuplicated << " duplicated, "
         << history.nOutOfOrder << " out of order";
}

RelayStage::RelayStage(EngineSetup setup) : m_setup(std::move(setup)) {
    needSandbox("a network and pipe directories of its own");
    std::filesystem::remove_all(pathOf(""));
    for (const char* szDirectory : {"pipes-a", "pipes-b", "state-a", "state-b"})
        std::filesystem::create_directories(pathOf(szDirectory));
    createCertificates();
    for (int nServer = 0; nServer < m_setup.nServers; ++nServer) {
        configureEngine(nServer);
        startEngine(nServer);
    }
    VornRelay::NatsAdministration::Limits limits;
    limits.nReplicas = m_setup.nServers;
    limits.bTopics = true;
    addHost("a", limits);
    limits.bTopics = false;
    limits.bFixedConsumer = m_setup.bFixedConsumer;
    limits.nAckWait = 1;
    addHost("b", limits);
}

std::string RelayStage::engineVersion() {
    const std::string sLine = runEngine({"--version"}).readLine(); // nats-server: v2.9.10
    return sLine.substr(sLine.rfind('v') + 1);
}

std::string RelayStage::faultOfClusters() {
    const std::string sVersion = engineVersion();
    if (::strverscmp(sVersion.c_str(), "2.12.7") >= 0)
        return "";
    return "nats-server " + sVersion + " may lose what a cluster has stored when its servers are killed";
}

void RelayStage::separateNetwork(const std::string& sHost, std::chrono::milliseconds delay) {
    ChildProcess& network =
        m_networks.insert_or_assign(sHost, ChildProcess::spawnRole("relay_network")).first->second;
    const std::string sProcess = network.readLine();
    const std::string sNetwork = sHost == "a" ? "10.77.1." : "10.77.2.";
    const std::string sCable = "to-" + sHost;
    std::ofstream(pathOf("network-" + sHost)) << sProcess << std::endl;
    // The cable of a stage before this one goes with its network, which the kernel takes down later.
    awaitCondition([&] { return ::if_nametoindex(sCable.c_str()) == 0; });
    connectNetwork(sHost, sProcess, delay);
    runOrThrow({"ip", "address", "add", sNetwork + "1/24", "dev", sCable});
    runOrThrow({"ip", "link", "set", sCable, "up"});
    for (const std::string& sWords :
         {std::string("link set lo up"), "address add " + sNetwork + "2/24 dev engine",
          std::string("link set engine up")}) {
        ChildProcess process =
            ChildProcess::spawnRole("relay_command", sHost, "/bin/sh", "-c", "ip " + sWords);
        if (process.wait() != 0)
            throw std::runtime_error("ip " + sWords);
    }
    std::ofstream(pathOf("hosts-" + sHost)) << "127.0.0.1 localhost\n" << sNetwork << "1 engine\n";
    std::ofstream(pathOf("hosts-of-sinks")) << cSinkAddress << " localhost\n";
}

ChildProcess RelayStage::runEngine(const std::vector<std::string>& arguments) {
    const char* szOther = std::getenv("VORNTEST_NATS_SERVER");
    std::vector<std::string> all{szOther != nullptr ? szOther : VORNTEST_NATS_SERVER};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return ChildProcess::spawn(all);
}

void RelayStage::startEngine(int nServer) {
    ChildProcess& server =
        m_engines.insert_or_assign(nServer, runEngine({"-c", serverFile(".conf", nServer)})).first->second;
    if (awaitCondition([nServer] { return answers(nServer); }, cReadyLimit))
        return;
    server.kill(SIGKILL);
    throw std::runtime_error("the engine does not start: " + server.readAllErrors());
}

void RelayStage::killEngine(int nServer) {
    m_engines.at(nServer).kill(SIGKILL);
    m_engines.at(nServer).wait();
}

void RelayStage::retireEngine(int nServer) {
    m_engines.at(nServer).kill(SIGUSR2);
    m_engines.at(nServer).wait();
}

void RelayStage::awaitEngines() const {
    const auto isCurrent = [this] {
        try {
            const VornRelay::NatsAdministration::Json cluster =
                administration().request("$JS.API.STREAM.INFO.VORN_TO_b")["cluster"];
            const auto& others = cluster["replicas"];
            return cluster.contains("leader") &&
                   std::all_of(others.begin(), others.end(), [](const auto& other) {
                       return other.value("current", false) && !other.value("offline", false);
                   });
        } catch (const VornRelay::AdministrationError&) {
            return false;
        }
    };
    if (!awaitCondition(isCurrent, std::chrono::seconds(60)))
        throw std::runtime_error("the servers do not have the same: " + state());
}

std::string RelayStage::state() const {
    std::string sText;
    for (const char* szWhat : {"STREAM.INFO.VORN_TO_b", "CONSUMER.INFO.VORN_TO_b.relay"}) {
        try {
            sText += administration().request(std::string("$JS.API.") + szWhat).dump(2) + "\n";
        } catch (const VornRelay::AdministrationError& error) {
            sText += std::string(szWhat) + ": " + error.what() + "\n";
        }
    }
    return sText;
}

int RelayStage::leader() const {
    std::string sLeader;
    const auto isLed = [&] {
        sLeader = administration().request("$JS.API.STREAM.INFO.VORN_TO_b")["cluster"].value("leader",
                                                                                             std::string());
        return !sLeader.empty();
    };
    if (!awaitCondition(isLed))
        throw std::runtime_error("nobody leads the stream of b");
    return std::stoi(sLeader);
}

void RelayStage::pauseEngine() {
    m_engines.at(0).kill(SIGSTOP);
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(m_engines.at(0).pid()), &info, WSTOPPED);
}

void RelayStage::cutNetwork(const std::string& sHost, std::chrono::milliseconds time) {
    runOrThrow({"ip", "link", "set", "to-" + sHost, "down"});
    // Nothing tells that a network has been away for long enough.
    runOrThrow({"sleep", std::to_string(static_cast<double>(time.count()) / 1000)});
    runOrThrow({"ip", "link", "set", "to-" + sHost, "up"});
}

void RelayStage::startRelay(const std::string& sHost, const std::string& sMore,
                            const std::vector<std::string>& environment) {
    configure(sHost, sMore);
    const std::string sConfiguration = pathOf("relay-" + sHost + ".conf");
    std::vector<std::string> all = environment;
    all.push_back("VORNTEST_LOG=" + pathOf("relay-" + sHost + ".log"));
    m_relays.insert_or_assign(
        sHost, ChildProcess::spawnRoleWith(all, "relay_command",
                                           {sHost, VORNTEST_RELAY, "--config", sConfiguration, "run"}));
    awaitReady(sHost);
}

void RelayStage::configure(const std::string& sUser, const std::string& sMore) const {
    const VornRelay::EngineAccess own = access(sUser);
    std::ofstream file(pathOf("relay-" + sUser + ".conf"));
    file << "host = " << sUser << "\nservers = ";
    for (const std::string& sServer : own.servers)
        file << (sServer == own.servers[0] ? "" : ", ") << sServer;
    file << "\nca = " << own.sCa << "\ncertificate = " << own.sCertificate << "\nkey = " << own.sKey
         << "\nsend-to = " << (sUser == "a" ? "b" : "a") << "\nstate-directory = " << pathOf("state-" + sUser)
         << "\nmetrics = " << pathOf("metrics-" + sUser) << "\n"
         << sMore;
}

void RelayStage::reloadRelay(const std::string& sHost, const std::string& sMore) {
    configure(sHost, sMore);
    m_relays.at(sHost).kill(SIGHUP);
}

void RelayStage::awaitReady(const std::string& sHost) {
    if (!awaitStatus(sHost, "ready      true", cReadyLimit))
        throw std::runtime_error("the relay of " + sHost + " is not ready: " + run(sHost, {"status"}).first);
}

int RelayStage::endRelay(const std::string& sHost, int nSignal) {
    ChildProcess relay = std::move(m_relays.at(sHost));
    m_relays.erase(sHost);
    relay.kill(nSignal);
    return relay.wait();
}

std::string RelayStage::logOf(const std::string& sHost) {
    return readTextFile(pathOf("relay-" + sHost + ".log"));
}

std::string RelayStage::metricsOf(const std::string& sHost) {
    const UniqueFd client = unixConnect(pathOf("metrics-" + sHost));
    sendAll(client.get(), "GET /metrics HTTP/1.0\r\n\r\n");
    return receiveToEnd(client.get());
}

std::pair<std::string, int> RelayStage::run(const std::string& sHost,
                                            const std::vector<std::string>& arguments) {
    return runWith(sHost, sHost, arguments);
}

bool RelayStage::awaitStatus(const std::string& sHost, const std::string& sText,
                             std::chrono::milliseconds limit) {
    return awaitCondition([&] { return run(sHost, {"status"}).first.find(sText) != std::string::npos; },
                          limit);
}

std::pair<std::string, int> RelayStage::runAsAdministrator(const std::string& sHost,
                                                           const std::vector<std::string>& arguments) {
    configure("admin", "");
    return runWith("admin", sHost, arguments);
}

ChildProcess RelayStage::startSink(const std::string& sHost, const std::string& sName,
                                   const std::string& sLog, const std::string& sKind) {
    return ChildProcess::spawnRole("relay_sink", sHost, sName, pathOf(sLog), sKind);
}

ChildProcess RelayStage::startService(const std::string& sHost, const std::string& sKind,
                                      const std::string& sLease, int nCount) {
    const std::size_t nBlank = sLease.find(' ');
    return ChildProcess::spawnRole("relay_service", sHost, sKind, sLease.substr(0, nBlank),
                                   sLease.substr(nBlank + 1), std::to_string(nCount));
}

History RelayStage::history(const std::string& sLog, int nCount) {
    History history;
    std::set<int> seen;
    int nHighest = 0;
    std::ifstream lines(pathOf(sLog));
    for (int n = 0; lines >> n; nHighest = std::max(nHighest, n)) {
        ++history.nSeen;
        if (!seen.insert(n).second)
            ++history.nDuplicated;
        else if (n < nHighest)
            ++history.nOutOfOrder;
    }
    for (int n = 1; n <= nCount; ++n)
        history.nLost += seen.contains(n) ? 0 : 1;
    return history;
}

bool RelayStage::awaitNumbers(const std::string& sLog, std::size_t nCount, std::chrono::seconds limit) {
    return awaitCondition(
        [&] {
            const History seen = history(sLog, 0);
            return seen.nSeen - seen.nDuplicated >= nCount;
        },
        limit);
}

void RelayStage::expectEachOnceInOrder(const std::string& sLog, std::size_t nCount,
                                       std::chrono::seconds limit) {
    EXPECT_TRUE(awaitNumbers(sLog, nCount, limit))
        << run("a", {"status"}).first << run("b", {"status"}).first << state();
    EXPECT_EQ(history(sLog, static_cast<int>(nCount)), (History{nCount, 0, 0, 0}));
}

VornRelay::EngineAccess RelayStage::access(const std::string& sUser) const {
    VornRelay::EngineAccess access;
    access.sHost = sUser;
    const bool bSeparate = m_networks.contains(sUser);
    for (int nServer = 0; nServer < m_setup.nServers; ++nServer)
        access.servers.push_back(std::string("tls://") + (bSeparate ? "engine:" : "localhost:") +
                                 std::to_string(cPort + nServer));
    access.sCa = pathOf("ca.pem");
    access.sCertificate = pathOf(sUser + ".pem");
    access.sKey = pathOf(sUser + ".key");
    return access;
}

VornRelay::NatsAdministration RelayStage::administration() const {
    return VornRelay::NatsAdministration(access("admin"));
}

std::string RelayStage::pathOf(const std::string& sName) {
    return "/opt/relay-stage/" + sName;
}

void RelayStage::enterHost(const std::string& sHost) {
    enterNetwork(sHost);
    const std::string sDirectory = RelayStage::pathOf("pipes-" + sHost);
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(sDirectory.c_str(), pipeDirectory(), nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot enter host " + sHost);
    useHosts(RelayStage::pathOf("hosts-" + sHost));
}

std::string RelayStage::leaseFor(const std::string& sName, const VornString& sAddress, long nHandle) {
    VornPipeConnection relay("relay");
    relay.establish();
    relay.transfer(VornString("lease"));
    relay.transfer(VornString(sName.c_str()));
    relay.transfer(sAddress);
    relay.transfer(nHandle);
    const VornString sLeased = relay.receiveString();
    return std::string(sLeased.c_str()) + " " + std::to_string(relay.receiveLong());
}

/** A new cluster has to find its leader first, and that one has to hear of the others. */
void RelayStage::addHost(const std::string& sHost,
                         const VornRelay::NatsAdministration::Limits& limits) const {
    std::string sWhy;
    const bool bIsAdded = awaitCondition(
        [&] {
            try {
                administration().addHost(sHost, limits);
                sWhy.clear();
                return true;
            } catch (const VornRelay::AdministrationError& error) {
                sWhy = error.what();
                return m_setup.nServers == 1;
            }
        },
        cReadyLimit);
    if (!bIsAdded || !sWhy.empty())
        throw std::runtime_error("host " + sHost + " cannot be added: " + sWhy);
}

void RelayStage::connectNetwork(const std::string& sHost, const std::string& sProcess,
                                std::chrono::milliseconds delay) {
    if (delay.count() == 0) {
        runOrThrow({"ip", "link", "add", "to-" + sHost, "type", "veth", "peer", "name", "engine", "netns",
                    sProcess});
        return;
    }
    ChildProcess cable = ChildProcess::spawnRole("relay_cable", sHost, std::to_string(delay.count()));
    cable.readLine();
    m_cables.insert_or_assign(sHost, std::move(cable));
}

void RelayStage::createCertificates() {
    const std::vector<std::string> common{
        "openssl", "req",   "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
        "-nodes",  "-days", "2"};
    const auto create = [&](const std::string& sName, const std::vector<std::string>& more) {
        std::vector<std::string> arguments = common;
        arguments.insert(arguments.end(), {"-subj", "/CN=" + sName, "-keyout", pathOf(sName + ".key"), "-out",
                                           pathOf(sName + ".pem")});
        arguments.insert(arguments.end(), more.begin(), more.end());
        runOrThrow(arguments);
    };
    create("ca", {});
    create("stranger", {});
    for (const char* szName : {"localhost", "a", "b", "c.example", "admin"})
        create(szName, {"-CA", pathOf("ca.pem"), "-CAkey", pathOf("ca.key"), "-addext",
                        std::string("subjectAltName=DNS:") + szName +
                            (std::string(szName) == "localhost" ? ",DNS:engine" : ""),
                        "-addext", "basicConstraints=CA:FALSE"});
}

void RelayStage::configureEngine(int nServer) const {
    const std::string sTls = "tls { cert_file: \"" + pathOf("localhost.pem") + "\", key_file: \"" +
                             pathOf("localhost.key") + "\", ca_file: \"" + pathOf("ca.pem") + "\", ";
    std::ofstream file(serverFile(".conf", nServer));
    file << "listen: 0.0.0.0:" << cPort + nServer << "\nserver_name: \"" << nServer << "\"\nlog_file: \""
         << serverFile(".log", nServer) << "\"\njetstream { store_dir: \"" << serverFile("", nServer)
         << "\" }\n"
         << sTls << "verify_and_map: true, timeout: 60 }\nauthorization { users: [\n{ user: \"admin\" }\n"
         << VornRelay::permissionsOf("a", {"b", "c"}, false, {true, {}, true, {}})
         << VornRelay::permissionsOf("b", {"*"}, m_setup.bFixedConsumer,
                                     {false, {"a"}, false, {"typed@a", "plain@a"}})
         << VornRelay::permissionsOf("c.example", {"a"}) << "] }\n"
         << m_setup.sMore;
    if (m_setup.nServers == 1)
        return;
    file << "lame_duck_grace_period: 1s\n"
         << "cluster { name: vorn, listen: 127.0.0.1:" << cRoutePort + nServer << ", " << sTls
         << "verify: true }, routes: [";
    for (int nOther = 0; nOther < m_setup.nServers; ++nOther)
        file << "\n\"nats-route://localhost:" << cRoutePort + nOther << "\"";
    file << " ] }\n";
}

std::pair<std::string, int> RelayStage::runWith(const std::string& sUser, const std::string& sHost,
                                                const std::vector<std::string>& arguments) {
    std::vector<std::string> all{sHost, VORNTEST_RELAY, "--config", pathOf("relay-" + sUser + ".conf")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ChildProcess process = ChildProcess::spawnRoleWith({}, "relay_command", all);
    const std::string sOutput = process.readAllOutput();
    return {sOutput, process.wait()};
}

} // namespace VornTest
