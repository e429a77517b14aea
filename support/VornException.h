// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNEXCEPTION_H
#define VORNEXCEPTION_H

#include "VornString.h"
#include "VornSupportExport.h"

#include <deque>

namespace VornSupport {

/**
 * The one exception type: a text that names class, operation and failure, and an error number.
 *
 * It is thrown by value and caught by reference. The call stack is taken where it is constructed; copies keep
 * it. On the way up, handlers may push further messages.
 *
 * Thread-safety: as any value: one thread at a time, or many that only read.
 * Blocking: none.
 * Ownership: all texts are copies.
 * Signals: none raised.
 * Errors: std::bad_alloc from operations that copy text; a call stack that cannot be taken is left empty.
 */
class VORNSUPT_API VornException {
public:
    /**
     * Takes text and number, and notes the call stack.
     * @param text   what failed, in full; kept byte for byte
     * @param nCode  the errno value of the failing call, 107 (ENOTCONN), or 0 where none applies
     */
    VornException(const VornString& text, int nCode);
    /** Copies member by member. */
    VornException(const VornException& source);
    /** Assigns member by member. */
    VornException& operator=(const VornException& source);

    virtual ~VornException();

    /** @return the text as it was given, byte for byte. */
    virtual VornString getText() const;

    /** @return the text in wide characters; valid until the text is set again. */
    virtual const VornUString& getUText() const { return m_sText; }

    /** Replaces the text; code, call stack and messages stay. */
    virtual void setText(const VornString& sText);

    /** @copydoc setText(const VornString&) */
    virtual void setText(const VornUString& sText) { m_sText = sText; }

    /** @return the error number (errno style), 0 where none applies. */
    virtual int getCode() const { return m_nCode; }

    /** Replaces the error number; the text stays. */
    virtual void setCode(int nCode) { m_nCode = nCode; }

    /** Adds @p sMessage as the newest of the further messages. */
    virtual void pushMessage(const VornUString& sMessage);

    /** Removes the newest further message. @return it as narrow text; an empty text when there is none. */
    virtual VornString popMessage();

    /**
     * @return one line for each frame of the place where the exception was constructed, innermost first, as
     *         "FILE(+0xOFFSET)" for addr2line(1); empty when it could not be taken
     */
    virtual const VornString& getCallStack() const { return m_sCallStack; }

    /** @return the further messages, newest first, each ended by a line feed; empty when there are none. */
    virtual VornString getFormattedMessages() const;

private:
    VornUString m_sText;
    int m_nCode;
    VornString m_sCallStack;
    std::deque<VornUString> m_messages;
};

} // namespace VornSupport

#endif
