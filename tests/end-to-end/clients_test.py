"""The clients that people have: lftp, curl, ncftp and rclone."""

import filecmp
import pathlib
import unittest

import harness


class Clients(harness.EndToEnd):
    def lftp(self, script, user="alice"):
        done = self.run_client("lftp", "-c", f"set net:max-retries 1; set net:timeout 30; "
                               f"open -u {user},'{harness.PASSWORD}' ftp://127.0.0.1:{self.server.port}; {script}",
                               text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_lftp_lists_and_reads(self):
        self.assertEqual(sorted(self.lftp("cls -1 /").split("\n"))[1:],
                         ["/My files/", "/Shared libraries/", "/Shared/"])
        self.assertEqual(self.lftp("cat 'Documents/Ämter und Straßen.txt'"), "Grüße aus Köln.\n")
        self.assertIn("hello.txt", self.lftp("ls"))

    def test_lftp_mirrors_a_tree_with_several_connections(self):
        target = self.folder / "mirror"
        self.lftp(f"mirror -P 4 '/My files/Small files' {target}")
        files = sorted(path.name for path in target.iterdir())
        self.assertEqual(len(files), 200)
        self.assertTrue(all(path.stat().st_size == 10240 for path in target.iterdir()))

    def test_lftp_resumes(self):
        whole, part = self.folder / "whole.bin", self.folder / "part.bin"
        self.lftp(f"get Data/noise-10MiB.bin -o {whole}")
        part.write_bytes(whole.read_bytes()[:3333333])
        self.lftp(f"get -c Data/noise-10MiB.bin -o {part}")
        self.assertTrue(filecmp.cmp(whole, part, shallow=False))

    def test_curl_downloads_resumes_and_lists(self):
        target = self.folder / "curl.bin"
        first = self.run_client("curl", "-sS", "-o", str(target), self.url("/Data/noise-10MiB.bin"))
        self.assertEqual(first.returncode, 0, first.stderr)
        whole = target.read_bytes()
        self.assertEqual(len(whole), 10485760)
        target.write_bytes(whole[:1234567])
        again = self.run_client("curl", "-sS", "-C", "-", "-o", str(target), self.url("/Data/noise-10MiB.bin"))
        self.assertEqual(again.returncode, 0, again.stderr)
        self.assertEqual(target.read_bytes(), whole)
        listing = self.run_client("curl", "-sS", self.url("/Documents/"), text=True)
        self.assertIn("報告書.txt", listing.stdout)
        head = self.run_client("curl", "-sS", "-I", self.url("/hello.txt"), text=True)
        self.assertIn("Content-Length: 11", head.stdout)
        self.assertIn("Tue, 30 Apr 2024 20:00:00 GMT", head.stdout)

    def test_curl_with_active_data_connections(self):
        done = self.run_client("curl", "-sS", "-P", "127.0.0.1", self.url("/hello.txt"))
        self.assertEqual((done.returncode, done.stdout), (0, b"hello world"), done.stderr)

    def test_curl_names_a_missing_file_with_its_own_code(self):
        self.assertEqual(self.run_client("curl", "-s", self.url("/nowhere.txt")).returncode, 78)

    def test_ncftp_downloads(self):
        done = self.run_client("ncftpget", "-u", "alice", "-p", harness.PASSWORD, "-P", str(self.server.port),
                               "127.0.0.1", str(self.folder), "/My files/hello.txt")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual((self.folder / "hello.txt").read_bytes(), b"hello world")

    def rclone(self, *words):
        password = self.run_client("rclone", "obscure", harness.PASSWORD, text=True).stdout.strip()
        remote = f":ftp,host=127.0.0.1,port={self.server.port},user=alice,pass='{password}':"
        done = self.run_client("rclone", "--config", "/dev/null", *[
            word.replace("remote:", remote) for word in words], text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def test_rclone_lists_and_copies(self):
        self.assertIn("10485760 Data/noise-10MiB.bin",
                      self.rclone("ls", "remote:/My files", "--exclude", "Many/**"))
        target = self.folder / "rclone"
        self.rclone("copy", "remote:/My files/Documents", str(target))
        self.assertEqual((target / "Deep/deeper/and deeper/bottom.txt").read_text(encoding="utf-8"),
                         "You have reached the bottom.\n")
        self.rclone("check", "remote:/My files/Documents", str(target), "--download")


if __name__ == "__main__":
    harness.main()
