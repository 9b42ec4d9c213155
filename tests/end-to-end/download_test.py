"""Downloads whose bytes compare equal: whole, resumed, ranged, large, and under faults."""

import ftplib
import hashlib
import time

import harness


def cycle(offset, size, start=0):
    """The bytes of the service's "cycle+K" files."""
    unit = bytes((n + start) % 251 for n in range(251))
    first = offset % 251
    return (unit * (size // 251 + 2))[first:first + size]


def random_bytes(size, seed):
    """The bytes of the service's "random+K" files."""
    mask = (1 << 64) - 1
    words = bytearray()
    for index in range((size + 7) // 8):
        z = ((seed + index + 1) * 0x9E3779B97F4A7C15) & mask
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & mask
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & mask
        words += (z ^ (z >> 31)).to_bytes(8, "little")
    return bytes(words[:size])


class Download(harness.EndToEnd):
    def digest_at_service(self, path, account="alice"):
        from urllib.parse import quote
        return self.graph.call("GET", f"/__sim/file?account={account}&path={quote(path)}")

    def test_whole_files_compare_equal(self):
        ftp = self.connect()
        self.assertEqual(self.retrieve(ftp, "/My files/hello.txt"), b"hello world")
        self.assertEqual(self.retrieve(ftp, "/My files/empty.dat"), b"")
        content = self.retrieve(ftp, "/My files/Data/noise-10MiB.bin")
        expected = self.digest_at_service("/Data/noise-10MiB.bin")
        self.assertEqual(len(content), expected["size"])
        self.assertEqual(hashlib.sha256(content).hexdigest(), expected["sha256"])
        self.assertEqual(content[:4096], random_bytes(4096, 7))

    def test_shared_items_and_libraries_download_too(self):
        ftp = self.connect()
        self.assertEqual(self.retrieve(ftp, "/Shared/Projects/Phase 1/results #1.csv"), b"a,b\n1,2\n")
        self.assertEqual(self.retrieve(ftp, "/Shared/Budget 2024.csv"), b"item,amount\ncoffee,250\n")
        self.assertEqual(self.retrieve(ftp, "/Shared libraries/Forschung und Lehre/Messdaten/Lauf 1/kanal #2.bin"),
                         random_bytes(3000000, 42))

    def test_a_resumed_download_gives_the_rest(self):
        ftp = self.connect()
        for offset in (1, 5, 10):
            self.assertEqual(self.retrieve(ftp, "hello.txt", rest=offset), b"hello world"[offset:])
        self.assertEqual(self.retrieve(ftp, "Data/noise-10MiB.bin", rest=10485760 - 100),
                         self.retrieve(ftp, "Data/noise-10MiB.bin")[-100:])

    def test_resuming_at_the_end_gives_nothing_and_beyond_it_is_refused(self):
        ftp = self.connect()
        self.assertEqual(self.retrieve(ftp, "hello.txt", rest=11), b"")
        with self.assertRaisesRegex(ftplib.error_perm, "^554"):
            self.retrieve(ftp, "hello.txt", rest=12)
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")

    def test_curl_gets_a_byte_range(self):
        done = self.run_client("curl", "-s", "-r", "1000000-1000999", self.url("/Data/one-GiB.bin"))
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout, cycle(1000000, 1000))

    def test_the_token_goes_to_graph_and_never_to_the_download_address(self):
        ftp = self.connect()
        self.retrieve(ftp, "hello.txt")
        kinds = {entry["kind"]: {name.lower() for name in entry["headers"]} if isinstance(entry["headers"], dict)
                 else {pair[0].lower() for pair in entry["headers"]} for entry in self.graph.requests()}
        self.assertIn("authorization", kinds["content"])
        self.assertNotIn("authorization", kinds["download"])

    def test_a_gibibyte_passes_in_bounded_memory(self):
        ftp = self.connect(timeout=300)
        ftp.voidcmd("TYPE I")
        total, highest, digest = 0, 0, hashlib.sha256()
        session = self.session_processes()[-1]
        with ftp.transfercmd("RETR Data/one-GiB.bin") as data:
            while block := data.recv(1 << 20):
                digest.update(block)
                total += len(block)
                if total % (64 << 20) < (1 << 20):
                    highest = max(highest, self.resident_kib(session))
        ftp.voidresp()
        self.assertEqual(total, 1 << 30)
        self.assertEqual(digest.hexdigest(), self.digest_at_service("/Data/one-GiB.bin")["sha256"])
        if not harness.SANITIZER:
            self.assertLess(highest, 64 * 1024)

    def session_processes(self):
        pid = self.server.process.pid
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            return [int(child) for child in children.read().split()]

    def resident_kib(self, pid):
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))

    def test_a_client_that_reads_slowly_is_waited_for(self):
        ftp = self.connect(timeout=120)
        ftp.voidcmd("TYPE I")
        got = []
        with ftp.transfercmd("RETR Data/noise-10MiB.bin") as data:
            time.sleep(2)
            while block := data.recv(1 << 16):
                got.append(block)
        self.assertEqual(ftp.voidresp()[:3], "226")
        self.assertEqual(sum(map(len, got)), 10485760)

    def test_aborting_leaves_the_session_usable(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        data = ftp.transfercmd("RETR Data/four-GiB.bin")
        data.recv(1000)
        ftp.putcmd("ABOR")
        self.assertEqual(ftp.getmultiline()[:3], "426")
        self.assertEqual(ftp.getmultiline()[:3], "226")
        data.close()
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")

    def test_a_client_that_closes_early_is_told_and_goes_on(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        data = ftp.transfercmd("RETR Data/four-GiB.bin")
        data.recv(1000)
        data.close()
        self.assertEqual(ftp.getmultiline()[:3], "426")
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")

    def test_a_reset_in_the_middle_is_repeated_and_each_byte_arrives_once(self):
        ftp = self.connect()
        whole = self.retrieve(ftp, "Data/noise-10MiB.bin")
        for position in (0, 1, 16383, 16384, 1000003, 10485759):
            self.graph.clear_faults()
            self.graph.add_fault({"kind": "download", "count": 1}, {"reset_after": position})
            self.assertEqual(self.retrieve(ftp, "Data/noise-10MiB.bin"), whole, position)

    def test_two_resets_fail_the_transfer_and_never_pass_for_the_file(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "download"}, {"reset_after": 5000})
        with self.assertRaises(ftplib.all_errors) as caught:
            self.retrieve(ftp, "Data/noise-10MiB.bin")
        self.assertRegex(str(caught.exception), "^(4|5)")
        self.graph.clear_faults()
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")

    def test_an_error_page_is_never_content(self):
        ftp = self.connect()
        for status in (400, 403, 404, 405, 410, 416, 451, 500, 503, 302):
            with self.subTest(status=status):
                self.graph.clear_faults()
                self.graph.add_fault({"kind": "download"},
                                     {"status": status, "html": True} if status != 302 else
                                     {"status": 302, "headers": {"Location": self.graph.url + "/elsewhere"}})
                blocks = []
                with self.assertRaises(ftplib.all_errors):
                    ftp.retrbinary("RETR hello.txt", blocks.append)
                self.assertEqual(b"".join(blocks), b"")

    def test_a_whole_answer_to_a_range_is_refused(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "download"}, {"ignore_range": True})
        blocks = []
        with self.assertRaises(ftplib.all_errors):
            ftp.retrbinary("RETR hello.txt", blocks.append, rest=6)
        self.assertEqual(b"".join(blocks), b"")

    def test_a_short_body_is_no_success(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "download"}, {"truncate_at": 4})
        with self.assertRaises(ftplib.all_errors):
            self.retrieve(ftp, "hello.txt")


