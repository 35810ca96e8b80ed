"""Connects to the servers of renewals.sh until all of them serve the last certificate, which they
have thirty seconds for once all is deployed, and watches the files that they load: clients.py SERIAL.

A handshake that fails is a failure; so is a certificate that has two references in the course of
time, or a reference that has two certificates.
"""

import collections
import os
import socket
import ssl
import sys
import threading
import time

HOST = "renewed.example.com"
PORTS = {"nginx": 8460, "haproxy": 8461, "Apache": 8462}
SECONDS = 30

last = int(sys.argv[1])
end = None
failures = []
counts = collections.Counter()
pairs = set()
served = {}
context = ssl.create_default_context(cafile="renewals.pem")


def handshake(port):
    """The serial number of the certificate; a client that verifies it."""
    with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
        with context.wrap_socket(connection, server_hostname=HOST) as client:
            client.sendall(f"GET / HTTP/1.0\r\nHost: {HOST}\r\n\r\n".encode())
            if not client.recv(100):
                raise OSError("no answer")
            return int(client.getpeercert()["serialNumber"], 16)


def is_over():
    global end
    if end is None and os.path.exists("renewals.done"):
        end = time.monotonic() + SECONDS
    return end is not None and time.monotonic() > end


def connect(name):
    while served.get(name) != last and not is_over():
        try:
            served[name] = handshake(PORTS[name])
            counts[name] += 1
            time.sleep(0.01)
        except OSError as failure:
            failures.append(f"{name} after {served.get(name)}: {failure}")
            time.sleep(0.1)


def pair_in_folder(path):
    folder = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        texts = []
        for name in "chain.pem", "key.ref":
            file = os.open(name, os.O_RDONLY, dir_fd=folder)
            texts.append(os.read(file, 1 << 16))
            os.close(file)
        return tuple(texts)
    except FileNotFoundError:
        return None  # it is no longer the present one, and was removed
    finally:
        os.close(folder)


def pair_in_bundle(path):
    with open(path, "rb") as file:
        chain, reference = file.read().split(b"-----BEGIN FSTORE URI-----")
    return chain, b"-----BEGIN FSTORE URI-----" + reference


def watch():
    while any(thread.is_alive() for thread in clients):
        pairs.add(pair_in_folder("renewed-nginx"))
        pairs.add(pair_in_folder("renewed-apache"))
        pairs.add(pair_in_bundle("renewed-haproxy.pem"))
        time.sleep(0.005)


clients = [threading.Thread(target=connect, args=(name,)) for name in PORTS]
for thread in clients:
    thread.start()
watch()
pairs.discard(None)
for what in 0, 1:
    if len({pair[what] for pair in pairs}) != len(pairs):
        failures.append(f"{len(pairs)} pairs, of {len({pair[what] for pair in pairs})}")
for name in PORTS:
    if served.get(name) != last:
        failures.append(f"{name} serves {served.get(name)}")
print("\n".join(failures[:20]))
print(f"failures: {len(failures)}, pairs seen: {len(pairs)}, handshakes: {dict(counts)}")
