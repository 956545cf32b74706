# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0
"""The machine's end of the virtual terminal's command channel.

vm-channel in the terminal (vm/guest/vm_channel.cpp, which describes the frames) runs commands,
follows files and hands over uevents, all at once over one virtio serial port. Here one thread reads
the port and sorts the frames by task; whoever waits for a task does so with a deadline. When the
port closes every waiter is woken with the reason: a dead terminal cannot be waited for.
"""

from __future__ import annotations

import os
import queue
import re
import signal
import socket
import struct
import threading
import time
from collections.abc import Callable, Iterator

_HEADER = struct.Struct("<III")
_INPUT_CHUNK = 64 * 1024

RUN, INPUT, INPUT_END, SIGNAL, FOLLOW, UEVENTS, STOP, RESIZE, PING = range(1, 10)
OUTPUT, ERRORS, EXIT, FAILED, PONG = range(101, 106)
# Never sent: what waiters get when the channel is gone.
_CLOSED = 0

Frame = tuple[int, bytes]


class ChannelClosed(Exception):
    """The terminal's end of the channel is gone. Raised as whatever the channel's owner makes of
    it, which may be a class derived from this one."""


class TaskFailed(Exception):
    """The terminal could not do what the task asks for; the text is its reason."""


class Task:
    """One task of the terminal: what is sent to it, and what has come from it so far."""

    def __init__(self, channel: Channel, number: int) -> None:
        self._channel = channel
        self._number = number
        self._frames: queue.SimpleQueue[Frame] = queue.SimpleQueue()
        self.over = False

    def put(self, frame: Frame) -> None:
        self._frames.put(frame)

    def send(self, kind: int, payload: bytes = b"") -> None:
        self._channel.send(self._number, kind, payload)

    def send_input(self, data: bytes) -> None:
        for start in range(0, len(data), _INPUT_CHUNK):
            self.send(INPUT, data[start:start + _INPUT_CHUNK])

    def kill(self, number: int = signal.SIGKILL) -> None:
        self.send(SIGNAL, struct.pack("<I", number))

    def next(self, deadline: float) -> Frame | None:
        """The next frame, or nothing when the deadline (of time.monotonic) passes first.

        Raises what the channel's owner makes of a closed channel, and TaskFailed for a task that
        the terminal gave up."""
        try:
            kind, payload = self._frames.get(timeout=max(0.0, deadline - time.monotonic()))
        except queue.Empty:
            return None
        if kind == _CLOSED:
            self._frames.put((kind, payload))
            raise self._channel.closed_error()
        if kind in (EXIT, FAILED):
            self.drop()
        if kind == FAILED:
            raise TaskFailed(payload.decode(errors="replace"))
        return kind, payload

    def drop(self) -> None:
        """Nothing of this task is of interest any more."""
        self.over = True
        self._channel.forget(self._number)


class Channel:
    """Owns its socket. All methods may be called from any thread.

    `closed_error` makes the exception for those who wait for a terminal that is gone."""

    def __init__(self, port: socket.socket, closed_error: Callable[[], ChannelClosed]) -> None:
        self._port = port
        self.closed_error = closed_error
        self._lock = threading.Lock()
        self._sending = threading.Lock()
        self._tasks: dict[int, Task] = {}
        self._last_number = 0
        self._closed = False
        self._reader = threading.Thread(target=self._read, name="channel", daemon=True)
        self._reader.start()

    def open(self, kind: int, payload: bytes = b"", task_class: type[Task] | None = None) -> Task:
        with self._lock:
            self._last_number += 1
            number = self._last_number
            task = (task_class or Task)(self, number)
            self._tasks[number] = task
            if self._closed:
                task.put((_CLOSED, b""))
        task.send(kind, payload)
        return task

    def send(self, number: int, kind: int, payload: bytes) -> None:
        try:
            with self._sending:
                self._port.sendall(_HEADER.pack(len(payload), number, kind) + payload)
        except OSError as error:
            raise self.closed_error() from error

    def forget(self, number: int) -> None:
        with self._lock:
            self._tasks.pop(number, None)

    def ping(self, deadline: float) -> bool:
        """True once the terminal has sent back bytes that only it can have got from here."""
        nonce = os.urandom(16)
        task = self.open(PING, nonce)
        answer = task.next(deadline)
        task.drop()
        return answer == (PONG, nonce)

    def close(self) -> None:
        try:
            self._port.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._reader.join()
        self._port.close()

    def _read(self) -> None:
        stream = self._port.makefile("rb", buffering=256 * 1024)
        try:
            while header := stream.read(_HEADER.size):
                length, number, kind = _HEADER.unpack(header)
                payload = stream.read(length)
                with self._lock:
                    task = self._tasks.get(number)
                if task is not None and len(payload) == length:
                    task.put((kind, payload))
        except (OSError, struct.error):
            pass
        finally:
            stream.close()
            with self._lock:
                self._closed = True
                for task in self._tasks.values():
                    task.put((_CLOSED, b""))


