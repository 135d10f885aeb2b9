#include "agent/ConfigurationSize.h"

#include "common/QelException.h"
#include "common/SFormat.h"

#include <google/protobuf/io/coded_stream.h>

namespace VtxQel
{

namespace
{

/** Passes over one field; `false` at the end and where the encoding makes no sense. */
bool PassOverField(google::protobuf::io::CodedInputStream& input)
{
    constexpr std::uint32_t WIRE_TYPE = 7;
    const std::uint32_t tag = input.ReadTag();
    std::uint64_t number = 0;
    std::uint32_t length = 0;
    switch (tag & WIRE_TYPE)
    {
    case 0:
        return tag != 0 && input.ReadVarint64(&number);
    case 1:
        return input.Skip(8);
    case 2:
        return input.ReadVarint32(&length) && length <= MOST_CONFIGURATION_BYTES &&
               input.Skip(static_cast<int>(length));
    case 5:
        return input.Skip(4);
    default:
        // A group's beginning or end; the fields between count one by one.
        return true;
    }
}

} // namespace

void CheckConfigurationSize(const std::uint8_t* bytes, std::size_t length)
{
    if (length > MOST_CONFIGURATION_BYTES)
    {
        throw RmqMessageException(
            SFormat("the configuration has %zu bytes; at most %zu are taken", length, MOST_CONFIGURATION_BYTES));
    }
    google::protobuf::io::CodedInputStream input(bytes, static_cast<int>(length));
    std::size_t entries = 0;
    while (PassOverField(input))
    {
        if (++entries > MOST_CONFIGURATION_ENTRIES)
        {
            throw RmqMessageException(
                SFormat("the configuration has more than %zu topics and queues", MOST_CONFIGURATION_ENTRIES));
        }
    }
}

} // namespace VtxQel
