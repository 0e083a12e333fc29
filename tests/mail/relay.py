#!/usr/bin/python3
"""SMTP relay for the notification tests: aiosmtpd on 127.0.0.1, listening on
several ports at once (a fixed one such as 25 and a free one chosen here), with
STARTTLS and AUTH PLAIN/LOGIN offered only after TLS.

Message N is written to OUT/N.eml (the bytes received) and OUT/N.envelope:
    PORT <port the client connected to>
    FROM <envelope sender>
    OPTIONS <MAIL FROM options>
    TO <recipient>            (one line each)
The envelope file appears last, by rename, so its presence means the message
is complete. The ports, in the order asked, are written space-separated to the
READY file once every listener accepts connections. Runs until terminated."""
import argparse
import itertools
import os
import random
import signal
import ssl
import sys
import threading
import time

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult, LoginPassword

parser = argparse.ArgumentParser()
parser.add_argument("--cert", required=True)
parser.add_argument("--key", required=True)
parser.add_argument("--out", required=True, help="folder for the received messages")
parser.add_argument("--ready", required=True)
parser.add_argument("--user", required=True)
parser.add_argument("--password", required=True)
parser.add_argument("--port", type=int, action="append", default=[],
                    help="port to listen on; 0 picks a free one below 32768")
args = parser.parse_args()

counter = itertools.count(1)
counter_lock = threading.Lock()


class Handler:
    def __init__(self, port):
        self.port = port

    async def handle_DATA(self, server, session, envelope):
        with counter_lock:
            number = next(counter)
        base = os.path.join(args.out, str(number))
        with open(base + ".eml", "wb") as f:
            f.write(envelope.original_content)
        with open(base + ".envelope.tmp", "w") as f:
            f.write("PORT %d\n" % self.port)
            f.write("FROM %s\n" % envelope.mail_from)
            f.write("OPTIONS %s\n" % " ".join(envelope.mail_options))
            for rcpt in envelope.rcpt_tos:
                f.write("TO %s\n" % rcpt)
        os.rename(base + ".envelope.tmp", base + ".envelope")
        return "250 Message accepted for delivery"


def authenticator(server, session, envelope, mechanism, auth_data):
    ok = (isinstance(auth_data, LoginPassword)
          and auth_data.login == args.user.encode()
          and auth_data.password == args.password.encode())
    return AuthResult(success=ok, handled=False)


context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(args.cert, args.key)


def listen(port):
    candidate = Controller(Handler(port), hostname="127.0.0.1", port=port, tls_context=context,
                           require_starttls=False, authenticator=authenticator, auth_require_tls=True,
                           ready_timeout=10)
    candidate.start()
    return candidate


controllers = []
ports = []
for wanted in args.port:
    if wanted:
        controllers.append(listen(wanted))
        ports.append(wanted)
        continue
    # The client reads ports as signed 16-bit numbers: stay below 32768.
    for attempt in range(200):
        port = random.randint(20000, 32000)
        try:
            controllers.append(listen(port))
        except Exception:
            continue
        ports.append(port)
        break
    else:
        sys.exit("no free port")

with open(args.ready + ".tmp", "w") as f:
    f.write(" ".join(str(p) for p in ports))
os.rename(args.ready + ".tmp", args.ready)


def stop(*unused):
    for controller in controllers:
        controller.stop()
    sys.exit(0)


signal.signal(signal.SIGTERM, stop)
while True:
    time.sleep(1)
