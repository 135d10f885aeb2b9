#include "broker/HeaderCheck.h"

#include <cstdint>

namespace VtxQel
{

namespace
{

constexpr unsigned CONTENT_TYPE_FLAG = 1U << 15U;
constexpr unsigned CONTENT_ENCODING_FLAG = 1U << 14U;
constexpr unsigned HEADERS_FLAG = 1U << 13U;
constexpr unsigned MORE_FLAGS = 1U;

/** Why the headers are refused. */
struct Refusal
{
    const char* why;
};

/** Reads encoded bytes in order; runs out with a Refusal. */
class Cursor
{
  public:
    explicit Cursor(std::string_view bytes) : m_bytes(bytes) {}

    bool AtEnd() const { return m_bytes.empty(); }

    std::string_view Take(std::size_t count)
    {
        if (count > m_bytes.size())
        {
            throw Refusal{"malformed headers"};
        }
        const std::string_view taken = m_bytes.substr(0, count);
        m_bytes.remove_prefix(count);
        return taken;
    }

    std::uint32_t Number(std::size_t octets)
    {
        std::uint32_t number = 0;
        for (const char octet : Take(octets))
        {
            number = number << 8U | static_cast<std::uint8_t>(octet);
        }
        return number;
    }

  private:
    std::string_view m_bytes;
};

/** How many octets a value of this kind has behind its kind octet. */
std::size_t FixedSize(char kind)
{
    switch (kind)
    {
    case 'V':
        return 0;
    case 't':
    case 'b':
    case 'B':
        return 1;
    case 's':
    case 'u':
        return 2;
    case 'I':
    case 'i':
    case 'f':
        return 4;
    case 'D':
        return 5;
    case 'l':
    case 'L':
    case 'd':
    case 'T':
        return 8;
    default:
        throw Refusal{"unknown kind of value in the headers"};
    }
}

/** Walks over a table (named values) or an array; the depth is bounded, so the recursion is. */
void Walk(std::string_view container, bool named, std::size_t depth)
{
    if (depth > MAX_HEADER_DEPTH)
    {
        throw Refusal{"headers nested too deeply"};
    }
    Cursor cursor(container);
    while (!cursor.AtEnd())
    {
        if (named)
        {
            cursor.Take(cursor.Number(1));
        }
        const char kind = cursor.Take(1).front();
        if (kind == 'F' || kind == 'A')
        {
            Walk(cursor.Take(cursor.Number(4)), kind == 'F', depth + 1);
        }
        else if (kind == 'S' || kind == 'x')
        {
            cursor.Take(cursor.Number(4));
        }
        else
        {
            cursor.Take(FixedSize(kind));
        }
    }
}

void CheckTable(Cursor& cursor)
{
    Walk(cursor.Take(cursor.Number(4)), true, 1);
}

void CheckProperties(Cursor cursor)
{
    const std::uint32_t flags = cursor.Number(2);
    if ((flags & MORE_FLAGS) != 0)
    {
        throw Refusal{"unknown message properties"};
    }
    if ((flags & CONTENT_TYPE_FLAG) != 0)
    {
        cursor.Take(cursor.Number(1));
    }
    if ((flags & CONTENT_ENCODING_FLAG) != 0)
    {
        cursor.Take(cursor.Number(1));
    }
    if ((flags & HEADERS_FLAG) != 0)
    {
        CheckTable(cursor);
    }
}

template <class Check>
std::string Refuse(Check check)
{
    try
    {
        check();
        return {};
    }
    catch (const Refusal& refusal)
    {
        return refusal.why;
    }
}

} // namespace

std::string RefuseHeaders(std::string_view encoded)
{
    return Refuse([encoded] { CheckProperties(Cursor(encoded)); });
}

std::string RefuseTable(std::string_view encoded)
{
    Cursor cursor(encoded);
    return Refuse([&cursor] { CheckTable(cursor); });
}

} // namespace VtxQel
