// Publishes each line of its input: publisher APPLICATION EXCHANGE ROUTING-KEY. The application need not have attached.
#include <iostream>
#include <qel/Client.h>

int main(int, char** arguments)
{
    qel::Client client(arguments[1]);
    qel::Publication publication;
    publication.exchange = arguments[2];
    publication.routingKey = arguments[3];
    try
    {
        while (std::getline(std::cin, publication.body))
        {
            client.Publish(publication);
            std::cout << "published " << publication.body << std::endl;
        }
    }
    catch (const qel::PublishError& error)
    {
        std::cerr << error.what() << std::endl;
        return 1;
    }
}
