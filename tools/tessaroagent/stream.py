"""The agent as others on the unit ask it: its stream of events, in the words of the server's interface. Needs no other package."""
import http.client
import json
import socket

from .fields import STATUS_KEYS

AGENT_SECONDS = 2.0
LARGEST_HEAD = 8192
LARGEST_EVENT = 1 << 20
ACTIONS = {"RESET": "reset", "DISARM": "disarm", "CCHANGE": "reconfigure"}  # what the agent calls them


class Ended(Exception):
    """The agent that was asked has ended."""


class AgentLink:
    """The agent's stream of events, in the words of the server's interface."""

    def __init__(self, address, token):
        self.address, self.token = address, token
        self.alive = False
        self.note = ""
        self.socket = socket.create_connection(address, AGENT_SECONDS)
        head = "".join(f"{name}: {value}\r\n" for name, value in self._headers().items())
        self.socket.sendall(f"GET /api/events HTTP/1.0\r\nHost: {address[0]}\r\n{head}\r\n".encode())
        answer, self.rest = self._head()
        self.status = int(answer.split(maxsplit=2)[1])
        if self.status != 200 or b"text/event-stream" not in answer:
            self.socket.close()
            raise OSError(f"the agent answers {self.status}" + (": --token-file is needed" if self.status == 401 else ""))
        self.socket.setblocking(False)

    def _headers(self):
        return {"Authorization": f"Bearer {self.token}"} if self.token else {}

    def _head(self):
        data = b""
        while b"\r\n\r\n" not in data:
            more = self.socket.recv(4096)
            if not more or len(data) > LARGEST_HEAD or not b"HTTP/1".startswith(data[:6]):
                raise OSError("no agent there")
            data += more
        answer, _, rest = data.partition(b"\r\n\r\n")
        return answer, rest

    def ask(self, text="GET"):
        """The agent asks by itself; what is more than a question goes through its control, with its confirmation."""
        if text == "GET":
            return
        try:
            status, answer = self._post(ACTIONS[text], {})
            if status == 202:
                status, answer = self._post(ACTIONS[text], {"confirm": json.loads(answer)["confirm"]})
            self.note = f"{text} was sent" if status == 200 else f"{text} was not sent: {answer.strip()}"
        except (OSError, ValueError, KeyError) as error:
            self.note = f"{text} was not sent: {error}"

    def _post(self, action, body):
        connection = http.client.HTTPConnection(*self.address, timeout=AGENT_SECONDS)
        try:
            connection.request("POST", f"/api/control/{action}", json.dumps(body),
                               {"Content-Type": "application/json", **self._headers()})
            answer = connection.getresponse()
            return answer.status, answer.read().decode("utf-8", "replace")
        finally:
            connection.close()

    @property
    def waiting(self):
        """Whether something came together with the answer's head."""
        return b"\n\n" in self.rest

    def datagrams(self):
        while True:
            *events, self.rest = self.rest.split(b"\n\n")
            for event in events:
                yield from self._event(dict(line.split(b": ", 1) for line in event.split(b"\n") if b": " in line))
            try:
                data = self.socket.recv(65536)
            except BlockingIOError:
                return
            except OSError:
                data = b""
            if not data or len(self.rest) > LARGEST_EVENT:
                raise Ended
            self.rest += data

    def _event(self, event):
        """What the server would have said: a status object, single members of it, or a sign of life."""
        kind, data = event.get(b"event"), json.loads(event.get(b"data", b"{}"))
        if kind == b"status":
            values = {key: value["value"] for key, value in data["values"].items()}
            self.alive = values.get("server") == "answers"
            known = {key: values[key] for key in STATUS_KEYS if values.get(key) is not None}
            if self.alive and known:
                yield json.dumps(known).encode()
        elif kind == b"change" and data["key"] == "server":
            self.alive = data["new"] == "answers"
        elif kind == b"change" and data["key"] in STATUS_KEYS and self.alive:
            yield json.dumps({data["key"]: data["new"]}).encode()
        elif kind == b"beat" and self.alive:
            yield b"NOTIFY"
