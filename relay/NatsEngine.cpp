// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "NatsEngine.h"

#include "StoredText.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

namespace VornRelay {

namespace {

using Json = nlohmann::json;
using std::chrono::milliseconds;

constexpr milliseconds cLook{50};
constexpr milliseconds cSignInterval{3000};
constexpr milliseconds cSignLimit{6000};
constexpr milliseconds cFlushLimit{2000};
constexpr milliseconds cPauseBetweenConnections{250};
constexpr milliseconds cSweepInterval{250};
constexpr milliseconds cPullLife{5000};
constexpr long long cAckWait = 30'000'000'000;
constexpr std::string_view cStreamPrefix = "VORN_TO_";
constexpr int cStreamFull = 10077;
constexpr int cMessageTooLong = 10054;
constexpr int cMessageMissing = 10037;
constexpr std::size_t cMostSpent = 64; // messages of a thread that are destroyed together
constexpr std::size_t cMostSpentBytes = 65536;

std::vector<std::string_view> tokensOf(std::string_view sSubject) {
    std::vector<std::string_view> tokens;
    for (std::size_t nStart = 0; nStart <= sSubject.size();) {
        const std::size_t nEnd = std::min(sSubject.find('.', nStart), sSubject.size());
        tokens.push_back(sSubject.substr(nStart, nEnd - nStart));
        nStart = nEnd + 1;
    }
    return tokens;
}

/**
 * @return who is to answer what is published there: a stream by the second and third part of its subjects,
 * the server itself by nothing. Of a request that nobody is there for, no more is told.
 */
std::string addresseeOf(std::string_view sSubject) {
    const std::vector<std::string_view> tokens = tokensOf(sSubject);
    return tokens.size() < 3 || tokens[0] == "$JS" ? ""
                                                   : std::string(tokens[1]).append(".").append(tokens[2]);
}

std::uint64_t numberOf(std::string_view sText) {
    std::uint64_t nValue = 0;
    std::from_chars(sText.data(), sText.data() + sText.size(), nValue);
    return nValue;
}

std::string headerOf(natsMsg* message, const char* szName) {
    const char* szValue = nullptr;
    return natsMsgHeader_Get(message, szName, &szValue) == NATS_OK && szValue != nullptr ? szValue : "";
}

std::string contentOf(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

/** Reads the answer to a published message; that of a server which knows nobody for its subject is empty. */
Engine::Answer answerOf(const std::string& sReply, std::string& sText) {
    if (sReply.empty()) {
        sText = "there is no stream for it";
        return Engine::Answer::absent;
    }
    const Json reply = Json::parse(sReply, nullptr, false);
    if (!reply.is_object())
        return Engine::Answer::unknown;
    if (!reply.contains("error")) {
        sText = reply.value("seq", Json()).dump();
        return reply.contains("seq") ? Engine::Answer::stored : Engine::Answer::unknown;
    }
    const Json& error = reply["error"];
    sText = error.value("description", "");
    switch (error.value("err_code", 0)) {
    case cStreamFull:
        return Engine::Answer::full;
    case cMessageTooLong:
        return Engine::Answer::refused;
    default:
        return Engine::Answer::unknown;
    }
}

std::string errorIn(const std::string& sReply) {
    const Json reply = Json::parse(sReply, nullptr, false);
    if (!reply.is_object())
        return "no JetStream here";
    return reply.contains("error") ? reply["error"].value("description", "refused") : "";
}

/** Reads the answer to a question for a stored message. */
Engine::Stored storedIn(const std::string& sReply) {
    Engine::Stored stored;
    stored.sError = errorIn(sReply);
    const Json reply = Json::parse(sReply, nullptr, false);
    if (!stored.sError.empty() && reply.is_object() && reply["error"].value("err_code", 0) == cMessageMissing)
        stored.sError.clear();
    else if (stored.sError.empty()) {
        const Json message = reply.value("message", Json::object());
        stored.nPosition = message.value("seq", std::uint64_t{0});
        stored.message = {message.value("subject", ""), headersIn(decodedBase64(message.value("hdrs", ""))),
                          decodedBase64(message.value("data", ""))};
    }
    return stored;
}

/**
 * Destroys a message at the end of its scope, along with others: the client library has a thread for that,
 * and waking it for each costs more than what else is done with a message.
 */
class SpentMessage {
public:
    explicit SpentMessage(natsMsg* message) : m_spMessage(message) {}

    ~SpentMessage() {
        thread_local std::vector<NatsPointer<natsMsg>> spent;
        thread_local std::size_t nBytes = 0;
        if (!m_spMessage)
            return;
        nBytes += static_cast<std::size_t>(natsMsg_GetDataLength(m_spMessage.get()));
        spent.push_back(std::move(m_spMessage));
        if (spent.size() < cMostSpent && nBytes < cMostSpentBytes)
            return;
        spent.clear();
        nBytes = 0;
    }

    SpentMessage(const SpentMessage&) = delete;
    SpentMessage& operator=(const SpentMessage&) = delete;

private:
    NatsPointer<natsMsg> m_spMessage;
};

std::vector<Engine::Header> headersOf(natsMsg* message) {
    std::vector<Engine::Header> headers;
    const char** keys = nullptr;
    int nCount = 0;
    if (natsMsgHeader_Keys(message, &keys, &nCount) != NATS_OK)
        return headers;
    for (int i = 0; i < nCount; ++i)
        headers.emplace_back(keys[i], headerOf(message, keys[i]));
    std::free(keys);
    return headers;
}

/**
 * Finds its way in the reply subject of a pulled message: $JS.ACK, on newer servers a domain and an account,
 * then stream, consumer, how often it was delivered, positions in the stream and among all that the consumer
 * has handed out, and more.
 */
bool readReceipt(std::string_view sReceipt, Engine::Arrival& arrival) {
    constexpr std::size_t cPlain = 9;
    const std::vector<std::string_view> tokens = tokensOf(sReceipt);
    if (tokens.size() < cPlain || tokens[0] != "$JS" || tokens[1] != "ACK")
        return false;
    const std::size_t nStream = tokens.size() == cPlain ? 2 : 4;
    arrival.sReceipt = sReceipt;
    arrival.sConsumer = tokens[nStream + 1];
    arrival.nPosition = numberOf(tokens[nStream + 3]);
    arrival.nDelivery = numberOf(tokens[nStream + 4]);
    return true;
}

} // namespace

NatsEngine::NatsEngine(RelayLoop& loop, EngineAccess access, milliseconds answerLimit, Listener& listener)
    : m_loop(loop), m_access(std::move(access)), m_sStream(std::string(cStreamPrefix) + m_access.sHost),
      m_answerLimit(answerLimit), m_listener(listener) {}

NatsEngine::~NatsEngine() {
    stop();
}

void NatsEngine::start() {
    sweep();
    m_thread = std::thread([this] { keepConnected(); });
}

void NatsEngine::stop() {
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard lock(m_mutex);
        m_bStopping = true;
        m_changed.notify_all();
    }
    if (const std::shared_ptr<NatsLink> spLink = link()) {
        const auto until = Clock::now() + cFlushLimit;
        while (!isFlushed() && !spLink->isClosed() && Clock::now() < until)
            spLink->serve(cLook);
        spLink->close();
    }
    m_thread.join();
    m_loop.cancel(m_sweep);
}

void NatsEngine::publish(const Message& message, AnswerHandler onAnswer) {
    ask(message, [handler = std::move(onAnswer)](const std::string* pReply) {
        std::string sText = "no answer";
        handler(pReply == nullptr ? Answer::unknown : answerOf(*pReply, sText), sText);
    });
}

void NatsEngine::open(const std::string& sConsumer, const std::string& sFilter, OpenHandler onOpened) {
    if (m_access.bFixedConsumer) {
        lookAt(sConsumer, std::move(onOpened));
        return;
    }
    // A consumer that is already there holds back what it has handed out before until its time is up, and
    // lets newer messages pass. A new one hands out everything that is not acknowledged, in order, at once.
    request("$JS.API.CONSUMER.DELETE." + m_sStream + "." + sConsumer, "",
            [this, sConsumer, sFilter, handler = std::move(onOpened)](const std::string* pReply) {
                if (pReply == nullptr)
                    handler({"no answer"});
                else
                    create(sConsumer, sFilter, handler);
            });
}

void NatsEngine::close(const std::string& sConsumer) {
    if (!m_access.bFixedConsumer)
        request("$JS.API.CONSUMER.DELETE." + m_sStream + "." + sConsumer, "", [](const std::string*) {});
}

void NatsEngine::pull(const std::string& sConsumer, std::size_t nCount) {
    const std::string sRequest = "{\"batch\":" + std::to_string(nCount) + ",\"expires\":" +
                                 std::to_string(std::chrono::nanoseconds(cPullLife).count()) + "}";
    if (const std::shared_ptr<NatsLink> spLink = link())
        send(*spLink, {"$JS.API.CONSUMER.MSG.NEXT." + m_sStream + "." + sConsumer, {}, sRequest},
             spLink->inbox() + ".in." + sConsumer);
}

milliseconds NatsEngine::pullLife() const {
    return cPullLife;
}

void NatsEngine::acknowledge(const std::string& sReceipt) {
    send({sReceipt, {}, "+ACK"});
}

void NatsEngine::tell(const std::string& sSubject, const std::string& sText) {
    send({sSubject, {}, sText});
}

void NatsEngine::listenTo(const std::string& sSubject) {
    if (const std::shared_ptr<NatsLink> spLink = link(); m_listenedTo.insert(sSubject).second && spLink)
        spLink->listenTo(sSubject);
}

void NatsEngine::ignore(const std::string& sSubject) {
    if (const std::shared_ptr<NatsLink> spLink = link(); m_listenedTo.erase(sSubject) == 1 && spLink)
        spLink->ignore(sSubject);
}

void NatsEngine::read(const std::string& sStream, const std::string& sSubject, std::uint64_t nFrom,
                      StoredHandler onStored) {
    const Json wanted =
        nFrom == 0 ? Json{{"last_by_subj", sSubject}} : Json{{"seq", nFrom}, {"next_by_subj", sSubject}};
    request("$JS.API.STREAM.MSG.GET." + sStream, wanted.dump(),
            [handler = std::move(onStored)](const std::string* pReply) {
                handler(pReply == nullptr ? Stored{"no answer", 0, {}} : storedIn(*pReply));
            });
}

void NatsEngine::measure(FillHandler onAnswer) {
    request("$JS.API.STREAM.INFO." + m_sStream, "",
            [handler = std::move(onAnswer)](const std::string* pReply) {
                const Json reply = pReply == nullptr ? Json() : Json::parse(*pReply, nullptr, false);
                if (!reply.is_object() || !reply.contains("state") || !reply.contains("config")) {
                    handler(nullptr);
                    return;
                }
                const Fill fill{reply["state"].value("messages", std::uint64_t{0}),
                                reply["state"].value("bytes", std::uint64_t{0}),
                                reply["config"].value("max_bytes", std::int64_t{-1}),
                                reply["config"].value("max_msgs", std::int64_t{-1})};
                handler(&fill);
            });
}

void NatsEngine::listHosts(HostsHandler onAnswer) {
    listHostsFrom(std::make_shared<std::vector<std::string>>(), std::move(onAnswer));
}

std::size_t NatsEngine::mostContent() const {
    return m_nMostContent.load(std::memory_order_relaxed);
}

void NatsEngine::keepConnected() {
    std::unique_lock lock(m_mutex);
    while (!m_bStopping) {
        lock.unlock();
        std::string sWhy;
        if (const std::shared_ptr<NatsLink> spLink = connect(sWhy)) {
            attend(*spLink);
            sWhy = spLink->whyClosed();
        }
        m_loop.post([this, sWhy] {
            failAll();
            m_listener.disconnected(sWhy);
        });
        lock.lock();
        m_changed.wait_for(lock, cPauseBetweenConnections, [this] { return m_bStopping; });
    }
}

std::shared_ptr<NatsLink> NatsEngine::connect(std::string& sWhy) try {
    const auto spLink = std::make_shared<NatsLink>(
        m_loop, inboxOf(m_access),
        [this](std::size_t nPlace, NatsPointer<natsMsg> message) { take(nPlace, std::move(message)); },
        [this](const std::string& sText) { complain(sText); });
    spLink->connect(m_access, spLink->inbox() + ".in.>");
    m_nMostContent.store(spLink->mostContent(), std::memory_order_relaxed);
    std::unique_lock lock(m_mutex);
    if (m_bStopping) {
        lock.unlock();
        spLink->close();
        spLink->awaitClosed();
        return nullptr;
    }
    m_spLink = spLink;
    m_loop.post([this, spLink] {
        spLink->begin();
        for (const std::string& sSubject : m_listenedTo)
            spLink->listenTo(sSubject);
        m_listener.connected();
    });
    return spLink;

} catch (const std::exception& error) {

    sWhy = error.what();
    return nullptr;
}

/** Asks for signs of life until the connection is closed, or has to be. */
void NatsEngine::attend(NatsLink& link) {
    auto nextSign = Clock::now() + cSignInterval;
    std::unique_lock lock(m_mutex);
    while (!m_changed.wait_for(lock, cLook, [&] { return m_bStopping || link.isClosed(); })) {
        if (Clock::now() < nextSign)
            continue;
        lock.unlock();
        link.ping(cSignLimit);
        nextSign = Clock::now() + cSignInterval;
        lock.lock();
    }
    if (m_bStopping) { // the other thread serves the connection meanwhile, and closes it
        lock.unlock();
        link.ping(cFlushLimit);
        lock.lock();
        m_bFlushed = true;
    }
    m_spLink.reset();
    lock.unlock();
    link.awaitClosed();
}

std::shared_ptr<NatsLink> NatsEngine::link() const {
    const std::lock_guard lock(m_mutex);
    return m_spLink;
}

bool NatsEngine::isFlushed() const {
    const std::lock_guard lock(m_mutex);
    return m_bFlushed;
}

void NatsEngine::ask(const Message& message, ReplyHandler onReply) {
    const std::uint64_t nTicket = ++m_nLastTicket;
    Waiting& waiting = m_waiting[nTicket] = {Clock::now() + m_answerLimit, std::move(onReply)};
    const std::shared_ptr<NatsLink> spLink = link();
    std::string sReply;
    if (spLink) {
        const std::string sInbox = spLink->inbox() + ".reply";
        const std::string sAddressee = addresseeOf(message.sSubject);
        waiting.bOfStream = !sAddressee.empty();
        waiting.nPlace = spLink->placeFor(sAddressee, sInbox);
        sReply = sInbox + "." + std::to_string(waiting.nPlace) + "." + std::to_string(nTicket);
    }
    if (!spLink || !send(*spLink, message, sReply))
        m_loop.post([this, nTicket] { settle(nTicket, nullptr); });
}

void NatsEngine::request(const std::string& sSubject, const std::string& sText, ReplyHandler onReply) {
    ask({sSubject, {}, sText}, std::move(onReply));
}

/** @param spStreams names of all streams so far; the next page begins after them */
void NatsEngine::listHostsFrom(std::shared_ptr<std::vector<std::string>> spStreams, HostsHandler onAnswer) {
    request("$JS.API.STREAM.NAMES", Json{{"offset", spStreams->size()}}.dump(),
            [this, spStreams, handler = std::move(onAnswer)](const std::string* pReply) {
                const Json reply = pReply == nullptr ? Json() : Json::parse(*pReply, nullptr, false);
                if (!reply.is_object() || !reply.contains("total")) {
                    handler(nullptr);
                    return;
                }
                const Json page = reply.value("streams", Json());
                for (const Json& name : page)
                    spStreams->push_back(name);
                if (!page.empty() && spStreams->size() < reply.value("total", std::size_t{0})) {
                    listHostsFrom(spStreams, handler);
                    return;
                }
                std::vector<std::string> hosts;
                for (const std::string& sStream : *spStreams) {
                    if (sStream.starts_with(cStreamPrefix))
                        hosts.push_back(sStream.substr(cStreamPrefix.size()));
                }
                handler(&hosts);
            });
}

void NatsEngine::lookAt(const std::string& sConsumer, OpenHandler onOpened) {
    request("$JS.API.CONSUMER.INFO." + m_sStream + "." + sConsumer, "",
            [handler = std::move(onOpened)](const std::string* pReply) {
                Opened opened{pReply == nullptr ? "no answer" : errorIn(*pReply)};
                if (opened.sError.empty()) {
                    const Json info = Json::parse(*pReply, nullptr, false);
                    const Json delivered = info.value("delivered", Json::object());
                    opened.nHandedOut = delivered.value("stream_seq", std::uint64_t{0});
                    opened.nDeliveries = delivered.value("consumer_seq", std::uint64_t{0});
                    opened.nUnanswered = info.value("num_ack_pending", std::uint64_t{0});
                    opened.comesAgain = std::chrono::duration_cast<milliseconds>(std::chrono::nanoseconds(
                        info.value("config", Json::object()).value("ack_wait", cAckWait)));
                }
                handler(opened);
            });
}

void NatsEngine::create(const std::string& sConsumer, const std::string& sFilter, OpenHandler onOpened) {
    const Json config = {{"durable_name", sConsumer},  {"ack_policy", "explicit"}, {"deliver_policy", "all"},
                         {"replay_policy", "instant"}, {"ack_wait", cAckWait},     {"max_ack_pending", -1},
                         {"filter_subject", sFilter}};
    request("$JS.API.CONSUMER.DURABLE.CREATE." + m_sStream + "." + sConsumer,
            Json{{"stream_name", m_sStream}, {"config", config}}.dump(),
            [handler = std::move(onOpened)](const std::string* pReply) {
                handler({pReply == nullptr ? "no answer" : errorIn(*pReply)});
            });
}

bool NatsEngine::send(const Message& message) {
    const std::shared_ptr<NatsLink> spLink = link();
    return spLink && send(*spLink, message, "");
}

bool NatsEngine::send(NatsLink& link, const Message& message, const std::string& sReply) {
    return link.send([&](natsConnection* connection) {
        const char* szSubject = message.sSubject.c_str();
        const char* szReply = sReply.empty() ? nullptr : sReply.c_str();
        const int nSize = static_cast<int>(message.sContent.size());
        if (message.headers.empty())
            return szReply == nullptr
                       ? natsConnection_Publish(connection, szSubject, message.sContent.data(), nSize)
                       : natsConnection_PublishRequest(connection, szSubject, szReply,
                                                       message.sContent.data(), nSize);
        natsMsg* created = nullptr;
        natsStatus status = natsMsg_Create(&created, szSubject, szReply, message.sContent.data(), nSize);
        const SpentMessage spent(created);
        for (const auto& [sName, sValue] : message.headers) {
            if (status == NATS_OK)
                status = natsMsgHeader_Set(created, sName.c_str(), sValue.c_str());
        }
        return status == NATS_OK ? natsConnection_PublishMsg(connection, created) : status;
    });
}

void NatsEngine::settle(std::uint64_t nTicket, const std::string* pReply) {
    const auto entry = m_waiting.extract(nTicket);
    if (!entry.empty())
        entry.mapped().onReply(pReply);
}

void NatsEngine::failAll() {
    while (!m_waiting.empty())
        settle(m_waiting.begin()->first, nullptr);
}

void NatsEngine::sweep() {
    const Clock::time_point now = Clock::now();
    while (!m_waiting.empty() && m_waiting.begin()->second.until <= now) {
        const auto& [nTicket, waiting] = *m_waiting.begin();
        if (waiting.bOfStream)
            giveUp(waiting.nPlace);
        else
            settle(nTicket, nullptr);
    }
    m_sweep = m_loop.after(cSweepInterval, [this] { sweep(); });
}

/**
 * When the time of a stream's first answer is up, no later one is awaited either: if that came, the first
 * would have to be published under another number, and arrive twice if it is stored all the same.
 */
void NatsEngine::giveUp(std::size_t nPlace) {
    std::vector<std::uint64_t> tickets;
    for (const auto& [nTicket, waiting] : m_waiting) {
        if (waiting.nPlace == nPlace)
            tickets.push_back(nTicket);
    }
    for (const std::uint64_t nTicket : tickets)
        settle(nTicket, nullptr);
}

void NatsEngine::take(std::size_t nPlace, NatsPointer<natsMsg> owned) {
    natsMsg* const message = owned.get();
    const SpentMessage spent(owned.release());
    if (message == nullptr)
        takeAbsence(nPlace);
    else if (nPlace == 0)
        takeArrival(message);
    else if (std::string_view(natsMsg_GetSubject(message)).starts_with(inboxOf(m_access)))
        takeReply(message);
    else
        m_listener.told(natsMsg_GetSubject(message), contentOf(message));
}

void NatsEngine::takeReply(natsMsg* message) {
    const std::string sReply = contentOf(message);
    settle(numberOf(tokensOf(natsMsg_GetSubject(message)).back()), &sReply);
}

/**
 * It is taken for the newest one. What was published before it may be stored, and its answer under way: if
 * that were given up, and one after it is stored, it would have to be sent under another number, and come
 * twice.
 */
void NatsEngine::takeAbsence(std::size_t nPlace) {
    const auto newest = std::find_if(m_waiting.rbegin(), m_waiting.rend(),
                                     [&](const auto& entry) { return entry.second.nPlace == nPlace; });
    const std::string sNothing;
    if (newest != m_waiting.rend())
        settle(newest->first, &sNothing);
}

void NatsEngine::takeArrival(natsMsg* message) {
    const char* szReply = natsMsg_GetReply(message);
    Arrival arrival;
    if (szReply == nullptr || !readReceipt(szReply, arrival)) {
        takeStatus(message);
        return;
    }
    arrival.message = {natsMsg_GetSubject(message), headersOf(message), contentOf(message)};
    m_listener.arrived(std::move(arrival));
}

void NatsEngine::takeStatus(natsMsg* message) {
    const std::vector<std::string_view> tokens = tokensOf(natsMsg_GetSubject(message));
    const std::string sStatus = headerOf(message, "Status");
    const std::string sConsumer(tokens.back());
    if (sStatus == "100")
        return; // a sign of life
    const bool bTimeOut = sStatus == "404" || sStatus == "408";
    m_listener.pullEnded(sConsumer);
    if (!bTimeOut)
        m_listener.consumerLost(sConsumer);
}

/** What the server refuses gets no answer, only this. */
void NatsEngine::complain(const std::string& sText) {
    m_loop.post(
        [this, sText] { m_errorLine.write(LogLevel::warning, "the engine's server complains: " + sText); });
}

} // namespace VornRelay
