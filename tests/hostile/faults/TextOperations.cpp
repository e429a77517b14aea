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

void addStrings(Operations& table) {
    table.add("VornStringToChar", allocatesNothing, [](Trial& trial) {
        std::array<char, 64> buffer;
        trial.attempt([&] { VornStringToChar(cLong, buffer.data(), buffer.size()); });
    });
    table.add("VornStringFromChar", throwsBadAlloc, [] { VornStringFromChar(cLong.c_str()); });
    table.add("VornStringToWide", throwsBadAlloc, [] { VornStringToWide(cLong); });
    table.add("VornStringToNarrow", throwsBadAlloc, [] { VornStringToNarrow(cWide); });
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

void addExceptions(Operations& table) {
    static const VornException source = withMessages(cOther, 2, 3);
    table.add("VornException::VornException, ~VornException (the call stack is left out when there is no "
              "memory for it)",
              throwsBadAlloc | doesWithout, [] { VornException(cLong, 1); });
    table.add("VornException::VornException (copy)", throwsBadAlloc, [] { VornException copy(source); });
    table.add("VornException::operator=", throwsBadAlloc,
              changing([](VornException& exception) { exception = source; }));
    table.add("VornException::getText", throwsBadAlloc,
              changing([](VornException& exception) { exception.getText(); }));
    table.add("VornException::getUText, getCode, setCode, getCallStack", allocatesNothing,
              changing([](VornException& exception) {
                  exception.getUText();
                  exception.setCode(exception.getCode());
                  exception.getCallStack();
              }));
    table.add("VornException::setText (narrow)", throwsBadAlloc,
              changing([](VornException& exception) { exception.setText(cOther); }));
    table.add("VornException::setText (wide)", throwsBadAlloc,
              changing([](VornException& exception) { exception.setText(cOtherWide); }));
    table.add("VornException::pushMessage", throwsBadAlloc,
              changing([](VornException& exception) { exception.pushMessage(cWide); }));
    table.add("VornException::popMessage", throwsBadAlloc,
              changing([](VornException& exception) { exception.popMessage(); }));
    table.add("VornException::getFormattedMessages", throwsBadAlloc,
              changing([](VornException& exception) { exception.getFormattedMessages(); }));
}

template <typename Exception>
void addResolution(Operations& table, const std::string& name) {
    table.add(name + "::" + name + ", ~" + name, throwsBadAlloc | doesWithout,
              [] { Exception exception(cLong); });
    table.add(name + "::operator=, " + name, "copy", throwsBadAlloc, [](Trial& trial) {
        const Exception source(cOther);
        Exception exception(cLong);
        const Look before(exception);
        trial.attempt([&] { exception = Exception(source); });
        trial.expect(!trial.hasThrown() || Look(exception) == before, "the exception is half changed");
    });
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

void addLogging(Operations& table) {
    table.add("endrecord, VornLogging::operator<<", doesWithout,
              logging(
                  [](VornLogging& logger) {
                      logger << setloglevel(VornLogging::cDebug) << cLong.c_str() << cOther << 'c'
                             << static_cast<short>(1) << 2 << 3L << endrecord;
                  },
                  VornLogging::cDebug));
    table.add("VornLogging::operator<< (without a level)", doesWithout,
              logging([](VornLogging& logger) { logger << cLong << endrecord; }, VornLogging::cUserOutput));
    table.add("VornLogging::setRecordHandler", throwsBadAlloc, [](Trial& trial) {
        bool isKept = false;
        VornLogging::setRecordHandler([&](int, const VornString&) { isKept = true; });
        trial.attempt([&] { VornLogging::setRecordHandler([](int, const VornString&) {}); });
        VornLogging::getInstance() << "record" << endrecord;
        trial.expect(isKept == trial.hasThrown(), "neither the old nor the new handler is in place");
        VornLogging::setRecordHandler({});
    });
    table.add("VornLogging::setLogLevel, setAccessAllowed, getLogLevel, isAdmitted, isAccessAllowed, "
              "getInstance",
              allocatesNothing, [](Trial& trial) {
                  VornLogging& logger = VornLogging::getInstance();
                  const int level = logger.getLogLevel();
                  trial.attempt([&] {
                      VornLogging::setAccessAllowed(VornLogging::isAccessAllowed());
                      logger.setLogLevel(VornLogging::isAdmitted(level) ? logger.getLogLevel() : level);
                  });
              });
}

} // namespace

void addTexts(Operations& table) {
    addStrings(table);
    addExceptions(table);
    addResolution<VornUnableToResolveAddressException>(table, "VornUnableToResolveAddressException");
    addResolution<VornUnableToResolveNameException>(table, "VornUnableToResolveNameException");
    addLogging(table);
}

} // namespace VornTest
