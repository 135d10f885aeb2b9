#include "common/Footprint.h"

namespace VtxQel
{

namespace
{

std::size_t FootprintOf(const RmqTable& table);

/** What a string has on the heap, roughly; short ones have nothing there. */
std::size_t FootprintOf(const std::string& text)
{
    constexpr std::size_t INSIDE = 15;
    return text.size() > INSIDE ? text.size() : 0;
}

std::size_t FootprintOf(const RmqValue& value)
{
    if (const auto* text = std::get_if<std::string>(&value.value))
    {
        return FootprintOf(*text);
    }
    if (const auto* table = std::get_if<RmqTable>(&value.value))
    {
        return FootprintOf(*table);
    }
    std::size_t all = 0;
    if (const auto* array = std::get_if<RmqArray>(&value.value))
    {
        for (const RmqValue& item : *array)
        {
            all += sizeof(item) + FootprintOf(item);
        }
    }
    return all;
}

std::size_t FootprintOf(const RmqTable& table)
{
    std::size_t all = 0;
    for (const auto& entry : table)
    {
        all += sizeof(entry) + FootprintOf(entry.first) + FootprintOf(entry.second);
    }
    return all;
}

} // namespace

std::size_t FootprintOf(const RmqProperties& properties)
{
    // The other strings have 255 bytes at most.
    return FootprintOf(properties.headers);
}

} // namespace VtxQel
