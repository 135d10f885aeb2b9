"""Says what the client module tells an application: probe.py APPLICATION WINDOW

Each line of its input is a command: `request`, or `publish BYTES EXCHANGE ROUTING-KEY [CUSTOMER]`, whose outcome it prints.
"""

import os
import sys
import threading

import qel_client as qel


def say(*words):
    print(*words, flush=True)


def tell_configuration(configuration):
    say("configuration", configuration.state, *configuration.topics)


def tell_welcome(welcome):
    say("welcome", welcome.application, welcome.window, welcome.ordering_key, welcome.configuration.state, welcome.broker)


def tell_message(message):
    say("message", message.routing_key, message.headers.get("customer", b"").decode(), len(message.body))


def obey(command, *words):
    try:
        if command == "request":
            say("in force", client.request_configuration().state)
            return
        size, exchange, routing_key, *customer = words
        headers = {"customer": customer[0]} if customer else None
        client.publish(exchange.strip("-"), routing_key, b"x" * int(size), headers=headers)
        say("published", size)
    except (qel.ConfigurationError, qel.PublishError) as error:
        say("error", type(error).__name__, error)


def obey_all():
    for line in sys.stdin:
        obey(*line.split())


client = qel.Client(sys.argv[1], window=int(sys.argv[2]), on_welcome=tell_welcome, on_configuration=tell_configuration,
                    on_broker=lambda state: say("broker", state))
client.stop_on_signals()
threading.Thread(target=obey_all, daemon=True).start()
try:
    client.run(tell_message)
except qel.AttachError as error:
    say("error", type(error).__name__, error)
# The other thread may wait for its input for ever.
os._exit(0)
