"""A message as its handler sees it, and how a handler's result becomes the answer."""

from __future__ import annotations

import ctypes
from typing import SupportsIndex, Tuple, Union

from ._errors import MisuseError
from ._flat import SimpMsg, lib
from ._values import Data, extra_data, sint

# What a handler may return: nothing (0), a number, data (with 0), or both.
Answer = Union[None, SupportsIndex, Data, Tuple[SupportsIndex, Data]]


class Message:
    """One message. Its number, parameters and data are copies, and stay; reply() ends with the handler."""

    __slots__ = ("id", "wparam", "lparam", "data", "_address", "_replied")

    def __init__(self, address: int) -> None:
        view = SimpMsg.from_address(address)
        self.id: int = view.uMsg
        self.wparam: int = view.wParam
        self.lparam: int = view.lParam
        size = lib.msgGetMessageExtraSize(address)
        self.data: bytes = ctypes.string_at(lib.msgGetMessageExtraData(address), size) if size > 0 else b""
        self._address: int | None = address
        self._replied: int | None = None

    def __repr__(self) -> str:
        return f"<qor.Message 0x{self.id:x} wparam={self.wparam} lparam={self.lparam} data={len(self.data)} bytes>"

    def __getstate__(self) -> tuple[None, dict[str, object]]:
        # The address is that of a message which a copy may outlive.
        return None, {**{slot: getattr(self, slot) for slot in self.__slots__}, "_address": None}

    def reply(self, result: SupportsIndex = 0, data: Data | None = None) -> None:
        """Answer the sender at once, while the handler goes on; what the handler returns then counts no more.

        Without data, the sender gets those that it has sent. Does nothing for a posted message. Raises MisuseError
        when the message has been answered or its handler has returned.
        """
        number = sint("result", result)
        raw = None if data is None else extra_data(data)
        if self._address is None:
            raise MisuseError("the handler of this message has returned, so it has been answered")
        if self._replied is not None:
            raise MisuseError("this message has been answered")
        self._put(raw)
        self._replied = number
        lib.msgReplyThreadMessage(self._address, number)

    def _put(self, raw: bytes | None) -> None:
        # Data of the same size are overwritten, which needs no memory and so cannot fail.
        if raw is None:
            return
        if raw and lib.msgGetMessageExtraSize(self._address) == len(raw):
            ctypes.memmove(lib.msgGetMessageExtraData(self._address), raw, len(raw))
        else:
            lib.msgResetMessageExtraData(self._address, len(raw), raw or None)

    def _finish(self, answer: Answer) -> int:
        if self._replied is not None:
            return self._replied
        number, raw = _split(answer)
        self._put(raw)
        return number


def _split(answer: Answer) -> tuple[int, bytes | None]:
    if answer is None:
        return 0, None
    if isinstance(answer, tuple):
        result, data = answer
        return sint("result", result), extra_data(data)
    if isinstance(answer, (bytes, bytearray, memoryview)):
        return 0, extra_data(answer)
    return sint("result", answer), None
