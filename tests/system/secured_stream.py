"""A client's TLS over a pair of asyncio's streams, in the hands of the test: each write is a record of its own, and its end
can be said while the connection stands."""

import asyncio
import ssl

_AT_A_TIME = 65536


class SecuredStream:
    """Reader and writer in one, with the calls of asyncio's that the tests use.

    What comes and is no TLS raises AssertionError: nothing may come in the clear once TLS has begun.
    """

    def __init__(self, reader, writer, context):
        self._reader = reader
        self._writer = writer
        self._incoming = ssl.MemoryBIO()
        self._outgoing = ssl.MemoryBIO()
        self._tls = context.wrap_bio(self._incoming, self._outgoing)
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
            self._writer.write(self._outgoing.read())

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

    async def read(self):
        """Everything up to the end."""
        while await self._more():
            pass
        return self._take(len(self._text))

    def write(self, data):
        if data:
            self._tls.write(data)
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
