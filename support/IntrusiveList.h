// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#ifndef VORNSUPPORT_INTRUSIVELIST_H
#define VORNSUPPORT_INTRUSIVELIST_H

namespace VornSupport {

/**
 * A list of objects that live elsewhere, mostly on the stacks of threads: it allocates nothing and owns
 * nothing. An element derives from Link and is in one list at a time. Not installed.
 *
 * Thread-safety: none; a lock of the user's guards list and elements.
 */
template <typename Element>
class IntrusiveList {
public:
    /** Base of the elements. */
    class Link {
    public:
        /** @return whether the element is in a list; a list that is cleared lets go of its elements. */
        bool isListed() const { return m_isListed; }

    private:
        friend class IntrusiveList;

        Element* m_previous = nullptr;
        Element* m_next = nullptr;
        bool m_isListed = false;
    };

    /** Goes through the elements from the oldest to the newest. */
    class Iterator {
    public:
        explicit Iterator(Element* element) : m_element(element) {}

        Element& operator*() const { return *m_element; }

        Iterator& operator++() {
            m_element = linkOf(*m_element).m_next;
            return *this;
        }

        bool operator!=(const Iterator& other) const { return m_element != other.m_element; }

    private:
        Element* m_element;
    };

    constexpr IntrusiveList() = default;
    IntrusiveList(const IntrusiveList&) = delete;
    IntrusiveList& operator=(const IntrusiveList&) = delete;

    Iterator begin() const { return Iterator(m_first); }

    Iterator end() const { return Iterator(nullptr); }

    void add(Element& element) {
        Link& link = linkOf(element);
        link.m_previous = m_last;
        link.m_isListed = true;
        (m_last == nullptr ? m_first : linkOf(*m_last).m_next) = &element;
        m_last = &element;
    }

    /** Does nothing with an element that is in no list: the child of a fork may have cleared it. */
    void remove(Element& element) {
        Link& link = linkOf(element);
        if (!link.m_isListed)
            return;
        (link.m_previous == nullptr ? m_first : linkOf(*link.m_previous).m_next) = link.m_next;
        (link.m_next == nullptr ? m_last : linkOf(*link.m_next).m_previous) = link.m_previous;
        link = Link();
    }

    void clear() {
        while (m_first != nullptr)
            remove(*m_first);
    }

    /** @return the oldest element for which the condition holds, or null. */
    template <typename Condition>
    Element* find(Condition&& condition) const {
        for (Element& element : *this) {
            if (condition(element))
                return &element;
        }
        return nullptr;
    }

private:
    static Link& linkOf(Element& element) { return element; }

    Element* m_first = nullptr;
    Element* m_last = nullptr;
};

} // namespace VornSupport

#endif
