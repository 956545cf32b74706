# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""QEMU's machine protocol: commands with their answers, and the events that QEMU sends unasked."""

from __future__ import annotations

import json
import socket
import threading
import time
from collections.abc import Callable
from typing import Any

Event = dict[str, Any]


class QmpError(Exception):
    """QEMU refused a command; the text is its reason."""


class Qmp:
    """Owns its socket. All methods may be called from any thread.

    `closed_error` makes the exception for those who ask a QEMU that is gone."""

    def __init__(self, link: socket.socket, closed_error: Callable[[], Exception]) -> None:
        self._link = link
        self._closed_error = closed_error
        self._changed = threading.Condition()
        self._answers: dict[int, dict[str, Any]] = {}
        self._last_id = 0
        self._greeted = False
        self._closed = False
        self.events: list[Event] = []
        self._reader = threading.Thread(target=self._read, name="qmp", daemon=True)
        self._reader.start()

    def connect(self, timeout: float) -> None:
        """Waits for QEMU's greeting and leaves the negotiation mode."""
        with self._changed:
            self._changed.wait_for(lambda: self._greeted or self._closed, timeout)
            if not self._greeted and not self._closed:
                raise QmpError(f"QEMU does not answer within {timeout:g} s")
        self.execute("qmp_capabilities")

    def execute(self, command: str, timeout: float = 30.0, **arguments: Any) -> Any:
        """The command's result. Underscores in names of arguments stand for the protocol's '-'."""
        with self._changed:
            self._last_id += 1
            number = self._last_id
        named = {name.replace("_", "-"): value for name, value in arguments.items()}
        message = {"execute": command, "arguments": named, "id": number}
        try:
            self._link.sendall(json.dumps(message).encode() + b"\n")
        except OSError as error:
            raise self._closed_error() from error
        with self._changed:
            self._changed.wait_for(lambda: number in self._answers or self._closed, timeout)
            answer = self._answers.pop(number, None)
            closed = self._closed
        if answer is None and closed:
            raise self._closed_error()
        if answer is None:
            raise QmpError(f"{command}: no answer within {timeout:g} s")
        if "error" in answer:
            raise QmpError(f"{command}: {answer['error']['desc']}")
        return answer["return"]

    def wait_event(self, name: str, timeout: float,
                   matches: Callable[[dict[str, Any]], bool] = lambda data: True) -> Event | None:
        """The first event of that name whose data match, also one that is long past."""
        deadline = time.monotonic() + timeout
        looked_at = 0
        with self._changed:
            while True:
                for event in self.events[looked_at:]:
                    if event["event"] == name and matches(event.get("data", {})):
                        return event
                looked_at = len(self.events)
                remaining = deadline - time.monotonic()
                if remaining <= 0 or self._closed or not self._changed.wait(remaining):
                    # What came together with the end has still to be looked at.
                    if looked_at == len(self.events):
                        return None

    def close(self) -> None:
        try:
            self._link.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._reader.join()
        self._link.close()

    def _read(self) -> None:
        stream = self._link.makefile("rb")
        try:
            for line in stream:
                self._sort(json.loads(line))
        except (OSError, ValueError):
            pass
        finally:
            stream.close()
            with self._changed:
                self._closed = True
                self._changed.notify_all()

    def _sort(self, message: dict[str, Any]) -> None:
        with self._changed:
            if "QMP" in message:
                self._greeted = True
            elif "event" in message:
                self.events.append(message)
            elif "id" in message:
                self._answers[message["id"]] = message
            self._changed.notify_all()
