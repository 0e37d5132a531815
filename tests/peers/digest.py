"""Server whose only challenge is Digest with realm and nonce, as cameras send it.

Usage: digest.py FILE, which holds the port on 127.0.0.1. Every response brings the
number of requests for its path since the last one that did not try Digest. A response
ends its connection: below /close/ it says so, below /old/ it is of HTTP/1.0.
"""
import collections
import hashlib
import http.server
import re
import sys

REALM, NONCE = "Camera 1", "66b4b0a4e8c5a1f2"
requests = collections.Counter()


def md5(*parts):
    return hashlib.md5(":".join(parts).encode()).hexdigest()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def granted(self):
        scheme, _, rest = self.headers.get("Authorization", "").partition(" ")
        given = dict(re.findall(r'(\w+)="([^"]*)"', rest))
        ha1, ha2 = md5("user", REALM, "secret"), md5(self.command, self.path)
        want = {"username": "user", "realm": REALM, "nonce": NONCE, "uri": self.path,
                "response": md5(ha1, NONCE, ha2)}
        return scheme == "Digest" and given == want

    def do_GET(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        tries = self.headers.get("Authorization", "").startswith("Digest")
        requests[self.path] = requests[self.path] + 1 if tries else 1
        granted = self.granted()
        self.protocol_version = "HTTP/1.0" if self.path.startswith("/old/") else "HTTP/1.1"
        self.send_response(200 if granted else 401)
        if not granted:
            self.send_header("WWW-Authenticate", f'Digest realm="{REALM}", nonce="{NONCE}"')
        if self.path.startswith("/close/"):
            self.send_header("Connection", "close")
        self.close_connection |= self.path.startswith("/old/")
        answer = b"%d " % requests[self.path] + body
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)

    do_POST = do_GET


with open(sys.argv[1]) as file:
    port = int(file.read())
http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler).serve_forever()
