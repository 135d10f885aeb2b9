#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace VtxQel::Fuzz
{

/** The fuzzer's input, read from the front; an input that has run out reads as zeros and empty texts. */
class Bytes
{
  public:
    Bytes(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool AtEnd() const { return m_rest.empty(); }

    std::uint8_t Octet()
    {
        const std::string_view octet = Take(1);
        return octet.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(octet.front());
    }
    /** At most `count` bytes. */
    std::string_view Take(std::size_t count)
    {
        const std::string_view taken = m_rest.substr(0, count);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    /** Everything up to the next newline, which goes as well. */
    std::string Line()
    {
        const std::size_t end = m_rest.find('\n');
        const std::string line(Take(end));
        Take(end == std::string_view::npos ? 0 : 1);
        return line;
    }
    std::string Rest() { return std::string(Take(m_rest.size())); }

  private:
    std::string_view m_rest;
};

/** The number that the bytes are in network order. */
inline std::uint32_t NumberIn(std::string_view bytes)
{
    std::uint32_t number = 0;
    for (const char octet : bytes)
    {
        number = number << 8U | static_cast<std::uint8_t>(octet);
    }
    return number;
}

} // namespace VtxQel::Fuzz
