"""What a call can end with instead of a result."""

from __future__ import annotations

from typing import Any, Mapping

TIMED_OUT = -32005
METHOD_NOT_FOUND = -32601
INVALID_PARAMS = -32602
INTERNAL_ERROR = -32603


class CallError(Exception):
    """The answer to a call was an error: its code, message and data are those of the JSON-RPC error.

    A handler of a service raises it to refuse a request.
    """

    def __init__(self, code: int, message: str, data: Any = None) -> None:
        super().__init__(code, message, data)
        self.code = code
        self.message = message
        self.data = data

    def __str__(self) -> str:
        told = self.data if isinstance(self.data, dict) else {}
        reason = told.get("reason", told.get("message"))
        return f"{self.message} ({self.code})" + (f": {reason}" if isinstance(reason, str) else "")

    def as_member(self) -> dict[str, Any]:
        """The value of a response's "error"."""
        return {"code": self.code, "message": self.message, "data": self.data}


class CallTimeout(CallError, TimeoutError):
    """Nobody answered in time, whoever noticed it: the router, or this client."""

    def __init__(self, code: int = TIMED_OUT, message: str = "Command timed out", data: Any = None) -> None:
        super().__init__(code, message, data)

    @classmethod
    def after(cls, timeout: float) -> CallTimeout:
        """The client's own time has passed."""
        return cls(data={"message": f"no answer within {timeout:g} s"})


class Disconnected(ConnectionError):
    """There is no router, or it has closed the session. What was in flight is lost; a new session is needed."""


def error_from(member: Any) -> CallError:
    """The exception for the value of a response's "error", also for one that is not as it should be."""
    fields: Mapping[str, Any] = member if isinstance(member, dict) else {"message": repr(member)}
    code = fields.get("code")
    code = code if isinstance(code, int) else INTERNAL_ERROR
    kind: type[CallError] = CallTimeout if code == TIMED_OUT else CallError
    return kind(code, str(fields.get("message", "")), fields.get("data"))
