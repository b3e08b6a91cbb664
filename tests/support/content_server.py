#!/usr/bin/env python3
"""A content server for tests, on 127.0.0.1, that can misbehave.

It serves a directory over HTTP, or HTTPS with a certificate, prints its port on
the first line of standard output, and writes the path of every request as a line
into a log; what is answered otherwise than with the whole file is told behind it,
as "304" or "from BYTE". Files have an ETag. A file of faults, read anew at each request, says what to do otherwise. Each of its lines
is a path pattern (as of fnmatch), a fault and the fault's number; the first line
that matches counts:

    /images/*    slow 1000     send so many bytes a second
    /update.ini  stall 10      send so many bytes, then nothing more
    /TileAd/v2   cut 100       send so many bytes, then close the connection
    /images/*    norange       send the whole file whatever is asked for
    /images/*    shift 10      answer a range with one that starts so much later
    *            noetag        give no ETag
    *            endless       send bytes without an end
    *            garbage       answer with bytes that are not HTTP
    *            status 404    answer with that status and a page that says so
    *            redirect      redirect to the same path, for ever
    *            declare 10    give that Content-Length, and all of the bytes
    *            login         answer every path with a page in HTML
"""

import argparse
import fnmatch
import hashlib
import http.server
import os
import posixpath
import re
import ssl
import sys
import time
import urllib.parse

ALL_FAULTS = ("status", "login", "redirect", "garbage", "endless")
PAGE = b"<html><body>Please log in to use this network.</body></html>\n"
PIECE = 4096


def read_fault(faults, path):
    """Gives the fault of a path and its number, or none."""
    if not faults or not os.path.exists(faults):
        return None, 0
    with open(faults, encoding="utf-8") as lines:
        for line in lines:
            words = line.split()
            if len(words) >= 2 and fnmatch.fnmatch(path, words[0]):
                return words[1], int(words[2]) if len(words) > 2 else 0
    return None, 0


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        path = urllib.parse.urlsplit(self.path).path
        self.close_connection = True
        fault, number = read_fault(self.server.faults, path)
        try:
            if fault in ALL_FAULTS:
                self.log_request_line(path)
                self.answer_with_fault(fault, number, path)
            else:
                self.answer_with_file(path, fault, number)
        except (BrokenPipeError, ConnectionResetError):
            pass

    def answer_with_fault(self, fault, number, path):
        """Sends what has nothing to do with a file."""
        if fault == "status":
            self.send_page(number)
        elif fault == "login":
            self.send_page(200)
        elif fault == "redirect":
            self.send_headers(302, 0, Location=path)
        elif fault == "garbage":
            self.wfile.write(bytes(range(255, -1, -1)) * 16)
        elif fault == "endless":
            self.send_headers(200, None)
            while True:
                self.wfile.write(bytes(PIECE))

    def log_request_line(self, *words):
        with open(self.server.log, "a", encoding="utf-8") as log:
            log.write(" ".join(map(str, words)) + "\n")

    def answer_with_file(self, path, fault, number):
        name = posixpath.normpath(path).lstrip("/")
        try:
            with open(os.path.join(self.server.directory, name), "rb") as file:
                body = file.read()
        except OSError:
            self.log_request_line(path)
            self.send_page(404)
            return
        headers = {}
        if fault != "noetag":
            headers["ETag"] = '"%s"' % hashlib.sha256(body).hexdigest()[:16]
        if self.headers.get("If-None-Match") == headers.get("ETag", ""):
            self.log_request_line(path, 304)
            self.send_headers(304, None, **headers)
            return
        start = self.range_start(headers.get("ETag")) if fault != "norange" else None
        if start is not None and start >= len(body):
            self.log_request_line(path, 416)
            self.send_page(416)
            return
        if start is None:
            self.log_request_line(path)
            self.send_headers(200, number if fault == "declare" else len(body), **headers)
        else:
            self.log_request_line(path, "from", start)
            first = start + (number if fault == "shift" else 0)
            headers["Content-Range"] = "bytes %d-%d/%d" % (first, len(body) - 1, len(body))
            body = (body[first:] + body)[: len(body) - start]  # a shift keeps the length
            self.send_headers(206, len(body), **headers)
        self.send_body(body, fault, number)

    def range_start(self, etag):
        """Gives where the answer starts, none for a whole file."""
        wanted = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range", ""))
        if not wanted or self.headers.get("If-Range", etag) != etag:
            return None
        return int(wanted[1])

    def send_body(self, body, fault, number):
        if fault == "slow":
            self.send_slowly(body, number)
        elif fault in ("stall", "cut"):
            self.wfile.write(body[:number])
            self.wfile.flush()
            if fault == "stall":
                self.rfile.read()  # until the other side gives up
        else:
            self.wfile.write(body)

    def send_slowly(self, body, bytes_per_second):
        piece = max(1, bytes_per_second // 10)
        for start in range(0, len(body), piece):
            self.wfile.write(body[start : start + piece])
            time.sleep(0.1)

    def send_page(self, status):
        self.send_headers(status, len(PAGE))
        self.wfile.write(PAGE)

    def send_headers(self, status, length, **headers):
        self.send_response(status)
        if length is not None:
            self.send_header("Content-Length", str(length))
        for name, value in headers.items():
            self.send_header(name, value)
        self.send_header("Connection", "close")
        self.end_headers()

    def log_message(self, *_):
        pass


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("directory", help="what to serve")
    parser.add_argument("--log", default=os.devnull, help="file for the requests' paths")
    parser.add_argument("--faults", help="file of faults; need not be there yet")
    parser.add_argument("--certificate", help="PEM file of a certificate and its key: HTTPS")
    parser.add_argument("--port", type=int, default=0, help="default: a free one")
    arguments = parser.parse_args()

    server = http.server.ThreadingHTTPServer(("127.0.0.1", arguments.port), Handler)
    server.daemon_threads = True
    server.directory = arguments.directory
    server.log = arguments.log
    server.faults = arguments.faults
    if arguments.certificate:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(arguments.certificate)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print(server.server_port, flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        sys.exit(0)


if __name__ == "__main__":
    main()
