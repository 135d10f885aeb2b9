#pragma once

#include <cstddef>
#include <iterator>
#include <string>

namespace VtxQel
{

/** A place in a text, both counted from 1; columns count bytes. */
struct Position
{
    std::size_t line = 1;
    std::size_t column = 1;
};

/**
 * Knows where in a JSON text its reader is: fed with every byte that the reader takes, it keeps the place of the byte
 * and the place where the latest string, number, word, object or array began.
 */
class PositionTracker
{
  public:
    void Take(char byte);

    Position TokenStart() const { return m_tokenStart; }
    Position LastByte() const { return m_lastByte; }

  private:
    Position m_next;
    Position m_lastByte;
    Position m_tokenStart;
    bool m_inWord = false;
    bool m_inString = false;
    bool m_escaped = false;
};

/** An input iterator over a text that tells a PositionTracker, which must outlive it, about every byte it passes. */
class TrackedIterator
{
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    TrackedIterator(const char* at, PositionTracker* tracker) : m_at(at), m_tracker(tracker) {}

    const char& operator*() const { return *m_at; }
    TrackedIterator& operator++()
    {
        m_tracker->Take(*m_at);
        ++m_at;
        return *this;
    }
    TrackedIterator operator++(int)
    {
        TrackedIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const TrackedIterator& other) const { return m_at == other.m_at; }
    bool operator!=(const TrackedIterator& other) const { return m_at != other.m_at; }

  private:
    const char* m_at;
    PositionTracker* m_tracker;
};

} // namespace VtxQel
