#!/usr/bin/env python3
# End-to-end tests of the demo server with real clients.
#
# Usage: e2e_nvq_httpd.py NVQ_HTTPD SITE_DIR GROUP [EMULATOR [ARG...]]
# GROUP is one of the keys of GROUPS below. A cross-compiled NVQ_HTTPD is
# started through EMULATOR (with its arguments); the clients run natively.
# Exit status 0 passed, 1 failed, 77 skipped (ctest's SKIP_RETURN_CODE).

import base64, glob, gzip, hashlib, http.client, os, pathlib, re, resource, shutil, signal, socket, ssl, subprocess
import sys, tempfile, threading, time, unittest

SKIPPED = 77
NVQ_HTTPD = SITE_DIR = None
EMULATOR = []
FILES_DIR = pathlib.Path(__file__).resolve().parent / "files"
LOG_LINE = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d - "


# nvq-httpd on a free port, serving a copy of the sample site plus test files.
class Server:
    def __init__(self, extra_files=None, flags=()):
        self.root = tempfile.mkdtemp(prefix="nvq-e2e-")
        shutil.copytree(SITE_DIR, self.root, dirs_exist_ok=True)
        for name, data in (extra_files or {}).items():
            pathlib.Path(self.root, name).write_bytes(data)
        self.process = subprocess.Popen(
            EMULATOR + [NVQ_HTTPD, "--port", "0", "--root", self.root, "--log-level", "4", *flags],
            stderr=subprocess.PIPE, text=True)
        ports = {}
        for line in self.process.stderr:  # up to the ports, or the end of a server that failed
            ports.update(re.findall(r"(https?)://localhost:(\d+)/", line))
            if len(ports) == 1 + ("--tls-port" in flags):
                break
        self.port, self.tls_port = (int(ports[k]) if k in ports else None for k in ("http", "https"))
        if self.port is None:
            self.process.kill()
            raise RuntimeError("nvq-httpd did not report its port")
        # A server blocked on a full log pipe would look hung.
        self.log = []
        self.reader = threading.Thread(target=lambda: self.log.extend(self.process.stderr), daemon=True)
        self.reader.start()

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.port, path)

    def stop(self, sig=signal.SIGTERM, timeout=10):
        self.process.send_signal(sig)  # nothing if it has exited
        try:
            code = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            code = self.process.kill()
        self.reader.join(5)
        shutil.rmtree(self.root, ignore_errors=True)
        return code


def curl(*args, seconds=30):
    return subprocess.run(["curl", "--silent", "--show-error", "--max-time", str(seconds), *args],
                          capture_output=True, check=False)


def status(*args):
    return curl("--output", "/dev/null", "--write-out", "%{http_code}", *args).stdout.decode()


def connect(port):
    return http.client.HTTPConnection("127.0.0.1", port, timeout=30)


def get(connection, path, **headers):
    # One request on the connection: (status, body, response).
    connection.request("GET", path, headers=headers)
    response = connection.getresponse()
    return response.status, response.read(), response


def wait_until(condition, seconds=10):
    deadline = time.time() + seconds
    while not condition() and time.time() < deadline:
        time.sleep(0.05)


def digest(data):  # a failure shows two short lines, not megabytes
    return hashlib.sha256(data).hexdigest()


BIG = os.urandom(5 * 1024 * 1024 + 123)
SMALL = b"small file\n"


# One server per test, started with the class's files and flags, that must exit cleanly.
class ServerCase(unittest.TestCase):
    FILES, FLAGS = {"big.bin": BIG, "small.txt": SMALL}, []

    def setUp(self):
        self.server = Server(self.FILES, self.FLAGS)

    def tearDown(self):
        self.assertEqual(0, self.server.stop())


class CurlTest(ServerCase):
    def test_files_arrive_whole_and_a_missing_one_is_404(self):
        self.assertEqual(SMALL, curl(self.server.url("/small.txt")).stdout)
        self.assertEqual(digest(BIG), digest(curl(self.server.url("/big.bin")).stdout))
        self.assertEqual("404", status(self.server.url("/missing.html")))

    def test_log_endpoint_with_parameters(self):
        curl(*[self.server.url("/small.txt")] * 3)
        lines = curl(self.server.url("/proxy/log?count=2")).stdout.decode().splitlines()
        self.assertEqual([True, True], [re.match(LOG_LINE, line) is not None for line in lines], lines)
        bad = curl("--write-out", "\n%{http_code}", self.server.url("/proxy/log?count=abc")).stdout.decode()
        self.assertTrue(bad.endswith("\n400"), bad)
        self.assertIn("Invalid 'count' specified: abc", bad)


