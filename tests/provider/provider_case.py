"""What the tests of the provider share: a database with keys of each kind, and the openssl program."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "fstore"))
import support  # noqa: E402
from support import InitialisedTest  # noqa: E402

PROVIDER = os.environ["FSTORE_PROVIDER"]
ALGORITHMS = {"rsa": ["RSA", "-pkeyopt", "rsa_keygen_bits:2048"],
              "ec": ["EC", "-pkeyopt", "ec_paramgen_curve:P-256"],
              "ed": ["ED25519"],
              "pss": ["RSA-PSS", "-pkeyopt", "rsa_keygen_bits:2048"]}
CONFIGURATION = """
openssl_conf = init
[init]
providers = providers
[providers]
default = default_sect
fstore = fstore_sect
[default_sect]
activate = 1
[fstore_sect]
module = {module}
dir = {folder}
activate = 1
{more}
"""


def plain(*args, stdin=b"", cwd=None):
    """The openssl program without the provider."""
    run = subprocess.run(["openssl", *map(str, args)], input=stdin, capture_output=True, cwd=cwd,
                         check=False, timeout=60)
    assert run.returncode == 0, f"openssl {args}: {run.stderr.decode()}"
    return run.stdout


def make_files(folder):
    """A key and certificate of each algorithm, under one root, and a CRL."""
    for name, algorithm in {**ALGORITHMS, "root": ["ED25519"]}.items():
        plain("genpkey", "-quiet", "-algorithm", *algorithm, "-out", f"{name}.key", cwd=folder)
    plain("req", "-x509", "-new", "-key", "root.key", "-subj", "/CN=Root", "-days", "99",
          "-out", "root.pem", cwd=folder)
    for serial, name in enumerate(ALGORITHMS, 2):
        plain("req", "-new", "-key", f"{name}.key", "-subj", f"/CN={name}", "-out", "request",
              cwd=folder)
        (folder / "extensions").write_text(f"subjectAltName = DNS:{name}.example.com\n")
        plain("x509", "-req", "-in", "request", "-CA", "root.pem", "-CAkey", "root.key", "-days",
              "9", "-set_serial", serial, "-extfile", "extensions", "-out", f"{name}.pem",
              cwd=folder)
    (folder / "index").write_text("")
    (folder / "ca.cnf").write_text("[ca]\ndefault_ca=c\n[c]\ndatabase=index\ndefault_md=sha256\n")
    plain("ca", "-config", "ca.cnf", "-gencrl", "-keyfile", "root.key", "-cert", "root.pem",
          "-crldays", "9", "-out", "crl.pem", cwd=folder)


class ProviderTest(InitialisedTest):
    made = None

    @classmethod
    def fill(cls, folder):
        cls.made = pathlib.Path(tempfile.mkdtemp(prefix="fstore-provider-"))
        cls.addClassCleanup(shutil.rmtree, cls.made)
        make_files(cls.made)
        for name in (*ALGORITHMS, "root"):
            keys = [f"{name}.key"] if name != "root" else []
            files = [cls.made / file for file in (*keys, f"{name}.pem")]
            assert support.fstore("-D", folder, "import", "--label", name, *files).code == 0
        assert support.fstore("-D", folder, "import", cls.made / "crl.pem").code == 0
        cls.key_file = cls.made / "host.key"
        assert support.fstore("-D", folder, "key", "add", "--key-file", cls.key_file).code == 0

    def setUp(self):
        super().setUp()
        self.write("password", support.PASSWORD + "\n").chmod(0o600)
        self.configure(f"key-file = {self.key_file}")

    def use_password(self):
        self.configure(f"password-file = {self.folder}/password")

    def configure(self, more=""):
        self.write("openssl.cnf", CONFIGURATION.format(module=PROVIDER, folder=self.folder,
                                                       more=more))

    def command(self, *args, env=None, stdin=b"", prefix=()):
        given = {**support.environment(OPENSSL_CONF=self.folder / "openssl.cnf"), **(env or {})}
        run = subprocess.run([*prefix, *map(str, args)], input=stdin, capture_output=True,
                             cwd=self.folder, env=given, check=False, timeout=300)
        self.assertNotIn(support.PASSWORD.encode(), run.stdout + run.stderr)
        return run

    def openssl(self, *args, **more):
        """The openssl program with the provider; what it writes."""
        run = self.command("openssl", *args, **more)
        self.assertEqual(0, run.returncode, f"openssl {args}\n{run.stderr.decode()}")
        return run.stdout

    def refused(self, *args, **more):
        """What it writes about its failure."""
        run = self.command("openssl", *args, **more)
        self.assertNotEqual(0, run.returncode, args)
        return run.stderr.decode()

    def ref(self, record, name="ref.pem"):
        """A reference file of ours."""
        self.run_tool("ref", record, "-o", name, "-f", password=None)
        return self.folder / name

    def only(self, kind):
        (address,) = [record["address"] for record in
                      self.run_tool("ls", "--json", password=None).document["records"]
                      if record["kind"] == kind]
        return address
