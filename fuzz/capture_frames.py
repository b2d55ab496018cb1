#!/usr/bin/env python3
"""Relays connections between a client and the daemon's control socket and
saves every frame that crosses, each as one file, for the seed corpora.

    fuzz/capture_frames.py LISTEN_PATH DAEMON_PATH OUT_DIR

Run a client against LISTEN_PATH (teskctl --socket LISTEN_PATH ...). Files
are named <connection>-<c2d|d2c>-<sequence>-<type>.bin. Stop with Ctrl-C.
"""
import os
import socket
import struct
import sys
import threading

HEADER = 24
TYPES = {1: "invoke", 2: "reply", 3: "release"}


def relay(src, dst, out_dir, prefix):
    pending = b""
    sequence = 0
    while True:
        try:
            data = src.recv(65536)
        except OSError:
            data = b""
        if not data:
            break
        dst.sendall(data)
        pending += data
        while len(pending) >= HEADER:
            body_size, kind = struct.unpack_from("<IB", pending)
            end = HEADER + body_size
            if len(pending) < end:
                break
            name = "%s-%03d-%s.bin" % (prefix, sequence, TYPES.get(kind, "bad"))
            with open(os.path.join(out_dir, name), "wb") as f:
                f.write(pending[:end])
            pending = pending[end:]
            sequence += 1
    for s in (src, dst):
        try:
            s.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def main():
    listen_path, daemon_path, out_dir = sys.argv[1:4]
    os.makedirs(out_dir, exist_ok=True)
    if os.path.exists(listen_path):
        os.unlink(listen_path)
    server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    server.bind(listen_path)
    server.listen(16)
    connection = 0
    while True:
        client, _ = server.accept()
        daemon = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        daemon.connect(daemon_path)
        prefix = "%02d" % connection
        connection += 1
        for src, dst, way in ((client, daemon, "c2d"), (daemon, client, "d2c")):
            threading.Thread(target=relay, args=(src, dst, out_dir, prefix + "-" + way),
                             daemon=True).start()


if __name__ == "__main__":
    main()
