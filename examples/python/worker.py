"""Each message names a file, whose size is printed: worker.py APPLICATION

A file that is not there yet is tried again, and given up after four tries; a name that cannot be a file's is given up at
once.
"""

import os
import sys

import qel_client as qel

MOST_TRIES = 4


def work(message):
    file = message.body.decode()
    if not os.path.isabs(file):
        raise qel.Dead("the message is no absolute path")
    if not os.path.exists(file):
        print("missing", file, flush=True)
        if message.tries + 1 < MOST_TRIES:
            return qel.Retry(delay=1.0)
        return qel.Dead("no such file after several tries")
    # Raises when it is gone meanwhile or cannot be read, which means: try again later.
    print("size", file, os.path.getsize(file), flush=True)
    return None


with qel.Client(sys.argv[1]) as client:
    client.stop_on_signals()
    client.run(work)
