"""Publishes each line of its input: publisher.py APPLICATION EXCHANGE ROUTING-KEY

The application need not have attached.
"""

import sys

import qel_client as qel

application, exchange, routing_key = sys.argv[1:]
with qel.Client(application) as client:
    for line in sys.stdin:
        body = line.rstrip("\n")
        client.publish(exchange, routing_key, body)
        print("published", body, flush=True)
