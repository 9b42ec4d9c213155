"""Whole trees go up, come down and compare equal, with the clients that people use for it."""

import shutil

import harness
import trees
from trees import MIB


class Mirror(harness.EndToEnd):
    files = 300
    large = (25 * MIB, 120 * MIB)

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
            file = self.graph.file(f"{folder}/{path}")
            self.assertIsNotNone(file, path)
            self.assertEqual(file["sha256"], digest, path)

    def lftp(self, script):
        done = self.run_client("lftp", "-c", "set net:max-retries 5; set net:reconnect-interval-base 1; "
                               "set net:timeout 60; set cmd:fail-exit yes; "
                               f"open -u alice,'{harness.PASSWORD}' ftp://127.0.0.1:{self.server.port}; {script}",
                               text=True, timeout=500)
        self.assertEqual(done.returncode, 0, done.stderr + self.server.output()[-2000:])

    def rclone(self, *words, retries=3):
        password = self.run_client("rclone", "obscure", harness.PASSWORD, text=True).stdout.strip()
        remote = f":ftp,host=127.0.0.1,port={self.server.port},user=alice,pass='{password}':"
        done = self.run_client("rclone", "--config", "/dev/null", "--retries", str(retries),
                               *[str(word).replace("remote:", remote) for word in words], text=True, timeout=500)
        self.assertEqual(done.returncode, 0, done.stderr)

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
        self.rclone("check", self.target, "remote:/My files/by rclone", "--download")


class UnderFaults(Mirror):
    """The same while one request in twenty fails in a way that may pass."""

    files = 120
    large = (25 * MIB,)

    def setUp(self):
        super().setUp()
        graph_requests = ["drive", "item", "listing", "content", "create", "update", "upload", "upload_session"]
        for kinds, action in ((graph_requests, {"reset": True}), (graph_requests, {"drop": True}),
                              (graph_requests, {"status": 429, "headers": {"Retry-After": "0"}}),
                              (graph_requests, {"status": 503, "headers": {"Retry-After": "0"}})):
            self.graph.add_fault({"kind": kinds, "probability": 0.0125}, action)


if __name__ == "__main__":
    harness.main()
