#include "Positions.h"

namespace VtxQel
{

void PositionTracker::Take(char byte)
{
    m_lastByte = m_next;
    if (byte == '\n')
    {
        ++m_next.line;
        m_next.column = 1;
    }
    else
    {
        ++m_next.column;
    }

    if (m_inString)
    {
        m_inString = m_escaped || byte != '"';
        m_escaped = !m_escaped && byte == '\\';
        return;
    }
    switch (byte)
    {
    case '"':
    case '{':
    case '[':
        m_inString = byte == '"';
        m_inWord = false;
        m_tokenStart = m_lastByte;
        return;
    case ' ':
    case '\t':
    case '\r':
    case '\n':
    case ',':
    case ':':
    case '}':
    case ']':
        m_inWord = false;
        return;
    default:
        if (!m_inWord)
        {
            m_inWord = true;
            m_tokenStart = m_lastByte;
        }
    }
}

} // namespace VtxQel
