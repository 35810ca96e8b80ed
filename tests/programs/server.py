"""Answers one request over TLS with the name of its client: server.py PORT NAME."""

import socket
import ssl
import sys

port, name = int(sys.argv[1]), sys.argv[2]
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(f"{name}.pem", f"{name}.ref")
context.load_verify_locations("root.pem")
context.verify_mode = ssl.CERT_REQUIRED
with socket.create_server(("127.0.0.1", port)) as server:
    server.settimeout(30)
    connection, _ = server.accept()
    with context.wrap_socket(connection, server_side=True) as client:
        client.recv(4096)
        (((key, value),),) = client.getpeercert()["subject"]
        client.sendall(f"HTTP/1.0 200 OK\r\n\r\n{key}={value}\n".encode())
