#!/usr/bin/env python3
"""End-to-end tests of the demo server with real clients.

Usage: e2e_nvq_httpd.py NVQ_HTTPD SITE_DIR GROUP [EMULATOR [ARG...]]
GROUP is one of: curl, http_client, chromium, sigterm, cap, tls. A cross-compiled
NVQ_HTTPD is started through EMULATOR (with its arguments); the clients run
natively.
Exit status 0 passed, 1 failed, 77 skipped (ctest's SKIP_RETURN_CODE).
"""

import hashlib
import http.client
import os
import re
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SKIPPED = 77
NVQ_HTTPD = SITE_DIR = None
EMULATOR = []


class Server:
    """nvq-httpd on a free port, serving a copy of the sample site plus test files."""

    def __init__(self, extra_files=None, args=()):
        self.root = tempfile.mkdtemp(prefix="nvq-e2e-")
        shutil.copytree(SITE_DIR, self.root, dirs_exist_ok=True)
        for name, data in (extra_files or {}).items():
            with open(os.path.join(self.root, name), "wb") as f:
                f.write(data)
        self.process = subprocess.Popen(
            EMULATOR + [NVQ_HTTPD, "--port", "0", "--root", self.root, "--log-level", "4"] + list(args),
            stderr=subprocess.PIPE, text=True)
        self.port = self.tls_port = None
        wants_tls = "--tls-port" in args
        deadline = time.time() + 10
        while (self.port is None or (wants_tls and self.tls_port is None)) and time.time() < deadline:
            line = self.process.stderr.readline()
            if not line:
                break
            match = re.search(r"(https?)://localhost:(\d+)/", line)
            if match and match.group(1) == "http":
                self.port = int(match.group(2))
            elif match:
                self.tls_port = int(match.group(2))
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
        if self.process.poll() is None:
            self.process.send_signal(sig)
        try:
            code = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            code = None
        self.reader.join(5)
        shutil.rmtree(self.root, ignore_errors=True)
        return code


def curl(*args):
    return subprocess.run(["curl", "--silent", "--show-error", "--max-time", "30"] + list(args),
                          capture_output=True, check=False)


BIG = os.urandom(5 * 1024 * 1024 + 123)
SMALL = b"small file\n"


