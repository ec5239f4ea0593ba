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


def framed(data):
    """As one chunk of an HTTP/1.1 body."""
    return b"%x\r\n%b\r\n" % (len(data), data)


class Client:
    """One open stream, whose answer's head has been sent. What comes for it goes straight to its connection: a task for each of
    two hundred watchers would take longer to wake than the event takes to write."""

    def __init__(self, transport, chunked):
        self.ended = asyncio.Event()
        self.transport = transport
        self.chunked = chunked
        self._left = 0
        self._stuck_since = None

    @property
    def gone(self):
        return self.transport.is_closing()

    @property
    def waiting(self):
        """Bytes that the connection has not taken yet."""
        return self.transport.get_write_buffer_size()

    def is_stuck(self, tick):
        """Whether it has taken nothing for too long; to be asked now and then."""
        if not self.waiting or self.waiting < self._left:
            self._stuck_since = None
        elif self._stuck_since is None:
            self._stuck_since = tick
        self._left = self.waiting
        return self._stuck_since is not None and tick - self._stuck_since > PATIENCE_SECONDS


class Hub:
    def __init__(self):
        self.clients = set()
        self.giving = set()  # connections that take a long answer, at their own pace
        self.dropped = 0
        self._gathered = []

    def has_room(self):
        for client in [client for client in self.clients if client.gone]:
            self._end(client)
        return len(self.clients) < MOST_CLIENTS

    def broadcast(self, data):
        """To everybody, within GATHER_SECONDS: what comes close together is written together."""
        if not self.clients:
            return
        if not self._gathered:
            asyncio.get_running_loop().call_later(GATHER_SECONDS, self._flush)
        self._gathered.append(data)

    def _flush(self):
        data, self._gathered = b"".join(self._gathered), []
        chunk = framed(data)
        for client in list(self.clients):
            if client.gone:
                self._end(client)
            elif client.waiting + len(chunk) > MOST_WAITING:
                self._drop(client)
            else:
                client.transport.write(chunk if client.chunked else data)

    def sweep(self, tick):
        """Drops those whose connection has taken nothing for too long."""
        for client in list(self.clients):
            if client.gone:
                self._end(client)
            elif client.is_stuck(tick):
                self._drop(client)

    def _drop(self, client):
        self.dropped += 1
        client.transport.abort()
        self._end(client)

    def _end(self, client):
        self.clients.discard(client)
        client.ended.set()

    def close(self):
        for client in list(self.clients):
            self._end(client)
