"""Sessions with the tavrix router, in plain Python.

    with tavrix.Session() as session:
        print(session.call("ports.Get", {"port_id": "c1-1"}))

Session waits for its answers; AsyncSession is the same for asyncio. Both speak through one protocol core, which does no
input or output of its own.
"""

from ._aio import AsyncSession, AsyncSubscription
from ._client import Session, Subscription
from ._errors import CallError, CallTimeout, Disconnected
from ._protocol import Lost, Notification

__all__ = [
    "AsyncSession",
    "AsyncSubscription",
    "CallError",
    "CallTimeout",
    "Disconnected",
    "Lost",
    "Notification",
    "Session",
    "Subscription",
]
