"""What the kill test and the fault run share: a free port, the replay lines they send (an id
of its own on every item of every road) and what the development gateway's store received."""
import json
import socket
import sqlite3

ROADS = ("events", "messages", "urls")
_NAMES = ["pageview", "audio", "like", "impression", "click", "search", "share", "repost"]


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def write_replay(path, base_url, prefix, events, messages, urls):
    """Gateway events, tracking-plan messages and promoted URLs, interleaved, the i-th of each
    road carrying the id f"{prefix}{i}"."""
    with open(path, "w") as out:
        for i in range(max(events, messages, urls)):
            item = f"{prefix}{i}"
            if i < events:
                out.write(json.dumps({"name": _NAMES[i % len(_NAMES)],
                                      "attributes": {"id": item, "position": i, "page_name": "stream:main",
                                                     "source": "stream"}}) + "\n")
            if i < messages:
                out.write(json.dumps({"track": "App Language Changed", "version": 1, "properties": {"value": item}}) + "\n")
            if i < urls:
                out.write(json.dumps({"name": "promoted_event",
                                      "attributes": {"url": f"{base_url}/track/run/{item}"}}) + "\n")


def message_id(message):
    return message.get("properties", {}).get("value")


def url_id(url):
    return url.rsplit("/", 1)[-1]


def received(db):
    """Every item the gateway stored in `db`, per road, as a list of ids (repeats kept)."""
    with sqlite3.connect(db, timeout=30) as connection:
        return {
            "events": [json.loads(p).get("id") for (p,) in connection.execute("SELECT payload FROM events")],
            "messages": [message_id(json.loads(m)) for (m,) in connection.execute("SELECT message FROM messages")],
            "urls": [url_id(t) for (t,) in connection.execute("SELECT target FROM tracking_requests")],
        }
