#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace VtxQel
{

struct RmqValue;

/** An AMQP field table (message headers, declare arguments): pairs in the order of the wire, names may repeat. */
using RmqTable = std::vector<std::pair<std::string, RmqValue>>;

/** An AMQP field array. */
using RmqArray = std::vector<RmqValue>;

/** An AMQP decimal: value divided by ten to the power of decimals. */
struct RmqDecimal
{
    std::uint8_t decimals = 0;
    std::uint32_t value = 0;

    bool operator==(const RmqDecimal&) const = default;
};

/**
 * One value of a field table. A plain value: copy it freely.
 *
 * `kind` is the type octet of the AMQP 0-9-1 errata table as RabbitMQ uses it (for example 't' boolean, 'I' 32-bit
 * signed, 'l' 64-bit signed, 'd' double, 'D' decimal, 'S' long string, 'x' bytes, 'T' timestamp in seconds, 'F' table,
 * 'A' array, 'V' void). It is kept so that a value that travels through us is encoded again as it came. Signed integers
 * of every width stand in the std::int64_t, unsigned ones and timestamps in the std::uint64_t, floats in the double.
 */
struct RmqValue
{
    char kind = 'V';
    std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, RmqDecimal, std::string, RmqTable, RmqArray>
        value;

    static RmqValue String(std::string text) { return {'S', std::move(text)}; }
    static RmqValue Integer(std::int64_t number) { return {'l', number}; }
    static RmqValue Boolean(bool yes) { return {'t', yes}; }
    static RmqValue Timestamp(std::uint64_t secondsSinceEpoch) { return {'T', secondsSinceEpoch}; }

    bool operator==(const RmqValue&) const = default;
};

} // namespace VtxQel
