// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for registries, callbacks, proxies, certificates and look-ups.

#include "Operations.h"
#include "Peers.h"

#include <VornBufferConnection.h>
#include <VornCallbackContainer.h>
#include <VornCertificate.h>
#include <VornNotificationCallback.h>
#include <VornProxyDependent.h>
#include <VornProxyDependentContainer.h>
#include <VornProxyDependentIdentifier.h>
#include <VornUtilities.h>

#include <vector>

using namespace VornNet;

namespace VornTest {

namespace {

const VornString cText(40, 'x');
const VornString cOther(50, 'y');

class Callback : public VornNotificationCallback {
public:
    using VornNotificationCallback::VornNotificationCallback;

protected:
    void doCallback(VornSmartPointer<VornConnection>&) override {}
};

VornSmartPointer<VornNotificationCallback> callback(int id) {
    return {new Callback(id)};
}

void addCallback(Operations& table) {
    table.add("VornNotificationCallback::VornNotificationCallback, ~VornNotificationCallback", throwsBadAlloc,
              [] { Callback made(7); });
    table.add("VornNotificationCallback::callback, getId", allocatesNothing, [](Trial& trial) {
        Callback called(7);
        VornSmartPointer<VornConnection> connection;
        trial.attempt([&] {
            if (called.getId() == 7)
                called.callback(connection);
        });
        trial.expect(called.wait(0), "its event is not set");
    });
    table.add("VornCallbackContainer::VornCallbackContainer, ~VornCallbackContainer", throwsBadAlloc,
              [] { VornCallbackContainer container; });
    table.add("VornCallbackContainer::add", throwsBadAlloc, [](Trial& trial) {
        VornCallbackContainer container;
        const auto first = callback(1);
        const auto second = callback(2);
        container.add(first);
        trial.attempt([&] { container.add(second); });
        trial.expect(container.lookup(1) == first, "a callback is lost");
        trial.expect((container.lookup(2) == second) != trial.hasThrown(), "half added");
        trial.expect(second->refCount() == (trial.hasThrown() ? 1 : 2), "a reference too many");
    });
    table.add("VornCallbackContainer::lookup, remove, getNewId, mutex", allocatesNothing, [](Trial& trial) {
        VornCallbackContainer container;
        container.add(callback(1));
        trial.attempt([&] {
            const VornCriticalSection lock(container.mutex(), true);
            if (container.lookup(1) != nullptr)
                container.remove(1);
            container.getNewId();
        });
    });
}

void addIdentifier(Operations& table) {
    table.add("VornProxyDependentIdentifier::VornProxyDependentIdentifier, ~VornProxyDependentIdentifier",
              throwsBadAlloc, [] {
                  const VornProxyDependentIdentifier empty;
                  const VornProxyDependentIdentifier made(cText, 7);
                  const VornProxyDependentIdentifier copy(made);
              });
    table.add("operator<, VornProxyDependentIdentifier::operator=", throwsBadAlloc, [](Trial& trial) {
        VornProxyDependentIdentifier changed(cText, 7);
        const VornProxyDependentIdentifier before(changed);
        const VornProxyDependentIdentifier source(cOther, 8);
        trial.attempt([&] { changed = source; });
        const bool isAsBefore = !(changed < before) && !(before < changed);
        trial.expect(isAsBefore == trial.hasThrown(), "half changed");
    });
}

VornSmartPointer<VornProxyDependent> proxy(const VornString& address, long id) {
    return {new VornProxyDependent(address, id)};
}

/** The registry with one entry, which it must still have afterwards. */
template <typename Use>
std::function<void(Trial&)> usingRegistry(int sizeAfter, Use use) {
    return [=](Trial& trial) {
        auto& container = VornProxyDependentContainer::getInstance();
        container.add(proxy(cText, 1));
        const auto added = proxy(cOther, 2);
        trial.attempt([&] { use(container, added); });
        const int expected = trial.hasThrown() ? 1 : sizeAfter;
        trial.expect(container.size() == expected, "another number of entries");
        trial.expect((container.lookup(cText, 1) != nullptr) == (expected > 0), "another entry");
        trial.expect((container.lookup(cOther, 2) != nullptr) == (expected > 1), "half added");
        VornProxyDependentContainer::deleteInstance();
        trial.expect(added->refCount() == 1, "a reference too many");
    };
}

void addRegistry(Operations& table) {
    using Container = VornProxyDependentContainer;
    using Proxy = VornSmartPointer<VornProxyDependent>;
    table.add("VornProxyDependentContainer::getInstance, deleteInstance, VornProxyDependentContainer, "
              "~VornProxyDependentContainer",
              throwsBadAlloc, [](Trial& trial) {
                  Container::deleteInstance();
                  trial.attempt([] { Container::getInstance(); });
                  trial.expect(Container::getInstance().size() == 0, "not empty");
                  Container::deleteInstance();
              });
    table.add("VornProxyDependentContainer::add", throwsBadAlloc,
              usingRegistry(2, [](Container& container, const Proxy& added) { container.add(added); }));
    table.add("VornProxyDependentContainer::lookup", throwsBadAlloc,
              usingRegistry(1, [](Container& container, const Proxy&) { container.lookup(cText, 1); }));
    table.add("VornProxyDependentContainer::remove (by name)", throwsBadAlloc,
              usingRegistry(0, [](Container& container, const Proxy&) { container.remove(cText, 1); }));
    table.add("VornProxyDependentContainer::remove (by place)", allocatesNothing,
              usingRegistry(0, [](Container& container, const Proxy&) { container.remove(0); }));
    table.add("VornProxyDependentContainer::size, operator[], getlock", allocatesNothing,
              usingRegistry(1, [](Container& container, const Proxy&) {
                  const VornCriticalSection lock(container.getlock(), true);
                  const Proxy found = container[container.size() - 1];
              }));
}

/** Notifies a plain receiver of its kind. */
void addNotifying(Operations& table, const std::string& kind, unsigned allowed) {
    table.add("VornProxyDependent::remoteNotify", kind, allowed, [kind](Trial& trial) {
        int port = 0;
        const UniqueFd receiver = kind == "pipe"  ? listenAtPipe()
                                  : kind == "udp" ? udpSocket("127.0.0.1", port)
                                                  : tcpListen("127.0.0.1", port);
        const VornString place = kind == "pipe" ? "faults" : "127.0.0.1:" + std::to_string(port);
        VornProxyDependent proxy(kind + ":" + place, 3);
        const VornNotification notification(5);
        if (kind == "udp")
            trial.allowOpenDescriptor();
        trial.attempt([&] { proxy.remoteNotify(notification); });
        if (kind != "ssl")
            proxy.remoteNotify(notification);
    });
}

void addProxy(Operations& table) {
    const unsigned ofStream = throwsBadAlloc | throwsVornException | endsProcess;
    table.add(
        "VornProxyDependent::VornProxyDependent, ~VornProxyDependent, getRemoteName, getDependentHandle",
        throwsBadAlloc, [] {
            const VornProxyDependent proxy(cText, 7);
            proxy.getRemoteName();
            proxy.getDependentHandle();
        });
    table.add("VornProxyDependent::addContent (into a buffer)", doesWithout, [](Trial& trial) {
        VornProxyDependent proxy(cText, 7);
        VornBufferConnection buffer;
        trial.attempt([&] { proxy.addContent(buffer, VornNotification(5)); });
    });
    addNotifying(table, "pipe", ofStream);
    addNotifying(table, "socket", ofStream);
    addNotifying(table, "udp", throwsBadAlloc | doesWithout);
    addNotifying(table, "ssl", ofStream);
    table.add("VornProxyDependent::remoteNotify (to a name that no kind has)", throwsBadAlloc,
              [](Trial& trial) {
                  VornProxyDependent proxy(cText, 7);
                  trial.attempt([&] { proxy.remoteNotify(VornNotification(5)); });
              });
}

void addCertificate(Operations& table) {
    const auto isSame = [](VornCertificate& one, const VornString& file) {
        return one.getFile() == file && one.getKeyFile() == file + "key";
    };
    table.add("VornCertificate::VornCertificate, ~VornCertificate, getFile, getKeyFile, getType, getKeyType, "
              "toType",
              throwsBadAlloc, [](Trial& trial) {
                  const VornString type = "PEM";
                  trial.attempt([&] {
                      VornCertificate made(cText, type, cText, type);
                      VornCertificate copy(made);
                      copy.getFile();
                      copy.getKeyFile();
                      if (copy.getType() == copy.getKeyType())
                          VornCertificate::toType(type);
                  });
              });
    table.add("VornCertificate::operator=", throwsBadAlloc, [=](Trial& trial) {
        VornCertificate changed(cText, "PEM", cText + "key", "PEM");
        const VornCertificate source(cOther, "PEM", cOther + "key", "PEM");
        trial.attempt([&] { changed = source; });
        trial.expect(isSame(changed, trial.hasThrown() ? cText : cOther), "half changed");
    });
}

/** What the names are, hostsFile() tells. */
void addLookUp(Operations& table) {
    // What the system's resolver lacks memory for counts as not found.
    const unsigned ofLookUp = throwsBadAlloc | doesWithout;
    table.add("VornAddressToNameImpl", ofLookUp, [](Trial& trial) {
        const VornString address = "10.1.1.4";
        VornString name = "old";
        VornString message;
        trial.attempt([&] { VornAddressToNameImpl(address, name, message); });
        trial.expect(name == "old" || name == "a-name-with-more-than-fifteen-letters", "another name");
        trial.expect(!trial.hasThrown() || name == "old", "it failed and answered all the same");
    });
    table.add("VornNameToAddressImpl", ofLookUp, [](Trial& trial) {
        const VornString name = "many";
        std::vector<VornString> addresses = {"old"};
        VornString message;
        trial.attempt([&] { VornNameToAddressImpl(name, addresses, message); });
        trial.expect(addresses.size() == 1 || addresses.size() == 4, "some of the addresses only");
        trial.expect(!trial.hasThrown() || addresses.size() == 1, "it failed and answered all the same");
    });
}

} // namespace

const char* hostsFile() {
    return "127.0.0.1 localhost\n10.1.1.1 many\n10.1.1.2 many\n10.1.1.3 many\n"
           "10.1.1.4 a-name-with-more-than-fifteen-letters\n";
}

void addNotifications(Operations& table) {
    addCallback(table);
    addIdentifier(table);
    addRegistry(table);
    addProxy(table);
    addCertificate(table);
    addLookUp(table);
}

} // namespace VornTest
