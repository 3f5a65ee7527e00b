"""The tool on a terminal of its own."""

import os
import pty
import select
import termios
import time

from support import DEADLINE, TOOL


class Terminal:
    """A run whose terminal the test reads and types on.

    `output` is a descriptor that takes the place of standard output; `cleanup` is the test's
    addCleanup; where the terminal `isHeld`, it takes no output, as after Ctrl-S.
    """

    def __init__(self, cleanup, *arguments, output=None, is_held=False):
        self.shown = b""
        self.pid, self._terminal = pty.fork()
        if self.pid == 0:
            if is_held:
                termios.tcflow(0, termios.TCOOFF)
            if output is not None:
                os.dup2(output, 1)
            os.execv(TOOL, [TOOL, *arguments])
        self._status = None
        cleanup(self._end)

    def type(self, text):
        os.write(self._terminal, text)

    def echoes(self):
        return bool(termios.tcgetattr(self._terminal)[3] & termios.ECHO)

    def read_until(self, text, after=b""):
        """Until the text is on the terminal, behind another one; fails where it does not come."""
        deadline = time.monotonic() + DEADLINE
        while text not in (self.shown.partition(after)[2] if after else self.shown):
            if not self._read_before(deadline):
                raise AssertionError(f"{text} is not in {self.shown}")

    def read_to_end(self):
        """The exit status; negative, the number of the signal that ended the run."""
        deadline = time.monotonic() + DEADLINE
        while self._read_before(deadline):
            pass
        if time.monotonic() >= deadline:
            raise AssertionError(f"the run does not end; it shows {self.shown}")
        return self._wait()

    def _read_before(self, deadline):
        readable, _, _ = select.select(
            [self._terminal], [], [], max(deadline - time.monotonic(), 0)
        )
        if not readable:
            return False
        try:
            part = os.read(self._terminal, 4096)
        except OSError:  # the terminal's last user is gone
            return False
        self.shown += part
        return bool(part)

    def _wait(self):
        if self._status is None:
            _, status = os.waitpid(self.pid, 0)
            self._status = os.waitstatus_to_exitcode(status)
        return self._status

    def _end(self):
        if self._status is None:
            os.kill(self.pid, 9)
            self._wait()
        os.close(self._terminal)
