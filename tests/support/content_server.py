#!/usr/bin/env python3
"""A content server for tests, on 127.0.0.1, that can misbehave.

It serves a directory over HTTP, or HTTPS with a certificate, prints its port on the
first line of standard output, and appends a line to a log for each request: its path,
then "304" if the client has the file, "modified" if it has another one, "from BYTE" if
only the rest was sent, and "authorized" if the request had credentials. Files have an
ETag. A file of faults, read anew for each request, makes it misbehave. Each line is a
path pattern (see fnmatch), a fault and its argument; the first one that matches counts:

    /update.ini  stall 10      send so many bytes, then nothing more
    /TileAd/v2   cut 100       send so many bytes, then close the connection
    /images/*    norange       send the whole file whatever range is requested
    /images/*    shift 10      answer a range with one that starts so much later
    *            noetag        send no ETag; with a number, cut as well
    *            endless       send bytes without end
    *            drip          send a byte ten times a second
    *            garbage       answer with bytes that are not HTTP
    *            status 404    answer with that status and an HTML page
    *            redirect      redirect to the same path, for ever, or to the given URL
    *            declare 10    send that Content-Length, and all of the bytes
"""

import argparse
import contextlib
import fnmatch
import hashlib
import http.server
import os
import posixpath
import re
import ssl
import time

PAGE = b"<html><body>Please log in to use this network.</body></html>\n"


def read_fault(faults, path):
    """Returns the fault of a path and its argument, or none."""
    if faults and os.path.exists(faults):
        with open(faults, encoding="utf-8") as lines:
            for words in map(str.split, lines):
                if len(words) >= 2 and fnmatch.fnmatch(path, words[0]):
                    return words[1], words[2] if len(words) > 2 else ""
    return None, ""


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        fault, argument = read_fault(self.server.faults, self.path)
        self.close_connection = True
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            if fault == "status":
                self.answer([], int(argument), PAGE)
            elif fault == "redirect":
                self.answer([], 302, b"", Location=argument or self.path)
            elif fault == "garbage":
                self.answer([], None, bytes(range(255, -1, -1)) * 16)
            elif fault == "endless":
                self.answer([], 200, b"", length=None)
                while True:
                    self.wfile.write(bytes(4096))
            else:
                self.answer_with_file(fault, int(argument) if argument else None)

    def answer_with_file(self, fault, number):
        name = posixpath.normpath(self.path).lstrip("/")
        try:
            with open(os.path.join(self.server.directory, name), "rb") as file:
                body = file.read()
        except OSError:
            self.answer([], 404, PAGE)
            return
        etag = f'"{hashlib.sha256(body).hexdigest()[:16]}"' if fault != "noetag" else None
        if etag and self.headers.get("If-None-Match") == etag:
            self.answer([304], 304, b"", length=None, ETag=etag)
            return
        logged = ["modified"] if "If-None-Match" in self.headers else []
        size = len(body)
        requested = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range", ""))
        if requested and fault != "norange" and self.headers.get("If-Range", etag) == etag:
            start = int(requested[1])
            first = start + (number if fault == "shift" else 0)
            body = (body[first:] + body)[: size - start]  # a shift keeps the length
            logged, status = ["from", start], 206
            content_range = f"bytes {first}-{size - 1}/{size}"
        else:
            status, content_range = 200, None
        length = number if fault == "declare" else len(body)
        sent = body[:number] if fault in ("stall", "cut", "noetag") else body
        headers = {"ETag": etag, "Content-Range": content_range}
        self.answer(logged, status, sent[:0] if fault == "drip" else sent, length, **headers)
        if fault == "drip":
            for byte in sent:
                time.sleep(0.1)
                self.wfile.write(bytes([byte]))
        if fault == "stall":
            self.rfile.read()  # until the client gives up

    def answer(self, logged, status, body, length=-1, **headers):
        """Logs the request and sends a head, unless the status is none, and a body."""
        if "Authorization" in self.headers:
            logged.append("authorized")
        with open(self.server.log, "a", encoding="utf-8") as log:
            log.write(" ".join(map(str, [self.path, *logged])) + "\n")
        if status:
            self.send_response(status)
            headers["Content-Length"] = len(body) if length == -1 else length
            for name, value in headers.items():
                if value is not None:
                    self.send_header(name, str(value))
            self.send_header("Connection", "close")
            self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, directory, log=os.devnull, faults=None, certificate=None):
        super().__init__(("127.0.0.1", 0), Handler)
        self.directory, self.log, self.faults = directory, log, faults
        if certificate:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(certificate)
            self.socket = context.wrap_socket(self.socket, server_side=True)

    def handle_error(self, *_):
        """Ignores clients that abort a TLS handshake."""


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("directory", help="what to serve")
    parser.add_argument("--log", default=os.devnull, help="file for the requests")
    parser.add_argument("--faults", help="file of faults; need not exist yet")
    parser.add_argument("--certificate", help="PEM file of a certificate and its key: HTTPS")
    server = Server(**vars(parser.parse_args()))
    print(server.server_port, flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
