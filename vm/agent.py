# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The reports of the hotplug agent that runs in the virtual terminal.

kus-hotplug --json writes one JSON object for each thing that happens; its service's log holds them
among other lines."""

from __future__ import annotations

import json
import time
from typing import Any

from vm.terminal import Terminal

LOG = "/data/log/kus-hotplug.log"

Event = dict[str, Any]


class AgentEvents:
    """The agent's events in their order, from its start on."""

    def __init__(self, terminal: Terminal) -> None:
        self._lines = terminal.follow(LOG)
        # What wait_for has passed over.
        self.skipped: list[Event] = []

    def next(self, timeout: float) -> Event | None:
        """The next event, or nothing if none comes in time."""
        deadline = time.monotonic() + timeout
        while (line := self._lines.next_line(deadline - time.monotonic())) is not None:
            if line.startswith("{"):
                event: Event = json.loads(line)
                return event
        return None

    def wait_for(self, timeout: float, **wanted: Any) -> Event:
        """The next event that has all these fields. Raises TimeoutError, whose text holds the
        agent's last lines."""
        deadline = time.monotonic() + timeout
        while (event := self.next(deadline - time.monotonic())) is not None:
            if wanted.items() <= event.items():
                return event
            self.skipped.append(event)
        tail = "\n  ".join(self._lines.seen[-10:])
        raise TimeoutError(f"the agent does not report {wanted} within {timeout:g} s; its last "
                           f"lines are:\n  {tail}")
