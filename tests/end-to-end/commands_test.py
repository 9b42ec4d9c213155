"""Folders are made, items renamed and deleted, and sessions side by side agree about it."""

import ftplib

import harness


class Folders(harness.EndToEnd):
    def test_a_folder_is_made_and_used(self):
        ftp = self.connect()
        self.assertEqual(ftp.mkd("Neu & schön"), "/My files/Neu & schön")
        self.assertEqual(ftp.mkd("/My files/Neu & schön/deeper"), "/My files/Neu & schön/deeper")
        self.store(ftp, "Neu & schön/deeper/file.txt", b"inside")
        self.assert_stored("/Neu & schön/deeper/file.txt", b"inside")
        self.assertEqual(self.names(ftp, "Neu & schön"), ["deeper"])

    def test_a_folder_that_exists_is_told(self):
        ftp = self.connect()
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            ftp.mkd("Documents")
        with self.assertRaisesRegex(ftplib.error_perm, "^55[03]"):
            ftp.mkd("hello.txt")

    def test_a_folder_that_came_behind_the_back_is_told(self):
        ftp = self.connect()
        self.names(ftp, "/My files")
        self.graph.call("POST", "/__sim/items", {"account": "alice", "path": "/surprise", "item": {"folder": True}})
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            ftp.mkd("surprise")
        self.assertIn("surprise", self.names(ftp, "/My files"))

    def test_nothing_is_made_beside_the_virtual_folders_or_in_missing_ones(self):
        ftp = self.connect()
        for path in ("/new", "/My filesX", "/Shared libraries 2"):
            with self.assertRaisesRegex(ftplib.error_perm, "^550"):
                ftp.mkd(path)
        with self.assertRaisesRegex(ftplib.error_perm, "^55[03]"):
            ftp.mkd("missing/new")
        self.assertEqual(self.graph.requests("create"), [])


class Deletes(harness.EndToEnd):
    def test_files_and_folders_are_deleted(self):
        ftp = self.connect()
        self.store(ftp, "old.txt", b"old")
        ftp.delete("old.txt")
        self.assertIsNone(self.graph.file("/old.txt"))
        ftp.mkd("old folder")
        ftp.rmd("old folder")
        self.assertNotIn("old folder", self.names(ftp, "/My files"))
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            ftp.delete("old.txt")

    def test_a_tree_goes_with_one_request(self):
        ftp = self.connect()
        for folder in ("tree", "tree/branch"):
            ftp.mkd(folder)
        for leaf in ("tree/leaf.txt", "tree/branch/leaf.txt"):
            self.store(ftp, leaf, b"leaf")
        self.graph.forget_requests()
        self.assertRegex(ftp.sendcmd("SITE RDEL tree"), "^250")
        self.assertEqual(len(self.graph.requests("remove")), 1)
        self.assertIsNone(self.graph.file("/tree/branch/leaf.txt"))

    def test_a_folder_that_was_deleted_can_be_made_again_with_what_is_in_it(self):
        ftp = self.connect()
        for _ in range(2):
            ftp.mkd("again")
            ftp.mkd("again/inner")
            self.store(ftp, "again/inner/file.txt", b"x")
            self.assert_stored("/again/inner/file.txt", b"x")
            ftp.sendcmd("SITE RDEL again")
            with self.assertRaisesRegex(ftplib.error_perm, "^550"):
                self.size(ftp, "again/inner/file.txt")

    def test_virtual_folders_sites_and_libraries_stay(self):
        ftp = self.connect()
        for path in ("/", "/My files", "/Shared", "/Shared libraries", "/Shared libraries/Team A",
                     "/Shared libraries/Team A/Documents"):
            for command in ("RMD", "DELE", "SITE RDEL", "RNFR"):
                with self.assertRaisesRegex(ftplib.error_perm, "^550", msg=f"{command} {path}"):
                    ftp.sendcmd(f"{command} {path}")
        self.assertEqual(self.graph.requests("remove"), [])

    def test_a_refused_delete_that_looks_done_is_told(self):
        ftp = self.connect()
        self.store(ftp, "locked.txt", b"x")
        for status in (412, 423):
            self.graph.add_fault({"kind": "remove", "count": 1}, {"status": status, "body": ""})
            with self.assertRaisesRegex(ftplib.error_temp, "^450"):
                ftp.delete("locked.txt")
            self.assertIn("locked.txt", self.names(ftp, "/My files"))
        ftp.delete("locked.txt")
        self.assertIsNone(self.graph.file("/locked.txt"))

    def test_a_second_try_after_a_failed_delete_succeeds(self):
        ftp = self.connect()
        self.store(ftp, "twice.txt", b"x")
        for action in ({"status": 503}, {"status": 500}, {"status": 403}, {"status": 429}):
            self.graph.add_fault({"kind": "remove", "count": 1}, action)
            with self.assertRaises(ftplib.Error):
                ftp.delete("twice.txt")
        ftp.delete("twice.txt")
        self.assertIsNone(self.graph.file("/twice.txt"))


class CarefulDeletes(harness.EndToEnd):
    server_settings = ("storage.delete_checks=on",)

    def test_only_what_the_command_means_is_deleted(self):
        ftp = self.connect()
        ftp.mkd("full")
        self.store(ftp, "full/file.txt", b"x")
        for command in ("DELE full", "RMD full", "RMD full/file.txt"):
            with self.assertRaisesRegex(ftplib.error_perm, "^550", msg=command):
                ftp.sendcmd(command)
        self.assert_stored("/full/file.txt", b"x")
        ftp.sendcmd("SITE RDEL full")
        self.assertIsNone(self.graph.file("/full/file.txt"))


