"""Every kind of misbehaviour of the service, at each request of everything that changes it: the client gets one
final reply, success is told only when it is true, and a second try succeeds."""

import base64
import hashlib
import itertools
import json
import re
import socket
import urllib.error
import urllib.request
from urllib.parse import quote

import harness
import trees
from trees import MIB

JSON = "application/json"

# What fails on the way and is tried again at once.
BROKEN = {
    "reset before the head": {"reset": True},
    "closed before the head": {"drop": True},
}
# What the service asks to try again.
THROTTLED = {
    "429 with Retry-After": {"status": 429, "headers": {"Retry-After": "0"}},
    "503 with Retry-After": {"status": 503, "headers": {"Retry-After": "0"}},
}
# Answers that do not come whole, to requests that were carried out.
CUT = {
    "reset after the head": {"reset_after": 0},
    "closed after the head": {"truncate_at": 0},
    "short body": {"truncate_at": 4},
    "reset in the body": {"reset_after": 4},
    "truncated JSON": {"bad_json": True},
}
# Answers that say "yes" to requests that were not carried out.
HOLLOW = {
    "malformed JSON": {"status": 200, "body": "{\"value\": [", "content_type": JSON},
    "JSON of another shape": {"status": 200, "body": [[], None, {"value": 3}]},
    "an empty object": {"status": 200, "body": {}},
    "missing body": {"status": 200, "body": ""},
    "a page instead of an answer": {"status": 200, "html": True},
}
STATUSES = (401, 403, 404, 409, 412, 423, 429, 500, 503, 507)
AT_NO_TIME = {"headers": {"Retry-After": None}}  # the service itself asks for some seconds
REFUSED = {
    **{f"{status}": {"status": status, **AT_NO_TIME} for status in STATUSES},
    **{f"{status} without a body": {"status": status, "body": "", **AT_NO_TIME} for status in STATUSES},
    **{f"{status} as a page": {"status": status, "html": True, **AT_NO_TIME} for status in STATUSES},
}
# The request is carried out, and the client learns of a failure.
DONE_AND_DENIED = {
    "done, then 500": {"status": 500, "execute": True},
    "done, then 503 without a body": {"status": 503, "execute": True, "body": ""},
    "done, then 503 with Retry-After": {"status": 503, "execute": True, "headers": {"Retry-After": "0"}},
    "done, then reset": {"reset": True, "execute": True},
    "done, then closed": {"drop": True, "execute": True},
}
GARBAGE = {
    "bad status line": {"garbage": "status_line"},
    "bad chunking": {"garbage": "chunk_size"},
}
FAULTS = {**BROKEN, **THROTTLED, **CUT, **HOLLOW, **REFUSED, **DONE_AND_DENIED, **GARBAGE}
# For operations that take their time.
FEWER_FAULTS = {name: action for name, action in FAULTS.items()
                if name not in REFUSED or name.startswith("423") or name in ("401", "409", "429", "500", "507")}
# What a session for an upload may look like beside a good one.
ODD_SESSIONS = {
    "a refused connection": {"uploadUrl": "http://127.0.0.1:9/_upload/x", "expirationDateTime": "2040-01-01T00:00:00Z"},
    "no address": {"expirationDateTime": "2040-01-01T00:00:00Z"},
    "an empty address": {"uploadUrl": ""},
    "an address of another kind": {"uploadUrl": "ftp://127.0.0.1/_upload/x"},
    "a relative address": {"uploadUrl": "/_upload/x"},
    "an address that is no text": {"uploadUrl": None},
}
TOKENS = {"alice": "alice-token", "bob": "bob-token"}


def final_reply(ftp, command):
    """The command's final reply, of whichever kind."""
    ftp.putcmd(command)
    return ftp.getmultiline()


def send(ftp, path, data, announced):
    """Stores the bytes as long as the server takes them; returns the final reply."""
    if announced:
        ftp.voidcmd(f"ALLO {len(data)}")
    numbers = re.search(r"\(([\d,]+)\)", ftp.sendcmd("PASV")).group(1).split(",")
    address = (".".join(numbers[:4]), int(numbers[4]) * 256 + int(numbers[5]))
    with socket.create_connection(address, timeout=60) as data_connection:
        reply = final_reply(ftp, "STOR " + path)
        if not reply.startswith("1"):
            return reply
        try:
            data_connection.sendall(data)
        except OSError:
            pass  # the server has given up before; its reply says why
    return ftp.getmultiline()


