"""The measurements of stores.

A store counts as done when the Graph service has the whole file, not when the client has its reply:
each way ends with asking the service until it says so.
"""

import contextlib
import http.client
import io
import json
import pathlib
import ssl
import tempfile
import threading
import time
import urllib.parse

import measuring as core

PART = 10 << 20
SMALL = 10240
FILES = 1000
BEARER = "Authorization: Bearer alice-token"


class Content:
    """Files to send, in memory: `size` bytes, and the parts that they have."""

    def __init__(self, stack, size):
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="tirval-bench-", dir="/dev/shm")))
        self.size = size
        self.whole = folder / "whole"
        self.part = folder / "part"
        self.rest = folder / "rest"
        part = bytes(n * 31 % 251 for n in range(1 << 16)) * (PART >> 16)
        self.part.write_bytes(part)
        self.rest.write_bytes(part[:size % PART])
        with open(self.whole, "wb") as whole:
            for start in range(0, size, PART):
                whole.write(part[:min(PART, size - start)])


class Target:
    """One Graph service, as one that is stored to."""

    def __init__(self, bench, url):
        self.bench = bench
        self.url = url
        parts = urllib.parse.urlsplit(url)
        if parts.scheme == "https":
            context = ssl.create_default_context(cafile=str(bench.ca))
            self.connection = http.client.HTTPSConnection(parts.netloc, context=context)
        else:
            self.connection = http.client.HTTPConnection(parts.netloc)
        self.number = 0

    def fresh_name(self):
        self.number += 1
        return f"up/file-{self.number}.bin"

    def size_of(self, name):
        """What the service holds of a file; None when there is none."""
        self.connection.request("GET", f"/v1.0/me/drive/root:/{name}?$select=size",
                                headers={"Authorization": "Bearer alice-token"})
        answer = self.connection.getresponse()
        text = answer.read()
        return json.loads(text)["size"] if answer.status == 200 else None

    def await_file(self, name, size):
        deadline = time.monotonic() + 120
        while self.size_of(name) != size:
            if time.monotonic() > deadline:
                raise RuntimeError(f"the service never had {name}")
            time.sleep(0.002)

    def remove(self, name):
        self.bench.control(self.url, "items", {"account": "alice", "path": "/" + name, "remove": True})

    def stored(self, size, action):
        """Times action(name) until the service has the file, and takes the file away again."""
        name = self.fresh_name()

        def act():
            action(name)
            self.await_file(name, size)

        timed = core.timed_action(act)
        self.remove(name)
        return timed

    def requests(self, action):
        """How many requests an action makes."""
        self.bench.control(self.url, "requests", {}, "DELETE")
        action()
        recorded = core.run("curl", "-sf", "--cacert", self.bench.ca, self.url + "/__sim/requests").stdout
        return len(json.loads(recorded)["requests"])


def send_parts(bench, url, content, name):
    """What curl alone can do: an upload session, and its parts over one connection."""
    created = core.run("curl", "-sf", "--cacert", bench.ca, "-H", BEARER, "-H", "Content-Type: application/json",
                       "-d", "{}", f"{url}/v1.0/me/drive/root:/{name}:/createUploadSession").stdout
    address = json.loads(created)["uploadUrl"]
    sections = []
    for start in range(0, content.size, PART):
        end = min(start + PART, content.size)
        source = content.part if end - start == PART else content.rest
        sections.append(f'url = "{address}"\nupload-file = "{source}"\noutput = "/dev/null"\nfail\n'
                        f'cacert = "{bench.ca}"\nheader = "Expect:"\n'
                        f'header = "Content-Range: bytes {start}-{end - 1}/{content.size}"\n')
    core.run("curl", "-s", "--fail-early", "--config", "-", input="next\n".join(sections).encode())


def curl_store(bench, server, content, name, announced):
    quote = ["-Q", f"ALLO {content.size}"] if announced else []
    core.run("curl", "-sf", *quote, "-T", content.whole, bench.ftp_url(server, name))