class CurlTest(unittest.TestCase):
    def setUp(self):
        self.server = Server({"big.bin": BIG, "small.txt": SMALL})

    def tearDown(self):
        self.assertEqual(0, self.server.stop())

    def test_small_and_large_files_arrive_whole(self):
        self.assertEqual(SMALL, curl(self.server.url("/small.txt")).stdout)
        big = curl(self.server.url("/big.bin")).stdout
        self.assertEqual(hashlib.sha256(BIG).hexdigest(), hashlib.sha256(big).hexdigest())

    def test_missing_file_is_404(self):
        result = curl("--output", "/dev/null", "--write-out", "%{http_code}", self.server.url("/missing.html"))
        self.assertEqual(b"404", result.stdout)

    def test_log_endpoint_with_parameters(self):
        for _ in range(3):
            curl(self.server.url("/small.txt"))
        two = curl(self.server.url("/proxy/log?count=2")).stdout.decode()
        lines = two.splitlines()
        self.assertEqual(2, len(lines), two)
        for line in lines:
            self.assertRegex(line, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d - ")
        bad = curl("--write-out", "\n%{http_code}", self.server.url("/proxy/log?count=abc")).stdout.decode()
        self.assertTrue(bad.endswith("\n400"), bad)
        self.assertIn("Invalid 'count' specified: abc", bad)


class HttpClientTest(unittest.TestCase):
    def setUp(self):
        self.server = Server({"big.bin": BIG, "small.txt": SMALL})

    def tearDown(self):
        self.assertEqual(0, self.server.stop())

    def test_keep_alive_across_several_requests(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=10)
        connection.connect()
        first_socket = connection.sock
        for path in ["/small.txt", "/index.html", "/missing", "/small.txt"]:
            connection.request("GET", path)
            response = connection.getresponse()
            body = response.read()
            self.assertIn(response.status, (200, 404))
            if path == "/small.txt":
                self.assertEqual(SMALL, body)
            self.assertIs(first_socket, connection.sock, "the connection was not kept alive")
        connection.close()

    def test_streamed_answer_read_to_the_close(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=30)
        connection.request("GET", "/big.bin")
        response = connection.getresponse()
        self.assertEqual(200, response.status)
        self.assertEqual(str(len(BIG)), response.getheader("Content-Length").strip())
        self.assertEqual(BIG, response.read())
        # The server ends a streamed answer by closing the connection.
        connection.sock.settimeout(5)
        self.assertEqual(b"", connection.sock.recv(1) if connection.sock else b"")
        connection.close()


class CapTest(unittest.TestCase):
    """At the default cap of 10,000 connections, held idle by one client."""

    def answered(self, connection, send=True):
        if send:
            connection.sendall(b"GET /missing HTTP/1.1\r\nHost: x\r\n\r\n")
        answer = b""
        while b"\r\n\r\n" not in answer or len(answer) < answer.index(b"\r\n\r\n") + 4 + int(
                re.search(rb"Content-Length: *(\d+)", answer).group(1)):
            piece = connection.recv(4096)
            self.assertTrue(piece, "closed before answering")
            answer += piece
        self.assertTrue(answer.startswith(b"HTTP/1.1 404"), answer[:40])
        return connection

    def test_the_longest_idle_connection_makes_room_for_a_newcomer(self):
        import resource
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        server = Server()
        held = []
        try:
            # The first connection is idle well before all others, so no clock
            # tick shared between loops can make another one look older.
            held.append(self.answered(socket.create_connection(("127.0.0.1", server.port), timeout=30)))
            time.sleep(0.2)
            for _ in range(9999):
                held.append(socket.create_connection(("127.0.0.1", server.port), timeout=30))
            # Every connection answered is one the server has taken in.
            for connection in held[1:]:
                connection.sendall(b"GET /missing HTTP/1.1\r\nHost: x\r\n\r\n")
            for connection in held[1:]:
                self.answered(connection, send=False)
            newcomer = http.client.HTTPConnection("127.0.0.1", server.port, timeout=30)
            newcomer.request("GET", "/index.html")
            self.assertEqual(200, newcomer.getresponse().status)
            newcomer.close()
            held[0].settimeout(10)
            self.assertEqual(b"", held[0].recv(1), "the connection idle longest was closed")
            self.assertEqual(0, server.stop())
        finally:
            for connection in held:
                connection.close()
            server.stop(signal.SIGKILL, 1)
            resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def find_chromium():
    for name in ("chromium", "chromium-browser", "google-chrome"):
        path = shutil.which(name)
        if path:
            return path
    return None


def dump_dom(browser, profile, url, *flags):
    command = [browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
               "--disable-background-networking", "--disable-component-update", "--disable-sync",
               "--disable-dev-shm-usage", "--user-data-dir=" + profile, "--virtual-time-budget=5000"] + list(flags)
    result = subprocess.run(command + ["--dump-dom", url], capture_output=True, text=True, timeout=120, check=False)
    return result.stdout


class ChromiumTest(unittest.TestCase):
    def setUp(self):
        self.browser = find_chromium()
        self.server = Server()
        self.profile = tempfile.mkdtemp(prefix="nvq-chromium-")

    def tearDown(self):
        shutil.rmtree(self.profile, ignore_errors=True)
        self.assertEqual(0, self.server.stop())

    def dump_dom(self, path):
        return dump_dom(self.browser, self.profile, self.server.url(path))

    def test_index_page_loads_stylesheet_script_and_image(self):
        dom = self.dump_dom("/index.html")
        self.assertIn("script: ran", dom)
        self.assertIn("stylesheet: applied", dom)
        self.assertIn("image: loaded 96px", dom)

    def test_log_page_shows_log_lines(self):
        dom = self.dump_dom("/log.html")
        self.assertRegex(dom, r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d - ")
        self.assertIn("create connection point", dom)


class SigtermTest(unittest.TestCase):
    def test_clean_exit_while_a_client_downloads(self):
        server = Server({"huge.bin": b"h" * (64 * 1024 * 1024)})
        client = socket.create_connection(("127.0.0.1", server.port))
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        client.sendall(b"GET /huge.bin HTTP/1.1\r\nHost: x\r\n\r\n")
        self.assertTrue(client.recv(4096).startswith(b"HTTP/1.1 200 OK"))
        time.sleep(0.3)  # the download is under way, held back by the slow reader
        started = time.time()
        code = server.stop(signal.SIGTERM, timeout=10)
        self.assertEqual(0, code)
        self.assertLess(time.time() - started, 5)
        client.close()

    def test_bad_flag_and_port_in_use_fail_in_one_line(self):
        result = subprocess.run(EMULATOR + [NVQ_HTTPD, "--bogus"], capture_output=True, text=True, timeout=10)
        self.assertNotEqual(0, result.returncode)
        self.assertIn("unknown flag", result.stderr.splitlines()[0])
        taken = socket.socket()
        taken.bind(("0.0.0.0", 0))
        taken.listen()
        port = taken.getsockname()[1]
        result = subprocess.run(EMULATOR + [NVQ_HTTPD, "--port", str(port), "--root", SITE_DIR], capture_output=True,
                                text=True, timeout=10)
        taken.close()
        self.assertNotEqual(0, result.returncode)
        self.assertEqual(1, len(result.stderr.splitlines()), result.stderr)
        self.assertIn(str(port), result.stderr)


def make_certificates(directory):
    """A test CA and two certificates it signed for localhost, named first and second."""
    def new(name, *args):
        subprocess.run(["openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                        "-keyout", name + ".key", "-subj", "/CN=" + name] + list(args),
                       cwd=directory, check=True, capture_output=True)
    new("ca", "-x509", "-days", "2", "-out", "ca.pem")
    with open(os.path.join(directory, "ext"), "w") as f:
        f.write("subjectAltName=DNS:localhost,IP:127.0.0.1\n")
    for name in ("first", "second"):
        new(name, "-out", name + ".csr")
        subprocess.run(["openssl", "x509", "-req", "-in", name + ".csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                        "-CAcreateserial", "-days", "2", "-extfile", "ext", "-out", name + ".pem"],
                       cwd=directory, check=True, capture_output=True)


class TlsTest(unittest.TestCase):
    """HTTPS next to plain HTTP, with the test CA's certificate."""

    def setUp(self):
        self.certs = tempfile.mkdtemp(prefix="nvq-e2e-tls-")
        make_certificates(self.certs)
        self.cert, self.key = os.path.join(self.certs, "cert.pem"), os.path.join(self.certs, "key.pem")
        self.use("first")
        self.ca = os.path.join(self.certs, "ca.pem")
        self.server = Server({"big.bin": BIG, "small.txt": SMALL},
                             ["--tls-cert", self.cert, "--tls-key", self.key, "--tls-port", "0"])
        self.context = ssl.create_default_context(cafile=self.ca)
        self.context.set_alpn_protocols(["h2", "http/1.1"])

    def tearDown(self):
        self.assertEqual(0, self.server.stop())
        shutil.rmtree(self.certs, ignore_errors=True)

    def use(self, name):
        shutil.copy(os.path.join(self.certs, name + ".pem"), self.cert)
        shutil.copy(os.path.join(self.certs, name + ".key"), self.key)

    def url(self, path):
        return "https://localhost:%d%s" % (self.server.tls_port, path)

    def connect(self):
        return http.client.HTTPSConnection("localhost", self.server.tls_port, timeout=30, context=self.context)

    def test_curl_with_the_test_ca(self):
        self.assertEqual(SMALL, curl("--cacert", self.ca, self.url("/small.txt")).stdout)
        big = curl("--cacert", self.ca, self.url("/big.bin")).stdout
        self.assertEqual(hashlib.sha256(BIG).hexdigest(), hashlib.sha256(big).hexdigest())
        result = curl("--cacert", self.ca, "--output", "/dev/null", "--write-out", "%{http_code}",
                      self.url("/missing.html"))
        self.assertEqual(b"404", result.stdout)
        # Without the CA the certificate is refused; plain HTTP goes on beside.
        self.assertNotEqual(0, curl(self.url("/small.txt")).returncode)
        self.assertEqual(SMALL, curl(self.server.url("/small.txt")).stdout)

    def test_answers_over_tls_are_the_bytes_of_plain_http(self):
        def answer(sock, to_close):
            data = b""
            while True:
                if not to_close and b"\r\n\r\n" in data:
                    head, _, body = data.partition(b"\r\n\r\n")
                    length = re.search(rb"Content-Length: *(\d+)", head)
                    if len(body) >= int(length.group(1) if length else 0):
                        return data
                piece = sock.recv(65536)
                if not piece:
                    return data
                data += piece

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
            expected = answer(plain, to_close)
            self.assertTrue(expected.startswith(b"HTTP/1.1 "), name)
            self.assertEqual(expected, answer(secure, to_close), name)
        self.assertTrue(expected.endswith(BIG))
        plain.close()
        secure.close()

    def test_sighup_renews_the_certificate_while_a_client_stays_connected(self):
        held = self.connect()
        held.request("GET", "/small.txt")
        held.getresponse().read()
        self.assertIn((("commonName", "first"),), held.sock.getpeercert()["subject"])
        self.use("second")
        self.server.process.send_signal(signal.SIGHUP)
        deadline = time.time() + 10
        while not any("certificate reloaded" in line for line in self.server.log) and time.time() < deadline:
            time.sleep(0.05)
        fresh = self.connect()
        fresh.request("GET", "/small.txt")
        self.assertEqual(SMALL, fresh.getresponse().read())
        self.assertIn((("commonName", "second"),), fresh.sock.getpeercert()["subject"])
        # Reloads racing handshakes on the loops: every newcomer is served.
        answers = []

        def newcomers():
            for _ in range(20):
                connection = self.connect()
                connection.request("GET", "/small.txt")
                answers.append(connection.getresponse().read())
                connection.close()
        clients = threading.Thread(target=newcomers)
        clients.start()
        for _ in range(10):
            self.server.process.send_signal(signal.SIGHUP)
            time.sleep(0.02)
        clients.join()
        self.assertEqual([SMALL] * 20, answers)
        held.request("GET", "/small.txt")
        self.assertEqual(SMALL, held.getresponse().read())
        fresh.close()
        held.close()

    def test_chromium_loads_the_page_over_https(self):
        browser = find_chromium()
        if browser is None:
            self.skipTest("Chromium is not installed")
        profile = tempfile.mkdtemp(prefix="nvq-chromium-")
        dom = dump_dom(browser, profile, self.url("/index.html"), "--ignore-certificate-errors")
        shutil.rmtree(profile, ignore_errors=True)
        self.assertIn("script: ran", dom)
        self.assertIn("stylesheet: applied", dom)
        self.assertIn("image: loaded 96px", dom)


GROUPS = {"curl": CurlTest, "http_client": HttpClientTest, "chromium": ChromiumTest, "sigterm": SigtermTest,
          "cap": CapTest, "tls": TlsTest}


def main():
    global NVQ_HTTPD, SITE_DIR, EMULATOR
    if len(sys.argv) < 4 or sys.argv[3] not in GROUPS:
        print(__doc__, file=sys.stderr)
        return 2
    NVQ_HTTPD, SITE_DIR, group = sys.argv[1], sys.argv[2], sys.argv[3]
    EMULATOR = sys.argv[4:]
    if group == "curl" and not shutil.which("curl"):
        print("SKIPPED: curl is not installed")
        return SKIPPED
    if group == "tls" and not (shutil.which("openssl") and shutil.which("curl")):
        print("SKIPPED: the openssl command or curl is not installed")
        return SKIPPED
    if group == "chromium" and not find_chromium():
        print("SKIPPED: Chromium is not installed")
        return SKIPPED
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(GROUPS[group])
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
