"""A TCP server in a thread of its own, with an event loop of its own."""

import asyncio
import threading


class LoopListener:
    """Listens on a free loopback port, `port`, for as long as the context lives.

    What is done with a connection is up to _accept() of the derived class, a coroutine that gets its reader and writer and
    runs on `_loop`.
    """

    def __init__(self, name):
        self.port = None
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._run, name=name, daemon=True)
        self._listening = threading.Event()

    def __enter__(self):
        self._thread.start()
        if not self._listening.wait(10):
            raise RuntimeError(f"{self._thread.name} does not listen")
        return self

    def __exit__(self, *_):
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(10)

    async def _accept(self, reader, writer):
        raise NotImplementedError

    def _run(self):
        asyncio.set_event_loop(self._loop)
        server = self._loop.run_until_complete(asyncio.start_server(self._accept, "127.0.0.1", 0))
        self.port = server.sockets[0].getsockname()[1]
        self._listening.set()
        self._loop.run_forever()
        server.close()
        tasks = asyncio.all_tasks(self._loop)
        for task in tasks:
            task.cancel()
        self._loop.run_until_complete(asyncio.gather(*tasks, return_exceptions=True))
        self._loop.run_until_complete(self._loop.shutdown_asyncgens())
        self._loop.close()