def send_whole(ftp, content, name, announced, times=1):
    """One STOR of the content, so many times over; the kernel moves it."""
    ftp.voidcmd("TYPE I")
    if announced:
        ftp.voidcmd(f"ALLO {content.size * times}")
    with contextlib.closing(ftp.transfercmd("STOR " + name)) as data, open(content.whole, "rb") as source:
        for _ in range(times):
            data.sendfile(source, 0)
    ftp.voidresp()


def session_store(bench, server, target, content, announced):
    """A store in a session of its own, with the processor time that it costs the session's process."""
    with bench.session(server) as ftp:
        process = core.children(server.process.pid)[-1]
        before = core.processor_seconds(process)
        timed = target.stored(content.size, lambda name: send_whole(ftp, content, name, announced))
        return core.Timed(timed.wall, core.processor_seconds(process) - before)


def measure_upload(bench):
    with contextlib.ExitStack() as stack:
        content = Content(stack, core.GIB)
        upload(bench, content, "http", bench.http.url, bench.ours_http)
        upload(bench, content, "https", bench.https_url, bench.ours_https)


def upload(bench, content, scheme, url, server):
    target = Target(bench, url)

    def way(action):
        return lambda: target.stored(content.size, action)

    ways = {
        "announced": way(lambda name: curl_store(bench, server, content, name, True)),
        "not announced": way(lambda name: curl_store(bench, server, content, name, False)),
        "session process": lambda: session_store(bench, server, target, content, True),
        "curl directly": way(lambda name: send_parts(bench, url, content, name)),
    }
    rivals = []
    if scheme == "https":
        _, webdav = bench.rclone_webdav()
        mounted = bench.rclone_mount_vsftpd(
            "writing", "--vfs-cache-mode writes --vfs-write-back 0s", "write_enable=YES",
            "anon_upload_enable=YES", "anon_other_write_enable=YES", "anon_umask=022")
        rivals = ["rclone serve webdav", "rclone mount + vsftpd"]
        ways[rivals[0]] = way(lambda name: core.run("curl", "-sf", "-T", content.whole, webdav + name))
        ways[rivals[1]] = way(lambda name: core.run("curl", "-sf", "-T", content.whole, mounted + name))
    results = bench.rounds_of(ways)
    what = f"1 GiB up, {scheme}"
    bench.row(what + ", announced", "announced", "curl directly", results, aim="<= 2")
    for rival in rivals:
        bench.row(what + ", announced", "announced", rival, results, aim="<= 0.5 of the best")
    bench.row(what + ", not announced", "not announced", "curl directly", results)
    for rival in rivals:
        bench.row(what + ", not announced", "not announced", rival, results, aim="<= 1 of the best")
    bench.row(f"{what}: processor", "session process", "curl directly", results, "processor")


class Pace:
    """Lets a client send so many bytes a second, and never more to make up for a pause."""

    def __init__(self, bytes_per_second):
        self.bytes_per_second = bytes_per_second
        self.next = time.monotonic()

    def wait_for(self, count):
        time.sleep(max(0.0, self.next - time.monotonic()))
        self.next = max(self.next, time.monotonic() - 0.005) + count / self.bytes_per_second


def measure_delay(bench):
    """The service takes 200 ms over each part's answer, and the client as long to send one.

    Whoever receives the next part during the wait can be done after the first part's receipt and,
    for each part, what sending it and waiting takes: just what curl takes that has all parts at
    hand.  Whoever does not takes the receipt of every part longer.
    """
    wait, block = 0.2, 256 << 10
    url = bench.http.url
    with contextlib.ExitStack() as stack:
        content = Content(stack, 25 * PART)
        target = Target(bench, url)
        bench.control(url, "faults", {"match": {"kind": "fragment"}, "action": {"delay_ms": int(wait * 1000)}})
        stack.callback(lambda: bench.control(url, "faults", {}, "DELETE"))

        def paced(name):
            pace = Pace(PART / wait)
            with bench.session(bench.ours_http) as ftp:
                ftp.voidcmd("TYPE I")
                ftp.voidcmd(f"ALLO {content.size}")
                with contextlib.closing(ftp.transfercmd("STOR " + name)) as data, open(content.whole, "rb") as source:
                    while piece := source.read(block):
                        pace.wait_for(len(piece))
                        data.sendall(piece)
                ftp.voidresp()

        def reachable():
            timed = target.stored(content.size, lambda name: send_parts(bench, url, content, name))
            return core.Timed(timed.wall + wait)

        results = bench.rounds_of({"server": lambda: target.stored(content.size, paced),
                                   "what can be reached": reachable})
    bench.row("25 parts up, 200 ms for each answer", "server", "what can be reached", results, aim="<= 1.25")


