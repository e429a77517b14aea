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

constexpr milliseconds cConnectLimit{2000};
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
 * then stream, consumer, how often it was delivered, position in the stream, and more.
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
    return true;
}

} // namespace

/** A connection, which ends when the last one who sends through it has let it go. */
struct NatsEngine::Link {
    /** What the client library's threads are given; they have all ended when nOpen is 0. */
    static void onClosed(natsConnection*, void* closure) { static_cast<Link*>(closure)->end(); }

    static void onComplete(void* closure) { static_cast<Link*>(closure)->end(); }

    void end() {
        const std::lock_guard lock(mutex);
        --nOpen;
        changed.notify_all();
    }

    void subscribe(const std::string& sSubject, natsMsgHandler handler, NatsEngine* pEngine) {
        natsSubscription* created = nullptr;
        const natsStatus status =
            natsConnection_Subscribe(&created, spConnection.get(), sSubject.c_str(), handler, pEngine);
        if (status != NATS_OK)
            throw std::runtime_error(sSubject + ": " + textOf(status));
        subscriptions.emplace_back(created);
        const std::lock_guard lock(mutex);
        if (natsSubscription_SetOnCompleteCB(created, &onComplete, this) == NATS_OK)
            ++nOpen;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::atomic<bool> bBroken{false}; // what was sent last may be half on its way
    int nOpen = 1;                    // guarded by mutex; the connection and each subscription count one
    NatsPointer<natsConnection> spConnection;
    std::vector<NatsPointer<natsSubscription>> subscriptions;
};

NatsEngine::NatsEngine(RelayLoop& loop, EngineAccess access, milliseconds answerLimit, Listener& listener)
    : m_loop(loop), m_access(std::move(access)), m_sInbox(inboxOf(m_access)),
      m_sStream(std::string(cStreamPrefix) + m_access.sHost), m_answerLimit(answerLimit),
      m_listener(listener) {}

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
    if (const std::shared_ptr<Link> spLink = link())
        natsConnection_FlushTimeout(spLink->spConnection.get(), cConnectLimit.count());
    {
        const std::lock_guard lock(m_mutex);
        m_bStopping = true;
        m_changed.notify_all();
    }
    m_thread.join();
    m_loop.cancel(m_sweep);
}

void NatsEngine::publish(const Message& message, AnswerHandler onAnswer) {
    const std::uint64_t nTicket = ++m_nLastTicket;
    expect(nTicket, [handler = std::move(onAnswer)](const std::string* pReply) {
        std::string sText = "no answer";
        handler(pReply == nullptr ? Answer::unknown : answerOf(*pReply, sText), sText);
    });
    if (!send(message, m_sInbox + ".reply." + std::to_string(nTicket)))
        m_loop.post([this, nTicket] { settle(nTicket, nullptr); });
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
    send({"$JS.API.CONSUMER.MSG.NEXT." + m_sStream + "." + sConsumer, {}, sRequest},
         m_sInbox + ".in." + sConsumer);
}

milliseconds NatsEngine::pullLife() const {
    return cPullLife;
}

void NatsEngine::acknowledge(const std::string& sReceipt) {
    send({sReceipt, {}, "+ACK"}, "");
}

void NatsEngine::tell(const std::string& sSubject, const std::string& sText) {
    send({sSubject, {}, sText}, "");
}

void NatsEngine::listenTo(const std::string& sSubject) {
    m_listenedTo.push_back(sSubject);
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
        if (std::shared_ptr<Link> spLink = connect(sWhy)) {
            lock.lock();
            m_spLink = spLink;
            lock.unlock();
            m_loop.post([this] { m_listener.connected(); });
            awaitClosed(*spLink);
            sWhy = "the connection was closed";
        }
        m_loop.post([this, sWhy] {
            failAll();
            m_listener.disconnected(sWhy);
        });
        lock.lock();
        m_changed.wait_for(lock, cPauseBetweenConnections, [this] { return m_bStopping; });
    }
}

std::shared_ptr<NatsEngine::Link> NatsEngine::connect(std::string& sWhy) try {
    const auto spLink = std::make_shared<Link>();
    const NatsPointer<natsOptions> options = optionsFor(m_access, cConnectLimit);
    natsOptions_SetClosedCB(options.get(), &Link::onClosed, spLink.get());
    natsOptions_SetErrorHandler(options.get(), &onError, this);
    natsConnection* created = nullptr;
    if (const natsStatus status = natsConnection_Connect(&created, options.get()); status != NATS_OK)
        throw std::runtime_error(textOf(status));
    spLink->spConnection.reset(created);
    try {
        spLink->subscribe(m_sInbox + ".reply.*", &onReplyMessage, this);
        spLink->subscribe(m_sInbox + ".in.>", &onArrivalMessage, this);
        for (const std::string& sSubject : m_listenedTo)
            spLink->subscribe(sSubject, &onToldMessage, this);
    } catch (const std::exception&) {
        natsConnection_Close(created);
        awaitClosed(*spLink);
        throw;
    }
    m_nMostContent.store(static_cast<std::size_t>(natsConnection_GetMaxPayload(created)),
                         std::memory_order_relaxed);
    return spLink;

} catch (const std::exception& error) {

    sWhy = error.what();
    return nullptr;
}

void NatsEngine::awaitClosed(Link& link) {
    // Three reasons to go on, and only one can be waited for: it is looked at the others in between.
    constexpr milliseconds cLook{50};
    bool bStopping = false;
    while (!bStopping && !link.bBroken && !natsConnection_IsClosed(link.spConnection.get())) {
        std::unique_lock lock(m_mutex);
        bStopping = m_changed.wait_for(lock, cLook, [this] { return m_bStopping; });
    }
    {
        const std::lock_guard lock(m_mutex);
        m_spLink.reset();
    }
    natsConnection_Close(link.spConnection.get());
    std::unique_lock lock(link.mutex);
    link.changed.wait(lock, [&link] { return link.nOpen == 0; });
}