class Operation:
    """Something that a client does to the item at a path, and how to see at the service that it is so."""

    user = "bob"
    good = "226"
    twice = "226"  # the code with which a second try succeeds, also when the first has been carried out

    def prepare(self, test, ftp, path):
        """Makes what the operation needs."""

    def run(self, test, ftp, path):
        raise NotImplementedError

    def holds(self, test, path, reply):
        """The service is as a good reply says."""
        raise NotImplementedError

    def is_sound(self, test, path):
        """The service is as it was, or as the operation leaves it, and nothing between."""
        return True


class Store(Operation):
    def __init__(self, size, announced=False, modified=None):
        self.data = trees.content(size, size)
        self.digest = hashlib.sha256(self.data).hexdigest()
        self.announced = announced
        self.modified = modified

    def run(self, test, ftp, path):
        if self.modified:
            ftp.voidcmd(f"SITE STORATTR modify={self.modified};")
        return send(ftp, path, self.data, self.announced)

    def holds(self, test, path, reply):
        file = test.file(self.user, path)
        modified = re.sub(r"\D", "", file["modified"])[:14] if file else None
        return self.is_sound(test, path) and file is not None and self.modified in (None, modified)

    def is_sound(self, test, path):
        file = test.file(self.user, path)
        return file is None or (file["size"], file["sha256"]) == (len(self.data), self.digest)


class MakeFolder(Operation):
    good = "257"
    twice = "(257|550)"

    def run(self, test, ftp, path):
        return final_reply(ftp, "MKD " + path)

    def holds(self, test, path, reply):
        return "folder" in (test.item(self.user, path) or {})


class Rename(Operation):
    good = "250"
    twice = "(250|550)"

    def prepare(self, test, ftp, path):
        test.make_item(self.user, path, {"text": "content"})

    def run(self, test, ftp, path):
        reply = final_reply(ftp, "RNFR " + path)
        return final_reply(ftp, f"RNTO {path} new") if reply.startswith("350") else reply

    def holds(self, test, path, reply):
        return test.file(self.user, path) is None and test.file(self.user, path + " new") is not None

    def is_sound(self, test, path):
        return (test.file(self.user, path) is None) != (test.file(self.user, path + " new") is None)


class Delete(Operation):
    good = "250"
    twice = "(250|550)"

    def __init__(self, command, item):
        self.command = command
        self.content = item

    def prepare(self, test, ftp, path):
        test.make_item(self.user, path, self.content)

    def run(self, test, ftp, path):
        return final_reply(ftp, f"{self.command} {path}")

    def holds(self, test, path, reply):
        return test.item(self.user, path) is None


class Checksum(Operation):
    good = twice = "213"

    def __init__(self, user, offset=0, length=-1):
        self.user = user
        self.place = f"{offset} {length}"
        self.data = trees.content(1000, 3)
        part = self.data[offset:] if length == -1 else self.data[offset:offset + length]
        self.digest = hashlib.sha1(part).hexdigest()

    def prepare(self, test, ftp, path):
        test.make_item(self.user, path, {"base64": base64.b64encode(self.data).decode()})

    def run(self, test, ftp, path):
        return final_reply(ftp, f"CKSM SHA1 {self.place} {path}")

    def holds(self, test, path, reply):
        return reply is None or reply[4:].strip().lower() == self.digest


