"""A terminal to run the tool on: what it shows, and what a user types."""

import fcntl
import os
import pty
import select
import signal
import struct
import termios
import time

import support


class Terminal:
    """A process of the tool with a controlling terminal of its own."""

    def __init__(self, args, cwd=None, columns=80, stdout=None, env=None, password=None):
        given = {} if password is None else {"FSTORE_PASSWORD": password}
        environment = support.environment(**given, **(env or {}))
        self.pid, self._master = pty.fork()
        if self.pid == 0:
            try:
                if cwd is not None:
                    os.chdir(cwd)
                if stdout is not None:
                    os.dup2(os.open(stdout, os.O_WRONLY | os.O_CREAT, 0o600), 1)
                fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
                os.execve(support.PROGRAM, [support.PROGRAM, *map(str, args)], environment)
            finally:
                os._exit(99)
        self.seen = ""
        self._read_to = 0
        self._status = None

    def _read_some(self, seconds):
        """Reads what is there; false when the terminal has no more writers."""
        if not select.select([self._master], [], [], seconds)[0]:
            return True
        try:
            data = os.read(self._master, 65536)
        except OSError:
            return False
        self.seen += data.decode(errors="replace")
        return bool(data)

    def expect(self, text):
        """Waits until the text is shown, after what was expected before."""
        end = time.monotonic() + support.SECONDS
        while self.seen.find(text, self._read_to) < 0:
            if time.monotonic() > end or not self._read_some(0.1):
                raise AssertionError(f"{text!r} was not shown: {self.seen!r}")
        self._read_to = self.seen.find(text, self._read_to) + len(text)
        # A prompt is shown when the terminal is silent already.

    def read_again(self):
        """Expects from the beginning again."""
        self._read_to = 0

    def shows(self):
        """Whether the terminal shows what is typed."""
        return bool(termios.tcgetattr(self._master)[3] & termios.ECHO)

    def type(self, text):
        os.write(self._master, text.encode())

    def await_stop(self):
        """Waits until Ctrl-Z has stopped it."""
        end = time.monotonic() + support.SECONDS
        while os.waitpid(self.pid, os.WNOHANG | os.WUNTRACED) == (0, 0):
            if time.monotonic() > end:
                raise AssertionError("it was not stopped")
            self._read_some(0.05)

    def resume(self):
        os.kill(self.pid, signal.SIGCONT)

    def hang_up(self):
        os.close(self._master)
        self._master = -1

    def wait(self):
        """The exit code; negative for a signal."""
        end = time.monotonic() + support.SECONDS
        open_ = self._master >= 0
        while self._status is None:
            if open_:
                open_ = self._read_some(0.05)
            else:
                time.sleep(0.02)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid != 0:
                self._status = os.waitstatus_to_exitcode(status)
            elif time.monotonic() > end:
                os.kill(self.pid, signal.SIGKILL)
        while open_ and select.select([self._master], [], [], 0)[0]:
            open_ = self._read_some(0)
        return self._status

    def close(self):
        if self._status is None:
            os.kill(self.pid, signal.SIGKILL)
            self.wait()
        if self._master >= 0:
            os.close(self._master)
            self._master = -1
