"""The files of make_pki.sh, made once for a test program, and the openssl program."""

import atexit
import pathlib
import shutil
import subprocess
import tempfile

SCRIPT = pathlib.Path(__file__).parents[1] / "lib/pki/make_pki.sh"
IN_PASSWORD = {"FSTORE_IN_PASSWORD": "secret"}  # of all encrypted files

_made = None


def files():
    """The folder with the files."""
    global _made
    if _made is None:
        _made = pathlib.Path(tempfile.mkdtemp(prefix="fstore-pki-"))
        atexit.register(shutil.rmtree, _made)
        subprocess.run(["sh", SCRIPT, _made], check=True)
    return _made


def openssl(*args, stdin=b""):
    """What the openssl program writes; its failure is a failure of the test."""
    run = subprocess.run(["openssl", *map(str, args)], input=stdin, capture_output=True,
                         check=False, timeout=120)
    assert run.returncode == 0, f"openssl {args}: {run.stderr.decode()}"
    return run.stdout


def secret_of(key):
    """The private number of a P-256 key in PKCS#8."""
    return key.split(b"\x02\x01\x01\x04\x20", 1)[1][:32]