class WriteFaults(harness.EndToEnd):
    """What the sweeps need."""

    def file(self, user, path):
        return self.graph.file(path.removeprefix("/My files"), user)

    def item(self, user, path):
        """What the service itself says of an item, file or folder; None when there is none."""
        request = urllib.request.Request(
            f"{self.graph.url}/v1.0/me/drive/root:{quote(path.removeprefix('/My files'))}",
            headers={"Authorization": "Bearer " + TOKENS[user]})
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)
        except urllib.error.HTTPError as error:
            if error.code == 404:
                return None
            raise

    def make_item(self, user, path, item):
        self.graph.call("POST", "/__sim/items", {"account": user, "path": path.removeprefix("/My files"), "item": item})

    def require_usable(self, ftp):
        """The next reply is that of the next command: none was given twice."""
        self.assertEqual(final_reply(ftp, "NOOP")[:3], "200")
        self.assertEqual(final_reply(ftp, "PWD")[:3], "257")

    def require_secrecy(self, replies):
        told = "\n".join(replies) + self.server.output()
        addresses = {entry["target"] for entry in self.graph.requests("fragment")}
        for secret in (*TOKENS.values(), harness.PASSWORD, "/_upload/", "/_download/", *addresses):
            self.assertNotIn(secret, told)

    def attempt(self, operation, match, action, path):
        """Runs the operation under a fault and once more without it; returns the first reply."""
        ftp = self.connect(operation.user)
        ftp.voidcmd("TYPE I")
        operation.prepare(self, ftp, path)
        self.graph.add_fault(match, action)
        reply = operation.run(self, ftp, path)
        fired = self.graph.call("GET", "/__sim/faults")["rules"][0]["fired"]
        self.graph.clear_faults()
        self.assertGreater(fired, 0, "the operation makes no such request")
        self.assertTrue(operation.is_sound(self, path), reply)
        if reply.startswith(operation.good):
            self.assertTrue(operation.holds(self, path, reply), reply)
        else:
            self.assertRegex(reply, r"^[45]\d\d")
            again = operation.run(self, ftp, path)
            self.assertRegex(again, "^" + operation.twice, reply)
            self.assertTrue(operation.holds(self, path, again if again.startswith("213") else None), again)
        self.require_usable(ftp)
        ftp.close()
        return reply

    def sweep(self, operation, kinds, faults=None, not_at=None, repeats=(*BROKEN, *THROTTLED), match=None):
        """Each fault at each kind of request, once and always.  `not_at` takes faults away from a kind; those in
        `repeats` do no harm when they come once; `match` says more of the requests."""
        left_out, replies = not_at or {}, []
        for kind in kinds:
            folder = f"/My files/{self._testMethodName} {kind}"
            self.make_item(operation.user, folder, {"folder": True})
            wanted = [item for item in (faults or FAULTS).items() if item[0] not in left_out.get(kind, ())]
            for (number, (name, action)), times in itertools.product(enumerate(wanted), (1, 1000)):
                with self.subTest(request=kind, fault=name, times=times):
                    reply = self.attempt(operation, {"kind": kind, "count": times, **(match or {})}, action,
                                         f"{folder}/{number} {times} times")
                    replies.append(reply)
                    if times == 1 and name in repeats:
                        self.assertRegex(reply, "^" + operation.good)
        self.require_secrecy(replies)


class Stores(WriteFaults):
    SMALL = ("listing", "upload")
    LARGE = ("upload_session", "fragment")
    AT_THE_END = {**BROKEN, **CUT, **HOLLOW, **DONE_AND_DENIED}

    def test_a_small_store(self):
        self.sweep(Store(1000), self.SMALL)

    def test_a_small_store_that_is_announced(self):
        self.sweep(Store(1000, announced=True), self.SMALL)

    def test_a_small_store_with_a_time(self):
        self.sweep(Store(1000, modified="20010203040506"), ("upload", "update"))

    def test_a_large_store(self):
        self.sweep(Store(25 * MIB), self.LARGE, FEWER_FAULTS)

    def test_a_large_store_that_is_announced(self):
        self.sweep(Store(25 * MIB, announced=True), self.LARGE, FEWER_FAULTS)

    def test_the_last_part_of_a_large_store(self):
        self.sweep(Store(25 * MIB), ("fragment",), self.AT_THE_END, match={"nth": 3})

    def test_the_last_part_of_a_large_store_that_is_announced(self):
        self.sweep(Store(25 * MIB, announced=True), ("fragment",), self.AT_THE_END, match={"nth": 3})

    def test_a_large_store_with_a_time(self):
        self.sweep(Store(11 * MIB, modified="20010203040506"), ("upload_session",), FEWER_FAULTS)

    def test_an_odd_session_for_a_large_store(self):
        self.sweep(Store(11 * MIB), ("upload_session",),
                   {name: {"status": 200, "body": body} for name, body in ODD_SESSIONS.items()})