class HttpClientTest(ServerCase):
    def test_kept_alive_across_requests_until_a_streamed_answer_ends_with_the_close(self):
        connection = connect(self.server.port)
        connection.connect()
        first_socket = connection.sock
        for path, expected in [("/small.txt", (200, SMALL)), ("/index.html", (200,)), ("/missing", (404,)),
                               ("/small.txt", (200, SMALL))]:
            self.assertEqual(expected, get(connection, path)[:len(expected)], path)
            self.assertIs(first_socket, connection.sock, "the connection was not kept alive")
        code, body, response = get(connection, "/big.bin")
        self.assertEqual((200, digest(BIG), str(len(BIG))),
                         (code, digest(body), response.getheader("Content-Length").strip()))
        connection.sock.settimeout(5)
        self.assertEqual(b"", connection.sock.recv(1))


GET_MISSING = b"GET /missing HTTP/1.1\r\nHost: x\r\n\r\n"


def read_answer(sock, to_close=False):
    # One answer: its head and Content-Length bytes, or everything up to the close.
    data, piece = b"", b"-"
    while piece:
        head, found, body = data.partition(b"\r\n\r\n")
        length = re.search(rb"Content-Length: *(\d+)", head)
        if found and not to_close and len(body) >= int(length.group(1) if length else 0):
            break
        piece = sock.recv(65536)
        data += piece
    return data


def hold_many(test, count, connect):
    # count connections made by connect(), closed when the test ends.
    limits = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (limits[1], limits[1]))
    test.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, limits)
    held = []
    test.addCleanup(lambda: [connection.close() for connection in held])
    held.extend(connect() for _ in range(count))
    return held


class CapTest(unittest.TestCase):
    # At the default cap of 10,000 connections, held idle by one client.
    def test_the_longest_idle_connection_makes_room_for_a_newcomer(self):
        server = Server()
        self.addCleanup(server.stop, signal.SIGKILL, 1)
        dial = lambda: socket.create_connection(("127.0.0.1", server.port), timeout=30)
        # The first connection is idle well before all others, so no clock
        # tick shared between loops can make another one look older.
        first = hold_many(self, 1, dial)[0]
        first.sendall(GET_MISSING)
        self.assertTrue(read_answer(first).startswith(b"HTTP/1.1 404"))
        time.sleep(0.2)
        held = hold_many(self, 9999, dial)
        # Every connection answered is one the server has taken in.
        for connection in held:
            connection.sendall(GET_MISSING)
        self.assertEqual([], [c for c in held if not read_answer(c).startswith(b"HTTP/1.1 404")])
        self.assertEqual(200, get(connect(server.port), "/index.html")[0])
        first.settimeout(10)
        self.assertEqual(b"", first.recv(1), "the connection idle longest was closed")
        self.assertEqual(0, server.stop())


