"""A small certificate authority, made with openssl."""

import datetime

import support
from pki import openssl

CONFIG = """
[ca]
default_ca = here
[here]
dir = {folder}
database = {folder}/index.txt
serial = {folder}/serial
crlnumber = {folder}/crlnumber
new_certs_dir = {folder}
default_md = sha256
policy = any
unique_subject = no
copy_extensions = copyall
default_crl_days = 30
[any]
commonName = optional
organizationName = optional
[leaf]
authorityKeyIdentifier = keyid
subjectKeyIdentifier = hash
[issuer]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[partition]
issuingDistributionPoint = critical,@place
[place]
fullname = URI:http://crl.example.com/1
[delta]
2.5.29.27 = critical,ASN1:INTEGER:1
[odd]
1.2.3.4 = critical,ASN1:NULL
"""


def day(days=0, form="%Y-%m-%d"):
    """So many days from now."""
    time = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=days)
    return time.strftime(form)


def moment(days):
    """The same as openssl takes it."""
    return day(days, "%Y%m%d%H%M%SZ")


def request_of_key(folder, name, *options):
    """A request, for Authority.sign(), of a new key in the database of the folder."""
    made = support.fstore("-D", folder, "generate", name, "--request", *options)
    assert made.code == 0, made.message
    removed = support.fstore("-D", folder, "rm", f"crm/{name}")
    assert removed.code == 0, removed.message
    return made.out


class Authority:
    """Signs requests and lists, in a folder of its own."""

    def __init__(self, folder, name, issuer=None, begin=-100, end=1000):
        self.folder = folder / name
        self.folder.mkdir()
        self.certificate = self.folder / "ca.pem"
        for file, text in (("index.txt", ""), ("index.txt.attr", "unique_subject = no\n"),
                           ("serial", "1000\n"), ("crlnumber", "01\n"),
                           ("ca.cnf", CONFIG.format(folder=self.folder))):
            (self.folder / file).write_text(text)
        openssl("genpkey", "-algorithm", "ed25519", "-out", self.folder / "ca.key")
        request = openssl("req", "-new", "-key", self.folder / "ca.key", "-subj", f"/CN={name}")
        self.certificate.write_bytes((issuer or self).sign(
            request, begin, end, "issuer", () if issuer else ("-selfsign",)))

    def ca(self, *args, stdin=b""):
        return openssl("ca", "-batch", "-notext", "-config", self.folder / "ca.cnf",
                       "-keyfile", self.folder / "ca.key", *args, stdin=stdin)

    def sign(self, request, begin=-10, end=90, kind="leaf", options=()):
        """The certificate of a request, in PEM; its life in days from now."""
        path = self.folder / "request.pem"
        path.write_bytes(request)
        own = () if "-selfsign" in options else ("-cert", self.certificate)
        return self.ca("-in", path, "-startdate", moment(begin), "-enddate", moment(end),
                       "-extensions", kind, *own, *options)

    def revoke(self, certificate):
        path = self.folder / "revoked.pem"
        path.write_bytes(certificate)
        self.ca("-cert", self.certificate, "-revoke", path)

    def crl(self, begin=-1, end=30, options=()):
        """The list of what was revoked; of another shape with ("-crlexts", SECTION)."""
        return self.ca("-cert", self.certificate, "-gencrl", "-crl_lastupdate", moment(begin),
                       "-crl_nextupdate", moment(end), *options)
