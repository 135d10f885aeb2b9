"""Draining a filled queue: what the agent, a bare consumer and the peers are measured by.

Who drains is connected and halted while the queue is filled, then goes on: the broker keeps a queue that has a
consumer in another state than one that has none. A run counts when everything has arrived and the broker has nothing
left, unacknowledged messages included.
"""

import contextlib
import json
import os
import re
import signal
import subprocess

from testbed.processes import end, spawn, tail, wait_until

from .agents import new_agent, shown, wait_until_live
from .context import cpu_seconds, forget_most_resident, most_resident_mib

APPLICATION = "bench"
TYPE = "job"
PREFETCH = 1000


class Drain:
    """One queue, the agent's client queue, and the ways to drain it. Each run gives {"rate": messages/s, "cpu": us}.

    The processor time is that of the whole consuming process, from the first message to the last acknowledgement. Of the
    agent there are also "most", its memory in MiB at its most, and "parked", the messages that took that way.
    """

    def __init__(self, bench, queue_type, messages, body_bytes=256, prefetch=PREFETCH, tls=False):
        self.bench, self.node = bench, bench.node()
        self.messages, self.body_bytes, self.prefetch, self.tls = messages, body_bytes, prefetch, tls
        self.folder = bench.scratch(queue_type)
        # It is halted for as long as filling takes: the broker shall not mind, and it sends itself nothing then.
        self.agent = new_agent(bench, self.folder, queue_type, {APPLICATION: {"window": 2 * prefetch}},
                               tls=tls, prefetch=prefetch, heartbeat_seconds=300, loop_probe_seconds=0)
        self.queue = self.agent.client_queue
        self.output = self.folder / "out"
        self.body = self.folder / "body"
        self.body.write_bytes(b"x" * body_bytes)
        self.agent.start()  # declares the queue
        self.agent.stop()

    def through_the_agent(self, meanwhile=lambda _going_on: None):
        """Through the agent to an attached application's verdict.

        meanwhile  called with a function that tells whether it is still being drained
        """
        self.agent.start()
        consumer = self._spawn("bench/qel_attach_consumer", self.agent.socket(APPLICATION), self.messages)
        try:
            self._wait(lambda: "welcome" in self._printed(), "the application to be attached")
            wait_until_live(self.bench, self.agent, APPLICATION)
            forget_most_resident(self.agent.pid)
            with self._halted(self.agent.pid) as used:
                meanwhile(lambda: consumer.poll() is None)
                result = self._await_result(consumer)
                self.expect_left(0)
            memory = {"most": most_resident_mib(self.agent.pid),
                      "parked": shown(self.bench, self.agent, APPLICATION)["parked"]}
            if result["messages"] != self.messages:
                raise RuntimeError(f"{result['messages']} verdicts instead of {self.messages}")
        finally:
            end(consumer)
            self.agent.stop()
        self.bench.wait_for_no_connection(self.node)
        return {**self._figures(result["seconds"], used[0]), **memory}

    def bare(self, batch):
        """A consumer in C that does nothing but acknowledge, so many at a time."""
        broker, authorities = (self.node.tls_url(), [self.bench.authorities()]) if self.tls else (self.node.url(), [])
        consumer = self._spawn("bench/qel_bare_consumer", broker, self.queue, self.messages, self.prefetch, batch,
                               *authorities)
        try:
            with self._halted(consumer.pid):
                if consumer.wait(600) != 0:
                    raise RuntimeError(f"the bare consumer failed: {self._printed()}")
        finally:
            end(consumer, signal.SIGKILL)
        # It hangs up at once, and a quorum queue then takes messages back whose acknowledgement it has not dealt with.
        self.bench.wait_for_no_connection(self.node)
        self.node.ctl("purge_queue", self.queue)
        self.expect_left(0)
        rate, cost = re.match(r"([\d.]+) messages/s, ([\d.]+) us CPU per message", self._printed()).groups()
        return {"rate": float(rate), "cpu": float(cost)}

    def peer(self, command):
        """A program `command URL QUEUE PREFETCH SOCKET` that hands each message to the process behind the socket."""
        with self._peer(command, self.messages) as (process, server):
            with self._halted(process.pid) as used:
                result = self._await_result(server)
                self.expect_left(0)
            if result["bytes"] != self.messages * self.body_bytes:
                raise RuntimeError(f"the bodies had {result['bytes']} bytes: {self._printed()}")
        self.bench.wait_for_no_connection(self.node)
        return self._figures(result["seconds"], used[0])

    def check_peer(self, command, messages=300, answered=100):
        """That a peer tells by the type, and acknowledges what has a verdict and nothing else."""
        with self._peer(command, messages, answered):
            self._publish(1, "other")
            self._publish(messages, TYPE)
            self.expect_left(messages - answered, rejected=1)
        self.bench.wait_for_no_connection(self.node)
        for queue in (self.queue, self.agent.dead_letter_queue):
            self.node.ctl("purge_queue", queue)
        taken = json.loads(self._printed().splitlines()[-1])["taken"]
        if taken != messages:
            raise RuntimeError(f"the peer has handed over {taken} messages instead of {messages}")

    def expect_left(self, count, rejected=0):
        """The queue holds so many messages, unacknowledged ones included, and that of rejected ones; no other any.

        But for a parking queue, where a marker of an agent that has ended may be left; the next one takes it away.
        """
        wanted = {queue: number for queue, number in ((self.queue, count), (self.agent.dead_letter_queue, rejected))
                  if number}
        left = {}

        def as_wanted():
            left.clear()
            left.update({name: row["messages"] for name, row in self.node.list_queues().items()
                         if row["messages"] and ".parked." not in name})
            return left == wanted

        wait_until(as_wanted, f"the queues to hold {wanted}", 120, lambda: f"they hold {left}\n{self._printed()}")

    @contextlib.contextmanager
    def _peer(self, command, *server_arguments):
        """The peer and the process that does its work; both are gone at the end."""
        socket = self.folder / "worker.sock"
        socket.unlink(missing_ok=True)
        server = self._spawn("bench/qel_verdict_server", socket, *server_arguments)
        wait_until(socket.exists, "the worker to listen")
        with open(self.folder / "peer.out", "wb") as out:
            peer = spawn([*command, self.node.url(), self.queue, self.prefetch, socket], stdout=out, stderr=out)
        try:
            self._wait(lambda: self.node.list_consumers().get(self.queue), "the peer to consume")
            yield peer, server
            if peer.poll() is not None:
                raise RuntimeError(f"the peer has ended: {tail(self.folder / 'peer.out')}")
        finally:
            end(peer, signal.SIGKILL)
            wait_until(lambda: server.poll() is not None, "the worker to end")

    @contextlib.contextmanager
    def _halted(self, pid):
        """Fills the queue while the process is halted; gives a list that holds its processor time at the end."""
        self._wait(lambda: self.node.list_consumers().get(self.queue), "somebody to consume")
        used = []
        os.kill(pid, signal.SIGSTOP)
        try:
            self._publish(self.messages, TYPE)
            self.expect_left(self.messages)
            before = cpu_seconds(pid)
        finally:
            os.kill(pid, signal.SIGCONT)
        yield used
        with contextlib.suppress(OSError):  # it has ended, and tells itself what it used
            used.append(cpu_seconds(pid) - before)

    def _publish(self, count, kind):
        subprocess.run([self.bench.program("tools/qelctl/qelctl"), "publish", "--broker", self.node.url(),
                        "--routing-key", self.queue, "--app-id", APPLICATION, "--type", kind, "--persistent",
                        "--mandatory", "--count", str(count), "--body-file", self.body],
                       check=True, stdout=subprocess.DEVNULL, timeout=600)

    def _await_result(self, process):
        """The first line of JSON with "seconds" that the process prints."""
        def result():
            lines = [json.loads(line) for line in self._printed().splitlines() if '"seconds"' in line and "}" in line]
            if not lines and process.poll() is not None:
                raise RuntimeError(f"ended with status {process.returncode}: {self._printed()}{self.agent.log_tail()}")
            return lines[0] if lines else None

        return wait_until(result, "everything to be drained", 600, self._printed)

    def _spawn(self, program, *arguments):
        with open(self.output, "wb") as out:
            return spawn([self.bench.program(program), *arguments], stdout=out, stderr=out)

    def _printed(self):
        return self.output.read_text(encoding="utf-8")

    def _wait(self, condition, what):
        wait_until(condition, what, 60, lambda: self._printed() + self.agent.log_tail())

    def _figures(self, seconds, used):
        return {"rate": self.messages / seconds, "cpu": used * 1e6 / self.messages}