class Changes(WriteFaults):
    # A delete has no answer but its status.
    NOT_DONE = {"remove": HOLLOW.keys()}

    def test_making_a_folder(self):
        self.sweep(MakeFolder(), ("listing", "create"))

    def test_renaming(self):
        self.sweep(Rename(), ("listing", "update"))

    def test_deleting_a_file(self):
        self.sweep(Delete("DELE", {"text": "old"}), ("listing", "remove"), not_at=self.NOT_DONE, repeats=BROKEN)

    def test_deleting_a_folder(self):
        self.sweep(Delete("RMD", {"children": [{"name": "inner", "text": "old"}]}), ("listing", "remove"),
                   not_at=self.NOT_DONE, repeats=BROKEN)


class Checksums(WriteFaults):
    # Complete answers with other bytes are the content that the service now has.
    OTHER_BYTES = {"download": {*HOLLOW, "truncated JSON"}}

    def test_of_a_whole_file(self):
        self.sweep(Checksum("alice"), ("listing", "content", "download"), not_at=self.OTHER_BYTES)

    def test_of_a_part(self):
        self.sweep(Checksum("alice", 100, 500), ("content", "download"), not_at=self.OTHER_BYTES)

    def test_that_the_service_knows(self):
        self.sweep(Checksum("bob"), ("listing",))


class Repetitions(WriteFaults):
    """The connection is reset while content goes up: what is sent again is the same content."""

    def store_with_resets(self, kind, size, places, announced):
        ftp = self.connect("bob")
        ftp.voidcmd("TYPE I")
        for number, place in enumerate(places):
            path = f"/My files/{kind} {place} {announced}"
            data = trees.content(size, place)
            with self.subTest(place=place, announced=announced):
                self.graph.add_fault({"kind": kind, "nth": 1 + number % 3 if kind == "fragment" else 1},
                                     {"reset_after_received": place})
                reply = send(ftp, path, data, announced)
                fired = self.graph.call("GET", "/__sim/faults")["rules"][0]["fired"]
                self.graph.clear_faults()
                self.assertEqual((reply[:3], fired), ("226", 1), reply)
                self.assert_stored(path.removeprefix("/My files"), data, "bob")
        self.require_usable(ftp)

    def test_a_small_store_is_sent_again_from_its_beginning(self):
        for announced in (False, True):
            self.store_with_resets("upload", 4 * MIB, (0, 1, 2, 16383, 16384, 65535, 65536, 65537, 262144, MIB,
                                                       2 * MIB + 1, 4 * MIB - 1, 4 * MIB), announced)

    def test_a_part_is_sent_again_from_its_beginning(self):
        for announced in (False, True):
            self.store_with_resets("fragment", 25 * MIB, (0, 1, 16384, 65535, 65537, MIB - 1, 2 * MIB + 1, 4 * MIB,
                                                          5 * MIB - 1, 5 * MIB), announced)

    def test_two_resets_of_one_request_are_made_good_and_three_are_told(self):
        ftp = self.connect("bob")
        ftp.voidcmd("TYPE I")
        for (kind, size), announced in itertools.product((("upload", 4 * MIB), ("fragment", 25 * MIB)), (False, True)):
            for resets, expected in ((2, "^226"), (3, "^451")):
                data = trees.content(size, resets)
                path = f"/My files/{kind} {resets} {announced}"
                self.graph.add_fault({"kind": kind, "nth": 1, "count": resets}, {"reset_after_received": MIB + 1})
                reply = send(ftp, path, data, announced)
                self.graph.clear_faults()
                self.assertRegex(reply, expected)
                if resets == 3:
                    self.assertIsNone(self.file("bob", path))
                    self.assertRegex(send(ftp, path, data, announced), "^226")
                self.assert_stored(path.removeprefix("/My files"), data, "bob")

    def test_a_store_is_offered_to_be_continued_only_where_it_can_be(self):
        ftp = self.connect("bob")
        ftp.voidcmd("TYPE I")
        data = trees.content(25 * MIB, 9)
        lost = {"status": 503, "execute": True, "headers": {"Retry-After": "0"}}
        for action, part, announced in itertools.product((lost, {"reset": True, "execute": True}), (2, 3),
                                                         (True, False)):
            path = f"/My files/lost {len(action)} {part} {announced}"
            self.graph.add_fault({"kind": "fragment", "nth": part}, action)
            reply = send(ftp, path, data, announced)
            self.graph.clear_faults()
            self.assertRegex(reply, "^451")
            self.assertNotIn("GridFTP-Restart", reply)
            self.assertRegex(send(ftp, path, data, announced), "^226")
            self.assert_stored(path.removeprefix("/My files"), data, "bob")

    def test_a_continuation_whose_session_has_ended_is_forgotten(self):
        ftp = self.connect("bob")
        ftp.voidcmd("TYPE I")
        data = trees.content(25 * MIB, 10)
        self.graph.add_fault({"kind": "fragment", "nth": 2, "count": 3}, {"reset": True})
        self.assertIn("GridFTP-Restart: REST 10485760", send(ftp, "/My files/ended.bin", data, True))
        self.graph.clear_faults()
        self.graph.call("DELETE", "/__sim/uploads")
        ftp.sendcmd("REST 10485760")
        reply = send(ftp, "/My files/ended.bin", data[10 * MIB:], False)
        self.assertRegex(reply, "^451")
        self.assertNotIn("GridFTP-Restart", reply)
        ftp.sendcmd("REST 10485760")
        self.assertRegex(send(ftp, "/My files/ended.bin", data[10 * MIB:], False), "^554")
        self.assertRegex(send(ftp, "/My files/ended.bin", data, True), "^226")
        self.assert_stored("/ended.bin", data, "bob")


