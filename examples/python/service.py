"""Answers each request with its text in capitals: service.py APPLICATION"""

import sys

import qel_client as qel

with qel.Client(sys.argv[1]) as client:

    def answer(request):
        if not request.reply_to:
            raise qel.Dead("the request does not say where the answer is to go")
        # The request is done when the broker has the answer: killed in between, we answer it again.
        client.reply(request, request.body.decode().upper())

    client.stop_on_signals()
    client.run(answer)
