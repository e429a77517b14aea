// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for the rest of the support library: shared objects, observers, locks, events, threads.

#include "Operations.h"

#include <ModuleData.h>
#include <VornCollaborator.h>
#include <VornCriticalSection.h>
#include <VornDependent.h>
#include <VornEvent.h>
#include <VornNotification.h>
#include <VornObjectBase.h>
#include <VornSleep.h>
#include <VornSmartPointer.h>
#include <VornThread.h>
#include <VornWorkInformation.h>

#include <atomic>

using namespace VornSupport;

namespace VornTest {

/** An object whose class has a name that is too long for a place within the string itself. */
class ObjectOfAClassWithALongName : public VornObjectBase {
public:
    using VornObjectBase::VornObjectBase;
};

namespace {

using Object = ObjectOfAClassWithALongName;
constexpr const char* cObjectName = "VornTest::ObjectOfAClassWithALongName";

void addObject(Operations& table) {
    static const Object object;
    table.add("VornObjectBase::VornObjectBase, operator=, refCount, addRef, release, ~VornObjectBase",
              allocatesNothing, [](Trial& trial) {
                  auto* counted = new Object;
                  trial.attempt([&] {
                      Object copy(*counted);
                      copy = *counted;
                      counted->addRef();
                      if (counted->refCount() == 1)
                          counted->release();
                  });
              });
    table.add("VornObjectBase::getClassName", throwsBadAlloc, [](Trial& trial) {
        VornString name;
        trial.attempt([&] { name = object.getClassName(); });
        trial.expect(trial.hasThrown() || name == cObjectName, "another name than the class's");
    });
    table.add("VornObjectBase::isA", throwsBadAlloc, [](Trial& trial) {
        bool is = false;
        const VornString name = cObjectName;
        trial.attempt([&] { is = object.isA(name); });
        trial.expect(trial.hasThrown() || is, "it denies its class");
    });
    table.add("VornObjectBase::normalizeClassName", throwsBadAlloc, [](Trial& trial) {
        const VornString compilers = typeid(Object).name();
        VornString name;
        trial.attempt([&] { name = VornObjectBase::normalizeClassName(compilers); });
        trial.expect(trial.hasThrown() || name == cObjectName, "another name than the class's");
    });
}

void addPointer(Operations& table) {
    table.add("VornSmartPointer::VornSmartPointer, operator=, operator==, operator<, operator->, operator*, "
              "getOwnership, operator T*, ~VornSmartPointer",
              allocatesNothing, [](Trial& trial) {
                  auto* first = new Object;
                  auto* second = new Object;
                  trial.attempt([&] {
                      VornSmartPointer<Object> pointer(first);
                      VornSmartPointer<Object> copy(pointer);
                      VornSmartPointer<Object> other;
                      other = second;
                      copy = other;
                      if (copy == other && !(copy < other) && copy->refCount() == (*other).refCount())
                          copy.getOwnership()->release();
                      other = static_cast<Object*>(nullptr);
                  });
              });
}

class Dependent : public VornDependent {
public:
    void handleNotification(VornCollaborator&, const VornNotification&) override { ++told; }