class Unreachable(WriteFaults):
    def test_a_service_that_is_gone_fails_each_change_until_it_is_back(self):
        operations = (Store(1000), Store(1000, announced=True), Store(11 * MIB), Store(11 * MIB, announced=True),
                      MakeFolder(), Rename(), Delete("DELE", {"text": "old"}), Delete("RMD", {"folder": True}),
                      Checksum("bob", 1, 5))
        address = self.graph.url.removeprefix("http://")
        sessions = [self.connect(operation.user) for operation in operations]
        for ftp in sessions:
            self.names(ftp, "/My files")
            ftp.voidcmd("TYPE I")
        self.graph.stop()
        for ftp, operation in zip(sessions, operations):
            reply = operation.run(self, ftp, "/My files/item")
            self.assertRegex(reply, r"^[45]\d\d")
            self.require_usable(ftp)
        type(self).graph = harness.GraphService(self.folder, listen=address)
        self.addClassCleanup(self.graph.stop)
        for number, (ftp, operation) in enumerate(zip(sessions, operations)):
            path = f"/My files/back {number}"
            operation.prepare(self, ftp, path)
            self.names(ftp, "/My files")
            ftp.voidcmd("TYPE I")
            reply = operation.run(self, ftp, path)
            self.assertRegex(reply, "^" + operation.good)
            self.assertTrue(operation.holds(self, path, reply), path)


class OneSessionForAFile(WriteFaults):
    """Work drives have one upload session for a file at a time; consumer drives any number."""

    def break_off(self, ftp, path):
        """A store that ends with its second part."""
        self.graph.add_fault({"kind": "fragment", "nth": 2, "count": 3}, {"reset": True})
        self.assertRegex(send(ftp, path, bytes(25 * MIB), True), "^451")
        self.graph.clear_faults()

    def test_a_consumer_stores_again_at_once(self):
        ftp = self.connect("bob")
        ftp.voidcmd("TYPE I")
        data = trees.content(15 * MIB, 1)
        self.break_off(ftp, "/My files/again.bin")
        self.assertRegex(send(ftp, "/My files/again.bin", data, True), "^226")
        self.assert_stored("/again.bin", data, "bob")

    def test_at_work_the_session_must_have_expired(self):
        ftp = self.connect("alice")
        ftp.voidcmd("TYPE I")
        data = trees.content(15 * MIB, 2)
        self.graph.call("POST", "/__sim/settings", {"session_lifetime_s": 1.5})
        self.break_off(ftp, "/My files/again.bin")
        self.graph.call("POST", "/__sim/settings", {"session_lifetime_s": 900})
        for announced in (True, False):
            reply = send(ftp, "/My files/again.bin", data, announced)
            self.assertRegex(reply, "^450")
            self.assertIn("An upload session already exists", reply)
        harness.wait_for(lambda: send(ftp, "/My files/again.bin", data, True).startswith("226"), "the session's end")
        self.assert_stored("/again.bin", data)


if __name__ == "__main__":
    harness.main()
