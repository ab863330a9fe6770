"""The client that waits for its answers. One thread uses a session; others open their own."""

from __future__ import annotations

import logging
import socket
import time
from collections import deque
from types import TracebackType
from typing import Any, Callable, Deque, Dict, Iterator, List, Mapping, Optional, Sequence, Set, Tuple, Type, Union

from ._errors import INTERNAL_ERROR, METHOD_NOT_FOUND, CallError, CallTimeout, Disconnected
from ._protocol import (
    LONGEST_SERVICE_LINE,
    RELOAD,
    USUAL,
    Inbox,
    Notification,
    Params,
    Protocol,
    Refusal,
    Request,
    Response,
    nobody_there,
    registration,
    session_path,
)

Handler = Callable[[Mapping[str, Any]], Any]

_log = logging.getLogger("tavrix")
_READ_SIZE = 65536


class _Deadline:
    """A moment until which may be waited; None is for ever."""

    def __init__(self, timeout: Optional[float]) -> None:
        self._end = None if timeout is None else time.monotonic() + timeout

    def left(self) -> Optional[float]:
        """Seconds that are left, None for any number; TimeoutError when there are none."""
        if self._end is None:
            return None
        left = self._end - time.monotonic()
        if left <= 0:
            raise TimeoutError
        return left


