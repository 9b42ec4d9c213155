"""Whole trees go up, come down and compare equal, with the clients that people use for it."""

import shutil

import harness
import trees
from trees import MIB


class Mirror(harness.EndToEnd):
    files = 60 if harness.SANITIZER else 300
    large = (25 * MIB,) if harness.SANITIZER else (25 * MIB, 120 * MIB)
    tries = 1  # of a client's run

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.tree = cls.folder / "tree"
        trees.make(cls.tree, cls.files, cls.large)
        cls.expected = trees.digests(cls.tree)

    def setUp(self):
        super().setUp()
        self.target = self.folder / "down"
        self.addCleanup(shutil.rmtree, self.target, ignore_errors=True)

    def assert_at_service(self, folder):
        for path, digest in self.expected.items():
            file = self.graph.file(f"{folder}/{path}", "bob")
            self.assertIsNotNone(file, path)
            self.assertEqual(file["sha256"], digest, path)

    def require_success(self, *command):
        for _ in range(self.tries):
            done = self.run_client(*command, text=True, timeout=500)
            if done.returncode == 0:
                return
        self.fail(done.stderr + self.server.output()[-2000:])

    def lftp(self, script):
        self.require_success("lftp", "-c", "set net:max-retries 5; set net:reconnect-interval-base 1; "
                             "set net:timeout 60; set cmd:fail-exit yes; "
                             f"open -u bob,'{harness.PASSWORD}' ftp://127.0.0.1:{self.server.port}; {script}")

    def rclone(self, *words):
        password = self.run_client("rclone", "obscure", harness.PASSWORD, text=True).stdout.strip()
        remote = f":ftp,host=127.0.0.1,port={self.server.port},user=bob,pass='{password}':"
        self.require_success("rclone", "--config", "/dev/null",
                             *[str(word).replace("remote:", remote) for word in words])

    def test_lftp_mirrors_up_and_down(self):
        self.lftp(f"mirror -R -P 3 {self.tree} '/My files/by lftp'")
        self.assert_at_service("/by lftp")
        self.lftp(f"mirror -P 3 '/My files/by lftp' {self.target}")
        self.assertEqual(trees.digests(self.target), self.expected)

    def test_rclone_syncs_up_and_down_and_its_check_is_clean(self):
        self.rclone("sync", self.tree, "remote:/My files/by rclone")
        self.assert_at_service("/by rclone")
        self.rclone("check", self.tree, "remote:/My files/by rclone")
        self.rclone("sync", "remote:/My files/by rclone", self.target)
        self.assertEqual(trees.digests(self.target), self.expected)
        self.end_faults()  # this check reads everything, and nothing a second time
        self.rclone("check", self.target, "remote:/My files/by rclone", "--download")

    def end_faults(self):
        pass


class UnderFaults(Mirror):
    """The same while one request in twenty fails in a way that may pass.  What fails in spite of being tried
    again is left to the client, which begins once more with what is missing."""

    files = 60 if harness.SANITIZER else Mirror.files
    large = (25 * MIB,) if harness.SANITIZER else Mirror.large
    tries = 6

    def setUp(self):
        super().setUp()
        graph_requests = ["drive", "item", "listing", "content", "download", "create", "update", "remove", "upload",
                          "upload_session", "fragment"]
        for action in ({"reset": True}, {"drop": True}, {"status": 429, "headers": {"Retry-After": "0"}},
                       {"status": 503, "headers": {"Retry-After": "0"}}):
            self.graph.add_fault({"kind": graph_requests, "probability": 0.0125}, action)

        self.fired = 0

    def end_faults(self):
        self.fired += sum(rule["fired"] for rule in self.graph.call("GET", "/__sim/faults")["rules"])
        self.graph.clear_faults()

    def tearDown(self):
        self.end_faults()
        self.assertGreater(self.fired, 0)
        super().tearDown()


if __name__ == "__main__":
    harness.main()
