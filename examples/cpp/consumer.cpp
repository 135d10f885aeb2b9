// Prints each message of an application: consumer APPLICATION
#include <iostream>
#include <qel/Client.h>
#include <qel/StopOnSignals.h>

int main(int, char** arguments)
{
    qel::Client client(arguments[1]);
    const qel::StopOnSignals signals([&client] { client.Stop(); });
    client.Run([](const qel::Message& message)
               { std::cout << message.routingKey << ' ' << message.body << std::endl; });
}
