"""Every kind of misbehaviour of the service, at each request of a download and of a listing: the client gets
one final reply, never wrong content, and a session that goes on."""

import re
import socket
import time

import harness

CONTENT = b"hello world"
NAMES = {"deeper"}

# What the service does instead of answering properly.
FAULTS = {
    "reset before the head": {"reset": True},
    "closed before the head": {"drop": True},
    "reset after the head": {"reset_after": 0},
    "closed after the head": {"truncate_at": 0},
    "short body": {"truncate_at": 4},
    "reset in the body": {"reset_after": 4},
    "truncated JSON": {"bad_json": True},
    "bad JSON": {"status": 200, "body": "{\"value\": [", "content_type": "application/json"},
    "JSON of another shape": {"status": 200, "body": [[], None, {"value": 3}]},
    "nested JSON": {"status": 200, "content_type": "application/json",
                    "body_repeat": {"text": "[", "times": 100000}},
    "missing body": {"status": 200, "body": ""},
    "a page instead of an answer": {"status": 200, "html": True},
    **{f"html {status}": {"status": status, "html": True}
       for status in (401, 403, 404, 409, 412, 423, 429)},
    "429": {"status": 429, "headers": {"Retry-After": None}},
    "429 with Retry-After": {"status": 429, "headers": {"Retry-After": "0"}},
    **{str(status): {"status": status} for status in (500, 503, 507)},
    "bad status line": {"garbage": "status_line"},
    "bad chunking": {"garbage": "chunk_size"},
    "endless headers": {"garbage": "endless_headers"},
    "endless header line": {"garbage": "endless_header_line"},
    "endless body": {"garbage": "endless_body"},
}

# Complete answers with other bytes: as content they are the file that the service now has.
NOT_FOR_CONTENT = {"truncated JSON", "bad JSON", "JSON of another shape", "nested JSON", "missing body",
                   "a page instead of an answer", "endless body"}
# What breaks behind the head of a redirect, whose head says all.
HARMLESS_FOR_REDIRECTS = {"reset after the head", "closed after the head", "short body", "reset in the body",
                          "truncated JSON", "endless body"}


def names_in(listing):
    return {line.split(" ", 1)[1] for line in listing.decode().splitlines()
            if "type=cdir" not in line and "type=pdir" not in line}


def exchange(ftp, command, most=1 << 20):
    """Runs a command with a data connection; returns its final reply and what came as data.  The
    connection is closed when more than `most` bytes come."""
    numbers = re.search(r"\(([\d,]+)\)", ftp.sendcmd("PASV")).group(1).split(",")
    address = (".".join(numbers[:4]), int(numbers[4]) * 256 + int(numbers[5]))
    received = []
    with socket.create_connection(address, timeout=60) as data:
        ftp.putcmd(command)
        reply = ftp.getmultiline()
        if reply.startswith("1"):
            try:
                while len(received) * 65536 < most and (block := data.recv(65536)):
                    received.append(block)
            except ConnectionResetError:
                pass
            data.close()
            reply = ftp.getmultiline()
    return reply, b"".join(received)


class Sweep(harness.EndToEnd):
    # What a session may hold at most, in KiB; a sanitizer keeps freed memory for a while.
    memory_limit = (1024 if harness.SANITIZER else 192) * 1024

    def sessions(self):
        pid = self.server.process.pid
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            return [int(child) for child in children.read().split()]

    def highest_memory(self):
        """The most that any live session has held, in KiB."""
        highest = 0
        for pid in self.sessions():
            with open(f"/proc/{pid}/status", encoding="ascii") as status:
                highest = max([highest] + [int(line.split()[1]) for line in status
                                           if line.startswith("VmHWM")])
        return highest

    def require_usable(self, ftp):
        """The next reply is that of the next command: none was given twice."""
        self.assertEqual(ftp.sendcmd("NOOP")[:3], "200")
        self.assertEqual(ftp.voidcmd("PWD")[:3], "257")
        reply, content = exchange(ftp, "RETR /My files/hello.txt")
        self.assertEqual((reply[:3], content), ("226", CONTENT), reply)

    def sweep(self, kind, command, is_whole, is_part, harmless=(), left_out=()):
        """Tries the command while all requests of a kind are met by a fault, for each in turn."""
        for name, action in FAULTS.items():
            if name in left_out:
                continue
            with self.subTest(request=kind, fault=name):
                ftp = self.connect()
                ftp.voidcmd("TYPE I")
                self.graph.add_fault({"kind": kind}, action)
                reply, received = exchange(ftp, command)
                self.graph.clear_faults()
                if name in harmless:
                    self.assertRegex(reply, "^226")
                    self.assertTrue(is_whole(received), received[:200])
                else:
                    self.assertRegex(reply, r"^[45]\d\d")
                    self.assertTrue(is_part(received), received[:200])
                self.require_usable(ftp)
                self.assertLess(self.highest_memory(), self.memory_limit)
                ftp.quit()

    def retrieve_under_faults(self, kind, **more):
        self.sweep(kind, "RETR /My files/hello.txt", CONTENT.__eq__, CONTENT.startswith, **more)

    def test_a_listing_fails_whole(self):
        self.sweep("listing", "MLSD /My files/Documents/Deep", lambda data: names_in(data) == NAMES,
                   lambda data: names_in(data) <= NAMES)

    def test_a_download_fails_when_its_folder_cannot_be_listed(self):
        self.retrieve_under_faults("listing")

    def test_a_download_needs_no_more_of_a_redirect_than_its_head(self):
        self.retrieve_under_faults("content", harmless=HARMLESS_FOR_REDIRECTS)

    def test_a_download_is_whole_or_has_failed(self):
        self.retrieve_under_faults("download", left_out=NOT_FOR_CONTENT)

    def test_endless_content_ends_when_the_client_leaves(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        self.graph.add_fault({"kind": "download"}, FAULTS["endless body"])
        reply, received = exchange(ftp, "RETR /My files/hello.txt", most=4 << 20)
        self.graph.clear_faults()
        self.assertRegex(reply, "^4")
        self.require_usable(ftp)
        self.assertLess(self.highest_memory(), self.memory_limit)

    def test_a_throttled_request_is_made_again_after_the_time_that_was_asked_for(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        for kind in ("listing", "content"):
            self.graph.add_fault({"kind": kind, "count": 1}, {"status": 429, "headers": {"Retry-After": "1"}})
        start = time.monotonic()
        reply, received = exchange(ftp, "RETR /My files/hello.txt")
        self.assertEqual((reply[:3], received), ("226", CONTENT), reply)
        self.assertGreaterEqual(time.monotonic() - start, 2)
        self.require_usable(ftp)


class Unreachable(harness.EndToEnd):
    def test_a_service_that_is_gone_fails_each_operation_once_until_it_is_back(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        self.graph.stop()
        address = self.graph.url.removeprefix("http://")
        for command in ("RETR /My files/hello.txt", "MLSD /My files", "RETR /My files/hello.txt"):
            reply, received = exchange(ftp, command)
            self.assertRegex(reply, r"^[45]\d\d")
            self.assertEqual(received, b"")
            self.assertEqual(ftp.sendcmd("NOOP")[:3], "200")
        type(self).graph = harness.GraphService(self.folder, listen=address)
        self.addClassCleanup(self.graph.stop)
        reply, received = exchange(ftp, "RETR /My files/hello.txt")
        self.assertEqual((reply[:3], received), ("226", CONTENT), reply)


if __name__ == "__main__":
    harness.main()
