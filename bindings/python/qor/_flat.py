"""The functions of libqor.so that the package calls, with their C types as qor/flat.h declares them.

Importing this module loads the library. Everything here is as in C: nothing is checked, handles are plain numbers, and
a wrong argument can end the process. The other modules of the package are the Python side.
"""

from __future__ import annotations

import contextlib
import ctypes
import os
import threading
from ctypes import POINTER, Structure, c_char_p, c_double, c_int, c_int32, c_uint, c_uint32, c_uint64, c_void_p
from typing import Any, Iterator

SIZE_EXTRA_MAX = 1024

TM_MESSAGE_PROXY = 1
TM_MESSAGE_TIMER = 2
TM_THREAD_START = 0x8001
TM_THREAD_QUIT = 0x8002
TM_THREAD_TIMER = 0x8113
TM_THREAD_IDLE = 0x8121
TM_REGISTRY_CHANGE = 0x9001

REGISTRY_SET_CHANGED = 1


class SimpMsg(Structure):
    """A view into a live message, as a callback gets it."""

    _fields_ = [("uMsg", c_uint32), ("wParam", c_uint32), ("lParam", c_int32)]


# The address of the message is a plain number, from which SimpMsg.from_address() makes the view.
CALLBACK = ctypes.CFUNCTYPE(c_int, c_void_p)

_HANDLE = c_void_p
_MESSAGE = c_void_p
_DATA = c_void_p
_BUFFER = c_char_p
_INT_OUT = POINTER(c_int)

# name: (result, parameters). A test compares this table with the header.
PROTOTYPES: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "msgTryRegistWorkThread": (c_int, (c_char_p, CALLBACK, POINTER(c_void_p))),
    "msgUnregistWorkThread": (None, (_HANDLE,)),
    "msgDefaultThreadRun": (c_int, ()),
    "msgGetThreadByName": (_HANDLE, (c_char_p,)),
    "msgListThreadNames": (c_int, (_BUFFER, c_int)),
    "msgGetPollFd": (c_int, ()),
    "msgProcessPending": (c_int, (c_int,)),
    "msgNotifyReady": (c_int, ()),
    "msgEnableWatchdog": (c_int, ()),
    "msgTryPostMsgToThread": (c_int, (_HANDLE, c_uint, c_uint, c_int, c_int, _DATA, c_int)),
    "msgTrySendMsgToThread": (
        c_int,
        (_HANDLE, c_uint, c_uint, c_int, c_int, _DATA, c_int, c_int, _INT_OUT, _DATA, c_int, _INT_OUT),
    ),
    "msgGetQueueLength": (c_int, (_HANDLE,)),
    "qorGetMessageMemory": (None, (_INT_OUT, _INT_OUT, _INT_OUT)),
    "msgSetPostReserve": (c_int, (c_int,)),
    "msgReplyThreadMessage": (None, (_MESSAGE, c_int)),
    "msgGetMessageExtraData": (c_void_p, (_MESSAGE,)),
    "msgGetMessageExtraSize": (c_int, (_MESSAGE,)),
    "msgResetMessageExtraData": (None, (_MESSAGE, c_int, _DATA)),
    "msgQuitOnSignal": (c_int, (c_int,)),
    "timerSetThreadTimer": (c_uint, (c_uint, c_uint)),
    "timerSetRateTimer": (c_uint, (c_uint, c_uint)),
    "timerKillThreadTimer": (None, (c_uint,)),
    "accCreateAccumulater": (c_int, (c_char_p, c_uint, c_uint, c_uint)),
    "accCreateAccumulaterOnce": (c_int, (c_char_p, c_uint, c_uint, c_uint)),
    "accDestoryAccumulater": (c_int, (c_char_p,)),
    "accExcuteAccumulater": (c_uint, (c_char_p, c_int)),
    "accReadAccumulater": (c_int, (c_char_p, POINTER(c_uint))),
    "registryOpen": (_HANDLE, (c_char_p, c_char_p)),
    "registryGetStringN": (c_int, (_HANDLE, c_char_p, _BUFFER, c_int, c_char_p)),
    "registryGetInt": (c_int, (_HANDLE, c_char_p, c_int)),
    "registryGetFloat": (c_double, (_HANDLE, c_char_p, c_double)),
    "registryTrySetString": (c_int, (_HANDLE, c_char_p, c_char_p)),
    "registryGetErrorText": (c_char_p, (c_int,)),
    "registryHasKey": (c_int, (_HANDLE, c_char_p)),
    "registryListKeys": (c_int, (_HANDLE, _BUFFER, c_int)),
    "registryDeleteKey": (c_int, (_HANDLE, c_char_p)),
    "registryHasSection": (c_int, (c_char_p, c_char_p)),
    "registryListSections": (c_int, (c_char_p, _BUFFER, c_int)),
    "registryDeleteSection": (c_int, (_HANDLE,)),
    "registryFlush": (c_int, (_HANDLE,)),
    "regSaveRegistryDocument": (c_int, (_HANDLE,)),
    "registryRegistSaver": (c_int, ()),
    "registryUnregistSaver": (c_int, ()),
    "registrySaveDocument": (c_int, (_HANDLE,)),
    "regMonitorSection": (c_int, (_HANDLE,)),
    "regUnmonitorSection": (c_int, (_HANDLE,)),
    "qorGetTickCount": (c_uint64, ()),
    "tracePrintf": (None, (c_char_p,)),
    "traceSetFileClock": (None, (c_int,)),
}

