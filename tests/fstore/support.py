"""What the tests of the built tool share: a database of their own, and ways to run it.

FSTORE_PROGRAM names the program, CALL_TRAP the library that strikes at its calls.
"""

import dataclasses
import json
import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM = os.environ["FSTORE_PROGRAM"]
CALL_TRAP = os.environ["CALL_TRAP"]
SANITIZED = os.environ.get("FSTORE_SANITIZED", "") != ""
LONG = os.environ.get("FSTORE_LONG", "") not in ("", "0")
PASSWORD = "correct horse"
CHEAP = ("--cost", "14")  # the least that is allowed; the default costs ten times as much
# A command before the program: permissions do not bind root, unless it gives up the right to
# pass them over.
BOUND = ("setpriv", "--bounding-set", "-dac_override,-dac_read_search") \
    if os.geteuid() == 0 else ()
SECONDS = 120  # after which a run hangs


def environment(**more):
    """The environment of a run: nothing of the tester's own settings, and `more`."""
    kept = {name: value for name, value in os.environ.items()
            if not name.startswith(("FSTORE_", "CALL_TRAP", "FILESTORE_"))
            and name not in ("NO_COLOR", "TERM", "COLUMNS", "VISUAL", "EDITOR")}
    result = {**kept, "TERM": "xterm", **{name: str(value) for name, value in more.items()}}
    if SANITIZED:
        # The look for leaks needs to trace the program, which lets nobody do that: now and
        # then it dies of it. The unit tests look for leaks. The trap stands in front of the
        # sanitizer.
        result["ASAN_OPTIONS"] = ":".join(filter(None, [
            result.get("ASAN_OPTIONS"), "detect_leaks=0",
            "verify_asan_link_order=0" if "LD_PRELOAD" in more else None]))
    return result


@dataclasses.dataclass
class Run:
    """How a run ended: exit code (negative: the signal), and what it wrote."""

    code: int
    out: bytes
    err: bytes

    @property
    def text(self):
        return self.out.decode()

    @property
    def message(self):
        return self.err.decode()

    @property
    def document(self):
        return json.loads(self.out)

    @property
    def error(self):
        # A sanitizer warns, in front of it, of memory that it does not give.
        return json.loads(self.err[self.err.index(b"{"):] if SANITIZED else self.err)["error"]


def start(*args, password=PASSWORD, cwd=None, env=None, pass_fds=(), memory=None, prefix=()):
    """Starts the tool without a terminal, by way of the command `prefix` when there is one.

    `password` None gives none; `memory` limits it.
    """
    given = {} if password is None else {"FSTORE_PASSWORD": password}
    given.update(env or {})
    limit = None
    if memory is not None and SANITIZED:
        given["ASAN_OPTIONS"] = given["TSAN_OPTIONS"] = \
            f"allocator_may_return_null=1:max_allocation_size_mb={memory >> 20}"
    elif memory is not None:
        def limit():
            resource.setrlimit(resource.RLIMIT_AS, (memory, memory))
    return subprocess.Popen([*prefix, PROGRAM, *map(str, args)], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=cwd,
                            env=environment(**given), pass_fds=pass_fds, preexec_fn=limit,
                            start_new_session=True)


def finish(process, stdin=b""):
    """Gives a started process its input, and waits for its end."""
    try:
        out, err = process.communicate(stdin, timeout=SECONDS)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        raise
    # Whatever a test is about, what it ran does not tell the password.
    assert PASSWORD.encode() not in out + err, (out, err)
    return Run(process.returncode, out, err)


def fstore(*args, stdin=b"", **more):
    """Runs the tool to its end; `more` as for start()."""
    return finish(start(*args, **more), stdin)


def wait_until(condition):
    """Waits for the condition, which another process brings about."""
    end = time.monotonic() + SECONDS
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("it did not come to pass")
        time.sleep(0.01)


