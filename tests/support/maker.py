"""The maker of images: a key pair, and what it signs."""

import base64
import ctypes
import dataclasses
import hashlib
import os
import struct

SODIUM = ctypes.CDLL("libsodium.so.23")


def encode(data):
    return base64.b64encode(data).decode()


@dataclasses.dataclass
class Signature:
    """The lines of a signature, and the fields of its trailer's footer."""
    signature: str
    trusted: str
    comment_signature: str
    untrusted: str = "untrusted comment: signature of an update image"
    magic: bytes = b"ADIMGSIG"
    layout: int = 1
    length_error: int = 0  # added to the length that the footer states

    def trailer(self):
        text = "\n".join([self.untrusted, self.signature, self.trusted, self.comment_signature, ""])
        length = (len(text) + self.length_error) & 0xffffffff
        return text.encode() + self.magic + struct.pack("<II", length, self.layout)


class Maker:
    """With the key ID of `twin`, so that only the keys differ, or one of its own."""

    def __init__(self, twin=None):
        self.key_id = twin.key_id if twin else os.urandom(8)
        self.public = ctypes.create_string_buffer(32)
        self.secret = ctypes.create_string_buffer(64)
        SODIUM.crypto_sign_keypair(self.public, self.secret)

    def public_key(self):
        """The public key file."""
        key = encode(b"Ed" + self.key_id + self.public.raw)
        return f"untrusted comment: minisign public key\n{key}\n"

    def sign_bytes(self, data):
        signature = ctypes.create_string_buffer(64)
        SODIUM.crypto_sign_detached(signature, None, data, ctypes.c_ulonglong(len(data)),
                                    self.secret)
        return signature.raw

    def sign(self, file_system, comment):
        signature = self.sign_bytes(hashlib.blake2b(file_system).digest())
        return Signature(encode(b"ED" + self.key_id + signature), f"trusted comment: {comment}",
                         encode(self.sign_bytes(signature + comment.encode())))

    def signed_image(self, file_system, version):
        return file_system + self.sign(file_system, f"version:{version}").trailer()
