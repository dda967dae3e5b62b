"""The metering diagnostics channels as iterators of parsed records."""

from __future__ import annotations

import json
from typing import Any, Dict, Iterator, Optional

from ._core import DiagnosticsSubscription, diagnostics_channels

__all__ = ["diagnostics_records", "diagnostics_channels"]


def diagnostics_records(channel: str, timeout: Optional[float] = None, capacity: int = 64) -> Iterator[Dict[str, Any]]:
    """Yields every JSON record sent on `channel` (see diagnostics_channels()) as a dict.

    Subscribe before start() to see the first frames. Records arriving faster than they are
    consumed are dropped oldest first beyond `capacity`. Raises TimeoutError when no record
    arrives within `timeout` seconds; closing the generator ends the subscription.
    """
    subscription = DiagnosticsSubscription(channel, capacity)
    try:
        while True:
            text = subscription.next(timeout)
            if text is None:
                return
            yield json.loads(text)
    finally:
        subscription.close()
