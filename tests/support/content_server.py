#!/usr/bin/env python3
"""A content server for tests, on 127.0.0.1, that can misbehave.

It serves a directory over HTTP, or HTTPS with a certificate, prints its port on
the first line of standard output, and writes the path of every request as a line
into a log; what is answered otherwise than with the whole file is told behind it,
as "304" or "from BYTE". Files have an ETag. A file of faults, read anew at each
request, says what to do otherwise. Each of its lines is a path pattern (as of
fnmatch), a fault and the fault's number; the first line that matches counts:

    /update.ini  stall 10      send so many bytes, then nothing more
    /TileAd/v2   cut 100       send so many bytes, then close the connection
    /images/*    norange       send the whole file whatever is asked for
    /images/*    shift 10      answer a range with one that starts so much later
    *            noetag        give no ETag
    *            endless       send bytes without an end
    *            garbage       answer with bytes that are not HTTP
    *            status 404    answer with that status and a page in HTML
    *            redirect      redirect to the same path, for ever
    *            declare 10    give that Content-Length, and all of the bytes
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

PAGE = b"<html><body>Please log in to use this network.</body></html>\n"


def read_fault(faults, path):
    """Gives the fault of a path and its number, or none."""
    if faults and os.path.exists(faults):
        with open(faults, encoding="utf-8") as lines:
            for words in map(str.split, lines):
                if len(words) >= 2 and fnmatch.fnmatch(path, words[0]):
                    return words[1], int(words[2]) if len(words) > 2 else 0
    return None, 0


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        fault, number = read_fault(self.server.faults, self.path)
        self.close_connection = True
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            if fault == "status":
                self.answer([], number, PAGE)
            elif fault == "redirect":
                self.answer([], 302, b"", Location=self.path)
            elif fault == "garbage":
                self.answer([], None, bytes(range(255, -1, -1)) * 16)
            elif fault == "endless":
                self.answer([], 200, b"", length=None)
                while True:
                    self.wfile.write(bytes(4096))
            else:
                self.answer_with_file(fault, number)

    def answer_with_file(self, fault, number):
        name = posixpath.normpath(self.path).lstrip("/")
        try:
            with open(os.path.join(self.server.directory, name), "rb") as file:
                body = file.read()
        except OSError:
            self.answer([], 404, PAGE)
            return
        etag = '"%s"' % hashlib.sha256(body).hexdigest()[:16] if fault != "noetag" else None
        if etag and self.headers.get("If-None-Match") == etag:
            self.answer([304], 304, b"", length=None, ETag=etag)
            return
        size = len(body)
        wanted = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range", ""))
        if wanted and fault != "norange" and self.headers.get("If-Range", etag) == etag:
            start = int(wanted[1])
            first = start + (number if fault == "shift" else 0)
            body = (body[first:] + body)[: size - start]  # a shift keeps the length
            told, status = ["from", start], 206
            content_range = "bytes %d-%d/%d" % (first, size - 1, size)
        else:
            told, status, content_range = [], 200, None
        length = number if fault == "declare" else len(body)
        sent = body[:number] if fault in ("stall", "cut") else body
        headers = {"ETag": etag, "Content-Range": content_range}
        self.answer(told, status, sent, length, **headers)
        if fault == "stall":
            self.rfile.read()  # until the other side gives up

    def answer(self, told, status, body, length=-1, **headers):
        """Logs a request and sends a head, of no status for none, and a body."""
        with open(self.server.log, "a", encoding="utf-8") as log:
            log.write(" ".join(map(str, [self.path, *told])) + "\n")
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


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("directory", help="what to serve")
    parser.add_argument("--log", default=os.devnull, help="file for the requests' paths")
    parser.add_argument("--faults", help="file of faults; need not be there yet")
    parser.add_argument("--certificate", help="PEM file of a certificate and its key: HTTPS")
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    parser.parse_args(namespace=server)
    if server.certificate:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(server.certificate)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print(server.server_port, flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