std::shared_ptr<NatsEngine::Link> NatsEngine::link() const {
    const std::lock_guard lock(m_mutex);
    return m_spLink;
}

void NatsEngine::expect(std::uint64_t nTicket, ReplyHandler onReply) {
    m_waiting.emplace(nTicket, Waiting{Clock::now() + m_answerLimit, std::move(onReply)});
}

void NatsEngine::request(const std::string& sSubject, const std::string& sText, ReplyHandler onReply) {
    const std::uint64_t nTicket = ++m_nLastTicket;
    expect(nTicket, std::move(onReply));
    if (!send({sSubject, {}, sText}, m_sInbox + ".reply." + std::to_string(nTicket)))
        m_loop.post([this, nTicket] { settle(nTicket, nullptr); });
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
                    opened.nHandedOut =
                        info.value("delivered", Json::object()).value("stream_seq", std::uint64_t{0});
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

bool NatsEngine::send(const Message& message, const std::string& sReply) {
    const std::shared_ptr<Link> spLink = link();
    if (!spLink)
        return false;
    natsConnection* connection = spLink->spConnection.get();
    const char* szSubject = message.sSubject.c_str();
    const char* szReply = sReply.empty() ? nullptr : sReply.c_str();
    const int nSize = static_cast<int>(message.sContent.size());
    natsStatus status = NATS_OK;
    if (message.headers.empty()) {
        status = szReply == nullptr
                     ? natsConnection_Publish(connection, szSubject, message.sContent.data(), nSize)
                     : natsConnection_PublishRequest(connection, szSubject, szReply, message.sContent.data(),
                                                     nSize);
    } else {
        natsMsg* created = nullptr;
        status = natsMsg_Create(&created, szSubject, szReply, message.sContent.data(), nSize);
        const SpentMessage spent(created);
        for (const auto& [sName, sValue] : message.headers) {
            if (status == NATS_OK)
                status = natsMsgHeader_Set(created, sName.c_str(), sValue.c_str());
        }
        if (status == NATS_OK)
            status = natsConnection_PublishMsg(connection, created);
    }
    if (status == NATS_TIMEOUT)
        giveUp(*spLink);
    return status == NATS_OK;
}

/** The loop waits for a server that reads nothing once, and no second time. */
void NatsEngine::giveUp(Link& link) {
    link.bBroken = true;
    const std::lock_guard lock(m_mutex);
    if (m_spLink.get() == &link)
        m_spLink.reset();
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
    while (!m_waiting.empty() && m_waiting.begin()->second.until <= now)
        settle(m_waiting.begin()->first, nullptr);
    m_sweep = m_loop.after(cSweepInterval, [this] { sweep(); });
}

void NatsEngine::takeReply(natsMsg* message) {
    const std::uint64_t nTicket = numberOf(tokensOf(natsMsg_GetSubject(message)).back());
    m_loop.post([this, nTicket, sReply = contentOf(message)] { settle(nTicket, &sReply); });
}

void NatsEngine::takeArrival(natsMsg* message) {
    const char* szReply = natsMsg_GetReply(message);
    Arrival arrival;
    if (szReply == nullptr || !readReceipt(szReply, arrival)) {
        takeStatus(message);
        return;
    }
    arrival.message = {natsMsg_GetSubject(message), headersOf(message), contentOf(message)};
    m_loop.post([this, arrival = std::move(arrival)]() mutable { m_listener.arrived(std::move(arrival)); });
}

void NatsEngine::takeStatus(natsMsg* message) {
    const std::vector<std::string_view> tokens = tokensOf(natsMsg_GetSubject(message));
    if (tokens.size() < 3)
        return;
    const std::string sStatus = headerOf(message, "Status");
    const std::string sConsumer(tokens[2]);
    if (sStatus == "100")
        return; // a sign of life
    const bool bTimeOut = sStatus == "404" || sStatus == "408";
    m_loop.post([this, sConsumer, bTimeOut] {
        m_listener.pullEnded(sConsumer);
        if (!bTimeOut)
            m_listener.consumerLost(sConsumer);
    });
}

/** What the server refuses gets no answer, only this. */
void NatsEngine::onError(natsConnection* connection, natsSubscription*, natsStatus status, void* closure) {
    const char* szError = nullptr;
    natsConnection_GetLastError(connection, &szError);
    const std::string sText = szError != nullptr && *szError != '\0' ? szError : natsStatus_GetText(status);
    auto* pEngine = static_cast<NatsEngine*>(closure);
    pEngine->m_loop.post([pEngine, sText] {
        pEngine->m_errorLine.write(LogLevel::warning, "the engine's server complains: " + sText);
    });
}

void NatsEngine::onReplyMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    const SpentMessage spent(message);
    static_cast<NatsEngine*>(closure)->takeReply(message);
}

void NatsEngine::onArrivalMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    const SpentMessage spent(message);
    static_cast<NatsEngine*>(closure)->takeArrival(message);
}

void NatsEngine::onToldMessage(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    const NatsPointer<natsMsg> spMessage(message);
    auto* pEngine = static_cast<NatsEngine*>(closure);
    pEngine->m_loop.post([pEngine, sSubject = std::string(natsMsg_GetSubject(message)),
                          sText = contentOf(message)] { pEngine->m_listener.told(sSubject, sText); });
}

} // namespace VornRelay
