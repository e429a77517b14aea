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
#include <optional>

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

Operations objectRows() {
    static const Object object;
    return {
        {{"VornObjectBase::VornObjectBase", "VornObjectBase::operator=", "VornObjectBase::refCount",
          "VornObjectBase::addRef", "VornObjectBase::release", "VornObjectBase::~VornObjectBase"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             auto* counted = new Object;
             trial.attempt([&] {
                 Object copy(*counted);
                 copy = *counted;
                 counted->addRef();
                 if (counted->refCount() == 1)
                     counted->release();
             });
         }},
        {{"VornObjectBase::getClassName"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             VornString name;
             trial.attempt([&] { name = object.getClassName(); });
             trial.expect(trial.hasThrown() || name == cObjectName, "another name than the class's");
         }},
        {{"VornObjectBase::isA"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             bool is = false;
             const VornString name = cObjectName;
             trial.attempt([&] { is = object.isA(name); });
             trial.expect(trial.hasThrown() || is, "it denies its class");
         }},
        {{"VornObjectBase::normalizeClassName"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             const VornString compilers = typeid(Object).name();
             VornString name;
             trial.attempt([&] { name = VornObjectBase::normalizeClassName(compilers); });
             trial.expect(trial.hasThrown() || name == cObjectName, "another name than the class's");
         }},
    };
}

Operations pointerRows() {
    return {
        {{"VornSmartPointer::VornSmartPointer",
          "VornSmartPointer::operator=", "VornSmartPointer::operator==", "VornSmartPointer::operator<",
          "VornSmartPointer::operator->", "VornSmartPointer::operator*", "VornSmartPointer::getOwnership",
          "VornSmartPointer::operator T*", "VornSmartPointer::~VornSmartPointer"},
         "",
         allocatesNothing,
         [](Trial& trial) {
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
         }},
    };
}

class Dependent : public VornDependent {
public:
    void handleNotification(VornCollaborator&, const VornNotification&) override { ++told; }

    int told = 0;
};

Operations observerRows() {
    return {
        {{"VornNotification::VornNotification", "VornNotification::getId",
          "VornNotification::~VornNotification", "VornDependent::handleNotification",
          "VornDependent::~VornDependent"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             VornCollaborator subject;
             trial.attempt([&] {
                 VornDependent dependent;
                 const VornNotification notification(7);
                 if (notification.getId() == 7)
                     dependent.handleNotification(subject, notification);
             });
         }},
        {{"VornCollaborator::VornCollaborator", "VornCollaborator::~VornCollaborator"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornCollaborator subject; }); }},
        {{"VornCollaborator::addDependent"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             VornCollaborator subject;
             Dependent first;
             Dependent second;
             subject.addDependent(first);
             trial.attempt([&] { subject.addDependent(second); });
             subject.notify(VornNotification(1));
             trial.expect(first.told == 1, "a dependent is lost");
             trial.expect(second.told == (trial.hasThrown() ? 0 : 1), "half added");
         }},
        {{"VornCollaborator::removeDependent"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             VornCollaborator subject;
             Dependent dependent;
             subject.addDependent(dependent);
             trial.attempt([&] { subject.removeDependent(dependent); });
         }},
        {{"VornCollaborator::notify"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             VornCollaborator subject;
             Dependent dependent;
             subject.addDependent(dependent);
             const VornNotification notification(1);
             trial.attempt([&] { subject.notify(notification); });
             trial.expect(dependent.told == (trial.hasThrown() ? 0 : 1), "told although it failed");
         }},
    };
}

Operations lockRows() {
    return {
        {{"VornCriticalSectionObject::VornCriticalSectionObject",
          "VornCriticalSectionObject::~VornCriticalSectionObject"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornCriticalSectionObject lock; }); }},
        {{"VornCriticalSection::VornCriticalSection", "VornCriticalSection::~VornCriticalSection"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             VornCriticalSectionObject lock;
             trial.attempt([&] {
                 const VornCriticalSection outer(lock, true);
                 const VornCriticalSection inner(lock, true);
             });
         }},
        {{"VornEvent::VornEvent", "VornEvent::~VornEvent"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornEvent event; }); }},
        {{"VornEvent::set", "VornEvent::reset", "VornEvent::wait", "VornEvent::getHandle",
          "VornEvent::destroyNotification"},
         "",
         allocatesNothing,
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
         }},
        {{"VornEvent::createNotification"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             VornEvent event;
             trial.attempt([&] { event.destroyNotification(event.createNotification()); });
         }},
        {{"VornSleep"}, "", allocatesNothing, [](Trial& trial) { trial.attempt([] { VornSleep(1); }); }},
    };
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

Operations moduleRows() {
    return {
        {{"ModuleData::ModuleData", "ModuleData::attach", "ModuleData::detach", "ModuleData::~ModuleData"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             trial.attempt([] {
                 Module module;
                 module.attach();
                 module.detach();
             });
         }},
    };
}

Operations threadRows() {
    return {
        {{"VornThread::VornThread", "VornThread::~VornThread"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             trial.attempt([] { VornThread thread("a worker with a name of more than fifteen bytes"); });
         }},
        // The new thread's allocations fail as well; the system's refusal to make it is an exception.
        {{"VornThread::start", "VornThread::run"},
         "",
         throwsBadAlloc | throwsVornException | doesWithout,
         [](Trial& trial) {
             Worker worker;
             trial.attemptOnAllThreads([&] { worker.start(); });
             trial.expect(!trial.hasThrown() || worker.wait(0), "it passes for running");
             if (trial.hasThrown() && worker.wait(0)) {
                 worker.start();
                 worker.wait(-1);
                 trial.expect(worker.runs == 1, "it cannot be started again");
             }
         }},
        {{"VornThread::stop", "VornThread::wait", "VornThread::setPriority", "VornThread::setWorkInfo",
          "VornThread::isStopRequested", "VornThread::isOwnThread",
          "VornWorkInformation::VornWorkInformation", "VornWorkInformation::~VornWorkInformation"},
         "",
         allocatesNothing,
         [](Trial& trial) {
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
         }},
        {{"VornThread::notify"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             Worker worker;
             Dependent dependent;
             worker.addDependent(dependent);
             const VornNotification notification(1);
             trial.attempt([&] { worker.notify(notification); });
             trial.expect(dependent.told == (trial.hasThrown() ? 0 : 1), "told although it failed");
         }},
    };
}

} // namespace

Operations supportOperations() {
    Operations rows;
    for (const Operations& more :
         {objectRows(), pointerRows(), observerRows(), lockRows(), threadRows(), moduleRows()})
        rows.insert(rows.end(), more.begin(), more.end());
    return rows;
}

} // namespace VornTest
