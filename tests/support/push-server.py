#!/usr/bin/python3
"""An HTTPS server on 127.0.0.1 for every push service. Each request goes to --out as lines "METHOD m", "PATH p",
"HEADER name: value" (lower-case name), "FIELD key=value" (JSON or form body flattened: "embeds.0.color"), "END".
--script: {"path prefix": [answer, ...]} answered in turn, the last repeating; other paths answer 200 {}."""
import argparse
import json
import os
import ssl
import threading
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

parser = argparse.ArgumentParser()
parser.add_argument("--cert", required=True)
parser.add_argument("--key", required=True)
parser.add_argument("--out", required=True)
parser.add_argument("--ready", required=True)
parser.add_argument("--script", default="", help="read afresh for every request")
args = parser.parse_args()

lock = threading.Lock()
served = {}


def flatten(value, prefix, out):
    if isinstance(value, dict):
        for k, v in value.items():
            flatten(v, f"{prefix}.{k}" if prefix else k, out)
    elif isinstance(value, list):
        for i, v in enumerate(value):
            flatten(v, f"{prefix}.{i}", out)
    else:
        out.append((prefix, json.dumps(value) if not isinstance(value, str) else value))


def answer_for(path):
    try:
        with open(args.script) as f:
            script = json.load(f)
    except (OSError, ValueError):
        script = {}
    for prefix, answers in script.items():
        if path.startswith(prefix):
            n = served.get(prefix, 0)
            served[prefix] = n + 1
            return answers[min(n, len(answers) - 1)]
    return {"status": 200, "body": {}}


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *unused):
        pass

    def handle_any(self):
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length else b""
        fields = []
        kind = self.headers.get("Content-Type", "")
        try:
            if kind.startswith("application/json"):
                flatten(json.loads(body), "", fields)
            elif kind.startswith("application/x-www-form-urlencoded"):
                fields = urllib.parse.parse_qsl(body.decode(), keep_blank_values=True)
        except ValueError:
            fields = [("<unparsable>", body.decode(errors="replace"))]
        lines = [f"METHOD {self.command}", f"PATH {self.path}"]
        lines += [f"HEADER {k.lower()}: {v}" for k, v in self.headers.items()]
        lines += [f"FIELD {k}=" + v.replace("\n", "\\n") for k, v in fields]
        with lock:
            with open(args.out, "a") as f:
                f.write("\n".join(lines) + "\nEND\n")
            answer = answer_for(self.path)
        if answer.get("hang"):
            time.sleep(3600)
            return
        payload = json.dumps(answer.get("body", {})).encode()
        self.send_response(answer.get("status", 200))
        if "retry_after" in answer:
            self.send_header("Retry-After", str(answer["retry_after"]))
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        self.wfile.write(payload)

    do_GET = do_POST = do_PUT = handle_any


server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
server.daemon_threads = True
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(args.cert, args.key)
# The handshake runs in the request's own thread, so a client that stalls or
# refuses the certificate never holds up the others.
server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
with open(args.ready + ".tmp", "w") as f:
    f.write(str(server.server_address[1]))
os.rename(args.ready + ".tmp", args.ready)
server.serve_forever()
