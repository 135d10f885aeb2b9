#include "InputText.h"

#include "Failure.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

namespace VtxQel
{

std::string ReadInput(const std::string& file)
{
    std::ifstream opened;
    if (file != "-")
    {
        opened.open(file, std::ios::binary);
        if (!opened)
        {
            throw Failure(file + " cannot be read: " + std::strerror(errno));
        }
    }
    std::istream& input = file == "-" ? std::cin : opened;
    std::string text;
    std::string chunk(65536, '\0');
    while (input.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || input.gcount() > 0)
    {
        text.append(chunk, 0, static_cast<std::size_t>(input.gcount()));
    }
    if (input.bad())
    {
        throw Failure(file + " cannot be read to its end: " + std::strerror(errno));
    }
    return text;
}

} // namespace VtxQel