_OTHER_FORM = "ends the process where the bound form returns a result"
_SHORT_FORM = "a short form of bound functions"
_OWN_THREADS = "starts threads of C; threading.Thread starts those of Python"
_NAMED = "every reader of the clock on the device waits while the lock is held; Python may pause there"
_PROFILE = "for old programs; each call warns"

# What the package leaves alone, and why. The same test sees that nothing is missing in both tables.
UNBOUND: dict[str, str] = {
    **dict.fromkeys(("msgRegistWorkThread", "msgRegistMainThread"), _OTHER_FORM),
    **dict.fromkeys(("msgTryRegistMainThread", "msgUnregistMainThread"), "the same as the bound form for work threads"),
    **dict.fromkeys(("msgLaunchWorkThread", "msgLaunchCallbackWorkThread", "msgUnlaunchWorkThread"), _OWN_THREADS),
    **dict.fromkeys(
        ("msgGetCurrentThreadObject", "msgProcessThreadMsgOnce"), "signals would wait for the library's own waits"
    ),
    "msgWatchDescriptor": "needs a message id of the application; asyncio waits for descriptors",
    **dict.fromkeys(("msgSendMsgToThreadRaw", "msgSendMsgToThreadReply", "msgSendMsgToThreadTimeoutEx"), _OTHER_FORM),
    **dict.fromkeys(("msgSendMsgToThreadEx", "msgSendMsgToThread"), _OTHER_FORM),
    **dict.fromkeys(("msgPostMsgToThreadEx", "msgPostMsgToThread"), _OTHER_FORM),
    **dict.fromkeys(("msgBroadpostThreadMsgEx", "msgBroadpostThreadMsg"), _OTHER_FORM),
    **dict.fromkeys(("nameHelperLock", "nameHelperUnlock", "nameGetSystemObject"), _NAMED),
    **dict.fromkeys(("registrySetString", "registrySetInt"), "registryTrySetString() says why nothing was set"),
    **dict.fromkeys(("registrySetFloat", "registrySetFloatExact"), "registryTrySetString() says why nothing was set"),
    "registryGetString": "copies without a limit",
    **dict.fromkeys(("regSection2HANDLE", "regHANDLE2Section"), "addresses of C++ objects"),
    **dict.fromkeys(("qorGetRegistryString", "qorGetRegistryInt", "qorGetRegistryFloat"), _SHORT_FORM),
    **dict.fromkeys(("qorSetRegistryString", "qorSetRegistryInt", "qorSetRegistryFloat"), _SHORT_FORM),
    **dict.fromkeys(("profileOpen", "profileClose", "profileGetString", "profileGetStringN"), _PROFILE),
    "profileGetInt": _PROFILE,
    **dict.fromkeys(("profileHasSection", "profileHasKey", "profileListSections", "profileListKeys"), _PROFILE),
    **dict.fromkeys(("profileDeleteKey", "profileDeleteSection"), _PROFILE),
    **dict.fromkeys(("qorGetProfileString", "qorGetProfileInt"), _PROFILE),
    "tracePrintfV": "its argument list is C's own",
    **dict.fromkeys(("recordOpen", "recordWrite", "recordSync", "recordClose"), "files, which Python has its own for"),
    "qorSetFatalHook": "the hook may not allocate memory, which Python always does",
}

# Variables: bound ones with their types, and the others.
VARIABLES: dict[str, Any] = {"szTraceAuthor": c_char_p, "_szVersion_VER_QOR_LIB": ctypes.c_char}
UNBOUND_VARIABLES = ("doubleINF", "doubleQNAN", "doubleMAX", "doubleMIN")


def _load() -> ctypes.CDLL:
    name = os.environ.get("QOR_LIBRARY") or "libqor.so.2"
    try:
        library = ctypes.CDLL(name)
    except OSError as error:
        hint = "QOR_LIBRARY in the environment may name another file"
        if "static TLS" in str(error):
            hint = "start Python with GLIBC_TUNABLES=glibc.rtld.optional_static_tls=4096 in the environment"
        raise ImportError(f"qor: cannot load {name}: {error}; {hint}") from error
    for function, (result, parameters) in PROTOTYPES.items():
        try:
            entry = getattr(library, function)
        except AttributeError as error:
            raise ImportError(f"qor: {name} has no {function}(): it is older than this package") from error
        entry.restype = result
        entry.argtypes = parameters
    return library


lib: Any = _load()


def keep_forever(value: object) -> None:
    """Keep an object whose memory C goes on using, also while the interpreter ends."""
    ctypes.pythonapi.Py_IncRef(ctypes.py_object(value))


def library_version() -> str:
    """The version text of the library."""
    first = ctypes.c_char.in_dll(lib, "_szVersion_VER_QOR_LIB")
    return ctypes.string_at(ctypes.addressof(first)).decode("ascii")


_first_use = threading.RLock()
_used: set[str] = set()


@contextlib.contextmanager
def one_by_one_at_first(what: str) -> Iterator[None]:
    """Keep OS threads that begin at the same moment apart, until one of them has been through here.

    The first use of a part of the library makes its object; another thread that comes meanwhile would be warned.
    """
    if what in _used:
        yield
        return
    with _first_use:
        yield
        _used.add(what)


def _forget_after_fork() -> None:
    global _first_use
    _first_use = threading.RLock()
    _used.clear()


os.register_at_fork(after_in_child=_forget_after_fork)
