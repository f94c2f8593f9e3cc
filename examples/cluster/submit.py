#!/usr/bin/env python3
"""Submits each line of standard input as a job, and prints what becomes of it.

usage: submit.py HOST[:PORT]|SOCKET QUEUE < lines
"""
import sys
import uuid

import redis

where, queue = sys.argv[1:]
host, _, port = where.partition(":")
at = {"unix_socket_path": where} if "/" in where else {"host": host, "port": int(port or 6379)}
server = redis.Redis(**at)

prefix = f"nq:{{{queue}}}:"
client = f"python-{uuid.uuid4()}"
waiting = {}
for number, line in enumerate(sys.stdin.buffer, 1):
    waiting[number] = job = line.rstrip(b"\n")
    fields = {"v": 1, "client": client, "id": number, "attempt": 1, "job": job}
    server.xadd(prefix + "jobs", fields)

last = "0"
while waiting:
    for _, outcomes in server.xread({prefix + "out:" + client: last}, block=1000):
        for last, outcome in outcomes:
            job = waiting.pop(int(outcome[b"id"]), None)
            if job is not None and outcome[b"state"] == b"done":
                print(job.decode(), outcome[b"bytes"].decode(), sep=": ", flush=True)
            elif job is not None:
                print(job.decode(), outcome[b"reason"].decode(), sep=" failed: ", flush=True)
            server.xdel(prefix + "out:" + client, last)