class Follow:
    """The lines of a file of the terminal, those that were there and those that come."""

    def __init__(self, channel: Channel, path: str) -> None:
        self.path = path
        self.seen: list[str] = []
        self._cursor = 0
        self._rest = b""
        self._task = channel.open(FOLLOW, path.encode())

    def next_line(self, timeout: float) -> str | None:
        """The next complete line without its end, or nothing if none comes in time."""
        deadline = time.monotonic() + timeout
        while self._cursor == len(self.seen):
            frame = self._task.next(deadline)
            if frame is None:
                return None
            *lines, self._rest = (self._rest + frame[1]).split(b"\n")
            self.seen += [line.decode(errors="replace") for line in lines]
        self._cursor += 1
        return self.seen[self._cursor - 1]

    def wait_for(self, wanted: str | re.Pattern[str] | Callable[[str], object],
                 timeout: float) -> str:
        """The first line not looked at yet that matches; lines before it count as looked at.

        `wanted` is a regular expression to be found in the line, or a function of it. Raises
        TimeoutError, whose text holds the last lines."""
        matches = wanted if callable(wanted) else re.compile(wanted).search
        deadline = time.monotonic() + timeout
        while (line := self.next_line(deadline - time.monotonic())) is not None:
            if matches(line):
                return line
        tail = "\n".join(self.seen[-15:])
        raise TimeoutError(f"{self.path}: no line matches {wanted} within {timeout:g} s; the last "
                           f"lines are:\n{tail}")

    def unread(self) -> Iterator[str]:
        """The lines that have arrived by now and were not looked at."""
        while (line := self.next_line(0)) is not None:
            yield line

    def close(self) -> None:
        if not self._task.over:
            self._task.send(STOP)
            self._task.drop()

    def __enter__(self) -> Follow:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Uevents(Task):
    """The kernel's uevents since the terminal came up, as dictionaries of their fields. One field
    more, MONOTONIC, holds when the terminal received it, in seconds of its own clock."""

    def __init__(self, channel: Channel, number: int) -> None:
        super().__init__(channel, number)
        self._changed = threading.Condition()
        self._listening = False
        self._events: list[dict[str, str]] = []

    @staticmethod
    def listen(channel: Channel, timeout: float) -> Uevents:
        """Returns once no event can be missed any more."""
        uevents = channel.open(UEVENTS, task_class=Uevents)
        assert isinstance(uevents, Uevents)
        with uevents._changed:
            if not uevents._changed.wait_for(lambda: uevents._listening, timeout):
                raise TaskFailed("the terminal does not listen to uevents")
        return uevents

    def mark(self) -> int:
        """A place in the stream, for wait() and since()."""
        with self._changed:
            return len(self._events)

    def wait(self, mark: int, timeout: float) -> bool:
        """Returns as soon as there is an event after the mark; False if none comes in time."""
        with self._changed:
            return self._changed.wait_for(lambda: len(self._events) > mark, timeout)

    def since(self, mark: int) -> list[dict[str, str]]:
        with self._changed:
            return self._events[mark:]

    def put(self, frame: Frame) -> None:
        """Takes a frame from the channel's thread."""
        if frame[0] != OUTPUT:
            return
        fields = frame[1].decode(errors="replace").rstrip("\0").split("\0")
        event = dict(field.split("=", 1) for field in fields[1:] if "=" in field)
        event["header"] = fields[0]
        with self._changed:
            if event["header"] == "listening@":
                self._listening = True
            else:
                self._events.append(event)
            self._changed.notify_all()
