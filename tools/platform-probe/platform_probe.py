"""Runs the probe's console from Python: sends commands, reads results and changes."""

import collections
import os
import queue
import subprocess
import threading
import time

TIMEOUT = 8  # seconds: long enough for a loaded machine


class Process:
    """A child process whose output is read line by line. Killed at the end of the context."""

    def __init__(self, *command, **options):
        self.child = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True, bufsize=1, **options)
        self.transcript = []
        self._lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.child.kill()
        self.child.wait()

    def _read(self):
        for line in self.child.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def next_line(self, deadline):
        """Returns the next line. Raises TimeoutError at the deadline or the end of the output."""
        try:
            line = self._lines.get(timeout=max(0, deadline - time.monotonic()))
        except queue.Empty:
            line = None
        if line is None:
            raise TimeoutError("no more output after:\n" + "\n".join(self.transcript))
        self.transcript.append(line)
        return line

    def wait_for(self, text):
        """Returns the next line that contains the text and skips those before it."""
        deadline = time.monotonic() + TIMEOUT
        while text not in (line := self.next_line(deadline)):
            pass
        return line

    def stop(self):
        """Sends SIGTERM and returns the exit status."""
        self.child.terminate()
        return self.child.wait(TIMEOUT)


class Probe(Process):
    """The console on the platform library of a directory."""

    def __init__(self, program, library_directory, **environment):
        variables = {**os.environ, "LD_LIBRARY_PATH": str(library_directory), **environment}
        super().__init__(str(program), "console",
                         env={name: value for name, value in variables.items()
                              if value is not None})
        self._results = collections.deque()
        self._changes = collections.deque()

    def _take(self, lines):
        """Waits for a result or a change, whichever list is given."""
        deadline = time.monotonic() + TIMEOUT
        while not lines:
            moment, mark, text = (self.next_line(deadline) + "  ").split(" ", 2)
            if mark in ("=", "*"):
                (self._results if mark == "=" else self._changes).append(
                    (int(moment), text.rstrip()))
        return lines.popleft()

    def send(self, *commands):
        """Sends commands at once; their results are collected later."""
        print(*commands, sep="\n", file=self.child.stdin)

    def result(self):
        """Returns the result of the oldest command whose result was not collected."""
        return self._take(self._results)[1]

    def ask(self, command):
        """Sends a command and returns its result."""
        self.send(command)
        return self.result()

    def next_change(self):
        """Returns the time, in microseconds of CLOCK_MONOTONIC, and the text of the next change."""
        return self._take(self._changes)

    def ask_until(self, command, result):
        """Repeats a command until this is its result."""
        deadline = time.monotonic() + TIMEOUT
        while (last := self.ask(command)) != result:
            if time.monotonic() > deadline:
                raise TimeoutError(f"{command}: still {last}, not {result}")
            time.sleep(0.005)

    def changes(self):
        """Returns the texts of all changes that came before the last result."""
        texts = [text for _, text in self._changes]
        self._changes.clear()
        return texts

    def changes_until(self, *texts):
        """Waits until each change has come, and returns all changes up to then."""
        changes = []
        while not set(texts) <= set(changes):
            changes.append(self.next_change()[1])
        return changes
