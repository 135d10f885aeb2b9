#pragma once

#include "common/RmqMessage.h"
#include "common/RmqTable.h"

#include <amqp.h>

#include <string>
#include <string_view>

namespace VtxQel
{

/** The library's view of a string; valid while the string is. */
amqp_bytes_t ToAmqp(std::string_view text);
/** A copy of the library's bytes. */
std::string FromAmqp(amqp_bytes_t bytes);

/**
 * Memory in which the library's structures live: what was made from a pool is valid until Recycle() or destruction.
 * Used by one thread at a time.
 */
class AmqpPool
{
  public:
    AmqpPool();
    ~AmqpPool();
    AmqpPool(const AmqpPool&) = delete;
    AmqpPool& operator=(const AmqpPool&) = delete;

    amqp_pool_t* Get() { return &m_pool; }
    /** An array of `count` zeroed elements. @throws std::bad_alloc */
    template <typename T>
    T* Allocate(std::size_t count)
    {
        return static_cast<T*>(AllocateBytes(count * sizeof(T)));
    }
    void Recycle();

  private:
    void* AllocateBytes(std::size_t size);

    amqp_pool_t m_pool{};
};

/**
 * Between our tables and properties and the library's. The library's side points into ours (or into the pool), so ours
 * must outlive it. Kinds are kept; a value whose variant does not fit its kind throws RmqMessageException, as do tables
 * nested deeper than MAX_HEADER_DEPTH.
 */
amqp_table_t ToAmqp(const RmqTable& table, AmqpPool& pool);
RmqTable FromAmqp(const amqp_table_t& table);
amqp_basic_properties_t ToAmqp(const RmqProperties& properties, AmqpPool& pool);
/** @param properties without any yet: what is absent is left alone */
void FromAmqp(const amqp_basic_properties_t& encoded, RmqProperties& properties);

} // namespace VtxQel
