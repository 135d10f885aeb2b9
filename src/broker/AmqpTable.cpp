#include "broker/AmqpTable.h"

#include "broker/HeaderCheck.h"
#include "common/QelException.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace VtxQel
{

namespace
{

constexpr std::size_t POOL_PAGE = 4096;

amqp_table_t TableToAmqp(const RmqTable& table, AmqpPool& pool, std::size_t depth);

template <typename T>
const T& Get(const RmqValue& value)
{
    const T* held = std::get_if<T>(&value.value);
    if (held == nullptr)
    {
        throw RmqMessageException(std::string("header value does not fit its kind '") + value.kind + "'");
    }
    return *held;
}

amqp_field_value_t ValueToAmqp(const RmqValue& value, AmqpPool& pool, std::size_t depth)
{
    amqp_field_value_t out{};
    out.kind = static_cast<std::uint8_t>(value.kind);
    switch (value.kind)
    {
    case AMQP_FIELD_KIND_VOID:
        break;
    case AMQP_FIELD_KIND_BOOLEAN:
        out.value.boolean = Get<bool>(value) ? 1 : 0;
        break;
    case AMQP_FIELD_KIND_I8:
        out.value.i8 = static_cast<std::int8_t>(Get<std::int64_t>(value));
        break;
    case AMQP_FIELD_KIND_I16:
        out.value.i16 = static_cast<std::int16_t>(Get<std::int64_t>(value));
        break;
    case AMQP_FIELD_KIND_I32:
        out.value.i32 = static_cast<std::int32_t>(Get<std::int64_t>(value));
        break;
    case AMQP_FIELD_KIND_I64:
        out.value.i64 = Get<std::int64_t>(value);
        break;
    case AMQP_FIELD_KIND_U8:
        out.value.u8 = static_cast<std::uint8_t>(Get<std::uint64_t>(value));
        break;
    case AMQP_FIELD_KIND_U16:
        out.value.u16 = static_cast<std::uint16_t>(Get<std::uint64_t>(value));
        break;
    case AMQP_FIELD_KIND_U32:
        out.value.u32 = static_cast<std::uint32_t>(Get<std::uint64_t>(value));
        break;
    case AMQP_FIELD_KIND_U64:
    case AMQP_FIELD_KIND_TIMESTAMP:
        out.value.u64 = Get<std::uint64_t>(value);
        break;
    case AMQP_FIELD_KIND_F32:
        out.value.f32 = static_cast<float>(Get<double>(value));
        break;
    case AMQP_FIELD_KIND_F64:
        out.value.f64 = Get<double>(value);
        break;
    case AMQP_FIELD_KIND_DECIMAL:
        out.value.decimal = {Get<RmqDecimal>(value).decimals, Get<RmqDecimal>(value).value};
        break;
    case AMQP_FIELD_KIND_UTF8:
    case AMQP_FIELD_KIND_BYTES:
        out.value.bytes = ToAmqp(Get<std::string>(value));
        break;
    case AMQP_FIELD_KIND_TABLE:
        out.value.table = TableToAmqp(Get<RmqTable>(value), pool, depth + 1);
        break;
    case AMQP_FIELD_KIND_ARRAY:
    {
        const RmqArray& array = Get<RmqArray>(value);
        out.value.array.num_entries = static_cast<int>(array.size());
        out.value.array.entries = pool.Allocate<amqp_field_value_t>(array.size());
        for (std::size_t i = 0; i < array.size(); ++i)
        {
            // An array counts as a level of nesting: a table in it recurses through here again.
            out.value.array.entries[i] = depth < MAX_HEADER_DEPTH
                                             ? ValueToAmqp(array[i], pool, depth + 1)
                                             : throw RmqMessageException("headers nested too deeply");
        }
        break;
    }
    default:
        throw RmqMessageException(std::string("unknown kind of header value '") + value.kind + "'");
    }
    return out;
}

amqp_table_t TableToAmqp(const RmqTable& table, AmqpPool& pool, std::size_t depth)
{
    if (depth > MAX_HEADER_DEPTH)
    {
        throw RmqMessageException("headers nested too deeply");
    }
    amqp_table_t out{static_cast<int>(table.size()), pool.Allocate<amqp_table_entry_t>(table.size())};
    for (std::size_t i = 0; i < table.size(); ++i)
    {
        if (table[i].first.size() > 255)
        {
            throw RmqMessageException("header name longer than 255 bytes");
        }
        out.entries[i] = {ToAmqp(table[i].first), ValueToAmqp(table[i].second, pool, depth)};
    }
    return out;
}

RmqValue ValueFromAmqp(const amqp_field_value_t& in)
{
    RmqValue out;
    out.kind = static_cast<char>(in.kind);
    switch (in.kind)
    {
    case AMQP_FIELD_KIND_BOOLEAN:
        out.value = in.value.boolean != 0;
        break;
    case AMQP_FIELD_KIND_I8:
        out.value = std::int64_t{in.value.i8};
        break;
    case AMQP_FIELD_KIND_I16:
        out.value = std::int64_t{in.value.i16};
        break;
    case AMQP_FIELD_KIND_I32:
        out.value = std::int64_t{in.value.i32};
        break;
    case AMQP_FIELD_KIND_I64:
        out.value = std::int64_t{in.value.i64};
        break;
    case AMQP_FIELD_KIND_U8:
        out.value = std::uint64_t{in.value.u8};
        break;
    case AMQP_FIELD_KIND_U16:
        out.value = std::uint64_t{in.value.u16};
        break;
    case AMQP_FIELD_KIND_U32:
        out.value = std::uint64_t{in.value.u32};
        break;
    case AMQP_FIELD_KIND_U64:
    case AMQP_FIELD_KIND_TIMESTAMP:
        out.value = std::uint64_t{in.value.u64};
        break;
    case AMQP_FIELD_KIND_F32:
        out.value = double{in.value.f32};
        break;
    case AMQP_FIELD_KIND_F64:
        out.value = in.value.f64;
        break;
    case AMQP_FIELD_KIND_DECIMAL:
        out.value = RmqDecimal{in.value.decimal.decimals, in.value.decimal.value};
        break;
    case AMQP_FIELD_KIND_UTF8:
    case AMQP_FIELD_KIND_BYTES:
        out.value = FromAmqp(in.value.bytes);
        break;
    case AMQP_FIELD_KIND_TABLE:
        out.value = FromAmqp(in.value.table);
        break;
    case AMQP_FIELD_KIND_ARRAY:
    {
        RmqArray array;
        array.reserve(static_cast<std::size_t>(in.value.array.num_entries));
        for (int i = 0; i < in.value.array.num_entries; ++i)
        {
            array.push_back(ValueFromAmqp(in.value.array.entries[i]));
        }
        out.value = std::move(array);
        break;
    }
    default:
        out.kind = 'V';
        break;
    }
    return out;
}

/** Sets one string property and its flag when the string is not empty. */
void Put(const std::string& text, amqp_bytes_t& field, amqp_flags_t& flags, amqp_flags_t flag)
{
    if (text.size() > 255)
    {
        throw RmqMessageException("message property longer than 255 bytes");
    }
    if (!text.empty())
    {
        field = ToAmqp(text);
        flags |= flag;
    }
}

} // namespace

amqp_bytes_t ToAmqp(std::string_view text)
{
    // The library takes a pointer to non-const for both directions and only reads from it when encoding.
    return {text.size(), const_cast<char*>(text.data())};
}

std::string FromAmqp(amqp_bytes_t bytes)
{
    return bytes.len == 0 ? std::string() : std::string(static_cast<const char*>(bytes.bytes), bytes.len);
}

AmqpPool::AmqpPool()
{
    init_amqp_pool(&m_pool, POOL_PAGE);
}

AmqpPool::~AmqpPool()
{
    empty_amqp_pool(&m_pool);
}

void* AmqpPool::AllocateBytes(std::size_t size)
{
    void* memory = amqp_pool_alloc(&m_pool, std::max<std::size_t>(size, 1));
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return std::memset(memory, 0, size);
}

void AmqpPool::Recycle()
{
    recycle_amqp_pool(&m_pool);
}

amqp_table_t ToAmqp(const RmqTable& table, AmqpPool& pool)
{
    return TableToAmqp(table, pool, 1);
}

RmqTable FromAmqp(const amqp_table_t& table)
{
    RmqTable out;
    out.reserve(static_cast<std::size_t>(table.num_entries));
    for (int i = 0; i < table.num_entries; ++i)
    {
        out.emplace_back(FromAmqp(table.entries[i].key), ValueFromAmqp(table.entries[i].value));
    }
    return out;
}

amqp_basic_properties_t ToAmqp(const RmqProperties& properties, AmqpPool& pool)
{
    amqp_basic_properties_t out{};
    Put(properties.contentType, out.content_type, out._flags, AMQP_BASIC_CONTENT_TYPE_FLAG);
    Put(properties.contentEncoding, out.content_encoding, out._flags, AMQP_BASIC_CONTENT_ENCODING_FLAG);
    Put(properties.correlationId, out.correlation_id, out._flags, AMQP_BASIC_CORRELATION_ID_FLAG);
    Put(properties.replyTo, out.reply_to, out._flags, AMQP_BASIC_REPLY_TO_FLAG);
    Put(properties.expiration, out.expiration, out._flags, AMQP_BASIC_EXPIRATION_FLAG);
    Put(properties.messageId, out.message_id, out._flags, AMQP_BASIC_MESSAGE_ID_FLAG);
    Put(properties.type, out.type, out._flags, AMQP_BASIC_TYPE_FLAG);
    Put(properties.userId, out.user_id, out._flags, AMQP_BASIC_USER_ID_FLAG);
    Put(properties.appId, out.app_id, out._flags, AMQP_BASIC_APP_ID_FLAG);
    if (properties.deliveryMode)
    {
        out.delivery_mode = *properties.deliveryMode;
        out._flags |= AMQP_BASIC_DELIVERY_MODE_FLAG;
    }
    if (properties.priority)
    {
        out.priority = *properties.priority;
        out._flags |= AMQP_BASIC_PRIORITY_FLAG;
    }
    if (properties.timestamp)
    {
        out.timestamp = *properties.timestamp;
        out._flags |= AMQP_BASIC_TIMESTAMP_FLAG;
    }
    if (!properties.headers.empty())
    {
        out.headers = ToAmqp(properties.headers, pool);
        out._flags |= AMQP_BASIC_HEADERS_FLAG;
    }
    return out;
}

void FromAmqp(const amqp_basic_properties_t& encoded, RmqProperties& properties)
{
    // The decoder leaves fields without a flag as they were.
    const auto take = [&encoded](amqp_flags_t flag, amqp_bytes_t field, std::string& to)
    {
        if ((encoded._flags & flag) != 0)
        {
            to.assign(static_cast<const char*>(field.bytes), field.len);
        }
    };
    take(AMQP_BASIC_TYPE_FLAG, encoded.type, properties.type);
    take(AMQP_BASIC_REPLY_TO_FLAG, encoded.reply_to, properties.replyTo);
    take(AMQP_BASIC_CORRELATION_ID_FLAG, encoded.correlation_id, properties.correlationId);
    take(AMQP_BASIC_APP_ID_FLAG, encoded.app_id, properties.appId);
    take(AMQP_BASIC_MESSAGE_ID_FLAG, encoded.message_id, properties.messageId);
    take(AMQP_BASIC_USER_ID_FLAG, encoded.user_id, properties.userId);
    take(AMQP_BASIC_CONTENT_TYPE_FLAG, encoded.content_type, properties.contentType);
    take(AMQP_BASIC_CONTENT_ENCODING_FLAG, encoded.content_encoding, properties.contentEncoding);
    take(AMQP_BASIC_EXPIRATION_FLAG, encoded.expiration, properties.expiration);
    if ((encoded._flags & AMQP_BASIC_DELIVERY_MODE_FLAG) != 0)
    {
        properties.deliveryMode = encoded.delivery_mode;
    }
    if ((encoded._flags & AMQP_BASIC_PRIORITY_FLAG) != 0)
    {
        properties.priority = encoded.priority;
    }
    if ((encoded._flags & AMQP_BASIC_TIMESTAMP_FLAG) != 0)
    {
        properties.timestamp = encoded.timestamp;
    }
    if ((encoded._flags & AMQP_BASIC_HEADERS_FLAG) != 0)
    {
        properties.headers = FromAmqp(encoded.headers);
    }
}

} // namespace VtxQel
