#!/usr/bin/python3
"""The tests' SMTP relay: aiosmtpd on 127.0.0.1 on every --port (0: a free one), STARTTLS, AUTH only after TLS.
Message N goes to OUT/N.eml, then OUT/N.envelope ("PORT p", "FROM a", "OPTIONS o", "TO a"...); every byte
received, decrypted, to OUT/wire; the ports to READY once all listen. --help lists the variants."""
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
from aiosmtpd.smtp import MISSING, SMTP, AuthResult, LoginPassword

parser = argparse.ArgumentParser()
parser.add_argument("--cert", required=True)
parser.add_argument("--key", required=True)
parser.add_argument("--out", required=True)
parser.add_argument("--ready", required=True)
parser.add_argument("--user", default="ali")
parser.add_argument("--password", default="sesame")
parser.add_argument("--port", type=int, action="append")
parser.add_argument("--exclude", action="append", default=[], help="an AUTH mechanism not to offer")
parser.add_argument("--implicit-tls", action="store_true", help="TLS from the first byte")
parser.add_argument("--no-starttls", action="store_true", help="AUTH in plain text")
parser.add_argument("--starttls-last", action="store_true", help="in mixed case on the EHLO reply's last line")
parser.add_argument("--noise-after-starttls", action="store_true", help="plain text right after 220")
args = parser.parse_args()
os.makedirs(args.out, exist_ok=True)
counter = itertools.count(1)
lock = threading.Lock()


def authenticator(server, session, envelope, mechanism, auth_data):
    ok = (isinstance(auth_data, LoginPassword) and auth_data.login == args.user.encode()
          and auth_data.password == args.password.encode())
    return AuthResult(success=ok, handled=False)


class Handler:
    def __init__(self, port):
        self.port = port

    async def handle_DATA(self, server, session, envelope):
        with lock:
            base = os.path.join(args.out, str(next(counter)))
        with open(base + ".eml", "wb") as f:
            f.write(envelope.original_content)
        with open(base + ".envelope.tmp", "w") as f:
            f.write("PORT %d\nFROM %s\nOPTIONS %s\n" % (self.port, envelope.mail_from, " ".join(envelope.mail_options)))
            f.writelines("TO %s\n" % rcpt for rcpt in envelope.rcpt_tos)
        os.rename(base + ".envelope.tmp", base + ".envelope")
        return "250 Message accepted for delivery"

    async def handle_EHLO(self, server, session, envelope, hostname, responses):
        session.host_name = hostname
        if args.starttls_last and "250-STARTTLS" in responses:
            responses = [r for r in responses if r not in ("250-STARTTLS", "250 HELP")] + ["250 StartTLS"]
        return responses

    # The classic "Username:" and "Password:" prompts, not aiosmtpd's own.
    async def auth_LOGIN(self, server, unused):
        login = await server.challenge_auth("Username:")
        password = MISSING if login is MISSING else await server.challenge_auth("Password:")
        if password is MISSING:
            return AuthResult(success=False)
        return authenticator(server, None, None, "LOGIN", LoginPassword(login, password))


class RecordingSMTP(SMTP):
    def data_received(self, data):
        with lock, open(os.path.join(args.out, "wire"), "ab") as f:
            f.write(data)
        super().data_received(data)

    async def push(self, status):
        if args.noise_after_starttls and status == "220 Ready to start TLS":
            # What a man in the middle would slip in before the handshake.
            status += "\r\n250-AUTH PLAIN LOGIN\r\n250 noise"
        await super().push(status)


class RecordingController(Controller):
    def factory(self):
        return RecordingSMTP(self.handler, **self.SMTP_kwargs)


context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(args.cert, args.key)
plain = args.no_starttls or args.implicit_tls


def listen(port):
    tls = {"ssl_context": context} if args.implicit_tls else {} if plain else {"tls_context": context}
    # Over implicit TLS aiosmtpd sees no STARTTLS and would never offer AUTH.
    controller = RecordingController(Handler(port), hostname="127.0.0.1", port=port, require_starttls=False,
                                     authenticator=authenticator, auth_require_tls=not plain,
                                     auth_exclude_mechanism=args.exclude, ready_timeout=10, **tls)
    controller.start()
    return controller


controllers, ports = [], []
for wanted in args.port or [0]:
    # The client reads ports as signed 16-bit numbers: stay below 32768.
    for port in [wanted] if wanted else (random.randint(20000, 32000) for _ in range(200)):
        try:
            controllers.append(listen(port))
        except Exception:
            continue
        ports.append(port)
        break
    else:
        sys.exit("cannot listen on port %d" % wanted)

with open(args.ready + ".tmp", "w") as f:
    f.write(" ".join(str(p) for p in ports))
os.rename(args.ready + ".tmp", args.ready)
signal.signal(signal.SIGTERM, lambda *unused: ([c.stop() for c in controllers], sys.exit(0)))
while True:
    time.sleep(1)
