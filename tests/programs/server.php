<?php
// Answers every connection over TLS with "ok": server.php PORT NAME.
[, $port, $name] = $argv;
$context = stream_context_create(
    ['ssl' => ['local_cert' => "$name.pem", 'local_pk' => "$name.ref"]]);
$server = stream_socket_server("tls://127.0.0.1:$port", $code, $reason,
    STREAM_SERVER_BIND | STREAM_SERVER_LISTEN, $context);
if ($server === false) {
    exit("$reason\n");
}
for (;;) {
    $client = @stream_socket_accept($server, 30);
    if ($client !== false) {
        fwrite($client, "ok\n");
        fclose($client);
    }
}
