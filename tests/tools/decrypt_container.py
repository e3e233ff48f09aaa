#!/usr/bin/env python3
"""decrypt_container.py IMAGE PASSWORD-FILE OUT: unwraps an encrypted container of version 2 with OpenSSL's
command line and nothing else, from the published layout of its header."""
import hashlib
import hmac
import struct
import subprocess
import sys


def openssl(cipher, key, iv, data, padded):
    command = ["openssl", "enc", "-d", "-" + cipher, "-K", key.hex(), "-iv", iv.hex()]
    if not padded:
        command.append("-nopad")
    return subprocess.run(command, input=data, stdout=subprocess.PIPE, check=True).stdout


image = open(sys.argv[1], "rb").read()
password = open(sys.argv[2], "rb").read()
assert image[:8] == b"encrcdsa"
version, iv_size = struct.unpack(">II", image[8:16])
key_bits = struct.unpack(">I", image[24:28])[0]
block, data_size, data_offset, entries = struct.unpack(">IQQI", image[52:76])
kind, offset, size = struct.unpack(">IQQ", image[76:96])
assert (version, iv_size, entries, kind, size) == (2, 16, 1, 1, 616), (version, iv_size, entries, kind, size)
entry = image[offset:offset + size]
kdf, _, iterations, salt_size = struct.unpack(">IIII", entry[:16])
assert kdf == 103 and iterations >= 250000, (kdf, iterations)
salt = entry[16:16 + salt_size]
wrap_iv_size = struct.unpack(">I", entry[48:52])[0]
wrap_iv = entry[52:52 + wrap_iv_size]
wrap_bits, wrap_cipher, padding, mode, blob_size = struct.unpack(">IIIII", entry[84:104])
assert (wrap_bits, wrap_cipher, padding, mode) == (192, 17, 7, 6)
wrap_key = hashlib.pbkdf2_hmac("sha1", password, salt, iterations, wrap_bits // 8)
keys = openssl("des-ede3-cbc", wrap_key, wrap_iv, entry[104:104 + blob_size], True)
aes_key, hmac_key, mark = keys[:key_bits // 8], keys[key_bits // 8:key_bits // 8 + 20], keys[key_bits // 8 + 20:]
assert mark == b"CKIE\0", mark
with open(sys.argv[3], "wb") as out:
    for number in range((data_size + block - 1) // block):
        iv = hmac.new(hmac_key, struct.pack(">I", number), "sha1").digest()[:16]
        start = data_offset + number * block
        plain = openssl(f"aes-{key_bits}-cbc", aes_key, iv, image[start:start + block], False)
        out.write(plain[:min(block, data_size - number * block)])
print(key_bits)
