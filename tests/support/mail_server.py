"""A mail server for tests: prints its port, then each mail that it took as a line of JSON."""

import argparse
import asyncio
import json
import ssl

from aiosmtpd.smtp import SMTP, AuthResult

parser = argparse.ArgumentParser()
parser.add_argument("--tls", choices=["none", "starttls", "ssl"], default="none")
parser.add_argument("--certificate")
parser.add_argument("--key")
parser.add_argument("--user", default="")
parser.add_argument("--password", default="")
parser.add_argument("--hang", choices=["", "greeting", "farewell"], default="")
options = parser.parse_args()


class Mailbox:
    async def handle_DATA(self, server, session, envelope):
        mail = {
            "from": envelope.mail_from,
            "to": envelope.rcpt_tos,
            "text": envelope.original_content.decode("utf-8"),
            "login": getattr(session, "used_login", ""),
            "encrypted": server.transport.get_extra_info("ssl_object") is not None,
        }
        print("mail " + json.dumps(mail), flush=True)
        return "250 taken"

    async def handle_QUIT(self, server, session, envelope):
        if options.hang == "farewell":
            await asyncio.sleep(600)
        return "221 bye"


def authenticate(server, session, envelope, mechanism, data):
    session.used_login = f"{mechanism} {data.login.decode()} {data.password.decode()}"
    right = session.used_login == f"LOGIN {options.user} {options.password}"
    return AuthResult(success=right, handled=False)


def serve_client(context):
    starttls = options.tls == "starttls"
    return SMTP(
        Mailbox(),
        hostname="mail.test",
        authenticator=authenticate if options.user else None,
        auth_required=bool(options.user),
        auth_require_tls=starttls,
        tls_context=context if starttls else None,
        require_starttls=starttls,
    )


async def main():
    context = None
    if options.certificate:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.certificate, options.key)
    deaf = options.hang == "greeting"
    server = await asyncio.get_running_loop().create_server(
        asyncio.Protocol if deaf else lambda: serve_client(context),
        "127.0.0.1",
        0,
        ssl=context if options.tls == "ssl" else None,
    )
    print("listening", server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


asyncio.run(main())
