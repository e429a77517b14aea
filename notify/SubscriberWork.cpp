// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "SubscriberWork.h"

#include "EventReader.h"
#include "HandlerCall.h"
#include "Random.h"
#include "Wire.h"

#include <Cancellation.h>
#include <Probe.h>
#include <VornException.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

namespace VornNet {

namespace {

using std::chrono::milliseconds;
using State = VornSubscriber::State;
using Statistics = VornSubscriber::Statistics;

constexpr const char* cPositionFailed = "VornSubscriber::VornSubscriber: failed to open position.";

constexpr const char* cEventThrown = "VornSubscriber::onEvent: the handler threw: ";
constexpr const char* cGapThrown = "VornSubscriber::onGap: the handler threw: ";
constexpr const char* cStateThrown = "VornSubscriber::onState: the handler threw: ";

constexpr const char* cCannotConnect = "cannot connect";
constexpr const char* cOtherUser = "the service runs as another user";
constexpr const char* cNoAnswer = "no answer in time";
constexpr const char* cClosed = "closed";
constexpr const char* cSilent = "silent";
constexpr const char* cNotUnderstood = "not understood";
constexpr const char* cTooLong = "event too long";
constexpr const char* cMoved = "moved";
constexpr const char* cUnknownTopic = "the service does not know this topic";
constexpr const char* cServiceStops = "the service stops";

/** @throws VornException */
std::optional<PositionFile> openedFile(const VornString& sPath) {
    try {
        return sPath.empty() ? std::nullopt : std::make_optional<PositionFile>(sPath);
    } catch (const std::system_error& e) {
        throw VornException(cPositionFailed, e.code().value());
    }
}

} // namespace

/** Lets others drive when a step is over, and also when the thread is ended within a handler. */
class SubscriberWork::Driving {
public:
    explicit Driving(SubscriberWork& work) : m_work(work) {}

    ~Driving() { m_work.endDriving(m_isOver); }

    Driving(const Driving&) = delete;
    Driving& operator=(const Driving&) = delete;

    /** The step has come to its end. */
    void finish() { m_isOver = true; }

private:
    SubscriberWork& m_work;
    bool m_isOver = false;
};

SubscriberWork::SubscriberWork(const CallbackEndpoint& service, const VornString& sTopic,
                               const VornSubscriber::EventHandler& onEvent, const Options& options)
    : m_sTopic(sTopic), m_onEvent(onEvent), m_options(options), m_file(openedFile(options.sPositionFile)),
      m_nextPause(options.firstPause), m_resume(options.position), m_service(service) {
    m_random.seed(static_cast<std::minstd_rand::result_type>(randomNumber()));
    if (m_file && m_file->position().nHistory != 0)
        m_resume = m_file->position();
    if (m_resume.nHistory == 0)
        m_resume = {};
    m_record.begin(m_resume);
    m_event.sTopic = m_sTopic;
}

void SubscriberWork::start() {
    m_poll.wakeUp();
    if (m_options.bOwnThread)
        m_thread.start(m_options.sName, [spSelf = shared_from_this()] { spSelf->run(); });
}

std::size_t SubscriberWork::dispatch() {
    return m_options.bOwnThread ? 0 : drive(false);
}

void SubscriberWork::setAddress(const CallbackEndpoint& service) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_service = service;
        m_isMoved = true;
    }
    m_poll.wakeUp();
}

bool SubscriberWork::stop() {
    const CancellationOff off; // who joins the thread has to end it: others wait for that
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_isStopped.exchange(true)) {
            m_record.enter(State::stopped, "", 0);
            m_poll.wakeUp();
        }
        if (m_isDriving && m_driver == std::this_thread::get_id())
            return true; // by a handler: the rest is done when it has returned
        m_changed.wait(lock, [this] {
            return !m_isDriving && !m_isJoining; // GCOVR_EXCL_BR_LINE: a thread is joined in no time
        });
        cleanUp();
        if (!m_options.bOwnThread || m_isJoined)
            return false;
        m_isJoining = true;
    }
    m_thread.join();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isJoining = false;
    m_isJoined = true;
    m_changed.notify_all();
    return false;
}

void SubscriberWork::abandon() {
    if (m_home.isForked()) {
        m_spSelf = shared_from_this();
        return;
    }
    if (stop() && m_options.bOwnThread)
        m_thread.detach();
}

void SubscriberWork::run() {
    while (!m_isStopped)
        drive(true);
}

