// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
// The table's rows for texts, exceptions and log records.

#include "Operations.h"

#include <VornException.h>
#include <VornLogging.h>
#include <VornString.h>
#include <VornUnableToResolveAddressException.h>
#include <VornUnableToResolveNameException.h>

#include <array>

using namespace VornNet;

namespace VornTest {

namespace {

/** A text that is too long for a place within the string itself. */
const VornString cLong(40, 'x');
const VornString cOther(50, 'y');
const VornUString cWide(40, L'x');
const VornUString cOtherWide(50, L'y');

Operations stringRows() {
    return {
        {{"VornStringToChar"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             std::array<char, 64> buffer;
             trial.attempt([&] { VornStringToChar(cLong, buffer.data(), buffer.size()); });
         }},
        {{"VornStringFromChar"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornStringFromChar(cLong.c_str()); }); }},
        {{"VornStringToWide"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornStringToWide(cLong); }); }},
        {{"VornStringToNarrow"},
         "",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornStringToNarrow(cWide); }); }},
    };
}

/** What there is to see of an exception. */
struct Look {
    explicit Look(const VornException& e)
        : text(e.getUText()), code(e.getCode()), callStack(e.getCallStack()),
          messages(e.getFormattedMessages()) {}

    bool operator==(const Look&) const = default;

    VornUString text;
    int code;
    VornString callStack;
    VornString messages;
};

VornException withMessages(const VornString& text, int code, int messages = 2) {
    VornException exception(text, code);
    for (int i = 0; i < messages; ++i)
        exception.pushMessage(cWide);
    return exception;
}

/** Changes an exception, which must stay as it was when that fails. */
template <typename Change>
std::function<void(Trial&)> changing(Change change) {
    return [change](Trial& trial) {
        VornException exception = withMessages(cLong, 1);
        const Look before(exception);
        trial.attempt([&] { change(exception); });
        trial.expect(!trial.hasThrown() || Look(exception) == before, "the exception is half changed");
    };
}

Operations exceptionRows() {
    static const VornException source = withMessages(cOther, 2, 3);
    return {
        {{"VornException::VornException", "VornException::~VornException"},
         "the call stack is left out when there is no memory for it",
         throwsBadAlloc | doesWithout,
         [](Trial& trial) { trial.attempt([] { VornException(cLong, 1); }); }},
        {{"VornException::VornException"},
         "copy",
         throwsBadAlloc,
         [](Trial& trial) { trial.attempt([] { VornException copy(source); }); }},
        {{"VornException::operator="}, "", throwsBadAlloc, changing([](VornException& exception) {
             exception = source;
         })},
        {{"VornException::getText"}, "", throwsBadAlloc, changing([](VornException& exception) {
             exception.getText();
         })},
        {{"VornException::getUText", "VornException::getCode", "VornException::setCode",
          "VornException::getCallStack"},
         "",
         allocatesNothing,
         changing([](VornException& exception) {
             exception.getUText();
             exception.setCode(exception.getCode());
             exception.getCallStack();
         })},
        {{"VornException::setText"}, "narrow", throwsBadAlloc, changing([](VornException& exception) {
             exception.setText(cOther);
         })},
        {{"VornException::setText"}, "wide", throwsBadAlloc, changing([](VornException& exception) {
             exception.setText(cOtherWide);
         })},
        {{"VornException::pushMessage"}, "", throwsBadAlloc, changing([](VornException& exception) {
             exception.pushMessage(cWide);
         })},
        {{"VornException::popMessage"}, "", throwsBadAlloc, changing([](VornException& exception) {
             exception.popMessage();
         })},
        {{"VornException::getFormattedMessages"}, "", throwsBadAlloc, changing([](VornException& exception) {
             exception.getFormattedMessages();
         })},
    };
}

template <typename Exception>
Operations resolutionRows(const std::string& name) {
    return {
        {{name + "::" + name, name + "::~" + name},
         "",
         throwsBadAlloc | doesWithout,
         [](Trial& trial) { trial.attempt([] { Exception exception(cLong); }); }},
        {{name + "::operator=", name + "::" + name},
         "copy",
         throwsBadAlloc,
         [](Trial& trial) {
             const Exception source(cOther);
             Exception exception(cLong);
             const Look before(exception);
             trial.attempt([&] { exception = Exception(source); });
             trial.expect(!trial.hasThrown() || Look(exception) == before, "the exception is half changed");
         }},
    };
}

/** How many records have reached the handler of the log, and at which level the last one. */
int g_records = 0;
int g_level = 0;

void keepRecord(int level, const VornString&) {
    ++g_records;
    g_level = level;
}

/** Writes a record, which may come whole, with pieces missing, or not at all; never at another level. */
template <typename Write>
std::function<void(Trial&)> logging(Write write, int level) {
    return [=](Trial& trial) {
        g_records = 0;
        VornLogging::setRecordHandler(keepRecord);
        trial.attempt([&] { write(VornLogging::getInstance()); });
        trial.expect(g_records == 0 || g_level == level, "the record came at another level");
        trial.expect(g_records <= 1, "the record came twice");
        VornLogging::setRecordHandler({});
    };
}

Operations loggingRows() {
    return {
        {{"VornLogging::operator<<", "endrecord"},
         "",
         doesWithout,
         logging(
             [](VornLogging& logger) {
                 logger << setloglevel(VornLogging::cDebug) << cLong.c_str() << cOther << 'c'
                        << static_cast<short>(1) << 2 << 3L << endrecord;
             },
             VornLogging::cDebug)},
        {{"VornLogging::operator<<"},
         "without a level",
         doesWithout,
         logging([](VornLogging& logger) { logger << cLong << endrecord; }, VornLogging::cUserOutput)},
        {{"VornLogging::setRecordHandler"},
         "",
         throwsBadAlloc,
         [](Trial& trial) {
             bool isKept = false;
             VornLogging::setRecordHandler([&](int, const VornString&) { isKept = true; });
             trial.attempt([&] { VornLogging::setRecordHandler([](int, const VornString&) {}); });
             VornLogging::getInstance() << "record" << endrecord;
             trial.expect(isKept == trial.hasThrown(), "neither the old nor the new handler is in place");
             VornLogging::setRecordHandler({});
         }},
        {{"VornLogging::setLogLevel", "VornLogging::setAccessAllowed", "VornLogging::getLogLevel",
          "VornLogging::isAdmitted", "VornLogging::isAccessAllowed", "VornLogging::getInstance"},
         "",
         allocatesNothing,
         [](Trial& trial) {
             VornLogging& logger = VornLogging::getInstance();
             const int level = logger.getLogLevel();
             trial.attempt([&] {
                 VornLogging::setAccessAllowed(VornLogging::isAccessAllowed());
                 logger.setLogLevel(VornLogging::isAdmitted(level) ? logger.getLogLevel() : level);
             });
         }},
    };
}

} // namespace

Operations textOperations() {
    Operations rows;
    for (const Operations& more :
         {stringRows(), exceptionRows(),
          resolutionRows<VornUnableToResolveAddressException>("VornUnableToResolveAddressException"),
          resolutionRows<VornUnableToResolveNameException>("VornUnableToResolveNameException"),
          loggingRows()})
        rows.insert(rows.end(), more.begin(), more.end());
    return rows;
}

} // namespace VornTest
