#!/usr/bin/env python3
"""Calls a method over the router's session socket: client.py hello.Say '{"name":"you"}'"""
import json, os, socket, sys

session = socket.socket(socket.AF_UNIX)
session.connect(os.environ.get("TAVRIX_SESSION", "/run/tavrix/session.sock"))
lines = session.makefile("rw", encoding="utf-8")
params = json.loads(sys.argv[2]) if len(sys.argv) > 2 else {}
print(json.dumps({"jsonrpc": "2.0", "id": 1, "method": sys.argv[1], "params": params}), file=lines, flush=True)
response = json.loads(lines.readline())
print(json.dumps(response.get("result", response.get("error"))))
sys.exit("error" in response)