/** Waits if it may, does what there is to do, and returns. @return how many events were called for */
std::size_t SubscriberWork::drive(bool isWaiting) {
    if (!beginDriving())
        return 0;
    Driving driving(*this);
    m_nCalled = 0;
    const std::uint32_t events = m_poll.wait(isWaiting);
    m_poll.answerWakeUp();
    try {
        advance(events);
    } catch (const std::bad_alloc&) {
        lose(cClosed, ENOMEM);
    }
    if (!m_isStopped)
        m_poll.wakeAt(m_isMoved ? Clock::now() : m_due);
    driving.finish();
    return m_nCalled;
}

bool SubscriberWork::beginDriving() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isDriving || m_isStopped)
        return false;
    m_isDriving = true;
    m_driver = std::this_thread::get_id();
    return true;
}

/** @param isOver whether the step was gone through; what it has left is for the next one to drive. */
void SubscriberWork::endDriving(bool isOver) {
    const CancellationOff off;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isDriving = false;
    m_driver = {};
    if (m_isStopped)
        cleanUp();
    else if (!isOver)
        m_poll.wakeUp();
    m_changed.notify_all();
}

/** Closes what is open; nobody drives any more. */
void SubscriberWork::cleanUp() {
    m_connection.close();
    m_file.reset();
    m_poll.end(!m_options.bOwnThread);
}

void SubscriberWork::advance(std::uint32_t events) {
    if (m_isStopped)
        return;
    if (m_isMoved)
        takeMove();
    else if (m_phase == Phase::connecting && events != 0)
        finishConnecting();
    else if (m_phase != Phase::pause && (events & ~std::uint32_t{EPOLLOUT}) != 0)
        receive();
    else if (m_phase != Phase::pause && events != 0)
        m_connection.send();
    else
        deal();    // what a thread has left that was ended within a handler
    if (m_isMoved) // a handler has said so
        takeMove();
    if (m_isStopped)
        return;
    checkTime();
}

void SubscriberWork::checkTime() {
    if (Clock::now() < m_due)
        return;
    switch (m_phase) { // GCOVR_EXCL_BR_LINE: there is no way past all phases
    case Phase::pause:
        connect();
        break;
    case Phase::connecting:
        lose(cCannotConnect, ETIMEDOUT);
        break;
    case Phase::asking:
    case Phase::answer:
        lose(cNoAnswer, ETIMEDOUT);
        break;
    case Phase::live:
        lose(cSilent, ETIMEDOUT);
        break;
    }
}

/** The service has moved: the old one is left, and the new one tried at once. */
void SubscriberWork::takeMove() {
    m_isMoved = false;
    m_nextPause = m_options.firstPause;
    pauseFor(std::chrono::nanoseconds(0));
    tell(m_wasConnected ? State::away : State::connecting, cMoved, 0);
}

void SubscriberWork::connect() {
    std::optional<CallbackEndpoint> service;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        service = m_service;
    }
    m_record.count(&Statistics::nTries);
    m_phase = Phase::connecting;
    m_due = Deadline(m_options.answerLimit).end();
    const int error = m_connection.open(*service);
    if (error == 0)
        finishConnecting();
    else if (error != EINPROGRESS)
        lose(cCannotConnect, error);
}

void SubscriberWork::finishConnecting() {
    if (const int error = m_connection.finish(); error != 0)
        return lose(cCannotConnect, error);
    if (!m_connection.isOfOne(m_options.allowedUsers))
        return lose(cOtherUser, EACCES);
    m_phase = Phase::asking;
    m_connection.say(m_sTopic + VornString(Wire::cLineEnd));
}

void SubscriberWork::ask() {
    const bool isGoingOn = m_resume.nHistory != 0;
    constexpr std::uint32_t cAfter = 3;
    m_phase = Phase::answer;
    VornString sRequest;
    Wire::appendInt(sRequest, Wire::cVersion);
    Wire::appendText(sRequest, "");
    Wire::appendNumber(sRequest, 0);
    Wire::appendInt(sRequest, isGoingOn ? cAfter : static_cast<std::uint32_t>(m_options.start));
    Wire::appendNumber(sRequest, isGoingOn ? m_resume.nHistory : 0);
    Wire::appendNumber(sRequest, isGoingOn ? m_resume.nNumber : 0);
    Wire::appendText(sRequest, m_options.sWords);
    m_connection.say(sRequest);
}

void SubscriberWork::receive() {
    const int error = m_connection.receive();
    deal();
    // The time that handlers take is no silence of the service.
    if (m_phase == Phase::live && error == 0)
        m_due = Deadline(m_silence).end();
    if (error != 0 && m_phase != Phase::pause && !isInterrupted())
        lose(cClosed, error);
}

