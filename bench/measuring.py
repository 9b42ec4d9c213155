"""What the measurements share: the services that are measured, what they are measured against, and
the table.
"""

import contextlib
import ftplib
import json
import os
import pathlib
import resource
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/end-to-end"))
import harness  # noqa: E402  (needs the path above)

GIB = 1 << 30
TENANT = "11111111-2222-3333-4444-555555555555"
PASSWORD = harness.PASSWORD
FAR = "2099-01-01T00:00:00Z"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(*command, **more):
    done = subprocess.run(command, capture_output=True, **more)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))[:200]} … ended with {done.returncode}: {done.stderr!r}")
    return done


def processor_seconds(pid):
    """User and system time of a running process and of its threads."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def pss_kib(pid):
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1])
    raise RuntimeError("no Pss")


def children(pid):
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text()
    return [int(child) for child in text.split()]


class Timed:
    """Wall and processor seconds of one action."""

    def __init__(self, wall, processor=None):
        self.wall = wall
        self.processor = processor


def timed_action(action):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    action()
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return Timed(wall, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)


def timed_command(command):
    return timed_action(lambda: run(*command))


class Bench:
    def __init__(self, stack, rounds):
        self.rounds = rounds
        self.stack = stack
        self.folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="tirval-bench-")))
        self.folder.chmod(0o755)
        self.rows = []
        self._certificates()
        self._seed()
        self.http = self._graph("http", "127.0.0.1:0", [])
        self.https = self._graph("https", "127.0.0.1:443",
                                 ["--tls-certificate", str(self.folder / "server.pem"),
                                  "--tls-key", str(self.folder / "server.key")])
        self.https_url = "https://127.0.0.1:443"
        # Downloads come from another host than Graph itself, as they do in life: curl -L then
        # leaves the token out of the second request.  rclone does not, nor for the addresses of upload
        # sessions, and must not fail for it.
        self._separate_downloads(self.http.url)
        self._separate_downloads(self.https_url)
        self.ours_http = self._server("ours-http", self.http.url)
        self.ours_https = self._server("ours-https", self.https_url)

    # -- what is measured against ---------------------------------------------------------------

    def _certificates(self):
        ca, ca_key = self.folder / "ca.pem", self.folder / "ca.key"
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
            "-nodes", "-keyout", ca_key, "-out", ca, "-days", "2", "-subj", "/CN=bench CA")
        run("openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-keyout", self.folder / "server.key", "-out", self.folder / "server.csr", "-subj",
            "/CN=localhost")
        names = self.folder / "names"
        names.write_text("subjectAltName=DNS:localhost,DNS:graph.microsoft.com,IP:127.0.0.1\n")
        run("openssl", "x509", "-req", "-in", self.folder / "server.csr", "-CA", ca, "-CAkey",
            ca_key, "-days", "2", "-extfile", names, "-out", self.folder / "server.pem")
        self.ca = ca

    def _seed(self):
        small = [{"name": f"small-{n:03}.bin", "size": 10240, "pattern": "cycle"} for n in range(200)]
        many = [{"name": f"item {n:04}.txt", "text": "x"} for n in range(5000)]
        thousand = {"count": 1000, "name": "f-####.bin", "size": 10240, "pattern": "cycle"}
        drive = [{"name": "1GiB.bin", "size": GIB, "pattern": "cycle"},
                 {"name": "4GiB.bin", "size": 4 * GIB, "pattern": "cycle"},
                 {"name": "small", "children": small}, {"name": "many", "children": many},
                 {"name": "thousand", "children": [{"generate": thousand}]},
                 {"name": "up", "folder": True}]
        self.seed = self.folder / "seed.json"
        self.seed.write_text(json.dumps({"accounts": [
            {"name": "alice", "kind": "business", "tenant": TENANT,
             "tokens": ["alice-token"], "drive": {"children": drive}}]}))

    def _graph(self, name, listen, arguments):
        folder = self.folder / name
        folder.mkdir()
        service = harness.GraphService(folder, ["--seed", str(self.seed), *arguments], listen)
        self.stack.callback(service.stop)
        return service

    def _separate_downloads(self, url):
        self.control(url, "settings", {"download_origin": url.replace("127.0.0.1", "localhost"),
                                       "download_refuses_bearer": False,
                                       "upload_refuses_bearer": False})

    def control(self, url, path, body, method="POST"):
        run("curl", "-sf", "--cacert", self.ca, "-X", method, "-H", "Content-Type: application/json",
            "-d", json.dumps(body), f"{url}/__sim/{path}")

    def _server(self, name, graph_url):
        folder = self.folder / name
        folder.mkdir()
        users = {"alice": harness.credential("alice-token", "alice", TENANT, seconds=10**8)}
        server = harness.Server(folder, graph_url, users,
                                ["storage.onedrive.policy='{\"user_api_rate_limit\": 1000000}'",
                                 "server.max_sessions_per_host=500"],
                                {"SSL_CERT_FILE": str(self.ca), "TIRVAL_SECCOMP": ""})
        self.stack.callback(server.stop)
        return server

    def ftp_url(self, server, path):
        return f"ftp://alice:{PASSWORD.replace(' ', '%20')}@127.0.0.1:{server.port}/{path}"

    def content_url(self, graph, path):
        return f"{graph}/v1.0/me/drive/root:/{path}:/content"

    def curl_direct(self, graph, path):
        return ["curl", "-sfL", "--cacert", str(self.ca), "-H", "Authorization: Bearer alice-token",
                "-o", "/dev/null", self.content_url(graph, path)]

    def download_address(self, graph, path):
        """The pre-authenticated address that Graph hands out for a file."""
        done = run("curl", "-sf", "--cacert", str(self.ca), "-H", "Authorization: Bearer alice-token",
                   "-o", "/dev/null", "-w", "%{redirect_url}", self.content_url(graph, path), text=True)
        return done.stdout

    def relay(self, target):
        """A bare byte relay to the Graph service; returns its port."""
        port = free_port()
        process = subprocess.Popen(["socat", "-b", "262144",
                                    f"TCP-LISTEN:{port},bind=127.0.0.1,fork,reuseaddr", target])
        self.stack.callback(process.kill)
        harness.wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, "socat")
        return port

    def rclone(self):
        """rclone's configuration and the command prefix under which it finds the Graph service."""
        drive = json.loads(run("curl", "-sf", "-H", "Authorization: Bearer alice-token",
                               self.http.url + "/v1.0/me/drive").stdout)
        token = json.dumps({"access_token": "alice-token", "token_type": "Bearer",
                            "refresh_token": "none", "expiry": FAR})
        config = self.folder / "rclone.conf"
        config.write_text(f"[od]\ntype = onedrive\ntoken = {token}\ndrive_id = {drive['id']}\n"
                          "drive_type = business\n")
        hosts = self.folder / "hosts"
        hosts.write_text("127.0.0.1 localhost graph.microsoft.com\n")
        return ["unshare", "-m", "sh", "-c", f"mount --bind {hosts} /etc/hosts && exec \"$@\"", "sh",
                "rclone", "--config", str(config), "--ca-cert", str(self.ca)]

    def rclone_webdav(self, *options):
        port = free_port()
        log = open(self.folder / "webdav.log", "a", encoding="utf-8")
        process = subprocess.Popen([*self.rclone(), "serve", "webdav", "od:", "--addr",
                                    f"127.0.0.1:{port}", "--poll-interval", "0", *options], stdout=log, stderr=log)
        self.stack.callback(process.wait)
        self.stack.callback(process.terminate)
        harness.wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, "rclone webdav")
        return process.pid, f"http://127.0.0.1:{port}/"

    def rclone_mount_vsftpd(self, name, options, *settings):
        """rclone mounts the drive, and vsftpd serves the mount: both in one mount namespace."""
        folder = self.folder / name
        mount, empty = folder / "mount", folder / "empty"
        mount.mkdir(parents=True)
        empty.mkdir()
        folder.chmod(0o755)
        port = free_port()
        config = folder / "vsftpd.conf"
        more = "\n".join(settings)
        config.write_text(f"""listen=YES
listen_address=127.0.0.1
listen_port={port}
background=NO
anonymous_enable=YES
no_anon_password=YES
anon_root={mount}
run_as_launching_user=YES
secure_chroot_dir={empty}
seccomp_sandbox=NO
isolate_network=NO
isolate=NO
anon_world_readable_only=NO
allow_writeable_chroot=YES
{more}
""")
        prefix = self.rclone()
        rclone = " ".join(f"'{word}'" for word in prefix[prefix.index("rclone"):])
        script = (f"mount --bind {self.folder}/hosts /etc/hosts; "
                  f"{rclone} mount od: {mount} {options} --poll-interval 0 --daemon --daemon-wait 20s --allow-other && "
                  f"exec vsftpd {config}")
        log = open(folder / "vsftpd.log", "w", encoding="utf-8")
        process = subprocess.Popen(["unshare", "-m", "sh", "-c", script], stdout=log, stderr=log)
        self.stack.callback(lambda: subprocess.run(["pkill", "-f", str(mount)], check=False))
        self.stack.callback(process.kill)
        harness.wait_for(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0 or process.poll(),
                         "vsftpd")
        if process.poll() is not None:
            raise RuntimeError("no rclone mount: " + (folder / "vsftpd.log").read_text())
        return f"ftp://anonymous:x@127.0.0.1:{port}/"

    # -- measuring ------------------------------------------------------------------------------

    def rounds_of(self, ways):
        """Runs every way once a round; returns name -> list of Timed."""
        results = {name: [] for name in ways}
        for name, action in ways.items():
            action()  # warm up: connections, caches, the other side's first listing
        for _ in range(self.rounds):
            for name, action in ways.items():
                results[name].append(action())
        return results

    def row(self, what, ours, other, results, unit="wall", aim=""):
        mine = [getattr(timed, unit) for timed in results[ours]]
        theirs = [getattr(timed, unit) for timed in results[other]]
        ratio = statistics.median(a / b for a, b in zip(mine, theirs))
        self.rows.append((what, f"{statistics.median(mine):.3f} s", other,
                          f"{statistics.median(theirs):.3f} s", f"{ratio:.2f}", aim))

    def rate_row(self, what, ours, other, results, count, requests, aim=""):
        """As row(), for `count` small things: how many a second, and the requests for each."""
        def shown(name):
            wall = statistics.median(timed.wall for timed in results[name])
            return f"{count / wall:.0f}/s, {requests[name] / count:.2f} requests each"
        ratio = statistics.median(a.wall / b.wall for a, b in zip(results[ours], results[other]))
        self.rows.append((what, shown(ours), other, shown(other), f"{ratio:.2f}", aim))

    def fact(self, what, value, aim=""):
        self.rows.append((what, value, "", "", "", aim))

    @contextlib.contextmanager
    def session(self, server):
        ftp = ftplib.FTP(encoding="utf-8")
        ftp.connect("127.0.0.1", server.port, timeout=600)
        ftp.login("alice", PASSWORD)
        yield ftp
        ftp.quit()

    def retrieve_timed(self, server, path):
        """One RETR in a session of its own, with the processor time that it costs the process."""
        with self.session(server) as ftp:
            process = children(server.process.pid)[-1]
            ftp.voidcmd("TYPE I")
            before = processor_seconds(process)
            start = time.monotonic()
            with contextlib.closing(ftp.transfercmd("RETR " + path)) as data:
                buffer = bytearray(1 << 18)
                while data.recv_into(buffer):
                    pass
            ftp.voidresp()
            return Timed(time.monotonic() - start, processor_seconds(process) - before)

    def curl_ftp(self, server, path):
        return ["curl", "-sf", "-o", "/dev/null", self.ftp_url(server, path)]

    def download(self, scheme, graph_url, server, relay_target):
        path = "1GiB.bin"
        address = self.download_address(graph_url, path)
        port = self.relay(relay_target)
        rest = address.split("//", 1)[1].split("/", 1)[1]
        ours = f"server, {scheme}"
        ways = {
            ours: lambda: timed_command(self.curl_ftp(server, path)),
            "curl directly": lambda: timed_command(self.curl_direct(graph_url, path)),
            "socat relay": lambda: timed_command(["curl", "-sf", "-o", "/dev/null",
                                                  f"http://127.0.0.1:{port}/{rest}"]),
            "session process": lambda: self.retrieve_timed(server, path),
        }
        if scheme == "https":
            pid, webdav = self.rclone_webdav("--read-only")

            def through_webdav():
                before = processor_seconds(pid)
                timed = timed_command(["curl", "-sf", "-o", "/dev/null", webdav + path])
                return Timed(timed.wall, processor_seconds(pid) - before)

            ways["rclone serve webdav"] = through_webdav
            mounted = self.rclone_mount_vsftpd("reading", "--read-only")
            ways["rclone mount + vsftpd"] = lambda: timed_command(
                ["curl", "-sf", "-o", "/dev/null", mounted + path])
        results = self.rounds_of(ways)
        what = f"1 GiB down, {scheme}"
        self.row(what, ours, "curl directly", results)
        self.row(what, ours, "socat relay", results, aim="<= 1")
        if scheme == "https":
            self.row(what, ours, "rclone serve webdav", results)
            self.row(what, ours, "rclone mount + vsftpd", results, aim="<= 0.33")
        self.row(f"{what}: processor", "session process", "curl directly", results, "processor")
        if scheme == "https":
            self.row(f"{what}: processor", "session process", "rclone serve webdav", results,
                     "processor", aim="<= 0.5")

    def measure_http(self):
        host = self.http.url.split("//", 1)[1]
        self.download("http", self.http.url, self.ours_http, f"TCP:{host}")

    def measure_https(self):
        self.download("https", self.https_url, self.ours_https,
                      f"OPENSSL:localhost:443,cafile={self.ca}")

    def measure_listing(self):
        pages, url = [], self.http.url + "/v1.0/me/drive/root:/many:/children?$top=300&$select=" + (
            "file,folder,id,name,size,fileSystemInfo,lastModifiedDateTime,deleted,parentReference,driveType")
        while url:
            pages.append(url)
            answer = json.loads(run("curl", "-sf", "-g", "-H", "Authorization: Bearer alice-token", url).stdout)
            url = answer.get("@odata.nextLink")
        raw = ["curl", "-sf", "-g", "-H", "Authorization: Bearer alice-token"]
        for page in pages:
            raw += ["-o", "/dev/null", page]

        with self.session(self.ours_http) as ftp:
            def list_through_server():
                # Counted, not taken apart: curl on the other side looks into nothing either.
                start = time.monotonic()
                lines = 0
                with contextlib.closing(ftp.transfercmd("MLSD /My files/many")) as data:
                    while block := data.recv(1 << 18):
                        lines += block.count(b"\n")
                ftp.voidresp()
                if lines < 5000:
                    raise RuntimeError(f"{lines} lines")
                return Timed(time.monotonic() - start)

            results = self.rounds_of({"server": list_through_server,
                                      "curl, raw pages": lambda: timed_command(raw)})
        self.row("list 5,000 items", "server", "curl, raw pages", results, aim="<= 1.3")

    def measure_small(self):
        names = [f"small/small-{n:03}.bin" for n in range(200)]
        direct = ["curl", "-sfL", "-H", "Authorization: Bearer alice-token"]
        for name in names:
            direct += ["-o", "/dev/null", self.content_url(self.http.url, name)]

        # Not by curl, which sleeps a second before a data connection when the reply to EPSV is
        # there at once.
        def through_server():
            start = time.monotonic()
            with self.session(self.ours_http) as ftp:
                for name in names:
                    ftp.retrbinary("RETR " + name, lambda block: None)
            return Timed(time.monotonic() - start)

        results = self.rounds_of({"server": through_server,
                                  "curl directly": lambda: timed_command(direct)})
        self.row("200 files of 10 KiB", "server", "curl directly", results, aim="<= 4")

    def measure_start(self):
        times = []
        for _ in range(max(self.rounds, 5)):
            start = time.monotonic()
            with self.session(self.ours_http) as ftp:
                ftp.retrlines("MLSD", lambda line: None)
                times.append(time.monotonic() - start)
        self.fact("connect to first listing", f"{statistics.median(times) * 1000:.0f} ms")

    def measure_memory(self):
        samples, received = [], 0
        with self.session(self.ours_https) as ftp:
            process = children(self.ours_https.process.pid)[-1]
            ftp.voidcmd("TYPE I")
            with contextlib.closing(ftp.transfercmd("RETR 4GiB.bin")) as data:
                buffer = bytearray(1 << 20)
                while count := data.recv_into(buffer):
                    received += count
                    if received // (64 << 20) > len(samples):
                        samples.append(pss_kib(process))
            ftp.voidresp()
        if received != 4 * GIB:
            raise RuntimeError(f"{received} bytes")
        self.fact("session sending 4 GiB over https, PSS: highest (first, last sample)",
                  f"{max(samples) / 1024:.1f} MiB ({samples[0] / 1024:.1f}, {samples[-1] / 1024:.1f})",
                  "< 24 MiB")
        with contextlib.ExitStack() as idle:
            for _ in range(100):
                idle.enter_context(self.session(self.ours_http))
            pids = children(self.ours_http.process.pid)
            total = sum(pss_kib(pid) for pid in pids)
        self.fact("100 idle sessions, PSS", f"{total / 1024:.0f} MiB, {total / len(pids) / 1024:.2f} each")

    def table(self):
        header = ("what", "server", "against", "", "ratio", "aim")
        rows = [header, *self.rows]
        widths = [max(len(row[column]) for row in rows) for column in range(len(header))]
        for row in rows:
            print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
