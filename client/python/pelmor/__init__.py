"""Sends records to the telemetry daemon of this access point, through libpelmor.so.0.

    with pelmor.Client() as client:
        client.record("ap/radio/utilization", 0.25, {"band": "5g"})
        client.flush()

With asyncio:

    async with pelmor.AsyncClient() as client:
        await client.record("ap/radio/utilization", 0.25, {"band": "5g"})
        await client.flush()

Records are sent one-way, in the order of the calls. A call that records returns when the record was
accepted: it was sent or queued. `flush` waits until the daemon has received all records, and raises
the failure of the last one that was lost. pelmor/pelmor.h explains flow control and loss.

Failures are `Error`, an `OSError` with the library's error number and message. If the queue stays
full, a call that records raises `Busy`. Arguments that cannot be sent are a `ValueError` or a
`TypeError`; so are calls of a closed client.

Use a client in one thread at a time. It does not work in a forked child.
"""

from pelmor._asyncio import AsyncClient
from pelmor._client import Busy, Client, Error, Value, version

__all__ = ["AsyncClient", "Busy", "Client", "Error", "Value", "version"]
