"""Prints each message of an application: consumer.py APPLICATION"""

import sys

import qel_client as qel


def show(message):
    print(message.routing_key, message.body.decode(), flush=True)


with qel.Client(sys.argv[1]) as client:
    client.stop_on_signals()
    client.run(show)
