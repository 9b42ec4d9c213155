"""The plug-in's debug channel, the transfer log, and what must never stand in either."""

import re

import harness


class Trace(harness.EndToEnd):
    @classmethod
    def setUpClass(cls):
        import pathlib
        import tempfile
        trace = pathlib.Path(tempfile.mkdtemp(prefix="tirval-trace-"))
        trace.chmod(0o777)
        cls.trace = trace / "trace.log"
        cls.trace.touch()
        cls.trace.chmod(0o666)
        cls.environment = {"TIRVAL_ONEDRIVE_DEBUG": f"levels=ALL;file={cls.trace}"}
        super().setUpClass()
        import shutil
        cls.addClassCleanup(shutil.rmtree, trace, ignore_errors=True)

    def test_every_step_writes_whole_lines(self):
        before = len(self.trace.read_text())
        ftp = self.connect()
        self.names(ftp, "/My files")
        self.retrieve(ftp, "hello.txt")
        ftp.quit()
        harness.wait_for(lambda: "tirval_i_onedrive_destroy: exit" in self.trace.read_text()[before:],
                         "the session's end")
        lines = self.trace.read_text()[before:].splitlines()
        form = re.compile(r"^OneDrive: (TRACE|DEBUG| INFO| WARN|ERROR): \d+: [a-z_]+: .+$")
        self.assertEqual([line for line in lines if not form.match(line)], [])
        for function in ("tirval_i_onedrive_start", "tirval_onedrive_update_token", "tirval_i_onedrive_stat",
                         "tirval_onedrive_get_folder_items", "tirval_i_onedrive_send", "tirval_i_onedrive_destroy"):
            self.assertTrue(any(f" {function}: enter" in line for line in lines), function)
        self.assertEqual(sum(": API CALL!" in line for line in lines), len(self.graph.requests()))

    def test_no_secret_is_ever_written(self):
        ftp = self.connect()
        self.retrieve(ftp, "hello.txt")
        self.graph.add_fault({"kind": "download"}, {"status": 500})
        try:
            self.retrieve(ftp, "hello.txt")
        except Exception:  # the failure's trace is what is looked at
            pass
        everything = self.trace.read_text() + self.server.output()
        addresses = [entry["target"] for entry in self.graph.requests("download")]
        self.assertGreater(len(addresses), 0)
        for secret in ("alice-token", harness.PASSWORD, *addresses):
            self.assertNotIn(secret, everything)

    def test_each_transfer_has_its_line_in_the_log(self):
        ftp = self.connect()
        self.retrieve(ftp, "hello.txt")
        ftp.quit()
        line = harness.wait_for(
            lambda: [line for line in self.server.transfer_log.read_text().splitlines() if "hello.txt" in line],
            "the transfer's line")[-1]
        self.assertIn("alice", line)
        self.assertRegex(line, r"\b11\b")


if __name__ == "__main__":
    harness.main()