/** Deals with all that has come completely, as long as it is not interrupted by a handler. */
void SubscriberWork::deal() {
    bool isComplete = true;
    while (isComplete && !isInterrupted()) {
        const std::string_view bytes = m_connection.input().bytes();
        switch (m_phase) {
        case Phase::asking:
            isComplete = dealWithLine(bytes);
            break;
        case Phase::answer:
            isComplete = dealWithAnswer(bytes);
            break;
        case Phase::live:
            isComplete = dealWithFrame(bytes);
            break;
        default:
            return;
        }
    }
}

bool SubscriberWork::dealWithLine(std::string_view bytes) {
    if (bytes.empty())
        return false;
    if (bytes.front() == Wire::cKnown) {
        m_connection.input().skip(1);
        ask();
    } else if (bytes.front() == Wire::cUnknown) {
        refuse(cUnknownTopic);
    } else {
        misunderstand(cNotUnderstood, EPROTO);
    }
    return true;
}

bool SubscriberWork::dealWithAnswer(std::string_view bytes) {
    constexpr std::size_t cToken = 4;
    if (bytes.size() < cToken)
        return false;
    const std::uint32_t token = Wire::intAt(bytes.data());
    bytes.remove_prefix(cToken);
    if (token == Wire::cAdmitted)
        return dealWithPlace(bytes);
    if (token != Wire::cRefused || (bytes.size() >= 4 && Wire::intAt(bytes.data()) > Wire::cLongestReason)) {
        misunderstand(cNotUnderstood, EPROTO);
        return true;
    }
    if (bytes.size() < 4 || bytes.size() - 4 < Wire::intAt(bytes.data()))
        return false;
    refuse(VornString(bytes.substr(4, Wire::intAt(bytes.data()))));
    return true;
}

bool SubscriberWork::dealWithPlace(std::string_view bytes) {
    if (bytes.size() < Wire::cPlaceSize)
        return false;
    const std::uint64_t first = Wire::numberAt(bytes.data() + 8);
    const auto beat = static_cast<std::int32_t>(Wire::intAt(bytes.data() + 24));
    m_nHistory = Wire::numberAt(bytes.data());
    m_nOldUpTo = Wire::numberAt(bytes.data() + 16);
    if (m_nHistory == 0 || first == 0 || beat <= 0) {
        misunderstand(cNotUnderstood, EPROTO);
        return true;
    }
    m_connection.input().skip(4 + Wire::cPlaceSize);
    m_phase = Phase::live;
    m_silence = 3 * milliseconds(beat);
    m_due = Deadline(m_silence).end();
    m_wasConnected = true;
    if (!std::exchange(m_hasMisunderstood, false))
        m_nextPause = m_options.firstPause;
    if (m_resume.nHistory == 0)
        m_resume = {m_nHistory, first - 1};
    m_record.noteSubscription(m_nOldUpTo);
    tell(State::connected, "", 0);
    return true;
}

bool SubscriberWork::dealWithFrame(std::string_view bytes) {
    if (bytes.size() < Wire::cFrameHead)
        return false;
    const std::uint32_t kind = Wire::intAt(bytes.data());
    const std::uint32_t length = Wire::intAt(bytes.data() + 4);
    const bool isEvent = kind == Wire::cEvent;
    const bool isKnown = kind >= Wire::cEvent && kind <= Wire::cLast;
    if (length > static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()) ||
        (isEvent && length < sizeof(std::uint64_t)) ||
        (isKnown && !isEvent && length > Wire::cLongestReason)) {
        misunderstand(cNotUnderstood, EPROTO);
        return true;
    }
    if (isEvent && length - sizeof(std::uint64_t) > m_options.nEventLimit) {
        misunderstand(cTooLong, EMSGSIZE);
        return true;
    }
    if (isKnown && bytes.size() - Wire::cFrameHead < length)
        return false;
    const std::string_view rest = bytes.substr(Wire::cFrameHead, length);
    if (isEvent && tellGapBefore(Wire::numberAt(rest.data())))
        return true; // the event is left where it is, for the handler may have ended the thread
    // What has been skipped lies where it was until more is received.
    m_connection.input().skip(Wire::cFrameHead + length);
    if (isEvent)
        dealWithEvent(rest);
    else if (kind == Wire::cGap)
        dealWithGap(rest);
    else if (kind == Wire::cSign)
        dealWithSign(rest);
    else if (kind == Wire::cLast)
        dealWithLast(rest);
    return true;
}

/** Tells what is missing before an event. @return whether anything is */
bool SubscriberWork::tellGapBefore(std::uint64_t number) {
    const bool isOfThis = m_resume.nHistory == m_nHistory;
    if (number == 0 || (isOfThis && number <= m_resume.nNumber + 1))
        return false;
    tellGap({m_nHistory, number - 1}, isOfThis ? number - 1 - m_resume.nNumber : 0);
    return true;
}

