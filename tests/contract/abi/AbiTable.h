// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNTEST_ABITABLE_H
#define VORNTEST_ABITABLE_H

#include <ModuleData.h>
#include <VornBufferConnection.h>
#include <VornCallbackContainer.h>
#include <VornCertificate.h>
#include <VornCollaborator.h>
#include <VornConnection.h>
#include <VornCriticalSection.h>
#include <VornDependent.h>
#include <VornDispatcher.h>
#include <VornEvent.h>
#include <VornException.h>
#include <VornExchange.h>
#include <VornIPCServer.h>
#include <VornLibraryCallbackSink.h>
#include <VornLogging.h>
#include <VornMetrics.h>
#include <VornNotification.h>
#include <VornNotificationCallback.h>
#include <VornObjectBase.h>
#include <VornPipeConnection.h>
#include <VornPipeServer.h>
#include <VornPosition.h>
#include <VornProxyDependent.h>
#include <VornProxyDependentContainer.h>
#include <VornProxyDependentIdentifier.h>
#include <VornPublisher.h>
#include <VornSSLServerSocket.h>
#include <VornSSLSocketConnection.h>
#include <VornServerSocket.h>
#include <VornSleep.h>
#include <VornSmartPointer.h>
#include <VornSocketConnection.h>
#include <VornSteadySink.h>
#include <VornString.h>
#include <VornSubscriber.h>
#include <VornThread.h>
#include <VornUDPServerSocket.h>
#include <VornUDPSocketConnection.h>
#include <VornUnableToResolveAddressException.h>
#include <VornUnableToResolveNameException.h>
#include <VornUtilities.h>
#include <VornWorkInformation.h>

#include <cstddef>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

/**
 * @file
 * What the tables of this directory are read with.
 *
 * A row of a table names a member of a class with its full type. A row whose type is not the member's, or
 * whose member does not exist, does not compile; what the row says besides (offset, slot) is compared when
 * the test runs.
 */
namespace VornAbi {

using namespace VornNet;

/** Makes the record of the pipe server, a protected type, accessible under a name without colons. */
class PipeServerProbe : public VornPipeServer {
public:
    using VornPipeServer::_pipe;
};

using PipeRecord = PipeServerProbe::_pipe;
using TwoInts = int[2];
using DispatcherResult = VornDispatcher::Result;
using DispatcherTerms = VornDispatcher::Terms;
using DispatcherOptions = VornDispatcher::Options;
using DispatcherStatistics = VornDispatcher::Statistics;
using SteadySinkOptions = VornSteadySink::Options;
using SteadySinkStatistics = VornSteadySink::Statistics;
using PublisherSubscriber = VornPublisher::Subscriber;
using PublisherOptions = VornPublisher::Options;
using PublisherStatistics = VornPublisher::Statistics;
using SubscriberEvent = VornSubscriber::Event;
using SubscriberGap = VornSubscriber::Gap;
using SubscriberStatus = VornSubscriber::Status;
using SubscriberOptions = VornSubscriber::Options;
using SubscriberStatistics = VornSubscriber::Statistics;

/**
 * Gives out a pointer to a member that is not public: the arguments of an explicit instantiation are exempt
 * from the rules of access.
 */
template <typename Row, typename Row::type member>
struct Reveal {
    friend typename Row::type revealed(Row) { return member; }
};

#define ABI_JOIN2(a, b) a##b
#define ABI_JOIN(a, b) ABI_JOIN2(a, b)
/** A name of its own for each row of a table. */
#define ABI_ROW(prefix) ABI_JOIN(prefix, __LINE__)
/** Declares revealed(ABI_ROW(prefix)), which returns the pointer @p member, whose type is @p pointerType. */
#define ABI_REVEAL(prefix, pointerType, member)                                                              \
    struct ABI_ROW(prefix) {                                                                                 \
        using type = pointerType;                                                                            \
        friend type revealed(ABI_ROW(prefix));                                                               \
    };                                                                                                       \
    template struct Reveal<ABI_ROW(prefix), member>;

/** A base of a class. */
struct Base {
    std::string name;
    std::ptrdiff_t offset;
};

/** A class as Classes.inc describes it, together with what the compiler says of it. */
struct ClassRow {
    std::string name;
    std::size_t size;         // as in the table
    std::size_t compiledSize; // as compiled
    std::size_t alignment;
    std::string mangledName; // empty for a class without virtual operations
    std::vector<Base> bases; // as in the table
};

/** Lets GoogleTest print a row by its name. */
void PrintTo(const ClassRow& row, std::ostream* stream);

/** The classes in the order of the table. */
const std::vector<ClassRow>& classTable();

/** Those of them that have virtual operations. */
std::vector<ClassRow> classesWithVirtualOperations();

/** The class of that name; ends the test program when the tables know none. */
const ClassRow& classRow(const std::string& name);

/** A readable and short form of a mangled name: no namespaces, VornString and VornUString by their names. */
std::string readable(const char* mangledName);

/**
 * The names, not readable ones, of what the libraries export at @p address. There may be several:
 * constructors and destructors have two, and a compiler may make one function of two that do the same.
 */
std::vector<std::string> exportedNames(const void* address);

/** The readable names of everything that both libraries export. */
std::set<std::string> allExportedNames();

/** The address of an exported symbol of either library; null when there is none. */
const void* exportedAddress(const std::string& mangledName);

} // namespace VornAbi

#endif