class Throttled(harness.EndToEnd):
    def test_a_retry_after_is_followed(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "listing", "count": 1},
                             {"status": 429, "headers": {"Retry-After": "1"}})
        start = time.monotonic()
        self.assertIn("hello.txt", self.names(ftp, "/My files"))
        self.assertGreaterEqual(time.monotonic() - start, 1.0)
        self.assertEqual([entry["status"] for entry in self.graph.requests("listing")], [429, 200])

    def test_a_refused_listing_is_an_error_before_any_data(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "listing"}, {"status": 503})
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            ftp.transfercmd("MLSD /My files")
        self.graph.clear_faults()
        self.assertIn("hello.txt", self.names(ftp, "/My files"))

    def test_an_empty_error_message_does_no_harm(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "listing"},
                             {"status": 500, "body": '{"error": {"code": "UnknownError", "message": ""}}',
                              "content_type": "application/json"})
        with self.assertRaisesRegex(ftplib.error_perm, "(?s)^550.*UnknownError"):
            ftp.transfercmd("MLSD /My files")
        self.graph.clear_faults()
        self.assertIn("hello.txt", self.names(ftp, "/My files"))

    def test_endless_pages_end_with_an_abort(self):
        ftp = self.connect()
        self.names(ftp, "/My files")
        self.graph.add_fault({"kind": "listing"}, {"next_link": "self"})
        data = ftp.transfercmd("MLSD /My files/Many")
        data.recv(1000)
        ftp.putcmd("ABOR")
        self.assertEqual(ftp.getmultiline()[:3], "426")
        self.assertEqual(ftp.getmultiline()[:3], "226")
        data.close()
        self.graph.clear_faults()
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")

    def test_a_stalled_service_is_given_up_by_abort(self):
        ftp = self.connect()
        self.graph.add_fault({"kind": "content"}, {"stall": True})
        ftp.voidcmd("TYPE I")
        ftp.putcmd("EPSV")
        ftp.getmultiline()
        ftp.putcmd("RETR hello.txt")
        time.sleep(0.5)
        start = time.monotonic()
        ftp.putcmd("ABOR")
        replies = [ftp.getmultiline()[:3] for _ in range(3)]
        self.assertLess(time.monotonic() - start, 20)
        self.assertEqual(replies[-1], "226")
        self.assertIn("426", replies)


if __name__ == "__main__":
    harness.main()
