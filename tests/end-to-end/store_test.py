"""Files go up whole or not at all, whatever their size and whether the client announces it or not."""

import ftplib
import time

import harness
import trees
from trees import MIB

SIZES = (0, 1, 4194304, 4194305, 10485760, 10485761, 20971520, 20971521)


class Sizes(harness.EndToEnd):
    def test_announced_files_arrive_byte_for_byte(self):
        ftp = self.connect()
        for size in SIZES:
            data = trees.content(size, size)
            self.assertIn("226", self.store(ftp, f"announced {size}.bin", data, announced=True))
            self.assert_stored(f"/announced {size}.bin", data)

    def test_files_of_unknown_size_arrive_byte_for_byte(self):
        ftp = self.connect()
        for size in SIZES:
            data = trees.content(size, size + 1)
            self.assertIn("226", self.store(ftp, f"unknown {size}.bin", data))
            self.assert_stored(f"/unknown {size}.bin", data)

    def test_what_was_stored_is_read_back_in_the_same_session(self):
        ftp = self.connect()
        for size in SIZES:
            data = trees.content(size, size + 2)
            self.store(ftp, "Documents/there and back.bin", data)
            self.assertEqual(self.size(ftp, "Documents/there and back.bin"), size)
            self.assertEqual(self.retrieve(ftp, "Documents/there and back.bin"), data)

    def test_text_mode_stores_line_ends_as_unix_has_them(self):
        ftp = self.connect()
        with harness.io.BytesIO(b"one\ntwo\n") as lines:
            ftp.storlines("STOR text.txt", lines)
        self.assert_stored("/text.txt", b"one\ntwo\n")


