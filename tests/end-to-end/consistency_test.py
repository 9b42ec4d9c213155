"""The drive changes behind the server's back: sessions see each other's view of it, and their own
grows fresh again."""

import ftplib
import time

import harness


class Refresh(harness.EndToEnd):
    server_settings = ("storage.refresh_after=1",)

    def put_item(self, path, text):
        self.graph.call("POST", "/__sim/items",
                        {"account": "alice", "path": path, "item": {"text": text}})

    def test_a_file_that_appears_is_found_once_the_cache_is_old(self):
        ftp = self.connect()
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            self.retrieve(ftp, "appears later.txt")
        self.put_item("/appears later.txt", "here")
        time.sleep(1.2)
        self.assertEqual(self.retrieve(ftp, "appears later.txt"), b"here")

    def test_a_listing_always_shows_the_present(self):
        ftp = self.connect()
        self.names(ftp, "/My files")
        self.put_item("/brand new.txt", "new")
        self.assertIn("brand new.txt", self.names(ftp, "/My files"))

    def test_two_connections_of_one_user_agree(self):
        first, second = self.connect(), self.connect()
        self.assertEqual(self.names(first, "/My files"), self.names(second, "/My files"))
        self.put_item("/agreed.txt", "same")
        self.assertIn("agreed.txt", self.names(first, "/My files"))
        self.assertIn("agreed.txt", self.names(second, "/My files"))
        self.assertEqual(self.retrieve(first, "agreed.txt"), self.retrieve(second, "agreed.txt"))


class Credentials(harness.EndToEnd):
    """A token that is about to end is renewed once, whatever the number of sessions."""

    @classmethod
    def users(cls):
        return {"alice": harness.credential("old-token", "alice-sub", "11111111-2222-3333-4444-555555555555",
                                            seconds=120, refresh_token="alice-refresh", client_id="client",
                                            scope="Files.ReadWrite.All offline_access",
                                            token_endpoint="http://127.0.0.1:1/common/oauth2/v2.0/token")}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        import json
        cls.path = cls.server.folder / "home/alice/.tirval/onedrive-credential.json"
        record = json.loads(cls.path.read_text())
        record["token_endpoint"] = cls.graph.url + "/common/oauth2/v2.0/token"
        cls.path.write_text(json.dumps(record))

    def test_the_token_is_renewed_and_the_rotated_refresh_token_kept(self):
        import json
        sessions = [self.connect() for _ in range(4)]
        for ftp in sessions:
            self.assertEqual(self.retrieve(ftp, "hello.txt"), b"hello world")
        renewals = [entry for entry in self.graph.requests("token")]
        self.assertEqual([entry["status"] for entry in renewals], [200])
        record = json.loads(self.path.read_text())
        self.assertNotEqual(record["access_token"], "old-token")
        self.assertNotEqual(record["refresh_token"], "alice-refresh")
        self.assertEqual(record["sub"], "alice-sub")
        self.assertEqual(self.path.stat().st_mode & 0o777, 0o600)


if __name__ == "__main__":
    harness.main()