# A minimal RFC 6455 client of the test's own: masked frames out, frames in as they come.
class WsClient:
    def __init__(self, port, path="/ws/echo", headers="Sec-WebSocket-Version: 13\r\n", context=None):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=20)
        if context is not None:  # wss://
            self.sock = context.wrap_socket(self.sock, server_hostname="localhost")
        self.buffer, key = b"", base64.b64encode(os.urandom(16))
        self.send(b"GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                  b"Sec-WebSocket-Key: %s\r\n%s\r\n" % (path.encode(), key, headers.encode()))
        while b"\r\n\r\n" not in self.buffer and self.more():
            pass
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        self.head = head.decode("latin-1")
        self.accept = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest()).decode()

    def more(self):
        piece = self.sock.recv(1 << 20)
        self.buffer += piece
        return piece != b""

    @staticmethod
    def frame(opcode, payload=b"", fin=True, mask=True, rsv=0):
        size = len(payload)
        wide = 0 if size < 126 else 2 if size < 65536 else 8
        head = bytes([(0x80 if fin else 0) | rsv | opcode, (0x80 if mask else 0) | {0: size, 2: 126, 8: 127}[wide]])
        key = os.urandom(4) if mask else b""
        if mask:
            whole = int.from_bytes((key * (size // 4 + 1))[:size], "big")
            payload = (int.from_bytes(payload, "big") ^ whole).to_bytes(size, "big")
        return head + (size.to_bytes(wide, "big") if wide else b"") + key + payload

    def send(self, data):
        self.sock.sendall(data)

    def close(self):
        self.sock.close()

    def read(self, count):
        while len(self.buffer) < count:
            if not self.more():
                raise EOFError("closed")
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def receive(self):
        # The next frame: (fin, opcode, payload).
        b0, b1 = self.read(2)
        self.assert_unmasked = not b1 & 0x80
        wide = {126: 2, 127: 8}.get(b1 & 0x7F)
        size = int.from_bytes(self.read(wide), "big") if wide else b1 & 0x7F
        return bool(b0 & 0x80), b0 & 0x0F, self.read(size)

    def closed_by_server(self):
        try:
            self.sock.settimeout(10)
            return self.buffer == b"" and self.sock.recv(1) == b""
        except ConnectionResetError:
            return True


def close_code(payload):
    return int.from_bytes(payload[:2], "big") if len(payload) >= 2 else None


class WebSocketTest(ServerCase):
    FILES, FLAGS = {}, ["--ws-echo"]

    def open(self):
        client = WsClient(self.server.port)
        self.assertTrue(client.head.startswith("HTTP/1.1 101 Switching Protocols"), client.head)
        self.assertIn("Sec-WebSocket-Accept: " + client.accept, client.head)
        return client

    def test_handshake_answers(self):
        cases = [  # name, extra header lines, status, line the answer must carry, line it must not
            ("version 8", "Sec-WebSocket-Version: 8\r\n", "426", "Sec-WebSocket-Version: 13", None),
            ("no version", "X: y\r\n", "426", "Sec-WebSocket-Version: 13", None),
            ("compression declined", "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Extensions: permessage-deflate\r\n",
             "101", "Upgrade: websocket", "Sec-WebSocket-Extensions"),
        ]
        for name, headers, status, present, absent in cases:
            with self.subTest(name):
                head = WsClient(self.server.port, headers=headers).head
                self.assertTrue(head.startswith("HTTP/1.1 " + status), head)
                self.assertIn(present, head)
                self.assertNotIn(absent or "\0", head)
        self.assertEqual(426, get(connect(self.server.port), "/ws/echo")[0])

    def test_echo_text_and_binary_up_to_one_mebibyte(self):
        client = self.open()
        for size in (0, 1, 125, 126, 65535, 65536, 1 << 20):
            for opcode in (1, 2):
                payload = (b"a" * size) if opcode == 1 else os.urandom(size)
                client.send(WsClient.frame(opcode, payload))
                self.assertEqual((True, opcode, payload), client.receive(), "size %d" % size)
                self.assertTrue(client.assert_unmasked)

    def test_fragments_with_pings_between_them(self):
        client = self.open()
        text = "grüße, ".encode() * 300
        client.send(WsClient.frame(1, text[:1], fin=False))  # the cut splits a character
        client.send(WsClient.frame(9, b"one"))
        client.send(WsClient.frame(0, text[1:700], fin=False) + WsClient.frame(9, b"two"))
        client.send(WsClient.frame(0, text[700:]))
        self.assertEqual([(True, 10, b"one"), (True, 10, b"two"), (True, 1, text)], [client.receive() for _ in "123"])

    def test_server_closes_on_stop_and_waits_for_the_answer(self):
        client = self.open()
        self.server.process.send_signal(signal.SIGTERM)
        fin, opcode, payload = client.receive()
        self.assertEqual((8, 1001), (opcode, close_code(payload)))
        client.send(WsClient.frame(8, payload[:2]))
        self.assertTrue(client.closed_by_server())

    def test_closes_and_protocol_errors_answered_with_their_code(self):
        big = 1 << 20
        # One row per close code, at the default limits; every fault the
        # parser refuses is in its own table.
        cases = [  # name, bytes after the handshake, close code
            ("client closes", WsClient.frame(8, (1000).to_bytes(2, "big") + b"bye"), 1000),
            ("unmasked frame", WsClient.frame(1, b"hi", mask=False), 1002),
            ("reserved opcode", WsClient.frame(3, b"hi"), 1002),
            ("close code 999", WsClient.frame(8, (999).to_bytes(2, "big")), 1002),
            ("surrogate across fragments", WsClient.frame(1, b"\xed", fin=False) + WsClient.frame(0, b"\xa0\x80"),
             1007),
            ("frame over the limit", WsClient.frame(2, b"x" * (big + 1)), 1009),
            ("message over the limit", WsClient.frame(2, b"x" * big, fin=False) + WsClient.frame(0, b"x"), 1009),
        ]
        for name, wire, code in cases:
            with self.subTest(name):
                client = self.open()
                try:
                    client.send(wire)
                except (BrokenPipeError, ConnectionResetError):
                    pass  # the server may close before the rest of a long frame is sent
                fin, opcode, payload = client.receive()
                self.assertEqual((8, code), (opcode, close_code(payload)))
                self.assertTrue(client.closed_by_server())


def process_status(pid, field):
    return int(re.search(field + r":\s+(\d+)", pathlib.Path("/proc/%d/status" % pid).read_text()).group(1))


class WsIdleTest(unittest.TestCase):
    # 10,000 idle WebSockets (the default connection cap) cost bounded memory and no thread each.
    def test_ten_thousand_idle_websockets(self):
        server = Server(flags=["--ws-echo"])
        self.addCleanup(server.stop, signal.SIGKILL, 1)
        connect = lambda: WsClient(server.port)
        warm = hold_many(self, 1, connect)[0]  # the first session's one-time costs out of the figure
        warm.send(WsClient.frame(1, b"warm"))
        warm.receive()
        time.sleep(0.2)
        before = process_status(server.process.pid, "VmRSS")
        held = hold_many(self, 9999, connect)
        self.assertEqual([], [client.head for client in held if not client.head.startswith("HTTP/1.1 101")])
        time.sleep(0.5)
        per = (process_status(server.process.pid, "VmRSS") - before) * 1024 / 10000
        threads = process_status(server.process.pid, "Threads")
        print("idle WebSockets: 10000, RSS per connection %.0f bytes, %d threads" % (per, threads))
        self.assertLessEqual(threads, 8)
        self.assertLess(per, 32 * 1024)  # 4 KiB is the goal without sanitizers
        for client in held[::1000]:
            client.send(WsClient.frame(1, b"still here"))
            self.assertEqual((True, 1, b"still here"), client.receive())
        self.assertEqual(0, server.stop())


def find_chromium():
    return next(filter(None, map(shutil.which, ("chromium", "chromium-browser", "google-chrome"))), None)


def chromium(profile, *flags):
    return [find_chromium(), "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
            "--disable-background-networking", "--disable-component-update", "--disable-sync",
            "--disable-dev-shm-usage", "--user-data-dir=" + profile, *flags]


def dump_dom(url, *flags):
    with tempfile.TemporaryDirectory(prefix="nvq-chromium-", ignore_cleanup_errors=True) as profile:
        return subprocess.run(chromium(profile, "--virtual-time-budget=5000", *flags, "--dump-dom", url),
                              capture_output=True, text=True, timeout=120).stdout


def assert_sample_page(test, dom):
    for line in ("script: ran", "stylesheet: applied", "image: loaded 96px"):
        test.assertIn(line, dom)


class ChromiumTest(ServerCase):
    # Opens the sample log page in a frame, waits for its first lines, then
    # opens a connection (which the server logs) and notes how long the page
    # takes to show that message, and whether the page ever polled /proxy/log.
    FILES = {"live-probe.html": (FILES_DIR / "live-probe.html").read_bytes()}

    def test_index_page_loads_stylesheet_script_and_image(self):
        assert_sample_page(self, dump_dom(self.server.url("/index.html")))

    def snapshot(self, path, pattern):
        # The log streams in over a WebSocket, which Chromium's virtual time
        # does not wait for: a slow (emulated, busy) server may miss a snapshot.
        doms = (dump_dom(self.server.url(path)) for _ in range(5))
        return next((dom for dom in doms if re.search(pattern, dom)), "no snapshot showed " + pattern)

    def test_log_page_shows_log_lines(self):
        dom = self.snapshot("/log.html", LOG_LINE)
        self.assertRegex(dom, LOG_LINE)
        self.assertIn("create connection point", dom)

    def test_log_page_shows_a_new_message_at_once_without_polling(self):
        seen = r"seen after (\d+) ms, (\d+) polls"
        match = re.search(seen, self.snapshot("/live-probe.html", seen))
        self.assertIsNotNone(match)
        print(match.group(0))
        # Pushed, not polled; how fast is the benchmark's business.
        self.assertEqual("0", match.group(2))


# A page that needs what --web brings: a module script (refused without a
# JavaScript type), WebAssembly through instantiateStreaming (refused without
# application/wasm) and a web font.
# The module: magic and version; type () -> i32; one function of it; exported
# as "answer"; its body i32.const 42.
WASM_ANSWER = bytes.fromhex("0061736d01000000" "0105016000017f" "03020100" "070a0106616e737765720000"
                            "0a06010400412a0b")
WEB_FILES = {"web.html": (FILES_DIR / "web.html").read_bytes(), "web.mjs": (FILES_DIR / "web.mjs").read_bytes(),
             "answer.wasm": WASM_ANSWER, "big.bin": BIG, "small.txt": SMALL, "small.txt.gz": gzip.compress(SMALL)}
WEB_WORKS = "wasm 42, font loaded"


# nvq-httpd --web with curl and http.client.
class WebTest(ServerCase):
    FILES, FLAGS = WEB_FILES, ["--web"]

    def test_curl_ranges_resume_compressed_and_head(self):
        url = self.server.url("/big.bin")
        self.assertEqual(BIG[1000:2001], curl("-r", "1000-2000", url).stdout)
        self.assertEqual(BIG[-300:], curl("-r", "-300", url).stdout)
        partial = pathlib.Path(self.server.root, "partial")
        partial.write_bytes(BIG[:1234567])
        self.assertEqual(0, curl("-C", "-", "-o", partial, url).returncode)
        self.assertEqual(digest(BIG), digest(partial.read_bytes()))
        compressed = curl("--compressed", "--include", self.server.url("/small.txt")).stdout
        self.assertIn(b"Content-Encoding: gzip", compressed)
        self.assertTrue(compressed.endswith(b"\r\n\r\n" + SMALL))
        head = curl("-I", url).stdout
        self.assertTrue(head.startswith(b"HTTP/1.1 200 OK"))
        self.assertIn(b"Content-Length: %d\r\n" % len(BIG), head)

    def test_conditional_get_and_large_files_on_one_connection(self):
        connection = connect(self.server.port)
        response = get(connection, "/small.txt")[2]
        tag, modified = response.getheader("ETag"), response.getheader("Last-Modified")
        for field, value in (("If-None-Match", tag), ("If-Modified-Since", modified)):
            self.assertEqual((304, b""), get(connection, "/small.txt", **{field: value})[:2], field)
        pathlib.Path(self.server.root, "small.txt").write_bytes(b"changed\n")
        self.assertEqual((200, b"changed\n"), get(connection, "/small.txt", **{"If-None-Match": tag})[:2])
        first_socket = connection.sock
        for _ in range(3):
            self.assertEqual(digest(BIG), digest(get(connection, "/big.bin")[1]))
            self.assertIs(first_socket, connection.sock, "the connection was not kept after a large file")


def start_nginx(test, upstream_port):
    # nginx in front of upstream_port, with a keep-alive pool, in the
    # configuration the README shows around the test's own paths; its port.
    directory = test.enterContext(tempfile.TemporaryDirectory(prefix="nvq-nginx-", ignore_cleanup_errors=True))
    probe = socket.create_server(("127.0.0.1", 0))
    port = probe.getsockname()[1]
    probe.close()
    conf = (FILES_DIR / "nginx.conf").read_text().replace("{dir}", directory).replace("{port}", str(port))
    pathlib.Path(directory, "nginx.conf").write_text(conf.replace("{upstream}", str(upstream_port)))
    process = subprocess.Popen(["/usr/sbin/nginx", "-p", directory + "/", "-c", directory + "/nginx.conf",
                                "-e", directory + "/error.log", "-g", "daemon off;"])
    test.addCleanup(process.wait, 10)
    test.addCleanup(process.send_signal, signal.SIGQUIT)
    wait_until(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0)
    return port


def web_page_server(test, flags):
    # A server of the page that needs --web, with a font to load; its port.
    fonts = sorted(glob.glob("/usr/share/fonts/truetype/*/*.ttf"))
    server = Server(dict(WEB_FILES, **{"font.ttf": pathlib.Path(fonts[0]).read_bytes()}), flags)
    test.addCleanup(lambda: test.assertEqual(0, server.stop()))
    return server.port


def web_page(port):
    return re.sub(r"\s+", " ", dump_dom("http://127.0.0.1:%d/web.html" % port))


class WebChromiumTest(unittest.TestCase):
    def test_page_needs_web(self):
        self.assertNotIn(WEB_WORKS, web_page(web_page_server(self, [])))
        self.assertIn(WEB_WORKS, web_page(web_page_server(self, ["--web"])))


class WebNginxTest(unittest.TestCase):
    def test_sample_site_and_page_behind_nginx(self):
        port = start_nginx(self, web_page_server(self, ["--web"]))
        url = "http://127.0.0.1:%d/big.bin" % port
        self.assertTrue(curl(url, url).stdout == BIG + BIG)
        self.assertEqual(BIG[5:10], curl("-r", "5-9", url).stdout)
        assert_sample_page(self, dump_dom("http://127.0.0.1:%d/index.html" % port))
        self.assertIn(WEB_WORKS, web_page(port))


class SigtermTest(unittest.TestCase):
    def test_clean_exit_while_a_client_downloads(self):
        server = Server({"huge.bin": b"h" * (64 * 1024 * 1024)})
        client = socket.create_connection(("127.0.0.1", server.port))
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.sendall(b"GET /huge.bin HTTP/1.1\r\nHost: x\r\n\r\n")
        self.assertTrue(client.recv(4096).startswith(b"HTTP/1.1 200 OK"))
        time.sleep(0.3)  # the download is under way, held back by the slow reader
        started = time.time()
        self.assertEqual(0, server.stop(signal.SIGTERM, timeout=10))
        self.assertLess(time.time() - started, 5)

    def test_bad_flag_and_port_in_use_fail_in_one_line(self):
        run = lambda *flags: subprocess.run(EMULATOR + [NVQ_HTTPD, *flags], capture_output=True, text=True, timeout=10)
        result = run("--bogus")
        self.assertNotEqual(0, result.returncode)
        self.assertIn("unknown flag", result.stderr.splitlines()[0])
        with socket.create_server(("0.0.0.0", 0)) as taken:
            port = taken.getsockname()[1]
            result = run("--port", str(port), "--root", SITE_DIR)
        self.assertNotEqual(0, result.returncode)
        self.assertEqual(1, len(result.stderr.splitlines()), result.stderr)
        self.assertIn(str(port), result.stderr)


# HTTPS next to plain HTTP, with self-signed certificates for localhost, first and second, both trusted.
class TlsTest(ServerCase):
    def setUp(self):
        self.certs = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="nvq-e2e-tls-")))
        subprocess.run("for n in first second; do openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                       "-nodes -keyout $n.key -out $n.pem -subj /CN=$n -days 2 -addext "
                       "subjectAltName=DNS:localhost,IP:127.0.0.1 || exit 1; done; cat first.pem second.pem > ca.pem",
                       shell=True, cwd=self.certs, check=True, capture_output=True)
        self.ca = str(self.certs / "ca.pem")
        self.use("first")
        self.FLAGS = ["--tls-cert", self.certs / "cert.pem", "--tls-key", self.certs / "key.pem", "--tls-port", "0",
                      "--ws-echo"]
        super().setUp()
        self.context = ssl.create_default_context(cafile=self.ca)
        self.context.set_alpn_protocols(["h2", "http/1.1"])

    def use(self, name):
        shutil.copy(self.certs / (name + ".pem"), self.certs / "cert.pem")
        shutil.copy(self.certs / (name + ".key"), self.certs / "key.pem")

    def url(self, path):
        return "https://localhost:%d%s" % (self.server.tls_port, path)

    def connect(self):
        return http.client.HTTPSConnection("localhost", self.server.tls_port, timeout=30, context=self.context)

    def test_websocket_echo_over_tls(self):
        client = WsClient(self.server.tls_port, context=self.context)
        self.assertTrue(client.head.startswith("HTTP/1.1 101 Switching Protocols"), client.head)
        for payload in (b"", b"wss", os.urandom(100000)):
            client.send(WsClient.frame(2, payload))
            self.assertEqual((True, 2, payload), client.receive())

    def test_curl_with_the_test_ca(self):
        self.assertEqual(SMALL, curl("--cacert", self.ca, self.url("/small.txt")).stdout)
        self.assertEqual(digest(BIG), digest(curl("--cacert", self.ca, self.url("/big.bin")).stdout))
        self.assertEqual("404", status("--cacert", self.ca, self.url("/missing.html")))
        # Without the CA the certificate is refused; plain HTTP goes on beside.
        self.assertNotEqual(0, curl(self.url("/small.txt")).returncode)
        self.assertEqual(SMALL, curl(self.server.url("/small.txt")).stdout)

    def test_answers_over_tls_are_the_bytes_of_plain_http(self):
        plain = socket.create_connection(("127.0.0.1", self.server.port), timeout=30)
        secure = self.context.wrap_socket(socket.create_connection(("127.0.0.1", self.server.tls_port), timeout=30),
                                          server_hostname="localhost")
        self.assertEqual("http/1.1", secure.selected_alpn_protocol())
        cases = [("small file", "/small.txt", b"", False), ("kept alive", "/small.txt", b"", False),
                 ("request of several TLS records", "/small.txt", b"X-Pad: " + b"p" * 300000 + b"\r\n", False),
                 ("404 page", "/missing", b"", False), ("streamed file", "/big.bin", b"", True)]
        for name, path, extra, to_close in cases:
            request = b"GET " + path.encode() + b" HTTP/1.1\r\nHost: x\r\n" + extra + b"\r\n"
            plain.sendall(request)
            secure.sendall(request)
            expected = read_answer(plain, to_close)
            self.assertTrue(expected.startswith(b"HTTP/1.1 "), name)
            self.assertEqual(expected, read_answer(secure, to_close), name)
        self.assertTrue(expected.endswith(BIG))

    def test_sighup_renews_the_certificate_while_a_client_stays_connected(self):
        held = self.connect()
        self.assertEqual(SMALL, get(held, "/small.txt")[1])
        self.assertIn((("commonName", "first"),), held.sock.getpeercert()["subject"])
        self.use("second")
        self.server.process.send_signal(signal.SIGHUP)
        wait_until(lambda: any("certificate reloaded" in line for line in self.server.log))
        fresh = self.connect()
        self.assertEqual(SMALL, get(fresh, "/small.txt")[1])
        self.assertIn((("commonName", "second"),), fresh.sock.getpeercert()["subject"])
        # Reloads racing handshakes on the loops: every newcomer is served.
        answers = []
        clients = threading.Thread(target=lambda: answers.extend(get(self.connect(), "/small.txt")[1]
                                                                 for _ in range(20)))
        clients.start()
        for _ in range(10):
            self.server.process.send_signal(signal.SIGHUP)
            time.sleep(0.02)
        clients.join()
        self.assertEqual([SMALL] * 20, answers)
        self.assertEqual(SMALL, get(held, "/small.txt")[1])

    def test_chromium_loads_the_page_over_https(self):
        if find_chromium() is None:
            self.skipTest("Chromium is not installed")
        assert_sample_page(self, dump_dom(self.url("/index.html"), "--ignore-certificate-errors"))


