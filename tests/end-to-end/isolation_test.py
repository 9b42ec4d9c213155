"""Sessions of different users side by side: whom their processes belong to, what they write where,
and that the sessions of one user keep to one pace."""

import ftplib
import pathlib
import threading
import unittest

import harness

RATE = 20  # requests a second
SPACING = 1.0 / RATE
# A request may reach the service late, on a busy machine; none is sent early.
LATENESS = 0.3
WARNING = "the pacing of requests is not shared"


def status(process):
    """/proc/PID/status as a dictionary of lists of words."""
    lines = pathlib.Path(f"/proc/{process}/status").read_text().splitlines()
    return {key: value.split() for key, _, value in (line.partition(":") for line in lines)}


class Isolation(harness.EndToEnd):
    server_settings = (f"storage.onedrive.policy='{{\"user_api_rate_limit\": {RATE}}}'",)

    def session_of(self, user):
        """A connection, and the process that serves it."""
        before = self.children()
        ftp = self.connect(user)
        new = self.children() - before
        self.assertEqual(len(new), 1)
        return ftp, new.pop()

    def children(self):
        master = self.server.process.pid
        return set(pathlib.Path(f"/proc/{master}/task/{master}/children").read_text().split())

    def home(self, user):
        return self.server.folder / "home" / user

    def uid(self, user):
        return self.home(user).stat().st_uid

    @unittest.skipUnless(harness.ROOT, "only root serves several users")
    def test_each_session_is_its_user_without_a_way_to_more(self):
        sessions = {user: self.session_of(user) for user in ("alice", "bob")}
        self.assertNotEqual(self.uid("alice"), self.uid("bob"))
        for user, (_, process) in sessions.items():
            facts = status(process)
            self.assertEqual(facts["Uid"], [str(self.uid(user))] * 4)
            self.assertEqual(facts["Gid"], [str(self.home(user).stat().st_gid)] * 4)
            for kind in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
                self.assertEqual(int(facts[kind][0], 16), 0, kind)
            self.assertEqual(facts["NoNewPrivs"], ["1"])
            self.assertEqual(facts["Seccomp"], ["2"])
            threads = pathlib.Path(f"/proc/{process}/task").iterdir()
            self.assertEqual({status(thread.name)["Uid"][0] for thread in threads}, {str(self.uid(user))})

    @unittest.skipUnless(harness.ROOT, "only root serves several users")
    def test_a_session_never_becomes_a_second_user(self):
        ftp, process = self.session_of("alice")
        ftp.sendcmd("USER bob")
        with self.assertRaisesRegex(ftplib.error_perm, "^530 Another user needs a new connection"):
            ftp.sendcmd("PASS " + harness.PASSWORD)
        with self.assertRaisesRegex(ftplib.error_perm, "^530"):
            ftp.sendcmd("PWD")
        self.assertEqual(status(process)["Uid"], [str(self.uid("alice"))] * 4)
        ftp.login("alice", harness.PASSWORD)
        self.assertIn("hello.txt", self.names(ftp, "/My files"))

    def test_each_session_writes_in_its_users_folder_alone(self):
        warnings = self.server.output().count(WARNING)
        for user in ("alice", "bob"):
            ftp = self.connect(user)
            self.names(ftp, "/My files")
            ftp.quit()
        for user, other in (("alice", "bob"), ("bob", "alice")):
            folder = self.home(user) / ".tirval" / "onedrive-r"
            self.assertEqual((folder.stat().st_mode & 0o7777, folder.stat().st_uid), (0o700, self.uid(user)))
            self.assertEqual([path.name for path in folder.iterdir()], [f"{user}-sub"])
            record = (folder / f"{user}-sub").stat()
            self.assertEqual((record.st_mode & 0o7777, record.st_uid, record.st_size), (0o600, self.uid(user), 24))
            for path in self.home(user).rglob("*"):
                self.assertEqual(path.stat().st_uid, self.uid(user), path)
                self.assertNotIn(other, path.name)
        self.assertEqual(self.server.output().count(WARNING), warnings)

    def test_two_sessions_of_one_user_keep_to_one_pace(self):
        sessions = [self.connect("alice") for _ in range(2)]
        self.graph.forget_requests()
        listings = 15
        failures = []

        def walk(ftp):
            try:
                for _ in range(listings):
                    self.names(ftp, "/My files/Documents")
            except Exception as error:  # told by the main thread
                failures.append(error)

        walkers = [threading.Thread(target=walk, args=(ftp,)) for ftp in sessions]
        for walker in walkers:
            walker.start()
        for walker in walkers:
            walker.join()
        self.assertEqual(failures, [])
        times = sorted(entry["monotonic_us"] / 1e6 for entry in self.graph.requests() if entry["kind"] != "download")
        self.assertGreaterEqual(len(times), len(sessions) * listings)
        for first, start in enumerate(times):
            for later in range(first + 1, len(times)):
                self.assertGreater(times[later] - start, (later - first) * SPACING - LATENESS)

    def test_a_pace_that_cannot_be_shared_is_told_once_a_session(self):
        folder = self.home("bob") / ".tirval" / "onedrive-r"
        kept = folder.with_name("kept")
        known = folder.exists()
        if known:
            folder.rename(kept)
        folder.write_text("in the way")
        try:
            before = self.server.output().count(WARNING)
            ftp = self.connect("bob")
            self.assertIn("notes.txt", self.names(ftp, "/My files"))
            self.assertEqual(self.server.output().count(WARNING), before + 1)
        finally:
            folder.unlink()
            if known:
                kept.rename(folder)


if __name__ == "__main__":
    harness.main()
