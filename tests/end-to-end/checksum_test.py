"""Checksums agree with what the same bytes give here, for every algorithm, whole and in part."""

import base64
import ftplib
import hashlib
import zlib

import harness
import trees


def quick_xor(data):
    """The service's own hash: each byte turned into a 160-bit register 11 bits further than the one before."""
    folded = 0  # bytes 160 apart meet the same place
    for start in range(0, len(data), 160):
        folded ^= int.from_bytes(data[start:start + 160], "little")
    register = 0
    for place, byte in enumerate(folded.to_bytes(160, "little")):
        register ^= byte << place * 11 % 160
    register = (register & ((1 << 160) - 1)) ^ (register >> 160)
    value = bytearray(register.to_bytes(20, "little"))
    for place, byte in enumerate(len(data).to_bytes(8, "little")):
        value[12 + place] ^= byte
    return base64.b64encode(bytes(value)).hex()


def block_hash(data):
    blocks = [hashlib.sha256(data[start:start + 4194304]).digest() for start in range(0, len(data), 4194304)]
    return hashlib.sha256(b"".join(blocks)).hexdigest()


ALGORITHMS = {
    "MD5": lambda data: hashlib.md5(data).hexdigest(),
    "SHA1": lambda data: hashlib.sha1(data).hexdigest(),
    "SHA256": lambda data: hashlib.sha256(data).hexdigest(),
    "SHA512": lambda data: hashlib.sha512(data).hexdigest(),
    "ADLER32": lambda data: f"{zlib.adler32(data):08x}",
    "QuickXORHex": quick_xor,
    "Dropbox": block_hash,
}
SIZES = (0, 1, 160, 100_000, 4194305)


class Checksums(harness.EndToEnd):
    def answer(self, ftp, algorithm, offset, length, path):
        reply = ftp.sendcmd(f"CKSM {algorithm} {offset} {length} {path}")
        self.assertTrue(reply.startswith("213 "), reply)
        return reply[4:].lower()

    def test_whole_files(self):
        for user in ("alice", "bob"):  # work and consumer drives tell different hashes
            ftp = self.connect(user)
            for size in SIZES:
                data = trees.content(size, size)
                self.store(ftp, f"sum {size}.bin", data)
                for algorithm, expected in ALGORITHMS.items():
                    for length in (-1, size):
                        self.assertEqual(self.answer(ftp, algorithm, 0, length, f"sum {size}.bin"),
                                         expected(data).lower(), (user, algorithm, size))

    def test_parts_of_files(self):
        ftp = self.connect()
        data = trees.content(100_000, 9)
        self.store(ftp, "parts.bin", data)
        for offset, length in ((0, 1), (1, 99), (5000, -1), (99_999, 1), (0, 50_000), (7, 0)):
            part = data[offset:] if length == -1 else data[offset:offset + length]
            for algorithm, expected in ALGORITHMS.items():
                self.assertEqual(self.answer(ftp, algorithm, offset, length, "parts.bin"), expected(part),
                                 (algorithm, offset, length))
        for algorithm, expected in ALGORITHMS.items():  # no part is remembered as the whole
            self.assertEqual(self.answer(ftp, algorithm, 0, -1, "parts.bin"), expected(data))

    def test_a_stored_hash_costs_no_download(self):
        ftp = self.connect()
        self.store(ftp, "hashed.bin", b"some bytes")
        self.names(ftp, "/My files")
        self.graph.forget_requests()
        self.assertEqual(self.answer(ftp, "QuickXORHex", 0, -1, "hashed.bin"), quick_xor(b"some bytes"))
        self.assertEqual(self.graph.requests("content") + self.graph.requests("download"), [])

    def test_errors_are_clear(self):
        ftp = self.connect()
        for command, code in (("CKSM CRC99 0 -1 hello.txt", 504), ("CKSM MD5 0 -1 missing.txt", 550),
                              ("CKSM MD5 0 -1 Documents", 550), ("CKSM MD5 x -1 hello.txt", 501),
                              ("CKSM MD5", 501), ("HASH Documents", 553), ("HASH missing.txt", 550)):
            with self.assertRaisesRegex(ftplib.error_perm, f"^{code}", msg=command):
                ftp.sendcmd(command)

    def test_a_download_that_breaks_gives_an_error_and_never_a_wrong_digest(self):
        ftp = self.connect()
        data = trees.content(300_000, 10)
        self.store(ftp, "broken.bin", data)
        right = hashlib.sha1(data).hexdigest()
        for position in (0, 1, 16_384, 100_000, 299_999):
            for action in ("reset_after", "truncate_at"):
                self.graph.add_fault({"kind": "download", "count": 1}, {action: position})
                try:
                    self.assertEqual(self.answer(ftp, "SHA1", 0, -1, "broken.bin"), right)
                except ftplib.Error as error:
                    self.assertRegex(str(error), "^[45]")
        self.assertEqual(self.answer(ftp, "SHA1", 0, -1, "broken.bin"), right)

    def test_a_refused_download_gives_no_digest_and_none_is_remembered(self):
        ftp = self.connect()
        data = trees.content(300_000, 12)
        self.store(ftp, "refused.bin", data)
        for status in (410, 412, 416, 423):
            self.graph.add_fault({"kind": "download", "count": 1}, {"status": status, "body": ""})
            with self.assertRaisesRegex(ftplib.error_temp, "^451", msg=status):
                ftp.sendcmd("CKSM SHA1 0 -1 refused.bin")
            self.graph.clear_faults()
        self.assertEqual(self.answer(ftp, "SHA1", 0, -1, "refused.bin"), hashlib.sha1(data).hexdigest())

    def test_the_hash_command(self):
        ftp = self.connect()
        data = trees.content(1000, 11)
        self.store(ftp, "hash.bin", data)
        ftp.voidcmd("TYPE I")
        self.assertEqual(ftp.sendcmd("HASH hash.bin"),
                         f"213 SHA-256 0-999 {hashlib.sha256(data).hexdigest()} hash.bin")
        ftp.sendcmd("OPTS HASH SHA-1")
        self.assertEqual(ftp.sendcmd("HASH hash.bin"), f"213 SHA-1 0-999 {hashlib.sha1(data).hexdigest()} hash.bin")
        self.assertRegex(ftp.sendcmd("RANG 10 19"), "^350")
        self.assertEqual(ftp.sendcmd("HASH hash.bin"),
                         f"213 SHA-1 10-19 {hashlib.sha1(data[10:20]).hexdigest()} hash.bin")


class Ranges(harness.EndToEnd):
    def test_a_download_of_a_range(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        for first, last, expected in ((0, 4, b"hello"), (6, 10, b"world"), (6, 99, b"world"), (0, 0, b"h")):
            self.assertRegex(ftp.sendcmd(f"RANG {first} {last}"), "^350")
            self.assertEqual(self.retrieve(ftp, "hello.txt"), expected)
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")


if __name__ == "__main__":
    harness.main()
