"""The client for asyncio: any number of calls in flight, one task that reads."""

from __future__ import annotations

import asyncio
import logging
from types import TracebackType
from typing import Any, Awaitable, Callable, Dict, List, Mapping, Optional, Sequence, Set, Tuple, Type, Union

from ._errors import INTERNAL_ERROR, METHOD_NOT_FOUND, CallError, CallTimeout, Disconnected
from ._protocol import (
    LONGEST_SERVICE_LINE,
    RELOAD,
    USUAL,
    Event,
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

AsyncHandler = Callable[[Mapping[str, Any]], Union[Any, Awaitable[Any]]]

_log = logging.getLogger("tavrix")
_READ_SIZE = 65536


class AsyncSession:
    """As Session, with the same methods to be awaited:

    async with tavrix.AsyncSession() as session:
        print(await session.call("ports.Get", {"port_id": "c1-1"}))
    """

    def __init__(self, path: Optional[str] = None, *, timeout: Optional[float] = 30.0) -> None:
        self.timeout = timeout
        self._path = session_path(path)
        self._protocol = Protocol()
        self._awaited: Dict[int, asyncio.Future[Response]] = {}
        self._handlers: Dict[str, AsyncHandler] = {}
        self._answering: Set[asyncio.Task[None]] = set()
        self._ended: Optional[Disconnected] = Disconnected("the session is not open yet: await connect()")
        self._arrived = asyncio.Condition()
        self._writer: Optional[asyncio.StreamWriter] = None
        self._reading: Optional[asyncio.Task[None]] = None

    async def connect(self) -> None:
        try:
            reader, self._writer = await asyncio.open_unix_connection(self._path)
        except OSError as reason:
            raise nobody_there(self._path, reason) from reason
        self._ended = None
        self._reading = asyncio.create_task(self._read(reader))

    async def close(self) -> None:
        tasks = [*self._answering, *([self._reading] if self._reading else [])]
        for task in tasks:
            if task is not asyncio.current_task():  # a handler may close its own session
                task.cancel()
                await asyncio.gather(task, return_exceptions=True)
        if self._writer is not None:
            self._writer.close()
            await asyncio.gather(self._writer.wait_closed(), return_exceptions=True)

    async def __aenter__(self) -> AsyncSession:
        await self.connect()
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        await self.close()

    # --- Calls ---

    async def call(self, method: str, params: Params = None, *, timeout: Optional[float] = USUAL) -> Any:
        """The result of a method. CallError when the answer is an error, CallTimeout when there is none in time."""
        number, line = self._protocol.request(method, params)
        response = (await self._ask([number], line, timeout))[0]
        if response.error is not None:
            raise response.error
        return response.result

    async def batch(
        self, calls: Sequence[Tuple[str, Params]], *, timeout: Optional[float] = USUAL
    ) -> List[Union[Any, CallError]]:
        """Several calls at once. In their order the results, and a CallError in the place of one that failed."""
        if not calls:
            return []
        numbers, line = self._protocol.batch(calls)
        responses = await self._ask(numbers, line, timeout)
        return [response.result if response.error is None else response.error for response in responses]

    # --- Notifications ---

    async def subscribe(self, *patterns: str) -> AsyncSubscription:
        """What is published from now on by methods that match: a name, or the beginning of one followed by '*'."""
        inbox, new = self._protocol.open_inbox(patterns)
        try:
            if new:
                await self.call("router.Subscribe", {"methods": new})
        except BaseException:
            self._protocol.close_inbox(inbox)
            raise
        return AsyncSubscription(self, inbox)

    async def notify(self, method: str, params: Params = None) -> None:
        """Publishes a notification. The router takes them from services, so the session has to be registered."""
        if not self._handlers:
            raise RuntimeError("only a registered service may publish: call register() first")
        await self._send(self._protocol.notification(method, params))

    @property
    def lost(self) -> int:
        """Notifications that the router has dropped because this session did not read them in time."""
        return self._protocol.lost

    # --- A service ---

    async def register(self, name: str, handlers: Mapping[str, AsyncHandler]) -> None:
        """Offers methods, which are answered from now on. A handler gets the params; it may be a coroutine function."""
        if not handlers:
            raise ValueError("a service needs a method")
        self._handlers = dict(handlers)  # a request may come in the same breath as the answer
        try:
            await self.call("router.Register", registration(name, handlers))
        except BaseException:
            self._handlers = {}
            raise
        self._protocol.longest_line = LONGEST_SERVICE_LINE

    async def wait_closed(self) -> None:
        """Returns when the router has closed the session; a service without anything else to do waits here."""
        if self._reading is not None:
            await asyncio.wait([self._reading])

    async def _answer(self, request: Request) -> None:
        handler = self._handlers.get(request.method)
        if handler is None and request.method == RELOAD:
            return  # has no log level to read again, and leaves the answer to those that have
        try:
            if handler is None:
                raise CallError(METHOD_NOT_FOUND, "Method not found")
            result = handler(request.params)
            line = self._protocol.reply(request, await result if isinstance(result, Awaitable) else result)
        except CallError as error:
            line = self._protocol.refuse(request, error)
        except Exception:
            _log.exception("%s failed", request.method)
            line = self._protocol.refuse(request, CallError(INTERNAL_ERROR, "Internal error"))
        try:
            await self._send(line)
        except Disconnected:
            pass  # nobody is there to be answered

    # --- The socket ---

    async def _ask(self, numbers: List[int], line: bytes, timeout: Optional[float]) -> List[Response]:
        timeout = self.timeout if timeout == USUAL else timeout
        loop = asyncio.get_running_loop()
        self._awaited.update((number, loop.create_future()) for number in numbers)
        futures = [self._awaited[number] for number in numbers]
        try:
            return await asyncio.wait_for(self._exchange(line, futures), timeout)
        except asyncio.TimeoutError:
            raise CallTimeout.after(timeout or 0) from None
        finally:  # an answer that comes later is nobody's
            for number in numbers:
                self._awaited.pop(number).cancel()

    async def _exchange(self, line: bytes, futures: List[asyncio.Future[Response]]) -> List[Response]:
        await self._send(line)
        return list(await asyncio.gather(*futures))

    async def _send(self, line: bytes) -> None:
        if self._ended is not None or self._writer is None:
            raise Disconnected(str(self._ended))
        self._writer.write(line)
        try:
            await self._writer.drain()
        except OSError as reason:
            raise Disconnected(f"the router does not take what is sent: {reason}") from reason

    async def _read(self, reader: asyncio.StreamReader) -> None:
        ended = Disconnected("this session was closed")
        try:
            while data := await reader.read(_READ_SIZE):
                for event in self._protocol.feed(data):
                    self._take(event)
                await self._wake_subscribers()
            ended = Disconnected("the router has closed the session")
        except Disconnected as reason:
            ended = reason
        except OSError as reason:
            ended = Disconnected(f"the session is closed: {reason}")
        finally:
            self._ended = ended
            for future in self._awaited.values():
                if not future.done():
                    future.set_exception(Disconnected(str(ended)))
            await self._wake_subscribers()

    def _take(self, event: Event) -> None:
        if isinstance(event, Response):
            future = self._awaited.get(event.id)
            if future is not None and not future.done():
                future.set_result(event)
        elif isinstance(event, Request):
            task = asyncio.create_task(self._answer(event))
            self._answering.add(task)
            task.add_done_callback(self._answering.discard)
        elif isinstance(event, Refusal):
            _log.warning("the router refuses what it was sent: %s", event.error)

    async def _wake_subscribers(self) -> None:
        async with self._arrived:
            self._arrived.notify_all()


class AsyncSubscription:
    """Notifications in the order in which they were published; a Lost stands where some were dropped."""

    def __init__(self, session: AsyncSession, inbox: Inbox) -> None:
        self._session = session
        self._inbox = inbox

    async def get(self, timeout: Optional[float] = None) -> Notification:
        """The next one. TimeoutError when none comes within so many seconds, Disconnected when none can come."""
        try:
            return await asyncio.wait_for(self._next(), timeout)
        except asyncio.TimeoutError:
            raise TimeoutError from None

    async def _next(self) -> Notification:
        session = self._session
        async with session._arrived:
            while (notification := self._inbox.take()) is None:
                if session._ended is not None:
                    raise Disconnected(str(session._ended))
                await session._arrived.wait()
            return notification

    def __aiter__(self) -> AsyncSubscription:
        return self

    async def __anext__(self) -> Notification:
        return await self.get()

    async def close(self) -> None:
        """Ends the subscription; the session stays."""
        unused = self._session._protocol.close_inbox(self._inbox)
        if unused:
            await self._session.call("router.Unsubscribe", {"methods": unused})

    async def __aenter__(self) -> AsyncSubscription:
        return self

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        try:
            await self.close()
        except Disconnected:
            pass  # went with its session