GROUPS = {"curl": CurlTest, "http_client": HttpClientTest, "chromium": ChromiumTest, "sigterm": SigtermTest,
          "cap": CapTest, "web": WebTest, "web_chromium": WebChromiumTest, "web_nginx": WebNginxTest,
          "websocket": WebSocketTest, "wsidle": WsIdleTest, "tls": TlsTest}


def main():
    global NVQ_HTTPD, SITE_DIR, EMULATOR
    if len(sys.argv) < 4 or sys.argv[3] not in GROUPS:
        print("usage: e2e_nvq_httpd.py NVQ_HTTPD SITE_DIR {%s} [EMULATOR...]" % ",".join(GROUPS), file=sys.stderr)
        return 2
    NVQ_HTTPD, SITE_DIR, group, EMULATOR = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
    needs = [  # groups, what they need, the reason given when it is missing
        (("curl", "tls", "web", "web_chromium", "web_nginx"), lambda: shutil.which("curl"), "curl is not installed"),
        (("tls",), lambda: shutil.which("openssl"), "the openssl command is not installed"),
        (("chromium", "web_chromium", "web_nginx"), find_chromium, "Chromium is not installed"),
        (("web_chromium", "web_nginx"), lambda: glob.glob("/usr/share/fonts/truetype/*/*.ttf"),
         "no TrueType font to serve"),
        (("web_nginx",), lambda: os.access("/usr/sbin/nginx", os.X_OK), "nginx is not installed")]
    for groups, present, reason in needs:
        if group in groups and not present():
            print("SKIPPED: " + reason)
            return SKIPPED
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(GROUPS[group])
    return 0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
