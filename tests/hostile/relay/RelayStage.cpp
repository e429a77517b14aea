// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "RelayStage.h"

#include "Await.h"
#include "Posix.h"
#include "Sandbox.h"

#include <NatsAdministration.h>
#include <VornDispatcher.h>
#include <VornException.h>
#include <VornLibraryCallbackSink.h>
#include <VornNotificationCallback.h>
#include <VornPipeConnection.h>
#include <VornProxyDependent.h>
#include <VornSteadySink.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VornNet;
using namespace VornSupport;

namespace VornTest {

namespace {

const char cServer[] = "tls://localhost:4222";

void enterHost(const std::string& sHost) {
    const std::string sDirectory = RelayStage::pathOf("pipes-" + sHost);
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(sDirectory.c_str(), pipeDirectory(), nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot enter host " + sHost);
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

std::string leaseFor(const std::string& sName, const VornString& sAddress, long nHandle) {
    VornPipeConnection relay("relay");
    relay.establish();
    relay.transfer(VornString("lease"));
    relay.transfer(VornString(sName.c_str()));
    relay.transfer(sAddress);
    relay.transfer(nHandle);
    const VornString sLeased = relay.receiveString();
    return std::string(sLeased.c_str()) + " " + std::to_string(relay.receiveLong());
}

template <typename Sink>
int runSink(Sink& sink, const std::string& sName, const std::string& sLog) {
    VornCallbackContainer& callbacks = sink.getCallbackContainer();
    const VornSmartPointer<LoggingCallback> spCallback = new LoggingCallback(callbacks.getNewId(), sLog);
    callbacks.add(&*spCallback);
    std::cout << leaseFor(sName, sink.getCallbackAddress(), spCallback->getId()) << std::endl;
    std::string sEnd;
    std::getline(std::cin, sEnd);
    return 0;
}

/** Sends again until a sink, or the relay in its place, has confirmed. */
int sendConfirmed(VornProxyDependent& proxy, int nCount) {
    int nUnread = 0;
    std::mutex mutex;
    bool bDelivered = false;
    VornDispatcher::Options options;
    options.terms.timeLimit = std::chrono::seconds(60);
    options.onResult = [&](const VornDispatcher::Result& result) {
        const std::lock_guard lock(mutex);
        bDelivered = result.outcome == VornDispatcher::Outcome::delivered;
        nUnread += result.outcome == VornDispatcher::Outcome::unread ? 1 : 0;
    };
    VornDispatcher dispatcher(options);
    for (int n = 1; n <= nCount; ++n) {
        do {
            dispatcher.post(proxy, VornNotification(n));
            dispatcher.flush(std::chrono::seconds(60));
        } while (!bDelivered);
    }
    return nUnread;
}

void sendPlain(VornProxyDependent& proxy, int nCount) {
    for (int n = 1; n <= nCount; ++n)
        proxy.remoteNotify(VornNotification(n));
}

void runOrThrow(const std::vector<std::string>& arguments) {
    ChildProcess process = ChildProcess::spawn(arguments);
    const std::string sErrors = process.readAllErrors();
    if (process.wait() != 0)
        throw std::runtime_error(arguments[0] + ": " + sErrors);
}

} // namespace

KIT_ROLE(relay_command) {
    enterHost(args.at(0));
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
    enterHost(args.at(0));
    if (args.at(3) == "steady") {
        VornSteadySink sink("sink");
        return runSink(sink, args.at(1), args.at(2));
    }
    VornLibraryCallbackSink sink("sink");
    return runSink(sink, args.at(1), args.at(2));
}

KIT_ROLE(relay_service) {
    enterHost(args.at(0));
    const VornSmartPointer<VornProxyDependent> spProxy =
        new VornProxyDependent(args.at(2).c_str(), std::stol(args.at(3)));
    const int nCount = std::stoi(args.at(4));
    int nUnread = 0;
    if (args.at(1) == "confirmed")
        nUnread = sendConfirmed(*spProxy, nCount);
    else
        sendPlain(*spProxy, nCount);
    std::cout << nUnread << std::endl;
    return 0;
}

void PrintTo(const History& history, std::ostream* out) {
    *out << history.nSeen << " seen, " << history.nLost << " lost, " << history.nDuplicated << " duplicated, "
         << history.nOutOfOrder << " out of order";
}

RelayStage::RelayStage() {
    needSandbox("a network and pipe directories of its own");
    std::filesystem::remove_all(pathOf(""));
    for (const char* szDirectory : {"pipes-a", "pipes-b", "state-a", "state-b", "engine"})
        std::filesystem::create_directories(pathOf(szDirectory));
    createCertificates();
    configureEngine();
    startEngine();
    VornRelay::NatsAdministration engine = administration();
    for (const char* szHost : {"a", "b"})
        engine.addHost(szHost, {});
}

void RelayStage::startEngine() {
    m_engine = ChildProcess::spawn({VORNTEST_NATS_SERVER, "-c", pathOf("engine.conf")});
    const bool bAnswers = awaitCondition([] {
        try {
            tcpConnect("127.0.0.1", 4222);
            return true;
        } catch (const std::system_error&) {
            return false;
        }
    });
    if (!bAnswers)
        throw std::runtime_error("the engine does not start: " + readTextFile(pathOf("engine.log")));
}

void RelayStage::killEngine() {
    m_engine->kill(SIGKILL);
    m_engine->wait();
}

void RelayStage::pauseEngine() {
    m_engine->kill(SIGSTOP);
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(m_engine->pid()), &info, WSTOPPED);
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

void RelayStage::reloadRelay(const std::string& sHost, const std::string& sMore) {
    configure(sHost, sMore);
    m_relays.at(sHost).kill(SIGHUP);
}

void RelayStage::awaitReady(const std::string& sHost) {
    if (!awaitCondition(
            [&] { return run(sHost, {"status"}).first.find("ready      true") != std::string::npos; }))
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

std::pair<std::string, int> RelayStage::run(const std::string& sHost,
                                            const std::vector<std::string>& arguments) {
    return runWith(sHost, sHost, arguments);
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

VornRelay::EngineAccess RelayStage::access(const std::string& sUser) const {
    VornRelay::EngineAccess access;
    access.sHost = sUser;
    access.servers = {cServer};
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
    for (const char* szName : {"localhost", "a", "b", "admin"})
        create(szName, {"-CA", pathOf("ca.pem"), "-CAkey", pathOf("ca.key"), "-addext",
                        std::string("subjectAltName=DNS:") + szName, "-addext", "basicConstraints=CA:FALSE"});
}

void RelayStage::configureEngine() {
    std::ofstream file(pathOf("engine.conf"));
    file << "listen: 127.0.0.1:4222\nlog_file: \"" << pathOf("engine.log") << "\"\njetstream { store_dir: \""
         << pathOf("engine") << "\" }\ntls { cert_file: \"" << pathOf("localhost.pem") << "\", key_file: \""
         << pathOf("localhost.key") << "\", ca_file: \"" << pathOf("ca.pem")
         << "\", verify_and_map: true }\nauthorization { users: [\n{ user: \"admin\" }\n"
         << VornRelay::permissionsOf("a", {"b", "c"}) << VornRelay::permissionsOf("b", {"a"}) << "] }\n";
}

void RelayStage::configure(const std::string& sUser, const std::string& sMore) const {
    const VornRelay::EngineAccess own = access(sUser);
    std::ofstream file(pathOf("relay-" + sUser + ".conf"));
    file << "host = " << sUser << "\nservers = " << cServer << "\nca = " << own.sCa
         << "\ncertificate = " << own.sCertificate << "\nkey = " << own.sKey
         << "\nsend-to = " << (sUser == "a" ? "b" : "a") << "\nstate-directory = " << pathOf("state-" + sUser)
         << "\nmetrics = " << pathOf("metrics-" + sUser) << "\n"
         << sMore;
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
