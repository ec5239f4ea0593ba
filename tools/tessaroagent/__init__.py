"""What stands behind tessaro-agent: the one program beside the server that owns the port of the answers.

| Module | What it is |
|---|---|
| `fields` | the members of the status object and what their values mean; tessaro-top reads them here, too |
| `logbook` | the server's log lines in plain words, read from the operator's handbook |
| `unit` | what is known of the unit: values, problems, counts; no input or output |
| `history` | the newest changes of each kind, bounded, kept over a restart |
| `sources` | where it comes from: the UDP interface, the log, the relay's GPIO files, /proc |
| `hub` | those who watch: server-sent events, with slow readers dropped |
| `stream` | the other end of that: what tessaro-top asks |
| `metrics` | the same for Prometheus |
| `guard`, `web` | who may ask, and what is answered over HTTP |
| `application` | command line and the one event loop |
"""
