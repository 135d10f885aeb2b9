"""What was published and what arrived, by our own numbers: the judge of everything else."""

import dataclasses
import threading
import time

PENDING, CONFIRMED, REFUSED, RETURNED, UNKNOWN, RETURNED_AS_WANTED = range(6)
STATE_NAMES = ("pending", "confirmed", "refused", "returned", "unknown", "returned as wanted")


@dataclasses.dataclass(frozen=True)
class Destination:
    """Where messages go and who has to get them.

    recipients  by application the broker's queue on its way: messages of one publisher in one queue keep their order
    """

    name: str
    exchange: str
    routing_key: str
    recipients: dict
    app_id: str = None


class Sent:
    """One publisher's messages: number n is destination[n] and state[n]. Written by the publisher's thread alone."""

    def __init__(self, file):
        self.destination = []
        self.state = bytearray()
        self.counts = [0] * len(STATE_NAMES)
        self.file = file


class Received:
    """What one application got of one publisher: how often each number came. Guarded by the ledger's lock."""

    def __init__(self):
        self.times = bytearray()
        self.scanned = 0
        self.last_in_queue = {}


class Ledger:
    """Numbers every message, notes every confirm and every delivery, in memory and in a file for each party.

    A message whose publish was not confirmed is owed to nobody; when it arrives all the same that is fine. A confirmed
    one is owed to each of its destination's recipients, at least once.
    """

    def __init__(self, folder, applications):
        folder.mkdir(parents=True, exist_ok=True)
        self._folder = folder
        self._applications = list(applications)
        self._lock = threading.Lock()
        self._sent = {}
        self._received = {name: {} for name in applications}
        self._files = {name: open(folder / f"received-{name}", "w", encoding="ascii") for name in applications}
        self.deliveries = dict.fromkeys(applications, 0)
        self.duplicates = dict.fromkeys(applications, 0)
        self.swaps = dict.fromkeys(applications, 0)
        self.strays = []

    def close(self):
        for file in [*self._files.values(), *(sent.file for sent in self._sent.values())]:
            file.close()

    def add_publisher(self, name):
        with self._lock:
            self._sent[name] = Sent(open(self._folder / f"published-{name}", "w", encoding="ascii"))
            for application in self._applications:
                self._received[application][name] = Received()

    def next_message(self, publisher, destination):
        """Takes the publisher's next number for a message that is about to be published; (message id, body)."""
        sent = self._sent[publisher]
        number = len(sent.state)
        sent.destination.append(destination)
        sent.counts[PENDING] += 1
        sent.state.append(PENDING)
        return f"{publisher}:{number}", f"{publisher}:{number} {destination.name}".encode()

    def settle(self, publisher, number, state):
        """Notes how a publish ended. What has ended stays so: a return comes before its confirm."""
        sent = self._sent[publisher]
        if sent.state[number] != PENDING:
            return
        sent.state[number] = state
        sent.counts[PENDING] -= 1
        sent.counts[state] += 1
        sent.file.write(f"{time.time():.3f} {number} {STATE_NAMES[state]} {sent.destination[number].name}\n")

    def arrive(self, application, instance, message_id, body, redelivered):
        """Notes a delivery to an application."""
        publisher, _, digits = message_id.partition(":")
        with self._lock:
            self._files[application].write(f"{time.time():.3f} {instance} {message_id} {int(redelivered)}\n")
            self.deliveries[application] += 1
            sent = self._sent.get(publisher)
            number = int(digits) if digits.isdigit() else -1
            if sent is None or not 0 <= number < len(sent.state):
                self.strays.append(f"{application} got {message_id!r}, which nobody has published")
                return
            destination = sent.destination[number]
            if application not in destination.recipients:
                self.strays.append(f"{application} got {message_id}, which is for {sorted(destination.recipients)}")
                return
            if body != f"{message_id} {destination.name}":
                self.strays.append(f"{application} got {message_id} with another body: {body!r}")
            self._count(application, publisher, number, destination.recipients[application])

    def _count(self, application, publisher, number, queue):
        received = self._received[application][publisher]
        if number >= len(received.times):
            received.times.extend(bytes(number + 1 - len(received.times)))
        if received.times[number]:
            self.duplicates[application] += 1
        elif number < received.last_in_queue.get(queue, -1):
            self.swaps[application] += 1
        else:
            received.last_in_queue[queue] = number
        received.times[number] = min(received.times[number] + 1, 255)

    def marks(self):
        """Where every publisher is now; for outstanding()."""
        return {name: len(sent.state) for name, sent in self._sent.items()}

    def confirmed(self, publisher=None):
        chosen = [self._sent[publisher]] if publisher else self._sent.values()
        return sum(sent.counts[CONFIRMED] for sent in chosen)

    def totals(self):
        """How many messages are in which state: {state name: count}."""
        return {name: sum(sent.counts[state] for sent in self._sent.values())
                for state, name in enumerate(STATE_NAMES)}

    def outstanding(self, marks):
        """Of the messages before `marks`, those with no confirm yet and those owed: [(application, message id)]."""
        open_ones = []
        with self._lock:
            for publisher, end in marks.items():
                for application in self._applications:
                    open_ones += self._outstanding(application, publisher, end)
        return open_ones

    def _outstanding(self, application, publisher, end):
        sent, received = self._sent[publisher], self._received[application][publisher]
        found = []
        for number in range(received.scanned, end):
            state = sent.state[number]
            if state == PENDING:
                found.append((None, f"{publisher}:{number}"))
            elif state == CONFIRMED and application in sent.destination[number].recipients \
                    and not (number < len(received.times) and received.times[number]):
                found.append((application, f"{publisher}:{number}"))
            elif not found:
                received.scanned = number + 1
        return found

    def describe(self, message_id):
        """A message's destination, for error messages."""
        publisher, _, number = message_id.partition(":")
        sent = self._sent[publisher]
        return f"{message_id} ({STATE_NAMES[sent.state[int(number)]]}, to {sent.destination[int(number)].name})"

    def unconfirmed_arrivals(self):
        """How many messages arrived although their publish was never confirmed."""
        with self._lock:
            return sum(1 for publishers in self._received.values() for publisher, received in publishers.items()
                       for number, times in enumerate(received.times)
                       if times and self._sent[publisher].state[number] not in (CONFIRMED, PENDING))
