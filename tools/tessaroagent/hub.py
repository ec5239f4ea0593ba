"""Those who watch: every event is encoded once and handed to all of them; whoever does not take it in time is dropped."""
import asyncio

MOST_CLIENTS = 256
MOST_WAITING = 256 << 10
PATIENCE_SECONDS = 10.0
GATHER_SECONDS = 0.03


def encoded(event, data, number=None):
    """One server-sent event; `data` is bytes without line ends."""
    head = f"id: {number}\n" if number is not None else ""
    return f"{head}event: {event}\ndata: ".encode() + data + b"\n\n"


class Client:
    """One open stream. `waiting` has not been handed to its connection yet."""

    def __init__(self, transport):
        self.transport = transport
        self.waiting = []
        self.size = 0
        self.woken = asyncio.Event()
        self.busy_since = None
        self.dropped = False

    def put(self, chunk):
        self.waiting.append(chunk)
        self.size += len(chunk)
        self.woken.set()

    def drop(self):
        self.dropped = True
        self.woken.set()
        if self.transport:
            self.transport.abort()


class Hub:
    def __init__(self):
        self.clients = set()
        self.dropped = 0
        self._gathered = []

    @property
    def full(self):
        return len(self.clients) >= MOST_CLIENTS

    def broadcast(self, chunk):
        """To everybody, within GATHER_SECONDS: what comes close together is written together."""
        if not self.clients:
            return
        if not self._gathered:
            asyncio.get_running_loop().call_later(GATHER_SECONDS, self._flush)
        self._gathered.append(chunk)

    def _flush(self):
        chunk, self._gathered = b"".join(self._gathered), []
        for client in list(self.clients):
            if client.size + len(chunk) > MOST_WAITING:
                self.drop(client)
            else:
                client.put(chunk)

    def sweep(self, tick):
        """Drops those whose connection has taken nothing for too long."""
        for client in list(self.clients):
            if client.busy_since is not None and tick - client.busy_since > PATIENCE_SECONDS:
                self.drop(client)

    def drop(self, client):
        self.dropped += 1
        self.clients.discard(client)
        client.drop()

    def close(self):
        for client in list(self.clients):
            self.clients.discard(client)
            client.dropped = True
            client.woken.set()

    async def serve(self, client, write, tick):
        """Hands a client what comes for it, until it is dropped or its connection ends."""
        while not client.dropped:
            await client.woken.wait()
            client.woken.clear()
            chunks, client.waiting = client.waiting, []
            if chunks and not client.dropped:
                client.busy_since = tick()
                await write(b"".join(chunks))
                client.busy_since = None
                client.size = sum(map(len, client.waiting))
