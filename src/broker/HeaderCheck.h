#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace VtxQel
{

/** Tables and arrays may stand in one another this deep in the headers of a message. */
inline constexpr std::size_t MAX_HEADER_DEPTH = 32;

/**
 * Looks through the encoded basic properties of a message (the content header's payload behind the body size) before
 * they are decoded: the library's decoder recurses without a limit, so that a publisher could overflow our stack.
 * @return why the properties must not be decoded; empty when they may be.
 */
std::string RefuseHeaders(std::string_view encoded);

/** As RefuseHeaders, for an encoded table (its size and its entries) at the front of the bytes. */
std::string RefuseTable(std::string_view encoded);

} // namespace VtxQel
