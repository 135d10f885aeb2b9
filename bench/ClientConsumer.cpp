// Takes every message by the C++ client and does nothing with it: qel_client_consumer SOCKET
#include <qel/Client.h>
#include <qel/StopOnSignals.h>

int main(int, char** arguments)
{
    qel::Options options;
    options.socket = arguments[1];
    qel::Client client("bench", options);
    const qel::StopOnSignals signals([&client] { client.Stop(); });
    client.Run([](const qel::Message&) {});
}
