"""What is said on a session, without input or output: requests become bytes, bytes become events.

The state is one count for the ids, the part of a line that has come, and what the open subscriptions hold. Both clients
keep one Protocol each, write what it makes, and feed it what they read.
"""

from __future__ import annotations

import json
import os
from collections import Counter, deque
from dataclasses import dataclass, field
from typing import Any, Deque, Iterable, List, Mapping, Optional, Sequence, Tuple, Union

from ._errors import CallError, Disconnected, error_from

DEFAULT_PATH = "/run/tavrix/session.sock"
LONGEST_CLIENT_LINE = 65536  # with its newline, as the router takes it
LONGEST_SERVICE_LINE = 9 * 1024 * 1024
LONGEST_ANSWER = 16 * 1024 * 1024  # more than the router sends on one line
LARGEST_BATCH = 256
MOST_QUEUED = 1024  # notifications that a subscription keeps for its reader

USUAL = -1.0  # a call's time-out is the session's

LOST = "router.Lost"
RELOAD = "logger.ReloadConf"

Params = Optional[Mapping[str, Any]]

# By a method's first letters, as every service and the router choose it.
_CHANNELS = (
    ("d", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
    ("p", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
    ("en", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
    ("mz", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
    ("ev", "505a5451-3ef2-4618-8087-9a22b800a510"),
    ("i", "b4469f46-e963-42ef-9fd2-f978e73adc76"),
)
_DEFAULT_CHANNEL = "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"


@dataclass(frozen=True)
class Notification:
    """What somebody published, as subscribers get it."""

    method: str
    params: Any


@dataclass(frozen=True)
class Lost(Notification):
    """Stands where notifications were dropped, by the router or by this client, because nobody read them in time."""

    @property
    def count(self) -> int:
        count = self.params.get("count") if isinstance(self.params, dict) else None
        return count if isinstance(count, int) else 0


@dataclass(frozen=True)
class Response:
    """The answer to the request of this id: a result, or an error."""

    id: int
    result: Any
    error: Optional[CallError]


@dataclass(frozen=True)
class Request:
    """What a service is asked."""

    method: str
    params: Mapping[str, Any]
    transaction_id: Any


@dataclass(frozen=True)
class Refusal:
    """An error that answers no request of ours: a notification that the router does not take from this session."""

    error: CallError


Event = Union[Notification, Response, Request, Refusal]


def session_path(path: Optional[str]) -> str:
    """Where the router's session socket is."""
    return path or os.environ.get("TAVRIX_SESSION") or DEFAULT_PATH


def nobody_there(path: str, reason: OSError) -> Disconnected:
    """Says what to do about a router that cannot be reached."""
    if isinstance(reason, PermissionError):
        advice = "this user may not use it"
    else:
        advice = "is tavrix-routerd running, and is TAVRIX_SESSION its --session?"
    return Disconnected(f"no router at {path} ({reason.strerror or reason}): {advice}")


def channel_of(method: str) -> str:
    """The service channel that carries a method."""
    return next((channel for prefix, channel in _CHANNELS if method.startswith(prefix)), _DEFAULT_CHANNEL)


def registration(name: str, methods: Iterable[str]) -> dict[str, Any]:
    """The parameters of router.Register for a service that is asked over its session."""
    names = list(methods)
    channels = {channel_of(method): method for method in names}
    if len(channels) > 1:
        first, second, *_ = channels.values()
        raise ValueError(f"{first} and {second} are of two channels of the bus: they need two services")
    channel = next(iter(channels), _DEFAULT_CHANNEL)
    return {"name": name, "channel": channel, "publish": [], "methods": names, "direct": True}


def matches(pattern: str, method: str) -> bool:
    """Whether a pattern is the method's name, or the beginning of it followed by '*'."""
    return method.startswith(pattern[:-1]) if pattern.endswith("*") else method == pattern


@dataclass
class Inbox:
    """The notifications that one subscription has not read yet. Beyond the bound the newest are dropped and counted."""

    patterns: Tuple[str, ...]
    bound: int = MOST_QUEUED
    _queue: Deque[Notification] = field(default_factory=deque)
    _dropped: int = 0

    def put(self, notification: Notification) -> None:
        wanted = isinstance(notification, Lost) or any(matches(p, notification.method) for p in self.patterns)
        if not wanted:
            return
        if len(self._queue) < self.bound:
            self._tell_dropped()
            self._queue.append(notification)
        else:
            self._dropped += notification.count if isinstance(notification, Lost) else 1

    def take(self) -> Optional[Notification]:
        if not self._queue:
            self._tell_dropped()
        return self._queue.popleft() if self._queue else None

    def _tell_dropped(self) -> None:
        if self._dropped:
            self._queue.append(Lost(LOST, {"count": self._dropped}))
            self._dropped = 0


class Protocol:
    """One session's side of the conversation."""

    def __init__(self) -> None:
        self.lost = 0  # notifications that the router has dropped, all in all
        self.longest_line = LONGEST_CLIENT_LINE
        self._last_id = 0
        self._buffer = bytearray()
        self._searched = 0  # bytes of the buffer that hold no newline
        self._patterns: Counter[str] = Counter()
        self._inboxes: List[Inbox] = []

    # --- What is said ---

    def request(self, method: str, params: Params = None) -> Tuple[int, bytes]:
        """A request with an id of its own, and its line."""
        request = self._new_request(method, params)
        return request["id"], self._line(request)

    def batch(self, calls: Sequence[Tuple[str, Params]]) -> Tuple[List[int], bytes]:
        """Requests that travel together, and their line."""
        if not 0 < len(calls) <= LARGEST_BATCH:
            raise ValueError(f"a batch has 1 to {LARGEST_BATCH} calls, not {len(calls)}")
        requests = [self._new_request(method, params) for method, params in calls]
        return [request["id"] for request in requests], self._line(requests)

    def notification(self, method: str, params: Params = None) -> bytes:
        return self._line({"jsonrpc": "2.0", "method": method, "params": dict(params or {})})

    def reply(self, request: Request, result: Any) -> bytes:
        return self._line(self._response(request, "result", result))

    def refuse(self, request: Request, error: CallError) -> bytes:
        return self._line(self._response(request, "error", error.as_member()))

    # --- What is heard ---

    def feed(self, data: bytes) -> List[Event]:
        """The events in what was read; notifications are put into the inboxes as well."""
        self._buffer += data
        events: List[Event] = []
        while (end := self._buffer.find(b"\n", self._searched)) >= 0:
            line = bytes(self._buffer[:end])
            del self._buffer[: end + 1]
            self._searched = 0
            events += self._read_line(line)
        self._searched = len(self._buffer)
        if self._searched > LONGEST_ANSWER:
            raise Disconnected(f"the router sent a line of more than {LONGEST_ANSWER} bytes")
        return events

    # --- Subscriptions ---

    def open_inbox(self, patterns: Sequence[str]) -> Tuple[Inbox, List[str]]:
        """An inbox for these patterns, and those among them that the router has to be asked for."""
        if not patterns:
            raise ValueError("a subscription needs a pattern; '*' is everything")
        inbox = Inbox(tuple(patterns))
        self._inboxes.append(inbox)
        new = [pattern for pattern in inbox.patterns if not self._patterns[pattern]]
        self._patterns.update(inbox.patterns)
        return inbox, list(dict.fromkeys(new))

    def close_inbox(self, inbox: Inbox) -> List[str]:
        """Forgets an inbox; the patterns that nobody needs any more."""
        if not any(inbox is open_one for open_one in self._inboxes):
            return []
        self._inboxes = [open_one for open_one in self._inboxes if open_one is not inbox]
        self._patterns.subtract(inbox.patterns)
        unused = [pattern for pattern in dict.fromkeys(inbox.patterns) if not self._patterns[pattern]]
        for pattern in unused:
            del self._patterns[pattern]
        return unused

    # --- Lines ---

    def _new_request(self, method: str, params: Params) -> dict[str, Any]:
        self._last_id += 1
        return {"jsonrpc": "2.0", "method": method, "id": self._last_id, "params": dict(params or {})}

    @staticmethod
    def _response(request: Request, kind: str, value: Any) -> dict[str, Any]:
        return {"jsonrpc": "2.0", "id": request.method, kind: value, "transaction_id": request.transaction_id}

    def _line(self, message: Any) -> bytes:
        line = json.dumps(message, separators=(",", ":"), allow_nan=False).encode("ascii") + b"\n"
        if len(line) > self.longest_line:
            raise ValueError(f"the line has {len(line)} bytes, and a session takes {self.longest_line}")
        return line

    def _read_line(self, line: bytes) -> List[Event]:
        try:
            message = json.loads(line)
        except ValueError as error:
            raise Disconnected(f"the router sent a line that is not JSON: {error}") from error
        events = [self._read(part) for part in (message if isinstance(message, list) else [message])]
        return [event for event in events if event is not None]

    def _read(self, message: Any) -> Optional[Event]:
        if not isinstance(message, dict):
            return None
        if "method" in message:
            return self._read_call(message)
        error = error_from(message["error"]) if "error" in message else None
        if isinstance(message.get("id"), int):
            return Response(message["id"], message.get("result"), error)
        return Refusal(error) if error is not None else None

    def _read_call(self, message: Mapping[str, Any]) -> Event:
        method, params = str(message["method"]), message.get("params")
        if "id" in message:
            return Request(method, params if isinstance(params, dict) else {}, message.get("transaction_id"))
        notification = (Lost if method == LOST else Notification)(method, params)
        if isinstance(notification, Lost):
            self.lost += notification.count
        for inbox in self._inboxes:
            inbox.put(notification)
        return notification
