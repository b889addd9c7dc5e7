# SPDX-License-Identifier: GPL-3.0-only
"""The sender that the tests use reproduces the examples of the RFCs."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import webpush  # noqa: E402
from webpush import Malformed, Receiver, Sender, Subscription, unb64  # noqa: E402

TEXT = b"When I grow up, I want to be a watermelon"
PUBLIC = "BCVxsr7N_eNgVRqvHtD0zTZsEc6-VV-JvLexhqUzORcxaOzi6-AYWXvTBHm4bjyPjs7Vd8pZGH6SRpkNtoIAiw4"
PRIVATE = "q1dXpw3UpT5VOmu_cf_v6ih07Aems3njxI-JWgLcM94"
AUTH = "BTBZMqHH6r4Tts7J_aSIgg"
SENDER = "yfWPiYE-n46HLnH0KqZOF1fJJU3MYrct3AELtAQ-oRw"
SALT = "DGv6ra1nlYgDCS1FRnbzlw"
BODY = ("DGv6ra1nlYgDCS1FRnbzlwAAEABBBP4z9KsN6nGRTbVYI_c7VJSPQTBtkgcy27mlmlMoZIIgDll6e3vCYLocInmYWAmS6TlzAC8wEqKK6PBru3jl7A_"
        "yl95bQpu6cVPTpK4Mqgkf1CXztLVBSt2Ks3oZwbuwXPXLWyouBWLVWGNWQexSgSxsj_Qulcy4a-fN")

TOKEN = ("eyJ0eXAiOiJKV1QiLCJhbGciOiJFUzI1NiJ9.eyJhdWQiOiJodHRwczovL3B1c2guZXhhbXBsZS5uZXQiLCJleHAiOjE0NTM1MjM3NjgsInN1YiI6Im1h"
         "aWx0bzpwdXNoQGV4YW1wbGUuY29tIn0.i3CYb7t4xfxCDquptFOepC9GAu_HLGkMlMuCGSK2rpiUfnK9ojFwDXb1JrErtmysazNjjvW2L9OkSSHzvoD1oA")
KEY = "BA1Hxzyi1RUM1b5wjxsn7nGxAszw2u61m164i3MrAIxHF6YK5h4SDYic-dRuU_RCPCfA5aq9ojSwk5Y2EmClBPs"
CLAIMS = {"aud": "https://push.example.net", "exp": 1453523768, "sub": "mailto:push@example.com"}


class Encryption(unittest.TestCase):
    """RFC 8291, appendix A."""

    def test_the_example_is_encrypted_to_the_same_bytes(self):
        made = webpush.encrypt(TEXT, Subscription(PUBLIC, AUTH), unb64(SALT), webpush.private_key(SENDER))
        self.assertEqual(made, unb64(BODY))

    def test_the_example_is_decrypted(self):
        receiver = Receiver(webpush.private_key(PRIVATE), unb64(AUTH))
        self.assertEqual(receiver.subscription, Subscription(PUBLIC, AUTH))
        self.assertEqual(receiver.decrypt(unb64(BODY)), TEXT)

    def test_another_receiver_cannot_read_it_and_no_byte_can_be_changed(self):
        receiver = Receiver(webpush.private_key(PRIVATE), unb64(AUTH))
        with self.assertRaises(Malformed):
            Receiver().decrypt(unb64(BODY))
        for place in (0, 90, len(unb64(BODY)) - 1):
            changed = bytearray(unb64(BODY))
            changed[place] ^= 1
            with self.assertRaises((Malformed, ValueError)):
                receiver.decrypt(bytes(changed))

    def test_what_is_padded_comes_out_as_it_was_and_fills_a_message_at_most(self):
        receiver = Receiver()
        for content, padding in ((b"", 0), (b"x", 100), (b"ends in zeros\0\0", 3), (b"y" * webpush.MAX_CONTENT, 0)):
            body = webpush.encrypt(content, receiver.subscription, padding=padding)
            self.assertLessEqual(len(body), 4096)
            self.assertEqual(receiver.decrypt(body), content)
        with self.assertRaises(Malformed):
            webpush.encrypt(b"y" * (webpush.MAX_CONTENT + 1), receiver.subscription)


class Signature(unittest.TestCase):
    """RFC 8292, section 2.4. A signature of ES256 is never the same twice, so the example's is verified."""

    def test_the_signed_part_of_the_example_is_the_same_bytes(self):
        self.assertEqual(webpush.signing_input(Sender.header, CLAIMS), TOKEN.rsplit(".", 1)[0])

    def test_the_signature_of_the_example_is_that_of_its_key(self):
        self.assertEqual(webpush.verify(TOKEN, KEY), (Sender.header, CLAIMS))
        with self.assertRaises(Malformed):
            webpush.verify(TOKEN, Sender().key)

    def test_what_is_signed_can_be_verified(self):
        sender = Sender()
        self.assertEqual(webpush.verify(sender.token(CLAIMS), sender.key), (Sender.header, CLAIMS))
        self.assertEqual(len(sender.key), 87)

    def test_an_origin_has_a_port_if_it_is_not_that_of_its_scheme(self):
        for url, expected in (("https://push.example.net/p/1", "https://push.example.net"),
                              ("https://push.example.net:443/", "https://push.example.net"),
                              ("https://Push.Example.net:8443/push/x", "https://push.example.net:8443"),
                              ("http://[::1]:80/", "http://[::1]")):
            self.assertEqual(webpush.origin(url), expected)
