"""Feeding a session every frame of an iterable, one at a time.

The library's queues drop frames by design, so the one-call functions keep
at most one frame waiting in the session: the caller's thread reads and
prepares the next frame while the worker processes the current one, and
the worker's report on a frame pushes the next (from the callback, so that
the worker finds it at once instead of sleeping an idle pass).
"""

from __future__ import annotations

import threading
from typing import Any, List, Optional, Tuple


class Feeder:
    def __init__(self) -> None:
        self.cond = threading.Condition()
        self.session: Any = None
        self.slot: Optional[Tuple[int, Tuple[Any, int]]] = None  # prepared, waiting
        self.busy = False  # a frame pushed, not yet reported
        self.failure: Any = None  # the item that halted the worker
        self.pushed: List[int] = []  # input indices in push order
        self.reported = 0

    def offer(self, index: int, prepared: Tuple[Any, int]) -> bool:
        """Caller's thread: queue a prepared frame behind the one in flight
        (waiting while another is already waiting), or push it now when
        nothing is in flight.  False once the worker has failed."""
        with self.cond:
            self.cond.wait_for(lambda: self.slot is None or self.failure is not None)
            if self.failure is not None:
                return False
            if self.busy:
                self.slot = (index, prepared)
                return True
            self.busy = True
            self.pushed.append(index)
        self.session._push_prepared(*prepared)
        return True

    def on_report(self) -> int:
        """Worker thread, in the frame callback: the input index of the
        frame reported; pushes the waiting frame, if any."""
        with self.cond:
            index = self.pushed[self.reported]
            self.reported += 1
            waiting, self.slot = self.slot, None
            if waiting is None:
                self.busy = False
            else:
                self.pushed.append(waiting[0])
            self.cond.notify_all()
        if waiting is not None:
            self.session._push_prepared(*waiting[1])
        return index

    def on_failure(self, item: Any) -> None:
        with self.cond:
            if self.failure is None:
                self.failure = item
            self.cond.notify_all()

    def finish(self) -> None:
        """Caller's thread: waits until every frame offered was reported,
        or the worker failed."""
        with self.cond:
            self.cond.wait_for(lambda: (not self.busy and self.slot is None) or
                               self.failure is not None)

    def unreported(self) -> List[int]:
        """Input indices offered but never reported (after a failure)."""
        with self.cond:
            rest = self.pushed[self.reported:]
            if self.slot is not None:
                rest.append(self.slot[0])
            return rest
