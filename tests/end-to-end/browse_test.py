"""Walking the drive with Python's ftplib: what each account sees, and how entries look."""

import ftplib
import unittest

import harness


class Browse(harness.EndToEnd):
    def test_a_work_account_sees_its_files_what_is_shared_and_the_libraries(self):
        ftp = self.connect("alice")
        self.assertEqual(ftp.pwd(), "/My files")
        self.assertEqual(self.names(ftp, "/"), ["My files", "Shared", "Shared libraries"])
        self.assertIn("hello.txt", self.names(ftp, "/My files"))
        self.assertEqual(self.names(ftp, "/Shared"), ["Budget 2024.csv", "Projects"])
        self.assertEqual(self.names(ftp, "/Shared/Projects"), ["Phase 1", "plan.md", "raw.bin"])
        self.assertEqual(self.names(ftp, "/Shared libraries"), ["Forschung und Lehre", "Team A"])
        self.assertEqual(self.names(ftp, "/Shared libraries/Team A"), ["Archive", "Documents"])
        self.assertEqual(self.names(ftp, "/Shared libraries/Team A/Documents"), ["Agenda.md", "Minutes"])

    def test_a_personal_account_does_not_see_shared_libraries(self):
        ftp = self.connect("bob")
        self.assertEqual(self.names(ftp, "/"), ["My files", "Shared"])
        self.assertEqual(self.names(ftp, "/Shared"), ["Holiday photos", "recipe.md"])

    def test_the_root_and_the_virtual_folders_cost_no_request(self):
        ftp = self.connect("alice")
        self.graph.forget_requests()
        self.names(ftp, "/")
        ftp.cwd("/Shared libraries")
        ftp.cwd("/My files")
        self.assertEqual(self.graph.requests(), [])

    def test_names_of_any_script_and_punctuation_survive(self):
        ftp = self.connect("alice")
        names = self.names(ftp, "/My files/Documents")
        for name in ("Report 2024 #1.txt", "100% done.txt", "plus+and&more='[x]@!$,;.txt",
                     "Ämter und Straßen.txt", "報告書.txt", "Отчёт.txt"):
            self.assertIn(name, names)
            self.assertGreater(len(self.retrieve(ftp, "/My files/Documents/" + name)), 0, name)

    def test_facts_are_exact(self):
        ftp = self.connect("alice")
        facts = dict(ftp.mlsd("/My files"))
        self.assertEqual(facts["hello.txt"]["type"], "file")
        self.assertEqual(facts["hello.txt"]["size"], "11")
        self.assertEqual(facts["hello.txt"]["modify"], "20240430200000")
        self.assertEqual(facts["Documents"]["type"], "dir")
        self.assertEqual(ftp.voidcmd("MDTM hello.txt"), "213 20240430200000")
        ftp.voidcmd("TYPE I")
        self.assertEqual(ftp.size("hello.txt"), 11)
        self.assertEqual(ftp.size("/My files/Data/four-GiB.bin"), 4 << 30)

    def test_list_looks_like_ls(self):
        ftp = self.connect("alice")
        lines = []
        ftp.retrlines("LIST /My files", lines.append)
        hello = [line for line in lines if line.endswith(" hello.txt")]
        self.assertEqual(len(hello), 1)
        self.assertRegex(hello[0], r"^-[-rwx]{9} +1 alice +alice +11 Apr 30  2024 hello\.txt$")
        self.assertTrue(any(line.startswith("d") and line.endswith(" Documents") for line in lines))

    def test_a_folder_of_a_thousand_items_is_listed_whole(self):
        ftp = self.connect("alice")
        names = self.names(ftp, "/My files/Many")
        self.assertEqual(len(names), 1000)
        self.assertEqual(names[0], "item-0001.txt")
        self.assertEqual(len(self.graph.requests("listing")), 1 + 4)

    def test_working_directory_and_dots(self):
        ftp = self.connect("alice")
        ftp.cwd("Documents/Deep")
        ftp.cwd("deeper/../deeper//and deeper/.")
        self.assertEqual(ftp.pwd(), "/My files/Documents/Deep/deeper/and deeper")
        self.assertEqual(self.names(ftp, ""), ["bottom.txt"])
        ftp.cwd("..")
        self.assertEqual(ftp.pwd(), "/My files/Documents/Deep/deeper")
        ftp.cwd("/../..")
        self.assertEqual(ftp.pwd(), "/")

    def test_a_missing_path_is_named_in_the_reply(self):
        ftp = self.connect("alice")
        with self.assertRaisesRegex(ftplib.error_perm, r"^550-GridFTP-Reason: PATH_NOT_FOUND") as caught:
            ftp.cwd("/My files/nowhere")
        self.assertIn('GridFTP-Path: "/My files/nowhere"', str(caught.exception))
        for command in ("SIZE nowhere", "MDTM nowhere", "MLST nowhere", "STAT nowhere"):
            ftp.voidcmd("TYPE I")
            with self.assertRaisesRegex(ftplib.error_perm, "^550"):
                ftp.sendcmd(command)
        for command in ("LIST nowhere", "MLSD nowhere", "NLST nowhere", "RETR nowhere"):
            with self.assertRaisesRegex(ftplib.error_perm, "^550"):
                ftp.transfercmd(command)

    def test_nobody_sees_what_was_not_shared(self):
        ftp = self.connect("alice")
        self.assertNotIn("private.txt", self.names(ftp, "/Shared"))
        with self.assertRaisesRegex(ftplib.error_perm, "^550"):
            ftp.transfercmd("RETR /Shared/private.txt")

    def test_a_wrong_password_and_an_unknown_user_look_the_same(self):
        answers = []
        for user in ("alice", "nobody-here"):
            ftp = ftplib.FTP()
            ftp.connect("127.0.0.1", self.server.port, timeout=60)
            self.addCleanup(ftp.close)
            answers.append(ftp.sendcmd("USER " + user).replace(user, "NAME"))
            with self.assertRaises(ftplib.error_perm) as caught:
                ftp.sendcmd("PASS wrong")
            answers.append(str(caught.exception).replace(user, "NAME"))
        self.assertEqual(answers[:2], answers[2:])
        self.assertTrue(answers[1].startswith("530"))


if __name__ == "__main__":
    harness.main()
