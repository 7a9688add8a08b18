"""Client of the Model Event Manager service, over the C++ library libKsMemCppBinding.

The service is chosen by the environment variable KSMEM_SERVICE (unset, empty or
"embedded": a service inside this process; a redis://, unix:// or redis-cluster:// URL: a
service kept in Redis). The transport reads it once per process, at the first operation of
the first Connection: set os.environ["KSMEM_SERVICE"] before that. A forked child reads it
again.

Identities, the locale and the correlation id are str, sent as UTF-8; client ids come back
as str (bytes that are not UTF-8 as lone surrogates, errors="surrogateescape", so that an id
passed back is the same bytes). Fetched events are bytes, byte for byte; a posted event is
bytes or a str sent as UTF-8. The interpreter lock is released while an operation runs.
"""

from typing import Union

class Error(Exception):
    """Base of the library's failures (C++ Exception); unregister_client raises it as such."""

    type: int
    """The library's type code: 0 unless the operation documents another
    (-1: the service could not be reached, -2: not registered)."""
    message: str
    """The library's message; str(error) is the same text."""
    def __init__(self, message: str = "", type: int = 0) -> None: ...

class KsMEMException(Error):
    """Common base of the classes below; never raised as such."""

class KsMEMConnectionException(KsMEMException):
    """The service could not be reached; get_status raises it for every failure, type -1."""

class KsMEMProtocolException(KsMEMException):
    """The request was refused: not registered (type -2), or refused by the transport."""

class KsMEMRuntimeException(KsMEMException):
    """The request could not be formed or processed, or a reply exceeded 1 GiB."""

class KsMEMUnrecognisedException(KsMEMException):
    """The transport failed with a result code that has no class of its own."""

class DomException(Exception):
    """A reply that is not the expected XML document; no Error, and without a type code."""

    message: str
    def __init__(self, message: str = "") -> None: ...

class Connection:
    """A client of the Model Event Manager service (the C++ KsMEMConnection).

    Registered means a non-empty server id: register_client sets it, unregister_client
    clears it. Operations on one Connection from several threads run one after another.
    """

    def __init__(self) -> None:
        """A connection that is not registered; touches no service yet."""
    def get_status(self) -> int:
        """0 when the service echoes the status check, -2 when it answers something else.

        Raises KsMEMConnectionException (type -1) for every failure.
        """
    def register_client(self, server: str, client: str, locale: str = "") -> list[str]:
        """Registers as `client` under `server`; returns the clients registered under it.

        The identity is stored first: the connection counts as registered whenever `server`
        is not empty, even when this raised. Raises a KsMEMException subclass or DomException.
        """
    def unregister_client(self) -> list[str]:
        """Unregisters; returns the clients that remain under the server.

        Clears the identity also when it raises Error; every failure of the exchange raises
        plain Error (not a subclass), e.g. when not registered.
        """
    def put_events(self, events: Union[bytes, str], correlation: str = "") -> list[str]:
        """Posts `events` as one event (bytes unchanged, str as UTF-8); returns the clients it
        was queued for. A zero byte drops the rest of its 4098-byte chunk of the body, since
        the transport takes zero-terminated text.

        Raises KsMEMProtocolException (type -2) when not registered; a KsMEMException
        subclass or DomException when the exchange fails (the event may have been stored).
        """
    def get_events(self, correlation: str = "") -> tuple[bytes, list[str]]:
        """Fetches the pending events (b"" when none) and then the clients of the server.

        Raises KsMEMProtocolException (type -2) when not registered. If the second step (the
        client list) fails, this raises, and the same events come with the next get_events:
        the service hands a batch over again until the client list after it was answered.
        """
    def get_shared_clients(self) -> list[str]:
        """Returns the clients registered under this connection's server.

        Raises KsMEMProtocolException (type -2) when not registered.
        """
