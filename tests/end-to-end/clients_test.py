"""The clients that people have: lftp, curl, ncftp and rclone."""

import filecmp

import harness
import trees
from trees import MIB


class ClientPrograms(harness.EndToEnd):
    """How the programs are called."""

    def lftp(self, script, user="alice"):
        done = self.run_client("lftp", "-c", f"set net:max-retries 1; set net:timeout 30; "
                               f"open -u {user},'{harness.PASSWORD}' ftp://127.0.0.1:{self.server.port}; {script}",
                               text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def rclone(self, *words):
        password = self.run_client("rclone", "obscure", harness.PASSWORD, text=True).stdout.strip()
        remote = f":ftp,host=127.0.0.1,port={self.server.port},user=alice,pass='{password}':"
        done = self.run_client("rclone", "--config", "/dev/null", *[
            word.replace("remote:", remote) for word in words], text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout


class Reading(ClientPrograms):
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

    def test_rclone_lists_and_copies(self):
        self.assertIn("10485760 Data/noise-10MiB.bin",
                      self.rclone("ls", "remote:/My files", "--exclude", "Many/**"))
        target = self.folder / "rclone"
        self.rclone("copy", "remote:/My files/Documents", str(target))
        self.assertEqual((target / "Deep/deeper/and deeper/bottom.txt").read_text(encoding="utf-8"),
                         "You have reached the bottom.\n")
        self.rclone("check", "remote:/My files/Documents", str(target), "--download")


class Writing(ClientPrograms):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.tree = cls.folder / "tree to send"
        trees.make(cls.tree, 25)
        cls.expected = trees.digests(cls.tree)
        cls.data = trees.content(12 * MIB + 1, 5)
        cls.source = cls.folder / "source.bin"
        cls.source.write_bytes(cls.data)

    def assert_tree_stored(self, folder):
        for path, digest in self.expected.items():
            file = self.graph.file(f"{folder}/{path}")
            self.assertIsNotNone(file, path)
            self.assertEqual(file["sha256"], digest, path)

    def assert_gone(self, *paths):
        for path in paths:
            self.assertIsNone(self.graph.file(path), path)

    def folders(self, path):
        return [name for name, facts in self.connect().mlsd(path) if facts["type"] == "dir"]

    def curl(self, *words, **more):
        return self.run_client("curl", "-sS", *[str(word) for word in words], **more)

    def assert_curl(self, *words, **more):
        done = self.curl(*words, **more)
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_curl_uploads_a_file(self):
        self.assert_curl("-T", self.source, self.url("/curl file.bin"))
        self.assert_stored("/curl file.bin", self.data)
        self.assert_curl("-T", self.source, self.url("/Documents/"))
        self.assert_stored("/Documents/source.bin", self.data)

    def test_lftp_and_curl_announce_the_size_when_they_are_asked_to(self):
        announcement = f"ALLO {len(self.data)}"
        before = self.server.output().count(announcement)
        self.lftp(f"set ftp:use-allo yes; put {self.source} -o 'announced by lftp.bin'")
        self.assert_curl("-Q", announcement, "-T", self.source, self.url("/announced by curl.bin"))
        self.assertEqual(self.server.output().count(announcement), before + 2)
        for name in ("lftp", "curl"):
            self.assert_stored(f"/announced by {name}.bin", self.data)

    def test_curl_uploads_from_a_pipe(self):
        for data in (b"", b"a few bytes", self.data):
            self.assert_curl("-T", "-", self.url(f"/curl pipe {len(data)}.bin"), input=data)
            self.assert_stored(f"/curl pipe {len(data)}.bin", data)

    def test_curl_makes_folders_on_its_way(self):
        self.assert_curl("--ftp-create-dirs", "-T", self.source, self.url("/curl/makes/these ä/file.bin"))
        self.assert_stored("/curl/makes/these ä/file.bin", self.data)

    def test_curl_uploads_over_an_active_data_connection(self):
        self.assert_curl("-P", "127.0.0.1", "-T", self.source, self.url("/curl active.bin"))
        self.assert_stored("/curl active.bin", self.data)

    def test_curl_cannot_append_to_a_file(self):
        part = self.data[:MIB]
        self.store(self.connect(), "curl resume.bin", part)
        done = self.curl("-v", "-C", "-", "-T", self.source, self.url("/curl resume.bin"), text=True)
        self.assertNotEqual(done.returncode, 0)
        self.assertRegex(done.stderr, "> APPE curl resume.bin\\s+< 553")
        self.assert_stored("/curl resume.bin", part)
        self.assert_curl("-T", self.source, self.url("/curl resume.bin"))
        self.assert_stored("/curl resume.bin", self.data)

    def test_curl_resumes_what_is_not_there_from_the_beginning(self):
        done = self.curl("-C", "-", "-T", self.source, self.url("/curl resume new.bin"))
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assert_stored("/curl resume new.bin", self.data)

    def test_curl_sends_commands(self):
        self.assert_curl("-T", self.source, self.url("/curl before.bin"))
        self.assert_curl("-Q", "RNFR curl before.bin", "-Q", "RNTO curl after.bin", self.url("/hello.txt"))
        self.assert_stored("/curl after.bin", self.data)
        self.assert_curl("-Q", "-DELE curl after.bin", self.url("/hello.txt"))
        self.assert_gone("/curl before.bin", "/curl after.bin")

    def test_lftp_puts_and_moves_and_removes(self):
        self.lftp(f"put {self.source} -o 'lftp one.bin'; mkdir -p 'lftp a/b'; mv 'lftp one.bin' 'lftp two.bin'")
        self.assert_stored("/lftp two.bin", self.data)
        self.assert_gone("/lftp one.bin")
        self.lftp(f"cd 'lftp a/b'; put {self.source}; cd /; rm '/My files/lftp two.bin'; "
                  "mv '/My files/lftp a' '/My files/lftp c'")
        self.assert_stored("/lftp c/b/source.bin", self.data)
        self.assert_gone("/lftp two.bin")
        self.lftp("rm -r 'lftp c'; mkdir 'lftp d'; rmdir 'lftp d'")
        self.assertFalse({"lftp c", "lftp d"} & set(self.folders("/My files")))

    def test_lftp_puts_many_files(self):
        for number in range(5):
            (self.folder / f"many {number}.txt").write_text(f"number {number}")
        self.lftp(f"mkdir 'lftp many'; cd 'lftp many'; mput {str(self.folder).replace(' ', '?')}/many?*.txt")
        for number in range(5):
            self.assert_stored(f"/lftp many/many {number}.txt", f"number {number}".encode())

    def test_lftp_mirrors_a_tree_up_twice(self):
        self.lftp(f"mirror -R '{self.tree}' 'lftp tree'")
        self.assert_tree_stored("/lftp tree")
        self.graph.forget_requests()
        self.lftp(f"mirror -R --ignore-time '{self.tree}' 'lftp tree'")
        self.assertEqual(self.graph.requests("upload"), [])

    def test_ncftp_uploads(self):
        def put(*words):
            done = self.run_client("ncftpput", "-u", "alice", "-p", harness.PASSWORD, "-P", str(self.server.port),
                                   *words, text=True)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        put("-m", "127.0.0.1", "/My files/ncftp", str(self.source))
        self.assert_stored("/ncftp/source.bin", self.data)
        put("-R", "127.0.0.1", "/My files/ncftp", str(self.tree))
        self.assert_tree_stored("/ncftp/tree to send")

    def test_rclone_changes_files_and_folders(self):
        self.rclone("copyto", str(self.source), "remote:/My files/rclone one/two/three.bin")
        self.assert_stored("/rclone one/two/three.bin", self.data)
        self.rclone("moveto", "remote:/My files/rclone one/two/three.bin", "remote:/My files/rclone one/two/four.bin")
        self.assert_stored("/rclone one/two/four.bin", self.data)
        self.assert_gone("/rclone one/two/three.bin")
        self.rclone("deletefile", "remote:/My files/rclone one/two/four.bin")
        self.assert_gone("/rclone one/two/four.bin")
        self.rclone("mkdir", "remote:/My files/rclone one/empty/inner")
        self.assertEqual(self.folders("/My files/rclone one/empty"), ["inner"])
        self.rclone("rmdir", "remote:/My files/rclone one/empty/inner")
        self.assertEqual(self.folders("/My files/rclone one/empty"), [])

    def test_rclone_copies_a_tree_and_purges_it(self):
        self.rclone("copy", str(self.tree), "remote:/My files/rclone tree")
        self.assert_tree_stored("/rclone tree")
        self.graph.forget_requests()
        self.rclone("copy", "--size-only", str(self.tree), "remote:/My files/rclone tree")
        self.assertEqual(self.graph.requests("upload"), [])
        self.rclone("purge", "remote:/My files/rclone tree")
        self.assertNotIn("rclone tree", self.folders("/My files"))

    def test_rclone_streams_from_a_pipe(self):
        password = self.run_client("rclone", "obscure", harness.PASSWORD, text=True).stdout.strip()
        done = self.run_client(
            "rclone", "--config", "/dev/null", "rcat",
            f":ftp,host=127.0.0.1,port={self.server.port},user=alice,pass='{password}':/My files/rclone pipe.bin",
            input=self.data)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assert_stored("/rclone pipe.bin", self.data)


if __name__ == "__main__":
    harness.main()
