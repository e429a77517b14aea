// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "PipeSource.h"

#include "PipeNotification.h"

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include <sys/un.h>

namespace VornNet {

namespace {

constexpr unsigned int cAccessRights = 7; // what pipe servers report unless they are told others
constexpr const char* cPrefix = "pipe:";
constexpr std::size_t cLongestAddress = sizeof(sockaddr_un::sun_path);

PipeListener open(const SinkSettings& settings) {
    return settings.sPipeName.empty() ? PipeListener::openUnique(settings.group)
                                      : PipeListener::openNamed(settings.sPipeName, settings.group);
}

VornString addressOf(const PipeListener& listener) {
    return cPrefix + listener.name();
}

} // namespace

PipeSource::PipeSource(const SinkSettings& settings, SinkAddress& address)
    : m_settings(settings), m_address(address), m_listener(open(settings)) {}

PipeSource::~PipeSource() {
    m_listener.removeFile();
}

std::unique_ptr<IncomingNotification> PipeSource::prepare() const {
    auto spNext = std::make_unique<PipeNotification>(cAccessRights, m_settings.nMessageLimit);
    spNext->content()->setSender(VornString(), true);
    return spNext;
}

NotificationSource::Arrival PipeSource::accept(IncomingNotification& next) {
    Arrival arrival = Arrival::nothing;
    while (!m_former.empty() && arrival == Arrival::nothing) {
        arrival = acceptFrom(m_former.front().descriptor(), next, nullptr);
        if (arrival == Arrival::nothing)
            m_former.erase(m_former.begin());
    }
    if (arrival == Arrival::nothing)
        arrival = acceptFrom(m_listener.descriptor(), next, nullptr);
    if (arrival == Arrival::accepted && !m_settings.senders.admitsPeer(next.descriptor()))
        static_cast<PipeNotification&>(next).refuse();
    return arrival;
}

VornString PipeSource::address() const {
    return addressOf(m_listener);
}

void PipeSource::look() {
    const PipeListener::File file = m_listener.look();
    try {
        if (file == PipeListener::File::gone || file == PipeListener::File::foreign)
            reopen(file);
    } catch (const std::exception&) { // the directory is gone, too, or there is no descriptor or memory
    }
    m_address.tell();
}

void PipeSource::reopen(PipeListener::File file) {
    m_former.reserve(m_former.size() + 1);
    try {
        if (file == PipeListener::File::gone) {
            m_former.push_back(
                std::exchange(m_listener, PipeListener::openFree(m_listener.name(), m_settings.group)));
            return;
        }
    } catch (const std::system_error& error) {
        if (error.code().value() != EADDRINUSE)
            throw;
    }
    // What can fail comes first: a file that is not told of would stay.
    VornString sAddress = cPrefix;
    sAddress.reserve(cLongestAddress);
    PipeListener fresh = PipeListener::openUnique(m_settings.group);
    m_address.change(std::move(sAddress.append(fresh.name())));
    m_former.push_back(std::exchange(m_listener, std::move(fresh)));
}

} // namespace VornNet
