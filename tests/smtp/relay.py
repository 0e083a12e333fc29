#!/usr/bin/python3
"""SMTP relay for the session tests: aiosmtpd on 127.0.0.1 with STARTTLS and
AUTH (only after TLS). Each received message is appended to OUT.eml and its
envelope to OUT.envelope; every byte the relay received (decrypted) is
appended to OUT.wire. The chosen port is written to the READY file once the
relay accepts connections; it runs until terminated.

Variants: --implicit-tls speaks TLS from the first byte; --no-starttls offers
no TLS at all (and AUTH in plain text); --starttls-last lists STARTTLS, in
mixed case, on the last line of the EHLO reply; --noise-after-starttls sends
plain-text replies right after "220" to STARTTLS."""
import argparse
import random
import signal
import ssl
import sys
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
parser.add_argument("--exclude", action="append", default=[], help="AUTH mechanism not to offer")
parser.add_argument("--port", type=int, default=0, help="0 picks a free one below 32768")
parser.add_argument("--implicit-tls", action="store_true")
parser.add_argument("--no-starttls", action="store_true")
parser.add_argument("--starttls-last", action="store_true")
parser.add_argument("--noise-after-starttls", action="store_true")
args = parser.parse_args()


class Handler:
    async def handle_DATA(self, server, session, envelope):
        with open(args.out + ".eml", "ab") as f:
            f.write(envelope.original_content)
        with open(args.out + ".envelope", "a") as f:
            f.write("FROM %s\n" % envelope.mail_from)
            f.write("OPTIONS %s\n" % " ".join(envelope.mail_options))
            for rcpt in envelope.rcpt_tos:
                f.write("TO %s\n" % rcpt)
        return "250 Message accepted for delivery"

    async def handle_EHLO(self, server, session, envelope, hostname, responses):
        session.host_name = hostname
        if args.starttls_last and "250-STARTTLS" in responses:
            responses = [r for r in responses if r not in ("250-STARTTLS", "250 HELP")]
            responses.append("250 StartTLS")
        return responses

    # aiosmtpd prompts "User Name\0"; most relays, and the client, use the
    # classic "Username:" and "Password:" prompts.
    async def auth_LOGIN(self, server, args):
        login = await server.challenge_auth("Username:")
        if login is MISSING:
            return AuthResult(success=False)
        password = await server.challenge_auth("Password:")
        if password is MISSING:
            return AuthResult(success=False)
        return authenticator(server, None, None, "LOGIN", LoginPassword(login, password))


def authenticator(server, session, envelope, mechanism, auth_data):
    ok = (isinstance(auth_data, LoginPassword)
          and auth_data.login == args.user.encode()
          and auth_data.password == args.password.encode())
    return AuthResult(success=ok, handled=False)


context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(args.cert, args.key)


class RecordingSMTP(SMTP):
    def data_received(self, data):
        with open(args.out + ".wire", "ab") as f:
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


def make_controller(port):
    tls = {} if args.no_starttls or args.implicit_tls else {"tls_context": context}
    if args.implicit_tls:
        tls["ssl_context"] = context
    return RecordingController(Handler(), hostname="127.0.0.1", port=port, require_starttls=False,
                               authenticator=authenticator,
                               # Over implicit TLS aiosmtpd sees no STARTTLS, so it would never offer AUTH.
                               auth_require_tls=not (args.no_starttls or args.implicit_tls),
                               auth_exclude_mechanism=args.exclude, ready_timeout=10, **tls)

# The client reads ports as signed 16-bit numbers: stay below 32768.
controller = None
for attempt in range(1 if args.port else 200):
    port = args.port or random.randint(20000, 32000)
    candidate = make_controller(port)
    try:
        candidate.start()
    except Exception:
        continue
    controller = candidate
    break
if controller is None:
    sys.exit("no free port")

with open(args.ready + ".tmp", "w") as f:
    f.write(str(port))
import os
os.rename(args.ready + ".tmp", args.ready)

signal.signal(signal.SIGTERM, lambda *a: (controller.stop(), sys.exit(0)))
while True:
    time.sleep(1)
