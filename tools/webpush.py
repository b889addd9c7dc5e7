# SPDX-License-Identifier: GPL-3.0-only
"""The two ends of web push, on python3-cryptography, strictly by the RFCs 8188, 8291, 8292 and 8030.

    application = Receiver()                                  # its keys, as an application gives them to a sender
    server = Sender()                                         # an application server with a signing key
    answer = server.push(url, application.subscription, b"text", ttl=60, context=ssl_context)
    answer.status, answer.headers, answer.body                # JSON is decoded
    application.decrypt(body)                                 # b"text"

Nothing is forgiven: what an RFC forbids raises Malformed.
"""
import base64
import collections
import http.client
import json
import os
import struct
import time
import urllib.parse

from cryptography.exceptions import InvalidSignature, InvalidTag
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.asymmetric.utils import decode_dss_signature, encode_dss_signature
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.hkdf import HKDF
from cryptography.hazmat.primitives.serialization import Encoding, PublicFormat

CURVE = ec.SECP256R1()
RECORD = 4096
HEAD = 16 + 4 + 1 + 65  # salt, record size, length of the key id, key
MAX_CONTENT = RECORD - HEAD - 16 - 1  # what fits into a body of 4,096 bytes

Subscription = collections.namedtuple("Subscription", "p256dh auth")
Answer = collections.namedtuple("Answer", "status headers body")


class Malformed(Exception):
    """Something that the RFCs do not allow."""


def b64(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode()


def unb64(text):
    """Base64url in its one form: without padding, and without bits behind the last byte."""
    data = base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))
    if b64(data) != text:
        raise Malformed("no base64url: %r" % text)
    return data


def private_key(text):
    return ec.derive_private_key(int.from_bytes(unb64(text), "big"), CURVE)


def public_key(point):
    return ec.EllipticCurvePublicKey.from_encoded_point(CURVE, point)


def point(key):
    public = key.public_key() if isinstance(key, ec.EllipticCurvePrivateKey) else key
    return public.public_bytes(Encoding.X962, PublicFormat.UncompressedPoint)


def derive(salt, secret, info, length):
    return HKDF(hashes.SHA256(), length, salt, info).derive(secret)


def content_key(mine, theirs, auth, salt, receiver, sender):
    """The key and the nonce of RFC 8291, section 3.4; receiver and sender are the points of the two."""
    secret = derive(auth, mine.exchange(ec.ECDH(), theirs), b"WebPush: info\0" + receiver + sender, 32)
    return (derive(salt, secret, b"Content-Encoding: aes128gcm\0", 16),
            derive(salt, secret, b"Content-Encoding: nonce\0", 12))


def encrypt(content, subscription, salt=None, private=None, padding=0):
    """The body of a push message: one record of RFC 8188 with the sender's key as its key id."""
    if len(content) + padding > MAX_CONTENT:
        raise Malformed("the content does not fit into a message")
    salt = salt or os.urandom(16)
    private = private or ec.generate_private_key(CURVE)
    receiver, sender = unb64(subscription.p256dh), point(private)
    key, nonce = content_key(private, public_key(receiver), unb64(subscription.auth), salt, receiver, sender)
    record = AESGCM(key).encrypt(nonce, content + b"\2" + b"\0" * padding, None)
    return salt + struct.pack("!IB", RECORD, len(sender)) + sender + record


class Receiver:
    """An application: its key and its authentication secret, which are new for each subscription."""

    def __init__(self, private=None, auth=None):
        self.private = private or ec.generate_private_key(CURVE)
        self.auth = auth or os.urandom(16)
        self.subscription = Subscription(b64(point(self.private)), b64(self.auth))

    @classmethod
    def restored(cls, saved):
        return cls(private_key(saved["private"]), unb64(saved["auth"]))

    def saved(self):
        """Both secrets, to be stored where the user alone can read them."""
        private = self.private.private_numbers().private_value.to_bytes(32, "big")
        return {"private": b64(private), "auth": b64(self.auth)}

    def decrypt(self, body):
        if len(body) < HEAD + 17:
            raise Malformed("too short for a message")
        salt, (size, length), sender, record = body[:16], struct.unpack("!IB", body[16:21]), body[21:HEAD], body[HEAD:]
        if length != 65 or size < 18 or len(record) > size:
            raise Malformed("more than one record, or no key")
        key, nonce = content_key(self.private, public_key(sender), self.auth, salt, point(self.private), sender)
        try:
            padded = AESGCM(key).decrypt(nonce, record, None)
        except InvalidTag as error:
            raise Malformed("not encrypted for this application") from error
        content = padded.rstrip(b"\0")
        if not content.endswith(b"\2"):
            raise Malformed("no padding of a last record")
        return content[:-1]


