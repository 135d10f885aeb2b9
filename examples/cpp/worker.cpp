// Each message names a file, whose size is printed: worker APPLICATION. A file that is not there yet is tried again,
// and given up after four tries; a name that cannot be a file's is given up at once.
#include <filesystem>
#include <iostream>
#include <qel/Client.h>
#include <qel/StopOnSignals.h>

namespace
{

constexpr unsigned mostTries = 4;

qel::Verdict Work(const qel::Message& message)
{
    const std::filesystem::path file(message.body);
    if (!file.is_absolute())
    {
        throw qel::Dead("the message is no absolute path");
    }
    if (!exists(file))
    {
        std::cout << "missing " << file.native() << std::endl;
        return message.tries + 1 < mostTries ? qel::Verdict::Retry(std::chrono::seconds(1))
                                             : qel::Verdict::Dead("no such file after several tries");
    }
    // Throws when it is gone meanwhile or cannot be read, which means: try again later.
    std::cout << "size " << file.native() << ' ' << file_size(file) << std::endl;
    return qel::Verdict::Done();
}

} // namespace

int main(int, char** arguments)
{
    qel::Client client(arguments[1]);
    const qel::StopOnSignals signals([&client] { client.Stop(); });
    client.Run(Work);
}
