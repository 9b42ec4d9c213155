"""Bad input to the server's files: a clear message that names what is wrong, and others are served."""

import os
import pathlib
import pwd
import shutil
import socket
import subprocess
import tempfile
import unittest

import harness


class Check(unittest.TestCase):
    """tirval-gridftp-server --check and failing starts, without a running service."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tirval-check-"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.users = self.folder / "users"
        # A server started by root serves anyone but root, any other serves its own user.
        self.user = "nobody" if harness.ROOT else pwd.getpwuid(os.getuid()).pw_name
        self.users.write_text(f"{self.user}:$6$x$y\n")
        self.users.chmod(0o600)
        self.config = self.folder / "server.toml"

    def run_server(self, text, *arguments):
        self.config.write_text(text.replace("USERS", str(self.users)))
        return subprocess.run([str(harness.BUILD / "bin/tirval-gridftp-server"), "--config", str(self.config),
                               *arguments], capture_output=True, text=True, timeout=60)

    def assert_refused(self, text, *expected, arguments=("--check",)):
        done = self.run_server(text, *arguments)
        self.assertEqual(done.returncode, 2, done.stdout + done.stderr)
        for words in expected:
            self.assertIn(words, done.stdout + done.stderr)

    good = '[server]\nlisten = ["127.0.0.1:0"]\n[auth]\nusers_file = "USERS"\n'

    def test_a_good_configuration_passes(self):
        done = self.run_server(self.good, "--check")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_an_unknown_key_is_named_with_its_line(self):
        self.assert_refused(self.good + "surprise = 1\n", "server.toml:5", "auth.surprise")

    def test_a_bad_value_is_named(self):
        self.assert_refused('[server]\nlisten = ["127.0.0.1:0"]\nmax_sessions = "many"\n[auth]\nusers_file = "USERS"\n',
                            "server.toml:3", "server.max_sessions")

    def test_text_that_is_no_toml_is_placed(self):
        self.assert_refused("[server\n", "server.toml:1")

    def test_a_missing_configuration_is_named(self):
        done = subprocess.run([str(harness.BUILD / "bin/tirval-gridftp-server"), "--config", "/nonexistent/x.toml"],
                              capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 2)
        self.assertIn("/nonexistent/x.toml", done.stderr)

    def test_users_of_nobody_here_are_named_with_their_line(self):
        self.users.write_text(f"# users\n{self.user}:$6$x$y\nghost:$6$x$y:no-such-user-here\n")
        self.assert_refused(self.good, "users:3", "no-such-user-here")

    def test_a_duplicate_user_is_named_with_its_line(self):
        self.users.write_text(f"{self.user}:$6$x$y\n{self.user}:$6$x$y\n")
        self.assert_refused(self.good, "users:2")

    def test_a_users_file_that_others_may_read_is_refused(self):
        self.users.chmod(0o644)
        self.assert_refused(self.good, str(self.users))

    def test_a_bad_policy_is_named(self):
        self.assert_refused(self.good + "[storage.onedrive]\npolicy = '{nonsense'\n", "storage.onedrive.policy")

    def test_plain_http_to_elsewhere_is_refused(self):
        self.assert_refused(self.good + '[storage.onedrive]\ngraph_url = "http://graph.example.org"\n',
                            "storage.onedrive.graph_url")

    def test_a_port_in_use_is_named(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            self.assert_refused(self.good.replace(":0", f":{port}"), f"127.0.0.1:{port}", arguments=())

    def test_a_missing_module_is_named(self):
        self.assert_refused(self.good, "libtirval_gridftp_server_nosuch.so",
                            arguments=("--set", "storage.name=nosuch"))


class BadCredentials(harness.EndToEnd):
    """Users whose credential is unusable are told so; the others are served."""

    @classmethod
    def users(cls):
        users = {name: harness.credential("alice-token", "alice-sub", None)
                 for name in ("alice", "missing", "readable", "garbage", "escape", "expired")}
        users["escape"]["sub"] = "../../escape"
        users["expired"] = harness.credential("alice-token", "alice-sub", None, seconds=-10)
        return users

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.credential("missing").unlink()
        cls.credential("readable").chmod(0o644)
        cls.credential("garbage").write_text("{not json")

    @classmethod
    def credential(cls, user):
        return cls.server.folder / "home" / user / ".tirval/onedrive-credential.json"

    def test_each_is_told_what_is_wrong_and_the_others_are_served(self):
        import ftplib
        for user in ("missing", "readable", "garbage", "escape", "expired"):
            with self.subTest(user=user):
                with self.assertRaises(ftplib.all_errors) as caught:
                    self.connect(user)
                self.assertRegex(str(caught.exception), "(?s)^(421|530).*(credential|sign in again)")
        self.assertEqual(self.retrieve(self.connect("alice"), "hello.txt"), b"hello world")

    @unittest.skipUnless(harness.ROOT, "giving a file away takes root")
    def test_a_credential_that_belongs_to_another_is_refused(self):
        import ftplib
        os.chown(self.credential("garbage"), 0, 0)
        with self.assertRaises(ftplib.all_errors):
            self.connect("garbage")


class HostileClients(harness.EndToEnd):
    """Garbage on the control connection never keeps others from being served."""

    def talk(self, data):
        with socket.create_connection(("127.0.0.1", self.server.port), timeout=30) as control:
            control.recv(1000)
            control.sendall(data)
            reply = b""
            while not reply.endswith(b"\r\n"):
                reply += control.recv(4000)
            return reply.removeprefix(b"\xff\xfe\x01")  # the refusal of a telnet option

    def test_garbage_and_overlong_commands(self):
        self.assertTrue(self.talk(b"\xff\xfb\x01\x00\x07\x1b[2J\r\n").startswith(b"50"))
        self.assertTrue(self.talk(b"USER " + b"a" * 100000 + b"\r\n").startswith(b"500"))
        self.assertTrue(self.talk(bytes(range(1, 256)) + b"\r\n").startswith(b"50"))
        self.assertEqual(self.retrieve(self.connect(), "hello.txt"), b"hello world")

    def test_control_bytes_in_paths_are_refused(self):
        ftp = self.connect()
        ftp.sock.sendall(b"CWD /My files/a\x00b\r\n")
        self.assertEqual(ftp.getmultiline()[:3], "501")
        ftp.sock.sendall(b"CWD /My files/a\r\x00b\r\n")
        self.assertRegex(ftp.getmultiline()[:3], "50.|55.")
        self.assertEqual(self.retrieve(ftp, "//My files/./Documents/../hello.txt"), b"hello world")

    def test_a_user_reloaded_on_sighup_can_log_in(self):
        import ftplib
        import signal
        text = self.server.users_file.read_text()
        self.server.users_file.write_text("".join(line for line in text.splitlines(True)
                                                  if not line.startswith("bob:")))
        self.server.process.send_signal(signal.SIGHUP)

        def bob_is_gone():
            try:
                self.connect("bob").close()
                return False
            except ftplib.error_perm:
                return True

        harness.wait_for(bob_is_gone, "the users file to be read again")
        self.server.users_file.write_text(text)
        self.server.process.send_signal(signal.SIGHUP)

        def bob_is_back():
            try:
                self.connect("bob").close()
                return True
            except ftplib.error_perm:
                return False

        harness.wait_for(bob_is_back, "bob to be back")


class Shutdown(harness.EndToEnd):
    def test_a_running_transfer_ends_before_the_server_does(self):
        import signal
        ftp = self.connect()
        ftp.voidcmd("TYPE I")
        with ftp.transfercmd("RETR Data/noise-10MiB.bin") as data:
            received = len(data.recv(1000))
            self.server.process.send_signal(signal.SIGTERM)
            while block := data.recv(1 << 16):
                received += len(block)
        self.assertEqual(ftp.voidresp()[:3], "226")
        self.assertEqual(received, 10485760)
        self.assertEqual(self.server.process.wait(20), 0)


if __name__ == "__main__":
    harness.main()