class Renames(harness.EndToEnd):
    def test_files_and_folders_are_renamed(self):
        ftp = self.connect()
        self.store(ftp, "before.txt", b"x")
        ftp.rename("before.txt", "after Ä.txt")
        self.assert_stored("/after Ä.txt", b"x")
        self.assertIsNone(self.graph.file("/before.txt"))
        ftp.mkd("folder a")
        self.store(ftp, "folder a/inner.txt", b"y")
        ftp.rename("folder a", "folder b")
        self.assertEqual(self.retrieve(ftp, "folder b/inner.txt"), b"y")
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            self.size(ftp, "folder a/inner.txt")

    def test_a_rename_survives_a_listing_between_its_records(self):
        ftp = self.connect()
        ftp.mkd("P")
        ftp.mkd("P/s")
        self.store(ftp, "P/s/a", b"a")
        self.names(ftp, "P")
        self.size(ftp, "P/s/a")
        self.names(ftp, "P")
        ftp.rename("P/s/a", "P/s/b")
        self.assert_stored("/P/s/b", b"a")

    def test_nothing_is_overwritten(self):
        ftp = self.connect()
        self.store(ftp, "one.txt", b"one")
        self.store(ftp, "two.txt", b"two")
        with self.assertRaisesRegex(ftplib.error_perm, "^553"):
            ftp.rename("one.txt", "two.txt")
        self.assert_stored("/one.txt", b"one")
        self.assert_stored("/two.txt", b"two")

    def test_a_rename_into_another_folder_is_refused(self):
        ftp = self.connect()
        self.store(ftp, "stays.txt", b"x")
        with self.assertRaisesRegex(ftplib.error_perm, "^553"):
            ftp.rename("stays.txt", "Documents/stays.txt")
        self.assert_stored("/stays.txt", b"x")
        self.assertEqual(self.graph.requests("update"), [])

    def test_what_to_rename_is_asked_for_first(self):
        ftp = self.connect()
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            ftp.sendcmd("RNFR missing.txt")
        with self.assertRaisesRegex(ftplib.error_perm, "^503"):
            ftp.sendcmd("RNTO new.txt")

    def test_a_second_try_after_a_failed_rename_succeeds(self):
        ftp = self.connect()
        self.store(ftp, "shaky.txt", b"x")
        self.graph.add_fault({"kind": "update", "count": 1}, {"status": 423})
        with self.assertRaises(ftplib.Error):
            ftp.rename("shaky.txt", "steady.txt")
        ftp.rename("shaky.txt", "steady.txt")
        self.assert_stored("/steady.txt", b"x")


class SideBySide(harness.EndToEnd):
    """Two connections of one user see one drive."""

    def test_what_one_makes_the_other_uses(self):
        first, second = self.connect(), self.connect()
        self.names(first, "/My files")
        self.names(second, "/My files")
        first.mkd("common")
        self.store(second, "common/file.txt", b"from the second")
        self.assertEqual(self.retrieve(first, "common/file.txt"), b"from the second")
        second.rename("common/file.txt", "common/other.txt")
        self.assertEqual(self.size(first, "common/other.txt"), len(b"from the second"))
        first.sendcmd("SITE RDEL common")
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            self.size(second, "common/other.txt")
        second.mkd("common")
        second.mkd("common/inner")
        self.store(first, "common/inner/new.txt", b"x")
        self.assert_stored("/common/inner/new.txt", b"x")


class Announced(harness.EndToEnd):
    """What the server offers and what not."""

    def test_features_name_what_works(self):
        ftp = self.connect()
        features = ftp.sendcmd("FEAT")
        for feature in (" REST STREAM", " MLST ", " CKSM ", " HASH ", " RANG STREAM"):
            self.assertIn("\n" + feature, features)
        for feature in ("MFMT", "AUTH", "DCAU"):
            self.assertNotIn(feature, features)

    def test_times_and_modes_are_not_offered(self):
        ftp = self.connect()
        for command in ("MFMT 20010203040506 hello.txt", "SITE UTIME 20010203040506 hello.txt",
                        "SITE CHMOD 644 hello.txt"):
            with self.assertRaisesRegex(ftplib.error_perm, "^50[024]", msg=command):
                ftp.sendcmd(command)

    def test_rights_are_told_as_they_are(self):
        ftp = self.connect()
        facts = dict(ftp.mlsd("/My files", ["perm", "type"]))
        self.assertTrue(set("drfw") <= set(facts["hello.txt"]["perm"]) and "a" not in facts["hello.txt"]["perm"])
        self.assertTrue(set("cdeflmp") <= set(facts["Documents"]["perm"]))
        roots = dict(ftp.mlsd("/", ["perm", "type"]))
        self.assertFalse(set("df") & set(roots["My files"]["perm"]))

    def test_site_help_lists_the_words(self):
        reply = self.connect().sendcmd("SITE HELP")
        for word in ("HELP", "RDEL", "STORATTR"):
            self.assertIn(word, reply)


if __name__ == "__main__":
    harness.main()