    int told = 0;
};

template <typename Subject>
void notifyADependent(Trial& trial) {
    Subject subject;
    Dependent dependent;
    subject.addDependent(dependent);
    const VornNotification notification(1);
    trial.attempt([&] { subject.notify(notification); });
    trial.expect(dependent.told == (trial.hasThrown() ? 0 : 1), "told although it failed");
}

void addObserver(Operations& table) {
    table.add("VornNotification::VornNotification, getId, ~VornNotification, "
              "VornDependent::handleNotification, ~VornDependent",
              allocatesNothing, [](Trial& trial) {
                  VornCollaborator subject;
                  trial.attempt([&] {
                      VornDependent dependent;
                      const VornNotification notification(7);
                      if (notification.getId() == 7)
                          dependent.handleNotification(subject, notification);
                  });
              });
    table.add("VornCollaborator::VornCollaborator, ~VornCollaborator", throwsBadAlloc,
              [] { VornCollaborator subject; });
    table.add("VornCollaborator::addDependent", throwsBadAlloc, [](Trial& trial) {
        VornCollaborator subject;
        Dependent first;
        Dependent second;
        subject.addDependent(first);
        trial.attempt([&] { subject.addDependent(second); });
        subject.notify(VornNotification(1));
        trial.expect(first.told == 1, "a dependent is lost");
        trial.expect(second.told == (trial.hasThrown() ? 0 : 1), "half added");
    });
    table.add("VornCollaborator::removeDependent", allocatesNothing, [](Trial& trial) {
        VornCollaborator subject;
        Dependent dependent;
        subject.addDependent(dependent);
        trial.attempt([&] { subject.removeDependent(dependent); });
    });
    table.add("VornCollaborator::notify", throwsBadAlloc, notifyADependent<VornCollaborator>);
}

void addLock(Operations& table) {
    table.add("VornCriticalSectionObject::VornCriticalSectionObject, ~VornCriticalSectionObject",
              throwsBadAlloc, [] { VornCriticalSectionObject lock; });
    table.add("VornCriticalSection::VornCriticalSection, ~VornCriticalSection", allocatesNothing,
              [](Trial& trial) {
                  VornCriticalSectionObject lock;
                  trial.attempt([&] {
                      const VornCriticalSection outer(lock, true);
                      const VornCriticalSection inner(lock, true);
                  });
              });
    table.add("VornEvent::VornEvent, ~VornEvent", throwsBadAlloc, [] { VornEvent event; });
    table.add("VornEvent::set, reset, wait, getHandle, destroyNotification", allocatesNothing,
              [](Trial& trial) {
                  VornEvent event;
                  VornNotification* notification = event.createNotification();
                  trial.attempt([&] {
                      event.getHandle();
                      event.set();
                      if (event.wait(0))
                          event.reset();
                      event.destroyNotification(notification);
                  });
              });
    table.add("VornEvent::createNotification", throwsBadAlloc, [](Trial& trial) {
        VornEvent event;
        trial.attempt([&] { event.destroyNotification(event.createNotification()); });
    });
    table.add("VornSleep", allocatesNothing, [] { VornSleep(1); });
}

class Worker : public VornThread {
public:
    Worker() : VornThread("a worker with a name of more than fifteen bytes") {}

    ~Worker() override { wait(-1); }

    using VornThread::isOwnThread;
    using VornThread::isStopRequested;

    int run() override {
        ++runs;
        return VornThread::run();
    }

    int run(VornWorkInformation&) override {
        ++runsWithWork;
        return 0;
    }

    std::atomic<int> runs = 0;
    std::atomic<int> runsWithWork = 0;
};

class Module : public ModuleData {
public:
    Module() : ModuleData(true) {}
};

void addModule(Operations& table) {
    table.add("ModuleData::ModuleData, attach, detach, ~ModuleData", allocatesNothing, [] {
        Module module;
        module.attach();
        module.detach();
    });
}

void addThread(Operations& table) {
    table.add("VornThread::VornThread, ~VornThread", throwsBadAlloc,
              [] { VornThread thread("a worker with a name of more than fifteen bytes"); });
    // The new thread's allocations fail as well; the system's refusal to make it is an exception.
    table.add("VornThread::start, run", throwsBadAlloc | throwsVornException | doesWithout, [](Trial& trial) {
        Worker worker;
        trial.attemptOnAllThreads([&] { worker.start(); });
        trial.expect(!trial.hasThrown() || worker.wait(0), "it passes for running");
        if (trial.hasThrown() && worker.wait(0)) {
            worker.start();
            worker.wait(-1);
            trial.expect(worker.runs == 1, "it cannot be started again");
        }
    });
    table.add("VornThread::stop, wait, setPriority, setWorkInfo, isStopRequested, isOwnThread, "
              "VornWorkInformation::VornWorkInformation, ~VornWorkInformation",
              allocatesNothing, [](Trial& trial) {
                  Worker worker;
                  const VornSmartPointer<VornWorkInformation> work(new VornWorkInformation);
                  trial.attempt([&] {
                      const VornWorkInformation local;
                      worker.setWorkInfo(work);
                      worker.setPriority(VornThread::cPriorityHigh);
                      worker.stop();
                      if (worker.isStopRequested() && !worker.isOwnThread())
                          worker.wait(0);
                  });
              });
    table.add("VornThread::notify", throwsBadAlloc, notifyADependent<Worker>);
}

} // namespace

void addSupport(Operations& table) {
    addObject(table);
    addPointer(table);
    addObserver(table);
    addLock(table);
    addThread(table);
    addModule(table);
}

} // namespace VornTest