class Session:
    """A session with the router, by default at $TAVRIX_SESSION or /run/tavrix/session.sock.

    `timeout` is the number of seconds that a call may take unless it says otherwise; None waits for ever.
    """

    def __init__(self, path: Optional[str] = None, *, timeout: Optional[float] = 30.0) -> None:
        self.timeout = timeout
        self._protocol = Protocol()
        self._awaited: Set[int] = set()
        self._responses: Dict[int, Response] = {}
        self._requests: Deque[Request] = deque()
        self._handlers: Dict[str, Handler] = {}
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(timeout)
        where = session_path(path)
        try:
            self._socket.connect(where)
        except OSError as reason:
            self._socket.close()
            raise nobody_there(where, reason) from reason

    # --- Calls ---

    def call(self, method: str, params: Params = None, *, timeout: Optional[float] = USUAL) -> Any:
        """The result of a method. CallError when the answer is an error, CallTimeout when there is none in time."""
        number, line = self._protocol.request(method, params)
        response = self._ask([number], line, timeout)[0]
        if response.error is not None:
            raise response.error
        return response.result

    def batch(
        self, calls: Sequence[Tuple[str, Params]], *, timeout: Optional[float] = USUAL
    ) -> List[Union[Any, CallError]]:
        """Several calls at once. In their order the results, and a CallError in the place of one that failed."""
        if not calls:
            return []
        numbers, line = self._protocol.batch(calls)
        responses = self._ask(numbers, line, timeout)
        return [response.result if response.error is None else response.error for response in responses]

    # --- Notifications ---

    def subscribe(self, *patterns: str) -> Subscription:
        """What is published from now on by methods that match: a name, or the beginning of one followed by '*'."""
        inbox, new = self._protocol.open_inbox(patterns)
        try:
            if new:
                self.call("router.Subscribe", {"methods": new})
        except Exception:
            self._protocol.close_inbox(inbox)
            raise
        return Subscription(self, inbox)

    def notify(self, method: str, params: Params = None) -> None:
        """Publishes a notification. The router takes them from services, so the session has to be registered."""
        if not self._handlers:
            raise RuntimeError("only a registered service may publish: call register() first")
        self._send(self._protocol.notification(method, params), _Deadline(self.timeout))

    @property
    def lost(self) -> int:
        """Notifications that the router has dropped because this session did not read them in time."""
        return self._protocol.lost

    # --- A service ---

    def register(self, name: str, handlers: Mapping[str, Handler]) -> None:
        """Offers methods. They are answered while serve() runs, by handlers that get the params and give the result."""
        if not handlers:
            raise ValueError("a service needs a method")
        self.call("router.Register", registration(name, handlers))
        self._protocol.longest_line = LONGEST_SERVICE_LINE
        self._handlers = dict(handlers)

    def serve(self, timeout: Optional[float] = None) -> None:
        """Answers requests until the time has passed; without one, until the session ends (Disconnected)."""
        deadline = _Deadline(timeout)
        while True:
            while self._requests:
                self._answer(self._requests.popleft())
            try:
                self._read(deadline)
            except TimeoutError:
                return

    def _answer(self, request: Request) -> None:
        handler = self._handlers.get(request.method)
        if handler is None and request.method == RELOAD:
            return  # has no log level to read again, and leaves the answer to those that have
        try:
            if handler is None:
                raise CallError(METHOD_NOT_FOUND, "Method not found")
            line = self._protocol.reply(request, handler(request.params))
        except CallError as error:
            line = self._protocol.refuse(request, error)
        except Exception:
            _log.exception("%s failed", request.method)
            line = self._protocol.refuse(request, CallError(INTERNAL_ERROR, "Internal error"))
        self._send(line, _Deadline(self.timeout))

    # --- The socket ---

    def close(self) -> None:
        self._socket.close()

    def __enter__(self) -> Session:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    def _ask(self, numbers: List[int], line: bytes, timeout: Optional[float]) -> List[Response]:
        timeout = self.timeout if timeout == USUAL else timeout
        deadline = _Deadline(timeout)
        self._awaited.update(numbers)
        try:
            self._send(line, deadline)
            while not all(number in self._responses for number in numbers):
                self._read(deadline)
            return [self._responses[number] for number in numbers]
        except TimeoutError:
            raise CallTimeout.after(timeout or 0) from None
        finally:  # an answer that comes later is nobody's
            self._awaited.difference_update(numbers)
            for number in numbers:
                self._responses.pop(number, None)

    def _send(self, line: bytes, deadline: _Deadline) -> None:
        self._socket.settimeout(deadline.left())
        try:
            self._socket.sendall(line)
        except OSError as reason:  # a part of the line may have gone, so nothing can follow it
            self.close()
            raise Disconnected(f"the router does not take what is sent: {reason}") from reason

    def _read(self, deadline: _Deadline) -> None:
        """Waits for the next bytes and keeps what they bring. TimeoutError when none come in time."""
        self._socket.settimeout(deadline.left())
        try:
            data = self._socket.recv(_READ_SIZE)
        except TimeoutError:
            raise
        except OSError as reason:
            raise Disconnected(f"the session is closed: {reason}") from reason
        if not data:
            raise Disconnected("the router has closed the session")
        for event in self._protocol.feed(data):
            if isinstance(event, Response) and event.id in self._awaited:
                self._responses[event.id] = event
            elif isinstance(event, Request):
                self._requests.append(event)
            elif isinstance(event, Refusal):
                _log.warning("the router refuses what it was sent: %s", event.error)


class Subscription:
    """Notifications in the order in which they were published; a Lost stands where some were dropped."""

    def __init__(self, session: Session, inbox: Inbox) -> None:
        self._session = session
        self._inbox = inbox

    def get(self, timeout: Optional[float] = None) -> Notification:
        """The next one. TimeoutError when none comes within so many seconds."""
        deadline = _Deadline(timeout)
        while (notification := self._inbox.take()) is None:
            self._session._read(deadline)
        return notification

    def __iter__(self) -> Iterator[Notification]:
        return self

    def __next__(self) -> Notification:
        return self.get()

    def close(self) -> None:
        """Ends the subscription; the session stays."""
        unused = self._session._protocol.close_inbox(self._inbox)
        if unused:
            self._session.call("router.Unsubscribe", {"methods": unused})

    def __enter__(self) -> Subscription:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        try:
            self.close()
        except Disconnected:
            pass  # went with its session
