#!/usr/bin/python3
"""SMTP relay for the session tests: aiosmtpd on 127.0.0.1 with STARTTLS and
AUTH (only after TLS). Each received message is appended to OUT.eml and its
envelope to OUT.envelope. The chosen port is written to the READY file once
the relay accepts connections; it runs until terminated."""
import argparse
import random
import signal
import ssl
import sys
import time

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import MISSING, AuthResult, LoginPassword

parser = argparse.ArgumentParser()
parser.add_argument("--cert", required=True)
parser.add_argument("--key", required=True)
parser.add_argument("--out", required=True)
parser.add_argument("--ready", required=True)
parser.add_argument("--user", default="ali")
parser.add_argument("--password", default="sesame")
parser.add_argument("--exclude", action="append", default=[], help="AUTH mechanism not to offer")
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

# The client reads ports as signed 16-bit numbers: stay below 32768.
controller = None
for attempt in range(200):
    port = random.randint(20000, 32000)
    candidate = Controller(Handler(), hostname="127.0.0.1", port=port, tls_context=context,
                           require_starttls=False, authenticator=authenticator, auth_require_tls=True,
                           auth_exclude_mechanism=args.exclude, ready_timeout=10)
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
