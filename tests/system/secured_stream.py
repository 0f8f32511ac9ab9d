"""TLS over a pair of asyncio's streams, in the hands of the test: which records a write becomes and how these leave is the
test's affair, and the end of TLS can be said while the connection stands."""

import asyncio
import random
import ssl

_AT_A_TIME = 65536
_BYTES = 200
_PIECES = 12


class Wire:
    """How what is written leaves: in which records, and these in which segments. The same seed cuts in the same way."""

    STYLES = ("whole", "byte records", "records together", "cut records", "anyhow")

    def __init__(self, style="whole", seed=0):
        self._style = style
        self._random = random.Random(seed)

    def records(self, text):
        """The pieces of a text that are a record each. Of a long one the middle is one record."""
        if self._style == "byte records":
            ends = [*range(1, _BYTES), *range(max(_BYTES, len(text) - _BYTES), len(text))]
            return _cut(text, ends)
        return self._cut_anywhere(text) if self._style in ("records together", "anyhow") else [text]

    def segments(self, data):
        """The pieces of what is encrypted that are sent one after the other."""
        return self._cut_anywhere(data) if self._style in ("cut records", "anyhow") else [data]

    def _cut_anywhere(self, data):
        cuts = min(len(data) - 1, self._random.randrange(1, _PIECES))
        return _cut(data, sorted(self._random.sample(range(1, len(data)), cuts)) if cuts > 0 else [])


def _cut(data, ends):
    ends = [end for end in ends if end < len(data)]
    return [data[begin:end] for begin, end in zip([0, *ends], [*ends, len(data)])]


class SecuredStream:
    """Reader and writer in one, with the calls of asyncio's that the tests use.

    What comes and is no TLS raises AssertionError: nothing may come in the clear once TLS has begun.
    """

    def __init__(self, reader, writer, context, server_side=False, wire=None):
        self._reader = reader
        self._writer = writer
        self._wire = wire or Wire()
        self._incoming = ssl.MemoryBIO()
        self._outgoing = ssl.MemoryBIO()
        self._tls = context.wrap_bio(self._incoming, self._outgoing, server_side=server_side)
        self._text = bytearray()
        self._ended = False

    async def handshake(self):
        while True:
            try:
                self._tls.do_handshake()
                self._flush()
                return
            except ssl.SSLWantReadError:
                self._flush()
                await self._receive()
            except ssl.SSLError as error:
                raise AssertionError(f"no handshake: {error}") from None

    def _flush(self):
        if self._outgoing.pending:
            for segment in self._wire.segments(self._outgoing.read()):
                self._writer.write(segment)

    async def _receive(self):
        data = await self._reader.read(_AT_A_TIME)
        if data:
            self._incoming.write(data)
        else:
            self._incoming.write_eof()

    def _decrypt(self):
        """Takes the text of what has come; returns whether there was any."""
        before = len(self._text)
        try:
            while data := self._tls.read(_AT_A_TIME):
                self._text += data
            self._ended = True
        except ssl.SSLWantReadError:
            pass
        except (ssl.SSLZeroReturnError, ssl.SSLEOFError):
            self._ended = True
        except ssl.SSLError as error:
            raise AssertionError(f"what came was no TLS: {error}") from None
        return len(self._text) > before

    async def _more(self):
        """Waits for more text; returns whether there is some."""
        while not self._decrypt():
            if self._ended:
                return False
            self._flush()
            await self._receive()
        return True

    def _take(self, count):
        data = bytes(self._text[:count])
        del self._text[:count]
        return data

    async def readuntil(self, end):
        while (found := self._text.find(end)) < 0:
            if not await self._more():
                raise asyncio.IncompleteReadError(self._take(len(self._text)), None)
        return self._take(found + len(end))

    async def readexactly(self, count):
        while len(self._text) < count:
            if not await self._more():
                raise asyncio.IncompleteReadError(self._take(len(self._text)), count)
        return self._take(count)

    async def read(self):
        """Everything up to the end."""
        while await self._more():
            pass
        return self._take(len(self._text))

    async def read_some(self):
        """At least a byte; nothing at the end."""
        if not self._text:
            await self._more()
        return self._take(len(self._text))

    def write(self, data):
        if data:
            for record in self._wire.records(data):
                self._tls.write(record)
            self._flush()

    def write_eof(self):
        """Says that nothing more comes, inside and outside."""
        self._decrypt()
        try:
            self._tls.unwrap()
        except ssl.SSLError:
            # The other side has not said so yet, or is gone.
            pass
        self._flush()
        self._writer.write_eof()

    async def drain(self):
        await self._writer.drain()

    def is_closing(self):
        return self._writer.is_closing()

    def get_extra_info(self, name):
        return self._writer.get_extra_info(name)

    @property
    def transport(self):
        return self._writer.transport

    def close(self):
        self._writer.close()