void SubscriberWork::dealWithEvent(std::string_view rest) {
    const std::uint64_t number = Wire::numberAt(rest.data());
    rest.remove_prefix(sizeof number);
    if (number == 0)
        return misunderstand(cNotUnderstood, EPROTO);
    if (number > m_resume.nNumber)
        return callForEvent(number, rest);
    m_record.count(&Statistics::nRepeated);
}

void SubscriberWork::dealWithGap(std::string_view rest) {
    if (rest.size() != Wire::cGapRest || Wire::numberAt(rest.data()) == 0 ||
        Wire::numberAt(rest.data() + 16) == 0)
        return misunderstand(cNotUnderstood, EPROTO);
    m_nHistory = Wire::numberAt(rest.data());
    const std::uint64_t first = Wire::numberAt(rest.data() + 8);
    const VornPosition next{m_nHistory, Wire::numberAt(rest.data() + 16) - 1};
    const bool isOfThis = first != 0 && m_resume.nHistory == m_nHistory;
    if (isOfThis && next.nNumber <= m_resume.nNumber)
        return; // nothing that it is about is missing here
    tellGap(next, isOfThis ? next.nNumber - m_resume.nNumber : 0);
}

void SubscriberWork::dealWithSign(std::string_view rest) {
    if (rest.size() != Wire::cSignRest)
        return misunderstand(cNotUnderstood, EPROTO);
    m_record.noteNewest(Wire::numberAt(rest.data()));
}

void SubscriberWork::dealWithLast(std::string_view rest) {
    const std::uint32_t ending = rest.size() < Wire::cLastHead ? 0 : Wire::intAt(rest.data());
    if ((ending != Wire::cStopped && ending != Wire::cDropped) ||
        Wire::intAt(rest.data() + 4) != rest.size() - Wire::cLastHead)
        return misunderstand(cNotUnderstood, EPROTO);
    if (ending == Wire::cStopped)
        lose(cServiceStops, 0);
    else
        refuse(VornString(rest.substr(Wire::cLastHead)));
}

void SubscriberWork::callForEvent(std::uint64_t number, std::string_view content) {
    m_resume = {m_nHistory, number};
    m_event.position = m_resume;
    m_event.bOld = number <= m_nOldUpTo;
    m_record.noteEvent(m_resume);
    ++m_nCalled;
    VORN_PROBE(event__received, m_event.sTopic.c_str(), number, m_event.bOld);
    EventReader reader(content);
    if (!callHandler(VornLogging::cError, cEventThrown, [&] { m_onEvent(reader, m_event); }))
        m_record.count(&Statistics::nFailed);
    if (m_file)
        m_file->note(m_event.position);
}

void SubscriberWork::tellGap(const VornPosition& next, std::uint64_t missed) {
    const VornSubscriber::Gap gap{m_sTopic, m_record.noteGap(missed), next, missed};
    m_resume = next;
    if (m_options.onGap)
        callHandler(VornLogging::cError, cGapThrown, [&] { m_options.onGap(gap); });
}

/** The try has failed, or the service is gone. */
void SubscriberWork::lose(const char* reason, int nCode) {
    leave(m_wasConnected ? State::away : State::connecting, reason, nCode);
}

/** As lose(); since it may well happen again, a further time the pauses go on growing. */
void SubscriberWork::misunderstand(const char* reason, int nCode) {
    m_hasMisunderstood = true;
    lose(reason, nCode);
}

void SubscriberWork::refuse(const VornString& sReason) {
    leave(State::refused, sReason, 0);
}

void SubscriberWork::leave(VornSubscriber::State state, const VornString& sReason, int nCode) {
    const milliseconds pause =
        state == State::refused ? m_options.longestPause : std::min(m_nextPause, m_options.longestPause);
    if (state != State::refused)
        m_nextPause = pause > m_options.longestPause / 2 ? m_options.longestPause : 2 * pause;
    if (m_phase != Phase::live)
        m_record.noteFailedTry();
    // Varied, so that the clients of a service that is back do not come in step.
    std::uniform_real_distribution<double> part(0.5, 1.0);
    pauseFor(std::chrono::duration_cast<std::chrono::nanoseconds>(pause * part(m_random)));
    tell(state, sReason, nCode);
}

void SubscriberWork::pauseFor(std::chrono::nanoseconds pause) {
    m_connection.close();
    m_phase = Phase::pause;
    m_due = Clock::now() + pause;
}

/** Tells the program, unless it knows that. */
void SubscriberWork::tell(VornSubscriber::State state, const VornString& sReason, int nCode) {
    const auto status = m_record.enter(state, sReason, nCode);
    if (status && m_options.onState)
        callHandler(VornLogging::cError, cStateThrown, [&] { m_options.onState(*status); });
}

} // namespace VornNet
