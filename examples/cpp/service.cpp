// Answers each request with its text in capitals: service APPLICATION
#include <algorithm>
#include <cctype>
#include <qel/Client.h>
#include <qel/StopOnSignals.h>

int main(int, char** arguments)
{
    qel::Client client(arguments[1]);
    const qel::StopOnSignals signals([&client] { client.Stop(); });
    client.Run(
        [&client](const qel::Message& request)
        {
            if (request.properties.replyTo.empty())
            {
                throw qel::Dead("the request does not say where the answer is to go");
            }
            std::string answer = request.body;
            std::transform(
                answer.begin(), answer.end(), answer.begin(),
                [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
            // The request is done when the broker has the answer: killed in between, we answer it again.
            client.Publish(qel::ReplyTo(request, answer));
        });
}