class Rules(harness.EndToEnd):
    def test_a_file_that_is_there_is_replaced_and_keeps_its_identity(self):
        ftp = self.connect()
        self.store(ftp, "replaced.txt", b"first")
        before = self.graph.file("/replaced.txt")["id"]
        self.store(ftp, "replaced.txt", b"second, and longer")
        self.assert_stored("/replaced.txt", b"second, and longer")
        self.assertEqual(self.graph.file("/replaced.txt")["id"], before)

    def test_the_wanted_modification_time_is_kept(self):
        ftp = self.connect()
        for size in (10, 5 * MIB):
            ftp.voidcmd("SITE STORATTR modify=20010203040506;")
            self.store(ftp, f"dated {size}.bin", bytes(size))
            self.assertEqual(ftp.sendcmd(f"MDTM dated {size}.bin"), "213 20010203040506")
            self.assertTrue(self.graph.file(f"/dated {size}.bin")["modified"].startswith("2001-02-03T04:05:06"))
        self.store(ftp, "undated.bin", b"x")
        self.assertNotEqual(ftp.sendcmd("MDTM undated.bin"), "213 20010203040506")

    def test_nothing_is_created_beside_the_virtual_folders(self):
        ftp = self.connect()
        for path in ("/new.txt", "/My filesX", "/Shared.txt"):
            with self.assertRaisesRegex(ftplib.error_perm, "^550"):
                self.store(ftp, path, b"x")
        self.assertEqual(self.graph.requests("upload"), [])

    def test_a_folder_is_not_overwritten(self):
        ftp = self.connect()
        for path in ("/My files", "Documents", "/Shared"):
            with self.assertRaisesRegex(ftplib.error_perm, "^550"):
                self.store(ftp, path, b"x")
        self.assertIn("Deep", self.names(ftp, "Documents"))

    def test_nothing_is_stored_in_a_folder_that_does_not_exist(self):
        ftp = self.connect()
        with self.assertRaisesRegex(ftplib.error_perm, "^55[03]"):
            self.store(ftp, "nowhere/new.txt", b"x")
        self.assertIsNone(self.graph.file("/nowhere/new.txt"))

    def test_appending_makes_a_file_and_never_changes_one(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        ftp.storbinary("APPE appended.txt", harness.io.BytesIO(b"new"))
        self.assert_stored("/appended.txt", b"new")
        with self.assertRaisesRegex(ftplib.error_perm, "^553"):
            ftp.storbinary("APPE appended.txt", harness.io.BytesIO(b"more"))
        self.assert_stored("/appended.txt", b"new")

    def test_a_unique_name_is_found_and_told(self):
        ftp = self.connect()
        made = set()
        for _ in range(3):
            data = trees.content(10, len(made))
            with ftp.transfercmd("STOU") as connection:
                connection.sendall(data)
            reply = ftp.voidresp()
            self.assertRegex(reply, "^226")
            made |= set(self.names(ftp, "/My files")) - made - {"hello.txt"}
        self.assertGreaterEqual(len(made), 3)

    def test_more_than_was_announced_is_refused(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        ftp.voidcmd(f"ALLO {4 * MIB}")
        with self.assertRaisesRegex(ftplib.error_temp, "^451(.|\n)*Too much data was sent"):
            ftp.storbinary("STOR surplus.bin", harness.io.BytesIO(bytes(4 * MIB + 1)))
        self.assertEqual(self.names(ftp, "/My files/Documents/Empty folder"), [])

    def test_less_than_was_announced_stores_nothing(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        for announced, sent in ((100, 99), (12 * MIB, 11 * MIB), (4 * MIB, 0)):
            ftp.voidcmd(f"ALLO {announced}")
            with self.assertRaisesRegex(ftplib.error_temp, "^451"):
                ftp.storbinary(f"STOR short {announced}.bin", harness.io.BytesIO(bytes(sent)))
            self.assertIsNone(self.graph.file(f"/short {announced}.bin"))
        self.store(ftp, "short 100.bin", b"at the second try")
        self.assert_stored("/short 100.bin", b"at the second try")

    def test_names_that_the_service_refuses_get_a_clear_error(self):
        ftp = self.connect()
        for name in ("a:b.txt", "quo\"te.txt", "star*.txt", "trailing dot."):
            with self.assertRaises(ftplib.Error) as caught:
                self.store(ftp, name, b"x")
            self.assertRegex(str(caught.exception), "^[45]\\d\\d", name)
        self.store(ftp, "good.txt", b"x")
        self.assert_stored("/good.txt", b"x")

    def test_a_name_that_is_no_utf8_cannot_be_created(self):
        ftp = self.connect()
        ftp.encoding = "latin-1"
        with self.assertRaisesRegex(ftplib.error_perm, "^553"):
            self.store(ftp, "\xe4\xf6.txt", b"x")


class Interrupted(harness.EndToEnd):
    """A data connection that ends with an error, and stores that are continued."""

    def break_off(self, ftp, path, total, sent, data):
        ftp.voidcmd("TYPE I")
        ftp.voidcmd(f"ALLO {total}")
        with ftp.transfercmd("STOR " + path) as connection:
            connection.sendall(data[:sent])
        with self.assertRaises(ftplib.error_temp) as caught:
            ftp.voidresp()
        return str(caught.exception)

    def restart_point(self, reply):
        found = harness.re.search(r"REST (\d+)", reply)
        self.assertIsNotNone(found, reply)
        return int(found.group(1))

    def test_a_reset_connection_stores_nothing(self):
        import socket
        import struct
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        for sent in (100, 5 * MIB):
            connection = ftp.transfercmd("STOR reset.bin")
            connection.sendall(bytes(sent))
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            connection.close()
            with self.assertRaisesRegex(ftplib.error_temp, "^4"):
                ftp.voidresp()
            self.assertIsNone(self.graph.file("/reset.bin"))
        self.assertEqual(self.graph.requests("upload") + self.graph.requests("upload_session"), [])

    def test_an_announced_store_goes_on_at_a_part_in_the_same_session(self):
        ftp = self.connect()
        data = trees.content(45 * MIB + 7, 45)
        offset = self.restart_point(self.break_off(ftp, "resumed.bin", len(data), 28 * MIB, data))
        self.assertEqual(offset, 20 * MIB)
        self.assertIsNone(self.graph.file("/resumed.bin"))
        self.graph.forget_requests()
        self.assertIn("226", self.store(ftp, "resumed.bin", data[offset:], rest=offset))
        self.assert_stored("/resumed.bin", data)
        self.assertEqual(self.graph.requests("upload_session"), [])

    def test_a_continuation_of_another_length_is_refused(self):
        ftp = self.connect()
        data = trees.content(25 * MIB, 25)
        offset = self.restart_point(self.break_off(ftp, "mixed.bin", len(data), 15 * MIB, data))
        with self.assertRaisesRegex(ftplib.error_perm, "^554"):
            self.store(ftp, "mixed.bin", data[offset:] + b"and more", rest=offset)
        self.assertIsNone(self.graph.file("/mixed.bin"))
        self.store(ftp, "mixed.bin", data[offset:], rest=offset)
        self.assert_stored("/mixed.bin", data)

    def test_a_fresh_store_after_a_broken_one_begins_anew(self):
        ftp = self.connect("bob")
        data = trees.content(25 * MIB, 26)
        self.break_off(ftp, "anew.bin", len(data), 15 * MIB, data)
        again = trees.content(15 * MIB, 27)
        self.assertIn("226", self.store(ftp, "anew.bin", again, announced=True))
        self.assert_stored("/anew.bin", again, "bob")

    def test_a_work_drive_takes_a_fresh_store_once_the_broken_ones_session_has_ended(self):
        ftp = self.connect()
        data = trees.content(25 * MIB, 26)
        again = trees.content(15 * MIB, 27)
        self.graph.call("POST", "/__sim/settings", {"session_lifetime_s": 1.5})
        self.break_off(ftp, "anew.bin", len(data), 15 * MIB, data)
        self.graph.call("POST", "/__sim/settings", {"session_lifetime_s": 900})
        for announced in (True, False):
            with self.assertRaisesRegex(ftplib.error_temp, "^450(.|\n)*An upload session already exists"):
                self.store(ftp, "anew.bin", again, announced=announced)
        harness.wait_for(lambda: self.stores(ftp, "anew.bin", again), "the session's end")
        self.assert_stored("/anew.bin", again)

    def stores(self, ftp, path, data):
        try:
            self.store(ftp, path, data, announced=True)
            return True
        except ftplib.error_temp:
            return False

    def test_there_is_nothing_to_continue_without_a_broken_store(self):
        ftp = self.connect()
        with self.assertRaisesRegex(ftplib.error_perm, "^554"):
            self.store(ftp, "never begun.bin", b"x" * 100, rest=10 * MIB)

    def test_abor_ends_a_store_and_the_session_goes_on(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        for announcement in ("NOOP", f"ALLO {12 * MIB}"):
            ftp.voidcmd(announcement)
            connection = ftp.transfercmd("STOR aborted.bin")
            connection.sendall(bytes(MIB))
            time.sleep(0.1)
            ftp.putcmd("ABOR")
            self.assertRegex(ftp.getmultiline(), "^426")
            self.assertRegex(ftp.getmultiline(), "^226")
            connection.close()
            self.assertIsNone(self.graph.file("/aborted.bin"))
        self.store(ftp, "aborted.bin", b"at last")
        self.assert_stored("/aborted.bin", b"at last")

    def test_no_spooled_file_has_a_name(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        before = set(harness.os.listdir("/var/tmp"))
        connection = ftp.transfercmd("STOR spooled.bin")
        connection.sendall(bytes(6 * MIB))
        time.sleep(0.2)
        self.assertEqual(set(harness.os.listdir("/var/tmp")) - before, set())
        connection.close()
        ftp.voidresp()
        self.assert_stored("/spooled.bin", bytes(6 * MIB))


class FullSpool(harness.EndToEnd):
    """The spool's file system has no room."""

    server_settings = ("spool.directory=\"/dev/shm/tirval-spool-test\"",)

    @classmethod
    def setUpClass(cls):
        import unittest
        if not harness.ROOT:
            raise unittest.SkipTest("a file system of its own takes root")
        place = harness.pathlib.Path("/dev/shm/tirval-spool-test")
        place.mkdir(exist_ok=True)
        cls.addClassCleanup(place.rmdir)
        harness.subprocess.run(["mount", "-t", "tmpfs", "-o", "size=6m,mode=1777", "tmpfs", str(place)], check=True)
        cls.addClassCleanup(harness.subprocess.run, ["umount", str(place)], check=True)
        super().setUpClass()

    def test_no_room_is_told_and_stores_nothing(self):
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        with self.assertRaisesRegex((ftplib.error_temp, OSError), "452|reset|pipe"):
            ftp.storbinary("STOR too large.bin", harness.io.BytesIO(bytes(40 * MIB)))
        again = self.connect()
        self.assertIsNone(self.graph.file("/too large.bin"))
        data = trees.content(5 * MIB, 5)
        self.store(again, "fits.bin", data)
        self.assert_stored("/fits.bin", data)
        data = trees.content(40 * MIB, 6)
        self.store(again, "announced.bin", data, announced=True)
        self.assert_stored("/announced.bin", data)


if __name__ == "__main__":
    harness.main()