def measure_small(bench):
    url, server = bench.http.url, bench.ours_http
    target = Target(bench, url)
    content = b"s" * SMALL
    with contextlib.ExitStack() as stack:
        source = Content(stack, SMALL).whole

        def curl_all(lines):
            section = f'cacert = "{bench.ca}"\nheader = "{BEARER}"\noutput = "/dev/null"\nfail\nlocation\n'
            core.run("curl", "-s", "--fail-early", "--config", "-",
                     input="next\n".join(section + line for line in lines).encode())

        def names():
            folder = target.fresh_name()[:-len(".bin")]
            bench.control(url, "items", {"account": "alice", "path": "/" + folder, "item": {"folder": True}})
            return [f"{folder}/s-{n:04}.bin" for n in range(FILES)]

        def store_all(announced, chosen):
            with bench.session(server) as ftp:
                ftp.voidcmd("TYPE I")
                for name in chosen:
                    if announced:
                        ftp.voidcmd(f"ALLO {SMALL}")
                    ftp.storbinary("STOR " + name, io.BytesIO(content))

        def put_all(chosen):
            curl_all(f'url = "{bench.content_url(url, name)}"\nupload-file = "{source}"\n' for name in chosen)

        def up(action):
            def act():
                chosen = names()
                timed = core.timed_action(lambda: action(chosen))
                target.await_file(chosen[-1], SMALL)
                target.remove(chosen[0].rsplit("/", 1)[0])
                return timed
            return act

        existing = [f"thousand/f-{n:04}.bin" for n in range(1, FILES + 1)]

        def retrieve_all():
            with bench.session(server) as ftp:
                for name in existing:
                    ftp.retrbinary("RETR " + name, lambda block: None)

        def get_all():
            curl_all(f'url = "{bench.content_url(url, name)}"\n' for name in existing)

        ways = {
            "announced": up(lambda chosen: store_all(True, chosen)),
            "not announced": up(lambda chosen: store_all(False, chosen)),
            "curl, PUT": up(put_all),
            "down": lambda: core.timed_action(retrieve_all),
            "curl, GET": lambda: core.timed_action(get_all),
        }
        needed = {name: target.requests(action) for name, action in ways.items()}
        results = bench.rounds_of(ways)
    what = f"{FILES:,} files of 10 KiB"
    bench.rate_row(f"{what} up, announced", "announced", "curl, PUT", results, FILES, needed)
    bench.rate_row(f"{what} up, not announced", "not announced", "curl, PUT", results, FILES, needed)
    bench.rate_row(f"{what} down", "down", "curl, GET", results, FILES, needed)


@contextlib.contextmanager
def pss_samples(process):
    """A list that fills with the process's PSS until the end, in KiB."""
    samples, done = [], threading.Event()

    def sample():
        while not done.wait(0.05):
            samples.append(core.pss_kib(process))

    sampler = threading.Thread(target=sample)
    sampler.start()
    yield samples
    done.set()
    sampler.join()


def measure_memory(bench):
    server, url = bench.ours_https, bench.https_url
    target = Target(bench, url)
    with contextlib.ExitStack() as stack:
        content = Content(stack, core.GIB)
        for announced in (True, False):
            name = target.fresh_name()
            with bench.session(server) as ftp:
                process = core.children(server.process.pid)[-1]
                with pss_samples(process) as samples:
                    send_whole(ftp, content, name, announced, times=4)
                target.await_file(name, 4 * core.GIB)
                after = core.pss_kib(process)
            target.remove(name)
            bench.fact(f"session storing 4 GiB, {'announced' if announced else 'not announced'}, PSS: highest (afterwards)",
                       f"{max(samples) / 1024:.1f} MiB ({after / 1024:.1f})", "< 40 MiB")