def origin(url):
    """RFC 6454: without the port that the scheme has anyway."""
    parts = urllib.parse.urlsplit(url)
    default = {"https": 443, "http": 80}[parts.scheme]
    host = "[%s]" % parts.hostname if ":" in parts.hostname else parts.hostname
    return "%s://%s%s" % (parts.scheme, host, "" if parts.port in (None, default) else ":%d" % parts.port)


def compact(value):
    return json.dumps(value, separators=(",", ":")).encode()


def signing_input(header, claims):
    return "%s.%s" % (b64(compact(header)), b64(compact(claims)))


def verify(token, key):
    """The header and the claims of a token that the key, as text, has signed."""
    header, claims, signature = token.split(".")
    raw = unb64(signature)
    if len(raw) != 64:
        raise Malformed("no signature of ES256")
    pair = encode_dss_signature(int.from_bytes(raw[:32], "big"), int.from_bytes(raw[32:], "big"))
    try:
        public_key(unb64(key)).verify(pair, ("%s.%s" % (header, claims)).encode(), ec.ECDSA(hashes.SHA256()))
    except InvalidSignature as error:
        raise Malformed("another key has signed") from error
    return json.loads(unb64(header)), json.loads(unb64(claims))


class Sender:
    """An application server with its signing key."""

    header = {"typ": "JWT", "alg": "ES256"}

    def __init__(self, private=None):
        self.private = private or ec.generate_private_key(CURVE)
        self.key = b64(point(self.private))

    def token(self, claims, header=None):
        signed = signing_input(self.header if header is None else header, claims)
        r, s = decode_dss_signature(self.private.sign(signed.encode(), ec.ECDSA(hashes.SHA256())))
        return "%s.%s" % (signed, b64(r.to_bytes(32, "big") + s.to_bytes(32, "big")))

    def claims(self, url, seconds=12 * 3600):
        return {"aud": origin(url), "exp": int(time.time()) + seconds, "sub": "mailto:sender@example.org"}

    def authorization(self, url, **changes):
        claims = {name: value for name, value in dict(self.claims(url), **changes).items() if value is not None}
        return "vapid t=%s, k=%s" % (self.token(claims), self.key)

    def push(self, url, subscription, content, ttl=60, topic=None, urgency=None, context=None, vapid=True):
        """Encrypts and posts. RFC 8030 demands a TTL of every sender."""
        headers = {"TTL": str(ttl), "Content-Encoding": "aes128gcm", "Content-Type": "application/octet-stream"}
        headers.update({name: value for name, value in (("Topic", topic), ("Urgency", urgency)) if value is not None})
        if vapid:
            headers["Authorization"] = self.authorization(url)
        return request(url, "POST", encrypt(content, subscription), headers, context)


def request(url, method="GET", body=None, headers=None, context=None):
    """One request, without redirects, proxies or retries."""
    parts = urllib.parse.urlsplit(url)
    if parts.scheme == "https":
        link = http.client.HTTPSConnection(parts.hostname, parts.port, timeout=30, context=context)
    else:
        link = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
    try:
        link.request(method, parts.path or "/", body, headers or {})
        answer = link.getresponse()
        data = answer.read()
        is_json = answer.headers.get("Content-Type") == "application/json"
        return Answer(answer.status, answer.headers, json.loads(data) if is_json and data else data)
    finally:
        link.close()
