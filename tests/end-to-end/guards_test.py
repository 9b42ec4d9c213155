"""What the server does so that neither a client's paths nor a service's names nor a broken home can
spoil a session or the others."""

import fcntl
import ftplib
import time

import harness


def entry(name, size=3):
    """An item as a listing has it."""
    return {"id": f"id-{name.encode().hex()}", "name": name, "size": size, "eTag": "\"1\"", "file": {},
            "createdDateTime": "2024-05-01T10:00:00Z", "lastModifiedDateTime": "2024-05-01T10:00:00Z",
            "parentReference": {"driveId": "d", "id": "p"}}


class Paths(harness.EndToEnd):
    def test_a_trailing_slash_hides_nothing(self):
        ftp = self.connect()
        for path in ("/My files/", "/My files//", "/My files/.", "//My files/Documents/.."):
            self.assertIn("hello.txt", self.names(ftp, path), path)
        ftp.cwd("/My files/")
        self.assertEqual(ftp.pwd(), "/My files")
        self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")
        self.assertEqual(self.retrieve(ftp, "/My files/./Documents//../hello.txt"), b"hello world")
        paths = {request["path"] for request in self.graph.requests()}
        self.assertEqual([path for path in paths if "//" in path or "/:/" in path], [])

    def test_names_that_no_path_can_hold_are_left_out_and_a_duplicate_is_shown_once(self):
        ftp = self.connect()
        ftp.cwd("Documents")
        names = ["good.txt", "..", ".", "a/b.txt", "two\r\nlines", "twice.txt", "twice.txt", "last.txt"]
        for command in ("MLSD", "NLST", "LIST"):
            self.graph.add_fault({"kind": "listing", "count": 1},
                                 {"status": 200, "body": {"value": [entry(name) for name in names]}})
            lines = []
            ftp.retrlines(command, lines.append)
            shown = [line for line in lines if line.endswith(".txt")]
            self.assertEqual(len(shown), 3, lines)
            for line, name in zip(shown, ("good.txt", "twice.txt", "last.txt")):
                self.assertTrue(line.endswith(name), line)
            rest = [line for line in lines if line not in shown]
            self.assertTrue(all("type=cdir" in line or "type=pdir" in line for line in rest), rest)
        self.assertIn("cannot be used in a path", self.server.output())
        self.assertIn("several items have the name", self.server.output())


class Homes(harness.EndToEnd):
    """A log-in that would wait for ever is ended, and takes nobody with it."""

    server_settings = ("server.login_timeout=2",)

    def test_a_log_in_that_waits_for_a_held_record_is_ended(self):
        alice = self.server.folder / "home/alice"
        folder = alice / ".tirval/onedrive-r"
        folder.mkdir(mode=0o700)
        record = folder / "alice-sub"
        with open(record, "wb") as file:
            for path in (folder, record):
                harness.os.chown(path, alice.stat().st_uid, alice.stat().st_gid)
            fcntl.lockf(file, fcntl.LOCK_EX)
            ftp = ftplib.FTP()
            ftp.connect("127.0.0.1", self.server.port, timeout=60)
            self.addCleanup(ftp.close)
            ftp.sendcmd("USER alice")
            with self.assertRaisesRegex(ftplib.error_temp, "^421"):
                ftp.sendcmd("PASS " + harness.PASSWORD)
            bob = self.connect("bob")
            self.assertIn("notes.txt", self.names(bob, "/My files"))
            harness.wait_for(lambda: "did not log in in time and is ended" in self.server.output(),
                             "the end of the session")
        again = self.connect("alice")
        self.assertIn("hello.txt", self.names(again, "/My files"))
        time.sleep(2.2)  # whoever has logged in stays
        self.assertEqual(again.pwd(), "/My files")


if __name__ == "__main__":
    harness.main()