class FstoreTest(unittest.TestCase):
    """A test with a folder of its own, in which it runs the tool."""

    maxDiff = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="fstore-test-"))
        self.addCleanup(shutil.rmtree, self.folder)

    def run_tool(self, *args, code=0, **more):
        """Runs the tool in the test's folder, and expects the exit code."""
        run = fstore(*args, cwd=self.folder, **more)
        self.assertEqual(code, run.code, f"fstore {args}\n{run.out!r}\n{run.message}")
        return run

    def fails(self, code, name, *args, **more):
        """Expects a failure, told the same to people and to programs; gives the sentence."""
        run = self.run_tool(*args, code=code, **more)
        self.assertRegex(run.message, r"fstore: error: .*[^.]\n\Z")
        run = self.run_tool("--json", *args, code=code, **more)
        self.assertEqual(b"", run.out)
        self.assertEqual(code, run.error["status"])
        self.assertEqual(name, run.error["name"])
        return run.error["message"]

    def write(self, name, contents):
        path = self.folder / name
        path.write_bytes(contents if isinstance(contents, bytes) else contents.encode())
        return path

    def init(self):
        self.run_tool("init", *CHEAP)

    def put(self, address, contents, *options, **more):
        self.run_tool("put", "-f", *options, address, "-", stdin=contents, **more)

    def body(self, address, **more):
        return self.run_tool("get", address, **more).out

    def records(self, **more):
        """The addresses that ls gives."""
        listed = self.run_tool("ls", "--json", **more).document["records"]
        return [record["address"] for record in listed]

    def assert_sound(self, **more):
        """Everything decrypts, and nothing is left over."""
        document = self.run_tool("check", "--deep", "--json", **more).document
        self.assertEqual([], document["findings"])
        self.assertTrue(document["sound"])

    def entries(self):
        """The names in the test's folder; not that of the times of backup and check."""
        return sorted(set(os.listdir(self.folder)) - {"db.state"})

    def files(self):
        """Every file below the test's folder, with its bytes; not the lock's, which says who
        locked last, nor the times of the last backup and check."""
        return {str(path.relative_to(self.folder)): path.read_bytes()
                for path in sorted(self.folder.rglob("*"))
                if path.is_file() and path.name not in ("db.lock", "db.state")}


class InitialisedTest(FstoreTest):
    """A test that begins with a new database, copied from one that is made once."""

    _template = None

    @classmethod
    def setUpClass(cls):
        cls._template = pathlib.Path(tempfile.mkdtemp(prefix="fstore-template-"))
        cls.addClassCleanup(shutil.rmtree, cls._template)
        run = fstore("-D", cls._template, "init", *CHEAP)
        assert run.code == 0, run.message
        cls.fill(cls._template)

    @classmethod
    def fill(cls, folder):
        """Puts records into the template; does nothing here."""

    def setUp(self):
        super().setUp()
        shutil.copytree(self._template, self.folder, dirs_exist_ok=True)


class _Result(unittest.TextTestResult):
    def __init__(self, *args):
        super().__init__(*args)
        self.cases = []

    def _add(self, test, failures):
        case = {"name": test.id().split(".")[-1], "status": "RUN", "result": "COMPLETED"}
        if failures:
            case["failures"] = failures
        self.cases.append((type(test).__name__, case))

    def addSuccess(self, test):
        super().addSuccess(test)
        self._add(test, [])

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._add(test, [{"failure": str(err[1])}])

    def addError(self, test, err):
        super().addError(test, err)
        self._add(test, [{"failure": str(err[1])}])

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self._add(test, [{"failure": f"{subtest}: {err[1]}"}])


def main():
    """Runs the calling module's tests, or those named, and tells the cases as GoogleTest would."""
    loader = unittest.defaultTestLoader
    module = sys.modules["__main__"]
    suite = loader.loadTestsFromNames(sys.argv[1:], module) if sys.argv[1:] \
        else loader.loadTestsFromModule(module)
    runner = unittest.TextTestRunner(resultclass=_Result, verbosity=2, stream=sys.stdout)
    started = time.monotonic()
    result = runner.run(suite)
    target = os.environ.get("GTEST_OUTPUT", "")
    if target.startswith("json:"):
        suites = {}
        for suite_name, case in result.cases:
            suites.setdefault(suite_name, []).append(case)
        path = pathlib.Path(target[len("json:"):])
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(json.dumps({"testsuites": [
            {"name": name, "testsuite": cases} for name, cases in suites.items()]}),
            encoding="utf-8")
    print(f"{result.testsRun} tests in {time.monotonic() - started:.1f} s")
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 else 1)
